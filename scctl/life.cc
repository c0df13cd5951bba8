/* Commands for whole areas: init, save, restore, remove, notify, lease. */
#include <errno.h>
#include <paths.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "commands.h"
#include "state.h"

namespace scctl {

namespace {

constexpr char kLockFolder[] = "/var/lock_store";

/* Calls `act` for each area of the words and stops at the first failure. With --all, areas that are
 * never saved are skipped. */
int for_areas(Call& call, bool saved_alone, int (*act)(Call& call, AreaId id)) {
  bool chosen[kAreaCount];
  if (const int status = parse_areas(call, false, chosen); status != kOk) return status;
  for (int n = 0; n < kAreaCount; ++n) {
    if (!chosen[n]) continue;
    if (saved_alone && kAreas[n].save == nullptr) {
      if (call.has(kAll)) continue;
      return fail(kRefused, "area %s is never saved, restored or announced", kAreas[n].name);
    }
    if (const int status = act(call, static_cast<AreaId>(n)); status != kOk) return status;
  }
  return kOk;
}

constexpr char kNoRegularFile[] = "not a regular file";

bool is_regular(const Path& path) {
  struct stat found;
  return stat(path.text, &found) == 0 && S_ISREG(found.st_mode);
}

}  // namespace

namespace {

/* Whole areas are changed without a journal of their records. */
void set_not_undoable() {
  if (g_journal != nullptr) g_journal->set_not_undoable();
}

}  // namespace

int init_area(Call&, AreaId id) {
  const Area& area = kAreas[id];
  const Path archive = archive_path(area);
  if (access(archive.text, F_OK) == 0 && !is_regular(archive)) {
    return fail(kNoArea, "area %s cannot be created: %s: %s", area.name, archive.text,
                kNoRegularFile);
  }
  const Path lock = lock_path(area);
  /* The library empties the area first, and does not report a missing lock file. */
  const char* needed = access(lock.text, F_OK) == 0 ? lock.text : kLockFolder;
  if (access(needed, R_OK | W_OK) != 0) {
    return fail(kNoArea, "area %s cannot be created: %s: %s", area.name, needed, strerror(errno));
  }
  Source::forget_live(id);
  set_not_undoable();
  int result;
  {
    Quiet quiet;
    result = area.init();
  }
  if (result != 0) {
    return fail(kNoArea, "area %s cannot be created: %s", area.name,
                result < 0 ? "it cannot be attached" : strerror(result));
  }
  if (access(lock.text, R_OK | W_OK) != 0) {
    return fail(kNoArea, "area %s has no lock file: %s: %s", area.name, lock.text, strerror(errno));
  }
  return kOk;
}

namespace {

/* Prints why an area was not saved or loaded. */
int fail_archive(const Area& area, const char* is_not, const char* fault) {
  return fail(kRefused, "area %s %s: %s: %s", area.name, is_not, archive_path(area).text, fault);
}

/* The library does not report success, so area and archive are compared: they have to be equal
 * now. */
int compare(Call& call, AreaId id, const char* done, ArchiveImage* image) {
  const Area& area = kAreas[id];
  const bool same = memcmp(call.source.block(id), image->bytes, area.row().size) == 0;
  free(image->bytes);
  if (same) return kOk;
  return fail(kRefused, "area %s is not %s, or was changed meanwhile: it differs from %s",
              area.name, done, archive_path(area).text);
}

}  // namespace

namespace {

/* Uses access, because opening a pipe would wait for a reader. */
int need_writable(const Area& area, const Path& path) {
  if (access(path.text, W_OK) == 0) return kOk;
  return fail(kNoArea, "area %s is not saved: %s: %s", area.name, path.text, strerror(errno));
}

bool is_in_path(const char* program) {
  const char* path = getenv("PATH");
  for (const char* at = path != nullptr ? path : _PATH_STDPATH;; ++at) {
    const size_t size = strcspn(at, ":");
    Text file;
    file.add(at, size);
    file.print("/%s", program);
    if (access(file.c_str(), X_OK) == 0) return true;
    at += size;
    if (*at == '\0') return false;
  }
}

/* Checks what a save needs before it overwrites the archive of before. */
int need_means(const Area& area, const Path& image) {
  static constexpr const char* kPrograms[] = {"tar", "gzip"};
  for (const char* program : kPrograms) {
    if (is_in_path(program)) continue;
    return fail(kNoArea, "area %s is not saved: %s is not in PATH", area.name, program);
  }
  char folder[sizeof image.text];
  const auto size = static_cast<size_t>(strrchr(image.text, '/') - image.text);
  snprintf(folder, sizeof folder, "%.*s", static_cast<int>(size), image.text);
  struct statvfs room;
  /* A missing folder is said by whoever needs it; ramfs knows no sizes. */
  if (statvfs(folder, &room) != 0 || room.f_blocks == 0) return kOk;
  if (static_cast<uint64_t>(room.f_bavail) * room.f_frsize >= area.row().size) return kOk;
  return fail(kNoArea, "area %s is not saved: %s: %s", area.name, folder, strerror(ENOSPC));
}

/* Checks the files that a save writes. The library does not report that it could not write them,
 * and the previous archive may be equal. A pipe in place of a file would block the library, with
 * the area's lock held, for ever. */
int need_writable_files(const Area& area) {
  if (const int status = need_writable(area, lock_path(area)); status != kOk) return status;
  Path image;
  snprintf(image.text, sizeof image.text, sc::kImagePath, area.row().stem);
  if (const int status = need_means(area, image); status != kOk) return status;
  Path written[] = {image, archive_path(area)};
  for (Path& path : written) {
    if (is_regular(path) && access(path.text, W_OK) == 0) continue;
    /* A file that does not exist is created in its folder. Another save may just have removed its image. */
    if (access(path.text, F_OK) != 0) {
      *strrchr(path.text, '/') = '\0';
    } else if (!is_regular(path)) {
      return fail(kNoArea, "area %s is not saved: %s: %s", area.name, path.text, kNoRegularFile);
    }
    if (const int status = need_writable(area, path); status != kOk) return status;
  }
  return kOk;
}

}  // namespace

int save_area(Call& call, AreaId id) {
  if (const int status = call.source.need(id); status != kOk) return status;
  const Area& area = kAreas[id];
  if (const int status = need_writable_files(area); status != kOk) return status;
  {
    Quiet quiet;
    area.save(call.source.block(id));
  }
  ArchiveImage image;
  if (const char* fault = read_own_archive(area, &image)) {
    const bool known = image.verdict.state != store::State::kUnknown;
    return fail_archive(area, known ? "is not saved" : "is perhaps not saved", fault);
  }
  const int status = compare(call, id, "saved", &image);
  uint32_t* counts = g_file == nullptr ? saves(true) : nullptr;
  if (status == kOk && counts != nullptr) __atomic_fetch_add(counts + id, 1, __ATOMIC_RELAXED);
  return status;
}

namespace {

/* The library would load a broken archive as far as it can. */
int load_archive(Call& call, AreaId id, bool* loaded) {
  const Area& area = kAreas[id];
  const NoSaves no_saves(area);
  if (!no_saves) return fail_archive(area, "is not restored", "another program holds the area");
  ArchiveImage image;
  if (const char* fault = read_own_archive(area, &image)) {
    return fail_archive(area, "is not restored", fault);
  }
  {
    set_not_undoable();
    Quiet quiet;
    area.read(call.source.block(id));
  }
  *loaded = true;
  return compare(call, id, "restored", &image);
}

int restore_area(Call& call, AreaId id) {
  if (const int status = call.source.need(id); status != kOk) return status;
  bool loaded = false;
  const int status = load_archive(call, id, &loaded);
  if (loaded) {
    Quiet quiet;
    kAreas[id].notify();
  }
  return status;
}

/* The library loads an archive as far as it can, and does not report how far. */
int tell_loaded(Call& call, AreaId id) {
  if (const int status = call.source.need(id); status != kOk) return status;
  const Area& area = kAreas[id];
  ArchiveImage image;
  const char* fault = read_own_archive(area, &image);
  if (fault == nullptr) return compare(call, id, "loaded", &image);
  if (image.verdict.state == store::State::kMissing) return kOk;
  return fail_archive(area, "is made, perhaps without what was saved", fault);
}

int remove_area(Call& call, AreaId id) {
  const Area& area = kAreas[id];
  /* Without this check, Uninit would create a segment that does not exist. */
  if (shmget(area.row().key, 0, 0) < 0) {
    return call.has(kAll) && errno == ENOENT
               ? kOk
               : fail(kNoArea, "area %s: %s", area.name, strerror(errno));
  }
  Source::forget_live(id);
  set_not_undoable();
  {
    Quiet quiet;
    area.remove();
  }
  if (shmget(area.row().key, 0, 0) < 0) return kOk;
  if (shmget(area.row().key, area.row().size, 0) >= 0 || errno != EINVAL) {
    return fail(kNoArea, "area %s is not removed: no permission", area.name);
  }
  return fail(kNoArea, "area %s is not removed: its segment is too small; ipcrm -M %d removes it",
              area.name, area.row().key);
}

/* The library reports a failure only by perror. */
int notify_area(Call&, AreaId id) {
  const Area& area = kAreas[id];
  int errors[2];
  if (pipe(errors) != 0) return fail(kRefused, "pipe: %s", strerror(errno));
  {
    Quiet quiet(errors[1]);
    area.notify();
  }
  close(errors[1]);
  char said[128];
  ssize_t size = read(errors[0], said, sizeof said);
  close(errors[0]);
  if (size <= 0) return kOk;
  while (size > 0 && said[size - 1] == '\n') --size;
  return fail(kRefused, "area %s is not announced: /var/config_socket: %.*s", area.name,
              static_cast<int>(size), said);
}

}  // namespace

int run_init(Call& call) {
  if (const int status = for_areas(call, false, init_area); status != kOk) return status;
  bool chosen[kAreaCount];
  parse_areas(call, false, chosen);
  int worst = kOk;
  for (int n = 0; n < kAreaCount; ++n) {
    if (!chosen[n] || kAreas[n].save == nullptr) continue;
    if (const int status = tell_loaded(call, static_cast<AreaId>(n)); status != kOk) worst = status;
  }
  return worst;
}

namespace {

/* Archives of one save. */
struct {
  unsigned written, equal;
} g_archives;

int save_changed(Call& call, AreaId id) {
  if (const int status = call.source.need(id); status != kOk) return status;
  ArchiveImage image;
  const bool is_equal = read_own_archive(kAreas[id], &image) == nullptr &&
                        memcmp(call.source.block(id), image.bytes, kAreas[id].row().size) == 0;
  free(image.bytes);
  if (is_equal) {
    ++g_archives.equal;
    return kOk;
  }
  const int status = save_area(call, id);
  if (status == kOk) ++g_archives.written;
  return status;
}

}  // namespace

int run_save(Call& call) {
  if (!call.has(kChanged)) return for_areas(call, true, save_area);
  g_archives = {};
  const int status = for_areas(call, true, save_changed);
  tell("archives written: %u, equal: %u%s", g_archives.written, g_archives.equal,
       status == kOk ? "" : failure_note());
  return status;
}
int run_restore(Call& call) { return for_areas(call, true, restore_area); }
int run_remove(Call& call) { return for_areas(call, false, remove_area); }
int run_notify(Call& call) { return for_areas(call, true, notify_area); }

int run_lease(Call& call) {
  struct Copy {
    const char* direction;
    const char* whose;
    int (*run)();
  };
  static constexpr Copy kCopies[] = {
      {"save", "clients", SC_Save_Dhcp_Clients},
      {"save", "aps", SC_Save_Dhcp_Ap},
      {"restore", "clients", SC_Restore_Dhcp_Clients},
      {"restore", "aps", SC_Restore_Dhcp_Ap},
  };
  const char* whose = call.word_count == 2 ? call.words[1] : nullptr;
  bool any = false;
  for (const Copy& copy : kCopies) {
    if (strcmp(copy.direction, call.words[0]) != 0) continue;
    if (whose != nullptr && strcmp(copy.whose, whose) != 0) continue;
    any = true;
    int result;
    {
      Quiet quiet;
      result = copy.run();
    }
    if (result != 0) {
      return fail(kRefused, "the lease file of the %s is not copied (status %d)", copy.whose,
                  result >> 8);
    }
  }
  return any ? kOk : fail(kUsage, "usage: scctl lease save|restore [clients|aps]");
}

}  // namespace scctl
