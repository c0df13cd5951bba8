/* What is compared, and a program's main() for it. Where it is linked with rounds.cc, the sides take
 * turns: a round runs one batch of each side, so that what the machine does meanwhile hits all sides
 * alike, and gives one ratio. What is reported is the median of the rounds, with the quartiles as the
 * spread. Where it is linked with costs.cc, the instructions of each side are counted.
 */
#ifndef BENCH_ROUNDS_H
#define BENCH_ROUNDS_H

#include <stdint.h>

namespace bench {

using Run = void(int64_t times); /* the operation, so many times */

struct Side {
  const char* name;
  Run* run;
};

struct Comparison {
  const char* name;
  Side sides[4]; /* the rest is empty; ratios are the first one's to each other one */
  void (*before_batch)() = [] {}; /* off the clock */
  int rounds = 501;
  int64_t most_times = INT64_MAX; /* in a batch */
};

/* With rounds.cc it becomes a benchmark with counters for each side: its time in ns, and its ratio to
 * the first side's with the quartiles. With costs.cc a line is printed at the end. */
void add(Comparison comparison);

/* With rounds.cc and --only=NAME --side=NAME --times=N it runs that side so
 * often and does nothing else, for tools that count. */
int run_comparisons(int argc, char** argv);

}  // namespace bench

#endif
