/* Port forwarding. Its delete-all is also what empties the IP filter (ip_filter.cc). */
#include <sysconfig/filter.h>

#include "core/area.h"
#include "core/rows.h"

using namespace sc;

namespace {

/* Required: the item has its numbers and options in another order. */
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
    .item_size = SC_ITEM_SIZE(PortFwItem, VsIpportBlock, rules),
};

}  // namespace

uint32_t SC_Get_VsIpport_System_Config(void) { return get(kVsIpport); }

int SC_Uninit_System_VsIpport_Config(void) { return uninit(kVsIpport); }

int SC_Init_System_VsIpport_Config(int read_flag) { return init(read_flag, kVsIpport); }

int SC_Read_System_VsIpport_Config(VsIpportBlock* block) { return read(block, kVsIpport); }

void SC_Save_System_VsIpport_Config(void) { save(kVsIpport); }

void SC_Save_System_VsIpport_Config2Flash(VsIpportBlock* block) { save_to_flash(block, kVsIpport); }

int32_t SC_Operate_System_List_ForwordIpPort(VsIpportBlock* block, uint32_t op, uint32_t* index,
                                             const PortFwRecord* record) {
  return operate(block, op, index, record, kPortForwards.table);
}

int32_t SC_Operate_System_List_GetForwordIpPort_Blank(VsIpportBlock* block) {
  return claim(block, kPortForwards.table.geometry);
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

void DelPortFwItem(VsIpportBlock* block, char* ids) { delete_items(block, ids, kPortForwards); }

void DelAllPortFwItem(VsIpportBlock* block) { delete_all_items(block, kPortForwards); }
