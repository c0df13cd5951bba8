/* Client groups: table operations and items. */
#include <optional>

#include <sysconfig/clients.h>

#include "support/image.h"
#include "support/listener.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Codes = std::vector<int32_t>;

ClientsGroupsItem group(const std::string& name) {
  ClientsGroupsItem item;
  fill(&item, sizeof item, 3);
  put_text(item.group_name, name);
  return item;
}

class ClientGroups : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<ClientsGroupsBlock>("Clients_Groups");
    ASSERT_NE(block, nullptr);
    listener.emplace();
  }

  int32_t add(const std::string& name) {
    const ClientsGroupsItem item = group(name);
    return AddClientsGroupsItem(block, &item);
  }
  int32_t rename(uint32_t at, const std::string& name) {
    const ClientsGroupsItem item = group(name);
    return SC_Operate_System_List_ClientsGroups(block, LIST_OP_MODIFY, &at, &item);
  }
  int32_t remove(uint32_t at) {
    return SC_Operate_System_List_ClientsGroups(block, LIST_OP_DEL, &at, nullptr);
  }
  std::string name_at(int at) const { return text_of(block->groups[at].group_name); }
  std::vector<int32_t> slots() const {
    std::vector<int32_t> all;
    for (const ClientsGroupRecord& record : block->groups) all.push_back(record.slot_id);
    return all;
  }

  ClientsGroupsBlock* block = nullptr;
  std::optional<Listener> listener;
};

TEST_F(ClientGroups, AnEleventhGroup_IsRejected) {
  for (char letter = 'a'; letter < 'k'; ++letter) ASSERT_EQ(add({letter}), SC_LIST_OK);
  const Image before(block, sizeof *block);
  EXPECT_EQ(add("k"), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
}

TEST_F(ClientGroups, ANameThatDiffersOnlyInCase_IsRejected) {
  ASSERT_EQ(add("OFFICE"), SC_LIST_OK);
  EXPECT_EQ(add("office"), SC_LIST_REJECTED);
}

TEST_F(ClientGroups, ANewSpellingOfItsOwnName_IsAccepted) {
  ASSERT_EQ(add("OFFICE"), SC_LIST_OK);
  EXPECT_EQ(rename(0, "Office"), SC_LIST_OK);
  EXPECT_EQ(name_at(0), "Office");
}

TEST_F(ClientGroups, RenamingToTheNameOfAnotherGroup_IsRejected) {
  ASSERT_EQ(add("one"), SC_LIST_OK);
  ASSERT_EQ(add("two"), SC_LIST_OK);
  EXPECT_EQ(rename(0, "TWO"), SC_LIST_REJECTED);
  EXPECT_EQ(name_at(0), "one");
}

TEST_F(ClientGroups, NamesThatDifferOnlyAfterByteTwenty_Clash) {
  const std::string twenty(20, 'n');
  ASSERT_EQ(add(twenty + "first"), SC_LIST_OK);
  EXPECT_EQ(add(twenty + "second"), SC_LIST_REJECTED);
  EXPECT_EQ(add(twenty.substr(1) + "m"), SC_LIST_OK);
}

TEST_F(ClientGroups, NamesThatDifferBehindTheirTerminator_Clash) {
  ClientsGroupsItem first = group("name"), second = group("NAME");
  first.group_name[6] = 'x';
  ASSERT_EQ(AddClientsGroupsItem(block, &first), SC_LIST_OK);
  EXPECT_EQ(AddClientsGroupsItem(block, &second), SC_LIST_REJECTED);
}

TEST_F(ClientGroups, DeletingPositionTen_IsOutOfRangeForDelete) {
  EXPECT_EQ(remove(10), SC_LIST_DEL_RANGE);
}

TEST_F(ClientGroups, ModifyingPositionTenWithAnUnusedName_IsOutOfRangeForModify) {
  EXPECT_EQ(rename(10, "new"), SC_LIST_MOD_RANGE);
}

TEST_F(ClientGroups, ModifyingPositionTenWithAUsedName_IsRejected) {
  ASSERT_EQ(add("used"), SC_LIST_OK);
  EXPECT_EQ(rename(10, "used"), SC_LIST_REJECTED);
}

TEST_F(ClientGroups, AfterDelete_TheFreedRecordStillHoldsItsName) {
  ASSERT_EQ(add("gone"), SC_LIST_OK);
  ASSERT_EQ(remove(0), SC_LIST_OK);
  EXPECT_EQ(block->groups[0].slot_id, -1);
  EXPECT_EQ(name_at(0), "gone");
  EXPECT_EQ(add("gone"), SC_LIST_OK);
}

TEST_F(ClientGroups, DelItemWithTwoAndFive_FreesPositionsOneAndFourAndNotifiesOnce) {
  for (char letter = 'a'; letter < 'g'; ++letter) ASSERT_EQ(add({letter}), SC_LIST_OK);
  listener->codes();
  char ids[] = "2#5";
  DelClientsGroupsItem(block, ids);
  EXPECT_EQ(slots(), (std::vector<int32_t>{1, -1, 3, 4, -1, 6, -1, -1, -1, -1}));
  EXPECT_EQ(listener->codes(), (Codes{17}));
}

TEST_F(ClientGroups, DelItemWithoutIds_NotifiesOnce) {
  char ids[] = "";
  DelClientsGroupsItem(block, ids);
  EXPECT_EQ(listener->codes(), (Codes{17}));
}

TEST_F(ClientGroups, Add_WritesSlotAndNameOnly) {
  fill(block->groups, sizeof block->groups, 1);
  block->groups[0].slot_id = -1;
  golden_area("Clients_Groups").number_locks(block);
  const ClientsGroupsItem item = group("name");
  Image expected(block, sizeof *block);
  expected.put32(140, 1).copy(144, item.group_name, 20);
  EXPECT_EQ(AddClientsGroupsItem(block, &item), SC_LIST_OK);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(listener->codes(), (Codes{17}));
}

TEST_F(ClientGroups, ModifyItem_RenamesTheGroupOfItsSlotIdAndNotifies) {
  ASSERT_EQ(add("one"), SC_LIST_OK);
  ASSERT_EQ(add("two"), SC_LIST_OK);
  listener->codes();
  ClientsGroupsItem item = group("three");
  item.slot_id = 2;
  EXPECT_EQ(ModifyClientsGroupsItem(block, &item), SC_LIST_OK);
  EXPECT_EQ(name_at(0), "one");
  EXPECT_EQ(name_at(1), "three");
  item.slot_id = 0;
  EXPECT_EQ(ModifyClientsGroupsItem(block, &item), SC_LIST_REJECTED);
  put_text(item.group_name, "four");
  EXPECT_EQ(ModifyClientsGroupsItem(block, &item), SC_LIST_MOD_RANGE);
  EXPECT_EQ(listener->codes(), (Codes{17, 17, 17}));
}

TEST_F(ClientGroups, DelAllItem_FreesAllKeepsTheNamesAndNotifiesOnce) {
  for (char letter = 'a'; letter < 'k'; ++letter) ASSERT_EQ(add({letter}), SC_LIST_OK);
  listener->codes();
  DelAllClientsGroupsItem(block);
  EXPECT_EQ(slots(), std::vector<int32_t>(10, -1));
  EXPECT_EQ(name_at(9), "j");
  EXPECT_EQ(listener->codes(), (Codes{17}));
}

TEST_F(ClientGroups, DeletingAGroup_LeavesTheClientsAsTheyAre) {
  auto* clients = started<ClientsBlock>("Clients");
  ClientsItem client = {};
  client.client_mac[0] = 1;
  client.field_24 = 1;
  ASSERT_EQ(AddClientsItem(clients, &client), SC_LIST_OK);
  ASSERT_EQ(add("one"), SC_LIST_OK);
  const Image before(clients, sizeof *clients);
  DelAllClientsGroupsItem(block);
  EXPECT_TRUE(before.matches(clients));
}

}  // namespace
