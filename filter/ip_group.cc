/* IP groups: named address ranges that IP filter and QoS rules refer to by id.
 * Deleting a group deletes these rules first. */
#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

#include "core/area.h"
#include "core/bytes.h"
#include "filter/groups.h"
#include "core/rows.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(IpGroupRecord, leading_text, IpGroupItem, leading_text),
    SC_FIELD(IpGroupRecord, start_addr, IpGroupItem, start_ip_text),
    SC_FIELD(IpGroupRecord, end_addr, IpGroupItem, end_ip_text),
    SC_FIELD(IpGroupRecord, trailing_text, IpGroupItem, trailing_text),
};

constexpr List kIpGroups = {
    .table = {.geometry = SC_GEOMETRY(IpGroupBlock, groups),
              .modify_range = SC_LIST_MOD_RANGE,
              .payload = payload(kFields)},
    .code = SC_CODE_IP_GROUP,
    .counter = SC_COUNTER(IpGroupBlock, group_count),
    .item_size = SC_ITEM_SIZE(IpGroupItem, IpGroupBlock, groups),
};

}  // namespace

uint32_t SC_Get_IpGroup_System_Config(void) { return get(kIpGroup); }

int SC_Uninit_System_IpGroup_Config(void) { return uninit(kIpGroup); }

int SC_Init_System_IpGroup_Config(int read_flag) { return init(read_flag, kIpGroup); }

int SC_Read_System_IpGroup_Config(IpGroupBlock* block) { return read(block, kIpGroup); }

void SC_Save_System_IpGroup_Config(void) { save(kIpGroup); }

void SC_Save_System_IpGroup_Config2Flash(IpGroupBlock* block) { save_to_flash(block, kIpGroup); }

int32_t SC_Operate_System_List_UserIpGroup(IpGroupBlock* block, uint32_t op, uint32_t* index,
                                           const IpGroupRecord* record) {
  return operate(block, op, index, record, kIpGroups.table);
}

int32_t SC_Operate_System_List_GetUserIpGroup_Blank(IpGroupBlock* block) {
  return claim(block, kIpGroups.table.geometry);
}

void GetIpGroupItemList(const IpGroupBlock* block, IpGroupItemList* list) {
  get_items(block, list, kIpGroups);
}

void GetIpGroupItem(const IpGroupBlock* block, uint32_t id, IpGroupItem* item) {
  get_item(block, id, item, kIpGroups);
}

int32_t AddIpGroupItem(IpGroupBlock* block, const IpGroupItem* item) {
  return add_item(block, item, kIpGroups);
}

int32_t ModifyIpGroupItem(IpGroupBlock* block, const IpGroupItem* item) {
  return modify_item(block, item, kIpGroups);
}

/* Required: the rules that refer to groups stay. */
void DelAllIpGroupItem(IpGroupBlock* block) { delete_all_items(block, kIpGroups); }

int32_t GetIpGroupIndex(const IpGroupBlock* block, int32_t id) {
  if (block == nullptr) return -1;
  for (int32_t position = 0; position < SC_IP_GROUPS; ++position) {
    if (block->groups[position].slot_id == id) return position;
  }
  return -1;
}

void DelIpGroupItem(IpGroupBlock* block, FwIpportBlock* ip_filters, QosBlock* qos_rules,
                    char* ids) {
  int32_t id;
  for (Ids tokens(ids); tokens.next(&id);) {
    DelIpFilterItemByIpGroupId(ip_filters, id);
    DelQosItemByIpGroupId(qos_rules, id);
    delete_item(block, static_cast<uint32_t>(id), kIpGroups);
  }
  save(kIpGroup);
}

namespace sc {

/* Required: unlike a time group's, a negative id is looked up, and shows as zeroes. */
void show_ip_groups(const Shown& shown, const IpGroupBlock* groups, void* items, uint32_t count) {
  auto* item = static_cast<uint8_t*>(items);
  for (; count != 0; --count, item += shown.item_size) {
    auto& reference = *reinterpret_cast<GroupReference*>(item + shown.reference_at);
    if (reference.mode != 1) continue;
    if (shown.unless_at != 0 && load<int32_t>(item + shown.unless_at) != 0) continue;
    IpGroupItem group = {};
    GetIpGroupItem(groups, static_cast<uint32_t>(reference.id), &group);
    memcpy(reference.name, group.leading_text, SC_TEXT);
    memcpy(item + shown.own_at, group.start_ip_text, SC_IP_TEXT);
    memcpy(item + shown.own_at + SC_IP_TEXT, group.end_ip_text, SC_IP_TEXT);
  }
}

}  // namespace sc
