/* Tables whose records are free when their id is 0: a second, smaller frame.
 *
 * The id of a used record is its position + 1. Records are large, and most of their bytes are known
 * only to the programs that write them. The frame finds, claims, counts and clears records. MACs
 * are 6 raw bytes.
 */
#ifndef AP_ID_TABLE_H
#define AP_ID_TABLE_H

#include <stddef.h>
#include <stdint.h>

#include "core/lock_file.h"

namespace sc {

/* The lock index is a record's first word. */
struct IdTableRow {
  uint8_t path_at; /* of the lock path in the block */
  uint8_t path_size;
  uint16_t at; /* of record 0 in the block */
  uint16_t stride;
  uint16_t capacity;
  uint16_t id_at;
  uint16_t mac_at;
};

/* The row of a table, from its structs. */
#define SC_ID_TABLE(Block, path, table, Record, id, mac)                                   \
  IdTableRow {                                                                             \
    offsetof(Block, path), sizeof(Block::path), offsetof(Block, table), sizeof(Record),    \
        sizeof(Block::table) / sizeof(Record), offsetof(Record, id), offsetof(Record, mac) \
  }

/* Return the position of the first record with the id or the MAC, free records included; -1 if
 * there is none. */
int32_t find_id(const void* block, uint32_t id, const IdTableRow& table);
int32_t find_mac(const void* block, const uint8_t* mac, const IdTableRow& table);

/* Claims the lowest free record without a lock. Returns its position, or -1. */
int32_t claim_id(void* block, const IdTableRow& table);

/* Number of records whose id is not 0; 0 for a null block. */
int32_t count_used(const void* block, const IdTableRow& table);

/* Clears the first record with the MAC. Returns 1, or 0 when no record has the MAC or the lock file
 * cannot be opened. */
int32_t delete_mac(void* block, const uint8_t* mac, const IdTableRow& table);

/* Under the record's lock, zeroes the whole record except its lock index. */
void clear_record(void* block, uint32_t position, const LockFile& file, const IdTableRow& table);

}  // namespace sc

#endif
