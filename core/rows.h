/* Makers of rows. They take offsets, widths and conversions from the members of the public structs,
 * so a row cannot differ from its members. They check at compile time that the values fit the
 * columns. The tools derive their catalogue from the same rows.
 */
#ifndef CORE_ROWS_H
#define CORE_ROWS_H

#include <stddef.h>
#include <stdint.h>

#include "core/area.h"
#include "core/group_link.h"
#include "core/item.h"
#include "core/table.h"

namespace sc {

/* These are not constexpr: a row that calls one of them does not compile, and the error names
 * it. */
[[noreturn]] void member_does_not_fit_its_column();
[[noreturn]] void members_overlap();
[[noreturn]] void row_has_no_room_left();

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

/* Records with a slot_id are free when it is -1. Records of other tables and sections are empty
 * when they are all zero. */
template <class Table>
consteval LockSpan lock_span(AreaId area, size_t table_at) {
  using Record = typename Extent<Table>::Element;
  constexpr size_t lock_at = offsetof(Record, lock_index);
  int slot_delta = 0;
  if constexpr (requires(Record r) { r.slot_id; }) {
    slot_delta = static_cast<int>(offsetof(Record, slot_id)) - static_cast<int>(lock_at);
  }
  return {area,
          static_cast<int8_t>(slot_delta),
          half_column(table_at + lock_at),
          half_column(sizeof(Record)),
          half_column(Extent<Table>::count),
          0};
}

/* The lock words of a table, or of equal sections. */
#define SC_LOCKS(area, Block, table) lock_span<decltype(Block::table)>(area, offsetof(Block, table))
/* The lock word of one section. */
constexpr LockSpan lock_of_section(AreaId area, size_t at) {
  return {area, 0, half_column(at), 0, 1, 0};
}
#define SC_LOCK(area, Block, word) lock_of_section(area, offsetof(Block, word))

template <size_t kCount>
struct LockSpans {
  LockSpan rows[kCount];

  constexpr const LockSpan* begin() const { return rows; }
  constexpr const LockSpan* end() const { return rows + kCount; }
};

/* Numbers the words of the spans, from 2 on in each area. */
template <size_t kCount>
consteval LockSpans<kCount> numbered(const LockSpan (&spans)[kCount]) {
  LockSpans<kCount> made = {};
  size_t next[kAreaCount] = {};
  for (size_t n = 0; n < kCount; ++n) {
    size_t& used = next[spans[n].area];
    made.rows[n] = spans[n];
    made.rows[n].first = half_column(2 + used);
    used += spans[n].count;
  }
  return made;
}

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

/* What a member's bytes mean to people. The library does not use it. */
enum class Meaning : uint8_t {
  kText,    /* char[]: ends at its first NUL or fills the member */
  kMacText, /* a MAC address as text */
  kAddress, /* 32 bits in network order */
  kMac,     /* six bytes */
  kBytes,   /* other bytes */
  kSigned,  /* one or more numbers */
  kUnsigned,
};

/* One member of a list's records. The library contains only the payload that is made of the
 * members, not their names and meanings. */
struct Member {
  const char* name; /* of the item's member: the name that people type */
  const char* record_name;
  Run run;
  Meaning meaning;
  uint8_t width; /* of one number */
};

template <class InRecord>
consteval Meaning meaning_of() {
  using T = typename Extent<InRecord>::Element;
  if (__is_same(T, char)) return Meaning::kText;
  if (__is_same(InRecord, uint8_t[SC_MAC_BYTES])) return Meaning::kMac;
  if (__is_same(T, uint8_t) && sizeof(InRecord) > 1) return Meaning::kBytes;
  return static_cast<T>(-1) < static_cast<T>(0) ? Meaning::kSigned : Meaning::kUnsigned;
}

template <class InRecord, class InItem>
consteval Member member(const char* name, const char* record_name, size_t record_at,
                        size_t item_at) {
  using R = typename Extent<InRecord>::Element;
  using I = typename Extent<InItem>::Element;
  constexpr size_t count = Extent<InRecord>::count;
  Member m = {name, record_name, {}, meaning_of<InRecord>(), sizeof(R) & 0xff};
  m.run.record_at = record_at & 0x3ff;
  m.run.item_at = item_at & 0xfff;
  m.run.size = sizeof(InRecord) & 0xff;
  if (m.run.record_at != record_at || m.run.item_at != item_at || m.run.size != sizeof(InRecord)) {
    member_does_not_fit_its_column();
  }
  if constexpr (__is_same(R, uint32_t) && __is_same(I, char)) {
    static_assert(sizeof(InItem) == 16 && count == 1, "an address is shown as 16 bytes of text");
    m.run.conversion = Conversion::kAddress;
    m.meaning = Meaning::kAddress;
  } else if constexpr (sizeof(R) == sizeof(I)) {
    static_assert(__is_same(InRecord, InItem), "copied members have one type");
  } else {
    static_assert(__is_same(I, int32_t) && count == Extent<InItem>::count,
                  "signed bytes and halves are widened one by one");
    static_assert(__is_same(R, int8_t) || (__is_same(R, int16_t) && count == 1));
    m.run.conversion = __is_same(R, int8_t) ? Conversion::kSignedBytes : Conversion::kSignedHalf;
  }
  return m;
}
#define SC_MEMBER(Record, record_member, Item, item_member)             \
  member<decltype(Record::record_member), decltype(Item::item_member)>( \
      #item_member, #record_member, offsetof(Record, record_member), offsetof(Item, item_member))

consteval Member mac_text(Member m) {
  if (m.meaning != Meaning::kText) member_does_not_fit_its_column();
  m.meaning = Meaning::kMacText;
  return m;
}

constexpr size_t item_width(const Run& run) {
  return run.conversion == Conversion::kSignedBytes ? 4 * run.size : run.size;
}

/* Whether two runs have the same conversion and are neighbours both in the record and in the
 * item. */
constexpr bool joins(const Run& run, const Run& next) {
  return run.conversion == next.conversion &&
         (run.conversion == Conversion::kBytes || run.conversion == Conversion::kSignedBytes) &&
         run.record_at + run.size == next.record_at &&
         run.item_at + item_width(run) == next.item_at && run.size + next.size <= UINT8_MAX;
}

/* The payload of a table: its members except the identity, in record order, neighbours joined.
 * `members` has the order in which people see them. */
template <size_t kCount>
consteval Payload payload(const Member (&members)[kCount], Identity identity = {}) {
  Payload made = {};
  Run* last = nullptr;
  size_t end = 0;
  for (size_t done = 0; done < kCount; ++done) {
    const Run* next = nullptr;
    for (const Member& m : members) {
      if (m.run.record_at >= end && (next == nullptr || m.run.record_at < next->record_at)) {
        next = &m.run;
      }
    }
    if (next == nullptr) members_overlap();
    end = next->record_at + next->size;
    if (identity.size != 0 && next->record_at == identity.at) continue;
    if (last != nullptr && joins(*last, *next)) {
      last->size = (last->size + next->size) & 0xff;
      continue;
    }
    last = last == nullptr ? made.runs : last + 1;
    if (last == made.runs + kMaxRuns) row_has_no_room_left();
    *last = *next;
  }
  return made;
}

/* The size of an item, if the item frame has room for its records. */
template <class Item, class Table>
consteval uint16_t item_size() {
  using Record = typename Extent<Table>::Element;
  if (sizeof(Record) > kMaxStride || Extent<Table>::count > kMaxItems) row_has_no_room_left();
  return half_column(sizeof(Item));
}
#define SC_ITEM_SIZE(Item, Block, table) item_size<Item, decltype(Block::table)>()

/* The counter that an area keeps beside its table: two columns. */
#define SC_COUNTER(Block, member) \
  .counter_at = half_column(offsetof(Block, member)), .counter_size = sizeof(Block::member)

/* A link of rules that name a group in the members `mode` and `id`. Their items have these members,
 * too, before the group's name. A listing replaces the member `own` by the group's. */
#define SC_GROUP_LINK(area, Record, Item, mode, id, deleted, own)                               \
  GroupLink {                                                                                   \
    .group = (area), .mode_at = offsetof(Record, mode), .id_at = offsetof(Record, id),          \
    .id_size = sizeof(Record::id), .deleted_mode = (deleted), .shown_at = offsetof(Item, mode), \
    .own_at = offsetof(Item, own), .unless_at = 0, .item_size = sizeof(Item)                    \
  }
/* The same, but the group is shown only when the member `unless` is 0. */
constexpr GroupLink shown_unless(GroupLink link, size_t unless_at) {
  link.unless_at = half_column(unless_at);
  return link;
}

}  // namespace sc

#endif
