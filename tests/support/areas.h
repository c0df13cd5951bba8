/* The seventeen areas: the functions of each, and the facts about each from golden/areas.csv. With
 * these, one test body serves all areas. */
#ifndef SUPPORT_AREAS_H
#define SUPPORT_AREAS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "support/image.h"

namespace sc_test {

/* An area's exported functions, with blocks as plain addresses. */
struct AreaCalls {
  const char* name;
  uint32_t (*get)();
  int (*uninit)();
  int (*init)(int read_flag); /* the AP users' has no flag */
  /* Null for the AP users. */
  int (*read)(void* block);
  void (*save)();
  void (*save_to_flash)(void* block);
};

/* In directory order. */
const std::vector<AreaCalls>& all_areas();
const AreaCalls& area(const std::string& name);

/* Equally spaced words: {offset of the first, stride, count}, and the value of the first one, if
 * any. */
struct Span {
  size_t offset, stride, count;
  uint32_t first;
};

struct AreaFacts {
  std::string name;
  int key;
  size_t size;
  int32_t code; /* 0: none */
  std::string lock_path, image_path, archive_path;
  std::vector<std::string> post_flash;
  size_t path_at, index_at; /* of the header */
  std::vector<Span> locks, free_marks, zeroed_by_read;

  /* The contents after an Init without Read: zeroes and the free marks. */
  Image emptied() const;
  /* Writes the lock index of each record and section into a block. */
  void number_locks(void* block) const;
  /* Writes into the image what Read writes before it looks for an archive. */
  void number(Image& image) const;
};

/* In directory order. */
const std::vector<AreaFacts>& golden_areas();
const AreaFacts& golden_area(const std::string& name);

/* The path of an area's lock file. */
const std::string& lock_file(const std::string& area);

/* Names for parametrised tests: all areas, or those that have files (all but the AP users). */
std::vector<std::string> area_names();
std::vector<std::string> saved_area_names();

/* The attached address that get() returned. */
template <class Block = uint8_t>
Block* block_at(uint32_t address) {
  return reinterpret_cast<Block*>(static_cast<uintptr_t>(address));
}

}  // namespace sc_test

#endif
