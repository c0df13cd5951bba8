/* QoS rules. Rules may refer to an IP group and to a time group; the listing shows a rule with
 * what it refers to. */
#include <sysconfig/rules.h>

#include "core/area.h"
#include "filter/groups.h"
#include "core/rows.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(QosRuleRecord, leading_text, QosItem, leading_text),
    SC_FIELD(QosRuleRecord, match_kind, QosItem, match_kind),
    SC_FIELD(QosRuleRecord, match_text, QosItem, match_text),
    SC_FIELD(QosRuleRecord, ip_mode, QosItem, ip_mode),
    SC_FIELD(QosRuleRecord, ip_group_id, QosItem, ip_group_id),
    SC_FIELD(QosRuleRecord, start_addr, QosItem, start_ip_text),
    SC_FIELD(QosRuleRecord, end_addr, QosItem, end_ip_text),
    SC_FIELD(QosRuleRecord, time_mode, QosItem, time_mode),
    SC_FIELD(QosRuleRecord, time_group_id, QosItem, time_group_id),
    SC_FIELD(QosRuleRecord, weekday, QosItem, weekday),
    SC_FIELD(QosRuleRecord, start_time, QosItem, start_time),
    SC_FIELD(QosRuleRecord, end_time, QosItem, end_time),
    SC_FIELD(QosRuleRecord, param_1, QosItem, param_1),
    SC_FIELD(QosRuleRecord, param_2, QosItem, param_2),
    SC_FIELD(QosRuleRecord, param_byte, QosItem, param_byte),
    SC_FIELD(QosRuleRecord, rule_flag, QosItem, rule_flag),
    SC_FIELD(QosRuleRecord, trailing_text, QosItem, trailing_text),
};

constexpr List kQosRules = {
    .table = {.geometry = SC_GEOMETRY(QosBlock, rules),
              .modify_range = SC_LIST_MOD_RANGE,
              .payload = payload(kFields)},
    .code = SC_CODE_QOS,
    .counter = SC_COUNTER(QosBlock, rule_count),
    .item_size = SC_ITEM_SIZE(QosItem, QosBlock, rules),
};

constexpr Reference kIpGroupReference = SC_REFERENCE(QosRuleRecord, ip_mode, 1, ip_group_id);
/* Required: listed with its time group when time_mode is 1, deleted with it when it is 2. */
constexpr Reference kTimeGroupReference = SC_REFERENCE(QosRuleRecord, time_mode, 2, time_group_id);
/* Required: a rule that selects by text keeps its own addresses. */
constexpr Shown kShownIpGroup = SC_SHOWN_UNLESS(QosItem, ip_mode, start_ip_text, match_kind);
constexpr Shown kShownTimeGroup = SC_SHOWN(QosItem, time_mode, weekday);

}  // namespace

uint32_t SC_Get_Qos_System_Config(void) { return get(kQos); }

int SC_Uninit_System_Qos_Config(void) { return uninit(kQos); }

int SC_Init_System_Qos_Config(int read_flag) { return init(read_flag, kQos); }

int SC_Read_System_Qos_Config(QosBlock* block) { return read(block, kQos); }

void SC_Save_System_Qos_Config(void) { save(kQos); }

void SC_Save_System_Qos_Config2Flash(QosBlock* block) { save_to_flash(block, kQos); }

int32_t SC_Operate_System_List_QosRule(QosBlock* block, uint32_t op, uint32_t* index,
                                       const QosRuleRecord* record) {
  return operate(block, op, index, record, kQosRules.table);
}

int32_t SC_Operate_System_List_GetQosRule_Blank(QosBlock* block) {
  return claim(block, kQosRules.table.geometry);
}

void GetQosItemList(const QosBlock* block, const IpGroupBlock* ip_groups,
                    const TimeGroupBlock* time_groups, QosItemList* list) {
  uint32_t count = get_items(block, list, kQosRules);
  show_ip_groups(kShownIpGroup, ip_groups, list->items, count);
  show_time_groups(kShownTimeGroup, time_groups, list->items, count);
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

void DelQosItem(QosBlock* block, char* ids) { delete_items(block, ids, kQosRules); }

void DelAllQosItem(QosBlock* block) { delete_all_items(block, kQosRules); }

void DelQosItemByIpGroupId(QosBlock* block, int32_t ip_group_id) {
  delete_referring(block, ip_group_id, kQosRules, kIpGroupReference);
}

void DelQosItemByTimeGroupId(QosBlock* block, int32_t time_group_id) {
  delete_referring(block, time_group_id, kQosRules, kTimeGroupReference);
}
