/* The duplicate check of every list that has keys. */
#include <string.h>

#include "generic_rules/rules.h"

namespace {

using namespace sc_test;

class EveryKeyedTable : public Rules {
 protected:
  /* Record `number` with one key of another. */
  Bytes with_key(uint32_t number, const KeyRow& key, uint32_t of) const {
    Bytes bytes = record(number);
    memcpy(bytes.data() + key.at, record(of).data() + key.at, key.width);
    return bytes;
  }
  int32_t check(const Bytes& with, uint32_t skip_slot) {
    return calls.check(block.data(), with.data(), skip_slot);
  }
};
std::vector<ListCalls> keyed_lists() {
  std::vector<ListCalls> lists;
  for (const ListCalls& calls : kListCalls) {
    if (calls.check != nullptr) lists.push_back(calls);
  }
  return lists;
}
INSTANTIATE_TEST_SUITE_P(Lists, EveryKeyedTable, testing::ValuesIn(keyed_lists()), name_of);

TEST_P(EveryKeyedTable, ANullRecord_ClashesWithNone) {
  make_all_used();
  EXPECT_EQ(calls.check(block.data(), nullptr, kFree), 0);
}

TEST_P(EveryKeyedTable, AnyOneKeyAlone_IsAClashForCheckAddAndModify) {
  add_first(row.capacity - 1);
  const Image before = block;
  for (const KeyRow& key : row.keys) {
    for (uint32_t p : {0u, last - 1}) {
      const Bytes clashing = with_key(999, key, p);
      EXPECT_EQ(check(clashing, kFree), 1);
      EXPECT_EQ(operate(LIST_OP_ADD, 0, clashing), SC_LIST_REJECTED);
      EXPECT_EQ(operate(LIST_OP_MODIFY, 1, clashing), SC_LIST_REJECTED);
      EXPECT_EQ(operate(LIST_OP_MODIFY, last, clashing), SC_LIST_REJECTED);
    }
  }
  EXPECT_TRUE(before.matches(block.data()));
  EXPECT_EQ(check(record(999), kFree), 0);
}

TEST_P(EveryKeyedTable, TheCheck_SkipsTheGivenSlotAndFreeRecordsOnly) {
  add_first(row.capacity);
  const Bytes same = record(last);
  EXPECT_EQ(check(same, row.capacity), 0);
  EXPECT_EQ(check(same, row.capacity - 1), 1);
  EXPECT_EQ(check(same, 0), 1);
  for (uint32_t slot : {0x80000000u, 0xFFFFFFFEu, 0u}) {
    block.put32(row.slot_of(last), slot);
    EXPECT_EQ(check(same, kFree), 1) << slot;
    EXPECT_EQ(check(same, slot), 0) << slot;
  }
  block.put32(row.slot_of(last), kFree);
  EXPECT_EQ(check(same, kFree), 0);
  EXPECT_EQ(check(same, 0), 0);
}

TEST_P(EveryKeyedTable, WhatLiesBehindTheTable_IsNoClash) {
  const Bytes same = record(3);
  block.put32(row.slot_of(row.capacity), 7);
  for (const KeyRow& key : row.keys) {
    block.copy(row.record_at(row.capacity) + key.at, same.data() + key.at, key.width);
  }
  EXPECT_EQ(check(same, kFree), 0);
}

TEST_P(EveryKeyedTable, TheSkipValueOfAModify_IsItsPositionPlusOneEvenOutOfRange) {
  add_first(2);
  block.put32(row.slot_of(1), row.capacity + 1); /* another program's mark */
  EXPECT_EQ(operate(LIST_OP_MODIFY, row.capacity, record(1)), row.modify_range);
  EXPECT_EQ(operate(LIST_OP_MODIFY, 1, record(1)), SC_LIST_REJECTED);
  block.put32(row.slot_of(1), 0);
  EXPECT_EQ(operate(LIST_OP_MODIFY, 0xFFFFFFFF, record(1)), row.modify_range);
}

TEST_P(EveryKeyedTable, TheCheck_TakesNoLockAndChangesNothing) {
  add_first(2);
  const Image before = block;
  Journal journal;
  EXPECT_EQ(check(record(1), kFree), 1);
  EXPECT_TRUE(journal.lines().empty());
  EXPECT_TRUE(before.matches(block.data()));
}

TEST_P(EveryKeyedTable, CaseAlone_IsNoDifferenceForTextsAndOneForBytes) {
  Bytes lower = record(0), upper = record(1);
  for (const KeyRow& key : row.keys) {
    if (key.kind == "word") continue;
    memset(lower.data() + key.at, 'a', key.width);
    memset(upper.data() + key.at, 'A', key.width);
  }
  ASSERT_EQ(operate(LIST_OP_ADD, 0, lower), SC_LIST_OK);
  EXPECT_EQ(check(upper, kFree), row.keys[0].kind == "text");
}

TEST_P(EveryKeyedTable, OnlyTheLettersOfATextHaveCase) {
  if (row.keys[0].kind != "text") {
    EXPECT_EQ(row.keys[0].kind, "bytes");
    return;
  }
  const KeyRow& key = row.keys[0];
  for (int letter = 1; letter < 256; ++letter) {
    const bool in_alphabet = (letter | 0x20) >= 'a' && (letter | 0x20) <= 'z';
    for (uint32_t i : {0u, key.width / 2, key.width - 1}) {
      Bytes one = record(0), other_one = with_key(1, key, 0);
      one[key.at + i] = static_cast<uint8_t>(letter);
      other_one[key.at + i] = static_cast<uint8_t>(letter ^ 0x20);
      if (other_one[key.at + i] == 0) continue;
      block.put32(row.slot_of(0), kFree);
      ASSERT_EQ(operate(LIST_OP_ADD, 0, one), SC_LIST_OK);
      EXPECT_EQ(check(other_one, kFree), in_alphabet) << letter << " at " << i;
    }
  }
}

TEST_P(EveryKeyedTable, WhatFollowsATerminator_CountsForBytesAndNotForTexts) {
  for (const KeyRow& key : row.keys) {
    if (key.kind == "word") continue;
    for (uint32_t end = 0; end + 1 < key.width; ++end) {
      Bytes one = record(0), other_one = with_key(1, key, 0);
      one[key.at + end] = other_one[key.at + end] = 0;
      for (uint32_t i = end + 1; i < key.width; ++i) other_one[key.at + i] ^= 0x80;
      block.put32(row.slot_of(0), kFree);
      ASSERT_EQ(operate(LIST_OP_ADD, 0, one), SC_LIST_OK);
      EXPECT_EQ(check(other_one, kFree), key.kind == "text") << end;
    }
  }
}

TEST_P(EveryKeyedTable, EachByteOfAKey_Counts) {
  for (const KeyRow& key : row.keys) {
    for (uint32_t i = 0; i < key.width; ++i) {
      Bytes one = record(0), other_one = with_key(1, key, 0);
      other_one[key.at + i] ^= 0x80;
      for (uint32_t p = 0; p < 2; ++p) block.put32(row.slot_of(p), kFree);
      ASSERT_EQ(operate(LIST_OP_ADD, 0, one), SC_LIST_OK);
      EXPECT_EQ(check(other_one, kFree), 0) << key.at + i;
    }
  }
}

}  // namespace
