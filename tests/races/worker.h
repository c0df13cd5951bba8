/* One of the processes that race: it adds, modifies, deletes, lists, binds and saves at random, and
 * looks at records under their locks. */
#ifndef RACES_WORKER_H
#define RACES_WORKER_H

#include <stdint.h>

namespace sc_test {

struct Disturbance {
  bool kills, interrupts;
};

/* Until the test says stop. What it finds wrong is a violation. */
void work(uint32_t number, uint64_t seed, Disturbance disturbance);

}  // namespace sc_test

#endif
