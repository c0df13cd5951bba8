/* metrics: the text format of Prometheus, and figures that are right. */
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>

#include "scctl/shell.h"

namespace sc_test {
namespace {

class MetricsTest : public EditTest {
 protected:
  using Samples = std::map<std::string, long>;

  /* Reads the text, and fails the test where it breaks the format: each family has HELP and TYPE
   * once, before its samples, which stand together; names, labels and values are well formed; no
   * sample stands twice. */
  Samples read() {
    static const std::regex kHelp("# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) [^ ].*");
    static const std::regex kType("# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge)");
    static const std::regex kSample(
        "(([a-zA-Z_:][a-zA-Z0-9_:]*)\\{[a-zA-Z_][a-zA-Z0-9_]*=\"[^\"\\\\]*\"\\}) ([0-9]+)");
    Samples samples;
    std::set<std::string> families;
    std::string family, type;
    const std::string text = done({"metrics"});
    EXPECT_TRUE(text.ends_with('\n'));
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      std::smatch parts;
      if (std::regex_match(line, parts, kHelp)) {
        family = parts[1];
        type.clear();
        EXPECT_TRUE(families.insert(family).second) << line;
      } else if (std::regex_match(line, parts, kType)) {
        EXPECT_EQ(parts[1], family);
        type = parts[2];
        EXPECT_EQ(type == "counter", family.ends_with("_total")) << line;
      } else if (std::regex_match(line, parts, kSample)) {
        EXPECT_EQ(parts[2], family);
        EXPECT_NE(type, "") << line;
        EXPECT_TRUE(samples.emplace(parts[1], std::stol(parts[3])).second) << line;
      } else {
        ADD_FAILURE() << line;
      }
    }
    return samples;
  }
  static std::string of(const std::string& name, const std::string& area_name) {
    return "sysconfig_" + name + "{area=\"" + area_name + "\"}";
  }
};

TEST_F(MetricsTest, Tables_AreCounted) {
  Samples samples = read();
  EXPECT_EQ(samples.at("sysconfig_table_records{table=\"lan_binds\"}"), 0);
  EXPECT_EQ(samples.at("sysconfig_table_capacity{table=\"lan_binds\"}"), 32);
  EXPECT_EQ(samples.at("sysconfig_table_capacity{table=\"ap_users\"}"), 300);
  done({"add", "lan_binds/3", "name=x"});
  done({"add", "ap_users/300", "user_mac=02:00:00:00:00:04"});
  samples = read();
  EXPECT_EQ(samples.at("sysconfig_table_records{table=\"lan_binds\"}"), 1);
  EXPECT_EQ(samples.at("sysconfig_table_records{table=\"ap_users\"}"), 1);
}

TEST_F(MetricsTest, AnAreaThatIsNotThere_HasNoFiguresOfItsTables) {
  done({"remove", "Qos"});
  const Samples samples = read();
  EXPECT_EQ(samples.at(of("area_present", "Qos")), 0);
  EXPECT_EQ(samples.at(of("area_present", "Lan")), 1);
  EXPECT_EQ(samples.count("sysconfig_table_records{table=\"qos\"}"), 0u);
  EXPECT_EQ(samples.count(of("area_unsaved_records", "Qos")), 0u);
}

TEST_F(MetricsTest, ArchiveHealthAndAge_AndWhatIsNotSaved) {
  done({"add", "qos/1", "leading_text=x"});
  EXPECT_EQ(read().at(of("area_unsaved_records", "Qos")), 1);
  EXPECT_EQ(read().at(of("archive_good", "Qos")), 0);
  EXPECT_EQ(read().count(of("archive_age_seconds", "Qos")), 0u);
  done({"save", "Qos"});
  const std::string& archive = golden_area("Qos").archive_path;
  struct timespec times[2] = {};
  clock_gettime(CLOCK_REALTIME, &times[1]);
  times[1].tv_sec -= 5000;
  utimensat(AT_FDCWD, archive.c_str(), times, 0);
  Samples samples = read();
  EXPECT_EQ(samples.at(of("area_unsaved_records", "Qos")), 0);
  EXPECT_EQ(samples.at(of("archive_good", "Qos")), 1);
  EXPECT_GE(samples.at(of("archive_age_seconds", "Qos")), 5000);
  EXPECT_LT(samples.at(of("archive_age_seconds", "Qos")), 5100);
  done({"set", "qos/1", "leading_text=y"});
  done({"add", "qos/9", "leading_text=z"});
  EXPECT_EQ(read().at(of("area_unsaved_records", "Qos")), 2);
  truncate(archive.c_str(), 100);
  samples = read();
  EXPECT_EQ(samples.at(of("archive_good", "Qos")), 0);
  EXPECT_EQ(samples.at(of("area_unsaved_records", "Qos")), 2);
  for (const char* name : {"area_unsaved_records", "archive_good", "saves_total"}) {
    EXPECT_EQ(samples.count(of(name, "ApUserList")), 0u) << name;
  }
  /* A clock that was set back. */
  times[1].tv_sec += 10000;
  utimensat(AT_FDCWD, archive.c_str(), times, 0);
  EXPECT_EQ(read().at(of("archive_age_seconds", "Qos")), 0);
}

/* Without gzip nobody knows. */
TEST_F(MetricsTest, AnArchiveThatCannotBeJudged_IsNeitherGoodNorBad) {
  done({"save", "Qos"});
  const std::string path = getenv("PATH");
  mkdir("/var/none", 0755);
  write_script("/var/none/gzip", "exit 127\n");
  setenv("PATH", ("/var/none:" + path).c_str(), 1);
  const Samples samples = read();
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(samples.count(of("archive_good", "Qos")), 0u);
  EXPECT_EQ(samples.count(of("area_unsaved_records", "Qos")), 0u);
  EXPECT_EQ(samples.count(of("archive_age_seconds", "Qos")), 1u);
}

TEST_F(MetricsTest, WhatIsNoFile_HasNoAge) {
  std::filesystem::create_directory(golden_area("Qos").archive_path);
  EXPECT_EQ(read().count(of("archive_age_seconds", "Qos")), 0u);
}

TEST_F(MetricsTest, HoldersAndWaiters_AreProcesses) {
  LockHolder one(lock_file("Lan"), 5), other(lock_file("Lan"), 9);
  Program waiter(scctl({"add", "lan_binds/4", "name=x"})); /* byte 5 */
  ASSERT_TRUE(becomes_blocked(waiter.pid(), lock_file("Lan"), 5));
  const Samples samples = read();
  EXPECT_EQ(samples.at(of("lock_holders", "Lan")), 3); /* the waiter holds byte 0 */
  EXPECT_EQ(samples.at(of("lock_waiters", "Lan")), 1);
  EXPECT_EQ(samples.at(of("lock_holders", "Qos")), 0);
  one.release();
  EXPECT_EQ(waiter.wait().status, 0);
}

TEST_F(MetricsTest, AProcessThatHoldsTwoRecords_IsOneHolder) {
  Child child([] {
    const int file = open(lock_file("Lan").c_str(), O_RDWR);
    for (const off_t byte : {5, 9}) sc_lock_reg(file, F_SETLK, F_WRLCK, byte, SEEK_SET, 1);
    pause();
  });
  while (!is_locked(lock_file("Lan"), 9)) usleep(1000);
  EXPECT_EQ(read().at(of("lock_holders", "Lan")), 1);
}

TEST_F(MetricsTest, Saves_AreCountedExactlyAlsoAtOnce) {
  EXPECT_EQ(read().at(of("saves_total", "Lan")), 0);
  std::vector<std::unique_ptr<Program>> saves;
  for (int n = 0; n < 8; ++n) {
    for (const char* name : {"Lan", "Qos"}) {
      saves.push_back(std::make_unique<Program>(scctl({"save", name})));
    }
  }
  for (const auto& save : saves) EXPECT_EQ(save->wait(), (Outcome{0, "", ""}));
  EXPECT_EQ(read().at(of("saves_total", "Lan")), 8);
  EXPECT_EQ(read().at(of("saves_total", "Qos")), 8);
  EXPECT_EQ(read().at(of("saves_total", "Wan")), 0);
  done({"save", "--changed", "Lan"}); /* equal: not written */
  EXPECT_EQ(read().at(of("saves_total", "Lan")), 8);
}

TEST_F(MetricsTest, AnEditOfAFile_IsNoSave) {
  done({"save", "Lan"});
  const std::string archive = golden_area("Lan").archive_path;
  write_file("/var/copy.bin", read_file(archive));
  done({"try", "batch", "-"}, "set wan/1 settings=01\n"); /* its folder is open in the edit, too */
  done({"add", "lan_binds", "name=x", "--archive", "/var/copy.bin", "--in-place"});
  EXPECT_EQ(read().at(of("saves_total", "Lan")), 1);
  done({"revert"});
}

TEST_F(MetricsTest, ASaveThatIsNotVerified_IsNotCounted) {
  done({"add", "lan_binds/1", "name=x"});
  const ShellScctl in_path;
  write_script("/var/shell/tar", "scctl set lan_binds/1 name=y; PATH=${PATH#*:} exec tar \"$@\"\n");
  EXPECT_EQ(run(scctl({"save", "Lan"})).status, 1);
  unlink("/var/shell/tar");
  EXPECT_EQ(read().at(of("saves_total", "Lan")), 0);
}

}  // namespace
}  // namespace sc_test
