/* Several processes at one table, and at one archive, at the same time. */
#include <sysconfig/clients.h>
#include <sysconfig/lan.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "support/areas.h"
#include "support/image.h"
#include "support/locks.h"
#include "support/output.h"
#include "support/world.h"

namespace {

using namespace sc_test;

constexpr int kProcesses = 4;

/* The processes of one test. All start their work together, once the last of them is there. */
class Crowd {
 public:
  explicit Crowd(const std::function<void(int process)>& work) {
    if (pipe(start_) < 0) throw std::runtime_error("pipe");
    for (int process = 0; process < kProcesses; ++process) {
      children_.push_back(std::make_unique<Child>([this, process, &work] {
        close(start_[1]);
        char token;
        if (read(start_[0], &token, 1) == 0) work(process);
      }));
    }
    close(start_[0]);
    close(start_[1]); /* every reader of the pipe comes to its end */
    for (auto& child : children_) EXPECT_EQ(child->wait(), 0);
  }

 private:
  int start_[2];
  std::vector<std::unique_ptr<Child>> children_;
};

/* Numbers that all processes of a test see. */
class SharedNumbers {
 public:
  explicit SharedNumbers(size_t count)
      : count_(count),
        numbers_(static_cast<int*>(mmap(nullptr, count * sizeof(int), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~SharedNumbers() { munmap(numbers_, count_ * sizeof(int)); }
  SharedNumbers(const SharedNumbers&) = delete;
  SharedNumbers& operator=(const SharedNumbers&) = delete;

  void raise(size_t at) { __atomic_fetch_add(&numbers_[at], 1, __ATOMIC_SEQ_CST); }
  int operator[](size_t at) const { return numbers_[at]; }

 private:
  size_t count_;
  int* numbers_;
};

class Contention : public World {
 protected:
  template <class Block>
  Block* fresh(const std::string& name) {
    area(name).init(1);
    return block_at<Block>(area(name).get());
  }
};

TEST_F(Contention, ProcessesThatClaimEveryRecordAtOnce_ClaimNoneTwice) {
  for (int round = 0; round < 10; ++round) {
    auto* block = fresh<LanBlock>("Lan");
    SharedNumbers claims(32);
    Crowd crowd([&](int) {
      for (int32_t at; (at = SC_Operate_System_List_GetDhcpdBind_Blank(block)) >= 0;) {
        claims.raise(static_cast<size_t>(at));
      }
    });
    for (size_t at = 0; at < 32; ++at) {
      EXPECT_EQ(claims[at], 1) << "position " << at << " in round " << round;
      EXPECT_EQ(block->lan_binds[at].slot_id, static_cast<int32_t>(at) + 1);
    }
    area("Lan").uninit();
  }
}

TEST_F(Contention, ProcessesThatAddDifferentClientsAtOnce_EachFindTheirsInTheTable) {
  auto* block = fresh<ClientsBlock>("Clients");
  constexpr uint32_t kEach = 300 / kProcesses;
  Crowd crowd([&](int process) {
    ClientsItem item;
    memset(&item, 0, sizeof item);
    item.client_mac[0] = static_cast<uint8_t>(process + 1);
    for (uint32_t number = 0; number < kEach; ++number) {
      item.client_mac[1] = static_cast<uint8_t>(number);
      uint32_t position = 0xdead;
      ASSERT_EQ(SC_Operate_System_List_Clients(block, LIST_OP_ADD, &position, &item), 0);
      ASSERT_LT(position, 300u);
      ASSERT_EQ(memcmp(block->clients[position].client_mac, item.client_mac, 6), 0);
    }
  });
  std::set<std::string> macs;
  for (const ClientRecord& client : block->clients) {
    macs.insert(std::string(reinterpret_cast<const char*>(client.client_mac), 6));
  }
  EXPECT_EQ(macs.size(), 300u);
}

TEST_F(Contention, ProcessesThatModifyOneRecordAtOnce_NeverLeaveAMixture) {
  auto* block = fresh<LanBlock>("Lan");
  uint32_t first = 0;
  DhcpBindRecord record = {};
  ASSERT_EQ(SC_Operate_System_List_DhcpdBind(block, LIST_OP_ADD, &first, &record), 0);
  Crowd crowd([&](int process) {
    DhcpBindRecord mine;
    memset(&mine, 'a' + process, sizeof mine);
    uint32_t position = 0;
    for (int round = 0; round < 200; ++round) {
      ASSERT_EQ(SC_Operate_System_List_DhcpdBind(block, LIST_OP_MODIFY, &position, &mine), 0);
    }
  });
  const DhcpBindRecord& left = block->lan_binds[0];
  const char writer = left.bind_name[0];
  EXPECT_TRUE(writer >= 'a' && writer < 'a' + kProcesses) << writer;
  EXPECT_EQ(left.bind_flag, writer);
  EXPECT_EQ(std::string(left.bind_mac, 20), std::string(20, writer));
  EXPECT_EQ(left.bind_ip, static_cast<uint32_t>(writer) * 0x01010101u);
  EXPECT_EQ(std::string(left.bind_name, 200), std::string(200, writer));
}

TEST_F(Contention, ProcessesThatAddAndDeleteAtOnce_LeaveOnlyFreeRecordsOfTheirOwnSlots) {
  auto* block = fresh<LanBlock>("Lan");
  Crowd crowd([&](int process) {
    DhcpBindRecord mine = {};
    mine.bind_mac[0] = static_cast<char>('a' + process);
    mine.bind_ip = static_cast<uint32_t>(process) + 1;
    for (int round = 0; round < 100; ++round) {
      uint32_t position = 0xdead;
      /* A clash is possible too: a claimed record still shows its last payload. */
      const int32_t result = SC_Operate_System_List_DhcpdBind(block, LIST_OP_ADD, &position, &mine);
      if (result == SC_LIST_REJECTED) continue;
      ASSERT_EQ(result, SC_LIST_OK);
      ASSERT_EQ(block->lan_binds[position].slot_id, static_cast<int32_t>(position) + 1);
      ASSERT_EQ(block->lan_binds[position].bind_mac[0], mine.bind_mac[0]);
      ASSERT_EQ(SC_Operate_System_List_DhcpdBind(block, LIST_OP_DEL, &position, nullptr), 0);
    }
  });
  for (const DhcpBindRecord& record : block->lan_binds) EXPECT_EQ(record.slot_id, -1);
}

TEST_F(Contention, ProcessesThatSaveOneAreaAtOnce_LeaveAWholeArchive) {
  auto* block = fresh<LanBlock>("Lan");
  fill(block->lan_settings, sizeof block->lan_settings, 1);
  const Image expected(block, sizeof *block);
  EXPECT_EQ(capture([&] {
              Crowd crowd([&](int) {
                for (int round = 0; round < 3; ++round) area("Lan").save_to_flash(block);
              });
            }).out,
            "");
  area("Lan").uninit();
  area("Lan").init(1);
  EXPECT_TRUE(expected.matches(block_at(area("Lan").get())));
}

}  // namespace
