#include "store/take_back.h"

#include <string.h>

#include <sysconfig/ap.h>

#include "store/overlay.h"
#include "store/value.h"

namespace store {

namespace {

const Table& table_named(const char* name) { return *find_table(name, strlen(name)); }

const Field& field_named(const Table& table, const char* name) {
  return *find_field(table, name, strlen(name));
}

/* Whether the rule refers to the group with this id. */
bool refers_to(const Reference& reference, const Table& rules, const uint8_t* rule, uint32_t id) {
  const Field& mode = field_named(rules, reference.mode);
  const Field& group = field_named(rules, reference.id);
  const int64_t kind = load_number(rule + mode.record_at, mode.size, true);
  return (kind == 1 || kind == reference.last_mode) &&
         load_number(rule + group.record_at, group.size, true) == id;
}

/* Whether other records decide if one of this table may go back, or it decides for others: the table
 * has keys, or is one of groups or of rules. */
bool has_conditions(const Table& table) {
  for (const Field& field : table) {
    if (field.clash != Clash::kNone) return true;
  }
  for (const Reference& reference : kReferences) {
    if (&table_named(reference.table) == &table || &table_named(reference.groups) == &table) {
      return true;
    }
  }
  return false;
}

class TakingBack {
 public:
  TakingBack(Edit& edit, Changes& changes, const char* kept, Text* report)
      : edit_(edit), changes_(changes), kept_(kept), report_(report) {}

  void run() {
    plan();
    for (const Table& table : kTables) write(table, true);
    for (int n = kTableCount; n-- > 0;) write(kTables[n], false);
  }

 private:
  /* ---- what can go back ---- */

  /* A change that cannot go back may hold up others, so the rules are applied until they hold up no
   * more. */
  void plan() {
    for (const Table& table : kTables) {
      if (has_conditions(table) && is_concerned(table)) predict(table);
    }
    bool again = true;
    while (again) {
      again = false;
      for (Change* change = changes_.first(); change != nullptr; change = change->next) {
        if (change->fate == Fate::kDue && !may_go_back(*change)) again = true;
      }
    }
  }

  /* Whether a change of this table, or of a group that its rules refer to, is due. */
  bool is_concerned(const Table& table) {
    for (const Change* change = changes_.first(); change != nullptr; change = change->next) {
      if (change->fate != Fate::kDue) continue;
      if (change->table == &table) return true;
      for (const Reference& reference : kReferences) {
        if (&table_named(reference.groups) == change->table &&
            &table_named(reference.table) == &table) {
          return true;
        }
      }
    }
    return false;
  }

  Snapshot& now(const Table& table) { return now_[number_of(table)]; }
  Snapshot& then(const Table& table) { return then_[number_of(table)]; }

  /* Makes the table as it will be when all changes have gone back. */
  void predict(const Table& table) {
    Snapshot present(table), future(table);
    present.take(edit_.live());
    for (uint32_t position = 0; position < table.capacity; ++position) {
      if (!present.used(position)) continue;
      memcpy(future.put(position), present.record(position), table.stride);
    }
    present.swap(now(table));
    future.swap(then(table));
    for (Change* change = changes_.first(); change != nullptr; change = change->next) {
      if (change->table == &table && change->fate == Fate::kDue) predict(*change);
    }
  }

  void predict(const Change& change) {
    const Table& table = *change.table;
    const uint32_t position = change.position;
    Snapshot& future = then(table);
    const bool used = now(table).used(position);
    uint8_t* record = future.put(position);
    if (!used) future.drop(position);
    if (change.was_used && change.is_used && used) {
      for (const Field& field : table) {
        if (goes_back(change, field)) copy(field, record, change.before.data());
      }
    } else if (change.was_used && !change.is_used && !used) {
      memcpy(future.put(position), change.before.data(), table.stride);
    } else if (!change.was_used && change.is_used && used && is_now(change, change.after)) {
      future.drop(position);
    }
  }

  bool goes_back(const Change& change, const Field& field) {
    return change.is_field_changed(field) &&
           equal(field, now(*change.table).record(change.position), change.after.data());
  }

  static void copy(const Field& field, uint8_t* to, const uint8_t* from) {
    memcpy(to + field.record_at, from + field.record_at, field.size);
  }

  void undo_prediction(const Change& change) {
    const Table& table = *change.table;
    const uint32_t position = change.position;
    memcpy(then(table).put(position), now(table).record(position), table.stride);
    if (!now(table).used(position)) then(table).drop(position);
  }

  /* False when the change was decided otherwise. */
  bool may_go_back(Change& change) {
    const Table& table = *change.table;
    if (!now(table)) return true;
    const bool used = now(table).used(change.position);
    if (change.was_used && !change.is_used && used && !is_now(change, change.before)) {
      return wait(change, "its id is used by another record");
    }
    if (!change.was_used && change.is_used && !then(table).used(change.position)) {
      return has_no_rules(change);
    }
    if (!change.was_used || !then(table).used(change.position)) return true;
    return has_its_groups(change) && has_its_keys(change);
  }

  bool is_now(const Change& change, const Buffer& values) {
    return has_equal_fields(*change.table, now(*change.table).record(change.position),
                            values.data());
  }

  bool has_its_keys(Change& change) {
    const Table& table = *change.table;
    const uint8_t* record = then(table).record(change.position);
    const Field* field;
    const int other = then(table).find_clash(record, static_cast<int>(change.position), &field);
    if (other < 0) return true;
    Text why;
    why.print("its %s is used by %s/%d", field->name, table.name, other + 1);
    const bool was_deleted = !now(table).used(change.position);
    if (was_deleted) return wait(change, why.c_str());
    if (!goes_back(change, *field)) return true; /* they clash already */
    say(change, field, "the value before is used by another record; it stays");
    memset(change.mask.data() + field->record_at, 0, field->size);
    copy(*field, then(table).put(change.position), now(table).record(change.position));
    change.is_partly_kept = true;
    return false;
  }

  /* A rule does not return to a group that waits: another group may have its id. */
  bool has_its_groups(Change& change) {
    const Table& table = *change.table;
    for (const Reference& reference : kReferences) {
      if (&table_named(reference.table) != &table) continue;
      const Table& groups = table_named(reference.groups);
      for (const Change* group = changes_.first(); group != nullptr; group = group->next) {
        if (group->table != &groups || group->fate != Fate::kWaits) continue;
        const uint32_t id = group->position + 1;
        if (!refers_to(reference, table, then(table).record(change.position), id)) continue;
        if (now(table).used(change.position) &&
            refers_to(reference, table, now(table).record(change.position), id)) {
          continue;
        }
        Text why;
        why.print("it refers to %s/%u, which waits", groups.name, id);
        return wait(change, why.c_str());
      }
    }
    return true;
  }

  /* An added group stays while a rule refers to it that is not taken back. */
  bool has_no_rules(Change& change) {
    for (const Reference& reference : kReferences) {
      if (&table_named(reference.groups) != change.table) continue;
      const Table& rules = table_named(reference.table);
      for (uint32_t position = 0; position < rules.capacity; ++position) {
        if (!then(rules).used(position) ||
            !refers_to(reference, rules, then(rules).record(position), change.position + 1)) {
          continue;
        }
        Text why;
        why.print("it stays: %s/%u refers to it", rules.name, position + 1);
        say(change, nullptr, why.c_str());
        change.fate = Fate::kStays;
        undo_prediction(change);
        return false;
      }
    }
    return true;
  }

  bool wait(Change& change, const char* why) {
    say_kept(change, why);
    undo_prediction(change);
    return false;
  }

  /* ---- writing ---- */

  /* Records return and get their values back before those that were added go. So no rule refers to
   * a group that does not exist. */
  void write(const Table& table, bool was_used) {
    for (Change* change = changes_.first(); change != nullptr; change = change->next) {
      if (change->table != &table || change->was_used != was_used || change->fate != Fate::kDue) {
        continue;
      }
      if (table.area == kApTemplateList) write_with_partners(*change);
      finish(*change);
    }
  }

  /* The access points that the template was bound to, before and after, are taken back with it. */
  void write_with_partners(const Change& change) {
    const Field& bound = field_named(*change.table, "bound_ap_mac");
    if (!change.was_used || !change.is_used || !change.is_field_changed(bound)) return;
    const Table& aps = table_named("aps");
    const Field& mac = field_named(aps, "ap_mac");
    const uint8_t* block = edit_.live().block(aps.area);
    if (block == nullptr || g_lock_files[aps.area] == 0) return;
    const uint8_t* values[] = {change.after.data(), change.before.data()};
    for (const uint8_t* value : values) {
      for (Change* ap = changes_.first(); ap != nullptr; ap = ap->next) {
        if (ap->table != &aps) continue;
        const uint8_t* record = block + aps.at + ap->position * aps.stride;
        if (memcmp(record + mac.record_at, value + bound.record_at, SC_MAC_BYTES) != 0) continue;
        Mask stays(*change.table);
        edit_.take_back(change, &stays, ap);
      }
    }
  }

  void finish(Change& change) {
    Mask stays(*change.table);
    const char* what = nullptr;
    if (g_lock_files[change.table->area] == 0) {
      change.fate = Fate::kStays;
      return say(change, nullptr, "its area does not exist, or has no lock file");
    }
    const Written written = edit_.take_back(change, &stays);
    change.fate = Fate::kStays;
    switch (written) {
      case Written::kLocked: change.fate = Fate::kDue; return;
      case Written::kNotUsed: what = "it was deleted since"; break;
      case Written::kChanged: what = "it was added, and changed since; it stays"; break;
      case Written::kFailed: what = "it cannot be written; it stays"; break;
      case Written::kNotFree: say_kept(change, "its id is used by another record"); break;
      case Written::kDone:
        if (stays.empty() && !change.is_partly_kept) change.fate = Fate::kBack;
        break;
    }
    if (what != nullptr) say(change, nullptr, what);
    for (const Field& field : names_of(*change.table, static_cast<int>(change.position))) {
      const uint32_t end = field.record_at + uint32_t{field.size};
      if (next_run(stays.bytes(), field.record_at, end).size == 0) continue;
      say(change, &field, "it was changed since; it stays");
    }
  }

  void say_kept(Change& change, const char* why) {
    Text line;
    line.print("%s: %s", kept_, why);
    say(change, nullptr, line.c_str());
    change.fate = Fate::kWaits;
  }

  void say(const Change& change, const Field* field, const char* what) {
    report_->print("%s/%u%s%s: %s\n", change.table->name, change.position + 1,
                   field != nullptr ? "." : "", field != nullptr ? field->name : "", what);
  }

  Edit& edit_;
  Changes& changes_;
  const char* kept_;
  Text* report_;
  Snapshot now_[kTableCount], then_[kTableCount];
};

}  // namespace

void take_back(Edit& edit, Changes& changes, const char* kept, Text* report) {
  TakingBack(edit, changes, kept, report).run();
}

unsigned count(const Changes& changes, Fate fate) {
  unsigned count = 0;
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    count += change->fate == fate;
  }
  return count;
}

unsigned count(const Changes& changes) {
  unsigned count = 0;
  for (const Change* change = changes.first(); change != nullptr; change = change->next) ++count;
  return count;
}

}  // namespace store
