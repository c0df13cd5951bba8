/* The MAC filter. The listing shows a rule with the time group that it refers to. */
#include <sysconfig/rules.h>

#include "core/area.h"
#include "filter/groups.h"
#include "core/rows.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(MacFilterRecord, leading_text, MacFilterItem, leading_text),
    SC_FIELD(MacFilterRecord, mac, MacFilterItem, mac),
    SC_FIELD(MacFilterRecord, time_mode, MacFilterItem, time_mode),
    SC_FIELD(MacFilterRecord, time_group_id, MacFilterItem, time_group_id),
    SC_FIELD(MacFilterRecord, weekday, MacFilterItem, weekday),
    SC_FIELD(MacFilterRecord, start_time, MacFilterItem, start_time),
    SC_FIELD(MacFilterRecord, end_time, MacFilterItem, end_time),
    SC_FIELD(MacFilterRecord, rule_flag, MacFilterItem, rule_flag),
    SC_FIELD(MacFilterRecord, trailing_text, MacFilterItem, trailing_text),
};

constexpr List kMacFilters = {
    .table = {.geometry = SC_GEOMETRY(FwMacBlock, rules),
              .modify_range = SC_LIST_REJECTED /* Required: not SC_LIST_MOD_RANGE. */,
              .keys = {SC_TEXT_KEY(MacFilterRecord, mac)},
              .payload = payload(kFields)},
    .code = SC_CODE_FW_MAC,
    .counter = SC_COUNTER(FwMacBlock, rule_count),
    .item_size = SC_ITEM_SIZE(MacFilterItem, FwMacBlock, rules),
};

/* Required: listed with its time group when time_mode is 1, deleted with it when it is 2. */
constexpr Reference kTimeGroupReference =
    SC_REFERENCE(MacFilterRecord, time_mode, 2, time_group_id);
constexpr Shown kShownTimeGroup = SC_SHOWN(MacFilterItem, time_mode, weekday);

}  // namespace

uint32_t SC_Get_FwMac_System_Config(void) { return get(kFwMac); }

int SC_Uninit_System_FwMac_Config(void) { return uninit(kFwMac); }

int SC_Init_System_FwMac_Config(int read_flag) { return init(read_flag, kFwMac); }

int SC_Read_System_FwMac_Config(FwMacBlock* block) { return read(block, kFwMac); }

void SC_Save_System_FwMac_Config(void) { save(kFwMac); }

void SC_Save_System_FwMac_Config2Flash(FwMacBlock* block) { save_to_flash(block, kFwMac); }

int32_t SC_Operate_System_List_FireWall_Mac(FwMacBlock* block, uint32_t op, uint32_t* index,
                                            const MacFilterRecord* record) {
  return operate(block, op, index, record, kMacFilters.table);
}

int32_t SC_Operate_System_List_GetFireWall_Mac_Blank(FwMacBlock* block) {
  return claim(block, kMacFilters.table.geometry);
}

int32_t SC_Operate_System_List_FireWall_MacCheckMac(const FwMacBlock* block,
                                                    const MacFilterRecord* record,
                                                    uint32_t skip_slot) {
  return find_clash(block, record, skip_slot, kMacFilters.table);
}

void GetMacFilterItemList(const FwMacBlock* block, const TimeGroupBlock* time_groups,
                          MacFilterItemList* list) {
  uint32_t count = get_items(block, list, kMacFilters);
  show_time_groups(kShownTimeGroup, time_groups, list->items, count);
}

void GetMacFilterItem(const FwMacBlock* block, uint32_t id, MacFilterItem* item) {
  get_item(block, id, item, kMacFilters);
}

int32_t AddMacFilterItem(FwMacBlock* block, const MacFilterItem* item) {
  return add_item(block, item, kMacFilters);
}

int32_t ModifyMacFilterItem(FwMacBlock* block, const MacFilterItem* item) {
  return modify_item(block, item, kMacFilters);
}

void DelMacFilterItem(FwMacBlock* block, char* ids) { delete_items(block, ids, kMacFilters); }

void DelAllMacFilterItem(FwMacBlock* block) { delete_all_items(block, kMacFilters); }

void DelMacFilterItemByTimeGroupId(FwMacBlock* block, int32_t time_group_id) {
  delete_referring(block, time_group_id, kMacFilters, kTimeGroupReference);
}
