/* Time groups: named weekly schedules that filter and QoS rules refer to by id. Deleting a
 * group deletes these rules first. */
#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

#include "core/area.h"
#include "filter/rows.h"

using namespace sc;

uint32_t SC_Get_TimeGroup_System_Config(void) { return attach_area(kTimeGroup); }

int SC_Uninit_System_TimeGroup_Config(void) { return remove_area(kTimeGroup); }

int SC_Init_System_TimeGroup_Config(int read_flag) { return init_area(read_flag, kTimeGroup); }

int SC_Read_System_TimeGroup_Config(TimeGroupBlock* block) { return load_area(block, kTimeGroup); }

void SC_Save_System_TimeGroup_Config(void) { announce_area(kTimeGroup); }

void SC_Save_System_TimeGroup_Config2Flash(TimeGroupBlock* block) { save_area(block, kTimeGroup); }

int32_t SC_Operate_System_List_UserTimeGroup(TimeGroupBlock* block, uint32_t op, uint32_t* position,
                                             const TimeGroupRecord* record) {
  return operate(block, op, position, record, kTimeGroups.list.table);
}

int32_t SC_Operate_System_List_GetUserTimeGroup_Blank(TimeGroupBlock* block) {
  return claim(block, kTimeGroups.list.table.geometry);
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

/* Required: the rules that refer to the groups stay. */
void DelAllTimeGroupItem(TimeGroupBlock* block) { delete_all_items(block, kTimeGroups.list); }

void DelTimeGroupItem(TimeGroupBlock* block, FwIpportBlock* ip_filters, FwMacBlock* mac_filters,
                      FwUrlBlock* url_filters, QosBlock* qos_rules, char* ids) {
  int32_t id;
  for (Ids tokens(ids); tokens.next(&id);) {
    /* Required: the order of the calls differs from that of the arguments. */
    DelIpFilterItemByTimeGroupId(ip_filters, id);
    DelUrlFilterItemByTimeGroupId(url_filters, id);
    DelMacFilterItemByTimeGroupId(mac_filters, id);
    DelQosItemByTimeGroupId(qos_rules, id);
    delete_item(block, static_cast<uint32_t>(id), kTimeGroups.list);
  }
  announce_area(kTimeGroup);
}
