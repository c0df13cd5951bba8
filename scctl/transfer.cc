/* Commands that move and compare: export, import, diff.
 *
 * An import makes each table that the file has exactly what the file says, ids included; tables
 * that it has not are left alone. All of the file is checked first; then what differs is written,
 * record by record at their positions, and nothing else is touched.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "commands.h"
#include "edit.h"
#include "json.h"
#include "value.h"

namespace scctl {

/* ---- export ---- */

int run_export(Call& call) {
  bool chosen[kAreaCount];
  if (const int status = present_areas(call, chosen); status != kOk) return status;
  const Table* last = nullptr;
  putchar('{');
  for (const Table& table : kTables) {
    if (!chosen[table.area]) continue;
    const bool same = last != nullptr && last->area == table.area;
    if (!same) {
      printf("%s\n  \"%s\": {", last == nullptr ? "" : "\n  },", kAreas[table.area].name);
    }
    printf("%s\n    \"%s\": [", same ? "," : "", table.name);
    last = &table;
    Reader reader(call.source, table);
    Buffer record(table.stride);
    const char* comma = "";
    for (uint32_t position = 0; reader.copy_next(&position, record.data()); ++position) {
      Text line;
      print_json_record(table, position + 1, record.data(), true, &line);
      printf("%s\n      %s", comma, line.c_str());
      comma = ",";
    }
    printf("%s]", comma[0] == '\0' ? "" : "\n    ");
  }
  puts("\n  }\n}");
  return kOk;
}

/* ---- import ---- */

namespace {

int read_text(const Call& call, Text* text) {
  char bytes[4096];
  for (size_t size; (size = fread(bytes, 1, sizeof bytes, call.input)) > 0;) text->add(bytes, size);
  if (ferror(call.input) == 0) return kOk;
  return fail(kNoArea, "%s: %s", call.input_name, strerror(errno));
}

/* What the tables of a file are to be; those that it has not are none. */
struct Import {
  Call& call;
  Snapshot wanted[kTableCount];
};

int read_record(JsonReader& json, Snapshot* wanted) {
  const Table& table = wanted->table();
  Buffer record(table.stride);
  Text name, value;
  unsigned long id = 0;
  if (!json.open('{')) return kRefused;
  for (bool first = true; json.next('}', &first);) {
    if (!json.name(&name) || !json.value(&value)) return kRefused;
    if (strcmp(name.c_str(), "id") == 0) {
      id = strtoul(value.c_str(), nullptr, 10);
      if (id == 0 || id > table.capacity) {
        return fail(kRefused, "%s: id %s is not within 1 to %u", table.name, value.c_str(),
                    table.capacity);
      }
      continue;
    }
    const Field* field = find_field(table, name.c_str(), name.size());
    if (field == nullptr) return unknown_field(table, name.c_str(), name.size());
    if (const int status =
            parse(table, *field, value.c_str(), value.size(), Origin::kCopied, record.data());
        status != kOk) {
      return status;
    }
  }
  if (json.failed()) return kRefused;
  if (id == 0) return fail(kRefused, "%s: a record without an id", table.name);
  const auto position = static_cast<uint32_t>(id) - 1;
  if (wanted->used(position)) return fail(kRefused, "%s: id %lu stands twice", table.name, id);
  const Field* field;
  if (const int other = wanted->find_clash(record.data(), -1, &field); other >= 0) {
    return fail(kRefused, "%s: ids %d and %lu have the same %s", table.name, other + 1, id,
                field->name);
  }
  memcpy(wanted->put(position), record.data(), table.stride);
  return kOk;
}

int read_table(JsonReader& json, Import& import, AreaId area) {
  Text name;
  if (!json.name(&name)) return kRefused;
  Target target;
  if (const int status = parse_target(name.c_str(), kTableAlone, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  if (table.area != area) {
    return fail(kRefused, "%s is no table of area %s", table.name, kAreas[area].name);
  }
  Snapshot wanted(table);
  if (!json.open('[')) return kRefused;
  for (bool first = true; json.next(']', &first);) {
    if (const int status = read_record(json, &wanted); status != kOk) return status;
  }
  if (json.failed()) return kRefused;
  import.wanted[&table - kTables].swap(wanted);
  return kOk;
}

int read_areas(JsonReader& json, Import& import) {
  if (!json.open('{')) return kRefused;
  Text name;
  for (bool first = true; json.next('}', &first);) {
    AreaId area;
    if (!json.name(&name) || !json.open('{')) return kRefused;
    if (const int status = parse_area(name.c_str(), &area); status != kOk) return status;
    for (bool first_table = true; json.next('}', &first_table);) {
      if (const int status = read_table(json, import, area); status != kOk) return status;
    }
  }
  return json.end() ? kOk : kRefused;
}

/* Goes through the file once. */
int go_through(const Text& text, Import& import) {
  JsonReader json(text.c_str(), text.size());
  const int status = read_areas(json, import);
  if (!json.failed()) return status;
  return fail(kRefused, "%s:%u: %s", import.call.input_name, json.line(), json.fault());
}

/* A table as it is and as it will be: a section that the file leaves out stays. */
void add_sections(const Snapshot& now, Snapshot* wanted) {
  const Table& table = now.table();
  for (uint32_t position = 0; position < table.capacity && is_section(table); ++position) {
    if (!wanted->used(position)) {
      memcpy(wanted->put(position), now.record(position), table.stride);
    }
  }
}

/* What was done with the records of a table. */
struct Tally {
  unsigned added, changed, deleted;
};

/* Groups are made before rules that refer to them, and records are deleted last, rules before
 * groups: no rule refers to a group that is not there. */
int write_tables(Edit& edit, const Import& import, const Snapshot* now, Tally* tallies) {
  for (int n = 0; n < kTableCount; ++n) {
    const Table& table = kTables[n];
    const Snapshot &was = now[n], &wanted = import.wanted[n];
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
      if (!was.used(position) || import.wanted[n].used(position)) continue;
      const Written written = edit.remove(was.table(), position, was.record(position));
      if (written == Written::kNotUsed) continue;
      if (written != Written::kDone) return fail_written(was.table(), position + 1, written);
      ++tallies[n].deleted;
    }
  }
  return kOk;
}

uint32_t areas_of(const Import& import) {
  uint32_t areas = 0;
  for (const Snapshot& wanted : import.wanted) {
    if (wanted) areas |= bit(wanted.table().area);
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

/* The tables of the file as they are. */
void take_tables(Source& live, Import& import, Snapshot* now) {
  for (int n = 0; n < kTableCount; ++n) {
    if (!import.wanted[n]) continue;
    Snapshot taken(kTables[n]);
    taken.take(live);
    taken.swap(now[n]);
    add_sections(now[n], &import.wanted[n]);
  }
}

}  // namespace

int run_import(Call& call) {
  Text text;
  if (const int status = read_text(call, &text); status != kOk) return status;
  Import import = {call, {}};
  if (const int status = go_through(text, import); status != kOk) return status;
  const uint32_t areas = areas_of(import);
  if (const int status = need_areas(call.source, areas); status != kOk) return status;
  Snapshot now[kTableCount];
  unsigned changed = 0;
  if (call.has(kDryRun)) {
    take_tables(call.source, import, now);
    for (int n = 0; n < kTableCount; ++n) {
      if (now[n] && print_changes("", now[n], import.wanted[n])) ++changed;
    }
    printf("tables to change: %u\n", changed);
    return kOk;
  }
  Tally tallies[kTableCount] = {};
  int status;
  {
    Edit edit(call.source);
    if (status = edit.begin(areas); status != kOk) return status;
    take_tables(call.source, import, now);
    status = write_tables(edit, import, now, tallies);
  }
  for (int n = 0; n < kTableCount; ++n) {
    const Tally& tally = tallies[n];
    if (tally.added + tally.changed + tally.deleted == 0) continue;
    ++changed;
    printf("%s: %u added, %u changed, %u deleted\n", kTables[n].name, tally.added, tally.changed,
           tally.deleted);
  }
  printf("tables changed: %u%s\n", changed, status == kOk ? "" : how_failed());
  return status;
}

/* ---- diff ---- */

bool print_changes(const char* prefix, const Table& table, uint32_t id, const uint8_t* was,
                   const uint8_t* is) {
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
      printf("%s%s/%u.%s: %u bytes differ, the first at %u\n", prefix, table.name, id, field.name,
             differing, first);
      continue;
    }
    Text before, after;
    format_quoted(field, was, &before);
    format_quoted(field, is, &after);
    printf("%s%s/%u.%s: %s -> %s\n", prefix, table.name, id, field.name, before.c_str(),
           after.c_str());
  }
  return any;
}

bool print_changes(const char* prefix, const Snapshot& was, const Snapshot& is) {
  const Table& table = was.table();
  bool any = false;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    if (was.used(position) && is.used(position)) {
      any |= print_changes(prefix, table, position + 1, was.record(position), is.record(position));
      continue;
    }
    if (was.used(position) == is.used(position)) continue;
    any = true;
    const Snapshot& there = was.used(position) ? was : is;
    Text line;
    for (const Field& field : table) {
      if (filled(field, there.record(position)) == 0) continue;
      line.print(" %s=", field.name);
      if (field.kind == Kind::kBytes)
        line.print("(%zu bytes)", filled(field, there.record(position)));
      else
        format_quoted(field, there.record(position), &line);
    }
    printf("%s%s/%u: %s%s\n", prefix, table.name, position + 1,
           was.used(position) ? "deleted" : "added", line.c_str());
  }
  return any;
}

namespace {

/* An area that one of two sources has. An archive that is not good holds none. */
void print_single(const Area& area, const Source& there, const Source& other) {
  const Path archive = archive_path(area);
  ArchiveImage image;
  const char* fault = nullptr;
  if (other.is_saved() && access(archive.text, F_OK) == 0) fault = read_own_archive(area, &image);
  free(image.bytes);
  printf("%s: only in %s", area.name, there.name());
  if (fault != nullptr) printf("; %s: %s", archive.text, fault);
  putchar('\n');
}

}  // namespace

int run_diff(Call& call) {
  if (call.word_count == 1) return fail(kUsage, "usage: scctl diff [A B]");
  Source a, b;
  if (const int status = a.open_named(call.word_count == 2 ? call.words[0] : "saved");
      status != kOk) {
    return status;
  }
  if (const int status = b.open_named(call.word_count == 2 ? call.words[1] : "live");
      status != kOk) {
    return status;
  }
  bool any = false;
  unsigned compared = 0;
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    const bool in_a = a.block(id) != nullptr, in_b = b.block(id) != nullptr;
    if (!in_a || !in_b) {
      /* A file holds one area; the archives hold none that is never saved. */
      const bool expected = (a.is_live() || a.is_saved()) && (b.is_live() || b.is_saved()) &&
                            area.facts().stem[0] != '\0' && (in_a || in_b);
      if (expected) print_single(area, in_a ? a : b, in_a ? b : a);
      any |= expected;
      continue;
    }
    ++compared;
    for (const Table& table : kTables) {
      if (table.area != id) continue;
      Snapshot was(table), is(table);
      was.take(a);
      is.take(b);
      any |= print_changes("", was, is);
    }
  }
  if (!any && compared == 0)
    return fail(kNoArea, "%s and %s have no area in common", a.name(), b.name());
  return any ? kRefused : kOk;
}

}  // namespace scctl
