/* The MAC filter: table, deletions and items with the time group resolved. */
#include <optional>

#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

#include "support/image.h"
#include "support/listener.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Codes = std::vector<int32_t>;

MacFilterItem rule(const std::string& mac, int time_mode = 0, int time_group_id = 0) {
  MacFilterItem item = {};
  put_text(item.mac, mac);
  item.time_mode = time_mode;
  item.time_group_id = time_group_id;
  for (int day = 0; day < 7; ++day) item.weekday[day] = day + 1;
  put_text(item.start_time, "own start");
  put_text(item.end_time, "own end");
  return item;
}

MacFilterItem rule(int number) { return rule("00:11:22:33:44:" + std::to_string(10 + number)); }

class MacFilter : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<FwMacBlock>("FwMac");
    time_groups = started<TimeGroupBlock>("TimeGroup");
    ASSERT_TRUE(block && time_groups);
    listener.emplace();
  }

  int32_t add(const MacFilterItem& item) { return AddMacFilterItem(block, &item); }
  void add_many(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(add(rule(i)), SC_LIST_OK);
    listener->codes();
  }
  int32_t modify(int32_t id, MacFilterItem item) {
    item.id = id;
    return ModifyMacFilterItem(block, &item);
  }
  void del(std::string ids) { DelMacFilterItem(block, ids.data()); }
  MacFilterItem get(uint32_t id) {
    MacFilterItem item;
    fill(&item, sizeof item, 9);
    GetMacFilterItem(block, id, &item);
    return item;
  }
  const MacFilterItemList& listed() {
    fill(&list, sizeof list, 8);
    GetMacFilterItemList(block, time_groups, &list);
    return list;
  }
  void add_time_group(const std::string& name) {
    TimeGroupItem group = {};
    put_text(group.leading_text, name);
    for (int day = 0; day < 7; ++day) group.weekday[day] = -day;
    put_text(group.start_time, "0123456789");
    put_text(group.end_time, "group end");
    ASSERT_EQ(AddTimeGroupItem(time_groups, &group), SC_LIST_OK);
  }

  FwMacBlock* block = nullptr;
  TimeGroupBlock* time_groups = nullptr;
  MacFilterItemList list;
  std::optional<Listener> listener;
};

TEST_F(MacFilter, AMacThatDiffersOnlyInCase_IsRejected) {
  ASSERT_EQ(add(rule("AA:BB:CC:DD:EE:FF")), SC_LIST_OK);
  EXPECT_EQ(add(rule("aa:bb:cc:dd:ee:ff")), SC_LIST_REJECTED);
}

TEST_F(MacFilter, ModifyToItsOwnMac_IsDone) {
  add_many(2);
  EXPECT_EQ(modify(1, rule(0)), SC_LIST_OK);
}

TEST_F(MacFilter, ModifyToTheMacOfAnotherRule_IsRejected) {
  add_many(2);
  EXPECT_EQ(modify(1, rule(1)), SC_LIST_REJECTED);
}

TEST_F(MacFilter, ModifyAtPosition32_IsRejectedDeleteThereIsOutOfRangeAndOperation3IsNone) {
  MacFilterRecord record = {};
  uint32_t position = 32;
  EXPECT_EQ(SC_Operate_System_List_FireWall_Mac(block, LIST_OP_MODIFY, &position, &record), 1);
  EXPECT_EQ(SC_Operate_System_List_FireWall_Mac(block, LIST_OP_DEL, &position, nullptr), 2);
  EXPECT_EQ(SC_Operate_System_List_FireWall_Mac(block, 3, &position, nullptr), 5);
  EXPECT_EQ(position, 32u);
}

TEST_F(MacFilter, TheThirtyThirdAdd_IsRejectedAndChangesNothing) {
  add_many(32);
  const Image before(block, sizeof *block);
  EXPECT_EQ(add(rule(32)), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
}

TEST_F(MacFilter, DelItemWithThreeAndFive_FreesPositionsTwoAndFourAndLowersTheCountByTwo) {
  add_many(6);
  Image expected(block, sizeof *block);
  del("3#5");
  expected.put16(140, 4).put32(148 + 2 * 960, 0xFFFFFFFF).put32(148 + 4 * 960, 0xFFFFFFFF);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{7}));
}

TEST_F(MacFilter, DelItemWith40_LowersTheCountThoughNothingIsDeleted) {
  add_many(6);
  Image expected(block, sizeof *block);
  del("40");
  EXPECT_TRUE(expected.put16(140, 5).matches(block));
}

TEST_F(MacFilter, DeletionByTimeGroup_LeavesRulesOfModeOneUntouched) {
  ASSERT_EQ(add(rule("a", 1, 4)), SC_LIST_OK);
  listener->codes();
  const Image before(block, sizeof *block);
  DelMacFilterItemByTimeGroupId(block, 4);
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), Codes{});
}

TEST_F(MacFilter, DeletionByTimeGroup_FreesEachRuleOfModeTwoAndItsGroupWithANotificationEach) {
  ASSERT_EQ(add(rule("a", 2, 4)), SC_LIST_OK);
  ASSERT_EQ(add(rule("b", 2, 5)), SC_LIST_OK);
  ASSERT_EQ(add(rule("c", 2, 4)), SC_LIST_OK);
  listener->codes();
  Image expected(block, sizeof *block);
  DelMacFilterItemByTimeGroupId(block, 4);
  expected.put16(140, 1).put32(148, 0xFFFFFFFF).put32(148 + 2 * 960, 0xFFFFFFFF);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{7, 7}));
}

TEST_F(MacFilter, AFreedRuleThatStillMatches_IsDeletedAndCountedAgain) {
  ASSERT_EQ(add(rule("a", 2, 4)), SC_LIST_OK);
  listener->codes();
  DelMacFilterItemByTimeGroupId(block, 4);
  DelMacFilterItemByTimeGroupId(block, 4);
  EXPECT_EQ(block->rule_count, 0xFFFF);
  EXPECT_EQ(listener->codes(), (Codes{7, 7}));
}

/* ---- items ---- */

TEST_F(MacFilter, AnEmptyTable_ListsNothing) {
  Image expected(sizeof list);
  EXPECT_TRUE(expected.put32(4, 32).matches(&listed()));
}

TEST_F(MacFilter, RulesAtZeroAndFive_AreItemsZeroAndOneWithIdsOneAndSix) {
  add_many(6);
  del("2#3#4#5");
  EXPECT_EQ(listed().count, 2u);
  EXPECT_EQ(list.items[0].id, 1);
  EXPECT_EQ(list.items[1].id, 6);
  EXPECT_EQ(text_of(list.items[1].mac), "00:11:22:33:44:15");
}

TEST_F(MacFilter, ARuleOfTimeModeOneAndGroupMinusOne_IsListedWithItsOwnScheduleAndNoName) {
  ASSERT_EQ(add(rule("a", 1, -1)), SC_LIST_OK);
  EXPECT_EQ(text_of(listed().items[0].start_time), "own start");
  EXPECT_EQ(list.items[0].weekday[6], 7);
  EXPECT_EQ(text_of(list.items[0].time_group_name), "");
}

TEST_F(MacFilter, ARuleOfTimeModeOne_IsListedWithTheGroupsScheduleAndReadWithItsOwn) {
  add_time_group("first");
  add_time_group("second");
  ASSERT_EQ(add(rule("a", 1, 2)), SC_LIST_OK);
  EXPECT_EQ(text_of(listed().items[0].time_group_name), "second");
  EXPECT_EQ(text_of(list.items[0].start_time), "0123456789");
  EXPECT_EQ(text_of(list.items[0].end_time), "group end");
  for (int day = 0; day < 7; ++day) EXPECT_EQ(list.items[0].weekday[day], -day);
  const MacFilterItem read = get(1);
  EXPECT_EQ(text_of(read.start_time), "own start");
  EXPECT_EQ(text_of(read.time_group_name), "");
}

TEST_F(MacFilter, ARuleOfTimeModeTwoOrThree_IsListedWithItsOwnSchedule) {
  add_time_group("group");
  ASSERT_EQ(add(rule("a", 2, 1)), SC_LIST_OK);
  ASSERT_EQ(add(rule("b", 3, 1)), SC_LIST_OK);
  listed();
  for (int i : {0, 1}) {
    EXPECT_EQ(text_of(list.items[i].start_time), "own start");
    EXPECT_EQ(text_of(list.items[i].time_group_name), "");
  }
}

TEST_F(MacFilter, ARuleOfTimeGroupZeroOr17_IsListedWithAnEmptySchedule) {
  for (int i = 0; i < 16; ++i) add_time_group("group");
  ASSERT_EQ(add(rule("a", 1, 0)), SC_LIST_OK);
  ASSERT_EQ(add(rule("b", 1, 17)), SC_LIST_OK);
  listed();
  for (int i : {0, 1}) {
    EXPECT_EQ(text_of(list.items[i].start_time), "");
    EXPECT_EQ(list.items[i].weekday[0], 0);
    EXPECT_EQ(text_of(list.items[i].time_group_name), "");
  }
}

TEST_F(MacFilter, ATimeGroupNameOf200BytesWithoutTerminator_IsListedAs200Bytes) {
  add_time_group(std::string(200, 'n'));
  ASSERT_EQ(add(rule("a", 1, 1)), SC_LIST_OK);
  EXPECT_EQ(text_of(listed().items[0].time_group_name), std::string(200, 'n'));
  EXPECT_EQ(list.items[0].weekday[1], -1);
}

TEST_F(MacFilter, TheItemOfADeletedRule_HasIdMinusOneAndItsOldContents) {
  MacFilterItem item = rule("AA:BB");
  ASSERT_EQ(add(item), SC_LIST_OK);
  del("1");
  item.id = -1;
  const MacFilterItem read = get(1);
  EXPECT_TRUE(Image(&item, sizeof item).matches(&read));
}

TEST_F(MacFilter, ModifyWithIdZero_IsRejected) {
  add_many(1);
  const Image before(block, sizeof *block);
  EXPECT_EQ(modify(0, rule(5)), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{7}));
}

TEST_F(MacFilter, ARejectedAdd_LeavesTheCountAndStillNotifies) {
  add_many(1);
  EXPECT_EQ(add(rule(0)), SC_LIST_REJECTED);
  EXPECT_EQ(block->rule_count, 1);
  EXPECT_EQ(listener->codes(), (Codes{7}));
}

}  // namespace
