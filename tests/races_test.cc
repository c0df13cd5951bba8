/* Processes that add, modify, delete, list and save in every table at once, undisturbed, killed or
 * interrupted at random moments.
 *
 *   SC_TEST_OPERATIONS=1000000 build/host/tests/races_test     the long form, per test
 *
 * Every payload is made of a stamp of its own, so that a mixture of two shows. What a process claims
 * it enters in a table of owners, where a second claim shows. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <sysconfig/ap.h>
#include <sysconfig/core.h>

#include <atomic>
#include <memory>
#include <new>

#include "model/list_calls.h"
#include "model/model.h"
#include "model/rows.h"
#include "support/areas.h"
#include "support/output.h"
#include "support/random.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;

constexpr uint32_t kLists = 11, kAps = 11, kUsers = 12, kTemplates = 13, kTables = 14;
constexpr uint32_t kMostRecords = 300, kWorkers = 6, kMostMessages = 8;
constexpr uint32_t kUsualOperations = 20'000, kRound = 50'000;
constexpr int kPatience = 60; /* seconds without any operation: something is stuck */

struct Disturbance {
  bool kills, interrupts;
};

/* ---- what all processes see ---- */

using Number = std::atomic<uint32_t>;

struct Shared {
  Number stop, stamps, operations, verified, saves, torn, interrupted_locks;
  Number kills, repairing; /* repairing from before a kill until its traces are removed */
  Number counted[kLists];  /* what the counter of a list has to be */
  Number owners[kTables][kMostRecords];
  Number works_on[kWorkers];
  Number violations;
  char messages[kMostMessages][200];
};

Shared* shared;

void violation(const char* format, ...) __attribute__((format(printf, 1, 2)));
void violation(const char* format, ...) {
  const uint32_t number = shared->violations++;
  if (number >= kMostMessages) return;
  va_list values;
  va_start(values, format);
  vsnprintf(shared->messages[number], sizeof shared->messages[number], format, values);
  va_end(values);
}

/* Different ones differ in both halves. */
uint32_t new_stamp() { return (shared->stamps++ + 1) * 2654435761u; }

/* ---- tables ---- */

/* A record's place and its lock, in any of the tables. */
struct Table {
  std::string area;
  uint32_t base, stride, capacity, lock_at, first_lock_index;
  uint8_t* block;

  uint8_t* record(uint32_t position) const { return block + base + stride * position; }
};

Table tables[kTables];
Blocks blocks;

/* Holds the record's lock as a caller of the library does. */
class Held {
 public:
  Held(const Table& table, uint32_t position)
      : fd_(open(golden_area(table.area).lock_path.c_str(), O_RDWR)),
        lock_index_(static_cast<off_t>(table.first_lock_index + position)) {
    locked_ = sc_lock_reg(fd_, F_SETLKW, F_WRLCK, lock_index_, SEEK_SET, 1) == 0;
    if (!locked_ && errno == EINTR) ++shared->interrupted_locks;
  }
  ~Held() {
    sc_lock_reg(fd_, F_SETLK, F_UNLCK, lock_index_, SEEK_SET, 1);
    close(fd_);
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

  bool locked() const { return locked_; }

 private:
  int fd_;
  off_t lock_index_;
  bool locked_;
};

/* The byte of a stamp that stands at an offset of a record: a letter, and never of another case. */
uint8_t letter(uint32_t stamp, size_t offset) {
  return static_cast<uint8_t>('a' + (stamp >> 4 * (offset % 8) & 15));
}

void put_stamp(uint8_t* record, const std::vector<RunRow>& runs, uint32_t stamp) {
  for (const RunRow& run : runs) {
    for (uint32_t i = 0; i < run.width; ++i) record[run.at + i] = letter(stamp, run.at + i);
  }
}

uint32_t stamp_at(const uint8_t* record, uint32_t at) {
  uint32_t stamp = 0;
  for (uint32_t i = at; i < at + 8; ++i) {
    stamp |= static_cast<uint32_t>(record[i] - 'a') << 4 * (i % 8);
  }
  return stamp;
}

/* All of the runs of one stamp, or all zero. */
bool is_whole(const uint8_t* record, const std::vector<RunRow>& runs) {
  uint32_t stamp = 0;
  bool stamped = false;
  for (const RunRow& run : runs) {
    if (run.width < 8) continue;
    stamped = record[run.at] != 0;
    stamp = stamp_at(record, run.at);
    break;
  }
  for (const RunRow& run : runs) {
    for (uint32_t i = 0; i < run.width; ++i) {
      if (record[run.at + i] != (stamped ? letter(stamp, run.at + i) : 0)) return false;
    }
  }
  return true;
}

/* What a table's writers write as one: the payload of a list, the binding of an AP, the name of a
 * template. */
const std::vector<RunRow>& payload(uint32_t table) {
  static const std::vector<RunRow> binding = {{349, 50}}, name = {{58, 50}}, nothing;
  if (table < kLists) return list_rows()[table].payload;
  return table == kAps ? binding : table == kTemplates ? name : nothing;
}

/* The word that is changed without the record's lock: the id of those that are claimed so. */
uint32_t unlocked_word(uint32_t table) {
  return table == kAps ? 11788u : table == kUsers || table == kTemplates ? 4u : ~0u;
}

uint8_t* mac_of(uint32_t table, uint32_t at) {
  constexpr uint32_t kMacAt[] = {236, 8, 11416};
  return tables[table].record(at) + kMacAt[table - kLists];
}

/* Claims a record of a table that has ids. */
int32_t claim_id(uint32_t table) {
  static const ApLimitsRecord limits = {{}, kMostRecords};
  uint8_t* block = tables[table].block;
  if (table == kAps) {
    return SC_Get_Ap_Info_Blank(reinterpret_cast<ManageApListBlock*>(block), &limits);
  }
  if (table == kUsers) {
    return SC_Get_ApUser_Info_Blank(reinterpret_cast<ApUserListBlock*>(block));
  }
  return SC_Get_AP_Template_Info_Blank(reinterpret_cast<ApTemplateListBlock*>(block));
}

/* Frees a record through the library. */
int32_t remove(uint32_t table, uint32_t at) {
  uint8_t* block = tables[table].block;
  if (table < kLists) return kListCalls[table].operate(block, LIST_OP_DEL, &at, nullptr);
  if (table == kTemplates) {
    return SC_Del_AP_Template_Info_By_Id(reinterpret_cast<ApTemplateListBlock*>(block), at);
  }
  uint8_t mac[6];
  memcpy(mac, mac_of(table, at), sizeof mac);
  return table == kAps ? SC_Del_Ap_Info_by_Mac(reinterpret_cast<ManageApListBlock*>(block), mac)
                       : SC_Del_ApUser_Info_by_Mac(reinterpret_cast<ApUserListBlock*>(block), mac);
}

/* ---- a worker ---- */

class Worker {
 public:
  Worker(uint32_t number, uint64_t seed, Disturbance disturbance)
      : number_(number), random_(seed), disturbance_(disturbance) {}

  void run() {
    while (shared->stop == 0) {
      const uint32_t table = random_.below(kTables);
      shared->works_on[number_] = table;
      if (table < kLists) {
        work_on_list(table);
      } else {
        work_on_ids(table);
      }
      ++shared->operations;
    }
  }

 private:
  uint32_t me() const { return number_ + 1; }

  /* Claims and the entries for them: a claim is entered after it, its entry removed before it. */
  void own(uint32_t table, uint32_t position) {
    if (disturbance_.interrupts) return; /* an interrupted lock is none */
    uint32_t nobody = 0;
    if (position >= tables[table].capacity) {
      violation("table %u: position %u claimed", table, position);
    } else if (!shared->owners[table][position].compare_exchange_strong(nobody, me())) {
      violation("table %u: position %u claimed by %u and %u", table, position, me(), nobody);
    }
  }
  bool owned(uint32_t table, uint32_t* position) {
    const uint32_t capacity = tables[table].capacity, start = random_.below(capacity);
    for (uint32_t i = 0; i < capacity; ++i) {
      *position = (start + i) % capacity;
      if (disturbance_.interrupts) return true;
      if (shared->owners[table][*position] == me()) return true;
    }
    return false;
  }
  void disown(uint32_t table, uint32_t position) {
    if (!disturbance_.interrupts) shared->owners[table][position] = 0;
  }

  void expect(const char* what, uint32_t table, int64_t result, std::initializer_list<int> fine) {
    for (int value : fine) {
      if (result == value) return;
    }
    violation("table %u: %s returned %lld", table, what, static_cast<long long>(result));
  }

  /* Few records, so that processes meet at them. */
  uint32_t position(uint32_t table) {
    return random_.below(random_.one_in(2) ? 3 : tables[table].capacity);
  }

  Bytes record(const ListRow& row, uint32_t stamp) {
    Bytes bytes(row.stride);
    put_stamp(bytes.data(), row.payload, stamp);
    put_stamp(bytes.data(), row.identity, stamp);
    return bytes;
  }
  Bytes item(const ListRow& row, uint32_t stamp, uint32_t id) {
    Bytes bytes(row.item_size);
    const Bytes from = record(row, stamp);
    to_item(row, from.data(), bytes.data());
    for (const RunRow& run : row.identity) put_stamp(bytes.data(), {run}, stamp);
    store(bytes.data() + row.id_at, 4, id);
    return bytes;
  }

  void work_on_list(uint32_t list) {
    const ListRow& row = list_rows()[list];
    const ListCalls& calls = kListCalls[list];
    uint8_t* block = tables[list].block;
    const uint32_t stamp = new_stamp();
    uint32_t at = 0xdead;
    switch (random_.below(12)) {
      case 0:
      case 1: {
        const int32_t result = calls.operate(block, LIST_OP_ADD, &at, record(row, stamp).data());
        expect("an add", list, result, {SC_LIST_OK, SC_LIST_REJECTED});
        if (result == SC_LIST_OK) own(list, at);
        break;
      }
      case 2:
      case 3: {
        const int32_t result = calls.add(block, item(row, stamp, 0).data());
        expect("an item's add", list, result, {SC_LIST_OK, SC_LIST_REJECTED});
        if (result != SC_LIST_OK) break;
        ++shared->counted[list];
        own_by_stamp(list, stamp);
        break;
      }
      case 4:
      case 5:
        if (!owned(list, &at)) break;
        disown(list, at);
        if (random_.one_in(2)) {
          expect("a delete", list, remove(list, at), {SC_LIST_OK});
        } else {
          std::string id = std::to_string(at + 1);
          --shared->counted[list];
          calls.del(block, blocks, id.data());
        }
        break;
      case 6:
        at = position(list);
        expect("a modify", list,
               calls.operate(block, LIST_OP_MODIFY, &at, record(row, stamp).data()),
               {SC_LIST_OK, SC_LIST_REJECTED});
        break;
      case 7:
        expect("an item's modify", list,
               calls.modify(block, item(row, stamp, position(list) + 1).data()),
               {SC_LIST_OK, SC_LIST_REJECTED});
        break;
      case 8:
        if (calls.get_list != nullptr) look_at_list(list, row, calls);
        break;
      case 9:
        if (random_.one_in(100)) save(list);
        break;
      default: verify(list);
    }
  }

  /* Nobody but an owner deletes, so what was added is there unless another one modified it. */
  void own_by_stamp(uint32_t list, uint32_t stamp) {
    const ListRow& row = list_rows()[list];
    const RunRow& run = *std::find_if(row.payload.begin(), row.payload.end(),
                                      [](const RunRow& wide) { return wide.width >= 8; });
    for (uint32_t p = 0; p < row.capacity; ++p) {
      if (stamp_at(tables[list].record(p), run.at) == stamp) return own(list, p);
    }
  }

  void look_at_list(uint32_t list, const ListRow& row, const ListCalls& calls) {
    Bytes out(row.list_size);
    calls.get_list(tables[list].block, blocks, out.data());
    const uint32_t count = load(out.data(), 4);
    if (count > row.capacity || load(out.data() + 4, 4) != row.capacity) {
      violation("table %u: a list of %u", list, count);
    }
    calls.get(tables[list].block, position(list) + 1, out.data());
  }

  void save(uint32_t table) {
    area(tables[table].area).save_to_flash(tables[table].block);
    ++shared->saves;
  }

  void work_on_ids(uint32_t table) {
    auto* aps = reinterpret_cast<ManageApListBlock*>(tables[kAps].block);
    auto* users = reinterpret_cast<ApUserListBlock*>(tables[kUsers].block);
    auto* templates = reinterpret_cast<ApTemplateListBlock*>(tables[kTemplates].block);
    uint32_t at;
    switch (random_.below(8)) {
      case 0:
      case 1: {
        const int32_t claimed = claim_id(table);
        if (claimed < 0) break;
        own(table, static_cast<uint32_t>(claimed));
        fill_claimed(table, static_cast<uint32_t>(claimed));
        break;
      }
      case 2:
      case 3:
        if (!owned(table, &at)) break;
        disown(table, at);
        if (const int32_t removed = remove(table, at); !disturbance_.interrupts) {
          expect("a removal", table, removed, {1});
        }
        break;
      case 4:
        if (table == kTemplates) {
          bind(aps, templates);
        } else {
          uint8_t info[50], mac[6];
          memcpy(mac, mac_of(table, position(table)), sizeof mac);
          for (size_t i = 0; i < sizeof info; ++i) info[i] = letter(number_, 349 + i);
          SC_Ap_Add_GroupInfo_by_Mac(aps, reinterpret_cast<const char*>(info), 1, mac);
        }
        break;
      case 5:
        SC_Get_Ap_Info_Count_Online(aps);
        SC_Get_ApUser_Info_Count(users);
        SC_Get_AP_Template_Info_Count(templates);
        if (table == kTemplates && random_.one_in(100)) save(table);
        break;
      default: verify(table);
    }
  }

  /* As the callers do that claim: under the record's lock. */
  void fill_claimed(uint32_t table, uint32_t at) {
    const uint32_t stamp = new_stamp();
    Held held(tables[table], at);
    if (table == kTemplates) {
      put_stamp(tables[table].record(at), payload(table), stamp);
    } else {
      uint8_t mac[6] = {2, static_cast<uint8_t>(table)};
      memcpy(mac + 2, &stamp, sizeof stamp);
      memcpy(mac_of(table, at), mac, sizeof mac);
    }
  }

  /* An AP of this worker's own to a template of its own, and away from it. */
  void bind(ManageApListBlock* aps, ApTemplateListBlock* templates) {
    uint32_t ap, to;
    if (!owned(kAps, &ap) || !owned(kTemplates, &to)) return;
    uint8_t mac[6];
    memcpy(mac, mac_of(kAps, ap), sizeof mac);
    if (random_.one_in(2)) {
      SC_Add_Ap_Mac2Template_By_Id(templates, aps, to + 1, mac);
    } else {
      SC_Del_Ap_Mac2Template_By_Id(templates, aps, to + 1, mac);
    }
  }

  /* Under its lock a record is whole and stays as it is, but for an id that is claimed. */
  void verify(uint32_t table) {
    const uint32_t at = position(table);
    while (true) {
      const uint32_t kills = shared->kills;
      const bool repairing = shared->repairing != 0;
      const char* wrong = nullptr;
      {
        Held held(tables[table], at);
        if (random_.one_in(disturbance_.interrupts ? 2 : 8)) usleep(50); /* others have to wait */
        if (!held.locked() || disturbance_.interrupts) return;
        wrong = look(table, at);
      }
      ++shared->verified;
      if (wrong == nullptr) return;
      if (!repairing && shared->repairing == 0 && shared->kills == kills) {
        return violation("table %u: record %u is %s", table, at, wrong);
      }
      usleep(100); /* a writer was killed in the middle of it: wait for the repair */
    }
  }
  const char* look(uint32_t table, uint32_t at) {
    const uint8_t* record = tables[table].record(at);
    const Bytes seen(record, record + tables[table].stride);
    if (!is_whole(seen.data(), payload(table))) return "a mixture";
    if (load(seen.data() + tables[table].lock_at, 4) != tables[table].first_lock_index + at) {
      return "without its lock index";
    }
    if (random_.one_in(8)) usleep(50);
    const uint32_t unlocked = unlocked_word(table);
    for (uint32_t i = 0; i < seen.size(); ++i) {
      if (i >= unlocked && i < unlocked + 4) continue;
      if (record[i] != seen[i]) return "changed under its lock";
    }
    return nullptr;
  }

  uint32_t number_;
  Random random_;
  Disturbance disturbance_;
};

/* ---- the test ---- */

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
    tables[kAps] = {"ManageApList", 136, 12304, 300, 0, 2, block("ManageApList")};
    tables[kUsers] = {"ApUserList", 136, 23200, 300, 0, 2, block("ApUserList")};
    tables[kTemplates] = {"ApTemplateList", 136, 12008, 15, 0, 2, block("ApTemplateList")};
    blocks = {reinterpret_cast<FwIpportBlock*>(block("FwIpport")),
              reinterpret_cast<FwMacBlock*>(block("FwMac")),
              reinterpret_cast<FwUrlBlock*>(block("FwUrl")),
              reinterpret_cast<QosBlock*>(block("Qos")),
              reinterpret_cast<IpGroupBlock*>(block("IpGroup")),
              reinterpret_cast<TimeGroupBlock*>(block("TimeGroup"))};
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
      Worker(worker, seed, disturbance).run();
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
      const std::string& path = golden_area(table.area).lock_path;
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
