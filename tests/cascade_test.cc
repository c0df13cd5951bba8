/* Groups and the rules that refer to them, across areas: what goes with a deleted group, in which
 * order, with which notifications, and what the listings show afterwards. */
#include <string.h>
#include <unistd.h>

#include <memory>

#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

#include "support/image.h"
#include "support/listener.h"
#include "support/locks.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Codes = std::vector<int32_t>;

const std::string kQosLock = lock_file("Qos");

class Cascade : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    ip_groups = started<IpGroupBlock>("IpGroup");
    time_groups = started<TimeGroupBlock>("TimeGroup");
    ip = started<FwIpportBlock>("FwIpport");
    mac = started<FwMacBlock>("FwMac");
    url = started<FwUrlBlock>("FwUrl");
    qos = started<QosBlock>("Qos");
    ASSERT_TRUE(ip_groups && time_groups && ip && mac && url && qos);
    listener = std::make_unique<Listener>();
    for (int i = 1; i <= 4; ++i) add_groups("group " + std::to_string(i));
  }

  void add_groups(const std::string& name) {
    IpGroupItem range = {};
    put_text(range.leading_text, name);
    put_text(range.start_ip_text, "10.0.0.1");
    put_text(range.end_ip_text, "10.0.0.9");
    ASSERT_EQ(AddIpGroupItem(ip_groups, &range), SC_LIST_OK);
    TimeGroupItem schedule = {};
    put_text(schedule.leading_text, name);
    put_text(schedule.start_time, "08:00");
    ASSERT_EQ(AddTimeGroupItem(time_groups, &schedule), SC_LIST_OK);
    listener->codes();
  }
  void add_ip_filter(int ip_group, int time_group, int time_mode = 2) {
    IpFilterItem item = {};
    item.ip_mode = 1;
    item.ip_group_id = ip_group;
    item.time_mode = time_mode;
    item.time_group_id = time_group;
    ASSERT_EQ(AddIpFilterItem(ip, &item), SC_LIST_OK);
    listener->codes();
  }
  void add_qos(int ip_group, int time_group, int time_mode = 2) {
    QosItem item = {};
    item.ip_mode = 1;
    item.ip_group_id = ip_group;
    item.time_mode = time_mode;
    item.time_group_id = time_group;
    ASSERT_EQ(AddQosItem(qos, &item), SC_LIST_OK);
    listener->codes();
  }
  void add_mac_and_url_filter(int time_group, int time_mode = 2) {
    const std::string own = std::to_string(mac->rule_count);
    MacFilterItem station = {};
    put_text(station.mac, own);
    station.time_mode = time_mode;
    station.time_group_id = time_group;
    ASSERT_EQ(AddMacFilterItem(mac, &station), SC_LIST_OK);
    UrlFilterItem page = {};
    put_text(page.url, own);
    page.time_mode = time_mode;
    page.time_group_id = time_group;
    ASSERT_EQ(AddUrlFilterItem(url, &page), SC_LIST_OK);
    listener->codes();
  }
  void del_ip_groups(std::string ids) { DelIpGroupItem(ip_groups, ip, qos, ids.data()); }
  void del_time_groups(std::string ids) {
    DelTimeGroupItem(time_groups, ip, mac, url, qos, ids.data());
  }
  template <class Block>
  static Image copy_of(const Block* block) {
    return Image(block, sizeof *block);
  }

  IpGroupBlock* ip_groups = nullptr;
  TimeGroupBlock* time_groups = nullptr;
  FwIpportBlock* ip = nullptr;
  FwMacBlock* mac = nullptr;
  FwUrlBlock* url = nullptr;
  QosBlock* qos = nullptr;
  std::unique_ptr<Listener> listener;
};

TEST_F(Cascade, WhatLiesBehindATable_IsNoRuleOfAGroup) {
  add_ip_filter(1, 0);
  memcpy(ip->spare_31632, &ip->rules[0], sizeof ip->rules[0]);
  Image filters = copy_of(ip);
  del_ip_groups("1");
  EXPECT_TRUE(filters.put32(148, 0xFFFFFFFF).put16(140, 0).matches(ip));
  EXPECT_EQ(listener->codes(), (Codes{6, 10}));
}

TEST_F(Cascade, TwoIpGroups_AreDoneOneAfterTheOtherWithANotificationForEachRuleAndOneForAll) {
  for (int group : {2, 1, 1, 3}) add_ip_filter(group, 0);
  for (int group : {1, 2, 2, 2}) add_qos(group, 0);
  Image filters = copy_of(ip), shaping = copy_of(qos), groups = copy_of(ip_groups);
  del_ip_groups("1#2");
  for (size_t p : {0, 1, 2}) filters.put32(148 + 984 * p, 0xFFFFFFFF);
  for (size_t p : {0, 1, 2, 3}) shaping.put32(148 + 1008 * p, 0xFFFFFFFF);
  for (size_t p : {0, 1}) groups.put32(144 + 940 * p, 0xFFFFFFFF);
  EXPECT_TRUE(filters.put16(140, 1).matches(ip));
  EXPECT_TRUE(shaping.put16(140, 0).matches(qos));
  EXPECT_TRUE(groups.put32(136, 2).matches(ip_groups));
  EXPECT_EQ(listener->codes(), (Codes{6, 6, 9, 6, 9, 9, 9, 10}));
}

TEST_F(Cascade, ATimeGroup_TakesItsRulesInFourAreasTableAfterTable) {
  for (int group : {3, 1, 3}) {
    add_ip_filter(0, group);
    add_mac_and_url_filter(group);
    add_qos(0, group);
  }
  Image filters = copy_of(ip), stations = copy_of(mac), pages = copy_of(url),
        shaping = copy_of(qos);
  Image groups = copy_of(time_groups);
  del_time_groups("3");
  for (size_t p : {0, 2}) {
    filters.put32(148 + 984 * p, 0xFFFFFFFF);
    stations.put32(148 + 960 * p, 0xFFFFFFFF);
    pages.put32(148 + 1068 * p, 0xFFFFFFFF);
    shaping.put32(148 + 1008 * p, 0xFFFFFFFF);
  }
  EXPECT_TRUE(filters.put16(140, 1).matches(ip));
  EXPECT_TRUE(stations.put16(140, 1).matches(mac));
  EXPECT_TRUE(pages.put16(140, 1).matches(url));
  EXPECT_TRUE(shaping.put16(140, 1).matches(qos));
  EXPECT_TRUE(groups.put32(136, 3).put32(144 + 936 * 2, 0xFFFFFFFF).matches(time_groups));
  EXPECT_EQ(listener->codes(), (Codes{6, 6, 8, 8, 7, 7, 9, 9, 11}));
}

TEST_F(Cascade, ARuleThatRefersToAnIpAndATimeGroup_GoesWithTheFirstAndIsCountedAgainWithTheSecond) {
  add_ip_filter(1, 2);
  add_qos(1, 2);
  del_ip_groups("1");
  EXPECT_EQ(ip->rules[0].slot_id, -1);
  EXPECT_EQ(ip->rule_count, 0);
  del_time_groups("2");
  EXPECT_EQ(ip->rule_count, 0xFFFF);
  EXPECT_EQ(qos->rule_count, 0xFFFF);
  EXPECT_EQ(listener->codes(), (Codes{6, 9, 10, 6, 9, 11}));
}

TEST_F(Cascade, ARuleAddedOverAFreedOne_IsNoLongerMatchedByTheOldBytes) {
  add_ip_filter(1, 0);
  del_ip_groups("1");
  add_ip_filter(2, 0);
  add_groups("again");
  const Image filters = copy_of(ip);
  del_ip_groups("1");
  EXPECT_TRUE(filters.matches(ip));
}

TEST_F(Cascade, RulesListedWithATimeGroup_OutliveItAndShowItsStaleSchedule) {
  add_ip_filter(0, 2, 1);
  add_mac_and_url_filter(2, 1);
  add_qos(0, 2, 1);
  del_time_groups("2");
  EXPECT_EQ(listener->codes(), (Codes{11}));

  IpFilterItemList filters;
  GetIpFilterItemList(ip, ip_groups, time_groups, &filters);
  MacFilterItemList stations;
  GetMacFilterItemList(mac, time_groups, &stations);
  UrlFilterItemList pages;
  GetUrlFilterItemList(url, time_groups, &pages);
  QosItemList shaping;
  GetQosItemList(qos, ip_groups, time_groups, &shaping);
  EXPECT_EQ(filters.count, 1u);
  EXPECT_EQ(stations.count, 1u);
  EXPECT_EQ(pages.count, 1u);
  EXPECT_EQ(shaping.count, 1u);
  for (const std::string& name :
       {text_of(filters.items[0].time_group_name), text_of(stations.items[0].time_group_name),
        text_of(pages.items[0].time_group_name), text_of(shaping.items[0].time_group_name)}) {
    EXPECT_EQ(name, "group 2");
  }
}

TEST_F(Cascade, AGroupThatTakesADeletedOnesPlace_IsShownByTheRulesThatStillReferToIt) {
  add_mac_and_url_filter(2, 1);
  del_time_groups("2");
  add_groups("successor");
  MacFilterItemList stations;
  GetMacFilterItemList(mac, time_groups, &stations);
  EXPECT_EQ(text_of(stations.items[0].time_group_name), "successor");
}

TEST_F(Cascade, DelAllOfTheGroups_LeavesTheRulesWhichGoOnShowingThem) {
  add_ip_filter(3, 2, 1);
  const Image filters = copy_of(ip);
  DelAllIpGroupItem(ip_groups);
  DelAllTimeGroupItem(time_groups);
  EXPECT_TRUE(filters.matches(ip));
  EXPECT_EQ(listener->codes(), (Codes{10, 11}));
  IpFilterItemList list;
  GetIpFilterItemList(ip, ip_groups, time_groups, &list);
  EXPECT_EQ(text_of(list.items[0].ip_group_name), "group 3");
  EXPECT_EQ(text_of(list.items[0].end_ip_text), "10.0.0.9");
  EXPECT_EQ(text_of(list.items[0].time_group_name), "group 2");
  EXPECT_EQ(text_of(list.items[0].start_time), "08:00");
}

TEST_F(Cascade, WithoutTheLockFileOfOneArea_ItsRulesStayButAreCountedAndTheRestGoes) {
  add_ip_filter(1, 0);
  add_qos(1, 0);
  ASSERT_EQ(unlink(lock_file("FwIpport").c_str()), 0);
  EXPECT_EQ(capture([&] { del_ip_groups("1"); }), cannot_lock(lock_file("FwIpport")));
  EXPECT_EQ(ip->rules[0].slot_id, 1);
  EXPECT_EQ(ip->rule_count, 0);
  EXPECT_EQ(qos->rules[0].slot_id, -1);
  EXPECT_EQ(ip_groups->groups[0].slot_id, -1);
  EXPECT_EQ(listener->codes(), (Codes{6, 9, 10}));
}

TEST_F(Cascade, WithoutTheGroupsOwnLockFile_TheRulesGoAndTheGroupStaysButIsCounted) {
  add_ip_filter(1, 0);
  ASSERT_EQ(unlink(lock_file("IpGroup").c_str()), 0);
  EXPECT_EQ(capture([&] { del_ip_groups("1"); }), cannot_lock(lock_file("IpGroup")));
  EXPECT_EQ(ip->rules[0].slot_id, -1);
  EXPECT_EQ(ip_groups->groups[0].slot_id, 1);
  EXPECT_EQ(ip_groups->group_count, 3u);
}

TEST_F(Cascade, WhileARuleIsHeldByAnotherProcess_TheRulesBeforeItAreGoneAndTheGroupStaysForNow) {
  add_ip_filter(1, 0);
  add_qos(1, 0);
  LockHolder holder(kQosLock, 2);
  Child deleting([&] { del_ip_groups("1"); });
  ASSERT_TRUE(becomes_blocked(deleting.pid(), kQosLock, 2));
  EXPECT_EQ(ip->rules[0].slot_id, -1);
  EXPECT_EQ(qos->rules[0].slot_id, 1);
  EXPECT_EQ(ip_groups->groups[0].slot_id, 1);
  EXPECT_EQ(listener->codes(), (Codes{6}));
  holder.release();
  EXPECT_EQ(deleting.wait(), 0);
  EXPECT_EQ(qos->rules[0].slot_id, -1);
  EXPECT_EQ(ip_groups->groups[0].slot_id, -1);
  EXPECT_EQ(listener->codes(), (Codes{9, 10}));
}

TEST_F(Cascade, AFullHouse_Loses32RulesInEachAreaForOneGroup) {
  for (int i = 0; i < 32; ++i) {
    add_ip_filter(0, 4);
    add_mac_and_url_filter(4);
    add_qos(0, 4);
  }
  del_time_groups("4");
  Codes expected;
  for (int32_t code : {6, 8, 7, 9}) expected.insert(expected.end(), 32, code);
  expected.push_back(11);
  EXPECT_EQ(listener->codes(), expected);
  EXPECT_EQ(ip->rule_count + mac->rule_count + url->rule_count + qos->rule_count, 0);
}

/* A list full of ones looks as if it held rules that refer to groups. */
TEST_F(Cascade, ListingsOfANullBlock_LeaveTheListUntouchedWhateverItHolds) {
  const auto untouched = [](auto listing) {
    std::vector<int32_t> list(sizeof(QosItemList) / 4, 1);
    const std::vector<int32_t> before = list;
    listing(list.data());
    return list == before;
  };
  EXPECT_TRUE(untouched([&](void* list) {
    GetIpFilterItemList(nullptr, ip_groups, time_groups, static_cast<IpFilterItemList*>(list));
  }));
  EXPECT_TRUE(untouched([&](void* list) {
    GetMacFilterItemList(nullptr, time_groups, static_cast<MacFilterItemList*>(list));
  }));
  EXPECT_TRUE(untouched([&](void* list) {
    GetUrlFilterItemList(nullptr, time_groups, static_cast<UrlFilterItemList*>(list));
  }));
  EXPECT_TRUE(untouched([&](void* list) {
    GetQosItemList(nullptr, ip_groups, time_groups, static_cast<QosItemList*>(list));
  }));
}

}  // namespace
