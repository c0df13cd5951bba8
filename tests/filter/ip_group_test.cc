/* IP groups: table, items and the deletion that takes the referring rules along. */
#include <optional>

#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

#include "support/image.h"
#include "support/journal.h"
#include "support/listener.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Codes = std::vector<int32_t>;

IpGroupItem group(const std::string& name, const std::string& start, const std::string& end) {
  IpGroupItem item;
  fill(&item, sizeof item, 3);
  put_text(item.leading_text, name);
  put_text(item.start_ip_text, start);
  put_text(item.end_ip_text, end);
  return item;
}

class IpGroups : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<IpGroupBlock>("IpGroup");
    filters = started<FwIpportBlock>("FwIpport");
    qos = started<QosBlock>("Qos");
    ASSERT_TRUE(block != nullptr && filters != nullptr && qos != nullptr);
    listener.emplace();
  }

  int32_t add(const IpGroupItem& item) { return AddIpGroupItem(block, &item); }
  void add_many(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(add(group("g", "10.0.0.1", "10.0.0.9")), SC_LIST_OK);
    listener->codes();
  }
  void del(std::string ids) { DelIpGroupItem(block, filters, qos, ids.data()); }
  /* One referring rule in each of the two tables. */
  void refer_to(int id) {
    IpFilterItem filter = {};
    filter.ip_mode = 1;
    filter.ip_group_id = id;
    ASSERT_EQ(AddIpFilterItem(filters, &filter), SC_LIST_OK);
    QosItem rule = {};
    rule.ip_mode = 1;
    rule.ip_group_id = id;
    ASSERT_EQ(AddQosItem(qos, &rule), SC_LIST_OK);
    listener->codes();
  }

  IpGroupBlock* block = nullptr;
  FwIpportBlock* filters = nullptr;
  QosBlock* qos = nullptr;
  std::optional<Listener> listener;
};

TEST_F(IpGroups, AnAddIntoAFullTable_IsRejectedAndLeavesTheCount) {
  add_many(16);
  const Image before(block, sizeof *block);
  EXPECT_EQ(add(group("late", "10.0.0.1", "10.0.0.9")), SC_LIST_REJECTED);
  EXPECT_EQ(block->group_count, 16u);
  EXPECT_TRUE(before.matches(block));
}

TEST_F(IpGroups, TwoEqualGroups_AreBothAccepted) {
  const IpGroupItem item = group("same", "10.0.0.9", "10.0.0.1");
  EXPECT_EQ(add(item), SC_LIST_OK);
  EXPECT_EQ(add(item), SC_LIST_OK);
  EXPECT_EQ(block->group_count, 2u);
}

TEST_F(IpGroups, DelWithThreeTwice_RemovesOnceLowersByTwoAndRunsTheCascadeTwice) {
  add_many(4);
  refer_to(3);
  del("3#3");
  EXPECT_EQ(block->groups[2].slot_id, -1);
  EXPECT_EQ(block->group_count, 2u);
  EXPECT_EQ(filters->rule_count, 0xFFFF); /* the freed rule matched once more */
  EXPECT_EQ(qos->rule_count, 0xFFFF);
  EXPECT_EQ(listener->codes(), (Codes{6, 9, 6, 9, 10}));
}

TEST_F(IpGroups, DelWithZero_RunsTheCascadeForZeroRemovesNoGroupAndLowersTheCount) {
  add_many(2);
  refer_to(0);
  del("0");
  EXPECT_EQ(block->groups[0].slot_id, 1);
  EXPECT_EQ(block->groups[1].slot_id, 2);
  EXPECT_EQ(block->group_count, 1u);
  EXPECT_EQ(filters->rules[0].slot_id, -1);
  EXPECT_EQ(qos->rules[0].slot_id, -1);
  EXPECT_EQ(listener->codes(), (Codes{6, 9, 10}));
}

TEST_F(IpGroups, DelWithoutIds_NotifiesOnceAndTouchesNoRule) {
  add_many(1);
  refer_to(0);
  refer_to(1);
  const Image groups(block, sizeof *block), rules(filters, sizeof *filters);
  del("");
  del("#");
  EXPECT_TRUE(groups.matches(block));
  EXPECT_TRUE(rules.matches(filters));
  EXPECT_EQ(listener->codes(), (Codes{10, 10}));
}

TEST_F(IpGroups, DelOfAGroup_DeletesFilterRulesThenQosRulesThenTheGroup) {
  add_many(2);
  refer_to(2);
  Journal journal;
  del("2");
  EXPECT_EQ(journal.lines(),
            joined({{"#1 = open " + lock_file("FwIpport"), "lock #1 2", "unlock #1 2", "close #1"},
                    notification(2, 6),
                    {"#3 = open " + lock_file("Qos"), "lock #3 2", "unlock #3 2", "close #3"},
                    notification(4, 9),
                    {"#5 = open " + lock_file("IpGroup"), "lock #5 3", "unlock #5 3", "close #5"},
                    notification(6, 10)}));
}

TEST_F(IpGroups, TheCount_WrapsBelowZero) {
  del("16");
  EXPECT_EQ(block->group_count, 0xFFFFFFFFu);
}

TEST_F(IpGroups, DeletingGroupTwoAndAdding_ReusesItsPositionAndKeepsItsUnusedBytes) {
  add_many(3);
  for (auto& spare : block->groups[1].spare_208) spare = 0x51;
  for (auto& spare : block->groups[1].spare_216) spare = 0x52;
  for (auto& spare : block->groups[1].spare_232) spare = 0x53;
  for (auto& spare : block->groups[1].spare_440) spare = 0x54;
  del("2");
  IpGroupItem item = group("new", "1.2.3.4", "5.6.7.8");
  Image expected(block, sizeof *block);
  EXPECT_EQ(add(item), SC_LIST_OK);
  const size_t at = 140 + 940;
  expected.put32(136, 3).put32(at + 4, 2).copy(at + 8, item.leading_text, 200);
  expected.put32(at + 212, 0x04030201).put32(at + 228, 0x08070605);
  expected.copy(at + 240, item.trailing_text, 200);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(IpGroups, IndexOfMinusOne_IsTheFirstFreePosition) {
  EXPECT_EQ(GetIpGroupIndex(block, -1), 0);
  add_many(16);
  EXPECT_EQ(GetIpGroupIndex(block, -1), -1);
  del("16#7");
  EXPECT_EQ(GetIpGroupIndex(block, -1), 6);
}

TEST_F(IpGroups, IndexOfAnId_IsItsFirstPositionOrMinusOne) {
  add_many(16);
  EXPECT_EQ(GetIpGroupIndex(block, 1), 0);
  EXPECT_EQ(GetIpGroupIndex(block, 16), 15);
  EXPECT_EQ(GetIpGroupIndex(block, 0), -1);
  EXPECT_EQ(GetIpGroupIndex(block, 17), -1);
  block->groups[4].slot_id = 0x10005;
  EXPECT_EQ(GetIpGroupIndex(block, 5), -1);
  EXPECT_EQ(GetIpGroupIndex(block, 0x10005), 4);
  EXPECT_EQ(GetIpGroupIndex(nullptr, 1), -1);
}

TEST_F(IpGroups, GroupsAtThreeAndNine_AreListedAsEntriesZeroAndOneWithIdsFourAndTen) {
  add_many(10);
  for (int id = 1; id <= 10; ++id) {
    if (id != 4 && id != 10) del(std::to_string(id));
  }
  IpGroupItemList list;
  GetIpGroupItemList(block, &list);
  EXPECT_EQ(list.count, 2u);
  EXPECT_EQ(list.capacity, 16u);
  EXPECT_EQ(list.items[0].slot_id, 4);
  EXPECT_EQ(list.items[1].slot_id, 10);
}

TEST_F(IpGroups, AStartTextThatIsNoAddress_IsStoredAndListedAs255) {
  ASSERT_EQ(add(group("g", "abc", "10.0.0.9")), SC_LIST_OK);
  EXPECT_EQ(block->groups[0].start_addr, 0xFFFFFFFFu);
  IpGroupItemList list;
  GetIpGroupItemList(block, &list);
  EXPECT_EQ(text_of(list.items[0].start_ip_text), "255.255.255.255");
  EXPECT_EQ(text_of(list.items[0].end_ip_text), "10.0.0.9");
}

TEST_F(IpGroups, AnAddressTextWithoutTerminator_IsReadWithinItsField) {
  IpGroupItem item = group("g", "", "10.0.0.9");
  memcpy(item.start_ip_text, "0012.00.00.00001", 16);
  ASSERT_EQ(add(item), SC_LIST_OK);
  EXPECT_EQ(block->groups[0].start_addr, 0x0100000Au);
}

TEST_F(IpGroups, DelAll_EmptiesTheTableAndLeavesTheReferringRules) {
  add_many(16);
  refer_to(3);
  const Image rules(filters, sizeof *filters), shaping(qos, sizeof *qos);
  DelAllIpGroupItem(block);
  for (const IpGroupRecord& record : block->groups) EXPECT_EQ(record.slot_id, -1);
  EXPECT_EQ(block->group_count, 0u);
  EXPECT_TRUE(rules.matches(filters));
  EXPECT_TRUE(shaping.matches(qos));
  EXPECT_EQ(listener->codes(), (Codes{10}));
}

}  // namespace
