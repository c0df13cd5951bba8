/* The IP filter: its four deleting functions, and its listing with the groups resolved. */
#include <unistd.h>

#include <optional>

#include <sysconfig/filter.h>

#include "support/image.h"
#include "support/journal.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Codes = std::vector<int32_t>;

IpFilterItem by_ip_group(int id, int mode = 1) {
  IpFilterItem item = {};
  item.ip_mode = mode;
  item.ip_group_id = id;
  put_text(item.start_ip_text, "0.0.0.0");
  put_text(item.end_ip_text, "0.0.0.0");
  return item;
}

/* With a schedule of its own. */
IpFilterItem by_time_group(int id, int mode) {
  IpFilterItem item = by_ip_group(0, 0);
  item.time_mode = mode;
  item.time_group_id = id;
  for (int day = 0; day < 7; ++day) item.weekday[day] = day + 1;
  put_text(item.start_time, "own start");
  put_text(item.end_time, "own end");
  return item;
}

class IpFilter : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<FwIpportBlock>("FwIpport");
    ip_groups = started<IpGroupBlock>("IpGroup");
    time_groups = started<TimeGroupBlock>("TimeGroup");
    ASSERT_TRUE(block && ip_groups && time_groups);
    listener.emplace();
  }

  int32_t add(const IpFilterItem& item) { return AddIpFilterItem(block, &item); }
  void add_many(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(add(by_ip_group(0, 0)), SC_LIST_OK);
    listener->codes();
  }
  void del(std::string ids) { DelIpFilterItem(block, ids.data()); }
  IpFilterItem get(uint32_t id) {
    IpFilterItem item;
    fill(&item, sizeof item, 9);
    GetIpFilterItem(block, id, &item);
    return item;
  }
  const IpFilterItemList& listed() {
    fill(&list, sizeof list, 8);
    GetIpFilterItemList(block, ip_groups, time_groups, &list);
    return list;
  }
  void add_ip_group(const std::string& name, const std::string& start, const std::string& end) {
    IpGroupItem group = {};
    put_text(group.leading_text, name);
    put_text(group.start_ip_text, start);
    put_text(group.end_ip_text, end);
    ASSERT_EQ(AddIpGroupItem(ip_groups, &group), SC_LIST_OK);
  }
  void add_time_group(const std::string& name) {
    TimeGroupItem group = {};
    put_text(group.leading_text, name);
    for (int day = 0; day < 7; ++day) group.weekday[day] = -day;
    put_text(group.start_time, "0123456789");
    put_text(group.end_time, "group end");
    ASSERT_EQ(AddTimeGroupItem(time_groups, &group), SC_LIST_OK);
  }

  FwIpportBlock* block = nullptr;
  IpGroupBlock* ip_groups = nullptr;
  TimeGroupBlock* time_groups = nullptr;
  IpFilterItemList list;
  std::optional<Listener> listener;
};

/* ---- deletion by reference ---- */

TEST_F(IpFilter, TwoRulesOfIpGroupThree_AreBothDeletedWithTwoNotificationsAndTheCountLoweredByTwo) {
  for (int id : {3, 4, 3}) ASSERT_EQ(add(by_ip_group(id)), SC_LIST_OK);
  listener->codes();
  Image expected(block, sizeof *block);
  DelIpFilterItemByIpGroupId(block, 3);
  expected.put16(140, 1).put32(148, 0xFFFFFFFF).put32(148 + 2 * 984, 0xFFFFFFFF);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{6, 6}));
}

TEST_F(IpFilter, ARuleOfIpModeZero_SurvivesTheDeletionOfItsIpGroupsRules) {
  for (int mode : {0, 2, -1}) ASSERT_EQ(add(by_ip_group(3, mode)), SC_LIST_OK);
  listener->codes();
  const Image before(block, sizeof *block);
  DelIpFilterItemByIpGroupId(block, 3);
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), Codes{});
}

TEST_F(IpFilter, AnIpGroupIdOf16Bits_IsComparedSignExtended) {
  ASSERT_EQ(add(by_ip_group(0xFFFF)), SC_LIST_OK);
  DelIpFilterItemByIpGroupId(block, 0xFFFF);
  EXPECT_EQ(block->rules[0].slot_id, 1);
  DelIpFilterItemByIpGroupId(block, -1);
  EXPECT_EQ(block->rules[0].slot_id, -1);
}

TEST_F(IpFilter, ARuleOfTimeModeOne_SurvivesTheDeletionOfItsTimeGroupsRules) {
  for (int mode : {1, 0, 3}) ASSERT_EQ(add(by_time_group(4, mode)), SC_LIST_OK);
  listener->codes();
  const Image before(block, sizeof *block);
  DelIpFilterItemByTimeGroupId(block, 4);
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), Codes{});
}

TEST_F(IpFilter, ARuleOfTimeModeTwo_IsDeletedWithItsTimeGroupsRules) {
  for (int id : {4, 5}) ASSERT_EQ(add(by_time_group(id, 2)), SC_LIST_OK);
  listener->codes();
  Image expected(block, sizeof *block);
  DelIpFilterItemByTimeGroupId(block, 4);
  EXPECT_TRUE(expected.put16(140, 1).put32(148, 0xFFFFFFFF).matches(block));
  EXPECT_EQ(listener->codes(), (Codes{6}));
}

TEST_F(IpFilter, AFreedRuleThatStillMatches_LowersTheCountOnceMore) {
  ASSERT_EQ(add(by_ip_group(3)), SC_LIST_OK);
  ASSERT_EQ(add(by_ip_group(4)), SC_LIST_OK);
  del("1");
  EXPECT_EQ(block->rule_count, 1);
  listener->codes();
  DelIpFilterItemByIpGroupId(block, 3);
  EXPECT_EQ(block->rule_count, 0);
  EXPECT_EQ(listener->codes(), (Codes{6}));
}

/* ---- delete all ---- */

TEST_F(IpFilter, DelAllWithRulesAtZeroAndOne_FreesZeroOnlyAndLeavesOneListed) {
  add_many(2);
  DelAllIpFilterItem(block);
  EXPECT_EQ(block->rules[0].slot_id, -1);
  EXPECT_EQ(block->rules[1].slot_id, 2);
  EXPECT_EQ(block->rule_count, 0);
  EXPECT_EQ(listener->codes(), (Codes{6}));
  EXPECT_EQ(listed().count, 1u);
  EXPECT_EQ(list.items[0].slot_id, 2);
}

TEST_F(IpFilter, DelAll_StoresMinusOneAtThePortForwardingTablesSlots) {
  add_many(32);
  Image expected(block, sizeof *block);
  DelAllIpFilterItem(block);
  for (size_t k = 0; k < 32; ++k) expected.put32(148 + 948 * k, 0xFFFFFFFF);
  EXPECT_TRUE(expected.put16(140, 0).matches(block));
  for (int i = 1; i < 32; ++i) EXPECT_EQ(block->rules[i].slot_id, i + 1);
}

TEST_F(IpFilter, DelAll_HitsTextsATimeAndAnAddressOfTheRules) {
  fill(block->rules, sizeof block->rules, 1);
  for (int i = 0; i < 32; ++i) block->rules[i].slot_id = i + 1;
  for (size_t k = 0; k < 32; ++k) memset(reinterpret_cast<char*>(block) + 144 + 948 * k, 0, 4);
  golden_area("FwIpport").number_locks(block);
  DelAllIpFilterItem(block);
  const std::string ones(4, '\xFF');
  const auto at = [&](int rule, size_t offset) {
    return std::string(reinterpret_cast<const char*>(&block->rules[rule]) + offset, 4);
  };
  EXPECT_EQ(at(14, 448), ones);
  EXPECT_EQ(at(15, 412), ones);
  EXPECT_EQ(at(16, 376), ones);
  EXPECT_EQ(at(17, 340), ones);
  EXPECT_EQ(at(18, 304), ones);
  EXPECT_EQ(at(19, 268), ones);
  EXPECT_EQ(at(20, 232), ones);
  EXPECT_EQ(block->rules[20].end_addr, 0xFFFFFFFFu);
  EXPECT_EQ(at(21, 196), ones);
  EXPECT_EQ(at(22, 160), ones);
  EXPECT_EQ(at(23, 124), ones);
  EXPECT_EQ(at(24, 88), ones);
  EXPECT_EQ(at(25, 52), ones);
  EXPECT_EQ(at(26, 16), ones);
}

TEST_F(IpFilter, DelAll_LocksTheBytesNamedByTheWordsAtThatGeometry) {
  add_many(32);
  for (int k = 0; k < 32; ++k) {
    const int32_t word = 1000 + k;
    if (k != 0) memcpy(reinterpret_cast<char*>(block) + 144 + 948 * k, &word, 4);
  }
  std::vector<std::string> expected{"#1 = open " + lock_file("FwIpport")};
  for (int k = 0; k < 32; ++k) {
    const std::string byte = std::to_string(k == 0 ? 2 : 1000 + k);
    expected.push_back("lock #1 " + byte);
    expected.push_back("unlock #1 " + byte);
  }
  expected.push_back("close #1");
  Journal journal;
  DelAllIpFilterItem(block);
  EXPECT_EQ(journal.lines(), joined({expected, notification(2, 6)}));
}

TEST_F(IpFilter, DelAllOverANegativeLockWord_StoresThereAllTheSame) {
  add_many(32);
  const int32_t word = -5;
  memcpy(reinterpret_cast<char*>(block) + 144 + 948, &word, 4);
  Image expected(block, sizeof *block);
  Journal journal;
  DelAllIpFilterItem(block);
  for (size_t k = 0; k < 32; ++k) expected.put32(148 + 948 * k, 0xFFFFFFFF);
  EXPECT_TRUE(expected.put16(140, 0).matches(block));
  EXPECT_EQ(journal.lines().at(3), "lock #1 -5 failed");
  EXPECT_EQ(journal.lines().at(4), "unlock #1 -5 failed");
}

TEST_F(IpFilter, DelAllWithoutLockFile_StoresNothingButZeroesTheCountAndNotifies) {
  add_many(3);
  ASSERT_EQ(unlink(lock_file("FwIpport").c_str()), 0);
  Image expected(block, sizeof *block);
  EXPECT_EQ(capture([&] { DelAllIpFilterItem(block); }), cannot_lock(lock_file("FwIpport")));
  EXPECT_TRUE(expected.put16(140, 0).matches(block));
  EXPECT_EQ(listener->codes(), (Codes{6}));
}

TEST_F(IpFilter, DelItemWith33_LowersTheCountAndChangesNoRecord) {
  add_many(2);
  Image expected(block, sizeof *block);
  del("33");
  EXPECT_TRUE(expected.put16(140, 1).matches(block));
  EXPECT_EQ(listener->codes(), (Codes{6}));
}

TEST_F(IpFilter, TheCount_Wraps16BitsBelowZeroAndLeavesTheBytesBehindIt) {
  block->spare_142[0] = 0x77;
  del("1");
  EXPECT_EQ(block->rule_count, 0xFFFF);
  EXPECT_EQ(block->spare_142[0], 0x77);
  add_many(1);
  EXPECT_EQ(block->rule_count, 0);
  EXPECT_EQ(block->spare_142[0], 0x77);
}

/* ---- items ---- */

TEST_F(IpFilter, TwoIdenticalRules_AreBothAccepted) {
  EXPECT_EQ(add(by_ip_group(2)), SC_LIST_OK);
  EXPECT_EQ(add(by_ip_group(2)), SC_LIST_OK);
  EXPECT_EQ(block->rule_count, 2);
}

TEST_F(IpFilter, ASuccessfulAdd_RaisesTheCountAndAnAddIntoAFullTableLeavesIt) {
  add_many(1);
  EXPECT_EQ(block->rule_count, 1);
  add_many(31);
  EXPECT_EQ(add(by_ip_group(1)), SC_LIST_REJECTED);
  EXPECT_EQ(block->rule_count, 32);
}

TEST_F(IpFilter, AnIpGroupIdWordOf70000_IsStoredAndReadBackAs4464) {
  ASSERT_EQ(add(by_ip_group(70000)), SC_LIST_OK);
  EXPECT_EQ(block->rules[0].ip_group_id, 4464);
  EXPECT_EQ(get(1).ip_group_id, 4464);
}

TEST_F(IpFilter, GroupNamesOfAnItem_AreIgnoredOnInput) {
  IpFilterItem item = by_ip_group(0, 0);
  put_text(item.ip_group_name, "given");
  put_text(item.time_group_name, "given");
  ASSERT_EQ(add(item), SC_LIST_OK);
  const IpFilterItem read = get(1);
  EXPECT_EQ(text_of(read.ip_group_name), "");
  EXPECT_EQ(text_of(read.time_group_name), "");
}

/* ---- listing with resolved groups ---- */

TEST_F(IpFilter, ARuleOfIpModeOne_ListsTheGroupsRangeAndNameAndReadsItsOwn) {
  add_ip_group("first", "1.1.1.1", "2.2.2.2");
  add_ip_group("second", "10.0.0.1", "10.0.0.9");
  ASSERT_EQ(add(by_ip_group(2)), SC_LIST_OK);
  ASSERT_EQ(listed().count, 1u);
  EXPECT_EQ(text_of(list.items[0].start_ip_text), "10.0.0.1");
  EXPECT_EQ(text_of(list.items[0].end_ip_text), "10.0.0.9");
  EXPECT_EQ(text_of(list.items[0].ip_group_name), "second");
  const IpFilterItem read = get(1);
  EXPECT_EQ(text_of(read.start_ip_text), "0.0.0.0");
  EXPECT_EQ(text_of(read.end_ip_text), "0.0.0.0");
  EXPECT_EQ(text_of(read.ip_group_name), "");
}

TEST_F(IpFilter, ARuleOfAnotherIpMode_ListsItsOwnRange) {
  add_ip_group("first", "10.0.0.1", "10.0.0.9");
  for (int mode : {0, 2, -1}) ASSERT_EQ(add(by_ip_group(1, mode)), SC_LIST_OK);
  ASSERT_EQ(listed().count, 3u);
  for (int i : {0, 1, 2}) {
    EXPECT_EQ(text_of(list.items[i].start_ip_text), "0.0.0.0");
    EXPECT_EQ(text_of(list.items[i].ip_group_name), "");
  }
}

TEST_F(IpFilter, ARuleOfAnIpGroupThatIsNone_ListsEmptyAddresses) {
  for (int i = 0; i < 16; ++i) add_ip_group("group", "10.0.0.1", "10.0.0.9");
  for (int id : {0, 17, -1, -32768}) ASSERT_EQ(add(by_ip_group(id)), SC_LIST_OK);
  ASSERT_EQ(listed().count, 4u);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(text_of(list.items[i].start_ip_text), "");
    EXPECT_EQ(text_of(list.items[i].end_ip_text), "");
    EXPECT_EQ(text_of(list.items[i].ip_group_name), "");
  }
}

TEST_F(IpFilter, ARuleOfAFreedIpGroup_ListsItsStaleContents) {
  add_ip_group("gone", "10.0.0.1", "10.0.0.9");
  uint32_t position = 0;
  ASSERT_EQ(SC_Operate_System_List_UserIpGroup(ip_groups, LIST_OP_DEL, &position, nullptr), 0);
  ASSERT_EQ(add(by_ip_group(1)), SC_LIST_OK);
  EXPECT_EQ(text_of(listed().items[0].ip_group_name), "gone");
  EXPECT_EQ(text_of(list.items[0].end_ip_text), "10.0.0.9");
}

TEST_F(IpFilter, AnIpGroupNameWithoutTerminator_IsListedWholeWithTheBytesBehindIt) {
  add_ip_group(std::string(200, 'n'), "10.0.0.1", "10.0.0.9");
  ASSERT_EQ(add(by_ip_group(1)), SC_LIST_OK);
  EXPECT_EQ(text_of(listed().items[0].ip_group_name), std::string(200, 'n'));
  memcpy(ip_groups->groups[0].leading_text, "short\0hidden", 12);
  EXPECT_EQ(memcmp(listed().items[0].ip_group_name, "short\0hiddenn", 13), 0);
}

TEST_F(IpFilter, ARuleOfTimeModeTwo_ListsItsOwnSchedule) {
  add_time_group("group");
  ASSERT_EQ(add(by_time_group(1, 2)), SC_LIST_OK);
  EXPECT_EQ(text_of(listed().items[0].start_time), "own start");
  EXPECT_EQ(list.items[0].weekday[6], 7);
  EXPECT_EQ(text_of(list.items[0].time_group_name), "");
}

TEST_F(IpFilter, ARuleOfTimeModeOne_ListsTheGroupsScheduleAndNameAndReadsItsOwn) {
  add_time_group("first");
  add_time_group("second");
  ASSERT_EQ(add(by_time_group(2, 1)), SC_LIST_OK);
  EXPECT_EQ(text_of(listed().items[0].time_group_name), "second");
  EXPECT_EQ(text_of(list.items[0].start_time), "0123456789");
  EXPECT_EQ(text_of(list.items[0].end_time), "group end");
  for (int day = 0; day < 7; ++day) EXPECT_EQ(list.items[0].weekday[day], -day);
  const IpFilterItem read = get(1);
  EXPECT_EQ(text_of(read.time_group_name), "");
  EXPECT_EQ(text_of(read.start_time), "own start");
}

TEST_F(IpFilter, ARuleOfTimeGroupZero_ListsNoDaysAndEmptyTimes) {
  for (int i = 0; i < 16; ++i) add_time_group("group");
  for (int id : {0, 17, 127}) ASSERT_EQ(add(by_time_group(id, 1)), SC_LIST_OK);
  ASSERT_EQ(listed().count, 3u);
  for (int i = 0; i < 3; ++i) {
    for (int day = 0; day < 7; ++day) EXPECT_EQ(list.items[i].weekday[day], 0);
    EXPECT_EQ(text_of(list.items[i].start_time), "");
    EXPECT_EQ(text_of(list.items[i].end_time), "");
    EXPECT_EQ(text_of(list.items[i].time_group_name), "");
  }
}

TEST_F(IpFilter, ARuleOfTimeGroupMinusOne_ListsItsOwnScheduleAndNoName) {
  for (int id : {-1, 0xFF, -128}) ASSERT_EQ(add(by_time_group(id, 1)), SC_LIST_OK);
  ASSERT_EQ(listed().count, 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(text_of(list.items[i].start_time), "own start");
    EXPECT_EQ(list.items[i].weekday[0], 1);
    EXPECT_EQ(text_of(list.items[i].time_group_name), "");
  }
}

TEST_F(IpFilter, ATimeGroupNameOf200BytesWithoutTerminator_IsListedAs200Bytes) {
  add_time_group(std::string(200, 'n'));
  ASSERT_EQ(add(by_time_group(1, 1)), SC_LIST_OK);
  EXPECT_EQ(text_of(listed().items[0].time_group_name), std::string(200, 'n'));
  for (const uint8_t spare : list.items[0].spare_820) ASSERT_EQ(spare, 0);
}

TEST_F(IpFilter, ATimeGroupName_IsListedUpToItsTerminator) {
  add_time_group("short");
  memcpy(time_groups->groups[0].leading_text, "short\0hidden", 12);
  ASSERT_EQ(add(by_time_group(1, 1)), SC_LIST_OK);
  EXPECT_EQ(memcmp(listed().items[0].time_group_name, "short\0\0\0\0\0\0\0", 12), 0);
}

TEST_F(IpFilter, NullGroupBlocks_ListAsGroupsThatAreNone) {
  ASSERT_EQ(add(by_ip_group(1)), SC_LIST_OK);
  ASSERT_EQ(add(by_time_group(1, 1)), SC_LIST_OK);
  GetIpFilterItemList(block, nullptr, nullptr, &list);
  EXPECT_EQ(list.count, 2u);
  EXPECT_EQ(text_of(list.items[0].start_ip_text), "");
  EXPECT_EQ(text_of(list.items[1].start_time), "");
}

TEST_F(IpFilter, TheListing_TakesNoLock) {
  ASSERT_EQ(add(by_ip_group(1)), SC_LIST_OK);
  Journal journal;
  listed();
  EXPECT_TRUE(journal.lines().empty());
}

}  // namespace
