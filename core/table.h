/* Record tables: a fixed number of equal records at a fixed place of a block, and the operations
 * that every list has. One row of constant data says how they work.
 *
 * Rows are the last argument of every function here, so an exported function passes its own
 * arguments on in the same registers.
 *
 * A record is free when its slot word is -1; otherwise the word is its position + 1. Positions are
 * 0-based. Writers hold the record's byte of the lock file; reads take no lock.
 */
#ifndef CORE_TABLE_H
#define CORE_TABLE_H

#include <stdint.h>

namespace sc {

/* Where the table lies in its block, and the two words of each record. */
struct Geometry {
  uint16_t at;
  uint16_t stride;
  uint16_t capacity;
  uint8_t lock_at;
  uint8_t slot_at;
};

enum class Compare : uint8_t { kNone, kTextWithoutCase, kBytes };

/* A member that must differ in any two used records. */
struct Key {
  Compare compare;
  uint8_t size;
  uint16_t at;
};

/* A member that add writes, delete clears and modify does not change; size 0: none. */
struct Identity {
  uint8_t at;
  uint8_t size;
};

/* How the bytes of a record are converted to those of an item. */
enum class Conversion : uint32_t {
  kBytes,       /* copied */
  kSignedBytes, /* each byte widened to an int in the item; low bytes stored */
  kSignedHalf,  /* 16 bits widened to an int in the item; low half stored */
  kAddress      /* 32 bits shown in the item as dotted text of 16 bytes */
};

/* One or more members of the payload that are neighbours both in the record and in the item. A run
 * takes one word. */
struct Run {
  uint32_t record_at : 10;
  uint32_t item_at : 12;
  Conversion conversion : 2;
  uint32_t size : 8; /* in the record */
};

constexpr int kMaxRuns = 14;

/* The payload: what add and modify write, and where it lies in an item. A run of size 0 ends it. */
struct Payload {
  Run runs[kMaxRuns];
};

struct TableRow {
  Geometry geometry;
  uint8_t modify_range; /* result of a modify whose position is out of range */
  Identity identity = {};
  Key keys[2] = {}; /* a clash in one of them rejects */
  Payload payload;
};

/* The record at a position of the table. */
inline uint8_t* record_at(const Geometry& geometry, void* block, uint32_t position) {
  return static_cast<uint8_t*>(block) + geometry.at + position * geometry.stride;
}
inline const uint8_t* record_at(const Geometry& geometry, const void* block, uint32_t position) {
  return static_cast<const uint8_t*>(block) + geometry.at + position * geometry.stride;
}

/* Returns 1 when a used record other than that of skip_slot has a key of `record`, else 0.
 * Required: empty texts and zeroes are keys like any other. */
int32_t find_clash(const void* block, const void* record, uint32_t skip_slot,
                   const TableRow& table);

/* Claims the lowest free record: sets its slot word under its lock. Returns the position, or -1
 * when no record is free, the lock file cannot be opened or the block is null. */
int32_t claim(void* block, const Geometry& geometry);

/* Runs one list operation. sysconfig/layout.h lists the results. */
int32_t operate(void* block, uint32_t op, uint32_t* position, const void* record,
                const TableRow& table);

}  // namespace sc

#endif
