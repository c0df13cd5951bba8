/* The URL filter. The listing shows a rule with the time group that it refers to. */
#include <sysconfig/rules.h>

#include "core/area.h"
#include "filter/groups.h"
#include "core/rows.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(UrlFilterRecord, leading_text, UrlFilterItem, leading_text),
    SC_FIELD(UrlFilterRecord, url, UrlFilterItem, url),
    SC_FIELD(UrlFilterRecord, time_mode, UrlFilterItem, time_mode),
    SC_FIELD(UrlFilterRecord, time_group_id, UrlFilterItem, time_group_id),
    SC_FIELD(UrlFilterRecord, weekday, UrlFilterItem, weekday),
    SC_FIELD(UrlFilterRecord, start_time, UrlFilterItem, start_time),
    SC_FIELD(UrlFilterRecord, end_time, UrlFilterItem, end_time),
    SC_FIELD(UrlFilterRecord, rule_flag, UrlFilterItem, rule_flag),
    SC_FIELD(UrlFilterRecord, trailing_text, UrlFilterItem, trailing_text),
};

/* Required: URLs are compared with their case and with what follows their NUL. */
constexpr List kUrlFilters = {
    .table = {.geometry = SC_GEOMETRY(FwUrlBlock, rules),
              .modify_range = SC_LIST_REJECTED /* Required: not SC_LIST_MOD_RANGE. */,
              .keys = {SC_BYTES_KEY(UrlFilterRecord, url)},
              .payload = payload(kFields)},
    .code = SC_CODE_FW_URL,
    .counter = SC_COUNTER(FwUrlBlock, rule_count),
    .item_size = SC_ITEM_SIZE(UrlFilterItem, FwUrlBlock, rules),
};

/* Required: listed with its time group when time_mode is 1, deleted with it when it is 2. */
constexpr Reference kTimeGroupReference =
    SC_REFERENCE(UrlFilterRecord, time_mode, 2, time_group_id);
constexpr Shown kShownTimeGroup = SC_SHOWN(UrlFilterItem, time_mode, weekday);

}  // namespace

uint32_t SC_Get_FwUrl_System_Config(void) { return get(kFwUrl); }

int SC_Uninit_System_FwUrl_Config(void) { return uninit(kFwUrl); }

int SC_Init_System_FwUrl_Config(int read_flag) { return init(read_flag, kFwUrl); }

int SC_Read_System_FwUrl_Config(FwUrlBlock* block) { return read(block, kFwUrl); }

void SC_Save_System_FwUrl_Config(void) { save(kFwUrl); }

void SC_Save_System_FwUrl_Config2Flash(FwUrlBlock* block) { save_to_flash(block, kFwUrl); }

int32_t SC_Operate_System_List_FireWall_Url(FwUrlBlock* block, uint32_t op, uint32_t* index,
                                            const UrlFilterRecord* record) {
  return operate(block, op, index, record, kUrlFilters.table);
}

int32_t SC_Operate_System_List_GetFireWall_Url_Blank(FwUrlBlock* block) {
  return claim(block, kUrlFilters.table.geometry);
}

int32_t SC_Operate_System_List_FireWall_UrlCheckUrl(const FwUrlBlock* block,
                                                    const UrlFilterRecord* record,
                                                    uint32_t skip_slot) {
  return find_clash(block, record, skip_slot, kUrlFilters.table);
}

void GetUrlFilterItemList(const FwUrlBlock* block, const TimeGroupBlock* time_groups,
                          UrlFilterItemList* list) {
  uint32_t count = get_items(block, list, kUrlFilters);
  show_time_groups(kShownTimeGroup, time_groups, list->items, count);
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

void DelUrlFilterItem(FwUrlBlock* block, char* ids) { delete_items(block, ids, kUrlFilters); }

void DelAllUrlFilterItem(FwUrlBlock* block) { delete_all_items(block, kUrlFilters); }

void DelUrlFilterItemByTimeGroupId(FwUrlBlock* block, int32_t time_group_id) {
  delete_referring(block, time_group_id, kUrlFilters, kTimeGroupReference);
}
