/* What all processes of the races see: the shared counts, the tables and who owns their records.
 *
 * Every payload is made of a stamp of its own, so that a mixture of two shows. What a process claims
 * it enters in a table of owners, where a second claim shows. */
#ifndef RACES_TABLES_H
#define RACES_TABLES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <string>
#include <vector>

#include "model/list_calls.h"
#include "support/rows.h"

namespace sc_test {

/* The lists in the order of list_rows(), then the tables in the order of id_table_rows(). */
constexpr uint32_t kLists = 11, kAps = 11, kUsers = 12, kTemplates = 13, kTables = 14;
constexpr uint32_t kMostRecords = 300, kWorkers = 6, kMostMessages = 8;

using Number = std::atomic<uint32_t>;

struct Shared {
  Number stop, stamps, operations, verified, saves, torn, interrupted_locks;
  Number kills, repairing; /* repairing from before a kill until its traces are removed */
  Number counted[kLists];  /* what the counter of a list has to be */
  Number owners[kTables][kMostRecords];
  Number works_on[kWorkers];
  Number violations;
  char messages[kMostMessages][200];
};

extern Shared* shared;

/* Counted, and said by the test when it is one of the first. */
void violation(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* Different ones differ in both halves. */
uint32_t new_stamp();

/* A record's place and its lock, in any of the tables. */
struct Table {
  std::string area;
  uint32_t base, stride, capacity, lock_at, first_lock_index;
  uint8_t* block;

  uint8_t* record(uint32_t position) const { return block + base + stride * position; }
};

extern Table tables[kTables];
extern Blocks blocks;

/* Holds the record's lock as a caller of the library does. */
class Held {
 public:
  Held(const Table& table, uint32_t position);
  ~Held();
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

  bool locked() const { return locked_; }

 private:
  int fd_;
  off_t lock_index_;
  bool locked_;
};

/* The byte of a stamp that stands at an offset of a record: a letter, and never of another case. */
uint8_t letter(uint32_t stamp, size_t offset);
void put_stamp(uint8_t* record, const std::vector<RunRow>& runs, uint32_t stamp);
uint32_t stamp_at(const uint8_t* record, uint32_t at);

/* All of the runs of one stamp, or all zero. */
bool is_whole(const uint8_t* record, const std::vector<RunRow>& runs);

/* What a table's writers write as one: the payload of a list, the binding of an AP, the name of a
 * template. */
const std::vector<RunRow>& payload(uint32_t table);

/* The word that is changed without the record's lock: the id of those that are claimed so. */
uint32_t unlocked_word(uint32_t table);

uint8_t* mac_of(uint32_t table, uint32_t at);

/* Claims a record of a table that has ids. */
int32_t claim_id(uint32_t table);

/* Frees a record through the library. */
int32_t remove(uint32_t table, uint32_t at);

}  // namespace sc_test

#endif
