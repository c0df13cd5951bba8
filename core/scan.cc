#include "core/scan.h"

#include "core/bytes.h"

namespace sc {

/* Compares four words in each turn, because the loop's own steps take as long as one comparison. */
const uint8_t* find_word(const uint8_t* at, const uint8_t* end, size_t stride, uint32_t word,
                         uint32_t ignored_bits) {
  const auto is_there = [=](const uint8_t* here) {
    return (load<uint32_t>(here) | ignored_bits) == word;
  };
  for (; at + 3 * stride < end; at += 4 * stride) {
    if (is_there(at) || is_there(at + stride) || is_there(at + 2 * stride) ||
        is_there(at + 3 * stride)) {
      break;
    }
  }
  while (at < end && !is_there(at)) at += stride;
  return at;
}

}  // namespace sc
