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

/* How a listed rule refers to its time group. */
struct TimeReference {
  int32_t mode;
  int32_t id;
  char name[SC_TEXT];
} SC_PACKED;

/* Where listed rules have that, and where their schedule. */
struct TimeReferences {
  uint16_t item_size;
  uint16_t reference_at;
  uint16_t schedule_at;
};
#define SC_TIME_REFERENCES(Item) \
  TimeReferences { sizeof(Item), offsetof(Item, time_mode), offsetof(Item, weekday) }

/* For each of some listed rules with time_mode 1 and no negative time_group_id: writes the group's
 * name, up to its NUL, into the zeroed field and its schedule over the rule's own. */
void show_time_groups(const TimeReferences& where, const TimeGroupBlock* groups, void* items,
                      uint32_t count);

}  // namespace sc

#endif
