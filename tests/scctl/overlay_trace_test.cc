/* Members written, looked at from call to call. */
#include <fcntl.h>
#include <sys/syscall.h>

#include "scctl/lock_calls.h"
#include "scctl/overlay_case.h"
#include "support/trace.h"

namespace sc_test {
namespace {

class TraceOverlayTest : public OverlayTest {};

TEST_F(TraceOverlayTest, AMember_IsWrittenUnderItsLockAndAnnouncedBehindIt) {
  make_section();
  const Image before = image("Wan");
  Listener listener;
  std::vector<std::string> steps;
  const Words words = scctl(with_overlay({"set", "wan/1", "mtu=1400", "bits.b=1"}));
  bool is_reading = true;
  trace(words, [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    const std::string state = before.matches(block("Wan")) ? "old" : "new";
    if (call.is_done && lock.is_lock && lock.first == 0) is_reading = false;
    if (call.is_done && lock.is_lock && !is_reading) {
      steps.push_back((lock.type == F_UNLCK ? "unlock "
                       : lock.waits         ? "wait "
                                            : "try ") +
                      std::to_string(lock.first) + "+" + std::to_string(lock.count) + " " + state);
    }
    if (!call.is_done && call.call == SYS_connect) steps.push_back("connect " + state);
    return Fate{};
  });
  EXPECT_EQ(steps, (std::vector<std::string>{"wait 0+1 old", "wait 2+1 old", "unlock 2+1 new",
                                             "connect new"}));
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{2});
}

/* A bit's byte is read again when the record is held: what another program wrote into its other bits
 * meanwhile stays. */
TEST_F(TraceOverlayTest, OtherBitsThatChangeBeforeTheLock_Stay) {
  make_section();
  bool is_held = false;
  trace(scctl(with_overlay({"set", "wan/1", "bits.b=1"})), [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    if (!call.is_done && lock.is_lock && lock.first == 2 && lock.waits) {
      is_held = true;
      block("Wan")[kWan + 6] = 0xf1; /* right before the record is locked */
      block("Wan")[kWan + 4] = 0x99;
    }
    return Fate{};
  });
  EXPECT_TRUE(is_held);
  EXPECT_EQ(block("Wan")[kWan + 6], 0xf3);
  EXPECT_EQ(block("Wan")[kWan + 4], 0x99);
}

/* A condition that changes before the area is held decides: nothing is written under names that the
 * record has no more. */
TEST_F(TraceOverlayTest, AConditionThatChangesBeforeTheAreaIsHeld_StopsTheChange) {
  make_section();
  shown({"set", "wan/1", "mode=pppoe"});
  const Outcome outcome =
      trace(scctl(with_overlay({"set", "wan/1", "peer=10.0.0.1"})), [&](const SystemCall& call) {
        const LockCall lock = lock_call(call);
        if (!call.is_done && lock.is_lock && lock.first == 0) block("Wan")[kWan + 8] = 1;
        return Fate{};
      });
  EXPECT_EQ(outcome, (Outcome{1, "", "scctl: wan/1 was changed by another program meanwhile\n"}));
  EXPECT_EQ(block("Wan")[kWan + 160], 0);
}

/* The same for the record: the condition that counts is the one under its lock. */
TEST_F(TraceOverlayTest, AConditionThatChangesBeforeTheRecordIsHeld_StopsTheChange) {
  make_section();
  shown({"set", "wan/1", "mode=pppoe"});
  const Outcome outcome =
      trace(scctl(with_overlay({"set", "wan/1", "peer=10.0.0.1"})), [&](const SystemCall& call) {
        const LockCall lock = lock_call(call);
        if (!call.is_done && lock.is_lock && lock.first == 2 && lock.waits) {
          block("Wan")[kWan + 8] = 1;
        }
        return Fate{};
      });
  EXPECT_EQ(outcome, (Outcome{1, "", "scctl: wan/1 was changed by another program meanwhile\n"}));
  EXPECT_EQ(block("Wan")[kWan + 160], 0);
}

}  // namespace
}  // namespace sc_test
