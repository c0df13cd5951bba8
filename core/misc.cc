/* The Misc area: five sections, no table. */
#include <sysconfig/core.h>

#include "core/area.h"

using namespace sc;

uint32_t SC_Get_Misc_System_Config(void) { return get(kMisc); }

int SC_Uninit_System_Misc_Config(void) { return uninit(kMisc); }

int SC_Init_System_Misc_Config(int read_flag) { return init(read_flag, kMisc); }

int SC_Read_System_Misc_Config(MiscBlock* block) { return read(block, kMisc); }

void SC_Save_System_Misc_Config(void) { save(kMisc); }

void SC_Save_System_Misc_Config2Flash(MiscBlock* block) { save_to_flash(block, kMisc); }
