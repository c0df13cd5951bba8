/* What the tests of scctl's edits share: an edit for every table, with the table as it lies in its
 * area, and all areas, made and live.
 */
#ifndef SCCTL_EDITS_H
#define SCCTL_EDITS_H

#include <string.h>

#include <sysconfig/core.h>

#include "support/areas.h"
#include "support/image.h"
#include "support/listener.h"
#include "support/locks.h"
#include "support/output.h"
#include "support/program.h"
#include "support/rows.h"
#include "support/world.h"

namespace sc_test {

/* What scctl add takes for a record of a table, what scctl set takes, and where these lie in it. */
struct TableEdits {
  const char* name; /* of scctl */
  const char* list; /* in golden/lists.csv or golden/id_tables.csv */
  const char* key;  /* of add, whose value is 6 bytes or text at key_at */
  std::string key_value;
  size_t key_at;
  const char* field; /* of set, a text or bytes at field_at */
  std::string field_value;
  size_t field_at;
};

/* In the order of their areas. */
// clang-format off
inline const TableEdits kTableEdits[] = {
  {"lan_binds",     "DhcpdBind",        "mac=00:11:22:33:44:55", "00:11:22:33:44:55", 9, "name=set", "set", 48},
  {"ac_binds",      "AC_DhcpdBind",     "mac=00:11:22:33:44:55", "00:11:22:33:44:55", 9, "name=set", "set", 48},
  {"port_forward",  "ForwordIpPort",    "leading_text=web", "web", 8, "trailing_text=set", "set", 246},
  {"ip_filter",     "FireWall_IpPort",  "leading_text=rule", "rule", 8, "start_time=set", "set", 262},
  {"ip_groups",     "UserIpGroup",      "leading_text=office", "office", 8, "trailing_text=set", "set", 240},
  {"time_groups",   "UserTimeGroup",    "leading_text=night", "night", 8, "start_time=set", "set", 215},
  {"mac_filter",    "FireWall_Mac",     "mac=00:11:22:33:44:55", "00:11:22:33:44:55", 208, "leading_text=set", "set", 8},
  {"url_filter",    "FireWall_Url",     "url=example.org", "example.org", 208, "leading_text=set", "set", 8},
  {"qos",           "QosRule",          "leading_text=slow", "slow", 8, "match_text=set", "set", 209},
  {"aps",           "Ap_Info",          "ap_mac=02:61:62:63:64:65", "\x02" "abcde", 236, "opaque_11800=736574", "set", 11800},
  {"ap_users",      "ApUser_Info",      "user_mac=02:61:62:63:64:65", "\x02" "abcde", 8, "opaque_14=736574", "set", 14},
  {"ap_templates",  "AP_Template_Info", "template_name=lobby", "lobby", 58, "opaque_8=736574", "set", 8},
  {"client_groups", "ClientsGroups",    "group_name=staff", "staff", 8, "group_name=set", "set", 8},
  {"clients",       "Clients",          "client_mac=02:61:62:63:64:65", "\x02" "abcde", 8, "text_182=set", "set", 182},
};
// clang-format on

/* The same with the table as it lies in its area. */
struct EditedTable : TableEdits {
  std::string area;
  size_t base, stride;
  uint32_t capacity;
  size_t lock_at, id_at;
  uint32_t first_lock, free_mark = 0;
  size_t counter_at = 0, counter_size = 0;
};

inline EditedTable with_place(const TableEdits& edits) {
  for (const IdTableRow& row : id_table_rows()) {
    if (row.name != edits.list) continue;
    return {edits,        row.area,    row.base,  row.stride,
            row.capacity, row.lock_at, row.id_at, row.first_lock_index};
  }
  const ListRow& row = list_row(edits.list);
  const auto first_lock = static_cast<uint32_t>(row.first_lock_index);
  return {edits,       row.area,   row.base,      row.stride,     row.capacity,     row.lock_at,
          row.slot_at, first_lock, row.free_mark, row.counter_at, row.counter_width};
}

inline const std::vector<EditedTable>& edited_tables() {
  static const std::vector<EditedTable> tables = [] {
    std::vector<EditedTable> all;
    for (const TableEdits& edits : kTableEdits) all.push_back(with_place(edits));
    return all;
  }();
  return tables;
}

inline const EditedTable& edited_table(const std::string& name) {
  for (const EditedTable& table : edited_tables()) {
    if (name == table.name) return table;
  }
  throw std::runtime_error(name);
}

/* What scctl add takes for a second and a third record beside that of the key. */
inline Words next_key(const EditedTable& table, char digit, char letter) {
  std::string key = table.key;
  key.back() = key.back() == '5' ? digit : letter;
  if (table.area == "Lan") return {key, std::string("ip=0.0.0.") + digit};
  return {key};
}
inline Words other_key(const EditedTable& table) { return next_key(table, '6', 'x'); }
inline Words third_key(const EditedTable& table) { return next_key(table, '7', 'y'); }

inline Words joined(Words words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

inline std::string record_name(const EditedTable& table, uint32_t id) {
  return std::string(table.name) + "/" + std::to_string(id);
}

inline size_t record_at(const EditedTable& table, uint32_t id) {
  return table.base + (id - 1) * table.stride;
}

/* Raises or lowers the table's counter in an image. */
inline void count_in(Image& image, const EditedTable& table, int change) {
  if (table.counter_size == 2) {
    image.put16(table.counter_at, static_cast<int>(image.get32(table.counter_at)) + change);
  } else if (table.counter_size == 4) {
    image.put32(table.counter_at, image.get32(table.counter_at) + static_cast<uint32_t>(change));
  }
}

class EditTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    start_areas();
  }

  void start_areas() {
    for (const AreaCalls& calls : all_areas()) ASSERT_EQ(calls.init(1), 0) << calls.name;
    /* Each area once: attached for good. */
    for (const AreaCalls& calls : all_areas()) blocks_[calls.name] = block_at(calls.get());
  }

  uint8_t* block(const std::string& area_name) { return blocks_.at(area_name); }
  template <class Block>
  Block* block_as(const std::string& area_name) {
    return reinterpret_cast<Block*>(block(area_name));
  }
  Image image(const std::string& area_name) {
    return Image(block(area_name), golden_area(area_name).size);
  }

  /* A command that has to succeed, and what it prints. */
  std::string done(const Words& arguments, const std::string& input = "") {
    const Outcome outcome = run(scctl(arguments), input);
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  /* The notification that an area sends once, if it sends any. */
  std::vector<int32_t> one_of(const std::string& area_name) {
    const int32_t code = golden_area(area_name).code;
    return code == 0 ? std::vector<int32_t>{} : std::vector<int32_t>{code};
  }

 private:
  std::map<std::string, uint8_t*> blocks_;
};

}  // namespace sc_test

#endif
