/* What the tests of scctl's edits share: every table as it lies in its area, typed a second time, and
 * all areas, made and live.
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
#include "support/world.h"

namespace sc_test {

/* A table, what scctl add takes for a record, what scctl set takes, and where these lie. */
struct EditedTable {
  const char* name;
  const char* area;
  size_t base, stride;
  uint32_t capacity;
  size_t lock_at, id_at;
  uint32_t first_lock, free_mark;
  size_t counter_at, counter_size;
  const char* key; /* of add, whose value is 6 bytes or text at key_at */
  std::string key_value;
  size_t key_at;
  const char* field; /* of set, a text or bytes at field_at */
  std::string field_value;
  size_t field_at;
};

/* In the order of their areas. */
// clang-format off
inline const EditedTable kEditedTables[] = {
  {"lan_binds",     "Lan",            1508,  748,   32,  4, 0,     2,  ~0u, 1504,  4, "mac=00:11:22:33:44:55", "00:11:22:33:44:55", 9,   "name=set",          "set",  48},
  {"ac_binds",      "Lan",            25948, 748,   32,  4, 0,     34, ~0u, 25944, 4, "mac=00:11:22:33:44:55", "00:11:22:33:44:55", 9,   "name=set",          "set",  48},
  {"port_forward",  "VsIpport",       144,   948,   32,  0, 4,     2,  ~0u, 140,   2, "leading_text=web",      "web",               8,   "trailing_text=set", "set",  246},
  {"ip_filter",     "FwIpport",       144,   984,   32,  0, 4,     2,  ~0u, 140,   2, "leading_text=rule",     "rule",              8,   "start_time=set",    "set",  262},
  {"ip_groups",     "IpGroup",        140,   940,   16,  0, 4,     2,  ~0u, 136,   4, "leading_text=office",   "office",            8,   "trailing_text=set", "set",  240},
  {"time_groups",   "TimeGroup",      140,   936,   16,  0, 4,     2,  ~0u, 136,   4, "leading_text=night",    "night",             8,   "start_time=set",    "set",  215},
  {"mac_filter",    "FwMac",          144,   960,   32,  0, 4,     2,  ~0u, 140,   2, "mac=00:11:22:33:44:55", "00:11:22:33:44:55", 208, "leading_text=set",  "set",  8},
  {"url_filter",    "FwUrl",          144,   1068,  32,  0, 4,     2,  ~0u, 140,   2, "url=example.org",       "example.org",       208, "leading_text=set",  "set",  8},
  {"qos",           "Qos",            144,   1008,  32,  0, 4,     2,  ~0u, 140,   2, "leading_text=slow",     "slow",              8,   "match_text=set",    "set",  209},
  {"aps",           "ManageApList",   136,   12304, 300, 0, 11788, 2,  0,   0,     0, "ap_mac=02:61:62:63:64:65",   "\x02" "abcde",   236, "opaque_11800=736574", "set", 11800},
  {"ap_users",      "ApUserList",     136,   23200, 300, 0, 4,     2,  0,   0,     0, "user_mac=02:61:62:63:64:65", "\x02" "abcde",   8,   "opaque_14=736574",  "set",  14},
  {"ap_templates",  "ApTemplateList", 136,   12008, 15,  0, 4,     2,  0,   0,     0, "template_name=lobby",   "lobby",             58,  "opaque_8=736574",   "set",  8},
  {"client_groups", "Clients_Groups", 136,   528,   10,  0, 4,     2,  ~0u, 0,     0, "group_name=staff",      "staff",             8,   "group_name=set",    "set",  8},
  {"clients",       "Clients",        136,   720,   300, 0, 4,     2,  ~0u, 0,     0, "client_mac=02:61:62:63:64:65", "\x02" "abcde", 8,   "text_182=set",      "set",  182},
};
// clang-format on

inline const EditedTable& edited_table(const std::string& name) {
  for (const EditedTable& table : kEditedTables) {
    if (name == table.name) return table;
  }
  throw std::runtime_error(name);
}

/* What scctl add takes for a second and a third record beside that of the key. */
inline Words next_key(const EditedTable& table, char digit, char letter) {
  std::string key = table.key;
  key.back() = key.back() == '5' ? digit : letter;
  if (table.area == std::string("Lan")) return {key, std::string("ip=0.0.0.") + digit};
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
  std::string lock_file(const std::string& area_name) { return golden_area(area_name).lock_path; }

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
