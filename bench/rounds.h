/* Measuring what is compared in turn: a round runs one batch of each side, so that what the machine
 * does meanwhile hits all sides alike, and gives one ratio. What is reported is the median of the
 * rounds, with the quartiles as the spread.
 */
#ifndef BENCH_ROUNDS_H
#define BENCH_ROUNDS_H

#include <stdint.h>

#include <string>
#include <vector>

namespace bench {

using Run = void(int64_t times); /* the operation, so many times */

struct Side {
  std::string name;
  Run* run;
};

struct Comparison {
  std::string name;
  std::vector<Side> sides;        /* ratios are the first one's to each other one */
  void (*before_batch)() = [] {}; /* off the clock */
  int rounds = 501;
  int64_t most_times = INT64_MAX; /* in a batch */
};

/* Makes it a benchmark with counters for each side: its time in ns, and its ratio to the first
 * side's with the quartiles. */
void add(Comparison comparison);

/* main() of a program of comparisons. With --only=NAME --side=NAME --times=N it runs that side so
 * often and does nothing else, for tools that count. */
int run_comparisons(int argc, char** argv);

}  // namespace bench

#endif
