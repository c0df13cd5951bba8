/* The URL filter. The listing shows a rule with the time group that it refers to. */
#include <sysconfig/rules.h>

#include "core/area.h"
#include "rules/rows.h"

using namespace sc;

uint32_t SC_Get_FwUrl_System_Config(void) { return attach_area(kFwUrl); }

int SC_Uninit_System_FwUrl_Config(void) { return remove_area(kFwUrl); }

int SC_Init_System_FwUrl_Config(int read_flag) { return init_area(read_flag, kFwUrl); }

int SC_Read_System_FwUrl_Config(FwUrlBlock* block) { return load_area(block, kFwUrl); }

void SC_Save_System_FwUrl_Config(void) { announce_area(kFwUrl); }

void SC_Save_System_FwUrl_Config2Flash(FwUrlBlock* block) { save_area(block, kFwUrl); }

int32_t SC_Operate_System_List_FireWall_Url(FwUrlBlock* block, uint32_t op, uint32_t* position,
                                            const UrlFilterRecord* record) {
  return operate(block, op, position, record, kUrlFilters.list.table);
}

int32_t SC_Operate_System_List_GetFireWall_Url_Blank(FwUrlBlock* block) {
  return claim(block, kUrlFilters.list.table.geometry);
}

int32_t SC_Operate_System_List_FireWall_UrlCheckUrl(const FwUrlBlock* block,
                                                    const UrlFilterRecord* record,
                                                    uint32_t skip_slot) {
  return find_clash(block, record, skip_slot, kUrlFilters.list.table);
}

void GetUrlFilterItemList(const FwUrlBlock* block, const TimeGroupBlock* time_groups,
                          UrlFilterItemList* list) {
  uint32_t count = get_items(block, list, kUrlFilters);
  show_groups(kUrlFilterTimeGroup, time_groups, list->items, count);
}

void GetUrlFilterItem(const FwUrlBlock* block, uint32_t id, UrlFilterItem* item) {
  get_item(block, id, item, kUrlFilters);
}

int32_t AddUrlFilterItem(FwUrlBlock* block, const UrlFilterItem* item) {
  return add_item(block, item, kUrlFilters);
}

int32_t ModifyUrlFilterItem(FwUrlBlock* block, const UrlFilterItem* item) {
  return modify_item(block, item, kUrlFilters);
}

void DelUrlFilterItem(FwUrlBlock* block, char* ids) { delete_items(block, ids, kUrlFilters.list); }

void DelAllUrlFilterItem(FwUrlBlock* block) { delete_all_items(block, kUrlFilters.list); }

void DelUrlFilterItemByTimeGroupId(FwUrlBlock* block, int32_t time_group_id) {
  delete_linked(block, time_group_id, kUrlFilters.list, kUrlFilterTimeGroup);
}
