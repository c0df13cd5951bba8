/* An area's lock file and the bytes of it that are held.
 *
 * fcntl locks belong to the process. Closing any descriptor of a file drops all locks that the
 * process holds on it. So no byte is held while another descriptor of the same file is closed: an
 * add has two descriptors, and closes that of its claim before it locks again. A byte is held in
 * the smallest scope that writes. The results of lock calls are ignored: a record whose byte cannot
 * be locked is written without a lock.
 */
#ifndef CORE_LOCK_FILE_H
#define CORE_LOCK_FILE_H

#include <stddef.h>

namespace sc {

/* Opens the path stored in a block. When that fails, prints "Cannot Lock file %s" and the object is
 * false. */
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

/* Waits for one byte of a lock file, the one that a lock word names, and holds it. */
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
