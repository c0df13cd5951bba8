/* Port forwarding. Its delete-all is also what empties the IP filter (ip_filter.cc). */
#include <sysconfig/filter.h>

#include "core/area.h"
#include "core/rows.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(PortFwRecord, leading_text, PortFwItem, leading_text),
    SC_FIELD(PortFwRecord, ip_addr, PortFwItem, ip_text),
    SC_FIELD(PortFwRecord, option_1, PortFwItem, option_1),
    SC_FIELD(PortFwRecord, number_1, PortFwItem, number_1),
    SC_FIELD(PortFwRecord, number_2, PortFwItem, number_2),
    SC_FIELD(PortFwRecord, number_3, PortFwItem, number_3),
    SC_FIELD(PortFwRecord, number_4, PortFwItem, number_4),
    SC_FIELD(PortFwRecord, option_2, PortFwItem, option_2),
    SC_FIELD(PortFwRecord, option_3, PortFwItem, option_3),
    SC_FIELD(PortFwRecord, trailing_text, PortFwItem, trailing_text),
};

constexpr List kPortForwards = {
    .table = {.geometry = SC_GEOMETRY(VsIpportBlock, rules),
              .modify_range = SC_LIST_MOD_RANGE,

              .payload = payload(kFields)},
    .code = SC_CODE_VS_IPPORT,
    .counter = SC_COUNTER(VsIpportBlock, rule_count),
    .item_size = sizeof(PortFwItem),
};

}  // namespace

uint32_t SC_Get_VsIpport_System_Config(void) { return get(kVsIpport); }

int SC_Uninit_System_VsIpport_Config(void) { return uninit(kVsIpport); }

int SC_Init_System_VsIpport_Config(int read_flag) { return init(kVsIpport, read_flag); }

int SC_Read_System_VsIpport_Config(VsIpportBlock* block) { return read(kVsIpport, block); }

void SC_Save_System_VsIpport_Config(void) { save(kVsIpport); }

void SC_Save_System_VsIpport_Config2Flash(VsIpportBlock* block) { save_to_flash(kVsIpport, block); }

int32_t SC_Operate_System_List_ForwordIpPort(VsIpportBlock* block, uint32_t op, uint32_t* index,
                                             const PortFwRecord* record) {
  return operate(kPortForwards.table, block, op, index, record);
}

int32_t SC_Operate_System_List_GetForwordIpPort_Blank(VsIpportBlock* block) {
  return claim(kPortForwards.table.geometry, block);
}

void GetPortFwItemList(const VsIpportBlock* block, PortFwItemList* list) {
  get_items(kPortForwards, block, list);
}

void GetPortFwItem(const VsIpportBlock* block, uint32_t id, PortFwItem* item) {
  get_item(kPortForwards, block, id, item);
}

int32_t AddPortFwItem(VsIpportBlock* block, const PortFwItem* item) {
  return add_item(kPortForwards, block, item);
}

int32_t ModifyPortFwItem(VsIpportBlock* block, const PortFwItem* item) {
  return modify_item(kPortForwards, block, item);
}

void DelPortFwItem(VsIpportBlock* block, char* ids) { delete_items(kPortForwards, block, ids); }

void DelAllPortFwItem(VsIpportBlock* block) { delete_all_items(kPortForwards, block); }
