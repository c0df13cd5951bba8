/* Random operations on every list, compared with the naive model after each: results, outputs,
 * the list's whole block, standard output, notifications and the journal of calls; all other blocks
 * after every tenth. The run's seed is printed; --seed=N repeats it, SC_TEST_STEPS=N makes it longer
 * (or shorter). */
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "model/list_calls.h"
#include "model/model.h"
#include "support/rows.h"
#include "support/areas.h"
#include "support/image.h"
#include "support/journal.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/random.h"
#include "support/world.h"

namespace {

using namespace sc_test;

constexpr uint32_t kFree = 0xFFFFFFFF;

uint32_t steps(uint32_t usual) {
  const char* given = getenv("SC_TEST_STEPS");
  return given == nullptr ? usual : static_cast<uint32_t>(strtoul(given, nullptr, 10));
}

const ListCalls& calls_of(const ListRow& row) {
  for (const ListCalls& calls : kListCalls) {
    if (row.name == calls.list) return calls;
  }
  abort();
}

/* ---- random inputs ---- */

class Inputs {
 public:
  explicit Inputs(uint64_t seed) : random(seed) {}

  Random random;

  template <class Value>
  Value one_of(std::initializer_list<Value> values) {
    return values.begin()[random.below(static_cast<uint32_t>(values.size()))];
  }
  Bytes noise(uint32_t size) {
    Bytes bytes(size);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random.next());
    return bytes;
  }
  uint32_t position(const ListRow& row) {
    if (random.one_in(4)) {
      return one_of<uint32_t>({0, row.capacity - 1, row.capacity, row.capacity + 1, 0x80000000,
                               0xFFFFFFFE, 0xFFFFFFFF});
    }
    return random.below(row.capacity);
  }
  uint32_t slot(const ListRow& row) {
    return one_of<uint32_t>(
        {kFree, kFree, 0, 0xFFFFFFFE, 0x80000000, 0x7FFFFFFF, random.below(row.capacity) + 1});
  }
  int32_t group_id() {
    return one_of<int32_t>({0, 1, 2, 3, 4, 5, 16, 17, 100, -1, -2, -128, 255, 256, 65535});
  }
  uint8_t mode() { return one_of<uint8_t>({0, 1, 1, 2, 2, 3, 0xFF}); }
  uint32_t op() {
    return one_of<uint32_t>({0, 0, 0, 0, 0, 0, 1, 1, 1, 2, 2, 2, 2, 3, 4, 5, 6, 0xFFFFFFFF});
  }

  /* A key's value: often one of a few, so that clashes and all but clashes happen. */
  void put_key(const KeyRow& key, uint8_t* to) {
    if (random.one_in(2)) return; /* the noise that is there */
    if (key.kind == "word") return store(to, 4, one_of<uint32_t>({0, 0x0201A8C0, 0x0301A8C0}));
    const uint8_t letter = one_of<uint8_t>({'a', 'A', 'b', 0, 0xE9, 0xC9});
    const uint32_t end = one_of<uint32_t>({0, 1, key.width - 1, key.width});
    memset(to, letter, end);
    if (random.one_in(2)) memset(to + end, 0, key.width - end);
    if (end < key.width) to[end] = 0;
  }
  void put_references(const ListRow& row, uint8_t* record) {
    for (const ReferenceRow& reference : row.references) {
      record[reference.mode_at] = mode();
      store(record + reference.id_at, reference.id_width, static_cast<uint32_t>(group_id()));
    }
    if (row.name == "QosRule") record[208] = one_of<uint8_t>({0, 0, 1, 0xFF});
  }
  Bytes record(const ListRow& row) {
    /* The clients' table operations take the record's first bytes alone. */
    Bytes bytes = noise(row.list_size == 0 ? row.item_size : row.stride);
    for (const KeyRow& key : row.keys) put_key(key, bytes.data() + key.at);
    put_references(row, bytes.data());
    return bytes;
  }

  void put_address(uint8_t* to) {
    static const char* const kTexts[] = {"192.168.1.2",
                                         "0.0.0.0",
                                         "255.255.255.255",
                                         "abc",
                                         "",
                                         "1.2.3",
                                         "0x0A.1",
                                         "10.0.0.1 x",
                                         "256.1.1.1",
                                         "1..2.3",
                                         "0300.0250.01.012",
                                         "1.2.3.4.5",
                                         "+1.2.3.4",
                                         "4294967296"};
    char text[16] = {};
    const uint32_t choice = random.below(2 * std::size(kTexts));
    if (choice < std::size(kTexts)) {
      strncpy(text, kTexts[choice], sizeof text);
    } else {
      Bytes octets = noise(4);
      if (random.one_in(2)) octets = {10, one_of<uint8_t>({1, 129}), 7, octets[3]}; /* neighbours */
      snprintf(text, sizeof text, "%d.%d.%d.%d", octets[0], octets[1], octets[2], octets[3]);
    }
    memcpy(to, text, sizeof text);
  }
  Bytes item(const ListRow& row) {
    Bytes bytes = noise(row.item_size);
    const Bytes with_values = record(row);
    for (const FieldRow& field : row.fields) {
      uint8_t* to = bytes.data() + field.item_at;
      const uint8_t* from = with_values.data() + field.record_at;
      if (field.kind == "address") {
        put_address(to);
      } else if (field.kind == "byte") {
        for (uint32_t i = 0; i < field.width; ++i) to[4 * i] = from[i];
      } else {
        memcpy(to, from, field.width);
      }
    }
    store(bytes.data() + row.id_at, 4, position(row) + 1);
    return bytes;
  }
  std::string ids(const ListRow& row) {
    std::string text;
    for (uint32_t count = random.below(4); count > 0; --count) {
      if (random.one_in(3)) {
        text += one_of<const char*>({"", "#", "3##5#", "abc", "1#1", "0", "-1", "99999", " 2", "4x",
                                     "-2147483648", "2147483647", "007"});
      } else {
        text += std::to_string(random.below(row.capacity + 2));
      }
      if (count > 1 || random.one_in(4)) text += '#';
    }
    return text;
  }
};

/* ---- the library and the model side by side ---- */

class Models : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    listener = std::make_unique<Listener>();
  }

  /* Every area full of noise, the tables of `row`'s between empty and full. */
  void start() {
    for (const ListRow& row : list_rows()) {
      if (model.areas.count(row.area) != 0) continue;
      const AreaFacts& facts = golden_area(row.area);
      const Bytes noise = in->noise(static_cast<uint32_t>(facts.size));
      Image image(noise.data(), noise.size());
      image.zero(0, 136);
      facts.number(image);
      model.areas[row.area] = Bytes(image.data(), image.data() + image.size());
      write_file(row.lock_path, "\n");
    }
    for (const ListRow& row : list_rows()) {
      const uint32_t used_of_ten = in->one_of<uint32_t>({0, 5, 9, 10});
      for (uint32_t p = 0; p < row.capacity; ++p) {
        uint8_t* record = model.record(row, p);
        const Bytes values = in->record(row);
        memcpy(record + 8, values.data() + 8, values.size() - 8);
        store(record + row.slot_at, 4, in->random.below(10) < used_of_ten ? p + 1 : kFree);
        store(record + row.lock_at, 4, static_cast<uint32_t>(row.lock_of(p)));
      }
    }
    blocks = model.areas;
  }

  void* block(const std::string& area) { return blocks.at(area).data(); }
  Blocks groups_and_rules() {
    return blocks_at([&](const char* area) { return block(area); });
  }

  /* One operation of the library, then the model's word on all that can be seen of it. */
  void step(const std::function<void()>& library, const std::function<void()>& expected) {
    std::vector<std::string> journal;
    const Output printed = capture([&] {
      Journal kept;
      library();
      journal = kept.lines();
    });
    model.forget();
    expected();
    ASSERT_EQ(printed, (Output{model.printed, ""}));
    ASSERT_EQ(journal, model.journal);
    ASSERT_EQ(listener->codes(), model.codes);
  }

  void compare_block(const std::string& area) {
    const Bytes& bytes = model.areas.at(area);
    if (bytes == blocks.at(area)) return;
    ASSERT_TRUE(Image(bytes.data(), bytes.size()).matches(block(area))) << area;
  }

  /* A step and the comparison of the list's area; from time to time of all areas, so that the
   * emulated targets keep up. */
  void compared_step(const ListRow& row, uint32_t steps_left) {
    ASSERT_NO_FATAL_FAILURE(random_step(row));
    ASSERT_NO_FATAL_FAILURE(compare_block(row.area));
    if (steps_left % 10 != 1) return;
    for (const auto& area : model.areas) ASSERT_NO_FATAL_FAILURE(compare_block(area.first));
  }

  void random_step(const ListRow& row) {
    const ListCalls& calls = calls_of(row);
    void* const real = block(row.area);
    switch (in->random.below(16)) {
      case 0:
      case 1:
      case 2:
      case 3: {
        const uint32_t op = in->op();
        const Bytes record = in->record(row);
        const uint32_t given = in->position(row);
        SCOPED_TRACE("operate " + std::to_string(op) + " at " + std::to_string(given));
        uint32_t position = given, modelled = given;
        int32_t result = 0;
        step([&] { result = calls.operate(real, op, &position, record.data()); },
             [&] { ASSERT_EQ(result, model.operate(row, op, &modelled, record.data())); });
        ASSERT_EQ(position, modelled);
        break;
      }
      case 4: {
        SCOPED_TRACE("claim");
        int32_t result = 0;
        step([&] { result = calls.blank(real); }, [&] { ASSERT_EQ(result, model.blank(row)); });
        break;
      }
      case 5: {
        if (calls.check == nullptr) break;
        SCOPED_TRACE("check");
        const Bytes record = in->record(row);
        const uint32_t skip = in->one_of<uint32_t>({kFree, 0, in->slot(row)});
        int32_t result = 0;
        step([&] { result = calls.check(real, record.data(), skip); },
             [&] { ASSERT_EQ(result, model.check(row, record.data(), skip)); });
        break;
      }
      case 6:
      case 7: {
        SCOPED_TRACE("add item");
        const Bytes item = in->item(row);
        int32_t result = 0;
        step([&] { result = calls.add(real, item.data()); },
             [&] { ASSERT_EQ(result, model.add(row, item.data())); });
        break;
      }
      case 8: {
        SCOPED_TRACE("modify item");
        const Bytes item = in->item(row);
        int32_t result = 0;
        step([&] { result = calls.modify(real, item.data()); },
             [&] { ASSERT_EQ(result, model.modify(row, item.data())); });
        break;
      }
      case 9: {
        if (calls.get == nullptr) break;
        const uint32_t id = in->position(row) + 1;
        SCOPED_TRACE("get item " + std::to_string(id));
        Bytes item = in->noise(row.item_size);
        step([&] { calls.get(real, id, item.data()); },
             [&] { ASSERT_EQ(item, model.get(row, id)); });
        break;
      }
      case 10: {
        if (calls.get_list == nullptr) break;
        SCOPED_TRACE("list");
        Bytes list(row.list_size, 0x5A);
        step([&] { calls.get_list(real, groups_and_rules(), list.data()); },
             [&] { ASSERT_EQ(list, model.get_list(row)); });
        break;
      }
      case 11:
      case 12: {
        const std::string given = in->ids(row);
        SCOPED_TRACE("delete items " + given);
        std::string ids = given, modelled = given;
        step([&] { calls.del(real, groups_and_rules(), ids.data()); },
             [&] { model.del(row, modelled); });
        ASSERT_EQ(ids, modelled);
        break;
      }
      case 13: {
        if (!in->random.one_in(4)) break;
        SCOPED_TRACE("delete all items");
        step([&] { calls.del_all(real); }, [&] { model.del_all(row); });
        break;
      }
      case 14: special_step(row); break;
      default: meddle(row);
    }
  }

  /* What only some lists have. */
  void special_step(const ListRow& row) {
    const int32_t id = in->group_id();
    SCOPED_TRACE("special, id " + std::to_string(id));
    const Blocks all = groups_and_rules();
    auto by_group = [&](const char* group, const std::function<void()>& library) {
      step(library, [&] { model.del_by_group(row, group, id); });
    };
    if (row.name == "UserIpGroup") {
      int32_t index = 0;
      step([&] { index = GetIpGroupIndex(all.ip_groups, id); }, [] {});
      int32_t expected = -1;
      for (uint32_t p = row.capacity; p > 0; --p) {
        if (load_signed(model.record(row, p - 1) + row.slot_at, 4) == id) {
          expected = static_cast<int32_t>(p) - 1;
        }
      }
      ASSERT_EQ(index, expected);
    } else if (row.name == "FireWall_IpPort" && in->random.one_in(2)) {
      by_group("ip", [&] { DelIpFilterItemByIpGroupId(all.ip_filters, id); });
    } else if (row.name == "FireWall_IpPort") {
      by_group("time", [&] { DelIpFilterItemByTimeGroupId(all.ip_filters, id); });
    } else if (row.name == "FireWall_Mac") {
      by_group("time", [&] { DelMacFilterItemByTimeGroupId(all.mac_filters, id); });
    } else if (row.name == "FireWall_Url") {
      by_group("time", [&] { DelUrlFilterItemByTimeGroupId(all.url_filters, id); });
    } else if (row.name == "QosRule" && in->random.one_in(2)) {
      by_group("ip", [&] { DelQosItemByIpGroupId(all.qos_rules, id); });
    } else if (row.name == "QosRule") {
      by_group("time", [&] { DelQosItemByTimeGroupId(all.qos_rules, id); });
    }
  }

  /* What other programs, or a damaged image, leave behind. */
  void meddle(const ListRow& row) {
    auto put = [&](uint32_t at, uint32_t value) {
      store(model.areas.at(row.area).data() + at, 4, value);
      store(blocks.at(row.area).data() + at, 4, value);
    };
    const uint32_t position = in->random.below(row.capacity);
    switch (in->random.below(5)) {
      case 0: return put(row.slot_of(position), in->slot(row));
      case 1:
        return put(row.record_at(position) + row.lock_at,
                   in->one_of<uint32_t>({0, 1, 77, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}));
      case 2: /* the lock file goes away, or comes back */
        if (model.without_lock.erase(row.area) != 0) return write_file(row.lock_path, "\n");
        if (!in->random.one_in(3)) return;
        model.without_lock.insert(row.area);
        ASSERT_EQ(unlink(row.lock_path.c_str()), 0);
        return;
      case 3: /* the lock path too */
        if (in->random.one_in(3)) return put(2, 0);
        return put(2, load(reinterpret_cast<const uint8_t*>(row.lock_path.data()), 4));
      default:
        if (row.counter_width == 4) put(row.counter_at, in->one_of<uint32_t>({0, 1, kFree}));
    }
  }

  std::unique_ptr<Inputs> in;
  Model model;
  std::map<std::string, Bytes> blocks; /* the library's */
  std::unique_ptr<Listener> listener;
};

class OneList : public Models, public testing::WithParamInterface<ListCalls> {};
INSTANTIATE_TEST_SUITE_P(Lists, OneList, testing::ValuesIn(kListCalls),
                         [](const auto& info) { return std::string(info.param.list); });

TEST_P(OneList, RandomOperations_LeaveWhatTheModelSays) {
  const ListRow& row = list_row(GetParam().list);
  in = std::make_unique<Inputs>(run_seed() + row.base + row.stride);
  ASSERT_NO_FATAL_FAILURE(start());
  for (uint32_t i = steps(400); i > 0; --i) {
    SCOPED_TRACE("steps left: " + std::to_string(i));
    ASSERT_NO_FATAL_FAILURE(compared_step(row, i));
  }
}

TEST_F(Models, RandomOperationsOnAllLists_LeaveWhatTheModelSays) {
  in = std::make_unique<Inputs>(run_seed());
  ASSERT_NO_FATAL_FAILURE(start());
  for (uint32_t i = steps(1000); i > 0; --i) {
    const ListRow& row = list_rows()[in->random.below(static_cast<uint32_t>(list_rows().size()))];
    SCOPED_TRACE(row.name + ", steps left: " + std::to_string(i));
    ASSERT_NO_FATAL_FAILURE(compared_step(row, i));
  }
}

}  // namespace
