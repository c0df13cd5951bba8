/* Commands that read live records, beside programs that write them. */
#include <poll.h>

#include <sysconfig/lan.h>

#include "support/locks.h"
#include "support/output.h"
#include "support/program.h"
#include "support/started.h"
#include "support/world.h"

namespace sc_test {
namespace {

constexpr char kLanLock[] = "/var/lock_store/lan_conf_lock";

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

}  // namespace
}  // namespace sc_test
