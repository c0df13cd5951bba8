#include "faults/fault_world.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>

#include "support/random.h"

namespace sc_test {

namespace {

std::string said_by_perror(const std::string& call) {
  return call + ": " + strerror(error_of(call)) + "\n";
}

std::set<std::string> open_descriptors() {
  std::set<std::string> open;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
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

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Fault& fault) {
  if (fault.every()) return stream << "with every call failing: " << fault.call;
  return stream << "with call " << fault.number << " failing: " << fault.call << " " << fault.nth;
}

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

std::ostream& operator<<(std::ostream& stream, const Seen& seen) {
  stream << "result " << seen.result << " " << seen.output << " codes";
  for (int32_t code : seen.codes) stream << " " << code;
  return stream;
}

/* ---- what was tried ---- */

struct Tried::List {
  std::atomic<size_t> count;
  AnyFunction at[1024];
};
Tried::List* const Tried::list = static_cast<List*>(
    mmap(nullptr, sizeof(List), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
bool Tried::failing = false;
std::vector<AnyFunction> Tried::others;

void Tried::begin(bool with_fault) {
  failing = with_fault;
  others.clear();
  on_call = note;
}

void Tried::end(bool made_no_call) {
  on_call = nullptr;
  if (made_no_call) std::for_each(others.begin(), others.end(), add);
}

bool Tried::is(const std::string& name) {
  return has(reinterpret_cast<AnyFunction>(dlsym(RTLD_DEFAULT, name.c_str())));
}

bool Tried::has(AnyFunction called) {
  const AnyFunction *begin = list->at, *end = begin + list->count;
  return std::find(begin, end, called) != end;
}

void Tried::note(AnyFunction called) {
  if (failing) return add(called);
  others.push_back(called);
}

void Tried::add(AnyFunction called) {
  if (has(called)) return;
  if (list->count == std::size(list->at)) abort();
  list->at[list->count++] = called;
}

/* ---- the fixture ---- */

void FaultWorld::SetUp() {
  World::SetUp();
  listener_ = std::make_unique<Listener>();
}

void FaultWorld::TearDown() {
  listener_.reset();
  World::TearDown();
}

Seen FaultWorld::run(const Fault& fault, const std::function<int64_t()>& action) {
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

std::vector<Fault> FaultWorld::faults() const {
  std::vector<Fault> faults;
  for (size_t i = 0; i < calls_.size(); ++i) {
    const auto nth =
        std::count(calls_.begin(), calls_.begin() + static_cast<long>(i) + 1, calls_[i]);
    faults.push_back({i + 1, calls_[i], static_cast<size_t>(nth)});
  }
  return faults;
}

Codes FaultWorld::received() {
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

void FaultWorld::lose_notification(const Fault& fault, Seen& expected) {
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

}  // namespace sc_test
