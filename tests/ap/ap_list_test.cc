/* The managed access points: lookups, claims, counts and clean-ups. */
#include <signal.h>
#include <sys/mman.h>
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

const std::string kLockFile = lock_file("ManageApList");
constexpr uint8_t kMacA[] = {0xAA, 1, 2, 3, 4, 5}, kMacB[] = {0xAA, 1, 2, 3, 4, 6}, kNone[6] = {};

ApLimitsRecord limit(int max_ap_count) {
  ApLimitsRecord limits;
  fill(&limits, sizeof limits, 1);
  limits.max_ap_count = static_cast<int16_t>(max_ap_count);
  return limits;
}

class ApList : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<ManageApListBlock>("ManageApList");
    ASSERT_NE(block, nullptr);
  }

  int32_t claim(int max_ap_count = 300) {
    const ApLimitsRecord limits = limit(max_ap_count);
    return SC_Get_Ap_Info_Blank(block, &limits);
  }
  void put(int position, uint32_t id, const uint8_t* mac, int run_state = 0) {
    block->aps[position].ap_id = id;
    memcpy(block->aps[position].ap_mac, mac, 6);
    block->aps[position].run_state = static_cast<int8_t>(run_state);
  }
  /* Every byte of every record set, with ids and lock indices as they should be. */
  void fill_used() {
    fill(block->aps, sizeof block->aps, 1);
    golden_area("ManageApList").number_locks(block);
    for (uint32_t i = 0; i < 300; ++i) block->aps[i].ap_id = i + 1;
  }
  static size_t record_at(size_t position) { return 136 + 12304 * position; }

  ManageApListBlock* block = nullptr;
};

/* ---- lookups ---- */

TEST_F(ApList, AnAllZeroMac_FindsTheFirstFreeRecord) {
  EXPECT_EQ(SC_Get_Ap_Info_By_Mac(block, kNone), 0);
  put(0, 1, kMacA);
  put(1, 2, kMacB);
  EXPECT_EQ(SC_Get_Ap_Info_By_Mac(block, kNone), 2);
}

TEST_F(ApList, AnAllZeroMac_FindsAnApWhoseMacIsZeroInFrontOfFreeRecords) {
  put(0, 1, kMacA);
  put(1, 2, kNone);
  EXPECT_EQ(SC_Get_Ap_Info_By_Mac(block, kNone), 1);
}

TEST_F(ApList, AMacWithTheEndOfTheLastOne_IsNotFound) {
  constexpr uint8_t kOther[] = {0xAB, 1, 2, 3, 4, 5};
  put(299, 300, kOther);
  EXPECT_EQ(SC_Get_Ap_Info_By_Mac(block, kMacA), -1);
}

TEST_F(ApList, AMac_IsFoundAtItsFirstPositionFreeOrUsedComparedByAllSixBytes) {
  put(7, 8, kMacA);
  put(299, 0, kMacB);
  EXPECT_EQ(SC_Get_Ap_Info_By_Mac(block, kMacA), 7);
  EXPECT_EQ(SC_Get_Ap_Info_By_Mac(block, kMacB), 299);
  for (int byte = 0; byte < 6; ++byte) {
    uint8_t mac[6];
    memcpy(mac, kMacA, 6);
    mac[byte] ^= 0x40;
    EXPECT_EQ(SC_Get_Ap_Info_By_Mac(block, mac), -1) << byte;
  }
}

TEST_F(ApList, AnId_IsFoundAtItsFirstPositionAndZeroAtTheFirstFreeOne) {
  EXPECT_EQ(SC_Get_Ap_Info_By_Id(block, 0), 0);
  EXPECT_EQ(SC_Get_Ap_Info_By_Id(block, 5), -1);
  fill_used();
  EXPECT_EQ(SC_Get_Ap_Info_By_Id(block, 0), -1);
  EXPECT_EQ(SC_Get_Ap_Info_By_Id(block, 1), 0);
  EXPECT_EQ(SC_Get_Ap_Info_By_Id(block, 300), 299);
  EXPECT_EQ(SC_Get_Ap_Info_By_Id(block, 301), -1);
  block->aps[40].ap_id = 0xFFFFFFFF;
  block->aps[60].ap_id = 0xFFFFFFFF;
  EXPECT_EQ(SC_Get_Ap_Info_By_Id(block, 0xFFFFFFFF), 40);
}

TEST_F(ApList, WhatLiesBehindTheTable_IsNoAp) {
  memcpy(block->spare_3691336 + 236, kMacA, 6);
  EXPECT_EQ(SC_Get_Ap_Info_By_Mac(block, kMacA), -1);
}

/* ---- claims ---- */

TEST_F(ApList, AClaim_TakesTheLowestFreeRecordAndChangesItsIdOnly) {
  fill_used();
  block->aps[3].ap_id = 0;
  block->aps[9].ap_id = 0;
  Image expected(block, sizeof *block);
  Journal journal;
  EXPECT_EQ(claim(), 3);
  EXPECT_TRUE(expected.put32(record_at(3) + 11788, 4).matches(block));
  EXPECT_TRUE(journal.lines().empty());
}

TEST_F(ApList, AClaimWithALimitOfZeroOrLess_IsRefusedEvenOnAnEmptyTable) {
  for (int max_ap_count : {0, -1, -32768}) EXPECT_EQ(claim(max_ap_count), -1) << max_ap_count;
  EXPECT_EQ(SC_Get_Ap_Info_Count(block), 0);
}

TEST_F(ApList, AClaim_IsRefusedOnceTheLimitIsReached) {
  EXPECT_EQ(claim(2), 0);
  EXPECT_EQ(claim(2), 1);
  EXPECT_EQ(claim(2), -1);
  EXPECT_EQ(claim(3), 2);
}

TEST_F(ApList, AClaimWith300RecordsInUse_IsRefusedWhateverTheLimit) {
  fill_used();
  for (int max_ap_count : {300, 301, 32767}) EXPECT_EQ(claim(max_ap_count), -1) << max_ap_count;
}

TEST_F(ApList, RecordsWithANegativeId_AreNotCountedAgainstTheLimitButAreNotFree) {
  put(0, 0x80000000, kMacA);
  put(1, 0xFFFFFFFF, kMacB);
  EXPECT_EQ(claim(1), 2);
  EXPECT_EQ(claim(1), -1);
}

/* ---- counts ---- */

TEST_F(ApList, TheListOfUsedRecordsOfANullBlock_IsZeroAndLeavesTheOutputUntouched) {
  uint32_t positions[300];
  fill(positions, sizeof positions, 1);
  const Image before(positions, sizeof positions);
  EXPECT_EQ(SC_Get_Ap_Info_Count_And_Id(positions, nullptr), 0);
  EXPECT_TRUE(before.matches(positions));
}

TEST_F(ApList, TheListOfUsedRecordsOfAnEmptyTable_Is300TimesMinusOne) {
  std::vector<uint32_t> positions(301, 7);
  EXPECT_EQ(SC_Get_Ap_Info_Count_And_Id(positions.data(), block), 0);
  std::vector<uint32_t> expected(300, 0xFFFFFFFF);
  expected.push_back(7);
  EXPECT_EQ(positions, expected);
}

TEST_F(ApList, TheListOfUsedRecords_HoldsTheirPositionsInOrder) {
  put(0, 1, kMacA);
  put(5, 0xFFFFFFFF, kMacA);
  put(299, 300, kMacA);
  std::vector<uint32_t> positions(300, 7), expected(300, 0xFFFFFFFF);
  expected[0] = 0;
  expected[1] = 5;
  expected[2] = 299;
  EXPECT_EQ(SC_Get_Ap_Info_Count_And_Id(positions.data(), block), 3);
  EXPECT_EQ(positions, expected);
}

TEST_F(ApList, TheListOfUsedRecordsOfAFullTable_HoldsAll300) {
  fill_used();
  std::vector<uint32_t> positions(300);
  EXPECT_EQ(SC_Get_Ap_Info_Count_And_Id(positions.data(), block), 300);
  EXPECT_EQ(positions[299], 299u);
}

TEST_F(ApList, RunStateMinusFive_IsCountedButNeitherOnlineNorOffline) {
  put(0, 1, kMacA, -5);
  EXPECT_EQ(SC_Get_Ap_Info_Count(block), 1);
  EXPECT_EQ(SC_Get_Ap_Info_Count_Online(block), 0);
  EXPECT_EQ(SC_Get_Ap_Info_Count_Offline(block), 0);
}

TEST_F(ApList, RunStates_AreOnlineFromMinusOneUpAndOfflineAtMinusTwoOnly) {
  for (int state = -128; state <= 127; ++state) {
    put(0, 1, kMacA, state);
    EXPECT_EQ(SC_Get_Ap_Info_Count_Online(block), state >= -1) << state;
    EXPECT_EQ(SC_Get_Ap_Info_Count_Offline(block), state == -2) << state;
  }
}

TEST_F(ApList, OnlyUsedRecords_AreCounted) {
  put(0, 0, kMacA, 1);
  put(1, 0, kMacA, -2);
  put(2, 0xFFFFFFFF, kMacA, 1);
  put(3, 4, kMacA, -2);
  put(4, 5, kMacA, -2);
  EXPECT_EQ(SC_Get_Ap_Info_Count(block), 3);
  EXPECT_EQ(SC_Get_Ap_Info_Count_Online(block), 1);
  EXPECT_EQ(SC_Get_Ap_Info_Count_Offline(block), 2);
}

TEST_F(ApList, TheCountsOfANullBlock_AreZero) {
  EXPECT_EQ(SC_Get_Ap_Info_Count(nullptr), 0);
  EXPECT_EQ(SC_Get_Ap_Info_Count_Online(nullptr), 0);
  EXPECT_EQ(SC_Get_Ap_Info_Count_Offline(nullptr), 0);
}

TEST_F(ApList, LookupsAndCounts_TakeNoLockAndChangeNothing) {
  fill_used();
  const Image before(block, sizeof *block);
  uint32_t positions[300];
  Journal journal;
  SC_Get_Ap_Info_By_Id(block, 1);
  SC_Get_Ap_Info_By_Mac(block, kMacA);
  SC_Get_Ap_Info_Count(block);
  SC_Get_Ap_Info_Count_Online(block);
  SC_Get_Ap_Info_Count_Offline(block);
  SC_Get_Ap_Info_Count_And_Id(positions, block);
  EXPECT_TRUE(journal.lines().empty());
  EXPECT_TRUE(before.matches(block));
}

/* ---- changes ---- */

/* The page behind a record's id, which cannot be written until it is tried. */
struct {
  void* page;
  const ApInfoRecord* record;
  uint32_t id; /* when it was tried */
} watched;

void on_write(int) {
  watched.id = watched.record->ap_id;
  mprotect(watched.page, 1, PROT_READ | PROT_WRITE);
}

TEST_F(ApList, TheIdOfADeletedRecord_IsClearedWhenAllElseIs) {
  put(0, 1, kMacA);
  const auto page_size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t page = reinterpret_cast<uintptr_t>(&block->aps[1]) & ~(page_size - 1);
  ASSERT_GT(page, reinterpret_cast<uintptr_t>(&block->aps[0].opaque_11792));
  watched = {reinterpret_cast<void*>(page), &block->aps[0], 0};
  struct sigaction action = {}, before;
  action.sa_handler = on_write;
  ASSERT_EQ(sigaction(SIGSEGV, &action, &before), 0);
  ASSERT_EQ(mprotect(watched.page, 1, PROT_READ), 0);
  EXPECT_EQ(SC_Del_Ap_Info_by_Mac(block, kMacA), 1);
  sigaction(SIGSEGV, &before, nullptr);
  EXPECT_EQ(watched.id, 1u);
  EXPECT_EQ(block->aps[0].ap_id, 0u);
}

TEST_F(ApList, AfterTheDeletionByMac_TheRecordIsZeroButForItsLockIndex) {
  fill_used();
  Image expected(block, sizeof *block);
  for (uint32_t p : {0u, 8u, 299u}) {
    memcpy(block->aps[p].ap_mac, kMacA, 6);
    const std::string lock = std::to_string(p + 2);
    Journal journal;
    EXPECT_EQ(SC_Del_Ap_Info_by_Mac(block, kMacA), 1);
    expected.zero(record_at(p), 12304).put32(record_at(p), p + 2);
    EXPECT_TRUE(expected.matches(block));
    EXPECT_EQ(journal.lines(), under(kLockFile, {"lock #1 " + lock, "unlock #1 " + lock}));
  }
}

TEST_F(ApList, DeletingAMacThatOccursTwice_ClearsTheFirstOnly) {
  put(4, 5, kMacA);
  put(9, 10, kMacA);
  Image expected(block, sizeof *block);
  EXPECT_EQ(SC_Del_Ap_Info_by_Mac(block, kMacA), 1);
  expected.put32(record_at(4) + 11788, 0).zero(record_at(4) + 236, 6);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(ApList, DeletingAMacThatIsNotThere_OpensAndClosesTheLockFileOnly) {
  put(4, 5, kMacB);
  const Image before(block, sizeof *block);
  const std::string info(50, 'i');
  Journal journal;
  EXPECT_EQ(SC_Del_Ap_Info_by_Mac(block, kMacA), 0);
  EXPECT_EQ(journal.lines(), under(kLockFile, {}));
  journal.clear();
  EXPECT_EQ(SC_Ap_Add_GroupInfo_by_Mac(block, info.c_str(), 1, kMacA), 0);
  EXPECT_EQ(journal.lines(), under(kLockFile, {}));
  journal.clear();
  EXPECT_EQ(SC_Ap_Clean_GroupInfo_by_Mac(block, kMacA), 0);
  EXPECT_EQ(journal.lines(), under(kLockFile, {}));
  EXPECT_TRUE(before.matches(block));
}

TEST_F(ApList, GroupInformation_IsTheGroupsLowByteAndFiftyBytesUnderTheRecordsLock) {
  fill_used();
  memcpy(block->aps[299].ap_mac, kMacA, 6);
  char info[50];
  fill(info, sizeof info, 6);
  Image expected(block, sizeof *block);
  Journal journal;
  EXPECT_EQ(SC_Ap_Add_GroupInfo_by_Mac(block, info, 0x1FE, kMacA), 1);
  expected.put8(record_at(299) + 348, 0xFE).copy(record_at(299) + 349, info, 50);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(journal.lines(), under(kLockFile, {"lock #1 301", "unlock #1 301"}));
}

TEST_F(ApList, ClearedGroupInformation_IsZeroAndNothingElseChanges) {
  fill_used();
  memcpy(block->aps[0].ap_mac, kMacA, 6);
  Image expected(block, sizeof *block);
  Journal journal;
  EXPECT_EQ(SC_Ap_Clean_GroupInfo_by_Mac(block, kMacA), 1);
  EXPECT_TRUE(expected.zero(record_at(0) + 348, 51).matches(block));
  EXPECT_EQ(journal.lines(), under(kLockFile, {"lock #1 2", "unlock #1 2"}));
}

TEST_F(ApList, Id2Zero_ClearsEveryUsedRecordWholeEachUnderItsLock) {
  fill(block->aps, sizeof block->aps, 1);
  golden_area("ManageApList").number_locks(block);
  for (auto& ap : block->aps) ap.ap_id = 0;
  block->aps[1].ap_id = 2;
  block->aps[200].ap_id = 0xFFFFFFFF;
  Image expected(block, sizeof *block);
  Journal journal;
  EXPECT_EQ(SC_Set_Ap_Info_Id2Zero(block), 2);
  for (uint32_t i : {1u, 200u}) {
    expected.zero(record_at(i), 12304).put32(record_at(i), i + 2);
  }
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(journal.lines(),
            under(kLockFile, {"lock #1 3", "unlock #1 3", "lock #1 202", "unlock #1 202"}));
}

TEST_F(ApList, Id2ZeroOfAFullTable_Clears300) {
  fill_used();
  EXPECT_EQ(SC_Set_Ap_Info_Id2Zero(block), 300);
  EXPECT_EQ(SC_Get_Ap_Info_Count(block), 0);
  EXPECT_EQ(SC_Set_Ap_Info_Id2Zero(block), 0);
}

TEST_F(ApList, TheFragmentBuffers_AreEmptiedInAllRecordsWithoutLocks) {
  fill_used();
  block->aps[7].ap_id = 0;
  Image expected(block, sizeof *block);
  Journal journal;
  SC_CleanWtpFragBuffer(block);
  for (size_t i = 0; i < 300; ++i) expected.put32(record_at(i) + 11796, 0);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_TRUE(journal.lines().empty());
}

TEST_F(ApList, ReadWithoutAnArchive_EmptiesTheFragmentBuffersOfAllRecords) {
  fill_used();
  Image expected(block, sizeof *block);
  EXPECT_EQ(SC_Read_System_ManageApList_Config(block), -1);
  for (size_t i = 0; i < 300; ++i) expected.put32(record_at(i) + 11796, 0);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(ApList, WithoutLockFile_EachChangeSaysSoReturnsZeroAndChangesNothing) {
  fill_used();
  memcpy(block->aps[5].ap_mac, kMacA, 6);
  ASSERT_EQ(unlink(kLockFile.c_str()), 0);
  const Image before(block, sizeof *block);
  const Output message = cannot_lock(kLockFile);
  int32_t results[4] = {7, 7, 7, 7};
  EXPECT_EQ(capture([&] { results[0] = SC_Del_Ap_Info_by_Mac(block, kMacA); }), message);
  EXPECT_EQ(capture([&] {
              results[1] =
                  SC_Ap_Add_GroupInfo_by_Mac(block, std::string(50, 'i').c_str(), 1, kMacA);
            }),
            message);
  EXPECT_EQ(capture([&] { results[2] = SC_Ap_Clean_GroupInfo_by_Mac(block, kMacA); }), message);
  EXPECT_EQ(capture([&] { results[3] = SC_Set_Ap_Info_Id2Zero(block); }), message);
  for (int32_t result : results) EXPECT_EQ(result, 0);
  EXPECT_TRUE(before.matches(block));
}

}  // namespace
