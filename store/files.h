/* Descriptors, and whole reads and writes. */
#ifndef STORE_FILES_H
#define STORE_FILES_H

#include <stddef.h>
#include <unistd.h>

#include "store/say.h"

namespace store {

/* A descriptor that is closed at the end of its scope. */
struct Descriptor {
  explicit Descriptor(int opened) : number(opened) {}
  ~Descriptor() {
    if (number >= 0) close(number);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  explicit operator bool() const { return number >= 0; }

  int number;
};

/* Writes all of it, in spite of signals. errno tells why not. */
bool write_all(int file, const void* bytes, size_t size);
/* Adds a whole file. errno tells why not. */
bool read_file(int file, Text* to);

}  // namespace store

#endif
