/* How a listed rule shows the groups that it refers to. */
#ifndef FILTER_GROUPS_H
#define FILTER_GROUPS_H

#include <string.h>

#include <sysconfig/filter.h>

namespace sc {

/* weekday, start_time and end_time of an item lie side by side, in rules as in time groups. */
constexpr size_t kScheduleSize =
    offsetof(TimeGroupItem, trailing_text) - offsetof(TimeGroupItem, weekday);

/* How a listed rule refers to a group. */
struct GroupReference {
  int32_t mode; /* 1: shown with its group */
  int32_t id;
  char name[SC_TEXT];
} SC_PACKED;

/* Where listed rules have that, and what of the group is shown in place of their own. */
struct Shown {
  uint16_t item_size;
  uint16_t reference_at;
  uint16_t own_at;
  uint16_t unless_at; /* an int that must be 0 for the group to be shown; 0: there is none */
};
#define SC_SHOWN(Item, mode, own) \
  Shown { sizeof(Item), offsetof(Item, mode), offsetof(Item, own), 0 }
#define SC_SHOWN_UNLESS(Item, mode, own, unless) \
  Shown { sizeof(Item), offsetof(Item, mode), offsetof(Item, own), offsetof(Item, unless) }

/* Write each rule's group into some listed rules: its name, 200 bytes, and both address texts.
 * A group that does not exist shows as zeroes, a freed one with its last contents. */
void show_ip_groups(const Shown& shown, const IpGroupBlock* groups, void* items, uint32_t count);

/* The same with name, up to its NUL, and schedule; with a negative id a rule keeps its own. */
void show_time_groups(const Shown& shown, const TimeGroupBlock* groups, void* items,
                      uint32_t count);

}  // namespace sc

#endif
