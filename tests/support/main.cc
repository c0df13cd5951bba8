/* main() of every test program: the private world first, then the seed, then the tests. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>

#include <gtest/gtest.h>

#include "support/areas.h"
#include "support/random.h"
#include "support/world.h"

namespace {

constexpr char kSeedArgument[] = "--seed=";

/* The seed from the argument or the environment, else a random one. */
uint64_t chosen_seed(int argc, char** argv) {
  const char* given = getenv("SC_TEST_SEED");
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], kSeedArgument, strlen(kSeedArgument)) == 0) {
      given = argv[i] + strlen(kSeedArgument);
    }
  }
  if (given != nullptr) return strtoull(given, nullptr, 0);
  uint32_t seed = 0;
  if (getrandom(&seed, sizeof seed, 0) != sizeof seed) exit(2);
  return seed;
}

}  // namespace

int main(int argc, char** argv) {
  sc_test::enter_private_world();
  sc_test::golden_areas(); /* read before a journal notes what is opened and closed */
  testing::InitGoogleTest(&argc, argv);
  sc_test::set_run_seed(chosen_seed(argc, argv));
  printf("Seed %llu; repeat this run with %s%llu\n",
         static_cast<unsigned long long>(sc_test::run_seed()), kSeedArgument,
         static_cast<unsigned long long>(sc_test::run_seed()));
  return RUN_ALL_TESTS();
}
