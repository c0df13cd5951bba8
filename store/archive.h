/* The one reader of archives: what scctl and scguard say of an archive is said here.
 *
 * An archive is good when its gzip data is whole and holds one file, in a format of tar that GNU tar and
 * BusyBox tar both unpack: an area's image, under its name and of its size, with the area's lock file
 * and lock indices in it. The library loads such an image whole.
 * What could not be looked at is not known. It is never taken for broken: whoever sets a file aside or
 * writes over it needs an answer, not a guess.
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

constexpr size_t kMostBehind = 64 * 1024; /* the image; tar fills up to 10 KiB with zeros */

struct Archive {
  Archive() { reason[0] = '\0'; }
  ~Archive();
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  State state = State::kUnknown;
  char reason[96]; /* why it is not good, in words */
  /* Of a good one, and of one that is broken only for what its image says: the image, from malloc, to
   * be nulled by who keeps it, and whose it is. */
  const sc::AreaRow* area = nullptr;
  uint8_t* image = nullptr;

  /* Sets state and reason, of one without an image. True when it is good. */
  bool is(State what, const char* why);
  /* Not known: what failed, and errno. */
  bool cannot(const char* what);
};

/* Opens an archive to be judged: a descriptor, or -1 and what is known without one. Waits for nobody
 * who would write into a pipe. Flags are none or O_NOFOLLOW. */
int open_archive(int folder, const char* name, int flags, Archive* archive);

/* Judges the whole file of a descriptor, which stays open. It has to be this area's archive; null: any
 * area's. True when it is good. */
bool judge(int file, const sc::AreaRow* area, Archive* archive);

/* Judges what gzip makes of an archive: a descriptor that is read up to its end, or up to where the
 * verdict is clear. */
bool judge_tar(int stream, const sc::AreaRow* area, Archive* archive);

}  // namespace store

#endif
