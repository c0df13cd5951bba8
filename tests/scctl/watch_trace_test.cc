/* The system calls of scctl watch: what it must not do to those who change the store. */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <regex>
#include <string>

#include <sysconfig/core.h>
#include <sysconfig/lan.h>

#include "support/output.h"
#include "support/started.h"
#include "support/trace.h"
#include "support/world.h"

namespace sc_test {
namespace {

class TraceWatchTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    lan = started<LanBlock>("Lan");
    ASSERT_NE(lan, nullptr);
  }

  LanBlock* lan = nullptr;
};

bool is_open_of_lock_file(const SystemCall& call) {
  return (call.call == SYS_openat && call.text(1).starts_with("/var/lock_store/")) ||
         (call.call == SYS_open && call.text(0).starts_with("/var/lock_store/"));
}

TEST_F(TraceWatchTest, ItHasNoSocketAndTakesNoLock) {
  std::map<long, size_t> count;
  size_t waits = 0, opens = 0, questions = 0;
  bool is_default = false;
  const Outcome outcome = trace(scctl({"watch", "Lan"}), [&](const SystemCall& call) {
    if (call.is_done) return Fate{};
    ++count[call.call];
    if (is_open_of_lock_file(call)) {
      ++opens;
      EXPECT_EQ(call.arguments[call.call == SYS_openat ? 2 : 1] & O_ACCMODE, uint64_t{O_RDONLY});
    }
    if (call.call == SYS_rt_sigaction && call.arguments[0] == SIGCHLD && call.arguments[1] != 0) {
      is_default = call.bytes(1, 8) == std::string(8, '\0'); /* SIG_DFL, whatever it was */
    }
    if (call.call == SYS_fcntl && call.file(0).starts_with("/var/lock_store/")) {
      ++questions;
      EXPECT_EQ(call.arguments[1], uint64_t{F_GETLK});
    }
    /* The library changes a record each time that watch waits. */
    if (call.call == SYS_ppoll && ++waits <= 3) {
      DhcpStaticItem item = {};
      item.id = 1;
      item.flag = static_cast<int32_t>(waits);
      put_text(item.mac, "00:11:22:33:44:55");
      capture(
          [&] { waits == 1 ? AddDhcpStaticItem(lan, &item) : ModifyDhcpStaticItem(lan, &item); });
    }
    if (waits > 3 && call.call == SYS_ppoll) kill(call.process, SIGTERM);
    return Fate{};
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.out.find("lan_binds/1.flag: 2 -> 3\n"), std::string::npos) << outcome.out;
  EXPECT_TRUE(is_default);
  EXPECT_GE(opens, 3u);
  EXPECT_GE(questions, 3u);
  for (const long number : {SYS_socket, SYS_connect, SYS_bind, SYS_listen, SYS_accept, SYS_accept4,
                            SYS_sendto, SYS_unlink, SYS_unlinkat, SYS_rename, SYS_renameat2}) {
    EXPECT_EQ(count[number], 0u) << number;
  }
}

TEST_F(TraceWatchTest, ChangesOfAnAreaThatIsNotWatched_DoNotKeepItAwake) {
  started<WanBlock>("Wan");
  size_t waits = 0;
  bool sleeps = false;
  const Outcome outcome = trace(scctl({"watch", "Wan"}), [&](const SystemCall& call) {
    if (call.is_done || call.call != SYS_ppoll) return Fate{};
    if (++waits == 1) close(open("/var/lock_store/lan_conf_lock", O_RDWR));
    if (waits == 2) {
      sleeps = call.bytes(2, 8) != std::string(8, '\0');
      kill(call.process, SIGTERM);
    }
    return Fate{};
  });
  EXPECT_EQ(outcome, (Outcome{0, "watching\n", ""}));
  EXPECT_TRUE(sleeps);
}

TEST_F(TraceWatchTest, WithoutInotify_ItSaysSoAndLooksAllTheSame) {
  size_t waits = 0;
  const Outcome outcome = trace(scctl({"watch", "--count", "1"}), [&](const SystemCall& call) {
    if (call.is_done) return Fate{};
    if (call.call == SYS_inotify_init1) return Fate{Fate::kFails, EMFILE};
    if (call.call == SYS_ppoll && ++waits == 1) lan->lan_settings[3] = 1;
    return Fate{};
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_TRUE(outcome.out.starts_with("looking every 5 s: inotify: Too many open files\n"))
      << outcome.out;
  EXPECT_NE(outcome.out.find(" lan_settings/1.settings: 1 byte differs, at 3\n"), std::string::npos)
      << outcome.out;
  EXPECT_LE(waits, 3u);
}

TEST_F(TraceWatchTest, WithoutTheLockFolder_ItSaysSo_AndGoesOnWhenItIsThere) {
  std::filesystem::rename("/var/lock_store", "/var/away");
  size_t waits = 0;
  const Outcome outcome = trace(scctl({"watch", "--count", "2"}), [&](const SystemCall& call) {
    if (call.is_done || call.call != SYS_ppoll) return Fate{};
    if (++waits == 1) {
      std::filesystem::rename("/var/away", "/var/lock_store");
      lan->lan_settings[3] = 1;
    }
    if (waits == 2) {
      lan->lan_settings[3] = 2;
      close(open("/var/lock_store/lan_conf_lock", O_RDWR));
    }
    return Fate{};
  });
  EXPECT_EQ(outcome.status, 0);
  const std::string first =
      "looking every 5 s: /var/lock_store/: No such file or directory\nwatching\n";
  const std::string line = "\\d\\d:\\d\\d:\\d\\d lan_settings/1.settings: 1 byte differs, at 3\n";
  EXPECT_TRUE(std::regex_match(outcome.out, std::regex(first + line + line))) << outcome.out;
  EXPECT_LE(waits, 3u);
}

TEST_F(TraceWatchTest, ASignalInFrontOfTheWait_EndsItAtOnce) {
  const auto begun = std::chrono::steady_clock::now();
  size_t waits = 0;
  const Outcome outcome = trace(scctl({"watch"}), [&](const SystemCall& call) {
    if (!call.is_done && call.call == SYS_ppoll && ++waits == 1) kill(call.process, SIGTERM);
    return Fate{};
  });
  EXPECT_EQ(outcome, (Outcome{0, "watching\n", ""}));
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(3));
}

TEST_F(TraceWatchTest, ASignalBehindALine_LeavesItsCommand) {
  bool changed = false, sent = false;
  const Outcome outcome =
      trace(scctl({"watch", "Lan", "--exec", "echo $1 >/var/told"}), [&](const SystemCall& call) {
        if (call.is_done) return Fate{};
        if (call.call == SYS_ppoll && !changed) {
          changed = true;
          lan->lan_binds[0].slot_id = 1;
          close(open("/var/lock_store/lan_conf_lock", O_RDWR));
        } else if (changed && !sent && (call.call == SYS_clone || call.call == SYS_clone3)) {
          sent = true;
          kill(call.process, SIGTERM);
        }
        return Fate{};
      });
  EXPECT_TRUE(sent);
  EXPECT_EQ(outcome.status, 0);
  for (int tries = 0; tries < 400 && !exists("/var/told"); ++tries) poll(nullptr, 0, 10);
  ASSERT_TRUE(exists("/var/told"));
}

TEST_F(TraceWatchTest, AWaitThatIsInterrupted_IsWaitedOn) {
  size_t waits = 0;
  const Outcome outcome = trace(scctl({"watch", "--count", "1"}), [&](const SystemCall& call) {
    if (call.is_done || call.call != SYS_ppoll) return Fate{};
    ++waits;
    if (waits == 1) return Fate{Fate::kFails, EINTR};
    if (waits == 2) {
      lan->lan_binds[0].slot_id = 1;
      lan->lan_binds[0].bind_flag = 4;
      close(open("/var/lock_store/lan_conf_lock", O_RDWR));
    }
    return Fate{};
  });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.out.find(" lan_binds/1: added flag=4\n"), std::string::npos) << outcome.out;
}

}  // namespace
}  // namespace sc_test
