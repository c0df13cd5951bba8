/* The catalogue: every area, every table and every field that scctl knows, as rows of constant
 * data. They are derived from the library's own rows; what the catalogue adds are names. Commands,
 * JSON, completion and help all come from here.
 *
 * A table is a list, one of the access-point tables, or the settings of a section, whose record has
 * no free mark and is always there.
 */
#ifndef STORE_CATALOGUE_H
#define STORE_CATALOGUE_H

#include <stddef.h>
#include <stdint.h>

#include "core/area.h"

namespace store {

using sc::AreaId;
using enum sc::AreaId;

/* The calls of the area's life; null where there is none. */
struct Area {
  const char* name;
  uint32_t (*attach)();
  int (*remove)();
  int (*init)();
  int (*read)(void* block);
  void (*notify)();
  void (*save)(void* block);

  /* Key, size, header and stems: the library's row. */
  const sc::AreaRow& row() const;
};

extern const Area kAreas[kAreaCount];

enum class Kind : uint8_t {
  kText,    /* char[]: ends at its first NUL or fills the field */
  kMacText, /* a MAC address as text */
  kAddress, /* 32 bits in network order; dotted text in items */
  kMac,     /* six bytes */
  kBytes,   /* anything else's bytes, shown in hex without the zeros at the end */
  kSigned,  /* one or more numbers */
  kUnsigned,
};

enum class Clash : uint8_t {
  kNone,
  kTextWithoutCase, /* no two used records may have it */
  kBytes
};

constexpr uint16_t kNoItem = UINT16_MAX;

struct Field {
  const char* name;   /* as scctl calls it: the item's member, where there is an item */
  const char* member; /* the record's member */
  uint16_t record_at;
  uint16_t item_at; /* kNoItem: written into the record itself */
  uint16_t size;
  Kind kind;
  uint8_t width; /* of one number */
  Clash clash;
  bool add_only; /* a modify leaves it */
};

struct Table {
  const char* name;
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

  const Field* begin() const { return fields; }
  const Field* end() const { return fields + field_count; }
};

constexpr int kTableCount = 24;
extern const Table kTables[kTableCount];

/* A rule's reference to a group: it counts when the mode is 1, for time groups also at 2. With the
 * group go the rules of the last mode. */
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

/* By name, an area also by that of its files; null when there is none. */
const Area* find_area(const char* name);
const Table* find_table(const char* name, size_t length);
const Field* find_field(const Table& table, const char* name, size_t length);

/* The byte of the area's lock file that guards a record. */
uint32_t lock_index_of(const Table& table, uint32_t position);

inline AreaId id_of(const Area& area) { return static_cast<AreaId>(&area - kAreas); }
inline bool is_section(const Table& table) { return table.id_at < 0; }

}  // namespace store

#endif
