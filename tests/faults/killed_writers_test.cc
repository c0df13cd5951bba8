/* Writers that are killed before each of their calls. */
#include <string.h>
#include <sys/mman.h>

#include <stdexcept>

#include "faults/lists.h"

namespace {

using namespace sc_test;

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
    return blocks_at([&](const char* area) { return at(area); });
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

}  // namespace
