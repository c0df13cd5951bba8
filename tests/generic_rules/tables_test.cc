/* The table operations of every list: add, delete, modify, claim. */
#include <unistd.h>

#include "generic_rules/rules.h"

namespace {

using namespace sc_test;

class EveryTable : public Rules {};
INSTANTIATE_TEST_SUITE_P(Lists, EveryTable, testing::ValuesIn(kListCalls), name_of);

/* ---- add ---- */

TEST_P(EveryTable, Add_ClaimsTheLowestFreePositionAndWritesSlotAndPayloadOnly) {
  Image expected = block;
  const Bytes from = record(0);
  Journal journal;
  EXPECT_EQ(operate(LIST_OP_ADD, kUntouched, from), SC_LIST_OK);
  EXPECT_EQ(position, 0u);
  expected.put32(row.slot_of(0), 1);
  put_runs(expected, row.identity, 0, from);
  put_runs(expected, row.payload, 0, from);
  EXPECT_TRUE(expected.matches(block.data()));
  EXPECT_EQ(journal.lines(),
            (Lines{opened(1), opened(2), locked("lock", 2, 0), locked("unlock", 2, 0), "close #2",
                   locked("lock", 1, 0), locked("unlock", 1, 0), "close #1"}));
}

TEST_P(EveryTable, Adds_FillThePositionsInOrderUntilTheTableIsFull) {
  for (uint32_t i = 0; i < row.capacity; ++i) {
    ASSERT_EQ(add(i), SC_LIST_OK) << i;
    ASSERT_EQ(position, i);
    ASSERT_EQ(block.get32(row.slot_of(i)), i + 1);
  }
  const Image full = block;
  Journal journal;
  EXPECT_EQ(add(row.capacity), SC_LIST_REJECTED);
  EXPECT_EQ(position, kUntouched);
  EXPECT_TRUE(full.matches(block.data()));
  EXPECT_EQ(journal.lines(), (Lines{opened(1), opened(2), "close #2", "close #1"}));
}

TEST_P(EveryTable, AnAddAfterTheDeletionOfPositionThree_ReusesItAndKeepsItsUnusedBytes) {
  add_first(5);
  ASSERT_EQ(operate(LIST_OP_DEL, 3), SC_LIST_OK);
  Image expected = block;
  const Bytes from = record(9);
  EXPECT_EQ(operate(LIST_OP_ADD, kUntouched, from), SC_LIST_OK);
  EXPECT_EQ(position, 3u);
  expected.put32(row.slot_of(3), 4);
  put_runs(expected, row.identity, 3, from);
  put_runs(expected, row.payload, 3, from);
  EXPECT_TRUE(expected.matches(block.data()));
}

TEST_P(EveryTable, AnEqualRecord_IsRejectedWhereTheListHasKeysAndElseAccepted) {
  add_first(3);
  const Image before = block;
  Journal journal;
  if (row.keys.empty()) {
    EXPECT_EQ(add(1), SC_LIST_OK);
    EXPECT_EQ(position, 3u);
    return;
  }
  EXPECT_EQ(add(1), SC_LIST_REJECTED);
  EXPECT_EQ(position, kUntouched);
  EXPECT_TRUE(before.matches(block.data()));
  EXPECT_EQ(journal.lines(), no_record());
}

/* ---- delete ---- */

TEST_P(EveryTable, DeleteAtTheFirstAndLastPosition_FreesTheRecordUnderItsLock) {
  make_all_used();
  Image expected = block;
  for (uint32_t p : {0u, last}) {
    Journal journal;
    EXPECT_EQ(operate(LIST_OP_DEL, p), SC_LIST_OK);
    EXPECT_EQ(position, p);
    put_freed(expected, p);
    EXPECT_TRUE(expected.matches(block.data()));
    EXPECT_EQ(journal.lines(), one_record(p));
  }
}

TEST_P(EveryTable, DeleteFromTheCapacityOn_Returns2AndLocksNothing) {
  make_all_used();
  const Image before = block;
  for (uint32_t p : {row.capacity, row.capacity + 1, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    Journal journal;
    EXPECT_EQ(operate(LIST_OP_DEL, p), SC_LIST_DEL_RANGE) << p;
    EXPECT_EQ(position, p);
    EXPECT_EQ(journal.lines(), no_record());
  }
  EXPECT_TRUE(before.matches(block.data()));
}

TEST_P(EveryTable, DeleteOfAFreeRecord_Returns0) {
  Image expected = block;
  EXPECT_EQ(operate(LIST_OP_DEL, last), SC_LIST_OK);
  put_freed(expected, last);
  EXPECT_TRUE(expected.matches(block.data()));
}

TEST_P(EveryTable, DeleteAll_FreesEveryRecordInOrderEachUnderItsLockAndKeepsThePayloads) {
  add_first(row.capacity);
  ASSERT_EQ(operate(LIST_OP_DEL, 1), SC_LIST_OK);
  Image expected = block;
  Lines lines{opened()};
  for (uint32_t p = 0; p < row.capacity; ++p) {
    put_freed(expected, p);
    lines.push_back(locked("lock", 1, p));
    lines.push_back(locked("unlock", 1, p));
  }
  lines.push_back("close #1");
  Journal journal;
  EXPECT_EQ(operate(LIST_OP_DEL_ALL, kFree), SC_LIST_OK);
  EXPECT_EQ(position, kFree);
  EXPECT_TRUE(expected.matches(block.data()));
  EXPECT_EQ(journal.lines(), lines);
}

TEST_P(EveryTable, DeleteAll_ReadsNoPosition) {
  make_all_used();
  EXPECT_EQ(calls.operate(block.data(), LIST_OP_DEL_ALL, nullptr, nullptr), SC_LIST_OK);
  EXPECT_EQ(block.get32(row.slot_of(last)), kFree);
}

/* ---- modify ---- */

TEST_P(EveryTable, ModifyOfAUsedRecord_WritesThePayloadUnderItsLockAndNothingElse) {
  make_all_used();
  Image expected = block;
  for (uint32_t p : {0u, last}) {
    const Bytes from = record(p);
    Journal journal;
    EXPECT_EQ(operate(LIST_OP_MODIFY, p, from), SC_LIST_OK);
    EXPECT_EQ(position, p);
    put_runs(expected, row.payload, p, from);
    EXPECT_TRUE(expected.matches(block.data()));
    EXPECT_EQ(journal.lines(), one_record(p));
  }
}

TEST_P(EveryTable, ModifyOfAFreeRecord_WritesThePayloadAndLeavesItFree) {
  Image expected = block;
  for (uint32_t p : {0u, last}) {
    const Bytes from = record(p);
    EXPECT_EQ(operate(LIST_OP_MODIFY, p, from), SC_LIST_OK);
    put_runs(expected, row.payload, p, from);
    EXPECT_TRUE(expected.matches(block.data()));
  }
}

TEST_P(EveryTable, ModifyFromTheCapacityOn_ReturnsTheListsRangeCodeAndLocksNothing) {
  make_all_used();
  const Image before = block;
  for (uint32_t p : {row.capacity, row.capacity + 1, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    Journal journal;
    EXPECT_EQ(operate(LIST_OP_MODIFY, p, record(0)), row.modify_range) << p;
    EXPECT_EQ(position, p);
    EXPECT_EQ(journal.lines(), no_record());
  }
  EXPECT_TRUE(before.matches(block.data()));
}

TEST_P(EveryTable, ModifyToARecordsOwnKeys_IsDone) {
  add_first(3);
  EXPECT_EQ(operate(LIST_OP_MODIFY, 1, record(1)), SC_LIST_OK);
}

TEST_P(EveryTable, ModifyToTheKeysOfAnotherRecord_IsRejectedWhereTheListHasKeys) {
  add_first(3);
  const Image before = block;
  const int32_t in_range = row.keys.empty() ? SC_LIST_OK : SC_LIST_REJECTED;
  const int32_t out_of_range = row.keys.empty() ? row.modify_range : SC_LIST_REJECTED;
  EXPECT_EQ(operate(LIST_OP_MODIFY, row.capacity, record(2)), out_of_range);
  EXPECT_EQ(operate(LIST_OP_MODIFY, 0xFFFFFFFF, record(2)), out_of_range);
  EXPECT_TRUE(before.matches(block.data()));
  EXPECT_EQ(operate(LIST_OP_MODIFY, 1, record(2)), in_range);
  EXPECT_EQ(before.matches(block.data()), !row.keys.empty());
}

/* ---- other operations, lock files ---- */

TEST_P(EveryTable, AnyOtherOperation_Returns5AndChangesNothing) {
  make_all_used();
  const Image before = block;
  for (uint32_t op : {3u, 4u, 6u, 7u, 0x100u, 0x10001u, 0x80000005u, 0xFFFFFFFFu}) {
    Journal journal;
    EXPECT_EQ(operate(op, 0, record(0)), SC_LIST_BAD_OP) << op;
    EXPECT_EQ(position, 0u);
    EXPECT_EQ(journal.lines(), no_record());
  }
  EXPECT_TRUE(before.matches(block.data()));
}

TEST_P(EveryTable, WithoutLockFile_EveryOperationAndTheClaimSaySoReturnMinusOneAndChangeNothing) {
  add_first(2);
  ASSERT_EQ(unlink(row.lock_path.c_str()), 0);
  const Image before = block;
  for (uint32_t op : {0u, 1u, 2u, 3u, 5u}) {
    int32_t result = 7;
    EXPECT_EQ(capture([&] { result = operate(op, 1, record(1)); }), cannot_lock(row.lock_path));
    EXPECT_EQ(result, SC_LIST_NO_LOCK) << op;
    EXPECT_EQ(position, 1u);
  }
  int32_t claimed = 7;
  EXPECT_EQ(capture([&] { claimed = calls.blank(block.data()); }), cannot_lock(row.lock_path));
  EXPECT_EQ(claimed, -1);
  EXPECT_TRUE(before.matches(block.data()));
}

TEST_P(EveryTable, WithAnEmptyLockPath_NothingFollowsTheMessage) {
  block.zero(2, 130);
  int32_t result = 7, claimed = 7;
  EXPECT_EQ(capture([&] { result = add(0); }), cannot_lock(""));
  EXPECT_EQ(capture([&] { claimed = calls.blank(block.data()); }), cannot_lock(""));
  EXPECT_EQ(result, SC_LIST_NO_LOCK);
  EXPECT_EQ(claimed, -1);
}

TEST_P(EveryTable, ALockPathWithoutTerminator_IsPrintedAsFarAsItsField) {
  block.put(2, std::string(130, 'x'));
  EXPECT_EQ(capture([&] { add(0); }), cannot_lock(std::string(130, 'x')));
  EXPECT_EQ(capture([&] { calls.blank(block.data()); }), cannot_lock(std::string(130, 'x')));
}

TEST_P(EveryTable, LockIndices_AreTakenFromTheRecordsAndReadAsSignedWords) {
  block.put32(row.record_at(0) + row.lock_at, 0xFFFFFFFE);
  block.put32(row.record_at(1) + row.lock_at, 70000);
  Image expected = block;
  Journal journal;
  EXPECT_EQ(operate(LIST_OP_DEL, 0), SC_LIST_OK);
  EXPECT_EQ(operate(LIST_OP_DEL, 1), SC_LIST_OK);
  EXPECT_EQ(journal.lines(),
            (Lines{opened(1), "lock #1 -2 failed", "unlock #1 -2 failed", "close #1", opened(2),
                   "lock #2 70000", "unlock #2 70000", "close #2"}));
  put_freed(expected, 0);
  put_freed(expected, 1);
  EXPECT_TRUE(expected.matches(block.data()));
}

/* ---- claim ---- */

TEST_P(EveryTable, AClaim_WritesTheSlotOfTheLowestFreeRecordUnderItsLock) {
  make_all_used();
  block.put32(row.slot_of(3), kFree).put32(row.slot_of(last), kFree);
  Image expected = block;
  for (uint32_t p : {3u, last}) {
    Journal journal;
    EXPECT_EQ(calls.blank(block.data()), static_cast<int32_t>(p));
    EXPECT_TRUE(expected.put32(row.slot_of(p), p + 1).matches(block.data()));
    EXPECT_EQ(journal.lines(), one_record(p));
  }
  Journal journal;
  EXPECT_EQ(calls.blank(block.data()), -1);
  EXPECT_TRUE(expected.matches(block.data()));
  EXPECT_EQ(journal.lines(), no_record());
}

TEST_P(EveryTable, AClaimOnANullBlock_ReturnsMinusOneInSilence) {
  int32_t claimed = 7;
  EXPECT_EQ(capture([&] { claimed = calls.blank(nullptr); }), kSilence);
  EXPECT_EQ(claimed, -1);
}

TEST_P(EveryTable, WhatLiesBehindTheTable_IsNeverClaimed) {
  add_first(row.capacity);
  block.put32(row.slot_of(row.capacity), kFree);
  const Image before = block;
  EXPECT_EQ(calls.blank(block.data()), -1);
  EXPECT_EQ(add(row.capacity), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block.data()));
}

TEST_P(EveryTable, OnlyTheExactFreeMark_IsFree) {
  for (uint32_t slot : {0u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0x00FFFFFFu, 0xFFFFFFu << 8}) {
    for (uint32_t p = 0; p < row.capacity; ++p) block.put32(row.slot_of(p), slot);
    EXPECT_EQ(calls.blank(block.data()), -1) << slot;
  }
}

}  // namespace
