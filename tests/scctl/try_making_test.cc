/* What ends a try while it is made, and who has what a try keeps. */
#include <sysconfig/clients.h>
#include <sysconfig/lan.h>

#include <algorithm>
#include <optional>
#include <sstream>

#include "scctl/tries.h"
#include "support/locks.h"

namespace sc_test {
namespace {

constexpr char kStateFolder[] = "/var/systemconfig/scctl";

/* A try whose second record another program holds while it is made. */
class HeldWhileMadeTest : public TryTest {
 protected:
  void begin(int seconds) {
    make_store();
    before_ = live();
    write_file(kBatch, "set clients/1 text_52=tried\nset lan_binds/1 name=tried\n");
    foreign_.emplace(lock_file("Lan"), off_t{block_as<LanBlock>("Lan")->lan_binds[0].lock_index});
    caller_.emplace(try_batch(seconds));
    ASSERT_TRUE(becomes([this] {
      return strcmp(block_as<ClientsBlock>("Clients")->clients[0].text_52, "tried") == 0;
    }));
  }
  Images before_;
  std::optional<LockHolder> foreign_;
  std::optional<Program> caller_;
};

/* An interrupt that also ends what is taken back after it. */
TEST_F(HeldWhileMadeTest, WhenItsCallerIsInterrupted_IsTakenBackAtOnce) {
  begin(60);
  kill(caller_->pid(), SIGTERM);
  const Outcome outcome = caller_->wait();
  EXPECT_NE(outcome.status, 0) << outcome;
  EXPECT_TRUE(is_over());
  expect_live(before_);
}

/* A try that is said to run although its time was over before it was made. */
TEST_F(HeldWhileMadeTest, MadeBehindItsDeadline_IsTakenBackAtOnce) {
  begin(1);
  const pid_t guards[] = {holder(kGuardByte), holder(kTwinByte)};
  for (const pid_t guard : guards) kill(guard, SIGSTOP);
  pause_ms(1200);
  foreign_->release();
  const Outcome outcome = caller_->wait();
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_NE(outcome.err.find("scctl: its time is over\n"), std::string::npos) << outcome;
  EXPECT_TRUE(is_over());
  expect_live(before_);
  for (const pid_t guard : guards) kill(guard, SIGCONT);
}

TEST_F(TryTest, OfAnAreaThatAnotherProgramSaves_DoesNotStart) {
  make_store();
  const Images before = live();
  write_file(kBatch, "set lan_binds/1 name=tried\n");
  const LockHolder save(lock_file("Lan"), 1);
  const Outcome outcome = run(try_batch(60));
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_NE(outcome.err.find("area Lan is being saved by another program\n"), std::string::npos)
      << outcome;
  EXPECT_TRUE(is_over());
  EXPECT_FALSE(exists(kMarkerFile));
  expect_live(before);
}

TEST_F(TryTest, WhoseOutputCannotBeWritten_IsTakenBack) {
  const Images before = live();
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  const Words to_full = {"sh", "-c", "exec \"$@\" >/dev/full", "sh"};
  const Outcome outcome = run(joined(to_full, try_batch(60)));
  EXPECT_EQ(outcome, (Outcome{1, "",
                              "scctl: commands done: 1, but standard output takes no more\n"
                              "scctl: the try failed, and is taken back\n"}));
  EXPECT_TRUE(is_over());
  expect_live(before);
}

/* ---- what a try keeps ---- */

/* After a power cut the boot restores these areas, and no other. */
TEST_F(TryTest, TheMarker_NamesEachAreaOfTheChangeAndWhetherItWasSaved) {
  make_store();
  done({"save", "Lan", "Qos"});
  start_try_of(
      "set lan_binds/1 name=tried\nset clients/1 text_52=tried\nset ap_users/4 opaque_14=ff\n");
  EXPECT_EQ(read_file(kMarkerFile), "sysconfig try 1\nlan good\nclients none\nend\n");
}

TEST_F(TryTest, WhatATryKeeps_IsForItsUserAlone) {
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  std::filesystem::remove_all(kStateFolder);
  const Words with_open_mask = {"sh", "-c", "umask 0; exec \"$@\"", "sh"};
  ASSERT_EQ(run(joined(with_open_mask, try_batch(60))).status, 0);
  using std::filesystem::perms;
  const auto mode = [](const std::filesystem::path& path) { return status(path).permissions(); };
  EXPECT_EQ(mode(kStateFolder), perms::owner_all);
  for (const auto& entry : std::filesystem::directory_iterator(kStateFolder)) {
    EXPECT_EQ(mode(entry.path()), perms::owner_read | perms::owner_write) << entry.path();
  }
}

/* Those of a try whose processes were all killed. */
TEST_F(TryTest, OldCopiesOfAreas_AreNotTakenForThoseOfBefore) {
  make_store();
  const Images before = live();
  const std::string state = kStateFolder;
  run_scctl({"try", "--", "sh", "-c", "ls " + state + " >/var/names; exit 1"});
  std::istringstream names(read_file("/var/names"));
  size_t copies = 0;
  for (std::string name; names >> name;) {
    if (!name.starts_with("before_")) continue;
    write_file(state + "/" + name, std::string(100000, 'x'));
    ++copies;
  }
  EXPECT_EQ(copies, before.size());
  const Words edit = scctl({"set", "lan_binds/1", "name=tried"});
  EXPECT_EQ(run_scctl(joined(Words{"try", "--"}, edit)).status, 0);
  EXPECT_EQ(run_scctl({"diff", "try", "live"}).out, "lan_binds/1.name: one -> tried\n");
  revert();
  expect_live(before);
}

/* A program could write into the journal of the try that it is part of. */
TEST_F(TryTest, ATriedProgram_InheritsNoFileOfTheTry) {
  const Words list = {"try", "--", "sh", "-c", "ls -l /proc/$$/fd >/var/files; exit 1"};
  EXPECT_EQ(run_scctl(list).status, 1);
  const std::string files = read_file("/var/files");
  EXPECT_NE(files.find(" 0 -> "), std::string::npos) << files;
  for (const char* folder : {"/var/systemconfig", "/var/lock_store", "/var/dataconfig"}) {
    EXPECT_EQ(files.find(folder), std::string::npos) << files;
  }
}

TEST_F(TryTest, AFolderOfTheStateThatIsALink_IsNotFollowed) {
  std::filesystem::remove_all(kStateFolder);
  std::filesystem::create_directory("/var/elsewhere");
  std::filesystem::create_directory_symlink("/var/elsewhere", kStateFolder);
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  EXPECT_EQ(refusal({"try", "batch", kBatch}, 3),
            "scctl: /var/systemconfig/scctl: Not a directory\n");
  EXPECT_TRUE(std::filesystem::is_empty("/var/elsewhere"));
  std::filesystem::remove(kStateFolder);
}

/* Where the folder of the state outlives a boot. */
TEST_F(TryTest, WhatATryBeforeTheBootKept_IsNoTry) {
  make_store();
  start_try_of("set ap_users/4 opaque_14=736574\n"); /* without a marker */
  const Images after = live();
  const pid_t guards[] = {holder(kGuardByte), holder(kTwinByte)};
  for (const pid_t guard : guards) kill(guard, SIGSTOP);
  for (const pid_t guard : guards) kill(guard, SIGKILL);
  ASSERT_TRUE(becomes([] { return !has_guards(); }));
  std::string kept = read_file(kTryFile);
  const std::string boot = read_file("/proc/sys/kernel/random/boot_id");
  const size_t at = kept.find(boot.substr(0, 36));
  ASSERT_NE(at, std::string::npos);
  kept[at] = kept[at] == '0' ? '1' : '0';
  write_file(kTryFile, kept);
  EXPECT_EQ(refusal({"revert"}), "scctl: no try runs\n");
  expect_live(after);
  start_try_of("set lan_binds/1 name=tried\n");
  EXPECT_EQ(run_scctl({"try", "--status"}).status, 0);
}

/* An alarm ends a guard's wait for a daemon that hangs. */
TEST_F(TryTest, SignalsThatItsCallerBlocks_ReachItsGuards) {
  sigset_t alarms, before;
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  sigprocmask(SIG_BLOCK, &alarms, &before);
  start_try_of("add lan_binds/3 mac=00:11:22:33:44:55\n");
  sigprocmask(SIG_SETMASK, &before, nullptr);
  for (const off_t byte : {kGuardByte, kTwinByte}) {
    const std::string status = read_file("/proc/" + std::to_string(holder(byte)) + "/status");
    EXPECT_NE(status.find("\nSigBlk:\t0000000000000000\n"), std::string::npos) << status;
  }
}

/* ---- what is shown of it ---- */

TEST_F(TryTest, WithoutATry_TheStatusInJsonIsNull) {
  EXPECT_EQ(run_scctl({"try", "--status", "--json"}), (Outcome{1, "null\n", ""}));
}

TEST_F(TryTest, TheStatus_TellsWhoWhenWhatAndWhatOthersChanged) {
  make_store();
  start_try_of("set lan_binds/1 name=tried\n");
  done({"set", "lan_binds/1", "name=other"});
  const std::string json = done({"try", "--status", "--json"});
  const std::string who = json.substr(json.find("\"pid\": ") + strlen("\"pid\": "));
  const std::string pid = who.substr(0, who.find_first_not_of("0123456789"));
  EXPECT_NE(done({"try", "--status"}).find(" (process " + pid + ") since 20"), std::string::npos);
  for (const char* part :
       {"\"time\": \"20", "\"command\": \"try --timeout 60 batch /var/batch\"",
        "\"phase\": \"made\"", "\"left\": ",
        "\"changes\": [{\"table\": \"lan_binds\", \"id\": 1, \"what\": \"change\", "
        "\"fields\": {\"name\": [\"one\", \"tried\"]}}]",
        "\"others\": [{\"table\": \"lan_binds\", \"id\": 1, \"what\": \"change\", "
        "\"fields\": {\"name\": [\"tried\", \"other\"]}}]"}) {
    EXPECT_NE(json.find(part), std::string::npos) << part << "\n" << json;
  }
}

TEST_F(TryTest, ATriedSetting_IsAllThatDiffers) {
  start_try_of("set wan/2 settings=ff\n");
  const std::string differing = run_scctl({"diff", "try", "live"}).out;
  EXPECT_EQ(std::count(differing.begin(), differing.end(), '\n'), 1) << differing;
  EXPECT_TRUE(differing.starts_with("wan/2.")) << differing;
}

}  // namespace
}  // namespace sc_test
