/* Runs programs as commands: their output and how they end. */
#ifndef SUPPORT_PROGRAM_H
#define SUPPORT_PROGRAM_H

#include <sys/types.h>

#include <ostream>
#include <string>
#include <vector>

namespace sc_test {

using Words = std::vector<std::string>;

/* The tools of this build as the words of a command, with the emulator in front if the target needs
 * one. The environment variables SCCTL and SCGUARD replace the build's programs. */
Words scctl(const Words& arguments);
Words scguard(const Words& arguments);

/* How a program ended: its exit status, or minus the number of the signal that ended it. */
struct Outcome {
  int status;
  std::string out, err;

  bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Outcome& outcome);

/* An unnamed file that a program writes or reads. */
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& bytes = "");
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int fd() const { return fd_; }
  std::string bytes() const;

 private:
  int fd_;
};

/* A running program in its own process group. Signals that end programs are not ignored in it. It
 * is killed when it is still alive at the end of the scope. */
class Program {
 public:
  enum Eyes { kNobody, kTracer }; /* kTracer: the calling thread traces it; see support/trace.h */

  explicit Program(const Words& command, const std::string& input = "", Eyes eyes = kNobody);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t pid() const { return pid_; }
  bool ended();
  Outcome wait();
  /* Its output so far. */
  std::string out() const { return out_.bytes(); }
  std::string err() const { return err_.bytes(); }
  /* For a caller that has waited for the program itself; the status is that of waitpid. */
  void set_ended(int ended);

 private:
  MemoryFile in_, out_, err_;
  pid_t pid_;
  bool ended_ = false;
  int status_ = 0;
};

/* Runs a command to its end. Its standard input is this text. */
inline Outcome run(const Words& command, const std::string& input = "") {
  return Program(command, input).wait();
}

}  // namespace sc_test

#endif
