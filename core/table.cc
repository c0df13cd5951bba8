/* The frame of all record tables. */
#include "core/table.h"

#include <string.h>
#include <strings.h>

#include <sysconfig/layout.h>

#include "core/bytes.h"
#include "core/lock_file.h"
#include "core/scan.h"

namespace sc {

namespace {

constexpr int32_t kFree = -1;

const BlockHeader& header_of(const void* block) { return *static_cast<const BlockHeader*>(block); }

int32_t slot_of(const Geometry& geometry, const uint8_t* record) {
  return load<int32_t>(record + geometry.slot_at);
}

/* Whether the record is used and not that of skip_slot. */
bool is_other_used(const Geometry& geometry, const uint8_t* record, uint32_t skip_slot) {
  int32_t slot = slot_of(geometry, record);
  return slot != kFree && slot != static_cast<int32_t>(skip_slot);
}

/* Compares the key's last four bytes first; OR-ing 0x20 folds case; false positives fall to the full
 * compare. */
bool clashes(const Geometry& geometry, const Key& key, const uint8_t* record, const uint8_t* wanted,
             uint32_t skip_slot) {
  const size_t stride = geometry.stride;
  const auto* text = reinterpret_cast<const char*>(wanted) + key.at;
  size_t last = key.size;
  uint32_t ignored_bits = 0;
  if (key.compare == Compare::kTextWithoutCase) {
    last = strnlen(text, key.size);
    ignored_bits = 0x20202020;
    if (last < sizeof ignored_bits) { /* too short for that */
      last = sizeof ignored_bits;
      ignored_bits = UINT32_MAX;
    }
  }
  last += key.at - sizeof ignored_bits;
  const uint32_t word = load<uint32_t>(wanted + last) | ignored_bits;
  const uint8_t* end = record + geometry.capacity * stride;
  do {
    record = find_word(record + last, end, stride, word, ignored_bits) - last;
    if (record >= end) break;
    if (is_other_used(geometry, record, skip_slot)) {
      const auto* other = reinterpret_cast<const char*>(record) + key.at;
      if ((ignored_bits == 0 ? memcmp(other, text, key.size)
                             : strncasecmp(other, text, key.size)) == 0) {
        return true;
      }
    }
    record += stride;
  } while (record < end);
  return false;
}

/* Frees a record: marks its slot word and clears its identity. */
void release(const TableRow& table, const LockFile& file, uint8_t* record) {
  ByteLock lock(file, record + table.geometry.lock_at);
  store<int32_t>(record + table.geometry.slot_at, kFree);
  memset(record + table.identity.at, 0, table.identity.size);
}

}  // namespace

int32_t find_clash(const void* block, const void* record, uint32_t skip_slot,
                   const TableRow& table) {
  if (record == nullptr) return 0;
  const Geometry& geometry = table.geometry;
  const uint8_t* first = record_at(geometry, block, 0);
  const auto* wanted = static_cast<const uint8_t*>(record);
  for (const Key& key : table.keys) {
    if (key.compare == Compare::kNone) break;
    if (clashes(geometry, key, first, wanted, skip_slot)) return 1;
  }
  return 0;
}

int32_t claim(void* block, const Geometry& geometry) {
  if (block == nullptr) return -1;
  LockFile file(header_of(block).lock_path);
  if (!file) return -1;
  const size_t stride = geometry.stride;
  uint8_t* record = record_at(geometry, block, 0);
  const uint8_t* first_slot = record + geometry.slot_at;
  const uint8_t* end = record + geometry.capacity * stride;
  for (const uint8_t* slot = first_slot;; slot += stride) {
    slot = find_word(slot, end, stride, static_cast<uint32_t>(kFree), 0);
    if (slot >= end) return -1;
    const auto position = static_cast<uint32_t>(static_cast<size_t>(slot - first_slot) / stride);
    record = record_at(geometry, block, position);
    ByteLock lock(file, record + geometry.lock_at);
    if (slot_of(geometry, record) != kFree) continue; /* another process was faster */
    store(record + geometry.slot_at, position + 1);
    return static_cast<int32_t>(position);
  }
}

int32_t operate(void* block, uint32_t op, uint32_t* position, const void* record,
                const TableRow& table) {
  const Geometry& geometry = table.geometry;
  LockFile file(header_of(block).lock_path);
  if (!file) return SC_LIST_NO_LOCK;

  uint32_t chosen;
  switch (op) {
    case LIST_OP_ADD:
      if (find_clash(block, record, static_cast<uint32_t>(kFree), table)) return SC_LIST_REJECTED;
      chosen = static_cast<uint32_t>(claim(block, geometry));
      if (chosen >= geometry.capacity) return SC_LIST_REJECTED;
      break;
    case LIST_OP_MODIFY:
      chosen = *position;
      /* Required: a clash is reported before a bad position. */
      if (find_clash(block, record, chosen + 1, table)) return SC_LIST_REJECTED;
      if (chosen >= geometry.capacity) return table.modify_range;
      break;
    case LIST_OP_DEL:
      chosen = *position;
      if (chosen >= geometry.capacity) return SC_LIST_DEL_RANGE;
      release(table, file, record_at(geometry, block, chosen));
      return SC_LIST_OK;
    case LIST_OP_DEL_ALL:
      for (chosen = 0; chosen < geometry.capacity; ++chosen) {
        release(table, file, record_at(geometry, block, chosen));
      }
      return SC_LIST_OK;
    default: return SC_LIST_BAD_OP;
  }

  /* Required: a modify of a free record writes it, and it stays free. */
  uint8_t* target = record_at(geometry, block, chosen);
  const auto* source = static_cast<const uint8_t*>(record);
  ByteLock lock(file, target + geometry.lock_at);
  if (op == LIST_OP_ADD) {
    memcpy(target + table.identity.at, source + table.identity.at, table.identity.size);
    *position = chosen;
  }
  for (const Run& run : table.payload.runs) {
    if (run.size == 0) break;
    memcpy(target + run.record_at, source + run.record_at, run.size);
  }
  return SC_LIST_OK;
}

}  // namespace sc
