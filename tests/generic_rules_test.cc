/* What holds for every list: one set of rules over all of them, with each list's numbers from
 * golden/lists.csv and golden/item_fields.csv. Blocks are plain memory here, full of stale bytes,
 * and are compared whole. */
#include <string.h>
#include <unistd.h>

#include <functional>
#include <optional>

#include "model/list_calls.h"
#include "model/model.h"
#include "model/rows.h"
#include "support/image.h"
#include "support/journal.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace sc_test {

std::ostream& operator<<(std::ostream& stream, const ListCalls& calls) {
  return stream << calls.list;
}

}  // namespace sc_test

namespace {

using namespace sc_test;
using Lines = std::vector<std::string>;
using Codes = std::vector<int32_t>;

constexpr uint32_t kFree = 0xFFFFFFFF, kUntouched = 0xABCD;

std::string name_of(const testing::TestParamInfo<ListCalls>& info) { return info.param.list; }

std::vector<ListCalls> listed_lists() {
  std::vector<ListCalls> lists;
  for (const ListCalls& calls : kListCalls) {
    if (calls.get != nullptr) lists.push_back(calls);
  }
  return lists;
}

/* An area's block in plain memory, as after the start. */
Image numbered(const std::string& name) {
  Image block = golden_area(name).emptied();
  golden_area(name).number(block);
  return block;
}

class Rules : public World, public testing::WithParamInterface<ListCalls> {
 protected:
  Rules()
      : calls(GetParam()),
        row(list_row(GetParam().list)),
        block(golden_area(row.area).size),
        last(row.capacity - 1) {}

  void SetUp() override {
    World::SetUp();
    for (const auto& list : list_rows()) write_file(list.lock_path, "\n");
    fill(block.data() + 136, block.size() - 136, 1);
    golden_area(row.area).number(block);
    for (const ListRow& list : list_rows()) {
      if (list.area != row.area) continue;
      for (uint32_t p = 0; p < list.capacity; ++p) block.put32(list.slot_of(p), kFree);
    }
  }

  /* A record (or item) of its own bytes; those of two numbers have no key in common. The table
   * operations of the clients take the record's first bytes alone. */
  Bytes record(uint32_t number) const {
    Bytes bytes(row.list_size == 0 ? row.item_size : row.stride);
    fill(bytes.data(), bytes.size(), number + 20);
    return bytes;
  }
  Bytes item(uint32_t number) const {
    Bytes bytes(row.item_size);
    fill(bytes.data(), bytes.size(), number + 20);
    for (const FieldRow& field : row.fields) {
      if (field.kind != "address") continue;
      char text[16] = {};
      snprintf(text, sizeof text, "10.%u.%u.%u", number % 256, field.record_at % 256, number / 256);
      memcpy(bytes.data() + field.item_at, text, sizeof text);
    }
    return bytes;
  }
  Bytes item_with_id(uint32_t number, uint32_t id) const {
    Bytes bytes = item(number);
    store(bytes.data() + row.id_at, 4, id);
    return bytes;
  }

  int32_t operate(uint32_t op, uint32_t at, const Bytes& with) {
    position = at;
    return calls.operate(block.data(), op, &position, with.data());
  }
  int32_t operate(uint32_t op, uint32_t at) {
    position = at;
    return calls.operate(block.data(), op, &position, nullptr);
  }
  int32_t add(uint32_t number) { return operate(LIST_OP_ADD, kUntouched, record(number)); }
  void add_first(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(add(i), SC_LIST_OK) << i;
  }
  void make_all_used() {
    for (uint32_t p = 0; p < row.capacity; ++p) block.put32(row.slot_of(p), p + 1);
  }
  /* The other areas that a delete or a listing reaches: empty, so that it finds nothing there. */
  Blocks others() {
    auto at = [&](const char* name) { return other.at(name).data(); };
    return {reinterpret_cast<FwIpportBlock*>(at("FwIpport")),
            reinterpret_cast<FwMacBlock*>(at("FwMac")),
            reinterpret_cast<FwUrlBlock*>(at("FwUrl")),
            reinterpret_cast<QosBlock*>(at("Qos")),
            reinterpret_cast<IpGroupBlock*>(at("IpGroup")),
            reinterpret_cast<TimeGroupBlock*>(at("TimeGroup"))};
  }
  std::string del(std::string ids) {
    calls.del(block.data(), others(), ids.data());
    return ids;
  }
  int32_t add_item(const Bytes& with) { return calls.add(block.data(), with.data()); }
  int32_t modify_item(const Bytes& with) { return calls.modify(block.data(), with.data()); }

  /* Expected images. */
  void put_runs(Image& expected, const std::vector<RunRow>& runs, uint32_t at,
                const Bytes& from) const {
    for (const RunRow& run : runs) {
      expected.copy(row.record_at(at) + run.at, from.data() + run.at, run.width);
    }
  }
  void put_freed(Image& expected, uint32_t at) const {
    expected.put32(row.slot_of(at), kFree);
    for (const RunRow& run : row.identity) expected.zero(row.record_at(at) + run.at, run.width);
  }
  void change_counter(Image& expected, uint32_t change) const {
    if (row.counter_width == 0) return;
    uint8_t* counter = expected.data() + row.counter_at;
    store(counter, row.counter_width, load(counter, row.counter_width) + change);
  }
  void zero_counter(Image& expected) const {
    if (row.counter_width != 0) expected.zero(row.counter_at, row.counter_width);
  }

  std::string opened(int number = 1) const {
    std::string line("#");
    line += std::to_string(number);
    line += " = open ";
    line += row.lock_path;
    return line;
  }
  std::string locked(const char* what, int number, uint32_t at) const {
    std::string line(what);
    line += " #" + std::to_string(number);
    line += " " + std::to_string(row.lock_of(at));
    return line;
  }
  Lines one_record(uint32_t at) const {
    return {opened(), locked("lock", 1, at), locked("unlock", 1, at), "close #1"};
  }
  Lines no_record() const { return {opened(), "close #1"}; }

  const ListCalls& calls;
  const ListRow& row;
  Image block;
  const uint32_t last;
  uint32_t position = kUntouched;
  std::map<std::string, Image> other = {
      {"FwIpport", numbered("FwIpport")}, {"FwMac", numbered("FwMac")},
      {"FwUrl", numbered("FwUrl")},       {"Qos", numbered("Qos")},
      {"IpGroup", numbered("IpGroup")},   {"TimeGroup", numbered("TimeGroup")}};
};

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

/* ---- lists with keys ---- */

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

/* ---- items ---- */

class EveryItemLayer : public Rules {
 protected:
  void SetUp() override {
    Rules::SetUp();
    listener = std::make_unique<Listener>();
  }
  Lines notified(int number) const { return notification(number, row.code); }
  Codes times(size_t count) const { return Codes(count, row.code); }

  std::unique_ptr<Listener> listener;
};
INSTANTIATE_TEST_SUITE_P(Lists, EveryItemLayer, testing::ValuesIn(kListCalls), name_of);

TEST_P(EveryItemLayer, AddItem_ConvertsEveryFieldRaisesTheCounterAndNotifiesLast) {
  Image expected = block;
  const Bytes from = item(5), built = to_record(row, from.data(), true);
  Journal journal;
  EXPECT_EQ(add_item(from), SC_LIST_OK);
  expected.put32(row.slot_of(0), 1);
  put_runs(expected, row.identity, 0, built);
  put_runs(expected, row.payload, 0, built);
  change_counter(expected, 1);
  EXPECT_TRUE(expected.matches(block.data()));
  Lines lines{opened(1),
              opened(2),
              locked("lock", 2, 0),
              locked("unlock", 2, 0),
              "close #2",
              locked("lock", 1, 0),
              locked("unlock", 1, 0),
              "close #1"};
  EXPECT_EQ(journal.lines(), joined({lines, notified(3)}));
  EXPECT_EQ(listener->codes(), times(1));
}

TEST_P(EveryItemLayer, AddItemToAFullTable_IsRejectedLeavesTheCounterAndNotifies) {
  for (uint32_t i = 0; i < row.capacity; ++i) ASSERT_EQ(add_item(item(i)), SC_LIST_OK) << i;
  EXPECT_EQ(listener->codes(), times(row.capacity));
  const Image before = block;
  EXPECT_EQ(add_item(item(row.capacity)), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block.data()));
  EXPECT_EQ(listener->codes(), times(1));
}

TEST_P(EveryItemLayer, AnEqualItem_IsRejectedWhereTheListHasKeysAndNotifiesEitherWay) {
  ASSERT_EQ(add_item(item(1)), SC_LIST_OK);
  const Image before = block;
  EXPECT_EQ(add_item(item(1)), row.keys.empty() ? SC_LIST_OK : SC_LIST_REJECTED);
  EXPECT_EQ(before.matches(block.data()), !row.keys.empty());
  EXPECT_EQ(listener->codes(), times(2));
}

TEST_P(EveryItemLayer, ModifyItem_RewritesTheRecordOfItsIdUsedOrFreeLeavesTheCounterAndNotifies) {
  block.put32(row.slot_of(0), 1);
  Image expected = block;
  for (uint32_t id : {1u, row.capacity}) {
    const Bytes from = item_with_id(id, id), built = to_record(row, from.data(), false);
    Journal journal;
    EXPECT_EQ(modify_item(from), SC_LIST_OK) << id;
    put_runs(expected, row.payload, id - 1, built);
    EXPECT_TRUE(expected.matches(block.data()));
    EXPECT_EQ(journal.lines(), joined({one_record(id - 1), notified(2)}));
  }
  EXPECT_EQ(listener->codes(), times(2));
}

TEST_P(EveryItemLayer, ModifyItemOutOfRange_ReturnsTheListsRangeCodeChangesNothingAndNotifies) {
  const Image before = block;
  for (uint32_t id : {0u, row.capacity + 1, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(modify_item(item_with_id(3, id)), row.modify_range) << id;
  }
  EXPECT_TRUE(before.matches(block.data()));
  EXPECT_EQ(listener->codes(), times(4));
}

TEST_P(EveryItemLayer, WithoutLockFile_AddAndModifyReturnMinusOneChangeNothingAndNotify) {
  ASSERT_EQ(unlink(row.lock_path.c_str()), 0);
  const Image before = block;
  int32_t added = 7, modified = 7;
  EXPECT_EQ(capture([&] { added = add_item(item(1)); }), cannot_lock(row.lock_path));
  EXPECT_EQ(capture([&] { modified = modify_item(item_with_id(1, 1)); }),
            cannot_lock(row.lock_path));
  EXPECT_EQ(added, SC_LIST_NO_LOCK);
  EXPECT_EQ(modified, SC_LIST_NO_LOCK);
  EXPECT_TRUE(before.matches(block.data()));
  EXPECT_EQ(listener->codes(), times(2));
}

TEST_P(EveryItemLayer, Del_FreesEachIdInOrderLowersTheCounterForEachAndNotifiesOnceAtTheEnd) {
  make_all_used();
  Image expected = block;
  Journal journal;
  del("3#1#" + std::to_string(row.capacity));
  for (uint32_t p : {2u, 0u, last}) put_freed(expected, p);
  change_counter(expected, 0u - 3);
  EXPECT_TRUE(expected.matches(block.data()));
  Lines lines;
  int number = 0;
  for (uint32_t p : {2u, 0u, last}) {
    ++number;
    lines.push_back(opened(number));
    lines.push_back(locked("lock", number, p));
    lines.push_back(locked("unlock", number, p));
    lines.push_back("close #" + std::to_string(number));
  }
  EXPECT_EQ(journal.lines(), joined({lines, notified(4)}));
  EXPECT_EQ(listener->codes(), times(1));
}

TEST_P(EveryItemLayer, DelOfIdsThatFreeNothing_LowersTheCounterForEach) {
  Image expected = block;
  struct {
    const char* ids;
    uint32_t count;
  } const cases[] = {{"abc", 1}, {"0", 1},   {"-1", 1},   {"99999", 1},
                     {" ", 1},   {"0#0", 2}, {"x#y#", 2}, {"#301#-2147483648", 2}};
  for (const auto& [ids, count] : cases) {
    del(ids);
    change_counter(expected, 0u - count);
    EXPECT_TRUE(expected.matches(block.data())) << ids;
    EXPECT_EQ(listener->codes(), times(1)) << ids;
  }
}

TEST_P(EveryItemLayer, DelOfTheSameIdTwice_LowersTheCounterByTwo) {
  make_all_used();
  Image expected = block;
  del("1#1");
  put_freed(expected, 0);
  change_counter(expected, 0u - 2);
  EXPECT_TRUE(expected.matches(block.data()));
}

TEST_P(EveryItemLayer, DelOfTextThatBeginsWithANumber_TakesTheNumber) {
  make_all_used();
  Image expected = block;
  del("2x# 4");
  put_freed(expected, 1);
  put_freed(expected, 3);
  change_counter(expected, 0u - 2);
  EXPECT_TRUE(expected.matches(block.data()));
}

TEST_P(EveryItemLayer, DelWithoutIds_ChangesNothingOpensNothingAndNotifiesOnce) {
  make_all_used();
  const Image before = block;
  for (const char* ids : {"", "#", "###"}) {
    Journal journal;
    EXPECT_EQ(del(ids), ids);
    EXPECT_EQ(journal.lines(), notified(1));
  }
  EXPECT_TRUE(before.matches(block.data()));
  EXPECT_EQ(listener->codes(), times(3));
}

TEST_P(EveryItemLayer, TheIndexList_IsSplitInPlaceAtTheEndOfEachId) {
  EXPECT_EQ(del("3##5#"), std::string("3\0#5\0", 5));
  EXPECT_EQ(del("##3"), "##3");
  EXPECT_EQ(del("abc"), "abc");
}

TEST_P(EveryItemLayer, DelWithoutLockFile_SaysSoForEachIdAndLowersTheCounterAllTheSame) {
  make_all_used();
  ASSERT_EQ(unlink(row.lock_path.c_str()), 0);
  Image expected = block;
  const std::string once = cannot_lock(row.lock_path).out;
  EXPECT_EQ(capture([&] { del("1#2"); }), (Output{once + once, ""}));
  change_counter(expected, 0u - 2);
  EXPECT_TRUE(expected.matches(block.data()));
  EXPECT_EQ(listener->codes(), times(1));
}

TEST_P(EveryItemLayer, TheCounter_WrapsBelowZeroAndAboveItsLargest) {
  Image expected = block;
  zero_counter(block);
  zero_counter(expected);
  del("99999");
  change_counter(expected, 0u - 1);
  EXPECT_TRUE(expected.matches(block.data()));
  ASSERT_EQ(add_item(item(1)), SC_LIST_OK);
  expected.copy(row.record_at(0), block.data() + row.record_at(0), row.stride);
  zero_counter(expected);
  EXPECT_TRUE(expected.matches(block.data()));
}

TEST_P(EveryItemLayer, DelAll_FreesEveryRecordZeroesTheCounterAndNotifiesOnce) {
  make_all_used();
  Image expected = block;
  calls.del_all(block.data());
  /* Required: the IP filter is cleared with the port-forwarding table's geometry. */
  const bool by_other = row.name == "FireWall_IpPort";
  const ListRow& walked = by_other ? list_row("ForwordIpPort") : row;
  for (uint32_t p = 0; p < walked.capacity; ++p) {
    expected.put32(walked.slot_of(p), kFree);
    for (const RunRow& run : row.identity) expected.zero(row.record_at(p) + run.at, run.width);
  }
  zero_counter(expected);
  EXPECT_TRUE(expected.matches(block.data()));
  EXPECT_EQ(listener->codes(), times(1));
}

TEST_P(EveryItemLayer, TheDaemon_IsToldWhenAllIsDone) {
  const std::function<void()> steps[] = {[&] { add_item(item(1)); },
                                         [&] { modify_item(item_with_id(1, 2)); },
                                         [&] { del("1"); }, [&] { calls.del_all(block.data()); }};
  for (const auto& step : steps) {
    std::optional<Image> told;
    Journal journal;
    journal.before("connect", [&] { told = block; });
    step();
    ASSERT_TRUE(told.has_value());
    EXPECT_TRUE(told->matches(block.data()));
  }
}

TEST_P(EveryItemLayer, DelAllWithoutLockFile_FreesNothingButZeroesTheCounterAndNotifies) {
  make_all_used();
  ASSERT_EQ(unlink(row.lock_path.c_str()), 0);
  Image expected = block;
  EXPECT_EQ(capture([&] { calls.del_all(block.data()); }), cannot_lock(row.lock_path));
  zero_counter(expected);
  EXPECT_TRUE(expected.matches(block.data()));
  EXPECT_EQ(listener->codes(), times(1));
}

/* ---- items that are read back ---- */

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
