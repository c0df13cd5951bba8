/* Commands that read live records, beside programs that write them. */
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <vector>

#include <sysconfig/core.h>
#include <sysconfig/lan.h>

#include "support/locks.h"
#include "support/output.h"
#include "support/program.h"
#include "support/started.h"
#include "support/world.h"

namespace sc_test {
namespace {

constexpr char kLanLock[] = "/var/lock_store/lan_conf_lock";
constexpr char kProductLock[] = "/var/lock_store/product_conf_lock";

class ReadTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    lan = started<LanBlock>("Lan");
    ASSERT_NE(lan, nullptr);
    DhcpStaticItem item = {};
    put_text(item.name, "old");
    capture([&] { AddDhcpStaticItem(lan, &item); });
    lan->lan_binds[0].lock_index = 9; /* damaged: all programs lock the byte that it names */
  }

  void add(int number) {
    DhcpStaticItem item = {};
    put_text(item.name, "another");
    put_text(item.mac, "00:11:22:33:44:" + std::to_string(10 + number));
    put_text(item.ip, "192.168.1." + std::to_string(10 + number));
    capture([&] { EXPECT_EQ(AddDhcpStaticItem(lan, &item), SC_LIST_OK); });
  }

  LanBlock* lan = nullptr;
};

TEST_F(ReadTest, ARecord_IsReadUnderTheByteThatItNames) {
  LockHolder writer(kLanLock, 9);
  Program get(scctl({"get", "lan_binds/1.name"}));
  poll(nullptr, 0, 200);
  EXPECT_FALSE(get.ended());
  put_text(lan->lan_binds[0].bind_name, "new");
  writer.release();
  EXPECT_EQ(get.wait(), (Outcome{0, "new\n", ""}));
}

TEST_F(ReadTest, ARecord_DoesNotWaitForTheByteThatItDoesNotName) {
  LockHolder writer(kLanLock, 2);
  Program get(scctl({"get", "lan_binds/1.name"}));
  for (int ms = 0; ms < 700 && !get.ended(); ++ms) poll(nullptr, 0, 1);
  EXPECT_TRUE(get.ended());
  EXPECT_EQ(get.wait(), (Outcome{0, "old\n", ""}));
}

TEST_F(ReadTest, ARecordThatIsFreedWhileItIsWaitedFor_IsNotShown) {
  LockHolder writer(kLanLock, 9);
  Program list(scctl({"list", "lan_binds", "--json"}));
  poll(nullptr, 0, 200);
  EXPECT_FALSE(list.ended());
  lan->lan_binds[0].slot_id = -1;
  writer.release();
  EXPECT_EQ(list.wait(), (Outcome{0, "[]\n", ""}));
}

TEST_F(ReadTest, ARecordThatWasRead_IsNotHeldWhileTheNextIsWaitedFor) {
  add(2);
  LockHolder writer(kLanLock, 3);
  Program list(scctl({"list", "lan_binds"}));
  poll(nullptr, 0, 200);
  EXPECT_FALSE(list.ended());
  EXPECT_FALSE(is_locked(kLanLock, 9));
  writer.release();
  EXPECT_EQ(list.wait().status, 0);
}

TEST_F(ReadTest, RecordsThatAreAllHeld_AreWaitedForOnce) {
  using Clock = std::chrono::steady_clock;
  const auto time_of_list = [] {
    const auto begun = Clock::now();
    const Outcome outcome = run(scctl({"list", "lan_binds"}));
    EXPECT_NE(outcome.out.find("old"), std::string::npos) << outcome;
    return Clock::now() - begun;
  };
  std::vector<std::unique_ptr<LockHolder>> writers;
  writers.push_back(std::make_unique<LockHolder>(kLanLock, 9));
  const auto one = time_of_list();
  for (int position = 1; position < 7; ++position) {
    add(position);
    writers.push_back(std::make_unique<LockHolder>(kLanLock, 2 + position));
  }
  EXPECT_LT(time_of_list(), 3 * one); /* and not 7 times */
}

/* ---- the lock table ---- */

/* What "scctl locks" says in front of process and program. */
std::string locks_shown() {
  std::istringstream lines(run(scctl({"locks"})).out);
  std::string line, all;
  std::getline(lines, line); /* the heading */
  while (std::getline(lines, line)) all += line.substr(0, 45) + "\n";
  return all;
}

std::string row(const std::string& record, int byte, const std::string& state) {
  char text[64];
  snprintf(text, sizeof text, "Lan             %-16s  %4d  %-5s\n", record.c_str(), byte,
           state.c_str());
  return text;
}

TEST_F(ReadTest, Locks_TellEachByteOfARangeUpToTheLastRecord) {
  ASSERT_NE(started<ProductInfoBlock>("ProductInfo"), nullptr);
  const struct {
    const char* path;
    short type;
    off_t first, size;
    std::string shown;
  } kCases[] = {
      {kLanLock, F_RDLCK, 2, 1, row("lan_binds/1", 2, "reads")},
      {kLanLock, F_WRLCK, 33, 2, row("lan_binds/32", 33, "holds") + row("ac_binds/1", 34, "holds")},
      {kLanLock, F_WRLCK, 64, 0, row("ac_binds/31", 64, "holds") + row("ac_binds/32", 65, "holds")},
      {kLanLock, F_WRLCK, 65, 1000, row("ac_binds/32", 65, "holds")},
      {kLanLock, F_WRLCK, 0, 1, row("-", 0, "holds")},
      {kLanLock, F_WRLCK, 0, 2, row("-", 0, "holds") + row("the area", 1, "holds")},
      {kLanLock, F_WRLCK, 200, 1, row("-", 200, "holds")},
      {kLanLock, F_WRLCK, 200, 0, row("-", 200, "holds")},
      /* It has no other byte. */
      {kProductLock, F_WRLCK, 1, 0, "ProductInfo     the area             1  holds\n"},
  };
  for (const auto& lock : kCases) {
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    Child holder([&] {
      const int file = open(lock.path, O_RDWR | O_CLOEXEC);
      sc_lock_reg(file, F_SETLK, lock.type, lock.first, SEEK_SET, lock.size);
      close(told[1]);
      pause();
    });
    close(told[1]);
    char none;
    EXPECT_EQ(read(told[0], &none, 1), 0);
    close(told[0]);
    EXPECT_EQ(locks_shown(), lock.shown);
  }
}

/* Numbers of files count within a file system. */
TEST_F(ReadTest, ALockOfAFileOfTheSameNumberOnAnotherDevice_IsNotTaken) {
  struct stat file;
  ASSERT_EQ(stat(kLanLock, &file), 0);
  std::string table;
  for (const auto& [more_major, more_minor] : {std::pair{1u, 0u}, {0u, 1u}, {0u, 0u}}) {
    char line[160];
    snprintf(line, sizeof line, "1: POSIX  ADVISORY  WRITE %d %02x:%02x:%llu %u %u\n", getpid(),
             major(file.st_dev) + more_major, minor(file.st_dev) + more_minor,
             static_cast<unsigned long long>(file.st_ino), 4 - more_major - more_minor,
             4 - more_major - more_minor);
    table += line;
  }
  write_file("/var/table", table);
  ASSERT_EQ(mount("/var/table", "/proc/locks", nullptr, MS_BIND, nullptr), 0);
  const std::string shown = locks_shown();
  EXPECT_EQ(umount("/proc/locks"), 0);
  EXPECT_EQ(shown, row("lan_binds/3", 4, "holds"));
}

}  // namespace
}  // namespace sc_test
