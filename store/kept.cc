/* Archives, their kept copies, and the marker of a try. */
#include "store/kept.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/registry.h"
#include "store/files.h"

namespace store {

namespace {

bool copy_bytes(int from, int to) {
  char bytes[4096];
  off_t at = 0;
  ssize_t got;
  while ((got = pread(from, bytes, sizeof bytes, at)) > 0) {
    at += got;
    if (!write_all(to, bytes, static_cast<size_t>(got))) return false;
  }
  return got == 0;
}

/* Gives the new file the bytes, owner and mode of another. */
bool fill_from_file(int fresh, const void* descriptor) {
  const int from = *static_cast<const int*>(descriptor);
  struct stat status;
  return copy_bytes(from, fresh) && fstat(from, &status) == 0 &&
         fchown(fresh, status.st_uid, status.st_gid) == 0 &&
         fchmod(fresh, status.st_mode & 07777) == 0;
}

bool fill_from_text(int fresh, const void* text) {
  const auto* from = static_cast<const char*>(text);
  return write_all(fresh, from, strlen(from));
}

using Fill = bool (*)(int fresh, const void* from);

/* Replaces a file by a new one, or does not change it. errno tells why not. */
bool replace_file(int folder, const char* name, const char* fresh_name, Fill fill,
                  const void* from) {
  unlinkat(folder, fresh_name, 0);
  const int fresh =
      openat(folder, fresh_name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fresh < 0) return false;
  const bool replaced =
      fill(fresh, from) && reaches_flash(fresh) && renameat(folder, fresh_name, folder, name) == 0;
  const int why = errno;
  close(fresh);
  if (!replaced) unlinkat(folder, fresh_name, 0);
  errno = why;
  return replaced;
}

}  // namespace

ArchiveFolder::ArchiveFolder()
    : descriptor_(open(kArchiveFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (descriptor_ < 0 || flock(descriptor_, LOCK_EX) == 0) return;
  const int why = errno;
  close(descriptor_);
  descriptor_ = -1;
  errno = why;
}

ArchiveFolder::~ArchiveFolder() {
  if (descriptor_ >= 0) close(descriptor_);
}

bool reaches_flash(int file) { return fsync(file) == 0 && syncfs(file) == 0; }

/* ---- an area's files ---- */

AreaFileName::AreaFileName(const sc::AreaRow& area, const char* ending) {
  snprintf(text, sizeof text, "config_%s.%s", area.stem, ending);
}

AreaFile::AreaFile(const sc::AreaRow& area, const char* ending, int folder)
    : name(area, ending), descriptor(open_archive(folder, name.text, O_NOFOLLOW, &archive)) {
  if (descriptor >= 0) judge(descriptor, &area, &archive);
}

AreaFile::~AreaFile() {
  if (descriptor >= 0) close(descriptor);
}

AreaFiles::AreaFiles(const sc::AreaRow& of, int in)
    : area(of),
      folder(in),
      fresh(of, "new"),
      bad(of, "bad"),
      bin(of, "bin", in),
      good(of, "good", in) {}

bool AreaFiles::are_equal() const {
  return bin.is(State::kGood) && good.is(State::kGood) &&
         memcmp(bin.archive.image, good.archive.image, area.size) == 0;
}

bool AreaFiles::replace(const AreaFile& file, const AreaFile& by) const {
  return replace_file(folder, file.name.text, fresh.text, fill_from_file, &by.descriptor);
}

namespace {

CopyState state_of(const AreaFiles& files) {
  if (files.bin.is(State::kUnknown) || files.good.is(State::kUnknown)) return CopyState::kUnknown;
  if (files.are_equal()) return CopyState::kCurrent;
  if (files.bin.is(State::kGood)) return CopyState::kStale;
  if (files.good.is(State::kGood)) return CopyState::kCopyOnly;
  return files.bin.is(State::kMissing) ? CopyState::kNone : CopyState::kBroken;
}

}  // namespace

bool look_at_copy(const sc::AreaRow& area, int folder, CopyReport* report) {
  const AreaFiles files(area, folder);
  report->state = state_of(files);
  struct stat status;
  const bool has_size = files.bin.descriptor >= 0 && fstat(files.bin.descriptor, &status) == 0;
  report->archive_bytes = has_size ? static_cast<uint64_t>(status.st_size) : 0;
  /* That of the archive, unless only the copy is not known. */
  const bool is_of_copy = files.good.is(State::kUnknown) && !files.bin.is(State::kUnknown);
  const AreaFile& file = is_of_copy ? files.good : files.bin;
  snprintf(report->reason, sizeof report->reason, "%s", file.archive.reason);
  return report->state != CopyState::kUnknown;
}

bool renew_copy(const sc::AreaRow& area, int folder) {
  const AreaFiles files(area, folder);
  const CopyState state = state_of(files);
  if (state != CopyState::kStale && state != CopyState::kCurrent) {
    errno = EBADMSG;
    return false;
  }
  /* The rename of a current copy may not be on the flash: who made it can have been killed. */
  return (state == CopyState::kCurrent || files.replace(files.good, files.bin)) &&
         reaches_flash(folder);
}

/* ---- the marker ---- */

namespace {

/* The first line, a line for each area in the order of AreaId, the last line. */
constexpr char kFirstLine[] = "sysconfig try 1\n";
constexpr char kLastLine[] = "end\n";
constexpr size_t kMostText = 512;

bool is_saved(const sc::AreaRow& area) { return area.stem[0] != '\0'; }

constexpr char kGoodBase[] = " good\n";
constexpr char kNoBase[] = " none\n";

/* Text that is read from its begin. */
struct Rest {
  const char* at;

  bool begins(const char* line) {
    const size_t size = strlen(line);
    if (strncmp(at, line, size) != 0) return false;
    at += size;
    return true;
  }
};

bool parse(const char* text, const char* end, Marker* marker) {
  Rest rest = {text};
  if (!rest.begins(kFirstLine)) return false;
  for (const sc::AreaRow& area : sc::kAreas) {
    if (!is_saved(area) || !rest.begins(area.stem)) continue;
    marker->areas |= Marker::bit(area);
    if (rest.begins(kNoBase))
      marker->never_saved |= Marker::bit(area);
    else if (!rest.begins(kGoodBase))
      return false;
  }
  return rest.begins(kLastLine) && rest.at == end;
}

}  // namespace

uint32_t Marker::bit(const sc::AreaRow& area) { return 1U << (&area - sc::kAreas); }

MarkerState read_marker(int folder, Marker* marker) {
  *marker = {};
  const int file =
      openat(folder, kMarkerName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (file < 0) return errno == ENOENT ? MarkerState::kMissing : MarkerState::kUnknown;
  char text[kMostText];
  const ssize_t got = pread(file, text, sizeof text - 1, 0);
  const int why = errno;
  close(file);
  errno = why;
  if (got < 0) return MarkerState::kUnknown;
  text[got] = '\0';
  Marker found = {};
  if (!parse(text, text + got, &found)) return MarkerState::kBroken;
  *marker = found;
  return MarkerState::kThere;
}

bool write_marker(int folder, const Marker& marker) {
  char text[kMostText];
  char* end = stpcpy(text, kFirstLine);
  for (const sc::AreaRow& area : sc::kAreas) {
    if (!marker.has(area) || !is_saved(area)) continue;
    end = stpcpy(stpcpy(end, area.stem), marker.had_none(area) ? kNoBase : kGoodBase);
  }
  stpcpy(end, kLastLine);
  return replace_file(folder, kMarkerName, kNewMarkerName, fill_from_text, text) &&
         reaches_flash(folder);
}

bool remove_marker(int folder) {
  unlinkat(folder, kNewMarkerName, 0);
  if (unlinkat(folder, kMarkerName, 0) != 0 && errno != ENOENT) return false;
  return reaches_flash(folder);
}

}  // namespace store
