/* Counts instructions in an emulated router. Its clock advances by the same time with each
 * instruction of any program or of the kernel, so the time gives the number of instructions.
 * The argument is how many sides of each comparison are counted. */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "data.h"
#include "rounds.h"

namespace bench {

namespace {

constexpr int64_t kNsPerInstruction = 4; /* 1 << COUNTING_SHIFT of device/box.py */
/* So long that one tick of the kernel's clock makes no difference. */
constexpr int64_t kInstructions = 20'000'000;

constexpr int kMost = 32;
constexpr int kSides = sizeof(Comparison::sides) / sizeof(Side);
Comparison comparisons[kMost];
int comparison_count;

int64_t clock_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * INT64_C(1'000'000'000) + now.tv_nsec;
}

int64_t run_ns(const Side& side, int64_t times) {
  const int64_t start = clock_ns();
  side.run(times);
  return clock_ns() - start;
}

/* Instructions of one operation, in tenths. Work of the first run only, such as making its data, is
 * not counted. */
int64_t tenths(const Comparison& comparison, const Side& side) {
  comparison.before_batch();
  side.run(1);
  int64_t ns = 0, done = 0;
  for (int64_t batch = 1; ns < kInstructions * kNsPerInstruction; batch *= 2) {
    if (batch > comparison.most_times) batch = comparison.most_times;
    comparison.before_batch();
    ns += run_ns(side, batch) - run_ns(side, 0);
    done += batch;
  }
  return 10 * ns / kNsPerInstruction / done;
}

}  // namespace

void add(Comparison comparison) {
  must(comparison_count < kMost, "too many comparisons");
  comparisons[comparison_count++] = comparison;
}

int run_comparisons(int argc, char** argv) {
  static int64_t counts[kMost][kSides];
  const int sides = argc > 1 ? atoi(argv[1]) : 0;
  must(sides > 0 && sides <= kSides, "which sides are to be counted?");
  for (int n = 0; n < comparison_count; ++n) {
    for (int side = 0; side < sides; ++side) {
      counts[n][side] = tenths(comparisons[n], comparisons[n].sides[side]);
    }
  }
  /* The lines are printed at the end, because the console causes interrupts. */
  for (int n = 0; n < comparison_count; ++n) {
    printf("cost");
    for (int side = 0; side < sides; ++side) {
      const int64_t count = counts[n][side];
      printf(" %" PRId64 ".%d", count / 10, static_cast<int>(count % 10));
    }
    printf(" %s\n", comparisons[n].name);
  }
  printf("costs: all counted\n");
  return 0;
}

}  // namespace bench
