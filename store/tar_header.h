/* The header of a member of a tar archive. The v7 format uses its first 257 bytes; ustar, GNU and
 * pax use all of them.
 */
#ifndef STORE_TAR_HEADER_H
#define STORE_TAR_HEADER_H

#include <stddef.h>
#include <stdint.h>

namespace store {

struct TarHeader {
  char name[100];
  char mode[8];
  char uid[8];
  char gid[8];
  char size[12];
  char mtime[12];
  char checksum[8];
  char type;
  char linked_to[100];
  char magic[8]; /* and version */
  char user[32];
  char group[32];
  char device_major[8];
  char device_minor[8];
  char prefix[155]; /* of the name */
  char spare[12];
};
static_assert(sizeof(TarHeader) == 512);

}  // namespace store

#endif
