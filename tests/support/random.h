/* Random choices that can be repeated: main() prints the run's seed; --seed=N or the environment
 * variable SC_TEST_SEED sets it. The same seed gives the same choices on every target. */
#ifndef SUPPORT_RANDOM_H
#define SUPPORT_RANDOM_H

#include <stdint.h>

namespace sc_test {

uint64_t run_seed();
void set_run_seed(uint64_t seed);

class Random {
 public:
  explicit Random(uint64_t seed = run_seed()) : state_(seed) {}

  uint32_t next();
  uint32_t below(uint32_t limit) { return next() % limit; }
  bool one_in(uint32_t count) { return below(count) == 0; }

 private:
  uint64_t state_;
};

}  // namespace sc_test

#endif
