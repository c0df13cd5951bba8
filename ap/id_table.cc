/* The frame of the tables whose records are free when their id is 0. */
#include "ap/id_table.h"

#include <string.h>

#include "core/bytes.h"
#include "core/scan.h"

namespace sc {

namespace {

constexpr size_t kWord = sizeof(uint32_t);

uint8_t* record_at(const IdTableRow& table, void* block, uint32_t position) {
  return static_cast<uint8_t*>(block) + table.at + position * table.stride;
}

const uint8_t* record_at(const IdTableRow& table, const void* block, uint32_t position) {
  return static_cast<const uint8_t*>(block) + table.at + position * table.stride;
}

uint32_t id_of(const IdTableRow& table, const void* block, uint32_t position) {
  return load<uint32_t>(record_at(table, block, position) + table.id_at);
}

}  // namespace

/* Required: the searches by id and by MAC do not skip free records. */
int32_t find_id(const void* block, uint32_t id, const IdTableRow& table) {
  for (uint32_t position = 0; position < table.capacity; ++position) {
    if (id_of(table, block, position) == id) return static_cast<int32_t>(position);
  }
  return -1;
}

/* The first half of a MAC, the number of its maker, is often the same. So the last four bytes are
 * compared first. */
int32_t find_mac(const void* block, const uint8_t* mac, const IdTableRow& table) {
  const size_t stride = table.stride;
  const uint8_t* first = record_at(table, block, 0) + table.mac_at + 2;
  const uint8_t* end = first + table.capacity * stride;
  const uint8_t* at = first;
  do {
    at = find_word(at, end, stride, load<uint32_t>(mac + 2), 0);
    if (at >= end) break;
    if (load<uint16_t>(at - 2) == load<uint16_t>(mac)) {
      return static_cast<int32_t>(static_cast<size_t>(at - first) / stride);
    }
    at += stride;
  } while (at < end);
  return -1;
}

/* Ids are aligned. So a claim is one atomic step, and two processes never claim the same record. */
int32_t claim_id(void* block, const IdTableRow& table) {
  for (uint32_t position = 0; position < table.capacity; ++position) {
    void* id = record_at(table, block, position) + table.id_at;
    uint32_t free = 0;
    if (__atomic_compare_exchange_n(static_cast<uint32_t*>(id), &free, position + 1, false,
                                    __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
      return static_cast<int32_t>(position);
    }
  }
  return -1;
}

int32_t count_used(const void* block, const IdTableRow& table) {
  int32_t used = 0;
  if (block == nullptr) return used;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    if (id_of(table, block, position) != 0) ++used;
  }
  return used;
}

int32_t delete_mac(void* block, const uint8_t* mac, const IdTableRow& table) {
  LockFile file(static_cast<const char*>(block) + table.path_at, table.path_size);
  if (!file) return 0;
  int32_t position = find_mac(block, mac, table);
  if (position < 0) return 0;
  clear_record(block, static_cast<uint32_t>(position), file, table);
  return 1;
}

/* The lock index stays, so that other programs can lock the record even when a writer is killed
 * here. The id is cleared last, so nobody can claim a half-cleared record. */
void clear_record(void* block, uint32_t position, const LockFile& file, const IdTableRow& table) {
  uint8_t* record = record_at(table, block, position);
  void* id = record + table.id_at;
  ByteLock lock(file, record);
  memset(record + kWord, 0, table.id_at - kWord);
  memset(record + table.id_at + kWord, 0, table.stride - table.id_at - kWord);
  __atomic_store_n(static_cast<uint32_t*>(id), 0, __ATOMIC_RELEASE);
}

}  // namespace sc
