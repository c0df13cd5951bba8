/* Calls into the C library that fail on demand, below the library and below the test program's own
 * interposed calls: a shared library of its own, which the dynamic linker asks before the C library.
 *
 * The calls: open, fcntl, close, socket, connect, send, shmget, shmat, shmdt, shmctl, mmap, madvise,
 * fopen, fread, fwrite, fclose, access and system. One that fails sets errno and does nothing, but
 * for close and fclose, which close, and fread and fwrite, which transfer half.
 */
#ifndef SUPPORT_FAULTS_H
#define SUPPORT_FAULTS_H

#include <set>
#include <string>
#include <vector>

namespace sc_test {

enum class Fate { kFails, kKillsTheProcess };

/* While it lives, this process's calls are counted, and the one of this number (from 1 on) fails, or
 * the process is killed instead of making it; or each call of this name fails. */
class Faults {
 public:
  explicit Faults(size_t failing_call = 0, Fate fate = Fate::kFails);
  explicit Faults(const std::string& failing_name);
  ~Faults();
  Faults(const Faults&) = delete;
  Faults& operator=(const Faults&) = delete;

  /* The names of the calls, in order. */
  std::vector<std::string> calls() const;
};

/* The names of all calls that can fail. */
std::set<std::string> failing_calls();

/* The errno value that a failing call of this name sets. */
int error_of(const std::string& call);

}  // namespace sc_test

#endif
