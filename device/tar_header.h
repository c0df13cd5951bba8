/* The header in front of the one file of an area's archive, as tar writes it. */
#ifndef DEVICE_TAR_HEADER_H
#define DEVICE_TAR_HEADER_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

struct TarHeader {
  char name[100];
  char mode_uid_gid[24];
  char size[12];
  char mtime[12];
  char checksum[8];
  char type;
  char rest[355];
};
static_assert(sizeof(TarHeader) == 512);

/* Whether the header is whole: its bytes add up, the checksum's own taken for blanks. */
inline bool checksum_fits(const TarHeader& header) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&header);
  unsigned long sum = sizeof header.checksum * ' ';
  for (size_t i = 0; i < sizeof header; ++i) {
    const bool own = i >= offsetof(TarHeader, checksum) && i < offsetof(TarHeader, type);
    if (!own) sum += bytes[i];
  }
  return strtoul(header.checksum, nullptr, 8) == sum;
}

#endif
