/* locks: which process holds or waits for which record. */
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "commands.h"
#include "listing.h"

namespace scctl {

namespace {

/* Prints the record that a byte of the area's lock file guards. */
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
  char name[32];
  size_t size = 0;
  if (FILE* file = fopen(path, "r"); file != nullptr) {
    size = fread(name, 1, sizeof name, file);
    fclose(file);
  }
  if (size > 0 && name[size - 1] == '\n') --size;
  if (size > 0)
    to->add(name, size);
  else
    to->add('-');
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

/* A line of the kernel's lock table about a lock file of an area. */
struct HeldBytes {
  const Area* area;
  unsigned long first, last;
  const char* state;
  long pid;

  bool operator==(const HeldBytes&) const = default;
};

/* The kernel returns its table in pieces. A lock that is set or released between two pieces, on any
 * file of the machine, can cause missing or repeated lines. So the table is read some times, and a
 * line is a lock when a few of the readings have it, once or more. */
constexpr int kReadings = 9;
constexpr int kEnoughReadings = 3;

class LockTable {
 public:
  struct Entry {
    HeldBytes held;
    int last_reading;
    int readings;
  };

  void note(const HeldBytes& held, int reading) {
    /* Readings have about the same order. */
    for (size_t n = 0; n < count_; ++n) {
      Entry& entry = entries()[next_];
      next_ = next_ + 1 < count_ ? next_ + 1 : 0;
      if (!(entry.held == held)) continue;
      if (entry.last_reading != reading) ++entry.readings;
      entry.last_reading = reading;
      return;
    }
    add({held, reading, 1});
  }
  const Entry* begin() { return entries(); }
  const Entry* end() { return entries() + count_; }

 private:
  Entry* entries() { return reinterpret_cast<Entry*>(bytes_.data()); }
  void add(const Entry& entry) {
    if (count_ == room_) {
      Buffer larger(2 * room_ * sizeof entry);
      memcpy(larger.data(), bytes_.data(), count_ * sizeof entry);
      bytes_.swap(larger);
      room_ *= 2;
    }
    memcpy(bytes_.data() + count_++ * sizeof entry, &entry, sizeof entry);
  }

  size_t room_ = 64;
  Buffer bytes_{room_ * sizeof(Entry)};
  size_t count_ = 0;
  size_t next_ = 0; /* the entry to compare first */
};

/* Lines of the kernel: "1: POSIX ADVISORY WRITE PID MAJOR:MINOR:INODE START END". A line of a
 * waiting process has "->" behind its number. Neighbouring bytes of one process are one line. */
void read_locks(FILE* file, int reading, LockTable* table) {
  char line[160];
  while (fgets(line, sizeof line, file) != nullptr) {
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
    unsigned long last = end[0] == 'E' ? ULONG_MAX : strtoul(end, nullptr, 10); /* EOF */
    if (last > most) last = most > first ? most : first;
    const char* state = waits != nullptr ? "waits" : strcmp(mode, "READ") == 0 ? "reads" : "holds";
    table->note({area, first, last, state, pid}, reading);
  }
}

}  // namespace

namespace {

int read_table(LockTable* table) {
  FILE* file = fopen("/proc/locks", "r");
  if (file == nullptr) return fail(kNoArea, "/proc/locks: %s", strerror(errno));
  for (int reading = 1; reading <= kReadings; ++reading) {
    read_locks(file, reading, table);
    rewind(file);
  }
  fclose(file);
  return kOk;
}

}  // namespace

int count_lockers(long* holders, long* waiters) {
  LockTable table;
  if (const int status = read_table(&table); status != kOk) return status;
  for (int n = 0; n < kAreaCount; ++n) holders[n] = waiters[n] = 0;
  const auto is_same = [](const HeldBytes& one, const HeldBytes& other) {
    return one.area == other.area && one.pid == other.pid &&
           (one.state[0] == 'w') == (other.state[0] == 'w');
  };
  for (const auto& entry : table) {
    if (entry.readings < kEnoughReadings) continue;
    const LockTable::Entry* first = table.begin(); /* of this process */
    while (first->readings < kEnoughReadings || !is_same(first->held, entry.held)) ++first;
    if (first != &entry) continue;
    ++(entry.held.state[0] == 'w' ? waiters : holders)[id_of(*entry.held.area)];
  }
  return kOk;
}

int run_locks(Call& call) {
  LockTable table;
  if (const int status = read_table(&table); status != kOk) return status;

  static constexpr Column kColumns[] = {{"area", "area", -14}, {"record", "record", -16},
                                        {"byte", "byte", 4},   {"state", "state", -5},
                                        {"pid", "pid", 10},    {"program", "program", 0}};
  Listing listing(call.has(kJson), kColumns);
  for (const auto& [held, last_reading, readings] : table) {
    if (readings < kEnoughReadings) continue;
    Text program;
    format_program(held.pid, &program);
    for (unsigned long byte = held.first; byte <= held.last; ++byte) {
      Text guarded;
      format_guarded(*held.area, byte, &guarded);
      listing.add(held.area->name);
      listing.add(guarded.c_str());
      listing.add(byte);
      listing.add(held.state);
      listing.add(static_cast<unsigned long>(held.pid));
      listing.add_foreign(program);
    }
  }
  listing.end();
  return kOk;
}

}  // namespace scctl
