/* Commands that look after a store: check and locks. */
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "commands.h"
#include "value.h"

namespace scctl {

namespace {

/* ---- check ---- */

unsigned g_findings;

/* What is wrong, and what helps. */
__attribute__((format(printf, 2, 3))) void find(const char* remedy, const char* format, ...) {
  va_list values;
  va_start(values, format);
  vprintf(format, values);
  va_end(values);
  printf("; remedy: %s\n", remedy);
  ++g_findings;
}

/* Behind the commands of remedies, for a file that is checked: its option, and the one more that
 * lets them change it. */
const char* g_reads;
const char* g_changes;

struct Remedy {
  char text[512];
  explicit Remedy(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
  }
};

/* Init writes header and lock words, and loads an archive over them: that has to go first. A file
 * is not changed when these are wrong. */
Remedy rebuild(const Area& area) {
  if (g_reads[0] != '\0') return Remedy("scctl export%s >FILE; scctl import FILE", g_reads);
  if (area.facts().stem[0] == '\0') return Remedy("scctl init %s", area.name);
  return Remedy("scctl export %s >FILE; rm %s; scctl init %s; scctl import FILE", area.name,
                archive_path(area).text, area.name);
}

void check_header(const Area& area, const uint8_t* block) {
  const Path path = lock_path(area);
  const auto* own = reinterpret_cast<const char*>(block) + area.facts().header.path_at;
  const int width = area.facts().header.index_at - area.facts().header.path_at;
  if (strncmp(own, path.text, static_cast<size_t>(width)) != 0) {
    find(rebuild(area).text, "%s: lock_path is '%.*s', not %s", area.name, width, own, path.text);
  }
  if (const int32_t index = load_word(block + area.facts().header.index_at); index != 1) {
    find(rebuild(area).text, "%s: block_lock_index is %d, not 1", area.name, index);
  }
}

/* Id words, lock words, the counter. */
void check_records(const Table& table, const uint8_t* block) {
  uint32_t used = 0;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    const uint8_t* record = block + table.at + position * table.stride;
    const uint32_t id = position + 1;
    if (table.lock_at >= 0) {
      const int32_t own = load_word(record + table.lock_at);
      const uint32_t right = lock_index_of(table, position);
      if (own != static_cast<int32_t>(right)) {
        find(rebuild(kAreas[table.area]).text, "%s/%u: its lock is byte %d, not %u", table.name, id,
             own, right);
      }
    }
    if (is_section(table) || !is_used(table, record)) continue;
    ++used;
    if (const int32_t own = load_word(record + table.id_at); own != static_cast<int32_t>(id)) {
      find(Remedy("scctl del %s/%u%s", table.name, id, g_changes).text, "%s/%u: its id word is %d",
           table.name, id, own);
    }
  }
  if (table.counter == nullptr) return;
  const auto counted =
      static_cast<uint32_t>(load_number(block + table.counter_at, table.counter_size, false));
  if (counted != used) {
    find(Remedy("scctl list %s --commands%s >FILE; scctl clear %s%s; scctl batch FILE%s",
                table.name, g_reads, table.name, g_changes, g_changes)
             .text,
         "%s: %s is %u, used are %u", table.name, table.counter, counted, used);
  }
}

void check_duplicates(const Snapshot& rows) {
  const Table& table = rows.table();
  for (uint32_t position = 0; position < table.capacity; ++position) {
    if (!rows.used(position)) continue;
    const Field* field;
    const int other = rows.find_clash(rows.record(position), static_cast<int>(position), &field);
    if (other < 0 || other > static_cast<int>(position)) continue;
    find(Remedy("scctl del %s/%u%s", table.name, position + 1, g_changes).text,
         "%s/%u: its %s is that of %s/%d", table.name, position + 1, field->name, table.name,
         other + 1);
  }
}

void check_references(const Snapshot& rules, Source& source) {
  const Table& table = rules.table();
  for (const Reference& reference : kReferences) {
    if (strcmp(reference.table, table.name) != 0) continue;
    const Table& groups = *find_table(reference.groups, strlen(reference.groups));
    const uint8_t* block = source.block(groups.area);
    if (block == nullptr) continue;
    const Field& mode = *find_field(table, reference.mode, strlen(reference.mode));
    const Field& id = *find_field(table, reference.id, strlen(reference.id));
    for (uint32_t position = 0; position < table.capacity; ++position) {
      const uint8_t* record = rules.record(position);
      if (!rules.used(position)) continue;
      const int64_t set = load_number(record + mode.record_at, mode.size, true);
      if (set < 1 || set > reference.last_mode) continue;
      const int64_t group = load_number(record + id.record_at, id.size, true);
      if (group >= 1 && group <= groups.capacity &&
          is_used(groups, block + groups.at + (group - 1) * groups.stride)) {
        continue;
      }
      find(Remedy("scctl set %s/%u %s=0%s, or scctl del %s/%u%s", table.name, position + 1,
                  mode.name, g_changes, table.name, position + 1, g_changes)
               .text,
           "%s/%u: refers to %s/%lld, which is not there", table.name, position + 1, groups.name,
           static_cast<long long>(group));
    }
  }
}

/* What stands beside a live area. */
void check_files(const Area& area) {
  const Path lock = lock_path(area);
  if (access(lock.text, F_OK) != 0) {
    find(Remedy("echo >%s", lock.text).text, "%s: %s: %s", area.name, lock.text, strerror(errno));
  }
  const Path archive = archive_path(area);
  if (area.facts().stem[0] == '\0' || access(archive.text, F_OK) != 0) return;
  ArchiveImage image;
  const char* fault = read_own_archive(area, &image);
  free(image.bytes);
  if (fault != nullptr) {
    find(Remedy("scctl save %s", area.name).text, "%s: %s: %s", area.name, archive.text, fault);
  }
}

}  // namespace

int run_check(Call& call) {
  bool chosen[kAreaCount];
  if (const int status = parse_areas(call, true, chosen); status != kOk) return status;
  unsigned checked = 0;
  g_findings = 0;
  Text reads, changes;
  if (call.has(kImage) || call.has(kArchive)) {
    reads.print(" %s %s", call.has(kImage) ? "--image" : "--archive", call.source.name());
    changes.print("%s --in-place", reads.c_str());
  }
  g_reads = reads.c_str();
  g_changes = changes.c_str();
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    if (!chosen[id]) continue;
    if (call.word_count > 0) {
      if (const int status = call.source.need(id); status != kOk) return status;
    }
    const uint8_t* block = call.source.block(id);
    if (block == nullptr) continue;
    ++checked;
    check_header(area, block);
    for (const Table& table : kTables) {
      if (table.area != id) continue;
      check_records(table, block);
      Snapshot rows(table);
      rows.take(call.source);
      check_duplicates(rows);
      check_references(rows, call.source);
    }
    if (call.source.is_live()) check_files(area);
  }
  printf("areas checked: %u, findings: %u\n", checked, g_findings);
  if (checked == 0) return fail_without_areas();
  return g_findings == 0 ? kOk : kRefused;
}

/* ---- locks ---- */

namespace {

/* The record that a byte of the area's lock file guards. */
void format_guarded(const Area& area, unsigned long byte, Text* to) {
  for (const Table& table : kTables) {
    if (&kAreas[table.area] != &area || table.lock_at < 0) continue;
    const uint32_t first = lock_index_of(table, 0);
    if (byte >= first && byte < first + table.capacity) {
      to->print("%s/%lu", table.name, byte - first + 1);
      return;
    }
  }
  to->add(byte == 1 ? "the area" : "-");
}

uint32_t last_lock_index(const Area& area) {
  uint32_t last = 1;
  for (const Table& table : kTables) {
    const uint32_t own = lock_index_of(table, table.capacity - 1u);
    if (&kAreas[table.area] == &area && own > last) last = own;
  }
  return last;
}

void format_program(long pid, Text* to) {
  char path[32];
  snprintf(path, sizeof path, "/proc/%ld/comm", pid);
  char name[32] = "-";
  if (FILE* file = fopen(path, "r"); file != nullptr) {
    if (fgets(name, sizeof name, file) != nullptr) name[strcspn(name, "\n")] = '\0';
    fclose(file);
  }
  to->add(name);
}

const Area* area_of_lock(unsigned device_major, unsigned device_minor, unsigned long inode) {
  for (const Area& area : kAreas) {
    struct stat file;
    if (stat(lock_path(area).text, &file) == 0 && file.st_ino == inode &&
        major(file.st_dev) == device_major && minor(file.st_dev) == device_minor) {
      return &area;
    }
  }
  return nullptr;
}

/* A line of the kernel's lock table that is about an area. */
struct HeldBytes {
  const Area* area;
  unsigned long first, last;
  const char* state;
  long pid;

  bool operator==(const HeldBytes&) const = default;
};

struct LockTable {
  HeldBytes lines[512];
  unsigned count;

  bool operator==(const LockTable& other) const {
    if (count != other.count) return false;
    for (unsigned i = 0; i < count; ++i) {
      if (!(lines[i] == other.lines[i])) return false;
    }
    return true;
  }
};

/* The kernel's lines: "1: POSIX ADVISORY WRITE PID MAJOR:MINOR:INODE START END", a waiter's with
 * "->" behind its number. Neighbouring bytes of one process are one line. */
void read_locks(FILE* file, LockTable* table) {
  table->count = 0;
  char line[160];
  while (fgets(line, sizeof line, file) != nullptr && table->count < 512) {
    char mode[8], end[24];
    long pid;
    unsigned device_major, device_minor;
    unsigned long inode, first;
    const char* waits = strstr(line, "->");
    const char* rest = waits != nullptr ? waits + 2 : line + strcspn(line, ":") + 1;
    if (sscanf(rest, " POSIX %*s %7s %ld %x:%x:%lu %lu %23s", mode, &pid, &device_major,
               &device_minor, &inode, &first, end) != 7) {
      continue;
    }
    const Area* area = area_of_lock(device_major, device_minor, inode);
    if (area == nullptr) continue;
    const unsigned long most = last_lock_index(*area);
    unsigned long last = strtoul(end, nullptr, 10); /* 0 for EOF */
    if (last == 0 || last > most) last = most > first ? most : first;
    const char* state = waits != nullptr ? "waits" : strcmp(mode, "READ") == 0 ? "reads" : "holds";
    table->lines[table->count++] = {area, first, last, state, pid};
  }
}

}  // namespace

/* The kernel hands its table over in pieces, and a lock that comes or goes in between makes it
 * leave out or repeat lines: it is read until two readings agree. */
int run_locks(Call& call) {
  FILE* file = fopen("/proc/locks", "r");
  if (file == nullptr) return fail(kNoArea, "/proc/locks: %s", strerror(errno));
  LockTable table, again;
  read_locks(file, &again);
  for (int reading = 0; reading < 50; ++reading) {
    table = again;
    rewind(file);
    read_locks(file, &again);
    if (again == table) break;
  }
  fclose(file);

  const bool json = call.has(kJson);
  const char* comma = "";
  puts(json ? "[" : "area            record            byte  state         pid  program");
  for (unsigned i = 0; i < table.count; ++i) {
    const HeldBytes& held = table.lines[i];
    Text program;
    format_program(held.pid, &program);
    for (unsigned long byte = held.first; byte <= held.last; ++byte) {
      Text guarded;
      format_guarded(*held.area, byte, &guarded);
      if (json) {
        Text quoted;
        add_json_text(reinterpret_cast<const uint8_t*>(program.c_str()), program.size(), &quoted);
        printf(
            "%s  {\"area\": \"%s\", \"record\": \"%s\", \"byte\": %lu, \"state\": \"%s\", "
            "\"pid\": %ld, \"program\": %s}",
            comma, held.area->name, guarded.c_str(), byte, held.state, held.pid, quoted.c_str());
        comma = ",\n";
      } else {
        printf("%-14s  %-16s  %4lu  %-5s  %10ld  %s\n", held.area->name, guarded.c_str(), byte,
               held.state, held.pid, program.c_str());
      }
    }
  }
  if (json) puts(comma[0] == '\0' ? "]" : "\n]");
  return kOk;
}

}  // namespace scctl
