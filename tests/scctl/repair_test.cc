/* check and repair: every remedy that check prints is run as it is printed, and good records stay byte
 * for byte what they were, whatever stands in them. */
#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>

#include "scctl/edits.h"

namespace sc_test {
namespace {

constexpr size_t kBind = 1508, kBindSize = 748; /* of lan_binds in its area */

class RepairTest : public EditTest {
 protected:
  void SetUp() override {
    EditTest::SetUp();
    /* The remedies call scctl by its name. */
    std::string words;
    for (const std::string& word : scctl({})) words += "'" + word + "' ";
    std::filesystem::create_directory("/var/tools");
    write_file("/var/tools/scctl", "#!/bin/sh\nexec " + words + "\"$@\"\n");
    std::filesystem::permissions("/var/tools/scctl", std::filesystem::perms::owner_all);
  }

  LanBlock& lan() { return *block_as<LanBlock>("Lan"); }

  /* Seven bindings as programs store them, not as people type them. */
  void make_odd_bindings() {
    const char* macs[] = {"001122334455",         "00-11-22-33-44-0A ", "0:1:2:3:4:5",
                          "not a mac at all 20b", "\xff\xfe",           "'; rm -rf /var; '",
                          "\x1b[31mred"};
    for (int n = 0; n < 7; ++n) {
      DhcpStaticItem item = {};
      memcpy(item.mac, macs[n], strnlen(macs[n], 20));
      snprintf(item.ip, sizeof item.ip, "10.0.0.%d", n + 1);
      memset(item.name, n == 2 ? '\xe4' : 'n', n == 3 ? 200 : 20);
      capture([&] { ASSERT_EQ(AddDhcpStaticItem(&lan(), &item), SC_LIST_OK); });
    }
    lan().lan_binds[4].bind_name[30] = 'z'; /* behind the text's end */
  }

  Outcome shell(const std::string& command) {
    return run({"/bin/sh", "-c", "PATH=/var/tools:$PATH; cd /var; " + command});
  }

  std::vector<std::string> remedies(const std::string& check) {
    const Outcome outcome = shell(check);
    std::vector<std::string> found;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);) {
      const size_t at = line.find("; remedy: ");
      if (at != std::string::npos) found.push_back(line.substr(at + 10));
    }
    EXPECT_EQ(outcome.status, found.empty() ? 0 : 1) << outcome;
    return found;
  }

  /* Runs the remedies of a check one after the other, each as it is printed, until there are none:
   * as a person would who does not look at what they do. */
  void follow_remedies(const std::string& check) {
    for (int round = 0; round < 10; ++round) {
      const std::vector<std::string> all = remedies(check);
      if (all.empty()) return;
      for (const std::string& remedy : all) {
        const Outcome outcome = shell(remedy);
        EXPECT_TRUE(outcome.status == 0 || outcome.status == 1) << remedy << " " << outcome;
      }
    }
    FAIL() << "findings are left: " << shell(check);
  }

  void put(const std::string& area_name, const Image& image) {
    memcpy(block(area_name), image.data(), image.size());
  }
};

struct Damaged {
  const char* name;
  size_t at;
  uint32_t value;
};
class EveryDamageTest : public RepairTest, public testing::WithParamInterface<Damaged> {};
INSTANTIATE_TEST_SUITE_P(
    Damages, EveryDamageTest,
    testing::Values(Damaged{"LockPath", 2, 0x41414141}, Damaged{"EmptyLockPath", 2, 0},
                    Damaged{"AreaLock", 132, 2}, Damaged{"LockWord", kBind + 4, 9},
                    Damaged{"NegativeLockWord", kBind + 4, ~0u - 6},
                    Damaged{"LockWordOfAFreeRecord", kBind + 31 * kBindSize + 4, 0},
                    Damaged{"LastLockWord", 25948 + 31 * kBindSize + 4, 3},
                    Damaged{"IdWord", kBind + kBindSize, 77},
                    Damaged{"NegativeIdWord", kBind + kBindSize, ~0u - 1},
                    Damaged{"Counter", 1504, 9}, Damaged{"OtherCounter", 25944, ~0u}),
    [](const auto& info) { return info.param.name; });

TEST_P(EveryDamageTest, TheRemedyMendsItAndKeepsAllElse) {
  make_odd_bindings();
  const Image whole = image("Lan");
  Image damaged = whole;
  damaged.put32(GetParam().at, GetParam().value);
  put("Lan", damaged);
  Listener listener;
  const std::vector<std::string> found = remedies("scctl check Lan");
  ASSERT_EQ(found, std::vector<std::string>{"scctl repair Lan"});
  EXPECT_TRUE(listener.codes().empty());
  const Outcome dry = shell("scctl repair Lan --dry-run");
  EXPECT_EQ(dry.status, 0);
  EXPECT_NE(dry.out.find("; would be mended\nareas repaired: 1, mended: 1, left: 0\n"),
            std::string::npos)
      << dry;
  EXPECT_TRUE(damaged.matches(block("Lan")));
  EXPECT_TRUE(listener.codes().empty());
  const Outcome repaired = shell(found[0]);
  EXPECT_EQ(repaired.status, 0);
  EXPECT_NE(repaired.out.find("; mended\nareas repaired: 1, mended: 1, left: 0\n"),
            std::string::npos)
      << repaired;
  EXPECT_TRUE(whole.matches(block("Lan")));
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
  EXPECT_EQ(shell("scctl check Lan"), (Outcome{0, "areas checked: 1, findings: 0\n", ""}));
}

TEST_P(EveryDamageTest, TheRemedyMendsItInAFile) {
  make_odd_bindings();
  const Image whole = image("Lan");
  Image damaged = whole;
  damaged.put32(GetParam().at, GetParam().value);
  const std::string bytes(reinterpret_cast<const char*>(damaged.data()), damaged.size());
  write_file("/var/a copy.cfg", bytes);
  const Image live = image("Lan");
  follow_remedies("scctl check --image 'a copy.cfg'");
  EXPECT_TRUE(whole.matches(read_file("/var/a copy.cfg").data()));
  EXPECT_TRUE(live.matches(block("Lan")));
}

TEST_F(RepairTest, AllDamagesAtOnce_AreMendedAndEveryRecordStays) {
  make_odd_bindings();
  const Image whole = image("Lan");
  Image damaged = whole;
  for (const size_t at : {size_t{2}, size_t{132}, size_t{1504}, kBind, kBind + 4, kBind + kBindSize,
                          kBind + 6 * kBindSize, kBind + 6 * kBindSize + 4}) {
    damaged.put32(at, 0x55 + static_cast<uint32_t>(at));
  }
  put("Lan", damaged);
  EXPECT_EQ(shell("scctl repair Lan").status, 0);
  EXPECT_TRUE(whole.matches(block("Lan")));
}

TEST_F(RepairTest, DamageInEveryTable_IsMended) {
  for (const EditedTable& table : edited_tables()) {
    done({"add", record_name(table, 2), table.key});
    const Image whole = image(table.area);
    Image damaged = whole;
    damaged.put32(record_at(table, 2) + table.lock_at, 1234);
    damaged.put32(record_at(table, 2) + table.id_at, table.capacity);
    damaged.put32(record_at(table, table.capacity) + table.lock_at, 0);
    if (table.counter_size != 0) damaged.put16(table.counter_at, 5);
    put(table.area, damaged);
    follow_remedies(std::string("scctl check ") + table.area);
    EXPECT_TRUE(whole.matches(block(table.area))) << table.name;
    done({"clear", table.name});
  }
}

TEST_F(RepairTest, TheHeaderOfTheAccessPointsUsers_IsMended) {
  const Image whole = image("ApUserList");
  Image damaged = whole;
  damaged.put32(0, 0).put32(128, 7);
  put("ApUserList", damaged);
  follow_remedies("scctl check ApUserList");
  EXPECT_TRUE(whole.matches(block("ApUserList")));
}

TEST_F(RepairTest, Duplicates_AreNamedAndLeftToAPerson) {
  make_odd_bindings();
  strcpy(lan().lan_binds[5].bind_mac, "001122334455");
  lan().lan_bind_count = 3;
  const Outcome repaired = shell("scctl repair Lan");
  EXPECT_EQ(repaired.status, 1);
  EXPECT_EQ(repaired.out,
            "lan_binds: lan_bind_count is 3, used are 7; mended\n"
            "lan_binds/6: its mac equals that of lan_binds/1; remedy: the wrong one of them: "
            "scctl del lan_binds/6, or scctl del lan_binds/1\n"
            "areas repaired: 1, mended: 1, left: 1\n");
  EXPECT_EQ(lan().lan_bind_count, 7u);
  Image expected = image("Lan");
  expected.put32(kBind + 5 * kBindSize, ~0u).put32(1504, 6);
  EXPECT_EQ(shell("scctl del lan_binds/6").status, 0);
  EXPECT_TRUE(expected.matches(block("Lan")));
  EXPECT_EQ(shell("scctl repair Lan").status, 0);
}

TEST_F(RepairTest, DuplicatesAndACounterInAFile_TheCounterIsMendedAllTheSame) {
  make_odd_bindings();
  Image damaged = image("Lan");
  damaged.put(kBind + 5 * kBindSize + 9, "001122334455", 20).put32(1504, 3);
  Image expected = damaged;
  expected.put32(1504, 7);
  write_file("/var/copy.cfg",
             std::string(reinterpret_cast<const char*>(damaged.data()), damaged.size()));
  EXPECT_EQ(shell("scctl repair --image copy.cfg --in-place").status, 1);
  EXPECT_TRUE(expected.matches(read_file("/var/copy.cfg").data()));
}

TEST_F(RepairTest, DanglingReferences_AreFoundByModeAndMendedByTheRemedy) {
  done({"add", "ip_groups/16", "leading_text=office"});
  done({"add", "time_groups/1", "leading_text=night"});
  const struct {
    const char* mode;
    const char* id;
    const char* finding; /* null: none */
  } kRules[] = {
      {"ip_mode=1", "ip_group_id=16", nullptr},
      {"ip_mode=1", "ip_group_id=15", "ip_groups/15"},
      {"ip_mode=1", "ip_group_id=0", "ip_groups/0"},
      {"ip_mode=1", "ip_group_id=17", "ip_groups/17"},
      {"ip_mode=1", "ip_group_id=-1", "ip_groups/-1"},
      {"ip_mode=0", "ip_group_id=15", nullptr},
      {"ip_mode=2", "ip_group_id=15", nullptr},
      {"time_mode=1", "time_group_id=1", nullptr},
      {"time_mode=1", "time_group_id=2", "time_groups/2"},
      {"time_mode=2", "time_group_id=16", "time_groups/16"},
      {"time_mode=2", "time_group_id=1", nullptr},
      {"time_mode=3", "time_group_id=2", nullptr},
  };
  std::string expected;
  for (const char* table : {"ip_filter", "qos"}) {
    for (size_t n = 0; n < std::size(kRules); ++n) {
      const std::string record = std::string(table) + "/" + std::to_string(n + 1);
      done({"add", record, kRules[n].mode, kRules[n].id});
    }
  }
  for (const char* table : {"ip_filter", "qos"}) {
    for (const std::string group : {"ip", "time"}) {
      for (size_t n = 0; n < std::size(kRules); ++n) {
        const std::string mode = kRules[n].mode;
        if (kRules[n].finding == nullptr || mode.find(group) != 0) continue;
        const std::string record = std::string(table) + "/" + std::to_string(n + 1);
        expected += record + ": refers to " + kRules[n].finding +
                    ", which does not exist; remedy: scctl set " + record + " " +
                    mode.substr(0, mode.find('=')) + "=0\n";
      }
    }
  }
  EXPECT_EQ(shell("scctl check FwIpport Qos"),
            (Outcome{1, expected + "areas checked: 2, findings: 12\n", ""}));
  follow_remedies("scctl check FwIpport Qos");
  EXPECT_EQ(block_as<FwIpportBlock>("FwIpport")->rule_count, 12);
}

TEST_F(RepairTest, ALostLockFileAndABrokenArchive_AreMendedByTheirRemedies) {
  make_odd_bindings();
  const Image whole = image("Lan");
  ASSERT_EQ(unlink(lock_file("Lan").c_str()), 0);
  write_file(golden_area("Lan").archive_path, "broken");
  EXPECT_EQ(remedies("scctl check Lan"),
            (std::vector<std::string>{"echo >/var/lock_store/lan_conf_lock", "scctl save Lan"}));
  follow_remedies("scctl check Lan");
  EXPECT_TRUE(whole.matches(block("Lan")));
  EXPECT_EQ(shell("scctl diff saved live | grep -v 'only in'"), (Outcome{1, "", ""}));
}

/* ---- locks ---- */

class EveryByteTest : public RepairTest, public testing::WithParamInterface<std::pair<int, int>> {};
/* The damage, and a byte that has to be held to mend it. */
INSTANTIATE_TEST_SUITE_P(Bytes, EveryByteTest,
                         testing::Values(std::pair(2, 1), std::pair(132, 1), std::pair(132, 9),
                                         std::pair(int{kBind} + 4, 2), std::pair(int{kBind} + 4, 9),
                                         std::pair(int{kBind} + int{kBindSize}, 3),
                                         std::pair(1504, 2), std::pair(1504, 33)));

TEST_P(EveryByteTest, WhatAnotherProgramHolds_IsNotMendedAndSaid) {
  make_odd_bindings();
  Image damaged = image("Lan");
  damaged.put32(static_cast<size_t>(GetParam().first), 9);
  put("Lan", damaged);
  Listener listener;
  {
    LockHolder holder(lock_file("Lan"), GetParam().second);
    const Outcome outcome = shell("scctl repair Lan");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.out.find("; not mended: another program uses it; try again\n"
                               "areas repaired: 1, mended: 0, left: 1\n"),
              std::string::npos)
        << outcome;
  }
  EXPECT_TRUE(damaged.matches(block("Lan")));
  EXPECT_TRUE(listener.codes().empty());
  EXPECT_EQ(shell("scctl repair Lan").status, 0);
}

TEST_F(RepairTest, RepairWaitsForOtherEditors) {
  lan().lan_bind_count = 3;
  LockHolder holder(lock_file("Lan"), 0);
  Program program(scctl({"repair", "Lan"}));
  ASSERT_TRUE(becomes_blocked(program.pid(), lock_file("Lan"), 0));
  EXPECT_EQ(lan().lan_bind_count, 3u);
  holder.release();
  EXPECT_EQ(program.wait().status, 0);
  EXPECT_EQ(lan().lan_bind_count, 0u);
}

TEST_F(RepairTest, ASignalThatComesWhileBytesAreGathered_EndsTheRepairSoon) {
  for (auto& record : lan().lan_binds) record.lock_index = 99;
  const Image damaged = image("Lan");
  LockHolder holder(lock_file("Lan"), 99);
  const auto begun = std::chrono::steady_clock::now();
  Program program(scctl({"repair", "Lan"}));
  while (!is_locked(lock_file("Lan"), 0)) ASSERT_FALSE(program.ended());
  kill(program.pid(), SIGTERM);
  const Outcome outcome = program.wait();
  EXPECT_EQ(outcome.status, -SIGTERM);
  EXPECT_NE(outcome.out.find("areas repaired: 1, mended: 0, left: 32\n"), std::string::npos)
      << outcome;
  /* A second for each of 32 records else. */
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(16));
  EXPECT_TRUE(damaged.matches(block("Lan")));
}

TEST_F(RepairTest, RepairOfAllAreas_MendsEachAndAnnouncesThoseAlone) {
  lan().lan_bind_count = 3;
  block_as<QosBlock>("Qos")->rule_count = 1;
  Listener listener;
  EXPECT_EQ(shell("scctl repair --all"),
            (Outcome{0,
                     "lan_binds: lan_bind_count is 3, used are 0; mended\n"
                     "qos: rule_count is 1, used are 0; mended\n"
                     "areas repaired: 17, mended: 2, left: 0\n",
                     ""}));
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{1, 9}));
}

}  // namespace
}  // namespace sc_test
