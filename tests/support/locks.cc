#include "support/locks.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>

namespace sc_test {

namespace {

struct flock exclusive(off_t byte) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return lock;
}

/* Whether the line is that of this waiter: "1: -> POSIX  ADVISORY  WRITE 4711 00:2f:19 2 2". */
bool is_waiting(const std::string& line, pid_t pid, ino_t inode, off_t byte) {
  int who;
  unsigned long long file, first, last;
  return sscanf(line.c_str(), "%*d: -> POSIX ADVISORY WRITE %d %*x:%*x:%llu %llu %llu", &who, &file,
                &first, &last) == 4 &&
         who == pid && file == inode && first == static_cast<unsigned long long>(byte) &&
         last == first;
}

}  // namespace

LockHolder::LockHolder(const std::string& path, off_t byte) {
  int ready[2], until[2];
  if (pipe(ready) < 0 || pipe(until) < 0) throw std::runtime_error("pipe");
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  char token = 1;
  if (pid_ == 0) {
    close(ready[0]);
    close(until[1]);
    int fd = open(path.c_str(), O_RDWR);
    struct flock lock = exclusive(byte);
    if (fd < 0 || fcntl(fd, F_SETLK, &lock) < 0) _exit(1);
    if (write(ready[1], &token, 1) != 1) _exit(1);
    _exit(read(until[0], &token, 1) == 1 ? 0 : 1);
  }
  close(ready[1]);
  close(until[0]);
  until_ = until[1];
  fcntl(until_, F_SETFD, FD_CLOEXEC);
  const bool held = read(ready[0], &token, 1) == 1;
  close(ready[0]);
  if (!held) throw std::runtime_error("the lock on " + path + " cannot be held");
}

LockHolder::~LockHolder() { release(); }

void LockHolder::release() {
  if (pid_ < 0) return;
  /* Closing the pipe would not be enough: processes forked meanwhile have it, too. */
  if (write(until_, "", 1) != 1) throw std::runtime_error("lock holder");
  close(until_);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

bool becomes_blocked(pid_t pid, const std::string& path, off_t byte) {
  struct stat file;
  if (stat(path.c_str(), &file) < 0) return false;
  for (int ms = 0; ms < 60'000; ++ms) {
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
      if (is_waiting(line, pid, file.st_ino, byte)) return true;
    }
    poll(nullptr, 0, 1);
  }
  return false;
}

bool is_locked(const std::string& path, off_t byte) {
  const pid_t asker = fork(); /* closing the file here would drop this process's own locks */
  if (asker < 0) throw std::runtime_error("fork");
  if (asker == 0) {
    int fd = open(path.c_str(), O_RDWR);
    struct flock lock = exclusive(byte);
    if (fd < 0 || fcntl(fd, F_GETLK, &lock) < 0) _exit(2);
    _exit(lock.l_type == F_UNLCK ? 0 : 1);
  }
  int status;
  waitpid(asker, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) throw std::runtime_error("lock test: " + path);
  return WEXITSTATUS(status) == 1;
}

}  // namespace sc_test
