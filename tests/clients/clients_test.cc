/* The table of clients and its items. */
#include <unistd.h>

#include <optional>

#include <sysconfig/clients.h>

#include "support/image.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Codes = std::vector<int32_t>;

/* What add and modify copy besides the MAC: offset and width. */
const size_t kFields[][2] = {{14, 2},   {16, 4},   {20, 4},   {24, 2},   {26, 1},  {27, 1},
                             {28, 1},   {29, 1},   {30, 1},   {31, 1},   {32, 1},  {34, 2},
                             {36, 1},   {40, 4},   {44, 4},   {48, 4},   {52, 20}, {82, 20},
                             {102, 20}, {122, 20}, {142, 20}, {162, 20}, {182, 35}};

/* A client whose fields follow a pattern of their own and whose MAC is its number. */
ClientsItem client(uint32_t number) {
  ClientsItem item;
  fill(&item, sizeof item, number + 10);
  item.client_mac[0] = 2;
  memset(item.client_mac + 1, 0, 3);
  item.client_mac[4] = static_cast<uint8_t>(number >> 8);
  item.client_mac[5] = static_cast<uint8_t>(number);
  return item;
}

class Clients : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<ClientsBlock>("Clients");
    ASSERT_NE(block, nullptr);
    listener.emplace();
  }

  int32_t operate(uint32_t op, uint32_t at, const ClientsItem* item) {
    position = at;
    return SC_Operate_System_List_Clients(block, op, &position, item);
  }
  int32_t add(uint32_t number) {
    const ClientsItem item = client(number);
    return operate(LIST_OP_ADD, 0xABCD, &item);
  }
  void add_many(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(add(i), SC_LIST_OK) << i;
  }
  /* Stale bytes in every record, all of them free. */
  void fill_free_records() {
    fill(block->clients, sizeof block->clients, 1);
    golden_area("Clients").number_locks(block);
    for (auto& client : block->clients) client.slot_id = -1;
  }
  static void put_fields(Image& expected, uint32_t at, const ClientsItem& item) {
    for (const auto& [offset, width] : kFields) {
      expected.copy(136 + 720 * at + offset, reinterpret_cast<const uint8_t*>(&item) + offset,
                    width);
    }
  }

  ClientsBlock* block = nullptr;
  uint32_t position = 0;
  std::optional<Listener> listener;
};

TEST_F(Clients, AMacThatIsUsed_IsRejectedAndNothingChanges) {
  add_many(2);
  const Image before(block, sizeof *block);
  EXPECT_EQ(add(1), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
}

TEST_F(Clients, MacsThatDifferInOneBit_DoNotClash) {
  for (int byte = 0; byte < 6; ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      ClientsItem item = client(0);
      memset(item.client_mac, 0x60, 6);
      item.client_mac[byte] ^= static_cast<uint8_t>(1 << bit);
      EXPECT_EQ(operate(LIST_OP_ADD, 0, &item), SC_LIST_OK);
    }
  }
}

TEST_F(Clients, AFullTable_RejectsANewClient) {
  add_many(300);
  const Image before(block, sizeof *block);
  EXPECT_EQ(add(300), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
}

TEST_F(Clients, DeletingPosition299_WorksAnd300IsOutOfRange) {
  add_many(300);
  EXPECT_EQ(operate(LIST_OP_DEL, 299, nullptr), SC_LIST_OK);
  EXPECT_EQ(block->clients[299].slot_id, -1);
  EXPECT_EQ(operate(LIST_OP_DEL, 300, nullptr), SC_LIST_DEL_RANGE);
}

TEST_F(Clients, ModifyingPosition300WithAUsedMac_ReturnsRejectedNotRange) {
  add_many(2);
  const ClientsItem used = client(1), unused = client(2);
  EXPECT_EQ(operate(LIST_OP_MODIFY, 300, &used), SC_LIST_REJECTED);
  EXPECT_EQ(operate(LIST_OP_MODIFY, 300, &unused), SC_LIST_MOD_RANGE);
}

TEST_F(Clients, Modify_KeepsTheMacWhateverTheItemCarries) {
  add_many(2);
  Image expected(block, sizeof *block);
  const ClientsItem item = client(7);
  EXPECT_EQ(operate(LIST_OP_MODIFY, 1, &item), SC_LIST_OK);
  put_fields(expected, 1, item);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(Clients, Add_WritesSlotMacAndFieldsAndKeepsTheBytesBetween) {
  fill_free_records();
  Image expected(block, sizeof *block);
  const ClientsItem item = client(7);
  EXPECT_EQ(operate(LIST_OP_ADD, 9, &item), SC_LIST_OK);
  EXPECT_EQ(position, 0u);
  expected.put32(140, 1).copy(144, item.client_mac, 6);
  put_fields(expected, 0, item);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(Clients, Delete_ClearsSlotAndMacAndKeepsEverythingElse) {
  add_many(3);
  Image expected(block, sizeof *block);
  EXPECT_EQ(operate(LIST_OP_DEL, 1, nullptr), SC_LIST_OK);
  expected.put32(140 + 720, 0xFFFFFFFF).zero(144 + 720, 6);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(Clients, DeleteAll_ClearsEverySlotAndMacAndKeepsEverythingElse) {
  add_many(300);
  Image expected(block, sizeof *block);
  EXPECT_EQ(operate(LIST_OP_DEL_ALL, 0xFFFFFFFF, nullptr), SC_LIST_OK);
  for (size_t i = 0; i < 300; ++i) expected.put32(140 + 720 * i, 0xFFFFFFFF).zero(144 + 720 * i, 6);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(Clients, DelItemWithThreeAndOne_FreesPositionsTwoAndZeroAndNotifiesOnce) {
  add_many(4);
  Image expected(block, sizeof *block);
  char ids[] = "3#1#";
  DelClientsItem(block, ids);
  for (size_t i : {2, 0}) expected.put32(140 + 720 * i, 0xFFFFFFFF).zero(144 + 720 * i, 6);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{18}));
}

TEST_F(Clients, DelItemWithTextThatIsNoNumber_ChangesNothingAndNotifiesOnce) {
  add_many(2);
  const Image before(block, sizeof *block);
  char ids[] = "abc#0#-1#301";
  DelClientsItem(block, ids);
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{18}));
}

TEST_F(Clients, DelAllItem_FreesEveryClientAndNotifiesOnce) {
  add_many(2);
  DelAllClientsItem(block);
  for (const ClientRecord& record : block->clients) EXPECT_EQ(record.slot_id, -1);
  EXPECT_EQ(listener->codes(), (Codes{18}));
}

TEST_F(Clients, OperationFour_IsNone) {
  add_many(1);
  const Image before(block, sizeof *block);
  EXPECT_EQ(operate(4, 0, nullptr), SC_LIST_BAD_OP);
  EXPECT_TRUE(before.matches(block));
}

TEST_F(Clients, TheCheck_SkipsFreeRecordsAndTheGivenSlot) {
  add_many(2);
  const ClientsItem item = client(1);
  EXPECT_EQ(SC_Operate_System_List_ClientsCheckMac(block, &item, 0xFFFFFFFF), 1);
  EXPECT_EQ(SC_Operate_System_List_ClientsCheckMac(block, &item, 1), 1);
  EXPECT_EQ(SC_Operate_System_List_ClientsCheckMac(block, &item, 2), 0);
  block->clients[1].slot_id = -1;
  EXPECT_EQ(SC_Operate_System_List_ClientsCheckMac(block, &item, 0xFFFFFFFF), 0);
}

/* ---- items ---- */

TEST_F(Clients, AddItem_CopiesMacAndFieldsButNoByteBetweenThem) {
  fill_free_records();
  Image expected(block, sizeof *block);
  const ClientsItem item = client(7);
  EXPECT_EQ(AddClientsItem(block, &item), SC_LIST_OK);
  expected.put32(140, 1).copy(144, item.client_mac, 6);
  put_fields(expected, 0, item);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{18}));
}

TEST_F(Clients, Bytes72To81_KeepTheirContentsAfterAddAndModify) {
  fill_free_records();
  const std::string before(reinterpret_cast<char*>(block->clients[0].spare_72), 10);
  ClientsItem item = client(7);
  ASSERT_EQ(AddClientsItem(block, &item), SC_LIST_OK);
  EXPECT_EQ(memcmp(block->clients[0].spare_72, before.data(), 10), 0);
  item.slot_id = 1;
  ASSERT_EQ(ModifyClientsItem(block, &item), SC_LIST_OK);
  EXPECT_EQ(memcmp(block->clients[0].spare_72, before.data(), 10), 0);
}

TEST_F(Clients, AddItemToAFullTable_IsRejectedAndStillNotifies) {
  add_many(300);
  const Image before(block, sizeof *block);
  const ClientsItem item = client(300);
  EXPECT_EQ(AddClientsItem(block, &item), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{18}));
}

TEST_F(Clients, ModifyItem_ChangesTheFieldsOfItsSlotIdAndNeverTheMac) {
  add_many(3);
  Image expected(block, sizeof *block);
  for (uint32_t number : {1u, 9u}) { /* its own MAC, then another */
    ClientsItem item = client(number);
    memset(item.text_182, static_cast<int>(number), sizeof item.text_182);
    item.slot_id = 2;
    EXPECT_EQ(ModifyClientsItem(block, &item), SC_LIST_OK);
    put_fields(expected, 1, item);
    EXPECT_TRUE(expected.matches(block));
  }
  EXPECT_EQ(listener->codes(), (Codes{18, 18}));
}

TEST_F(Clients, ModifyItemWithTheMacOfAnotherClient_IsDoneSinceTheItemsMacIsNotRead) {
  add_many(3);
  ClientsItem item = client(0);
  item.slot_id = 2;
  EXPECT_EQ(ModifyClientsItem(block, &item), SC_LIST_OK);
}

TEST_F(Clients, ModifyItemWithSlotIdZero_IsOutOfRange) {
  add_many(1);
  const Image before(block, sizeof *block);
  ClientsItem item = client(0);
  for (int32_t slot_id : {0, 301, -1}) {
    item.slot_id = slot_id;
    EXPECT_EQ(ModifyClientsItem(block, &item), SC_LIST_MOD_RANGE) << slot_id;
  }
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{18, 18, 18}));
}

TEST_F(Clients, ModifyItemWhileAnotherUsedRecordHasAZeroMac_IsRejected) {
  add_many(2);
  memset(block->clients[0].client_mac, 0, 6);
  ClientsItem item = client(1);
  item.slot_id = 2;
  EXPECT_EQ(ModifyClientsItem(block, &item), SC_LIST_REJECTED);
  item.slot_id = 0;
  EXPECT_EQ(ModifyClientsItem(block, &item), SC_LIST_REJECTED);
  item.slot_id = 1; /* the record with the zero MAC itself */
  EXPECT_EQ(ModifyClientsItem(block, &item), SC_LIST_OK);
}

TEST_F(Clients, ModifyItemOfAFreeRecord_WritesItsFieldsAndLeavesItFree) {
  fill_free_records();
  Image expected(block, sizeof *block);
  ClientsItem item = client(1);
  item.slot_id = 300;
  EXPECT_EQ(ModifyClientsItem(block, &item), SC_LIST_OK);
  put_fields(expected, 299, item);
  EXPECT_TRUE(expected.matches(block));
}

TEST_F(Clients, WithoutLockFile_ItemsReturnNoLockChangeNothingAndNotify) {
  add_many(1);
  ASSERT_EQ(unlink(lock_file("Clients").c_str()), 0);
  const Image before(block, sizeof *block);
  const Output message = cannot_lock(lock_file("Clients"));
  ClientsItem item = client(1);
  item.slot_id = 1;
  int32_t added = 0, modified = 0;
  EXPECT_EQ(capture([&] { added = AddClientsItem(block, &item); }), message);
  EXPECT_EQ(capture([&] { modified = ModifyClientsItem(block, &item); }), message);
  EXPECT_EQ(capture([&] { DelAllClientsItem(block); }), message);
  EXPECT_EQ(added, SC_LIST_NO_LOCK);
  EXPECT_EQ(modified, SC_LIST_NO_LOCK);
  EXPECT_TRUE(before.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{18, 18, 18}));
}

}  // namespace
