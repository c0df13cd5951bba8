/* Waits of scctl for locks that end without one. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>

#include <string>

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

}  // namespace
}  // namespace sc_test
