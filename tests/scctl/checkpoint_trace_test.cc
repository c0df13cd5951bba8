/* Checkpoints looked at from call to call: their locks, what is on flash before the name is, and what
 * a kill or a failing call leaves. */
#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>

#include "scctl/checkpoint_case.h"
#include "scctl/lock_calls.h"
#include "support/trace.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

class TraceCheckpointTest : public CheckpointTest {
 protected:
  /* Two areas, so that there are not too many calls. */
  void SetUp() override {
    CheckpointTest::SetUp();
    for (const std::string& name : saved_areas()) {
      if (name != "Lan" && name != "Qos") done({"remove", name});
    }
    done({"add", "lan_binds", "mac=00:11:22:33:44:55"});
    done({"checkpoint", "kept"});
  }
  /* Every name is that of a whole checkpoint; unfinished folders are gone after the next command. */
  void expect_none_or_whole(size_t call) {
    const std::string list = done({"checkpoints"});
    EXPECT_EQ(list.find("broken"), list.npos) << "call " << call << "\n" << list;
    EXPECT_TRUE(is_good("kept")) << call;
    done({"checkpoint", "next"});
    for (const std::string& name : names()) EXPECT_NE(name[0], '.') << call;
    done({"checkpoint", "--delete", "next"});
  }
};

/* The kernel could answer another program's wait with EDEADLK. */
TEST_F(TraceCheckpointTest, ItNeverWaitsInTheKernel_AndItsLocksAreShared) {
  for (const bool is_held : {false, true}) {
    LockHolder holder(lock_file(is_held ? "Qos" : "ApUserList"), 5);
    std::set<std::string> locked;
    trace(scctl({"checkpoint", is_held ? "b" : "a"}), [&](const SystemCall& call) {
      const LockCall lock = lock_call(call);
      if (call.is_done || !lock.is_lock) return Fate{};
      EXPECT_FALSE(lock.waits);
      EXPECT_NE(lock.type, F_WRLCK);
      EXPECT_EQ(lock.count, 0); /* to the end of the file and behind it */
      if (lock.type == F_RDLCK) {
        locked.insert(call.file(0).substr(call.file(0).rfind('/') + 1) + " from " +
                      std::to_string(lock.first));
      }
      return Fate{};
    });
    EXPECT_EQ(locked, (std::set<std::string>{"lan_conf_lock from 1", "qos_conf_lock from 2"}));
  }
}

/* Neither for the one moment nor, behind that, for an area alone. */
TEST_F(TraceCheckpointTest, WhileItPauses_ItHoldsNothing) {
  for (const bool is_released : {true, false}) {
    LockHolder holder(lock_file("Qos"), 2);
    std::set<std::string> held;
    int pauses = 0;
    trace(scctl({"checkpoint", "a"}), [&](const SystemCall& call) {
      const LockCall lock = lock_call(call);
      if (call.is_done && lock.is_lock && lock.type == F_UNLCK) held.erase(call.file(0));
      if (call.is_done && lock.is_lock && lock.type == F_RDLCK && call.result == 0) {
        held.insert(call.file(0));
      }
      if (!call.is_done && (call.call == SYS_clock_nanosleep || call.call == SYS_nanosleep)) {
        EXPECT_EQ(held, std::set<std::string>{});
        if (++pauses == 5 && is_released) holder.release();
      }
      return Fate{};
    });
    EXPECT_EQ(listed("a").ends_with("in one moment"), is_released);
    if (is_released) EXPECT_EQ(pauses, 5);
    done({"checkpoint", "--delete", "a"});
  }
}

TEST_F(TraceCheckpointTest, NothingIsWrittenWhileLocksAreHeld) {
  int files = 0;
  trace(scctl({"checkpoint", "a"}), [&](const SystemCall& call) {
    if (call.is_done || call.call != SYS_openat || !(call.arguments[2] & O_CREAT)) return Fate{};
    ++files;
    for (const char* area_name : {"Lan", "Qos"}) {
      EXPECT_FALSE(is_locked(lock_file(area_name), 2)) << call.text(1);
    }
    return Fate{};
  });
  EXPECT_EQ(files, 3);
}

TEST_F(TraceCheckpointTest, AllOfIt_IsOnFlashBeforeItHasItsName) {
  std::vector<std::string> steps;
  trace(scctl({"checkpoint", "a"}), [&](const SystemCall& call) {
    if (!call.is_done || call.result != 0) return Fate{};
    const auto name = [&](int argument) {
      return fs::path(call.file(argument)).lexically_relative(kFolder).string();
    };
    switch (call.call) {
      case SYS_fsync: steps.push_back("sync " + name(0)); break;
      case SYS_syncfs: steps.push_back("sync all"); break;
      case SYS_renameat:
      case SYS_renameat2: steps.push_back("rename " + call.text(1) + " " + call.text(3)); break;
      default: break;
    }
    return Fate{};
  });
  EXPECT_EQ(steps,
            (std::vector<std::string>{"sync .a.new/config_lan.cfg.gz",
                                      "sync .a.new/config_qos.cfg.gz", "sync .a.new/manifest",
                                      "sync .a.new", "rename .a.new a", "sync .", "sync all"}));
}

/* A cut between the two would bring back the name of a checkpoint whose files are gone. */
TEST_F(TraceCheckpointTest, ADeletedOne_HasLostItsNameOnFlashBeforeAFileOfItGoes) {
  std::vector<std::string> steps;
  trace(scctl({"checkpoint", "--delete", "kept"}), [&](const SystemCall& call) {
    if (call.is_done) return Fate{};
    if (call.call == SYS_renameat || call.call == SYS_renameat2) steps.push_back("rename");
    if (call.call == SYS_fsync) steps.push_back("sync " + call.file(0));
    if (call.call == SYS_unlinkat) steps.push_back("remove");
    return Fate{};
  });
  ASSERT_GE(steps.size(), 3u);
  steps.resize(3);
  EXPECT_EQ(steps, (std::vector<std::string>{"rename", std::string("sync ") + kFolder, "remove"}));
}

/* gzip writes by its own calls: those of a file are made when it is synced. */
TEST_F(TraceCheckpointTest, AFile_IsSyncedWhenItIsWhole) {
  std::set<std::string> synced;
  trace(scctl({"checkpoint", "a"}), [&](const SystemCall& call) {
    if (call.is_done || call.call != SYS_fsync) return Fate{};
    const std::string path = call.file(0);
    if (path.ends_with(".gz")) {
      EXPECT_EQ(run({"gzip", "-t", path}).status, 0) << path;
      synced.insert(path);
    }
    return Fate{};
  });
  EXPECT_EQ(synced.size(), 2u);
}

TEST_F(TraceCheckpointTest, KilledAtAnyCall_LeavesNoneOrAWholeOne) {
  size_t none = 0, whole = 0;
  const size_t killed = kill_at_every_call(
      scctl({"checkpoint", "a"}),
      [&] {
        if (names().count("a") == 1) done({"checkpoint", "--delete", "a"});
      },
      [&](size_t call) {
        names().count("a") == 0 ? ++none : ++whole;
        expect_none_or_whole(call);
      });
  EXPECT_GT(killed, 60u);
  EXPECT_GT(none, 50u);
  EXPECT_GT(whole, 3u);
}

TEST_F(TraceCheckpointTest, ADeletionKilledAtAnyCall_LeavesNoneOrAWholeOne) {
  size_t none = 0, whole = 0;
  kill_at_every_call(
      scctl({"checkpoint", "--delete", "a"}),
      [&] {
        if (names().count("a") == 0) done({"checkpoint", "a"});
      },
      [&](size_t call) {
        names().count("a") == 0 ? ++none : ++whole;
        expect_none_or_whole(call);
      });
  EXPECT_GT(none, 5u);
  EXPECT_GT(whole, 5u);
}

/* A failing call before the rename leaves nothing; behind it the checkpoint is there, and whether it
 * is on flash is not known. */
TEST_F(TraceCheckpointTest, ACallThatFails_IsSaid) {
  int failures = 0;
  for (const long number :
       {SYS_fsync, SYS_syncfs, SYS_renameat, SYS_renameat2, SYS_mkdirat, SYS_pipe2}) {
    for (int which = 1;; ++which) {
      int seen = 0;
      bool is_renamed = false;
      const Outcome outcome = trace(scctl({"checkpoint", "a"}), [&](const SystemCall& call) {
        const bool renames = call.call == SYS_renameat || call.call == SYS_renameat2;
        if (call.is_done && renames && call.result == 0) is_renamed = true;
        if (call.is_done || call.call != number || ++seen != which) return Fate{};
        return Fate{Fate::kFails, EIO};
      });
      if (seen < which) {
        done({"checkpoint", "--delete", "a"});
        break;
      }
      ++failures;
      EXPECT_EQ(outcome.status, 3) << number << " " << which;
      EXPECT_TRUE(outcome.err.ends_with(": Input/output error\n")) << outcome.err;
      const std::string said = is_renamed ? "perhaps not on flash" : "not made";
      EXPECT_NE(outcome.err.find("checkpoint a is " + said), std::string::npos) << outcome.err;
      EXPECT_EQ(names(),
                is_renamed ? (std::set<std::string>{"a", "kept"}) : std::set<std::string>{"kept"});
      if (is_renamed) done({"checkpoint", "--delete", "a"});
    }
  }
  EXPECT_EQ(failures, 5 + 1 + 1 + 1 + 2);
}

TEST_F(TraceCheckpointTest, ADryRun_TakesNoLockOfAWriter) {
  done({"clear", "lan_binds"});
  int locks = 0;
  trace(scctl({"rollback", "kept", "--dry-run"}), [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    if (call.is_done || !lock.is_lock) return Fate{};
    ++locks;
    EXPECT_NE(lock.type, F_WRLCK);
    return Fate{};
  });
  EXPECT_GT(locks, 0);
}

}  // namespace
}  // namespace sc_test
