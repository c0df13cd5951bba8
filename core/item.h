/* Items: what callers see of a record. A map says where each field of the record lies in the item
 * and how it is converted; a list is a table with its map, its counter and its notification code.
 */
#ifndef CORE_ITEM_H
#define CORE_ITEM_H

#include <stdint.h>

#include "core/table.h"

namespace sc {

/* The number of used records as the item layer keeps it; size 0: the area has none. */
struct Counter {
  uint16_t at;
  uint8_t size;
};

/* The widest record that an item is converted to, and the most items that a list shows. */
constexpr uint32_t kMaxStride = 1068;
constexpr uint32_t kMaxItems = 32;

struct List {
  Table table;
  uint8_t code; /* of the change notification */
  Counter counter = {};
  uint16_t item_size =
      0; /* 0: an item is the record's first bytes, and the payload is not mapped */
};

/* The item operations; what they do is said in sysconfig/core.h. */
uint32_t get_items(const void* block, void* items, const List& list); /* the count */
void get_item(const void* block, uint32_t id, void* item, const List& list);
int32_t add_item(void* block, const void* item, const List& list);
int32_t modify_item(void* block, const void* item, const List& list);
void delete_items(void* block, char* ids, const List& list);
void delete_all_items(void* block, const List& list);

/* Adding and modifying where an item is laid out as its record. */
int32_t add_record(void* block, const void* record, const List& list);
int32_t modify_record(void* block, uint32_t id, const void* record, const List& list);

/* Frees the record at id - 1 and lowers the counter, whether or not there was one. */
void delete_item(void* block, uint32_t id, const List& list);

/* Adds to the list's counter in the block. */
void count(void* block, int32_t change, const List& list);

/* A mode byte and a signed group id of 1 or 2 bytes in a record. */
struct Reference {
  uint16_t mode_at;
  int8_t mode;
  uint16_t id_at;
  uint8_t id_size;
};

/* Deletes every record that refers to the group, each with its notification. */
void delete_referring(void* block, int32_t group_id, const List& list, const Reference& reference);

/* The ids of an index list, split in place. */
class Ids {
 public:
  explicit Ids(char* text) : text_(text) {}
  /* False after the last one. */
  bool next(int32_t* id);

 private:
  char* text_;
  char* rest_ = nullptr;
};

}  // namespace sc

#endif
