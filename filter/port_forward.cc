/* Port forwarding. DelAllIpFilterItem (ip_filter.cc) calls its delete-all, too. */
#include <sysconfig/filter.h>

#include "core/area.h"
#include "filter/rows.h"

using namespace sc;

uint32_t SC_Get_VsIpport_System_Config(void) { return attach_area(kVsIpport); }

int SC_Uninit_System_VsIpport_Config(void) { return remove_area(kVsIpport); }

int SC_Init_System_VsIpport_Config(int read_flag) { return init_area(read_flag, kVsIpport); }

int SC_Read_System_VsIpport_Config(VsIpportBlock* block) { return load_area(block, kVsIpport); }

void SC_Save_System_VsIpport_Config(void) { announce_area(kVsIpport); }

void SC_Save_System_VsIpport_Config2Flash(VsIpportBlock* block) { save_area(block, kVsIpport); }

int32_t SC_Operate_System_List_ForwordIpPort(VsIpportBlock* block, uint32_t op, uint32_t* position,
                                             const PortFwRecord* record) {
  return operate(block, op, position, record, kPortForwards.list.table);
}

int32_t SC_Operate_System_List_GetForwordIpPort_Blank(VsIpportBlock* block) {
  return claim(block, kPortForwards.list.table.geometry);
}

void GetPortFwItemList(const VsIpportBlock* block, PortFwItemList* list) {
  get_items(block, list, kPortForwards);
}

void GetPortFwItem(const VsIpportBlock* block, uint32_t id, PortFwItem* item) {
  get_item(block, id, item, kPortForwards);
}

int32_t AddPortFwItem(VsIpportBlock* block, const PortFwItem* item) {
  return add_item(block, item, kPortForwards);
}

int32_t ModifyPortFwItem(VsIpportBlock* block, const PortFwItem* item) {
  return modify_item(block, item, kPortForwards);
}

void DelPortFwItem(VsIpportBlock* block, char* ids) {
  delete_items(block, ids, kPortForwards.list);
}

void DelAllPortFwItem(VsIpportBlock* block) { delete_all_items(block, kPortForwards.list); }
