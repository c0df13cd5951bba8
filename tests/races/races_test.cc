/* Processes that add, modify, delete, list and save in every table at once, undisturbed, killed or
 * interrupted at random moments.
 *
 *   SC_TEST_OPERATIONS=1000000 build/host/tests/races_test     the long form, per test
 */
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <sysconfig/ap.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <new>

#include "model/model.h"
#include "races/tables.h"
#include "races/worker.h"
#include "support/output.h"
#include "support/random.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;

constexpr uint32_t kUsualOperations = 20'000, kRound = 50'000;
constexpr int kPatience = 60; /* seconds without any operation: something is stuck */

class Races : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    shared = new (memory) Shared();
    struct sigaction action = {}; /* for the workers, which inherit it */
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_flags = 0;
    sigaction(SIGUSR2, &action, nullptr);
    for (uint32_t list = 0; list < kLists; ++list) {
      const ListRow& row = list_rows()[list];
      tables[list] = {row.area,       row.base,    row.stride,
                      row.capacity,   row.lock_at, static_cast<uint32_t>(row.first_lock_index),
                      block(row.area)};
    }
    for (uint32_t table = kLists; table < kTables; ++table) {
      const IdTableRow& row = id_table_rows()[table - kLists];
      tables[table] = {row.area,       row.base,    row.stride,
                       row.capacity,   row.lock_at, row.first_lock_index,
                       block(row.area)};
    }
    blocks = blocks_at([&](const char* area) { return block(area); });
  }
  void TearDown() override {
    munmap(shared, sizeof(Shared));
    attached_.clear();
    World::TearDown();
  }

  uint8_t* block(const std::string& area) {
    uint8_t*& at = attached_[area];
    if (at == nullptr) at = started<uint8_t>(area);
    return at;
  }

  /* Rounds of operations, each on fresh tables: those that killed writers leave taken fill them. */
  void run(Disturbance disturbance, const std::function<void()>& expect_all_well) {
    const char* wanted = getenv("SC_TEST_OPERATIONS");
    uint32_t left =
        wanted == nullptr ? kUsualOperations : static_cast<uint32_t>(strtoul(wanted, nullptr, 10));
    Random random;
    Totals totals = {};
    while (left > 0 && !HasFailure()) {
      const uint32_t round = std::min(left, kRound);
      run_round(disturbance, round, random, totals);
      expect_no_lock_held();
      expect_sound_tables();
      expect_all_well();
      left -= round;
      TearDown();
      SetUp();
    }
    printf(
        "%u operations, %u records verified under their lock, %u kills, %u torn records, "
        "%u stops, %u signals, %u interrupted locks, %u saves\n",
        totals.operations, totals.verified, totals.kills, totals.torn, totals.stops, totals.signals,
        totals.interrupted_locks, totals.saves);
  }

  struct Totals {
    uint32_t operations, verified, kills, torn, stops, signals, interrupted_locks, saves;
  };

  /* Workers at work until they have done as many operations as wanted, with signals at random. */
  void run_round(Disturbance disturbance, uint32_t operations, Random& random, Totals& totals) {
    for (uint32_t worker = 0; worker < kWorkers; ++worker)
      start(worker, random.next(), disturbance);
    auto done = [&] {
      return shared->operations >= operations && (!disturbance.kills || shared->kills > 0) &&
             (!disturbance.interrupts || shared->interrupted_locks > 0);
    };
    uint32_t last = 0;
    time_t moved = time(nullptr);
    while (!done() && shared->violations == 0) {
      usleep(random.below(disturbance.interrupts ? 100 : 1500));
      const uint32_t worker = random.below(kWorkers);
      const uint32_t choice = random.below(100);
      if (choice < 10) {
        kill(pids_[worker], SIGSTOP);
        usleep(random.below(3000));
        kill(pids_[worker], SIGCONT);
        ++totals.stops;
      } else if (choice < (disturbance.interrupts ? 12 : 40) && disturbance.kills) {
        shared->repairing = 1;
        kill(-pids_[worker], SIGKILL); /* with the commands that it runs */
        waitpid(pids_[worker], nullptr, 0);
        ++shared->kills;
        remove_traces(worker);
        shared->repairing = 0;
        start(worker, random.next(), disturbance);
      } else {
        kill(pids_[worker], disturbance.interrupts && choice % 4 != 0 ? SIGUSR2 : SIGUSR1);
        ++totals.signals;
      }
      if (shared->operations != last) {
        last = shared->operations;
        moved = time(nullptr);
      } else if (time(nullptr) - moved > kPatience) {
        violation("no operation for %d seconds", kPatience);
      }
    }
    shared->stop = 1;
    for (pid_t pid : pids_) end(pid);

    totals.operations += shared->operations;
    totals.verified += shared->verified;
    totals.kills += shared->kills;
    totals.torn += shared->torn;
    totals.interrupted_locks += shared->interrupted_locks;
    totals.saves += shared->saves;
    for (uint32_t i = 0; i < shared->violations && i < kMostMessages; ++i) {
      ADD_FAILURE() << shared->messages[i];
    }
  }

  void start(uint32_t worker, uint64_t seed, Disturbance disturbance) {
    fflush(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    setpgid(pid, pid);
    if (pid == 0) {
      const int nowhere = open("/dev/null", O_WRONLY);
      dup2(nowhere, STDOUT_FILENO);
      dup2(nowhere, STDERR_FILENO);
      work(worker, seed, disturbance);
      _exit(0);
    }
    pids_[worker] = pid;
  }

  /* The worker is not stuck: it ends when it is told to. */
  static void end(pid_t pid) {
    for (int ms = 0; ms < kPatience * 1000; ++ms) {
      int status;
      if (waitpid(pid, &status, WNOHANG) == pid) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        return;
      }
      usleep(1000);
    }
    ADD_FAILURE() << "a worker is stuck";
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }

  /* What a killed writer leaves is a torn record at most, which a caller would write again, and
   * records that it owned. */
  static void remove_traces(uint32_t worker) {
    const uint32_t torn_table = shared->works_on[worker];
    for (uint32_t table = 0; table < kTables; ++table) {
      const bool bound = torn_table == kTemplates && table == kAps;
      if (table != torn_table && !bound) continue;
      for (uint32_t p = 0; p < tables[table].capacity; ++p) {
        uint8_t* record = tables[table].record(p);
        if (is_whole(record, payload(table))) continue;
        Held held(tables[table], p);
        if (is_whole(record, payload(table))) continue;
        for (const RunRow& run : payload(table)) memset(record + run.at, 0, run.width);
        ++shared->torn;
      }
    }
    for (uint32_t table = 0; table < kTables; ++table) {
      for (uint32_t p = 0; p < tables[table].capacity; ++p) {
        if (shared->owners[table][p] != worker + 1) continue;
        shared->owners[table][p] = 0;
        const uint8_t nothing[6] = {};
        const bool nameless = table == kAps || table == kUsers
                                  ? memcmp(mac_of(table, p), nothing, sizeof nothing) == 0
                                  : false;
        if (!nameless) remove(table, p); /* without a MAC it stays: it was killed right there */
      }
    }
  }

  static void expect_no_lock_held() {
    for (const Table& table : tables) {
      const std::string& path = lock_file(table.area);
      const int fd = open(path.c_str(), O_RDWR);
      struct flock lock = {};
      lock.l_type = F_WRLCK;
      ASSERT_EQ(fcntl(fd, F_GETLK, &lock), 0);
      EXPECT_EQ(lock.l_type, F_UNLCK) << path << " byte " << lock.l_start << " by " << lock.l_pid;
      close(fd);
    }
  }
  static void expect_sound_tables() {
    for (uint32_t table = 0; table < kTables; ++table) {
      for (uint32_t p = 0; p < tables[table].capacity; ++p) {
        const uint8_t* record = tables[table].record(p);
        EXPECT_EQ(load(record + tables[table].lock_at, 4), tables[table].first_lock_index + p)
            << "lock index of table " << table << " record " << p;
        const bool listed = table < kLists;
        const uint32_t mark =
            load(record + (listed ? list_rows()[table].slot_at : unlocked_word(table)), 4);
        EXPECT_TRUE(mark == p + 1 || mark == (listed ? 0xffffffff : 0))
            << "mark " << mark << " of table " << table << " record " << p;
      }
    }
  }
  static void expect_whole_records() {
    for (uint32_t table = 0; table < kTables; ++table) {
      for (uint32_t p = 0; p < tables[table].capacity; ++p) {
        EXPECT_TRUE(is_whole(tables[table].record(p), payload(table)))
            << "table " << table << " record " << p;
      }
    }
  }
  /* Every record that somebody owns is used. */
  static void expect_owned_records_used() {
    for (uint32_t table = 0; table < kTables; ++table) {
      for (uint32_t p = 0; p < tables[table].capacity; ++p) {
        const uint32_t owner = shared->owners[table][p];
        if (owner == 0) continue;
        const uint32_t at = table < kLists ? list_rows()[table].slot_at : unlocked_word(table);
        EXPECT_EQ(load(tables[table].record(p) + at, 4), p + 1)
            << "table " << table << " record " << p;
      }
    }
  }

  std::map<std::string, uint8_t*> attached_;
  pid_t pids_[kWorkers];
};

TEST_F(Races, Undisturbed_EveryRecordIsClaimedOnceAndWholeAndEveryCounterTheSum) {
  run({.kills = false, .interrupts = false}, [] {
    expect_whole_records();
    expect_owned_records_used();
    for (uint32_t list = 0; list < kLists; ++list) {
      const ListRow& row = list_rows()[list];
      if (row.counter_width == 0) continue;
      const uint32_t mask = row.counter_width == 2 ? 0xffff : 0xffffffff;
      EXPECT_EQ(load(tables[list].block + row.counter_at, row.counter_width),
                shared->counted[list] & mask)
          << row.name;
    }
  });
}

TEST_F(Races, Killed_NoLockStaysHeldAndEveryRecordIsClaimedOnceAndWhole) {
  run({.kills = true, .interrupts = false}, [] {
    expect_whole_records();
    expect_owned_records_used();
  });
}

/* A lock that a signal interrupts is not taken, and the change is made all the same: what stays is
 * that nothing gets stuck and no mark or lock index is lost. */
TEST_F(Races, KilledAndInterrupted_NoLockStaysHeldAndNoMarkIsLost) {
  run({.kills = true, .interrupts = true}, [] {});
}

/* ---- single instructions ---- */

/* The same work by all workers, begun at once. */
void at_once(const std::function<void()>& work) {
  Number& waiting = shared->works_on[0];
  waiting = 0;
  std::vector<std::unique_ptr<Child>> children;
  for (uint32_t worker = 0; worker < kWorkers; ++worker) {
    children.push_back(std::make_unique<Child>([&] {
      const int nowhere = open("/dev/null", O_WRONLY);
      dup2(nowhere, STDOUT_FILENO);
      dup2(nowhere, STDERR_FILENO);
      ++waiting;
      while (waiting < kWorkers) sched_yield();
      work();
    }));
  }
  for (auto& child : children) EXPECT_EQ(child->wait(), 0);
}

TEST_F(Races, ClaimsWithoutALock_TakeNoRecordTwice) {
  for (uint32_t round = 0; round < 30 && !HasFailure(); ++round) {
    at_once([] {
      for (const uint32_t table : {kAps, kUsers, kTemplates}) {
        for (int32_t at; (at = claim_id(table)) >= 0;) {
          ++shared->owners[table][static_cast<uint32_t>(at)];
        }
      }
    });
    for (const uint32_t table : {kAps, kUsers, kTemplates}) {
      for (uint32_t p = 0; p < tables[table].capacity; ++p) {
        EXPECT_EQ(shared->owners[table][p], 1u) << "table " << table << " record " << p;
        shared->owners[table][p] = 0;
        memset(tables[table].record(p) + unlocked_word(table), 0, 4);
      }
    }
  }
}

/* Without lock files a delete does little else than count. */
TEST_F(Races, CountersLoweredAtOnce_LoseNoCount) {
  constexpr uint32_t kTexts = 25, kIds = 100;
  std::string text = "33";
  for (uint32_t id = 1; id < kIds; ++id) text += "#33";
  for (uint32_t list = 0; list < kLists; ++list) {
    const ListRow& row = list_rows()[list];
    if (row.counter_width == 0) continue;
    memset(tables[list].block + 2, 0, 130);
    store(tables[list].block + row.counter_at, row.counter_width, 7);
    at_once([&] {
      for (uint32_t i = 0; i < kTexts; ++i) {
        std::string ids = text;
        kListCalls[list].del(tables[list].block, blocks, ids.data());
      }
    });
    const uint32_t mask = row.counter_width == 2 ? 0xffff : 0xffffffff;
    EXPECT_EQ(load(tables[list].block + row.counter_at, row.counter_width),
              (7 - kWorkers * kTexts * kIds) & mask)
        << row.name;
  }
}

}  // namespace
