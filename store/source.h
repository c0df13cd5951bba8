/* Where tables are read from: the live segments, a .cfg image or a .bin archive.
 *
 * A record of a live segment is shown whole: it is copied under its own lock. The lock is shared
 * and held for one copy; where it is not to be had within a second, the record is read until two
 * reads agree.
 */
#ifndef STORE_SOURCE_H
#define STORE_SOURCE_H

#include "store/catalogue.h"
#include "store/say.h"
#include "store/archive.h"

namespace store {

/* Behind how much was done before something failed. A file is not changed then. */
inline const char* failure_note() {
  return g_file == nullptr ? ", then one failed" : ", then one failed: the file is as it was";
}

/* The lock files that are held, which nobody else opens and closes meanwhile; 0: none. */
extern int g_lock_files[kAreaCount];

class Source {
 public:
  Source() = default;
  ~Source();
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  /* The live segments; each is attached when it is asked for, once for all commands of a batch. */
  void open_live();
  /* The area's segment is another one now. */
  static void forget_live(AreaId area);
  /* One area, told from the image's size, or by the archive, which has to be good, or for repair to
   * hold a whole image. Say why they cannot, and return a status. Where a descriptor is given it is
   * read, an image from where it stands, and the path is its name. */
  int open_image(const char* path, int opened = -1);
  int open_archive(const char* path, int opened = -1, bool for_repair = false);
  /* The area of the one or the other. */
  AreaId held() const;
  /* Either of them, told from the file's first bytes; "live" and "saved" are these. */
  int open_named(const char* name);
  /* The archives that the areas were saved to; they are read when they are asked for. */
  void open_saved();

  /* The area's block, or null. */
  uint8_t* block(AreaId area);
  /* The same, saying why there is none: kOk or kNoArea. */
  int need(AreaId area);
  bool is_live() const { return live_; }
  bool is_saved() const { return saved_; }
  const char* name() const { return name_; }
  void* const* blocks() const { return blocks_; }

 private:
  void* own_[kAreaCount] = {};
  void** blocks_ = own_;
  bool live_ = false;
  bool saved_ = false;
  const char* name_ = "";
};

/* The image that an archive holds. */
struct ArchiveImage {
  uint8_t* bytes = nullptr; /* from malloc; null when the archive is not good */
  Archive verdict;
};
/* The area's own archive, read while nobody saves it, for which five seconds are waited. Null when it is
 * good, else what is wrong with it, or why that is not known. */
const char* read_own_archive(const Area& area, ArchiveImage* image);

/* An area's paths. */
struct Path {
  char text[64];
};
Path archive_path(const Area& area);
Path lock_path(const Area& area);

/* Keeps saves of an area away, which are made under byte 1 of its lock file; waits a few seconds. The
 * lock is shared, and one is enough for those within. */
class NoSaves {
 public:
  explicit NoSaves(const Area& area);
  ~NoSaves();
  NoSaves(const NoSaves&) = delete;
  NoSaves& operator=(const NoSaves&) = delete;
  /* False when another program has the byte for longer. Without a lock file nobody saves. */
  explicit operator bool() const { return held_; }

 private:
  AreaId area_;
  int file_ = -1;
  bool held_ = true;
};

/* Copies records of a table, each whole or the first of its fields. */
class Reader {
 public:
  static constexpr int kWhole = -1;

  Reader(Source& source, const Table& table, int field_count = kWhole);
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  /* From now on. */
  void read_fields(int count) { field_count_ = count; }
  /* False when the record is free. */
  bool copy(uint32_t position, uint8_t* to);
  /* Of the used records the one at a position or the next one behind it, which is then told. */
  bool copy_next(uint32_t* position, uint8_t* to);

 private:
  template <class Part>
  bool each_part(Part part) const;
  void copy_parts(uint8_t* to, const uint8_t* from) const;
  void copy_until_equal(uint8_t* to, const uint8_t* from) const;

  const Table& table_;
  const uint8_t* block_;
  int field_count_;
  int lock_ = -1;
  int tries_;
};

/* When MAC addresses as text are the same: those that are the same address, or as the library
 * compares them, which takes - and : for different letters. */
enum class Spelling : uint8_t { kAsMac, kAsLibrary };

/* The used records of a table, each whole, at their positions. */
class Snapshot {
 public:
  Snapshot() = default;
  explicit Snapshot(const Table& table);
  void take(Source& source);
  /* One record alone. */
  void take(Source& source, uint32_t position);

  void swap(Snapshot& other);

  explicit operator bool() const { return table_ != nullptr; }
  const Table& table() const { return *table_; }
  bool used(uint32_t position) const { return used_.data()[position] != 0; }
  const uint8_t* record(uint32_t position) const {
    return records_.data() + position * table_->stride;
  }
  uint8_t* put(uint32_t position) { /* a used record, to be filled */
    used_.data()[position] = 1;
    return records_.data() + position * table_->stride;
  }
  /* The used record that the record clashes with, other than the one of skip; -1 for none. */
  int find_clash(const uint8_t* record, int skip, const Field** field,
                 Spelling spelling = Spelling::kAsMac) const;

 private:
  const Table* table_ = nullptr;
  Buffer records_;
  Buffer used_;
};

/* How the record's own id word reads: used, free, or neither. */
bool is_used(const Table& table, const uint8_t* record);

/* The byte of the lock file that all programs lock for a record: the one that its block names. */
int32_t named_lock(const Table& table, const uint8_t* block, uint32_t position);

}  // namespace store

#endif
