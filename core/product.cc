/* The product information area: settings without sections or tables. */
#include <sysconfig/core.h>

#include "core/area.h"

using namespace sc;

uint32_t SC_Get_ProductInfo_System_Config(void) { return attach_area(kProductInfo); }

int SC_Uninit_System_ProductInfo_Config(void) { return remove_area(kProductInfo); }

int SC_Init_System_ProductInfo_Config(int read_flag) { return init_area(read_flag, kProductInfo); }

int SC_Read_System_ProductInfo_Config(ProductInfoBlock* block) {
  return load_area(block, kProductInfo);
}

void SC_Save_System_ProductInfo_Config(void) { announce_area(kProductInfo); }

void SC_Save_System_ProductInfo_Config2Flash(ProductInfoBlock* block) {
  save_area(block, kProductInfo);
}
