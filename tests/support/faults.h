/* Calls into the C library that fail on demand. They are in a separate shared library, below the
 * library and below the calls that the test program itself interposes. The dynamic linker searches
 * it before the C library.
 *
 * The calls: open, fcntl, close, socket, connect, send, shmget, shmat, shmdt, shmctl, mmap,
 * madvise, fopen, fread, fwrite, fclose, access and system. A failing call sets errno and does
 * nothing, with two exceptions: close and fclose do close, and fread and fwrite transfer half.
 */
#ifndef SUPPORT_FAULTS_H
#define SUPPORT_FAULTS_H

#include <set>
#include <string>
#include <vector>

namespace sc_test {

enum class Fate { kFails, kKillsTheProcess };

/* While it lives, this process's calls are counted. Either the call with this number (from 1 on)
 * fails, or the process is killed instead of making that call, or every call of this name fails. */
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
