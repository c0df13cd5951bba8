/* What is written to standard output and standard error, byte for byte, and child processes. */
#ifndef SUPPORT_OUTPUT_H
#define SUPPORT_OUTPUT_H

#include <sys/types.h>

#include <functional>
#include <ostream>
#include <string>

namespace sc_test {

/* EXPECT_EQ(capture([&] { ... }), (Output{"on stdout", "on stderr"})); */
struct Output {
  std::string out, err;

  bool operator==(const Output&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Output& output);

inline const Output kSilence = {};

/* Runs the action with both streams redirected (descriptors 1 and 2, buffers flushed). The output
 * of commands that the action starts is captured, too. */
Output capture(const std::function<void()>& action);

/* A forked process that runs the action and then ends with status 0, without running gtest's end
 * twice. If the action itself ends the process, that status is used. The process is killed when it
 * is still alive at the end of the scope. */
class Child {
 public:
  explicit Child(const std::function<void()>& action);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool ended();
  /* Waits for the end. Returns the exit status, or -1 when a signal ended the child or it takes
   * over a minute. */
  int wait();

 private:
  pid_t pid_;
  int status_ = -1;
  bool reaped_ = false;
};

/* The action in a child, with both streams captured. */
struct Ending {
  int status;
  Output output;

  bool operator==(const Ending&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Ending& ending);
Ending run_in_child(const std::function<void()>& action);

/* The messages and statuses of the tar in PATH. Those of BusyBox's tar, on a router, differ. */
struct TarWords {
  std::string slash_note; /* on stderr, when it packs a path that begins with a slash */
  int damaged;            /* exit status for an archive that it cannot read */
};
TarWords tar_words();

}  // namespace sc_test

#endif
