/* Tests of what run returns. */
#include "support/program.h"

#include <signal.h>

#include <string>

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

/* The caller ignores signals, as under nohup. */
TEST_F(ProgramTest, SignalsThatTheCallerIgnores_EndAProgramAllTheSame) {
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM}) {
    const auto before = signal(number, SIG_IGN);
    EXPECT_EQ(run({"sh", "-c", "kill -" + std::to_string(number) + " $$"}).status, -number);
    signal(number, before);
  }
}

}  // namespace
}  // namespace sc_test
