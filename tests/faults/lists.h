/* The lists under faults: blocks in plain memory with some records used, and the naive model, which says
 * what is left of them. */
#ifndef FAULTS_LISTS_H
#define FAULTS_LISTS_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "faults/fault_world.h"
#include "model/list_calls.h"
#include "model/model.h"
#include "support/rows.h"
#include "support/areas.h"
#include "support/image.h"

namespace sc_test {

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
    return blocks_at([&](const char* area) {
      return blocks.count(area) != 0 ? blocks.at(area).data() : nullptr;
    });
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

}  // namespace sc_test

#endif
