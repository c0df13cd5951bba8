/* The Wan area: four sections, no table. */
#include <sysconfig/core.h>

#include "core/area.h"

using namespace sc;

uint32_t SC_Get_Wan_System_Config(void) { return attach_area(kWan); }

int SC_Uninit_System_Wan_Config(void) { return remove_area(kWan); }

int SC_Init_System_Wan_Config(int read_flag) { return init_area(read_flag, kWan); }

int SC_Read_System_Wan_Config(WanBlock* block) { return load_area(block, kWan); }

void SC_Save_System_Wan_Config(void) { announce_area(kWan); }

void SC_Save_System_Wan_Config2Flash(WanBlock* block) { save_area(block, kWan); }
