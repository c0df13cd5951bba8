/* An area's lock file and the bytes of it that are held.
 *
 * fcntl locks belong to the process, and closing any descriptor of a file drops all locks that the
 * process holds on it. So no byte is held while another descriptor of the same file is closed: an
 * add has two, and closes that of its claim before it locks again. A byte is held in the smallest
 * scope that writes. The results of locking calls are ignored: a byte that cannot be locked is
 * written unlocked.
 */
#ifndef CORE_LOCK_FILE_H
#define CORE_LOCK_FILE_H

#include <stddef.h>

namespace sc {

/* Opens the path stored in a block; when that fails, prints "Cannot Lock file %s" and is false. */
class LockFile {
 public:
  template <size_t kWidth>
  explicit LockFile(const char (&path)[kWidth]) : LockFile(path, static_cast<int>(kWidth)) {}
  /* A path in a field of this width. */
  LockFile(const char* path, int width);
  ~LockFile();
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

  explicit operator bool() const { return fd_ >= 0; }
  int fd() const { return fd_; }

 private:
  int fd_;
};

/* Holds one byte of a lock file, the one that a lock word names; waits for it. */
class ByteLock {
 public:
  ByteLock(const LockFile& file, const void* lock_word);
  ~ByteLock();
  ByteLock(const ByteLock&) = delete;
  ByteLock& operator=(const ByteLock&) = delete;

 private:
  int fd_;
  int lock_index_;
};

}  // namespace sc

#endif
