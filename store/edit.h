/* Edits of live areas. Records are written at their positions, each under the byte of the lock file
 * that its own lock word names, as the library writes them.
 *
 * The new contents of a record are complete before it is written. Between any two system calls of
 * this process a record is old or new, and the table's counter is changed right after the slot
 * word. Byte 0 of an area's lock file excludes other editors of the area; other programs never lock
 * it. Closing any descriptor of that file in this process would drop the lock, so no other code
 * here opens the file meanwhile. Readers copy a record until two copies are equal.
 */
#ifndef STORE_EDIT_H
#define STORE_EDIT_H

#include "store/clock.h"
#include "store/journal.h"
#include "store/source.h"

namespace store {

constexpr uint32_t bit(AreaId area) { return 1u << area; }

/* What of a record is written: the bits of each byte. */
class Mask {
 public:
  explicit Mask(const Table& table) : table_(table), bytes_(table.stride) {}
  void add(const Field& field);
  /* Adds what differs: bytes of an opaque field one by one, another field whole. */
  void add_difference(const Field& field, const uint8_t* one, const uint8_t* other);
  /* The same for all fields of the table. */
  void add_differences(const uint8_t* one, const uint8_t* other) {
    add_differences(table_, one, other);
  }
  /* The same for those of a view. */
  void add_differences(const Table& view, const uint8_t* one, const uint8_t* other);
  bool has(const Field& field) const;
  /* Whether only some bits of a byte are written. */
  bool is_partial() const;
  /* Takes the masked bits of another record into one. */
  void merge(uint8_t* to, const uint8_t* from) const;
  bool empty() const;
  const uint8_t* bytes() const { return bytes_.data(); }
  uint8_t* bytes() { return bytes_.data(); }

 private:
  const Table& table_;
  Buffer bytes_;
};

/* The state in which a record was found under its lock. */
enum class Written : uint8_t {
  kDone,
  kNotFree, /* another program has used it meanwhile: nothing was written */
  kNotUsed, /* another program has freed it meanwhile: nothing was written */
  kChanged, /* another program has changed it meanwhile: nothing was written */
  kLocked,  /* another program holds it for longer than the edit waits: nothing was written */
  kFailed   /* an error message was printed: nothing was written */
};

/* How long an edit waits for locks of other programs. */
enum class Patience : uint8_t {
  kForever,
  kOneSecond /* in all; it uses no call that waits */
};

class Edit {
 public:
  explicit Edit(Source& live, Patience patience = Patience::kForever);
  /* Calls end(). */
  ~Edit();
  Edit(const Edit&) = delete;
  Edit& operator=(const Edit&) = delete;

  /* Attaches these areas and waits until no other program edits them. On an error it prints a
   * message and returns a status. An area with a damaged header is refused. */
  int begin(uint32_t areas);
  /* The same for areas that must be edited in time: one that does not exist is left out, and other
   * editors are waited for only as long as the patience lasts. */
  void begin_in_time(uint32_t areas);
  /* The same for one area; its header may be damaged. */
  int begin_damaged(AreaId area);
  /* Lets other editors continue. Then announces, once, each area in which a record was written. A
   * signal ends the wait for a daemon that does not accept; the other areas are announced all the
   * same. */
  void end();

  /* Makes the record of a free position used. */
  Written add(const Table& table, uint32_t position, const uint8_t* record);
  /* Writes bytes of a used record. Records of sections are always used. If `expected` is given, the
   * record is written only when its fields still have these values. */
  Written change(const Table& table, uint32_t position, const uint8_t* record, const Mask& mask,
                 const uint8_t* expected = nullptr);
  /* Frees a used record. If `expected` is given, the record is freed only when its fields still
   * have these values. */
  Written remove(const Table& table, uint32_t position, const uint8_t* expected = nullptr);
  /* Bind writes a template and an access point that is bound to no other template, both at once.
   * Unbind clears both. They take the bytes in the library's order, the template's first. */
  Written bind(uint32_t template_id, uint32_t ap_id);
  Written unbind(uint32_t template_id);
  /* Takes back a change of the past, field by field: a field that still has the value after the
   * change gets the one before it. `stays` gets the fields that have another value. Results:
   * kDone, also when there was nothing to do; kNotUsed: it was deleted since; kChanged: the record
   * was added, and is kept because it was changed since; kNotFree: it was deleted, and its id is
   * used. If a partner is given, it is taken back first, under the bytes of both records. */
  Written take_back(const Change& change, Mask* stays, const Change* partner = nullptr);
  /* All areas of the edit are announced, although nothing may have been changed now. */
  void announce() { changed_ |= held_; }
  /* The area was changed in another way. */
  void set_changed(AreaId area);

  Source& live() { return live_; }
  int removed() const { return removed_; } /* records, so far */

 private:
  friend class RecordLock;

  int hold(AreaId area);
  bool lock(int file, uint32_t byte);
  bool write_down(const Step& step);
  Written write_binding(uint32_t template_id, int32_t ap_position, bool is_bound);
  Written use(const Table& table, uint32_t position, const uint8_t* record);
  Written put_back(const Change& change, Mask* stays);

  Source& live_;
  Patience patience_;
  Wait wait_;
  uint32_t held_ = 0;
  uint32_t changed_ = 0;
  int removed_ = 0;
  void (*handlers_[3])(int);
};

/* A signal that arrives during an edit ends the program after all clean-up and messages. */
bool is_interrupted();
void end_if_interrupted();
/* Goes on in spite of it. */
void clear_interrupt();

/* Prints that another program was faster; for kFailed prints nothing. Returns kRefused. */
int fail_written(const Table& table, uint32_t id, Written written);

/* Prints that the record is free. */
int refuse_free(const Table& table, uint32_t id);

/* Adds a record with this id. An id of 0 means the lowest free record; the id is then set. Refuses
 * a record that clashes. */
int add_record(Source& live, const Table& table, const uint8_t* record, Spelling spelling,
               uint32_t* id);
/* Writes the bytes of the mask; if `expected` is given, only when the record's fields still have
 * these values. */
int set_record(Source& live, const Table& table, uint32_t id, const uint8_t* record,
               const Mask& mask, Spelling spelling, const uint8_t* expected = nullptr);

/* Whether the rule, a record of the reference's table, is deleted with the group. */
bool is_deleted_with(const Reference& reference, const uint8_t* rule, uint32_t group_id);

/* A record to be deleted. */
struct Doomed {
  const Table* table;
  uint32_t id;
};
/* Deletes the records, each with the rules that refer to it. If one of them is not used, none is
 * deleted. */
int delete_records(Source& live, const Doomed* records, int count);
int clear_table(Source& live, const Table& table);

}  // namespace store

#endif
