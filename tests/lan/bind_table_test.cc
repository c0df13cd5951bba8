/* DHCP static bindings, table operations: the LAN and the AC table. What holds for every list is
 * tested in generic_rules. */
#include <arpa/inet.h>

#include <sysconfig/lan.h>

#include "support/image.h"
#include "support/journal.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Lines = std::vector<std::string>;

/* One of the two tables: its functions and its place in the block. */
struct Table {
  const char* name;
  int32_t (*operate)(LanBlock*, uint32_t, uint32_t*, const DhcpBindRecord*);
  int32_t (*blank)(LanBlock*);
  int32_t (*check)(const LanBlock*, const DhcpBindRecord*, uint32_t);
  size_t offset;
  int32_t first_lock_index;
};

std::ostream& operator<<(std::ostream& stream, const Table& table) { return stream << table.name; }

const Table kTables[] = {
    {"Lan", SC_Operate_System_List_DhcpdBind, SC_Operate_System_List_GetDhcpdBind_Blank,
     SC_Operate_System_List_DhcpdBindCheckIpMac, 1508, 2},
    {"Ac", SC_Operate_System_List_AC_DhcpdBind, SC_Operate_System_List_AC_GetDhcpdBind_Blank,
     SC_Operate_System_List_AC_DhcpdBindCheckIpMac, 25948, 34},
};

DhcpBindRecord bind(const std::string& mac, const char* ip) {
  DhcpBindRecord record;
  fill(&record, sizeof record, 5);
  put_text(record.bind_mac, mac);
  record.bind_ip = inet_addr(ip);
  return record;
}

/* The mac and address of a number, unlike those of any other. */
DhcpBindRecord numbered(int number) {
  char mac[20], ip[16];
  snprintf(mac, sizeof mac, "00:11:22:33:44:%02X", number);
  snprintf(ip, sizeof ip, "192.168.1.%d", number);
  return bind(mac, ip);
}

class BindTable : public World, public testing::WithParamInterface<Table> {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<LanBlock>("Lan");
    ASSERT_NE(block, nullptr);
  }

  int32_t add(const DhcpBindRecord& record) {
    return GetParam().operate(block, LIST_OP_ADD, &position, &record);
  }
  int32_t modify(uint32_t at, const DhcpBindRecord& record) {
    position = at;
    return GetParam().operate(block, LIST_OP_MODIFY, &position, &record);
  }
  int32_t remove(uint32_t at) {
    position = at;
    return GetParam().operate(block, LIST_OP_DEL, &position, nullptr);
  }
  void add_numbered(int count) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(add(numbered(i)), SC_LIST_OK) << i;
  }
  size_t record_at(uint32_t at) const { return GetParam().offset + 748 * at; }

  LanBlock* block = nullptr;
  uint32_t position = 0xABCD;
};

INSTANTIATE_TEST_SUITE_P(Tables, BindTable, testing::ValuesIn(kTables),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(BindTable, AMacThatDiffersOnlyInCase_IsRejectedWhateverTheAddresses) {
  ASSERT_EQ(add(bind("aa:bb:cc:dd:ee:ff", "192.168.1.2")), SC_LIST_OK);
  EXPECT_EQ(add(bind("AA:BB:cc:DD:ee:FF", "10.0.0.1")), SC_LIST_REJECTED);
}

TEST_P(BindTable, ANewMacWithABoundAddress_IsRejected) {
  ASSERT_EQ(add(bind("aa:bb:cc:dd:ee:ff", "192.168.1.2")), SC_LIST_OK);
  EXPECT_EQ(add(bind("aa:bb:cc:dd:ee:fe", "192.168.1.2")), SC_LIST_REJECTED);
}

TEST_P(BindTable, ANewMacAndANewAddress_AreAdded) {
  ASSERT_EQ(add(bind("aa:bb:cc:dd:ee:ff", "192.168.1.2")), SC_LIST_OK);
  EXPECT_EQ(add(bind("aa:bb:cc:dd:ee:fe", "192.168.1.3")), SC_LIST_OK);
  EXPECT_EQ(position, 1u);
}

TEST_P(BindTable, TwoBindingsWithEmptyMacTexts_Clash) {
  ASSERT_EQ(add(bind("", "192.168.1.2")), SC_LIST_OK);
  EXPECT_EQ(add(bind("", "192.168.1.3")), SC_LIST_REJECTED);
}

TEST_P(BindTable, TwoBindingsWithTheZeroAddress_Clash) {
  ASSERT_EQ(add(bind("aa:bb:cc:dd:ee:01", "0.0.0.0")), SC_LIST_OK);
  EXPECT_EQ(add(bind("aa:bb:cc:dd:ee:02", "0.0.0.0")), SC_LIST_REJECTED);
}

TEST_P(BindTable, MacTextsOfTheWholeWidth_AreComparedOverTwentyBytes) {
  ASSERT_EQ(add(bind("abcdefghijklmnopqrst", "10.0.0.1")), SC_LIST_OK);
  EXPECT_EQ(add(bind("abcdefghijklmnopqrsT", "10.0.0.2")), SC_LIST_REJECTED);
  EXPECT_EQ(add(bind("abcdefghijklmnopqrsu", "10.0.0.3")), SC_LIST_OK);
}

TEST_P(BindTable, MacTextsThatDifferBehindTheirTerminator_Clash) {
  DhcpBindRecord first = bind("aa:bb", "10.0.0.1"), second = bind("AA:BB", "10.0.0.2");
  first.bind_mac[6] = 'x';
  second.bind_mac[6] = 'y';
  ASSERT_EQ(add(first), SC_LIST_OK);
  EXPECT_EQ(add(second), SC_LIST_REJECTED);
}

TEST_P(BindTable, AFreedBindingsMacAndAddress_MayBeUsedAgain) {
  ASSERT_EQ(add(numbered(1)), SC_LIST_OK);
  ASSERT_EQ(remove(0), SC_LIST_OK);
  EXPECT_EQ(add(numbered(1)), SC_LIST_OK);
}

TEST_P(BindTable, ModifyWithItsOwnMacAndAddress_IsDone) {
  add_numbered(8);
  EXPECT_EQ(modify(4, numbered(4)), SC_LIST_OK);
}

TEST_P(BindTable, ModifyToTheMacOfAnotherBinding_IsRejected) {
  add_numbered(8);
  DhcpBindRecord record = numbered(7);
  record.bind_ip = inet_addr("10.0.0.1");
  EXPECT_EQ(modify(4, record), SC_LIST_REJECTED);
}

TEST_P(BindTable, ModifyToTheAddressOfAnotherBinding_IsRejected) {
  add_numbered(8);
  DhcpBindRecord record = numbered(4);
  record.bind_ip = numbered(7).bind_ip;
  EXPECT_EQ(modify(4, record), SC_LIST_REJECTED);
}

TEST_P(BindTable, ModifyAtCapacityWithAClash_ReturnsRejectedNotRange) {
  add_numbered(1);
  EXPECT_EQ(modify(32, numbered(0)), SC_LIST_REJECTED);
  EXPECT_EQ(modify(32, numbered(1)), SC_LIST_MOD_RANGE);
}

TEST_P(BindTable, TheThirtyThirdAdd_IsRejected) {
  add_numbered(32);
  const Image before(block, sizeof *block);
  EXPECT_EQ(add(numbered(32)), SC_LIST_REJECTED);
  EXPECT_TRUE(before.matches(block));
}

TEST_P(BindTable, AddAndModify_WriteFlagMacAddressAndNameAndNothingElse) {
  const DhcpBindRecord added = numbered(1);
  DhcpBindRecord modified = numbered(2);
  modified.bind_flag = -128;
  memset(modified.bind_name, 'n', sizeof modified.bind_name);
  Image expected(block, sizeof *block);
  const size_t at = record_at(0);

  ASSERT_EQ(add(added), SC_LIST_OK);
  expected.put32(at, 1).put8(at + 8, added.bind_flag).copy(at + 9, added.bind_mac, 20);
  expected.put32(at + 36, added.bind_ip).copy(at + 48, added.bind_name, 200);
  EXPECT_TRUE(expected.matches(block));

  fill(block->lan_binds, sizeof block->lan_binds, 3);
  fill(block->ac_binds, sizeof block->ac_binds, 4);
  expected = Image(block, sizeof *block);
  ASSERT_EQ(modify(0, modified), SC_LIST_OK);
  expected.put8(at + 8, modified.bind_flag).copy(at + 9, modified.bind_mac, 20);
  expected.put32(at + 36, modified.bind_ip).copy(at + 48, modified.bind_name, 200);
  EXPECT_TRUE(expected.matches(block));
}

TEST_P(BindTable, EachTable_LocksItsOwnBytesOfTheLanLockFile) {
  const std::string first = std::to_string(GetParam().first_lock_index);
  const std::string last = std::to_string(GetParam().first_lock_index + 31);
  Journal journal;
  ASSERT_EQ(remove(0), SC_LIST_OK);
  ASSERT_EQ(remove(31), SC_LIST_OK);
  EXPECT_EQ(
      journal.lines(),
      (Lines{"#1 = open " + lock_file("Lan"), "lock #1 " + first, "unlock #1 " + first, "close #1",
             "#2 = open " + lock_file("Lan"), "lock #2 " + last, "unlock #2 " + last, "close #2"}));
}

TEST_P(BindTable, TheBindingCounters_AreNotTouchedByTableOperations) {
  block->lan_bind_count = 77;
  block->ac_bind_count = 78;
  add_numbered(2);
  ASSERT_EQ(modify(1, numbered(3)), SC_LIST_OK);
  ASSERT_EQ(remove(0), SC_LIST_OK);
  ASSERT_EQ(GetParam().operate(block, LIST_OP_DEL_ALL, &position, nullptr), SC_LIST_OK);
  EXPECT_EQ(block->lan_bind_count, 77u);
  EXPECT_EQ(block->ac_bind_count, 78u);
}

TEST_P(BindTable, TheCheck_FindsMacOrAddressUnlessTheRecordIsFreeOrSkipped) {
  add_numbered(4);
  DhcpBindRecord same_mac = numbered(2), same_address = numbered(2);
  same_mac.bind_ip = inet_addr("10.0.0.1");
  put_text(same_address.bind_mac, "other");
  EXPECT_EQ(GetParam().check(block, &same_mac, 0xFFFFFFFF), 1);
  EXPECT_EQ(GetParam().check(block, &same_address, 0xFFFFFFFF), 1);
  EXPECT_EQ(GetParam().check(block, &same_mac, 2), 1);
  EXPECT_EQ(GetParam().check(block, &same_mac, 3), 0);
  EXPECT_EQ(GetParam().check(block, &same_address, 3), 0);
  ASSERT_EQ(remove(2), SC_LIST_OK);
  EXPECT_EQ(GetParam().check(block, &same_mac, 0xFFFFFFFF), 0);
}

class BothBindTables : public World {};

TEST_F(BothBindTables, AnEqualRecordInTheOtherTable_IsNoClash) {
  auto* block = started<LanBlock>("Lan");
  const DhcpBindRecord record = numbered(1);
  uint32_t position = 7;
  ASSERT_EQ(SC_Operate_System_List_DhcpdBind(block, LIST_OP_ADD, &position, &record), SC_LIST_OK);
  EXPECT_EQ(SC_Operate_System_List_AC_DhcpdBind(block, LIST_OP_ADD, &position, &record),
            SC_LIST_OK);
  EXPECT_EQ(position, 0u);
  EXPECT_EQ(block->lan_binds[0].slot_id, 1);
  EXPECT_EQ(block->ac_binds[0].slot_id, 1);
  EXPECT_EQ(SC_Operate_System_List_DhcpdBind(block, LIST_OP_DEL, &position, nullptr), SC_LIST_OK);
  EXPECT_EQ(SC_Operate_System_List_AC_DhcpdBind(block, LIST_OP_ADD, &position, &record),
            SC_LIST_REJECTED);
}

}  // namespace
