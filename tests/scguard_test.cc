/* The guard of the flash archives, run as the command that it is: what it does with good, broken and
 * missing archives and copies. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>

#include <sysconfig/core.h>
#include <sysconfig/lan.h>

#include "store/archives.h"
#include "store/saved_lan.h"
#include "support/areas.h"
#include "support/image.h"
#include "support/locks.h"
#include "support/output.h"
#include "support/program.h"
#include "support/world.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

/* While it lives, the folder of the archives is a small file system of its own. */
class SmallFlash {
 public:
  SmallFlash() { EXPECT_EQ(mount("tmpfs", kFolder, "tmpfs", 0, "size=64k"), 0); }
  ~SmallFlash() { EXPECT_EQ(umount(kFolder), 0); }
  SmallFlash(const SmallFlash&) = delete;
  SmallFlash& operator=(const SmallFlash&) = delete;

  void fill() const {
    FILE* ballast = fopen("/var/dataconfig/ballast", "w");
    ASSERT_NE(ballast, nullptr);
    const std::string page(4096, 'x');
    while (fwrite(page.data(), page.size(), 1, ballast) == 1 && fflush(ballast) == 0) {
    }
    fclose(ballast);
  }

 private:
  static constexpr char kFolder[] = "/var/dataconfig";
};

class ScguardTest : public SavedLan {};

TEST_F(ScguardTest, KeepOfAGoodArchive_CopiesItAndSaysNothing) {
  save(1);
  const Guarded run = guard({"keep", "lan"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.said, "");
  EXPECT_EQ(read_file(kGood), read_file(kArchive));
  EXPECT_FALSE(exists(kNew));
}

TEST_F(ScguardTest, KeepAfterAChange_ReplacesTheCopy) {
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  save(2);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  EXPECT_EQ(read_file(kGood), read_file(kArchive));
}

TEST_F(ScguardTest, KeepOfAnEqualImage_DoesNotWriteItAgain) {
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  struct stat first, second;
  ASSERT_EQ(stat(kGood, &first), 0);
  /* The same image in an archive of other bytes, as a save a second later makes it. */
  write_file(kArchive, archive_of(tar_member(image())));
  ASSERT_NE(read_file(kArchive), read_file(kGood));
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  ASSERT_EQ(stat(kGood, &second), 0);
  EXPECT_EQ(first.st_ino, second.st_ino);
  EXPECT_EQ(first.st_mtim.tv_nsec, second.st_mtim.tv_nsec);
  EXPECT_NE(read_file(kArchive), read_file(kGood));
}

TEST_F(ScguardTest, KeepAfterAChangeOfTheLastByte_ReplacesTheCopy) {
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  reinterpret_cast<uint8_t*>(lan_)[sizeof *lan_ - 1] ^= 1;
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}), (Guarded{0, ""}));
  EXPECT_EQ(read_file(kGood), read_file(kArchive));
}

TEST_F(ScguardTest, KeepWithABrokenCopy_ReplacesIt) {
  save(1);
  write_file(kGood, "broken");
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  EXPECT_EQ(read_file(kGood), read_file(kArchive));
}

TEST_F(ScguardTest, KeepWhileTheAreaIsBeingSaved_WaitsForTheEndOfTheSave) {
  save(1);
  LockHolder holder("/var/lock_store/lan_conf_lock", 1);
  Child child([] { exit(guard({"keep", "lan"}).status); });
  usleep(300000);
  EXPECT_FALSE(child.ended());
  EXPECT_FALSE(exists(kGood));
  holder.release();
  EXPECT_EQ(child.wait(), 0);
  EXPECT_TRUE(exists(kGood));
}

TEST_F(ScguardTest, KeepOfAnAreaThatWasNotMade_FailsAndSaysSo) {
  save(1);
  fs::remove("/var/lock_store/lan_conf_lock");
  const Guarded run = guard({"keep", "lan"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said,
            "scguard: /var/lock_store/lan_conf_lock cannot be locked: No such file or directory\n");
  EXPECT_FALSE(exists(kGood));
}

TEST_F(ScguardTest, KeepWithNoSpaceLeft_FailsAndLeavesTheCopy) {
  const SmallFlash flash;
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  const std::string good = read_file(kGood);
  save(2);
  flash.fill();
  const Guarded run = guard({"keep", "lan"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said,
            "scguard: /var/dataconfig/config_lan.bin is not kept: No space left on device\n");
  EXPECT_EQ(read_file(kGood), good);
  EXPECT_FALSE(exists(kNew));
}

/* A write of fewer bytes than were handed over comes first, then the error. */
TEST_F(ScguardTest, KeepWithAWriteThatEndsInTheMiddle_FailsAndLeavesTheCopy) {
  save_two_states();
  ASSERT_GT(archive_.size(), 512u);
  EXPECT_EQ(guard({"keep", "lan"}, "trap '' XFSZ; ulimit -f 1"),
            (Guarded{1, "scguard: /var/dataconfig/config_lan.bin is not kept: File too large\n"}));
  expect_unchanged();
}

TEST_F(ScguardTest, RestoreOfAGoodArchiveThatIsNewerThanTheCopy_LeavesItAndKeepsIt) {
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  save(2);
  const std::string saved = image(), archive = read_file(kArchive);
  Guarded run;
  EXPECT_EQ(rebooted(&run), saved);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.said, "");
  EXPECT_EQ(read_file(kArchive), archive);
  EXPECT_EQ(read_file(kGood), archive);
}

/* A cut between a save and its keep, and one in the next save. */
TEST_F(ScguardTest, TwoCutsInARow_BringTheLatestSavedStateBack) {
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  save(2);
  const std::string saved = image();
  EXPECT_EQ(rebooted(), saved);
  write_file(kArchive, "");
  EXPECT_EQ(rebooted(), saved);
}

TEST_F(ScguardTest, RestoreOfAGoodArchiveWithoutACopy_KeepsIt) {
  save(1);
  EXPECT_EQ(guard({"restore", "lan"}).status, 0);
  EXPECT_EQ(read_file(kGood), read_file(kArchive));
}

TEST_F(ScguardTest, RestoreOfAnEqualImage_DoesNotWriteTheCopyAgain) {
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  struct stat first, second;
  ASSERT_EQ(stat(kGood, &first), 0);
  EXPECT_EQ(guard({"restore"}).status, 0);
  ASSERT_EQ(stat(kGood, &second), 0);
  EXPECT_EQ(first.st_ino, second.st_ino);
}

TEST_F(ScguardTest, RestoreBeforeAnySave_SaysNothing) {
  const Guarded run = guard({"restore"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.said, "");
  EXPECT_TRUE(fs::is_empty("/var/dataconfig"));
}

TEST_F(ScguardTest, RestoreOfABrokenArchiveWithoutACopy_SetsItAsideSoThatTheAreaStartsEmpty) {
  const std::string empty = image();
  save(1);
  const std::string broken = read_file(kArchive).substr(0, 300);
  write_file(kArchive, broken);
  Guarded run;
  EXPECT_EQ(rebooted(&run), empty);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said,
            "scguard: /var/dataconfig/config_lan.bin: corrupt or truncated gzip data; there is no "
            "good copy, it is set aside as .bad\n");
  EXPECT_EQ(read_file(kBad), broken);
  EXPECT_FALSE(exists(kArchive));
}

TEST_F(ScguardTest, RestoreWithABrokenCopy_FailsAndLeavesTheCopy) {
  write_file(kGood, "broken");
  const Guarded run = guard({"restore", "lan"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said, "scguard: /var/dataconfig/config_lan.good: corrupt or truncated gzip data\n");
  EXPECT_EQ(read_file(kGood), "broken");
}

TEST_F(ScguardTest, RestoreOfNothingBesideABrokenCopy_FailsAndSaysSo) {
  write_file(kGood, "broken");
  fs::remove(kArchive);
  EXPECT_EQ(
      guard({"restore", "lan"}),
      (Guarded{1, "scguard: /var/dataconfig/config_lan.good: corrupt or truncated gzip data\n"}));
  EXPECT_EQ(read_file(kGood), "broken");
  EXPECT_FALSE(exists(kArchive));
}

TEST_F(ScguardTest, RestoreOfABrokenArchiveBesideABrokenCopy_SaysBothAndSetsTheArchiveAside) {
  write_file(kGood, "broken");
  write_file(kArchive, "broken, too");
  EXPECT_EQ(guard({"restore", "lan"}),
            (Guarded{1,
                     "scguard: /var/dataconfig/config_lan.good: corrupt or truncated gzip data\n"
                     "scguard: /var/dataconfig/config_lan.bin: corrupt or truncated gzip data; "
                     "there is no good copy, it is set aside as .bad\n"}));
  EXPECT_EQ(read_file(kGood), "broken");
  EXPECT_EQ(read_file(kBad), "broken, too");
}

TEST_F(ScguardTest, RestoreBesideAnEqualCopy_RemovesWhatWasHalfWritten) {
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  write_file(kNew, "half");
  EXPECT_EQ(guard({"restore", "lan"}), (Guarded{0, ""}));
  EXPECT_FALSE(exists(kNew));
}

TEST_F(ScguardTest, RestoreOfAllWithOneThatFails_RestoresTheOthersAndFails) {
  for (const char* name : {"Wan", "Clients"}) {
    area(name).init(1);
    auto* block = block_at(area(name).get());
    capture([&] { area(name).save_to_flash(block); });
  }
  write_file(kArchive, "broken");
  const Guarded run = guard({"restore"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said,
            "scguard: /var/dataconfig/config_lan.bin: corrupt or truncated gzip data; there is no "
            "good copy, it is set aside as .bad\n");
  for (const char* copy :
       {"/var/dataconfig/config_wan.good", "/var/dataconfig/config_clients.good"}) {
    EXPECT_TRUE(exists(copy)) << copy;
  }
}

TEST_F(ScguardTest, RestoreAfterACutDuringKeep_RemovesWhatWasHalfWritten) {
  save(1);
  const std::string saved = image();
  write_file(kNew, "half");
  EXPECT_EQ(rebooted(), saved);
  EXPECT_FALSE(exists(kNew));
}

TEST_F(ScguardTest, RestoreWithNoSpaceLeft_FailsAndLeavesTheCopy) {
  const SmallFlash flash;
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  const std::string good = read_file(kGood);
  fs::remove(kArchive);
  flash.fill();
  const Guarded run = guard({"restore", "lan"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said,
            "scguard: /var/dataconfig/config_lan.bin: No such file or directory; the last good "
            "copy cannot be "
            "put back: No space left on device\n");
  EXPECT_EQ(read_file(kGood), good);
}

constexpr char kUsage[] =
    "usage: scguard keep AREA       after a save: keep a copy of the area's archive\n"
    "       scguard restore [AREA]  at boot, before Init: put good copies back or renew them\n"
    "areas: lan wan product misc vs_ipport fw_ipport ipgroup timegroup fw_mac fw_url qos "
    "mange_aplist aptemplatelist defaptemplate clients_groups clients\n";

TEST_F(ScguardTest, AnUnknownArea_IsRefusedAndTheKnownOnesAreListed) {
  for (const std::string area : {"nonsense", "apuserlist", "ApUserList", "", "../lan", "LAN"}) {
    for (const char* command : {"keep", "restore"}) {
      const Guarded run = guard({command, area});
      EXPECT_EQ(run.status, 2);
      EXPECT_EQ(run.said, "scguard: unknown area '" + area + "'\n" + kUsage);
    }
  }
}

TEST_F(ScguardTest, WrongArguments_ShowTheUsage) {
  for (const Words& arguments : std::vector<Words>{{},
                                                   {"keep"},
                                                   {"keep", "lan", "wan"},
                                                   {"restore", "lan", "wan"},
                                                   {"lose", "lan"},
                                                   {"--help", "lan"}}) {
    const Guarded run = guard(arguments);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.said, kUsage);
  }
}

TEST_F(ScguardTest, Help_IsTheUsageAndASuccess) {
  EXPECT_EQ(run(scguard({"--help"})), (Outcome{0, kUsage, ""}));
}

TEST_F(ScguardTest, HelpThatCannotBePrinted_Fails) {
  EXPECT_EQ(run(in_shell(scguard({"--help"}), ">/dev/full")).status, 1);
}

TEST_F(ScguardTest, EveryCutOfAnArchive_IsSeen) {
  save(1);
  EXPECT_EQ(guard({"keep", "lan"}).status, 0);
  const std::string whole = read_file(kArchive);
  for (size_t length = 0; length < whole.size(); length += 16) {
    write_file(kArchive, whole.substr(0, length));
    EXPECT_EQ(guard({"restore", "lan"}).status, 0);
    EXPECT_EQ(read_file(kArchive), whole) << length << " bytes";
  }
}

/* ---- each sample ---- */

class ScguardSampleTest : public SavedLan, public testing::WithParamInterface<Sample> {
 protected:
  void SetUp() override {
    SavedLan::SetUp();
    save_two_states();
    archive_ = GetParam().make(image());
    write_file(kArchive, archive_);
  }
  bool is_good() const { return GetParam().reason[0] == '\0'; }
};

TEST_P(ScguardSampleTest, Keep_CopiesWhatIsGoodAndElseLeavesTheCopy) {
  const Guarded run = guard({"keep", "lan"});
  EXPECT_EQ(run.status, is_good() ? 0 : 1);
  EXPECT_EQ(run.said, is_good() ? ""
                                : "scguard: /var/dataconfig/config_lan.bin is not kept: " +
                                      std::string(GetParam().reason) + "\n");
  EXPECT_EQ(read_file(kGood), is_good() ? archive_ : copy_);
  EXPECT_EQ(read_file(kArchive), archive_);
}

TEST_P(ScguardSampleTest, Restore_PutsTheCopyInPlaceOfWhatIsBroken) {
  const Guarded run = guard({"restore", "lan"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.said, is_good()
                          ? ""
                          : "scguard: /var/dataconfig/config_lan.bin: " +
                                std::string(GetParam().reason) + "; the last good copy is back\n");
  EXPECT_EQ(read_file(kArchive), is_good() ? archive_ : copy_);
  EXPECT_EQ(read_file(kGood), is_good() ? archive_ : copy_);
}

std::string name_of(const testing::TestParamInfo<Sample>& sample) { return sample.param.name; }

INSTANTIATE_TEST_SUITE_P(OneOfEachKind, ScguardSampleTest, testing::ValuesIn(one_of_each_kind()),
                         name_of);
INSTANTIATE_TEST_SUITE_P(EachOther, ScguardSampleTest, testing::ValuesIn(other_samples()), name_of);

/* ---- every area ---- */

class ScguardAreaTest : public World, public testing::WithParamInterface<std::string> {};

TEST_P(ScguardAreaTest, KeepAndRestore_BringTheAreaBackByteForByte) {
  const AreaCalls& calls = area(GetParam());
  const AreaFacts& facts = golden_area(GetParam());
  ASSERT_EQ(calls.init(1), 0);
  auto* block = block_at(calls.get());
  block[facts.size - 1] = 0xa5;
  capture([&] { calls.save_to_flash(block); });
  const std::string saved(reinterpret_cast<char*>(block), facts.size);
  const std::string stem = fs::path(facts.archive_path).stem().string().substr(strlen("config_"));

  const Guarded kept = guard({"keep", stem});
  EXPECT_EQ(kept.status, 0) << kept.said;
  write_file(facts.archive_path, "");
  EXPECT_EQ(guard({"restore"}).status, 0);
  memset(block, 0x5a, facts.size);
  EXPECT_EQ(capture([&] { calls.init(1); }), kSilence);
  EXPECT_TRUE(saved == std::string(reinterpret_cast<char*>(block), facts.size));
}

INSTANTIATE_TEST_SUITE_P(EachArea, ScguardAreaTest, testing::ValuesIn(saved_area_names()),
                         [](const testing::TestParamInfo<std::string>& name) {
                           return name.param;
                         });

}  // namespace
}  // namespace sc_test
