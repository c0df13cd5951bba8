/* What does not go back with its try: records that wait for scctl revert, and records that stay; and
 * what a confirm takes for changes of the try. */
#include <sysconfig/lan.h>

#include "scctl/tries.h"
#include "support/locks.h"

namespace sc_test {
namespace {

class WaitingTest : public TryTest {
 protected:
  void SetUp() override {
    TryTest::SetUp();
    make_store();
    before_ = live();
  }
  /* A try deletes a record, and has ended while another one had its place. */
  void make_wait(const std::string& record, const Words& other) {
    start_try_of("del " + record + "\n");
    done(joined({"add", record}, other));
    EXPECT_EQ(revert_in_part(), record + ": it waits: its id is used by another record\n");
    done({"del", record});
  }
  Images before_;
};

TEST_F(WaitingTest, ARecordThatAnotherProgramHolds_WaitsOn) {
  make_wait("lan_binds/2", {"mac=00:11:22:33:44:77"});
  LockHolder foreign(lock_file("Lan"), block_as<LanBlock>("Lan")->lan_binds[1].lock_index);
  EXPECT_EQ(run_scctl({"revert"}), (Outcome{1,
                                            "taken back: 0 of 1 record that waited\n"
                                            "lan_binds/2: another program holds it\n",
                                            ""}));
  foreign.release();
  EXPECT_EQ(revert(), "taken back: 1 of 1 record that waited\n");
  expect_live(before_);
}

TEST_F(WaitingTest, RecordsOfSeveralTries_ReturnTogether) {
  make_wait("lan_binds/2", {"mac=00:11:22:33:44:77"});
  make_wait("clients/1", {"client_mac=02:00:00:00:00:77"});
  EXPECT_EQ(revert(), "taken back: 2 of 2 records that waited\n");
  expect_live(before_);
  EXPECT_EQ(refusal({"revert"}), "scctl: no try runs\n");
}

/* When it has taken the try back, nobody looks on. */
TEST_F(WaitingTest, WhatAGuardLeft_IsToldByTheStatus) {
  start_try_of("add lan_binds/7 mac=00:11:22:33:44:07 ip=10.0.0.7\n", 1);
  done({"set", "lan_binds/7", "name=foreign"});
  ASSERT_TRUE(becomes(is_over));
  const std::string status = run_scctl({"try", "--status"}).out;
  EXPECT_TRUE(status.ends_with("\nlan_binds/7: it was added, and changed since; it stays\n"))
      << status;
}

/* The archives differ from the areas in the try's own changes alone. */
TEST_F(WaitingTest, NoneOfATrysOwnChanges_IsTakenForAnotherPrograms) {
  done({"save", "--all"});
  for (const char* change : {"del lan_binds/2\n", "add lan_binds/9 mac=00:11:22:33:44:09\n",
                             "set lan_settings/1 settings=ff\n"}) {
    start_try_of(change);
    EXPECT_EQ(run_scctl({"confirm", "--only-mine"}), (Outcome{0, "", ""})) << change;
  }
}

}  // namespace
}  // namespace sc_test
