/* Commands that find and repair damage: check and repair. Both use the same findings. check prints
 * each with its remedy. repair corrects those that have one right value: the header, lock words, id
 * words and counters. When two records have the same key, a person has to choose.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "commands.h"
#include "core/bytes.h"
#include "store/clock.h"
#include "store/edit.h"
#include "store/value.h"

namespace scctl {

namespace {

using sc::load;
using sc::store;

/* ---- findings ---- */

struct Damage {
  enum Kind : uint8_t {
    kLockPath,
    kAreaLock,
    kLockWord,
    kIdWord,
    kCounter,
    kDuplicate, /* with the record at `right`, in `field` */
    kReference  /* from the mode `field` to a group of `groups` */
  };
  Kind kind;
  const Area* area;
  const Table* table;
  uint32_t position;
  int64_t value; /* the present value */
  int64_t right; /* the right value */
  const Field* field;
  const Table* groups;

  uint32_t id() const { return position + 1; }
  bool can_be_mended() const { return kind < kDuplicate; }
};

uint8_t* record_at(Source& source, const Table& table, uint32_t position) {
  return source.block(table.area) + table.at + position * table.stride;
}

int64_t counter_of(Source& source, const Table& table) {
  return load_number(source.block(table.area) + table.counter_at, table.counter_size, false);
}

int64_t count_used(Source& source, const Table& table) {
  int64_t used = 0;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    used += is_used(table, record_at(source, table, position));
  }
  return used;
}

/* The library changes the counter after it has released the record. */
void pause_for_counts() { pause_ms(10); }

bool has_wrong_counter(Source& source, const Table& table, Damage* damage) {
  for (int look = 0; look < 2; ++look) {
    if (look > 0) pause_for_counts();
    damage->value = counter_of(source, table);
    damage->right = count_used(source, table);
    if (damage->value == damage->right) return false;
  }
  return true;
}

template <class Tell>
void find_in_header(Source& source, const Area& area, Tell tell) {
  const uint8_t* block = source.block(id_of(area));
  const auto& header = area.row().header;
  const auto width = static_cast<size_t>(header.index_at - header.path_at);
  Damage damage = {Damage::kLockPath, &area, nullptr, 0, 0, 1, nullptr, nullptr};
  if (strncmp(reinterpret_cast<const char*>(block) + header.path_at, lock_path(area).text, width) !=
      0) {
    tell(damage);
  }
  damage.kind = Damage::kAreaLock;
  damage.value = load<int32_t>(block + header.index_at);
  if (damage.value != damage.right) tell(damage);
}

template <class Tell>
void find_in_words(Source& source, const Table& table, Tell tell) {
  Damage damage = {Damage::kLockWord, kAreas + table.area, &table, 0, 0, 0, nullptr, nullptr};
  for (uint32_t position = 0; position < table.capacity; ++position) {
    const uint8_t* record = record_at(source, table, position);
    damage.position = position;
    if (table.lock_at >= 0) {
      damage.kind = Damage::kLockWord;
      damage.value = load<int32_t>(record + table.lock_at);
      damage.right = lock_index_of(table, position);
      if (damage.value != damage.right) tell(damage);
    }
    if (is_section(table) || !is_used(table, record)) continue;
    damage.kind = Damage::kIdWord;
    damage.value = load<int32_t>(record + table.id_at);
    damage.right = damage.id();
    if (damage.value != damage.right) tell(damage);
  }
  damage.kind = Damage::kCounter;
  if (table.counter != nullptr && has_wrong_counter(source, table, &damage)) tell(damage);
}

template <class Tell>
void find_duplicates(const Snapshot& rows, Tell tell) {
  const Table& table = rows.table();
  for (uint32_t position = 0; position < table.capacity; ++position) {
    if (!rows.used(position)) continue;
    const Field* field;
    const int other = rows.find_clash(rows.record(position), static_cast<int>(position), &field);
    if (other < 0 || other > static_cast<int>(position)) continue;
    tell(Damage{Damage::kDuplicate, kAreas + table.area, &table, position, 0, other, field,
                nullptr});
  }
}

template <class Tell>
void find_dangling(Source& source, const Snapshot& rules, Tell tell) {
  const Table& table = rules.table();
  for (const Reference& reference : kReferences) {
    if (strcmp(reference.table, table.name) != 0) continue;
    const Table& groups = *find_table(reference.groups, strlen(reference.groups));
    if (source.block(groups.area) == nullptr) continue;
    const Field& mode = *find_field(table, reference.mode, strlen(reference.mode));
    const Field& id = *find_field(table, reference.id, strlen(reference.id));
    for (uint32_t position = 0; position < table.capacity; ++position) {
      const uint8_t* record = rules.record(position);
      if (!rules.used(position)) continue;
      const int64_t set = load_number(record + mode.record_at, mode.size, true);
      if (set < 1 || set > reference.last_mode) continue;
      const int64_t group = load_number(record + id.record_at, id.size, true);
      if (group >= 1 && group <= groups.capacity &&
          is_used(groups, record_at(source, groups, static_cast<uint32_t>(group) - 1))) {
        continue;
      }
      tell(Damage{Damage::kReference, kAreas + table.area, &table, position, group, 0, &mode,
                  &groups});
    }
  }
}

/* Finds all damage of an area, in the order in which it is repaired. */
template <class Tell>
void find_damage(Source& source, const Area& area, Tell tell) {
  find_in_header(source, area, tell);
  for (const Table& table : kTables) {
    if (table.area != id_of(area)) continue;
    find_in_words(source, table, tell);
    Snapshot rows(table);
    rows.take(source);
    find_duplicates(rows, tell);
    find_dangling(source, rows, tell);
  }
}

/* ---- what is said of them ---- */

void describe(Source& source, const Damage& damage, Text* to) {
  const Area& area = *damage.area;
  const char* table = damage.table != nullptr ? damage.table->name : "";
  const auto value = static_cast<long long>(damage.value);
  const auto right = static_cast<long long>(damage.right);
  switch (damage.kind) {
    case Damage::kLockPath: {
      const auto& header = area.row().header;
      const auto* own = reinterpret_cast<const char*>(source.block(id_of(area))) + header.path_at;
      to->print("%s: lock_path is '", area.name);
      to->add_shown(own, strnlen(own, static_cast<size_t>(header.index_at - header.path_at)));
      to->print("', not %s", lock_path(area).text);
      return;
    }
    case Damage::kAreaLock:
      to->print("%s: block_lock_index is %lld, not 1", area.name, value);
      return;
    case Damage::kLockWord:
      to->print("%s/%u: its lock is byte %lld, not %lld", table, damage.id(), value, right);
      return;
    case Damage::kIdWord:
      to->print("%s/%u: its id word is %lld", table, damage.id(), value);
      return;
    case Damage::kCounter:
      to->print("%s: %s is %lld, used are %lld", table, damage.table->counter, value, right);
      return;
    case Damage::kDuplicate:
      to->print("%s/%u: its %s equals that of %s/%lld", table, damage.id(), damage.field->name,
                table, right + 1);
      return;
    case Damage::kReference:
      to->print("%s/%u: refers to %s/%lld, which does not exist", table, damage.id(),
                damage.groups->name, value);
      return;
  }
}

/* The options of remedies for a file; they follow the commands. */
struct Options {
  Text text;
  explicit Options(const Call& call) {
    if (!call.has(kImage) && !call.has(kArchive)) return;
    text.add(call.has(kImage) ? " --image " : " --archive ");
    add_word(call.source.name(), strlen(call.source.name()), &text);
    text.add(" --in-place");
  }
  const char* c_str() const { return text.c_str(); }
};

void add_remedy(const Damage& damage, const Options& options, Text* to) {
  const char* table = damage.table != nullptr ? damage.table->name : "";
  to->add("; remedy: ");
  switch (damage.kind) {
    case Damage::kDuplicate:
      to->print("the wrong one of them: scctl del %s/%u%s, or scctl del %s/%lld%s", table,
                damage.id(), options.c_str(), table, static_cast<long long>(damage.right) + 1,
                options.c_str());
      return;
    case Damage::kReference:
      to->print("scctl set %s/%u %s=0%s", table, damage.id(), damage.field->name, options.c_str());
      return;
    default: to->print("scctl repair %s%s", damage.area->name, options.c_str());
  }
}

/* ---- check ---- */

/* Checks the files of a live area and prints the findings. Returns their number. */
unsigned check_files(const Area& area) {
  unsigned findings = 0;
  const Path lock = lock_path(area);
  if (access(lock.text, F_OK) != 0) {
    const char* why = strerror(errno);
    const bool has_folder = access("/var/lock_store", F_OK) == 0;
    printf("%s: %s: %s; remedy: %secho >%s\n", area.name, lock.text, why,
           has_folder ? "" : "mkdir -p /var/lock_store; ", lock.text);
    ++findings;
  } else if (struct stat file; stat(lock.text, &file) == 0 && !S_ISREG(file.st_mode)) {
    printf("%s: %s: not a regular file; remedy: mv %s %s.bad; echo >%s\n", area.name, lock.text,
           lock.text, lock.text, lock.text);
    ++findings;
  }
  if (area.row().stem[0] == '\0') return findings;
  ArchiveImage image;
  const char* fault = read_own_archive(area, &image);
  free(image.bytes);
  const store::State state = image.verdict.state;
  if (state == store::State::kGood || state == store::State::kMissing) return findings;
  printf("%s: %s: %s", area.name, archive_path(area).text, fault);
  if (state == store::State::kBroken) printf("; remedy: scctl save %s", area.name);
  putchar('\n');
  return findings + 1;
}

/* Checks the folders that saves need: without the flash nothing is kept. */
unsigned check_folders() {
  static constexpr const char* kFolders[] = {"/var/systemconfig", "/var/dataconfig"};
  unsigned findings = 0;
  for (const char* folder : kFolders) {
    if (access(folder, F_OK) == 0) continue;
    printf("%s: %s; nothing can be saved\n", folder, strerror(errno));
    ++findings;
  }
  return findings;
}

}  // namespace

int run_check(Call& call) {
  bool chosen[kAreaCount];
  if (const int status = parse_areas(call, true, chosen); status != kOk) return status;
  const Options options(call);
  unsigned checked = 0, findings = 0;
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    if (!chosen[id]) continue;
    if (call.word_count > 0) {
      if (const int status = call.source.need(id); status != kOk) return status;
    }
    if (call.source.block(id) == nullptr) continue;
    ++checked;
    find_damage(call.source, area, [&](const Damage& damage) {
      Text line;
      describe(call.source, damage, &line);
      add_remedy(damage, options, &line);
      puts(line.c_str());
      ++findings;
    });
    if (call.source.is_live()) findings += check_files(area);
  }
  if (call.source.is_live() && checked > 0) findings += check_folders();
  printf("areas checked: %u, findings: %u\n", checked, findings);
  if (checked == 0) return fail_without_areas();
  return findings == 0 ? kOk : kRefused;
}

/* ---- repair ---- */

namespace {

constexpr uint32_t kGatherMs = 1000;

/* Locks several bytes of a lock file, in an area that is edited. It tries to lock them, again and
 * again for at most a second, and never waits in the kernel. If a process waited while it held
 * other bytes, the kernel could return EDEADLK to a third program, and the library would then write
 * without a lock. */
class Gathered {
 public:
  explicit Gathered(AreaId area) : file_(g_lock_files[area]) {}
  ~Gathered() { release(); }
  Gathered(const Gathered&) = delete;
  Gathered& operator=(const Gathered&) = delete;

  void want(int64_t first, uint32_t count) { ranges_[count_++] = {first, count}; }

  bool gather() {
    Wait wait(kGatherMs);
    while (!is_interrupted()) {
      if (take_all()) return true;
      release();
      if (!wait.pause()) break;
    }
    return false;
  }

 private:
  bool take_all() {
    for (int n = 0; n < count_; ++n) {
      if (!take(ranges_[n], F_WRLCK)) return false;
    }
    return true;
  }
  void release() {
    for (int n = 0; n < count_; ++n) take(ranges_[n], F_UNLCK);
  }
  struct Range {
    int64_t first;
    uint32_t count;
  };
  bool take(const Range& range, short type) const {
    return sc_lock_reg(file_, F_SETLK, type, static_cast<off_t>(range.first), SEEK_SET,
                       static_cast<off_t>(range.count)) == 0;
  }

  int file_;
  Range ranges_[2] = {};
  int count_ = 0;
};

void mend_header(Source& live, const Damage& damage) {
  const auto& header = damage.area->row().header;
  uint8_t* block = live.block(id_of(*damage.area));
  if (damage.kind == Damage::kAreaLock) {
    store<int32_t>(block + header.index_at, 1);
    return;
  }
  const Path path = lock_path(*damage.area);
  memset(block + header.path_at, 0, static_cast<size_t>(header.index_at - header.path_at));
  memcpy(block + header.path_at, path.text, strlen(path.text));
}

void mend_word(uint8_t* word, const Damage& damage) {
  if (load<int32_t>(word) == damage.value) store(word, static_cast<int32_t>(damage.right));
}

template <class Word>
bool set_counter(void* counter, int64_t seen, int64_t used) {
  auto expected = static_cast<Word>(seen);
  return __atomic_compare_exchange_n(static_cast<Word*>(counter), &expected,
                                     static_cast<Word>(used), false, __ATOMIC_RELAXED,
                                     __ATOMIC_RELAXED);
}

/* No record is added or deleted meanwhile. A program that has released a record may still have to
 * change the counter. */
bool mend_counter(Source& live, const Table& table) {
  pause_for_counts();
  void* counter = live.block(table.area) + table.counter_at;
  const int64_t seen = counter_of(live, table), used = count_used(live, table);
  return table.counter_size == 2 ? set_counter<uint16_t>(counter, seen, used)
                                 : set_counter<uint32_t>(counter, seen, used);
}

/* False when another program has changed the value since the check. */
bool mend_locked(Source& live, const Damage& damage) {
  if (damage.kind == Damage::kCounter) return mend_counter(live, *damage.table);
  if (damage.table == nullptr) {
    mend_header(live, damage);
    return true;
  }
  uint8_t* word = record_at(live, *damage.table, damage.position) +
                  (damage.kind == Damage::kLockWord ? damage.table->lock_at : damage.table->id_at);
  mend_word(word, damage);
  return load<int32_t>(word) == damage.right;
}

/* Repairs one finding under the bytes that guard it. False when these bytes cannot be locked, or
 * when another program has changed the value since the check. */
bool mend(Edit& edit, const Damage& damage) {
  Source& live = edit.live();
  const AreaId area = id_of(*damage.area);
  Gathered locks(area);
  switch (damage.kind) {
    case Damage::kLockPath: locks.want(1, 1); break;
    case Damage::kAreaLock:
    case Damage::kLockWord:
      locks.want(damage.right, 1);
      if (damage.value > 0) locks.want(damage.value, 1); /* other programs lock this byte */
      break;
    case Damage::kIdWord: locks.want(lock_index_of(*damage.table, damage.position), 1); break;
    default: locks.want(lock_index_of(*damage.table, 0), damage.table->capacity);
  }
  if (!locks.gather() || !mend_locked(live, damage)) return false;
  edit.set_changed(area);
  return true;
}

struct Repaired {
  unsigned mended, left;
};

/* Prints what was repaired (or would be), and what is left. */
int repair_area(Call& call, const Area& area, const Options& options, Text* said,
                Repaired* repaired) {
  const bool dry = call.has(kDryRun);
  Edit edit(call.source);
  if (!dry) {
    const int status = edit.begin_damaged(id_of(area));
    if (status != kOk) return status;
  }
  find_damage(call.source, area, [&](const Damage& damage) {
    if (damage.kind == Damage::kReference) return;
    describe(call.source, damage, said);
    if (!damage.can_be_mended()) {
      add_remedy(damage, options, said);
      ++repaired->left;
    } else if (dry || mend(edit, damage)) {
      said->add(dry ? "; would be mended" : "; mended");
      ++repaired->mended;
    } else {
      said->add("; not mended: another program uses it; try again");
      ++repaired->left;
    }
    said->add('\n');
  });
  return kOk;
}

}  // namespace

int run_repair(Call& call) {
  bool chosen[kAreaCount];
  const bool file = call.has(kImage) || call.has(kArchive);
  if (const int status = parse_areas(call, file, chosen); status != kOk) return status;
  const Options options(call);
  unsigned areas = 0;
  Repaired repaired = {};
  int status = kOk;
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    if (!chosen[id]) continue;
    if (call.word_count > 0) status = call.source.need(id);
    if (status != kOk) break;
    if (call.source.block(id) == nullptr) continue;
    Text said;
    status = repair_area(call, area, options, &said, &repaired);
    fputs(said.c_str(), stdout);
    if (status != kOk) break;
    ++areas;
  }
  if (status != kOk) return status;
  tell("areas repaired: %u, mended: %u, left: %u", areas, repaired.mended, repaired.left);
  if (areas == 0) return fail_without_areas();
  call.is_done = true;
  return repaired.left == 0 ? kOk : kRefused;
}

}  // namespace scctl
