/* Items that are read back, of every list that has a listing. */
#include <string.h>

#include "generic_rules/rules.h"
#include "support/listener.h"

namespace {

using namespace sc_test;

class EveryListing : public Rules {
 protected:
  Bytes get(uint32_t id) {
    Bytes read(row.item_size);
    fill(read.data(), read.size(), 7);
    calls.get(block.data(), id, read.data());
    return read;
  }
  Bytes get_list() {
    Bytes list(row.list_size);
    fill(list.data(), list.size(), 8);
    calls.get_list(block.data(), others(), list.data());
    return list;
  }
  Bytes expected_item(uint32_t at) {
    Bytes expected(row.item_size, 0);
    to_item(row, block.data() + row.record_at(at), expected.data());
    return expected;
  }
  /* No record refers to a group, so that the listing shows each rule's own values. */
  void drop_references() {
    for (uint32_t p = 0; p < row.capacity; ++p) {
      for (const ReferenceRow& reference : row.references) {
        block.put8(row.record_at(p) + reference.mode_at, 0);
      }
    }
  }
};
std::vector<ListCalls> listed_lists() {
  std::vector<ListCalls> lists;
  for (const ListCalls& calls : kListCalls) {
    if (calls.get != nullptr) lists.push_back(calls);
  }
  return lists;
}
INSTANTIATE_TEST_SUITE_P(Lists, EveryListing, testing::ValuesIn(listed_lists()), name_of);

TEST_P(EveryListing, GetItem_ConvertsEveryFieldOfAUsedOrFreeRecordAndZeroesTheRest) {
  for (uint32_t id : {1u, row.capacity}) {
    for (uint32_t slot : {id, kFree, 0x80000000u, 0u}) {
      block.put32(row.slot_of(id - 1), slot);
      EXPECT_EQ(get(id), expected_item(id - 1)) << id;
    }
  }
}

TEST_P(EveryListing, GetItemOutOfRange_GivesAnAllZeroItem) {
  make_all_used();
  for (uint32_t id : {0u, row.capacity + 1, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(get(id), Bytes(row.item_size, 0)) << id;
  }
}

TEST_P(EveryListing, WhatWasAddedAsAnItem_IsReadBackInItsFields) {
  const Bytes from = item(5);
  Listener listener;
  EXPECT_EQ(add_item(from), SC_LIST_OK);
  const Bytes read = get(1);
  for (const FieldRow& field : row.fields) {
    const uint8_t *given = from.data() + field.item_at, *found = read.data() + field.item_at;
    if (field.kind == "byte") {
      for (uint32_t i = 0; i < field.width; ++i) {
        EXPECT_EQ(load_signed(found + 4 * i, 4), load_signed(given + 4 * i, 1)) << field.name;
      }
    } else if (field.kind == "half") {
      EXPECT_EQ(load_signed(found, 4), load_signed(given, 2)) << field.name;
    } else {
      EXPECT_EQ(memcmp(found, given, field.kind == "address" ? 16 : field.width), 0) << field.name;
    }
  }
}

TEST_P(EveryListing, AnEmptyTable_ListsCountZeroTheCapacityAndZeroes) {
  Bytes expected(row.list_size, 0);
  store(expected.data() + 4, 4, row.capacity);
  EXPECT_EQ(get_list(), expected);
}

TEST_P(EveryListing, UsedRecords_ArePackedInTableOrderAndNegativeSlotsAreSkipped) {
  drop_references();
  const uint32_t used[] = {0, 5, last};
  for (uint32_t p : used) block.put32(row.slot_of(p), p + 1);
  block.put32(row.slot_of(2), 0x80000000);
  block.put32(row.slot_of(3), 0xFFFFFFFE);
  Bytes expected(row.list_size, 0);
  store(expected.data(), 4, 3);
  store(expected.data() + 4, 4, row.capacity);
  for (uint32_t i = 0; i < 3; ++i) {
    const Bytes shown = expected_item(used[i]);
    memcpy(expected.data() + 8 + i * row.item_size, shown.data(), shown.size());
  }
  const Image before = block;
  EXPECT_EQ(get_list(), expected);
  EXPECT_TRUE(before.matches(block.data()));
}

TEST_P(EveryListing, AFullTable_ListsEveryRecord) {
  drop_references();
  make_all_used();
  block.put32(row.slot_of(1), 0); /* not negative, so it is shown */
  Bytes expected(row.list_size, 0);
  store(expected.data(), 4, row.capacity);
  store(expected.data() + 4, 4, row.capacity);
  for (uint32_t p = 0; p < row.capacity; ++p) {
    const Bytes shown = expected_item(p);
    memcpy(expected.data() + 8 + p * row.item_size, shown.data(), shown.size());
  }
  EXPECT_EQ(get_list(), expected);
}

TEST_P(EveryListing, WhatLiesBehindTheTable_IsNotListed) {
  block.put32(row.slot_of(row.capacity), 7);
  EXPECT_EQ(load(get_list().data(), 4), 0u);
}

TEST_P(EveryListing, NeighboursWhoseAddressesDifferInOneBit_AreEachListedWithTheirOwn) {
  drop_references();
  for (uint32_t p : {0u, 1u, 2u}) block.put32(row.slot_of(p), p + 1);
  for (uint32_t octets : {0x0201A8C0u, 0xC86464C8u, 0u, 0x0A0A0A0Au}) {
    for (uint32_t bit = 0; bit < 32; ++bit) {
      for (const FieldRow& field : row.fields) {
        if (field.kind != "address") continue;
        block.put32(row.record_at(0) + field.record_at, octets);
        block.put32(row.record_at(1) + field.record_at, octets ^ 1u << bit);
        block.put32(row.record_at(2) + field.record_at, octets);
      }
      const Bytes list = get_list();
      ASSERT_EQ(load(list.data(), 4), 3u);
      for (uint32_t p : {0u, 1u, 2u}) {
        const uint8_t* shown = list.data() + 8 + p * row.item_size;
        ASSERT_EQ(Bytes(shown, shown + row.item_size), expected_item(p)) << octets << " " << bit;
      }
    }
  }
}

TEST_P(EveryListing, ANullBlock_LeavesItemAndListUntouched) {
  Bytes read(row.item_size), list(row.list_size);
  fill(read.data(), read.size(), 7);
  fill(list.data(), list.size(), 8);
  const Bytes read_before = read, list_before = list;
  calls.get(nullptr, 1, read.data());
  calls.get_list(nullptr, others(), list.data());
  EXPECT_EQ(read, read_before);
  EXPECT_EQ(list, list_before);
}

TEST_P(EveryListing, Reading_TakesNoLockAndNotifiesNobody) {
  make_all_used();
  Journal journal;
  get(1);
  get_list();
  EXPECT_TRUE(journal.lines().empty());
}

}  // namespace
