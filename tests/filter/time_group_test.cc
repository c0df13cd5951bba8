/* Time groups: the schedule's bytes, and the deletion that takes the referring rules along. */
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

class TimeGroups : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<TimeGroupBlock>("TimeGroup");
    ip = started<FwIpportBlock>("FwIpport");
    mac = started<FwMacBlock>("FwMac");
    url = started<FwUrlBlock>("FwUrl");
    qos = started<QosBlock>("Qos");
    ASSERT_TRUE(block && ip && mac && url && qos);
    listener.emplace();
  }

  int32_t add(const TimeGroupItem& item) { return AddTimeGroupItem(block, &item); }
  void add_many(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(add({}), SC_LIST_OK);
    listener->codes();
  }
  TimeGroupItem get(uint32_t id) {
    TimeGroupItem item;
    fill(&item, sizeof item, 9);
    GetTimeGroupItem(block, id, &item);
    return item;
  }
  void del(std::string ids) { DelTimeGroupItem(block, ip, mac, url, qos, ids.data()); }
  /* One referring rule in each of the four tables, told apart by the id. */
  void refer_to(int id, int mode = 2) {
    IpFilterItem ip_rule = {};
    ip_rule.time_mode = mode;
    ip_rule.time_group_id = id;
    ASSERT_EQ(AddIpFilterItem(ip, &ip_rule), SC_LIST_OK);
    MacFilterItem mac_rule = {};
    mac_rule.time_mode = mode;
    mac_rule.time_group_id = id;
    put_text(mac_rule.mac, std::to_string(id));
    ASSERT_EQ(AddMacFilterItem(mac, &mac_rule), SC_LIST_OK);
    UrlFilterItem url_rule = {};
    url_rule.time_mode = mode;
    url_rule.time_group_id = id;
    put_text(url_rule.url, std::to_string(id));
    ASSERT_EQ(AddUrlFilterItem(url, &url_rule), SC_LIST_OK);
    QosItem qos_rule = {};
    qos_rule.time_mode = mode;
    qos_rule.time_group_id = id;
    ASSERT_EQ(AddQosItem(qos, &qos_rule), SC_LIST_OK);
    listener->codes();
  }

  TimeGroupBlock* block = nullptr;
  FwIpportBlock* ip = nullptr;
  FwMacBlock* mac = nullptr;
  FwUrlBlock* url = nullptr;
  QosBlock* qos = nullptr;
  std::optional<Listener> listener;
};

TEST_F(TimeGroups, AWeekdayWordOf256_IsStoredAsZeroAndReadBackAsZero) {
  TimeGroupItem item = {};
  item.weekday[0] = 256;
  ASSERT_EQ(add(item), SC_LIST_OK);
  EXPECT_EQ(block->groups[0].weekday[0], 0);
  EXPECT_EQ(get(1).weekday[0], 0);
}

TEST_F(TimeGroups, AWeekdayWordOf255_IsStoredAs0xFFAndReadBackAsMinusOne) {
  TimeGroupItem item = {};
  item.weekday[6] = 255;
  ASSERT_EQ(add(item), SC_LIST_OK);
  EXPECT_EQ(block->groups[0].weekday[6], -1);
  EXPECT_EQ(get(1).weekday[6], -1);
}

TEST_F(TimeGroups, AStartTimeOfTenCharacters_HasNoTerminatorAndTheNextFieldFollows) {
  TimeGroupItem item = {};
  memcpy(item.start_time, "0123456789", 10);
  memcpy(item.end_time, "ABCDEFGHIJ", 10);
  ASSERT_EQ(add(item), SC_LIST_OK);
  EXPECT_EQ(memcmp(reinterpret_cast<uint8_t*>(block) + 140 + 215, "0123456789ABCDEFGHIJ", 20), 0);
  item.slot_id = 1;
  const TimeGroupItem read = get(1);
  EXPECT_TRUE(Image(&item, sizeof item).matches(&read));
}

TEST_F(TimeGroups, AnItem_BecomesTheRunOfBytes8To434AndNothingElse) {
  fill(block->groups, sizeof block->groups, 1);
  golden_area("TimeGroup").number_locks(block);
  block->groups[0].slot_id = -1;
  TimeGroupItem item;
  fill(&item, sizeof item, 4);
  Image expected(block, sizeof *block);
  ASSERT_EQ(add(item), SC_LIST_OK);
  expected.put32(136, 1).put32(144, 1).copy(148, item.leading_text, 200);
  for (int day = 0; day < 7; ++day) expected.put8(140 + 208 + day, item.weekday[day]);
  expected.copy(140 + 215, item.start_time, 10).copy(140 + 225, item.end_time, 10);
  expected.copy(140 + 235, item.trailing_text, 200);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(TimeGroups, AFullTable_RejectsAnAdd) {
  add_many(16);
  const Image before(block, sizeof *block);
  EXPECT_EQ(add({}), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
}

TEST_F(TimeGroups, DelWithTwoAndFive_CascadesForTwoRemovesItThenForFiveAndNotifiesOnce) {
  add_many(5);
  refer_to(2);
  refer_to(5);
  del("2#5");
  for (int rule : {0, 1}) {
    EXPECT_EQ(ip->rules[rule].slot_id, -1);
    EXPECT_EQ(mac->rules[rule].slot_id, -1);
    EXPECT_EQ(url->rules[rule].slot_id, -1);
    EXPECT_EQ(qos->rules[rule].slot_id, -1);
  }
  EXPECT_EQ(block->groups[1].slot_id, -1);
  EXPECT_EQ(block->groups[4].slot_id, -1);
  EXPECT_EQ(block->group_count, 3u);
  EXPECT_EQ(ip->rule_count, 0);
  EXPECT_EQ(mac->rule_count, 0);
  EXPECT_EQ(url->rule_count, 0);
  EXPECT_EQ(qos->rule_count, 0);
  /* IP, URL, MAC, QoS for each id, though the arguments stand as IP, MAC, URL, QoS. */
  EXPECT_EQ(listener->codes(), (Codes{6, 8, 7, 9, 6, 8, 7, 9, 11}));
}

TEST_F(TimeGroups, DelOfAGroup_DeletesIpUrlMacAndQosRulesThenTheGroup) {
  add_many(1);
  refer_to(1);
  Journal journal;
  del("1");
  std::vector<std::string> opened;
  for (const std::string& line : journal.lines()) {
    const size_t at = line.find("open /");
    if (at != std::string::npos) opened.push_back(line.substr(at + 5));
  }
  EXPECT_EQ(opened,
            (std::vector<std::string>{lock_file("FwIpport"), lock_file("FwUrl"), lock_file("FwMac"),
                                      lock_file("Qos"), lock_file("TimeGroup")}));
}

TEST_F(TimeGroups, DelOfAFreeId_StillRunsTheCascadeAndLowersTheCount) {
  refer_to(9);
  del("9");
  EXPECT_EQ(ip->rules[0].slot_id, -1);
  EXPECT_EQ(mac->rules[0].slot_id, -1);
  EXPECT_EQ(url->rules[0].slot_id, -1);
  EXPECT_EQ(qos->rules[0].slot_id, -1);
  EXPECT_EQ(block->group_count, 0xFFFFFFFFu);
  EXPECT_EQ(listener->codes(), (Codes{6, 8, 7, 9, 11}));
}

TEST_F(TimeGroups, RulesOfModeOne_SurviveTheDeletionOfTheirGroup) {
  add_many(1);
  refer_to(1, 1);
  del("1");
  EXPECT_EQ(ip->rules[0].slot_id, 1);
  EXPECT_EQ(mac->rules[0].slot_id, 1);
  EXPECT_EQ(url->rules[0].slot_id, 1);
  EXPECT_EQ(qos->rules[0].slot_id, 1);
  EXPECT_EQ(block->groups[0].slot_id, -1);
  EXPECT_EQ(listener->codes(), (Codes{11}));
}

TEST_F(TimeGroups, DelOfANegativeId_CascadesToTheRulesThatHoldItAsSignedByte) {
  refer_to(-1);
  refer_to(0xFF);
  del("-1");
  EXPECT_EQ(ip->rules[0].slot_id, -1);
  EXPECT_EQ(qos->rules[1].slot_id, -1);
  EXPECT_EQ(listener->codes(), (Codes{6, 6, 8, 8, 7, 7, 9, 9, 11}));
  del("255"); /* no signed byte is 255 */
  EXPECT_EQ(listener->codes(), (Codes{11}));
}

TEST_F(TimeGroups, DelWithoutIds_NotifiesOnce) {
  refer_to(0);
  del("");
  EXPECT_EQ(ip->rules[0].slot_id, 1);
  EXPECT_EQ(listener->codes(), (Codes{11}));
}

TEST_F(TimeGroups, DelAll_EmptiesTheTableAndLeavesTheReferringRules) {
  add_many(16);
  refer_to(3);
  DelAllTimeGroupItem(block);
  for (const TimeGroupRecord& record : block->groups) EXPECT_EQ(record.slot_id, -1);
  EXPECT_EQ(block->group_count, 0u);
  EXPECT_EQ(ip->rules[0].slot_id, 1);
  EXPECT_EQ(mac->rules[0].slot_id, 1);
  EXPECT_EQ(url->rules[0].slot_id, 1);
  EXPECT_EQ(qos->rules[0].slot_id, 1);
  EXPECT_EQ(listener->codes(), (Codes{11}));
}

}  // namespace
