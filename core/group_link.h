/* A rule's link to an IP group or a time group: where a record and its item name the group, how a
 * listing shows it, and which rules are deleted with it.
 */
#ifndef CORE_GROUP_LINK_H
#define CORE_GROUP_LINK_H

#include <stdint.h>

#include <sysconfig/filter.h>

#include "core/area.h"
#include "core/item.h"

namespace sc {

struct GroupLink {
  AreaId group; /* kIpGroup or kTimeGroup */
  /* In the record: a mode of one byte and a signed id of id_size bytes, 1 or 2. */
  uint16_t mode_at;
  uint16_t id_at;
  uint8_t id_size;
  int8_t deleted_mode; /* rules of this mode are deleted with the group; those of mode 1 show it */
  /* In the item: mode, id and name of the group, and the rule's own range or schedule. A listing
   * replaces the latter by the group's. */
  uint16_t shown_at;
  uint16_t own_at;
  uint16_t unless_at; /* an int that must be 0 for the group to be shown; 0: none */
  uint16_t item_size;
};

/* Writes the groups of some listed rules into their items. `groups` is the block of the link's
 * area. Of an IP group: its name, 200 bytes, and both address texts. Of a time group: its name, up
 * to its NUL, and its schedule. A group that does not exist shows as zeroes. A freed group shows
 * with its last contents. */
void show_groups(const GroupLink& link, const void* groups, void* items, uint32_t count);

/* Deletes every record that is linked to the group, each with its announcement. */
void delete_linked(void* block, int32_t group_id, const ListRow& list, const GroupLink& link);

}  // namespace sc

#endif
