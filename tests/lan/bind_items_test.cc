/* DHCP static bindings as items: conversion, counters, notifications; LAN and AC table. */
#include <arpa/inet.h>
#include <unistd.h>

#include <optional>

#include <sysconfig/lan.h>

#include "support/image.h"
#include "support/journal.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Codes = std::vector<int32_t>;

struct Layer {
  const char* name;
  void (*get_list)(const LanBlock*, DhcpStaticItemList*);
  void (*get)(const LanBlock*, uint32_t, DhcpStaticItem*);
  int32_t (*add)(LanBlock*, const DhcpStaticItem*);
  int32_t (*modify)(LanBlock*, const DhcpStaticItem*);
  void (*del)(LanBlock*, char*);
  void (*del_all)(LanBlock*);
  size_t offset, count_at;
};

std::ostream& operator<<(std::ostream& stream, const Layer& layer) { return stream << layer.name; }

const Layer kLayers[] = {
    {"Lan", GetDhcpStaticItemList, GetDhcpStaticItem, AddDhcpStaticItem, ModifyDhcpStaticItem,
     DelDhcpStaticItem, DelAllDhcpStaticItem, 1508, 1504},
    {"Ac", AC_GetDhcpStaticItemList, AC_GetDhcpStaticItem, AC_AddDhcpStaticItem,
     AC_ModifyDhcpStaticItem, AC_DelDhcpStaticItem, AC_DelAllDhcpStaticItem, 25948, 25944},
};

DhcpStaticItem item_of(int number) {
  DhcpStaticItem item = {};
  char text[20];
  snprintf(text, sizeof text, "00:11:22:33:44:%02X", number);
  put_text(item.mac, text);
  snprintf(text, sizeof text, "192.168.1.%d", number);
  put_text(item.ip, text);
  snprintf(text, sizeof text, "host %d", number);
  put_text(item.name, text);
  item.flag = number;
  return item;
}

class BindItems : public World, public testing::WithParamInterface<Layer> {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<LanBlock>("Lan");
    ASSERT_NE(block, nullptr);
    listener.emplace();
  }

  int32_t add(const DhcpStaticItem& item) { return GetParam().add(block, &item); }
  uint32_t count() const { return Image(block, sizeof *block).get32(GetParam().count_at); }
  DhcpBindRecord* records() const {
    return GetParam().offset == 1508 ? block->lan_binds : block->ac_binds;
  }
  void del(std::string ids) { GetParam().del(block, ids.data()); }
  DhcpStaticItem get(uint32_t id) {
    DhcpStaticItem item;
    fill(&item, sizeof item, 9);
    GetParam().get(block, id, &item);
    return item;
  }

  LanBlock* block = nullptr;
  std::optional<Listener> listener;
};

INSTANTIATE_TEST_SUITE_P(Tables, BindItems, testing::ValuesIn(kLayers),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(BindItems, UsedRecordsAtZeroFiveAndThirtyOne_AreListedInOrderWithTheirIds) {
  for (int i = 0; i < 32; ++i) ASSERT_EQ(add(item_of(i)), 0);
  for (uint32_t i = 0; i < 32; ++i) {
    if (i != 0 && i != 5 && i != 31) del(std::to_string(i + 1));
  }
  DhcpStaticItemList list;
  fill(&list, sizeof list, 1);
  GetParam().get_list(block, &list);

  Image expected(sizeof list);
  expected.put32(0, 3).put32(4, 32);
  size_t at = 8;
  for (int i : {0, 5, 31}) {
    DhcpStaticItem item = item_of(i);
    item.id = i + 1;
    expected.copy(at, &item, sizeof item);
    at += sizeof item;
  }
  EXPECT_TRUE(expected.matches(&list));
}

TEST_P(BindItems, RecordsOfNoise_AreListedAsTheyAreReadById) {
  fill(records(), sizeof block->lan_binds, 7);
  for (int i = 0; i < 32; ++i) records()[i].slot_id = i + 1;
  DhcpStaticItemList list;
  GetParam().get_list(block, &list);
  ASSERT_EQ(list.count, 32u);
  for (uint32_t id = 1; id <= 32; ++id) {
    const DhcpStaticItem item = get(id);
    EXPECT_EQ(memcmp(&list.items[id - 1], &item, sizeof item), 0) << id;
  }
}

TEST_P(BindItems, EachByteOfANameAlone_IsListed) {
  ASSERT_EQ(add(item_of(1)), 0);
  auto& name = records()[0].bind_name;
  for (size_t at = 0; at < sizeof name; ++at) {
    memset(name, 0, sizeof name);
    name[at] = 1;
    DhcpStaticItemList list;
    GetParam().get_list(block, &list);
    EXPECT_EQ(memcmp(list.items[0].name, name, sizeof name), 0) << at;
  }
}

TEST_P(BindItems, NeighboursOfDifferentNetworks_AreListedWithTheirOwn) {
  const std::vector<std::string> addresses = {"0.0.0.0",         "1.0.0.1",   "2.0.0.1",
                                              "3.0.0.1",         "0.0.0.255", "255.255.255.255",
                                              "255.255.255.254", "10.0.0.1",  "100.100.100.1"};
  for (size_t i = 0; i < addresses.size(); ++i) {
    DhcpStaticItem item = item_of(static_cast<int>(i));
    put_text(item.ip, addresses[i].c_str());
    ASSERT_EQ(add(item), 0);
  }
  DhcpStaticItemList list;
  GetParam().get_list(block, &list);
  for (size_t i = 0; i < addresses.size(); ++i)
    EXPECT_STREQ(list.items[i].ip, addresses[i].c_str());
}

TEST_P(BindItems, AnIdOfZeroOrThirtyThree_GivesAZeroedItem) {
  ASSERT_EQ(add(item_of(1)), 0);
  for (uint32_t id : {0u, 33u, 0xFFFFFFFFu}) {
    const DhcpStaticItem item = get(id);
    EXPECT_TRUE(Image(sizeof item).matches(&item)) << id;
  }
}

TEST_P(BindItems, AFreeRecord_IsReadWithIdMinusOneAndItsStaleContents) {
  const DhcpStaticItem added = item_of(3);
  ASSERT_EQ(add(added), 0);
  del("1");
  DhcpStaticItem expected = added;
  expected.id = -1;
  const DhcpStaticItem item = get(1);
  EXPECT_TRUE(Image(&expected, sizeof expected).matches(&item));
}

TEST_P(BindItems, ANullBlock_LeavesItemAndListUntouched) {
  DhcpStaticItem item;
  DhcpStaticItemList list;
  fill(&item, sizeof item, 1);
  fill(&list, sizeof list, 2);
  const Image item_before(&item, sizeof item), list_before(&list, sizeof list);
  GetParam().get(nullptr, 1, &item);
  GetParam().get_list(nullptr, &list);
  EXPECT_TRUE(item_before.matches(&item));
  EXPECT_TRUE(list_before.matches(&list));
}

TEST_P(BindItems, ADuplicateAdd_IsRejectedLeavesTheCounterAndStillNotifies) {
  ASSERT_EQ(add(item_of(1)), SC_LIST_OK);
  EXPECT_EQ(count(), 1u);
  EXPECT_EQ(listener->codes(), (Codes{1}));
  const Image before(block, sizeof *block);
  EXPECT_EQ(add(item_of(1)), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{1}));
}

TEST_P(BindItems, DeletingTheSameIdTwiceInOneList_LowersTheCounterByTwo) {
  for (int i = 0; i < 3; ++i) ASSERT_EQ(add(item_of(i)), 0);
  listener->codes();
  Image expected(block, sizeof *block);
  del("2#2");
  expected.put32(GetParam().count_at, 1).put32(GetParam().offset + 748, 0xFFFFFFFF);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{1}));
}

TEST_P(BindItems, AFlagOf0x1FF_IsStoredAs0xFFAndReadBackAsMinusOne) {
  DhcpStaticItem item = item_of(1);
  item.flag = 0x1FF;
  ASSERT_EQ(add(item), 0);
  EXPECT_EQ(Image(block, sizeof *block).data()[GetParam().offset + 8], 0xFF);
  EXPECT_EQ(get(1).flag, -1);
}

TEST_P(BindItems, AnItem_BecomesTheRecordWithItsReservedBytesIgnored) {
  DhcpStaticItem item;
  fill(&item, sizeof item, 4);
  put_text(item.ip, "10.20.30.40");
  Image expected(block, sizeof *block);
  const size_t at = GetParam().offset;
  expected.put32(GetParam().count_at, 1).put32(at, 1).put8(at + 8, item.flag);
  expected.copy(at + 9, item.mac, 20).put32(at + 36, 0x281E140A).copy(at + 48, item.name, 200);
  ASSERT_EQ(add(item), 0);
  EXPECT_TRUE(expected.matches(block));
}

TEST_P(BindItems, FullWidthTexts_ComeBackWholeWithoutTerminator) {
  DhcpStaticItem item = item_of(1);
  memset(item.mac, 'm', sizeof item.mac);
  memset(item.name, 'n', sizeof item.name);
  ASSERT_EQ(add(item), 0);
  item.id = 1;
  const DhcpStaticItem read = get(1);
  EXPECT_TRUE(Image(&item, sizeof item).matches(&read));
}

TEST_P(BindItems, TextThatIsNoAddress_IsStoredAsAllOnesAndReadBackAs255) {
  DhcpStaticItem item = item_of(1);
  put_text(item.ip, "abc");
  ASSERT_EQ(add(item), 0);
  EXPECT_EQ(records()[0].bind_ip, 0xFFFFFFFFu);
  EXPECT_EQ(text_of(get(1).ip), "255.255.255.255");
}

TEST_P(BindItems, AnAddressTextWithoutTerminator_IsReadWithinItsField) {
  DhcpStaticItem item = item_of(1);
  memcpy(item.ip, "0300.0250.01.012", 16);
  put_text(item.name, "7");
  ASSERT_EQ(add(item), 0);
  EXPECT_EQ(text_of(get(1).ip), "192.168.1.10");
}

TEST_P(BindItems, ModifyWithIdZero_IsOutOfRangeUnlessItClashes) {
  ASSERT_EQ(add(item_of(1)), 0);
  listener->codes();
  const Image before(block, sizeof *block);
  DhcpStaticItem item = item_of(2);
  item.id = 0;
  EXPECT_EQ(GetParam().modify(block, &item), SC_LIST_MOD_RANGE);
  item = item_of(1);
  item.id = 0;
  EXPECT_EQ(GetParam().modify(block, &item), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{1, 1}));
}

TEST_P(BindItems, Modify_RewritesTheRecordOfItsIdAndLeavesTheCounter) {
  for (int i = 0; i < 3; ++i) ASSERT_EQ(add(item_of(i)), 0);
  listener->codes();
  DhcpStaticItem item = item_of(9);
  item.id = 2;
  EXPECT_EQ(GetParam().modify(block, &item), SC_LIST_OK);
  const DhcpStaticItem read = get(2);
  EXPECT_TRUE(Image(&item, sizeof item).matches(&read));
  EXPECT_EQ(count(), 3u);
  EXPECT_EQ(listener->codes(), (Codes{1}));
}

TEST_P(BindItems, DeletingIdsThatAreFreeOutOfRangeOrNoNumbers_LowersTheCounterForEach) {
  ASSERT_EQ(add(item_of(1)), 0);
  Image expected(block, sizeof *block);
  del("5#33#abc#0#-1#99999");
  expected.put32(GetParam().count_at, 1u - 6u);
  EXPECT_TRUE(expected.matches(block));
}

TEST_P(BindItems, AListWithoutIds_NotifiesOnceAndChangesNothing) {
  ASSERT_EQ(add(item_of(1)), 0);
  listener->codes();
  const Image before(block, sizeof *block);
  del("");
  EXPECT_EQ(listener->codes(), (Codes{1}));
  del("###");
  EXPECT_EQ(listener->codes(), (Codes{1}));
  EXPECT_TRUE(before.matches(block));
}

TEST_P(BindItems, TheIdList_IsSplitInPlace) {
  std::string ids = "3##5#";
  GetParam().del(block, ids.data());
  EXPECT_EQ(ids, std::string("3\0#5\0", 5));
}

TEST_P(BindItems, DelAll_FreesEveryRecordZeroesTheCounterAndNotifiesOnce) {
  for (int i = 0; i < 32; ++i) ASSERT_EQ(add(item_of(i)), 0);
  listener->codes();
  Image expected(block, sizeof *block);
  GetParam().del_all(block);
  expected.put32(GetParam().count_at, 0);
  for (size_t i = 0; i < 32; ++i) expected.put32(GetParam().offset + 748 * i, 0xFFFFFFFF);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{1}));
}

TEST_P(BindItems, WithoutLockFile_NothingIsStoredButTheCounterRulesAndTheNotificationHold) {
  ASSERT_EQ(add(item_of(1)), 0);
  const std::string path = lock_file("Lan"), message = "Cannot Lock file " + path;
  ASSERT_EQ(unlink(path.c_str()), 0);
  listener->codes();
  Image expected(block, sizeof *block);
  int32_t added = 0, modified = 0;
  DhcpStaticItem item = item_of(2);
  item.id = 1;
  EXPECT_EQ(capture([&] { added = add(item); }), (Output{message, ""}));
  EXPECT_EQ(capture([&] { modified = GetParam().modify(block, &item); }), (Output{message, ""}));
  EXPECT_EQ(added, SC_LIST_NO_LOCK);
  EXPECT_EQ(modified, SC_LIST_NO_LOCK);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(capture([&] { del("1#2"); }), (Output{message + message, ""}));
  EXPECT_TRUE(expected.put32(GetParam().count_at, 0xFFFFFFFF).matches(block));
  EXPECT_EQ(capture([&] { GetParam().del_all(block); }), (Output{message, ""}));
  EXPECT_TRUE(expected.put32(GetParam().count_at, 0).matches(block));
  EXPECT_EQ(listener->codes(), (Codes{1, 1, 1, 1}));
}

TEST_P(BindItems, ReadingItems_TakesNoLock) {
  ASSERT_EQ(add(item_of(1)), 0);
  DhcpStaticItemList list;
  DhcpStaticItem item;
  Journal journal;
  GetParam().get_list(block, &list);
  GetParam().get(block, 1, &item);
  EXPECT_TRUE(journal.lines().empty());
  EXPECT_EQ(list.count, 1u);
}

TEST_P(BindItems, ATypicalRequest_LocksClaimsFillsNotifiesInThisOrder) {
  const DhcpStaticItem item = item_of(1);
  const std::string lock = GetParam().offset == 1508 ? "2" : "34";
  Journal journal;
  ASSERT_EQ(add(item), 0);
  EXPECT_EQ(
      journal.lines(),
      joined({{"#1 = open " + lock_file("Lan"), "#2 = open " + lock_file("Lan"), "lock #2 " + lock,
               "unlock #2 " + lock, "close #2", "lock #1 " + lock, "unlock #1 " + lock, "close #1"},
              notification(3, 1)}));
}

TEST_P(BindItems, TheCounter_StandsBeforeTheDaemonIsTold) {
  const auto* count = reinterpret_cast<const uint8_t*>(block) + GetParam().count_at;
  uint32_t told = 0xdead;
  {
    Journal journal;
    journal.before("connect #3", [&] { memcpy(&told, count, sizeof told); });
    ASSERT_EQ(add(item_of(1)), 0);
    EXPECT_EQ(told, 1u);
  }
  {
    Journal journal;
    journal.before("connect #2", [&] { memcpy(&told, count, sizeof told); });
    GetParam().del_all(block);
    EXPECT_EQ(told, 0u);
  }
}

class BothBindLayers : public World {};

TEST_F(BothBindLayers, EachLayer_KeepsItsOwnTableAndCounter) {
  auto* block = started<LanBlock>("Lan");
  Listener listener;
  const DhcpStaticItem item = item_of(1);
  ASSERT_EQ(AddDhcpStaticItem(block, &item), SC_LIST_OK);
  ASSERT_EQ(AC_AddDhcpStaticItem(block, &item), SC_LIST_OK);
  EXPECT_EQ(block->lan_bind_count, 1u);
  EXPECT_EQ(block->ac_bind_count, 1u);
  DelAllDhcpStaticItem(block);
  EXPECT_EQ(block->lan_bind_count, 0u);
  EXPECT_EQ(block->ac_bind_count, 1u);
  EXPECT_EQ(block->ac_binds[0].slot_id, 1);
  EXPECT_EQ(listener.codes(), (Codes{1, 1, 1}));
}

}  // namespace
