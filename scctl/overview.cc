/* Commands that show what exists: tables, fields, areas. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>

#include "commands.h"
#include "listing.h"
#include "store/overlay.h"

namespace scctl {

int run_tables(Call& call) {
  static constexpr Column kColumns[] = {{"table", "table", -16},
                                        {"area", "area", -14},
                                        {"records", "records", 7},
                                        {"bytes", "bytes", 5}};
  Listing listing(call.has(kJson), kColumns);
  for (const Table& table : kTables) {
    listing.add(table.name);
    listing.add(kAreas[table.area].name);
    listing.add(table.capacity);
    listing.add(table.stride);
  }
  listing.end();
  return kOk;
}

namespace {

/* What an overlay says of a member: "576 to 1500 bytes, default 1500, secret". */
void add_notes(const Field& field, Text* to) {
  const Extra* extra = field.extra;
  if (extra == nullptr) return;
  const bool is_signed = field.kind == Kind::kSigned;
  if (extra->has_range) {
    to->print(is_signed ? "%lld to %lld" : "%llu to %llu", static_cast<long long>(extra->least),
              static_cast<long long>(extra->most));
  }
  const auto add = [to](const char* what, const char* text) {
    if (text == nullptr) return;
    if (to->size() > 0) to->add(*what == '\0' ? " " : ", ");
    to->add(what);
    to->add_shown(text, strlen(text));
  };
  add("", extra->unit);
  add("default ", extra->fallback);
  add("matches ", extra->pattern);
  if (field.is_secret) to->add(to->size() > 0 ? ", secret" : "secret");
}

}  // namespace

int run_fields(Call& call) {
  static constexpr Column kColumns[] = {{"field", "field", -15},   {"kind", "kind", -9},
                                        {"bytes", "bytes", 5},     {"at", "record", 6},
                                        {"member", "member", -15}, {nullptr, "item", 4}};
  Target target;
  if (const int status = parse_target(call.words[0], kTableAlone, &target); status != kOk) {
    return status;
  }
  Listing listing(call.has(kJson), kColumns);
  for (const Field& field : names_of(*target.table)) {
    listing.add(field.name);
    listing.add(kind_name(field));
    listing.add(field.size);
    listing.add(field.record_at);
    listing.add(field.member);
    Text notes;
    add_notes(field, &notes);
    if (field.extra != nullptr)
      listing.add("", notes.size() > 0 ? notes.c_str() : "-");
    else if (field.item_at == kNoItem)
      listing.add("-");
    else
      listing.add(field.item_at);
  }
  listing.end();
  return kOk;
}

namespace {

/* Prints how old the file is, in the largest unit that is not 0. */
void format_age(const char* path, Text* to) {
  struct stat file;
  if (stat(path, &file) != 0) return;
  const time_t now = time(nullptr);
  const auto seconds = now > file.st_mtime ? static_cast<uint32_t>(now - file.st_mtime) : 0;
  struct Unit {
    uint32_t seconds;
    const char* name;
  };
  static constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {0, "s"}};
  const Unit* unit = kUnits;
  while (seconds < unit->seconds) ++unit;
  to->print("%u %s", unit->seconds > 0 ? seconds / unit->seconds : seconds, unit->name);
}

void format_archive(const Area& area, Text* to) {
  if (area.row().stem[0] == '\0') {
    to->add("never saved");
    return;
  }
  ArchiveImage image;
  const char* fault = read_own_archive(area, &image);
  free(image.bytes);
  switch (image.verdict.state) {
    case State::kUnknown: to->add(fault); return;
    case State::kMissing: to->add("none"); return;
    case State::kBroken: to->print("bad: %s", fault); return;
    case State::kGood: break;
  }
  format_age(archive_path(area).text, to);
  to->add(" old");
}

/* The use of an area's tables that have free records. */
struct Use {
  uint32_t used = 0, capacity = 0;

  Use(AreaId area, const uint8_t* block) {
    for (const Table& table : kTables) {
      if (table.area != area || is_section(table)) continue;
      capacity += table.capacity;
      for (uint32_t n = 0; block != nullptr && n < table.capacity; ++n) {
        used += is_used(table, block + table.at + n * table.stride);
      }
    }
  }
};

}  // namespace

int run_areas(Call& call) {
  static constexpr Column kColumns[] = {{"area", "area", -14},       {"key", "key", 4},
                                        {"bytes", "bytes", 7},       {"there", nullptr, 0},
                                        {"attached", "attached", 8}, {"used", "used", -7},
                                        {"capacity", nullptr, 0},    {"archive", "archive", 0}};
  Listing listing(call.has(kJson), kColumns);
  for (const Area& area : kAreas) {
    shmid_ds status;
    const int segment = shmget(area.row().key, 0, 0);
    const bool there = segment >= 0 && shmctl(segment, IPC_STAT, &status) == 0;
    const Use use(id_of(area), there ? call.source.block(id_of(area)) : nullptr);
    Text attached, used, shown_use, archive;
    attached.print("%lu", there ? static_cast<unsigned long>(status.shm_nattch) : 0ul);
    used.print("%u", use.used);
    if (use.capacity > 0 && there) shown_use.print("%u/%u", use.used, use.capacity);
    format_archive(area, &archive);
    listing.add(area.name);
    listing.add(area.row().key);
    listing.add(area.row().size);
    listing.add(there ? "true" : "false", "");
    listing.add(attached.c_str(), there ? attached.c_str() : "not made");
    listing.add(used.c_str(), shown_use.c_str());
    listing.add(use.capacity);
    listing.add(archive.c_str());
  }
  listing.end();
  return kOk;
}

}  // namespace scctl
