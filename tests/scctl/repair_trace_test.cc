/* Checks and repairs looked at from call to call, in the manner of edit_trace_test.cc. */
#include <sysconfig/lan.h>

#include <fcntl.h>
#include <sys/syscall.h>

#include <set>

#include "scctl/edit_trace.h"

namespace sc_test {
namespace {

/* The library counts after it has let the record go: what is one off for a moment is no damage. */
TEST_F(TraceEditTest, ACountThatIsOnItsWay_IsNoFinding) {
  auto& lan = *block_as<LanBlock>("Lan");
  lan.lan_bind_count = 1;
  const auto count_at_pause = [&](const SystemCall& call) {
    if (!call.is_done && (call.call == SYS_clock_nanosleep || call.call == SYS_nanosleep)) {
      lan.lan_bind_count = 0;
    }
    return Fate{};
  };
  EXPECT_EQ(trace(scctl({"check", "Lan"}), count_at_pause),
            (Outcome{0, "areas checked: 1, findings: 0\n", ""}));
}

TEST_F(TraceEditTest, ACountThatArrivesWhileTheTableIsHeld_IsKept) {
  auto& lan = *block_as<LanBlock>("Lan");
  lan.lan_bind_count = 5;
  lan.lan_binds[0].slot_id = 1;
  bool holds_table = false;
  int pauses = 0;
  const Outcome outcome = trace(scctl({"repair", "Lan"}), [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    if (call.is_done && lock.is_lock && lock.count == 32) holds_table = lock.type == F_WRLCK;
    const bool pause = call.call == SYS_clock_nanosleep || call.call == SYS_nanosleep;
    if (!call.is_done && pause && holds_table) {
      ++pauses;
      lan.lan_bind_count = 1; /* as it should be */
    }
    return Fate{};
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(pauses, 1);
  EXPECT_EQ(lan.lan_bind_count, 1u);
}

TEST_F(TraceEditTest, Repair_WaitsForByte0AloneAndGathersWhatItMends) {
  Image damaged = image("Lan");
  damaged.put8(2, 'X').put32(132, 2).put32(1508 + 4, 9).put32(1508 + 748, 9).put32(1504, 9);
  memcpy(block("Lan"), damaged.data(), damaged.size());
  std::vector<std::string> steps;
  trace(scctl({"repair", "Lan"}), [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    if (!call.is_done && lock.is_lock && lock.type == F_WRLCK) {
      steps.push_back((lock.waits ? "wait " : "try ") + std::to_string(lock.first) + "+" +
                      std::to_string(lock.count));
    }
    return Fate{};
  });
  EXPECT_EQ(steps, (std::vector<std::string>{"wait 0+1", "try 1+1", "try 1+1", "try 2+1", "try 2+1",
                                             "try 9+1", "try 3+1", "try 2+32"}));
}

/* The kernel drops all locks of a file with the first of its descriptors that a process closes. */
TEST_F(TraceEditTest, ALockFileThatAnEditHolds_IsOpenedAndClosedOnce) {
  const std::string exported = done({"export", "Lan"});
  for (const Words& words :
       {Words{"add", "lan_binds", "mac=00:11:22:33:44:55"}, Words{"set", "lan_binds/1", "name=a"},
        Words{"repair", "Lan"}, Words{"import", "-"}, Words{"clear", "lan_binds"}}) {
    size_t opened = 0, closed = 0;
    trace(
        scctl(words),
        [&](const SystemCall& call) {
          const bool opens = call.is_done && (call.call == SYS_openat || call.call == SYS_open);
          opened += opens && call.text(call.call == SYS_openat) == lock_file("Lan");
          closed += !call.is_done && call.call == SYS_close && call.file(0) == lock_file("Lan");
          return Fate{};
        },
        exported);
    EXPECT_EQ(opened, 1u) << words[0];
    EXPECT_EQ(closed, 1u) << words[0];
  }
}

TEST_F(TraceEditTest, RepairThatLacksOneOfItsBytes_HoldsNoneWhileItPauses) {
  auto& lan = *block_as<LanBlock>("Lan");
  lan.lan_binds[0].lock_index = 9;
  LockHolder holder(lock_file("Lan"), 9);
  std::set<int64_t> held;
  int pauses = 0;
  const Outcome outcome = trace(scctl({"repair", "Lan"}), [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    if (call.is_done && lock.is_lock && lock.type == F_UNLCK) held.erase(lock.first);
    if (call.is_done && lock.is_lock && lock.type == F_WRLCK && call.result == 0) {
      held.insert(lock.first);
    }
    const bool pause = call.call == SYS_clock_nanosleep || call.call == SYS_nanosleep;
    if (!call.is_done && pause) {
      EXPECT_EQ(held, std::set<int64_t>{0});
      if (++pauses == 5) holder.release();
    }
    return Fate{};
  });
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(pauses, 5);
  EXPECT_EQ(lan.lan_binds[0].lock_index, 2);
}

TEST_F(TraceEditTest, AWordThatAnotherProgramWritesBeforeItIsMended_StaysAsItIs) {
  auto& lan = *block_as<LanBlock>("Lan");
  lan.lan_binds[1].slot_id = 9;
  lan.lan_bind_count = 1;
  Listener listener;
  const Outcome outcome = trace(scctl({"repair", "Lan"}), [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 3) {
      lan.lan_binds[1].slot_id = -1; /* freed */
      lan.lan_bind_count = 0;
    }
    return Fate{};
  });
  EXPECT_EQ(outcome, (Outcome{1,
                              "lan_binds/2: its id word is 9; not mended: another program uses "
                              "it; try again\n"
                              "areas repaired: 1, mended: 0, left: 1\n",
                              ""}));
  EXPECT_EQ(lan.lan_binds[1].slot_id, -1);
  EXPECT_TRUE(listener.codes().empty());
}

TEST_F(TraceEditTest, RepairKilledAtAnyCall_LeavesEachWordOldOrNew) {
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:55"});
  const Image whole = image("Lan");
  Image damaged = whole;
  damaged.put8(2, 'X').put32(1508 + 4, 9).put32(1508 + 748, 9).put32(1504, 9);
  const struct {
    size_t at, size;
  } kWords[] = {{2, 130}, {1508 + 4, 4}, {1508 + 748, 4}, {1504, 4}};
  kill_at_every_call(
      scctl({"repair", "Lan"}), [&] { memcpy(block("Lan"), damaged.data(), damaged.size()); },
      [&](size_t call) {
        Image rest = image("Lan");
        for (const auto& word : kWords) {
          const uint8_t* now = block("Lan") + word.at;
          EXPECT_TRUE(memcmp(now, damaged.data() + word.at, word.size) == 0 ||
                      memcmp(now, whole.data() + word.at, word.size) == 0)
              << call;
          rest.copy(word.at, whole.data() + word.at, word.size);
        }
        EXPECT_TRUE(whole.matches(rest.data())) << call;
      });
  EXPECT_TRUE(whole.matches(block("Lan")));
}

}  // namespace
}  // namespace sc_test
