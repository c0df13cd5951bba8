/* Changes of records, written down before they are made: for the log and for a try.
 *
 * A journal is a file of chunks. Each chunk is appended by one write, under the lock of the record
 * that it is about. A chunk that a kill has cut off is not read. So after a kill the journal may
 * have one change more than was made, and never one less.
 */
#ifndef STORE_JOURNAL_H
#define STORE_JOURNAL_H

#include "store/catalogue.h"
#include "store/say.h"

namespace store {

/* A change of a record as it is made. The mask has a byte for each byte of the record, 1 for those
 * that are written. For a deleted record `after` is null; for one that is deleted or added the mask
 * is null, and all its fields count. */
struct Step {
  const Table& table;
  uint32_t position;
  const uint8_t* before; /* null: a free record without contents that have to come back */
  const uint8_t* after;
  const uint8_t* mask;
  bool was_used, is_used;
};

/* Bytes that follow each other. */
struct Run {
  uint32_t at, size;
  uint32_t end() const { return at + size; }
};
/* The first run of ones in a mask at or behind an offset; its size is 0 when there is none. */
Run next_run(const uint8_t* mask, uint32_t at, uint32_t end);

enum class ChunkKind : uint8_t {
  kBegin, /* of an entry of the log: who, when and what */
  kStep,
  kNotUndoable, /* an entry of the log did more than its steps say */
  kSeen         /* as kBegin, of an entry about another program */
};

/* The head of a chunk. In a kStep runs of bytes follow: offset, size, the bytes before and, unless
 * the record is free then, the bytes after. */
struct Chunk {
  uint16_t mark;
  ChunkKind kind;
  uint8_t table;
  uint32_t size; /* of the whole chunk */
  uint32_t entry;
  uint32_t position;
  uint8_t was_used, is_used;
  uint16_t program; /* a sum of the name of the program; 0: scctl itself */
};
static_assert(sizeof(Chunk) == 20);

/* Makes the chunk of a step. */
void pack_step(const Step& step, uint32_t entry, Text* to, uint16_t program = 0);
void pack(ChunkKind kind, uint32_t entry, const void* payload, size_t size, Text* to,
          uint16_t program = 0);

/* The chunk at an offset of a journal's bytes; null at their end, and where a chunk is cut off. */
const Chunk* chunk_at(const Text& bytes, size_t at);

/* What became of a change that is taken back. */
enum class Fate : uint8_t {
  kDue,   /* nothing yet: another program holds the record */
  kBack,  /* all that was still as the change left it is as before */
  kStays, /* something stays, because another program changed it since */
  kWaits  /* the record cannot return yet: its id or its key is used, or its group waits */
};

/* What all steps together did to a record. Bytes outside the mask are zero. */
struct Change {
  const Table* table;
  uint32_t position;
  bool was_used, is_used;
  Fate fate;
  bool is_partly_kept; /* a field stays, because its old value is another record's key now */
  Buffer before, after, mask;
  Change* next;

  Change(const Table& of, uint32_t at);
  /* Without the C++ library there is neither <new> nor an allocator. */
  static void* operator new(size_t, void* room) noexcept { return room; }
  /* All of it as one step. */
  Step step() const;
  /* Puts the changed bytes of before or after into a record. */
  void put(const Buffer& values, uint8_t* record) const;
  bool is_field_changed(const Field& field) const;
};

/* The changes of a journal, in the order of the first step of each. */
class Changes {
 public:
  Changes() = default;
  ~Changes();
  Changes(const Changes&) = delete;
  Changes& operator=(const Changes&) = delete;

  /* Adds the step of a chunk. A chunk that is not one of this program's is ignored. */
  void add(const Chunk& chunk);
  void add(const Step& step);
  /* Adds the steps of an entry in these bytes of a journal. */
  void add(const Text& journal, size_t from, size_t end, uint32_t entry);
  Change* find(const Table& table, uint32_t position);
  Change* first() { return first_; }
  const Change* first() const { return first_; }
  bool empty() const { return first_ == nullptr; }
  uint32_t areas() const;

 private:
  Change& at(const Table& table, uint32_t position, bool was_used);

  Change* first_ = nullptr;
  Change** end_ = &first_;
};

/* Where the edits of this process are written down. */
class Journal {
 public:
  /* Called before areas are edited. On an error it prints a message and returns a status. */
  virtual int begin(uint32_t areas) = 0;
  /* Called before a record is written, under its lock. If it fails, it prints a message, and the
   * record is not written. */
  virtual bool append(const Step& step) = 0;
  /* An area was changed in another way. */
  virtual void set_not_undoable() = 0;

 protected:
  ~Journal() = default;
};
extern Journal* g_journal; /* null: nowhere */

}  // namespace store

#endif
