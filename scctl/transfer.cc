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
      for (const Field& field : table) {
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
      write_json_record(table, position + 1, record.data(), true, &writer);
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
        mask.add_differences(was.record(position), wanted.record(position));
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

/* Reads the present contents of the wanted tables. */
void take_tables(Source& live, Snapshot* wanted, Snapshot* now) {
  for (int n = 0; n < kTableCount; ++n) {
    if (!wanted[n]) continue;
    now[n].take(kTables[n], live);
    add_sections(now[n], &wanted[n]);
  }
}

}  // namespace

int replace_tables(Call& call, Snapshot* wanted) {
  const uint32_t areas = areas_of(wanted);
  if (const int status = need_areas(call.source, areas); status != kOk) return status;
  Snapshot now[kTableCount];
  unsigned changed = 0;
  if (call.has(kDryRun)) {
    take_tables(call.source, wanted, now);
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
    take_tables(call.source, wanted, now);
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
  return replace_tables(call, import.wanted);
}

/* ---- diff ---- */

namespace {

void print_presence(const char* prefix, const Table& table, uint32_t id, const char* what,
                    const uint8_t* record) {
  Text line;
  for (const Field& field : table) {
    if (size_without_trailing_zeros(field, record) == 0) continue;
    line.print(" %s=", field.name);
    if (field.kind == Kind::kBytes)
      line.print("(%zu byte%s)", size_without_trailing_zeros(field, record),
                 size_without_trailing_zeros(field, record) == 1 ? "" : "s");
    else
      format_part(field, record, false, &line);
  }
  printf("%s%s/%u: %s%s\n", prefix, table.name, id, what, line.c_str());
}

}  // namespace

bool print_changes(const char* prefix, const Table& table, uint32_t id, const uint8_t* was,
                   const uint8_t* is) {
  if (was == nullptr || is == nullptr) {
    if (was != nullptr) print_presence(prefix, table, id, "deleted", was);
    if (is != nullptr) print_presence(prefix, table, id, "added", is);
    return was != is;
  }
  bool any = false;
  for (const Field& field : table) {
    if (equal(field, was, is)) continue;
    any = true;
    if (field.kind == Kind::kBytes) {
      unsigned differing = 0, first = 0;
      for (unsigned n = field.size; n-- > 0;) {
        if (was[field.record_at + n] == is[field.record_at + n]) continue;
        ++differing;
        first = n;
      }
      printf("%s%s/%u.%s: %u byte%s at %u\n", prefix, table.name, id, field.name, differing,
             differing == 1 ? " differs," : "s differ, the first", first);
      continue;
    }
    /* What follows a text's NUL is printed only when the texts before it are equal. */
    Text before, after;
    format_part(field, was, false, &before);
    format_part(field, is, false, &after);
    if (strcmp(before.c_str(), after.c_str()) == 0) {
      before.clear();
      after.clear();
      format_part(field, was, true, &before);
      format_part(field, is, true, &after);
    }
    printf("%s%s/%u.%s: %s -> %s\n", prefix, table.name, id, field.name, before.c_str(),
           after.c_str());
  }
  return any;
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

}  // namespace

namespace {

int open_compared(const Call& call, const char* name, Source* source) {
  if (strcmp(name, "try") == 0) return open_try(source);
  if (strcmp(name, "factory") == 0) return source->open_factory(call.factory);
  return source->open_named(name);
}

}  // namespace

int run_diff(Call& call) {
  if (call.word_count == 1) return fail(kUsage, "usage: scctl diff [A B]");
  Source a, b;
  if (const int status = open_compared(call, call.word_count == 2 ? call.words[0] : "saved", &a);
      status != kOk) {
    return status;
  }
  if (const int status = open_compared(call, call.word_count == 2 ? call.words[1] : "live", &b);
      status != kOk) {
    return status;
  }
  const bool commands = call.has(kCommandsOption);
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
      any |= print_changes("", was, is);
    }
  }
  if (commands) any |= print_commands(a, b);
  if (!any && compared == 0)
    return fail(kNoArea, "%s and %s have no area in common", a.name(), b.name());
  return any ? kRefused : kOk;
}

}  // namespace scctl
