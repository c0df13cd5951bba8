/* Checkpoints: copies of areas under a name, all of one moment where that was possible.
 *
 * A checkpoint is a folder. It holds config_<stem>.cfg.gz, the packed image, of each area, and a
 * manifest, a text: when it was made and by whom, and size and sum of each image. The last line is
 * the sum of the lines above it. A folder gets the checkpoint's name when all of it is on flash.
 * Names that begin with a dot are those of unfinished folders.
 */
#ifndef STORE_CHECKPOINT_H
#define STORE_CHECKPOINT_H

#include <stddef.h>
#include <stdint.h>

#include "store/catalogue.h"
#include "store/files.h"

namespace store {

inline constexpr char kCheckpoints[] = "/var/dataconfig/checkpoints";
inline constexpr char kManifest[] = "manifest";
inline constexpr char kManifestStart[] = "scctl checkpoint 1\ntime %s\nwho %s\ncopied %s\n";
inline constexpr char kManifestArea[] = "%s %zu %016llx\n";
inline constexpr char kManifestEnd[] = "sum %016llx\n";
inline constexpr char kOneMoment[] = "in one moment";
inline constexpr char kOneByOne[] = "area by area";
constexpr size_t kMostManifest = 2048;

/* 1 to 31 of A-Z a-z 0-9 . _ - without a dot in front. */
bool is_checkpoint_name(const char* name);
/* Prints that the checkpoint does not exist, with the nearest name, or returns kOk. */
int need_checkpoint(const char* name);

struct CheckpointPath {
  char text[sizeof kCheckpoints + 32];
};
CheckpointPath checkpoint_path(const char* name);

/* The file of an area's image. */
struct ImageName {
  char text[40];
};
ImageName image_name(const Area& area);

/* FNV-1a of 64 bits. It needs no table and one multiplication for each byte. gzip checks the same
 * bytes by a CRC; a fault that the CRC misses is hardly missed by another kind of sum. */
unsigned long long sum_of(const void* bytes, size_t size);

/* Copies the pages that differ, so that pages of zeros which were never written take no memory. True
 * when any differed. */
bool copy_pages(uint8_t* to, const uint8_t* from, size_t size);

class Checkpoint {
 public:
  Checkpoint() = default;
  ~Checkpoint();
  Checkpoint(const Checkpoint&) = delete;
  Checkpoint& operator=(const Checkpoint&) = delete;

  /* Reads and verifies all of it. False when it is not good; `fault` then tells why, and what could
   * not be read stays as it was. */
  bool read(const char* name);
  /* An image of zeros. Null when there is no memory. */
  uint8_t* add_area(const Area& area);
  /* The same for a name that was typed. Prints what is wrong and returns a status. */
  int open(const char* name);

  char time[24] = "";
  char who[64] = "";
  char copied[24] = "";   /* kOneMoment or kOneByOne */
  unsigned long size = 0; /* of its files */
  char fault[96] = "";
  uint8_t* images[kAreaCount] = {}; /* null: the area is not in it */

 private:
  bool is(const char* what, const char* file);
  void add_size(int folder, const char* name);
  bool read_manifest(int folder, char* text);
  bool read_image(int folder, const Area& area, size_t size, unsigned long long sum);
};

}  // namespace store

#endif
