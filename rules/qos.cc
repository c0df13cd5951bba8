/* QoS rules. Rules may refer to an IP group and to a time group; the listing shows a rule with
 * what it refers to. */
#include <sysconfig/rules.h>

#include "core/area.h"
#include "rules/rows.h"

using namespace sc;

uint32_t SC_Get_Qos_System_Config(void) { return attach_area(kQos); }

int SC_Uninit_System_Qos_Config(void) { return remove_area(kQos); }

int SC_Init_System_Qos_Config(int read_flag) { return init_area(read_flag, kQos); }

int SC_Read_System_Qos_Config(QosBlock* block) { return load_area(block, kQos); }

void SC_Save_System_Qos_Config(void) { announce_area(kQos); }

void SC_Save_System_Qos_Config2Flash(QosBlock* block) { save_area(block, kQos); }

int32_t SC_Operate_System_List_QosRule(QosBlock* block, uint32_t op, uint32_t* position,
                                       const QosRuleRecord* record) {
  return operate(block, op, position, record, kQosRules.list.table);
}

int32_t SC_Operate_System_List_GetQosRule_Blank(QosBlock* block) {
  return claim(block, kQosRules.list.table.geometry);
}

void GetQosItemList(const QosBlock* block, const IpGroupBlock* ip_groups,
                    const TimeGroupBlock* time_groups, QosItemList* list) {
  uint32_t count = get_items(block, list, kQosRules);
  show_groups(kQosIpGroup, ip_groups, list->items, count);
  show_groups(kQosTimeGroup, time_groups, list->items, count);
}

void GetQosItem(const QosBlock* block, uint32_t id, QosItem* item) {
  get_item(block, id, item, kQosRules);
}

int32_t AddQosItem(QosBlock* block, const QosItem* item) {
  return add_item(block, item, kQosRules);
}

int32_t ModifyQosItem(QosBlock* block, const QosItem* item) {
  return modify_item(block, item, kQosRules);
}

void DelQosItem(QosBlock* block, char* ids) { delete_items(block, ids, kQosRules.list); }

void DelAllQosItem(QosBlock* block) { delete_all_items(block, kQosRules.list); }

void DelQosItemByIpGroupId(QosBlock* block, int32_t ip_group_id) {
  delete_linked(block, ip_group_id, kQosRules.list, kQosIpGroup);
}

void DelQosItemByTimeGroupId(QosBlock* block, int32_t time_group_id) {
  delete_linked(block, time_group_id, kQosRules.list, kQosTimeGroup);
}
