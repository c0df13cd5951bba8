/* What ends a try while it is made. */
#include <sysconfig/clients.h>
#include <sysconfig/lan.h>

#include <optional>

#include "scctl/tries.h"
#include "support/locks.h"

namespace sc_test {
namespace {

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

}  // namespace
}  // namespace sc_test
