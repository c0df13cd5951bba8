/* The seventeen areas as callable rows: each one's exported functions, with blocks as plain
 * addresses, so that one test body serves them all. Facts about an area come from
 * golden/areas.csv. */
#ifndef SUPPORT_AREAS_H
#define SUPPORT_AREAS_H

#include <stdint.h>

#include <string>
#include <vector>

namespace sc_test {

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

/* The attached address that get() returned. */
template <class Block = uint8_t>
Block* block_at(uint32_t address) {
  return reinterpret_cast<Block*>(static_cast<uintptr_t>(address));
}

}  // namespace sc_test

#endif
