/* The guard while it takes a change back, looked at from call to call: what it leaves when it is killed
 * or when a call fails, and in which order it writes. */
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <set>

#include "store/tried.h"
#include "support/locks.h"
#include "support/trace.h"

namespace sc_test {
namespace {

const Words kRestore = scguard({"restore", "lan"});
constexpr char kFolder[] = "/var/dataconfig";

bool is_rename(const SystemCall& call) {
  return call.call == SYS_renameat || call.call == SYS_renameat2;
}

/* Of a file that is not a leftover: that may be missing. */
bool is_removal(const SystemCall& call) {
  return call.call == SYS_unlinkat && !call.text(1).ends_with("new");
}

bool is_write(const SystemCall& call) { return call.call == SYS_write && call.arguments[0] > 2; }

class TraceScguardTryTest : public Tried, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    Tried::SetUp();
    save_two_states_of_both();
  }
  std::string marker() const { return GetParam(); }
};

TEST_P(TraceScguardTryTest, RestoreThatIsKilled_HasEveryBaseBackAfterTheNext) {
  size_t with_marker = 0, without = 0;
  kill_at_every_call(
      kRestore, [this] { try_again(marker()); },
      [&](size_t number) {
        const bool is_marked = exists(kMarker);
        ++(is_marked ? with_marker : without);
        if (is_marked)
          EXPECT_EQ(read_file(kMarker), marker()) << number;
        else
          EXPECT_TRUE(bases_are_back(marker())) << number;
        EXPECT_TRUE(read_file(kGood) == copy_) << number;
        EXPECT_EQ(guard({"restore", "lan"}).status, 0) << number;
        expect_the_bases_alone(marker());
      });
  EXPECT_GT(with_marker, 100u);
  EXPECT_GT(without, 3u);
}

/* The guard's own calls that matter to what a cut leaves. */
std::vector<std::string> steps() {
  std::vector<std::string> steps;
  trace(kRestore, [&](const SystemCall& call) {
    if (call.is_done) return Fate{};
    if (call.call == SYS_fsync) steps.push_back("fsync " + call.file(0));
    if (call.call == SYS_syncfs) steps.push_back("syncfs " + call.file(0));
    if (is_rename(call)) steps.push_back("rename " + call.text(1) + " " + call.text(3));
    if (is_removal(call)) steps.push_back("remove " + call.text(1));
    return Fate{};
  });
  return steps;
}

TEST_P(TraceScguardTryTest, Marker_IsRemovedAfterEveryBaseIsOnTheFlash) {
  const auto put_back = [](const std::string& stem) {
    const std::string fresh = "config_" + stem + ".new";
    return std::vector<std::string>{std::string("fsync /var/dataconfig/") + fresh,
                                    "syncfs /var/dataconfig/" + fresh,
                                    "rename " + fresh + " config_" + stem + ".bin",
                                    "fsync /var/dataconfig", "syncfs /var/dataconfig"};
  };
  const std::vector<std::string> removal = {"fsync /var/dataconfig", "syncfs /var/dataconfig",
                                            "remove try", "fsync /var/dataconfig",
                                            "syncfs /var/dataconfig"};
  try_again(marker());
  const std::vector<std::string> misc = marker() == kMiscHadNone
                                            ? std::vector<std::string>{"remove config_misc.bin"}
                                            : put_back("misc");
  EXPECT_EQ(steps(), joined({put_back("lan"), misc, removal}));
}

/* A restore that was killed may have changed names that are not on the flash. */
TEST_P(TraceScguardTryTest, MarkerBesideBasesThatAreBack_IsRemovedAfterASyncOfTheFolder) {
  try_again(marker());
  EXPECT_EQ(guard({"restore"}).status, 0);
  write_file(kMarker, marker());
  EXPECT_EQ(steps(), (std::vector<std::string>{"fsync /var/dataconfig", "syncfs /var/dataconfig",
                                               "remove try", "fsync /var/dataconfig",
                                               "syncfs /var/dataconfig"}));
}

TEST_P(TraceScguardTryTest, AllLocks_AreHeldFromTheFirstBaseToTheRemovalOfTheMarker) {
  try_again(marker());
  const int folder = open(kFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  size_t calls = 0;
  bool has_marker = true;
  trace(kRestore, [&](const SystemCall& call) {
    if (call.is_done || !has_marker) {
      has_marker = has_marker && exists(kMarker);
      return Fate{};
    }
    if (!is_write(call) && !is_rename(call) && !is_removal(call)) return Fate{};
    ++calls;
    EXPECT_TRUE(is_locked(kLock, 1)) << call.call;
    EXPECT_TRUE(is_locked(kMiscLock, 1)) << call.call;
    EXPECT_NE(flock(folder, LOCK_EX | LOCK_NB), 0) << call.call;
    return Fate{};
  });
  close(folder);
  EXPECT_GE(calls, 4u);
}

/* Calls of which each can fail, and none without the guard failing. */
bool counts(const SystemCall& call) {
  static const std::set<long> kCalls = {SYS_openat, SYS_read,   SYS_pread64, SYS_fsync, SYS_fchmod,
                                        SYS_pipe2,  SYS_clone,  SYS_wait4,   SYS_flock, SYS_syncfs,
                                        SYS_dup2,   SYS_execve, SYS_fchown};
  return kCalls.count(call.call) != 0 || is_write(call) || is_rename(call) || is_removal(call);
}

TEST_P(TraceScguardTryTest, RestoreWithACallThatFails_SaysSoAndLosesNoBase) {
  size_t failed = 0;
  for (bool ended = false; !ended; ++failed) {
    try_again(marker());
    bool begun = false;
    size_t left = failed;
    std::string what;
    ended = true;
    const Outcome outcome = trace(kRestore, [&](const SystemCall& call) {
      if (call.is_done || !ended) return Fate{};
      /* The first lock file is opened after the program is loaded. */
      begun |= call.call == SYS_openat && call.text(1) == kLock;
      if (!begun || !counts(call)) return Fate{};
      if (call.call == SYS_openat && call.text(1).ends_with("_conf_lock") && !exists(call.text(1)))
        return Fate{};
      if (left-- > 0) return Fate{};
      ended = false;
      what = std::to_string(call.call) + " as number " + std::to_string(call.number);
      return Fate{Fate::kFails, EIO};
    });
    EXPECT_EQ(outcome.status, ended ? 0 : 1) << what << outcome;
    if (ended) break;
    EXPECT_EQ(outcome.err.find("scguard: /var/"), 0u) << what << outcome;
    EXPECT_TRUE(read_file(kGood) == copy_) << what << outcome;
    if (exists(kMarker))
      EXPECT_EQ(read_file(kMarker), marker()) << what;
    else
      EXPECT_TRUE(bases_are_back(marker())) << what << outcome;
    EXPECT_EQ(guard({"restore", "lan"}).status, 0) << what;
    expect_the_bases_alone(marker());
  }
  EXPECT_GT(failed, 60u);
}

INSTANTIATE_TEST_SUITE_P(TraceEachBase, TraceScguardTryTest,
                         testing::Values(kBothGood, kMiscHadNone),
                         [](const testing::TestParamInfo<const char*>& marker) {
                           return std::string(marker.param) == kMiscHadNone ? "None" : "Good";
                         });

class TraceScguardTryFlashTest : public Tried {};

TEST_F(TraceScguardTryFlashTest, FolderThatIsNotOnTheFlashWithoutTheMarker_IsTold) {
  save_two_states_of_both();
  try_again(kBothGood);
  bool is_removed = false;
  const Outcome outcome = trace(kRestore, [&](const SystemCall& call) {
    is_removed |= is_removal(call) && call.text(1) == "try";
    const bool fails = is_removed && !call.is_done && call.call == SYS_syncfs;
    return fails ? Fate{Fate::kFails, EIO} : Fate{};
  });
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("scguard: /var/dataconfig/try: it may stay: Input/output error\n"),
            std::string::npos)
      << outcome;
  EXPECT_EQ(outcome.err.find("is taken back"), std::string::npos) << outcome;
}

}  // namespace
}  // namespace sc_test
