/* Single commands on live areas: the bytes that they write, the byte of the lock file that they wait
 * for, the notifications that they send, and what a refused one leaves. */
#include <sysconfig/ap.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "scctl/edits.h"

namespace sc_test {
namespace {

class EveryTableTest : public EditTest, public testing::WithParamInterface<std::string> {
 protected:
  const EditedTable& table() { return edited_table(GetParam()); }
  std::string name_of(uint32_t id) { return record_name(table(), id); }
  size_t at(uint32_t id) { return record_at(table(), id); }
  uint8_t* table_block() { return block(table().area); }
  Image now() { return image(table().area); }
  off_t lock_byte(uint32_t id) { return static_cast<off_t>(table().first_lock + id - 1); }

  /* Makes a used record in the image, as scctl add writes it. */
  void put_record(Image& expected, uint32_t id) {
    expected.put32(at(id) + table().id_at, id);
    expected.put(at(id) + table().key_at, table().key_value);
    count_in(expected, table(), 1);
  }

  /* Runs a command and waits until it is blocked at the record's byte; nothing has happened by
   * then. When the byte is let go it is done, and one notification is sent. */
  void expect_waits(const Words& arguments, uint32_t id) {
    Listener listener;
    const Image before = now();
    LockHolder holder(lock_file(table().area), lock_byte(id));
    Program program(scctl(arguments));
    ASSERT_TRUE(becomes_blocked(program.pid(), lock_file(table().area), lock_byte(id)));
    EXPECT_TRUE(before.matches(table_block()));
    EXPECT_TRUE(listener.codes().empty());
    holder.release();
    const Outcome outcome = program.wait();
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_FALSE(before.matches(table_block()));
    EXPECT_EQ(listener.codes(), one_of(table().area));
  }
};

std::vector<std::string> table_names() {
  std::vector<std::string> names;
  for (const TableEdits& table : kTableEdits) names.push_back(table.name);
  return names;
}

INSTANTIATE_TEST_SUITE_P(Tables, EveryTableTest, testing::ValuesIn(table_names()),
                         [](const auto& info) { return info.param; });

TEST_P(EveryTableTest, AddWithoutAnId_WritesTheLowestFreeRecordAndAnnouncesItOnce) {
  Listener listener;
  Image expected = now();
  put_record(expected, 1);
  EXPECT_EQ(done({"add", table().name, table().key}), "added " + name_of(1) + "\n");
  EXPECT_TRUE(expected.matches(table_block()));
  EXPECT_EQ(listener.codes(), one_of(table().area));

  done(joined({"add", name_of(3)}, other_key(table())));
  listener.codes();
  EXPECT_EQ(done(joined({"add", table().name}, third_key(table()))), "added " + name_of(2) + "\n");
  EXPECT_EQ(now().get32(at(2) + table().id_at), 2u);
  EXPECT_EQ(listener.codes(), one_of(table().area));
}

TEST_P(EveryTableTest, AddAtTheLastId_WritesThatRecordAlone) {
  Listener listener;
  Image expected = now();
  put_record(expected, table().capacity);
  done({"add", name_of(table().capacity), table().key});
  EXPECT_TRUE(expected.matches(table_block()));
  EXPECT_EQ(listener.codes(), one_of(table().area));
}

TEST_P(EveryTableTest, AddOverWhatADeletedRecordLeft_KeepsNoneOfItsFields) {
  const bool one_field = table().field_at == table().key_at;
  done(one_field ? Words{"add", name_of(2), table().field}
                 : Words{"add", name_of(2), table().key, table().field});
  done({"del", name_of(2)});
  Image expected = now();
  expected.zero(at(2) + table().field_at, table().field_value.size());
  put_record(expected, 2);
  done({"add", name_of(2), table().key});
  EXPECT_TRUE(expected.matches(table_block()));
}

TEST_P(EveryTableTest, AddAtAUsedId_IsRefusedAndLeavesAllAsItWas) {
  done({"add", name_of(2), table().key});
  Listener listener;
  const Image before = now();
  const Outcome outcome = run(scctl({"add", name_of(2), table().key}));
  EXPECT_EQ(outcome, (Outcome{1, "", "scctl: " + name_of(2) + " is used; scctl set changes it\n"}));
  EXPECT_TRUE(before.matches(table_block()));
  EXPECT_TRUE(listener.codes().empty());
}

TEST_P(EveryTableTest, Set_WritesTheNamedFieldAloneAndAnnouncesItOnce) {
  done({"add", name_of(2), table().key});
  Listener listener;
  Image expected = now();
  expected.zero(at(2) + table().field_at, table().field_at == table().key_at ? 20 : 0);
  expected.put(at(2) + table().field_at, table().field_value);
  EXPECT_EQ(done({"set", name_of(2), table().field}), "");
  EXPECT_TRUE(expected.matches(table_block()));
  EXPECT_EQ(listener.codes(), one_of(table().area));
}

TEST_P(EveryTableTest, SetOfAFreeRecord_IsRefusedAndLeavesAllAsItWas) {
  Listener listener;
  const Image before = now();
  const Outcome outcome = run(scctl({"set", name_of(2), table().field}));
  EXPECT_EQ(outcome, (Outcome{1, "",
                              "scctl: " + name_of(2) + " is free; scctl add " + name_of(2) +
                                  " creates it\n"}));
  EXPECT_TRUE(before.matches(table_block()));
  EXPECT_TRUE(listener.codes().empty());
}

TEST_P(EveryTableTest, Del_FreesTheRecordAsTheLibraryDoesAndAnnouncesItOnce) {
  done({"add", name_of(2), table().key});
  Listener listener;
  Image expected = now();
  expected.put32(at(2) + table().id_at, table().free_mark);
  if (table().free_mark == 0) { /* all of it but the lock word */
    expected.zero(at(2) + 4, table().stride - 4);
  } else if (table().name == std::string("clients")) {
    expected.zero(at(2) + table().key_at, 6);
  }
  count_in(expected, table(), -1);
  EXPECT_EQ(done({"del", name_of(2)}), "");
  EXPECT_TRUE(expected.matches(table_block()));
  EXPECT_EQ(listener.codes(), one_of(table().area));
}

TEST_P(EveryTableTest, Clear_FreesAllRecordsAndAnnouncesItOnce) {
  done({"add", name_of(1), table().key});
  done(joined({"add", name_of(table().capacity)}, other_key(table())));
  Listener listener;
  EXPECT_EQ(done({"clear", table().name}), "");
  for (uint32_t id = 1; id <= table().capacity; ++id) {
    EXPECT_EQ(now().get32(at(id) + table().id_at), table().free_mark) << id;
  }
  if (table().counter_size != 0) EXPECT_EQ(now().data()[table().counter_at], 0);
  EXPECT_EQ(listener.codes(), one_of(table().area));
}

TEST_P(EveryTableTest, ClearOfAnEmptyTable_ChangesAndAnnouncesNothing) {
  Listener listener;
  const Image before = now();
  done({"clear", table().name});
  EXPECT_TRUE(before.matches(table_block()));
  EXPECT_TRUE(listener.codes().empty());
}

TEST_P(EveryTableTest, EachWriter_WaitsForTheByteThatTheRecordNames) {
  expect_waits({"add", name_of(2), table().key}, 2);
  expect_waits({"set", name_of(2), table().field}, 2);
  expect_waits({"del", name_of(2)}, 2);
  done({"add", name_of(table().capacity), table().key});
  expect_waits({"clear", table().name}, table().capacity);
}

TEST_P(EveryTableTest, EachWriter_WaitsForOtherEditorsOfTheArea) {
  const std::string file = lock_file(table().area);
  for (const Words& arguments :
       {Words{"add", name_of(1), table().key}, Words{"set", name_of(1), table().field},
        Words{"del", name_of(1)}, Words{"clear", table().name}}) {
    const Image before = now();
    LockHolder holder(file, 0);
    Program program(scctl(arguments));
    ASSERT_TRUE(becomes_blocked(program.pid(), file, 0)) << arguments[0];
    EXPECT_TRUE(before.matches(table_block()));
    holder.release();
    EXPECT_EQ(program.wait().status, 0) << arguments[0];
  }
}

TEST_P(EveryTableTest, ADamagedLockWord_IsNotEditedUnder) {
  done({"add", name_of(2), table().key});
  Image damaged = now();
  damaged.put32(at(2) + table().lock_at, 9);
  damaged.put32(at(3) + table().lock_at, 0);
  memcpy(table_block(), damaged.data(), damaged.size());
  Listener listener;
  const auto refusal = [&](uint32_t id) {
    return "scctl: " + name_of(id) + ": its lock word is damaged; scctl check " + table().area +
           " tells more\n";
  };
  EXPECT_EQ(run(scctl({"set", name_of(2), table().field})), (Outcome{1, "", refusal(2)}));
  EXPECT_EQ(run(scctl({"del", name_of(2)})), (Outcome{1, "", refusal(2)}));
  EXPECT_EQ(run(scctl({"clear", table().name})), (Outcome{1, "", refusal(2)}));
  EXPECT_EQ(run(scctl(joined({"add", name_of(3)}, other_key(table())))),
            (Outcome{1, "", refusal(3)}));
  EXPECT_TRUE(damaged.matches(table_block()));
  EXPECT_TRUE(listener.codes().empty());
}

/* ---- sections ---- */

struct Section {
  const char* record;
  const char* area;
  size_t at; /* of its settings */
  off_t lock_byte;
};
class EverySectionTest : public EditTest, public testing::WithParamInterface<Section> {};

INSTANTIATE_TEST_SUITE_P(
    Sections, EverySectionTest,
    testing::Values(Section{"lan_settings/1", "Lan", 136, 1}, Section{"wan/1", "Wan", 140, 2},
                    Section{"wan/4", "Wan", 3020, 5}, Section{"wan_rest/1", "Wan", 3976, 1},
                    Section{"product_info/1", "ProductInfo", 136, 1},
                    Section{"misc_1/1", "Misc", 140, 2}, Section{"misc_2/1", "Misc", 912, 3},
                    Section{"misc_3/1", "Misc", 1420, 4}, Section{"misc_4/1", "Misc", 1948, 5},
                    Section{"misc_5/1", "Misc", 2504, 6},
                    Section{"default_template/1", "DefApTemplate", 136, 1}));

TEST_P(EverySectionTest, Set_WaitsForItsByteWritesAndAnnouncesOnce) {
  const Section& section = GetParam();
  Listener listener;
  Image expected = image(section.area);
  const Image before = expected;
  expected.put(section.at, "\x01\x02");
  LockHolder holder(lock_file(section.area), section.lock_byte);
  Program program(scctl({"set", section.record, "settings=0102"}));
  ASSERT_TRUE(becomes_blocked(program.pid(), lock_file(section.area), section.lock_byte));
  EXPECT_TRUE(before.matches(block(section.area)));
  holder.release();
  EXPECT_EQ(program.wait(), (Outcome{0, "", ""}));
  EXPECT_TRUE(expected.matches(block(section.area)));
  EXPECT_EQ(listener.codes(), one_of(section.area));
}

TEST_P(EverySectionTest, AddDelAndClear_AreRefused) {
  const std::string record = GetParam().record, table = record.substr(0, record.find('/'));
  const Image before = image(GetParam().area);
  Listener listener;
  for (const Words& arguments :
       {Words{"add", record, "settings=01"}, Words{"del", record}, Words{"clear", table}}) {
    EXPECT_EQ(run(scctl(arguments)),
              (Outcome{1, "", "scctl: " + table + " always exists; scctl set changes it\n"}));
  }
  EXPECT_TRUE(before.matches(block(GetParam().area)));
  EXPECT_TRUE(listener.codes().empty());
}

/* ---- commands that reach further ---- */

TEST_F(EditTest, AClash_IsRefusedAndLeavesAllAsItWas) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:55", "ip=10.0.0.1"});
  done({"add", "lan_binds/32", "mac=00:11:22:33:44:66", "ip=10.0.0.2"});
  const Image before = image("Lan");
  Listener listener;
  for (const Words& arguments : {Words{"add", "lan_binds", "mac=00:11:22:33:44:66", "ip=10.0.0.9"},
                                 Words{"add", "lan_binds", "mac=00:11:22:33:44:99", "ip=10.0.0.2"},
                                 Words{"set", "lan_binds/1", "mac=00:11:22:33:44:66"},
                                 Words{"set", "lan_binds/1", "flag=1", "ip=10.0.0.2"}}) {
    EXPECT_EQ(run(scctl(arguments)).status, 1);
  }
  EXPECT_TRUE(before.matches(block("Lan")));
  EXPECT_TRUE(listener.codes().empty());
  done({"set", "lan_binds/1", "mac=00:11:22:33:44:55", "ip=10.0.0.1"}); /* its own keys */
}

TEST_F(EditTest, AFullTable_TakesNoMore) {
  for (int n = 1; n <= 10; ++n) done({"add", "client_groups", "group_name=" + std::to_string(n)});
  Listener listener;
  EXPECT_EQ(run(scctl({"add", "client_groups", "group_name=more"})),
            (Outcome{1, "", "scctl: client_groups is full (10 records)\n"}));
  EXPECT_TRUE(listener.codes().empty());
}

TEST_F(EditTest, DelOfSeveral_DeletesAllOrNone) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:55", "ip=10.0.0.1"});
  done({"add", "lan_binds/3", "mac=00:11:22:33:44:66", "ip=10.0.0.2"});
  done({"add", "qos/2", "leading_text=slow"});
  Listener listener;
  const Image before = image("Lan");
  EXPECT_EQ(run(scctl({"del", "lan_binds/1", "qos/2", "lan_binds/2", "lan_binds/3"})),
            (Outcome{1, "", "scctl: lan_binds/2 is free\n"}));
  EXPECT_TRUE(before.matches(block("Lan")));
  EXPECT_TRUE(listener.codes().empty());
  done({"del", "lan_binds/1", "qos/2", "lan_binds/3"});
  EXPECT_EQ(done({"list", "lan_binds", "--json"}), "[]\n");
  EXPECT_EQ(done({"list", "qos", "--json"}), "[]\n");
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{1, 9}));
}

TEST_F(EditTest, DelAndClearThatFailInTheMiddle_SayAndAnnounceWhatWasDone) {
  for (const Words& arguments :
       {Words{"del", "lan_binds/1", "lan_binds/2", "lan_binds/3"}, Words{"clear", "lan_binds"}}) {
    for (const char* n : {"1", "2", "3"}) {
      done({"add", std::string("lan_binds/") + n, std::string("mac=00:11:22:33:44:5") + n,
            std::string("ip=10.0.0.") + n});
    }
    auto& lan = *block_as<LanBlock>("Lan");
    lan.lan_binds[2].lock_index = 9;
    Listener listener;
    const Outcome outcome = run(scctl(arguments));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "records deleted: 2, then one failed\n");
    EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
    EXPECT_EQ(lan.lan_bind_count, 1u);
    EXPECT_EQ(lan.lan_binds[1].slot_id, -1);
    EXPECT_EQ(lan.lan_binds[2].slot_id, 3);
    lan.lan_binds[2].lock_index = 4;
    done({"clear", "lan_binds"});
  }
}

TEST_F(EditTest, DelOfAGroup_TakesTheRulesThatReferToItAndNoOthers) {
  done({"add", "ip_groups/2", "leading_text=office"});
  done({"add", "ip_groups/3", "leading_text=lab"});
  done({"add", "ip_filter/1", "ip_mode=1", "ip_group_id=2"});
  done({"add", "ip_filter/2", "ip_mode=0", "ip_group_id=2"});
  done({"add", "ip_filter/3", "ip_mode=1", "ip_group_id=3"});
  done({"add", "ip_filter/32", "ip_mode=1", "ip_group_id=2"});
  done({"add", "qos/32", "ip_mode=1", "ip_group_id=2"});
  Listener listener;
  done({"del", "ip_groups/2"});
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{6, 10, 9}));
  EXPECT_EQ(done({"list", "ip_filter", "--commands"}),
            "scctl add ip_filter/2 ip_group_id=2\n"
            "scctl add ip_filter/3 ip_mode=1 ip_group_id=3\n");
  EXPECT_EQ(done({"list", "qos", "--json"}), "[]\n");
  EXPECT_EQ(block_as<FwIpportBlock>("FwIpport")->rule_count, 2);
  EXPECT_EQ(block_as<QosBlock>("Qos")->rule_count, 0);
  EXPECT_EQ(done({"list", "ip_groups", "--commands"}), "scctl add ip_groups/3 leading_text=lab\n");
  /* One that nobody refers to: its own area alone hears of it. */
  done({"del", "ip_filter/3"});
  listener.codes();
  done({"del", "ip_groups/3"});
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{10});
}

TEST_F(EditTest, DelOfATimeGroup_TakesRulesOfMode2InFourAreas) {
  done({"add", "time_groups/16", "leading_text=night"});
  for (const char* table : {"ip_filter", "mac_filter", "url_filter", "qos"}) {
    const std::string name = table;
    const std::string key = name == "mac_filter"   ? "mac=00:11:22:33:44:5"
                            : name == "url_filter" ? "url=a.example/"
                                                   : "leading_text=";
    done({"add", name + "/1", key + "1", "time_mode=2", "time_group_id=16"});
    done({"add", name + "/2", key + "2", "time_mode=1", "time_group_id=16"});
  }
  Listener listener;
  done({"del", "time_groups/16"});
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{6, 11, 7, 8, 9}));
  for (const char* table : {"ip_filter", "mac_filter", "url_filter", "qos"}) {
    const std::string list = done({"list", table, "--commands"});
    EXPECT_EQ(list.find(std::string("scctl add ") + table + "/2 "), 0u) << list;
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 1) << list;
  }
}

TEST_F(EditTest, DelOfAGroupWhoseRuleCannotGo_LeavesTheGroup) {
  done({"add", "ip_groups/1", "leading_text=office"});
  done({"add", "ip_filter/1", "ip_mode=1", "ip_group_id=1"});
  block_as<FwIpportBlock>("FwIpport")->rules[0].lock_index = 9;
  const Image rules = image("FwIpport"), groups = image("IpGroup");
  Listener listener;
  EXPECT_EQ(run(scctl({"del", "ip_groups/1"})),
            (Outcome{1, "",
                     "scctl: ip_filter/1: its lock word is damaged; scctl check FwIpport tells "
                     "more\n"}));
  EXPECT_TRUE(rules.matches(block("FwIpport")));
  EXPECT_TRUE(groups.matches(block("IpGroup")));
  EXPECT_TRUE(listener.codes().empty());
}

TEST_F(EditTest, DelOfAGroupWhoseLastRuleCannotGo_SaysThatTheFirstIsGone) {
  done({"add", "ip_groups/1", "leading_text=office"});
  for (const char* n : {"1", "2"}) {
    done({"add", std::string("ip_filter/") + n, "ip_mode=1", "ip_group_id=1",
          std::string("leading_text=") + n});
  }
  block_as<FwIpportBlock>("FwIpport")->rules[1].lock_index = 9;
  Listener listener;
  EXPECT_EQ(run(scctl({"del", "ip_groups/1"})),
            (Outcome{1, "records deleted: 1, then one failed\n",
                     "scctl: ip_filter/2: its lock word is damaged; scctl check FwIpport tells "
                     "more\n"}));
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{6});
}

TEST_F(EditTest, DelOfAGroupAndOfARuleThatGoesWithIt_IsDone) {
  done({"add", "ip_groups/1", "leading_text=office"});
  done({"add", "ip_filter/1", "ip_mode=1", "ip_group_id=1"});
  done({"del", "ip_groups/1", "ip_filter/1"});
  EXPECT_EQ(block_as<FwIpportBlock>("FwIpport")->rule_count, 0);
}

TEST_F(EditTest, ADeletionWaitsForOtherEditorsOfEveryAreaThatItReachesInto) {
  done({"add", "ip_groups/1", "leading_text=office"});
  done({"add", "time_groups/1", "leading_text=night"});
  done({"add", "ap_templates/1", "template_name=lobby"});
  const struct {
    Words command;
    std::vector<std::string> areas;
  } kDeletions[] = {
      {{"del", "ip_groups/1"}, {"IpGroup", "FwIpport", "Qos"}},
      {{"del", "time_groups/1"}, {"TimeGroup", "FwIpport", "FwMac", "FwUrl", "Qos"}},
      {{"del", "ap_templates/1"}, {"ApTemplateList", "ManageApList"}},
      {{"clear", "ap_templates"}, {"ApTemplateList", "ManageApList"}},
  };
  for (const auto& deletion : kDeletions) {
    for (const std::string& area_name : deletion.areas) {
      LockHolder holder(lock_file(area_name), 0);
      Program program(scctl(deletion.command)); /* killed while it waits */
      EXPECT_TRUE(becomes_blocked(program.pid(), lock_file(area_name), 0)) << area_name;
    }
  }
}

TEST_F(EditTest, ASignalThatComesWhileARecordIsWaitedFor_EndsTheEditWithoutAWrite) {
  const Image before = image("Lan");
  LockHolder holder(lock_file("Lan"), 2);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    Program program(scctl({"add", "lan_binds", "mac=00:11:22:33:44:55"}));
    ASSERT_TRUE(becomes_blocked(program.pid(), lock_file("Lan"), 2));
    kill(program.pid(), number);
    EXPECT_EQ(
        program.wait(),
        (Outcome{-number, "", "scctl: lan_binds/1 cannot be locked: Interrupted system call\n"}));
  }
  EXPECT_TRUE(before.matches(block("Lan")));
}

TEST_F(EditTest, ASignalThatComesInABatch_EndsItAndSaysHowManyCommandsWereDone) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:55"});
  write_file(
      "/var/batch",
      "set lan_settings/1 settings=01\nset lan_binds/1 name=x\nset lan_settings/1 settings=02\n");
  LockHolder holder(lock_file("Lan"), 2);
  Program program(scctl({"batch", "/var/batch"}));
  ASSERT_TRUE(becomes_blocked(program.pid(), lock_file("Lan"), 2));
  kill(program.pid(), SIGINT);
  EXPECT_EQ(program.wait(),
            (Outcome{-SIGINT, "commands done: 1, then one failed\n",
                     "scctl: /var/batch:2: lan_binds/1 cannot be locked: Interrupted "
                     "system call\n"}));
  EXPECT_EQ(block_as<LanBlock>("Lan")->lan_settings[0], 1);
}

TEST_F(EditTest, ASignalThatComesWhileADaemonDoesNotAccept_EndsTheEdit) {
  sockaddr_un address = {AF_UNIX, "/var/config_socket"};
  const int daemon = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(daemon, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(daemon, 0), 0);
  done({"set", "lan_settings/1", "settings=01"}); /* there is room for one */
  Program program(scctl({"set", "lan_settings/1", "settings=02"}));
  const auto& settings = block_as<LanBlock>("Lan")->lan_settings;
  while (settings[0] != 2 || is_locked(lock_file("Lan"), 0)) ASSERT_FALSE(program.ended());
  poll(nullptr, 0, 50);
  EXPECT_FALSE(program.ended());
  kill(program.pid(), SIGINT);
  EXPECT_EQ(program.wait(), (Outcome{-SIGINT, "", ""}));
  close(daemon);
}

TEST_F(EditTest, AnAreaWithoutALockFile_IsNotEdited) {
  unlink(lock_file("Lan").c_str());
  const Image before = image("Lan");
  EXPECT_EQ(run(scctl({"add", "lan_binds", "mac=00:11:22:33:44:55"})),
            (Outcome{3, "",
                     "scctl: /var/lock_store/lan_conf_lock cannot be opened: No such file or "
                     "directory\n"}));
  EXPECT_TRUE(before.matches(block("Lan")));
}

TEST_F(EditTest, ADamagedHeader_IsNotEdited) {
  for (const size_t at : {size_t{2}, size_t{132}}) {
    Image damaged = image("Lan");
    const Image whole = damaged;
    damaged.put8(at, 'X');
    memcpy(block("Lan"), damaged.data(), damaged.size());
    EXPECT_EQ(run(scctl({"add", "lan_binds", "mac=00:11:22:33:44:55"})),
              (Outcome{1, "", "scctl: area Lan is damaged; scctl check Lan tells more\n"}));
    EXPECT_TRUE(damaged.matches(block("Lan")));
    memcpy(block("Lan"), whole.data(), whole.size());
  }
}

TEST_F(EditTest, ADamagedHeaderOfAnAreaThatADeletionReachesInto_StopsItBeforeAnything) {
  done({"add", "ip_groups/1", "leading_text=office"});
  done({"add", "ip_filter/1", "ip_mode=1", "ip_group_id=1"});
  for (const char* area_name : {"FwIpport", "Qos", "IpGroup"}) {
    const Image whole = image(area_name), rules = image("FwIpport"), groups = image("IpGroup");
    block(area_name)[2] = 'X';
    Listener listener;
    EXPECT_EQ(run(scctl({"del", "ip_groups/1"})),
              (Outcome{1, "",
                       std::string("scctl: area ") + area_name + " is damaged; scctl check " +
                           area_name + " tells more\n"}));
    EXPECT_TRUE(listener.codes().empty());
    memcpy(block(area_name), whole.data(), 134);
    EXPECT_TRUE(rules.matches(block("FwIpport")));
    EXPECT_TRUE(groups.matches(block("IpGroup")));
  }
}

}  // namespace
}  // namespace sc_test
