/* Time groups: named weekly schedules that filter and QoS rules refer to by id. Deleting a
 * group deletes these rules first. */
#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

#include "core/area.h"
#include "filter/groups.h"
#include "core/rows.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(TimeGroupRecord, leading_text, TimeGroupItem, leading_text),
    SC_FIELD(TimeGroupRecord, weekday, TimeGroupItem, weekday),
    SC_FIELD(TimeGroupRecord, start_time, TimeGroupItem, start_time),
    SC_FIELD(TimeGroupRecord, end_time, TimeGroupItem, end_time),
    SC_FIELD(TimeGroupRecord, trailing_text, TimeGroupItem, trailing_text),
};

constexpr List kTimeGroups = {
    .table = {.geometry = SC_GEOMETRY(TimeGroupBlock, groups),
              .modify_range = SC_LIST_MOD_RANGE,
              .payload = payload(kFields)},
    .code = SC_CODE_TIME_GROUP,
    .counter = SC_COUNTER(TimeGroupBlock, group_count),
    .item_size = SC_ITEM_SIZE(TimeGroupItem, TimeGroupBlock, groups),
};

}  // namespace

uint32_t SC_Get_TimeGroup_System_Config(void) { return get(kTimeGroup); }

int SC_Uninit_System_TimeGroup_Config(void) { return uninit(kTimeGroup); }

int SC_Init_System_TimeGroup_Config(int read_flag) { return init(read_flag, kTimeGroup); }

int SC_Read_System_TimeGroup_Config(TimeGroupBlock* block) { return read(block, kTimeGroup); }

void SC_Save_System_TimeGroup_Config(void) { save(kTimeGroup); }

void SC_Save_System_TimeGroup_Config2Flash(TimeGroupBlock* block) {
  save_to_flash(block, kTimeGroup);
}

int32_t SC_Operate_System_List_UserTimeGroup(TimeGroupBlock* block, uint32_t op, uint32_t* index,
                                             const TimeGroupRecord* record) {
  return operate(block, op, index, record, kTimeGroups.table);
}

int32_t SC_Operate_System_List_GetUserTimeGroup_Blank(TimeGroupBlock* block) {
  return claim(block, kTimeGroups.table.geometry);
}

void GetTimeGroupItemList(const TimeGroupBlock* block, TimeGroupItemList* list) {
  get_items(block, list, kTimeGroups);
}

void GetTimeGroupItem(const TimeGroupBlock* block, uint32_t id, TimeGroupItem* item) {
  get_item(block, id, item, kTimeGroups);
}

int32_t AddTimeGroupItem(TimeGroupBlock* block, const TimeGroupItem* item) {
  return add_item(block, item, kTimeGroups);
}

int32_t ModifyTimeGroupItem(TimeGroupBlock* block, const TimeGroupItem* item) {
  return modify_item(block, item, kTimeGroups);
}

/* Required: the rules that refer to groups stay. */
void DelAllTimeGroupItem(TimeGroupBlock* block) { delete_all_items(block, kTimeGroups); }

void DelTimeGroupItem(TimeGroupBlock* block, FwIpportBlock* ip_filters, FwMacBlock* mac_filters,
                      FwUrlBlock* url_filters, QosBlock* qos_rules, char* ids) {
  int32_t id;
  for (Ids tokens(ids); tokens.next(&id);) {
    /* Required: called in another order than the arguments have. */
    DelIpFilterItemByTimeGroupId(ip_filters, id);
    DelUrlFilterItemByTimeGroupId(url_filters, id);
    DelMacFilterItemByTimeGroupId(mac_filters, id);
    DelQosItemByTimeGroupId(qos_rules, id);
    delete_item(block, static_cast<uint32_t>(id), kTimeGroups);
  }
  save(kTimeGroup);
}

namespace sc {

void show_time_groups(const Shown& shown, const TimeGroupBlock* groups, void* items,
                      uint32_t count) {
  auto* item = static_cast<uint8_t*>(items);
  for (; count != 0; --count, item += shown.item_size) {
    auto& reference = *reinterpret_cast<GroupReference*>(item + shown.reference_at);
    if (reference.mode != 1 || reference.id < 0) continue;
    TimeGroupItem group = {};
    GetTimeGroupItem(groups, static_cast<uint32_t>(reference.id), &group);
    strncpy(reference.name, group.leading_text, SC_TEXT);
    memcpy(item + shown.own_at, group.weekday, kScheduleSize);
  }
}

}  // namespace sc
