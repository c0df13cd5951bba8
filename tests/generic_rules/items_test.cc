/* The item functions of every list that change it. */
#include <unistd.h>

#include <functional>
#include <memory>
#include <optional>

#include "generic_rules/rules.h"
#include "support/listener.h"

namespace {

using namespace sc_test;

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

}  // namespace
