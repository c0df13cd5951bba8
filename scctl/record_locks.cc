#include "record_locks.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "store/clock.h"

namespace scctl {

namespace {

constexpr uint32_t kLongestMs = 1000; /* until a record has to be free */

/* The lowest byte that guards a record. */
off_t first_byte(int n) {
  uint32_t first = 2;
  for (const Table& table : kTables) {
    if (table.area == n && table.lock_at < 0) first = lock_index_of(table, 0);
  }
  return static_cast<off_t>(first);
}

}  // namespace

RecordLocks::RecordLocks(Source& live, uint32_t areas) {
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    files_[id] = -1;
    if ((areas & bit(id)) == 0 || live.block(id) == nullptr) continue;
    areas_ |= bit(id);
    files_[id] = open(lock_path(area).text, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (files_[id] < 0) files_[id] = -errno;
  }
}

RecordLocks::~RecordLocks() {
  for (const int file : files_) {
    if (file >= 0) close(file);
  }
}

/* Locks the areas from `first` up to `end` all at once, within a second. Holds none of them while it
 * pauses: a program that holds a record of one area may wait for one of another. */
bool RecordLocks::hold(int first, int end) {
  Wait wait(kLongestMs);
  while (true) {
    int n = first;
    while (n < end && lock(n, F_RDLCK)) ++n;
    if (n == end) return true;
    error_ = errno == EACCES && files_[n] >= 0 ? EAGAIN : errno;
    missing_ = n;
    release(first, n);
    if (error_ != EAGAIN || !wait.pause()) return false;
  }
}

void RecordLocks::release(int first, int end) {
  for (int n = first; n < end; ++n) lock(n, F_UNLCK);
}

/* Prints why the last hold did not succeed. */
void RecordLocks::format_failure(Text* to) const {
  const Area& area = kAreas[missing_];
  if (error_ == EAGAIN)
    to->print("records of area %s were locked for a second", area.name);
  else
    to->print("%s: %s", lock_path(area).text, strerror(error_));
}

bool RecordLocks::lock(int n, short type) {
  if (!has(static_cast<AreaId>(n))) return true;
  if (files_[n] < 0) {
    errno = -files_[n];
    return false;
  }
  /* A length of 0 means all bytes behind it, too. */
  return sc_lock_reg(files_[n], F_SETLK, type, first_byte(n), SEEK_SET, 0) == 0;
}

}  // namespace scctl
