/* IP groups: named address ranges that IP filter and QoS rules refer to by id.
 * Deleting a group deletes these rules first. */
#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

#include "core/area.h"
#include "core/bytes.h"
#include "filter/rows.h"

using namespace sc;

uint32_t SC_Get_IpGroup_System_Config(void) { return attach_area(kIpGroup); }

int SC_Uninit_System_IpGroup_Config(void) { return remove_area(kIpGroup); }

int SC_Init_System_IpGroup_Config(int read_flag) { return init_area(read_flag, kIpGroup); }

int SC_Read_System_IpGroup_Config(IpGroupBlock* block) { return load_area(block, kIpGroup); }

void SC_Save_System_IpGroup_Config(void) { announce_area(kIpGroup); }

void SC_Save_System_IpGroup_Config2Flash(IpGroupBlock* block) { save_area(block, kIpGroup); }

int32_t SC_Operate_System_List_UserIpGroup(IpGroupBlock* block, uint32_t op, uint32_t* position,
                                           const IpGroupRecord* record) {
  return operate(block, op, position, record, kIpGroups.list.table);
}

int32_t SC_Operate_System_List_GetUserIpGroup_Blank(IpGroupBlock* block) {
  return claim(block, kIpGroups.list.table.geometry);
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

/* Required: the rules that refer to the groups stay. */
void DelAllIpGroupItem(IpGroupBlock* block) { delete_all_items(block, kIpGroups.list); }

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
    delete_item(block, static_cast<uint32_t>(id), kIpGroups.list);
  }
  announce_area(kIpGroup);
}
