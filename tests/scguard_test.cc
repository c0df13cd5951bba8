/* The guard of the flash archives, run as the command that it is. Archives are the library's own,
 * or made by hand where they are to be wrong in one point. */
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

#include "support/areas.h"
#include "support/image.h"
#include "support/locks.h"
#include "support/output.h"
#include "support/world.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

constexpr char kArchive[] = "/var/dataconfig/config_lan.bin";
constexpr char kGood[] = "/var/dataconfig/config_lan.good";
constexpr char kNew[] = "/var/dataconfig/config_lan.new";
constexpr char kBad[] = "/var/dataconfig/config_lan.bad";
constexpr char kMember[] = "var/systemconfig/config_lan.cfg";

/* What a run of the guard did. */
struct Outcome {
  int status;
  std::string said;
};

Outcome scguard(const std::string& arguments) {
  const char* command = getenv("SCGUARD") != nullptr ? getenv("SCGUARD") : SCGUARD_COMMAND;
  Outcome run;
  const Output output = capture([&] {
    const int status = system((command + (" " + arguments)).c_str());
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  });
  run.said = output.err;
  EXPECT_EQ(output.out, "");
  return run;
}

std::string shell_output(const std::string& command) {
  std::string bytes;
  FILE* stream = popen(command.c_str(), "r");
  for (int byte; stream != nullptr && (byte = getc(stream)) != EOF;) {
    bytes += static_cast<char>(byte);
  }
  EXPECT_EQ(pclose(stream), 0) << command;
  return bytes;
}

/* One file of a tar archive: header, content, padding. */
std::string tar_member(const std::string& name, const std::string& content, char type = '0') {
  std::string header(512, '\0');
  const auto put = [&](size_t at, const std::string& text) {
    header.replace(at, text.size(), text);
  };
  char number[16];
  put(0, name);
  put(100, "0000644");
  put(108, "0000000");
  put(116, "0000000");
  snprintf(number, sizeof number, "%011zo", content.size());
  put(124, number);
  put(136, "00000000000");
  put(148, "        ");
  header[156] = type;
  put(257, "ustar  ");
  unsigned sum = 0;
  for (const char byte : header) sum += static_cast<unsigned char>(byte);
  snprintf(number, sizeof number, "%06o", sum);
  put(148, std::string(number) + '\0');
  return header + content + std::string((512 - content.size() % 512) % 512, '\0');
}

std::string gzipped_tar(const std::string& members) {
  write_file("/var/tar", members + std::string(1024, '\0'));
  return shell_output("gzip -c </var/tar");
}

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

class ScguardTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    ASSERT_EQ(SC_Init_System_Lan_Config(1), 0);
    lan_ = block_at<LanBlock>(SC_Get_Lan_System_Config());
  }

  /* Adds a binding and saves. */
  void save(const char* mac, const char* ip) {
    DhcpStaticItem item = {};
    strcpy(item.mac, mac);
    strcpy(item.ip, ip);
    capture([&] {
      EXPECT_EQ(AddDhcpStaticItem(lan_, &item), SC_LIST_OK);
      SC_Save_System_Lan_Config2Flash(lan_);
    });
  }
  void save_first() { save("00:11:22:33:44:55", "192.168.1.20"); }
  void save_second() { save("00:11:22:33:44:66", "192.168.1.21"); }

  std::string image() const {
    return std::string(reinterpret_cast<const char*>(lan_), sizeof *lan_);
  }

  /* The area as a boot with the guard brings it back. */
  std::string rebooted(Outcome* run = nullptr) {
    const Outcome restored = scguard("restore lan");
    if (run != nullptr) *run = restored;
    memset(static_cast<void*>(lan_), 0x5a, sizeof *lan_);
    EXPECT_EQ(capture([] { SC_Init_System_Lan_Config(1); }), kSilence);
    return image();
  }

  LanBlock* lan_ = nullptr;
};

TEST_F(ScguardTest, KeepOfAGoodArchive_CopiesItAndSaysNothing) {
  save_first();
  const Outcome run = scguard("keep lan");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.said, "");
  EXPECT_EQ(read_file(kGood), read_file(kArchive));
  EXPECT_FALSE(exists(kNew));
}

TEST_F(ScguardTest, KeepAfterAChange_ReplacesTheCopy) {
  save_first();
  EXPECT_EQ(scguard("keep lan").status, 0);
  save_second();
  EXPECT_EQ(scguard("keep lan").status, 0);
  EXPECT_EQ(read_file(kGood), read_file(kArchive));
}

TEST_F(ScguardTest, KeepOfAnEqualImage_DoesNotWriteItAgain) {
  save_first();
  EXPECT_EQ(scguard("keep lan").status, 0);
  struct stat first, second;
  ASSERT_EQ(stat(kGood, &first), 0);
  /* The same image in an archive of other bytes, as a save a second later makes it. */
  write_file(kArchive, gzipped_tar(tar_member(kMember, image())));
  ASSERT_NE(read_file(kArchive), read_file(kGood));
  EXPECT_EQ(scguard("keep lan").status, 0);
  ASSERT_EQ(stat(kGood, &second), 0);
  EXPECT_EQ(first.st_ino, second.st_ino);
  EXPECT_EQ(first.st_mtim.tv_nsec, second.st_mtim.tv_nsec);
  EXPECT_NE(read_file(kArchive), read_file(kGood));
}

TEST_F(ScguardTest, KeepWithABrokenCopy_ReplacesIt) {
  save_first();
  write_file(kGood, "broken");
  EXPECT_EQ(scguard("keep lan").status, 0);
  EXPECT_EQ(read_file(kGood), read_file(kArchive));
}

TEST_F(ScguardTest, KeepWhileTheAreaIsBeingSaved_WaitsForTheEndOfTheSave) {
  save_first();
  LockHolder holder("/var/lock_store/lan_conf_lock", 1);
  Child child([] { exit(scguard("keep lan").status); });
  usleep(300000);
  EXPECT_FALSE(child.ended());
  EXPECT_FALSE(exists(kGood));
  holder.release();
  EXPECT_EQ(child.wait(), 0);
  EXPECT_TRUE(exists(kGood));
}

TEST_F(ScguardTest, KeepOfAnAreaThatWasNotMade_FailsAndSaysSo) {
  save_first();
  fs::remove("/var/lock_store/lan_conf_lock");
  const Outcome run = scguard("keep lan");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said,
            "scguard: /var/lock_store/lan_conf_lock cannot be locked: No such file or directory\n");
  EXPECT_FALSE(exists(kGood));
}

TEST_F(ScguardTest, KeepWithNoSpaceLeft_FailsAndLeavesTheCopy) {
  const SmallFlash flash;
  save_first();
  EXPECT_EQ(scguard("keep lan").status, 0);
  const std::string good = read_file(kGood);
  save_second();
  flash.fill();
  const Outcome run = scguard("keep lan");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said,
            "scguard: /var/dataconfig/config_lan.bin is not kept: No space left on device\n");
  EXPECT_EQ(read_file(kGood), good);
  EXPECT_FALSE(exists(kNew));
}

TEST_F(ScguardTest, RestoreOfAGoodArchiveThatIsNewerThanTheCopy_LeavesItAndKeepsIt) {
  save_first();
  EXPECT_EQ(scguard("keep lan").status, 0);
  save_second();
  const std::string saved = image(), archive = read_file(kArchive);
  Outcome run;
  EXPECT_EQ(rebooted(&run), saved);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.said, "");
  EXPECT_EQ(read_file(kArchive), archive);
  EXPECT_EQ(read_file(kGood), archive);
}

/* A cut between a save and its keep, and one in the next save. */
TEST_F(ScguardTest, TwoCutsInARow_BringTheLatestSavedStateBack) {
  save_first();
  EXPECT_EQ(scguard("keep lan").status, 0);
  save_second();
  const std::string saved = image();
  EXPECT_EQ(rebooted(), saved);
  write_file(kArchive, "");
  EXPECT_EQ(rebooted(), saved);
}

TEST_F(ScguardTest, RestoreOfAGoodArchiveWithoutACopy_KeepsIt) {
  save_first();
  EXPECT_EQ(scguard("restore lan").status, 0);
  EXPECT_EQ(read_file(kGood), read_file(kArchive));
}

TEST_F(ScguardTest, RestoreOfAnEqualImage_DoesNotWriteTheCopyAgain) {
  save_first();
  EXPECT_EQ(scguard("keep lan").status, 0);
  struct stat first, second;
  ASSERT_EQ(stat(kGood, &first), 0);
  EXPECT_EQ(scguard("restore").status, 0);
  ASSERT_EQ(stat(kGood, &second), 0);
  EXPECT_EQ(first.st_ino, second.st_ino);
}

TEST_F(ScguardTest, RestoreBeforeAnySave_SaysNothing) {
  const Outcome run = scguard("restore");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.said, "");
  EXPECT_TRUE(fs::is_empty("/var/dataconfig"));
}

TEST_F(ScguardTest, RestoreOfABrokenArchiveWithoutACopy_SetsItAsideSoThatTheAreaStartsEmpty) {
  const std::string empty = image();
  save_first();
  const std::string broken = read_file(kArchive).substr(0, 300);
  write_file(kArchive, broken);
  Outcome run;
  EXPECT_EQ(rebooted(&run), empty);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said,
            "scguard: /var/dataconfig/config_lan.bin: its gzip stream is not whole; there is no "
            "good copy, it is set aside as .bad\n");
  EXPECT_EQ(read_file(kBad), broken);
  EXPECT_FALSE(exists(kArchive));
}

TEST_F(ScguardTest, RestoreWithABrokenCopy_FailsAndLeavesTheCopy) {
  write_file(kGood, "broken");
  const Outcome run = scguard("restore lan");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said, "scguard: /var/dataconfig/config_lan.good: its gzip stream is not whole\n");
  EXPECT_EQ(read_file(kGood), "broken");
}

TEST_F(ScguardTest, RestoreAfterACutDuringKeep_RemovesWhatWasHalfWritten) {
  save_first();
  const std::string saved = image();
  write_file(kNew, "half");
  EXPECT_EQ(rebooted(), saved);
  EXPECT_FALSE(exists(kNew));
}

TEST_F(ScguardTest, RestoreWithNoSpaceLeft_FailsAndLeavesTheCopy) {
  const SmallFlash flash;
  save_first();
  EXPECT_EQ(scguard("keep lan").status, 0);
  const std::string good = read_file(kGood);
  fs::remove(kArchive);
  flash.fill();
  const Outcome run = scguard("restore lan");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said,
            "scguard: /var/dataconfig/config_lan.bin: it is missing; the last good copy cannot be "
            "put back: No space left on device\n");
  EXPECT_EQ(read_file(kGood), good);
}

TEST_F(ScguardTest, AnUnknownArea_IsRefused) {
  for (const char* area : {"nonsense", "apuserlist", "''", "../lan"}) {
    for (const char* command : {"keep ", "restore "}) {
      const Outcome run = scguard(command + std::string(area));
      EXPECT_EQ(run.status, 2);
      EXPECT_EQ(run.said.find("scguard: unknown area '"), 0u) << run.said;
    }
  }
}

TEST_F(ScguardTest, WrongArguments_ShowTheUsage) {
  for (const char* arguments : {"", "keep", "keep lan wan", "restore lan wan", "lose lan"}) {
    const Outcome run = scguard(arguments);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.said.find("usage: scguard keep AREA"), 0u) << run.said;
  }
}

TEST_F(ScguardTest, EveryCutOfAnArchive_IsSeen) {
  save_first();
  EXPECT_EQ(scguard("keep lan").status, 0);
  const std::string whole = read_file(kArchive);
  for (size_t length = 0; length < whole.size(); length += 16) {
    write_file(kArchive, whole.substr(0, length));
    EXPECT_EQ(scguard("restore lan").status, 0);
    EXPECT_EQ(read_file(kArchive), whole) << length << " bytes";
  }
}

/* ---- each way of being wrong ---- */

struct Fault {
  const char* name;
  const char* said;
  /* From the area's image; "" means that there is no archive. */
  std::string (*archive)(std::string image);
};

std::ostream& operator<<(std::ostream& stream, const Fault& fault) { return stream << fault.name; }

std::string with_word(std::string image, size_t at, uint32_t word) {
  memcpy(&image[at], &word, sizeof word);
  return gzipped_tar(tar_member(kMember, image));
}

std::string changed(std::string archive, size_t from_end) {
  archive[archive.size() - from_end] ^= 1;
  return archive;
}

const Fault kFaults[] = {
    {"Missing", "it is missing", [](std::string) { return std::string(); }},
    {"NoGzip", "its gzip stream is not whole", [](std::string image) { return image; }},
    {"AnotherChecksum", "its gzip stream is not whole",
     [](std::string image) { return changed(gzipped_tar(tar_member(kMember, image)), 8); }},
    {"AnotherLength", "its gzip stream is not whole",
     [](std::string image) { return changed(gzipped_tar(tar_member(kMember, image)), 4); }},
    {"NoTar", "it is no tar archive", [](std::string image) { return gzipped_tar(image); }},
    {"NothingInIt", "it is no tar archive", [](std::string) { return gzipped_tar(""); }},
    {"AnotherName", "it holds another file",
     [](std::string image) { return gzipped_tar(tar_member("var/systemconfig/x.cfg", image)); }},
    {"AnAbsoluteName", "it holds another file",
     [](std::string image) { return gzipped_tar(tar_member("/" + std::string(kMember), image)); }},
    {"ALink", "it holds another file",
     [](std::string image) { return gzipped_tar(tar_member(kMember, image, '2')); }},
    {"OneByteShort", "its image has another size",
     [](std::string image) {
       return gzipped_tar(tar_member(kMember, image.substr(0, image.size() - 1)));
     }},
    {"OneByteLong", "its image has another size",
     [](std::string image) { return gzipped_tar(tar_member(kMember, image + '\0')); }},
    {"TwoFiles", "it holds more than the image",
     [](std::string image) {
       return gzipped_tar(tar_member(kMember, image) + tar_member("var/x", "x"));
     }},
    {"CutOffInside", "it is cut off",
     [](std::string image) {
       write_file("/var/tar", tar_member(kMember, image).substr(0, 5000));
       return shell_output("gzip -c </var/tar");
     }},
    {"AnotherLockPath", "another lock path",
     [](std::string image) {
       image.replace(2, 29, "/var/lock_store/wan_conf_lock");
       return gzipped_tar(tar_member(kMember, image));
     }},
    {"NoLockPath", "another lock path", [](std::string image) { return with_word(image, 2, 0); }},
    {"AnotherBlockLock", "another block lock",
     [](std::string image) { return with_word(image, 132, 2); }},
    {"AnotherFirstRecord", "another record numbering",
     [](std::string image) { return with_word(image, 1508 + 4, 3); }},
    {"AnotherLastRecord", "another record numbering",
     [](std::string image) { return with_word(image, 25948 + 31 * 748 + 4, 0); }},
};

class ScguardFaultTest : public ScguardTest, public testing::WithParamInterface<Fault> {
 protected:
  void spoil_archive() {
    const std::string archive = GetParam().archive(image());
    if (archive.empty()) {
      fs::remove(kArchive);
    } else {
      write_file(kArchive, archive);
    }
  }
};

TEST_P(ScguardFaultTest, Keep_FailsAndLeavesTheCopy) {
  save_first();
  EXPECT_EQ(scguard("keep lan").status, 0);
  const std::string good = read_file(kGood);
  spoil_archive();
  const Outcome run = scguard("keep lan");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.said, "scguard: /var/dataconfig/config_lan.bin is not kept: " +
                          std::string(GetParam().said) + "\n");
  EXPECT_EQ(read_file(kGood), good);
}

TEST_P(ScguardFaultTest, Restore_PutsTheCopyBackAndSaysWhy) {
  save_first();
  const std::string saved = image();
  EXPECT_EQ(scguard("keep lan").status, 0);
  spoil_archive();
  Outcome run;
  EXPECT_EQ(rebooted(&run), saved);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.said, "scguard: /var/dataconfig/config_lan.bin: " + std::string(GetParam().said) +
                          "; the last good copy is back\n");
  EXPECT_EQ(read_file(kArchive), read_file(kGood));
}

INSTANTIATE_TEST_SUITE_P(EachFault, ScguardFaultTest, testing::ValuesIn(kFaults),
                         [](const testing::TestParamInfo<Fault>& fault) {
                           return std::string(fault.param.name);
                         });

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

  const Outcome kept = scguard("keep " + stem);
  EXPECT_EQ(kept.status, 0) << kept.said;
  write_file(facts.archive_path, "");
  EXPECT_EQ(scguard("restore").status, 0);
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
