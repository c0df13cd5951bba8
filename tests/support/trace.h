/* Programs looked at by ptrace: each system call that they make, before the kernel carries it out and
 * after that. Built for the host alone (SYSCONFIG_TRACE_TESTS); the suites of tests that use it are
 * named Trace....
 */
#ifndef SUPPORT_TRACE_H
#define SUPPORT_TRACE_H

#include <stddef.h>
#include <stdint.h>

#include <functional>

#include "support/program.h"

namespace sc_test {

/* A system call that is about to be made, or (is_done) has just been made. */
struct SystemCall {
  pid_t process;
  size_t number; /* which one of the program's calls, from 1 on, counted over its forks */
  long call;     /* SYS_open and its kin */
  uint64_t arguments[6];
  bool is_done;
  int64_t result; /* of a call that is done: negative errno when it failed */

  /* The text that an argument points to. */
  std::string text(int argument) const;
  /* The bytes that an argument points to. */
  std::string bytes(int argument, size_t size) const;
  /* What a descriptor stands for: a path, or what the kernel calls it. */
  std::string file(int argument) const;
};

/* What becomes of a call that is about to be made. */
struct Fate {
  enum Kind { kMade, kKills, kFails } kind = kMade;
  int error = 0; /* errno of one that fails, which is not made */
};

/* Runs a command and shows each of its system calls, when it is about to be made and when it is done;
 * the answer counts for the former alone. Forks of the program are followed, to their ends, programs
 * that it starts are not. kKills is SIGKILL for the process that makes the call. */
Outcome trace(const Words& command, const std::function<Fate(const SystemCall&)>& look,
              const std::string& input = "");

/* Runs the command again and again, each time from the state that prepare makes, and kills it at its
 * first system call, at its second, and so on, until one run ends by itself. After each run check is
 * called with the number of the call. Returns how many were killed. */
size_t kill_at_every_call(const Words& command, const std::function<void()>& prepare,
                          const std::function<void(size_t)>& check);

}  // namespace sc_test

#endif
