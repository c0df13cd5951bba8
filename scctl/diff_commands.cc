/* diff --commands: the commands that turn one store into another.
 *
 * What each command does to the first store is done to a copy of its records, until the copy is
 * equal to the second store. So the lines can be run in their order: groups stand before the rules
 * that refer to them, and deletions come last, rules before groups. A record is deleted earlier if
 * another one gets its key. A rule that goes with a group is added again if the second store has
 * it.
 */
#include <stdio.h>
#include <string.h>

#include <sysconfig/ap.h>

#include "commands.h"
#include "store/edit.h"
#include "store/overlay.h"
#include "store/value.h"

namespace scctl {

namespace {

constexpr int kMostPasses = 3; /* a deletion changes other records, and these no more */

class Commands {
 public:
  Commands(Source& from, Source& into) {
    for (int n = 0; n < kTableCount; ++n) {
      const Table& table = kTables[n];
      if (from.block(table.area) == nullptr || into.block(table.area) == nullptr) continue;
      is_[n].take(table, from);
      wanted_[n].take(table, into);
    }
  }

  bool print() {
    for (int pass = 0; pass < kMostPasses; ++pass) {
      for (int n = 0; n < kTableCount; ++n) each(n, true);
      for (int n = kTableCount; n-- > 0;) each(n, false);
    }
    return any_;
  }

 private:
  /* Writes the records that are wanted in a table, or deletes the others. */
  void each(int n, bool is_wanted) {
    for (uint32_t position = 0; is_[n] && position < kTables[n].capacity; ++position) {
      if (wanted_[n].used(position) != is_wanted) continue;
      if (is_wanted)
        write(n, position);
      else if (is_[n].used(position))
        remove(n, position);
    }
  }

  /* Finds a record with the key of a wanted one. First deletes those that get another key. -1: there
   * is none. */
  int free_key(int n, uint32_t position, const Field** field) {
    const Snapshot &is = is_[n], &wanted = wanted_[n];
    while (true) {
      const int other = is.find_clash(wanted.record(position), static_cast<int>(position), field);
      if (other < 0) return other;
      const auto holder = static_cast<uint32_t>(other);
      if (wanted.used(holder) && equal(**field, is.record(holder), wanted.record(holder))) {
        return other;
      }
      remove(n, holder);
    }
  }

  void write(int n, uint32_t position) {
    Snapshot &is = is_[n], &wanted = wanted_[n];
    const Table& table = kTables[n];
    const uint8_t *now = is.record(position), *record = wanted.record(position);
    if (is.used(position) && has_equal_fields(table, now, record)) return;
    any_ = true;
    bool has_key = !is.used(position);
    for (const Field& field : table) {
      if (!is.used(position) || equal(field, now, record)) continue;
      has_key |= field.clash != Clash::kNone;
      if (field.add_only) remove(n, position); /* set cannot write it */
    }
    const bool is_new = !is.used(position);
    const Field* same = nullptr; /* a key that the library alone tells apart from another one */
    if (has_key && free_key(n, position, &same) >= 0) {
      const int other =
          is.find_clash(record, static_cast<int>(position), &same, Spelling::kAsLibrary);
      if (other >= 0) {
        printf("# %s/%u cannot be as wanted: its %s equals that of %s/%d\n", table.name,
               position + 1, same->name, table.name, other + 1);
        if (is_new)
          wanted.drop(position);
        else
          memcpy(wanted.put(position), now, table.stride);
        return;
      }
    }
    Text line;
    bool has_secret = false;
    const Table& view = view_of(table, position, record);
    for (const Field& field : view) {
      const bool is_left_out =
          is_new ? size_without_trailing_zeros(field, record) == 0 : equal(field, now, record);
      const bool is_needed = &field + 1 == view.end() && line.size() == 0 && !has_secret;
      if (is_left_out && !is_needed && &field != same) continue;
      if (is_hidden(field) && !is_left_out) {
        has_secret = true;
        printf("# %s/%u.%s is a secret; --secrets prints its value\n", table.name, position + 1,
               field.name);
      } else {
        format_assignment(field, record, &field != same, &line);
      }
    }
    if (is_new || line.size() > 0) {
      printf("scctl %s %s/%u%s\n", is_new ? "add" : "set", table.name, position + 1, line.c_str());
    }
    memcpy(is.put(position), record, table.stride);
  }

  void remove(int n, uint32_t position) {
    const Table& table = kTables[n];
    printf("scctl del %s/%u\n", table.name, position + 1);
    any_ = true;
    is_[n].drop(position);
    for (const Reference& reference : kReferences) {
      if (strcmp(reference.groups, table.name) != 0) continue;
      Snapshot& rules = is_of(reference.table);
      for (uint32_t rule = 0; rules && rule < rules.table().capacity; ++rule) {
        if (rules.used(rule) && is_deleted_with(reference, rules.record(rule), position + 1)) {
          rules.drop(rule);
        }
      }
    }
    if (table.area == kApTemplateList) unbind(is_[n].record(position));
  }

  /* The access point that is bound to a template loses its group. */
  void unbind(const uint8_t* record) {
    const auto* bound = reinterpret_cast<const ApTemplateRecord*>(record)->bound_ap_mac;
    Snapshot& aps = is_of("aps");
    for (uint32_t position = 0; aps && position < SC_ACCESS_POINTS; ++position) {
      const auto* ap = reinterpret_cast<const ApInfoRecord*>(aps.record(position));
      if (!aps.used(position) || memcmp(ap->ap_mac, bound, SC_MAC_BYTES) != 0) continue;
      auto* changed = reinterpret_cast<ApInfoRecord*>(aps.put(position));
      changed->group_id = 0;
      memset(changed->group_info, 0, sizeof changed->group_info);
      return;
    }
  }

  Snapshot& is_of(const char* table) { return is_[find_table(table, strlen(table)) - kTables]; }

  Snapshot is_[kTableCount]; /* as the commands so far leave them */
  Snapshot wanted_[kTableCount];
  bool any_ = false;
};

}  // namespace

bool print_commands(Source& from, Source& into) { return Commands(from, into).print(); }

}  // namespace scctl
