/* The records of the live store as they were seen last, and the look that finds what differs.
 *
 * A record is reported when it is complete: no program holds its byte, and two copies of it are
 * equal. A record that is claimed but not filled yet is waited for. Both waits have a limit.
 */
#ifndef SCCTL_SHOWN_H
#define SCCTL_SHOWN_H

#include "commands.h"
#include "store/overlay.h"

namespace scctl {

constexpr int64_t kNever = INT64_MAX;
/* How long a record may be incomplete before it is printed as it is. */
constexpr int32_t kPatienceMs = 1000;
constexpr int32_t kLongestStepMs = 50; /* between two looks at an incomplete record */

/* Bytes of a table's other fields are not kept: only a sum of them. Of a field that an overlay covers
 * the members have names. */
bool is_named(const Table& table, const Field& field);
/* Whether a field of a record's view is shown: bytes without a name are not. */
inline bool is_shown(const Field& field) {
  return field.kind != Kind::kBytes || (field.extra != nullptr && !is_spare_name(field.name));
}

/* An area that is watched. */
struct Watched {
  bool chosen = false;
  int segment = -1;
  int64_t unnumbered_since = 0;
  int64_t due = kNever;
  int64_t not_before = 0;
  uint32_t closes = 0;    /* of the lock file by a program that may write, since the last look */
  bool is_made = false;   /* its lock file was written, as by Init */
  bool is_loaded = false; /* its image was unpacked or packed */

  void look_at(int64_t when) {
    if (when < not_before) when = not_before;
    if (when < due) due = when;
  }
};

/* Asks which bytes of an area's lock file are held. Asking takes no lock. */
class Holders {
 public:
  explicit Holders(const Area& area) : area_(area) {}
  ~Holders();
  Holders(const Holders&) = delete;
  Holders& operator=(const Holders&) = delete;

  /* Whether the byte is held for writing. */
  bool hold(int32_t byte);

 private:
  const Area& area_;
  int file_ = -1;
  bool opened_ = false;
};

/* A block whose pages are looked at only if they are in memory: reading others would give them
 * memory. Those hold zeros. */
class Pages {
 public:
  Pages(const uint8_t* block, uint32_t size);
  /* Bytes of the block; with absent pages a copy of them in the room. */
  const uint8_t* see(uint32_t at, uint32_t size, uint8_t* room) const;
  const uint8_t* block() const { return block_; }

 private:
  bool is_present(uint32_t page) const { return (present_.data()[page] & 1) != 0; }

  const uint8_t* block_;
  uint32_t page_;
  Buffer present_; /* a byte for each page; odd: it is in memory */
};

/* A difference. `was` has zeros in fields that are not named, unless records are kept whole. */
struct Seen {
  const Table& table;
  uint32_t position;
  const uint8_t* was; /* null: the record was free */
  const uint8_t* is;  /* null: it is free */
  bool is_unnamed;    /* bytes of fields that are not named differ, or were there */
};

/* Who is told of differences. */
class Teller {
 public:
  /* False when nothing was said of it. */
  virtual bool tell(const Seen& seen) = 0;

 protected:
  ~Teller() = default;
};

/* What a look needs. */
struct Look {
  const Pages& pages;
  Holders& holders;
  int64_t now;
  Watched* area;
  Teller* teller; /* null: differences are counted, complete or not, and nothing is kept */
};

/* The records of one table. For a free record, this is what it contained when it was freed. */
class Shown {
 public:
  /* Keeps all fields, or those that are named and a sum of the others' bytes. */
  void begin(const Table& table, bool whole, const Pages& pages);
  /* The same for an area that does not exist. */
  void begin(const Table& table);
  /* Tells of differences of complete records, and counts them. Incomplete records are looked at
   * again later. */
  uint32_t look(const Look& look);
  bool is_used(uint32_t position) const { return (marks()[position].state & 1) != 0; }
  /* Puts what is kept of a record to its places. */
  void unpack(uint32_t position, uint8_t* record) const;
  const Table& table() const { return *table_; }

 private:
  struct Mark {
    uint32_t sum;   /* of the bytes of fields that are not kept */
    uint32_t state; /* bit 0: it was used; the rest: when it was first seen incomplete, or 0 */
  };

  Mark* marks() { return reinterpret_cast<Mark*>(marks_.data()); }
  const Mark* marks() const { return reinterpret_cast<const Mark*>(marks_.data()); }
  const uint8_t* see(const Pages& pages, uint32_t position) const;
  uint8_t* at(uint32_t position) { return kept_.data() + position * size_; }
  const uint8_t* at(uint32_t position) const { return kept_.data() + position * size_; }
  bool is_kept(const Field& field) const { return whole_ || is_named(*table_, field); }
  uint32_t pack(const uint8_t* record, uint8_t* to) const;
  void keep(uint32_t position, const uint8_t* record, bool used);
  bool is_same(uint32_t position, const uint8_t* record) const;
  /* Deleted records of lists do. Those of the access points' tables are zeros. */
  bool leaves_bytes() const { return table_->free != 0; }
  bool is_empty(const Pages& pages, uint32_t position) const;
  bool is_as_shown(uint32_t position, const uint8_t* seen);
  bool copy_whole(const Look& look, uint32_t position, int32_t byte);
  int32_t claim_patience(uint32_t position) const;
  bool tell(Teller& teller, uint32_t position, bool used) const;

  const Table* table_ = nullptr;
  bool whole_ = false;
  uint32_t size_ = 0; /* of what is kept of a record */
  Buffer kept_;
  Buffer marks_;
};

}  // namespace scctl

#endif
