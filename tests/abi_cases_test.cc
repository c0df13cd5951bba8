/* The exported names, and the C program of abi_test.c. */
#include "abi_test.h"

#include <dlfcn.h>

#include "support/golden.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/world.h"

namespace {

using namespace sc_test;

TEST(Exports, EveryGoldenName_IsFoundInTheLibrary) {
  const auto names = golden_lines("exports.txt");
  EXPECT_EQ(names.size(), 227u);
  for (const std::string& name : names)
    EXPECT_NE(dlsym(RTLD_DEFAULT, name.c_str()), nullptr) << name;
}

struct Family {
  const char* name;
  int (*calls)();
};

class FromC : public World, public testing::WithParamInterface<Family> {};

TEST_P(FromC, AFunctionOfTheFamily_DoesWhatItsPrototypeSays) {
  Listener listener;
  int line = -1;
  capture([&] { line = GetParam().calls(); });
  EXPECT_EQ(line, 0) << "abi_test.c:" << line;
}

INSTANTIATE_TEST_SUITE_P(
    Families, FromC,
    testing::Values(Family{"Utilities", abi_utilities}, Family{"LifeCycle", abi_life_cycle},
                    Family{"Bindings", abi_bindings},
                    Family{"GroupsAndFilters", abi_groups_and_filters}, Family{"Rules", abi_rules},
                    Family{"AccessPoints", abi_access_points}, Family{"Clients", abi_clients}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
