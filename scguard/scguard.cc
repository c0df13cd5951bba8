/* The guard of the flash archives. It keeps a last good copy of an area's archive beside it. At
 * boot, before the areas are created, it restores the copy if the archive is missing or broken, or
 * if the archive may hold a change that nobody confirmed. A good archive always has a copy before
 * anything can overwrite it: the copy is made after a save, or at boot.
 *
 * store/kept.h has the rules by which files are changed.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/registry.h"
#include "store/kept.h"
#include "store/streams.h"

namespace {

using sc::AreaRow;
using store::ArchiveFolder;
using store::AreaFile;
using store::AreaFileName;
using store::AreaFiles;
using store::Marker;
using store::MarkerState;
using store::State;

constexpr char kIsNotKept[] = " is not kept: ";
constexpr char kNothingIsChanged[] = "; nothing is changed";
constexpr char kBrokenMarker[] = "not a whole marker of a try";
constexpr char kNotConfirmed[] = "nobody has confirmed its change";

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

bool is_saved(const AreaRow& area) { return area.stem[0] != '\0'; }

/* ---- messages ---- */

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

/* A message about a file of the folder. */
void say_of(const char* name, const char* what, const char* more = "", const char* end = "") {
  say("%s/%s%s%s%s", store::kArchiveFolder, name, what, more, end);
}
void say_of(const AreaFile& file, const char* what, const char* more = "", const char* end = "") {
  say_of(file.name.text, what, more, end);
}

/* ---- commands; the caller holds the area and the folder ---- */

bool is_known(const AreaFile& file) {
  if (!file.is(State::kUnknown)) return true;
  say_of(file, ": ", file.archive.reason, kNothingIsChanged);
  return false;
}

bool are_known(const AreaFiles& files) {
  const bool bin_is_known = is_known(files.bin), good_is_known = is_known(files.good);
  return bin_is_known && good_is_known;
}

/* Follows each rename: until the folder is flushed, a power cut can undo the rename. */
bool settle(const AreaFiles& files, const AreaFileName& name) {
  if (store::reaches_flash(files.folder)) return true;
  say_of(name.text, " is replaced but may not be on the flash: ", strerror(errno));
  return false;
}

bool bring_copy_up_to_date(const AreaFiles& files) {
  if (files.are_equal()) return true;
  if (files.replace(files.good, files.bin)) return settle(files, files.good.name);
  say_of(files.bin, kIsNotKept, strerror(errno));
  return false;
}

bool keep(const AreaFiles& files) {
  if (files.bin.is(State::kGood)) return bring_copy_up_to_date(files);
  say_of(files.bin, kIsNotKept, files.bin.archive.reason);
  return false;
}

bool put_back(const AreaFiles& files, const char* why) {
  const bool back = files.replace(files.bin, files.good);
  const char* what =
      back ? "; the last good copy is back" : "; the last good copy cannot be put back: ";
  say("%s/%s: %s%s%s", store::kArchiveFolder, files.bin.name.text, why, what,
      back ? "" : strerror(errno));
  return back && settle(files, files.bin.name);
}

/* Init must not find a broken archive: it would load it as far as it can. */
void set_aside(const AreaFiles& files) {
  const bool aside = renameat(files.folder, files.bin.name.text, files.folder, files.bad.text) == 0;
  say_of(files.bin, ": ", files.bin.archive.reason,
         aside ? "; there is no good copy, it is set aside as .bad"
               : "; there is no good copy, it stays");
  if (aside) settle(files, files.bad);
}

/* After a power cut between a save and its keep, a good archive is newer than its copy. So the copy
 * is made now: the next save overwrites the archive, and a power cut during that save would bring
 * the old copy back. */
bool restore(const AreaFiles& files) {
  unlinkat(files.folder, files.fresh.text, 0);
  if (files.bin.is(State::kGood)) return bring_copy_up_to_date(files);
  if (files.good.is(State::kGood)) return put_back(files, files.bin.archive.reason);
  const bool has_copy = files.good.is(State::kBroken);
  if (has_copy) say_of(files.good, ": ", files.good.archive.reason);
  if (files.bin.is(State::kMissing)) return !has_copy;
  set_aside(files);
  return false;
}

/* ---- one at a time ---- */

/* Holds the area's block lock, under which archives are written, until the end of its scope. */
class BlockLock {
 public:
  BlockLock() = default;
  ~BlockLock() {
    if (file_ >= 0) close(file_);
  }
  BlockLock(const BlockLock&) = delete;
  BlockLock& operator=(const BlockLock&) = delete;

  /* Waits with F_SETLKW in the kernel, with F_SETLK here. Who holds another lock waits here: the
   * kernel could answer another program's wait with EDEADLK. */
  bool take(const AreaRow& area, bool is_needed, int command) {
    char path[64];
    snprintf(path, sizeof path, sc::kLockPath, area.lock_stem);
    file_ = open(path, O_RDWR | O_CLOEXEC | O_NONBLOCK);
    /* At boot, before Init, the lock file and its folder do not exist, and no program saves. */
    const bool held = file_ < 0 ? errno == ENOENT && !is_needed : take_byte(command);
    if (!held) say("%s cannot be locked: %s", path, strerror(errno));
    return held;
  }

 private:
  bool take_byte(int command) const {
    constexpr useconds_t kPause = 10 * 1000;
    struct flock byte;
    byte.l_type = F_WRLCK;
    byte.l_whence = SEEK_SET;
    byte.l_start = 1;
    byte.l_len = 1;
    while (fcntl(file_, command, &byte) != 0) {
      if (errno != EAGAIN && errno != EACCES) return false;
      usleep(kPause);
    }
    return true;
  }

  int file_ = -1;
};

bool say_of_folder() {
  say("%s: %s", store::kArchiveFolder, strerror(errno));
  return false;
}

bool say_of_marker(const char* what, const char* more) {
  say_of(store::kMarkerName, ": ", what, more);
  return false;
}

/* Runs a command on an area without interference. The block lock excludes saves. A lock of the
 * folder excludes other guards, which may run without the block lock. The files of a marked area
 * stay as they are: its copy is the base of a try, and nobody has confirmed its archive. */
bool run(bool is_keep, const AreaRow& area) {
  BlockLock lock;
  if (!lock.take(area, is_keep, F_SETLKW)) return false;
  const ArchiveFolder folder;
  if (!folder && errno == ENOENT && !is_keep) return true; /* nothing was saved yet */
  if (!folder) return say_of_folder();
  Marker marker;
  const MarkerState state = store::read_marker(folder.descriptor(), &marker);
  if (state == MarkerState::kUnknown) return say_of_marker(strerror(errno), kNothingIsChanged);
  if (state == MarkerState::kBroken) return say_of_marker(kBrokenMarker, kNothingIsChanged);
  if (!is_keep) unlinkat(folder.descriptor(), store::kNewMarkerName, 0);
  if (!marker.has(area)) {
    const AreaFiles files(area, folder.descriptor());
    return are_known(files) && (is_keep ? keep(files) : restore(files));
  }
  if (is_keep) say_of(AreaFileName(area, "bin").text, kIsNotKept, kNotConfirmed);
  return true;
}

/* ---- a try that nobody confirmed ---- */

/* What `restore` has to do, and did. */
struct Work {
  uint32_t areas; /* to be looked at: bits by AreaId */
  bool good;
};

/* After its base is lost an area is restored as ever. Before its base is back the marker stays. */
enum class Base : uint8_t { kIsBack, kIsLost, kIsNotBack };

Base put_base_back(const AreaFiles& files, bool had_none) {
  if (!are_known(files)) return Base::kIsNotBack;
  unlinkat(files.folder, files.fresh.text, 0);
  if (had_none) {
    if (files.bin.is(State::kMissing)) return Base::kIsBack;
    const bool gone = unlinkat(files.folder, files.bin.name.text, 0) == 0;
    say_of(files.bin, ": nobody has confirmed the area's first save; it ",
           gone ? "is removed" : "cannot be removed: ", gone ? "" : strerror(errno));
    return gone ? Base::kIsBack : Base::kIsNotBack;
  }
  if (!files.good.is(State::kGood)) {
    say_of(files.good, ": ", files.good.archive.reason, "; the set of areas is not whole");
    return Base::kIsLost;
  }
  const char* why = files.bin.is(State::kGood) ? kNotConfirmed : files.bin.archive.reason;
  return files.are_equal() || put_back(files, why) ? Base::kIsBack : Base::kIsNotBack;
}

/* Puts the base of each marked area back and then, when all of them are on the flash, removes the
 * marker. After a power cut at any point all of it is done again. A lost base does not come back, so
 * it does not hold the marker. All areas are locked: only then it is certain which are marked, and
 * nobody can confirm or save meanwhile. False when nothing else may be done. */
bool take_back(Work* work) {
  BlockLock locks[sc::kAreaCount];
  for (const AreaRow& area : sc::kAreas) {
    if (is_saved(area) && !locks[&area - sc::kAreas].take(area, false, F_SETLK)) return false;
  }
  const ArchiveFolder folder;
  if (!folder) return say_of_folder();
  Marker marker;
  const MarkerState state = store::read_marker(folder.descriptor(), &marker);
  if (state == MarkerState::kUnknown) return say_of_marker(strerror(errno), kNothingIsChanged);
  if (state == MarkerState::kBroken) {
    work->good = say_of_marker(kBrokenMarker, "; a change that nobody confirmed may stay");
  }
  work->areas &= ~marker.areas;
  bool may_be_removed = true;
  char back[256] = "";
  char* end = back;
  for (const AreaRow& area : sc::kAreas) {
    if (!marker.has(area)) continue;
    const Base base = put_base_back(AreaFiles(area, folder.descriptor()), marker.had_none(area));
    if (base == Base::kIsBack) end = stpcpy(stpcpy(end, " "), area.stem);
    if (base == Base::kIsLost) work->areas |= Marker::bit(area);
    if (base == Base::kIsNotBack) may_be_removed = false;
    if (base != Base::kIsBack) work->good = false;
  }
  if (!may_be_removed) {
    say_of_marker("it stays, and the next restore tries again", "");
  } else if (!store::reaches_flash(folder.descriptor()) ||
             !store::remove_marker(folder.descriptor())) {
    work->good = say_of_marker("it may stay: ", strerror(errno));
  } else if (end != back) {
    say("a change that nobody confirmed is taken back:%s", back);
  }
  return true;
}

bool has_marker() {
  char path[64];
  struct stat status;
  snprintf(path, sizeof path, "%s/%s", store::kArchiveFolder, store::kMarkerName);
  return lstat(path, &status) == 0 || errno != ENOENT;
}

/* ---- words ---- */

bool print_usage(int to) {
  dprintf(to,
          "usage: scguard keep AREA       after a save: keep a copy of the area's archive\n"
          "       scguard restore [AREA]  at boot, before Init: put good copies back or "
          "renew them\n"
          "areas:");
  for (const AreaRow& area : sc::kAreas) {
    if (is_saved(area)) dprintf(to, " %s", area.stem);
  }
  return dprintf(to, "\n") > 0;
}

/* Finds an area by the stem of its files or by its name. */
const AreaRow* named(const char* word) {
  for (const AreaRow& area : sc::kAreas) {
    if (is_saved(area) &&
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
  Work work = {only == nullptr ? UINT32_MAX : Marker::bit(*only), true};
  if (restoring && has_marker() && !take_back(&work)) return 1;
  for (const AreaRow& area : sc::kAreas) {
    const bool chosen = is_saved(area) && (work.areas & Marker::bit(area)) != 0;
    if (chosen && !run(keeping, area)) work.good = false;
  }
  return work.good ? 0 : 1;
}
