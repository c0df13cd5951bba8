/* A try whose processes are killed or stopped, one at each of their system calls: it is taken back
 * in time as a whole, or it was confirmed as a whole.
 */
#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <set>
#include <sstream>

#include "scctl/lock_calls.h"
#include "scctl/tries.h"
#include "support/trace.h"

namespace sc_test {
namespace {

/* The end of a try may be so late on a loaded machine; device/try_times measures it. */
constexpr int kLateMs = 10000;
/* Archives are read through a pipe, by as many calls as it takes. */
constexpr size_t kMoreOrLess = 16;

class TraceTryTest : public TrySeries {
 protected:
  /* Two areas with saved records, and a change of both. */
  void SetUp() override {
    World::SetUp();
    start_areas({"Lan", "Clients"});
    write_file(kBatch,
               "add lan_binds/1 mac=00:11:22:33:44:01 ip=10.0.0.1 name=one\n"
               "add clients/1 client_mac=02:00:00:00:00:01 text_52=laptop\n");
    done({"batch", kBatch});
    done({"save", "Lan", "Clients"});
    before_ = live();
    flash_ = flash();
    write_file(kBatch,
               "set lan_binds/1 name=tried\n"
               "add lan_binds/7 mac=00:11:22:33:44:07 ip=10.0.0.7\n"
               "del clients/1\n");
    start_try();
    after_ = live();
    revert();
    unlink("/var/systemconfig/scctl/log");
  }

  /* Makes the store again, in another world. */
  void make_again() {
    for (const auto& [name, image] : before_) memcpy(block(name), image.data(), image.size());
    for (const auto& [name, bytes] : flash_) write_file("/var/dataconfig/" + name, bytes);
  }

  /* What a run in a world of its own counts. */
  size_t counted(const std::function<size_t()>& run) {
    void* page =
        mmap(nullptr, sizeof(size_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* count = static_cast<size_t*>(page);
    for_each(1, 1, [&](size_t) {
      make_again();
      *count = run();
    });
    const size_t found = *count;
    munmap(page, sizeof(size_t));
    return found;
  }
  /* The number of calls that a program itself makes. */
  static size_t calls_of(const Words& command) {
    size_t calls = 0;
    trace(command,
          [&](const SystemCall& call) { return is_counted(call, &calls), without_forks(call); });
    return calls;
  }
  /* Kills or stops a program at its call n. */
  static void end_at(const Words& command, size_t n, Fate::Kind kind) {
    size_t calls = 0;
    trace(command, [&](const SystemCall& call) {
      return is_counted(call, &calls) && calls == n ? Fate{kind} : without_forks(call);
    });
    EXPECT_GE(calls + kMoreOrLess, n);
  }

  /* All as before, and nothing of the try is left. */
  bool is_taken_back() { return is_over() && !exists(kMarkerFile) && is_live(before_); }
  void expect_taken_back(size_t n, int ms) {
    if (!becomes([&] { return is_taken_back(); }, ms)) {
      EXPECT_TRUE(is_over()) << n;
      EXPECT_FALSE(exists(kMarkerFile)) << n;
      EXPECT_FALSE(exists("/var/systemconfig/scctl/waiting")) << n;
      expect_live(before_, std::to_string(n));
    }
  }
  /* The archives hold what is live, and the kept copies are theirs. */
  void expect_saved(size_t n) {
    for (const std::string& area : started_areas()) {
      std::filesystem::path copy = golden_area(area).archive_path;
      copy.replace_extension("good");
      EXPECT_EQ(run_scctl({"diff", copy, "live"}), (Outcome{0, "", ""})) << n;
    }
    EXPECT_EQ(run_scctl({"diff", "saved", "live"}), (Outcome{0, "", ""})) << n;
  }

  Images before_, after_;
  std::map<std::string, std::string> flash_;

 private:
  /* Counts a call of the program itself. Those by which it waits are as many as it takes. */
  static bool is_counted(const SystemCall& call, size_t* calls) {
    const bool waits = call.call == SYS_clock_nanosleep || call.call == SYS_nanosleep ||
                       (call.call == SYS_fcntl && call.arguments[1] == F_GETLK);
    if (call.is_done || waits || without_forks(call).kind == Fate::kLeaves) return false;
    ++*calls;
    return true;
  }
};

TEST_F(TraceTryTest, TheCallerKilledAtAnyCall_IsTakenBackInTime) {
  const size_t calls = counted([] { return calls_of(try_batch(60)); });
  for_each(calls, 12, [&](size_t n) {
    make_again();
    end_at(try_batch(3), n, Fate::kKills);
    /* Before its guards are there, it has changed nothing. The next call removes its file. */
    if (!is_over() && !has_guards()) {
      expect_live(before_, std::to_string(n));
      EXPECT_FALSE(exists(kMarkerFile)) << n;
      run_scctl({"tables"});
    }
    expect_taken_back(n, 3000 + kLateMs);
  });
}

/* The journal knows of the marker before it is there. */
TEST_F(TraceTryTest, TheCallerKilledBehindItsMarker_LeavesNone) {
  bool is_there = false;
  trace(try_batch(60), [&](const SystemCall& call) {
    if (without_forks(call).kind == Fate::kLeaves) return without_forks(call);
    if (is_there) return Fate{Fate::kKills};
    is_there = call.is_done && call.call == SYS_renameat && call.file(2) == "/var/dataconfig" &&
               call.text(3) == "try";
    return Fate{};
  });
  EXPECT_TRUE(is_there);
  expect_taken_back(0, kLateMs);
}

/* What the program changed is in the journal before the header says so. */
TEST_F(TraceTryTest, ATryOfAProgramKilledBehindItsJournal_IsTakenBack) {
  constexpr size_t kIsCommandAt = 12;
  bool is_command = false, is_due = false;
  const Words command = joined(Words{"try", "--"}, scctl({"batch", kBatch}));
  trace(scctl(command), [&](const SystemCall& call) {
    if (without_forks(call).kind == Fate::kLeaves) return without_forks(call);
    if (is_due) return Fate{Fate::kKills};
    if (call.is_done && call.call == SYS_pwrite64 && call.file(0) == kTryFile &&
        call.arguments[3] == 0) {
      const bool was_command = is_command;
      is_command = call.bytes(1, kIsCommandAt + 1)[kIsCommandAt] != 0;
      is_due = was_command && !is_command;
    }
    return Fate{};
  });
  EXPECT_TRUE(is_due);
  expect_taken_back(0, kLateMs);
}

/* Kills a process and all that it started, which may be stopped for good. */
void kill_tree(pid_t pid) {
  const std::string id = std::to_string(pid);
  std::istringstream children(read_file("/proc/" + id + "/task/" + id + "/children"));
  for (pid_t child; children >> child;) kill_tree(child);
  kill(pid, SIGKILL);
}

TEST_F(TraceTryTest, TheCallerStoppedAtAnyCall_IsTakenBackInTime) {
  const size_t calls = counted([] { return calls_of(try_batch(60)); });
  for_each(calls, 24,
           [&](size_t n) { /* each lasts up to the deadline */
                           make_again();
                           const Child caller([&] { end_at(try_batch(1), n, Fate::kStops); });
                           pause_ms(500);
                           if (!becomes([&] { return is_taken_back(); }, 500 + 1000 + kLateMs)) {
                             /* It was stopped before its guards were there: the next call ends the try. */
                             EXPECT_FALSE(has_guards()) << n;
                             run_scctl({"tables"});
                           }
                           expect_taken_back(n, kLateMs);
                           kill_tree(caller.pid());
           });
}

TEST_F(TraceTryTest, RevertKilledAtAnyCall_IsGoneOnWith) {
  const size_t calls = counted([&] {
    start_try();
    return calls_of(scctl({"revert"}));
  });
  for_each(calls, 12, [&](size_t n) {
    make_again();
    start_try(3);
    end_at(scctl({"revert"}), n, Fate::kKills);
    expect_taken_back(n, 3000 + kLateMs);
  });
}

TEST_F(TraceTryTest, ConfirmKilledAtAnyCall_HasKeptAllOrNothing) {
  const size_t calls = counted([&] {
    start_try();
    return calls_of(scctl({"confirm"}));
  });
  for_each(calls, 24, [&](size_t n) {
    make_again();
    /* Most are taken back at once by hand; some wait for the guards. */
    const bool by_hand = n % 5 != 0;
    start_try(by_hand ? 60 : 3);
    end_at(scctl({"confirm"}), n, Fate::kKills);
    const bool is_confirmed = !exists(kMarkerFile);
    if (by_hand && !is_confirmed) EXPECT_EQ(run_scctl({"revert"}).status, 0) << n;
    EXPECT_TRUE(becomes(is_over, 3000 + kLateMs)) << n;
    expect_live(is_confirmed ? after_ : before_, std::to_string(n));
    EXPECT_FALSE(exists(kMarkerFile)) << n;
    expect_saved(n);
    if (is_confirmed) {
      EXPECT_NE(done({"log"}).find("  try --timeout"), std::string::npos) << n;
    }
  });
}

TEST_F(TraceTryTest, ConfirmKilledWhileItSaves_CanBeRepeated) {
  start_try(60);
  bool is_killed = false;
  trace(scctl({"confirm"}), [&](const SystemCall& call) {
    const bool forks = call.call == SYS_clone || call.call == SYS_clone3 || call.call == SYS_vfork;
    if (call.is_done || !forks || is_killed) return Fate{};
    is_killed = true;
    return Fate{Fate::kKills};
  });
  EXPECT_TRUE(is_killed);
  EXPECT_TRUE(exists(kMarkerFile));
  /* The guards give the try back as one that is made. */
  EXPECT_TRUE(becomes([&] { return run_scctl({"try", "--timeout", "30"}).status == 0; }, 1500));
  EXPECT_EQ(run_scctl({"confirm"}).status, 0);
  expect_live(after_);
  expect_saved(0);
}

/* ---- guards ---- */

class TraceGuardTest : public TraceTryTest {
 protected:
  /* Kills or stops a guard at the call n that it makes as the one who takes the try back. Returns how
   * many it made. */
  size_t end_guard_at(size_t n, Fate::Kind kind) {
    start_try(2);
    pid_t actor = 0;
    size_t calls = 0;
    bool is_ended = false;
    trace_running({holder(kGuardByte), holder(kTwinByte)}, [&](const SystemCall& call) {
      if (is_ended) return Fate{Fate::kLeaves};
      /* A guard takes a process that is looked at for one that was stopped. */
      if (!call.is_done && call.call == SYS_kill) return Fate{Fate::kFails, EPERM};
      const LockCall lock = lock_call(call);
      if (call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == kActorByte &&
          call.result == 0 && call.file(0) == kStateLocks) {
        if (actor == 0) actor = call.process;
      } else if (!call.is_done && call.process == actor && ++calls == n) {
        is_ended = true;
        return Fate{kind};
      }
      return Fate{};
    });
    return calls;
  }
};

TEST_F(TraceGuardTest, AGuardKilledAtAnyCallWhileItTakesBack_IsReplaced) {
  const size_t calls = counted([&] { return end_guard_at(SIZE_MAX, Fate::kMade); });
  EXPECT_GT(calls, 100u);
  for_each(calls, 12, [&](size_t n) {
    make_again();
    EXPECT_EQ(end_guard_at(n, Fate::kKills), n);
    expect_taken_back(n, kLateMs);
  });
}

TEST_F(TraceGuardTest, AGuardStoppedAtAnyCallWhileItTakesBack_IsReplaced) {
  const size_t calls = counted([&] { return end_guard_at(SIZE_MAX, Fate::kMade); });
  for_each(calls, 12, [&](size_t n) {
    make_again();
    EXPECT_EQ(end_guard_at(n, Fate::kStops), n);
    expect_taken_back(n, kLateMs);
  });
}

TEST_F(TraceGuardTest, AGuardKilledBeforeItAnnounces_LeavesNoAreaUntold) {
  Listener listener;
  start_try(2);
  listener.codes();
  bool is_killed = false;
  trace_running({holder(kGuardByte), holder(kTwinByte)}, [&](const SystemCall& call) {
    if (is_killed) return Fate{Fate::kLeaves};
    if (!call.is_done && call.call == SYS_kill) return Fate{Fate::kFails, EPERM};
    is_killed = !call.is_done && call.call == SYS_connect && is_live(before_);
    return Fate{is_killed ? Fate::kKills : Fate::kMade};
  });
  EXPECT_TRUE(is_killed);
  expect_taken_back(0, kLateMs);
  std::vector<int32_t> codes = listener.codes();
  std::sort(codes.begin(), codes.end());
  EXPECT_EQ(codes, (std::vector<int32_t>{1, 18}));
}

TEST_F(TraceGuardTest, WhatAGuardDoes_NeverWaitsInTheKernelForALock) {
  start_try(2);
  size_t locks = 0;
  trace_running({holder(kGuardByte), holder(kTwinByte)}, [&](const SystemCall& call) {
    if (!call.is_done && call.call == SYS_kill) return Fate{Fate::kFails, EPERM};
    const LockCall lock = lock_call(call);
    locks += lock.is_lock;
    EXPECT_FALSE(lock.waits) << call.file(0) << " byte " << lock.first;
    return Fate{};
  });
  EXPECT_GT(locks, 20u);
  expect_taken_back(0, 0);
}

TEST_F(TraceGuardTest, WhileOneGuardIsKilledAgainAndAgain_TheOtherReplacesIt) {
  start_try(4);
  for (int n = 0; n < 6; ++n) {
    const off_t byte = n % 2 == 0 ? kGuardByte : kTwinByte;
    const pid_t guard = holder(byte);
    ASSERT_GT(guard, 0);
    kill(guard, n < 3 ? SIGKILL : SIGSTOP);
    EXPECT_TRUE(becomes([&] { return holder(byte) != 0 && holder(byte) != guard; }, 1000)) << n;
  }
  EXPECT_FALSE(is_over());
  expect_live(after_);
  EXPECT_TRUE(becomes(is_over));
  expect_live(before_);
}

/* Both at once, so that neither can replace the other. */
void kill_both_guards() {
  const pid_t guards[] = {holder(kGuardByte), holder(kTwinByte)};
  for (const pid_t guard : guards) kill(guard, SIGSTOP);
  for (const pid_t guard : guards) kill(guard, SIGKILL);
  EXPECT_TRUE(becomes([] { return !has_guards(); }));
}

TEST_F(TraceGuardTest, BothKilledBeforeTheDeadline_TheNextCallStartsThemAgain) {
  const auto begin = Clock::now();
  start_try(4);
  kill_both_guards();
  const Outcome outcome = run_scctl({"tables"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "scctl: the guards of the try were killed; they are started again\n");
  EXPECT_TRUE(holder(kGuardByte) != 0 && holder(kTwinByte) != 0);
  EXPECT_EQ(run_scctl({"tables"}).err, "");
  EXPECT_TRUE(becomes(is_over));
  EXPECT_GE(ms_since(begin), 4000);
  expect_taken_back(0, 0);
}

TEST_F(TraceGuardTest, BothKilledAndTheDeadlineOver_TheNextCallTakesBack) {
  start_try(1);
  kill_both_guards();
  pause_ms(1200);
  expect_live(after_);
  const Outcome outcome = run_scctl({"tables"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(
      outcome.err,
      "scctl: the guards of the try were killed; it is ended now, scctl try --status tells how\n");
  expect_taken_back(0, 0);
}

TEST_F(TraceGuardTest, AGuardThatIsAZombie_CountsAsDead) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); /* the guards become children of this process */
  start_try(3);
  const pid_t guard = holder(kGuardByte), twin = holder(kTwinByte);
  kill(guard, SIGKILL);
  EXPECT_TRUE(becomes([&] { return holder(kGuardByte) != 0 && holder(kGuardByte) != guard; }));
  EXPECT_NE(read_file("/proc/" + std::to_string(guard) + "/stat").find(") Z "), std::string::npos);
  EXPECT_EQ(holder(kTwinByte), twin);
  EXPECT_TRUE(becomes(is_over));
  expect_live(before_);
  EXPECT_TRUE(becomes([] { return !has_guards(); }));
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

/* ---- what a revert locks, and what an edit logs ---- */

using TraceRevertTest = TryTest;

/* As the library takes them: a template's byte first, then, while it is held, the access point's. */
TEST_F(TraceRevertTest, ABinding_GoesBackUnderBothBytesInTheirOrder) {
  make_store();
  start_try_of("unbind ap_templates/2\nbind ap_templates/2 aps/2\n");
  std::vector<std::string> steps;
  trace(scctl({"revert"}), [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    if (call.is_done || !lock.is_lock || lock.first < 2) return Fate{};
    const bool is_template = call.file(0) == lock_file("ApTemplateList");
    if (!is_template && call.file(0) != lock_file("ManageApList")) return Fate{};
    const std::string whose = is_template ? "template" : "ap " + std::to_string(lock.first - 1);
    if (lock.type == F_WRLCK) steps.push_back(whose + (lock.waits ? " waits" : ""));
    if (lock.type == F_UNLCK) steps.push_back(whose + " free");
    return Fate{};
  });
  /* Before, access points are read; behind it, they have nothing left to go back. */
  steps.erase(steps.begin(), std::find(steps.begin(), steps.end(), "template"));
  ASSERT_GE(steps.size(), 8u);
  steps.resize(8);
  EXPECT_EQ(steps, (std::vector<std::string>{"template", "ap 2", "ap 2 free", "template free",
                                             "template", "ap 1", "ap 1 free", "template free"}));
}

/* Groups return before their rules, and go behind them. */
TEST_F(TraceRevertTest, WhileARevertWrites_EachRuleHasItsGroup) {
  make_store();
  const Images before = live();
  start_try_of(
      "del ip_groups/2\nadd ip_groups/9 leading_text=new\n"
      "set ip_filter/5 ip_group_id=9\nadd qos/9 ip_mode=1 ip_group_id=9\n");
  const auto& groups = block_as<IpGroupBlock>("IpGroup")->groups;
  std::set<std::string> lost;
  const auto look = [&](const char* table, const auto& rules) {
    for (const auto& rule : rules) {
      if (rule.slot_id < 0 || rule.ip_mode != 1 || groups[rule.ip_group_id - 1].slot_id > 0)
        continue;
      lost.insert(table + std::to_string(rule.slot_id));
    }
  };
  trace(scctl({"revert"}), [&](const SystemCall&) {
    look("ip_filter/", block_as<FwIpportBlock>("FwIpport")->rules);
    look("qos/", block_as<QosBlock>("Qos")->rules);
    return Fate{};
  });
  EXPECT_EQ(lost, std::set<std::string>());
  expect_live(before);
}

TEST_F(TraceTryTest, AnEditKilledAtAnyCall_IsInTheLogIfItWasMade) {
  const Words edit = scctl({"set", "lan_binds/1", "name=edited"});
  const size_t calls = counted([&] { return calls_of(edit); });
  for_each(calls, 12, [&](size_t n) {
    make_again();
    end_at(edit, n, Fate::kKills);
    const bool is_made = !is_live(before_);
    const bool is_logged = done({"log"}).find("set lan_binds/1 'name=edited'") != std::string::npos;
    EXPECT_TRUE(is_logged || !is_made) << n;
    if (is_logged) run_scctl({"undo"});
    expect_live(before_, std::to_string(n));
  });
}

}  // namespace
}  // namespace sc_test
