#include "changes.h"

#include <string.h>

#include "commands.h"
#include "store/value.h"

namespace scctl {

void print_changes(const char* prefix, const Changes& changes) {
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    print_changes(prefix, *change->table, change->position + 1,
                  change->was_used ? change->before.data() : nullptr,
                  change->is_used ? change->after.data() : nullptr);
  }
}

namespace {

void add_value(const Field& field, const uint8_t* record, bool is_there, Text* to) {
  if (is_there)
    format_json(field, record, true, to);
  else
    to->add("null");
}

void write_change(const Change& change, JsonWriter* writer) {
  writer->open('{', JsonWriter::kInline);
  writer->member("table", change.table->name);
  writer->member("id", change.position + 1);
  writer->member("what", !change.was_used ? "add" : !change.is_used ? "delete" : "change");
  writer->name("fields");
  writer->open('{', JsonWriter::kInline);
  const bool whole = change.was_used != change.is_used;
  for (const Field& field : *change.table) {
    const uint8_t* contents = (change.was_used ? change.before : change.after).data();
    if (whole ? size_without_trailing_zeros(field, contents) == 0
              : !change.is_field_changed(field)) {
      continue;
    }
    writer->name(field.name);
    Text& value = writer->value();
    value.add('[');
    add_value(field, change.before.data(), change.was_used, &value);
    value.add(", ");
    add_value(field, change.after.data(), change.is_used, &value);
    value.add(']');
  }
  writer->close();
  writer->close();
}

}  // namespace

void write_changes(const Changes& changes, JsonWriter* writer) {
  writer->open('[', JsonWriter::kInline);
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    if (change->was_used || change->is_used) write_change(*change, writer);
  }
  writer->close();
}

void write_author(const Author& author, JsonWriter* writer) {
  Text text;
  add_time(author.time, true, &text);
  writer->member("time", text.c_str());
  if (author.uid == kNobody) return;
  text.clear();
  add_user(author.uid, &text);
  writer->name("user");
  add_json_text(text.c_str(), &writer->value());
  writer->member("uid", author.uid);
  writer->member("pid", author.pid);
}

void find_later_changes(Source& live, const Changes& changes, Changes* later) {
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    const Table& table = *change->table;
    if (live.block(table.area) == nullptr) continue;
    Reader reader(live, table);
    Buffer now(table.stride);
    const bool used = reader.copy(change->position, now.data());
    if (used != change->is_used) {
      later->add({table, change->position, change->after.data(), now.data(), nullptr,
                  change->is_used, used});
      continue;
    }
    Mask differing(table);
    if (used) differing.add_differences(change->after.data(), now.data());
    for (uint32_t at = 0; at < table.stride; ++at) {
      differing.bytes()[at] &= change->mask.data()[at];
    }
    if (differing.empty()) continue;
    later->add(
        {table, change->position, change->after.data(), now.data(), differing.bytes(), true, true});
  }
}

}  // namespace scctl
