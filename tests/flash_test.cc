/* The files of every area: the working image and the flash archive, both ways. */
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>

#include "support/areas.h"
#include "support/journal.h"
#include "support/listener.h"
#include "support/locks.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Lines = std::vector<std::string>;

const TarWords kTar = tar_words();

void run(const std::string& command) { ASSERT_EQ(system(command.c_str()), 0) << command; }

std::string output_of(const std::string& command) {
  return capture([&] { run(command); }).out;
}

class Flash : public World, public testing::WithParamInterface<std::string> {
 protected:
  const AreaCalls& area_ = area(GetParam());
  const AreaFacts& golden_ = golden_area(GetParam());

  /* A block after Init(1) with a pattern everywhere but in lock_path and block_lock_index. */
  uint8_t* worked_on_block() {
    area_.init(1);
    auto* block = block_at(area_.get());
    const Image header(block, 136);
    fill(block, golden_.size, 1);
    memcpy(block + 2, header.data() + 2, 134);
    return block;
  }
  void save(uint8_t* block) {
    EXPECT_EQ(capture([&] { area_.save_to_flash(block); }), (Output{"", kTar.slash_note}));
  }
  /* An archive made by other means: one file in it, under the working image's path or another. */
  void make_archive(const std::string& bytes, std::string path = "") {
    if (path.empty()) path = golden_.image_path;
    write_file(path, bytes);
    run("tar -zcf " + golden_.archive_path + " -C / " + path.substr(1) + " && rm " + path);
  }
  std::string unpack_command() const {
    /* Required: the default template has its blanks elsewhere. */
    return golden_.name == "DefApTemplate"
               ? "tar -zxf " + golden_.archive_path + "  -C />/dev/null"
               : "tar -zxf " + golden_.archive_path + " -C / >/dev/null";
  }
  Image numbered() const {
    Image image = golden_.emptied();
    golden_.number(image);
    return image;
  }
};

/* What each area has of its own is tested on every area, the rest on a few: one with events, the
 * one with another command, and one with neither. */
class FlashOfAFew : public Flash {};

std::string name_of(const testing::TestParamInfo<std::string>& info) { return info.param; }
INSTANTIATE_TEST_SUITE_P(Areas, Flash, testing::ValuesIn(saved_area_names()), name_of);
INSTANTIATE_TEST_SUITE_P(Areas, FlashOfAFew, testing::Values("Lan", "DefApTemplate", "Clients"),
                         name_of);

/* ---- saving ---- */

TEST_P(Flash, ASave_MakesItsCallsInOrderAndRunsTheEventsAfterTheLockIsReleased) {
  auto* block = worked_on_block();
  Journal journal;
  save(block);
  Lines expected = {
      "#1 = open " + golden_.lock_path,
      "lock #1 1",
      "fopen " + golden_.image_path + " w",
      "fclose",
      "system tar -zcf " + golden_.archive_path + "  " + golden_.image_path + " >/dev/null;sync",
      "system rm -f " + golden_.image_path,
      "unlock #1 1",
      "close #1"};
  for (const std::string& command : golden_.post_flash) expected.push_back("system " + command);
  EXPECT_EQ(journal.lines(), expected);
}

TEST_P(Flash, ASave_RunsSyncAndTheEventCommandsOfItsAreaAlone) {
  save(worked_on_block());
  Lines expected = {"sync"};
  expected.insert(expected.end(), golden_.post_flash.begin(), golden_.post_flash.end());
  EXPECT_EQ(commands_run(), expected);
}

TEST_P(Flash, TheArchive_HoldsTheImageAloneUnderItsPathWithoutTheSlash) {
  auto* block = worked_on_block();
  save(block);
  EXPECT_EQ(output_of("tar -ztf " + golden_.archive_path), golden_.image_path.substr(1) + "\n");
  const std::string image = output_of("tar -zxOf " + golden_.archive_path);
  ASSERT_EQ(image.size(), golden_.size);
  EXPECT_TRUE(Image(block, golden_.size).matches(image.data()));
}

TEST_P(FlashOfAFew, ASave_LeavesNoWorkingImageAndTheBlockAsItWas) {
  auto* block = worked_on_block();
  const Image expected(block, golden_.size);
  save(block);
  EXPECT_FALSE(exists(golden_.image_path));
  EXPECT_TRUE(expected.matches(block));
}

TEST_P(FlashOfAFew, ASaveWithoutALockFile_LocksNothingAndMakesNoOtherCall) {
  auto* block = worked_on_block();
  ASSERT_EQ(unlink(golden_.lock_path.c_str()), 0);
  Journal journal;
  EXPECT_EQ(capture([&] { area_.save_to_flash(block); }), cannot_lock(golden_.lock_path));
  EXPECT_EQ(journal.lines(), (Lines{"open " + golden_.lock_path + " failed"}));
}

TEST_P(FlashOfAFew, ALargerImage_FillsTheBlockAndNothingBehindIt) {
  constexpr size_t kMore = 64;
  area_.init(0);
  auto* block = block_at(area_.get());
  ASSERT_GE(4096 - golden_.size % 4096, kMore); /* to the end of the segment's last page */
  memset(block + golden_.size, 'b', kMore);
  make_archive(std::string(golden_.size + kMore, 'i'));
  EXPECT_EQ(capture([&] { area_.read(block); }), kSilence);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(block), golden_.size + kMore),
            std::string(golden_.size, 'i') + std::string(kMore, 'b'));
}

TEST_P(FlashOfAFew, ASave_SendsNoNotification) {
  Listener listener;
  save(worked_on_block());
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{});
}

TEST_P(FlashOfAFew, ASecondSave_ReplacesTheArchive) {
  auto* block = worked_on_block();
  save(block);
  fill(block + 136, golden_.size - 136, 2);
  save(block);
  EXPECT_EQ(output_of("tar -zxOf " + golden_.archive_path),
            std::string(reinterpret_cast<char*>(block), golden_.size));
}

TEST_P(FlashOfAFew, ASave_TakesTheByteThatTheBlockNames) {
  auto* block = worked_on_block();
  block[132] = 9;
  Journal journal;
  save(block);
  ASSERT_GE(journal.lines().size(), 8u);
  EXPECT_EQ(journal.lines()[1], "lock #1 9");
  EXPECT_EQ(journal.lines()[6], "unlock #1 9");
}

TEST_P(FlashOfAFew, ASave_WaitsForTheHolderOfByte1) {
  auto* block = worked_on_block();
  LockHolder holder(golden_.lock_path, 1);
  Child saver([&] { save(block); });
  ASSERT_TRUE(becomes_blocked(saver.pid(), golden_.lock_path, 1));
  EXPECT_FALSE(exists(golden_.image_path));
  EXPECT_FALSE(exists(golden_.archive_path));
  holder.release();
  EXPECT_EQ(saver.wait(), 0);
  EXPECT_TRUE(exists(golden_.archive_path));
}

TEST_P(FlashOfAFew, ASave_DoesNotWaitForTheHolderOfARecord) {
  auto* block = worked_on_block();
  LockHolder holder(golden_.lock_path, 2);
  Child saver([&] { save(block); });
  EXPECT_EQ(saver.wait(), 0);
  EXPECT_TRUE(exists(golden_.archive_path));
}

class FlashWithEvents : public Flash {};
INSTANTIATE_TEST_SUITE_P(Areas, FlashWithEvents, testing::Values("Lan", "Wan", "ManageApList"),
                         name_of);

TEST_P(FlashWithEvents, TheEventCommands_FindByte1Free) {
  auto* block = worked_on_block();
  Journal journal;
  bool locked = true;
  journal.before("system " + golden_.post_flash.at(0),
                 [&] { locked = is_locked(golden_.lock_path, 1); });
  save(block);
  EXPECT_FALSE(locked);
}

TEST_P(FlashOfAFew, WhileTheArchiveIsMade_Byte1IsHeld) {
  auto* block = worked_on_block();
  Journal journal;
  bool locked = false;
  journal.before("system rm", [&] { locked = is_locked(golden_.lock_path, 1); });
  save(block);
  EXPECT_TRUE(locked);
}

TEST_P(Flash, ASaveWithAMissingLockFile_NamesItAndLeavesTheArchiveAsItWas) {
  auto* block = worked_on_block();
  write_file(golden_.archive_path, "the last archive");
  remove(golden_.lock_path.c_str());
  Journal journal;
  EXPECT_EQ(capture([&] { area_.save_to_flash(block); }),
            (Output{"Cannot Lock file " + golden_.lock_path, ""}));
  EXPECT_EQ(journal.lines(), (Lines{"open " + golden_.lock_path + " failed"}));
  EXPECT_EQ(read_file(golden_.archive_path), "the last archive");
  EXPECT_EQ(commands_run(), Lines{});
}

TEST_P(FlashOfAFew, ASaveBeforeAnyRead_FindsNoLockPathAndSavesNothing) {
  area_.init(0);
  EXPECT_EQ(capture([&] { area_.save_to_flash(block_at(area_.get())); }),
            (Output{"Cannot Lock file ", ""}));
  EXPECT_FALSE(exists(golden_.archive_path));
}

TEST_P(Flash, ASaveThatCannotOpenTheImage_SaysSoReleasesTheLockAndStops) {
  auto* block = worked_on_block();
  ASSERT_EQ(rmdir("/var/systemconfig"), 0);
  Journal journal;
  EXPECT_EQ(capture([&] { area_.save_to_flash(block); }), (Output{"canot open the file.", ""}));
  EXPECT_EQ(journal.lines(),
            (Lines{"#1 = open " + golden_.lock_path, "lock #1 1",
                   "fopen " + golden_.image_path + " w failed", "unlock #1 1", "close #1"}));
  EXPECT_FALSE(exists(golden_.archive_path));
  EXPECT_EQ(commands_run(), Lines{});
}

TEST_P(FlashOfAFew, ASaveThatCannotWriteTheImage_SaysSoAndGoesOn) {
  auto* block = worked_on_block();
  ASSERT_EQ(symlink("/dev/full", golden_.image_path.c_str()), 0);
  Journal journal;
  EXPECT_EQ(capture([&] { area_.save_to_flash(block); }),
            (Output{"file write error\n", kTar.slash_note}));
  EXPECT_EQ(journal.lines().size(), 8u + golden_.post_flash.size());
  EXPECT_TRUE(exists(golden_.archive_path));
  EXPECT_FALSE(exists(golden_.image_path));
  EXPECT_EQ(commands_run().size(), 1u + golden_.post_flash.size());
}

/* ---- reading ---- */

TEST_P(Flash, SaveUninitInit1_RestoresTheIdenticalImage) {
  auto* block = worked_on_block();
  const Image expected(block, golden_.size);
  save(block);
  area_.uninit();
  EXPECT_EQ(capture([&] { EXPECT_EQ(area_.init(1), 0); }), kSilence);
  EXPECT_TRUE(expected.matches(block_at(area_.get())));
}

TEST_P(Flash, ARead_MakesItsCallsInOrder) {
  auto* block = worked_on_block();
  save(block);
  Journal journal;
  int result = -1;
  EXPECT_EQ(capture([&] { result = area_.read(block); }), kSilence);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(journal.lines(),
            (Lines{"access " + golden_.archive_path + " 0", "system " + unpack_command(),
                   "fopen " + golden_.image_path + " rb", "fclose",
                   "system rm -f " + golden_.image_path}));
}

TEST_P(FlashOfAFew, ARead_TakesNoLockAndWaitsForNone) {
  auto* block = worked_on_block();
  save(block);
  LockHolder block_holder(golden_.lock_path, 1), record_holder(golden_.lock_path, 2);
  Child reader([&] { ASSERT_EQ(area_.read(block), 0); });
  EXPECT_EQ(reader.wait(), 0);
}

TEST_P(FlashOfAFew, ARead_LeavesTheArchiveAndNoWorkingImage) {
  auto* block = worked_on_block();
  save(block);
  const std::string archive = read_file(golden_.archive_path);
  area_.read(block);
  EXPECT_FALSE(exists(golden_.image_path));
  EXPECT_EQ(read_file(golden_.archive_path), archive);
}

TEST_P(Flash, TheStoredImage_ReplacesTheBlockWholeHeaderAndLockIndicesIncluded) {
  Image stored(golden_.size);
  fill(stored.data(), golden_.size, 5);
  make_archive(std::string(reinterpret_cast<char*>(stored.data()), golden_.size));
  EXPECT_EQ(area_.init(1), 0);
  EXPECT_TRUE(stored.matches(block_at(area_.get())));
}

TEST_P(Flash, HeaderAndLockIndices_AreWrittenBeforeTheArchiveIsLookedFor) {
  area_.init(0);
  auto* block = block_at(area_.get());
  Journal journal;
  bool numbered_then = false;
  journal.before("access", [&] { numbered_then = numbered().matches(block); });
  area_.read(block);
  EXPECT_TRUE(numbered_then);
}

TEST_P(FlashOfAFew, AnImageThatIsTooShort_IsReadAsFarAsItGoesAndSaidSo) {
  make_archive(std::string(1000, 'i'));
  area_.init(0);
  auto* block = block_at(area_.get());
  Image expected = numbered();
  expected.put(0, std::string(1000, 'i'));
  int result = -1;
  EXPECT_EQ(capture([&] { result = area_.read(block); }), (Output{"file read error\n", ""}));
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_FALSE(exists(golden_.image_path));
}

TEST_P(FlashOfAFew, AnImageThatIsTooLong_IsReadUpToTheBlocksSize) {
  make_archive(std::string(golden_.size + 4096, 'l'));
  area_.init(0);
  auto* block = block_at(area_.get());
  EXPECT_EQ(capture([&] { EXPECT_EQ(area_.read(block), 0); }), kSilence);
  EXPECT_TRUE(Image(golden_.size).put(0, std::string(golden_.size, 'l')).matches(block));
}

TEST_P(FlashOfAFew, AnArchiveWithoutTheImage_IsSaidAndTheStatusOfTheUnpackingReturned) {
  make_archive("another file", "/var/systemconfig/config_other.cfg");
  area_.init(0);
  auto* block = block_at(area_.get());
  Journal journal;
  int result = -1;
  EXPECT_EQ(capture([&] { result = area_.read(block); }), (Output{"cant open the file", ""}));
  EXPECT_EQ(result, 0);
  EXPECT_EQ(journal.lines(),
            (Lines{"access " + golden_.archive_path + " 0", "system " + unpack_command(),
                   "fopen " + golden_.image_path + " rb failed"}));
  EXPECT_TRUE(numbered().matches(block));
}

TEST_P(FlashOfAFew, ADamagedArchive_GivesTheFailedStatusOfTheUnpacking) {
  write_file(golden_.archive_path, "no archive");
  area_.init(0);
  auto* block = block_at(area_.get());
  int result = -1;
  const Output output = capture([&] { result = area_.read(block); });
  EXPECT_EQ(output.out, "cant open the file");
  EXPECT_EQ(result, kTar.damaged << 8);
  EXPECT_TRUE(numbered().matches(block));
}

TEST_P(FlashOfAFew, AnImageThatCannotBeOpened_IsLeftInPlace) {
  make_archive("an image");
  area_.init(0);
  auto* block = block_at(area_.get());
  Journal journal;
  std::optional<NoDescriptors> limit;
  journal.before("fopen", [&] { limit.emplace(); });
  journal.after("fopen", [&] { limit.reset(); });
  EXPECT_EQ(capture([&] { EXPECT_EQ(area_.read(block), 0); }), (Output{"cant open the file", ""}));
  EXPECT_EQ(read_file(golden_.image_path), "an image");
}

TEST_P(FlashOfAFew, AReadWhoseLastCommandFails_ReturnsThatStatus) {
  const std::string directory = golden_.image_path;
  ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
  run("tar -zcf " + golden_.archive_path + " -C / " + directory.substr(1));
  area_.init(0);
  int result = -1;
  const Output output = capture([&] { result = area_.read(block_at(area_.get())); });
  EXPECT_EQ(output.out, "file read error\n");
  EXPECT_EQ(result, 1 << 8); /* rm's status: it removes no directory */
}

}  // namespace
