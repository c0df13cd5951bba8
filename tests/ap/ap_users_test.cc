/* The run-time table of AP users: its own kind of start, lookups, claims and the deletion. */
#include <sys/shm.h>
#include <unistd.h>

#include <sysconfig/ap.h>

#include "ap/lock_lines.h"
#include "support/image.h"
#include "support/journal.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;

const std::string kLockFile = lock_file("ApUserList");
constexpr uint8_t kMac[] = {0xAA, 1, 2, 3, 4, 5}, kNone[6] = {};

class ApUsers : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    ASSERT_EQ(SC_Init_System_ApUserList_Config(), 0);
    block = block_at<ApUserListBlock>(SC_Get_ApUserList_System_Config());
    ASSERT_NE(block, nullptr);
  }
  static Image empty_table() {
    Image expected(sizeof(ApUserListBlock));
    golden_area("ApUserList").number(expected);
    return expected;
  }
  void fill_used() {
    fill(block->users, sizeof block->users, 1);
    golden_area("ApUserList").number_locks(block);
    for (uint32_t i = 0; i < 300; ++i) block->users[i].user_id = i + 1;
  }

  ApUserListBlock* block = nullptr;
};

TEST_F(ApUsers, Init_WritesHeaderAndLockIndicesItselfAndNoFileIsRead) {
  Journal journal;
  EXPECT_EQ(SC_Init_System_ApUserList_Config(), 0);
  EXPECT_TRUE(empty_table().matches(block));
  ASSERT_EQ(journal.lines().size(), 1u);
  EXPECT_EQ(journal.lines()[0], "system echo '' > " + kLockFile);
  EXPECT_EQ(read_file(kLockFile), "\n");
}

TEST_F(ApUsers, ASecondInit_EmptiesTheTableAgain) {
  fill(block, sizeof *block, 2);
  EXPECT_EQ(SC_Init_System_ApUserList_Config(), 0);
  EXPECT_TRUE(empty_table().matches(block));
}

TEST_F(ApUsers, RightAfterInit_TheCountIsZeroAndTheFirstClaimTakesRecordZero) {
  EXPECT_EQ(SC_Get_ApUser_Info_Count(block), 0);
  Journal journal;
  EXPECT_EQ(SC_Get_ApUser_Info_Blank(block), 0);
  EXPECT_TRUE(journal.lines().empty());
  EXPECT_TRUE(empty_table().put32(136 + 4, 1).matches(block));
  EXPECT_EQ(SC_Get_ApUser_Info_Count(block), 1);
}

TEST_F(ApUsers, The301stClaim_IsRefused) {
  for (int i = 0; i < 300; ++i) ASSERT_EQ(SC_Get_ApUser_Info_Blank(block), i);
  EXPECT_EQ(SC_Get_ApUser_Info_Blank(block), -1);
  EXPECT_EQ(SC_Get_ApUser_Info_Count(block), 300);
}

TEST_F(ApUsers, AClaim_TakesTheLowestFreeRecordAndChangesItsIdOnly) {
  fill_used();
  block->users[70].user_id = 0;
  block->users[71].user_id = 0;
  Image expected(block, sizeof *block);
  EXPECT_EQ(SC_Get_ApUser_Info_Blank(block), 70);
  EXPECT_TRUE(expected.put32(136 + 23200 * 70 + 4, 71).matches(block));
}

TEST_F(ApUsers, AnId_IsFoundAtItsFirstPositionAndZeroAtTheFirstFreeOne) {
  EXPECT_EQ(SC_Get_ApUser_Info_By_Id(block, 0), 0);
  EXPECT_EQ(SC_Get_ApUser_Info_By_Id(block, 1), -1);
  fill_used();
  EXPECT_EQ(SC_Get_ApUser_Info_By_Id(block, 0), -1);
  EXPECT_EQ(SC_Get_ApUser_Info_By_Id(block, 300), 299);
  block->users[6].user_id = 0;
  EXPECT_EQ(SC_Get_ApUser_Info_By_Id(block, 0), 6);
}

TEST_F(ApUsers, AMac_IsFoundAtItsFirstPositionComparedByAllSixBytes) {
  EXPECT_EQ(SC_Get_ApUser_Info_By_Mac(block, kNone), 0);
  memcpy(block->users[12].user_mac, kMac, 6);
  memcpy(block->users[299].user_mac, kMac, 6);
  block->users[299].user_mac[5] ^= 1;
  EXPECT_EQ(SC_Get_ApUser_Info_By_Mac(block, kMac), 12);
  EXPECT_EQ(SC_Get_ApUser_Info_By_Mac(block, block->users[299].user_mac), 299);
  uint8_t other[6] = {0xAB, 1, 2, 3, 4, 5};
  EXPECT_EQ(SC_Get_ApUser_Info_By_Mac(block, other), -1);
}

TEST_F(ApUsers, WhatLiesBehindTheTable_IsNoUser) {
  const uint32_t id = 777;
  memcpy(block->spare_6960136 + 4, &id, sizeof id);
  memcpy(block->spare_6960136 + 8, kMac, 6);
  EXPECT_EQ(SC_Get_ApUser_Info_By_Id(block, 777), -1);
  EXPECT_EQ(SC_Get_ApUser_Info_By_Mac(block, kMac), -1);
  EXPECT_EQ(SC_Del_ApUser_Info_by_Mac(block, kMac), 0);
  EXPECT_EQ(SC_Get_ApUser_Info_Count(block), 0);
}

TEST_F(ApUsers, TheCount_CountsEveryIdButZeroAndIsZeroForANullBlock) {
  block->users[0].user_id = 0xFFFFFFFF;
  block->users[299].user_id = 7;
  EXPECT_EQ(SC_Get_ApUser_Info_Count(block), 2);
  EXPECT_EQ(SC_Get_ApUser_Info_Count(nullptr), 0);
}

TEST_F(ApUsers, TheDeletionByMac_ClearsTheFirstMatchButItsLockIndexUnderItsLock) {
  fill_used();
  memcpy(block->users[5].user_mac, kMac, 6);
  memcpy(block->users[9].user_mac, kMac, 6);
  Image expected(block, sizeof *block);
  Journal journal;
  EXPECT_EQ(SC_Del_ApUser_Info_by_Mac(block, kMac), 1);
  expected.zero(136 + 23200 * 5, 23200).put32(136 + 23200 * 5, 7);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(journal.lines(), under(kLockFile, {"lock #1 7", "unlock #1 7"}));
}

TEST_F(ApUsers, TheFirstAndLastUser_CanBeDeleted) {
  fill_used();
  Image expected(block, sizeof *block);
  for (uint32_t p : {0u, 299u}) {
    memcpy(block->users[p].user_mac, kMac, 6);
    EXPECT_EQ(SC_Del_ApUser_Info_by_Mac(block, kMac), 1);
    expected.zero(136 + 23200 * p, 23200).put32(136 + 23200 * p, p + 2);
    EXPECT_TRUE(expected.matches(block));
  }
}

TEST_F(ApUsers, DeletingAMacThatIsNotThere_ReturnsZeroAndClosesTheLockFile) {
  const Image before(block, sizeof *block);
  Journal journal;
  EXPECT_EQ(SC_Del_ApUser_Info_by_Mac(block, kMac), 0);
  EXPECT_EQ(journal.lines(), under(kLockFile, {}));
  EXPECT_TRUE(before.matches(block));
}

TEST_F(ApUsers, WithoutLockFile_TheDeletionSaysSoAndReturnsZero) {
  memcpy(block->users[5].user_mac, kMac, 6);
  ASSERT_EQ(unlink(kLockFile.c_str()), 0);
  const Image before(block, sizeof *block);
  int32_t result = 7;
  EXPECT_EQ(capture([&] { result = SC_Del_ApUser_Info_by_Mac(block, kMac); }),
            cannot_lock(kLockFile));
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(before.matches(block));
}

}  // namespace
