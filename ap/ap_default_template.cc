/* The default template's area: settings without a table. */
#include <sysconfig/ap.h>

#include "core/area.h"

using namespace sc;

uint32_t SC_Get_DefApTemplate_System_Config(void) { return attach_area(kDefApTemplate); }

int SC_Uninit_System_DefApTemplate_Config(void) { return remove_area(kDefApTemplate); }

int SC_Init_System_DefApTemplate_Config(int read_flag) {
  return init_area(read_flag, kDefApTemplate);
}

int SC_Read_System_DefApTemplate_Config(DefApTemplateBlock* block) {
  return load_area(block, kDefApTemplate);
}

void SC_Save_System_DefApTemplate_Config(void) { announce_area(kDefApTemplate); }

void SC_Save_System_DefApTemplate_Config2Flash(DefApTemplateBlock* block) {
  save_area(block, kDefApTemplate);
}
