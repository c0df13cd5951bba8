/* Opening lock files and holding their bytes. */
#include "core/lock_file.h"

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "core/bytes.h"

namespace sc {

LockFile::LockFile(const char* path, int width) : fd_(open(path, O_RDWR, 0644)) {
  if (fd_ < 0) printf("Cannot Lock file %.*s", width, path);
}

LockFile::~LockFile() {
  if (fd_ >= 0) close(fd_);
}

/* The index is read before the lock is taken, and the same byte is released. It is signed: a
 * damaged word with its top bit set names no byte on any CPU. */
ByteLock::ByteLock(const LockFile& file, const void* lock_word)
    : fd_(file.fd()), lock_index_(load<int32_t>(lock_word)) {
  sc_lock_reg(fd_, F_SETLKW, F_WRLCK, lock_index_, SEEK_SET, 1);
}

ByteLock::~ByteLock() { sc_lock_reg(fd_, F_SETLK, F_UNLCK, lock_index_, SEEK_SET, 1); }

}  // namespace sc

int sc_lock_reg(int fd, int cmd, short type, off_t start, short whence, off_t len) {
  struct flock lock;
  lock.l_type = type;
  lock.l_whence = whence;
  lock.l_start = start;
  lock.l_len = len;
  return fcntl(fd, cmd, &lock);
}
