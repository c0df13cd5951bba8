/* The IP filter. Rules may refer to an IP group and to a time group; the listing shows a rule
 * with what it refers to. */
#include <sysconfig/filter.h>

#include "core/area.h"
#include "filter/groups.h"
#include "core/rows.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(IpFilterRecord, leading_text, IpFilterItem, leading_text),
    SC_FIELD(IpFilterRecord, ip_mode, IpFilterItem, ip_mode),
    SC_FIELD(IpFilterRecord, ip_group_id, IpFilterItem, ip_group_id),
    SC_FIELD(IpFilterRecord, start_addr, IpFilterItem, start_ip_text),
    SC_FIELD(IpFilterRecord, end_addr, IpFilterItem, end_ip_text),
    SC_FIELD(IpFilterRecord, param_1, IpFilterItem, param_1),
    SC_FIELD(IpFilterRecord, param_2, IpFilterItem, param_2),
    SC_FIELD(IpFilterRecord, param_byte, IpFilterItem, param_byte),
    SC_FIELD(IpFilterRecord, time_mode, IpFilterItem, time_mode),
    SC_FIELD(IpFilterRecord, time_group_id, IpFilterItem, time_group_id),
    SC_FIELD(IpFilterRecord, weekday, IpFilterItem, weekday),
    SC_FIELD(IpFilterRecord, start_time, IpFilterItem, start_time),
    SC_FIELD(IpFilterRecord, end_time, IpFilterItem, end_time),
    SC_FIELD(IpFilterRecord, rule_flag, IpFilterItem, rule_flag),
    SC_FIELD(IpFilterRecord, trailing_text, IpFilterItem, trailing_text),
};

constexpr List kIpFilters = {
    .table = {.geometry = SC_GEOMETRY(FwIpportBlock, rules),
              .modify_range = SC_LIST_MOD_RANGE,
              .payload = payload(kFields)},
    .code = SC_CODE_FW_IPPORT,
    .counter = SC_COUNTER(FwIpportBlock, rule_count),
    .item_size = SC_ITEM_SIZE(IpFilterItem, FwIpportBlock, rules),
};

constexpr Reference kIpGroupReference = SC_REFERENCE(IpFilterRecord, ip_mode, 1, ip_group_id);
/* Required: listed with its time group when time_mode is 1, deleted with it when it is 2. */
constexpr Reference kTimeGroupReference = SC_REFERENCE(IpFilterRecord, time_mode, 2, time_group_id);
constexpr Shown kShownIpGroup = SC_SHOWN(IpFilterItem, ip_mode, start_ip_text);
constexpr Shown kShownTimeGroup = SC_SHOWN(IpFilterItem, time_mode, weekday);

}  // namespace

uint32_t SC_Get_FwIpport_System_Config(void) { return get(kFwIpport); }

int SC_Uninit_System_FwIpport_Config(void) { return uninit(kFwIpport); }

int SC_Init_System_FwIpport_Config(int read_flag) { return init(read_flag, kFwIpport); }

int SC_Read_System_FwIpport_Config(FwIpportBlock* block) { return read(block, kFwIpport); }

void SC_Save_System_FwIpport_Config(void) { save(kFwIpport); }

void SC_Save_System_FwIpport_Config2Flash(FwIpportBlock* block) { save_to_flash(block, kFwIpport); }

int32_t SC_Operate_System_List_FireWall_IpPort(FwIpportBlock* block, uint32_t op, uint32_t* index,
                                               const IpFilterRecord* record) {
  return operate(block, op, index, record, kIpFilters.table);
}

int32_t SC_Operate_System_List_GetFireWall_IpPort_Blank(FwIpportBlock* block) {
  return claim(block, kIpFilters.table.geometry);
}

void GetIpFilterItemList(const FwIpportBlock* block, const IpGroupBlock* ip_groups,
                         const TimeGroupBlock* time_groups, IpFilterItemList* list) {
  uint32_t count = get_items(block, list, kIpFilters);
  show_ip_groups(kShownIpGroup, ip_groups, list->items, count);
  show_time_groups(kShownTimeGroup, time_groups, list->items, count);
}

void GetIpFilterItem(const FwIpportBlock* block, uint32_t id, IpFilterItem* item) {
  get_item(block, id, item, kIpFilters);
}

int32_t AddIpFilterItem(FwIpportBlock* block, const IpFilterItem* item) {
  return add_item(block, item, kIpFilters);
}

int32_t ModifyIpFilterItem(FwIpportBlock* block, const IpFilterItem* item) {
  return modify_item(block, item, kIpFilters);
}

void DelIpFilterItem(FwIpportBlock* block, char* ids) { delete_items(block, ids, kIpFilters); }

void DelIpFilterItemByIpGroupId(FwIpportBlock* block, int32_t ip_group_id) {
  delete_referring(block, ip_group_id, kIpFilters, kIpGroupReference);
}

void DelIpFilterItemByTimeGroupId(FwIpportBlock* block, int32_t time_group_id) {
  delete_referring(block, time_group_id, kIpFilters, kTimeGroupReference);
}

/* Required: walks the block as if it held the port-forwarding table, which is at the same place but
 * has shorter records. Only rule 0 is freed; the other 31 words of -1 fall into the spare bytes,
 * texts, times and addresses of other rules. Their own locks are taken by whatever word lies where
 * a port-forwarding record has its lock_index. */
void DelAllIpFilterItem(FwIpportBlock* block) {
  SC_Operate_System_List_ForwordIpPort(reinterpret_cast<VsIpportBlock*>(block), LIST_OP_DEL_ALL,
                                       nullptr, nullptr);
  block->rule_count = 0;
  save(kFwIpport);
}
