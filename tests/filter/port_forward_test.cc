/* Port forwarding: table and items. */
#include <unistd.h>

#include <optional>

#include <sysconfig/filter.h>

#include "support/image.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Codes = std::vector<int32_t>;

PortFwItem rule() {
  PortFwItem item;
  fill(&item, sizeof item, 3);
  put_text(item.ip_text, "192.168.1.2");
  return item;
}

class PortForwarding : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<VsIpportBlock>("VsIpport");
    ASSERT_NE(block, nullptr);
    listener.emplace();
  }

  int32_t add(const PortFwItem& item) { return AddPortFwItem(block, &item); }
  void add_many(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(add(rule()), SC_LIST_OK);
    listener->codes();
  }
  PortFwItem get(uint32_t id) {
    PortFwItem item;
    fill(&item, sizeof item, 9);
    GetPortFwItem(block, id, &item);
    return item;
  }
  void del(std::string ids) { DelPortFwItem(block, ids.data()); }

  VsIpportBlock* block = nullptr;
  std::optional<Listener> listener;
};

TEST_F(PortForwarding, DelItemWithOneTwice_FreesOnceAndLowersTheCountByTwo) {
  add_many(2);
  Image expected(block, sizeof *block);
  del("1#1");
  EXPECT_TRUE(expected.put16(140, 0).put32(148, 0xFFFFFFFF).matches(block));
  EXPECT_EQ(listener->codes(), (Codes{5}));
}

TEST_F(PortForwarding, TheCount_Wraps16BitsBelowZeroAndLeavesTheBytesBehindIt) {
  block->spare_142[0] = 0x77;
  del("1");
  EXPECT_EQ(block->rule_count, 0xFFFF);
  EXPECT_EQ(block->spare_142[0], 0x77);
}

TEST_F(PortForwarding, ModifyAtPosition31OfAFreeRecord_WritesItsFieldsAndLeavesItFree) {
  PortFwRecord record;
  fill(&record, sizeof record, 5);
  uint32_t position = 31;
  EXPECT_EQ(SC_Operate_System_List_ForwordIpPort(block, LIST_OP_MODIFY, &position, &record),
            SC_LIST_OK);
  EXPECT_EQ(block->rules[31].slot_id, -1);
  EXPECT_EQ(memcmp(block->rules[31].trailing_text, record.trailing_text, 200), 0);
  PortFwItemList list;
  GetPortFwItemList(block, &list);
  EXPECT_EQ(list.count, 0u);
}

TEST_F(PortForwarding, AnAddIntoAFullTable_IsRejected) {
  add_many(32);
  const Image before(block, sizeof *block);
  EXPECT_EQ(add(rule()), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
}

TEST_F(PortForwarding, NumberOneAndNumberThree_StandInAnotherOrderInItemAndRecord) {
  PortFwItem item = rule();
  item.number_1 = 8080;
  item.number_3 = 80;
  ASSERT_EQ(add(item), SC_LIST_OK);
  const Image stored(block, sizeof *block);
  EXPECT_EQ(stored.get32(144 + 228), 8080u);
  EXPECT_EQ(stored.get32(144 + 236), 80u);
  const PortFwItem read = get(1);
  const Image back(&read, sizeof read);
  EXPECT_EQ(back.get32(424), 80u);
  EXPECT_EQ(back.get32(432), 8080u);
}

TEST_F(PortForwarding, AnOption3WordOf300_IsStoredAndReadBackAs44) {
  PortFwItem item = rule();
  item.option_3 = 300;
  ASSERT_EQ(add(item), SC_LIST_OK);
  EXPECT_EQ(block->rules[0].option_3, 44);
  EXPECT_EQ(get(1).option_3, 44);
}

TEST_F(PortForwarding, AnOption3WordOf200_IsReadBackAsMinus56) {
  PortFwItem item = rule();
  item.option_3 = 200;
  ASSERT_EQ(add(item), SC_LIST_OK);
  EXPECT_EQ(get(1).option_3, -56);
}

TEST_F(PortForwarding, AnItem_FillsItsFieldsAndLeavesTheGapsBetweenThem) {
  fill(block->rules, sizeof block->rules, 1);
  golden_area("VsIpport").number_locks(block);
  block->rules[0].slot_id = -1;
  const PortFwItem item = rule();
  Image expected(block, sizeof *block);
  ASSERT_EQ(add(item), SC_LIST_OK);
  expected.put16(140, 1).put32(148, 1).copy(144 + 8, item.leading_text, 200);
  expected.put32(144 + 212, 0x0201A8C0).put8(144 + 224, item.option_1);
  expected.put32(144 + 228, item.number_1).put32(144 + 232, item.number_2);
  expected.put32(144 + 236, item.number_3).put32(144 + 240, item.number_4);
  expected.put8(144 + 244, item.option_2).put8(144 + 245, item.option_3);
  expected.copy(144 + 246, item.trailing_text, 200);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(PortForwarding, IdZero_GivesAnAllZeroItem) {
  add_many(1);
  const PortFwItem item = get(0);
  EXPECT_TRUE(Image(sizeof item).matches(&item));
}

TEST_F(PortForwarding, DelAllWithoutLockFile_FreesNothingButZeroesTheCountAndNotifies) {
  add_many(2);
  ASSERT_EQ(unlink(lock_file("VsIpport").c_str()), 0);
  Image expected(block, sizeof *block);
  EXPECT_EQ(capture([&] { DelAllPortFwItem(block); }), cannot_lock(lock_file("VsIpport")));
  EXPECT_TRUE(expected.put16(140, 0).matches(block));
  EXPECT_EQ(listener->codes(), (Codes{5}));
}

}  // namespace
