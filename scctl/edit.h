/* Changes of the live store. Everything is checked before anything is written, and written by the
 * library's functions alone. Where the library leaves the contents to the programs (the records of
 * access points, settings), scctl does what these do: it writes under the record's lock by
 * sc_lock_reg, and announces the change.
 *
 * Each says why it cannot, and returns a status.
 */
#ifndef SCCTL_EDIT_H
#define SCCTL_EDIT_H

#include "source.h"

namespace scctl {

/* Whether the library will be able to lock: it opens the path that stands in the block. */
int check_lock(Source& live, AreaId area);

/* Adds a record as the one of this id, or as the lowest free one for an id of 0, which then tells
 * which it became. The snapshot is the table as it is, and gets the record too. */
int add_record(Source& live, Snapshot* now, const uint8_t* record, uint32_t* id);
/* Changes the fields in which the wanted record is not what it was; others stay as they are now. */
int modify_record(Source& live, const Table& table, const uint8_t* was, const uint8_t* wanted,
                  uint32_t id);
int delete_record(Source& live, const Table& table, uint32_t id);
int clear_table(Source& live, const Table& table);

}  // namespace scctl

#endif
