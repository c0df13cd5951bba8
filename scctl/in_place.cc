/* A file is edited in a private world and replaced as a whole. */
#include "in_place.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace scctl {

namespace {

/* ---- the file, and the one that takes its place ---- */

class Replacement {
 public:
  Replacement() = default;
  ~Replacement() {
    if (file_ < 0) return;
    close(file_);
    unlink(temporary_.c_str());
  }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  /* A link stays, its target is replaced. */
  int look_at(const char* name) {
    name_ = name;
    if (realpath(name, path_) == nullptr || stat(path_, &was_) != 0) {
      return fail(kNoArea, "%s: %s", name, strerror(errno));
    }
    return S_ISREG(was_.st_mode) ? kOk : fail(kNoArea, "%s: it is no regular file", name);
  }

  /* A file of the same owner and mode in the same folder. */
  int make() {
    temporary_.print("%s.XXXXXX", path_);
    file_ = mkostemp(const_cast<char*>(temporary_.c_str()), O_CLOEXEC);
    if (file_ < 0) return is_not_changed("a file beside it");
    if (fchown(file_, was_.st_uid, was_.st_gid) != 0 || fchmod(file_, was_.st_mode & 07777) != 0) {
      return is_not_changed("its owner and mode cannot be kept");
    }
    return kOk;
  }

  int write_all(const uint8_t* bytes, size_t size) {
    while (size > 0) {
      const ssize_t done = write(file_, bytes, size);
      if (done < 0) return is_not_changed("a file beside it");
      bytes += done;
      size -= static_cast<size_t>(done);
    }
    return kOk;
  }

  int take_its_place() {
    struct stat now;
    if (stat(path_, &now) != 0 || now.st_ino != was_.st_ino || now.st_size != was_.st_size ||
        now.st_mtim.tv_sec != was_.st_mtim.tv_sec || now.st_mtim.tv_nsec != was_.st_mtim.tv_nsec) {
      return fail(kRefused, "%s is not changed: another program has changed it meanwhile", name_);
    }
    if (fsync(file_) != 0) return is_not_changed("a file beside it");
    if (rename(temporary_.c_str(), path_) != 0) return is_not_changed("its folder");
    close(file_);
    file_ = -1;
    *strrchr(path_, '/') = '\0';
    const int folder = open(path_[0] == '\0' ? "/" : path_, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    fsync(folder);
    close(folder);
    return kOk;
  }

 private:
  int is_not_changed(const char* what) {
    const bool permitted = errno != EACCES && errno != EPERM && errno != EROFS;
    return fail(permitted ? kRefused : kNoArea, "%s is not changed: %s: %s", name_, what,
                strerror(errno));
  }

  const char* name_ = "";
  char path_[PATH_MAX];
  struct stat was_;
  Text temporary_;
  int file_ = -1;
};

/* ---- the private world ---- */

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
 * touched. What a save runs besides tar is silenced, for it is no save of the machine's areas. */
bool enter_private_world() {
  if (unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0 && (errno != EPERM || !become_root())) return false;
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/var", "tmpfs", 0, nullptr) != 0) {
    return false;
  }
  static constexpr const char* kFolders[] = {"/var/lock_store", "/var/systemconfig",
                                             "/var/dataconfig", "/var/bin"};
  static constexpr const char* kSilenced[] = {"/var/bin/change_event", "/var/bin/send_event",
                                              "/var/bin/sync"};
  for (const char* folder : kFolders) {
    if (mkdir(folder, 0755) != 0) return false;
  }
  for (const char* program : kSilenced) {
    if (!write_file(program, "#!/bin/sh\n")) return false;
  }
  const char* path = getenv("PATH");
  Text paths;
  paths.print("/var/bin:%s", path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
  return setenv("PATH", paths.c_str(), 1) == 0;
}

/* ---- the edit ---- */

/* As the library packs it. */
int write_archive(Call& call, AreaId id, Replacement* replacement) {
  if (const int status = save_area(call, id); status != kOk) return status;
  const Path path = archive_path(kAreas[id]);
  const int file = open(path.text, O_RDONLY | O_CLOEXEC);
  uint8_t bytes[4096];
  ssize_t size;
  int status = kOk;
  while (status == kOk && (size = read(file, bytes, sizeof bytes)) != 0) {
    status = size < 0 ? fail(kRefused, "%s: %s", path.text, strerror(errno))
                      : replacement->write_all(bytes, static_cast<size_t>(size));
  }
  close(file);
  return status;
}

/* In the child. */
int edit(Call& call, int (*run)(Call& call), Source& file, Replacement* replacement) {
  for (int n = 0; n < kAreaCount; ++n) Source::forget_live(static_cast<AreaId>(n));
  if (!enter_private_world()) {
    return fail(kNoArea, "%s is not changed: the kernel refuses a private world: %s", file.name(),
                strerror(errno));
  }
  g_file = file.name();
  call.source.open_live();
  const AreaId id = file.held();
  if (const int status = init_area(call, id); status != kOk) return status;
  if (const int status = call.source.need(id); status != kOk) return status;
  memcpy(call.source.block(id), file.block(id), kAreas[id].facts().size);
  const int status = run(call);
  const int flushed = flush_output();
  if (status != kOk || flushed != kOk) return status != kOk ? status : flushed;
  return call.has(kArchive)
             ? write_archive(call, id, replacement)
             : replacement->write_all(call.source.block(id), kAreas[id].facts().size);
}

pid_t g_child; /* that edits; 0: none yet */

void pass_on(int signal_number) {
  if (g_child > 0) kill(g_child, signal_number);
}

/* Signals that end a command are for the child, while there is something to be tidied up behind it.
 * Those that are ignored stay so. */
class Patient {
 public:
  Patient() {
    for (int n = 0; n < kCount; ++n) {
      handlers_[n] = signal(kSignals[n], pass_on);
      if (handlers_[n] == SIG_IGN) signal(kSignals[n], SIG_IGN);
    }
  }
  ~Patient() { restore(); }
  Patient(const Patient&) = delete;
  Patient& operator=(const Patient&) = delete;
  void restore() {
    for (int n = 0; n < kCount; ++n) signal(kSignals[n], handlers_[n]);
  }

 private:
  static constexpr int kSignals[] = {SIGHUP, SIGINT, SIGTERM};
  static constexpr int kCount = 3;
  void (*handlers_[kCount])(int);
};

}  // namespace

int run_in_place(Call& call, int (*run)(Call& call)) {
  const char* name = call.has(kArchive) ? call.archive : call.image;
  Patient patient;
  Replacement replacement;
  if (const int status = replacement.look_at(name); status != kOk) return status;
  Source file;
  const int opened = call.has(kArchive) ? file.open_archive(name) : file.open_image(name);
  if (opened != kOk) return opened;
  if (call.has(kArchive) && kAreas[file.held()].save == nullptr) {
    return fail(kRefused, "%s: area %s has no archive", name, kAreas[file.held()].name);
  }
  if (const int status = replacement.make(); status != kOk) return status;
  fflush(stdout);
  g_child = 0;
  const pid_t child = fork();
  g_child = child;
  if (child == 0) {
    patient.restore();
    _exit(edit(call, run, file, &replacement));
  }
  int ended;
  if (child < 0 || waitpid(child, &ended, 0) != child) {
    return fail(kRefused, "%s is not changed: %s", name, strerror(errno));
  }
  if (!WIFEXITED(ended)) {
    return fail(kRefused, "%s is not changed: the edit was ended by signal %d", name,
                WTERMSIG(ended));
  }
  return WEXITSTATUS(ended) == kOk ? replacement.take_its_place() : WEXITSTATUS(ended);
}

}  // namespace scctl
