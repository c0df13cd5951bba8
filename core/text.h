/* Copies of text fields: all bytes, also those behind the terminator. */
#ifndef CORE_TEXT_H
#define CORE_TEXT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "core/bytes.h"

namespace sc {

/* Texts are copied 16 bytes at a time if the CPU has registers of that size. */
using Vec16 = uint64_t __attribute__((vector_size(16)));
constexpr bool kHasVec16 = sizeof(void*) == 8;

/* Copies 16 to 32 bytes as two vectors, which may overlap. */
inline void copy_short_text(void* to, const void* from, size_t size) {
  if constexpr (kHasVec16) {
    const size_t second_at = size - sizeof(Vec16);
    const auto first = load<Vec16>(from);
    const auto second = load<Vec16>(static_cast<const uint8_t*>(from) + second_at);
    store(to, first);
    store(static_cast<uint8_t*>(to) + second_at, second);
  } else {
    memcpy(to, from, size);
  }
}

/* Copies more than 32 bytes over zeroes. Most of a text's field is zeroes behind the text: testing
 * them and writing nothing takes half the time. */
template <size_t kSize>
inline void copy_over_zeroes(uint8_t* to, const uint8_t* from) {
  constexpr size_t start = kHasVec16 ? 2 * sizeof(Vec16) : 0;
  if constexpr (kHasVec16) {
    copy_short_text(to, from, start);
    auto rest = load<Vec16>(from + kSize - sizeof(Vec16));
#pragma GCC unroll 16
    for (size_t at = start; at < kSize - sizeof(Vec16); at += sizeof(Vec16))
      rest |= load<Vec16>(from + at);
    if ((rest[0] | rest[1]) == 0) return;
  }
  memcpy(to + start, from + start, kSize - start);
}

}  // namespace sc

#endif
