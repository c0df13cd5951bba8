/* The Wan area: four sections, no table. */
#include <sysconfig/core.h>

#include "core/area.h"

using namespace sc;

uint32_t SC_Get_Wan_System_Config(void) { return get(kWan); }

int SC_Uninit_System_Wan_Config(void) { return uninit(kWan); }

int SC_Init_System_Wan_Config(int read_flag) { return init(read_flag, kWan); }

int SC_Read_System_Wan_Config(WanBlock* block) { return read(block, kWan); }

void SC_Save_System_Wan_Config(void) { save(kWan); }

void SC_Save_System_Wan_Config2Flash(WanBlock* block) { save_to_flash(block, kWan); }
