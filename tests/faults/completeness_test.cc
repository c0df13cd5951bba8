/* No call of the library and no export is left out. */
#include <stdio.h>

#include <set>

#include "faults/fault_world.h"
#include "support/golden.h"

namespace {

using namespace sc_test;

/* Says in the end how many runs there were with a failing call. When all tests were to run, every
 * export was tried. */
class Completeness : public testing::Environment {
 public:
  void TearDown() override {
    printf("%zu runs with a failing call, %zu with a kill\n", Tally::faults, Tally::kills);
    const testing::UnitTest& tests = *testing::UnitTest::GetInstance();
    if (tests.test_to_run_count() != tests.total_test_count()) return;
    for (const std::string& name : golden_lines("exports.txt")) {
      EXPECT_TRUE(Tried::is(name)) << name << " was called under no fault";
    }
  }
};
const auto* const kCompleteness = testing::AddGlobalTestEnvironment(new Completeness);

TEST(EveryImport, FailsInTheTestsAboveOrHasAReasonNotTo) {
  std::set<std::string> fail;
  for (const GoldenRow& row : golden_table("imports.csv")) {
    const bool fails = row.text("fails") == "yes";
    EXPECT_EQ(fails, row.text("why_not").empty()) << row.text("name");
    if (fails) fail.insert(row.text("name"));
  }
  EXPECT_EQ(fail, failing_calls());
}

}  // namespace
