/* A file is edited in a sandbox and replaced as a whole. */
#include "in_place.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace scctl {

namespace {

/* ---- the file, and the temporary file that replaces it ---- */

/* The file is opened once, and locked from then on. After that its name is looked at as an entry of
 * its folder alone, which is open, too: a link that is turned meanwhile leads nowhere else. Who has
 * the lock owns the name of the temporary file. */
class AtomicFile {
 public:
  AtomicFile() = default;
  ~AtomicFile() {
    if (temporary_ >= 0) unlinkat(folder_, temporary_name_, 0); /* the file is still locked */
    close_all();
  }
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  /* Waits until no other edit has the file. */
  int open(const char* name) {
    name_ = name;
    for (int n = 0; n < kTries; ++n) {
      close_all();
      if (const int status = open_and_lock(); status != kOk) return status;
      if (!open_folder() && errno != ENOENT) return not_changed("cannot open its folder");
      if (fstat(file_, &was_) != 0) return not_changed("cannot look at it");
      /* The edit that had the lock has put another file here. */
      if (!is_as_it_was()) continue;
      if (was_.st_nlink == 1) return kOk;
      return fail(kRefused, "%s is not changed: it has %lu hard links, and one alone would change",
                  name, static_cast<unsigned long>(was_.st_nlink));
    }
    return fail(kRefused, "%s is not changed: no folder holds it for long enough", name);
  }

  int descriptor() const { return file_; }

  /* The temporary file, with the owner of the file. An edit that was killed has left its own. */
  int create() {
    snprintf(temporary_name_, sizeof temporary_name_, "%s.scctl-tmp", base_);
    struct stat left;
    if (fstatat(folder_, temporary_name_, &left, AT_SYMLINK_NOFOLLOW) == 0) {
      if (!S_ISREG(left.st_mode)) {
        return fail(kRefused, "%s is not changed: %s in its folder is not a regular file", name_,
                    temporary_name_);
      }
      if (unlinkat(folder_, temporary_name_, 0) != 0) {
        return not_changed("cannot remove the temporary file of an edit that was killed");
      }
    }
    temporary_ = openat(folder_, temporary_name_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (temporary_ < 0) return not_changed("cannot create a temporary file beside it");
    if (fchown(temporary_, was_.st_uid, was_.st_gid) != 0) {
      return not_changed("cannot keep its owner");
    }
    return kOk;
  }

  int write_all(const uint8_t* bytes, size_t size) {
    while (size > 0) {
      const ssize_t done = write(temporary_, bytes, size);
      if (done < 0) return not_changed("cannot write the temporary file");
      bytes += done;
      size -= static_cast<size_t>(done);
    }
    return kOk;
  }

  /* The mode follows the bytes: until then nobody else reads them, and a write would clear some of
   * its bits. */
  int commit() {
    if (!copy_attributes()) return not_changed("cannot keep its extended attributes");
    if (fchmod(temporary_, was_.st_mode & 07777) != 0) return not_changed("cannot keep its mode");
    if (fsync(temporary_) != 0) return not_changed("cannot flush the temporary file");
    if (!is_as_it_was()) {
      return fail(kRefused, "%s is not changed: another program has changed it meanwhile", name_);
    }
    if (renameat(folder_, temporary_name_, folder_, base_) != 0) {
      return not_changed("cannot rename the temporary file");
    }
    close_one(&temporary_);
    if (fsync(folder_) == 0) return kOk;
    return fail(kRefused, "%s is changed, but a power cut may undo it: cannot flush its folder: %s",
                name_, strerror(errno));
  }

 private:
  static constexpr int kTries = 1000; /* each but the last has waited for another edit */

  int open_and_lock() {
    file_ = ::open(name_, O_RDWR | O_CLOEXEC);
    struct stat status;
    if (file_ < 0 || fstat(file_, &status) != 0) {
      return fail(kNoArea, "%s: %s", name_, strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) return fail(kNoArea, "%s: not a regular file", name_);
    return flock(file_, LOCK_EX) == 0 ? kOk : not_changed("cannot lock it");
  }

  /* Of the file, wherever links have led to it. ENOENT: it is in none any more. */
  bool open_folder() {
    char link[32], path[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", file_);
    const ssize_t size = readlink(link, path, sizeof path - 1);
    if (size < 0) return false;
    path[size] = '\0';
    char* base = strrchr(path, '/') + 1;
    snprintf(base_, sizeof base_, "%s", base);
    *base = '\0';
    folder_ = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return folder_ >= 0;
  }

  /* Whether the name still stands for the file, and nobody has written or changed it. */
  bool is_as_it_was() const {
    struct stat now;
    return fstatat(folder_, base_, &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_dev == was_.st_dev &&
           now.st_ino == was_.st_ino && now.st_size == was_.st_size &&
           is_same(now.st_mtim, was_.st_mtim) && is_same(now.st_ctim, was_.st_ctim);
  }

  static bool is_same(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
  }

  /* The access list is one of them. Where the file has none, the one that the folder gives to new
   * files goes. */
  bool copy_attributes() {
    char names[4096], value[4096];
    if (fremovexattr(temporary_, "system.posix_acl_access") != 0 && errno != ENODATA &&
        !has_no_attributes()) {
      return false;
    }
    const ssize_t size = flistxattr(file_, names, sizeof names);
    if (size < 0) return has_no_attributes();
    for (const char* name = names; name < names + size; name += strlen(name) + 1) {
      const ssize_t length = fgetxattr(file_, name, value, sizeof value);
      if (length < 0) return false;
      if (fsetxattr(temporary_, name, value, static_cast<size_t>(length), 0) != 0) return false;
    }
    return true;
  }

  /* The file system or the kernel knows none. */
  static bool has_no_attributes() { return errno == ENOTSUP || errno == ENOSYS; }

  void close_all() {
    close_one(&temporary_);
    close_one(&folder_);
    close_one(&file_);
  }

  static void close_one(int* descriptor) {
    if (*descriptor >= 0) close(*descriptor);
    *descriptor = -1;
  }

  int not_changed(const char* why) {
    const bool permitted = errno != EACCES && errno != EPERM && errno != EROFS;
    return fail(permitted ? kRefused : kNoArea, "%s is not changed: %s: %s", name_, why,
                strerror(errno));
  }

  const char* name_ = ""; /* as it was given */
  char base_[NAME_MAX + 1] = "";
  char temporary_name_[sizeof base_ + sizeof ".scctl-tmp"] = "";
  struct stat was_ = {};
  int file_ = -1;
  int folder_ = -1;
  int temporary_ = -1;
};

/* ---- the sandbox ---- */

bool write_file(const char* path, const char* text) {
  const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0755);
  if (file < 0) return false;
  const auto size = static_cast<ssize_t>(strlen(text));
  const bool good = write(file, text, strlen(text)) == size;
  close(file);
  return good;
}

/* Root of a user namespace of its own is enough. */
bool become_root() {
  char users[32], groups[32];
  snprintf(users, sizeof users, "0 %u 1", geteuid());
  snprintf(groups, sizeof groups, "0 %u 1", getegid());
  return unshare(CLONE_NEWUSER | CLONE_NEWIPC | CLONE_NEWNS) == 0 &&
         write_file("/proc/self/setgroups", "deny") && write_file("/proc/self/uid_map", users) &&
         write_file("/proc/self/gid_map", groups);
}

/* An empty /var: no daemon hears of the edit, no lock file and no archive of the machine's is
 * touched. What a save runs besides tar is silenced, for it is no save of the machine's areas.
 * Null when it can be done, else the step that fails. */
const char* enter_sandbox() {
  static constexpr const char* kFolders[] = {"/var/lock_store", "/var/systemconfig",
                                             "/var/dataconfig", "/var/bin"};
  static constexpr const char* kSilenced[] = {"/var/bin/change_event", "/var/bin/send_event",
                                              "/var/bin/sync"};
  if (unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0 && (errno != EPERM || !become_root())) {
    return "namespaces";
  }
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "private mounts";
  if (mount("tmpfs", "/var", "tmpfs", 0, nullptr) != 0) return "an empty /var";
  for (const char* folder : kFolders) {
    if (mkdir(folder, 0755) != 0) return folder;
  }
  for (const char* program : kSilenced) {
    if (!write_file(program, "#!/bin/sh\n")) return program;
  }
  const char* path = getenv("PATH");
  Text paths;
  paths.print("/var/bin:%s", path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
  return setenv("PATH", paths.c_str(), 1) == 0 ? nullptr : "PATH";
}

/* ---- the edit ---- */

/* As the library packs it. */
int write_archive(const Area& area, AtomicFile* to) {
  const Path path = archive_path(area);
  const int file = open(path.text, O_RDONLY | O_CLOEXEC);
  if (file < 0) return fail(kRefused, "%s: %s", path.text, strerror(errno));
  uint8_t bytes[4096];
  ssize_t size;
  int status = kOk;
  while (status == kOk && (size = read(file, bytes, sizeof bytes)) != 0) {
    status = size < 0 ? fail(kRefused, "%s: %s", path.text, strerror(errno))
                      : to->write_all(bytes, static_cast<size_t>(size));
  }
  close(file);
  return status;
}

/* Behind the child's exit status: the temporary file is complete. */
constexpr int kComplete = 0x40;

/* In the child. */
int edit(Call& call, int (*run)(Call& call), Source& file, AtomicFile* to) {
  for (int n = 0; n < kAreaCount; ++n) Source::forget_live(static_cast<AreaId>(n));
  if (const char* step = enter_sandbox(); step != nullptr) {
    return fail(kNoArea, "%s is not changed: cannot make a sandbox: %s: %s", file.name(), step,
                strerror(errno));
  }
  g_file = file.name();
  call.source.open_live();
  const AreaId id = file.held();
  const char* outer = g_where;
  Text where;
  where.print("%s%s is not changed: ", outer != nullptr ? outer : "", file.name());
  g_where = where.c_str();
  if (const int status = init_area(call, id); status != kOk) return status;
  if (const int status = call.source.need(id); status != kOk) return status;
  memcpy(call.source.block(id), file.block(id), kAreas[id].row().size);
  g_where = outer;
  const int status = run(call);
  const int flushed = flush_output();
  if (status != kOk && !call.is_done) return status;
  if (flushed != kOk) return flushed;
  int written;
  if (call.has(kArchive)) {
    g_where = where.c_str();
    written = save_area(call, id);
    g_where = outer;
    if (written == kOk) written = write_archive(kAreas[id], to);
  } else {
    written = to->write_all(call.source.block(id), kAreas[id].row().size);
  }
  return written == kOk ? status | kComplete : written;
}

/* ---- signals ---- */

volatile pid_t g_child;         /* that edits; 0: there is none */
volatile sig_atomic_t g_signal; /* the last that came; 0: none */

/* By SIGKILL: the child has nothing to tidy up, and while it edits or runs a shell it takes no other
 * signal. */
void end_child(int signal_number) {
  g_signal = signal_number;
  if (g_child > 0) kill(g_child, SIGKILL);
}

/* A signal that would end the command ends the child, and the parent stays to remove the temporary
 * file. Signals that are ignored stay so. */
class SignalForwarder {
 public:
  SignalForwarder() = default;
  ~SignalForwarder() { stop(); }
  SignalForwarder(const SignalForwarder&) = delete;
  SignalForwarder& operator=(const SignalForwarder&) = delete;

  /* From now on they wait for the child. */
  void start() {
    sigset_t all;
    sigemptyset(&all);
    for (const int number : kSignals) sigaddset(&all, number);
    sigprocmask(SIG_BLOCK, &all, &mask_);
    for (int n = 0; n < kCount; ++n) {
      handlers_[n] = signal(kSignals[n], end_child);
      if (handlers_[n] == SIG_IGN) signal(kSignals[n], SIG_IGN);
    }
    g_signal = 0;
    is_started_ = true;
  }

  void forward_to(pid_t child) {
    g_child = child;
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
  }

  /* As waitpid tells it. The child's number is not used any more when it can be another's. */
  bool wait_for_child(int* ended) {
    const pid_t child = g_child;
    siginfo_t told;
    const bool has_ended = waitid(P_PID, static_cast<id_t>(child), &told, WEXITED | WNOWAIT) == 0;
    g_child = 0;
    return has_ended && waitpid(child, ended, 0) == child;
  }

  void stop() {
    if (!is_started_) return;
    for (int n = 0; n < kCount; ++n) signal(kSignals[n], handlers_[n]);
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
    is_started_ = false;
  }

 private:
  static constexpr int kSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE};
  static constexpr int kCount = sizeof kSignals / sizeof kSignals[0];
  void (*handlers_[kCount])(int) = {};
  sigset_t mask_ = {};
  bool is_started_ = false;
};

/* The edit in a child, which ends with its parent. */
int edit_in_child(Call& call, int (*run)(Call& call), Source& file, AtomicFile* to,
                  SignalForwarder& signals) {
  fflush(stdout);
  signal(SIGCHLD, SIG_DFL); /* where it is ignored, nobody tells how the child ended */
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    signals.stop();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(kRefused);
    _exit(edit(call, run, file, to));
  }
  int ended;
  if (child > 0) signals.forward_to(child);
  if (child < 0 || !signals.wait_for_child(&ended)) {
    return fail(kRefused, "%s is not changed: %s", file.name(), strerror(errno));
  }
  if (g_signal == 0 && WIFEXITED(ended)) return WEXITSTATUS(ended);
  return fail(kRefused, "%s is not changed: the edit was ended by signal %d", file.name(),
              g_signal != 0 ? static_cast<int>(g_signal) : WTERMSIG(ended));
}

}  // namespace

int run_in_place(Call& call, int (*run)(Call& call)) {
  const char* name = call.has(kArchive) ? call.archive : call.image;
  SignalForwarder signals; /* stops when the temporary file is gone */
  AtomicFile atomic;
  if (const int status = atomic.open(name); status != kOk) return status;
  Source file;
  const int opened = call.has(kArchive)
                         ? file.open_archive(name, atomic.descriptor(), run == run_repair)
                         : file.open_image(name, atomic.descriptor());
  if (opened != kOk) return opened;
  signals.start();
  if (const int status = atomic.create(); status != kOk) return status;
  const int status = edit_in_child(call, run, file, &atomic, signals);
  if ((status & kComplete) == 0) return status;
  const int committed = atomic.commit();
  return committed == kOk ? status & ~kComplete : committed;
}

}  // namespace scctl
