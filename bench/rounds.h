/* Comparisons, and main() for a program that makes them. Linked with rounds.cc, the sides take
 * turns. A round runs one batch of each side and gives one ratio, so other load on the machine
 * slows all sides alike. The result is the median of the rounds, with the quartiles as the spread.
 * Linked with costs.cc, the instructions of each side are counted.
 */
#ifndef BENCH_ROUNDS_H
#define BENCH_ROUNDS_H

#include <stdint.h>

namespace bench {

using Run = void(int64_t times); /* runs the operation so many times */

struct Side {
  const char* name;
  Run* run;
};

struct Comparison {
  const char* name;
  Side sides[4]; /* unused sides are empty; each ratio is that of the first side to another */
  void (*before_batch)() = [] {}; /* not timed */
  int rounds = 501;
  int64_t most_times = INT64_MAX; /* in a batch */
};

/* With rounds.cc, adds a benchmark with counters for each side: its time in ns, and its ratio to
 * the first side's time with the quartiles. With costs.cc, a line is printed at the end. */
void add(Comparison comparison);

/* With rounds.cc and --only=NAME --side=NAME --times=N it only runs that side so often, for tools
 * that count. */
int run_comparisons(int argc, char** argv);

}  // namespace bench

#endif
