/* What the tests of failing calls share: a fault, what is seen of a run under it, and the fixture that
 * makes the run.
 *
 * Every exported function is run with each of its calls into the C library failing once, and the lists
 * with all calls of one kind failing: the result, the message, the notifications and every byte of the
 * blocks and files are those that the function promises for it; no descriptor stays open and no lock
 * is held. completeness_test.cc watches that no export is left out. */
#ifndef FAULTS_FAULT_WORLD_H
#define FAULTS_FAULT_WORLD_H

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/called.h"
#include "support/faults.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/world.h"

namespace sc_test {

using Codes = std::vector<int32_t>;
using Lines = std::vector<std::string>;

/* One failing call, or all of one name. */
struct Fault {
  size_t number; /* of the failing call, from 1; 0: none fails, kEvery: all of this name */
  std::string call;
  size_t nth; /* of the calls of this name, from 1 */

  bool is(const char* name) const { return call == name; }
  bool every() const { return number == kEvery; }

  static constexpr size_t kEvery = SIZE_MAX;
};
std::ostream& operator<<(std::ostream& stream, const Fault& fault);

inline const Fault kNoFault = {0, "", 0};

/* All of them, or for emulated CPUs as many as SC_TEST_FAULTS says, spread over all from a random
 * one on. */
std::vector<Fault> sample_of(const std::vector<Fault>& all);

/* What is seen of a run from outside of the process, but for its blocks and files. */
struct Seen {
  int64_t result = 0;
  Output output;
  Codes codes;

  bool operator==(const Seen&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Seen& seen);

/* The exports that were called while a call of theirs was to fail, or that made no call that can
 * fail. Child processes write here, too. */
class Tried {
 public:
  /* Whether a call is to fail from here on, in this process. */
  static void begin(bool with_fault);
  static void end(bool made_no_call);
  static bool is(const std::string& name);

 private:
  struct List;
  static List* const list;
  static bool failing;
  static std::vector<AnyFunction> others;

  static bool has(AnyFunction called);
  static void note(AnyFunction called);
  static void add(AnyFunction called);
};

/* How many runs there were. */
struct Tally {
  static inline size_t faults = 0, kills = 0;
};

class FaultWorld : public World {
 protected:
  void SetUp() override;
  void TearDown() override;
  void start_over() {
    TearDown();
    SetUp();
  }

  /* The action under the fault. What it leaves open, locked or reserved fails the test. */
  Seen run(const Fault& fault, const std::function<int64_t()>& action);

  /* The calls of the last run, each as the fault that it can be. */
  std::vector<Fault> faults() const;

  /* The codes that came whole; a connection without bytes is a send that failed. */
  Codes received();

  /* A notification whose socket, connect or send fails is not received, and perror says why. */
  static void lose_notification(const Fault& fault, Seen& expected);

  std::unique_ptr<Listener> listener_;
  Lines calls_;
};

}  // namespace sc_test

#endif
