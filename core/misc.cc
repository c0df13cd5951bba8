/* The Misc area: five sections, no table. */
#include <sysconfig/core.h>

#include "core/area.h"

using namespace sc;

uint32_t SC_Get_Misc_System_Config(void) { return attach_area(kMisc); }

int SC_Uninit_System_Misc_Config(void) { return remove_area(kMisc); }

int SC_Init_System_Misc_Config(int read_flag) { return init_area(read_flag, kMisc); }

int SC_Read_System_Misc_Config(MiscBlock* block) { return load_area(block, kMisc); }

void SC_Save_System_Misc_Config(void) { announce_area(kMisc); }

void SC_Save_System_Misc_Config2Flash(MiscBlock* block) { save_area(block, kMisc); }
