/* The one reader of archives: scctl and scguard take their verdict on an archive from here.
 *
 * An archive is good when its gzip data is complete and holds exactly one file, in a tar format
 * that GNU tar and BusyBox tar both unpack. The file has to be an area's image, with the right name
 * and size, and with the area's lock file and lock indices in it. The library loads such an image
 * completely.
 *
 * An archive that could not be read is "not known", never "broken": a caller that moves or
 * overwrites a file on this verdict needs an answer, not a guess.
 */
#ifndef STORE_ARCHIVE_H
#define STORE_ARCHIVE_H

#include <stddef.h>
#include <stdint.h>

#include "core/area.h"

namespace store {

enum class State : uint8_t {
  kUnknown, /* no descriptor, no memory, no gzip, no regular file, ... */
  kMissing,
  kBroken,
  kGood
};

constexpr size_t kMostBehind = 64 * 1024; /* after the image; tar fills up to 10 KiB with zeros */

struct Archive {
  Archive() { reason[0] = '\0'; }
  ~Archive();
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  State state = State::kUnknown;
  char reason[96]; /* why the archive is not good */
  /* The image, from malloc, and its area. Set for a good archive, and for one that is broken only
   * because of the image's contents. A caller that keeps the image sets `image` to null. */
  const sc::AreaRow* area = nullptr;
  uint8_t* image = nullptr;

  /* Sets state and reason of an archive without an image. True when it is good. */
  bool is(State what, const char* why);
  /* Sets the state to "not known"; the reason is what failed, and errno. */
  bool cannot(const char* what);
};

/* Opens an archive to be judged. Returns a descriptor, or -1 with the verdict in `archive`. Does
 * not block on a pipe without a writer. Flags are 0 or O_NOFOLLOW. */
int open_archive(int folder, const char* name, int flags, Archive* archive);

/* Judges the whole file of a descriptor, which stays open. It has to be the archive of this area,
 * or of any area for null. True when it is good. */
bool judge(int file, const sc::AreaRow* area, Archive* archive);

/* Judges the data that gzip unpacks from an archive. The descriptor is read up to its end, or until
 * the verdict is clear. */
bool judge_tar(int stream, const sc::AreaRow* area, Archive* archive);

}  // namespace store

#endif
