#include "support/output.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "support/world.h"

namespace sc_test {

namespace {

constexpr int kDeadlineMs = 60'000;

/* Redirects one stream to an unnamed file. */
class Redirection {
 public:
  explicit Redirection(int fd) : fd_(fd), kept_(dup(fd)), file_(memfd_create("output", 0)) {
    if (kept_ < 0 || file_ < 0 || dup2(file_, fd) < 0) throw std::runtime_error("redirection");
  }
  ~Redirection() {
    restore();
    close(file_);
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

  void restore() {
    if (kept_ < 0) return;
    dup2(kept_, fd_);
    close(kept_);
    kept_ = -1;
  }
  std::string bytes() const {
    std::string all;
    char part[4096];
    lseek(file_, 0, SEEK_SET);
    for (ssize_t size; (size = read(file_, part, sizeof part)) > 0;) {
      all.append(part, static_cast<size_t>(size));
    }
    return all;
  }

 private:
  int fd_, kept_, file_;
};

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Output& output) {
  return stream << "stdout {" << output.out << "} stderr {" << output.err << "}";
}

std::ostream& operator<<(std::ostream& stream, const Ending& ending) {
  return stream << "status " << ending.status << " " << ending.output;
}

Output capture(const std::function<void()>& action) {
  fflush(nullptr);
  Redirection out(STDOUT_FILENO), err(STDERR_FILENO);
  action();
  fflush(nullptr);
  out.restore();
  err.restore();
  return {out.bytes(), err.bytes()};
}

Child::Child(const std::function<void()>& action) {
  fflush(nullptr);
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ != 0) return;
  /* If an exception left the child's action, the child would continue as a second runner of all
   * tests. */
  try {
    action();
  } catch (const std::exception& error) {
    ADD_FAILURE() << error.what();
  }
  fflush(nullptr);
  _exit(testing::Test::HasFailure() ? 99 : 0);
}

Child::~Child() {
  if (ended()) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

bool Child::ended() {
  if (!reaped_) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
    reaped_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  return true;
}

int Child::wait() {
  for (int ms = 0; ms < kDeadlineMs && !ended(); ++ms) poll(nullptr, 0, 1);
  return status_;
}

Ending run_in_child(const std::function<void()>& action) {
  Ending ending;
  ending.output = capture([&] { ending.status = Child(action).wait(); });
  return ending;
}

TarWords tar_words() {
  const Output usage = capture([] { (void)!system("tar --help"); });
  if ((usage.out + usage.err).find("BusyBox") != std::string::npos) {
    return {"tar: removing leading '/' from member names\n", 1};
  }
  return {"tar: Removing leading `/' from member names\n", 2};
}

}  // namespace sc_test
