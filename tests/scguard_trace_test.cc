/* The guard, looked at from call to call: what it leaves when it is killed or when a call fails, and in
 * which order it writes.
 */
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "store/archives.h"
#include "store/saved_lan.h"
#include "support/locks.h"
#include "support/trace.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

const Words kKeep = scguard({"keep", "lan"});
const Words kRestore = scguard({"restore", "lan"});

/* ---- the names of calls ---- */

bool is_open(const SystemCall& call) { return call.call == SYS_openat; }

bool is_write(const SystemCall& call) { return call.call == SYS_write && call.arguments[0] > 2; }

bool is_rename(const SystemCall& call) {
  return call.call == SYS_renameat || call.call == SYS_renameat2;
}

bool is_change_of_owner(const SystemCall& call) {
#ifdef SYS_fchown32
  if (call.call == SYS_fchown32) return true;
#endif
  return call.call == SYS_fchown;
}

/* Those of standard error are the C library's. */
bool is_seek(const SystemCall& call) {
  if (call.arguments[0] <= 2) return false;
#ifdef SYS__llseek
  if (call.call == SYS__llseek) return true;
#endif
  return call.call == SYS_lseek;
}

/* Calls of which each can fail, and none without the guard failing. */
bool counts(const SystemCall& call) {
  static const std::set<long> kCalls = {SYS_openat, SYS_read,   SYS_pread64, SYS_fsync,
                                        SYS_fchmod, SYS_pipe2,  SYS_clone,   SYS_wait4,
                                        SYS_flock,  SYS_syncfs, SYS_dup2,    SYS_execve};
  return kCalls.count(call.call) != 0 || is_write(call) || is_rename(call) ||
         is_change_of_owner(call) || is_seek(call);
}

class TraceScguardTest : public SavedLan {
 protected:
  /* What save_two_states made, again. */
  void put_back() const {
    write_file(kArchive, archive_);
    write_file(kGood, copy_);
    for (const char* path : {kNew, kBad}) fs::remove(path);
  }

  /* Lets one call after the other fail, from the one that opens the lock file on, and hands what came
   * of it to the check, whether a file was being written. */
  void fail_each_call(const Words& command, const std::function<void()>& prepare,
                      const std::function<void(const Outcome&, bool writing)>& check) {
    size_t failed = 0;
    for (bool ended = false; !ended; ++failed) {
      prepare();
      bool begun = false, writing = false;
      size_t left = failed;
      ended = true;
      const Outcome outcome = trace(command, [&](const SystemCall& call) {
        if (call.is_done) return Fate{};
        begun |= is_open(call) && call.text(1) == kLock;
        if (!begun || !counts(call) || !ended || left-- > 0) return Fate{};
        writing = fs::exists(kNew) || (is_open(call) && call.text(1) == "config_lan.new");
        ended = false;
        what_ = std::to_string(call.call) + " as number " + std::to_string(call.number);
        return Fate{Fate::kFails, EIO};
      });
      if (!ended) check(outcome, writing);
    }
    EXPECT_GT(failed, 30u);
  }

  std::string what_; /* failed last */
};

/* ---- kills ---- */

TEST_F(TraceScguardTest, KeepThatIsKilled_LeavesTheOldCopyOrTheNew) {
  save_two_states();
  const size_t kills = kill_at_every_call(
      kKeep, [this] { put_back(); },
      [this](size_t number) {
        EXPECT_TRUE(read_file(kArchive) == archive_) << number;
        const std::string copy = read_file(kGood);
        EXPECT_TRUE(copy == copy_ || copy == archive_) << number;
        EXPECT_EQ(guard({"restore", "lan"}), (Guarded{0, ""})) << number;
        EXPECT_TRUE(read_file(kArchive) == archive_) << number;
        EXPECT_TRUE(read_file(kGood) == archive_) << number;
        EXPECT_FALSE(exists(kNew)) << number;
      });
  EXPECT_GT(kills, 50u);
}

TEST_F(TraceScguardTest, RestoreThatIsKilled_LeavesTheBrokenArchiveOrTheCopy) {
  save_two_states();
  const std::string broken = archive_.substr(0, archive_.size() / 2);
  kill_at_every_call(
      kRestore,
      [&] {
        put_back();
        write_file(kArchive, broken);
      },
      [&](size_t number) {
        const std::string archive = read_file(kArchive);
        EXPECT_TRUE(archive == broken || archive == copy_) << number;
        EXPECT_TRUE(read_file(kGood) == copy_) << number;
        EXPECT_EQ(guard({"restore", "lan"}).status, 0) << number;
        EXPECT_TRUE(read_file(kArchive) == copy_) << number;
        EXPECT_FALSE(exists(kNew)) << number;
      });
}

TEST_F(TraceScguardTest, RestoreThatIsKilledWithoutACopy_LosesNothingOfTheBrokenArchive) {
  kill_at_every_call(
      kRestore,
      [&] {
        fs::remove(kBad);
        write_file(kArchive, "broken");
      },
      [&](size_t number) {
        EXPECT_NE(exists(kArchive), exists(kBad)) << number;
        EXPECT_EQ(read_file(exists(kBad) ? kBad : kArchive), "broken") << number;
      });
}

/* ---- calls that fail ---- */

TEST_F(TraceScguardTest, KeepWithACallThatFails_SaysSoAndLosesNothing) {
  save_two_states();
  fail_each_call(
      kKeep, [this] { put_back(); },
      [this](const Outcome& outcome, bool writing) {
        EXPECT_EQ(outcome.status, 1) << what_;
        EXPECT_EQ(outcome.err.find("scguard: /var/"), 0u) << what_ << outcome;
        EXPECT_TRUE(read_file(kArchive) == archive_) << what_;
        EXPECT_FALSE(exists(kNew)) << what_;
        const std::string copy = read_file(kGood);
        const bool replaced = outcome.err.find("is replaced but") != std::string::npos;
        EXPECT_TRUE(copy == (replaced ? archive_ : copy_)) << what_ << outcome;
        EXPECT_EQ(outcome.err.find("is not kept") != std::string::npos, writing && !replaced)
            << what_ << outcome;
      });
}

TEST_F(TraceScguardTest, RestoreWithACallThatFails_SaysSoAndLosesNothing) {
  save_two_states();
  const std::string broken = archive_.substr(0, archive_.size() / 2);
  fail_each_call(
      kRestore,
      [&] {
        put_back();
        write_file(kArchive, broken);
      },
      [&](const Outcome& outcome, bool) {
        EXPECT_EQ(outcome.status, 1) << what_ << outcome;
        EXPECT_TRUE(read_file(kGood) == copy_) << what_;
        EXPECT_FALSE(exists(kNew)) << what_;
        EXPECT_FALSE(exists(kBad)) << what_;
        const bool replaced = outcome.err.find("is replaced but") != std::string::npos;
        EXPECT_TRUE(read_file(kArchive) == (replaced ? copy_ : broken)) << what_ << outcome;
      });
}

TEST_F(TraceScguardTest, RestoreOfAGoodArchiveWithACallThatFails_NeverPutsTheOldCopyInItsPlace) {
  save_two_states();
  fail_each_call(
      kRestore, [this] { put_back(); },
      [this](const Outcome& outcome, bool) {
        EXPECT_EQ(outcome.status, 1) << what_ << outcome;
        EXPECT_TRUE(read_file(kArchive) == archive_) << what_ << outcome;
        EXPECT_FALSE(exists(kBad)) << what_;
      });
}

/* Fails calls of one kind on one file. */
Outcome with_failing(const Words& command, long number, const std::string& file, int error) {
  return trace(command, [&](const SystemCall& call) {
    const bool meant = !call.is_done && call.call == number && call.file(0) == file;
    return meant ? Fate{Fate::kFails, error} : Fate{};
  });
}

TEST_F(TraceScguardTest, DataThatIsNotOnTheFlash_IsNotRenamed) {
  save_two_states();
  for (const long number : {long{SYS_fsync}, long{SYS_syncfs}}) {
    EXPECT_EQ(with_failing(kKeep, number, kNew, EIO),
              (Outcome{1, "",
                       "scguard: /var/dataconfig/config_lan.bin is not kept: Input/output "
                       "error\n"}));
    expect_unchanged();
  }
}

TEST_F(TraceScguardTest, FolderThatIsNotOnTheFlash_IsTold) {
  for (const long number : {long{SYS_fsync}, long{SYS_syncfs}}) {
    save_two_states();
    EXPECT_EQ(with_failing(kKeep, number, "/var/dataconfig", EIO),
              (Outcome{1, "",
                       "scguard: /var/dataconfig/config_lan.good is replaced but may not be on "
                       "the flash: Input/output error\n"}));
    EXPECT_EQ(read_file(kGood), archive_);
  }
}

TEST_F(TraceScguardTest, FolderThatIsNotOnTheFlashAfterAnArchiveWasSetAside_IsTold) {
  write_file(kArchive, "broken");
  const Outcome outcome = with_failing(kRestore, SYS_fsync, "/var/dataconfig", EIO);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "scguard: /var/dataconfig/config_lan.bin: corrupt or truncated gzip data; there is no "
            "good copy, it is set aside as .bad\n"
            "scguard: /var/dataconfig/config_lan.bad is replaced but may not be on the flash: "
            "Input/output error\n");
}

TEST_F(TraceScguardTest, ArchiveThatCannotBeSetAside_StaysAndThatIsSaid) {
  write_file(kArchive, "broken");
  const Outcome outcome = trace(kRestore, [](const SystemCall& call) {
    return is_rename(call) && !call.is_done ? Fate{Fate::kFails, EIO} : Fate{};
  });
  EXPECT_EQ(outcome,
            (Outcome{1, "",
                     "scguard: /var/dataconfig/config_lan.bin: corrupt or truncated gzip data; "
                     "there is no good copy, it stays\n"}));
  EXPECT_EQ(read_file(kArchive), "broken");
}

/* gzip ends with the same status whether data is bad or cannot be read. */
TEST_F(TraceScguardTest, BrokenArchiveThatCannotBeReadAgain_IsNotKnown) {
  save_two_states();
  archive_ = archive_.substr(0, 100);
  write_file(kArchive, archive_);
  const Outcome outcome = with_failing(kRestore, SYS_pread64, kArchive, EIO);
  EXPECT_EQ(outcome, (Outcome{1, "",
                              "scguard: /var/dataconfig/config_lan.bin: not known: it could not be "
                              "read: Input/output error; nothing is changed\n"}));
  expect_unchanged();
}

TEST_F(TraceScguardTest, CallsThatASignalInterrupts_AreMadeAgain) {
  save_two_states();
  size_t reads = 0, waits = 0;
  const Outcome outcome = trace(kKeep, [&](const SystemCall& call) {
    if (call.is_done) return Fate{};
    const bool is_of_gzip = call.call == SYS_read && call.file(0).starts_with("pipe:");
    if ((is_of_gzip && ++reads == 1) || (call.call == SYS_wait4 && ++waits == 1)) {
      return Fate{Fate::kFails, EINTR};
    }
    return Fate{};
  });
  EXPECT_EQ(outcome, (Outcome{0, "", ""}));
  EXPECT_GT(reads, 1u);
  EXPECT_GT(waits, 1u);
  EXPECT_EQ(read_file(kGood), archive_);
}

/* ---- order ---- */

/* The calls of the guard itself that matter to what a cut leaves, by name and file. */
std::vector<std::string> steps(const Words& command) {
  std::vector<std::string> steps;
  const auto add = [&](const std::string& step) {
    if (steps.empty() || steps.back() != step) steps.push_back(step);
  };
  trace(command, [&](const SystemCall& call) {
    if (call.is_done) return Fate{};
    if (is_write(call)) add("write " + call.file(0));
    if (is_change_of_owner(call)) add("owner " + call.file(0));
    if (call.call == SYS_fchmod) add("mode " + call.file(0));
    if (call.call == SYS_fsync) add("fsync " + call.file(0));
    if (call.call == SYS_syncfs) add("syncfs " + call.file(0));
    if (is_rename(call)) {
      add("rename " + call.file(0) + " " + call.text(1) + " " + call.file(2) + " " + call.text(3));
    }
    return Fate{};
  });
  return steps;
}

std::vector<std::string> steps_to(const std::string& name) {
  const std::string fresh = kNew, folder = "/var/dataconfig";
  return {"write " + fresh,  "owner " + fresh,
          "mode " + fresh,   "fsync " + fresh,
          "syncfs " + fresh, "rename " + folder + " config_lan.new " + folder + " " + name,
          "fsync " + folder, "syncfs " + folder};
}

TEST_F(TraceScguardTest, Keep_WritesSyncsRenamesAndSyncsTheFolder) {
  save_two_states();
  EXPECT_EQ(steps(kKeep), steps_to("config_lan.good"));
  EXPECT_EQ(steps(kKeep), std::vector<std::string>());
}

TEST_F(TraceScguardTest, Restore_WritesSyncsRenamesAndSyncsTheFolder) {
  save_two_states();
  write_file(kArchive, "broken");
  EXPECT_EQ(steps(kRestore), steps_to("config_lan.bin"));
}

TEST_F(TraceScguardTest, SettingAside_SyncsTheFolder) {
  write_file(kArchive, "broken");
  EXPECT_EQ(steps(kRestore),
            (std::vector<std::string>{
                "rename /var/dataconfig config_lan.bin /var/dataconfig config_lan.bad",
                "fsync /var/dataconfig", "syncfs /var/dataconfig"}));
}

TEST_F(TraceScguardTest, OnlyTheLockAndTheFreshFile_AreOpenedForWriting) {
  save_two_states();
  std::vector<std::string> written;
  trace(kKeep, [&](const SystemCall& call) {
    const bool writes = is_open(call) && (call.arguments[2] & O_ACCMODE) != O_RDONLY;
    if (writes && !call.is_done && call.text(1) != "/dev/null") {
      written.push_back(call.text(1));
      if (call.text(1) == "config_lan.new") {
        EXPECT_EQ(call.arguments[2] & (O_EXCL | O_CREAT | O_NOFOLLOW),
                  static_cast<uint64_t>(O_EXCL | O_CREAT | O_NOFOLLOW));
        EXPECT_EQ(call.arguments[3], 0600u); /* until it has its owner and mode */
      }
    }
    return Fate{};
  });
  EXPECT_EQ(written, (std::vector<std::string>{kLock, "config_lan.new"}));
}

/* Of saves and of other guards. */
TEST_F(TraceScguardTest, BothLocks_AreHeldUntilTheFolderIsOnTheFlash) {
  save_two_states();
  const int folder = open("/var/dataconfig", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  size_t calls = 0;
  trace(kKeep, [&](const SystemCall& call) {
    const bool last = call.call == SYS_syncfs && call.file(0) == "/var/dataconfig";
    if (call.is_done || (!is_write(call) && !is_rename(call) && !last)) return Fate{};
    ++calls;
    EXPECT_TRUE(is_locked(kLock, 1)) << call.call;
    EXPECT_NE(flock(folder, LOCK_EX | LOCK_NB), 0) << call.call;
    return Fate{};
  });
  close(folder);
  EXPECT_GE(calls, 3u);
}

TEST_F(TraceScguardTest, LockThatIsNotGranted_StopsBoth) {
  save_two_states();
  for (const Words& command : {kKeep, kRestore}) {
#ifdef SYS_fcntl64
    const long lock = SYS_fcntl64;
#else
    const long lock = SYS_fcntl;
#endif
    EXPECT_EQ(with_failing(command, lock, kLock, ENOLCK),
              (Outcome{1, "",
                       "scguard: /var/lock_store/lan_conf_lock cannot be locked: No locks "
                       "available\n"}));
    expect_unchanged();
  }
}

/* What is copied is what was judged, whatever the name stands for by then. */
TEST_F(TraceScguardTest, ArchiveThatIsExchangedAfterItsVerdict_IsNotCopied) {
  save_two_states();
  trace(kKeep, [&](const SystemCall& call) {
    const bool fresh = is_open(call) && !call.is_done && call.text(1) == "config_lan.new";
    if (fresh) {
      write_file("/var/dataconfig/other", "unjudged");
      fs::rename("/var/dataconfig/other", kArchive);
    }
    return Fate{};
  });
  EXPECT_EQ(read_file(kGood), archive_);
}

/* The kernel of before 5.9 closes no range of descriptors. */
TEST_F(TraceScguardTest, KernelWithoutCloseRange_HasThemClosedOneByOne) {
  save_two_states();
  std::set<uint64_t> closed;
  pid_t guard = 0;
  ASSERT_EQ(dup2(STDIN_FILENO, 900), 900);
  const Outcome outcome = trace(kKeep, [&](const SystemCall& call) {
    if (guard == 0) guard = call.process;
    if (call.call == SYS_close && call.process != guard) closed.insert(call.arguments[0]);
    return call.call == SYS_close_range && !call.is_done ? Fate{Fate::kFails, ENOSYS} : Fate{};
  });
  EXPECT_EQ(outcome, (Outcome{0, "", ""}));
  close(900);
  EXPECT_TRUE(closed.count(900) != 0);
  EXPECT_TRUE(closed.count(1023) != 0);
  EXPECT_FALSE(closed.count(2) != 0);
}

}  // namespace
}  // namespace sc_test
