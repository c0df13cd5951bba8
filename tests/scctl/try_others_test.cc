/* What becomes of other programs' changes when a try is taken back, and what other programs do to a
 * try: records that they hold, add and delete, areas that they save, a daemon that hangs.
 *
 * --changes N makes the six writers of the first test make so many changes.
 */
#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>

#include <errno.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <memory>

#include "scctl/tries.h"
#include "support/started.h"

namespace sc_test {
namespace {

using TryOthersTest = TryTest;

/* ---- six writers ---- */

constexpr uint32_t kWriters = 6;

/* What the writers share with the test. */
struct Writing {
  std::atomic<uint32_t> changes;
  std::atomic<bool> stop;
  std::atomic<uint32_t> failed;
  std::atomic<uint32_t> last[kWriters];
};

/* The number behind --changes in this program's words. */
uint64_t wanted_changes() {
  const std::string words = read_file("/proc/self/cmdline");
  const std::string option = std::string("--changes") + '\0';
  const size_t at = words.find(option);
  return at == std::string::npos ? 3000 : strtoull(words.c_str() + at + option.size(), nullptr, 10);
}

DhcpStaticItem binding_of(uint32_t writer, uint32_t n) {
  DhcpStaticItem item = {};
  item.id = static_cast<int32_t>(writer + 1);
  item.flag = static_cast<int32_t>(n % 2);
  put_text(item.mac, "00:11:22:33:44:0" + std::to_string(writer + 1));
  put_text(item.ip, "10." + std::to_string(writer + 1) + "." + std::to_string(n / 250 % 250) + "." +
                        std::to_string(n % 250 + 1));
  put_text(item.name, "writer " + std::to_string(n));
  return item;
}

IpGroupItem group_of(uint32_t writer, uint32_t n) {
  IpGroupItem item = {};
  item.slot_id = static_cast<int32_t>(writer + 1);
  put_text(item.leading_text, "group " + std::to_string(writer + 1));
  put_text(item.trailing_text, "writer " + std::to_string(n));
  return item;
}

/* Each writer changes its own binding and its own group by the library, again and again. Tries change
 * those of three writers, too, and are taken back. */
TEST_F(TryOthersTest, SixWriters_LoseNoChangeToTriesThatAreTakenBack) {
  auto* lan = block_as<LanBlock>("Lan");
  auto* groups = block_as<IpGroupBlock>("IpGroup");
  auto* shared = static_cast<Writing*>(
      mmap(nullptr, sizeof(Writing), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  new (shared) Writing();
  for (uint32_t me = 0; me < kWriters; ++me) {
    const DhcpStaticItem binding = binding_of(me, 0);
    const IpGroupItem group = group_of(me, 0);
    ASSERT_EQ(AddDhcpStaticItem(lan, &binding), SC_LIST_OK);
    ASSERT_EQ(AddIpGroupItem(groups, &group), SC_LIST_OK);
  }
  done({"add", "clients/300", "client_mac=02:00:00:00:00:01"});
  const Image clients = image("Clients");
  write_file(
      kBatch,
      "set lan_binds/1 name=tried ip=10.9.9.1\nset ip_groups/1 trailing_text=tried\n"
      "set lan_binds/2 flag=7\nset ip_groups/2 trailing_text=tried leading_text=mine\n"
      "set lan_binds/3 name=tried\nset ip_groups/3 leading_text=yours\n"
      "add lan_binds/20 mac=00:11:22:33:55:55 ip=10.9.9.20\nadd ip_groups/16 leading_text=x\n"
      "del clients/300\nset lan_binds/1 name=again\n");
  std::vector<std::unique_ptr<Child>> writers;
  for (uint32_t me = 0; me < kWriters; ++me) {
    writers.push_back(std::make_unique<Child>([=] {
      dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO); /* there is no daemon */
      for (uint32_t n = 1; !shared->stop; ++n) {
        const DhcpStaticItem binding = binding_of(me, n);
        const IpGroupItem group = group_of(me, n);
        shared->failed += ModifyDhcpStaticItem(lan, &binding) != SC_LIST_OK;
        shared->failed += ModifyIpGroupItem(groups, &group) != SC_LIST_OK;
        shared->last[me] = n;
        shared->changes += 2;
        pause_ms(1);
      }
    }));
  }
  const uint64_t wanted = wanted_changes();
  size_t tries = 0, listed = 0;
  uint64_t during = 0;
  for (; tries < 5 || shared->changes < wanted; ++tries) {
    start_try(30);
    const uint64_t before = shared->changes;
    pause_ms(tries % 2 == 0 ? 0 : 30);
    const Outcome outcome = run(scctl({"revert"}));
    EXPECT_EQ(outcome.status, 0) << outcome;
    listed += outcome.out.find("it was changed since; it stays") != std::string::npos;
    during += shared->changes - before;
  }
  shared->stop = true;
  for (auto& writer : writers) EXPECT_EQ(writer->wait(), 0);
  printf("changes: %llu, tries: %zu, changes while a try ran: %llu\n",
         static_cast<unsigned long long>(shared->changes), tries,
         static_cast<unsigned long long>(during));
  EXPECT_EQ(shared->failed, 0u);
  EXPECT_GT(during, 0u);
  EXPECT_GT(listed, 0u);
  for (uint32_t me = 0; me < kWriters; ++me) {
    const uint32_t n = shared->last[me];
    ASSERT_GT(n, 0u);
    DhcpStaticItem binding = {};
    GetDhcpStaticItem(lan, me + 1, &binding);
    const DhcpStaticItem expected = binding_of(me, n);
    EXPECT_EQ(text_of(binding.name), text_of(expected.name)) << me;
    EXPECT_EQ(text_of(binding.ip), text_of(expected.ip)) << me;
    EXPECT_EQ(binding.flag, expected.flag) << me;
    IpGroupItem group = {};
    GetIpGroupItem(groups, me + 1, &group);
    EXPECT_EQ(text_of(group.trailing_text), text_of(group_of(me, n).trailing_text)) << me;
    EXPECT_EQ(text_of(group.leading_text), text_of(group_of(me, n).leading_text)) << me;
  }
  EXPECT_EQ(lan->lan_bind_count, kWriters);
  EXPECT_TRUE(clients.matches(block("Clients")));
  munmap(shared, sizeof(Writing));
}

/* ---- records that cannot return yet ---- */

TEST_F(TryOthersTest, AGroupWhosePlaceIsTaken_WaitsWithItsRulesForTheNextRevert) {
  make_store();
  const Images before = live();
  start_try_of("del ip_groups/2\n");
  done({"add", "ip_groups/2", "leading_text=foreign"});
  const std::string report = revert_in_part();
  EXPECT_EQ(report,
            "ip_groups/2: it waits: its id is used by another record\n"
            "ip_filter/1: it waits: it refers to ip_groups/2, which waits\n"
            "qos/3: it waits: it refers to ip_groups/2, which waits\n");
  EXPECT_TRUE(is_over());
  EXPECT_EQ(done({"list", "ip_groups", "--commands"}).find("office"), std::string::npos);
  const Outcome status = run_scctl({"try", "--status"});
  EXPECT_NE(status.out.find("these wait for scctl revert:\n"), std::string::npos) << status;
  const Outcome again = run_scctl({"revert"});
  EXPECT_EQ(again.status, 1); /* the place is still taken */
  EXPECT_EQ(again.out.substr(0, again.out.find('\n')), "taken back: 0 of 3 records that waited");
  done({"del", "ip_groups/2"});
  EXPECT_EQ(revert(), "taken back: 3 of 3 records that waited\n");
  expect_live(before);
  EXPECT_EQ(refusal({"revert"}), "scctl: no try runs\n");
}

TEST_F(TryOthersTest, AnAddedGroupThatAnotherProgramsRuleRefersTo_Stays) {
  make_store();
  start_try_of("add ip_groups/9 leading_text=new\nset lan_binds/1 name=tried\n");
  done({"add", "ip_filter/20", "ip_mode=1", "ip_group_id=9"});
  EXPECT_EQ(revert(), "ip_groups/9: it stays: ip_filter/20 refers to it\n");
  EXPECT_NE(done({"list", "ip_groups", "--commands"}).find("ip_groups/9 leading_text=new\n"),
            std::string::npos);
  EXPECT_NE(done({"list", "ip_filter", "--commands"}).find("ip_filter/20 "), std::string::npos);
  EXPECT_STREQ(block_as<LanBlock>("Lan")->lan_binds[0].bind_name, "one");
}

TEST_F(TryOthersTest, AFullTable_KeepsTheDeletedRecordWaiting) {
  make_store();
  const Images before = live();
  start_try_of("del lan_binds/2\n");
  std::string commands;
  for (int n = 2; n <= 32; ++n) {
    const std::string number = std::to_string(n);
    commands += "add lan_binds/" + number + " mac=00:11:22:33:66:" + (n < 10 ? "0" : "") + number +
                " ip=10.1.0." + number + "\n";
  }
  done({"batch", "-"}, commands);
  EXPECT_EQ(revert_in_part(), "lan_binds/2: it waits: its id is used by another record\n");
  EXPECT_EQ(block_as<LanBlock>("Lan")->lan_bind_count, 32u);
  Words others = {"del"};
  for (int n = 2; n <= 32; ++n) others.push_back("lan_binds/" + std::to_string(n));
  done(others);
  done({"revert"});
  EXPECT_EQ(done({"list", "lan_binds", "--commands"}).find("foreign"), std::string::npos);
  EXPECT_STREQ(block_as<LanBlock>("Lan")->lan_binds[1].bind_mac, "00:11:22:33:44:02");
  EXPECT_EQ(block_as<LanBlock>("Lan")->lan_bind_count, 2u);
}

TEST_F(TryOthersTest, AKeyThatAnotherRecordHasNow_IsNotGivenTwice) {
  make_store();
  auto& lan = *block_as<LanBlock>("Lan");
  start_try_of("del lan_binds/2\nset lan_binds/1 mac=00:11:22:33:44:99 name=tried\n");
  done({"add", "lan_binds/9", "mac=00:11:22:33:44:02", "ip=10.0.0.77"});
  done({"add", "lan_binds/8", "mac=00:11:22:33:44:01", "ip=10.0.0.78"});
  const std::string report = revert_in_part();
  EXPECT_NE(report.find("lan_binds/2: it waits: its mac is used by lan_binds/9\n"),
            std::string::npos)
      << report;
  EXPECT_NE(report.find("lan_binds/1.mac: the value before is used by another record; it stays\n"),
            std::string::npos)
      << report;
  EXPECT_STREQ(lan.lan_binds[0].bind_mac, "00:11:22:33:44:99");
  EXPECT_STREQ(lan.lan_binds[0].bind_name, "one");
  EXPECT_EQ(lan.lan_binds[1].slot_id, -1);
  EXPECT_EQ(lan.lan_bind_count, 3u);
}

TEST_F(TryOthersTest, AChangedRecordThatAnotherProgramDeleted_DoesNotWaitForItsOldKey) {
  make_store();
  start_try_of("set lan_binds/1 mac=00:11:22:33:44:99\n");
  done({"del", "lan_binds/1"});
  done({"add", "lan_binds/9", "mac=00:11:22:33:44:01", "ip=10.0.0.77"});
  EXPECT_EQ(revert(), "lan_binds/1: it was deleted since\n");
  EXPECT_EQ(refusal({"revert"}), "scctl: no try runs\n");
}

TEST_F(TryOthersTest, AnAddedRecordThatAnotherProgramChanged_StaysWholeAndIsListed) {
  make_store();
  start_try_of("add lan_binds/7 mac=00:11:22:33:44:07 ip=10.0.0.7\nset lan_binds/1 name=tried\n");
  done({"set", "lan_binds/7", "name=foreign"});
  done({"set", "lan_binds/1", "flag=5"});
  done({"set", "lan_binds/2", "name=elsewhere"});
  const std::string status = done({"try", "--status"});
  EXPECT_NE(status.find("what others changed in these records since:\n"), std::string::npos);
  EXPECT_EQ(revert(), "lan_binds/7: it was added, and changed since; it stays\n");
  const auto& lan = *block_as<LanBlock>("Lan");
  EXPECT_STREQ(lan.lan_binds[6].bind_mac, "00:11:22:33:44:07");
  EXPECT_STREQ(lan.lan_binds[6].bind_name, "foreign");
  EXPECT_STREQ(lan.lan_binds[0].bind_name, "one");
  EXPECT_EQ(lan.lan_binds[0].bind_flag, 5);
  EXPECT_STREQ(lan.lan_binds[1].bind_name, "elsewhere");
}

TEST_F(TryOthersTest, AFieldThatAnotherProgramSetToTheTrysOwnValue_GoesBack) {
  make_store();
  start_try_of("set lan_binds/1 name=tried\nset lan_binds/2 name=tried\n");
  done({"set", "lan_binds/1", "name=other"});
  done({"set", "lan_binds/1", "name=tried"});
  done({"set", "lan_binds/2", "name=other"});
  EXPECT_EQ(revert(), "lan_binds/2.name: it was changed since; it stays\n");
  EXPECT_STREQ(block_as<LanBlock>("Lan")->lan_binds[0].bind_name, "one");
  EXPECT_STREQ(block_as<LanBlock>("Lan")->lan_binds[1].bind_name, "other");
}

/* ---- what holds up the end ---- */

TEST_F(TryOthersTest, ARecordThatAnotherProgramHolds_IsComeBackTo) {
  make_store();
  const Images before = live();
  write_file(kBatch, "set lan_binds/1 name=tried\nset lan_binds/2 name=tried\n");
  start_try(2);
  auto& lan = *block_as<LanBlock>("Lan");
  LockHolder foreign(lock_file("Lan"), lan.lan_binds[0].lock_index);
  EXPECT_TRUE(becomes([&] { return strcmp(lan.lan_binds[1].bind_name, "two") == 0; }));
  pause_ms(1500);
  EXPECT_STREQ(lan.lan_binds[0].bind_name, "tried");
  EXPECT_TRUE(exists(kTryFile));
  const Outcome by_hand = run_scctl({"revert"});
  EXPECT_EQ(by_hand.status, 1);
  foreign.release();
  EXPECT_TRUE(becomes(is_over, 3000));
  expect_live(before);
}

TEST_F(TryOthersTest, RevertByHandOfAHeldRecord_LeavesTheRestToTheGuards) {
  make_store();
  const Images before = live();
  start_try_of("set lan_binds/1 name=tried\n");
  LockHolder foreign(lock_file("Lan"), block_as<LanBlock>("Lan")->lan_binds[0].lock_index);
  const Outcome outcome = run_scctl({"revert"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "lan_binds/1: another program holds it\n");
  EXPECT_EQ(outcome.err, "scctl: its guards go on: other programs hold records or save areas\n");
  EXPECT_NE(refusal({"confirm"}).find("too late"), std::string::npos);
  EXPECT_EQ(refusal({"try", "--timeout", "60"}), "scctl: too late: the try ends already\n");
  foreign.release();
  EXPECT_TRUE(becomes(is_over, 3000));
  expect_live(before);
}

/* A daemon that never accepts: its queue is full, so that connect waits. */
class HangingDaemon {
 public:
  HangingDaemon() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/var/config_socket");
    unlink(address.sun_path);
    const auto* at = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(bind(listener_, at, sizeof address), 0);
    EXPECT_EQ(listen(listener_, 0), 0);
    for (int& client : clients_) {
      client = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      if (connect(client, at, sizeof address) != 0) full_ = errno == EAGAIN;
    }
    EXPECT_TRUE(full_);
  }
  ~HangingDaemon() {
    for (const int client : clients_) close(client);
    close(listener_);
    unlink("/var/config_socket");
  }

 private:
  int listener_, clients_[4];
  bool full_ = false;
};

TEST_F(TryOthersTest, ADaemonThatHangs_DoesNotHoldUpTheEnd) {
  make_store();
  const Images before = live();
  start_try_of("set lan_binds/1 name=tried\nset clients/1 text_52=tried\n", 2);
  const HangingDaemon daemon;
  const auto begin = Clock::now();
  EXPECT_TRUE(becomes([&] { return is_live(before); }, 4000));
  EXPECT_TRUE(becomes(is_over));
  EXPECT_LE(ms_since(begin), 6500);
  EXPECT_FALSE(exists(kMarkerFile));
}

TEST_F(TryOthersTest, WithoutADaemon_ItEndsAllTheSame) {
  make_store();
  const Images before = live();
  start_try_of("set lan_binds/1 name=tried\n", 1);
  EXPECT_FALSE(exists("/var/config_socket"));
  EXPECT_TRUE(becomes(is_over));
  expect_live(before);
}

TEST_F(TryOthersTest, ManyBigRecords_GoBackInTime) {
  std::string commands;
  for (int n = 1; n <= 300; ++n) {
    char line[80];
    snprintf(line, sizeof line, "add aps/%d ap_mac=02:00:00:00:%02x:%02x opaque_11800=%08x\n", n,
             n >> 8, n & 255, n + 1);
    commands += line;
  }
  done({"batch", "-"}, commands);
  const Images before = live();
  start_try_of("clear aps\n");
  EXPECT_FALSE(is_live(before));
  const auto begin = Clock::now();
  EXPECT_EQ(revert(), "");
  printf("taken back in %d ms\n", ms_since(begin));
  EXPECT_LE(ms_since(begin), 2000);
  expect_live(before);
}

/* ---- a program that is tried ---- */

class TriedProgramTest : public TryTest {
 protected:
  /* It changes a record, and then runs on, whatever signal that can be ignored it gets. */
  Words try_of_a_long_program(int seconds) {
    std::string command = "trap '' TERM HUP INT; ";
    for (const std::string& word : scctl({"set", "lan_binds/1", "name=tried"}))
      command += word + " ";
    command += "; touch /var/runs; while :; do sleep 0.1; done";
    return scctl({"try", "--timeout", std::to_string(seconds), "--", "sh", "-c", command});
  }
  const char* name() { return block_as<LanBlock>("Lan")->lan_binds[0].bind_name; }
};

/* A record that is half written when the try begins is no state to go back to. */
TEST_F(TriedProgramTest, ARecordThatIsBeingWritten_IsWaitedFor) {
  make_store();
  auto& record = block_as<LanBlock>("Lan")->lan_binds[0];
  LockHolder foreign(lock_file("Lan"), record.lock_index);
  put_text(record.bind_name, "half");
  Program caller(try_of_a_long_program(60));
  pause_ms(300);
  EXPECT_FALSE(exists("/var/runs"));
  put_text(record.bind_name, "whole");
  foreign.release();
  ASSERT_TRUE(becomes([] { return exists("/var/runs"); }));
  kill(caller.pid(), SIGKILL);
  EXPECT_TRUE(becomes(is_over, 2500));
  EXPECT_STREQ(name(), "whole");
}

TEST_F(TriedProgramTest, WhenARecordIsNotFree_SaysSoAndGoesOn) {
  make_store();
  auto& record = block_as<LanBlock>("Lan")->lan_binds[1];
  const LockHolder foreign(lock_file("Lan"), record.lock_index);
  const Outcome outcome = run_scctl({"try", "--", "true"});
  EXPECT_EQ(outcome,
            (Outcome{0, "nothing was changed; no try runs\n",
                     "scctl: copied area by area, not in one moment: records of area Lan were "
                     "locked for a second; Lan without its locks\n"}));
}

TEST_F(TriedProgramTest, WhenItsCallerIsKilled_EndsAndIsTakenBack) {
  make_store();
  const Images before = live();
  Program caller(try_of_a_long_program(60));
  ASSERT_TRUE(becomes([] { return exists("/var/runs"); }));
  EXPECT_STREQ(name(), "tried");
  kill(caller.pid(), SIGKILL);
  EXPECT_TRUE(becomes(is_over, 2500));
  expect_live(before);
  EXPECT_FALSE(exists(kMarkerFile));
}

TEST_F(TriedProgramTest, WhenItRunsBeyondTheDeadline_IsEndedAndTakenBack) {
  make_store();
  const Images before = live();
  const auto begin = Clock::now();
  const Outcome outcome = run(try_of_a_long_program(2));
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_NE(outcome.err.find("scctl: sh did not end in time\n"), std::string::npos) << outcome;
  EXPECT_TRUE(becomes(is_over));
  EXPECT_GE(ms_since(begin), 2000);
  EXPECT_LE(ms_since(begin), 4500);
  expect_live(before);
}

/* ---- saves ---- */

TEST_F(TryOthersTest, AnAreaThatAnotherProgramSavedMeanwhile_IsSavedAgain) {
  make_store();
  done({"save", "--all"});
  const auto before = flash();
  start_try_of("set lan_binds/1 name=tried\nset clients/1 text_52=tried\n");
  const std::string clients = flash()["config_clients.bin"];
  area("Lan").save_to_flash(block("Lan"));
  EXPECT_TRUE(flash()["config_lan.bin"] != before.at("config_lan.bin"));
  revert();
  EXPECT_EQ(run_scctl({"diff", "saved", "live"}), (Outcome{0, "", ""}));
  EXPECT_EQ(run_scctl({"diff", "/var/dataconfig/config_lan.good", "live"}), (Outcome{0, "", ""}));
  EXPECT_EQ(
      run_scctl({"get", "lan_binds/1.name", "--archive", "/var/dataconfig/config_lan.bin"}).out,
      "one\n");
  EXPECT_TRUE(flash()["config_clients.bin"] == clients);
  EXPECT_FALSE(exists(kMarkerFile));
}

TEST_F(TryOthersTest, TwoConfirmsAtOnce_AreOneThatWorksAndOneThatIsTold) {
  make_store();
  start_try_of("set lan_binds/1 name=tried\n");
  Program one(scctl({"confirm"})), other(scctl({"confirm"}));
  const Outcome first = one.wait(), second = other.wait();
  EXPECT_EQ(first.status + second.status, 1) << first << second;
  const Outcome& loser = first.status != 0 ? first : second;
  EXPECT_EQ(loser.err.find("scctl: no try runs"), 0u) << loser;
  EXPECT_TRUE(is_over());
  EXPECT_STREQ(block_as<LanBlock>("Lan")->lan_binds[0].bind_name, "tried");
  EXPECT_EQ(
      run_scctl({"get", "lan_binds/1.name", "--archive", "/var/dataconfig/config_lan.bin"}).out,
      "tried\n");
}

TEST_F(TryOthersTest, WithoutItsMarker_ItIsNotConfirmed) {
  make_store();
  done({"save", "--all"});
  const Images before = live();
  start_try_of("set lan_binds/1 name=tried\n");
  const std::string archive = flash()["config_lan.bin"];
  std::filesystem::remove(kMarkerFile);
  EXPECT_EQ(refusal({"confirm"}),
            "scctl: not confirmed: /var/dataconfig/try was removed; scctl revert takes the try "
            "back\n");
  EXPECT_TRUE(flash()["config_lan.bin"] == archive);
  EXPECT_TRUE(exists(kTryFile));
  revert();
  expect_live(before);
}

/* A revert that only prints what is left on the flash. */
TEST_F(TryOthersTest, AMarkerThatCannotBeRemoved_IsNoSuccess) {
  make_store();
  done({"save", "--all"});
  const Images before = live();
  start_try_of("set lan_binds/1 name=tried\n");
  std::filesystem::remove(kMarkerFile);
  std::filesystem::create_directory(kMarkerFile);
  const Outcome outcome = run(scctl({"revert"}));
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_EQ(outcome.out,
            "an archive holds what was tried; scguard restore puts back what it held\n");
  EXPECT_EQ(outcome.err, "scctl: /var/dataconfig/try is not removed\n");
  expect_live(before);
  EXPECT_FALSE(exists(kTryFile));
  std::filesystem::remove(kMarkerFile);
}

TEST_F(TryOthersTest, OnlyMine_RefusesToSaveWhatOthersChanged) {
  make_store();
  done({"save", "--all"});
  const auto before = flash();
  start_try_of("set lan_binds/1 name=tried\n");
  done({"set", "lan_binds/2", "name=foreign"});
  const Outcome refused = run_scctl({"confirm", "--only-mine"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "  lan_binds/2.name: two -> foreign\n");
  EXPECT_EQ(refused.err, "scctl: not confirmed: these changes are not part of the try\n");
  EXPECT_TRUE(flash()["config_lan.bin"] == before.at("config_lan.bin"));
  EXPECT_NE(done({"try", "--status"}).find(", made, "), std::string::npos);
  const Outcome confirmed = run_scctl({"confirm"});
  EXPECT_EQ(confirmed.status, 0);
  EXPECT_NE(confirmed.out.find("lan_binds/2.name: two -> foreign\n"), std::string::npos);
  start_try_of("set lan_binds/1 name=three\n");
  EXPECT_EQ(run_scctl({"confirm", "--only-mine"}).status, 0);
}

TEST_F(TryOthersTest, OnlyMineOfAnAreaThatWasNeverSaved_IsConfirmedWhenAllIsItsOwn) {
  start_try_of("add lan_binds/1 mac=00:11:22:33:44:01\n");
  const Outcome outcome = run_scctl({"confirm", "--only-mine"});
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_EQ(outcome.out, "");
}

/* ---- what nobody saves, and what nobody locks ---- */

/* A record of each table, its last one. */
TEST_F(TryOthersTest, TheLastRecordOfEachTable_IsAsBeforeAfterEachKindOfChange) {
  make_store();
  /* Bytes that stay in free records of the tables that are free at an id of 0. */
  block_as<ManageApListBlock>("ManageApList")->aps[299].opaque_399[7] = 0x5a;
  block_as<ApUserListBlock>("ApUserList")->users[299].opaque_14[9] = 0x5a;
  block_as<ApTemplateListBlock>("ApTemplateList")->templates[14].opaque_8[3] = 0x5a;
  const Words records[] = {{"lan_binds/32", " mac=02:00:00:00:00:32 ip=10.9.9.32", " name=other"},
                           {"ac_binds/32", " mac=02:00:00:00:00:33 ip=10.9.9.33", " name=other"},
                           {"ip_groups/16", " leading_text=last", " leading_text=other"},
                           {"ip_filter/32", " leading_text=last", " leading_text=other"},
                           {"qos/32", " leading_text=last", " leading_text=other"},
                           {"aps/300", " ap_mac=02:00:00:00:00:34", " run_state=7"},
                           {"ap_users/300", " user_mac=02:00:00:00:00:35", " opaque_14=ff"},
                           {"ap_templates/15", " template_name=last", " template_name=other"},
                           {"clients/300", " client_mac=02:00:00:00:00:36", " text_52=other"}};
  std::string add, set, del;
  for (const Words& record : records) {
    add += "add " + record[0] + record[1] + "\n";
    set += "set " + record[0] + record[2] + "\n";
    del += "del " + record[0] + "\n";
  }
  const auto expect_back = [&](const std::string& commands) {
    const Images before = live();
    start_try_of(commands);
    EXPECT_FALSE(is_live(before));
    EXPECT_EQ(revert(), "");
    expect_live(before, commands);
  };
  expect_back(add);
  expect_back(add + set);
  expect_back(add + del);
  done({"batch", "-"}, add);
  expect_back(set);
  expect_back(del);
  expect_back(del + add + set);
}

TEST_F(TryOthersTest, UsersOfAccessPoints_AreTriedWithoutAMarker) {
  make_store();
  const Images before = live();
  start_try_of("set ap_users/4 opaque_14=736574\nadd ap_users/9 user_mac=02:00:00:00:00:09\n");
  EXPECT_FALSE(exists(kMarkerFile));
  EXPECT_FALSE(is_live(before));
  revert();
  expect_live(before);
  start_try_of("del ap_users/4\n");
  const Images after = live();
  EXPECT_EQ(run_scctl({"confirm"}), (Outcome{0, "", ""}));
  expect_live(after);
  EXPECT_TRUE(is_over());
}

TEST_F(TryOthersTest, WhatIsWrittenByHandWithoutALock_GoesBackToo) {
  make_store();
  done({"save", "--all"});
  const Images before = live();
  Program trying(scctl({"try", "--timeout", "30", "--", "sh", "-c", "touch /var/runs; sleep 1"}));
  ASSERT_TRUE(becomes([] { return exists("/var/runs"); }));
  memcpy(block("Wan") + 400, "by hand", 7);       /* settings of a section */
  memcpy(block("Lan") + 1508 + 48, "by hand", 8); /* a used record's name */
  EXPECT_EQ(trying.wait().status, 0);
  const std::string status = done({"try", "--status"});
  EXPECT_NE(status.find("lan_binds/1.name: one -> 'by hand'\n"), std::string::npos) << status;
  EXPECT_EQ(revert(), "");
  expect_live(before);
}

}  // namespace
}  // namespace sc_test
