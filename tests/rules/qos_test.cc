/* QoS rules: table, deletions by group, and items with both groups resolved. */
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

QosItem rule(int match_kind, int ip_mode, int ip_group_id) {
  QosItem item = {};
  item.match_kind = match_kind;
  item.ip_mode = ip_mode;
  item.ip_group_id = ip_group_id;
  put_text(item.start_ip_text, "172.16.0.1");
  put_text(item.end_ip_text, "172.16.0.9");
  put_text(item.start_time, "own start");
  return item;
}

QosItem timed(int time_mode, int time_group_id) {
  QosItem item = rule(1, 0, 0);
  item.time_mode = time_mode;
  item.time_group_id = time_group_id;
  return item;
}

class Qos : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<QosBlock>("Qos");
    ip_groups = started<IpGroupBlock>("IpGroup");
    time_groups = started<TimeGroupBlock>("TimeGroup");
    ASSERT_TRUE(block && ip_groups && time_groups);
    listener.emplace();
  }

  int32_t add(const QosItem& item) { return AddQosItem(block, &item); }
  QosItem get(uint32_t id) {
    QosItem item;
    fill(&item, sizeof item, 9);
    GetQosItem(block, id, &item);
    return item;
  }
  const QosItemList& listed() {
    fill(&list, sizeof list, 8);
    GetQosItemList(block, ip_groups, time_groups, &list);
    return list;
  }
  void add_groups() {
    IpGroupItem range = {};
    put_text(range.leading_text, "office");
    put_text(range.start_ip_text, "10.0.0.1");
    put_text(range.end_ip_text, "10.0.0.9");
    ASSERT_EQ(AddIpGroupItem(ip_groups, &range), SC_LIST_OK);
    TimeGroupItem schedule = {};
    put_text(schedule.leading_text, "nights");
    schedule.weekday[0] = -3;
    put_text(schedule.start_time, "0123456789");
    put_text(schedule.end_time, "group end");
    ASSERT_EQ(AddTimeGroupItem(time_groups, &schedule), SC_LIST_OK);
  }
  uint32_t operate(uint32_t op, uint32_t position) {
    const QosRuleRecord record = {};
    return static_cast<uint32_t>(SC_Operate_System_List_QosRule(block, op, &position, &record));
  }

  QosBlock* block = nullptr;
  IpGroupBlock* ip_groups = nullptr;
  TimeGroupBlock* time_groups = nullptr;
  QosItemList list;
  std::optional<Listener> listener;
};

TEST_F(Qos, TwoIdenticalRules_AreBothAddedAtTwoPositions) {
  EXPECT_EQ(add(rule(0, 0, 0)), SC_LIST_OK);
  EXPECT_EQ(add(rule(0, 0, 0)), SC_LIST_OK);
  EXPECT_EQ(block->rules[0].slot_id, 1);
  EXPECT_EQ(block->rules[1].slot_id, 2);
  EXPECT_EQ(block->rule_count, 2);
}

TEST_F(Qos, ModifyAt32Is3_DeleteAt32Is2AndThe33rdAddIs1) {
  EXPECT_EQ(operate(LIST_OP_MODIFY, 32), 3u);
  EXPECT_EQ(operate(LIST_OP_DEL, 32), 2u);
  for (int i = 0; i < 32; ++i) ASSERT_EQ(operate(LIST_OP_ADD, 0), 0u);
  EXPECT_EQ(operate(LIST_OP_ADD, 0), 1u);
}

TEST_F(Qos, DeletionByIpGroup_TakesRulesOfIpModeOneWhateverTheirMatchKindAndLeavesModeZero) {
  for (int match_kind : {0, 1, -1}) ASSERT_EQ(add(rule(match_kind, 1, 5)), SC_LIST_OK);
  for (int ip_mode : {0, 2}) ASSERT_EQ(add(rule(0, ip_mode, 5)), SC_LIST_OK);
  ASSERT_EQ(add(rule(0, 1, 4)), SC_LIST_OK);
  listener->codes();
  Image expected(block, sizeof *block);
  DelQosItemByIpGroupId(block, 5);
  for (size_t i : {0, 1, 2}) expected.put32(148 + 1008 * i, 0xFFFFFFFF);
  EXPECT_TRUE(expected.put16(140, 3).matches(block));
  EXPECT_EQ(listener->codes(), (Codes{9, 9, 9}));
}

TEST_F(Qos, DeletionByIpGroup_CountsAFreedRuleThatStillMatchesAgain) {
  ASSERT_EQ(add(rule(0, 1, -2)), SC_LIST_OK);
  DelQosItemByIpGroupId(block, -2);
  DelQosItemByIpGroupId(block, -2);
  EXPECT_EQ(block->rule_count, 0xFFFF);
}

TEST_F(Qos, DeletionByTimeGroup_LeavesRulesOfTimeModeOneUntouched) {
  ASSERT_EQ(add(timed(1, 4)), SC_LIST_OK);
  ASSERT_EQ(add(timed(2, 4)), SC_LIST_OK);
  ASSERT_EQ(add(timed(2, 3)), SC_LIST_OK);
  listener->codes();
  Image expected(block, sizeof *block);
  DelQosItemByTimeGroupId(block, 4);
  EXPECT_TRUE(expected.put16(140, 2).put32(148 + 1008, 0xFFFFFFFF).matches(block));
  EXPECT_EQ(listener->codes(), (Codes{9}));
}

/* ---- items ---- */

TEST_F(Qos, AnAddressText_IsStoredAsItsWordAndComesBackAsTheSameText) {
  ASSERT_EQ(add(rule(0, 0, 0)), SC_LIST_OK);
  EXPECT_EQ(block->rules[0].start_addr, 0x010010ACu);
  EXPECT_EQ(block->rules[0].end_addr, 0x090010ACu);
  EXPECT_EQ(text_of(get(1).start_ip_text), "172.16.0.1");
  EXPECT_EQ(text_of(get(1).end_ip_text), "172.16.0.9");
}

TEST_F(Qos, AnItem_FillsItsFieldsAndLeavesTheGapsBetweenThem) {
  fill(block->rules, sizeof block->rules, 1);
  golden_area("Qos").number_locks(block);
  block->rules[0].slot_id = -1;
  QosItem item;
  fill(&item, sizeof item, 4);
  put_text(item.start_ip_text, "1.2.3.4");
  put_text(item.end_ip_text, "no address");
  Image expected(block, sizeof *block);
  ASSERT_EQ(add(item), SC_LIST_OK);
  const size_t at = 144;
  expected.put16(140, 1).put32(at + 4, 1).copy(at + 8, item.leading_text, 200);
  expected.put8(at + 208, item.match_kind).copy(at + 209, item.match_text, 20);
  expected.put8(at + 229, item.ip_mode).put16(at + 230, item.ip_group_id);
  expected.put32(at + 236, 0x04030201).put32(at + 252, 0xFFFFFFFF);
  expected.put8(at + 264, item.time_mode).put8(at + 265, item.time_group_id);
  for (int day = 0; day < 7; ++day) expected.put8(at + 266 + day, item.weekday[day]);
  expected.copy(at + 273, item.start_time, 10).copy(at + 283, item.end_time, 10);
  expected.put32(at + 296, item.param_1).put32(at + 300, item.param_2);
  expected.put8(at + 304, item.param_byte).put8(at + 305, item.rule_flag);
  expected.copy(at + 306, item.trailing_text, 200);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(Qos, ARuleOfMatchKindOneAndIpModeOne_IsListedWithItsOwnAddressesAndNoName) {
  add_groups();
  for (int match_kind : {1, -1}) ASSERT_EQ(add(rule(match_kind, 1, 1)), SC_LIST_OK);
  listed();
  for (int i : {0, 1}) {
    EXPECT_EQ(text_of(list.items[i].start_ip_text), "172.16.0.1");
    EXPECT_EQ(text_of(list.items[i].ip_group_name), "");
  }
}

TEST_F(Qos, ARuleOfMatchKindZeroAndIpModeOne_IsListedWithTheGroupsAddressesAndName) {
  add_groups();
  ASSERT_EQ(add(rule(0, 1, 1)), SC_LIST_OK);
  ASSERT_EQ(add(rule(0, 0, 1)), SC_LIST_OK);
  listed();
  EXPECT_EQ(text_of(list.items[0].start_ip_text), "10.0.0.1");
  EXPECT_EQ(text_of(list.items[0].end_ip_text), "10.0.0.9");
  EXPECT_EQ(text_of(list.items[0].ip_group_name), "office");
  EXPECT_EQ(text_of(list.items[1].start_ip_text), "172.16.0.1");
  EXPECT_EQ(text_of(list.items[1].ip_group_name), "");
  EXPECT_EQ(text_of(get(1).start_ip_text), "172.16.0.1");
  EXPECT_EQ(text_of(get(1).ip_group_name), "");
}

TEST_F(Qos, ARuleOfANegativeIpGroup_IsListedWithEmptyAddressesSinceItsSignIsNotTested) {
  add_groups();
  for (int id : {-1, 0, 17}) ASSERT_EQ(add(rule(0, 1, id)), SC_LIST_OK);
  listed();
  for (int i : {0, 1, 2}) {
    EXPECT_EQ(text_of(list.items[i].start_ip_text), "");
    EXPECT_EQ(text_of(list.items[i].end_ip_text), "");
  }
}

TEST_F(Qos, ARuleOfTimeModeOne_IsListedWithTheGroupsNameAndSchedule) {
  add_groups();
  ASSERT_EQ(add(timed(1, 1)), SC_LIST_OK);
  ASSERT_EQ(add(timed(2, 1)), SC_LIST_OK);
  ASSERT_EQ(add(timed(1, -1)), SC_LIST_OK);
  ASSERT_EQ(add(timed(1, 0)), SC_LIST_OK);
  listed();
  EXPECT_EQ(text_of(list.items[0].time_group_name), "nights");
  EXPECT_EQ(text_of(list.items[0].start_time), "0123456789");
  EXPECT_EQ(text_of(list.items[0].end_time), "group end");
  EXPECT_EQ(list.items[0].weekday[0], -3);
  EXPECT_EQ(text_of(list.items[1].start_time), "own start");
  EXPECT_EQ(text_of(list.items[2].start_time), "own start");
  EXPECT_EQ(text_of(list.items[3].start_time), "");
  for (int i : {1, 2, 3}) EXPECT_EQ(text_of(list.items[i].time_group_name), "");
}

TEST_F(Qos, ATimeGroupNameOf200BytesWithoutTerminator_IsListedAs200Bytes) {
  add_groups();
  memset(time_groups->groups[0].leading_text, 'n', 200);
  ASSERT_EQ(add(timed(1, 1)), SC_LIST_OK);
  EXPECT_EQ(text_of(listed().items[0].time_group_name), std::string(200, 'n'));
  for (const uint8_t spare : list.items[0].spare_1764) ASSERT_EQ(spare, 0);
}

TEST_F(Qos, ModifyWithId33_IsOutOfRangeAndAnAddIntoAFullTableLeavesTheCount) {
  QosItem item = rule(0, 0, 0);
  for (int32_t id : {33, 0}) {
    item.id = id;
    EXPECT_EQ(ModifyQosItem(block, &item), SC_LIST_MOD_RANGE);
  }
  for (int i = 0; i < 32; ++i) ASSERT_EQ(add(item), SC_LIST_OK);
  EXPECT_EQ(add(item), SC_LIST_REJECTED);
  EXPECT_EQ(block->rule_count, 32);
  EXPECT_EQ(listener->codes(), Codes(35, 9));
}

}  // namespace
