/* Every exported function with each of its calls into the C library failing once, and the lists with
 * all calls of one kind failing: the result, the message, the notifications and every byte of the
 * blocks and files are those that the function promises for it; no descriptor stays open and no lock
 * is held. */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <sysconfig/ap.h>
#include <sysconfig/core.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

#include "model/list_calls.h"
#include "model/model.h"
#include "model/rows.h"
#include "support/areas.h"
#include "support/called.h"
#include "support/faults.h"
#include "support/golden.h"
#include "support/image.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/random.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;
namespace fs = std::filesystem;
using Codes = std::vector<int32_t>;
using Lines = std::vector<std::string>;

/* ---- one failing call, or all of one name ---- */

struct Fault {
  size_t number; /* of the failing call, from 1; 0: none fails, kEvery: all of this name */
  std::string call;
  size_t nth; /* of the calls of this name, from 1 */

  bool is(const char* name) const { return call == name; }
  bool every() const { return number == kEvery; }

  static constexpr size_t kEvery = SIZE_MAX;
};

std::ostream& operator<<(std::ostream& stream, const Fault& fault) {
  if (fault.every()) return stream << "with every call failing: " << fault.call;
  return stream << "with call " << fault.number << " failing: " << fault.call << " " << fault.nth;
}

const Fault kNoFault = {0, "", 0};

std::vector<Fault> faults_in(const Lines& calls) {
  std::vector<Fault> faults;
  for (size_t i = 0; i < calls.size(); ++i) {
    const auto nth = std::count(calls.begin(), calls.begin() + static_cast<long>(i) + 1, calls[i]);
    faults.push_back({i + 1, calls[i], static_cast<size_t>(nth)});
  }
  return faults;
}

/* All of them, or for emulated CPUs as many as SC_TEST_FAULTS says, spread over all from a random
 * one on. */
std::vector<Fault> sample_of(const std::vector<Fault>& all) {
  const char* given = getenv("SC_TEST_FAULTS");
  if (given == nullptr || all.empty()) return all;
  const size_t stride =
      (1 + all.size() / strtoul(given, nullptr, 10)) | 1; /* odd: calls come in fours */
  std::vector<Fault> sample;
  const size_t first = Random().next() % std::min(stride, all.size());
  for (size_t i = first; i < all.size(); i += stride) sample.push_back(all[i]);
  return sample;
}

std::string said_by_perror(const std::string& call) {
  return call + ": " + strerror(error_of(call)) + "\n";
}

std::set<std::string> open_descriptors() {
  std::set<std::string> open;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    open.insert(entry.path().filename());
  }
  return open;
}

/* Mappings below 4 GiB that cannot be used, such as room that no segment was attached to. */
long reservations() {
  std::ifstream maps("/proc/self/maps");
  long count = 0;
  for (std::string line; std::getline(maps, line);) {
    const bool low = strtoull(line.c_str(), nullptr, 16) <= UINT32_MAX;
    count += low && line.find(" ---p ") != std::string::npos;
  }
  return count;
}

bool holds_locks() {
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    int pid;
    if (sscanf(line.c_str(), "%*d: POSIX %*s %*s %d", &pid) == 1 && pid == getpid()) return true;
  }
  return false;
}

/* What is seen of a run from outside of the process, but for its blocks and files. */
struct Seen {
  int64_t result = 0;
  Output output;
  Codes codes;

  bool operator==(const Seen&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Seen& seen) {
  stream << "result " << seen.result << " " << seen.output << " codes";
  for (int32_t code : seen.codes) stream << " " << code;
  return stream;
}

/* The exports that were called while a call of theirs was to fail, or that made no call that can
 * fail. Child processes write here, too. */
class Tried {
 public:
  /* Whether a call is to fail from here on, in this process. */
  static void begin(bool with_fault) {
    failing = with_fault;
    others.clear();
    on_call = note;
  }
  static void end(bool made_no_call) {
    on_call = nullptr;
    if (made_no_call) std::for_each(others.begin(), others.end(), add);
  }
  static bool is(const std::string& name) {
    return has(reinterpret_cast<AnyFunction>(dlsym(RTLD_DEFAULT, name.c_str())));
  }

 private:
  struct List {
    std::atomic<size_t> count;
    AnyFunction at[1024];
  };
  static List* const list;
  static bool failing;
  static std::vector<AnyFunction> others;

  static bool has(AnyFunction called) {
    const AnyFunction *begin = list->at, *end = begin + list->count;
    return std::find(begin, end, called) != end;
  }
  static void note(AnyFunction called) {
    if (failing) return add(called);
    others.push_back(called);
  }
  static void add(AnyFunction called) {
    if (has(called)) return;
    if (list->count == std::size(list->at)) abort();
    list->at[list->count++] = called;
  }
};
Tried::List* const Tried::list = static_cast<List*>(
    mmap(nullptr, sizeof(List), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
bool Tried::failing = false;
std::vector<AnyFunction> Tried::others;

/* Says in the end how many runs there were with a failing call. When all tests were to run, every
 * export was tried. */
class Tally : public testing::Environment {
 public:
  static size_t faults, kills;
  void TearDown() override {
    printf("%zu runs with a failing call, %zu with a kill\n", faults, kills);
    const testing::UnitTest& tests = *testing::UnitTest::GetInstance();
    if (tests.test_to_run_count() != tests.total_test_count()) return;
    for (const std::string& name : golden_lines("exports.txt")) {
      EXPECT_TRUE(Tried::is(name)) << name << " was called under no fault";
    }
  }
};
size_t Tally::faults = 0, Tally::kills = 0;
const auto* const kTally = testing::AddGlobalTestEnvironment(new Tally);

class FaultWorld : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    listener_ = std::make_unique<Listener>();
  }
  void TearDown() override {
    listener_.reset();
    World::TearDown();
  }

  void start_over() {
    TearDown();
    SetUp();
  }

  /* The action under the fault. What it leaves open, locked or reserved fails the test. */
  Seen run(const Fault& fault, const std::function<int64_t()>& action) {
    Seen seen;
    const std::set<std::string> open_before = open_descriptors();
    const long reserved_before = reservations();
    if (fault.number != 0) ++Tally::faults;
    seen.output = capture([&] {
      Faults faults = fault.every() ? Faults(fault.call) : Faults(fault.number);
      Tried::begin(fault.number != 0);
      seen.result = action();
      calls_ = faults.calls();
      Tried::end(fault.number == 0 && calls_.empty());
    });
    const auto nth = static_cast<size_t>(std::count(calls_.begin(), calls_.end(), fault.call));
    EXPECT_GE(nth, fault.every() ? 1 : fault.nth) << "the call that was to fail was not made";
    EXPECT_EQ(open_descriptors(), open_before);
    EXPECT_EQ(reservations(), reserved_before);
    EXPECT_FALSE(holds_locks());
    seen.codes = received();
    return seen;
  }

  /* The calls of the last run, each as the fault that it can be. */
  std::vector<Fault> faults() const { return faults_in(calls_); }

  /* The codes that came whole; a connection without bytes is a send that failed. */
  Codes received() {
    Codes codes;
    for (const Listener::Message& message : listener_->messages()) {
      EXPECT_TRUE(message.closed);
      if (message.bytes.empty()) continue;
      int32_t code = 0;
      EXPECT_EQ(message.bytes.size(), sizeof code);
      memcpy(&code, message.bytes.data(), std::min(message.bytes.size(), sizeof code));
      codes.push_back(code);
    }
    return codes;
  }

  /* A notification whose socket, connect or send fails is not received, and perror says why. */
  static void lose_notification(const Fault& fault, Seen& expected) {
    if (!fault.is("socket") && !fault.is("connect") && !fault.is("send")) return;
    if (fault.every()) {
      for (size_t i = 0; i < expected.codes.size(); ++i) {
        expected.output.err += said_by_perror(fault.call);
      }
      return expected.codes.clear();
    }
    ASSERT_LE(fault.nth, expected.codes.size());
    expected.codes.erase(expected.codes.begin() + static_cast<long>(fault.nth) - 1);
    expected.output.err += said_by_perror(fault.call);
  }

  std::unique_ptr<Listener> listener_;
  Lines calls_;
};

/* ---- lists: the naive model says what is left ---- */

/* Lists whose rules are deleted by a group, and lists that are not read. */
const std::map<std::string, size_t> kDeletedByGroup = {
    {"FireWall_IpPort", 2}, {"FireWall_Mac", 1}, {"FireWall_Url", 1}, {"QosRule", 2}};
const std::set<std::string> kNotRead = {"ClientsGroups", "Clients"};

class ListFaults : public FaultWorld, public testing::WithParamInterface<ListCalls> {
 protected:
  ListFaults() : calls(GetParam()), row(list_row(GetParam().list)), areas{row.area} {
    const bool group = row.name == "UserIpGroup" || row.name == "UserTimeGroup";
    if (group) areas.insert(areas.end(), {"FwIpport", "FwMac", "FwUrl", "Qos"});
    if (!row.references.empty()) areas.insert(areas.end(), {"IpGroup", "TimeGroup"});
    for (const std::string& area : areas) {
      const AreaFacts& facts = golden_area(area);
      Image image = facts.emptied();
      facts.number(image);
      before[area] = Bytes(image.data(), image.data() + image.size());
    }
    for (const ListRow& list : list_rows()) {
      if (before.count(list.area) != 0) use_records(list);
    }
    blocks = before;
  }

  void SetUp() override {
    FaultWorld::SetUp();
    for (const ListRow& list : list_rows()) write_file(list.lock_path, "\n");
  }

  /* Records 0, 1, 2, 4 and the last one are used; 0, 2 and 4 refer to the groups of id 2. */
  void use_records(const ListRow& list) {
    uint8_t* block = before.at(list.area).data();
    for (const uint32_t p : {0u, 1u, 2u, 4u, list.capacity - 1}) {
      uint8_t* record = block + list.record_at(p);
      for (const auto* runs : {&list.payload, &list.identity}) {
        for (const RunRow& run : *runs) fill(record + run.at, run.width, p + 1);
      }
      store(record + list.slot_at, 4, p + 1);
      for (const ReferenceRow& reference : list.references) {
        record[reference.mode_at] = static_cast<uint8_t>(p % 2 == 0 ? reference.cascade_mode : 0);
        store(record + reference.id_at, reference.id_width, 2);
      }
    }
    if (list.counter_width != 0) store(block + list.counter_at, list.counter_width, 5);
  }

  Bytes record(uint32_t number) const {
    Bytes bytes(row.list_size == 0 ? row.item_size : row.stride);
    fill(bytes.data(), bytes.size(), number);
    return bytes;
  }
  Bytes item(uint32_t number, uint32_t id) const {
    Bytes bytes(row.item_size);
    fill(bytes.data(), bytes.size(), number);
    for (const FieldRow& field : row.fields) {
      if (field.kind != "address") continue;
      const std::string text =
          "10.1." + std::to_string(field.record_at % 256) + "." + std::to_string(number);
      memcpy(bytes.data() + field.item_at, text.c_str(), text.size() + 1);
    }
    store(bytes.data() + row.id_at, 4, id);
    return bytes;
  }

  void* block() { return blocks.at(row.area).data(); }
  Blocks others() {
    auto at = [&](const char* area) -> void* {
      return blocks.count(area) != 0 ? blocks.at(area).data() : nullptr;
    };
    return {
        static_cast<FwIpportBlock*>(at("FwIpport")), static_cast<FwMacBlock*>(at("FwMac")),
        static_cast<FwUrlBlock*>(at("FwUrl")),       static_cast<QosBlock*>(at("Qos")),
        static_cast<IpGroupBlock*>(at("IpGroup")),   static_cast<TimeGroupBlock*>(at("TimeGroup"))};
  }

  /* A step on the library and the same step on the model. */
  using OnModel = std::function<int64_t(Model&)>;
  void expect_every_fault_survived(const char* step, const std::function<int64_t()>& library,
                                   const OnModel& on_model) {
    SCOPED_TRACE(step);
    expect_survived(kNoFault, library, on_model);
    std::vector<Fault> all = faults();
    std::vector<Fault> lasting;
    for (const Fault& fault : all) {
      if (fault.nth == 1) lasting.push_back({Fault::kEvery, fault.call, 0});
    }
    all.insert(all.end(), lasting.begin(), lasting.end());
    for (const Fault& fault : sample_of(all)) expect_survived(fault, library, on_model);
  }

  void expect_survived(const Fault& fault, const std::function<int64_t()>& library,
                       const OnModel& on_model) {
    SCOPED_TRACE(testing::Message() << fault);
    blocks = before;
    const Seen seen = run(fault, library);

    Model model;
    model.areas = before;
    if (fault.is("open") && fault.every()) {
      model.without_lock.insert(areas.begin(), areas.end());
    } else if (fault.is("open")) {
      model.opens_until_failure = fault.nth;
    }
    Seen expected;
    expected.result = on_model(model);
    expected.output.out = model.printed;
    expected.codes = model.codes;
    lose_notification(fault, expected);

    EXPECT_EQ(seen, expected);
    for (const std::string& area : areas) EXPECT_TRUE(blocks[area] == model.areas[area]) << area;
  }

  void expect_no_calls(const char* step, const std::function<void()>& library) {
    SCOPED_TRACE(step);
    blocks = before;
    run(kNoFault, [&] {
      library();
      return 0;
    });
    EXPECT_EQ(calls_, Lines{});
    EXPECT_TRUE(blocks == before);
  }

  const ListCalls calls;
  const ListRow& row;
  std::vector<std::string> areas;
  std::map<std::string, Bytes> before, blocks;
};

INSTANTIATE_TEST_SUITE_P(Lists, ListFaults, testing::ValuesIn(kListCalls),
                         [](const auto& info) { return std::string(info.param.list); });

TEST_P(ListFaults, TableOperations_LeaveWhatTheModelLeaves) {
  const Bytes fresh = record(90), same_as_the_first = [&] {
    Bytes bytes = record(90);
    const uint8_t* first = before[row.area].data() + row.record_at(0);
    for (const KeyRow& key : row.keys) memcpy(bytes.data() + key.at, first + key.at, key.width);
    return bytes;
  }();
  struct {
    const char* what;
    uint32_t op, position;
    const Bytes& with;
  } const steps[] = {{"add", LIST_OP_ADD, 77, fresh},
                     {"add what is there", LIST_OP_ADD, 77, same_as_the_first},
                     {"modify", LIST_OP_MODIFY, 2, fresh},
                     {"modify a free one", LIST_OP_MODIFY, 3, fresh},
                     {"modify out of range", LIST_OP_MODIFY, row.capacity, fresh},
                     {"delete", LIST_OP_DEL, 1, fresh},
                     {"delete out of range", LIST_OP_DEL, row.capacity, fresh},
                     {"delete all", LIST_OP_DEL_ALL, 0, fresh},
                     {"no such operation", 3, 0, fresh}};
  for (const auto& step : steps) {
    auto both = [](int32_t result, uint32_t position) {
      return static_cast<int64_t>(result) << 32 | position;
    };
    expect_every_fault_survived(
        step.what,
        [&] {
          uint32_t position = step.position;
          const int32_t result = calls.operate(block(), step.op, &position, step.with.data());
          return both(result, position);
        },
        [&](Model& model) {
          uint32_t position = step.position;
          const int32_t result = model.operate(row, step.op, &position, step.with.data());
          return both(result, position);
        });
  }
  expect_every_fault_survived(
      "claim", [&] { return calls.blank(block()); },
      [&](Model& model) { return model.blank(row); });
  if (calls.check != nullptr) {
    expect_no_calls("check", [&] { calls.check(block(), fresh.data(), 1); });
  }
}

TEST_P(ListFaults, ItemFunctions_LeaveWhatTheModelLeaves) {
  const Bytes fresh = item(90, 0), changed = item(91, 3), nowhere = item(92, row.capacity + 1);
  expect_every_fault_survived(
      "add", [&] { return calls.add(block(), fresh.data()); },
      [&](Model& model) { return model.add(row, fresh.data()); });
  for (const Bytes& with : {changed, nowhere}) {
    expect_every_fault_survived(
        "modify", [&] { return calls.modify(block(), with.data()); },
        [&](Model& model) { return model.modify(row, with.data()); });
  }
  for (const char* text : {"2", "1#3#40#2", ""}) {
    expect_every_fault_survived(
        "delete",
        [&] {
          std::string ids = text;
          calls.del(block(), others(), ids.data());
          return 0;
        },
        [&](Model& model) {
          std::string ids = text;
          model.del(row, ids);
          return 0;
        });
  }
  expect_every_fault_survived(
      "delete all",
      [&] {
        calls.del_all(block());
        return 0;
      },
      [&](Model& model) {
        model.del_all(row);
        return 0;
      });
}

TEST_P(ListFaults, DeletionByGroup_LeavesWhatTheModelLeaves) {
  const auto known = kDeletedByGroup.find(row.name);
  EXPECT_EQ(row.references.size(), known == kDeletedByGroup.end() ? 0 : known->second);
  for (const ReferenceRow& reference : row.references) {
    const bool ip = reference.group == "ip";
    expect_every_fault_survived(
        reference.group.c_str(),
        [&] {
          const Blocks all = others();
          if (row.name == "FireWall_IpPort") {
            (ip ? Noted<DelIpFilterItemByIpGroupId>::call
                : Noted<DelIpFilterItemByTimeGroupId>::call)(all.ip_filters, 2);
          } else if (row.name == "QosRule") {
            (ip ? Noted<DelQosItemByIpGroupId>::call : Noted<DelQosItemByTimeGroupId>::call)(
                all.qos_rules, 2);
          } else if (row.name == "FireWall_Mac") {
            Noted<DelMacFilterItemByTimeGroupId>::call(all.mac_filters, 2);
          } else {
            Noted<DelUrlFilterItemByTimeGroupId>::call(all.url_filters, 2);
          }
          return 0;
        },
        [&](Model& model) {
          model.del_by_group(row, reference.group, 2);
          return 0;
        });
  }
}

TEST_P(ListFaults, Reading_CallsNothingThatCouldFail) {
  ASSERT_EQ(calls.get != nullptr, kNotRead.count(row.name) == 0);
  if (calls.get == nullptr) return;
  Bytes one(row.item_size), list(row.list_size);
  expect_no_calls("get", [&] { calls.get(block(), 2, one.data()); });
  expect_no_calls("list", [&] { calls.get_list(block(), others(), list.data()); });
  if (row.name == "UserIpGroup") {
    expect_no_calls("index", [&] { Noted<GetIpGroupIndex>::call(others().ip_groups, 2); });
  }
}

/* ---- writers that are killed ---- */

/* Blocks that other processes see. */
class SharedBlocks {
 public:
  explicit SharedBlocks(const std::map<std::string, Bytes>& images) {
    for (const auto& [area, image] : images) {
      void* at =
          mmap(nullptr, image.size(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
      if (at == MAP_FAILED) throw std::runtime_error("mmap");
      memcpy(at, image.data(), image.size());
      blocks_[area] = {static_cast<uint8_t*>(at), image.size()};
    }
  }
  ~SharedBlocks() {
    for (const auto& [area, block] : blocks_) munmap(block.first, block.second);
  }
  SharedBlocks(const SharedBlocks&) = delete;
  SharedBlocks& operator=(const SharedBlocks&) = delete;

  uint8_t* at(const std::string& area) const {
    const auto block = blocks_.find(area);
    return block == blocks_.end() ? nullptr : block->second.first;
  }
  Blocks all() const {
    auto as = [&](const char* area) -> void* { return at(area); };
    return {
        static_cast<FwIpportBlock*>(as("FwIpport")), static_cast<FwMacBlock*>(as("FwMac")),
        static_cast<FwUrlBlock*>(as("FwUrl")),       static_cast<QosBlock*>(as("Qos")),
        static_cast<IpGroupBlock*>(as("IpGroup")),   static_cast<TimeGroupBlock*>(as("TimeGroup"))};
  }

 private:
  std::map<std::string, std::pair<uint8_t*, size_t>> blocks_;
};

class KilledWriters : public ListFaults {
 protected:
  using OnBlocks = std::function<void(const SharedBlocks&)>;

  void expect_sound_at_every_kill(const char* step, const OnBlocks& library,
                                  const OnModel& on_model) {
    SCOPED_TRACE(step);
    Model model;
    model.areas = before;
    on_model(model);
    size_t calls_made = 0;
    for (size_t number = 1;; ++number) {
      SCOPED_TRACE(testing::Message() << "killed at call " << number);
      const SharedBlocks shared(before);
      bool survived = false;
      {
        Child writer([&] {
          Faults faults(number, Fate::kKillsTheProcess);
          library(shared);
        });
        survived = writer.wait() == 0;
      }
      ++Tally::kills;
      received();
      for (const std::string& area : areas) expect_sound(area, shared.at(area), model.areas[area]);
      /* Nobody has to wait for a lock. */
      EXPECT_EQ(calls.operate(shared.at(row.area), LIST_OP_DEL_ALL, nullptr, nullptr), SC_LIST_OK);
      calls_made = number - 1;
      if (survived) break;
    }
    EXPECT_GE(calls_made, 4u);
  }

  /* Every mark, payload and identity is as before or as after the step, and nothing else changed. */
  void expect_sound(const std::string& area, const uint8_t* block, const Bytes& after) {
    Bytes rest(block, block + after.size());
    const Bytes& was = before.at(area);
    for (const ListRow& list : list_rows()) {
      if (list.area != area) continue;
      for (uint32_t p = 0; p < list.capacity; ++p) {
        const uint32_t at = list.record_at(p);
        settle(rest, {{list.slot_of(p), 4}}, was, after);
        std::vector<RunRow> payload = list.payload, identity = list.identity;
        for (RunRow& run : payload) run.at += at;
        for (RunRow& run : identity) run.at += at;
        settle(rest, payload, was, after);
        settle(rest, identity, was, after);
      }
      /* In between, when several records are deleted. */
      memcpy(&rest[list.counter_at], &was[list.counter_at], list.counter_width);
    }
    EXPECT_TRUE(rest == was) << area;
  }
  /* Bytes written as one are all old or all new; they become the old ones. */
  static void settle(Bytes& rest, const std::vector<RunRow>& runs, const Bytes& was,
                     const Bytes& after) {
    bool are_new = true;
    for (const RunRow& run : runs) {
      are_new = are_new && memcmp(&rest[run.at], &after[run.at], run.width) == 0;
    }
    if (!are_new) return;
    for (const RunRow& run : runs) memcpy(&rest[run.at], &was[run.at], run.width);
  }
};

INSTANTIATE_TEST_SUITE_P(Lists, KilledWriters, testing::ValuesIn(kListCalls),
                         [](const auto& info) { return std::string(info.param.list); });

TEST_P(KilledWriters, AtAnyCall_LeaveRecordsOldOrNewAndNoLockHeld) {
  const Bytes fresh = item(90, 0), changed = item(91, 3);
  expect_sound_at_every_kill(
      "add", [&](const SharedBlocks& shared) { calls.add(shared.at(row.area), fresh.data()); },
      [&](Model& model) { return model.add(row, fresh.data()); });
  expect_sound_at_every_kill(
      "modify",
      [&](const SharedBlocks& shared) { calls.modify(shared.at(row.area), changed.data()); },
      [&](Model& model) { return model.modify(row, changed.data()); });
  expect_sound_at_every_kill(
      "delete",
      [&](const SharedBlocks& shared) {
        std::string ids = "1#3";
        calls.del(shared.at(row.area), shared.all(), ids.data());
      },
      [&](Model& model) {
        std::string ids = "1#3";
        model.del(row, ids);
        return 0;
      });
}

/* ---- access points, users and templates ---- */

constexpr uint8_t kMac[] = {0xAA, 1, 2, 3, 4, 5};

class ApFaults : public FaultWorld {
 protected:
  void SetUp() override {
    FaultWorld::SetUp();
    aps = started<ManageApListBlock>("ManageApList");
    users = started<ApUserListBlock>("ApUserList");
    templates = started<ApTemplateListBlock>("ApTemplateList");
    ASSERT_TRUE(aps && users && templates);
    for (const uint32_t p : {0u, 3u, 299u}) {
      fill(&aps->aps[p].run_state, 200, p);
      aps->aps[p].ap_id = p + 1;
      fill(users->users[p].opaque_14, 200, p);
      users->users[p].user_id = p + 1;
    }
    for (const uint32_t p : {0u, 3u}) {
      fill(templates->templates[p].opaque_8, 300, p);
      templates->templates[p].template_id = p + 1;
    }
    memcpy(aps->aps[3].ap_mac, kMac, 6);
    memcpy(users->users[3].user_mac, kMac, 6);
    memcpy(templates->templates[3].bound_ap_mac, kMac, 6);
  }

  struct Images {
    std::unique_ptr<ManageApListBlock> aps;
    std::unique_ptr<ApUserListBlock> users;
    std::unique_ptr<ApTemplateListBlock> templates;
  };
  Images images() const {
    return {std::make_unique<ManageApListBlock>(*aps), std::make_unique<ApUserListBlock>(*users),
            std::make_unique<ApTemplateListBlock>(*templates)};
  }
  void restore(const Images& saved) {
    memcpy(aps, saved.aps.get(), sizeof *aps);
    memcpy(users, saved.users.get(), sizeof *users);
    memcpy(templates, saved.templates.get(), sizeof *templates);
  }

  struct Step {
    const char* function;
    std::function<int64_t()> action;
    Lines opens; /* the areas whose lock files it opens, in order */
    int64_t result_without_lock = 0;
  };
  std::vector<Step> steps() {
    return {
        {"SC_Del_Ap_Info_by_Mac",
         [&] { return Noted<SC_Del_Ap_Info_by_Mac>::call(aps, kMac); },
         {"ManageApList"}},
        {"SC_Ap_Add_GroupInfo_by_Mac",
         [&] { return Noted<SC_Ap_Add_GroupInfo_by_Mac>::call(aps, info, 7, kMac); },
         {"ManageApList"}},
        {"SC_Ap_Clean_GroupInfo_by_Mac",
         [&] { return Noted<SC_Ap_Clean_GroupInfo_by_Mac>::call(aps, kMac); },
         {"ManageApList"}},
        {"SC_Set_Ap_Info_Id2Zero",
         [&] { return Noted<SC_Set_Ap_Info_Id2Zero>::call(aps); },
         {"ManageApList"}},
        {"SC_Del_ApUser_Info_by_Mac",
         [&] { return Noted<SC_Del_ApUser_Info_by_Mac>::call(users, kMac); },
         {"ApUserList"}},
        {"SC_Del_AP_Template_Info_By_Id",
         [&] { return Noted<SC_Del_AP_Template_Info_By_Id>::call(templates, 3); },
         {"ApTemplateList"}},
        /* Bound to the first template, which is unbound, and once more to the fourth, which has it. */
        {"SC_Add_Ap_Mac2Template_By_Id",
         [&] { return Noted<SC_Add_Ap_Mac2Template_By_Id>::call(templates, aps, 1, kMac); },
         {"ApTemplateList", "ManageApList"}},
        {"SC_Add_Ap_Mac2Template_By_Id",
         [&] { return Noted<SC_Add_Ap_Mac2Template_By_Id>::call(templates, aps, 4, kMac); },
         {"ApTemplateList", "ManageApList"}},
        {"SC_Del_Ap_Mac2Template_By_Id",
         [&] { return Noted<SC_Del_Ap_Mac2Template_By_Id>::call(templates, aps, 4, kMac); },
         {"ApTemplateList", "ManageApList"}},
        /* Without locks. */
        {"SC_Get_Ap_Info_By_Id", [&] { return Noted<SC_Get_Ap_Info_By_Id>::call(aps, 4); }, {}},
        {"SC_Get_Ap_Info_By_Mac",
         [&] { return Noted<SC_Get_Ap_Info_By_Mac>::call(aps, kMac); },
         {}},
        {"SC_Get_Ap_Info_Blank",
         [&] { return Noted<SC_Get_Ap_Info_Blank>::call(aps, &limits); },
         {}},
        {"SC_Get_Ap_Info_Count", [&] { return Noted<SC_Get_Ap_Info_Count>::call(aps); }, {}},
        {"SC_Get_Ap_Info_Count_Online",
         [&] { return Noted<SC_Get_Ap_Info_Count_Online>::call(aps); },
         {}},
        {"SC_Get_Ap_Info_Count_Offline",
         [&] { return Noted<SC_Get_Ap_Info_Count_Offline>::call(aps); },
         {}},
        {"SC_Get_Ap_Info_Count_And_Id",
         [&] { return Noted<SC_Get_Ap_Info_Count_And_Id>::call(positions, aps); },
         {}},
        {"SC_CleanWtpFragBuffer",
         [&] {
           Noted<SC_CleanWtpFragBuffer>::call(aps);
           return 0;
         },
         {}},
        {"SC_Get_ApUser_Info_By_Id",
         [&] { return Noted<SC_Get_ApUser_Info_By_Id>::call(users, 4); },
         {}},
        {"SC_Get_ApUser_Info_By_Mac",
         [&] { return Noted<SC_Get_ApUser_Info_By_Mac>::call(users, kMac); },
         {}},
        {"SC_Get_ApUser_Info_Blank",
         [&] { return Noted<SC_Get_ApUser_Info_Blank>::call(users); },
         {}},
        {"SC_Get_ApUser_Info_Count",
         [&] { return Noted<SC_Get_ApUser_Info_Count>::call(users); },
         {}},
        {"SC_Get_AP_Template_Info_By_Id",
         [&] { return Noted<SC_Get_AP_Template_Info_By_Id>::call(templates, 4); },
         {}},
        {"SC_Get_AP_Template_Info_Blank",
         [&] { return Noted<SC_Get_AP_Template_Info_Blank>::call(templates); },
         {}},
        {"SC_Get_AP_Template_Info_Count",
         [&] { return Noted<SC_Get_AP_Template_Info_Count>::call(templates); },
         {}},
    };
  }

  ManageApListBlock* aps = nullptr;
  ApUserListBlock* users = nullptr;
  ApTemplateListBlock* templates = nullptr;
  ApLimitsRecord limits = {{}, 300};
  uint32_t positions[300];
  char info[50] = "a template's name";
};

TEST_F(ApFaults, ALockFileThatDoesNotOpen_LeavesItsAreaAsItWasAndAnyOtherFaultChangesNothing) {
  const auto before = images();
  for (const Step& step : steps()) {
    SCOPED_TRACE(step.function);
    restore(before);
    const Seen seen = run(kNoFault, step.action);
    EXPECT_EQ(seen.output, kSilence);
    const auto after = images();
    const std::vector<Fault> all = faults();
    EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const Fault& f) { return f.is("open"); }),
              static_cast<long>(step.opens.size()));
    if (step.opens.empty()) EXPECT_EQ(calls_, Lines{});

    for (const Fault& fault : sample_of(all)) {
      SCOPED_TRACE(testing::Message() << fault);
      Seen expected = seen;
      const Images *aps_left = &after, *templates_left = &after, *users_left = &after;
      if (fault.is("open")) {
        const std::string& area = step.opens.at(fault.nth - 1);
        expected.output = cannot_lock(golden_area(area).lock_path);
        expected.result = step.result_without_lock;
        aps_left = &before; /* it is the only area or the inner one */
        users_left = &before;
        if (fault.nth == 1) templates_left = &before;
      }
      restore(before);
      EXPECT_EQ(run(fault, step.action), expected);
      EXPECT_EQ(memcmp(aps, aps_left->aps.get(), sizeof *aps), 0);
      EXPECT_EQ(memcmp(users, users_left->users.get(), sizeof *users), 0);
      EXPECT_EQ(memcmp(templates, templates_left->templates.get(), sizeof *templates), 0);
    }
  }
}

/* ---- the life of the areas ---- */

class AreaFaults : public FaultWorld, public testing::WithParamInterface<std::string> {
 protected:
  const AreaCalls& area_ = area(GetParam());
  const AreaFacts& golden_ = golden_area(GetParam());

  /* Bytes of their own at both ends of the block: what lies between is much of the same. */
  void fill_ends(uint8_t* block, uint32_t seed) const {
    constexpr size_t kEnd = 50'000;
    const size_t size = std::min(golden_.size, kEnd);
    fill(block, size, seed);
    fill(block + golden_.size - size, size, seed);
  }
  /* A segment full of bytes that are neither what Init writes nor what the archive holds. */
  void dirty() {
    ASSERT_EQ(area_.init(0), 0);
    block_ = block_at(area_.get());
    memset(block_, 0x55, golden_.size);
    remove(golden_.lock_path.c_str());
  }
  /* An archive of a started block with bytes of its own behind its header, made once. */
  void make_archive() {
    if (archive_.empty()) {
      saved_ = Image(golden_.size);
      fill_ends(saved_.data(), 2);
      golden_.number(saved_);
      write_file(golden_.image_path, text_of(saved_));
      const std::string pack = "tar -zcf " + golden_.archive_path + " -C / ";
      ASSERT_EQ(system((pack + golden_.image_path.substr(1)).c_str()), 0);
      remove(golden_.image_path.c_str());
      archive_ = read_file(golden_.archive_path);
    }
    write_file(golden_.archive_path, archive_);
  }
  static std::string text_of(const Image& image) {
    return std::string(reinterpret_cast<const char*>(image.data()), image.size());
  }
  Image numbered(Image image) const {
    golden_.number(image);
    return image;
  }
  Image half_loaded(Image image) const {
    image.copy(0, saved_.data(), golden_.size / 2);
    return image;
  }
  /* On 64-bit hosts the segment's size is asked for, and room for it, before it is attached. */
  static bool keeps_from_attaching(const Fault& fault) {
    return fault.is("shmctl") || fault.is("mmap") || fault.is("shmat");
  }
  /* Names of what lies in the directories of images and archives. */
  static Lines files() {
    Lines names;
    for (const char* folder : {"/var/systemconfig", "/var/dataconfig"}) {
      for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path());
    }
    return names;
  }
  Lines with_archive(bool image_stays) const {
    if (!image_stays) return {golden_.archive_path};
    return {golden_.image_path, golden_.archive_path};
  }

  uint8_t* block_ = nullptr;
  Image saved_{0};
  std::string archive_; /* with saved_ in it */
};

class SavedAreaFaults : public AreaFaults {};

INSTANTIATE_TEST_SUITE_P(Areas, AreaFaults, testing::ValuesIn(area_names()),
                         [](const auto& info) { return info.param; });
INSTANTIATE_TEST_SUITE_P(Areas, SavedAreaFaults, testing::ValuesIn(saved_area_names()),
                         [](const auto& info) { return info.param; });

TEST_P(AreaFaults, Get_ReturnsZeroWithoutASegmentAndEndsTheProcessWithoutAnAddress) {
  ASSERT_EQ(area_.init(0), 0);
  run(kNoFault, [&] { return area_.get() != 0; });
  const std::vector<Fault> all = faults();
  EXPECT_GE(all.size(), 2u);
  for (const Fault& fault : all) {
    SCOPED_TRACE(testing::Message() << fault);
    const Ending expected =
        fault.is("shmget") ? Ending{7, kSilence} : Ending{1, {"", "shmat failed\n"}};
    EXPECT_EQ(run_in_child([&] {
                Faults faults(fault.number);
                Tried::begin(true);
                _exit(area_.get() == 0 ? 7 : 8);
              }),
              expected);
  }
}

TEST_P(AreaFaults, Uninit_SaysWhichStepFailedAndTakesTheOthers) {
  std::vector<Fault> all = {kNoFault};
  for (size_t i = 0; i < all.size(); ++i) {
    const Fault fault = all[i];
    SCOPED_TRACE(testing::Message() << fault);
    start_over();
    ASSERT_EQ(area_.init(0), 0);
    const Seen seen = run(fault, area_.uninit);
    if (i == 0) {
      const std::vector<Fault> found = faults();
      all.insert(all.end(), found.begin(), found.end());
    }
    std::string said;
    if (fault.is("shmget"))
      said = "shmget failed\nshmat failed\nshmdt failed\nshmctl(IPC_RMID) failed\n";
    const bool removal = fault.number == all.size() - 1; /* the last call */
    if (keeps_from_attaching(fault) && !removal) said = "shmat failed\nshmdt failed\n";
    if (fault.is("shmdt")) said = "shmdt failed\n";
    if (fault.is("shmctl") && removal) said = "shmctl(IPC_RMID) failed\n";
    EXPECT_EQ(seen, (Seen{0, {"", said}, {}}));
    EXPECT_EQ(segment_of(golden_.key) >= 0, fault.is("shmget") || (fault.number != 0 && removal));
  }
  EXPECT_GE(all.size(), 5u);
}

TEST_P(AreaFaults, Init_ReturnsTheErrorOrLeavesTheEmptyNumberedOrLoadedBlock) {
  const bool reads = area_.read != nullptr;
  size_t calls = 0;
  std::vector<Fault> all = {kNoFault};
  for (size_t i = 0; i < all.size(); ++i) {
    const Fault fault = all[i];
    SCOPED_TRACE(testing::Message() << fault);
    start_over();
    dirty();
    if (reads) make_archive();
    const Image untouched(block_, golden_.size);
    const Seen seen = run(fault, [&] { return area_.init(1); });
    if (i == 0) {
      calls = faults().size();
      const std::vector<Fault> sample = sample_of(faults());
      all.insert(all.end(), sample.begin(), sample.end());
    }
    const bool no_segment = fault.is("shmget"), no_address = keeps_from_attaching(fault);
    const bool echoed = !fault.is("system") || fault.nth != 1;
    const bool unpacked = !fault.is("access") && (!fault.is("system") || fault.nth != 2);
    const bool opened = unpacked && !fault.is("fopen");
    const bool removed = opened && (!fault.is("system") || fault.nth != 3);

    Seen expected;
    Image left = numbered(golden_.emptied());
    if (no_segment || no_address) {
      left = untouched;
      expected.result = no_segment ? error_of("shmget") : -1;
    } else if (reads) {
      if (fault.is("fread")) {
        expected.output.out = "file read error\n";
        left = half_loaded(left);
      } else if (opened) {
        left = saved_;
      } else if (!fault.is("access")) {
        expected.output.out = "cant open the file";
      }
    }
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(left.matches(block_));
    EXPECT_EQ(exists(golden_.lock_path), echoed && !no_segment && !no_address);
    if (reads) {
      EXPECT_EQ(files(), with_archive(unpacked && !removed && !no_segment && !no_address));
    }
  }
  EXPECT_GE(calls, reads ? 10u : 4u);
}

TEST_P(SavedAreaFaults, Read_ReturnsTheLastStatusAndLeavesTheNumberedOrLoadedBlock) {
  size_t calls = 0;
  std::vector<Fault> all = {kNoFault};
  for (size_t i = 0; i < all.size(); ++i) {
    const Fault fault = all[i];
    SCOPED_TRACE(testing::Message() << fault);
    start_over();
    dirty();
    make_archive();
    const Image untouched(block_, golden_.size);
    const Seen seen = run(fault, [&] { return area_.read(block_); });
    if (i == 0) {
      calls = faults().size();
      const std::vector<Fault> sample = sample_of(faults());
      all.insert(all.end(), sample.begin(), sample.end());
    }
    const bool unpacked = !fault.is("access") && (!fault.is("system") || fault.nth != 1);
    const bool opened = unpacked && !fault.is("fopen");

    Seen expected;
    Image left = numbered(untouched);
    if (fault.is("access") || fault.is("system")) expected.result = -1;
    if (fault.is("fread")) {
      expected.output.out = "file read error\n";
      left = half_loaded(left);
    } else if (opened) {
      left = saved_;
    } else if (!fault.is("access")) {
      expected.output.out = "cant open the file";
    }
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(left.matches(block_));
    EXPECT_EQ(files(), with_archive(fault.is("fopen") || (fault.is("system") && fault.nth == 2)));
  }
  EXPECT_EQ(calls, 6u);
}

const TarWords kTar = tar_words();

TEST_P(SavedAreaFaults, SaveToFlash_LeavesTheOldArchiveTheNewOneOrHalfOfItAndSaysWhy) {
  size_t calls = 0;
  std::vector<Fault> all = {kNoFault};
  for (size_t i = 0; i < all.size(); ++i) {
    const Fault fault = all[i];
    SCOPED_TRACE(testing::Message() << fault);
    start_over();
    make_archive();
    ASSERT_EQ(area_.init(0), 0);
    block_ = block_at(area_.get());
    Image image(golden_.size);
    fill_ends(image.data(), 3);
    golden_.number(image);
    memcpy(block_, image.data(), golden_.size);
    const Seen seen = run(fault, [&] {
      area_.save_to_flash(block_);
      return 0;
    });
    if (i == 0) {
      calls = faults().size();
      const std::vector<Fault> sample = sample_of(faults());
      all.insert(all.end(), sample.begin(), sample.end());
    }
    const bool begun = !fault.is("open") && !fault.is("fopen");
    const bool packed = begun && (!fault.is("system") || fault.nth != 1);

    Seen expected;
    if (fault.is("open")) {
      expected.output = cannot_lock(golden_.lock_path);
      EXPECT_EQ(calls_, Lines{"open"});
    }
    if (fault.is("fopen")) expected.output.out = "canot open the file.";
    if (fault.is("fwrite")) expected.output.out = "file write error\n";
    if (packed) expected.output.err = kTar.slash_note;
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(image.matches(block_));
    EXPECT_EQ(files(), with_archive(fault.is("system") && fault.nth == 2));

    if (packed) {
      std::string packed_image = text_of(image);
      if (fault.is("fwrite")) packed_image.resize(golden_.size / 2);
      const std::string unpack = "tar -zxOf " + golden_.archive_path + " >/var/unpacked";
      ASSERT_EQ(system(unpack.c_str()), 0);
      EXPECT_TRUE(read_file("/var/unpacked") == packed_image);
    } else {
      EXPECT_TRUE(read_file(golden_.archive_path) == archive_);
    }

    Lines commands;
    if (packed) commands.push_back("sync");
    for (size_t event = 0; begun && event < golden_.post_flash.size(); ++event) {
      if (!fault.is("system") || fault.nth != event + 3)
        commands.push_back(golden_.post_flash[event]);
    }
    EXPECT_EQ(commands_run(), commands);
  }
  EXPECT_EQ(calls, 9 + golden_.post_flash.size());
}

TEST_P(SavedAreaFaults, Save_SaysWhichStepFailed) {
  auto save = [&] {
    area_.save();
    return 0;
  };
  const Seen seen = run(kNoFault, save);
  EXPECT_EQ(seen, (Seen{0, kSilence, {golden_.code}}));
  const std::vector<Fault> all = faults();
  EXPECT_EQ(calls_, (Lines{"socket", "connect", "send", "close"}));
  for (const Fault& fault : all) {
    SCOPED_TRACE(testing::Message() << fault);
    Seen expected = seen;
    lose_notification(fault, expected);
    EXPECT_EQ(run(fault, save), expected);
  }
}

using DirectoryFaults = FaultWorld;

TEST_F(DirectoryFaults, ASegmentThatIsNotFoundLeavesZeroAndOneWithoutAddressEndsTheProcess) {
  for (const AreaCalls& area : all_areas()) ASSERT_EQ(area.init(0), 0);
  uint32_t slots[17];
  auto get = [&] {
    return Noted<SC_Get_SysConfig>::call(reinterpret_cast<SystemConfigDirectory*>(slots)) ==
           slots[16];
  };
  EXPECT_EQ(run(kNoFault, get).result, 1);
  EXPECT_EQ(std::count(slots, slots + 17, 0u), 0);
  for (const Fault& fault : faults()) {
    SCOPED_TRACE(testing::Message() << fault);
    const Ending ending = run_in_child([&] {
      int status = 8;
      {
        Faults faults(fault.number);
        Tried::begin(true);
        if (get()) status = 0;
      }
      /* Only the area whose segment was not found has none. */
      for (size_t slot = 0; slot < 17; ++slot) {
        if ((slots[slot] == 0) != (slot + 1 == fault.nth)) status = 9;
      }
      _exit(status);
    });
    EXPECT_EQ(ending,
              fault.is("shmget") ? (Ending{0, kSilence}) : (Ending{1, {"", "shmat failed\n"}}));
  }
}

/* ---- utilities ---- */

using UtilityFaults = FaultWorld;

TEST_F(UtilityFaults, ACommandThatCannotBeRun_IsReportedByItsResultAlone) {
  const std::function<int64_t()> steps[] = {
      [] {
        tell_of_call<sc_do_system>();
        return sc_do_system("echo x >%s", "/var/ran");
      },
      Noted<SC_Save_Dhcp_Clients>::call,
      Noted<SC_Save_Dhcp_Ap>::call,
      Noted<SC_Restore_Dhcp_Clients>::call,
      Noted<SC_Restore_Dhcp_Ap>::call,
  };
  for (const auto& step : steps) {
    const Seen seen = run({1, "system", 1}, step);
    EXPECT_EQ(seen, (Seen{-1, kSilence, {}}));
    EXPECT_EQ(calls_, Lines{"system"});
    EXPECT_FALSE(exists("/var/ran"));
  }
}

TEST_F(UtilityFaults, ALockThatCannotBeTaken_ReturnsMinusOneWithItsErrno) {
  const int fd = open("/var/lock_store/file", O_RDWR | O_CREAT, 0644);
  const Seen seen = run({1, "fcntl", 1}, [&] {
    const int result = Noted<sc_lock_reg>::call(fd, F_SETLKW, F_WRLCK, 2, SEEK_SET, 1);
    return result < 0 ? -errno : result;
  });
  EXPECT_EQ(seen, (Seen{-error_of("fcntl"), kSilence, {}}));
  EXPECT_EQ(calls_, Lines{"fcntl"});
  close(fd);
}

TEST_F(UtilityFaults, AnAddressBecomesTextWithoutACallThatCouldFail) {
  run(kNoFault, [&] {
    char text[16] = {};
    return strcmp(Noted<sc_inet_ntoa>::call(0x0100000a, text), "10.0.0.1");
  });
  EXPECT_EQ(calls_, Lines{});
}

/* ---- completeness ---- */

TEST(EveryImport, FailsInTheTestsAboveOrHasAReasonNotTo) {
  std::set<std::string> fail;
  for (const GoldenRow& row : golden_table("imports.csv")) {
    const bool fails = row.text("fails") == "yes";
    EXPECT_EQ(fails, row.text("why_not").empty()) << row.text("name");
    if (fails) fail.insert(row.text("name"));
  }
  EXPECT_EQ(fail, failing_calls());
}

}  // namespace
