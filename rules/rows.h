/* The rows of rules/: MAC filter, URL filter and QoS, with their links to groups. */
#ifndef RULES_ROWS_H
#define RULES_ROWS_H

#include <sysconfig/rules.h>

#include "core/rows.h"

namespace sc {

/* ---- the MAC filter ---- */

constexpr Member kMacFilterMembers[] = {
    mac_text(SC_MEMBER(MacFilterRecord, mac, MacFilterItem, mac)),
    SC_MEMBER(MacFilterRecord, leading_text, MacFilterItem, leading_text),
    SC_MEMBER(MacFilterRecord, time_mode, MacFilterItem, time_mode),
    SC_MEMBER(MacFilterRecord, time_group_id, MacFilterItem, time_group_id),
    SC_MEMBER(MacFilterRecord, weekday, MacFilterItem, weekday),
    SC_MEMBER(MacFilterRecord, start_time, MacFilterItem, start_time),
    SC_MEMBER(MacFilterRecord, end_time, MacFilterItem, end_time),
    SC_MEMBER(MacFilterRecord, rule_flag, MacFilterItem, rule_flag),
    SC_MEMBER(MacFilterRecord, trailing_text, MacFilterItem, trailing_text),
};

constexpr MappedListRow kMacFilters = {
    .list = {.table = {.geometry = SC_GEOMETRY(FwMacBlock, rules),
                       .modify_range = SC_LIST_REJECTED /* Required: not SC_LIST_MOD_RANGE. */,
                       .keys = {SC_TEXT_KEY(MacFilterRecord, mac)},
                       .payload = payload(kMacFilterMembers)},
             SC_COUNTER(FwMacBlock, rule_count),
             .code = SC_CODE_FW_MAC},
    .item_size = SC_ITEM_SIZE(MacFilterItem, FwMacBlock, rules),
};

/* Required: a rule is listed with its time group when time_mode is 1, and deleted with it when
 * time_mode is 2. The same holds for the rules below. */
constexpr GroupLink kMacFilterTimeGroup =
    SC_GROUP_LINK(kTimeGroup, MacFilterRecord, MacFilterItem, time_mode, time_group_id, 2, weekday);

/* ---- the URL filter ---- */

constexpr Member kUrlFilterMembers[] = {
    SC_MEMBER(UrlFilterRecord, url, UrlFilterItem, url),
    SC_MEMBER(UrlFilterRecord, leading_text, UrlFilterItem, leading_text),
    SC_MEMBER(UrlFilterRecord, time_mode, UrlFilterItem, time_mode),
    SC_MEMBER(UrlFilterRecord, time_group_id, UrlFilterItem, time_group_id),
    SC_MEMBER(UrlFilterRecord, weekday, UrlFilterItem, weekday),
    SC_MEMBER(UrlFilterRecord, start_time, UrlFilterItem, start_time),
    SC_MEMBER(UrlFilterRecord, end_time, UrlFilterItem, end_time),
    SC_MEMBER(UrlFilterRecord, rule_flag, UrlFilterItem, rule_flag),
    SC_MEMBER(UrlFilterRecord, trailing_text, UrlFilterItem, trailing_text),
};

/* Required: the comparison of URLs includes letter case and the bytes behind the NUL. */
constexpr MappedListRow kUrlFilters = {
    .list = {.table = {.geometry = SC_GEOMETRY(FwUrlBlock, rules),
                       .modify_range = SC_LIST_REJECTED /* Required: not SC_LIST_MOD_RANGE. */,
                       .keys = {SC_BYTES_KEY(UrlFilterRecord, url)},
                       .payload = payload(kUrlFilterMembers)},
             SC_COUNTER(FwUrlBlock, rule_count),
             .code = SC_CODE_FW_URL},
    .item_size = SC_ITEM_SIZE(UrlFilterItem, FwUrlBlock, rules),
};

constexpr GroupLink kUrlFilterTimeGroup =
    SC_GROUP_LINK(kTimeGroup, UrlFilterRecord, UrlFilterItem, time_mode, time_group_id, 2, weekday);

/* ---- QoS ---- */

constexpr Member kQosMembers[] = {
    SC_MEMBER(QosRuleRecord, leading_text, QosItem, leading_text),
    SC_MEMBER(QosRuleRecord, match_kind, QosItem, match_kind),
    SC_MEMBER(QosRuleRecord, match_text, QosItem, match_text),
    SC_MEMBER(QosRuleRecord, ip_mode, QosItem, ip_mode),
    SC_MEMBER(QosRuleRecord, ip_group_id, QosItem, ip_group_id),
    SC_MEMBER(QosRuleRecord, start_addr, QosItem, start_ip_text),
    SC_MEMBER(QosRuleRecord, end_addr, QosItem, end_ip_text),
    SC_MEMBER(QosRuleRecord, param_1, QosItem, param_1),
    SC_MEMBER(QosRuleRecord, param_2, QosItem, param_2),
    SC_MEMBER(QosRuleRecord, param_byte, QosItem, param_byte),
    SC_MEMBER(QosRuleRecord, time_mode, QosItem, time_mode),
    SC_MEMBER(QosRuleRecord, time_group_id, QosItem, time_group_id),
    SC_MEMBER(QosRuleRecord, weekday, QosItem, weekday),
    SC_MEMBER(QosRuleRecord, start_time, QosItem, start_time),
    SC_MEMBER(QosRuleRecord, end_time, QosItem, end_time),
    SC_MEMBER(QosRuleRecord, rule_flag, QosItem, rule_flag),
    SC_MEMBER(QosRuleRecord, trailing_text, QosItem, trailing_text),
};

constexpr MappedListRow kQosRules = {
    .list = {.table = {.geometry = SC_GEOMETRY(QosBlock, rules),
                       .modify_range = SC_LIST_MOD_RANGE,
                       .payload = payload(kQosMembers)},
             SC_COUNTER(QosBlock, rule_count),
             .code = SC_CODE_QOS},
    .item_size = SC_ITEM_SIZE(QosItem, QosBlock, rules),
};

/* Required: a rule that selects by text is listed with its own addresses. */
constexpr GroupLink kQosIpGroup = shown_unless(
    SC_GROUP_LINK(kIpGroup, QosRuleRecord, QosItem, ip_mode, ip_group_id, 1, start_ip_text),
    offsetof(QosItem, match_kind));
constexpr GroupLink kQosTimeGroup =
    SC_GROUP_LINK(kTimeGroup, QosRuleRecord, QosItem, time_mode, time_group_id, 2, weekday);

}  // namespace sc

#endif
