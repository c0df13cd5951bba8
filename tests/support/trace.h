/* Runs programs under ptrace: shows each of their system calls, before and after the kernel
 * executes it. Built for the host only (SYSCONFIG_TRACE_TESTS). The suites of tests that use it are
 * named Trace....
 */
#ifndef SUPPORT_TRACE_H
#define SUPPORT_TRACE_H

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <vector>

#include "support/program.h"

namespace sc_test {

/* A system call that will be made, or (is_done) that has just been made. */
struct SystemCall {
  pid_t process;
  size_t number; /* the number of the call among those of the program and its forks, from 1 on */
  long call;     /* its number, such as SYS_open */
  uint64_t arguments[6];
  bool is_done;
  int64_t result; /* of a finished call: negative errno when it failed */

  /* The text that an argument points to. */
  std::string text(int argument) const;
  /* The bytes that an argument points to. */
  std::string bytes(int argument, size_t size) const;
  /* What a descriptor refers to: a path, or the kernel's name for it. */
  std::string file(int argument) const;
};

/* What happens to a call that will be made. */
struct Fate {
  enum Kind {
    kMade,
    kKills,
    kFails,
    kStops, /* the process is stopped when the call is done, and no longer looked at */
    kLeaves /* the process goes on and is no longer looked at */
  } kind = kMade;
  int error = 0; /* errno of a call that fails; the call is not made */
};

/* Leaves the forks of a program alone. */
Fate without_forks(const SystemCall& call);

/* Runs a command and shows each of its system calls twice: before it is made and after it. Only the
 * answer to the former is used. Forks of the program are followed to their ends; programs that it
 * starts are not. kKills sends SIGKILL to the process that makes the call. */
Outcome trace(const Words& command, const std::function<Fate(const SystemCall&)>& look,
              const std::string& input = "");

/* Looks at the calls of running programs that are not children, until all have ended or are left.
 * The programs that they fork are not looked at. */
void trace_running(const std::vector<pid_t>& programs,
                   const std::function<Fate(const SystemCall&)>& look);

/* Runs the command repeatedly, each time from the state that `prepare` makes. The first run is
 * killed at its first system call, the second at its second, and so on, until a run ends by itself.
 * After each run `check` is called with the number of the call. Returns how many runs were
 * killed. */
size_t kill_at_every_call(const Words& command, const std::function<void()>& prepare,
                          const std::function<void(size_t)>& check);

}  // namespace sc_test

#endif
