#include "shown.h"

#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include "store/value.h"

namespace scctl {

namespace {

/* A claimed record that may be complete: it has the contents that its place had before a
 * deletion. */
constexpr int32_t kRefillMs = 12;
constexpr int kCopies = 100;

/* Room for a record each: one that is seen through absent pages, and later the one that is kept; a
 * copy; packed fields. What is never written of them takes no memory. */
struct {
  uint8_t seen[kLargestRecord], copy[kLargestRecord], kept[kLargestRecord];
} g_room;

/* Each step is a bijection, so a change of one word alone always changes the sum. */
uint32_t add_to_sum(uint32_t sum, const uint8_t* bytes, size_t size) {
  constexpr uint32_t kFactor = 0x9e3779b1;
  const auto add = [&sum](uint32_t word) {
    sum = (sum ^ word) * kFactor;
    sum ^= sum >> 15;
  };
  uint32_t word;
  for (; size >= sizeof word; size -= sizeof word, bytes += sizeof word) {
    memcpy(&word, bytes, sizeof word);
    add(word);
  }
  word = 0;
  memcpy(&word, bytes, size);
  if (size != 0) add(word);
  return sum;
}

bool is_swapping() {
  shm_info info = {};
  return shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info)) >= 0 && info.shm_swp != 0;
}

}  // namespace

Holders::~Holders() {
  if (file_ >= 0) close(file_);
}

bool Holders::hold(int32_t byte) {
  if (!opened_) file_ = open(lock_path(area_).text, O_RDONLY | O_CLOEXEC);
  opened_ = true;
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return fcntl(file_, F_GETLK, &lock) == 0 && lock.l_type == F_WRLCK;
}

/* A page that was swapped out is not in memory either, and holds more than zeros. */
Pages::Pages(const uint8_t* block, uint32_t size)
    : block_(block), page_(static_cast<uint32_t>(getpagesize())), present_(size / page_ + 1) {
  if (is_swapping() || mincore(const_cast<uint8_t*>(block), size, present_.data()) != 0) {
    memset(present_.data(), 1, size / page_ + 1);
  }
}

const uint8_t* Pages::see(uint32_t at, uint32_t size, uint8_t* room) const {
  const uint32_t end = at + size;
  bool is_whole = true;
  for (uint32_t page = at / page_; page * page_ < end; ++page) is_whole &= is_present(page);
  if (is_whole) return block_ + at;
  for (uint8_t* to = room; at < end;) {
    const uint32_t page = at / page_;
    const uint32_t behind = (page + 1) * page_ < end ? (page + 1) * page_ : end;
    memset(to, 0, behind - at);
    if (is_present(page)) memcpy(to, block_ + at, behind - at);
    to += behind - at;
    at = behind;
  }
  return room;
}

void Shown::begin(const Table& table, bool whole, const Pages& pages) {
  whole_ = whole;
  begin(table);
  for (uint32_t position = 0; position < table.capacity; ++position) {
    if (is_empty(pages, position)) continue;
    const uint8_t* record = see(pages, position);
    keep(position, record, store::is_used(table, record));
  }
}

void Shown::begin(const Table& table) {
  table_ = &table;
  size_ = 0;
  for (const Field& field : table) size_ += is_kept(field) ? field.size : 0;
  Buffer(table.capacity * size_).swap(kept_);
  Buffer(table.capacity * sizeof(Mark)).swap(marks_);
}

/* Whether the record was free and is, and leaves no bytes: most of the access points' large records
 * are not looked at. */
bool Shown::is_empty(const Pages& pages, uint32_t position) const {
  if (leaves_bytes() || is_section(*table_) || is_used(position)) return false;
  const auto id_at = static_cast<uint32_t>(table_->id_at);
  const uint32_t at = table_->at + position * table_->stride + id_at;
  return load_word(pages.see(at, sizeof(int32_t), g_room.seen)) == table_->free;
}

const uint8_t* Shown::see(const Pages& pages, uint32_t position) const {
  return pages.see(table_->at + position * table_->stride, table_->stride, g_room.seen);
}

/* Returns the sum of what is not kept. */
uint32_t Shown::pack(const uint8_t* record, uint8_t* to) const {
  uint32_t sum = 0;
  for (const Field& field : *table_) {
    const uint8_t* bytes = record + field.record_at;
    if (!is_kept(field)) {
      sum = add_to_sum(sum, bytes, field.size);
      continue;
    }
    memcpy(to, bytes, field.size);
    to += field.size;
  }
  return sum;
}

void Shown::unpack(uint32_t position, uint8_t* record) const {
  const uint8_t* from = at(position);
  for (const Field& field : *table_) {
    if (!is_kept(field)) continue;
    memcpy(record + field.record_at, from, field.size);
    from += field.size;
  }
}

void Shown::keep(uint32_t position, const uint8_t* record, bool used) {
  marks()[position] = {pack(record, at(position)), used};
}

bool Shown::is_same(uint32_t position, const uint8_t* record) const {
  uint8_t* packed = g_room.kept;
  return marks()[position].sum == pack(record, packed) && memcmp(at(position), packed, size_) == 0;
}

/* Deleted records of lists keep their bytes. */
bool Shown::is_as_shown(uint32_t position, const uint8_t* seen) {
  if (is_used(position)) return is_same(position, seen);
  keep(position, seen, false);
  return true;
}

uint32_t Shown::look(const Look& look) {
  uint32_t count = 0;
  const auto now = static_cast<uint32_t>(look.now) << 1;
  for (uint32_t position = 0; position < table_->capacity; ++position) {
    uint32_t& state = marks()[position].state;
    if (is_empty(look.pages, position)) {
      state = 0;
      continue;
    }
    const uint8_t* seen = see(look.pages, position);
    if (is_used(position) == store::is_used(*table_, seen) && is_as_shown(position, seen)) {
      state &= 1;
      continue;
    }
    if (look.teller == nullptr) {
      ++count;
      continue;
    }
    const int32_t byte = table_->lock_at < 0 ? named_lock(*table_, look.pages.block(), position)
                                             : load_word(seen + table_->lock_at);
    const int32_t patience =
        copy_whole(look, position, byte) ? claim_patience(position) : kPatienceMs;
    if (state < 2) state |= now != 0 ? now : 2;
    const auto age = static_cast<int32_t>((now - (state & ~1u)) >> 1);
    if (age < patience) {
      look.area->look_at(look.now + (age < 1 ? 1 : age < kLongestStepMs ? age : kLongestStepMs));
      continue;
    }
    const bool used = store::is_used(*table_, g_room.copy);
    count += tell(*look.teller, position, used);
    keep(position, g_room.copy, used);
  }
  return count;
}

bool Shown::tell(Teller& teller, uint32_t position, bool used) const {
  const bool was = is_used(position);
  uint8_t* packed = g_room.kept;
  uint8_t* before = g_room.seen;
  memset(before, 0, table_->stride);
  const uint32_t none = pack(before, packed);
  const uint32_t is = used ? pack(g_room.copy, packed) : none;
  unpack(position, before);
  return teller.tell({*table_, position, was ? before : nullptr, used ? g_room.copy : nullptr,
                      is != (was ? marks()[position].sum : none)});
}

/* A writer holds the byte. So the copy is complete if the byte was not held after it and the record
 * is still equal. */
bool Shown::copy_whole(const Look& look, uint32_t position, int32_t byte) {
  uint8_t* copy = g_room.copy;
  for (int n = 0; n < kCopies; ++n) {
    memcpy(copy, see(look.pages, position), table_->stride);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    if (look.holders.hold(byte)) return false;
    if (memcmp(copy, see(look.pages, position), table_->stride) == 0) return true;
  }
  return false;
}

/* A record that was free and now has only its id is filled next. */
int32_t Shown::claim_patience(uint32_t position) const {
  const uint8_t* copy = g_room.copy;
  if (is_used(position) || !store::is_used(*table_, copy)) return 0;
  if (!is_same(position, copy)) return 0;
  for (const Field& field : *table_) {
    if (size_without_trailing_zeros(field, copy) != 0) return kRefillMs;
  }
  return kPatienceMs;
}

}  // namespace scctl
