/* A gzip process: it unpacks a file for this process to read, or packs into a file what this process
 * writes.
 */
#ifndef STORE_GZIP_H
#define STORE_GZIP_H

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace store {

/* Linux before 5.9 closes descriptors one by one. Those above the usual limit are left to the
 * program that opened them. */
constexpr int kUsualLimit = 1024;

/* Closes all descriptors except standard input, output and error. */
inline void close_others() {
#ifdef SYS_close_range
  if (syscall(SYS_close_range, STDERR_FILENO + 1, ~0u, 0) == 0) return;
#endif
  for (int file = STDERR_FILENO + 1; file < kUsualLimit; ++file) close(file);
}

/* Runs gzip in this process, a child. */
[[noreturn]] inline void become_gzip(int in, int out, const char* options) {
  for (int n = 1; n < NSIG; ++n) signal(n, SIG_DFL);
  const sigset_t none = {};
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const bool ready = dup2(in, STDIN_FILENO) >= 0 && dup2(out, STDOUT_FILENO) >= 0;
  close_others();
  const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
  unsetenv("GZIP"); /* GNU gzip takes options from it, too */
  if (ready && nothing >= 0 && dup2(nothing, STDERR_FILENO) >= 0) {
    execlp("gzip", "gzip", options, nullptr);
  }
  _exit(127);
}

class Gzip {
 public:
  enum Direction : uint8_t { kUnpacks, kPacks };

  /* With this, waitpid works even when this process was started with SIGCHLD ignored. */
  Gzip() : former_(signal(SIGCHLD, SIG_DFL)) {}
  ~Gzip() {
    if (stream >= 0) close(stream);
    if (process_ > 0) {
      kill(process_, SIGKILL);
      wait(nullptr);
    }
    signal(SIGCHLD, former_);
  }
  Gzip(const Gzip&) = delete;
  Gzip& operator=(const Gzip&) = delete;

  /* The file is that of the packed data. */
  bool start(int file, Direction direction) {
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) return false;
    stream = pipe[direction == kPacks];
    const int other = pipe[direction != kPacks];
    process_ = fork();
    if (process_ == 0) {
      if (direction == kPacks) become_gzip(other, file, "-c");
      become_gzip(file, other, "-dc");
    }
    close(other);
    return process_ > 0;
  }

  /* Waits for the end of gzip. The status is that of waitpid. */
  bool wait(int* status) {
    pid_t ended;
    do {
      ended = waitpid(process_, status, 0);
    } while (ended < 0 && errno == EINTR);
    process_ = -1;
    return ended > 0;
  }

  /* Closes the stream first: what is packed ends here, and nothing else of what is unpacked is
   * read. */
  bool end(int* status) {
    close(stream);
    stream = -1;
    return wait(status);
  }

  int stream = -1; /* this process's end of the pipe */

 private:
  pid_t process_ = -1;
  void (*former_)(int);
};

}  // namespace store

#endif
