/* The locks of an edit, the functions that write a record, and the functions of single commands. */
#include "store/edit.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <sysconfig/ap.h>
#include <sysconfig/core.h>

#include "core/bytes.h"
#include "store/overlay.h"
#include "store/value.h"

namespace store {

using sc::load;
using sc::store;

/* ---- masks ---- */

void Mask::add(const Field& field) {
  for (size_t n = 0; n < field.size; ++n) bytes_.data()[field.record_at + n] |= mask_at(field, n);
}

void Mask::add_difference(const Field& field, const uint8_t* one, const uint8_t* other) {
  if (equal(field, one, other)) return;
  if (field.kind != Kind::kBytes || field.extra != nullptr) return add(field);
  for (uint32_t at = field.record_at; at < field.record_at + uint32_t{field.size}; ++at) {
    if (one[at] != other[at]) bytes_.data()[at] = 0xff;
  }
}

void Mask::add_differences(const Table& view, const uint8_t* one, const uint8_t* other) {
  for (const Field& field : view) add_difference(field, one, other);
}

bool Mask::has(const Field& field) const {
  return (bytes_.data()[field.record_at] & mask_at(field, 0)) != 0;
}

void Mask::merge(uint8_t* to, const uint8_t* from) const {
  for (uint32_t at = 0; at < table_.stride; ++at) {
    const uint8_t own = bytes_.data()[at];
    to[at] = static_cast<uint8_t>((to[at] & ~own) | (from[at] & own));
  }
}

bool Mask::is_partial() const {
  for (uint32_t at = 0; at < table_.stride; ++at) {
    if (bytes_.data()[at] != 0 && bytes_.data()[at] != 0xff) return true;
  }
  return false;
}

bool Mask::empty() const { return next_run(bytes_.data(), 0, table_.stride).size == 0; }

/* ---- locks ---- */

namespace {

constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGTERM};

constexpr uint32_t kSecondMs = 1000;

volatile sig_atomic_t g_interrupted; /* the signal; 0: none */

void interrupt(int signal_number) { g_interrupted = signal_number; }

void unlock_byte(int file, uint32_t byte) {
  sc_lock_reg(file, F_SETLK, F_UNLCK, static_cast<off_t>(byte), SEEK_SET, 1);
}

int open_to_edit(const Path& path) { return open(path.text, O_RDWR | O_CLOEXEC); }

int refuse_damaged(const Area& area) {
  return fail(kRefused, "area %s is damaged; scctl check %s tells more", area.name, area.name);
}

int check_header(const Area& area, const uint8_t* block) {
  const auto& header = area.row().header;
  const bool good =
      strncmp(reinterpret_cast<const char*>(block) + header.path_at, lock_path(area).text,
              static_cast<size_t>(header.index_at - header.path_at)) == 0 &&
      load<int32_t>(block + header.index_at) == 1;
  return good ? kOk : refuse_damaged(area);
}

}  // namespace

Edit::Edit(Source& live, Patience patience) : live_(live), patience_(patience), wait_(kSecondMs) {
  for (int n = 0; n < 3; ++n) {
    struct sigaction action = {}, was;
    action.sa_handler = interrupt; /* without SA_RESTART, so a wait ends */
    sigaction(kEndingSignals[n], nullptr, &was);
    handlers_[n] = was.sa_handler;
    if (was.sa_handler != SIG_IGN) sigaction(kEndingSignals[n], &action, nullptr);
  }
}

Edit::~Edit() { end(); }

void Edit::set_changed(AreaId area) {
  changed_ |= bit(area);
  if (g_journal != nullptr) g_journal->set_not_undoable();
}

/* Takes a byte. After EDEADLK it is not held, so the call is repeated. errno is EAGAIN when the
 * patience is at its end. */
bool Edit::lock(int file, uint32_t byte) {
  while (g_interrupted == 0) {
    const int command = patience_ == Patience::kForever ? F_SETLKW : F_SETLK;
    if (sc_lock_reg(file, command, F_WRLCK, static_cast<off_t>(byte), SEEK_SET, 1) == 0) {
      return true;
    }
    if (errno == EACCES && command == F_SETLK) errno = EAGAIN; /* POSIX allows both: it is held */
    if (errno != EDEADLK && errno != EINTR && errno != EAGAIN) return false;
    if (errno == EAGAIN && !wait_.pause()) return false;
    if (errno == EDEADLK) pause_ms(1);
  }
  errno = EINTR;
  return false;
}

bool is_interrupted() { return g_interrupted != 0; }

void end_if_interrupted() {
  if (is_interrupted()) raise(g_interrupted);
}

void clear_interrupt() { g_interrupted = 0; }

int Edit::begin(uint32_t areas) {
  if (g_journal != nullptr) {
    if (const int status = g_journal->begin(areas); status != kOk) return status;
  }
  for (int n = 0; n < kAreaCount; ++n) {
    const auto id = static_cast<AreaId>(n);
    if ((areas & bit(id)) == 0) continue;
    if (const int status = live_.need(id); status != kOk) return status;
    if (const int status = check_header(kAreas[id], live_.block(id)); status != kOk) return status;
    if (const int status = hold(id); status != kOk) return status;
  }
  return kOk;
}

void Edit::begin_in_time(uint32_t areas) {
  for (int n = 0; n < kAreaCount; ++n) {
    const auto id = static_cast<AreaId>(n);
    if ((areas & bit(id)) == 0 || live_.block(id) == nullptr) continue;
    const int file = open_to_edit(lock_path(kAreas[id]));
    if (file < 0) continue;
    g_lock_files[id] = file;
    held_ |= bit(id);
    lock(file, 0);
  }
}

int Edit::begin_damaged(AreaId id) {
  if (const int status = live_.need(id); status != kOk) return status;
  return hold(id);
}

/* Locks byte 0 of the area's lock file. */
int Edit::hold(AreaId id) {
  const Path path = lock_path(kAreas[id]);
  const int file = open_to_edit(path);
  if (file < 0) return fail(kNoArea, "%s cannot be opened: %s", path.text, strerror(errno));
  g_lock_files[id] = file;
  held_ |= bit(id);
  if (lock(file, 0)) return kOk;
  return fail(kRefused, "%s cannot be locked: %s", path.text, strerror(errno));
}

void Edit::end() {
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    if ((held_ & bit(id)) == 0) continue;
    close(g_lock_files[id]);
    g_lock_files[id] = 0;
  }
  held_ = 0;
  for (const Area& area : kAreas) {
    if ((changed_ & bit(id_of(area))) == 0 || area.notify == nullptr) continue;
    Quiet quiet;
    area.notify();
  }
  changed_ = 0;
  for (int n = 0; n < 3; ++n) signal(kEndingSignals[n], handlers_[n]);
}

/* Holds the byte that a record's own lock word names, or the area's byte if there is no lock
 * word. */
class RecordLock {
 public:
  RecordLock(Edit& edit, const Table& table, uint32_t position)
      : file_(g_lock_files[table.area]), byte_(lock_index_of(table, position)) {
    const uint8_t* record = record_of(edit, table, position);
    if (table.lock_at >= 0 && load<uint32_t>(record + table.lock_at) != byte_) {
      fail(kRefused, "%s/%u: its lock word is damaged; scctl check %s tells more", table.name,
           position + 1, kAreas[table.area].name);
      return;
    }
    held_ = edit.lock(file_, byte_);
    if (!held_ && errno == EAGAIN) {
      fault_ = Written::kLocked;
    } else if (!held_) {
      fail(kRefused, "%s/%u cannot be locked: %s", table.name, position + 1, strerror(errno));
    }
  }
  ~RecordLock() {
    if (held_) unlock_byte(file_, byte_);
  }
  RecordLock(const RecordLock&) = delete;
  RecordLock& operator=(const RecordLock&) = delete;
  explicit operator bool() const { return held_; }
  Written fault() const { return fault_; }

  static uint8_t* record_of(Edit& edit, const Table& table, uint32_t position) {
    return edit.live_.block(table.area) + table.at + position * table.stride;
  }

 private:
  int file_;
  uint32_t byte_;
  bool held_ = false;
  Written fault_ = Written::kFailed;
};

/* ---- writing ---- */

namespace {

/* Copies runs of bytes at once, as the library copies fields. */
void copy_masked(uint8_t* to, const uint8_t* from, const Mask& mask, uint32_t size) {
  const uint8_t* bytes = mask.bytes();
  for (Run run = next_run(bytes, 0, size); run.size != 0; run = next_run(bytes, run.end(), size)) {
    memcpy(to + run.at, from + run.at, run.size);
  }
}

/* Counters are aligned. They are changed without a lock, in one atomic step. */
void count(const Table& table, uint8_t* block, int change) {
  void* counter = block + table.counter_at;
  if (table.counter_size == 2) {
    __atomic_fetch_add(static_cast<uint16_t*>(counter), static_cast<uint16_t>(change),
                       __ATOMIC_RELAXED);
  } else if (table.counter_size == 4) {
    __atomic_fetch_add(static_cast<uint32_t*>(counter), static_cast<uint32_t>(change),
                       __ATOMIC_RELAXED);
  }
}

bool is_id_table(const Table& table) { return table.free == 0; }

}  // namespace

/* Without a journal nothing is written down. */
bool Edit::write_down(const Step& step) { return g_journal == nullptr || g_journal->append(step); }

namespace {

void fill(const Table& table, uint8_t* to, const uint8_t* from) {
  for (const Field& field : table) {
    memcpy(to + field.record_at, from + field.record_at, field.size);
  }
}

/* Other programs claim without a lock. */
bool claim(uint8_t* id, uint32_t number) {
  uint32_t free = 0;
  return __atomic_compare_exchange_n(reinterpret_cast<uint32_t*>(id), &free, number, false,
                                     __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

/* Frees a record of an access points' table. It then has the contents of `left`, or zeros. The id
 * is cleared last, so nobody can claim a half-cleared record. */
void free_by_id(const Table& table, uint8_t* record, const uint8_t* left) {
  uint8_t* id = record + table.id_at;
  constexpr uint32_t kWord = sizeof(uint32_t);
  const auto id_at = static_cast<uint32_t>(table.id_at);
  memset(record + kWord, 0, id_at - kWord);
  memset(id + kWord, 0, table.stride - id_at - kWord);
  if (left != nullptr) fill(table, record, left);
  __atomic_store_n(reinterpret_cast<uint32_t*>(id), 0, __ATOMIC_RELEASE);
}

/* The bytes of the mask that change: those of opaque fields one by one, other fields whole. */
void mark_changed(const Table& table, uint32_t position, const uint8_t* now, const uint8_t* wanted,
                  const Mask& mask, Mask* changed) {
  changed->add_differences(view_of(table, position, wanted), now, wanted);
  for (uint32_t at = 0; at < table.stride; ++at) changed->bytes()[at] &= mask.bytes()[at];
}

}  // namespace

Written Edit::add(const Table& table, uint32_t position, const uint8_t* record) {
  const RecordLock lock(*this, table, position);
  return lock ? use(table, position, record) : lock.fault();
}

/* The caller holds the record's byte. */
Written Edit::use(const Table& table, uint32_t position, const uint8_t* record) {
  uint8_t* to = RecordLock::record_of(*this, table, position);
  uint8_t* id = to + table.id_at;
  if (is_used(table, to)) return Written::kNotFree;
  if (!write_down({table, position, to, record, nullptr, false, true})) return Written::kFailed;
  changed_ |= bit(table.area);
  if (is_id_table(table)) {
    if (!claim(id, position + 1)) {
      write_down({table, position, record, nullptr, nullptr, true, false}); /* it was not made */
      return Written::kNotFree;
    }
    fill(table, to, record);
    return Written::kDone;
  }
  fill(table, to, record);
  __atomic_thread_fence(__ATOMIC_RELEASE);
  store(id, position + 1);
  count(table, live_.block(table.area), 1);
  return Written::kDone;
}

Written Edit::change(const Table& table, uint32_t position, const uint8_t* record, const Mask& mask,
                     const uint8_t* expected) {
  const RecordLock lock(*this, table, position);
  if (!lock) return lock.fault();
  uint8_t* to = RecordLock::record_of(*this, table, position);
  if (!is_used(table, to)) return Written::kNotUsed;
  if (expected != nullptr && !has_equal_fields(table, to, expected)) return Written::kChanged;
  Buffer merged;
  if (mask.is_partial() || is_covered(table)) {
    /* The other bits of a byte are those of now, under the lock. */
    Buffer(table.stride).swap(merged);
    memcpy(merged.data(), to, table.stride);
    mask.merge(merged.data(), record);
    /* What was written under its names has them still. */
    if (&view_of(table, position, record) != &view_of(table, position, merged.data())) {
      return Written::kChanged;
    }
    record = merged.data();
  }
  if (g_journal != nullptr) {
    Mask changed(table);
    mark_changed(table, position, to, record, mask, &changed);
    if (!changed.empty() &&
        !write_down({table, position, to, record, changed.bytes(), true, true})) {
      return Written::kFailed;
    }
  }
  changed_ |= bit(table.area);
  copy_masked(to, record, mask, table.stride);
  return Written::kDone;
}

Written Edit::remove(const Table& table, uint32_t position, const uint8_t* expected) {
  const RecordLock lock(*this, table, position);
  if (!lock) return lock.fault();
  uint8_t* record = RecordLock::record_of(*this, table, position);
  if (!is_used(table, record)) return Written::kNotUsed;
  if (expected != nullptr && !has_equal_fields(table, record, expected)) return Written::kChanged;
  if (!write_down({table, position, record, nullptr, nullptr, true, false})) {
    return Written::kFailed;
  }
  changed_ |= bit(table.area);
  ++removed_;
  if (is_id_table(table)) {
    free_by_id(table, record, nullptr);
    return Written::kDone;
  }
  store<int32_t>(record + table.id_at, table.free);
  for (const Field& field : table) {
    if (field.add_only) memset(record + field.record_at, 0, field.size);
  }
  count(table, live_.block(table.area), -1);
  return Written::kDone;
}

/* ---- taking back ---- */

namespace {

/* Chooses what goes back of the bytes that a change has written: if all of them still have the
 * values after the change. They are written or stay together. */
void choose_bytes(const Change& change, const uint8_t* now, uint32_t at, uint32_t end, Mask* back,
                  Mask* stays) {
  bool is_changed = false, is_back = true, is_left = true;
  for (uint32_t n = at; n < end; ++n) {
    if (change.mask.data()[n] == 0) continue;
    const uint8_t before = change.before.data()[n], after = change.after.data()[n];
    is_changed |= before != after;
    is_back &= now[n] == before;
    is_left &= now[n] == after;
  }
  if (!is_changed || is_back) return;
  for (uint32_t n = at; n < end; ++n) {
    if (change.mask.data()[n] != 0) (is_left ? back : stays)->bytes()[n] = 0xff;
  }
}

/* Chooses field by field, and in opaque fields byte by byte. A byte of two members stays for
 * both. */
void choose_fields(const Change& change, const uint8_t* now, Mask* back, Mask* stays) {
  for (const Field& field : view_of(*change.table, change.position, now)) {
    const uint32_t end = field.record_at + uint32_t{field.size};
    const uint8_t* mask = change.mask.data();
    if (field.kind != Kind::kBytes) {
      if (next_run(mask, field.record_at, end).size == 0) continue;
      choose_bytes(change, now, field.record_at, end, back, stays);
      continue;
    }
    for (uint32_t at = field.record_at; (at = next_run(mask, at, end).at) < end; ++at) {
      choose_bytes(change, now, at, at + 1, back, stays);
    }
  }
  const uint32_t size = change.table->stride;
  const uint8_t* staying = stays->bytes();
  for (Run run = next_run(staying, 0, size); run.size != 0;
       run = next_run(staying, run.end(), size)) {
    memset(back->bytes() + run.at, 0, run.size);
  }
}

}  // namespace

/* The caller holds the record's byte. */
Written Edit::put_back(const Change& change, Mask* stays) {
  const Table& table = *change.table;
  uint8_t* live = RecordLock::record_of(*this, table, change.position);
  const uint8_t* before = change.before.data();
  const bool used = is_used(table, live);
  if (change.was_used && change.is_used) {
    if (!used) return Written::kNotUsed;
    Mask back(table);
    choose_fields(change, live, &back, stays);
    if (back.empty()) return Written::kDone;
    if (!write_down({table, change.position, live, before, back.bytes(), true, true})) {
      return Written::kFailed;
    }
    changed_ |= bit(table.area);
    copy_masked(live, before, back, table.stride);
    return Written::kDone;
  }
  if (change.was_used) {
    if (used) return has_equal_fields(table, live, before) ? Written::kDone : Written::kNotFree;
    return use(table, change.position, before);
  }
  if (!used) {
    /* Added and deleted: the free record has its bytes of before. It is claimed for that where
     * others claim without a lock. */
    if (change.is_used || has_equal_fields(table, live, before)) return Written::kDone;
    if (!is_id_table(table)) {
      fill(table, live, before);
    } else if (claim(live + table.id_at, change.position + 1)) {
      free_by_id(table, live, before);
    }
    return Written::kDone;
  }
  if (!change.is_used) return Written::kDone; /* the record is another one */
  if (!has_equal_fields(table, live, change.after.data())) return Written::kChanged;
  if (!write_down({table, change.position, live, nullptr, nullptr, true, false})) {
    return Written::kFailed;
  }
  changed_ |= bit(table.area);
  if (is_id_table(table)) {
    free_by_id(table, live, before);
  } else {
    store<int32_t>(live + table.id_at, table.free);
    fill(table, live, before);
    count(table, live_.block(table.area), -1);
  }
  return Written::kDone;
}

Written Edit::take_back(const Change& change, Mask* stays, const Change* partner) {
  const RecordLock lock(*this, *change.table, change.position);
  if (!lock) return lock.fault();
  if (partner == nullptr) return put_back(change, stays);
  const RecordLock partner_lock(*this, *partner->table, partner->position);
  if (!partner_lock) return partner_lock.fault();
  Mask partner_stays(*partner->table);
  put_back(*partner, &partner_stays);
  return put_back(change, stays);
}

/* ---- bindings ---- */

namespace {

const Table& table_named(const char* name) { return *find_table(name, strlen(name)); }

bool is_same_mac(const uint8_t* one, const uint8_t* other) {
  return memcmp(one, other, SC_MAC_BYTES) == 0;
}

constexpr uint8_t kNobody[SC_MAC_BYTES] = {};

/* A record with some fields changed. The fields are complete before any is written. */
class Rewrite {
 public:
  Rewrite(const Table& table, uint32_t position, uint8_t* block)
      : table_(table),
        position_(position),
        to_(block + table.at + position * table.stride),
        wanted_(table.stride),
        mask_(table) {}
  /* Sets a field to these bytes, or to zeros. */
  void set(const char* name, const void* bytes) {
    const Field& field = *find_field(table_, name, strlen(name));
    mask_.add(field);
    if (bytes != nullptr) memcpy(wanted_.data() + field.record_at, bytes, field.size);
  }
  Step step() const { return {table_, position_, to_, wanted_.data(), mask_.bytes(), true, true}; }
  void write() { copy_masked(to_, wanted_.data(), mask_, table_.stride); }

 private:
  const Table& table_;
  uint32_t position_;
  uint8_t* to_;
  Buffer wanted_;
  Mask mask_;
};

}  // namespace

/* The caller holds the bytes of both records. An ap_position of -1: there is no access point. */
Written Edit::write_binding(uint32_t template_id, int32_t ap_position, bool is_bound) {
  auto* templates = reinterpret_cast<ApTemplateListBlock*>(live_.block(kApTemplateList));
  const ApTemplateRecord& target = templates->templates[template_id - 1];
  Rewrite rewrite(table_named("ap_templates"), template_id - 1, live_.block(kApTemplateList));
  Rewrite ap_rewrite(table_named("aps"), static_cast<uint32_t>(ap_position),
                     live_.block(kManageApList));
  if (ap_position >= 0) {
    const auto* aps = reinterpret_cast<ManageApListBlock*>(live_.block(kManageApList));
    rewrite.set("bound_ap_mac", is_bound ? aps->aps[ap_position].ap_mac : nullptr);
    const auto group = static_cast<uint8_t>(template_id);
    ap_rewrite.set("group_id", is_bound ? &group : nullptr);
    ap_rewrite.set("group_info", is_bound ? target.template_name : nullptr);
    if (!write_down(ap_rewrite.step())) return Written::kFailed;
  } else {
    rewrite.set("bound_ap_mac", nullptr);
  }
  if (!write_down(rewrite.step())) return Written::kFailed;
  changed_ |= bit(kApTemplateList);
  if (ap_position >= 0) {
    changed_ |= bit(kManageApList);
    ap_rewrite.write();
  }
  rewrite.write();
  return Written::kDone;
}

Written Edit::bind(uint32_t template_id, uint32_t ap_id) {
  const RecordLock lock(*this, table_named("ap_templates"), template_id - 1);
  if (!lock) return lock.fault();
  const RecordLock ap_lock(*this, table_named("aps"), ap_id - 1);
  if (!ap_lock) return ap_lock.fault();
  auto* templates = reinterpret_cast<ApTemplateListBlock*>(live_.block(kApTemplateList));
  auto* aps = reinterpret_cast<ManageApListBlock*>(live_.block(kManageApList));
  const ApTemplateRecord& target = templates->templates[template_id - 1];
  const ApInfoRecord& ap = aps->aps[ap_id - 1];
  if (target.template_id == 0 || ap.ap_id == 0 ||
      (ap.group_id != 0 && ap.group_id != template_id) ||
      (!is_same_mac(target.bound_ap_mac, kNobody) &&
       !is_same_mac(target.bound_ap_mac, ap.ap_mac))) {
    return Written::kChanged;
  }
  return write_binding(template_id, static_cast<int32_t>(ap_id - 1), true);
}

Written Edit::unbind(uint32_t template_id) {
  const RecordLock lock(*this, table_named("ap_templates"), template_id - 1);
  if (!lock) return lock.fault();
  auto* templates = reinterpret_cast<ApTemplateListBlock*>(live_.block(kApTemplateList));
  auto* aps = reinterpret_cast<ManageApListBlock*>(live_.block(kManageApList));
  const ApTemplateRecord& target = templates->templates[template_id - 1];
  if (is_same_mac(target.bound_ap_mac, kNobody)) return Written::kDone;
  const int32_t position = SC_Get_Ap_Info_By_Mac(aps, target.bound_ap_mac);
  if (position < 0) return write_binding(template_id, position, false);
  const RecordLock ap_lock(*this, table_named("aps"), static_cast<uint32_t>(position));
  if (!ap_lock) return ap_lock.fault();
  if (!is_same_mac(aps->aps[position].ap_mac, target.bound_ap_mac)) return Written::kChanged;
  return write_binding(template_id, position, false);
}

int fail_written(const Table& table, uint32_t id, Written written) {
  const char* what = nullptr;
  switch (written) {
    case Written::kNotFree: what = "used"; break;
    case Written::kNotUsed: what = "deleted"; break;
    case Written::kChanged: what = "changed"; break;
    case Written::kLocked: what = "locked"; break;
    default: return kRefused;
  }
  return fail(kRefused, "%s/%u was %s by another program meanwhile", table.name, id, what);
}

/* ---- commands ---- */

namespace {

int refuse_clash(const Snapshot& now, const uint8_t* record, int skip, Spelling spelling) {
  const Field* field;
  const int other = now.find_clash(record, skip, &field, spelling);
  if (other < 0) return kOk;
  Text value;
  format(*field, record, &value);
  const char* table = now.table().name;
  return fail(kRefused, "%s: %s '%s' is already used by %s/%d", table, field->name, value.c_str(),
              table, other + 1);
}

int refuse_section(const Table& table) {
  return fail(kRefused, "%s always exists; scctl set changes it", table.name);
}

}  // namespace

int refuse_free(const Table& table, uint32_t id) {
  return fail(kRefused, "%s/%u is free; scctl add %s/%u creates it", table.name, id, table.name,
              id);
}

int add_record(Source& live, const Table& table, const uint8_t* record, Spelling spelling,
               uint32_t* id) {
  if (is_section(table)) return refuse_section(table);
  Edit edit(live);
  if (const int status = edit.begin(bit(table.area)); status != kOk) return status;
  Snapshot now(table);
  now.take(live);
  if (*id != 0 && now.used(*id - 1)) {
    return fail(kRefused, "%s/%u is used; scctl set changes it", table.name, *id);
  }
  if (const int status = refuse_clash(now, record, -1, spelling); status != kOk) return status;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    if (now.used(position) || (*id != 0 && *id != position + 1)) continue;
    const Written written = edit.add(table, position, record);
    if (written == Written::kNotFree && *id == 0) continue;
    if (written != Written::kDone) return fail_written(table, position + 1, written);
    *id = position + 1;
    return kOk;
  }
  return fail(kRefused, "%s is full (%u records)", table.name, table.capacity);
}

int set_record(Source& live, const Table& table, uint32_t id, const uint8_t* record,
               const Mask& mask, Spelling spelling, const uint8_t* expected) {
  Edit edit(live);
  if (const int status = edit.begin(bit(table.area)); status != kOk) return status;
  bool has_key = false;
  for (const Field& field : table) has_key |= mask.has(field) && field.clash != Clash::kNone;
  Snapshot now(table);
  if (has_key)
    now.take(live);
  else
    now.take(live, id - 1);
  if (!now.used(id - 1)) return refuse_free(table, id);
  Buffer wanted(table.stride);
  memcpy(wanted.data(), now.record(id - 1), table.stride);
  for (const Field& field : table) {
    if (!mask.has(field)) continue;
    if (field.add_only && !equal(field, wanted.data(), record)) {
      return fail(kRefused, "%s.%s is written by add alone; delete %s/%u and add it", table.name,
                  field.name, table.name, id);
    }
  }
  mask.merge(wanted.data(), record);
  if (has_key) {
    if (const int status = refuse_clash(now, wanted.data(), static_cast<int>(id - 1), spelling);
        status != kOk) {
      return status;
    }
  }
  const Written written = edit.change(table, id - 1, record, mask, expected);
  return written == Written::kDone ? kOk : fail_written(table, id, written);
}

/* ---- deletion ---- */

namespace {

/* The areas in which a deletion from the table changes records. */
uint32_t reached_from(const Table& table) {
  uint32_t areas = bit(table.area);
  for (const Reference& reference : kReferences) {
    if (strcmp(reference.groups, table.name) == 0) {
      areas |= bit(find_table(reference.table, strlen(reference.table))->area);
    }
  }
  if (table.area == kApTemplateList) areas |= bit(kManageApList);
  return areas;
}

int need_reached(Source& live, const Table& table) {
  for (int n = 0; n < kAreaCount; ++n) {
    const auto area = static_cast<AreaId>(n);
    if ((reached_from(table) & bit(area)) == 0 || g_file == nullptr) continue;
    if (live.block(area) == nullptr) {
      return fail(kRefused, "deleting from %s reaches into area %s, which %s does not hold",
                  table.name, kAreas[area].name, g_file);
    }
  }
  return kOk;
}

const Table& rules_of(const Reference& reference) {
  return *find_table(reference.table, strlen(reference.table));
}

int64_t number_in(const Table& table, const char* name, const uint8_t* record) {
  const Field& field = *find_field(table, name, strlen(name));
  return load_number(record + field.record_at, field.size, true);
}

}  // namespace

bool is_deleted_with(const Reference& reference, const uint8_t* rule, uint32_t group_id) {
  const Table& rules = rules_of(reference);
  return number_in(rules, reference.mode, rule) == reference.last_mode &&
         number_in(rules, reference.id, rule) == group_id;
}

namespace {

/* Deletes the rules that refer to the group, as the library does. A rule that another program
 * changes before it is deleted is read again: it may no longer refer to the group. */
int remove_referring(Edit& edit, const Table& groups, uint32_t group_id) {
  for (const Reference& reference : kReferences) {
    if (strcmp(reference.groups, groups.name) != 0) continue;
    const Table& rules = rules_of(reference);
    const uint8_t* record = edit.live().block(rules.area) + rules.at;
    Buffer rule(rules.stride);
    for (uint32_t position = 0; position < rules.capacity; ++position, record += rules.stride) {
      Written written;
      do {
        memcpy(rule.data(), record, rules.stride);
        if (!is_used(rules, rule.data()) || !is_deleted_with(reference, rule.data(), group_id)) {
          break;
        }
        written = edit.remove(rules, position, rule.data());
        if (written == Written::kFailed) return kRefused;
      } while (written == Written::kChanged);
    }
  }
  return kOk;
}

int remove_with_references(Edit& edit, const Table& table, uint32_t id) {
  if (const int status = remove_referring(edit, table, id); status != kOk) return status;
  /* Without this, an access point that is bound to the template would keep its name and id. */
  Written written = table.area == kApTemplateList ? edit.unbind(id) : Written::kDone;
  if (written == Written::kDone) written = edit.remove(table, id - 1);
  /* The record may have been deleted with a group. */
  return written == Written::kDone || written == Written::kNotUsed
             ? kOk
             : fail_written(table, id, written);
}

/* Prints how many records were deleted before one failed, rules deleted with a group included. */
int say_deleted(const Edit& edit, int status) {
  if (edit.removed() > 0) tell("records deleted: %d%s", edit.removed(), failure_note());
  return status;
}

}  // namespace

int delete_records(Source& live, const Doomed* records, int count) {
  uint32_t areas = 0;
  for (int n = 0; n < count; ++n) {
    const Table& table = *records[n].table;
    if (is_section(table)) return refuse_section(table);
    if (const int status = need_reached(live, table); status != kOk) return status;
    areas |= reached_from(table);
  }
  Edit edit(live);
  if (const int status = edit.begin(areas); status != kOk) return status;
  for (int n = 0; n < count; ++n) {
    const Table& table = *records[n].table;
    const uint8_t* record = live.block(table.area) + table.at + (records[n].id - 1) * table.stride;
    if (!is_used(table, record)) return fail(kRefused, "%s/%u is free", table.name, records[n].id);
  }
  for (int n = 0; n < count; ++n) {
    const int status = remove_with_references(edit, *records[n].table, records[n].id);
    if (status != kOk) return say_deleted(edit, status);
  }
  return kOk;
}

int clear_table(Source& live, const Table& table) {
  if (is_section(table)) return refuse_section(table);
  const bool binds = table.area == kApTemplateList;
  if (binds) {
    if (const int status = need_reached(live, table); status != kOk) return status;
  }
  Edit edit(live);
  const int begun = edit.begin(binds ? reached_from(table) : bit(table.area));
  if (begun != kOk) return begun;
  const uint8_t* record = live.block(table.area) + table.at;
  for (uint32_t id = 1; id <= table.capacity; ++id, record += table.stride) {
    if (!is_used(table, record)) continue;
    Written written = binds ? edit.unbind(id) : Written::kDone;
    if (written == Written::kDone) written = edit.remove(table, id - 1);
    if (written == Written::kFailed || written == Written::kChanged) {
      return say_deleted(edit, fail_written(table, id, written));
    }
  }
  return kOk;
}

}  // namespace store
