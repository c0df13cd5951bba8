#include "model/ap_model.h"

#include <string.h>

#include "support/areas.h"

namespace sc_test {
namespace {

/* In the record of an access point. */
constexpr uint32_t kRunState = 137, kGroupId = 348, kGroupInfo = 349, kFragments = 11796;
/* In the record of a template. */
constexpr uint32_t kTemplateName = 58;
constexpr uint32_t kNameSize = 50, kMacSize = 6;
/* In the record of the limits. */
constexpr uint32_t kMaxApCount = 468;

const IdTableRow& aps() { return id_table_row("Ap_Info"); }
const IdTableRow& templates() { return id_table_row("AP_Template_Info"); }

}  // namespace

void ApModel::forget() {
  journal.clear();
  printed.clear();
  opened_ = 0;
}

bool ApModel::open(const IdTableRow& row) {
  const char* at = reinterpret_cast<const char*>(areas.at(row.area).data()) + row.path_at;
  const std::string path(at, strnlen(at, 128));
  if (without_lock.count(row.area) != 0) {
    journal.push_back("open " + path + " failed");
    printed += "Cannot Lock file " + path;
    return false;
  }
  open_.push_back(++opened_);
  journal.push_back("#" + std::to_string(opened_) + " = open " + path);
  return true;
}

void ApModel::close() {
  journal.push_back("close #" + std::to_string(open_.back()));
  open_.pop_back();
}

void ApModel::log_lock(const char* what, const IdTableRow& row, uint32_t position) {
  const int32_t lock_index = load_signed(record(row, position) + row.lock_at, 4);
  journal.push_back(std::string(what) + " #" + std::to_string(open_.back()) + " " +
                    std::to_string(lock_index));
}

uint8_t* ApModel::record(const IdTableRow& row, uint32_t position) {
  return areas.at(row.area).data() + row.base + row.stride * position;
}

uint32_t ApModel::id_of(const IdTableRow& row, uint32_t position) {
  return load(record(row, position) + row.id_at, 4);
}

int32_t ApModel::by_id(const IdTableRow& row, uint32_t id) {
  for (uint32_t p = 0; p < row.capacity; ++p) {
    if (id_of(row, p) == id) return static_cast<int32_t>(p);
  }
  return -1;
}

int32_t ApModel::by_mac(const IdTableRow& row, const uint8_t* mac) {
  for (uint32_t p = 0; p < row.capacity; ++p) {
    if (memcmp(record(row, p) + row.mac_at, mac, kMacSize) == 0) return static_cast<int32_t>(p);
  }
  return -1;
}

int32_t ApModel::claim(const IdTableRow& row) {
  const int32_t free = by_id(row, 0);
  if (free >= 0) {
    const uint32_t position = static_cast<uint32_t>(free);
    store(record(row, position) + row.id_at, 4, position + 1);
  }
  return free;
}

int32_t ApModel::count(const IdTableRow& row) {
  int32_t used = 0;
  for (uint32_t p = 0; p < row.capacity; ++p) used += id_of(row, p) != 0;
  return used;
}

void ApModel::clear(const IdTableRow& row, uint32_t position) {
  uint8_t* cleared = record(row, position);
  log_lock("lock", row, position);
  const uint32_t lock_index = load(cleared + row.lock_at, 4);
  memset(cleared, 0, row.stride);
  store(cleared + row.lock_at, 4, lock_index);
  log_lock("unlock", row, position);
}

int32_t ApModel::del_by_mac(const IdTableRow& row, const uint8_t* mac) {
  if (!open(row)) return 0;
  const int32_t found = by_mac(row, mac);
  if (found >= 0) clear(row, static_cast<uint32_t>(found));
  close();
  return found >= 0;
}

/* --- access points -------------------------------------------------------------------------- */

int32_t ApModel::claim_ap(const uint8_t* limits) {
  int32_t positive = 0;
  for (uint32_t p = 0; p < aps().capacity; ++p) {
    positive += static_cast<int32_t>(id_of(aps(), p)) > 0;
  }
  if (positive >= load_signed(limits + kMaxApCount, 2)) return -1;
  return claim(aps());
}

int32_t ApModel::online() {
  int32_t found = 0;
  for (uint32_t p = 0; p < aps().capacity; ++p) {
    found += id_of(aps(), p) != 0 && load_signed(record(aps(), p) + kRunState, 1) >= -1;
  }
  return found;
}

int32_t ApModel::offline() {
  int32_t found = 0;
  for (uint32_t p = 0; p < aps().capacity; ++p) {
    found += id_of(aps(), p) != 0 && load_signed(record(aps(), p) + kRunState, 1) == -2;
  }
  return found;
}

std::vector<uint32_t> ApModel::used_positions() {
  std::vector<uint32_t> used;
  for (uint32_t p = 0; p < aps().capacity; ++p) {
    if (id_of(aps(), p) != 0) used.push_back(p);
  }
  return used;
}

int32_t ApModel::add_group_info(const uint8_t* info, int group, const uint8_t* mac) {
  if (!open(aps())) return 0;
  const int32_t found = by_mac(aps(), mac);
  if (found >= 0) {
    const uint32_t position = static_cast<uint32_t>(found);
    log_lock("lock", aps(), position);
    record(aps(), position)[kGroupId] = static_cast<uint8_t>(group);
    memcpy(record(aps(), position) + kGroupInfo, info, kNameSize);
    log_lock("unlock", aps(), position);
  }
  close();
  return found >= 0;
}

int32_t ApModel::clean_group_info(const uint8_t* mac) {
  return add_group_info(Bytes(kNameSize, 0).data(), 0, mac);
}

int32_t ApModel::clear_used() {
  if (!open(aps())) return 0;
  const std::vector<uint32_t> used = used_positions();
  for (uint32_t p : used) clear(aps(), p);
  close();
  return static_cast<int32_t>(used.size());
}

void ApModel::empty_fragment_buffers() {
  for (uint32_t p = 0; p < aps().capacity; ++p) store(record(aps(), p) + kFragments, 4, 0);
}

/* --- templates ------------------------------------------------------------------------------ */

int32_t ApModel::del_template(uint32_t position) {
  if (!open(templates())) return 0;
  clear(templates(), position);
  close();
  return 1;
}

void ApModel::bind(uint32_t id, const uint8_t* mac) {
  if (!open(templates())) return;
  const int32_t found = by_id(templates(), id);
  if (found >= 0) {
    const uint32_t position = static_cast<uint32_t>(found);
    uint8_t* bound = record(templates(), position) + templates().mac_at;
    const uint8_t none[kMacSize] = {};
    const bool same = memcmp(bound, mac, kMacSize) == 0;
    const bool unbound = memcmp(bound, none, kMacSize) == 0;
    log_lock("lock", templates(), position);
    if (same || unbound) {
      add_group_info(record(templates(), position) + kTemplateName,
                     static_cast<int>(id_of(templates(), position)), mac);
      memcpy(bound, mac, kMacSize);
    }
    log_lock("unlock", templates(), position);
  }
  close();
}

void ApModel::unbind(uint32_t id, const uint8_t* mac) {
  if (!open(templates())) return;
  const int32_t found = by_id(templates(), id);
  if (found >= 0) {
    const uint32_t position = static_cast<uint32_t>(found);
    uint8_t* bound = record(templates(), position) + templates().mac_at;
    log_lock("lock", templates(), position);
    if (memcmp(bound, mac, kMacSize) == 0) {
      memset(bound, 0, kMacSize);
      clean_group_info(mac);
    }
    log_lock("unlock", templates(), position);
  }
  close();
}

}  // namespace sc_test
