/* Changes of records as text and as JSON, for log, try --status and others. */
#ifndef SCCTL_CHANGES_H
#define SCCTL_CHANGES_H

#include "state.h"
#include "store/edit.h"
#include "store/json.h"

namespace scctl {

/* Prints each change on a line after the prefix. */
void print_changes(const char* prefix, const Changes& changes);

/* Writes an array of objects: table, id, what (add, change, delete) and the fields that differ, each
 * as its values before and after; null: there is no record. */
void write_changes(const Changes& changes, JsonWriter* writer);

/* Writes the members time and, of a known author, user, uid and pid. */
void write_author(const Author& author, JsonWriter* writer);

/* What others changed in the records of these changes since. */
void find_later_changes(Source& live, const Changes& changes, Changes* later);

}  // namespace scctl

#endif
