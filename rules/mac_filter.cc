/* The MAC filter. The listing shows a rule with the time group that it refers to. */
#include <sysconfig/rules.h>

#include "core/area.h"
#include "rules/rows.h"

using namespace sc;

uint32_t SC_Get_FwMac_System_Config(void) { return attach_area(kFwMac); }

int SC_Uninit_System_FwMac_Config(void) { return remove_area(kFwMac); }

int SC_Init_System_FwMac_Config(int read_flag) { return init_area(read_flag, kFwMac); }

int SC_Read_System_FwMac_Config(FwMacBlock* block) { return load_area(block, kFwMac); }

void SC_Save_System_FwMac_Config(void) { announce_area(kFwMac); }

void SC_Save_System_FwMac_Config2Flash(FwMacBlock* block) { save_area(block, kFwMac); }

int32_t SC_Operate_System_List_FireWall_Mac(FwMacBlock* block, uint32_t op, uint32_t* position,
                                            const MacFilterRecord* record) {
  return operate(block, op, position, record, kMacFilters.list.table);
}

int32_t SC_Operate_System_List_GetFireWall_Mac_Blank(FwMacBlock* block) {
  return claim(block, kMacFilters.list.table.geometry);
}

int32_t SC_Operate_System_List_FireWall_MacCheckMac(const FwMacBlock* block,
                                                    const MacFilterRecord* record,
                                                    uint32_t skip_slot) {
  return find_clash(block, record, skip_slot, kMacFilters.list.table);
}

void GetMacFilterItemList(const FwMacBlock* block, const TimeGroupBlock* time_groups,
                          MacFilterItemList* list) {
  uint32_t count = get_items(block, list, kMacFilters);
  show_groups(kMacFilterTimeGroup, time_groups, list->items, count);
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

void DelMacFilterItem(FwMacBlock* block, char* ids) { delete_items(block, ids, kMacFilters.list); }

void DelAllMacFilterItem(FwMacBlock* block) { delete_all_items(block, kMacFilters.list); }

void DelMacFilterItemByTimeGroupId(FwMacBlock* block, int32_t time_group_id) {
  delete_linked(block, time_group_id, kMacFilters.list, kMacFilterTimeGroup);
}
