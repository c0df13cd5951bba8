#include "members.h"

#include <string.h>

#include "store/overlay.h"

namespace scctl {

/* ---- secrets that stay ---- */

void KeptSecrets::add(const Table& table, uint32_t position, const Field& field) {
  const Kept kept = {&table, position, field};
  all_.add(reinterpret_cast<const char*>(&kept), sizeof kept);
}

int KeptSecrets::take(const Snapshot& now, Snapshot* wanted) const {
  for (size_t at = 0; at < all_.size(); at += sizeof(Kept)) {
    Kept kept;
    memcpy(&kept, all_.c_str() + at, sizeof kept);
    if (kept.table != &now.table()) continue;
    if (!now.used(kept.position)) {
      return fail(kRefused, "%s/%u.%s: a new record has no secret that could stay",
                  kept.table->name, kept.position + 1, kept.field.name);
    }
    copy_field(kept.field, wanted->put(kept.position), now.record(kept.position));
  }
  return kOk;
}

/* ---- values by name ---- */

int check_json_kind(const Table& table, const Field& field, JsonKind kind) {
  static constexpr const char* kDue[] = {"a text in quotes", "a number", "a list of numbers"};
  const bool is_number = field.kind == Kind::kSigned || field.kind == Kind::kUnsigned;
  const JsonKind due = !is_number              ? JsonKind::kText
                       : list_size(field) != 0 ? JsonKind::kNumbers
                                               : JsonKind::kNumber;
  const bool is_name =
      kind == JsonKind::kText && field.extra != nullptr && field.extra->names != nullptr;
  if (kind == due || is_name) return kOk;
  return fail(kRefused, "%s.%s: expected %s", table.name, field.name, kDue[static_cast<int>(due)]);
}

int check_replaced(const Table& table, uint32_t position, const uint8_t* now,
                   const uint8_t* wanted) {
  for (const Field& field : view_of(table, position, wanted)) {
    if (field.extra == nullptr || equal(field, now, wanted) ||
        size_without_trailing_zeros(field, now) == 0) {
      continue;
    }
    if (const char* fault = find_fault(field, wanted); fault != nullptr) {
      return fail(kRefused, "%s/%u.%s: %s", table.name, position + 1, field.name, fault);
    }
  }
  return kOk;
}

int unknown_member(const Table& table, uint32_t position, const uint8_t* record, const char* name,
                   size_t length) {
  Text reasons, member;
  member.add(name, length);
  if (g_overlays != nullptr) {
    g_overlays->add_reasons(table, position, record, member.c_str(), &reasons);
  }
  if (reasons.size() == 0) return unknown_field(view_of(table, position, record), name, length);
  reasons.trim('\n');
  return fail(kRefused, "%s/%u has no field '%.*s'; %s", table.name, position + 1,
              static_cast<int>(length), name, reasons.c_str());
}

void Values::add(const char* name, size_t length, const char* value, size_t size, From from,
                 JsonKind kind, unsigned line) {
  Value made = {};
  made.name = texts_.size();
  texts_.add(name, length);
  texts_.add('\0');
  made.value = texts_.size();
  made.size = size;
  texts_.add(value, size);
  texts_.add('\0');
  made.kind = kind;
  made.from = from;
  made.line = line;
  values_.add(reinterpret_cast<const char*>(&made), sizeof made);
}

/* Values stand mostly in the order of the fields: the one behind the last is tried first. */
const Field* Values::find(const Table& view, const Value& value, const Field** guess) {
  const char* wanted = name(value);
  const Field* field = *guess;
  if (field == nullptr || field >= view.end() || strcmp(field->name, wanted) != 0) {
    field = find_field(view, wanted, strlen(wanted));
  }
  *guess = field != nullptr ? field + 1 : nullptr;
  return field;
}

int Values::write(const Table& view, const Field& field, Value* value, bool is_new,
                  uint8_t* record) {
  const char* text = texts_.c_str() + value->value;
  const bool is_null = value->kind == JsonKind::kNull && field.is_secret;
  value->is_token = is_null || (value->from == From::kWord && is_token(field, text, value->size));
  value->is_written = true;
  if (value->is_token) {
    return !is_new ? kOk
                   : fail(kRefused, "%s.%s: a new record has no secret that could stay", view.name,
                          field.name);
  }
  if (value->from == From::kWordInHex) return parse_text_bytes(view, field, text, record);
  const bool is_typed = value->from == From::kWord;
  if (!is_typed) {
    if (const int status = check_json_kind(view, field, value->kind); status != kOk) return status;
  }
  return parse(view, field, text, value->size, is_typed ? Origin::kTyped : Origin::kCopied, record);
}

/* The value has to be there, and a typed one that changes something has to be allowed. */
int Values::check(const Table& view, const Field& field, const Value& value, uint32_t position,
                  const uint8_t* before, const uint8_t* record) {
  Buffer own(view.stride);
  Value again = value;
  if (write(view, field, &again, false, own.data()) != kOk) return kRefused;
  if (!equal(field, own.data(), record)) {
    return fail(kRefused, "%s/%u.%s: another name of its bytes has another value", view.name,
                position + 1, field.name);
  }
  if (value.from != From::kWord || equal(field, before, record)) return kOk;
  const char* fault = find_fault(field, record);
  if (fault == nullptr) return kOk;
  return fail(kRefused, "%s.%s: '%s': %s", view.name, field.name,
              is_hidden(field) ? kSecret : texts_.c_str() + value.value, fault);
}

int Values::write(const Table& table, uint32_t position, bool is_new, uint8_t* record, Mask* mask,
                  KeptSecrets* kept, Lines* lines) {
  Buffer before(table.stride);
  memcpy(before.data(), record, table.stride);
  const auto at = [lines](const Value& value) {
    if (lines != nullptr) lines->at(value.line);
  };
  const bool refuses = is_new && kept == nullptr; /* tokens */
  for (Value* value = begin(); value < end(); ++value) {
    const Field* field = g_overlays->find_condition(table, position, name(*value));
    if (field == nullptr) continue;
    at(*value);
    if (const int status = write(table, *field, value, refuses, record); status != kOk) {
      return status;
    }
  }
  for (bool any = true; any;) {
    any = false;
    const Table& view = view_of(table, position, record);
    const Field* guess = nullptr;
    Buffer seen(view.field_count + view.hidden_count + 1u);
    for (Value* value = begin(); value < end(); ++value) {
      const Field* field = find(view, *value, &guess);
      if (field == nullptr) continue;
      at(*value);
      if (uint8_t& is_second = seen.data()[field - view.fields]; is_second++ != 0) {
        return fail(kRefused, "%s: a record has %s twice", table.name, field->name);
      }
      if (value->is_written) continue;
      any = true;
      if (const int status = write(view, *field, value, refuses, record); status != kOk) {
        return status;
      }
    }
  }
  const Table& view = view_of(table, position, record);
  const Field* guess = nullptr;
  for (const Value* value = begin(); value < end(); ++value) {
    const Field* field = find(view, *value, &guess);
    at(*value);
    if (field == nullptr) {
      return unknown_member(table, position, record, name(*value), strlen(name(*value)));
    }
    if (value->is_token) {
      if (kept != nullptr) kept->add(table, position, *field);
      continue;
    }
    if (const int status = check(view, *field, *value, position, before.data(), record);
        status != kOk) {
      return status;
    }
    if (mask != nullptr) mask->add(*field);
  }
  return kOk;
}

}  // namespace scctl
