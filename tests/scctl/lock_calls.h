/* What the locking calls of a traced program ask for. */
#ifndef SCCTL_LOCK_CALLS_H
#define SCCTL_LOCK_CALLS_H

#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>

#include <algorithm>
#include <string>

#include "support/trace.h"

namespace sc_test {

struct LockCall {
  bool is_lock = false; /* of fcntl's byte locks at all */
  bool waits = false;
  short type = 0;
  int64_t first = 0, count = 0;
};

inline LockCall lock_call(const SystemCall& call) {
  LockCall asked;
  const auto command = static_cast<int>(call.arguments[1]);
  if (call.call != SYS_fcntl || (command != F_SETLK && command != F_SETLKW)) return asked;
  struct flock lock;
  const std::string bytes = call.bytes(2, sizeof lock);
  memcpy(&lock, bytes.data(), std::min(bytes.size(), sizeof lock));
  return {true, command == F_SETLKW, lock.l_type, lock.l_start, lock.l_len};
}

}  // namespace sc_test

#endif
