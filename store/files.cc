#include "store/files.h"

#include <errno.h>

namespace store {

bool write_all(int file, const void* bytes, size_t size) {
  const auto* at = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t done = write(file, at, size);
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return false;
    at += done;
    size -= static_cast<size_t>(done);
  }
  return true;
}

bool read_file(int file, Text* to) {
  char bytes[4096];
  ssize_t size;
  for (off_t at = 0; (size = pread(file, bytes, sizeof bytes, at)) > 0; at += size) {
    to->add(bytes, static_cast<size_t>(size));
  }
  return size == 0;
}

}  // namespace store
