/* The frame of all item layers. */
#include "core/item.h"

#include <stdlib.h>
#include <string.h>

#include <arpa/inet.h>

#include <sysconfig/layout.h>

#include "core/address.h"
#include "core/bytes.h"
#include "core/notify.h"
#include "core/text.h"

namespace sc {

namespace {

/* Head of every item list: the items follow, and a zero tail follows these. */
struct ListHead {
  uint32_t count;
  uint32_t capacity;
} SC_PACKED;

/* A step for each of some records, at least one, and its place in items that follow each other. */
template <class Step>
inline void each(const uint8_t* const* records, uint32_t count, uint8_t* to, size_t item_size,
                 Step step) {
  do {
    step(to, *records++);
    to += item_size;
  } while (--count != 0);
}

/* One field of some records, at least one, into zeroed items that follow each other. Fields come
 * first and records second, so that the kind is looked at once for a whole listing. */
void show(const Field& field, const uint8_t* const* records, uint32_t count, uint8_t* items,
          size_t item_size) {
  const size_t at = field.record_at;
  const size_t size = field.size;
  uint8_t* first = items + field.item_at;
  switch (field.kind) {
    case Kind::kBytes:
      if (kHasHalves && size >= kHalf && size <= 2 * kHalf) {
        each(records, count, first, item_size,
             [=](uint8_t* to, const uint8_t* record) { copy_short_text(to, record + at, size); });
      } else {
        each(records, count, first, item_size,
             [=](uint8_t* to, const uint8_t* record) { memcpy(to, record + at, size); });
      }
      break;
    case Kind::kSignedBytes:
      each(records, count, first, item_size, [=](uint8_t* to, const uint8_t* record) {
        size_t n = 0;
        do {
          store<int32_t>(to + 4 * n, load<int8_t>(record + at + n));
        } while (++n != size);
      });
      break;
    case Kind::kSignedHalf:
      each(records, count, first, item_size, [=](uint8_t* to, const uint8_t* record) {
        store<int32_t>(to, load<int16_t>(record + at));
      });
      break;
    case Kind::kAddress: write_addresses(records, at, count, first, item_size); break;
  }
}

/* Used and free records alike, into zeroed items. */
void to_items(const List& list, const uint8_t* const* records, uint32_t count, uint8_t* items) {
  for (const Field& field : list.table.payload.fields) {
    if (field.size == 0) break;
    show(field, records, count, items, list.item_size);
  }
}

/* The address in a text field, which may fill it without a terminator. */
uint32_t address_of(const uint8_t* field) {
  char text[SC_IP_TEXT + 1];
  memcpy(text, field, SC_IP_TEXT);
  text[SC_IP_TEXT] = '\0';
  return inet_addr(text);
}

void to_record(const List& list, const uint8_t* item, uint8_t* record) {
  for (const Field& field : list.table.payload.fields) {
    if (field.size == 0) break;
    const uint8_t* from = item + field.item_at;
    uint8_t* to = record + field.record_at;
    switch (field.kind) {
      case Kind::kBytes: memcpy(to, from, field.size); break;
      case Kind::kSignedBytes:
        for (int n = 0; n < field.size; ++n) to[n] = from[4 * n];
        break;
      case Kind::kSignedHalf: store(to, load<uint16_t>(from)); break;
      case Kind::kAddress: store(to, address_of(from)); break;
    }
  }
}

}  // namespace

uint32_t get_items(const void* block, void* items, const List& list) {
  if (block == nullptr) return 0;
  const Geometry& geometry = list.table.geometry;
  const size_t stride = geometry.stride;
  const size_t item_size = list.item_size;
  const size_t slot_at = geometry.slot_at;
  memset(items, 0, sizeof(ListHead) + geometry.capacity * item_size + SC_LIST_TAIL);
  auto* head = static_cast<ListHead*>(items);
  auto* first = static_cast<uint8_t*>(items) + sizeof(ListHead);
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
  if (used != 0) to_items(list, records, used, first);
  return used;
}

void get_item(const void* block, uint32_t id, void* item, const List& list) {
  if (block == nullptr) return;
  memset(item, 0, list.item_size);
  const Geometry& geometry = list.table.geometry;
  if (id - 1 >= geometry.capacity) return;
  const uint8_t* record = record_at(geometry, block, id - 1);
  store(item, load<int32_t>(record + geometry.slot_at));
  to_items(list, &record, 1, static_cast<uint8_t*>(item));
}

int32_t add_item(void* block, const void* item, const List& list) {
  uint8_t record[kMaxStride]; /* only what the fields fill is read */
  to_record(list, static_cast<const uint8_t*>(item), record);
  return add_record(block, record, list);
}

int32_t modify_item(void* block, const void* item, const List& list) {
  uint8_t record[kMaxStride];
  to_record(list, static_cast<const uint8_t*>(item), record);
  return modify_record(block, load<uint32_t>(item), record, list);
}

int32_t add_record(void* block, const void* record, const List& list) {
  uint32_t position = 0;
  int32_t result = operate(block, LIST_OP_ADD, &position, record, list.table);
  if (result == SC_LIST_OK) count(block, 1, list);
  notify(list.code);
  return result;
}

int32_t modify_record(void* block, uint32_t id, const void* record, const List& list) {
  uint32_t position = id - 1;
  int32_t result = operate(block, LIST_OP_MODIFY, &position, record, list.table);
  notify(list.code);
  return result;
}

void delete_item(void* block, uint32_t id, const List& list) {
  uint32_t position = id - 1;
  operate(block, LIST_OP_DEL, &position, nullptr, list.table);
  /* Required: lowered whatever the result. */
  count(block, -1, list);
}

void delete_items(void* block, char* ids, const List& list) {
  int32_t id;
  for (Ids tokens(ids); tokens.next(&id);) delete_item(block, static_cast<uint32_t>(id), list);
  notify(list.code);
}

void delete_all_items(void* block, const List& list) {
  operate(block, LIST_OP_DEL_ALL, nullptr, nullptr, list.table);
  /* Required: zero even when nothing could be freed. */
  memset(static_cast<uint8_t*>(block) + list.counter.at, 0, list.counter.size);
  notify(list.code);
}

/* Counters are aligned, unlike the words of records, and changed without a lock: in one
 * atomic step, so that processes at the same time lose no count. */
void count(void* block, int32_t change, const List& list) {
  void* counter = static_cast<uint8_t*>(block) + list.counter.at;
  if (list.counter.size == 2) {
    __atomic_fetch_add(static_cast<uint16_t*>(counter), static_cast<uint16_t>(change),
                       __ATOMIC_RELAXED);
  } else if (list.counter.size == 4) {
    __atomic_fetch_add(static_cast<uint32_t*>(counter), change, __ATOMIC_RELAXED);
  }
}

void delete_referring(void* block, int32_t group_id, const List& list, const Reference& reference) {
  const Geometry& geometry = list.table.geometry;
  for (uint32_t position = 0; position < geometry.capacity; ++position) {
    const uint8_t* record = record_at(geometry, block, position);
    const uint8_t* id = record + reference.id_at;
    int32_t referred = reference.id_size == 1 ? load<int8_t>(id) : load<int16_t>(id);
    /* Required: matched by these bytes alone, also in a record that was freed before. */
    if (load<int8_t>(record + reference.mode_at) != reference.mode || referred != group_id)
      continue;
    delete_item(block, position + 1, list);
    notify(list.code);
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
