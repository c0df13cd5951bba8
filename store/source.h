/* Sources of tables: the live segments, a .cfg image or a .bin archive.
 *
 * A record of a live segment is copied under its own lock, so it is complete. The lock is shared
 * and held for one copy. If the lock is not free within a second, the record is read until two
 * reads are equal.
 */
#ifndef STORE_SOURCE_H
#define STORE_SOURCE_H

#include "store/catalogue.h"
#include "store/say.h"
#include "store/archive.h"
#include "store/checkpoint.h"

namespace store {

/* Follows the count of what was done before something failed. A file is not changed then. */
inline const char* failure_note() {
  return g_file == nullptr ? ", then one failed" : ", then one failed: the file is as it was";
}

/* Descriptors of the lock files that are held. No other code opens and closes these meanwhile. 0:
 * none. */
extern int g_lock_files[kAreaCount];

struct ArchiveImage;

class Source {
 public:
  Source() = default;
  ~Source();
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  /* Opens the live segments. Each is attached when it is needed, once for all commands of a
   * batch. */
  void open_live();
  /* Detaches the area, because its segment was replaced by another or removed. */
  static void forget_live(AreaId area);
  /* Open one area. The size of an image tells which area it is. An archive has to be good; for
   * repair it only has to hold a complete image. A given descriptor is read, an image from its
   * current offset, and the path is only its name. On an error they print a message and return a
   * status. */
  int open_image(const char* path, int opened = -1);
  int open_archive(const char* path, int opened = -1, bool for_repair = false);
  /* The area of the image or archive. */
  AreaId held() const;
  /* Opens an image or an archive; the first bytes of the file tell which. "live" and "saved" open
   * the live segments and the archives of saves, "checkpoint:NAME" a checkpoint. */
  int open_named(const char* name);
  /* Opens a copy of the live areas with these bits, which may be changed. */
  void open_copy(const char* name, uint32_t areas);
  /* Opens the archives of saves. Each is read when it is needed. */
  void open_saved();
  /* The same for the factory's archives; null: those in the usual folder. On an error it prints a
   * message and returns a status. */
  int open_factory(const char* folder);
  /* Reads the area's archive of a source of archives, and sets its path. Returns null when it is
   * good, else what is wrong with it. A source of another kind has no path. */
  const char* read_area(const Area& area, Text* path, ArchiveImage* image) const;
  /* Takes the images of a checkpoint that was read. */
  void take_checkpoint(Checkpoint* checkpoint);

  /* The area's block, or null. */
  uint8_t* block(AreaId area);
  /* The same, with an error message when there is none. Returns kOk or kNoArea. */
  int need(AreaId area);
  bool is_live() const { return live_; }
  /* Whether it is of all areas that can be saved: an area that it lacks does not exist there. */
  bool is_whole() const { return live_ || saved_ || factory_ != nullptr || checkpoint_; }
  const char* name() const { return name_; }
  void* const* blocks() const { return blocks_; }

 private:
  void* own_[kAreaCount] = {};
  void** blocks_ = own_;
  bool live_ = false;
  bool saved_ = false;
  const char* factory_ = nullptr; /* the folder */
  bool checkpoint_ = false;
  const char* name_ = "";
};

/* The image that an archive holds. */
struct ArchiveImage {
  uint8_t* bytes = nullptr; /* from malloc; null when the archive is not good */
  Archive verdict;
};
/* Reads the area's own archive while nobody saves it; waits up to five seconds for that. Returns
 * null when it is good, else what is wrong with it, or why that is not known. */
const char* read_own_archive(const Area& area, ArchiveImage* image);

/* An area's paths. */
struct Path {
  char text[64];
};
Path archive_path(const Area& area);
Path lock_path(const Area& area);

/* Keeps other programs from saving an area: saves are made under byte 1 of its lock file. Waits a
 * few seconds for it. The lock is shared. A NoSaves inside another one does not lock again. */
class NoSaves {
 public:
  explicit NoSaves(const Area& area);
  ~NoSaves();
  NoSaves(const NoSaves&) = delete;
  NoSaves& operator=(const NoSaves&) = delete;
  /* False when another program holds the byte for longer than that. Without a lock file nobody can
   * save. */
  explicit operator bool() const { return held_; }

 private:
  AreaId area_;
  int file_ = -1;
  bool held_ = true;
};

/* Copies records of a table: whole, or only their first fields. */
class Reader {
 public:
  static constexpr int kWhole = -1;

  Reader(Source& source, const Table& table, int field_count = kWhole);
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  /* Copies so many fields from now on. */
  void read_fields(int count) { field_count_ = count; }
  /* False when the record is free. */
  bool copy(uint32_t position, uint8_t* to);
  /* Copies the used record at the position or the next one behind it, and sets the position to
   * it. */
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
  uint32_t wait_ms_;
};

/* When two MAC texts are equal: as addresses, or as the library compares them, for which - and :
 * are different letters. */
enum class Spelling : uint8_t { kAsMac, kAsLibrary };

/* Whole copies of the used records of a table, at their positions. */
class Snapshot {
 public:
  Snapshot() = default;
  explicit Snapshot(const Table& table);
  void take(Source& source);
  /* The same for a snapshot of no table yet. */
  void take(const Table& table, Source& source);
  /* Copies one record only. */
  void take(Source& source, uint32_t position);

  void swap(Snapshot& other);

  explicit operator bool() const { return table_ != nullptr; }
  const Table& table() const { return *table_; }
  bool used(uint32_t position) const { return used_.data()[position] != 0; }
  const uint8_t* record(uint32_t position) const {
    return records_.data() + position * table_->stride;
  }
  uint8_t* put(uint32_t position) { /* for a used record; the caller fills it */
    used_.data()[position] = 1;
    return records_.data() + position * table_->stride;
  }
  void drop(uint32_t position) { used_.data()[position] = 0; }
  /* The used record with which the record clashes, except the one at `skip`; -1 for none. */
  int find_clash(const uint8_t* record, int skip, const Field** field,
                 Spelling spelling = Spelling::kAsMac) const;

 private:
  const Table* table_ = nullptr;
  Buffer records_;
  Buffer used_;
};

/* Whether the record's own id word is other than that of a free record. The word may be damaged. */
bool is_used(const Table& table, const uint8_t* record);

/* The byte of the lock file that all programs lock for a record: the one that the lock word
 * names. */
int32_t named_lock(const Table& table, const uint8_t* block, uint32_t position);

}  // namespace store

#endif
