#include "support/random.h"

namespace sc_test {

namespace {
uint64_t seed_of_the_run;
}

uint64_t run_seed() { return seed_of_the_run; }
void set_run_seed(uint64_t seed) { seed_of_the_run = seed; }

uint32_t Random::next() {
  state_ += 0x9e3779b97f4a7c15u;
  uint64_t mixed = state_;
  mixed = (mixed ^ mixed >> 30) * 0xbf58476d1ce4e5b9u;
  mixed = (mixed ^ mixed >> 27) * 0x94d049bb133111ebu;
  return static_cast<uint32_t>((mixed ^ mixed >> 31) >> 32);
}

}  // namespace sc_test
