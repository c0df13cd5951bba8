/* The guard where a marker says that nobody confirmed a change: restore takes it back, keep leaves it
 * alone. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "store/tried.h"
#include "support/areas.h"
#include "support/locks.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

std::string lines(const Words& said) {
  std::string all;
  for (const std::string& line : said) all += "scguard: " + line + "\n";
  return all;
}

const std::string kLan = "/var/dataconfig/config_lan.bin";
const std::string kMisc = "/var/dataconfig/config_misc.bin";
const std::string kTry = "/var/dataconfig/try";
const std::string kIsBack = ": nobody has confirmed its change; the last good copy is back";
const std::string kIsRemoved = ": nobody has confirmed the area's first save; it is removed";
const std::string kTakenBack = "a change that nobody confirmed is taken back: ";
const std::string kStays = kTry + ": it stays, and the next restore tries again";
const std::string kCut = ": corrupt or truncated gzip data";
const std::string kNotWhole = "; the set of areas is not whole";
const std::string kBrokenMarker = kTry + ": not a whole marker of a try";
const std::string kNothingIsChanged = "; nothing is changed";

class ScguardTryTest : public Tried {
 protected:
  void SetUp() override {
    Tried::SetUp();
    save_two_states_of_both();
  }
};

/* ---- bases ---- */

TEST_F(ScguardTryTest, Restore_PutsEachBaseBackAndRemovesTheMarker) {
  try_again(kBothGood);
  EXPECT_EQ(guard({"restore"}),
            (Guarded{0, lines({kLan + kIsBack, kMisc + kIsBack, kTakenBack + "lan misc"})}));
  expect_the_bases_alone(kBothGood);
  EXPECT_EQ(guard({"restore"}), (Guarded{0, ""}));
}

TEST_F(ScguardTryTest, RestoreOfOneArea_TakesBackAllThatAreMarked) {
  for (const char* name : {"lan", "Misc", "wan"}) {
    try_again(kBothGood);
    EXPECT_EQ(guard({"restore", name}),
              (Guarded{0, lines({kLan + kIsBack, kMisc + kIsBack, kTakenBack + "lan misc"})}))
        << name;
    expect_the_bases_alone(kBothGood);
  }
}

TEST_F(ScguardTryTest, AreaThatWasNeverSaved_LosesItsArchive) {
  try_again(kMiscHadNone);
  EXPECT_EQ(guard({"restore"}),
            (Guarded{0, lines({kLan + kIsBack, kMisc + kIsRemoved, kTakenBack + "lan misc"})}));
  expect_the_bases_alone(kMiscHadNone);
}

TEST_F(ScguardTryTest, AreaThatWasNeverSaved_LosesABrokenArchive) {
  try_again(kMiscHadNone);
  write_file(kMiscArchive, "cut");
  EXPECT_EQ(guard({"restore", "misc"}),
            (Guarded{0, lines({kLan + kIsBack, kMisc + kIsRemoved, kTakenBack + "lan misc"})}));
  expect_the_bases_alone(kMiscHadNone);
  EXPECT_FALSE(exists("/var/dataconfig/config_misc.bad"));
}

TEST_F(ScguardTryTest, AreasThatNobodySaved_AreNotWritten) {
  try_again(kMiscHadNone);
  fs::remove(kMiscArchive);
  write_file(kArchive, copy_);
  write_file(kNew, "half"); /* of a keep that was cut */
  struct stat before, after;
  ASSERT_EQ(stat(kArchive, &before), 0);
  EXPECT_EQ(guard({"restore"}), (Guarded{0, lines({kTakenBack + "lan misc"})}));
  ASSERT_EQ(stat(kArchive, &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  expect_the_bases_alone(kMiscHadNone);
}

TEST_F(ScguardTryTest, ArchiveThatASaveLeftBrokenOrMissing_IsReplacedByTheBase) {
  try_again(kBothGood);
  write_file(kArchive, "cut");
  fs::remove(kMiscArchive);
  EXPECT_EQ(guard({"restore"}),
            (Guarded{0, lines({kLan + kCut + "; the last good copy is back",
                               kMisc + ": No such file or directory; the last good copy is back",
                               kTakenBack + "lan misc"})}));
  expect_the_bases_alone(kBothGood);
}

TEST_F(ScguardTryTest, AreasThatAreNotMarked_AreRestoredAsEver) {
  try_again("sysconfig try 1\nlan good\nend\n");
  EXPECT_EQ(guard({"restore"}), (Guarded{0, lines({kLan + kIsBack, kTakenBack + "lan"})}));
  EXPECT_TRUE(read_file(kArchive) == copy_);
  EXPECT_TRUE(read_file(kMiscArchive) == misc_archive_);
  EXPECT_TRUE(read_file(kMiscGood) == misc_archive_);
}

TEST_F(ScguardTryTest, MarkerOfNoArea_IsRemoved) {
  try_again("sysconfig try 1\nend\n");
  EXPECT_EQ(guard({"restore"}), (Guarded{0, ""}));
  EXPECT_FALSE(exists(kMarker));
  EXPECT_TRUE(read_file(kGood) == archive_);
}

TEST_F(ScguardTryTest, MarkerOfAllAreas_IsTakenBackAndEachIsNamed) {
  for (const auto& file : fs::directory_iterator("/var/dataconfig")) fs::remove(file);
  std::string marker = "sysconfig try 1\n", names;
  for (const std::string& name : saved_area_names()) {
    const std::string stem = fs::path(golden_area(name).archive_path).stem().string().substr(7);
    marker += stem + " none\n";
    names += (names.empty() ? "" : " ") + stem;
  }
  write_file(kMarker, marker + "end\n");
  EXPECT_EQ(guard({"restore"}), (Guarded{0, lines({kTakenBack + names})}));
  EXPECT_TRUE(fs::is_empty("/var/dataconfig"));
}

TEST_F(ScguardTryTest, LeftoverOfAMarker_IsRemoved) {
  try_again(kBothGood);
  fs::rename(kMarker, kNewMarker);
  EXPECT_EQ(guard({"restore", "lan"}), (Guarded{0, ""}));
  EXPECT_FALSE(exists(kNewMarker));
  EXPECT_TRUE(read_file(kArchive) == archive_);
}

/* ---- bases that are lost ---- */

TEST_F(ScguardTryTest, GoodArchiveWhoseCopyIsLost_StaysAndTheSetIsNotWhole) {
  const std::string good = "/var/dataconfig/config_lan.good";
  for (const bool is_missing : {false, true}) {
    try_again(kBothGood);
    write_file(kGood, "cut");
    if (is_missing) fs::remove(kGood);
    const std::string why = is_missing ? ": No such file or directory" : kCut;
    EXPECT_EQ(guard({"restore", "wan"}),
              (Guarded{1, lines({good + why + kNotWhole, kMisc + kIsBack, kTakenBack + "misc"})}));
    EXPECT_TRUE(read_file(kArchive) == archive_);
    EXPECT_TRUE(read_file(kGood) == archive_);
    EXPECT_TRUE(read_file(kMiscArchive) == misc_copy_);
    EXPECT_FALSE(exists(kMarker));
    EXPECT_EQ(guard({"restore"}), (Guarded{0, ""}));
  }
}

TEST_F(ScguardTryTest, BrokenArchiveWhoseCopyIsLost_IsSetAside) {
  try_again(kBothGood);
  fs::remove(kGood);
  write_file(kArchive, "cut");
  EXPECT_EQ(
      guard({"restore", "wan"}),
      (Guarded{1, lines({"/var/dataconfig/config_lan.good: No such file or directory" + kNotWhole,
                         kMisc + kIsBack, kTakenBack + "misc",
                         kLan + kCut + "; there is no good copy, it is set aside as .bad"})}));
  EXPECT_EQ(read_file(kBad), "cut");
  EXPECT_FALSE(exists(kArchive));
  EXPECT_FALSE(exists(kMarker));
}

/* ---- what is not known ---- */

TEST_F(ScguardTryTest, BrokenMarker_IsToldAndRemovedAndRestoreIsAsEver) {
  try_again("sysconfig try 1\nlan good\n");
  write_file(kMiscArchive, "cut");
  EXPECT_EQ(guard({"restore"}),
            (Guarded{1, lines({kBrokenMarker + "; a change that nobody confirmed may stay",
                               kMisc + kCut + "; the last good copy is back"})}));
  EXPECT_TRUE(read_file(kArchive) == archive_);
  EXPECT_TRUE(read_file(kGood) == archive_);
  EXPECT_TRUE(read_file(kMiscArchive) == misc_copy_);
  EXPECT_FALSE(exists(kMarker));
  EXPECT_EQ(guard({"restore"}), (Guarded{0, ""}));
}

TEST_F(ScguardTryTest, MarkerThatCannotBeRead_StopsBoth) {
  try_again("");
  fs::remove(kMarker);
  fs::create_directory(kMarker);
  for (const Words& command : {Words{"restore"}, {"restore", "lan"}, {"keep", "lan"}}) {
    EXPECT_EQ(guard(command), (Guarded{1, lines({kTry + ": Is a directory" + kNothingIsChanged})}));
    expect_unchanged();
    EXPECT_TRUE(read_file(kMiscArchive) == misc_archive_);
    EXPECT_TRUE(read_file(kMiscGood) == misc_copy_);
    EXPECT_TRUE(exists(kMarker));
  }
}

TEST_F(ScguardTryTest, LinkToNowhereInPlaceOfTheMarker_IsNotTakenForNone) {
  try_again("");
  fs::remove(kMarker);
  fs::create_symlink("/var/nowhere", kMarker);
  /* The words between are those of the guard's own C library. */
  const Guarded guarded = guard({"restore"});
  EXPECT_EQ(guarded.status, 1);
  EXPECT_TRUE(guarded.said.starts_with("scguard: " + kTry + ": ")) << guarded.said;
  EXPECT_TRUE(guarded.said.ends_with(kNothingIsChanged + "\n")) << guarded.said;
  expect_unchanged();
}

TEST_F(ScguardTryTest, FilesThatAreNotKnown_KeepTheirAreaAndTheMarkerAsTheyAre) {
  for (const std::string marker : {kBothGood, kMiscHadNone}) {
    for (const std::string path : {kLan, std::string(kGood)}) {
      try_again(marker);
      fs::rename(path, "/var/away");
      ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
      const bool had_none = marker == kMiscHadNone;
      EXPECT_EQ(guard({"restore"}),
                (Guarded{1, lines({path + ": not known: not a regular file" + kNothingIsChanged,
                                   kMisc + (had_none ? kIsRemoved : kIsBack), kStays})}));
      EXPECT_EQ(exists(kMiscArchive), !had_none);
      EXPECT_EQ(read_file(kMarker), marker);
      fs::rename("/var/away", path);
      EXPECT_TRUE(read_file(kArchive) == archive_);
      EXPECT_TRUE(read_file(kGood) == copy_);
      EXPECT_EQ(guard({"restore"}), (Guarded{0, lines({kLan + kIsBack, kTakenBack + "lan misc"})}));
      expect_the_bases_alone(marker);
    }
  }
}

TEST_F(ScguardTryTest, NotKnownArchiveThatWasNeverSavedBefore_Stays) {
  try_again(kMiscHadNone);
  fs::remove(kMiscArchive);
  fs::create_directory(kMiscArchive);
  EXPECT_EQ(guard({"restore"}).status, 1);
  EXPECT_TRUE(exists(kMiscArchive));
  EXPECT_TRUE(exists(kMarker));
}

TEST_F(ScguardTryTest, NoGzip_ChangesNothing) {
  try_again(kMiscHadNone);
  fs::create_directory("/var/none");
  EXPECT_EQ(guard({"restore"}, "PATH=/var/none").status, 1);
  expect_nothing_changed(kMiscHadNone);
}

/* The archive that nobody confirmed is good, and newer than the copy: it must not become the copy. */
TEST_F(ScguardTryTest, BaseThatCannotBeWritten_StaysTheBase) {
  try_again(kBothGood);
  ASSERT_GT(copy_.size(), 512u);
  const Guarded run = guard({"restore"}, "trap '' XFSZ; ulimit -f 1");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.said.find(lines({kLan + ": nobody has confirmed its change; the last good copy "
                                        "cannot be put back: File too large"})),
            std::string::npos)
      << run;
  EXPECT_NE(run.said.find(lines({kStays})), std::string::npos) << run;
  EXPECT_EQ(run.said.find(kTakenBack), std::string::npos) << run;
  EXPECT_TRUE(read_file(kArchive) == archive_);
  EXPECT_TRUE(read_file(kGood) == copy_);
  EXPECT_EQ(read_file(kMarker), kBothGood);
  EXPECT_EQ(guard({"restore"}).status, 0);
  expect_the_bases_alone(kBothGood);
}

/* ---- keep ---- */

TEST_F(ScguardTryTest, KeepOfAMarkedArea_ChangesNothingAndSaysSo) {
  for (const char* marker : {kBothGood, kMiscHadNone}) {
    try_again(marker);
    for (const std::string area : {"lan", "misc"}) {
      EXPECT_EQ(guard({"keep", area}),
                (Guarded{0, lines({"/var/dataconfig/config_" + area +
                                   ".bin is not kept: nobody has confirmed its change"})}));
    }
    expect_nothing_changed(marker);
    EXPECT_EQ(exists(kMiscGood), marker == std::string(kBothGood));
  }
}

TEST_F(ScguardTryTest, KeepOfAnotherArea_IsAsEver) {
  try_again("sysconfig try 1\nlan good\nend\n");
  EXPECT_EQ(guard({"keep", "misc"}), (Guarded{0, ""}));
  EXPECT_TRUE(read_file(kMiscGood) == misc_archive_);
  expect_unchanged();
}

TEST_F(ScguardTryTest, KeepBesideABrokenMarker_ChangesNothing) {
  try_again("broken");
  EXPECT_EQ(guard({"keep", "lan"}), (Guarded{1, lines({kBrokenMarker + kNothingIsChanged})}));
  expect_nothing_changed("broken");
}

/* ---- locks ---- */

TEST_F(ScguardTryTest, RestoreBeforeTheLocksAreMade_GoesOnWithout) {
  try_again(kMiscHadNone);
  fs::remove_all("/var/lock_store");
  EXPECT_EQ(guard({"restore"}).status, 0);
  expect_the_bases_alone(kMiscHadNone);
  fs::create_directory("/var/lock_store");
}

/* A restore that waits until the last of its locks, or the folder, is let go. */
class WaitingRestore {
 public:
  WaitingRestore() : misc_(kMiscLock, 1), restore_(scguard({"restore"})) {
    for (int ms = 0; ms < 60'000 && !is_locked(kLock, 1); ++ms) usleep(1000);
    usleep(100'000);
    EXPECT_FALSE(restore_.ended());
  }
  Outcome go_on() {
    misc_.release();
    return restore_.wait();
  }

 private:
  LockHolder misc_;
  Program restore_;
};

TEST_F(ScguardTryTest, AreaThatIsBeingSaved_IsWaitedForBeforeAnythingIsTakenBack) {
  try_again(kBothGood);
  WaitingRestore restore;
  expect_nothing_changed(kBothGood);
  EXPECT_EQ(restore.go_on().status, 0);
  expect_the_bases_alone(kBothGood);
}

/* Of confirm, which holds the areas until the marker is removed. */
TEST_F(ScguardTryTest, ChangeThatIsConfirmedMeanwhile_IsNotTakenBack) {
  try_again(kBothGood);
  WaitingRestore restore;
  fs::remove(kMarker);
  EXPECT_EQ(restore.go_on(), (Outcome{0, "", ""}));
  EXPECT_TRUE(read_file(kArchive) == archive_);
  EXPECT_TRUE(read_file(kGood) == archive_);
}

TEST_F(ScguardTryTest, AreaThatIsMarkedMeanwhile_IsTakenBackToo) {
  try_again("sysconfig try 1\nlan good\nend\n");
  WaitingRestore restore;
  write_file(kMarker, kBothGood);
  EXPECT_EQ(restore.go_on().status, 0);
  expect_the_bases_alone(kBothGood);
}

/* Its copy is the base of a try that has just begun. */
TEST_F(ScguardTryTest, AreaThatIsMarkedAfterNoMarkerWasSeen_StaysAsItIs) {
  try_again(kBothGood);
  fs::remove(kMarker);
  LockHolder lan(kLock, 1);
  Program restore(scguard({"restore", "lan"}));
  ASSERT_TRUE(becomes_blocked(restore.pid(), kLock, 1));
  write_file(kMarker, kBothGood);
  lan.release();
  EXPECT_EQ(restore.wait(), (Outcome{0, "", ""}));
  expect_nothing_changed(kBothGood);
}

/* Nobody who waits for one of its locks while he holds another is told EDEADLK. */
TEST_F(ScguardTryTest, RestoreThatWaits_DoesNotMakeADeadlockForTheKernel) {
  try_again(kBothGood);
  Child saver([] {
    const auto lock = [](const char* path) {
      const int file = open(path, O_RDWR | O_CLOEXEC);
      struct flock byte = {};
      byte.l_type = F_WRLCK;
      byte.l_whence = SEEK_SET;
      byte.l_start = 1;
      byte.l_len = 1;
      return fcntl(file, F_SETLKW, &byte);
    };
    struct sigaction wake = {};
    wake.sa_handler = [](int) {};
    sigaction(SIGALRM, &wake, nullptr);
    if (lock(kMiscLock) != 0) _exit(1);
    while (!is_locked(kLock, 1)) usleep(1000); /* by restore */
    usleep(100'000);
    alarm(1);
    _exit(lock(kLock) != 0 && errno == EINTR ? 0 : 2);
  });
  for (int ms = 0; ms < 60'000 && !is_locked(kMiscLock, 1); ++ms) usleep(1000);
  Program restore(scguard({"restore"}));
  EXPECT_EQ(saver.wait(), 0);
  EXPECT_EQ(restore.wait().status, 0);
  expect_the_bases_alone(kBothGood);
}

TEST_F(ScguardTryTest, LockThatCannotBeOpened_ChangesNothing) {
  try_again(kBothGood);
  fs::remove(kMiscLock);
  fs::create_directory(kMiscLock);
  EXPECT_EQ(guard({"restore", "lan"}),
            (Guarded{1, lines({std::string(kMiscLock) + " cannot be locked: Is a directory"})}));
  expect_nothing_changed(kBothGood);
  fs::remove(kMiscLock);
}

TEST_F(ScguardTryTest, ManyAtOnce_EndWellAndTakeBackOnce) {
  for (int round = 0; round < 5; ++round) {
    try_again(kBothGood);
    std::vector<std::unique_ptr<Program>> guards;
    for (int n = 0; n < 6; ++n) {
      guards.push_back(std::make_unique<Program>(
          scguard(n % 2 == 0 ? Words{"keep", "misc"} : Words{"restore"})));
    }
    size_t takers = 0;
    for (auto& one : guards) {
      const Outcome outcome = one->wait();
      EXPECT_EQ(outcome.status, 0) << outcome;
      takers += outcome.err.find(kTakenBack) != std::string::npos;
    }
    EXPECT_EQ(takers, 1u);
    expect_the_bases_alone(kBothGood);
  }
}

}  // namespace
}  // namespace sc_test
