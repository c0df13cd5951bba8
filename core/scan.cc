#include "core/scan.h"

#include "core/bytes.h"

namespace sc {

/* Aligned, as a loop that lies in two cache lines takes twice the time. */
__attribute__((aligned(32))) const uint8_t* find_word(const uint8_t* at, const uint8_t* end,
                                                      size_t stride, uint32_t word) {
  do {
    if (load<uint32_t>(at) == word) break;
    at += stride;
  } while (at < end);
  return at;
}

}  // namespace sc
