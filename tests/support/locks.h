/* Locks of bytes that other processes hold and wait for. The holders must be other processes:
 * closing any descriptor of a file drops the closing process's own locks on it. */
#ifndef SUPPORT_LOCKS_H
#define SUPPORT_LOCKS_H

#include <sys/types.h>

#include <string>

namespace sc_test {

/* Another process that holds an exclusive lock on one byte of an existing file. */
class LockHolder {
 public:
  LockHolder(const std::string& path, off_t byte);
  ~LockHolder();
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

  void release();

 private:
  pid_t pid_;
  int until_; /* the holder lives until it reads from this pipe */
};

/* Waits until the kernel lists the process as blocked on that byte of the file (the line of the
 * waiter in /proc/locks). False when that does not happen within a minute. */
bool becomes_blocked(pid_t pid, const std::string& path, off_t byte);

/* Whether any process holds that byte now. */
bool is_locked(const std::string& path, off_t byte);

}  // namespace sc_test

#endif
