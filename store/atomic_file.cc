#include "store/atomic_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "store/say.h"

namespace store {

namespace {

constexpr int kTries = 1000; /* each one except the last has waited for another edit */

bool is_same(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/* The file system or the kernel does not support extended attributes. */
bool has_no_attributes() { return errno == ENOTSUP || errno == ENOSYS; }

void close_one(int* descriptor) {
  if (*descriptor >= 0) close(*descriptor);
  *descriptor = -1;
}

}  // namespace

AtomicFile::~AtomicFile() {
  if (temporary_ >= 0) unlinkat(folder_, temporary_name_, 0); /* the file is still locked */
  close_all();
}

int AtomicFile::open(const char* name) {
  name_ = name;
  for (int n = 0; n < kTries; ++n) {
    close_all();
    if (const int status = open_and_lock(); status != kOk) return status;
    if (!open_folder() && errno != ENOENT) return not_changed("cannot open its folder");
    if (fstat(file_, &was_) != 0) return not_changed("cannot look at it");
    /* The edit that held the lock has put another file here. */
    if (!is_as_it_was()) continue;
    if (was_.st_nlink == 1) return kOk;
    return fail(kRefused, "%s is not changed: it has %lu hard links, and one alone would change",
                name, static_cast<unsigned long>(was_.st_nlink));
  }
  return fail(kRefused, "%s is not changed: its folder keeps changing", name);
}

/* An edit that was killed has left its temporary file. */
int AtomicFile::create() {
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

int AtomicFile::write_all(const uint8_t* bytes, size_t size) {
  while (size > 0) {
    const ssize_t done = write(temporary_, bytes, size);
    if (done < 0) return not_changed("cannot write the temporary file");
    bytes += done;
    size -= static_cast<size_t>(done);
  }
  return kOk;
}

/* The mode is set after the bytes are written: until then nobody else can read them, and a write
 * would clear some of the mode's bits. */
int AtomicFile::commit() {
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

int AtomicFile::open_and_lock() {
  file_ = ::open(name_, O_RDWR | O_CLOEXEC);
  struct stat status;
  if (file_ < 0 || fstat(file_, &status) != 0) {
    return fail(kNoArea, "%s: %s", name_, strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) return fail(kNoArea, "%s: not a regular file", name_);
  return flock(file_, LOCK_EX) == 0 ? kOk : not_changed("cannot lock it");
}

/* Opens the folder of the file, with symbolic links resolved. ENOENT: the file was removed. */
bool AtomicFile::open_folder() {
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

/* Whether the name still names the file, and the file was not written or changed. */
bool AtomicFile::is_as_it_was() const {
  struct stat now;
  return fstatat(folder_, base_, &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_dev == was_.st_dev &&
         now.st_ino == was_.st_ino && now.st_size == was_.st_size &&
         is_same(now.st_mtim, was_.st_mtim) && is_same(now.st_ctim, was_.st_ctim);
}

/* The access list is one of the attributes. If the file has none, the one that the folder gives to
 * new files is removed. */
bool AtomicFile::copy_attributes() const {
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

void AtomicFile::close_all() {
  close_one(&temporary_);
  close_one(&folder_);
  close_one(&file_);
}

int AtomicFile::not_changed(const char* why) const {
  const bool permitted = errno != EACCES && errno != EPERM && errno != EROFS;
  return fail(permitted ? kRefused : kNoArea, "%s is not changed: %s: %s", name_, why,
              strerror(errno));
}

}  // namespace store
