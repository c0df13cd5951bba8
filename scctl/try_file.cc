/* The journal of a try, and the copies of areas for a try of any program. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "commands.h"
#include "record_locks.h"
#include "store/kept.h"
#include "try.h"

namespace scctl {

namespace {

constexpr uint32_t kActorMs = 3000;
constexpr char kKind[8] = "try 2";

void read_boot_id(char (&id)[sizeof TryHeader::boot]) {
  memset(id, 0, sizeof id);
  const int file = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
  if (file < 0) return;
  if (read(file, id, sizeof id - 1) < 0) id[0] = '\0';
  close(file);
}

}  // namespace

Try::~Try() {
  if (file_ >= 0) close(file_);
}

bool Try::create() {
  memcpy(header.kind, kKind, sizeof kKind);
  read_boot_id(header.boot);
  if (!replace_state_file(kTryName, reinterpret_cast<const char*>(&header), sizeof header))
    return false;
  file_ = open_state_file(kTryName, O_RDWR);
  return file_ >= 0;
}

bool Try::open() {
  if (file_ >= 0) close(file_);
  file_ = open_state_file(kTryName, O_RDWR);
  if (file_ < 0) return false;
  char boot[sizeof header.boot];
  read_boot_id(boot);
  if (pread(file_, &header, sizeof header, 0) == sizeof header &&
      memcmp(header.kind, kKind, sizeof kKind) == 0 &&
      memcmp(header.boot, boot, sizeof boot) == 0) {
    return true;
  }
  close(file_);
  file_ = -1;
  return false;
}

bool Try::is_same(const Try& other) const {
  return memcmp(&header.author, &other.header.author, sizeof header.author) == 0;
}

bool Try::write() const {
  return pwrite(file_, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header);
}

bool Try::set_phase(Phase phase) {
  header.phase = phase;
  return write();
}

bool Try::append(const Step& step) const {
  Text chunk;
  pack_step(step, 0, &chunk);
  const off_t end = lseek(file_, 0, SEEK_END);
  if (end >= 0 && write_all(file_, chunk.c_str(), chunk.size())) return true;
  const int why = errno;
  if (end >= 0 && ftruncate(file_, end) != 0) return false;
  errno = why;
  return false;
}

unsigned Try::left() const {
  const uint64_t now = boot_ms();
  if (now >= header.deadline_ms) return 0;
  return (static_cast<uint32_t>(header.deadline_ms - now) + 999) / 1000; /* a day at most */
}

namespace {

/* So many steps are written down before they are made: those of a template and its access point. */
constexpr unsigned kMostAhead = 2;

/* A step that was written down but not made. */
bool is_unmade(const Chunk& chunk, Source& live) {
  Changes one;
  one.add(chunk);
  const Change* step = one.first();
  if (step == nullptr || live.block(step->table->area) == nullptr) return false;
  const Table& table = *step->table;
  const uint8_t* now = live.block(table.area) + table.at + step->position * table.stride;
  if (is_used(table, now) != step->was_used) return false;
  const uint8_t* mask = step->mask.data();
  for (Run run = next_run(mask, 0, table.stride); run.size != 0;
       run = next_run(mask, run.end(), table.stride)) {
    if (memcmp(step->before.data() + run.at, now + run.at, run.size) != 0) return false;
  }
  return true;
}

}  // namespace

void Try::read_changes(Source& live, Changes* changes) const {
  Text bytes;
  if (!read_file(file_, &bytes)) return;
  size_t at = sizeof header;
  unsigned left = 0;
  for (const Chunk* chunk; (chunk = chunk_at(bytes, at)) != nullptr; at += chunk->size) ++left;
  size_t end = sizeof header; /* behind the last step that was made */
  at = end;
  while (left-- > 0) {
    const Chunk* chunk = chunk_at(bytes, at);
    at += chunk->size;
    if (header.phase != Phase::kMaking || left >= kMostAhead || !is_unmade(*chunk, live)) end = at;
  }
  changes->add(bytes, sizeof header, end, 0);
}

/* ---- for all commands ---- */

int fail_state() { return fail(kNoArea, "%s: %s", kStateFolder, strerror(errno)); }

int fail_saving(const Area& area) {
  return fail(kRefused, "area %s is being saved by another program", area.name);
}

int fail_flash(const char* what) {
  return fail(kNoArea, "%s: %s: %s", kArchiveFolder, what, strerror(errno));
}

uint32_t saved_areas() {
  uint32_t areas = 0;
  for (const Area& area : kAreas) {
    if (area.save != nullptr) areas |= bit(id_of(area));
  }
  return areas;
}

int need_try(Try& running) {
  if (!open_state(false) && errno != ENOENT) return fail_state();
  return state_folder() >= 0 && running.open() ? kOk : fail(kRefused, kNoTry);
}

int join(Try& running, const char* what) {
  if (const int status = need_try(running); status != kOk) return status;
  if (!take_role(Role::kActor, kActorMs)) {
    return fail(kRefused, "%s: process %d still makes or ends the try", what,
                static_cast<int>(holder_of(Role::kActor)));
  }
  if (!running.open()) return fail(kRefused, kNoTry);
  const Phase phase = running.header.phase;
  if (phase == Phase::kMaking) return fail(kRefused, "%s: the try was not made", what);
  return kOk;
}

bool read_try_note(uint32_t* pid, Text* note) {
  Try running;
  if (!open_state(false) || !running.open()) return false;
  *pid = running.header.author.pid;
  note->add(running.header.note);
  return true;
}

bool read_waiting(Changes* changes) {
  const Descriptor file(open_state_file("waiting", O_RDONLY));
  Text bytes;
  if (!file || !read_file(file.number, &bytes)) return false;
  changes->add(bytes, 0, bytes.size(), 0);
  return !changes->empty();
}

/* ---- areas before a program ---- */

namespace {

struct CopyName {
  char text[32];
  explicit CopyName(const Area& area) {
    snprintf(text, sizeof text, "before_%s", area.row().lock_stem);
  }
};

/* Pages of zeros become holes. */
bool write_sparse(int file, const uint8_t* block, size_t size) {
  constexpr size_t kPage = 4096;
  for (size_t at = 0; at < size; at += kPage) {
    const size_t part = size - at < kPage ? size - at : kPage;
    if (block[at] == 0 && memcmp(block + at, block + at + 1, part - 1) == 0) continue;
    if (pwrite(file, block + at, part, static_cast<off_t>(at)) != static_cast<ssize_t>(part)) {
      return false;
    }
  }
  return ftruncate(file, static_cast<off_t>(size)) == 0;
}

}  // namespace

bool copy_areas(Source& live, Text* why_not) {
  int why = 0;
  RecordLocks(live, ~0u).copy(why_not, [&](AreaId id, bool) {
    if (why != 0) return;
    const Area& area = kAreas[id];
    const Descriptor file(open_state_file(CopyName(area).text, O_WRONLY | O_CREAT | O_TRUNC));
    if (!file || !write_sparse(file.number, live.block(id), area.row().size)) why = errno;
  });
  errno = why;
  return why == 0;
}

void remove_copies() {
  for (const Area& area : kAreas) unlinkat(state_folder(), CopyName(area).text, 0);
}

namespace {

bool add_differences(const Table& table, Source& live, const uint8_t* before, const Try& running,
                     Changes* changes) {
  bool is_written = true;
  Reader reader(live, table);
  Buffer copy(table.stride);
  const uint8_t* block = live.block(table.area);
  for (uint32_t position = 0; position < table.capacity; ++position) {
    const uint8_t* was = before + table.at + position * table.stride;
    const uint8_t* now = block + table.at + position * table.stride;
    const bool was_used = is_used(table, was);
    const bool used = reader.copy(position, copy.data());
    if (used) now = copy.data();
    Mask differing(table);
    differing.add_differences(was, now);
    if (was_used == used && differing.empty()) continue;
    const Step step = {table,    position, was, now, was_used && used ? differing.bytes() : nullptr,
                       was_used, used};
    if (is_written) is_written = running.append(step);
    changes->add(step);
  }
  return is_written;
}

}  // namespace

bool add_differences(Source& live, const Try& running, Changes* changes) {
  bool is_written = true;
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    Source before;
    const int file = open_state_file(CopyName(area).text, O_RDONLY);
    if (file < 0) continue;
    const bool is_read = live.block(id) != nullptr && before.open_image(area.name, file) == kOk;
    close(file);
    for (const Table& table : kTables) {
      if (is_read && table.area == id) {
        is_written &= add_differences(table, live, before.block(id), running, changes);
      }
    }
  }
  return is_written;
}

}  // namespace scctl
