/* Imports into live areas: what differs is written at its position, nothing else is touched, and
 * editors of one area exclude each other. */
#include <sysconfig/ap.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <signal.h>

#include "scctl/edits.h"

namespace sc_test {
namespace {

class ImportTest : public EditTest {
 protected:
  /* Six bindings and a rule with its group, as the library's callers make them. */
  void make_store() {
    for (int n = 1; n <= 6; ++n) {
      done({"add", "lan_binds", "mac=00:11:22:33:44:0" + std::to_string(n),
            "ip=10.0.0." + std::to_string(n), "name=host " + std::to_string(n)});
    }
    done({"add", "ip_groups/2", "leading_text=office"});
    done({"add", "ip_filter/2", "leading_text=rule", "ip_mode=1", "ip_group_id=2"});
  }
  static std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    if (at == std::string::npos) throw std::runtime_error(from);
    return text.replace(at, from.size(), to);
  }
  LanBlock& lan() { return *block_as<LanBlock>("Lan"); }
};

TEST_F(ImportTest, WhatIsEqual_IsNotTouchedAndItsAreasHearNothing) {
  make_store();
  const std::string file = done({"export"});
  const Image lan_before = image("Lan"), rules_before = image("FwIpport");
  Listener listener;
  EXPECT_EQ(done({"import", "-"}, file), "tables changed: 0\n");
  EXPECT_TRUE(listener.codes().empty());
  EXPECT_TRUE(lan_before.matches(block("Lan")));
  EXPECT_TRUE(rules_before.matches(block("FwIpport")));
}

TEST_F(ImportTest, OneChangedName_IsWrittenAloneAndAnnouncedOnce) {
  make_store();
  const std::string file = replaced(done({"export", "Lan"}), "host 4", "HOST 4");
  Image expected = image("Lan");
  expected.put(1508 + 3 * 748 + 48, "HOST 4");
  Listener listener;
  EXPECT_EQ(done({"import", "-"}, file),
            "lan_binds: 0 added, 1 changed, 0 deleted\ntables changed: 1\n");
  EXPECT_TRUE(expected.matches(block("Lan")));
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
}

TEST_F(ImportTest, KeysMoveBetweenRecords) {
  make_store();
  std::string file = done({"export", "Lan"});
  file = replaced(file, "44:01\", \"ip\": \"10.0.0.1\"", "44:0x\", \"ip\": \"10.0.0.6\"");
  file = replaced(file, "44:06\", \"ip\": \"10.0.0.6\"", "44:01\", \"ip\": \"10.0.0.1\"");
  file = replaced(file, "44:0x", "44:06");
  Listener listener;
  EXPECT_EQ(done({"import", "-"}, file),
            "lan_binds: 0 added, 2 changed, 0 deleted\ntables changed: 1\n");
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
  EXPECT_STREQ(lan().lan_binds[0].bind_mac, "00:11:22:33:44:06");
  EXPECT_STREQ(lan().lan_binds[5].bind_mac, "00:11:22:33:44:01");
  EXPECT_STREQ(lan().lan_binds[0].bind_name, "host 1");
}

TEST_F(ImportTest, KeysOfClientsMoveBetweenRecords) {
  done({"add", "clients", "client_mac=02:00:00:00:00:01", "text_52=one"});
  done({"add", "clients", "client_mac=02:00:00:00:00:02", "text_52=two"});
  std::string file = done({"export", "Clients"});
  file = replaced(file, "00:01\"", "00:0x\"");
  file = replaced(file, "00:02\"", "00:01\"");
  file = replaced(file, "00:0x\"", "00:02\"");
  done({"import", "-"}, file);
  EXPECT_EQ(done({"list", "clients", "--commands"}),
            "scctl add clients/1 client_mac=02:00:00:00:00:02 text_52=one\n"
            "scctl add clients/2 client_mac=02:00:00:00:00:01 text_52=two\n");
}

TEST_F(ImportTest, AddedAndDeletedRecords_AreCountedAndKeepTheirIds) {
  make_store();
  const std::string full = done({"export", "Lan"});
  done({"del", "lan_binds/2", "lan_binds/6"});
  done({"add", "lan_binds/32", "mac=00:11:22:33:44:99", "ip=10.0.0.99"});
  Listener listener;
  EXPECT_EQ(done({"import", "-"}, full),
            "lan_binds: 2 added, 0 changed, 1 deleted\ntables changed: 1\n");
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
  EXPECT_EQ(done({"export", "Lan"}), full);
  EXPECT_EQ(lan().lan_bind_count, 6u);
  EXPECT_EQ(lan().lan_binds[31].slot_id, -1);
}

TEST_F(ImportTest, SeveralAreas_AreAnnouncedOnceEach) {
  make_store();
  const std::string file = done({"export"});
  for (const char* table : {"ip_filter", "ip_groups", "lan_binds"}) done({"clear", table});
  done({"set", "wan/4", "settings=01"});
  Listener listener;
  EXPECT_EQ(done({"import", "-"}, file),
            "lan_binds: 6 added, 0 changed, 0 deleted\n"
            "wan: 0 added, 1 changed, 0 deleted\n"
            "ip_groups: 1 added, 0 changed, 0 deleted\n"
            "ip_filter: 1 added, 0 changed, 0 deleted\n"
            "tables changed: 4\n");
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{1, 2, 6, 10}));
  EXPECT_EQ(done({"export"}), file);
}

TEST_F(ImportTest, ADryRun_ChangesAndAnnouncesNothing) {
  make_store();
  const std::string file = replaced(done({"export"}), "host 4", "HOST 4");
  const Image before = image("Lan");
  Listener listener;
  LockHolder editor(lock_file("Lan"), 0); /* nor does it wait for editors */
  EXPECT_EQ(done({"import", "-", "--dry-run"}, file),
            "lan_binds/4.name: 'host 4' -> 'HOST 4'\ntables to change: 1\n");
  EXPECT_TRUE(before.matches(block("Lan")));
  EXPECT_TRUE(listener.codes().empty());
}

TEST_F(ImportTest, AnAreaThatIsNotThere_IsFoundBeforeAnythingIsWritten) {
  make_store();
  const std::string file = replaced(done({"export", "Lan", "Qos"}), "host 4", "HOST 4");
  done({"remove", "Qos"});
  const Image before = image("Lan");
  Listener listener;
  EXPECT_EQ(run(scctl({"import", "-"}), file),
            (Outcome{3, "", "scctl: area Qos does not exist; scctl init Qos creates it\n"}));
  EXPECT_TRUE(before.matches(block("Lan")));
  EXPECT_TRUE(listener.codes().empty());
}

TEST_F(ImportTest, AFailureInTheMiddle_SaysWhatWasDoneAndAnnouncesIt) {
  make_store();
  std::string file = done({"export", "Lan"});
  file = replaced(file, "host 2", "HOST 2");
  file = replaced(file, "host 5", "HOST 5");
  Image damaged = image("Lan");
  damaged.put32(1508 + 4 * 748 + 4, 77); /* the fifth record's lock word */
  memcpy(block("Lan"), damaged.data(), damaged.size());
  Image expected = damaged;
  expected.put(1508 + 748 + 48, "HOST 2");
  Listener listener;
  EXPECT_EQ(
      run(scctl({"import", "-"}), file),
      (Outcome{1, "lan_binds: 0 added, 1 changed, 0 deleted\ntables changed: 1, then one failed\n",
               "scctl: lan_binds/5: its lock word is damaged; scctl check Lan tells more\n"}));
  EXPECT_TRUE(expected.matches(block("Lan")));
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
}

TEST_F(ImportTest, ASignalInTheMiddle_SaysWhatWasDoneAndAnnouncesIt) {
  make_store();
  std::string file = done({"export", "Lan"});
  file = replaced(file, "host 2", "HOST 2");
  file = replaced(file, "host 5", "HOST 5");
  Listener listener;
  LockHolder holder(lock_file("Lan"), 6);
  Program program(scctl({"import", "-"}), file);
  ASSERT_TRUE(becomes_blocked(program.pid(), lock_file("Lan"), 6));
  kill(program.pid(), SIGTERM);
  EXPECT_EQ(
      program.wait(),
      (Outcome{-SIGTERM,
               "lan_binds: 0 added, 1 changed, 0 deleted\ntables changed: 1, then one failed\n",
               "scctl: lan_binds/5 cannot be locked: Interrupted system call\n"}));
  EXPECT_STREQ(lan().lan_binds[1].bind_name, "HOST 2");
  EXPECT_STREQ(lan().lan_binds[4].bind_name, "host 5");
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
}

TEST_F(ImportTest, TwoImportsAtOnce_LeaveWhatOneOfThemSays) {
  make_store();
  const std::string six = done({"export", "Lan"});
  std::string binds;
  for (int n = 4; n <= 32; n += 2) {
    const std::string id = std::to_string(n);
    binds += (n > 4 ? ", " : "") + ("{\"id\": " + id) + ", \"mac\": \"mac " + id +
             "\", \"ip\": \"1.1.1." + id + "\"}";
  }
  done({"import", "-"}, "{\"Lan\": {\"lan_binds\": [" + binds + "]}}");
  const std::string fifteen = done({"export", "Lan"});
  for (int round = 0; round < 20; ++round) {
    Program one(scctl({"import", "-"}), six);
    Program other(scctl({"import", "-"}), fifteen);
    EXPECT_EQ(one.wait().status, 0);
    EXPECT_EQ(other.wait().status, 0);
    const std::string left = done({"export", "Lan"});
    EXPECT_TRUE(left == six || left == fifteen) << left;
    EXPECT_EQ(lan().lan_bind_count, left == six ? 6u : 15u);
  }
}

/* Ids and links of both areas come as the file says, also in one import. */
TEST_F(ImportTest, BindingsComeAsTheFileSays) {
  done({"add", "ap_templates/2", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  done({"bind", "ap_templates/2", "aps/1"});
  const std::string file = done({"export", "ManageApList", "ApTemplateList"});
  done({"set", "ap_templates/2", "template_name=hall"});
  Listener listener;
  EXPECT_EQ(done({"import", "-"}, file),
            "ap_templates: 0 added, 1 changed, 0 deleted\ntables changed: 1\n");
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{15});
  EXPECT_EQ(done({"export", "ManageApList", "ApTemplateList"}), file);
  const auto& ap = block_as<ManageApListBlock>("ManageApList")->aps[0];
  EXPECT_EQ(ap.group_id, 2);
  EXPECT_STREQ(ap.group_info, "lobby");
  done({"clear", "ap_templates"});
  done({"clear", "aps"});
  done({"import", "-"}, file);
  EXPECT_EQ(done({"export", "ManageApList", "ApTemplateList"}), file);
}

TEST_F(ImportTest, BindingsInAFile_AreImportedInPlace) {
  done({"add", "ap_templates/2", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  done({"bind", "ap_templates/2", "aps/1"});
  const std::string file = done({"export", "ApTemplateList"});
  done({"save", "ApTemplateList"});
  const std::string archive = golden_area("ApTemplateList").archive_path;
  const std::string other = replaced(file, "lobby", "hall");
  done({"import", "-", "--archive", archive, "--in-place"}, other);
  EXPECT_EQ(done({"export", "--archive", archive}), other);
  const std::string none = "{\"ApTemplateList\": {\"ap_templates\": []}}";
  done({"import", "-", "--archive", archive, "--in-place"}, none);
  EXPECT_EQ(done({"list", "ap_templates", "--json", "--archive", archive}), "[]\n");
}

TEST_F(ImportTest, ASectionThatTheFileLeavesOut_StaysAsItIs) {
  done({"set", "wan/1", "settings=01"});
  done({"set", "wan/2", "settings=02"});
  Listener listener;
  EXPECT_EQ(done({"import", "-"}, "{\"Wan\": {\"wan\": [{\"id\": 2, \"settings\": \"03\"}]}}"),
            "wan: 0 added, 1 changed, 0 deleted\ntables changed: 1\n");
  EXPECT_EQ(done({"get", "wan/1.settings"}), "01\n");
  EXPECT_EQ(done({"get", "wan/2.settings"}), "03\n");
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{2});
}

TEST_F(ImportTest, WhatAddedRecordsStandOn_IsClearedBefore) {
  done({"add", "lan_binds/3", "mac=00:11:22:33:44:55", "name=a long name"});
  done({"del", "lan_binds/3"});
  done({"import", "-"}, "{\"Lan\": {\"lan_binds\": [{\"id\": 3, \"mac\": \"x\"}]}}");
  EXPECT_STREQ(lan().lan_binds[2].bind_name, "");
}

}  // namespace
}  // namespace sc_test
