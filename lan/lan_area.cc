/* The Lan area: settings and two tables of DHCP bindings (binds.cc). */
#include <sysconfig/lan.h>

#include "core/area.h"

using namespace sc;

uint32_t SC_Get_Lan_System_Config(void) { return attach_area(kLan); }

int SC_Uninit_System_Lan_Config(void) { return remove_area(kLan); }

int SC_Init_System_Lan_Config(int read_flag) { return init_area(read_flag, kLan); }

int SC_Read_System_Lan_Config(LanBlock* block) { return load_area(block, kLan); }

void SC_Save_System_Lan_Config(void) { announce_area(kLan); }

void SC_Save_System_Lan_Config2Flash(LanBlock* block) { save_area(block, kLan); }
