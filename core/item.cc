/* The frame of all item layers. */
#include "core/item.h"

#include <stdlib.h>
#include <string.h>

#include <arpa/inet.h>

#include <sysconfig/layout.h>

#include "core/address.h"
#include "core/bytes.h"
#include "core/announce.h"
#include "core/text.h"

namespace sc {

namespace {

/* Calls `step` once for each record with the record and its place in items that follow each other.
 * There is at least one record. */
template <class Step>
inline void each(const uint8_t* const* records, uint32_t count, uint8_t* to, size_t item_size,
                 Step step) {
  do {
    step(to, *records++);
    to += item_size;
  } while (--count != 0);
}

/* Converts one run of some records, at least one, into zeroed items that follow each other. The
 * loop over records is the inner one, so the conversion is chosen once for a whole listing. */
void show(const Run& run, const uint8_t* const* records, uint32_t count, uint8_t* items,
          size_t item_size) {
  const size_t at = run.record_at;
  const size_t size = run.size;
  uint8_t* first = items + run.item_at;
  switch (run.conversion) {
    case Conversion::kBytes:
      if (kHasVec16 && size >= sizeof(Vec16) && size <= 2 * sizeof(Vec16)) {
        each(records, count, first, item_size,
             [=](uint8_t* to, const uint8_t* record) { copy_short_text(to, record + at, size); });
      } else {
        each(records, count, first, item_size,
             [=](uint8_t* to, const uint8_t* record) { memcpy(to, record + at, size); });
      }
      break;
    case Conversion::kSignedBytes:
      each(records, count, first, item_size, [=](uint8_t* to, const uint8_t* record) {
        size_t n = 0;
        do {
          store<int32_t>(to + 4 * n, load<int8_t>(record + at + n));
        } while (++n != size);
      });
      break;
    case Conversion::kSignedHalf:
      each(records, count, first, item_size, [=](uint8_t* to, const uint8_t* record) {
        store<int32_t>(to, load<int16_t>(record + at));
      });
      break;
    case Conversion::kAddress: write_addresses(records, at, count, first, item_size); break;
  }
}

/* Converts records, used or free, into zeroed items. */
void to_items(const MappedListRow& row, const uint8_t* const* records, uint32_t count,
              uint8_t* items) {
  for (const Run& run : row.list.table.payload.runs) {
    if (run.size == 0) break;
    show(run, records, count, items, row.item_size);
  }
}

/* The address in a text field. The text may fill the field without a terminator. */
uint32_t address_of(const uint8_t* field) {
  char text[SC_IP_TEXT + 1];
  memcpy(text, field, SC_IP_TEXT);
  text[SC_IP_TEXT] = '\0';
  return inet_addr(text);
}

void to_record(const MappedListRow& row, const uint8_t* item, uint8_t* record) {
  for (const Run& run : row.list.table.payload.runs) {
    if (run.size == 0) break;
    const uint8_t* from = item + run.item_at;
    uint8_t* to = record + run.record_at;
    switch (run.conversion) {
      case Conversion::kBytes: memcpy(to, from, run.size); break;
      case Conversion::kSignedBytes:
        for (int n = 0; n < run.size; ++n) to[n] = from[4 * n];
        break;
      case Conversion::kSignedHalf: store(to, load<uint16_t>(from)); break;
      case Conversion::kAddress: store(to, address_of(from)); break;
    }
  }
}

}  // namespace

uint32_t get_items(const void* block, void* items, const MappedListRow& row) {
  if (block == nullptr) return 0;
  const Geometry& geometry = row.list.table.geometry;
  const size_t stride = geometry.stride;
  const size_t item_size = row.item_size;
  const size_t slot_at = geometry.slot_at;
  memset(items, 0, sizeof(ItemListHead) + geometry.capacity * item_size + SC_LIST_TAIL);
  auto* head = static_cast<ItemListHead*>(items);
  auto* first = static_cast<uint8_t*>(items) + sizeof(ItemListHead);
  const uint8_t* records[kMaxItems];
  uint32_t used = 0;
  uint8_t* item = first;
  const uint8_t* record = record_at(geometry, block, 0);
  const uint8_t* end = record + geometry.capacity * stride;
  for (; record < end; record += stride) {
    const auto slot = load<int32_t>(record + slot_at);
    if (slot < 0) continue;
    store(item, slot);
    item += item_size;
    records[used++] = record;
  }
  head->count = used;
  head->capacity = geometry.capacity;
  if (used != 0) to_items(row, records, used, first);
  return used;
}

void get_item(const void* block, uint32_t id, void* item, const MappedListRow& row) {
  if (block == nullptr) return;
  memset(item, 0, row.item_size);
  const Geometry& geometry = row.list.table.geometry;
  if (id - 1 >= geometry.capacity) return;
  const uint8_t* record = record_at(geometry, block, id - 1);
  store(item, load<int32_t>(record + geometry.slot_at));
  to_items(row, &record, 1, static_cast<uint8_t*>(item));
}

int32_t add_item(void* block, const void* item, const MappedListRow& row) {
  uint8_t record[kMaxStride]; /* only the bytes that the runs fill are read */
  to_record(row, static_cast<const uint8_t*>(item), record);
  return add_record(block, record, row.list);
}

int32_t modify_item(void* block, const void* item, const MappedListRow& row) {
  uint8_t record[kMaxStride];
  to_record(row, static_cast<const uint8_t*>(item), record);
  return modify_record(block, load<uint32_t>(item), record, row.list);
}

int32_t add_record(void* block, const void* record, const ListRow& list) {
  uint32_t position = 0;
  int32_t result = operate(block, LIST_OP_ADD, &position, record, list.table);
  if (result == SC_LIST_OK) count(block, 1, list);
  announce(list.code);
  return result;
}

int32_t modify_record(void* block, uint32_t id, const void* record, const ListRow& list) {
  uint32_t position = id - 1;
  int32_t result = operate(block, LIST_OP_MODIFY, &position, record, list.table);
  announce(list.code);
  return result;
}

void delete_item(void* block, uint32_t id, const ListRow& list) {
  uint32_t position = id - 1;
  operate(block, LIST_OP_DEL, &position, nullptr, list.table);
  /* Required: the counter is lowered whatever the result. */
  count(block, -1, list);
}

void delete_items(void* block, char* ids, const ListRow& list) {
  int32_t id;
  for (Ids tokens(ids); tokens.next(&id);) delete_item(block, static_cast<uint32_t>(id), list);
  announce(list.code);
}

void delete_all_items(void* block, const ListRow& list) {
  operate(block, LIST_OP_DEL_ALL, nullptr, nullptr, list.table);
  /* Required: the counter becomes zero even when nothing could be freed. */
  memset(static_cast<uint8_t*>(block) + list.counter_at, 0, list.counter_size);
  announce(list.code);
}

/* Counters are aligned, unlike the words of records. They are changed without a lock, in one atomic
 * step, so processes that change them at the same time lose no count. */
void count(void* block, int32_t change, const ListRow& list) {
  void* counter = static_cast<uint8_t*>(block) + list.counter_at;
  if (list.counter_size == 2) {
    __atomic_fetch_add(static_cast<uint16_t*>(counter), static_cast<uint16_t>(change),
                       __ATOMIC_RELAXED);
  } else if (list.counter_size == 4) {
    __atomic_fetch_add(static_cast<uint32_t*>(counter), change, __ATOMIC_RELAXED);
  }
}

bool Ids::next(int32_t* id) {
  const char* token = strtok_r(text_, "#", &rest_);
  text_ = nullptr;
  if (token == nullptr) return false;
  *id = atoi(token);
  return true;
}

}  // namespace sc
