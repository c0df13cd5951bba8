/* Commands for checkpoints: checkpoint, checkpoints, rollback.
 *
 * A checkpoint is made in a folder .NAME.new, which is renamed when all of it is on flash. To delete
 * one, it is first renamed to .NAME.old. So a kill or a power cut leaves all of it or nothing. The
 * next command that makes or deletes one removes what was left.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "commands.h"
#include "listing.h"
#include "store/gzip.h"
#include "store/value.h"

namespace scctl {

namespace {

constexpr uint64_t kKeptFree = 64 * 1024;

bool can_be_saved(const Area& area) { return area.row().stem[0] != '\0'; }

/* ---- the copy of one moment ---- */

constexpr int kLongest = 1000; /* milliseconds until a record has to be free */
constexpr timespec kPause = {0, 1000000};

long long milliseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

/* The lock files of the areas that are copied, for shared locks on all records of an area. Never
 * waits in the kernel (F_SETLKW): the kernel could then answer another program's wait with EDEADLK,
 * and the library would write without a lock. No edit of this process is open meanwhile: the end of
 * these descriptors would drop its locks. */
class RecordLocks {
 public:
  explicit RecordLocks(Source& live) {
    for (const Area& area : kAreas) {
      const AreaId id = id_of(area);
      files_[id] = kNotCopied;
      if (!can_be_saved(area) || live.block(id) == nullptr) continue;
      files_[id] = open(lock_path(area).text, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
      if (files_[id] < 0) files_[id] = -errno;
    }
  }
  ~RecordLocks() {
    for (const int file : files_) {
      if (file >= 0) close(file);
    }
  }
  RecordLocks(const RecordLocks&) = delete;
  RecordLocks& operator=(const RecordLocks&) = delete;

  /* Locks the areas from `first` up to `end` all at once, within a second. Holds none of them while
   * it pauses: a program that holds a record of one area may wait for one of another. */
  bool hold(int first, int end) {
    const long long start = milliseconds();
    while (true) {
      int n = first;
      while (n < end && lock(n, F_RDLCK)) ++n;
      if (n == end) return true;
      error_ = errno == EACCES && files_[n] >= 0 ? EAGAIN : errno;
      missing_ = n;
      release(first, n);
      if (error_ != EAGAIN || milliseconds() - start >= kLongest) return false;
      nanosleep(&kPause, nullptr);
    }
  }
  void release(int first, int end) {
    for (int n = first; n < end; ++n) lock(n, F_UNLCK);
  }
  /* Prints why the last hold did not succeed. */
  void format_failure(Text* to) const {
    const Area& area = kAreas[missing_];
    if (error_ == EAGAIN)
      to->print("records of area %s were locked for a second", area.name);
    else
      to->print("%s: %s", lock_path(area).text, strerror(error_));
  }

 private:
  static constexpr int kNotCopied = INT_MIN;

  bool lock(int n, short type) {
    if (files_[n] == kNotCopied) return true;
    if (files_[n] < 0) {
      errno = -files_[n];
      return false;
    }
    return sc_lock_reg(files_[n], F_SETLK, type, first_byte(n), SEEK_SET, 0) == 0;
  }
  /* The lowest byte that guards a record; 0 means all bytes behind it, too. */
  static off_t first_byte(int n) {
    uint32_t first = 2;
    for (const Table& table : kTables) {
      if (table.area == n && table.lock_at < 0) first = lock_index_of(table, 0);
    }
    return static_cast<off_t>(first);
  }

  int files_[kAreaCount]; /* or minus the errno of a file that could not be opened */
  int missing_ = 0;
  int error_ = 0;
};

/* Copies of areas. */
struct Images {
  Buffer bytes[kAreaCount];
  bool any = false;
  bool one_moment = true;
  Text why_not; /* one moment */

  void copy(Source& live, int n) {
    uint8_t* to = bytes[n].data();
    if (to != nullptr) copy_pages(to, live.block(static_cast<AreaId>(n)), kAreas[n].row().size);
  }
  /* Copies an area whose records are not locked, until two copies are equal, but not for ever. */
  void copy_until_equal(Source& live, int n) {
    const long long start = milliseconds();
    uint8_t* to = bytes[n].data();
    if (to == nullptr) return;
    while (copy_pages(to, live.block(static_cast<AreaId>(n)), kAreas[n].row().size) &&
           milliseconds() - start < kLongest) {
    }
  }
  /* Copies all areas. */
  void take(Source& live);
};

void Images::take(Source& live) {
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    if (!can_be_saved(area) || live.block(id) == nullptr) continue;
    Buffer room(area.row().size);
    room.swap(bytes[id]);
    any = true;
  }
  RecordLocks locks(live);
  one_moment = locks.hold(0, kAreaCount);
  if (one_moment) {
    for (int n = 0; n < kAreaCount; ++n) copy(live, n);
    return;
  }
  locks.format_failure(&why_not);
  const char* before = "; without locks: ";
  for (int n = 0; n < kAreaCount; ++n) {
    if (locks.hold(n, n + 1)) {
      copy(live, n);
      locks.release(n, n + 1);
    } else {
      copy_until_equal(live, n);
      why_not.print("%s%s", before, kAreas[n].name);
      before = " ";
    }
  }
}

/* ---- the folder ---- */

/* Removes a folder of files. */
bool remove_folder(int parent, const char* name) {
  const int folder = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
  DIR* entries = folder >= 0 ? fdopendir(folder) : nullptr;
  if (entries == nullptr) return false;
  while (const dirent* entry = readdir(entries)) unlinkat(folder, entry->d_name, 0);
  closedir(entries);
  return unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

/* The folder of all checkpoints, while nobody else makes or deletes one. */
class Store {
 public:
  Store() = default;
  ~Store() {
    if (folder_ >= 0) close(folder_);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /* Opens it and removes what a killed command left. */
  int open() {
    if (mkdir(kCheckpoints, 0700) != 0 && errno != EEXIST) return fail_folder();
    folder_ = ::open(kCheckpoints, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder_ < 0) return fail_folder();
    if (flock(folder_, LOCK_EX | LOCK_NB) != 0) {
      return fail(kRefused, "%s: another checkpoint is being made or deleted", kCheckpoints);
    }
    dirent** names;
    const int count = scandir(kCheckpoints, &names, nullptr, nullptr);
    for (int n = 0; n < count; ++n) {
      const char* name = names[n]->d_name;
      if (name[0] == '.' && name[strspn(name, ".")] != '\0') remove_folder(folder_, name);
      free(names[n]);
    }
    if (count >= 0) free(names);
    return kOk;
  }
  int folder() const { return folder_; }
  static int fail_folder() { return fail(kNoArea, "%s: %s", kCheckpoints, strerror(errno)); }

 private:
  int folder_ = -1;
};

/* The name of a folder that is not or no longer a checkpoint. */
struct HiddenName {
  HiddenName(const char* name, const char* end) { snprintf(text, sizeof text, ".%s%s", name, end); }
  char text[40];
};

/* How many bytes are missing from those that have to stay free. ramfs knows no sizes. */
uint64_t missing_room(int folder) {
  struct statvfs room;
  if (fstatvfs(folder, &room) != 0 || room.f_blocks == 0) return 0;
  const uint64_t free = static_cast<uint64_t>(room.f_bavail) * room.f_frsize;
  return free < kKeptFree ? kKeptFree - free : 0;
}

/* ---- writing ---- */

bool write_all(int file, const void* bytes, size_t size) {
  const auto* at = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t done = write(file, at, size);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    at += done;
    size -= static_cast<size_t>(done);
  }
  return true;
}

/* A checkpoint that is being made. It is removed unless it was renamed. */
class NewCheckpoint {
 public:
  NewCheckpoint(int store, const char* name) : store_(store), name_(name), hidden_(name, ".new") {}
  ~NewCheckpoint() {
    if (made_) remove_folder(store_, hidden_.text);
    if (folder_ >= 0) close(folder_);
    signal(SIGPIPE, on_hang_up_);
  }
  NewCheckpoint(const NewCheckpoint&) = delete;
  NewCheckpoint& operator=(const NewCheckpoint&) = delete;

  int begin() {
    if (const uint64_t missing = missing_room(store_); missing > 0) return fail_room(missing, true);
    if (mkdirat(store_, hidden_.text, 0700) != 0) return fail_file(kCheckpoints);
    made_ = true;
    folder_ = openat(store_, hidden_.text, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return folder_ >= 0 ? kOk : fail_file(hidden_.text);
  }
  int write(const Images& images) {
    if (const int status = write_files(images); status != kOk) return status;
    if (fsync(folder_) != 0) return fail_file(hidden_.text);
    if (const uint64_t missing = missing_room(store_); missing > 0)
      return fail_room(missing, false);
    if (renameat(store_, hidden_.text, store_, name_) != 0) return fail_file(name_);
    made_ = false;
    if (fsync(store_) == 0 && syncfs(store_) == 0) return kOk;
    return fail(kRefused, "checkpoint %s is perhaps not on flash: %s", name_, strerror(errno));
  }

 private:
  int write_files(const Images& images) {
    char now[24];
    const time_t seconds = time(nullptr);
    tm parts;
    strftime(now, sizeof now, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&seconds, &parts));
    Text who, manifest;
    const passwd* user = getpwuid(getuid());
    if (user != nullptr)
      who.print("%.40s", user->pw_name);
    else
      who.print("uid %u", getuid());
    manifest.print(kManifestStart, now, who.c_str(), images.one_moment ? kOneMoment : kOneByOne);
    for (const Area& area : kAreas) {
      const uint8_t* image = images.bytes[id_of(area)].data();
      if (image == nullptr) continue;
      if (const int status = pack(area, image); status != kOk) return status;
      manifest.print(kManifestArea, area.row().stem, size_t{area.row().size},
                     sum_of(image, area.row().size));
    }
    manifest.print(kManifestEnd, sum_of(manifest.c_str(), manifest.size()));
    const Descriptor file(create(kManifest));
    return file.number >= 0 && write_all(file.number, manifest.c_str(), manifest.size()) &&
                   fsync(file.number) == 0
               ? kOk
               : fail_file(kManifest);
  }

  int pack(const Area& area, const uint8_t* image) {
    const ImageName name = image_name(area);
    const Descriptor file(create(name.text));
    Gzip gzip;
    if (file.number < 0 || !gzip.start(file.number, Gzip::kPacks)) return fail_file(name.text);
    const bool written = write_all(gzip.stream, image, area.row().size);
    int status;
    if (!gzip.end(&status) || status != 0 || !written) return fail_file(name.text, "gzip failed");
    return fsync(file.number) == 0 ? kOk : fail_file(name.text);
  }

  int create(const char* name) {
    return openat(folder_, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  }

  int fail_file(const char* file) { return fail_file(file, strerror(errno)); }
  /* A disk that is full is the usual reason. */
  int fail_file(const char* file, const char* why) {
    if (const uint64_t missing = missing_room(store_); missing > 0) return fail_room(missing, true);
    return fail(kNoArea, "checkpoint %s is not made: %s: %s", name_, file, why);
  }
  int fail_room(uint64_t missing, bool at_least) {
    return fail(kRefused, "checkpoint %s is not made: %s%llu bytes are missing: 64 KiB stay free",
                name_, at_least ? "at least " : "", static_cast<unsigned long long>(missing));
  }

  int store_;
  int folder_ = -1;
  bool made_ = false;
  const char* name_;
  HiddenName hidden_;
  /* A gzip that ends early does not end this program. */
  void (*on_hang_up_)(int) = signal(SIGPIPE, SIG_IGN);
};

int delete_checkpoint(const char* name) {
  if (const int status = need_checkpoint(name); status != kOk) return status;
  Store store;
  if (const int status = store.open(); status != kOk) return status;
  const HiddenName hidden(name, ".old");
  if (renameat(store.folder(), name, store.folder(), hidden.text) == 0 &&
      fsync(store.folder()) == 0 && remove_folder(store.folder(), hidden.text)) {
    return kOk;
  }
  return fail(kNoArea, "checkpoint %s: %s", name, strerror(errno));
}

}  // namespace

int run_checkpoint(Call& call) {
  const char* name = call.words[0];
  if (call.has(kDelete)) return delete_checkpoint(name);
  if (!is_checkpoint_name(name)) {
    return fail(kRefused,
                "'%s': a checkpoint's name has 1 to 31 of A-Z a-z 0-9 . _ - and no dot in front",
                name);
  }
  Store store;
  if (const int status = store.open(); status != kOk) return status;
  if (faccessat(store.folder(), name, F_OK, 0) == 0) {
    return fail(kRefused, "checkpoint %s exists; scctl checkpoint --delete %s removes it", name,
                name);
  }
  NewCheckpoint checkpoint(store.folder(), name);
  if (const int status = checkpoint.begin(); status != kOk) return status;
  Images images;
  images.take(call.source);
  if (!images.any) return fail_without_areas();
  if (const int status = checkpoint.write(images); status != kOk || images.one_moment) {
    return status;
  }
  return fail(kOk, "checkpoint %s is copied area by area, not in one moment: %s", name,
              images.why_not.c_str());
}

/* ---- list ---- */

namespace {

bool differs(const Snapshot& one, const Snapshot& other, uint32_t position) {
  if (one.used(position) != other.used(position)) return true;
  if (!one.used(position)) return false;
  for (const Field& field : one.table()) {
    if (!equal(field, one.record(position), other.record(position))) return true;
  }
  return false;
}

unsigned long count_differences(Source& one, Source& other) {
  unsigned long count = 0;
  for (const Table& table : kTables) {
    if (!can_be_saved(kAreas[table.area])) continue;
    Snapshot in_one(table), in_other(table);
    in_one.take(one);
    in_other.take(other);
    for (uint32_t n = 0; n < table.capacity; ++n) count += differs(in_one, in_other, n);
  }
  return count;
}

void list_checkpoint(const char* name, Source& live, Listing* listing) {
  Checkpoint checkpoint;
  const bool good = checkpoint.read(name);
  const auto add = [listing](const char* text) {
    if (text[0] != '\0')
      listing->add(text);
    else
      listing->add("null", "-");
  };
  listing->add(name);
  add(checkpoint.time);
  listing->add(checkpoint.size);
  add(checkpoint.who);
  if (good) {
    Source source;
    source.take_checkpoint(&checkpoint);
    listing->add(count_differences(source, live));
  } else {
    listing->add("null", "-");
  }
  listing->add(good ? checkpoint.copied : checkpoint.fault);
}

}  // namespace

int run_checkpoints(Call& call) {
  static constexpr Column kColumns[] = {{"name", "name", -16},   {"time", "time", -20},
                                        {"bytes", "bytes", 7},   {"who", "who", -8},
                                        {"differ", "differ", 6}, {"state", "state", 0}};
  dirent** names = nullptr;
  const int count = scandir(kCheckpoints, &names, nullptr, alphasort);
  if (count < 0 && errno != ENOENT) return Store::fail_folder();
  Listing listing(call.has(kJson), kColumns);
  for (int n = 0; n < count; ++n) {
    if (is_checkpoint_name(names[n]->d_name)) {
      list_checkpoint(names[n]->d_name, call.source, &listing);
    }
    free(names[n]);
  }
  free(names);
  listing.end();
  return kOk;
}

/* ---- rollback ---- */

namespace {

/* Reads what the tables of the named areas held, or of all areas in the checkpoint. */
int read_wanted(const Call& call, Snapshot* wanted) {
  bool chosen[kAreaCount] = {};
  for (int n = 1; n < call.word_count; ++n) {
    AreaId id = kAreaCount;
    if (const int status = parse_area(call.words[n], &id); status != kOk) return status;
    chosen[id] = true;
  }
  Text name;
  name.print("checkpoint:%s", call.words[0]);
  Source source;
  if (const int status = source.open_named(name.c_str()); status != kOk) return status;
  for (int n = 0; n < kAreaCount; ++n) {
    const auto id = static_cast<AreaId>(n);
    if (call.word_count == 1) {
      chosen[n] = source.block(id) != nullptr;
    } else if (chosen[n]) {
      if (const int status = source.need(id); status != kOk) return status;
    }
  }
  for (int n = 0; n < kTableCount; ++n) {
    if (!chosen[kTables[n].area]) continue;
    Snapshot taken(kTables[n]);
    taken.take(source);
    taken.swap(wanted[n]);
  }
  return kOk;
}

}  // namespace

int run_rollback(Call& call) {
  Snapshot wanted[kTableCount];
  if (const int status = read_wanted(call, wanted); status != kOk) return status;
  return replace_tables(call, wanted);
}

}  // namespace scctl
