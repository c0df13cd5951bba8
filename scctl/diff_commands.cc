/* diff --commands: the commands that turn one store into another.
 *
 * What each command does to the first store is done to a copy of its records, until the copy is
 * equal to the second store. So the lines can be run in their order: groups stand before the rules
 * that refer to them, and deletions come last, rules before groups. A record is deleted first if
 * another one gets its key. A rule that goes with a group is added again if the second store has
 * it.
 */
#include <stdio.h>
#include <string.h>

#include <sysconfig/ap.h>

#include "commands.h"
#include "store/edit.h"
#include "store/value.h"

namespace scctl {

namespace {

constexpr int kMostPasses = 3; /* a deletion changes other records, and these no more */

int number_of(const Table& table) { return static_cast<int>(&table - kTables); }

class Commands {
 public:
  Commands(Source& from, Source& into) {
    for (int n = 0; n < kTableCount; ++n) {
      const Table& table = kTables[n];
      if (from.block(table.area) == nullptr || into.block(table.area) == nullptr) continue;
      Snapshot is(table), wanted(table);
      is.take(from);
      wanted.take(into);
      is.swap(is_[n]);
      wanted.swap(wanted_[n]);
    }
  }

  bool print() {
    for (int n = kTableCount; n-- > 0;) free_keys(n);
    for (int pass = 0; pass < kMostPasses; ++pass) {
      for (int n = 0; n < kTableCount; ++n) write_table(n);
      for (int n = kTableCount; n-- > 0;) delete_rest(n);
    }
    return any_;
  }

 private:
  static uint32_t capacity(const Snapshot& records) {
    return records ? records.table().capacity : 0;
  }

  /* Deletes the records whose keys other records get, and those whose keys set cannot change. */
  void free_keys(int n) {
    Snapshot &is = is_[n], &wanted = wanted_[n];
    for (uint32_t position = 0; position < capacity(is); ++position) {
      if (!wanted.used(position)) continue;
      const uint8_t* record = wanted.record(position);
      bool has_new_key = !is.used(position);
      for (const Field& field : is.table()) {
        if (!is.used(position) || equal(field, is.record(position), record)) continue;
        has_new_key |= field.clash != Clash::kNone;
        if (field.add_only) remove(n, position);
      }
      const Field* field;
      for (int other; has_new_key && (other = is.find_clash(record, static_cast<int>(position),
                                                            &field)) >= 0;) {
        const auto holder = static_cast<uint32_t>(other);
        if (wanted.used(holder) && equal(*field, is.record(holder), wanted.record(holder))) break;
        remove(n, holder);
      }
    }
  }

  void write_table(int n) {
    for (uint32_t position = 0; position < capacity(is_[n]); ++position) {
      if (wanted_[n].used(position)) write(n, position);
    }
  }

  void delete_rest(int n) {
    for (uint32_t position = 0; position < capacity(is_[n]); ++position) {
      if (is_[n].used(position) && !wanted_[n].used(position)) remove(n, position);
    }
  }

  void write(int n, uint32_t position) {
    Snapshot &is = is_[n], &wanted = wanted_[n];
    const Table& table = is.table();
    const uint8_t* record = wanted.record(position);
    const bool is_new = !is.used(position);
    if (!is_new && has_equal_fields(table, is.record(position), record)) return;
    const auto differs = [&](const Field& field) {
      return is_new ? size_without_trailing_zeros(field, record) > 0
                    : !equal(field, is.record(position), record);
    };
    any_ = true;
    bool has_key = is_new;
    for (const Field& field : table) has_key |= field.clash != Clash::kNone && differs(field);
    const Field* same = nullptr; /* the library does not take it for another record's key */
    if (has_key) {
      const int skip = static_cast<int>(position);
      if (const int other = is.find_clash(record, skip, &same, Spelling::kAsLibrary); other >= 0) {
        printf("# %s/%u cannot be as wanted: its %s equals that of %s/%d\n", table.name,
               position + 1, same->name, table.name, other + 1);
        if (is_new)
          wanted.drop(position);
        else
          memcpy(wanted.put(position), is.record(position), table.stride);
        return;
      }
      if (is.find_clash(record, skip, &same) < 0) same = nullptr;
    }
    Text line;
    line.print("scctl %s %s/%u", is_new ? "add" : "set", table.name, position + 1);
    const size_t empty = line.size();
    for (const Field& field : table) {
      const bool is_last = &field + 1 == table.end();
      if (!differs(field) && &field != same && (!is_last || line.size() > empty)) continue;
      format_assignment(field, record, &field != same, &line);
    }
    puts(line.c_str());
    memcpy(is.put(position), record, table.stride);
  }

  void remove(int n, uint32_t position) {
    const Table& table = kTables[n];
    printf("scctl del %s/%u\n", table.name, position + 1);
    any_ = true;
    is_[n].drop(position);
    for (const Reference& reference : kReferences) {
      if (strcmp(reference.groups, table.name) != 0) continue;
      Snapshot& rules = is_[number_of(*find_table(reference.table, strlen(reference.table)))];
      for (uint32_t rule = 0; rule < capacity(rules); ++rule) {
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
    Snapshot& aps = is_[number_of(*find_table("aps", 3))];
    for (uint32_t position = 0; position < capacity(aps); ++position) {
      const auto* ap = reinterpret_cast<const ApInfoRecord*>(aps.record(position));
      if (!aps.used(position) || memcmp(ap->ap_mac, bound, SC_MAC_BYTES) != 0) continue;
      auto* changed = reinterpret_cast<ApInfoRecord*>(aps.put(position));
      changed->group_id = 0;
      memset(changed->group_info, 0, sizeof changed->group_info);
      return;
    }
  }

  Snapshot is_[kTableCount]; /* as the commands so far leave them */
  Snapshot wanted_[kTableCount];
  bool any_ = false;
};

}  // namespace

bool print_commands(Source& from, Source& into) { return Commands(from, into).print(); }

}  // namespace scctl
