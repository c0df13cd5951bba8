/* The Lan area: settings and two tables of DHCP bindings (binds.cc). */
#include <sysconfig/lan.h>

#include "core/area.h"

using namespace sc;

uint32_t SC_Get_Lan_System_Config(void) { return get(kLan); }

int SC_Uninit_System_Lan_Config(void) { return uninit(kLan); }

int SC_Init_System_Lan_Config(int read_flag) { return init(read_flag, kLan); }

int SC_Read_System_Lan_Config(LanBlock* block) { return read(block, kLan); }

void SC_Save_System_Lan_Config(void) { save(kLan); }

void SC_Save_System_Lan_Config2Flash(LanBlock* block) { save_to_flash(block, kLan); }
