/* The catalogue: every area, every table and every field that scctl knows, as rows of constant
 * data. They are derived from the library's own rows; the catalogue adds the names. Commands, JSON,
 * completion and help all use these rows.
 *
 * A view is a table as overlays show one of its records: with the record's own fields. Without them
 * the view is the table.
 *
 * A table is a list, one of the access-point tables, or the settings of a section. The record of a
 * section has no free mark and always exists.
 */
#ifndef STORE_CATALOGUE_H
#define STORE_CATALOGUE_H

#include <stddef.h>
#include <stdint.h>

#include "core/area.h"

namespace store {

using sc::AreaId;
using enum sc::AreaId;

/* The exported functions of the area; null where it has none. */
struct Area {
  const char* name;
  uint32_t (*attach)();
  int (*remove)();
  int (*init)();
  int (*read)(void* block);
  void (*notify)();
  void (*save)(void* block);

  /* The library's row: key, size, header and stems. */
  const sc::AreaRow& row() const;
};

extern const Area kAreas[kAreaCount];

enum class Kind : uint8_t {
  kText,    /* char[]: ends at its first NUL or fills the field */
  kMacText, /* a MAC address as text */
  kAddress, /* 32 bits in network order; dotted text in items */
  kMac,     /* six bytes */
  kBytes,   /* other bytes, shown in hex without the zeros at the end */
  kSigned,  /* one or more numbers */
  kUnsigned,
};

enum class Clash : uint8_t {
  kNone,
  kTextWithoutCase, /* no two used records may have the same text */
  kBytes
};

constexpr uint16_t kNoItem = UINT16_MAX;

struct EnumName {
  const char* name;
  int64_t number;
  const EnumName* next;
};

/* What only an overlay says of a member. */
struct Extra {
  const char* unit;     /* null: none; so are those that follow */
  const char* pattern;  /* a POSIX extended regular expression */
  const char* fallback; /* the value that programs take by default */
  const EnumName* names;
  int64_t least, most; /* the bits of a number of the member's own sign */
  const uint8_t* mask; /* of the member's own bits in each byte; null: all */
  uint8_t bit, bits;   /* of a bit-field: the first of its bits and their number; 0: whole bytes */
  bool is_big;         /* the first byte, or bit, is the most significant */
  bool has_range;
  bool is_secret;
  bool is_list;    /* several numbers, even if there is one now */
  bool is_counted; /* there are as many as another member says */
};

struct Field {
  const char* name;   /* scctl's name for it: the item's member, where there is an item */
  const char* member; /* the record's member */
  uint16_t record_at;
  uint16_t item_at; /* kNoItem: an item has no place for it */
  uint16_t size;
  Kind kind;
  uint8_t width; /* of one number */
  Clash clash;
  bool add_only; /* modify does not change it */
  bool is_secret = false;
  const Extra* extra = nullptr; /* of an overlay's member; null: the catalogue's own field */
};

struct Table {
  const char* name;
  const char* member; /* of the area's block; null: none of its fields takes an overlay */
  AreaId area;
  uint32_t at;
  uint32_t stride;
  uint16_t capacity;
  int16_t lock_at; /* of the lock word in a record; -1: the area's own lock */
  int16_t id_at;   /* of the id in a record; -1: a section, always used */
  int8_t free;     /* the id of a free record */
  uint8_t counter_size;
  uint32_t counter_at;
  const char* counter; /* null: none */
  const Field* fields;
  uint16_t field_count;
  uint16_t hidden_count; /* in a view: fields behind the others, in whose places members stand */
  const Table* base;     /* in a view: the table that it is of; null in a table */

  const Field* begin() const { return fields; }
  const Field* end() const { return fields + field_count; }
};

constexpr int kTableCount = 24;
extern const Table kTables[kTableCount];
/* No record has more bytes. */
constexpr uint32_t kLargestRecord = 24 * 1024;

/* The place of a table, or of that of a view, in kTables. */
inline size_t number_of(const Table& table) {
  return static_cast<size_t>((table.base != nullptr ? table.base : &table) - kTables);
}

/* A rule's reference to a group. It is valid when the mode is 1; for time groups also when it is 2.
 * The deletion of a group deletes the rules of mode last_mode. */
struct Reference {
  const char* table;
  const char* mode;
  int8_t last_mode;
  const char* id;
  const char* groups;
};
constexpr int kReferenceCount = 6;
extern const Reference kReferences[kReferenceCount];

const char* kind_name(Kind kind);
/* The same as an overlay has it, which has two more. */
const char* kind_name(const Field& field);
inline constexpr char kEnumKind[] = "enum", kBitKind[] = "bit";

/* Search by name; an area is also found by the stem of its files, and a hidden field by its own
 * name. Null when it does not exist. */
const Area* find_area(const char* name);
const Table* find_table(const char* name, size_t length);
const Field* find_field(const Table& table, const char* name, size_t length);

/* The byte of the area's lock file that guards a record. */
uint32_t lock_index_of(const Table& table, uint32_t position);

inline AreaId id_of(const Area& area) { return static_cast<AreaId>(&area - kAreas); }
inline bool is_section(const Table& table) { return table.id_at < 0; }

}  // namespace store

#endif
