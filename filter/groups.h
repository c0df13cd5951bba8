/* How a listed rule shows the groups that it refers to. */
#ifndef FILTER_GROUPS_H
#define FILTER_GROUPS_H

#include <string.h>

#include <sysconfig/filter.h>

namespace sc {

/* weekday, start_time and end_time of an item lie side by side, in rules as in time groups. */
constexpr size_t kScheduleSize =
    offsetof(TimeGroupItem, trailing_text) - offsetof(TimeGroupItem, weekday);

/* Write the group's name (200 bytes) and its two address texts (32 bytes) into a listed rule. A
 * group that does not exist shows as zeroes, a freed one with its last contents. */
void show_ip_group(const IpGroupBlock* groups, int32_t id, char* name, char* addresses);

/* Write the group's name, up to its NUL, into a zeroed field and its schedule over the rule's own;
 * a negative id leaves the rule its own. */
void show_time_group(const TimeGroupBlock* groups, int32_t id, char* name, void* schedule);

}  // namespace sc

#endif
