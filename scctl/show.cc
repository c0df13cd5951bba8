/* Commands that show: tables, fields, areas, list, get, find, dump. */
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>
#include <stdlib.h>

#include "commands.h"
#include "value.h"

namespace scctl {

namespace {

constexpr size_t kColumns = 80;
constexpr size_t kWidest = 32; /* letters of a cell */

/* UTF-8 letters take one column each. */
size_t letters(const char* text) {
  size_t count = 0;
  for (; *text != '\0'; ++text) count += (*text & 0xc0) != 0x80;
  return count;
}

/* A value that fits a column. */
void format_cell(const Field& field, const uint8_t* record, Text* to) {
  if (field.kind == Kind::kBytes) {
    to->print("%zu/%u bytes", filled(field, record), field.size);
    return;
  }
  Text value;
  format_visible(field, record, &value);
  if (letters(value.c_str()) <= kWidest) {
    to->add(value.c_str());
    return;
  }
  size_t size = 0;
  for (size_t count = 0; count < kWidest - 2 || (value.c_str()[size] & 0xc0) == 0x80; ++size) {
    count += (value.c_str()[size + 1] & 0xc0) != 0x80;
  }
  to->add(value.c_str(), size);
  to->add("..");
}

void add_cell(const char* text, size_t width, Text* line) {
  line->print("%s%*s", text, static_cast<int>(width - letters(text) + 2), "");
}

void print_line(Text* line) {
  line->trim();
  puts(line->c_str());
  line->clear();
}

using Chosen = bool (*)(const Field* field, const uint8_t* record, const uint8_t* wanted);

bool matches(const Field* field, const uint8_t* record, const uint8_t* wanted) {
  if (field == nullptr) return true;
  if (field->kind == Kind::kMacText) {
    return strncasecmp(reinterpret_cast<const char*>(record) + field->record_at,
                       reinterpret_cast<const char*>(wanted) + field->record_at, field->size) == 0;
  }
  return equal(*field, record, wanted);
}

void print_table(const Snapshot& rows, const Field* field, const uint8_t* wanted) {
  const Table& table = rows.table();
  constexpr int kMostFields = 32;
  size_t widths[kMostFields];
  size_t width = 2 + 3;
  int shown = 0;
  for (; shown < table.field_count; ++shown) {
    const Field& column = table.fields[shown];
    size_t& widest = widths[shown];
    widest = strlen(column.name);
    for (uint32_t position = 0; position < table.capacity; ++position) {
      if (!rows.used(position) || !matches(field, rows.record(position), wanted)) continue;
      Text cell;
      format_cell(column, rows.record(position), &cell);
      if (letters(cell.c_str()) > widest) widest = letters(cell.c_str());
    }
    if (width + widest > kColumns) break;
    width += widest + 2;
  }
  Text line;
  add_cell("id", 3, &line);
  for (int n = 0; n < shown; ++n) add_cell(table.fields[n].name, widths[n], &line);
  print_line(&line);
  uint32_t count = 0;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    if (!rows.used(position) || !matches(field, rows.record(position), wanted)) continue;
    ++count;
    line.print("%-3u  ", position + 1);
    for (int n = 0; n < shown; ++n) {
      Text cell;
      format_cell(table.fields[n], rows.record(position), &cell);
      add_cell(cell.c_str(), widths[n], &line);
    }
    print_line(&line);
  }
  printf("(%u of %u records", count, table.capacity);
  if (shown < table.field_count) printf("; %d more fields: scctl get", table.field_count - shown);
  puts(")");
}

/* As it is pasted back; what is zero is left out. */
void print_command(const Table& table, uint32_t id, const uint8_t* record) {
  Text line;
  line.print("scctl %s %s/%u", is_section(table) ? "set" : "add", table.name, id);
  for (const Field& field : table) {
    if (filled(field, record) == 0) continue;
    line.print(" %s=", field.name);
    format_quoted(field, record, &line);
  }
  puts(line.c_str());
}

uint32_t print_records(const Call& call, const Snapshot& rows, const Field* field,
                       const uint8_t* wanted) {
  const Table& table = rows.table();
  uint32_t count = 0;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    count += rows.used(position) && matches(field, rows.record(position), wanted);
  }
  if (!call.has(kJson) && !call.has(kCommandsOption)) {
    if (count > 0 || field == nullptr) print_table(rows, field, wanted);
    return count;
  }
  uint32_t left = count;
  if (call.has(kJson)) fputs(count == 0 ? "[" : "[\n", stdout);
  for (uint32_t position = 0; position < table.capacity; ++position) {
    const uint8_t* record = rows.record(position);
    if (!rows.used(position) || !matches(field, record, wanted)) continue;
    if (call.has(kCommandsOption)) {
      print_command(table, position + 1, record);
      continue;
    }
    Text line;
    print_json_record(table, position + 1, record, false, &line);
    printf("  %s%s\n", line.c_str(), --left > 0 ? "," : "");
  }
  if (call.has(kJson)) puts("]");
  return count;
}

}  // namespace

void print_json_record(const Table& table, uint32_t id, const uint8_t* record, bool whole,
                       Text* to) {
  to->print("{\"id\": %u", id);
  for (const Field& field : table) {
    to->print(", \"%s\": ", field.name);
    format_json(field, record, whole, to);
  }
  to->add('}');
}

/* ---- the catalogue ---- */

int run_tables(Call& call) {
  if (call.has(kJson))
    puts("[");
  else
    puts("table             area            records  bytes");
  const Table* const last = kTables + kTableCount - 1;
  for (const Table& table : kTables) {
    const char* area = kAreas[table.area].name;
    if (call.has(kJson)) {
      printf("  {\"table\": \"%s\", \"area\": \"%s\", \"records\": %u, \"bytes\": %u}%s\n",
             table.name, area, table.capacity, table.stride, &table == last ? "" : ",");
    } else {
      printf("%-16s  %-14s  %7u  %5u\n", table.name, area, table.capacity, table.stride);
    }
  }
  if (call.has(kJson)) puts("]");
  return kOk;
}

int run_fields(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kTableAlone, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  if (call.has(kJson))
    puts("[");
  else
    puts("field            kind       bytes  record  member           item");
  for (const Field& field : table) {
    if (call.has(kJson)) {
      printf(
          "  {\"field\": \"%s\", \"kind\": \"%s\", \"bytes\": %u, \"at\": %u, "
          "\"member\": \"%s\"}%s\n",
          field.name, kind_name(field.kind), field.size, field.record_at, field.member,
          &field + 1 == table.end() ? "" : ",");
      continue;
    }
    printf("%-15s  %-9s  %5u  %6u  %-15s", field.name, kind_name(field.kind), field.size,
           field.record_at, field.member);
    if (field.item_at == kNoItem)
      puts("     -");
    else
      printf("  %4u\n", field.item_at);
  }
  if (call.has(kJson)) puts("]");
  return kOk;
}

/* ---- areas ---- */

namespace {

/* How old the file is, in the largest unit that is not 0. */
void format_age(const char* path, Text* to) {
  struct stat file;
  if (stat(path, &file) != 0) return;
  const long long age = static_cast<long long>(time(nullptr)) - file.st_mtime;
  const long long seconds = age > 0 ? age : 0;
  struct Unit {
    long long seconds;
    const char* name;
  };
  static constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {0, "s"}};
  const Unit* unit = kUnits;
  while (seconds < unit->seconds) ++unit;
  to->print("%lld %s", unit->seconds > 0 ? seconds / unit->seconds : seconds, unit->name);
}

void format_archive(const Area& area, Text* to) {
  if (area.facts().stem[0] == '\0') {
    to->add("never saved");
    return;
  }
  const Path path = archive_path(area);
  struct stat file;
  if (stat(path.text, &file) != 0) {
    to->add("none");
    return;
  }
  ArchiveImage image;
  const char* fault = read_own_archive(area, &image);
  free(image.bytes);
  if (fault != nullptr) {
    to->print("bad: %s", fault);
    return;
  }
  format_age(path.text, to);
  to->add(" old");
}

}  // namespace

int run_areas(Call& call) {
  const bool json = call.has(kJson);
  puts(json ? "[" : "area             key    bytes  attached  used     archive");
  for (const Area& area : kAreas) {
    shmid_ds status;
    const int segment = shmget(area.facts().key, 0, 0);
    const bool there = segment >= 0 && shmctl(segment, IPC_STAT, &status) == 0;
    uint32_t used = 0, capacity = 0;
    for (const Table& table : kTables) {
      if (table.area != id_of(area) || is_section(table)) continue;
      capacity += table.capacity;
      const uint8_t* block = there ? call.source.block(table.area) : nullptr;
      for (uint32_t n = 0; block != nullptr && n < table.capacity; ++n) {
        used += is_used(table, block + table.at + n * table.stride);
      }
    }
    Text archive;
    format_archive(area, &archive);
    const auto attached = there ? static_cast<unsigned long>(status.shm_nattch) : 0ul;
    if (json) {
      printf(
          "  {\"area\": \"%s\", \"key\": %d, \"bytes\": %u, \"there\": %s, \"attached\": %lu, "
          "\"used\": %u, \"capacity\": %u, \"archive\": \"%s\"}%s\n",
          area.name, area.facts().key, area.facts().size, there ? "true" : "false", attached, used,
          capacity, archive.c_str(), &area == kAreas + kAreaCount - 1 ? "" : ",");
      continue;
    }
    Text use;
    if (capacity > 0 && there) use.print("%u/%u", used, capacity);
    printf("%-14s  %4d  %7u  ", area.name, area.facts().key, area.facts().size);
    if (there)
      printf("%8lu", attached);
    else
      printf("%8s", "not made");
    printf("  %-7s  %s\n", use.c_str(), archive.c_str());
  }
  if (json) puts("]");
  return kOk;
}

/* ---- records ---- */

int run_list(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kTableAlone, &target); status != kOk) {
    return status;
  }
  if (const int status = call.source.need(target.table->area); status != kOk) return status;
  Snapshot rows(*target.table);
  rows.take(call.source);
  print_records(call, rows, nullptr, nullptr);
  return kOk;
}

int run_find(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kTableAlone, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  Buffer wanted(table.stride);
  const Field* field;
  if (const int status = parse_assignment(table, call.words[1], wanted.data(), &field);
      status != kOk) {
    return status;
  }
  if (const int status = call.source.need(table.area); status != kOk) return status;
  Snapshot rows(table);
  rows.take(call.source);
  if (print_records(call, rows, field, wanted.data()) > 0 || call.has(kJson)) return kOk;
  return fail(kRefused, "no record of %s has %s", table.name, call.words[1]);
}

int run_get(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kMayHaveField, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  if (const int status = call.source.need(table.area); status != kOk) return status;
  Snapshot rows(table);
  rows.take(call.source, target.id - 1);
  if (!rows.used(target.id - 1)) return fail(kRefused, "%s/%u is free", table.name, target.id);
  const uint8_t* record = rows.record(target.id - 1);
  Text text;
  if (call.has(kCommandsOption)) {
    print_command(table, target.id, record);
    return kOk;
  }
  if (target.field != nullptr) {
    if (call.has(kJson))
      format_json(*target.field, record, false, &text);
    else
      format(*target.field, record, &text);
    puts(text.c_str());
    return kOk;
  }
  if (call.has(kJson)) {
    print_json_record(table, target.id, record, false, &text);
    puts(text.c_str());
    return kOk;
  }
  for (const Field& field : table) {
    text.print("%-14s  ", field.name);
    if (field.kind == Kind::kBytes)
      format_cell(field, record, &text);
    else
      format_visible(field, record, &text);
    print_line(&text);
  }
  return kOk;
}

/* ---- dump ---- */

namespace {

/* Sixteen bytes a line, the name behind the first; lines of zeros are counted. */
void dump_bytes(const uint8_t* bytes, uint32_t at, uint32_t size, const char* name) {
  constexpr uint32_t kLine = 16;
  const uint32_t end = at + size;
  uint32_t zeros = 0;
  Text line;
  const auto finish = [&] {
    line.print("%*s%s", 58 - static_cast<int>(line.size()), "", name);
    print_line(&line);
    name = "";
  };
  const auto tell_zeros = [&](uint32_t upto) {
    if (zeros == 0) return;
    line.print("%8u  %u zero byte%s", upto - zeros, zeros, zeros == 1 ? "" : "s");
    finish();
    zeros = 0;
  };
  for (; at < end; at += kLine, bytes += kLine) {
    const uint32_t count = end - at < kLine ? end - at : kLine;
    bool zero = true;
    for (uint32_t n = 0; n < count; ++n) zero = zero && bytes[n] == 0;
    if (zero) {
      zeros += count;
      continue;
    }
    tell_zeros(at);
    line.print("%8u ", at);
    for (uint32_t n = 0; n < count; ++n) line.print(" %02x", bytes[n]);
    finish();
  }
  tell_zeros(end);
}

/* Bytes that nothing is known to use, named by their place as in the public structs. */
void dump_spare(const uint8_t* bytes, uint32_t start, uint32_t at, uint32_t size) {
  Text name;
  name.print("spare_%u", at);
  dump_bytes(bytes + at, start + at, size, name.c_str());
}

/* A record in the order in which its bytes lie: fields, the lock word, the id and spare bytes. */
void dump_record(const Table& table, const uint8_t* record, uint32_t start) {
  for (uint32_t at = 0; at < table.stride;) {
    const char* name = nullptr;
    uint32_t size = table.stride - at;
    const auto consider = [&](int place, uint32_t own_size, const char* own_name) {
      if (place == static_cast<int>(at)) {
        name = own_name;
        size = own_size;
      } else if (place > static_cast<int>(at) && place - at < size) {
        size = place - at; /* up to there lies something else */
      }
    };
    for (const Field& field : table) consider(field.record_at, field.size, field.member);
    consider(table.lock_at, 4, "lock_index");
    consider(table.id_at, 4, "id");
    if (name == nullptr)
      dump_spare(record, start, at, size);
    else
      dump_bytes(record + at, start + at, size, name);
    at += size;
  }
}

}  // namespace

int run_dump(Call& call) {
  AreaId id;
  if (const int status = parse_area(call.words[0], &id); status != kOk) return status;
  if (const int status = call.source.need(id); status != kOk) return status;
  const Area& area = kAreas[id];
  const uint8_t* block = call.source.block(id);
  printf("%s: %u bytes\n", area.name, area.facts().size);
  uint32_t at = 0;
  const auto dump_next = [&](uint32_t place, uint32_t size, const char* name) {
    if (place > at) dump_spare(block, 0, at, place - at);
    if (name != nullptr) dump_bytes(block + place, place, size, name);
    at = place + size;
  };
  const auto& header = area.facts().header;
  if (header.path_at > 0) dump_next(0, header.path_at, "header_reserved");
  dump_next(header.path_at, header.index_at - header.path_at, "lock_path");
  dump_next(header.index_at, 4, "block_lock_index");
  for (const Table& table : kTables) {
    if (table.area != id) continue;
    if (table.counter != nullptr) {
      dump_next(table.counter_at, table.counter_size, table.counter);
    }
    dump_next(table.at, table.capacity * table.stride, nullptr);
    Snapshot records(table);
    records.take(call.source);
    for (uint32_t position = 0; position < table.capacity; ++position) {
      if (!records.used(position)) continue;
      printf("%s/%u: byte %u of the lock file\n", table.name, position + 1,
             lock_index_of(table, position));
      dump_record(table, records.record(position), table.at + position * table.stride);
    }
    const uint32_t free = table.capacity - records.count();
    if (free > 0) printf("%s: %u free records\n", table.name, free);
  }
  dump_next(area.facts().size, 0, nullptr);
  return kOk;
}

}  // namespace scctl
