/* The life of every area but for its files: attach, remove, create, number, announce. */
#include <sched.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>

#include "support/areas.h"
#include "support/journal.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Lines = std::vector<std::string>;

class EveryArea : public World, public testing::WithParamInterface<std::string> {
 protected:
  const AreaCalls& area_ = area(GetParam());
  const AreaFacts& golden_ = golden_area(GetParam());

  /* A pattern in the whole segment, as if other programs had worked on it. */
  uint8_t* worked_on_block() {
    area_.init(0);
    auto* block = block_at(area_.get());
    fill(block, golden_.size, 1);
    return block;
  }
  /* What Init(0) leaves: the AP users' Init numbers its block itself. */
  Image after_init() {
    Image image = golden_.emptied();
    if (area_.read == nullptr) golden_.number(image);
    return image;
  }
};

/* The areas that have files, and so Read and the notification. */
class EverySavedArea : public EveryArea {};

std::string name_of(const testing::TestParamInfo<std::string>& info) { return info.param; }
INSTANTIATE_TEST_SUITE_P(Areas, EveryArea, testing::ValuesIn(area_names()), name_of);
INSTANTIATE_TEST_SUITE_P(Areas, EverySavedArea, testing::ValuesIn(saved_area_names()), name_of);

/* ---- Get ---- */

TEST_P(EveryArea, GetOfAKeyThatWasNeverInitialised_ReturnsZeroAndPrintsNothing) {
  uint32_t address = 1;
  EXPECT_EQ(capture([&] { address = area_.get(); }), kSilence);
  EXPECT_EQ(address, 0u);
  EXPECT_EQ(segment_of(golden_.key), -1);
}

TEST_P(EveryArea, EachGet_AttachesTheSameSegmentAnew) {
  area_.init(0);
  auto* one = block_at(area_.get());
  auto* other = block_at(area_.get());
  ASSERT_NE(one, nullptr);
  ASSERT_NE(other, nullptr);
  EXPECT_NE(one, other);
  one[golden_.size - 1] = 0x5a;
  EXPECT_EQ(other[golden_.size - 1], 0x5a);
}

/* ---- Uninit ---- */

TEST_P(EveryArea, Uninit_RemovesTheSegmentAndReturnsZeroInSilence) {
  area_.init(0);
  int result = -1;
  EXPECT_EQ(capture([&] { result = area_.uninit(); }), kSilence);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(segment_of(golden_.key), -1);
}

TEST_P(EveryArea, UninitWithoutASegment_LeavesNoneAndReturnsZeroInSilence) {
  int result = -1;
  EXPECT_EQ(capture([&] { result = area_.uninit(); }), kSilence);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(segment_of(golden_.key), -1);
}

TEST_P(EveryArea, Uninit_DetachesWhatItAttachedAndNothingElse) {
  area_.init(0);
  const auto before = attached_addresses();
  area_.uninit();
  EXPECT_EQ(attached_addresses(), before);
}

/* ---- Init ---- */

TEST_P(EveryArea, Init_CreatesTheSegmentOfItsKeySizeAndMode) {
  const mode_t mask = umask(077);
  EXPECT_EQ(area_.init(0), 0);
  umask(mask);
  shmid_ds state;
  ASSERT_EQ(shmctl(segment_of(golden_.key), IPC_STAT, &state), 0);
  EXPECT_EQ(state.shm_segsz, golden_.size);
  EXPECT_EQ(state.shm_perm.mode & 0777, 0666);
}

TEST_P(EveryArea, Init0OfANewBlock_LeavesZeroesAndFreeMarks) {
  int result = -1;
  EXPECT_EQ(capture([&] { result = area_.init(0); }), kSilence);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(after_init().matches(block_at(area_.get())));
}

TEST_P(EveryArea, InitOnAnExistingBlock_EmptiesItAndTheLockPath) {
  auto* block = worked_on_block();
  block[0] = 0; /* as it mostly is */
  EXPECT_EQ(area_.init(0), 0);
  EXPECT_TRUE(after_init().matches(block));
}

TEST_P(EveryArea, Init_KeepsTheSegmentSoThatOthersStayAttached) {
  area_.init(0);
  const int segment = segment_of(golden_.key);
  area_.init(0);
  EXPECT_EQ(segment_of(golden_.key), segment);
}

TEST_P(EveryArea, Init_RunsOneCommandThatMakesTheLockFile) {
  Journal journal;
  area_.init(0);
  EXPECT_EQ(journal.lines(), (Lines{"system echo '' > " + golden_.lock_path}));
  EXPECT_EQ(read_file(golden_.lock_path), "\n");
}

TEST_P(EveryArea, Init_EmptiesTheBlockBeforeItMakesTheLockFile) {
  auto* block = worked_on_block();
  std::optional<Image> then;
  Journal journal;
  journal.before("system echo", [&] { then = Image(block, golden_.size); });
  area_.init(0);
  ASSERT_TRUE(then.has_value());
  EXPECT_TRUE(Image(golden_.size).matches(then->data()));
}

TEST_P(EveryArea, Init_TruncatesTheLockFileThatIsThere) {
  write_file(golden_.lock_path, "left from the last run");
  area_.init(0);
  EXPECT_EQ(read_file(golden_.lock_path), "\n");
}

TEST_P(EveryArea, Init_AttachesTheBlockAndKeepsItAttached) {
  area_.init(0);
  EXPECT_EQ(attached_addresses().size(), 1u);
}

TEST_P(EverySavedArea, Init1WithoutAnArchive_LeavesAnEmptyBlockWithHeaderAndLockIndices) {
  worked_on_block();
  int result = -1;
  EXPECT_EQ(capture([&] { result = area_.init(1); }), kSilence);
  EXPECT_EQ(result, 0);
  Image expected = golden_.emptied();
  golden_.number(expected);
  EXPECT_TRUE(expected.matches(block_at(area_.get())));
}

TEST_P(EverySavedArea, Init1_MakesTheLockFileBeforeItReads) {
  Journal journal;
  area_.init(1);
  EXPECT_EQ(journal.lines(), (Lines{"system echo '' > " + golden_.lock_path,
                                    "access " + golden_.archive_path + " 0 failed"}));
}

TEST_P(EverySavedArea, InitFlag_CountsByItsLowByteAlone) {
  for (int flag : {1, 257, -255, 0x101}) {
    EXPECT_EQ(area_.init(flag), 0);
    Image expected = golden_.emptied();
    golden_.number(expected);
    EXPECT_TRUE(expected.matches(block_at(area_.get()))) << "flag " << flag;
  }
  for (int flag : {0, 2, 256, 255, -1, 0x1000}) {
    EXPECT_EQ(area_.init(flag), 0);
    EXPECT_TRUE(golden_.emptied().matches(block_at(area_.get()))) << "flag " << flag;
  }
}

/* ---- Read without an archive ---- */

TEST_P(EverySavedArea, ReadWithoutAnArchive_WritesHeaderAndLockIndicesAndReturnsMinusOne) {
  auto* block = worked_on_block();
  Image expected(block, golden_.size);
  golden_.number(expected);
  int result = 0;
  Journal journal;
  EXPECT_EQ(capture([&] { result = area_.read(block); }), kSilence);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(journal.lines(), (Lines{"access " + golden_.archive_path + " 0 failed"}));
  EXPECT_TRUE(expected.matches(block));
}

/* ---- change notification ---- */

std::string code_bytes(int32_t code) {
  char hex[9];
  snprintf(hex, sizeof hex, "%02x000000", static_cast<unsigned>(code));
  return hex;
}

TEST_P(EverySavedArea, Save_SendsTheCodeOnAConnectionOfItsOwnAndClosesIt) {
  Listener listener;
  Journal journal;
  EXPECT_EQ(capture(area_.save), kSilence);
  EXPECT_EQ(
      journal.lines(),
      (Lines{"#1 = socket " + std::to_string(AF_UNIX) + " " + std::to_string(SOCK_STREAM) + " 0",
             "connect #1 /var/config_socket length 20",
             "send #1 " + code_bytes(golden_.code) + " flags 0", "close #1"}));
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{golden_.code}));
}

TEST_P(EverySavedArea, Save_NeedsNoBlock) {
  Listener listener;
  area_.save();
  area_.save();
  EXPECT_EQ(segment_of(golden_.key), -1);
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{golden_.code, golden_.code}));
}

/* ---- the seventeen together ---- */

TEST(Registry, KeysCodesAndPaths_AreEachUsedOnceAndCodes12And13Never) {
  std::map<int, int> keys, codes;
  std::map<std::string, int> paths;
  for (const AreaFacts& golden : golden_areas()) {
    ++keys[golden.key];
    ++codes[golden.code];
    ++paths[golden.lock_path];
  }
  EXPECT_EQ(keys.size(), 17u);
  EXPECT_EQ(codes.size(), 17u);
  EXPECT_EQ(paths.size(), 17u);
  EXPECT_EQ(codes.count(12) + codes.count(13), 0u);
}

class AllAreas : public World {};

TEST_F(AllAreas, ASegmentOfId0_IsLikeAnyOther) {
  const AreaCalls& lan = area("Lan");
  EXPECT_EQ(run_in_child([&] {
              const bool alone = unshare(CLONE_NEWIPC) == 0 && lan.init(0) == 0;
              const bool good = alone && segment_of(golden_area("Lan").key) == 0 && lan.get() != 0;
              lan.uninit();
              fflush(stdout);
              _exit(good ? 0 : 1);
            }),
            (Ending{0, kSilence}));
}

TEST_F(AllAreas, InitOfOneArea_TouchesNoOther) {
  for (const AreaCalls& calls : all_areas()) calls.init(0);
  std::vector<std::pair<const uint8_t*, Image>> others;
  for (const AreaCalls& calls : all_areas()) {
    auto* block = block_at(calls.get());
    const size_t size = golden_area(calls.name).size;
    fill(block, size, 2);
    others.emplace_back(block, Image(block, size));
  }
  for (size_t i = 0; i < all_areas().size(); ++i) {
    ASSERT_EQ(all_areas()[i].init(1), 0);
    for (size_t j = i + 1; j < others.size(); ++j) {
      EXPECT_TRUE(others[j].second.matches(others[j].first)) << i << " changed " << j;
    }
  }
}

}  // namespace
