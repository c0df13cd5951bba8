/* The life of the areas under faults. */
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include <algorithm>
#include <filesystem>

#include "faults/fault_world.h"
#include "support/areas.h"
#include "support/image.h"
#include "support/started.h"

namespace {

using namespace sc_test;
namespace fs = std::filesystem;

class AreaFaults : public FaultWorld, public testing::WithParamInterface<std::string> {
 protected:
  const AreaCalls& area_ = area(GetParam());
  const AreaFacts& golden_ = golden_area(GetParam());

  /* Bytes of their own at both ends of the block: what lies between is much of the same. */
  void fill_ends(uint8_t* block, uint32_t seed) const {
    constexpr size_t kEnd = 50'000;
    const size_t size = std::min(golden_.size, kEnd);
    fill(block, size, seed);
    fill(block + golden_.size - size, size, seed);
  }
  /* A segment full of bytes that are neither what Init writes nor what the archive holds. */
  void dirty() {
    ASSERT_EQ(area_.init(0), 0);
    block_ = block_at(area_.get());
    memset(block_, 0x55, golden_.size);
    remove(golden_.lock_path.c_str());
  }
  /* An archive of a started block with bytes of its own behind its header, made once. */
  void make_archive() {
    if (archive_.empty()) {
      saved_ = Image(golden_.size);
      fill_ends(saved_.data(), 2);
      golden_.number(saved_);
      write_file(golden_.image_path, text_of(saved_));
      const std::string pack = "tar -zcf " + golden_.archive_path + " -C / ";
      ASSERT_EQ(system((pack + golden_.image_path.substr(1)).c_str()), 0);
      remove(golden_.image_path.c_str());
      archive_ = read_file(golden_.archive_path);
    }
    write_file(golden_.archive_path, archive_);
  }
  static std::string text_of(const Image& image) {
    return std::string(reinterpret_cast<const char*>(image.data()), image.size());
  }
  Image numbered(Image image) const {
    golden_.number(image);
    return image;
  }
  Image half_loaded(Image image) const {
    image.copy(0, saved_.data(), golden_.size / 2);
    return image;
  }
  /* On 64-bit hosts the segment's size is asked for, and room for it, before it is attached. */
  static bool keeps_from_attaching(const Fault& fault) {
    return fault.is("shmctl") || fault.is("mmap") || fault.is("shmat");
  }
  /* Names of what lies in the directories of images and archives. */
  static Lines files() {
    Lines names;
    for (const char* folder : {"/var/systemconfig", "/var/dataconfig"}) {
      for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path());
    }
    return names;
  }
  Lines with_archive(bool image_stays) const {
    if (!image_stays) return {golden_.archive_path};
    return {golden_.image_path, golden_.archive_path};
  }

  uint8_t* block_ = nullptr;
  Image saved_{0};
  std::string archive_; /* with saved_ in it */
};

class SavedAreaFaults : public AreaFaults {};

INSTANTIATE_TEST_SUITE_P(Areas, AreaFaults, testing::ValuesIn(area_names()),
                         [](const auto& info) { return info.param; });
INSTANTIATE_TEST_SUITE_P(Areas, SavedAreaFaults, testing::ValuesIn(saved_area_names()),
                         [](const auto& info) { return info.param; });

TEST_P(AreaFaults, Get_ReturnsZeroWithoutASegmentAndEndsTheProcessWithoutAnAddress) {
  ASSERT_EQ(area_.init(0), 0);
  run(kNoFault, [&] { return area_.get() != 0; });
  const std::vector<Fault> all = faults();
  EXPECT_GE(all.size(), 2u);
  for (const Fault& fault : all) {
    SCOPED_TRACE(testing::Message() << fault);
    const Ending expected =
        fault.is("shmget") ? Ending{7, kSilence} : Ending{1, {"", "shmat failed\n"}};
    EXPECT_EQ(run_in_child([&] {
                Faults faults(fault.number);
                Tried::begin(true);
                _exit(area_.get() == 0 ? 7 : 8);
              }),
              expected);
  }
}

TEST_P(AreaFaults, Uninit_SaysWhichStepFailedAndTakesTheOthers) {
  std::vector<Fault> all = {kNoFault};
  for (size_t i = 0; i < all.size(); ++i) {
    const Fault fault = all[i];
    SCOPED_TRACE(testing::Message() << fault);
    start_over();
    ASSERT_EQ(area_.init(0), 0);
    const Seen seen = run(fault, area_.uninit);
    if (i == 0) {
      const std::vector<Fault> found = faults();
      all.insert(all.end(), found.begin(), found.end());
    }
    std::string said;
    if (fault.is("shmget"))
      said = "shmget failed\nshmat failed\nshmdt failed\nshmctl(IPC_RMID) failed\n";
    const bool removal = fault.number == all.size() - 1; /* the last call */
    if (keeps_from_attaching(fault) && !removal) said = "shmat failed\nshmdt failed\n";
    if (fault.is("shmdt")) said = "shmdt failed\n";
    if (fault.is("shmctl") && removal) said = "shmctl(IPC_RMID) failed\n";
    EXPECT_EQ(seen, (Seen{0, {"", said}, {}}));
    EXPECT_EQ(segment_of(golden_.key) >= 0, fault.is("shmget") || (fault.number != 0 && removal));
  }
  EXPECT_GE(all.size(), 5u);
}

TEST_P(AreaFaults, Init_ReturnsTheErrorOrLeavesTheEmptyNumberedOrLoadedBlock) {
  const bool reads = area_.read != nullptr;
  size_t calls = 0;
  std::vector<Fault> all = {kNoFault};
  for (size_t i = 0; i < all.size(); ++i) {
    const Fault fault = all[i];
    SCOPED_TRACE(testing::Message() << fault);
    start_over();
    dirty();
    if (reads) make_archive();
    const Image untouched(block_, golden_.size);
    const Seen seen = run(fault, [&] { return area_.init(1); });
    if (i == 0) {
      calls = faults().size();
      const std::vector<Fault> sample = sample_of(faults());
      all.insert(all.end(), sample.begin(), sample.end());
    }
    const bool no_segment = fault.is("shmget"), no_address = keeps_from_attaching(fault);
    const bool echoed = !fault.is("system") || fault.nth != 1;
    const bool unpacked = !fault.is("access") && (!fault.is("system") || fault.nth != 2);
    const bool opened = unpacked && !fault.is("fopen");
    const bool removed = opened && (!fault.is("system") || fault.nth != 3);

    Seen expected;
    Image left = numbered(golden_.emptied());
    if (no_segment || no_address) {
      left = untouched;
      expected.result = no_segment ? error_of("shmget") : -1;
    } else if (reads) {
      if (fault.is("fread")) {
        expected.output.out = "file read error\n";
        left = half_loaded(left);
      } else if (opened) {
        left = saved_;
      } else if (!fault.is("access")) {
        expected.output.out = "cant open the file";
      }
    }
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(left.matches(block_));
    EXPECT_EQ(exists(golden_.lock_path), echoed && !no_segment && !no_address);
    if (reads) {
      EXPECT_EQ(files(), with_archive(unpacked && !removed && !no_segment && !no_address));
    }
  }
  EXPECT_GE(calls, reads ? 10u : 4u);
}

TEST_P(SavedAreaFaults, Read_ReturnsTheLastStatusAndLeavesTheNumberedOrLoadedBlock) {
  size_t calls = 0;
  std::vector<Fault> all = {kNoFault};
  for (size_t i = 0; i < all.size(); ++i) {
    const Fault fault = all[i];
    SCOPED_TRACE(testing::Message() << fault);
    start_over();
    dirty();
    make_archive();
    const Image untouched(block_, golden_.size);
    const Seen seen = run(fault, [&] { return area_.read(block_); });
    if (i == 0) {
      calls = faults().size();
      const std::vector<Fault> sample = sample_of(faults());
      all.insert(all.end(), sample.begin(), sample.end());
    }
    const bool unpacked = !fault.is("access") && (!fault.is("system") || fault.nth != 1);
    const bool opened = unpacked && !fault.is("fopen");

    Seen expected;
    Image left = numbered(untouched);
    if (fault.is("access") || fault.is("system")) expected.result = -1;
    if (fault.is("fread")) {
      expected.output.out = "file read error\n";
      left = half_loaded(left);
    } else if (opened) {
      left = saved_;
    } else if (!fault.is("access")) {
      expected.output.out = "cant open the file";
    }
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(left.matches(block_));
    EXPECT_EQ(files(), with_archive(fault.is("fopen") || (fault.is("system") && fault.nth == 2)));
  }
  EXPECT_EQ(calls, 6u);
}

const TarWords kTar = tar_words();

TEST_P(SavedAreaFaults, SaveToFlash_LeavesTheOldArchiveTheNewOneOrHalfOfItAndSaysWhy) {
  size_t calls = 0;
  std::vector<Fault> all = {kNoFault};
  for (size_t i = 0; i < all.size(); ++i) {
    const Fault fault = all[i];
    SCOPED_TRACE(testing::Message() << fault);
    start_over();
    make_archive();
    ASSERT_EQ(area_.init(0), 0);
    block_ = block_at(area_.get());
    Image image(golden_.size);
    fill_ends(image.data(), 3);
    golden_.number(image);
    memcpy(block_, image.data(), golden_.size);
    const Seen seen = run(fault, [&] {
      area_.save_to_flash(block_);
      return 0;
    });
    if (i == 0) {
      calls = faults().size();
      const std::vector<Fault> sample = sample_of(faults());
      all.insert(all.end(), sample.begin(), sample.end());
    }
    const bool begun = !fault.is("open") && !fault.is("fopen");
    const bool packed = begun && (!fault.is("system") || fault.nth != 1);

    Seen expected;
    if (fault.is("open")) {
      expected.output = cannot_lock(golden_.lock_path);
      EXPECT_EQ(calls_, Lines{"open"});
    }
    if (fault.is("fopen")) expected.output.out = "canot open the file.";
    if (fault.is("fwrite")) expected.output.out = "file write error\n";
    if (packed) expected.output.err = kTar.slash_note;
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(image.matches(block_));
    EXPECT_EQ(files(), with_archive(fault.is("system") && fault.nth == 2));

    if (packed) {
      std::string packed_image = text_of(image);
      if (fault.is("fwrite")) packed_image.resize(golden_.size / 2);
      const std::string unpack = "tar -zxOf " + golden_.archive_path + " >/var/unpacked";
      ASSERT_EQ(system(unpack.c_str()), 0);
      EXPECT_TRUE(read_file("/var/unpacked") == packed_image);
    } else {
      EXPECT_TRUE(read_file(golden_.archive_path) == archive_);
    }

    Lines commands;
    if (packed) commands.push_back("sync");
    for (size_t event = 0; begun && event < golden_.post_flash.size(); ++event) {
      if (!fault.is("system") || fault.nth != event + 3)
        commands.push_back(golden_.post_flash[event]);
    }
    EXPECT_EQ(commands_run(), commands);
  }
  EXPECT_EQ(calls, 9 + golden_.post_flash.size());
}

TEST_P(SavedAreaFaults, Save_SaysWhichStepFailed) {
  auto save = [&] {
    area_.save();
    return 0;
  };
  const Seen seen = run(kNoFault, save);
  EXPECT_EQ(seen, (Seen{0, kSilence, {golden_.code}}));
  const std::vector<Fault> all = faults();
  EXPECT_EQ(calls_, (Lines{"socket", "connect", "send", "close"}));
  for (const Fault& fault : all) {
    SCOPED_TRACE(testing::Message() << fault);
    Seen expected = seen;
    lose_notification(fault, expected);
    EXPECT_EQ(run(fault, save), expected);
  }
}

using DirectoryFaults = FaultWorld;

TEST_F(DirectoryFaults, ASegmentThatIsNotFoundLeavesZeroAndOneWithoutAddressEndsTheProcess) {
  for (const AreaCalls& area : all_areas()) ASSERT_EQ(area.init(0), 0);
  uint32_t slots[17];
  auto get = [&] {
    return Noted<SC_Get_SysConfig>::call(reinterpret_cast<SystemConfigDirectory*>(slots)) ==
           slots[16];
  };
  EXPECT_EQ(run(kNoFault, get).result, 1);
  EXPECT_EQ(std::count(slots, slots + 17, 0u), 0);
  for (const Fault& fault : faults()) {
    SCOPED_TRACE(testing::Message() << fault);
    const Ending ending = run_in_child([&] {
      int status = 8;
      {
        Faults faults(fault.number);
        Tried::begin(true);
        if (get()) status = 0;
      }
      /* Only the area whose segment was not found has none. */
      for (size_t slot = 0; slot < 17; ++slot) {
        if ((slots[slot] == 0) != (slot + 1 == fault.nth)) status = 9;
      }
      _exit(status);
    });
    EXPECT_EQ(ending,
              fault.is("shmget") ? (Ending{0, kSilence}) : (Ending{1, {"", "shmat failed\n"}}));
  }
}

}  // namespace
