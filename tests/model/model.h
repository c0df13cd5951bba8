/* A naive model of all lists: byte images changed by the golden rows alone, one plain step after
 * the other. It knows nothing of the library's structs and rows: a test that compares the two
 * compares two independent readings of the same facts. It also writes the journal of the calls
 * that each step has to make (support/journal.h). */
#ifndef MODEL_MODEL_H
#define MODEL_MODEL_H

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/rows.h"

namespace sc_test {

using Bytes = std::vector<uint8_t>;

uint32_t load(const uint8_t* bytes, uint32_t width);
int32_t load_signed(const uint8_t* bytes, uint32_t width);
void store(uint8_t* bytes, uint32_t width, uint32_t value);

/* The numbers of an index list; the text is left as strtok leaves it. */
std::vector<int32_t> split_ids(std::string& text);

/* The record image that add (with its identity) and modify build from an item. */
Bytes to_record(const ListRow& row, const uint8_t* item, bool with_identity);
/* Writes a record's fields into a zeroed item. */
void to_item(const ListRow& row, const uint8_t* record, uint8_t* item);

class Model {
 public:
  std::map<std::string, Bytes> areas; /* the expected images, by area name */
  std::set<std::string> without_lock; /* areas whose lock file is missing */
  size_t opens_until_failure = 0;     /* 1: the next one fails; 0: none does */
  std::vector<std::string> journal;   /* what the steps since forget() call */
  std::vector<int32_t> codes;         /* their notifications */
  std::string printed;                /* their standard output */

  void forget();

  /* Table operations. */
  int32_t check(const ListRow& row, const uint8_t* record, uint32_t skip_slot);
  int32_t blank(const ListRow& row);
  int32_t operate(const ListRow& row, uint32_t op, uint32_t* position, const uint8_t* record);

  /* Items. */
  int32_t add(const ListRow& row, const uint8_t* item);
  int32_t modify(const ListRow& row, const uint8_t* item);
  Bytes get(const ListRow& row, uint32_t id);
  Bytes get_list(const ListRow& row);
  void del(const ListRow& row, std::string& ids);
  void del_all(const ListRow& row);
  void del_by_group(const ListRow& row, const std::string& group, int32_t id);

  uint8_t* record(const ListRow& row, uint32_t position) {
    return record_in(row.area, row, position);
  }

 private:
  uint8_t* record_in(const std::string& area, const ListRow& row, uint32_t position);
  bool is_free(const ListRow& row, uint32_t position);
  void free_record(const std::string& area, const ListRow& row, uint32_t position);
  int32_t operate_in(const std::string& area, const ListRow& row, uint32_t op, uint32_t* position,
                     const uint8_t* record);
  void resolve(const ListRow& row, const uint8_t* record, uint8_t* item);
  void change_count(const ListRow& row, uint32_t change);
  void notify(const ListRow& row);

  bool open(const std::string& area);
  void close();
  void log_lock(const char* what, int32_t lock_index);
  void lock(int32_t lock_index);
  void unlock(int32_t lock_index);

  int opened_ = 0;        /* descriptors since forget() */
  std::vector<int> open_; /* those still open, innermost last */
};

}  // namespace sc_test

#endif
