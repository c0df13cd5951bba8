/* Opening and judging an archive. A separate gzip process unpacks it, no further than the verdict
 * needs.
 */
#include "store/archive.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/gzip.h"
#include "store/stream.h"

namespace store {

namespace {

constexpr char kBadGzip[] = "corrupt or truncated gzip data";
constexpr char kNotRead[] = "it could not be read";

/* ---- gzip ---- */

/* Reads the rest of the stream. True when it ends within the limit; errno is 0 when every read
 * succeeded. */
bool ends(int stream) {
  Stream rest = {stream};
  char bytes[512];
  size_t got = sizeof bytes;
  for (size_t left = kMostBehind; left > 0 && got == sizeof bytes; left -= got) {
    got = rest.take(bytes, sizeof bytes);
  }
  errno = rest.error;
  return got < sizeof bytes;
}

/* gzip's status is the same for bad data and for data that it could not read. */
bool can_be_read(int file) {
  char bytes[4096];
  off_t at = 0;
  ssize_t got;
  while ((got = pread(file, bytes, sizeof bytes, at)) > 0) at += got;
  return got == 0;
}

/* Combines gzip's exit status with the verdict on the data that it unpacked. */
bool judge_status(int status, int file, Archive* archive) {
  if (WIFSIGNALED(status)) {
    char why[64];
    snprintf(why, sizeof why, "not known: gzip was ended by signal %d", WTERMSIG(status));
    return archive->is(State::kUnknown, why);
  }
  /* gzip's own statuses are 1 for an error and 2 for a warning. */
  if (WEXITSTATUS(status) > 2) {
    return archive->is(State::kUnknown, "not known: gzip could not be run");
  }
  if (WEXITSTATUS(status) != 0) {
    return can_be_read(file) ? archive->is(State::kBroken, kBadGzip) : archive->cannot(kNotRead);
  }
  /* gzip reads other formats, too, but BusyBox tar does not. */
  uint8_t magic[2];
  const ssize_t got = pread(file, magic, sizeof magic, 0);
  if (got < 0) return archive->cannot(kNotRead);
  if (got < 2 || magic[0] != 0x1f || magic[1] != 0x8b) {
    return archive->is(State::kBroken, kBadGzip);
  }
  return archive->state == State::kGood;
}

bool judge_by_gzip(int file, const sc::AreaRow* area, Archive* archive) {
  Gzip gzip;
  if (!gzip.start(file, Gzip::kUnpacks)) return archive->cannot(kNoGzip);
  const bool good = judge_tar(gzip.stream, area, archive);
  if (archive->state == State::kUnknown) return false;
  /* gzip reports a wrong length or checksum only at the end of its stream. */
  const bool at_end = ends(gzip.stream);
  if (errno != 0) return archive->cannot(kNoGzip);
  if (!at_end) return good;
  int status;
  if (!gzip.wait(&status)) return archive->cannot(kNoGzip);
  return judge_status(status, file, archive);
}

}  // namespace

Archive::~Archive() { free(image); }

bool Archive::is(State what, const char* why) {
  state = what;
  area = nullptr;
  snprintf(reason, sizeof reason, "%s", why);
  return what == State::kGood;
}

bool Archive::cannot(const char* what) {
  char why[sizeof reason];
  snprintf(why, sizeof why, "not known: %s: %s", what, strerror(errno));
  return is(State::kUnknown, why);
}

int open_archive(int folder, const char* name, int flags, Archive* archive) {
  const int file = openat(folder, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags);
  if (file >= 0) return file;
  if (errno == ENOENT)
    archive->is(State::kMissing, strerror(ENOENT));
  else if ((flags & O_NOFOLLOW) != 0 && errno == ELOOP)
    archive->is(State::kUnknown, "not known: it is a link");
  else
    archive->cannot("it could not be opened");
  return -1;
}

bool judge(int file, const sc::AreaRow* area, Archive* archive) {
  struct stat status;
  if (fstat(file, &status) != 0 || (S_ISREG(status.st_mode) && lseek(file, 0, SEEK_SET) != 0)) {
    return archive->cannot(kNotRead);
  }
  if (!S_ISREG(status.st_mode)) {
    return archive->is(State::kUnknown, "not known: not a regular file");
  }
  const bool good = judge_by_gzip(file, area, archive);
  if (archive->area == nullptr) {
    free(archive->image);
    archive->image = nullptr;
  }
  return good;
}

}  // namespace store
