/* What holds for every list: one set of rules over all of them, with each list's numbers from
 * golden/lists.csv and golden/item_fields.csv. Blocks are plain memory here, full of stale bytes,
 * and are compared whole. This is the fixture of all of them. */
#ifndef GENERIC_RULES_RULES_H
#define GENERIC_RULES_RULES_H

#include <stdio.h>
#include <string.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "model/list_calls.h"
#include "model/model.h"
#include "support/rows.h"
#include "support/areas.h"
#include "support/image.h"
#include "support/journal.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace sc_test {

using Lines = std::vector<std::string>;
using Codes = std::vector<int32_t>;

constexpr uint32_t kFree = 0xFFFFFFFF, kUntouched = 0xABCD;

inline std::ostream& operator<<(std::ostream& stream, const ListCalls& calls) {
  return stream << calls.list;
}

inline std::string name_of(const testing::TestParamInfo<ListCalls>& info) {
  return info.param.list;
}

/* An area's block in plain memory, as after the start. */
inline Image numbered(const std::string& name) {
  Image block = golden_area(name).emptied();
  golden_area(name).number(block);
  return block;
}

class Rules : public World, public testing::WithParamInterface<ListCalls> {
 protected:
  Rules()
      : calls(GetParam()),
        row(list_row(GetParam().list)),
        block(golden_area(row.area).size),
        last(row.capacity - 1) {}

  void SetUp() override {
    World::SetUp();
    for (const auto& list : list_rows()) write_file(list.lock_path, "\n");
    fill(block.data() + 136, block.size() - 136, 1);
    golden_area(row.area).number(block);
    for (const ListRow& list : list_rows()) {
      if (list.area != row.area) continue;
      for (uint32_t p = 0; p < list.capacity; ++p) block.put32(list.slot_of(p), kFree);
    }
  }

  /* A record (or item) of its own bytes; those of two numbers have no key in common. The table
   * operations of the clients take the record's first bytes alone. */
  Bytes record(uint32_t number) const {
    Bytes bytes(row.list_size == 0 ? row.item_size : row.stride);
    fill(bytes.data(), bytes.size(), number + 20);
    return bytes;
  }
  Bytes item(uint32_t number) const {
    Bytes bytes(row.item_size);
    fill(bytes.data(), bytes.size(), number + 20);
    for (const FieldRow& field : row.fields) {
      if (field.kind != "address") continue;
      char text[16] = {};
      snprintf(text, sizeof text, "10.%u.%u.%u", number % 256, field.record_at % 256, number / 256);
      memcpy(bytes.data() + field.item_at, text, sizeof text);
    }
    return bytes;
  }
  Bytes item_with_id(uint32_t number, uint32_t id) const {
    Bytes bytes = item(number);
    store(bytes.data() + row.id_at, 4, id);
    return bytes;
  }

  int32_t operate(uint32_t op, uint32_t at, const Bytes& with) {
    position = at;
    return calls.operate(block.data(), op, &position, with.data());
  }
  int32_t operate(uint32_t op, uint32_t at) {
    position = at;
    return calls.operate(block.data(), op, &position, nullptr);
  }
  int32_t add(uint32_t number) { return operate(LIST_OP_ADD, kUntouched, record(number)); }
  void add_first(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(add(i), SC_LIST_OK) << i;
  }
  void make_all_used() {
    for (uint32_t p = 0; p < row.capacity; ++p) block.put32(row.slot_of(p), p + 1);
  }
  /* The other areas that a delete or a listing reaches: empty, so that it finds nothing there. */
  Blocks others() {
    return blocks_at([&](const char* area) { return other.at(area).data(); });
  }
  std::string del(std::string ids) {
    calls.del(block.data(), others(), ids.data());
    return ids;
  }
  int32_t add_item(const Bytes& with) { return calls.add(block.data(), with.data()); }
  int32_t modify_item(const Bytes& with) { return calls.modify(block.data(), with.data()); }

  /* Expected images. */
  void put_runs(Image& expected, const std::vector<RunRow>& runs, uint32_t at,
                const Bytes& from) const {
    for (const RunRow& run : runs) {
      expected.copy(row.record_at(at) + run.at, from.data() + run.at, run.width);
    }
  }
  void put_freed(Image& expected, uint32_t at) const {
    expected.put32(row.slot_of(at), kFree);
    for (const RunRow& run : row.identity) expected.zero(row.record_at(at) + run.at, run.width);
  }
  void change_counter(Image& expected, uint32_t change) const {
    if (row.counter_width == 0) return;
    uint8_t* counter = expected.data() + row.counter_at;
    store(counter, row.counter_width, load(counter, row.counter_width) + change);
  }
  void zero_counter(Image& expected) const {
    if (row.counter_width != 0) expected.zero(row.counter_at, row.counter_width);
  }

  std::string opened(int number = 1) const {
    std::string line("#");
    line += std::to_string(number);
    line += " = open ";
    line += row.lock_path;
    return line;
  }
  std::string locked(const char* what, int number, uint32_t at) const {
    std::string line(what);
    line += " #" + std::to_string(number);
    line += " " + std::to_string(row.lock_of(at));
    return line;
  }
  Lines one_record(uint32_t at) const {
    return {opened(), locked("lock", 1, at), locked("unlock", 1, at), "close #1"};
  }
  Lines no_record() const { return {opened(), "close #1"}; }

  const ListCalls& calls;
  const ListRow& row;
  Image block;
  const uint32_t last;
  uint32_t position = kUntouched;
  std::map<std::string, Image> other = {
      {"FwIpport", numbered("FwIpport")}, {"FwMac", numbered("FwMac")},
      {"FwUrl", numbered("FwUrl")},       {"Qos", numbered("Qos")},
      {"IpGroup", numbered("IpGroup")},   {"TimeGroup", numbered("TimeGroup")}};
};

}  // namespace sc_test

#endif
