/* What run tells of a program. */
#include "support/program.h"

#include <signal.h>

#include <gtest/gtest.h>

#include "support/world.h"

namespace sc_test {
namespace {

class ProgramTest : public World {};

TEST_F(ProgramTest, Run_TellsStatusAndBothStreams) {
  EXPECT_EQ(run({"sh", "-c", "cat; echo bad >&2; exit 3"}, "good\n"),
            (Outcome{3, "good\n", "bad\n"}));
}

TEST_F(ProgramTest, RunOfAProgramThatASignalEnds_TellsTheSignal) {
  EXPECT_EQ(run({"sh", "-c", "kill -9 $$"}).status, -SIGKILL);
}

}  // namespace
}  // namespace sc_test
