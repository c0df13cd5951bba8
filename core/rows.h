/* Makers of rows: they take offsets, widths and kinds from the members of the public structs, so
 * that a row cannot lie about a field, and check at compile time what the columns can carry. No
 * other file has templates to speak of.
 */
#ifndef CORE_ROWS_H
#define CORE_ROWS_H

#include <stddef.h>
#include <stdint.h>

#include "core/area.h"
#include "core/item.h"
#include "core/table.h"

namespace sc {

/* Not constexpr: reaching one of these while a row is made is the compile error that names it. */
void member_does_not_fit_its_column();
void members_are_not_in_record_order();
void row_has_no_room_left();

constexpr uint8_t byte_column(size_t value) {
  if (value > UINT8_MAX) member_does_not_fit_its_column();
  return static_cast<uint8_t>(value);
}

constexpr uint16_t half_column(size_t value) {
  if (value > UINT16_MAX) member_does_not_fit_its_column();
  return static_cast<uint16_t>(value);
}

template <class T>
struct Extent {
  static constexpr size_t count = 1;
  using Element = T;
};
template <class T, size_t kCount>
struct Extent<T[kCount]> {
  static constexpr size_t count = kCount;
  using Element = T;
};

/* ---- areas ---- */

/* Records with a slot_id are free at -1; other tables and sections are empty when all zero. */
template <class Table>
consteval LockSpan lock_span(AreaId area, size_t table_at) {
  using Record = typename Extent<Table>::Element;
  constexpr size_t lock_at = offsetof(Record, lock_index);
  int slot = 0;
  if constexpr (requires(Record r) { r.slot_id; }) {
    slot = static_cast<int>(offsetof(Record, slot_id)) - static_cast<int>(lock_at);
  }
  return {area, static_cast<int8_t>(slot), half_column(table_at + lock_at),
          half_column(sizeof(Record)), half_column(Extent<Table>::count)};
}

/* The lock words of a table, or of equal sections. */
#define SC_LOCKS(area, Block, table) lock_span<decltype(Block::table)>(area, offsetof(Block, table))
/* The lock word of one section. */
constexpr LockSpan lock_of_section(AreaId area, size_t at) {
  return {area, 0, half_column(at), 0, 1};
}
#define SC_LOCK(area, Block, word) lock_of_section(area, offsetof(Block, word))

/* ---- tables ---- */

template <class Table>
consteval Geometry table_geometry(size_t table_at) {
  using Record = typename Extent<Table>::Element;
  return {half_column(table_at), half_column(sizeof(Record)), half_column(Extent<Table>::count),
          byte_column(offsetof(Record, lock_index)), byte_column(offsetof(Record, slot_id))};
}
#define SC_GEOMETRY(Block, table) table_geometry<decltype(Block::table)>(offsetof(Block, table))

/* A clash key: a text compared without case, or bytes compared exactly. */
constexpr Key key(Compare compare, size_t at, size_t size) {
  if (compare == Compare::kBytes && size < sizeof(uint32_t)) member_does_not_fit_its_column();
  return {compare, byte_column(size), half_column(at)};
}
#define SC_TEXT_KEY(Record, member) \
  key(Compare::kTextWithoutCase, offsetof(Record, member), sizeof(Record::member))
#define SC_BYTES_KEY(Record, member) \
  key(Compare::kBytes, offsetof(Record, member), sizeof(Record::member))

constexpr Identity identity(size_t at, size_t size) { return {byte_column(at), byte_column(size)}; }
#define SC_IDENTITY(Record, member) identity(offsetof(Record, member), sizeof(Record::member))

/* ---- items ---- */

template <class InRecord, class InItem>
consteval Field field(size_t record_at, size_t item_at) {
  using R = typename Extent<InRecord>::Element;
  using I = typename Extent<InItem>::Element;
  constexpr size_t count = Extent<InRecord>::count;
  Field f = {};
  f.record_at = record_at & 0x3ff;
  f.item_at = item_at & 0xfff;
  f.size = sizeof(InRecord) & 0xff;
  if (f.record_at != record_at || f.item_at != item_at || f.size != sizeof(InRecord)) {
    member_does_not_fit_its_column();
  }
  if constexpr (__is_same(R, uint32_t) && __is_same(I, char)) {
    static_assert(sizeof(InItem) == 16 && count == 1, "an address is shown as 16 bytes of text");
    f.kind = Kind::kAddress;
  } else if constexpr (sizeof(R) == sizeof(I)) {
    static_assert(__is_same(InRecord, InItem), "copied fields have one type");
  } else {
    static_assert(__is_same(I, int32_t) && count == Extent<InItem>::count,
                  "signed bytes and halves are widened one by one");
    static_assert(__is_same(R, int8_t) || (__is_same(R, int16_t) && count == 1));
    f.kind = __is_same(R, int8_t) ? Kind::kSignedBytes : Kind::kSignedHalf;
  }
  return f;
}
#define SC_FIELD(Record, record_member, Item, item_member)             \
  field<decltype(Record::record_member), decltype(Item::item_member)>( \
      offsetof(Record, record_member), offsetof(Item, item_member))

constexpr size_t item_width(const Field& f) {
  return f.kind == Kind::kSignedBytes ? 4 * f.size : f.size;
}

/* Neighbours of one kind in the record and in the item alike. */
constexpr bool joins(const Field& f, const Field& next) {
  return f.kind == next.kind && (f.kind == Kind::kBytes || f.kind == Kind::kSignedBytes) &&
         f.record_at + f.size == next.record_at && f.item_at + item_width(f) == next.item_at &&
         f.size + next.size <= UINT8_MAX;
}

/* The payload of a table: its members in record order, neighbours joined. */
template <size_t kCount>
consteval Payload payload(const Field (&members)[kCount]) {
  Payload made = {};
  Field* last = nullptr;
  for (const Field& f : members) {
    if (last != nullptr && last->record_at + last->size > f.record_at) {
      members_are_not_in_record_order();
    }
    if (last != nullptr && joins(*last, f)) {
      last->size = (last->size + f.size) & 0xff;
      continue;
    }
    last = last == nullptr ? made.fields : last + 1;
    if (last == made.fields + kMaxFields) row_has_no_room_left();
    *last = f;
  }
  return made;
}

/* The size of an item, when the item frame has room for its records. */
template <class Item, class Table>
consteval uint16_t item_size() {
  using Record = typename Extent<Table>::Element;
  if (sizeof(Record) > kMaxStride || Extent<Table>::count > kMaxItems) row_has_no_room_left();
  return half_column(sizeof(Item));
}
#define SC_ITEM_SIZE(Item, Block, table) item_size<Item, decltype(Block::table)>()

/* The counter that an area keeps beside its table. */
constexpr Counter counter(size_t at, size_t size) { return {half_column(at), byte_column(size)}; }
#define SC_COUNTER(Block, member) counter(offsetof(Block, member), sizeof(Block::member))

/* Records with this mode refer to the group of this id. */
constexpr Reference reference(size_t mode_at, int8_t mode, size_t id_at, size_t id_size) {
  return {half_column(mode_at), mode, half_column(id_at), byte_column(id_size)};
}
#define SC_REFERENCE(Record, mode_member, mode, id_member)                    \
  reference(offsetof(Record, mode_member), mode, offsetof(Record, id_member), \
            sizeof(Record::id_member))

}  // namespace sc

#endif
