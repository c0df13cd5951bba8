/* Items: what callers see of a record. The payload of a table says where each member lies in the
 * item and how it is converted. A list is a table with its counter and its notification code.
 */
#ifndef CORE_ITEM_H
#define CORE_ITEM_H

#include <stdint.h>

#include <sysconfig/layout.h>

#include "core/table.h"

namespace sc {

/* The largest size of a record that is converted to an item, and the most items of a listing. */
constexpr uint32_t kMaxStride = 1068;
constexpr uint32_t kMaxItems = 32;

/* A table, and what every change of its items does in addition. */
struct ListRow {
  TableRow table;
  /* The area's count of used records; size 0: the area keeps none. */
  uint16_t counter_at = 0;
  uint8_t counter_size = 0;
  uint8_t code; /* of the change notification */
};

/* A list whose items are converted by the payload. The items of all other lists are laid out as the
 * first bytes of their records. */
struct MappedListRow {
  ListRow list;
  uint16_t item_size;
};

/* Head of every item list: the items follow, then a tail of zeroes. */
struct ItemListHead {
  uint32_t count;
  uint32_t capacity;
} SC_PACKED;

/* The item operations. sysconfig/core.h says what they do. */
uint32_t get_items(const void* block, void* items, const MappedListRow& row); /* the count */
void get_item(const void* block, uint32_t id, void* item, const MappedListRow& row);
int32_t add_item(void* block, const void* item, const MappedListRow& row);
int32_t modify_item(void* block, const void* item, const MappedListRow& row);
void delete_items(void* block, char* ids, const ListRow& list);
void delete_all_items(void* block, const ListRow& list);

/* Add and modify for lists whose items are laid out as their records. */
int32_t add_record(void* block, const void* record, const ListRow& list);
int32_t modify_record(void* block, uint32_t id, const void* record, const ListRow& list);

/* Frees the record at id - 1 and lowers the counter, even when that record does not exist. */
void delete_item(void* block, uint32_t id, const ListRow& list);

/* Adds to the list's counter in the block. */
void count(void* block, int32_t change, const ListRow& list);

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
