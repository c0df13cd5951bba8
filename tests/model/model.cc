#include "model/model.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "support/started.h"

namespace sc_test {
namespace {

std::string text_at(const uint8_t* bytes, size_t width) {
  const char* text = reinterpret_cast<const char*>(bytes);
  return std::string(text, strnlen(text, width));
}

std::string dotted(const uint8_t* bytes) {
  char text[16];
  snprintf(text, sizeof text, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
  return text;
}

uint8_t lower(uint8_t letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<uint8_t>(letter + 32) : letter;
}

bool same_text(const uint8_t* left, const uint8_t* right, uint32_t width) {
  for (uint32_t i = 0; i < width; ++i) {
    if (lower(left[i]) != lower(right[i])) return false;
    if (left[i] == 0) return true;
  }
  return true;
}

void copy_runs(const std::vector<RunRow>& runs, uint8_t* to, const uint8_t* from) {
  for (const RunRow& run : runs) memcpy(to + run.at, from + run.at, run.width);
}

}  // namespace

uint32_t load(const uint8_t* bytes, uint32_t width) {
  uint32_t value = 0;
  for (uint32_t i = 0; i < width; ++i) value |= static_cast<uint32_t>(bytes[i]) << (8 * i);
  return value;
}

int32_t load_signed(const uint8_t* bytes, uint32_t width) {
  const uint32_t value = load(bytes, width);
  if (width == 1) return static_cast<int8_t>(value);
  if (width == 2) return static_cast<int16_t>(value);
  return static_cast<int32_t>(value);
}

void store(uint8_t* bytes, uint32_t width, uint32_t value) {
  for (uint32_t i = 0; i < width; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

std::vector<int32_t> split_ids(std::string& text) {
  std::vector<int32_t> ids;
  size_t at = 0;
  while ((at = text.find_first_not_of('#', at)) != std::string::npos) {
    const size_t end = text.find('#', at);
    ids.push_back(atoi(text.substr(at, end - at).c_str()));
    if (end == std::string::npos) break;
    text[end] = '\0';
    at = end + 1;
  }
  return ids;
}

void Model::forget() {
  journal.clear();
  codes.clear();
  printed.clear();
  opened_ = 0;
}

/* --- calls ---------------------------------------------------------------------------------- */

bool Model::open(const std::string& area) {
  const std::string path = text_at(areas.at(area).data() + 2, 130);
  const bool fails = opens_until_failure != 0 && --opens_until_failure == 0;
  if (fails || path.empty() || without_lock.count(area) != 0) {
    journal.push_back("open " + path + " failed");
    printed += "Cannot Lock file " + path;
    return false;
  }
  open_.push_back(++opened_);
  journal.push_back("#" + std::to_string(opened_) + " = open " + path);
  return true;
}

void Model::close() {
  journal.push_back("close #" + std::to_string(open_.back()));
  open_.pop_back();
}

/* No byte lies in front of a file: such a lock fails, and the change is made all the same. */
void Model::log_lock(const char* what, int32_t lock_index) {
  char line[64]; /* hundreds of thousands of lines, on slow CPUs too */
  snprintf(line, sizeof line, "%s #%d %d%s", what, int{open_.back()}, lock_index,
           lock_index < 0 ? " failed" : "");
  journal.emplace_back(line);
}

void Model::lock(int32_t lock_index) { log_lock("lock", lock_index); }

void Model::unlock(int32_t lock_index) { log_lock("unlock", lock_index); }

void Model::notify(const ListRow& row) {
  codes.push_back(row.code);
  for (const std::string& line : notification(++opened_, row.code)) journal.push_back(line);
}

/* --- table operations ----------------------------------------------------------------------- */

uint8_t* Model::record_in(const std::string& area, const ListRow& row, uint32_t position) {
  return areas.at(area).data() + row.record_at(position);
}

bool Model::is_free(const ListRow& row, uint32_t position) {
  return load(record(row, position) + row.slot_at, 4) == row.free_mark;
}

int32_t Model::check(const ListRow& row, const uint8_t* candidate, uint32_t skip_slot) {
  for (uint32_t p = 0; p < row.capacity; ++p) {
    const uint8_t* other = record(row, p);
    if (is_free(row, p) || load(other + row.slot_at, 4) == skip_slot) continue;
    for (const KeyRow& key : row.keys) {
      const bool same = key.kind == "text"
                            ? same_text(other + key.at, candidate + key.at, key.width)
                            : memcmp(other + key.at, candidate + key.at, key.width) == 0;
      if (same) return 1;
    }
  }
  return 0;
}

int32_t Model::blank(const ListRow& row) {
  if (!open(row.area)) return -1;
  int32_t claimed = -1;
  for (uint32_t p = 0; p < row.capacity && claimed < 0; ++p) {
    if (!is_free(row, p)) continue;
    const int32_t lock_index = load_signed(record(row, p) + row.lock_at, 4);
    lock(lock_index);
    store(record(row, p) + row.slot_at, 4, p + 1);
    unlock(lock_index);
    claimed = static_cast<int32_t>(p);
  }
  close();
  return claimed;
}

void Model::free_record(const std::string& area, const ListRow& row, uint32_t position) {
  uint8_t* freed = record_in(area, row, position);
  const int32_t lock_index = load_signed(freed + row.lock_at, 4);
  lock(lock_index);
  store(freed + row.slot_at, 4, row.free_mark);
  for (const RunRow& run : row.identity) memset(freed + run.at, 0, run.width);
  unlock(lock_index);
}

int32_t Model::operate_in(const std::string& area, const ListRow& row, uint32_t op,
                          uint32_t* position, const uint8_t* from) {
  if (!open(area)) return -1;
  int32_t result = 5;
  if (op == 0) {
    int32_t claimed = -1;
    if (check(row, from, 0xFFFFFFFF) == 0) claimed = blank(row);
    result = 1;
    if (claimed >= 0) {
      *position = static_cast<uint32_t>(claimed);
      uint8_t* to = record(row, *position);
      lock(load_signed(to + row.lock_at, 4));
      copy_runs(row.identity, to, from);
      copy_runs(row.payload, to, from);
      unlock(load_signed(to + row.lock_at, 4));
      result = 0;
    }
  }
  if (op == 1) {
    result = 2;
    if (*position < row.capacity) {
      free_record(area, row, *position);
      result = 0;
    }
  }
  if (op == 2) {
    result = check(row, from, *position + 1);
    if (result == 0 && *position >= row.capacity) result = row.modify_range;
    if (result == 0) {
      uint8_t* to = record(row, *position);
      lock(load_signed(to + row.lock_at, 4));
      copy_runs(row.payload, to, from);
      unlock(load_signed(to + row.lock_at, 4));
    }
  }
  if (op == 5) {
    for (uint32_t p = 0; p < row.capacity; ++p) free_record(area, row, p);
    result = 0;
  }
  close();
  return result;
}

int32_t Model::operate(const ListRow& row, uint32_t op, uint32_t* position, const uint8_t* from) {
  return operate_in(row.area, row, op, position, from);
}

/* --- items ---------------------------------------------------------------------------------- */

void Model::change_count(const ListRow& row, uint32_t change) {
  if (row.counter_width == 0) return;
  uint8_t* counter = areas.at(row.area).data() + row.counter_at;
  store(counter, row.counter_width, load(counter, row.counter_width) + change);
}

Bytes to_record(const ListRow& row, const uint8_t* item, bool with_identity) {
  Bytes built(row.stride, 0);
  for (const FieldRow& field : row.fields) {
    uint8_t* to = built.data() + field.record_at;
    const uint8_t* from = item + field.item_at;
    if (field.kind == "bytes" || (field.kind == "identity" && with_identity)) {
      memcpy(to, from, field.width);
    } else if (field.kind == "byte") {
      for (uint32_t i = 0; i < field.width; ++i) to[i] = from[4 * i];
    } else if (field.kind == "half") {
      memcpy(to, from, 2);
    } else if (field.kind == "address") {
      store(to, 4, inet_addr(text_at(from, 16).c_str()));
    }
  }
  return built;
}

void to_item(const ListRow& row, const uint8_t* from_record, uint8_t* item) {
  memcpy(item + row.id_at, from_record + row.slot_at, 4);
  for (const FieldRow& field : row.fields) {
    const uint8_t* from = from_record + field.record_at;
    uint8_t* to = item + field.item_at;
    if (field.kind == "bytes") {
      memcpy(to, from, field.width);
    } else if (field.kind == "byte") {
      for (uint32_t i = 0; i < field.width; ++i) {
        store(to + 4 * i, 4, static_cast<uint32_t>(load_signed(from + i, 1)));
      }
    } else if (field.kind == "half") {
      store(to, 4, static_cast<uint32_t>(load_signed(from, 2)));
    } else if (field.kind == "address") {
      const std::string text = dotted(from);
      memcpy(to, text.data(), text.size());
    }
  }
}

int32_t Model::add(const ListRow& row, const uint8_t* item) {
  uint32_t position = 0;
  const int32_t result = operate(row, 0, &position, to_record(row, item, true).data());
  if (result == 0) change_count(row, 1);
  notify(row);
  return result;
}

int32_t Model::modify(const ListRow& row, const uint8_t* item) {
  uint32_t position = load(item + row.id_at, 4) - 1;
  const int32_t result = operate(row, 2, &position, to_record(row, item, false).data());
  notify(row);
  return result;
}

Bytes Model::get(const ListRow& row, uint32_t id) {
  Bytes item(row.item_size, 0);
  if (id - 1 < row.capacity) to_item(row, record(row, id - 1), item.data());
  return item;
}

void Model::resolve(const ListRow& row, const uint8_t* rule, uint8_t* item) {
  for (const ReferenceRow& reference : row.references) {
    if (load_signed(rule + reference.mode_at, 1) != reference.listing_mode) continue;
    const int32_t id = load_signed(rule + reference.id_at, reference.id_width);
    if (reference.group == "ip") {
      /* A QoS rule selects by addresses only when its match_kind, at 208, is 0. */
      if (row.name == "QosRule" && rule[208] != 0) continue;
      const Bytes group = get(list_row("UserIpGroup"), static_cast<uint32_t>(id));
      memcpy(item + reference.name_at, group.data() + 4, 200);
      memcpy(item + reference.values_at, group.data() + 204, 32);
    } else if (id >= 0) {
      const Bytes group = get(list_row("UserTimeGroup"), static_cast<uint32_t>(id));
      const std::string name = text_at(group.data() + 4, 200);
      memcpy(item + reference.name_at, name.data(), name.size());
      memcpy(item + reference.values_at, group.data() + 204, 48);
    }
  }
}

Bytes Model::get_list(const ListRow& row) {
  Bytes list(row.list_size, 0);
  uint32_t count = 0;
  for (uint32_t p = 0; p < row.capacity; ++p) {
    const uint8_t* from = record(row, p);
    if (load_signed(from + row.slot_at, 4) < 0) continue;
    uint8_t* item = list.data() + 8 + count * row.item_size;
    to_item(row, from, item);
    resolve(row, from, item);
    ++count;
  }
  store(list.data(), 4, count);
  store(list.data() + 4, 4, row.capacity);
  return list;
}

void Model::del_by_group(const ListRow& row, const std::string& group, int32_t id) {
  for (const ReferenceRow& reference : row.references) {
    if (reference.group != group) continue;
    for (uint32_t p = 0; p < row.capacity; ++p) {
      const uint8_t* rule = record(row, p);
      if (load_signed(rule + reference.mode_at, 1) != reference.cascade_mode) continue;
      if (load_signed(rule + reference.id_at, reference.id_width) != id) continue;
      operate(row, 1, &p, nullptr);
      change_count(row, 0xFFFFFFFF);
      notify(row);
    }
  }
}

void Model::del(const ListRow& row, std::string& ids) {
  for (const int32_t id : split_ids(ids)) {
    if (row.name == "UserIpGroup") {
      del_by_group(list_row("FireWall_IpPort"), "ip", id);
      del_by_group(list_row("QosRule"), "ip", id);
    }
    if (row.name == "UserTimeGroup") {
      del_by_group(list_row("FireWall_IpPort"), "time", id);
      del_by_group(list_row("FireWall_Url"), "time", id);
      del_by_group(list_row("FireWall_Mac"), "time", id);
      del_by_group(list_row("QosRule"), "time", id);
    }
    uint32_t position = static_cast<uint32_t>(id) - 1;
    operate(row, 1, &position, nullptr);
    change_count(row, 0xFFFFFFFF);
  }
  notify(row);
}

void Model::del_all(const ListRow& row) {
  uint32_t position = 0xFFFFFFFF;
  /* The IP filter's block is walked with the port-forwarding table's geometry. */
  const ListRow& walked = row.name == "FireWall_IpPort" ? list_row("ForwordIpPort") : row;
  operate_in(row.area, walked, 5, &position, nullptr);
  if (row.counter_width != 0) {
    store(areas.at(row.area).data() + row.counter_at, row.counter_width, 0);
  }
  notify(row);
}

}  // namespace sc_test
