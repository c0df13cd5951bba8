/* Waits of scctl for locks that end without one, and its list of locks. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <sysconfig/lan.h>

#include "scctl/lock_calls.h"
#include "support/started.h"
#include "support/trace.h"
#include "support/world.h"

namespace sc_test {
namespace {

constexpr char kLanLock[] = "/var/lock_store/lan_conf_lock";

class TraceLockWaitTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    ASSERT_NE(started<LanBlock>("Lan"), nullptr);
  }

  const Words add_ = scctl({"add", "lan_binds", "mac=00:11:22:33:44:55"});
};

TEST_F(TraceLockWaitTest, AWaitThatIsInterruptedByNothing_IsWaitedOn) {
  int answers = 3;
  const Outcome outcome = trace(add_, [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    const bool ours = !call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 2;
    return ours && answers-- > 0 ? Fate{Fate::kFails, EINTR} : Fate{};
  });
  EXPECT_EQ(outcome, (Outcome{0, "added lan_binds/1\n", ""}));
  EXPECT_EQ(answers, -1);
}

TEST_F(TraceLockWaitTest, ASignalInFrontOfTheWait_IsSaidAndEndsIt) {
  bool sent = false;
  const Outcome outcome = trace(add_, [&](const SystemCall& call) {
    if (!call.is_done && call.call == SYS_openat && call.text(1) == kLanLock && !sent &&
        call.arguments[2] == (O_RDWR | O_CLOEXEC)) {
      sent = true;
      kill(call.process, SIGTERM);
    }
    return Fate{};
  });
  EXPECT_TRUE(sent);
  EXPECT_EQ(outcome, (Outcome{-SIGTERM, "",
                              std::string("scctl: ") + kLanLock +
                                  " cannot be locked: Interrupted system call\n"}));
}

/* A file in the place of the kernel's table, which has what the table would have in each reading. */
class TraceLockTableTest : public TraceLockWaitTest {
 protected:
  /* How many locks are listed where the first readings have so many, and all others have one. */
  size_t listed(const std::vector<int>& first_readings) {
    size_t reading = 0;
    const auto write_table = [&] {
      const int lines = reading < first_readings.size() ? first_readings[reading] : 1;
      ++reading;
      std::string table;
      for (int n = 0; n < lines; ++n) table += line();
      write_file("/var/table", table);
    };
    write_table();
    EXPECT_EQ(mount("/var/table", "/proc/locks", nullptr, MS_BIND, nullptr), 0);
    const Outcome outcome = trace(scctl({"locks", "--json"}), [&](const SystemCall& call) {
      if (!call.is_done && call.call == SYS_lseek && call.file(0) == "/proc/locks") write_table();
      return Fate{};
    });
    EXPECT_EQ(umount("/proc/locks"), 0);
    EXPECT_EQ(outcome.status, 0);
    size_t found = 0;
    for (size_t at = 0; (at = outcome.out.find("lan_binds/1", at)) != std::string::npos; ++at) {
      ++found;
    }
    return found;
  }

 private:
  static std::string line() {
    struct stat file;
    EXPECT_EQ(stat(kLanLock, &file), 0);
    char text[160];
    snprintf(text, sizeof text, "1: POSIX  ADVISORY  WRITE %d %02x:%02x:%llu 2 2\n", getpid(),
             major(file.st_dev), minor(file.st_dev), static_cast<unsigned long long>(file.st_ino));
    return text;
  }
};

TEST_F(TraceLockTableTest, ALockThatReadingsRepeat_IsListedOnce) {
  EXPECT_EQ(listed({2, 2, 2, 2, 2, 2, 2, 2, 2}), 1u);
  EXPECT_EQ(listed({1, 2, 1, 3}), 1u);
}

TEST_F(TraceLockTableTest, ALockThatThreeOfNineReadingsHave_IsListed) {
  EXPECT_EQ(listed({0, 0, 0, 0, 0, 0}), 1u);
  EXPECT_EQ(listed({1, 0, 0, 0, 1, 0, 0, 0}), 1u);
}

TEST_F(TraceLockTableTest, ALockThatTwoReadingsHave_IsNot) {
  EXPECT_EQ(listed({0, 0, 0, 0, 0, 0, 0}), 0u);
  EXPECT_EQ(listed({2, 2, 0, 0, 0, 0, 0, 0, 0}), 0u);
}

}  // namespace
}  // namespace sc_test
