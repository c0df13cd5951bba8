/* The URL filter: where it differs from the MAC filter, and its items. */
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

UrlFilterItem rule(const std::string& url, int time_mode = 0, int time_group_id = 0) {
  UrlFilterItem item = {};
  put_text(item.url, url);
  item.time_mode = time_mode;
  item.time_group_id = time_group_id;
  put_text(item.start_time, "own start");
  return item;
}

class UrlFilter : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<FwUrlBlock>("FwUrl");
    time_groups = started<TimeGroupBlock>("TimeGroup");
    ASSERT_TRUE(block && time_groups);
    listener.emplace();
  }

  int32_t add(const UrlFilterItem& item) { return AddUrlFilterItem(block, &item); }
  UrlFilterItem get(uint32_t id) {
    UrlFilterItem item;
    fill(&item, sizeof item, 9);
    GetUrlFilterItem(block, id, &item);
    return item;
  }
  const UrlFilterItemList& listed() {
    fill(&list, sizeof list, 8);
    GetUrlFilterItemList(block, time_groups, &list);
    return list;
  }

  FwUrlBlock* block = nullptr;
  TimeGroupBlock* time_groups = nullptr;
  UrlFilterItemList list;
  std::optional<Listener> listener;
};

TEST_F(UrlFilter, TheSameUrlTwice_IsRejectedTheSecondTime) {
  EXPECT_EQ(add(rule("www.example.org/a")), SC_LIST_OK);
  EXPECT_EQ(add(rule("www.example.org/a")), SC_LIST_REJECTED);
}

TEST_F(UrlFilter, AUrlThatDiffersOnlyInCase_IsAccepted) {
  EXPECT_EQ(add(rule("www.example.org/a")), SC_LIST_OK);
  EXPECT_EQ(add(rule("www.example.org/A")), SC_LIST_OK);
}

TEST_F(UrlFilter, UrlsThatDifferOnlyInTheirLastByte_DoNotClash) {
  const std::string most(127, 'u');
  EXPECT_EQ(add(rule(most + "1")), SC_LIST_OK);
  EXPECT_EQ(add(rule(most + "2")), SC_LIST_OK);
  EXPECT_EQ(add(rule(most + "2")), SC_LIST_REJECTED);
}

TEST_F(UrlFilter, BytesBehindTheTerminator_TakePartInTheComparison) {
  UrlFilterRecord record = {}, other = {};
  put_text(record.url, "same");
  put_text(other.url, "same");
  other.url[127] = 1;
  uint32_t position = 0;
  ASSERT_EQ(SC_Operate_System_List_FireWall_Url(block, LIST_OP_ADD, &position, &record), 0);
  EXPECT_EQ(SC_Operate_System_List_FireWall_UrlCheckUrl(block, &other, 0xFFFFFFFF), 0);
  EXPECT_EQ(SC_Operate_System_List_FireWall_UrlCheckUrl(block, &record, 0xFFFFFFFF), 1);
  EXPECT_EQ(SC_Operate_System_List_FireWall_UrlCheckUrl(block, &record, 1), 0);
}

TEST_F(UrlFilter, AUrlOf128OrMoreCharacters_IsStoredAsItsFirst128Bytes) {
  std::string text(300, 'u');
  text[127] = '!';
  UrlFilterItem item = rule(text);
  memcpy(item.spare_332, text.data() + 128, 172);
  Image expected(block, sizeof *block);
  ASSERT_EQ(add(item), SC_LIST_OK);
  expected.put16(140, 1).put32(148, 1).put(144 + 208, text.substr(0, 128));
  expected.put(144 + 345, "own start");
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(UrlFilter, ModifyAtPosition32_IsRejectedDeleteThereIsOutOfRange) {
  UrlFilterRecord record = {};
  uint32_t position = 32;
  EXPECT_EQ(SC_Operate_System_List_FireWall_Url(block, LIST_OP_MODIFY, &position, &record), 1);
  EXPECT_EQ(SC_Operate_System_List_FireWall_Url(block, LIST_OP_DEL, &position, nullptr), 2);
}

TEST_F(UrlFilter, DeletionByTimeGroup_FreesRulesOfModeTwoOnlyAndCountsFreedOnesAgain) {
  ASSERT_EQ(add(rule("a", 2, 4)), SC_LIST_OK);
  ASSERT_EQ(add(rule("b", 1, 4)), SC_LIST_OK);
  ASSERT_EQ(add(rule("c", 2, 5)), SC_LIST_OK);
  listener->codes();
  Image expected(block, sizeof *block);
  DelUrlFilterItemByTimeGroupId(block, 4);
  EXPECT_TRUE(expected.put16(140, 2).put32(148, 0xFFFFFFFF).matches(block));
  DelUrlFilterItemByTimeGroupId(block, 4);
  EXPECT_TRUE(expected.put16(140, 1).matches(block));
  EXPECT_EQ(listener->codes(), (Codes{8, 8}));
}

TEST_F(UrlFilter, AListedRule_Has128UrlBytesAndZeroesUpToItsTimeMode) {
  ASSERT_EQ(add(rule(std::string(128, 'u'))), SC_LIST_OK);
  ASSERT_EQ(listed().count, 1u);
  EXPECT_EQ(text_of(list.items[0].url), std::string(128, 'u'));
  const UrlFilterItem read = get(1);
  for (const uint8_t byte : list.items[0].spare_332) ASSERT_EQ(byte, 0);
  for (const uint8_t byte : read.spare_332) ASSERT_EQ(byte, 0);
}

TEST_F(UrlFilter, Id33_GivesAnAllZeroItem) {
  const UrlFilterItem item = get(33);
  EXPECT_TRUE(Image(sizeof item).matches(&item));
}

TEST_F(UrlFilter, ARuleOfTimeModeOne_IsListedWithTheGroupsNameAndSchedule) {
  TimeGroupItem group = {};
  put_text(group.leading_text, "nights");
  group.weekday[6] = 6;
  put_text(group.start_time, "0123456789");
  put_text(group.end_time, "group end");
  ASSERT_EQ(AddTimeGroupItem(time_groups, &group), SC_LIST_OK);
  ASSERT_EQ(add(rule("a", 1, 1)), SC_LIST_OK);
  ASSERT_EQ(add(rule("b", 2, 1)), SC_LIST_OK);
  ASSERT_EQ(add(rule("c", 1, -1)), SC_LIST_OK);
  ASSERT_EQ(listed().count, 3u);
  EXPECT_EQ(text_of(list.items[0].time_group_name), "nights");
  EXPECT_EQ(text_of(list.items[0].start_time), "0123456789");
  EXPECT_EQ(text_of(list.items[0].end_time), "group end");
  EXPECT_EQ(list.items[0].weekday[6], 6);
  for (int i : {1, 2}) {
    EXPECT_EQ(text_of(list.items[i].time_group_name), "");
    EXPECT_EQ(text_of(list.items[i].start_time), "own start");
  }
  EXPECT_EQ(text_of(get(1).time_group_name), "");
}

TEST_F(UrlFilter, ModifyWithIdZeroOr33_IsRejectedAndNotifies) {
  UrlFilterItem item = rule("a");
  for (int32_t id : {0, 33}) {
    item.id = id;
    EXPECT_EQ(ModifyUrlFilterItem(block, &item), SC_LIST_REJECTED);
  }
  EXPECT_EQ(listener->codes(), (Codes{8, 8}));
}

}  // namespace
