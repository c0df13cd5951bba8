/* Tests of trace itself: what it reports of a program's system calls. */
#include "support/trace.h"

#include <errno.h>
#include <signal.h>
#include <sys/syscall.h>

#include <gtest/gtest.h>

#include "support/world.h"

namespace sc_test {
namespace {

class TraceTest : public World {};

TEST_F(TraceTest, Trace_ShowsEachCallBeforeAndAfterIt) {
  std::vector<std::string> said;
  const Outcome outcome = trace({"sh", "-c", "echo word"}, [&](const SystemCall& call) {
    if (call.call == SYS_write) {
      said.push_back((call.is_done ? "done " : "about to ") +
                     call.bytes(1, static_cast<size_t>(call.arguments[2])));
    }
    return Fate{};
  });
  EXPECT_EQ(outcome, (Outcome{0, "word\n", ""}));
  EXPECT_EQ(said, (std::vector<std::string>{"about to word\n", "done word\n"}));
}

TEST_F(TraceTest, KilledAtACall_DoesNotMakeIt) {
  const Outcome outcome = trace({"sh", "-c", "echo word"}, [](const SystemCall& call) {
    return Fate{call.call == SYS_write ? Fate::kKills : Fate::kMade};
  });
  EXPECT_EQ(outcome, (Outcome{-SIGKILL, "", ""}));
}

TEST_F(TraceTest, AFailingCall_IsNotMadeAndSetsErrno) {
  const Outcome outcome = trace(
      {"tee"},
      [](const SystemCall& call) {
        const bool out = call.call == SYS_write && call.arguments[0] == 1;
        return out ? Fate{Fate::kFails, ENOSPC} : Fate{};
      },
      "word");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_NE(outcome.err.find("No space left"), std::string::npos) << outcome.err;
}

TEST_F(TraceTest, ForksAreFollowed_StartedProgramsAreNot) {
  const auto count = [](const std::string& script) {
    size_t writes = 0;
    trace({"sh", "-c", script}, [&](const SystemCall& call) {
      writes += call.call == SYS_write && !call.is_done;
      return Fate{};
    });
    return writes;
  };
  EXPECT_EQ(count("(echo a; echo b); echo c"), 3u);
  EXPECT_EQ(count("env echo a; echo c"), 1u);
}

TEST_F(TraceTest, KillAtEveryCall_EndsWithTheRunThatIsNotKilled) {
  std::vector<size_t> checked;
  size_t prepared = 0;
  const size_t killed = kill_at_every_call(
      {"sh", "-c", "echo a >/var/word"},
      [&] {
        ++prepared;
        write_file("/var/word", "");
      },
      [&](size_t call) {
        const std::string word = read_file("/var/word");
        EXPECT_TRUE(word.empty() || word == "a\n") << call;
        checked.push_back(call);
      });
  EXPECT_GT(killed, 10u);
  EXPECT_EQ(checked.size(), killed + 1);
  EXPECT_EQ(prepared, killed + 1);
  EXPECT_EQ(read_file("/var/word"), "a\n");
}

}  // namespace
}  // namespace sc_test
