/* Programs run as the commands that they are: what they print and how they end. */
#ifndef SUPPORT_PROGRAM_H
#define SUPPORT_PROGRAM_H

#include <sys/types.h>

#include <ostream>
#include <string>
#include <vector>

namespace sc_test {

using Words = std::vector<std::string>;

/* The tools of this build, with the emulator in front where the target needs one: the words of a
 * command. The environment's SCCTL and SCGUARD take the place of the build's programs. */
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

/* A program that runs, in a process group of its own, and hears the signals that end programs. It is
 * killed when it is still there at the end of its scope. */
class Program {
 public:
  enum Eyes { kNobody, kTracer }; /* a tracer is the calling thread; see support/trace.h */

  explicit Program(const Words& command, const std::string& input = "", Eyes eyes = kNobody);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t pid() const { return pid_; }
  bool ended();
  Outcome wait();
  /* What it has printed so far. */
  std::string out() const { return out_.bytes(); }
  std::string err() const { return err_.bytes(); }
  /* Somebody else has waited for it: as waitpid tells it. */
  void set_ended(int ended);

 private:
  MemoryFile in_, out_, err_;
  pid_t pid_;
  bool ended_ = false;
  int status_ = 0;
};

/* Runs a command to its end, with this text as its standard input. */
inline Outcome run(const Words& command, const std::string& input = "") {
  return Program(command, input).wait();
}

}  // namespace sc_test

#endif
