/* The guard where it cannot look, where something else lies in a file's place, and beside others: what
 * it leaves as it was, and what it makes of owner, mode and locks. */
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <sstream>

#include "store/archives.h"
#include "store/saved_lan.h"
#include "support/locks.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

class ScguardCircumstancesTest : public SavedLan {};

const std::string kNothingIsChanged = "; nothing is changed\n";

std::string not_known(const char* path, const std::string& why) {
  return std::string("scguard: ") + path + ": not known: " + why + kNothingIsChanged;
}

/* A PATH with the test's commands and a gzip of this script, or none. */
std::string path_with_gzip(const std::string& script) {
  fs::create_directory("/var/bin");
  if (!script.empty()) {
    write_file("/var/bin/gzip", "#!/bin/sh\n" + script + "\n");
    chmod("/var/bin/gzip", 0755);
  }
  return "PATH=/var/bin";
}

/* ---- what cannot be looked at ---- */

struct Obstacle {
  const char* name;
  const char* why;
  std::string (*before)(); /* for the shell that starts the guard */
};

std::ostream& operator<<(std::ostream& stream, const Obstacle& obstacle) {
  return stream << obstacle.name;
}

const Obstacle kObstacles[] = {
    {"NoGzip", "gzip could not be run", [] { return path_with_gzip(""); }},
    {"GzipThatIsKilled", "gzip was ended by signal 9", [] { return path_with_gzip("kill -9 $$"); }},
    {"GzipThatCannotStart", "gzip could not be run", [] { return path_with_gzip("exit 127"); }},
};

class ScguardObstacleTest : public SavedLan, public testing::WithParamInterface<Obstacle> {
 protected:
  void SetUp() override {
    SavedLan::SetUp();
    save_two_states();
  }
  std::string said() const {
    return not_known(kArchive, GetParam().why) + not_known(kGood, GetParam().why);
  }
};

TEST_P(ScguardObstacleTest, Keep_ChangesNothingAndSaysWhy) {
  EXPECT_EQ(guard({"keep", "lan"}, GetParam().before()), (Guarded{1, said()}));
  expect_unchanged();
}

TEST_P(ScguardObstacleTest, Restore_ChangesNothingAndSaysWhy) {
  EXPECT_EQ(guard({"restore"}, GetParam().before()), (Guarded{1, said()}));
  expect_unchanged();
}

TEST_P(ScguardObstacleTest, RestoreWithoutACopy_DoesNotSetTheArchiveAside) {
  fs::remove(kGood);
  EXPECT_EQ(guard({"restore"}, GetParam().before()),
            (Guarded{1, not_known(kArchive, GetParam().why)}));
  EXPECT_EQ(read_file(kArchive), archive_);
  EXPECT_FALSE(exists(kBad));
}

TEST_P(ScguardObstacleTest, RestoreWithoutAnArchive_DoesNotTouchTheCopy) {
  fs::remove(kArchive);
  EXPECT_EQ(guard({"restore"}, GetParam().before()),
            (Guarded{1, not_known(kGood, GetParam().why)}));
  EXPECT_EQ(read_file(kGood), copy_);
  EXPECT_FALSE(exists(kArchive));
}

INSTANTIATE_TEST_SUITE_P(EachObstacle, ScguardObstacleTest, testing::ValuesIn(kObstacles),
                         [](const testing::TestParamInfo<Obstacle>& obstacle) {
                           return std::string(obstacle.param.name);
                         });

/* A file that waits to be put aside waits for a verdict on the copy, too. */
TEST_F(ScguardCircumstancesTest, RestoreOfABrokenArchiveBesideAnUnknownCopy_ChangesNothing) {
  write_file(kArchive, "broken");
  ASSERT_EQ(mkfifo(kGood, 0644), 0);
  EXPECT_EQ(guard({"restore", "lan"}), (Guarded{1, not_known(kGood, "not a regular file")}));
  EXPECT_EQ(read_file(kArchive), "broken");
  EXPECT_FALSE(exists(kBad));
}

TEST_F(ScguardCircumstancesTest, FewDescriptors_ChangeNothing) {
  save_two_states();
  bool worked = false;
  for (int limit = 3; limit < 12 && !worked; ++limit) {
    const Guarded run = guard({"restore", "lan"}, "ulimit -n " + std::to_string(limit));
    worked = run.status == 0;
    if (worked) continue;
    EXPECT_TRUE(run.status == 1 || run.status == 127) << limit; /* 127: of the program loader */
    expect_unchanged();
  }
  EXPECT_TRUE(worked);
  EXPECT_EQ(read_file(kGood), archive_);
}

/* ---- what the guard inherits ---- */

TEST_F(ScguardCircumstancesTest, SigchldIgnoredByTheParent_ChangesNothing) {
  for (const char* command : {"keep", "restore"}) {
    fs::remove(kGood);
    save_two_states();
    EXPECT_EQ(guard({command, "lan"}, "trap '' CHLD"), (Guarded{0, ""}));
    EXPECT_EQ(read_file(kGood), archive_);
  }
}

/* GNU gzip takes options from the environment, BusyBox's does not. */
TEST_F(ScguardCircumstancesTest, OptionsForGzipOfTheParent_ChangeNothing) {
  for (const char* options : {"-k", "-t", "-l", "--help"}) {
    for (const char* command : {"keep", "restore"}) {
      fs::remove(kGood);
      save_two_states();
      EXPECT_EQ(guard({command, "lan"}, std::string("export GZIP=") + options), (Guarded{0, ""}));
      EXPECT_EQ(read_file(kGood), archive_);
    }
  }
}

TEST_F(ScguardCircumstancesTest, DescriptorsOfTheParent_ChangeNothing) {
  save_two_states();
  EXPECT_EQ(guard({"restore", "lan"},
                  "exec 3</dev/null 4</dev/null 5</dev/null 6</dev/null 7</dev/null 8</dev/null "
                  "9</dev/null"),
            (Guarded{0, ""}));
  EXPECT_EQ(read_file(kGood), archive_);
}

TEST_F(ScguardCircumstancesTest, ClosedStandardStreams_ChangeNothing) {
  save_two_states();
  EXPECT_EQ(run(in_shell(scguard({"restore", "lan"}), "<&- >&- 2>&-")), (Outcome{0, "", ""}));
  EXPECT_EQ(read_file(kGood), archive_);
  write_file(kArchive, "broken");
  EXPECT_EQ(run(in_shell(scguard({"keep", "lan"}), "<&- >&- 2>&-")), (Outcome{1, "", ""}));
  EXPECT_EQ(read_file(kGood), archive_);
  EXPECT_EQ(read_file(kArchive), "broken");
}

TEST_F(ScguardCircumstancesTest, HelpWithAClosedStandardOutput_Fails) {
  EXPECT_EQ(run(in_shell(scguard({"--help"}), ">&-")).status, 1);
}

TEST_F(ScguardCircumstancesTest, NarrowMask_DoesNotNarrowTheCopysMode) {
  save_two_states();
  chmod(kArchive, 0664);
  EXPECT_EQ(guard({"keep", "lan"}, "umask 077").status, 0);
  struct stat copy;
  ASSERT_EQ(stat(kGood, &copy), 0);
  EXPECT_EQ(copy.st_mode & 07777, 0664u);
}

/* ---- owner and mode ---- */

TEST_F(ScguardCircumstancesTest, Copy_HasTheArchivesOwnerAndMode) {
  save(1);
  const bool root = getuid() == 0 && chown(kArchive, 12, 34) == 0;
  ASSERT_EQ(chmod(kArchive, 01640), 0);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  struct stat archive, copy;
  ASSERT_EQ(stat(kArchive, &archive), 0);
  ASSERT_EQ(stat(kGood, &copy), 0);
  EXPECT_EQ(copy.st_mode, archive.st_mode);
  EXPECT_EQ(copy.st_uid, root ? 12 : getuid());
  EXPECT_EQ(copy.st_gid, root ? 34 : getgid());
  fs::remove(kArchive);
  EXPECT_EQ(guard({"restore", "lan"}).status, 0);
  ASSERT_EQ(stat(kArchive, &archive), 0);
  EXPECT_EQ(archive.st_mode, copy.st_mode);
  EXPECT_EQ(archive.st_uid, copy.st_uid);
  EXPECT_EQ(archive.st_gid, copy.st_gid);
}

/* ---- what is no file ---- */

void put_pipe(const char* path) { EXPECT_EQ(mkfifo(path, 0644), 0); }
void put_folder(const char* path) { fs::create_directory(path); }
void put_link(const char* path) { fs::create_symlink("/var/elsewhere", path); }
void put_device(const char* path) {
  /* Where no device can be made, a socket is as little a file. */
  if (mknod(path, S_IFCHR | 0644, makedev(1, 3)) != 0) {
    EXPECT_EQ(mknod(path, S_IFSOCK | 0644, 0), 0);
  }
}

struct Thing {
  const char* name;
  void (*put)(const char* path);
};

std::ostream& operator<<(std::ostream& stream, const Thing& thing) { return stream << thing.name; }

class ScguardThingTest : public SavedLan, public testing::WithParamInterface<Thing> {
 protected:
  void SetUp() override {
    SavedLan::SetUp();
    save_two_states();
    write_file("/var/elsewhere", "another's");
  }
  void TearDown() override { EXPECT_EQ(read_file("/var/elsewhere"), "another's"); }

  /* In the place of that file. */
  void put(const char* path) {
    fs::remove_all(path);
    GetParam().put(path);
    fs::file_status what = fs::symlink_status(path);
    was_ = what.type();
  }
  bool still_there(const char* path) const { return fs::symlink_status(path).type() == was_; }

  fs::file_type was_ = fs::file_type::none;
};

TEST_P(ScguardThingTest, InPlaceOfTheArchive_IsRefusedAtOnce) {
  put(kArchive);
  for (const char* command : {"keep", "restore"}) {
    const Guarded run = guard({command, "lan"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.said.find("scguard: /var/dataconfig/config_lan.bin: not known: "), 0u)
        << run.said;
    EXPECT_TRUE(still_there(kArchive));
    EXPECT_EQ(read_file(kGood), copy_);
    EXPECT_FALSE(exists(kBad));
  }
}

TEST_P(ScguardThingTest, InPlaceOfTheCopy_IsRefusedAtOnce) {
  put(kGood);
  for (const char* command : {"keep", "restore"}) {
    const Guarded run = guard({command, "lan"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.said.find("scguard: /var/dataconfig/config_lan.good: not known: "), 0u)
        << run.said;
    EXPECT_TRUE(still_there(kGood));
    EXPECT_EQ(read_file(kArchive), archive_);
  }
}

TEST_P(ScguardThingTest, InPlaceOfTheFreshFile_IsRemovedOrRefusedAndNeverWrittenTo) {
  put(kNew);
  const Guarded run = guard({"keep", "lan"});
  if (GetParam().put == put_folder) {
    EXPECT_EQ(run,
              (Guarded{1, "scguard: /var/dataconfig/config_lan.bin is not kept: File exists\n"}));
    EXPECT_EQ(read_file(kGood), copy_);
  } else {
    EXPECT_EQ(run, (Guarded{0, ""}));
    EXPECT_EQ(read_file(kGood), archive_);
    EXPECT_FALSE(exists(kNew));
  }
}

INSTANTIATE_TEST_SUITE_P(EachThing, ScguardThingTest,
                         testing::Values(Thing{"Pipe", put_pipe}, Thing{"Folder", put_folder},
                                         Thing{"Link", put_link}, Thing{"Device", put_device}),
                         [](const testing::TestParamInfo<Thing>& thing) {
                           return std::string(thing.param.name);
                         });

TEST_F(ScguardCircumstancesTest, NoFolder_IsNothingSavedYet) {
  fs::remove_all("/var/dataconfig");
  EXPECT_EQ(guard({"restore"}), (Guarded{0, ""}));
  EXPECT_EQ(guard({"keep", "lan"}),
            (Guarded{1, "scguard: /var/dataconfig: No such file or directory\n"}));
  fs::create_directory("/var/dataconfig");
}

TEST_F(ScguardCircumstancesTest, FileInPlaceOfTheFolder_IsSaid) {
  fs::remove_all("/var/dataconfig");
  write_file("/var/dataconfig", "");
  EXPECT_EQ(guard({"restore", "lan"}), (Guarded{1, "scguard: /var/dataconfig: Not a directory\n"}));
  fs::remove("/var/dataconfig");
  fs::create_directory("/var/dataconfig");
}

/* ---- names ---- */

/* Each area under both of its names; scctl's list is the measure. */
TEST_F(ScguardCircumstancesTest, NamesThatScctlPrints_AreTaken) {
  std::istringstream areas(run(scctl({"areas"})).out);
  std::string line;
  getline(areas, line); /* the heading */
  size_t saved = 0;
  while (getline(areas, line)) {
    const std::string name = line.substr(0, line.find(' '));
    const bool is_saved = line.find("never saved") == std::string::npos;
    EXPECT_EQ(guard({"restore", name}).status, is_saved ? 0 : 2) << name;
    saved += is_saved;
  }
  EXPECT_EQ(saved, 16u);
}

TEST_F(ScguardCircumstancesTest, NameOfAnArea_MeansItsFiles) {
  for (const char* name : {"ManageApList", "Clients_Groups"}) {
    area(name).init(1);
    auto* block = block_at(area(name).get());
    capture([&] { area(name).save_to_flash(block); });
    EXPECT_EQ(guard({"keep", name}), (Guarded{0, ""}));
    EXPECT_TRUE(exists(fs::path(golden_area(name).archive_path).replace_extension(".good")));
  }
}

/* ---- locks ---- */

TEST_F(ScguardCircumstancesTest, RestoreWhileTheAreaIsBeingSaved_WaitsAndLeavesTheSavedArchive) {
  save_two_states();
  write_file(kArchive, archive_.substr(0, 100)); /* as in the middle of a save */
  LockHolder save(kLock, 1);
  Program restore(scguard({"restore", "lan"}));
  EXPECT_TRUE(becomes_blocked(restore.pid(), kLock, 1));
  EXPECT_EQ(read_file(kArchive), archive_.substr(0, 100));
  write_file(kArchive, archive_);
  save.release();
  EXPECT_EQ(restore.wait(), (Outcome{0, "", ""}));
  EXPECT_EQ(read_file(kArchive), archive_);
  EXPECT_EQ(read_file(kGood), archive_);
}

TEST_F(ScguardCircumstancesTest, RestoreBeforeTheLocksAreMade_GoesOnWithout) {
  save_two_states();
  fs::remove(kLock);
  EXPECT_EQ(guard({"restore", "lan"}), (Guarded{0, ""}));
  EXPECT_EQ(read_file(kGood), archive_);
  fs::remove(kGood);
  fs::remove_all("/var/lock_store");
  EXPECT_EQ(guard({"restore"}), (Guarded{0, ""}));
  EXPECT_EQ(read_file(kGood), archive_);
  EXPECT_FALSE(exists(kLock));
  fs::create_directory("/var/lock_store");
}

/* Whoever changes a record holds its byte, and a save that runs meanwhile does not mind. */
TEST_F(ScguardCircumstancesTest, RecordThatIsHeld_DelaysNobody) {
  save_two_states();
  LockHolder first(kLock, 2), last(kLock, 65);
  Program keep(scguard({"keep", "lan"}));
  for (int ms = 0; ms < 60'000 && !keep.ended(); ++ms) usleep(1000);
  EXPECT_TRUE(keep.ended());
  first.release();
  last.release();
  EXPECT_EQ(keep.wait(), (Outcome{0, "", ""}));
  EXPECT_EQ(read_file(kGood), archive_);
}

TEST_F(ScguardCircumstancesTest, LockFileThatCannotBeOpened_StopsBoth) {
  save_two_states();
  fs::remove(kLock);
  fs::create_directory(kLock);
  const Guarded refused = {
      1, "scguard: /var/lock_store/lan_conf_lock cannot be locked: Is a directory\n"};
  EXPECT_EQ(guard({"keep", "lan"}), refused);
  EXPECT_EQ(guard({"restore", "lan"}), refused);
  expect_unchanged();
}

/* Even without the lock file: the folder's lock keeps guards apart. */
TEST_F(ScguardCircumstancesTest, ManyAtOnce_EndWellAndLeaveOneWholeCopy) {
  for (const bool has_lock : {true, false}) {
    for (int round = 0; round < 5; ++round) {
      fs::remove(kGood);
      save(2 * round + 1);
      guard({"keep", "lan"});
      save(2 * round + 2);
      const std::string newer = read_file(kArchive);
      if (!has_lock) fs::remove(kLock);
      std::vector<std::unique_ptr<Program>> guards;
      for (int n = 0; n < 6; ++n) {
        const bool keeps = has_lock && n % 2 == 0;
        guards.push_back(std::make_unique<Program>(
            scguard(keeps ? Words{"keep", "lan"} : Words{"restore", "lan"})));
      }
      for (auto& one : guards) EXPECT_EQ(one->wait(), (Outcome{0, "", ""}));
      EXPECT_EQ(read_file(kArchive), newer);
      EXPECT_EQ(read_file(kGood), newer);
      EXPECT_FALSE(exists(kNew));
      write_file(kLock, "\n");
    }
  }
}

TEST_F(ScguardCircumstancesTest, BothWaitForAnotherGuard) {
  save_two_states();
  const int folder = open("/var/dataconfig", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(folder, LOCK_EX), 0);
  Program restore(scguard({"restore", "lan"}));
  usleep(200000);
  EXPECT_FALSE(restore.ended());
  expect_unchanged();
  close(folder);
  EXPECT_EQ(restore.wait(), (Outcome{0, "", ""}));
  EXPECT_EQ(read_file(kGood), archive_);
}

}  // namespace
}  // namespace sc_test
