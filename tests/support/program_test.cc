/* What run tells of a program. */
#include "support/program.h"

#include <poll.h>
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

std::string name_of(pid_t pid) { return read_file("/proc/" + std::to_string(pid) + "/comm"); }

/* As under nohup. */
TEST_F(ProgramTest, SignalsThatTheCallerIgnores_EndAProgramAllTheSame) {
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM}) {
    const auto before = signal(number, SIG_IGN);
    Program program({"sleep", "60"});
    signal(number, before);
    for (int ms = 0; ms < 10000 && name_of(program.pid()) != "sleep\n"; ++ms) poll(nullptr, 0, 1);
    kill(program.pid(), number);
    EXPECT_EQ(program.wait().status, -number);
  }
}

}  // namespace
}  // namespace sc_test
