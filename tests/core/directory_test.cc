/* The areas without tables, and the directory of all areas. */
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sysconfig/core.h>
#include <sysconfig/lan.h>

#include "support/areas.h"
#include "support/image.h"
#include "support/output.h"
#include "support/world.h"

namespace {

using namespace sc_test;

/* ---- single-record areas ---- */

class SingleRecordAreas : public World {};

TEST_F(SingleRecordAreas, WanAfterInit1_HoldsTheFourSectionLocksAndZeroesBesidesTheHeader) {
  ASSERT_EQ(SC_Init_System_Wan_Config(1), 0);
  Image expected(4476);
  expected.put(2, lock_file("Wan")).put32(132, 1);
  expected.put32(136, 2).put32(1096, 3).put32(2056, 4).put32(3016, 5);
  EXPECT_TRUE(expected.matches(block_at(SC_Get_Wan_System_Config())));
}

TEST_F(SingleRecordAreas, MiscAfterInit1_HoldsTheFiveSectionLocksAndZeroesBesidesTheHeader) {
  ASSERT_EQ(SC_Init_System_Misc_Config(1), 0);
  Image expected(7548);
  expected.put(2, lock_file("Misc")).put32(132, 1);
  expected.put32(136, 2).put32(908, 3).put32(1416, 4).put32(1944, 5).put32(2500, 6);
  EXPECT_TRUE(expected.matches(block_at(SC_Get_Misc_System_Config())));
}

TEST_F(SingleRecordAreas, ProductInfoAfterInit1_HoldsItsHeaderAlone) {
  ASSERT_EQ(SC_Init_System_ProductInfo_Config(1), 0);
  Image expected(24224);
  expected.put(2, lock_file("ProductInfo")).put32(132, 1);
  EXPECT_TRUE(expected.matches(block_at(SC_Get_ProductInfo_System_Config())));
}

/* ---- directory ---- */

class Directory : public World {
 protected:
  /* The directory's 68 bytes between bytes that must stay. */
  struct Framed {
    uint8_t before[16];
    SystemConfigDirectory directory;
    uint8_t after[16];
  };
  Framed framed_;

  void SetUp() override {
    World::SetUp();
    fill(&framed_, sizeof framed_, 3);
  }
  uint32_t word(size_t slot) const {
    uint32_t value;
    memcpy(&value, reinterpret_cast<const uint8_t*>(&framed_.directory) + 4 * slot, sizeof value);
    return value;
  }
};

TEST_F(Directory, WithoutAnySegment_ReturnsZeroAndZeroesExactlyItsWords) {
  Image expected(&framed_, sizeof framed_);
  expected.zero(16, 68);
  uint32_t result = 1;
  EXPECT_EQ(capture([&] { result = SC_Get_SysConfig(&framed_.directory); }), kSilence);
  EXPECT_EQ(result, 0u);
  EXPECT_TRUE(expected.matches(&framed_));
}

TEST_F(Directory, WithOnlyLanAndClients_FillsSlots0And16AndReturnsTheClientsAddress) {
  area("Lan").init(0);
  area("Clients").init(0);
  const uint32_t result = SC_Get_SysConfig(&framed_.directory);
  EXPECT_NE(result, 0u);
  EXPECT_EQ(word(16), result);
  EXPECT_NE(word(0), 0u);
  for (size_t slot = 1; slot < 16; ++slot) EXPECT_EQ(word(slot), 0u) << slot;
}

TEST_F(Directory, WithEveryArea_HoldsEachInItsSlot) {
  for (const AreaFacts& golden : golden_areas()) {
    area(golden.name).init(0);
    memcpy(block_at(area(golden.name).get()) + golden.size - 4, &golden.key, 4);
  }
  const uint32_t result = SC_Get_SysConfig(&framed_.directory);
  EXPECT_EQ(result, word(16));
  for (size_t slot = 0; slot < golden_areas().size(); ++slot) {
    const AreaFacts& golden = golden_areas()[slot];
    ASSERT_NE(word(slot), 0u) << golden.name;
    EXPECT_EQ(memcmp(block_at(word(slot)) + golden.size - 4, &golden.key, 4), 0) << golden.name;
  }
}

TEST_F(Directory, WithEveryAreaButThree_LeavesTheirSlotsZeroAndGoesOn) {
  for (const AreaCalls& calls : all_areas()) calls.init(0);
  for (const char* name : {"Lan", "FwMac", "Clients"}) area(name).uninit();
  EXPECT_EQ(SC_Get_SysConfig(&framed_.directory), 0u);
  for (size_t slot = 0; slot < 17; ++slot) {
    EXPECT_EQ(word(slot) == 0, slot == 0 || slot == 8 || slot == 16) << slot;
  }
}

/* Takes all the room that segments are attached in on x86-64, but for a hole of this size. Room for
 * less than any area is left at the end, where the sanitizer keeps its own. */
void leave_room_for(size_t size) {
#if defined(MAP_32BIT) && __SIZEOF_POINTER__ == 8
  auto* low = reinterpret_cast<uint8_t*>(0x40000000);
  constexpr size_t kAll = 0x7fff8000 - 0x40000000;
  mmap(low, kAll, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
  munmap(low + kAll / 2, size);
#else
  static_cast<void>(size);
#endif
}

/* Another program may have made the segment larger than the area. All of it is attached, so there
 * must be room for all of it: attached into less, it would replace what lies behind. */
TEST_F(Directory, ASegmentLargerThanItsArea_IsAttachedOnlyWhereAllOfItHasRoom) {
  constexpr size_t kRoom = 53248, kMore = 65536; /* the Lan area in whole pages, and beyond it */
  constexpr bool kLow = sizeof(void*) == 8;      /* 32-bit hosts attach anywhere */
  ASSERT_GE(shmget(9600, 50888 + kMore, IPC_CREAT | 0666), 0);
  const auto attaches_into = [](size_t room) {
    const pid_t child = fork();
    if (child == 0) {
      close(STDERR_FILENO);
      leave_room_for(room);
      _exit(SC_Get_Lan_System_Config() != 0 ? 0 : 2);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0;
  };
  EXPECT_EQ(attaches_into(kRoom), !kLow);
  EXPECT_TRUE(attaches_into(kRoom + kMore));
}

TEST_F(Directory, EachCall_AttachesEverySegmentAnew) {
  area("Lan").init(0);
  area("Wan").init(0);
  SystemConfigDirectory other;
  SC_Get_SysConfig(&framed_.directory);
  SC_Get_SysConfig(&other);
  EXPECT_NE(framed_.directory.lan, other.lan);
  EXPECT_NE(framed_.directory.wan, other.wan);
}

}  // namespace
