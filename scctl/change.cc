/* Commands that change records: add, set, del, clear, bind, unbind. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sysconfig/ap.h>

#include "commands.h"
#include "members.h"
#include "store/edit.h"
#include "store/overlay.h"
#include "store/value.h"

namespace scctl {

namespace {

/* Parses the assignments after the first word. The mask gets the fields that they name. */
int parse_assignments(const Call& call, const Table& table, uint8_t* record, Mask* mask,
                      Spelling* spelling) {
  for (int n = 1; n < call.word_count; ++n) {
    const char* word = call.words[n];
    const Field* field;
    if (const int status = parse_assignment(table, word, record, &field, spelling); status != kOk) {
      return status;
    }
    if (mask->has(*field)) return fail(kUsage, "%s.%s appears twice", table.name, field->name);
    mask->add(*field);
  }
  return kOk;
}

/* The same for a record whose members depend on its contents. */
int parse_members(const Call& call, const Target& target, bool is_new, uint8_t* record, Mask* mask,
                  Spelling* spelling) {
  Values values;
  for (int n = 1; n < call.word_count; ++n) {
    Assignment given;
    if (const int status = split_assignment(call.words[n], &given); status != kOk) return status;
    if (given.is_hex) *spelling = Spelling::kAsLibrary;
    values.add(given.name, given.length, given.value, strlen(given.value),
               given.is_hex ? Values::From::kWordInHex : Values::From::kWord, JsonKind::kText, 0);
  }
  const uint32_t position = target.id != 0 ? target.id - 1 : 0;
  return values.write(*target.table, position, is_new, record, mask, nullptr, nullptr);
}

}  // namespace

int run_add(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kMayHaveId, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  Buffer record(table.stride);
  Mask mask(table);
  Spelling spelling = Spelling::kAsMac;
  if (const int parsed = is_covered(table)
                             ? parse_members(call, target, true, record.data(), &mask, &spelling)
                             : parse_assignments(call, table, record.data(), &mask, &spelling);
      parsed != kOk) {
    return parsed;
  }
  const int status = add_record(call.source, table, record.data(), spelling, &target.id);
  if (status == kOk) tell("added %s/%u", table.name, target.id);
  return status;
}

int run_set(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kWithId, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  Buffer record(table.stride);
  Mask mask(table);
  Spelling spelling = Spelling::kAsMac;
  if (is_covered(table)) {
    if (const int status = call.source.need(table.area); status != kOk) return status;
    if (!Reader(call.source, table).copy(target.id - 1, record.data())) {
      return refuse_free(table, target.id);
    }
    if (const int status = parse_members(call, target, false, record.data(), &mask, &spelling);
        status != kOk) {
      return status;
    }
  } else if (const int status = parse_assignments(call, table, record.data(), &mask, &spelling);
             status != kOk) {
    return status;
  }
  return set_record(call.source, table, target.id, record.data(), mask, spelling);
}

int run_del(Call& call) {
  Buffer room(static_cast<size_t>(call.word_count) * sizeof(Doomed));
  auto* doomed = reinterpret_cast<Doomed*>(room.data());
  for (int n = 0; n < call.word_count; ++n) {
    Target target;
    if (const int status = parse_target(call.words[n], kWithId, &target); status != kOk) {
      return status;
    }
    doomed[n] = {target.table, target.id};
  }
  return delete_records(call.source, doomed, call.word_count);
}

int run_clear(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kTableAlone, &target); status != kOk) {
    return status;
  }
  return clear_table(call.source, *target.table);
}

/* ---- binding ---- */

namespace {

constexpr uint32_t kBindingAreas = bit(kApTemplateList) | bit(kManageApList);

/* The used record of this table that a word names. If it does not exist, prints an error, sets the
 * status and returns null. */
template <class Record>
const Record* parse_used(Call& call, const char* word, const char* table, Target* target,
                         int* status) {
  *status = parse_target(word, kWithId, target);
  if (*status != kOk) return nullptr;
  if (strcmp(target->table->name, table) != 0) {
    *status = fail(kRefused, "%s is not a record of %s", word, table);
    return nullptr;
  }
  const uint8_t* bytes = call.source.block(target->table->area) + target->table->at +
                         (target->id - 1) * target->table->stride;
  if (is_used(*target->table, bytes)) return reinterpret_cast<const Record*>(bytes);
  *status = fail(kRefused, "%s/%u is free", table, target->id);
  return nullptr;
}

/* Begins the edit of both areas and returns the template that the first word names. */
const ApTemplateRecord* parse_template(Call& call, Edit& edit, Target* target, int* status) {
  *status = edit.begin(kBindingAreas);
  if (*status != kOk) return nullptr;
  return parse_used<ApTemplateRecord>(call, call.words[0], "ap_templates", target, status);
}

bool is_bound(const ApTemplateRecord& record) {
  static constexpr uint8_t kNobody[SC_MAC_BYTES] = {};
  return memcmp(record.bound_ap_mac, kNobody, sizeof kNobody) != 0;
}

int finish(const Target& target, Written written) {
  return written == Written::kDone ? kOk : fail_written(*target.table, target.id, written);
}

}  // namespace

int run_bind(Call& call) {
  Edit edit(call.source);
  Target target, ap;
  int status;
  const ApTemplateRecord* record = parse_template(call, edit, &target, &status);
  if (record == nullptr) return status;
  const auto* ap_record = parse_used<ApInfoRecord>(call, call.words[1], "aps", &ap, &status);
  if (ap_record == nullptr) return status;
  if (is_bound(*record) && memcmp(record->bound_ap_mac, ap_record->ap_mac, SC_MAC_BYTES) != 0) {
    return fail(kRefused, "%s is bound to another AP; scctl unbind %s first", call.words[0],
                call.words[0]);
  }
  if (ap_record->group_id != 0 && ap_record->group_id != target.id) {
    return fail(kRefused, "%s is bound to ap_templates/%u; scctl unbind that first", call.words[1],
                ap_record->group_id);
  }
  return finish(target, edit.bind(target.id, ap.id));
}

int run_unbind(Call& call) {
  Edit edit(call.source);
  Target target;
  int status;
  const ApTemplateRecord* record = parse_template(call, edit, &target, &status);
  if (record == nullptr) return status;
  if (!is_bound(*record)) return fail(kRefused, "%s is not bound", call.words[0]);
  return finish(target, edit.unbind(target.id));
}

}  // namespace scctl
