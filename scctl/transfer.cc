/* Commands that move and compare: export, import, diff.
 *
 * An import makes each table in the file equal to the file, ids included. Tables that are not in
 * the file do not change. The whole file is checked first. Then only differences are written,
 * record by record, at their positions.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "commands.h"
#include "store/edit.h"
#include "import_reader.h"
#include "store/overlay.h"
#include "store/value.h"

namespace scctl {

/* ---- export ---- */

namespace {

/* Prints a line for each record and for each field in it that is not zero. */
void print_fields(Source& source, const bool* chosen) {
  for (const Table& table : kTables) {
    if (!chosen[table.area]) continue;
    Reader reader(source, table);
    Buffer record(table.stride);
    for (uint32_t position = 0; reader.copy_next(&position, record.data()); ++position) {
      printf("%s/%u\n", table.name, position + 1);
      for (const Field& field : view_of(table, position, record.data())) {
        if (size_without_trailing_zeros(field, record.data()) == 0) continue;
        Text value;
        format_part(field, record.data(), true, &value);
        printf("%s/%u.%s: %s\n", table.name, position + 1, field.name, value.c_str());
      }
    }
  }
}

}  // namespace

int run_export(Call& call) {
  bool chosen[kAreaCount];
  if (const int status = present_areas(call, chosen); status != kOk) return status;
  if (call.has(kFields)) {
    print_fields(call.source, chosen);
    return kOk;
  }
  Text text;
  JsonWriter writer(&text);
  writer.open('{', JsonWriter::kLines);
  const Table* last = nullptr;
  for (const Table& table : kTables) {
    if (!chosen[table.area]) continue;
    if (last == nullptr || last->area != table.area) {
      if (last != nullptr) writer.close();
      writer.name(kAreas[table.area].name);
      writer.open('{', JsonWriter::kLines);
    }
    last = &table;
    writer.name(table.name);
    writer.open('[', JsonWriter::kLines);
    Reader reader(call.source, table);
    Buffer record(table.stride);
    for (uint32_t position = 0; reader.copy_next(&position, record.data()); ++position) {
      write_json_record(view_of(table, position, record.data()), position + 1, record.data(), true,
                        &writer);
      fputs(text.c_str(), stdout);
      text.clear();
    }
    writer.close();
  }
  writer.close();
  writer.close();
  puts(text.c_str());
  return kOk;
}

/* ---- import ---- */

namespace {

/* Adds the sections that the file leaves out: these stay as they are. */
void add_sections(const Snapshot& now, Snapshot* wanted) {
  const Table& table = now.table();
  for (uint32_t position = 0; position < table.capacity && is_section(table); ++position) {
    if (!wanted->used(position)) {
      memcpy(wanted->put(position), now.record(position), table.stride);
    }
  }
}

/* Counts of what was done with the records of a table. */
struct Tally {
  unsigned added, changed, deleted;
};

/* Groups are written before the rules that refer to them. Records are deleted last, rules before
 * groups. So no rule ever refers to a group that does not exist. */
int write_tables(Edit& edit, const Snapshot* all_wanted, const Snapshot* now, Tally* tallies) {
  for (int n = 0; n < kTableCount; ++n) {
    const Table& table = kTables[n];
    const Snapshot &was = now[n], &wanted = all_wanted[n];
    for (uint32_t position = 0; wanted && position < table.capacity; ++position) {
      if (!wanted.used(position)) continue;
      Written written;
      if (!was.used(position)) {
        written = edit.add(table, position, wanted.record(position));
        tallies[n].added += written == Written::kDone;
      } else {
        Mask mask(table);
        mask.add_differences(view_of(table, position, wanted.record(position)),
                             was.record(position), wanted.record(position));
        if (mask.empty()) continue;
        written = edit.change(table, position, wanted.record(position), mask);
        tallies[n].changed += written == Written::kDone;
      }
      if (written != Written::kDone) return fail_written(table, position + 1, written);
    }
  }
  for (int n = kTableCount; n-- > 0;) {
    const Snapshot& was = now[n];
    for (uint32_t position = 0; was && position < was.table().capacity; ++position) {
      if (!was.used(position) || all_wanted[n].used(position)) continue;
      const Written written = edit.remove(was.table(), position, was.record(position));
      if (written == Written::kNotUsed) continue;
      if (written != Written::kDone) return fail_written(was.table(), position + 1, written);
      ++tallies[n].deleted;
    }
  }
  return kOk;
}

uint32_t areas_of(const Snapshot* wanted) {
  uint32_t areas = 0;
  for (int n = 0; n < kTableCount; ++n) {
    if (wanted[n]) areas |= bit(kTables[n].area);
  }
  return areas;
}

int need_areas(Source& live, uint32_t areas) {
  for (int n = 0; n < kAreaCount; ++n) {
    const auto area = static_cast<AreaId>(n);
    if ((areas & bit(area)) == 0) continue;
    if (const int status = live.need(area); status != kOk) return status;
  }
  return kOk;
}

/* Reads the present contents of the wanted tables. Secrets of these stay that the file leaves out;
 * what it replaces has to be replaced by values that are allowed. */
int take_tables(Source& live, const KeptSecrets* kept, Snapshot* wanted, Snapshot* now) {
  for (int n = 0; n < kTableCount; ++n) {
    if (!wanted[n]) continue;
    now[n].take(kTables[n], live);
    add_sections(now[n], &wanted[n]);
    if (kept == nullptr) continue;
    if (const int status = kept->take(now[n], &wanted[n]); status != kOk) return status;
    for (uint32_t position = 0; position < kTables[n].capacity; ++position) {
      if (!now[n].used(position) || !wanted[n].used(position)) continue;
      const int status =
          check_replaced(kTables[n], position, now[n].record(position), wanted[n].record(position));
      if (status != kOk) return status;
    }
  }
  return kOk;
}

}  // namespace

int replace_tables(Call& call, Snapshot* wanted, const KeptSecrets* kept) {
  const uint32_t areas = areas_of(wanted);
  if (const int status = need_areas(call.source, areas); status != kOk) return status;
  Snapshot now[kTableCount];
  unsigned changed = 0;
  if (call.has(kDryRun)) {
    const int status = take_tables(call.source, kept, wanted, now);
    if (status != kOk) return status;
    for (int n = 0; n < kTableCount; ++n) {
      if (now[n] && print_changes("", now[n], wanted[n])) ++changed;
    }
    printf("tables to change: %u\n", changed);
    return kOk;
  }
  Tally tallies[kTableCount] = {};
  int status;
  {
    Edit edit(call.source);
    if (status = edit.begin(areas); status != kOk) return status;
    if (status = take_tables(call.source, kept, wanted, now); status != kOk) return status;
    status = write_tables(edit, wanted, now, tallies);
  }
  for (int n = 0; n < kTableCount; ++n) {
    const Tally& tally = tallies[n];
    if (tally.added + tally.changed + tally.deleted == 0) continue;
    ++changed;
    printf("%s: %u added, %u changed, %u deleted\n", kTables[n].name, tally.added, tally.changed,
           tally.deleted);
  }
  tell("tables changed: %u%s", changed, status == kOk ? "" : failure_note());
  return status;
}

int run_import(Call& call) {
  Import import;
  if (const int status = import.read(call); status != kOk) return status;
  return replace_tables(call, import.wanted, g_overlays != nullptr ? &import.kept : nullptr);
}

/* ---- diff ---- */

namespace {

/* Adds the value in a line of changes. */
void add_value(const Field* field, const uint8_t* record, bool whole, Text* to) {
  if (field == nullptr) {
    to->add("(none)");
  } else if (field->kind != Kind::kBytes || is_hidden(*field)) {
    format_part(*field, record, whole, to);
  } else {
    const size_t size = size_without_trailing_zeros(*field, record);
    to->print("(%zu byte%s)", size, size == 1 ? "" : "s");
  }
}

void print_presence(const char* prefix, const Table& view, uint32_t id, const char* what,
                    const uint8_t* record) {
  Text line;
  for (const Field& field : view) {
    if (size_without_trailing_zeros(field, record) == 0) continue;
    line.print(" %s=", field.name);
    add_value(&field, record, false, &line);
  }
  printf("%s%s/%u: %s%s\n", prefix, view.name, id, what, line.c_str());
}

void print_values(const char* prefix, const Table& view, uint32_t id, const char* name,
                  const char* was, const char* is) {
  printf("%s%s/%u.%s: %s -> %s\n", prefix, view.name, id, name, was, is);
}

void print_differing_bytes(const char* prefix, const Table& view, uint32_t id, const Field& field,
                           const uint8_t* was, const uint8_t* is) {
  unsigned differing = 0, first = 0;
  for (unsigned n = field.size; n-- > 0;) {
    if (((was[field.record_at + n] ^ is[field.record_at + n]) & mask_at(field, n)) == 0) continue;
    ++differing;
    first = n;
  }
  printf("%s%s/%u.%s: %u byte%s at %u\n", prefix, view.name, id, field.name, differing,
         differing == 1 ? " differs," : "s differ, the first", first);
}

/* A field that the view shows. */
const Field* find_shown(const Table& view, const char* name) {
  const Field* field = find_field(view, name, strlen(name));
  return field != nullptr && field < view.end() ? field : nullptr;
}

/* Whether values of two overlays differ. */
bool differ(const Field& was_field, const uint8_t* was, const Field& is_field, const uint8_t* is) {
  Text before, after;
  const WithSecrets secrets;
  format_json(was_field, was, true, &before);
  format_json(is_field, is, true, &after);
  return before.size() != after.size() || memcmp(before.c_str(), after.c_str(), before.size()) != 0;
}

/* Prints a field that both have. */
void print_change(const char* prefix, const Table& view, uint32_t id, const Field& was_field,
                  const uint8_t* was, const Field& is_field, const uint8_t* is) {
  const bool is_bytes = is_field.kind == Kind::kBytes && !is_hidden(is_field);
  if (is_bytes && was_field.kind == Kind::kBytes && was_field.record_at == is_field.record_at &&
      was_field.size == is_field.size) {
    print_differing_bytes(prefix, view, id, is_field, was, is);
    return;
  }
  /* What follows a text's NUL is printed only when the texts before it are equal. */
  Text before, after;
  add_value(&was_field, was, false, &before);
  add_value(&is_field, is, false, &after);
  if (strcmp(before.c_str(), after.c_str()) == 0) {
    before.clear();
    after.clear();
    add_value(&was_field, was, true, &before);
    add_value(&is_field, is, true, &after);
  }
  print_values(prefix, view, id, is_field.name, before.c_str(), after.c_str());
}

}  // namespace

bool print_changes(const char* prefix, uint32_t id, const Table& was_view, const uint8_t* was,
                   const Table& is_view, const uint8_t* is, bool by_name) {
  if (was == nullptr || is == nullptr) {
    if (was != nullptr) print_presence(prefix, was_view, id, "deleted", was);
    if (is != nullptr) print_presence(prefix, is_view, id, "added", is);
    return was != is;
  }
  const auto is_same = [&](const Field& field, const uint8_t* own) {
    return by_name ? size_without_trailing_zeros(field, own) == 0 : equal(field, was, is);
  };
  const bool is_same_view = &was_view == &is_view;
  bool any = false;
  for (const Field& field : is_view) {
    const Field* other = is_same_view ? nullptr : find_shown(was_view, field.name);
    const Field& was_field = other != nullptr ? *other : field;
    const bool is_in_both = is_same_view || other != nullptr;
    if (is_in_both ? (by_name ? !differ(was_field, was, field, is) : equal(field, was, is))
                   : is_same(field, is)) {
      continue;
    }
    any = true;
    if (is_in_both) {
      print_change(prefix, is_view, id, was_field, was, field, is);
      continue;
    }
    Text value;
    add_value(&field, is, false, &value);
    print_values(prefix, is_view, id, field.name, "(none)", value.c_str());
  }
  if (is_same_view) return any;
  for (const Field& field : was_view) {
    if (is_same(field, was) || find_shown(is_view, field.name) != nullptr) continue;
    any = true;
    Text value;
    add_value(&field, was, false, &value);
    print_values(prefix, is_view, id, field.name, value.c_str(), "(none)");
  }
  return any;
}

bool print_changes(const char* prefix, const Table& table, uint32_t id, const uint8_t* was,
                   const uint8_t* is) {
  const Table& was_view = was != nullptr ? view_of(table, id - 1, was) : table;
  const Table& is_view = is != nullptr ? view_of(table, id - 1, is) : table;
  return print_changes(prefix, id, was_view, was, is_view, is);
}

bool print_changes(const char* prefix, const Snapshot& was, const Snapshot& is) {
  const Table& table = was.table();
  bool any = false;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    any |= print_changes(prefix, table, position + 1,
                         was.used(position) ? was.record(position) : nullptr,
                         is.used(position) ? is.record(position) : nullptr);
  }
  return any;
}

namespace {

/* Prints an area that only one of two sources has. An archive that is not good holds no area. */
void print_single(const char* prefix, const Area& area, const Source& there, const Source& other) {
  ArchiveImage image;
  Text path;
  const char* fault = other.read_area(area, &path, &image);
  free(image.bytes);
  printf("%s%s: only in %s", prefix, area.name, there.name());
  if (access(path.c_str(), F_OK) == 0) printf("; %s: %s", path.c_str(), fault);
  putchar('\n');
}

/* A source that is compared, and the overlay behind its @. */
struct Compared {
  Source source;
  Overlays own;
  Overlays* overlays = g_overlays;
  Text name;

  int open(const Call& call, const char* word) {
    name.add(word);
    const char* at = strrchr(word, '@');
    if (at != nullptr && access(word, F_OK) != 0) {
      name.cut(static_cast<size_t>(at - word));
      if (const int status = own.load(at + 1); status != kOk) return status;
      overlays = &own;
    }
    if (strcmp(name.c_str(), "try") == 0) return open_try(&source);
    if (strcmp(name.c_str(), "factory") == 0) return source.open_factory(call.factory);
    return source.open_named(name.c_str());
  }
  const Table& view(const Table& table, uint32_t position, const uint8_t* record) const {
    return overlays != nullptr && record != nullptr ? overlays->view(table, position, record)
                                                    : table;
  }
};

bool print_compared(const Compared& a, const Snapshot& was, const Compared& b, const Snapshot& is) {
  const Table& table = was.table();
  bool any = false;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    const uint8_t* before = was.used(position) ? was.record(position) : nullptr;
    const uint8_t* after = is.used(position) ? is.record(position) : nullptr;
    any |= print_changes("", position + 1, a.view(table, position, before), before,
                         b.view(table, position, after), after, a.overlays != b.overlays);
  }
  return any;
}

}  // namespace

int run_diff(Call& call) {
  if (call.word_count == 1) return fail(kUsage, "usage: scctl diff [A B]");
  Compared one, other;
  Source &a = one.source, &b = other.source;
  if (const int status = one.open(call, call.word_count == 2 ? call.words[0] : "saved");
      status != kOk) {
    return status;
  }
  if (const int status = other.open(call, call.word_count == 2 ? call.words[1] : "live");
      status != kOk) {
    return status;
  }
  const bool commands = call.has(kCommandsOption);
  if (commands && (one.overlays != g_overlays || other.overlays != g_overlays)) {
    return fail(kUsage, "commands have the names of --overlay FILE alone, not of @OVERLAY");
  }
  bool any = false;
  unsigned compared = 0;
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    const bool in_a = a.block(id) != nullptr, in_b = b.block(id) != nullptr;
    if (!in_a || !in_b) {
      /* A file holds one area, and an area that is never saved has no archive. So one side may lack
       * an area. */
      const bool expected =
          a.is_whole() && b.is_whole() && area.row().stem[0] != '\0' && (in_a || in_b);
      if (expected) print_single(commands ? "# " : "", area, in_a ? a : b, in_a ? b : a);
      any |= expected;
      continue;
    }
    ++compared;
    for (const Table& table : kTables) {
      if (table.area != id || commands) continue;
      Snapshot was(table), is(table);
      was.take(a);
      is.take(b);
      any |= print_compared(one, was, other, is);
    }
  }
  if (commands) any |= print_commands(a, b);
  if (!any && compared == 0)
    return fail(kNoArea, "%s and %s have no area in common", a.name(), b.name());
  return any ? kRefused : kOk;
}

}  // namespace scctl
