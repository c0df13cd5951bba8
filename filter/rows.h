/* The rows of filter/: groups, the IP filter with its links to groups, port forwarding. */
#ifndef FILTER_ROWS_H
#define FILTER_ROWS_H

#include <sysconfig/filter.h>

#include "core/rows.h"

namespace sc {

/* ---- IP groups ---- */

constexpr Member kIpGroupMembers[] = {
    SC_MEMBER(IpGroupRecord, leading_text, IpGroupItem, leading_text),
    SC_MEMBER(IpGroupRecord, start_addr, IpGroupItem, start_ip_text),
    SC_MEMBER(IpGroupRecord, end_addr, IpGroupItem, end_ip_text),
    SC_MEMBER(IpGroupRecord, trailing_text, IpGroupItem, trailing_text),
};

constexpr MappedListRow kIpGroups = {
    .list = {.table = {.geometry = SC_GEOMETRY(IpGroupBlock, groups),
                       .modify_range = SC_LIST_MOD_RANGE,
                       .payload = payload(kIpGroupMembers)},
             SC_COUNTER(IpGroupBlock, group_count),
             .code = SC_CODE_IP_GROUP},
    .item_size = SC_ITEM_SIZE(IpGroupItem, IpGroupBlock, groups),
};

/* ---- time groups ---- */

constexpr Member kTimeGroupMembers[] = {
    SC_MEMBER(TimeGroupRecord, leading_text, TimeGroupItem, leading_text),
    SC_MEMBER(TimeGroupRecord, weekday, TimeGroupItem, weekday),
    SC_MEMBER(TimeGroupRecord, start_time, TimeGroupItem, start_time),
    SC_MEMBER(TimeGroupRecord, end_time, TimeGroupItem, end_time),
    SC_MEMBER(TimeGroupRecord, trailing_text, TimeGroupItem, trailing_text),
};

constexpr MappedListRow kTimeGroups = {
    .list = {.table = {.geometry = SC_GEOMETRY(TimeGroupBlock, groups),
                       .modify_range = SC_LIST_MOD_RANGE,
                       .payload = payload(kTimeGroupMembers)},
             SC_COUNTER(TimeGroupBlock, group_count),
             .code = SC_CODE_TIME_GROUP},
    .item_size = SC_ITEM_SIZE(TimeGroupItem, TimeGroupBlock, groups),
};

/* ---- the IP filter ---- */

constexpr Member kIpFilterMembers[] = {
    SC_MEMBER(IpFilterRecord, leading_text, IpFilterItem, leading_text),
    SC_MEMBER(IpFilterRecord, ip_mode, IpFilterItem, ip_mode),
    SC_MEMBER(IpFilterRecord, ip_group_id, IpFilterItem, ip_group_id),
    SC_MEMBER(IpFilterRecord, start_addr, IpFilterItem, start_ip_text),
    SC_MEMBER(IpFilterRecord, end_addr, IpFilterItem, end_ip_text),
    SC_MEMBER(IpFilterRecord, param_1, IpFilterItem, param_1),
    SC_MEMBER(IpFilterRecord, param_2, IpFilterItem, param_2),
    SC_MEMBER(IpFilterRecord, param_byte, IpFilterItem, param_byte),
    SC_MEMBER(IpFilterRecord, time_mode, IpFilterItem, time_mode),
    SC_MEMBER(IpFilterRecord, time_group_id, IpFilterItem, time_group_id),
    SC_MEMBER(IpFilterRecord, weekday, IpFilterItem, weekday),
    SC_MEMBER(IpFilterRecord, start_time, IpFilterItem, start_time),
    SC_MEMBER(IpFilterRecord, end_time, IpFilterItem, end_time),
    SC_MEMBER(IpFilterRecord, rule_flag, IpFilterItem, rule_flag),
    SC_MEMBER(IpFilterRecord, trailing_text, IpFilterItem, trailing_text),
};

constexpr MappedListRow kIpFilters = {
    .list = {.table = {.geometry = SC_GEOMETRY(FwIpportBlock, rules),
                       .modify_range = SC_LIST_MOD_RANGE,
                       .payload = payload(kIpFilterMembers)},
             SC_COUNTER(FwIpportBlock, rule_count),
             .code = SC_CODE_FW_IPPORT},
    .item_size = SC_ITEM_SIZE(IpFilterItem, FwIpportBlock, rules),
};

constexpr GroupLink kIpFilterIpGroup =
    SC_GROUP_LINK(kIpGroup, IpFilterRecord, IpFilterItem, ip_mode, ip_group_id, 1, start_ip_text);
/* Required: a rule is listed with its time group when time_mode is 1, and deleted with it when
 * time_mode is 2. */
constexpr GroupLink kIpFilterTimeGroup =
    SC_GROUP_LINK(kTimeGroup, IpFilterRecord, IpFilterItem, time_mode, time_group_id, 2, weekday);

/* ---- port forwarding ---- */

/* Required: numbers and options have another order in the item than in the record. */
constexpr Member kPortForwardMembers[] = {
    SC_MEMBER(PortFwRecord, leading_text, PortFwItem, leading_text),
    SC_MEMBER(PortFwRecord, ip_addr, PortFwItem, ip_text),
    SC_MEMBER(PortFwRecord, option_1, PortFwItem, option_1),
    SC_MEMBER(PortFwRecord, number_1, PortFwItem, number_1),
    SC_MEMBER(PortFwRecord, number_2, PortFwItem, number_2),
    SC_MEMBER(PortFwRecord, number_3, PortFwItem, number_3),
    SC_MEMBER(PortFwRecord, number_4, PortFwItem, number_4),
    SC_MEMBER(PortFwRecord, option_2, PortFwItem, option_2),
    SC_MEMBER(PortFwRecord, option_3, PortFwItem, option_3),
    SC_MEMBER(PortFwRecord, trailing_text, PortFwItem, trailing_text),
};

constexpr MappedListRow kPortForwards = {
    .list = {.table = {.geometry = SC_GEOMETRY(VsIpportBlock, rules),
                       .modify_range = SC_LIST_MOD_RANGE,
                       .payload = payload(kPortForwardMembers)},
             SC_COUNTER(VsIpportBlock, rule_count),
             .code = SC_CODE_VS_IPPORT},
    .item_size = SC_ITEM_SIZE(PortFwItem, VsIpportBlock, rules),
};

}  // namespace sc

#endif
