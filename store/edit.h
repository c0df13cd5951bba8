/* Edits of live areas: records are written at their positions, each under the byte of the lock file
 * that its own lock word names, as the library writes them.
 *
 * What a record is to be is complete before it is written; between two of our system calls a record
 * is old or new, and the table's counter follows its slot word at once. Byte 0 of an area's lock
 * file keeps editors of one area apart: other programs never lock it. Closing any descriptor of that
 * file in this process would drop it, so nobody else here opens it meanwhile; a record is copied
 * until two copies agree.
 */
#ifndef STORE_EDIT_H
#define STORE_EDIT_H

#include "store/source.h"

namespace store {

constexpr uint32_t bit(AreaId area) { return 1u << area; }

/* Which bytes of a record are written: 1 for each that is. */
class Mask {
 public:
  explicit Mask(const Table& table) : table_(table), bytes_(table.stride) {}
  void add(const Field& field);
  /* What makes one record the other: bytes of opaque fields one by one, other fields whole. */
  void add_differences(const uint8_t* one, const uint8_t* other);
  bool has(const Field& field) const { return bytes_.data()[field.record_at] != 0; }
  bool empty() const;
  const uint8_t* bytes() const { return bytes_.data(); }

 private:
  const Table& table_;
  Buffer bytes_;
};

/* How a record was met under its lock. */
enum class Written : uint8_t {
  kDone,
  kNotFree, /* another program has used it meanwhile: nothing was written */
  kNotUsed, /* ... freed it ... */
  kChanged, /* ... changed it ... */
  kFailed   /* for the reason that was said: nothing was written */
};

class Edit {
 public:
  explicit Edit(Source& live);
  /* Ends it. */
  ~Edit();
  Edit(const Edit&) = delete;
  Edit& operator=(const Edit&) = delete;

  /* Attaches these areas and waits for other editors of them; says why it cannot, and returns a
   * status. An area whose header is damaged is refused. */
  int begin(uint32_t areas);
  /* The same for one area, whose header may be damaged. */
  int begin_damaged(AreaId area);
  /* Lets other editors go on, then announces each area of which a record was written, once. A signal
   * ends the wait for a daemon that does not accept, and leaves out no other area. */
  void end();

  /* The record of a free position becomes used. */
  Written add(const Table& table, uint32_t position, const uint8_t* record);
  /* Bytes of a used record; those of a section are always used. */
  Written change(const Table& table, uint32_t position, const uint8_t* record, const Mask& mask);
  /* A used record becomes free; with `expected` only when its fields are these still. */
  Written remove(const Table& table, uint32_t position, const uint8_t* expected = nullptr);
  /* A template is bound to an access point that is nobody else's, in both records at once; or bound to
   * nobody. Their bytes are taken in the library's order, the template's first. */
  Written bind(uint32_t template_id, uint32_t ap_id);
  Written unbind(uint32_t template_id);
  /* Whatever is written otherwise is to be announced, too. */
  void set_changed(AreaId area) { changed_ |= bit(area); }

  Source& live() { return live_; }
  int removed() const { return removed_; } /* records, so far */

 private:
  friend class RecordLock;

  int hold(AreaId area);

  Source& live_;
  uint32_t held_ = 0;
  uint32_t changed_ = 0;
  int removed_ = 0;
  void (*handlers_[3])(int);
};

/* A signal that came in an edit ends the program when all is tidied up and said. */
bool is_interrupted();
void end_if_interrupted();

/* Says that another program was faster; for kFailed nothing. Returns kRefused. */
int fail_written(const Table& table, uint32_t id, Written written);

/* Adds a record as the one of this id, or as the lowest free one for an id of 0, which then tells
 * which it became. Refuses a record that clashes. */
int add_record(Source& live, const Table& table, const uint8_t* record, Spelling spelling,
               uint32_t* id);
/* Writes the fields of the mask. */
int set_record(Source& live, const Table& table, uint32_t id, const uint8_t* record,
               const Mask& mask, Spelling spelling);

/* A record that is to be deleted. */
struct Doomed {
  const Table* table;
  uint32_t id;
};
/* Deletes the records, each with what refers to it. All of them are used, or none is deleted. */
int delete_records(Source& live, const Doomed* records, int count);
int clear_table(Source& live, const Table& table);

}  // namespace store

#endif
