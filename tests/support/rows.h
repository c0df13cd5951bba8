/* The golden rows of the lists and of the access-point tables, parsed: all that the tests know
 * about tables. */
#ifndef SUPPORT_ROWS_H
#define SUPPORT_ROWS_H

#include <stdint.h>

#include <string>
#include <vector>

namespace sc_test {

/* A run of payload bytes, by its place in the record. */
struct RunRow {
  uint32_t at, width;
};

/* A field of the duplicate check: "text" without case, "bytes" or "word" exactly. */
struct KeyRow {
  std::string kind;
  uint32_t at, width;
};

/* A field of record and item. Kinds: "bytes" is the same in both; "identity" is the same in both,
 * but modify does not write it; "byte" widens each byte of the record to a signed 32-bit word of
 * the item; "half" is 16 bits in the record and a signed word in the item; "address" is a word in
 * the record and 16 bytes of text in the item.
 */
struct FieldRow {
  std::string name, kind;
  uint32_t record_at, item_at, width;
};

/* A rule's reference to an IP or time group: mode and id in the record, the members of the item in
 * which the listing shows the group, and the mode of the rules that are deleted with the group. */
struct ReferenceRow {
  std::string group;
  uint32_t mode_at, id_at, id_width;
  int32_t listing_mode, cascade_mode;
  uint32_t name_at, values_at;
};

struct ListRow {
  std::string name, area;
  int32_t code;          /* the area's */
  std::string lock_path; /* the area's */
  uint32_t base, stride, capacity, slot_at, lock_at, free_mark;
  int32_t first_lock_index;
  uint32_t counter_at, counter_width; /* width 0: no counter */
  std::vector<KeyRow> keys;
  int32_t modify_range;
  std::vector<RunRow> payload, identity;
  uint32_t item_size, id_at;
  uint32_t list_size; /* 0: items are not read back */
  std::vector<FieldRow> fields;
  std::vector<ReferenceRow> references;

  uint32_t record_at(uint32_t position) const { return base + stride * position; }
  uint32_t slot_of(uint32_t position) const { return record_at(position) + slot_at; }
  int32_t lock_of(uint32_t position) const {
    return first_lock_index + static_cast<int32_t>(position);
  }
};

const std::vector<ListRow>& list_rows();
const ListRow& list_row(const std::string& name);

/* A table whose records are free when their id is 0. */
struct IdTableRow {
  std::string name, area;
  uint32_t path_at; /* of the area's header */
  uint32_t base, stride, capacity, id_at, lock_at, mac_at;
  uint32_t first_lock_index;

  uint32_t record_at(uint32_t position) const { return base + stride * position; }
};

/* "Ap_Info", "ApUser_Info" or "AP_Template_Info". */
const IdTableRow& id_table_row(const std::string& name);
const std::vector<IdTableRow>& id_table_rows();

}  // namespace sc_test

#endif
