/* The output of gzip. */
#ifndef STORE_STREAM_H
#define STORE_STREAM_H

#include <errno.h>
#include <stddef.h>
#include <unistd.h>

namespace store {

constexpr char kNoGzip[] = "gzip could not be run";

struct Stream {
  int file;
  int error = 0; /* errno of a failed read; nothing is read after it */

  /* Reads `size` bytes, or fewer at the end of the stream. */
  size_t take(void* to, size_t size) {
    size_t done = 0;
    while (done < size && error == 0) {
      const ssize_t got = read(file, static_cast<char*>(to) + done, size - done);
      if (got == 0) break;
      if (got > 0)
        done += static_cast<size_t>(got);
      else if (errno != EINTR)
        error = errno;
    }
    return done;
  }
};

}  // namespace store

#endif
