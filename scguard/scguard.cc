/* The guard of the flash archives. It keeps a last good copy of an area's archive beside it. At
 * boot, before the areas are created, it restores the copy if the archive is missing or broken. A
 * good archive always has a copy before anything can overwrite it: the copy is made after a save,
 * or at boot.
 *
 * Every step obeys two rules. A file that matters is only replaced as a whole, by renaming a copy
 * that is already on the flash. So a power cut at any point leaves the old file or the new one. And
 * a verdict counts only if the whole file was read: if a file cannot be judged, nothing is changed.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/registry.h"
#include "store/archive.h"
#include "store/streams.h"

namespace {

using sc::AreaRow;
using store::State;

constexpr char kFolder[] = "/var/dataconfig";

/* The names that scctl prints, in the order of the registry. */
constexpr const char* kNames[sc::kAreaCount] = {"Lan",           "Wan",
                                                "ProductInfo",   "Misc",
                                                "VsIpport",      "FwIpport",
                                                "IpGroup",       "TimeGroup",
                                                "FwMac",         "FwUrl",
                                                "Qos",           "ManageApList",
                                                "ApUserList",    "ApTemplateList",
                                                "DefApTemplate", "Clients_Groups",
                                                "Clients"};

/* The boot script sends these messages to the system's log. */
// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks what is printed
__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
  char text[256];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof text, format, values);  // NOLINT(clang-analyzer-valist.Uninitialized)
  va_end(values);
  dprintf(STDERR_FILENO, "scguard: %s\n", text);
}

/* A descriptor that is closed at the end of its scope. */
struct Descriptor {
  int number = -1;

  Descriptor() = default;
  explicit Descriptor(int opened) : number(opened) {}
  ~Descriptor() {
    if (number >= 0) close(number);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
};

/* ---- an area's files ---- */

/* The names of an area's files: its archive (bin), the last good copy (good), a new file that will
 * replace one of them (new), and a broken archive without a good copy (bad). */
struct Name {
  char text[32];

  Name(const AreaRow& area, const char* ending) {
    snprintf(text, sizeof text, "config_%s.%s", area.stem, ending);
  }
};

/* The archive or the copy: its verdict, and the descriptor that was judged. */
struct File {
  Name name;
  store::Archive archive;
  int descriptor;

  File(const AreaRow& area, const char* ending, int folder)
      : name(area, ending),
        descriptor(store::open_archive(folder, name.text, O_NOFOLLOW, &archive)) {
    if (descriptor >= 0) store::judge(descriptor, &area, &archive);
  }
  ~File() {
    if (descriptor >= 0) close(descriptor);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool is(State state) const { return archive.state == state; }
};

struct Files {
  const AreaRow& area;
  int folder;
  Name fresh, bad;
  File bin, good;

  Files(const AreaRow& of, int in)
      : area(of),
        folder(in),
        fresh(of, "new"),
        bad(of, "bad"),
        bin(of, "bin", in),
        good(of, "good", in) {}

  bool are_known() const {
    const bool bin_is_known = is_known(bin), good_is_known = is_known(good);
    return bin_is_known && good_is_known;
  }

 private:
  static bool is_known(const File& file) {
    if (!file.is(State::kUnknown)) return true;
    say("%s/%s: %s; nothing is changed", kFolder, file.name.text, file.archive.reason);
    return false;
  }
};

/* ---- replacing files ---- */

bool copy_bytes(int from, int to) {
  char bytes[4096];
  off_t at = 0;
  ssize_t got;
  while ((got = pread(from, bytes, sizeof bytes, at)) > 0) {
    at += got;
    for (ssize_t done = 0; done < got;) {
      const ssize_t written = write(to, bytes + done, static_cast<size_t>(got - done));
      if (written < 0) return false;
      done += written;
    }
  }
  return got == 0;
}

/* Flushes a file, or the names of a folder. fsync alone does not flush the caches of every file
 * system and driver. */
bool reaches_flash(int file) { return fsync(file) == 0 && syncfs(file) == 0; }

/* Gives the new file the bytes, owner and mode of the other. */
bool fill(int fresh, int from) {
  struct stat status;
  return copy_bytes(from, fresh) && fstat(from, &status) == 0 &&
         fchown(fresh, status.st_uid, status.st_gid) == 0 &&
         fchmod(fresh, status.st_mode & 07777) == 0;
}

/* Replaces the file of that name by a copy of a judged one, or does not change it. errno tells why
 * not. */
bool replace(const Files& files, const Name& name, const File& by) {
  unlinkat(files.folder, files.fresh.text, 0);
  const Descriptor fresh(openat(files.folder, files.fresh.text,
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (fresh.number < 0) return false;
  if (fill(fresh.number, by.descriptor) && reaches_flash(fresh.number) &&
      renameat(files.folder, files.fresh.text, files.folder, name.text) == 0) {
    return true;
  }
  const int why = errno;
  unlinkat(files.folder, files.fresh.text, 0);
  errno = why;
  return false;
}

/* Follows each rename: until the folder is flushed, a power cut can undo the rename. */
bool settle(const Files& files, const Name& name) {
  if (reaches_flash(files.folder)) return true;
  say("%s/%s is replaced but may not be on the flash: %s", kFolder, name.text, strerror(errno));
  return false;
}

/* ---- commands ---- */

/* Makes the copy equal to a good archive. The bytes of an archive depend on the time of the save,
 * so the images are compared. */
bool bring_copy_up_to_date(const Files& files) {
  if (files.good.is(State::kGood) &&
      memcmp(files.bin.archive.image, files.good.archive.image, files.area.size) == 0) {
    return true;
  }
  if (replace(files, files.good.name, files.bin)) return settle(files, files.good.name);
  say("%s/%s is not kept: %s", kFolder, files.bin.name.text, strerror(errno));
  return false;
}

bool keep(const AreaRow& area, int folder) {
  const Files files(area, folder);
  if (!files.are_known()) return false;
  if (files.bin.is(State::kGood)) return bring_copy_up_to_date(files);
  say("%s/%s is not kept: %s", kFolder, files.bin.name.text, files.bin.archive.reason);
  return false;
}

bool put_back(const Files& files) {
  const bool back = replace(files, files.bin.name, files.good);
  say("%s/%s: %s; the last good copy %s%s", kFolder, files.bin.name.text, files.bin.archive.reason,
      back ? "is back" : "cannot be put back: ", back ? "" : strerror(errno));
  return back && settle(files, files.bin.name);
}

/* Init must not find a broken archive: it would load it as far as it can. */
void set_aside(const Files& files) {
  const char* name = files.bin.name.text;
  const bool aside = renameat(files.folder, name, files.folder, files.bad.text) == 0;
  say("%s/%s: %s; there is no good copy, it %s", kFolder, name, files.bin.archive.reason,
      aside ? "is set aside as .bad" : "stays");
  if (aside) settle(files, files.bad);
}

/* After a power cut between a save and its keep, a good archive is newer than its copy. So the copy
 * is made now: the next save overwrites the archive, and a power cut during that save would bring
 * the old copy back. */
bool restore(const AreaRow& area, int folder) {
  const Files files(area, folder);
  if (!files.are_known()) return false;
  unlinkat(folder, files.fresh.text, 0);
  if (files.bin.is(State::kGood)) return bring_copy_up_to_date(files);
  if (files.good.is(State::kGood)) return put_back(files);
  const bool has_copy = files.good.is(State::kBroken);
  if (has_copy) say("%s/%s: %s", kFolder, files.good.name.text, files.good.archive.reason);
  if (files.bin.is(State::kMissing)) return !has_copy;
  set_aside(files);
  return false;
}

/* ---- one at a time ---- */

/* Holds the area's block lock, under which archives are written, until the end of its scope. */
class BlockLock {
 public:
  BlockLock(const AreaRow& area, bool is_needed) {
    char path[64];
    snprintf(path, sizeof path, sc::kLockPath, area.lock_stem);
    file_.number = open(path, O_RDWR | O_CLOEXEC | O_NONBLOCK);
    /* At boot, before Init, the lock file and its folder do not exist, and no program saves. */
    held_ = file_.number < 0 ? errno == ENOENT && !is_needed : take();
    if (!held_) say("%s cannot be locked: %s", path, strerror(errno));
  }
  explicit operator bool() const { return held_; }

 private:
  bool take() const {
    struct flock byte;
    byte.l_type = F_WRLCK;
    byte.l_whence = SEEK_SET;
    byte.l_start = 1;
    byte.l_len = 1;
    return fcntl(file_.number, F_SETLKW, &byte) == 0;
  }

  Descriptor file_;
  bool held_;
};

/* Runs a command on an area without interference. The block lock excludes saves. A lock of the
 * folder excludes other guards, which may run without the block lock. */
bool run(bool (*command)(const AreaRow& area, int folder), const AreaRow& area) {
  const BlockLock lock(area, command == keep);
  if (!lock) return false;
  const Descriptor folder(open(kFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.number < 0 || flock(folder.number, LOCK_EX) != 0) {
    if (errno == ENOENT && command == restore) return true; /* nothing was saved yet */
    say("%s: %s", kFolder, strerror(errno));
    return false;
  }
  return command(area, folder.number);
}

/* ---- words ---- */

bool print_usage(int to) {
  dprintf(to,
          "usage: scguard keep AREA       after a save: keep a copy of the area's archive\n"
          "       scguard restore [AREA]  at boot, before Init: put good copies back or "
          "renew them\n"
          "areas:");
  for (const AreaRow& area : sc::kAreas) {
    if (area.stem[0] != '\0') dprintf(to, " %s", area.stem);
  }
  return dprintf(to, "\n") > 0;
}

/* Finds an area by the stem of its files or by its name. */
const AreaRow* named(const char* word) {
  for (const AreaRow& area : sc::kAreas) {
    const bool is_saved = area.stem[0] != '\0';
    if (is_saved &&
        (strcmp(area.stem, word) == 0 || strcmp(kNames[&area - sc::kAreas], word) == 0)) {
      return &area;
    }
  }
  say("unknown area '%s'", word);
  print_usage(STDERR_FILENO);
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  store::open_standard_streams();
  if (argc == 2 && strcmp(argv[1], "--help") == 0) return print_usage(STDOUT_FILENO) ? 0 : 1;
  const bool keeping = argc == 3 && strcmp(argv[1], "keep") == 0;
  const bool restoring = (argc == 2 || argc == 3) && strcmp(argv[1], "restore") == 0;
  if (!keeping && !restoring) {
    print_usage(STDERR_FILENO);
    return 2;
  }
  const AreaRow* only = nullptr;
  if (argc == 3 && (only = named(argv[2])) == nullptr) return 2;
  bool good = true;
  for (const AreaRow& area : sc::kAreas) {
    const bool chosen = area.stem[0] != '\0' && (only == nullptr || only == &area);
    if (chosen && !run(keeping ? keep : restore, area)) good = false;
  }
  return good ? 0 : 1;
}
