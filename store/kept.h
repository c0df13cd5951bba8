/* The files in the folder of the archives: an area's archive, the last good copy that is kept of it,
 * and the marker of a try. scguard and scctl change them here.
 *
 * Two rules hold for every change. A file is only replaced as a whole, by renaming a new file that
 * is already on the flash. So a power cut at any point leaves the old file or the new one. And a
 * verdict counts only if the whole file was read: if a file cannot be judged, nothing is changed.
 *
 * Order of locks: byte 1 of the lock file of each area concerned, then the folder. Who takes byte 1
 * of several areas takes them in the order of AreaId, and does not wait in the kernel for one while
 * he holds another.
 */
#ifndef STORE_KEPT_H
#define STORE_KEPT_H

#include <stdint.h>

#include "core/area.h"
#include "store/archive.h"

namespace store {

inline constexpr char kArchiveFolder[] = "/var/dataconfig";

/* The folder, opened, and locked against other guards until the end of its scope. errno tells why
 * not. A fork holds the lock, too, until it has closed the descriptor or has become another
 * program. */
class ArchiveFolder {
 public:
  ArchiveFolder();
  ~ArchiveFolder();
  ArchiveFolder(const ArchiveFolder&) = delete;
  ArchiveFolder& operator=(const ArchiveFolder&) = delete;
  explicit operator bool() const { return descriptor_ >= 0; }
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

/* Flushes a file, or the names of a folder. fsync alone does not flush the caches of every file
 * system and driver. */
bool reaches_flash(int file);

/* ---- an area's files; the caller holds the folder ---- */

/* The names of an area's files: its archive (bin), the last good copy (good), a new file that will
 * replace one of them (new), and a broken archive without a good copy (bad). */
struct AreaFileName {
  char text[32];

  AreaFileName(const sc::AreaRow& area, const char* ending);
};

/* The archive or the copy: its verdict, and the descriptor that was judged. */
struct AreaFile {
  AreaFileName name;
  Archive archive;
  int descriptor;

  AreaFile(const sc::AreaRow& area, const char* ending, int folder);
  ~AreaFile();
  AreaFile(const AreaFile&) = delete;
  AreaFile& operator=(const AreaFile&) = delete;

  bool is(State state) const { return archive.state == state; }
};

struct AreaFiles {
  const sc::AreaRow& area;
  int folder;
  AreaFileName fresh, bad;
  AreaFile bin, good;

  AreaFiles(const sc::AreaRow& of, int in);

  /* Both are good and hold the same image. The bytes of an archive depend on the time of the save,
   * so the images are compared. */
  bool are_equal() const;
  /* Replaces one of the two by a copy of the other, which was judged, or does not change it. errno
   * tells why not. Until the folder is flushed, a power cut can undo it. */
  bool replace(const AreaFile& file, const AreaFile& by) const;
};

enum class CopyState : uint8_t {
  kUnknown, /* the archive or the copy cannot be judged: `reason` */
  kNone,    /* neither an archive nor a good copy: the area was never saved */
  kBroken,  /* the archive is broken and there is no good copy: `reason` */
  kStale,   /* the archive is good; the copy is missing, broken or differs */
  kCurrent, /* the archive is good and the copy holds the same image */
  kCopyOnly /* the copy is good; the archive is missing or broken */
};

struct CopyReport {
  CopyState state;
  uint64_t archive_bytes; /* 0 without an archive */
  char reason[96];
};

/* Judges the archive and the kept copy of an area. False when the state is "not known". */
bool look_at_copy(const sc::AreaRow& area, int folder, CopyReport* report);

/* Makes the kept copy equal to a good archive. It is on the flash when this returns true. errno
 * tells why not; it is EBADMSG when the archive is not good or one of the two cannot be judged. */
bool renew_copy(const sc::AreaRow& area, int folder);

/* ---- the marker of a try; the caller holds the folder ---- */

/* The areas whose archives may hold what nobody confirmed, as bits by AreaId. The base of an area is
 * what `scguard restore` puts back: its kept copy, or that there is no archive. */
struct Marker {
  uint32_t areas;
  uint32_t never_saved; /* those whose base is that there is no archive */

  bool has(const sc::AreaRow& area) const { return (areas & bit(area)) != 0; }
  bool had_none(const sc::AreaRow& area) const { return (never_saved & bit(area)) != 0; }
  static uint32_t bit(const sc::AreaRow& area);
};

/* In the folder. The second becomes the first when it is on the flash. */
inline constexpr char kMarkerName[] = "try";
inline constexpr char kNewMarkerName[] = "try.new";

enum class MarkerState : uint8_t {
  kMissing,
  kThere,
  kBroken, /* a file that is not a whole marker */
  kUnknown /* errno tells why */
};

/* The marker is empty unless it is there. */
MarkerState read_marker(int folder, Marker* marker);
/* Replaces the marker as a whole. It is on the flash when this returns true; when it returns false,
 * the old one or the new one is there, and errno tells why. Areas that are never saved are left
 * out. */
bool write_marker(int folder, const Marker& marker);
/* The same for its removal. A marker that is missing is a success. */
bool remove_marker(int folder);

}  // namespace store

#endif
