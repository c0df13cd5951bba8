/* The frame of the record tables, shown on the LAN table of DHCP bindings: 32 records of 748 bytes
 * from offset 1508, slot_id first, lock_index 2..33. */
#include <fcntl.h>
#include <unistd.h>

#include <sysconfig/lan.h>

#include "support/areas.h"
#include "support/image.h"
#include "support/journal.h"
#include "support/locks.h"
#include "support/output.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Lines = std::vector<std::string>;

const std::string kLockPath = lock_file("Lan");
constexpr uint32_t kCapacity = 32;
constexpr size_t kBlockSize = 50888;

constexpr size_t at(uint32_t position) { return 1508 + position * size_t{748}; }

class Table : public World {
 protected:
  LanBlock* block_ = nullptr;

  void SetUp() override {
    World::SetUp();
    area("Lan").init(1);
    block_ = block_at<LanBlock>(area("Lan").get());
  }

  /* A record image that clashes with no other number's. */
  static DhcpBindRecord record(uint32_t number) {
    DhcpBindRecord made;
    fill(&made, sizeof made, 100 + number);
    const std::string mac = "00:11:22:33:44:" + std::to_string(10 + number);
    memset(made.bind_mac, 0, sizeof made.bind_mac);
    memcpy(made.bind_mac, mac.data(), mac.size());
    made.bind_ip = 0x0100a8c0 + (number << 24);
    return made;
  }
  int32_t operate(uint32_t op, uint32_t position, uint32_t number) {
    const DhcpBindRecord made = record(number);
    return SC_Operate_System_List_DhcpdBind(block_, op, &position, &made);
  }
  /* Position of the new record. */
  uint32_t add(uint32_t number) {
    const DhcpBindRecord made = record(number);
    uint32_t position = 0xdead;
    EXPECT_EQ(SC_Operate_System_List_DhcpdBind(block_, LIST_OP_ADD, &position, &made), 0);
    return position;
  }
  void add_all() {
    for (uint32_t number = 0; number < kCapacity; ++number) add(number);
  }
  /* Stale bytes in every payload, so that what is written shows. */
  void make_payloads_stale() {
    for (uint32_t position = 0; position < kCapacity; ++position) {
      fill(reinterpret_cast<uint8_t*>(block_) + at(position) + 8, 740, position);
    }
  }
  Image now() const { return Image(block_, kBlockSize); }
  static void put_payload(Image& image, uint32_t position, uint32_t number) {
    const DhcpBindRecord made = record(number);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&made);
    image.copy(at(position) + 8, bytes + 8, 21)
        .copy(at(position) + 36, bytes + 36, 4)
        .copy(at(position) + 48, bytes + 48, 200);
  }
};

/* ---- add ---- */

TEST_F(Table, ALockFileOfDescriptor0_IsLockedAndClosedLikeAnyOther) {
  EXPECT_EQ(run_in_child([&] {
              close(0);
              const bool good = add(1) == 0 && open("/dev/null", O_RDONLY) == 0;
              fflush(stdout);
              _exit(good ? 0 : 1);
            }),
            (Ending{0, kSilence}));
}

TEST_F(Table, Add_WritesSlotAndPayloadOfTheLowestFreeRecordAndNothingElse) {
  make_payloads_stale();
  Image expected = now();
  put_payload(expected.put32(at(0), 1), 0, 7);
  EXPECT_EQ(add(7), 0u);
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, Adds_FillThePositionsInOrder) {
  for (uint32_t number = 0; number < kCapacity; ++number) EXPECT_EQ(add(number), number);
}

TEST_F(Table, AnAddAfterADelete_ReusesThePosition) {
  add_all();
  ASSERT_EQ(operate(LIST_OP_DEL, 20, 0), 0);
  ASSERT_EQ(operate(LIST_OP_DEL, 3, 0), 0);
  EXPECT_EQ(add(50), 3u);
  EXPECT_EQ(add(51), 20u);
}

TEST_F(Table, AnAddIntoAFullTable_ReturnsOneLikeADuplicateAndChangesNothing) {
  add_all();
  const Image expected = now();
  uint32_t position = 0xdead;
  const DhcpBindRecord fresh = record(60), duplicate = record(5);
  EXPECT_EQ(SC_Operate_System_List_DhcpdBind(block_, LIST_OP_ADD, &position, &fresh), 1);
  EXPECT_EQ(SC_Operate_System_List_DhcpdBind(block_, LIST_OP_ADD, &position, &duplicate), 1);
  EXPECT_EQ(position, 0xdeadu);
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, AnAdd_ClaimsOnADescriptorOfItsOwnAndThenFillsUnderTheSameByte) {
  add(0);
  Journal journal;
  add(1);
  EXPECT_EQ(journal.lines(),
            (Lines{"#1 = open " + kLockPath, "#2 = open " + kLockPath, "lock #2 3", "unlock #2 3",
                   "close #2", "lock #1 3", "unlock #1 3", "close #1"}));
}

TEST_F(Table, ARejectedAdd_LocksNothing) {
  add(0);
  Journal journal;
  EXPECT_EQ(operate(LIST_OP_ADD, 0, 0), 1);
  EXPECT_EQ(journal.lines(), (Lines{"#1 = open " + kLockPath, "close #1"}));
}

TEST_F(Table, AnAddIntoAFullTable_OpensAndClosesBothDescriptors) {
  add_all();
  Journal journal;
  EXPECT_EQ(operate(LIST_OP_ADD, 0, 60), 1);
  EXPECT_EQ(journal.lines(),
            (Lines{"#1 = open " + kLockPath, "#2 = open " + kLockPath, "close #2", "close #1"}));
}

TEST_F(Table, AnAddWithoutAClaim_BecauseTheLockFileWentAway_ReturnsOneAndSaysSo) {
  Journal journal;
  journal.after("#1 = open", [] { remove(kLockPath.c_str()); });
  int32_t result = 0;
  const Output output = capture([&] { result = operate(LIST_OP_ADD, 0, 0); });
  EXPECT_EQ(result, 1);
  EXPECT_EQ(output, (Output{"Cannot Lock file " + kLockPath, ""}));
  EXPECT_EQ(journal.lines(),
            (Lines{"#1 = open " + kLockPath, "open " + kLockPath + " failed", "close #1"}));
}

/* ---- claim ---- */

TEST_F(Table, AClaim_WritesTheSlotAloneUnderTheRecordsByte) {
  make_payloads_stale();
  Image expected = now();
  expected.put32(at(0), 1);
  Journal journal;
  EXPECT_EQ(SC_Operate_System_List_GetDhcpdBind_Blank(block_), 0);
  EXPECT_EQ(journal.lines(),
            (Lines{"#1 = open " + kLockPath, "lock #1 2", "unlock #1 2", "close #1"}));
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, ClaimsOfAFullTable_ReturnMinusOneInSilence) {
  add_all();
  int32_t result = 0;
  EXPECT_EQ(capture([&] { result = SC_Operate_System_List_GetDhcpdBind_Blank(block_); }), kSilence);
  EXPECT_EQ(result, -1);
}

TEST_F(Table, AClaimOfAFullTable_LeavesTheFreeMarkLookAlikeBehindTheTableAlone) {
  add_all();
  memset(block_->spare_25444, 0xff, sizeof block_->spare_25444);
  const Image expected = now();
  EXPECT_EQ(SC_Operate_System_List_GetDhcpdBind_Blank(block_), -1);
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, AnAdd_ClashesAlsoWithAUsedRecordOfSlotZero) {
  add(0);
  block_->lan_binds[0].slot_id = 0;
  EXPECT_EQ(operate(LIST_OP_ADD, 0, 0), 1);
}

TEST_F(Table, ARecordOfAnyNegativeSlotButMinusOne_IsUsedThoughNoListingShowsIt) {
  for (const int32_t slot : {-2, INT32_MIN, INT32_MIN + 1}) {
    SCOPED_TRACE(slot);
    operate(LIST_OP_DEL_ALL, 0, 0);
    add(0);
    block_->lan_binds[0].slot_id = slot;
    const DhcpBindRecord same = record(0);
    EXPECT_EQ(SC_Operate_System_List_DhcpdBindCheckIpMac(block_, &same, 0xffffffff), 1);
    EXPECT_EQ(operate(LIST_OP_ADD, 0, 0), 1);
    EXPECT_EQ(operate(LIST_OP_MODIFY, 1, 0), 1);
    /* The one of this slot word is the one to skip. */
    EXPECT_EQ(
        SC_Operate_System_List_DhcpdBindCheckIpMac(block_, &same, static_cast<uint32_t>(slot)), 0);
    EXPECT_EQ(SC_Operate_System_List_GetDhcpdBind_Blank(block_), 1);
    EXPECT_EQ(block_->lan_binds[0].slot_id, slot);
    DhcpStaticItemList list;
    GetDhcpStaticItemList(block_, &list);
    ASSERT_EQ(list.count, 1u);
    EXPECT_EQ(list.items[0].id, 2u);
  }
}

TEST_F(Table, AClaimOnANullBlock_ReturnsMinusOneAndPrintsNothing) {
  int32_t result = 0;
  EXPECT_EQ(capture([&] { result = SC_Operate_System_List_GetDhcpdBind_Blank(nullptr); }),
            kSilence);
  EXPECT_EQ(result, -1);
}

TEST_F(Table, AClaimThatLosesTheRaceForARecord_ReleasesItAndTakesTheNext) {
  for (const int32_t taken : {1, 0, -2, INT32_MIN}) {
    SCOPED_TRACE(taken);
    operate(LIST_OP_DEL_ALL, 0, 0);
    Journal journal;
    journal.before("lock #1 2", [&] { block_->lan_binds[0].slot_id = taken; });
    EXPECT_EQ(SC_Operate_System_List_GetDhcpdBind_Blank(block_), 1);
    EXPECT_EQ(journal.lines(), (Lines{"#1 = open " + kLockPath, "lock #1 2", "unlock #1 2",
                                      "lock #1 3", "unlock #1 3", "close #1"}));
    EXPECT_EQ(block_->lan_binds[0].slot_id, taken);
    EXPECT_EQ(block_->lan_binds[1].slot_id, 2);
  }
}

/* ---- delete ---- */

TEST_F(Table, Delete_FreesTheRecordAndLeavesItsPayload) {
  add_all();
  Image expected = now();
  expected.put32(at(31), 0xffffffff);
  Journal journal;
  EXPECT_EQ(operate(LIST_OP_DEL, 31, 0), 0);
  EXPECT_EQ(journal.lines(),
            (Lines{"#1 = open " + kLockPath, "lock #1 33", "unlock #1 33", "close #1"}));
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, DeleteOfAFreeRecord_ReturnsZero) {
  const Image expected = now();
  EXPECT_EQ(operate(LIST_OP_DEL, 4, 0), 0);
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, DeleteFromTheCapacityOn_ReturnsTwoAndLocksNothing) {
  add_all();
  const Image expected = now();
  for (uint32_t position : {kCapacity, kCapacity + 1, 0x80000000u, 0xffffffffu}) {
    Journal journal;
    EXPECT_EQ(operate(LIST_OP_DEL, position, 0), 2) << position;
    EXPECT_EQ(journal.lines(), (Lines{"#1 = open " + kLockPath, "close #1"}));
  }
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, DeleteAndDeleteAll_NeedNoRecord) {
  add_all();
  uint32_t position = 0;
  EXPECT_EQ(SC_Operate_System_List_DhcpdBind(block_, LIST_OP_DEL, &position, nullptr), 0);
  EXPECT_EQ(SC_Operate_System_List_DhcpdBind(block_, LIST_OP_DEL_ALL, &position, nullptr), 0);
}

/* ---- modify ---- */

TEST_F(Table, Modify_WritesThePayloadAndKeepsTheSlot) {
  add_all();
  make_payloads_stale();
  Image expected = now();
  put_payload(expected, 6, 40);
  Journal journal;
  EXPECT_EQ(operate(LIST_OP_MODIFY, 6, 40), 0);
  EXPECT_EQ(journal.lines(),
            (Lines{"#1 = open " + kLockPath, "lock #1 8", "unlock #1 8", "close #1"}));
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, ModifyOfAFreeRecord_WritesThePayloadAndLeavesItFree) {
  Image expected = now();
  put_payload(expected, 9, 1);
  EXPECT_EQ(operate(LIST_OP_MODIFY, 9, 1), 0);
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, ModifyFromTheCapacityOn_ReturnsThree) {
  add(0);
  const Image expected = now();
  for (uint32_t position : {kCapacity, 0x80000000u, 0xfffffffeu, 0xffffffffu}) {
    EXPECT_EQ(operate(LIST_OP_MODIFY, position, 5), 3) << position;
  }
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, ModifyAtCapacityWithAClash_ReturnsRejectedNotRange) {
  add(0);
  EXPECT_EQ(operate(LIST_OP_MODIFY, kCapacity, 0), 1);
}

TEST_F(Table, ModifyAtTheLargestPosition_SkipsNoUsedRecord) {
  add(0);
  EXPECT_EQ(operate(LIST_OP_MODIFY, 0xffffffff, 0), 1);
}

/* ---- delete all, bad operations ---- */

TEST_F(Table, DeleteAll_FreesEveryRecordUnderItsByteAndLeavesThePayloads) {
  add_all();
  Image expected = now();
  Lines lines = {"#1 = open " + kLockPath};
  for (uint32_t position = 0; position < kCapacity; ++position) {
    expected.put32(at(position), 0xffffffff);
    lines.push_back("lock #1 " + std::to_string(position + 2));
    lines.push_back("unlock #1 " + std::to_string(position + 2));
  }
  lines.push_back("close #1");
  Journal journal;
  EXPECT_EQ(operate(LIST_OP_DEL_ALL, 0xffffffff, 0), 0);
  EXPECT_EQ(journal.lines(), lines);
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, AnyOtherOperation_ReturnsFiveAndChangesNothing) {
  add_all();
  const Image expected = now();
  for (uint32_t op : {3u, 4u, 6u, 7u, 256u, 0xffffffffu}) {
    Journal journal;
    EXPECT_EQ(operate(op, 0, 50), 5) << op;
    EXPECT_EQ(journal.lines(), (Lines{"#1 = open " + kLockPath, "close #1"}));
  }
  EXPECT_TRUE(expected.matches(block_));
}

/* ---- locks ---- */

TEST_F(Table, TheBytes_AreThoseThatTheRecordsName) {
  block_->lan_binds[0].lock_index = 77;
  block_->lan_binds[1].lock_index = 1 << 20;
  Journal journal;
  EXPECT_EQ(operate(LIST_OP_DEL, 0, 0), 0);
  EXPECT_EQ(operate(LIST_OP_DEL, 1, 0), 0);
  EXPECT_EQ(journal.lines(),
            (Lines{"#1 = open " + kLockPath, "lock #1 77", "unlock #1 77", "close #1",
                   "#2 = open " + kLockPath, "lock #2 1048576", "unlock #2 1048576", "close #2"}));
}

TEST_F(Table, AByteThatCannotBeLocked_IsWrittenUnlocked) {
  add(0);
  block_->lan_binds[0].lock_index = -5;
  Journal journal;
  int32_t result = -1;
  EXPECT_EQ(capture([&] { result = operate(LIST_OP_DEL, 0, 0); }), kSilence);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(journal.lines(), (Lines{"#1 = open " + kLockPath, "lock #1 -5 failed",
                                    "unlock #1 -5 failed", "close #1"}));
  EXPECT_EQ(block_->lan_binds[0].slot_id, -1);
}

TEST_F(Table, TheIndexOfAByte_IsReadBeforeTheByteIsTaken) {
  add(0);
  Journal journal;
  journal.after("lock #1 2", [&] { block_->lan_binds[0].lock_index = 50; });
  EXPECT_EQ(operate(LIST_OP_DEL, 0, 0), 0);
  EXPECT_EQ(journal.lines(),
            (Lines{"#1 = open " + kLockPath, "lock #1 2", "unlock #1 2", "close #1"}));
}

TEST_F(Table, AWriterOfARecord_WaitsForTheHolderOfItsByte) {
  add(0);
  LockHolder holder(kLockPath, 2);
  Child writer([&] { operate(LIST_OP_DEL, 0, 0); });
  ASSERT_TRUE(becomes_blocked(writer.pid(), kLockPath, 2));
  EXPECT_EQ(block_->lan_binds[0].slot_id, 1);
  holder.release();
  EXPECT_EQ(writer.wait(), 0);
  EXPECT_EQ(block_->lan_binds[0].slot_id, -1);
}

TEST_F(Table, AWriterOfARecord_DoesNotWaitForOtherRecordsNorForTheBlock) {
  add(0);
  LockHolder block(kLockPath, 1), next(kLockPath, 3);
  Child writer([&] { operate(LIST_OP_DEL, 0, 0); });
  EXPECT_EQ(writer.wait(), 0);
  EXPECT_EQ(block_->lan_binds[0].slot_id, -1);
}

TEST_F(Table, AClash_IsFoundWithoutWaitingForAnyByte) {
  add(0);
  LockHolder holder(kLockPath, 2);
  Child writer([&] { ASSERT_EQ(operate(LIST_OP_ADD, 0, 0), 1); });
  EXPECT_EQ(writer.wait(), 0);
}

/* ---- duplicate check ---- */

TEST_F(Table, TheCheck_SkipsFreeRecordsAndTheSkippedSlot) {
  add(0);
  add(1);
  const DhcpBindRecord same = record(1);
  Journal journal;
  EXPECT_EQ(SC_Operate_System_List_DhcpdBindCheckIpMac(block_, &same, 0xffffffff), 1);
  EXPECT_EQ(SC_Operate_System_List_DhcpdBindCheckIpMac(block_, &same, 1), 1);
  EXPECT_EQ(SC_Operate_System_List_DhcpdBindCheckIpMac(block_, &same, 2), 0);
  operate(LIST_OP_DEL, 1, 0);
  EXPECT_EQ(SC_Operate_System_List_DhcpdBindCheckIpMac(block_, &same, 0xffffffff), 0);
}

TEST_F(Table, TheCheck_TakesNoLock) {
  const DhcpBindRecord any = record(1);
  Journal journal;
  SC_Operate_System_List_DhcpdBindCheckIpMac(block_, &any, 0xffffffff);
  EXPECT_EQ(journal.lines(), Lines{});
}

/* ---- without a lock file ---- */

TEST_F(Table, WithAnEmptyLockPath_EveryOperationReturnsMinusOneAndSaysSo) {
  area("Lan").init(0);
  const Image expected = now();
  for (uint32_t op : {LIST_OP_ADD, LIST_OP_DEL, LIST_OP_MODIFY, LIST_OP_DEL_ALL}) {
    int32_t result = 0;
    EXPECT_EQ(capture([&] { result = operate(op, 0, 1); }), (Output{"Cannot Lock file ", ""}));
    EXPECT_EQ(result, -1) << op;
  }
  EXPECT_TRUE(expected.matches(block_));
}

TEST_F(Table, WithAMissingLockFile_AnyOperationAndTheClaimReturnMinusOneAndNameIt) {
  remove(kLockPath.c_str());
  const Output said = {"Cannot Lock file " + kLockPath, ""};
  int32_t result = 0;
  EXPECT_EQ(capture([&] { result = operate(3, 0, 1); }), said);
  EXPECT_EQ(result, -1);
  result = 0;
  EXPECT_EQ(capture([&] { result = SC_Operate_System_List_GetDhcpdBind_Blank(block_); }), said);
  EXPECT_EQ(result, -1);
}

TEST_F(Table, ALockPathWithoutItsEnd_IsPrintedAsFarAsItsField) {
  memset(block_->header.lock_path, 'x', sizeof block_->header.lock_path);
  EXPECT_EQ(capture([&] { operate(LIST_OP_DEL, 0, 0); }),
            (Output{"Cannot Lock file " + std::string(130, 'x'), ""}));
}

}  // namespace
