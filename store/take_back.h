/* Takes changes back, whoever changed the configuration since: each field goes back only when it
 * still has the value that the change gave it. What others did since stays, and is reported.
 *
 * A deleted record returns to its own id or not at all. Rules return only with the groups that they
 * refer to, and a group is kept while another program's rule refers to it. No key gets two records.
 */
#ifndef STORE_TAKE_BACK_H
#define STORE_TAKE_BACK_H

#include "store/edit.h"

namespace store {

/* Takes back the changes that are due, and sets their fates. Adds a line to the report for each
 * value that stays and for each record that waits, "it waits: why", where `kept` says instead of "it
 * waits" what becomes of it. The areas are begun; it may be repeated for
 * changes that are still due. */
void take_back(Edit& edit, Changes& changes, const char* kept, Text* report);

/* How many changes have this fate. */
unsigned count(const Changes& changes, Fate fate);
unsigned count(const Changes& changes);

}  // namespace store

#endif
