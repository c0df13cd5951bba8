/* Checkpoints and rollbacks of live areas: what is copied and when, what a rollback writes, and what
 * is refused. */
#include <sysconfig/ap.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "scctl/checkpoint_case.h"
#include "support/random.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

/* ---- what is copied ---- */

TEST_F(CheckpointTest, EveryAreaThatCanBeSaved_IsCopiedAsItIs_WithoutAnyArchive) {
  for (const EditedTable& table : edited_tables()) {
    done({"add", table.name, table.key});
  }
  ASSERT_TRUE(fs::is_empty("/var/dataconfig"));
  EXPECT_EQ(done({"checkpoint", "all"}), "");
  for (const std::string& name : saved_areas()) {
    const Image live = image(name);
    const std::string copy = unpacked("all", name);
    ASSERT_EQ(copy.size(), live.size()) << name;
    EXPECT_TRUE(live.matches(copy.data())) << name;
  }
  size_t files = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder("all"))) ++files;
  EXPECT_EQ(files, saved_areas().size() + 1);
  EXPECT_TRUE(is_good("all"));
}

TEST_F(CheckpointTest, AnAreaThatDoesNotExist_IsLeftOut) {
  done({"remove", "Qos"});
  done({"checkpoint", "most"});
  EXPECT_FALSE(exists(packed("most", "Qos")));
  EXPECT_TRUE(exists(packed("most", "Lan")));
  EXPECT_EQ(run(scctl({"rollback", "most", "Qos"})),
            (Outcome{3, "", "scctl: checkpoint:most does not hold area Qos\n"}));
}

TEST_F(CheckpointTest, WithoutAnyArea_NothingIsMade) {
  done({"remove", "--all"});
  EXPECT_EQ(run(scctl({"checkpoint", "none"})),
            (Outcome{3, "", "scctl: no area exists; scctl init --all creates them\n"}));
  EXPECT_EQ(names(), std::set<std::string>{});
}

/* Sets a value in two areas over and over, under the locks of both records, with a pause between the
 * two. It takes the locks in the order that is the reverse of the areas'. */
class PairWriter {
 public:
  PairWriter(uint32_t* one, uint32_t* other) : pid_(fork()) {
    if (pid_ != 0) return;
    const int files[] = {open(golden_area("Clients").lock_path.c_str(), O_RDWR),
                         open(golden_area("Lan").lock_path.c_str(), O_RDWR)};
    for (uint32_t value = 1;; ++value) {
      for (const int file : files) sc_lock_reg(file, F_SETLKW, F_WRLCK, 2, SEEK_SET, 1);
      memcpy(one, &value, sizeof value); /* at any address */
      usleep(2000);
      memcpy(other, &value, sizeof value);
      for (const int file : files) sc_lock_reg(file, F_SETLKW, F_UNLCK, 2, SEEK_SET, 1);
      usleep(2000);
    }
  }
  ~PairWriter() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  PairWriter(const PairWriter&) = delete;
  PairWriter& operator=(const PairWriter&) = delete;

 private:
  pid_t pid_;
};

TEST_F(CheckpointTest, WhatIsWrittenInTwoAreasUnderTheirLocks_IsNeverMixed) {
  const EditedTable &lan = edited_table("lan_binds"), &clients = edited_table("clients");
  const size_t in_lan = record_at(lan, 1) + lan.field_at,
               in_clients = record_at(clients, 1) + clients.field_at;
  PairWriter writer(reinterpret_cast<uint32_t*>(block("Clients") + in_clients),
                    reinterpret_cast<uint32_t*>(block("Lan") + in_lan));
  std::set<std::string> values;
  for (int n = 0; n < 12; ++n) {
    const std::string name = "n" + std::to_string(n);
    EXPECT_EQ(done({"checkpoint", name}), "");
    const std::string value = unpacked(name, "Lan").substr(in_lan, 4);
    EXPECT_EQ(value, unpacked(name, "Clients").substr(in_clients, 4));
    values.insert(value);
  }
  EXPECT_GT(values.size(), 6u); /* it was written meanwhile */
}

TEST_F(CheckpointTest, AByteThatIsHeldForAWhile_IsWaitedFor) {
  LockHolder holder(lock_file("Lan"), 2);
  Program program(scctl({"checkpoint", "a"}));
  usleep(300'000);
  EXPECT_FALSE(program.ended());
  holder.release();
  EXPECT_EQ(program.wait(), (Outcome{0, "", ""}));
  EXPECT_TRUE(listed("a").ends_with("in one moment"));
}

TEST_F(CheckpointTest, AByteThatIsHeldForLonger_CostsTheOneMomentAndIsSaid) {
  done({"add", "lan_binds", "mac=00:11:22:33:44:55"});
  LockHolder holder(lock_file("Lan"), 2);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(run(scctl({"checkpoint", "a"})),
            (Outcome{0, "",
                     "scctl: checkpoint a is copied area by area, not in one moment: records of "
                     "area Lan were locked for a second; Lan without its locks\n"}));
  /* A second for all areas, and one for this one. */
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_TRUE(listed("a").ends_with("area by area"));
  const std::string copy = unpacked("a", "Lan");
  EXPECT_TRUE(image("Lan").matches(copy.data()));
}

/* The settings of some areas have no byte of their own: writers hold byte 1, as a save does. */
TEST_F(CheckpointTest, Byte1_CountsWhereItGuardsARecord) {
  const auto is_waited_for = [&](const std::string& area_name) {
    LockHolder holder(lock_file(area_name), 1);
    const Outcome outcome = run(scctl({"checkpoint", area_name}));
    EXPECT_EQ(outcome.status, 0);
    return outcome.err != "";
  };
  EXPECT_TRUE(is_waited_for("Lan"));
  EXPECT_FALSE(is_waited_for("Qos"));
}

TEST_F(CheckpointTest, EditorsAreNotWaitedFor) {
  LockHolder holder(lock_file("Qos"), 0);
  EXPECT_EQ(done({"checkpoint", "a"}), "");
}

/* ---- names ---- */

TEST_F(CheckpointTest, AWrongName_IsRefused) {
  for (const std::string name :
       {"", ".", "..", ".hidden", "a/b", "../a", "a b", "a:b", "a\n", "\xc3\xa4", "a*"}) {
    EXPECT_EQ(run(scctl({"checkpoint", "--", name})).status, 1) << name;
  }
  EXPECT_EQ(run(scctl({"checkpoint", std::string(32, 'a')})).status, 1);
  EXPECT_FALSE(exists(kFolder));
}

TEST_F(CheckpointTest, EveryOtherName_IsTaken) {
  const std::set<std::string> all = {std::string(31, 'a'), "-x", "A.b_c-0", "Z9."};
  for (const std::string& name : all) done({"checkpoint", "--", name});
  EXPECT_EQ(names(), all);
  for (const std::string& name : all) {
    EXPECT_TRUE(is_good(name)) << name;
    EXPECT_EQ(done({"rollback", "--", name}), "tables changed: 0\n");
    done({"checkpoint", "--delete", "--", name});
  }
  EXPECT_EQ(names(), std::set<std::string>{});
}

TEST_F(CheckpointTest, AnExistingName_IsRefusedAndItsFilesStay) {
  done({"checkpoint", "a"});
  const std::string before = read_file(manifest("a"));
  done({"add", "lan_binds", "mac=00:11:22:33:44:55"});
  EXPECT_EQ(
      run(scctl({"checkpoint", "a"})),
      (Outcome{1, "", "scctl: checkpoint a exists; scctl checkpoint --delete a removes it\n"}));
  EXPECT_EQ(read_file(manifest("a")), before);
  EXPECT_EQ(names(), std::set<std::string>{"a"});
}

TEST_F(CheckpointTest, Delete_RemovesThisOneAlone) {
  for (const char* name : {"a", "before"}) done({"checkpoint", name});
  EXPECT_EQ(done({"checkpoint", "--delete", "a"}), "");
  EXPECT_EQ(names(), std::set<std::string>{"before"});
  EXPECT_EQ(run(scctl({"checkpoint", "--delete", "befor"})),
            (Outcome{3, "", "scctl: unknown checkpoint 'befor'; the nearest is before\n"}));
  EXPECT_EQ(run(scctl({"checkpoint", "--delete", "../checkpoints"})).status, 3);
  EXPECT_EQ(names(), std::set<std::string>{"before"});
}

TEST_F(CheckpointTest, OneThatCannotBeDeleted_StaysListedUntilItCan) {
  done({"checkpoint", "a"});
  const std::string foreign = std::string(kFolder) + "/a/folder";
  mkdir(foreign.c_str(), 0755);
  EXPECT_EQ(run(scctl({"checkpoint", "--delete", "a"})),
            (Outcome{3, "", "scctl: checkpoint a: Directory not empty\n"}));
  EXPECT_EQ(names(), std::set<std::string>{"a"});
  EXPECT_NE(done({"checkpoints"}).find("broken"), std::string::npos);
  rmdir(foreign.c_str());
  done({"checkpoint", "--delete", "a"});
  EXPECT_EQ(names(), std::set<std::string>{});
}

TEST_F(CheckpointTest, WhileAnotherOneIsMade_NoneIsMadeOrDeleted) {
  done({"checkpoint", "a"});
  const int store = open(kFolder, O_RDONLY);
  ASSERT_EQ(flock(store, LOCK_EX), 0);
  const Outcome refused = {
      1, "", std::string("scctl: ") + kFolder + ": another checkpoint is being made or deleted\n"};
  EXPECT_EQ(run(scctl({"checkpoint", "b"})), refused);
  EXPECT_EQ(run(scctl({"checkpoint", "--delete", "a"})), refused);
  EXPECT_EQ(names(), std::set<std::string>{"a"});
  close(store);
}

TEST_F(CheckpointTest, WhatAKilledCommandLeft_IsRemovedByTheNext) {
  done({"checkpoint", "a"});
  for (const Words& words : {Words{"checkpoint", "b"}, Words{"checkpoint", "--delete", "b"}}) {
    for (const char* left : {".c.new", ".d.old"}) {
      fs::create_directory(folder(left));
      write_file(folder(left) + "/config_lan.cfg.gz", "half");
    }
    done(words);
    for (const std::string& name : names()) EXPECT_NE(name[0], '.') << name;
    EXPECT_TRUE(is_good("a"));
  }
}

/* ---- broken ones ---- */

TEST_F(CheckpointTest, ABrokenFile_IsFoundAndNothingOfItsCheckpointIsApplied) {
  done({"checkpoint", "older"});
  for (const EditedTable& table : edited_tables()) {
    if (table.area != "ApUserList") done({"add", table.name, table.key});
  }
  for (const std::string& name : saved_areas()) block(name)[golden_area(name).size - 1] ^= 1;
  done({"checkpoint", "a"});
  done({"clear", "lan_binds"});
  const Image lan = image("Lan");
  for (const std::string file : {"manifest", "config_lan.cfg.gz", "config_clients.cfg.gz"}) {
    const std::string path = folder("a") + "/" + file;
    const std::string good = read_file(path);
    std::vector<std::string> bad = {"", good.substr(0, good.size() / 2),
                                    good.substr(0, good.size() - 1), good + good,
                                    read_file(folder("older") + "/" + file)};
    for (const size_t at : {size_t{26}, good.size() / 2}) { /* of the manifest: time, sums */
      bad.push_back(good);
      bad.back()[at] ^= 4;
    }
    /* The manifest of the older one is whole, but of other images. */
    const std::string fault = file == "manifest" ? "" : file;
    for (size_t n = 0; n <= bad.size(); ++n) {
      if (n < bad.size()) write_file(path, bad[n]);
      if (n == bad.size()) fs::remove(path);
      const std::string line = listed("a");
      EXPECT_NE(line.find("broken: "), line.npos) << file << " " << n << "\n" << line;
      EXPECT_NE(line.find(fault), line.npos) << line;
      const Outcome outcome = run(scctl({"rollback", "a", "Lan"}));
      EXPECT_EQ(outcome.status, 3) << file << " " << n;
      EXPECT_EQ(outcome.out, "");
      EXPECT_TRUE(outcome.err.starts_with("scctl: checkpoint a: broken: ")) << outcome.err;
      EXPECT_TRUE(lan.matches(block("Lan")));
      EXPECT_EQ(run(scctl({"diff", "checkpoint:a", "live"})).status, 3);
    }
    write_file(path, good);
  }
  EXPECT_TRUE(is_good("a"));
  EXPECT_TRUE(is_good("older"));
}

/* As another version may write it. */
TEST_F(CheckpointTest, AManifestWithAnAreaThatIsUnknownOrThereTwice_IsBroken) {
  done({"checkpoint", "a"});
  std::string good = read_file(manifest("a"));
  good.erase(good.rfind("sum "));
  const size_t at = good.find("\nqos ") + 1;
  const std::string qos = good.substr(at, good.find('\n', at) + 1 - at);
  for (const std::string& text : {good, good + qos, good + "x" + qos}) {
    const bool is_whole = text == good;
    uint64_t sum = 0xcbf29ce484222325;
    for (const char byte : text) sum = (sum ^ static_cast<uint8_t>(byte)) * 0x100000001b3;
    char end[32];
    snprintf(end, sizeof end, "sum %016llx\n", static_cast<unsigned long long>(sum));
    write_file(manifest("a"), text + end);
    EXPECT_EQ(is_good("a"), is_whole) << text;
    EXPECT_EQ(run(scctl({"rollback", "a"})).status, is_whole ? 0 : 3) << text;
  }
}

/* ---- rollback ---- */

class RollbackTest : public CheckpointTest {
 protected:
  /* Two records in each table, and settings. */
  void make_store() {
    for (const EditedTable& table : edited_tables()) {
      if (table.area == "ApUserList") continue;
      done({"add", table.name, table.key});
      done({"set", record_name(table, 1), table.field});
      done(joined({"add", table.name}, other_key(table)));
    }
    for (const char* section : kSections) {
      done({"set", std::string(section) + "/1", "settings=01020304"});
    }
  }
  static constexpr const char* kSections[] = {
      "lan_settings", "wan", "wan_rest", "product_info", "misc_1", "misc_5", "default_template"};
};

TEST_F(RollbackTest, AfterEditsOfEveryTable_TheAreasAreEqualByteForByte) {
  make_store();
  done({"checkpoint", "a"});
  std::map<std::string, Image> before;
  for (const std::string& name : saved_areas()) before.emplace(name, image(name));
  std::string tables;
  for (const EditedTable& table : edited_tables()) {
    if (table.area == "ApUserList") continue;
    done({"del", record_name(table, 1)});
    done({"set", record_name(table, 2), table.field});
    done(joined({"add", table.name}, third_key(table)));
  }
  for (const char* section : kSections) {
    done({"set", std::string(section) + "/1", "settings=ff"});
  }
  for (const std::string& name : saved_areas()) {
    EXPECT_FALSE(before.at(name).matches(block(name))) << name;
  }
  Listener listener;
  const std::string said = done({"rollback", "a"});
  EXPECT_TRUE(said.ends_with("\ntables changed: 20\n")) << said;
  for (const std::string& name : saved_areas()) {
    EXPECT_TRUE(before.at(name).matches(block(name))) << name;
  }
  EXPECT_EQ(listener.codes().size(), saved_areas().size());
  EXPECT_EQ(done({"rollback", "a"}), "tables changed: 0\n");
  EXPECT_TRUE(listener.codes().empty());
}

TEST_F(RollbackTest, ADryRunOfATry_IsRefused) {
  done({"checkpoint", "a"});
  done({"add", "lan_binds/3", "mac=00:11:22:33:44:55"});
  EXPECT_EQ(run(scctl({"rollback", "a", "--dry-run", "--timeout", "60"})),
            (Outcome{2, "", "scctl: --dry-run and --timeout exclude each other\n"}));
  EXPECT_EQ(run(scctl({"revert"})).err, "scctl: no try runs\n");
}

TEST_F(RollbackTest, RecordsThatWereAddedSince_AreDeletedAndCounted) {
  done({"add", "lan_binds/3", "mac=00:11:22:33:44:55"});
  done({"checkpoint", "a"});
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:66", "ip=0.0.0.1"});
  done({"add", "aps/300", "ap_mac=02:61:62:63:64:65"});
  EXPECT_EQ(done({"rollback", "a"}),
            "lan_binds: 0 added, 0 changed, 1 deleted\naps: 0 added, 0 changed, 1 deleted\n"
            "tables changed: 2\n");
  EXPECT_EQ(block_as<LanBlock>("Lan")->lan_bind_count, 1u);
  EXPECT_EQ(done({"diff", "checkpoint:a", "live"}), "");
}

TEST_F(RollbackTest, AGroupThatWasDeletedWithItsRules_ComesBackWithThem) {
  done({"add", "ip_groups/2", "leading_text=office"});
  done({"add", "ip_filter/7", "leading_text=rule", "ip_mode=1", "ip_group_id=2"});
  done({"checkpoint", "a"});
  const Image groups = image("IpGroup"), rules = image("FwIpport");
  done({"del", "ip_groups/2"});
  done({"rollback", "a"});
  EXPECT_TRUE(groups.matches(block("IpGroup")));
  EXPECT_TRUE(rules.matches(block("FwIpport")));
}

TEST_F(RollbackTest, NamedAreas_AreChangedAlone) {
  make_store();
  done({"checkpoint", "a"});
  const Image qos = image("Qos");
  for (const char* record : {"lan_binds/2", "qos/2"}) done({"del", record});
  const Image lan = image("Lan");
  Listener listener;
  EXPECT_EQ(done({"rollback", "a", "Qos"}),
            "qos: 1 added, 0 changed, 0 deleted\ntables changed: 1\n");
  EXPECT_TRUE(lan.matches(block("Lan")));
  EXPECT_TRUE(qos.matches(block("Qos")));
  EXPECT_EQ(listener.codes(), one_of("Qos"));
}

TEST_F(RollbackTest, ADryRun_ShowsWhatWouldChangeAndChangesNothing) {
  make_store();
  done({"checkpoint", "a"});
  done({"set", "lan_binds/1", "name=other"});
  const Image lan = image("Lan");
  Listener listener;
  LockHolder editor(lock_file("Lan"), 0); /* nor does it wait for editors */
  EXPECT_EQ(done({"rollback", "a", "--dry-run"}),
            "lan_binds/1.name: other -> set\ntables to change: 1\n");
  EXPECT_TRUE(lan.matches(block("Lan")));
  EXPECT_TRUE(listener.codes().empty());
}

TEST_F(RollbackTest, AnAreaThatIsNotLive_IsFoundBeforeAnythingIsWritten) {
  make_store();
  done({"checkpoint", "a"});
  done({"clear", "lan_binds"});
  done({"remove", "Qos"});
  const Image lan = image("Lan");
  for (const Words& words : {Words{"rollback", "a"}, Words{"rollback", "a", "Lan", "Qos"}}) {
    EXPECT_EQ(run(scctl(words)),
              (Outcome{3, "", "scctl: area Qos does not exist; scctl init Qos creates it\n"}));
    EXPECT_TRUE(lan.matches(block("Lan")));
  }
  EXPECT_EQ(done({"rollback", "a", "Lan"}),
            "lan_binds: 2 added, 0 changed, 0 deleted\ntables changed: 1\n");
}

TEST_F(RollbackTest, AnUnknownAreaOrCheckpoint_IsRefused) {
  done({"checkpoint", "before"});
  EXPECT_EQ(run(scctl({"rollback", "before", "Lam"})),
            (Outcome{1, "", "scctl: unknown area 'Lam'; the nearest is Lan\n"}));
  EXPECT_EQ(run(scctl({"rollback", "beefore"})),
            (Outcome{3, "", "scctl: unknown checkpoint 'beefore'; the nearest is before\n"}));
  EXPECT_EQ(run(scctl({"rollback", ".."})),
            (Outcome{3, "", "scctl: unknown checkpoint '..'; scctl checkpoints lists them\n"}));
}

/* ---- room ---- */

/* While it lives, the folder of the archives is a small file system of its own. */
class SmallFlash {
 public:
  explicit SmallFlash(size_t size) {
    const std::string options = "size=" + std::to_string(size);
    EXPECT_EQ(mount("tmpfs", kFlash, "tmpfs", 0, options.c_str()), 0);
  }
  ~SmallFlash() { EXPECT_EQ(umount(kFlash), 0); }
  SmallFlash(const SmallFlash&) = delete;
  SmallFlash& operator=(const SmallFlash&) = delete;

  size_t free() const {
    struct statvfs room;
    EXPECT_EQ(statvfs(kFlash, &room), 0);
    return room.f_bavail * room.f_frsize;
  }

 private:
  static constexpr char kFlash[] = "/var/dataconfig";
};

constexpr size_t kKept = 64 * 1024;

std::string not_made(const std::string& lacks, size_t missing) {
  return "scctl: checkpoint a is not made: " + lacks + std::to_string(missing) +
         " bytes are missing: 64 KiB stay free\n";
}

TEST_F(CheckpointTest, WithoutTheRoomThatStaysFree_NothingIsBegun) {
  const SmallFlash flash(kKept - 8192);
  const size_t free = flash.free();
  ASSERT_LT(free, kKept);
  EXPECT_EQ(run(scctl({"checkpoint", "a"})), (Outcome{1, "", not_made("at least ", kKept - free)}));
  EXPECT_EQ(names(), std::set<std::string>{});
}

TEST_F(CheckpointTest, ACheckpointThatWouldLeaveTooLittle_IsRemovedAgain) {
  size_t used;
  {
    const SmallFlash flash(2 * kKept + 65536);
    const size_t before = flash.free();
    done({"checkpoint", "a"});
    used = before - flash.free();
    ASSERT_GT(used, 8192u);
  }
  {
    const SmallFlash flash(kKept + used);
    EXPECT_EQ(done({"checkpoint", "a"}), "");
    EXPECT_EQ(flash.free(), kKept);
  }
  const SmallFlash flash(kKept + used - 4096);
  EXPECT_EQ(run(scctl({"checkpoint", "a"})), (Outcome{1, "", not_made("", 4096)}));
  EXPECT_EQ(names(), std::set<std::string>{});
  EXPECT_EQ(flash.free(), kKept + used - 4096);
}

TEST_F(CheckpointTest, ADiskThatIsFullInTheMiddle_GetsItsRoomBack) {
  Random random(1);
  uint8_t* bytes = block("ManageApList");
  for (size_t n = 16'000; n < 1'000'000; ++n) bytes[n] = static_cast<uint8_t>(random.below(256));
  const SmallFlash flash(kKept + 32768);
  const size_t free = flash.free();
  EXPECT_EQ(run(scctl({"checkpoint", "a"})), (Outcome{1, "", not_made("at least ", kKept)}));
  EXPECT_EQ(names(), std::set<std::string>{});
  EXPECT_EQ(flash.free(), free);
}

TEST_F(CheckpointTest, AFolderThatIsMissingOrReadOnly_IsSaid) {
  done({"checkpoint", "a"});
  const auto refused = [](const std::string& why) {
    return Outcome{3, "", std::string("scctl: ") + kFolder + ": " + why + "\n"};
  };
  {
    const SmallFlash flash(1 << 20);
    ASSERT_EQ(mount(nullptr, "/var/dataconfig", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(run(scctl({"checkpoint", "b"})), refused("Read-only file system"));
    EXPECT_EQ(done({"checkpoints"}), done({"checkpoints"}));
  }
  fs::rename("/var/dataconfig", "/var/elsewhere");
  EXPECT_EQ(run(scctl({"checkpoint", "b"})), refused("No such file or directory"));
  EXPECT_EQ(done({"checkpoints", "--json"}), "[\n]\n");
  EXPECT_EQ(run(scctl({"rollback", "a"})).status, 3);
  fs::rename("/var/elsewhere", "/var/dataconfig");
  EXPECT_TRUE(is_good("a"));
}

TEST_F(CheckpointTest, WithoutGzip_NothingIsMadeAndNothingIsCalledBroken) {
  done({"checkpoint", "a"});
  const std::string path = getenv("PATH");
  const std::string first = path.substr(0, path.find(':'));
  ASSERT_FALSE(exists(first + "/gzip"));
  write_file(first + "/gzip", "#!/bin/sh\nexit 127\n"); /* what a shell without gzip does */
  fs::permissions(first + "/gzip", fs::perms::owner_all);
  const Outcome made = run(scctl({"checkpoint", "b"})), applied = run(scctl({"rollback", "a"}));
  fs::remove(first + "/gzip");
  EXPECT_EQ(made, (Outcome{3, "",
                           "scctl: checkpoint b is not made: config_lan.cfg.gz: gzip "
                           "failed\n"}));
  EXPECT_EQ(applied, (Outcome{3, "", "scctl: checkpoint a: not known: gzip could not be run\n"}));
  EXPECT_EQ(names(), std::set<std::string>{"a"});
}

}  // namespace
}  // namespace sc_test
