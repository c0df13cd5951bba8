/* What listings show of a rule's groups, and the deletion of rules with their group. */
#include "core/group_link.h"

#include <string.h>

#include "core/address.h"
#include "core/announce.h"
#include "core/bytes.h"

namespace sc {

namespace {

/* The members of an item about its group. */
struct ShownGroup {
  int32_t mode; /* 1: shown with its group */
  int32_t id;
  char name[SC_TEXT];
} SC_PACKED;

/* A rule's own schedule in its item; a listing writes the group's over it. */
struct Schedule {
  int32_t weekday[SC_WEEKDAYS];
  char times[2 * SC_TIME_TEXT]; /* start_time, end_time */
} SC_PACKED;

}  // namespace

void show_groups(const GroupLink& link, const void* groups, void* items, uint32_t count) {
  static_assert(SC_IP_GROUPS == SC_TIME_GROUPS);
  const bool is_time = link.group == kTimeGroup;
  auto* item = static_cast<uint8_t*>(items);
  for (; count != 0; --count, item += link.item_size) {
    auto& shown = *reinterpret_cast<ShownGroup*>(item + link.shown_at);
    if (shown.mode != 1) continue;
    /* Required: with a negative id a rule keeps its own schedule, but its range is shown as
     * zeroes. */
    if (is_time && shown.id < 0) continue;
    if (link.unless_at != 0 && load<int32_t>(item + link.unless_at) != 0) continue;
    auto* name = reinterpret_cast<char*>(item + link.shown_at + offsetof(ShownGroup, name));
    uint8_t* own = item + link.own_at;
    const uint32_t position = static_cast<uint32_t>(shown.id) - 1;
    if (groups == nullptr || position >= SC_IP_GROUPS) {
      memset(name, 0, SC_TEXT);
      memset(own, 0, is_time ? sizeof(Schedule) : 2 * SC_IP_TEXT);
    } else if (is_time) {
      const TimeGroupRecord& group = static_cast<const TimeGroupBlock*>(groups)->groups[position];
      strncpy(name, group.leading_text, SC_TEXT);
      auto& schedule = *reinterpret_cast<Schedule*>(own);
      for (size_t day = 0; day < SC_WEEKDAYS; ++day) {
        store<int32_t>(&schedule.weekday[day], group.weekday[day]);
      }
      memcpy(schedule.times, group.start_time, sizeof schedule.times);
    } else {
      const IpGroupRecord& group = static_cast<const IpGroupBlock*>(groups)->groups[position];
      memcpy(name, group.leading_text, SC_TEXT);
      constexpr size_t kStart = offsetof(IpGroupRecord, start_addr);
      constexpr size_t kEnd = offsetof(IpGroupRecord, end_addr);
      const auto* record = reinterpret_cast<const uint8_t*>(&group);
      const uint8_t* const ends[] = {record, record + kEnd - kStart};
      write_addresses(ends, kStart, 2, own, SC_IP_TEXT);
    }
  }
}

void delete_linked(void* block, int32_t group_id, const ListRow& list, const GroupLink& link) {
  const Geometry& geometry = list.table.geometry;
  for (uint32_t position = 0; position < geometry.capacity; ++position) {
    const uint8_t* record = record_at(geometry, block, position);
    const uint8_t* id = record + link.id_at;
    int32_t linked = link.id_size == 1 ? load<int8_t>(id) : load<int16_t>(id);
    /* Required: only these bytes are compared, also in a record that was freed before. */
    if (load<int8_t>(record + link.mode_at) != link.deleted_mode || linked != group_id) continue;
    delete_item(block, position + 1, list);
    announce(list.code);
  }
}

}  // namespace sc
