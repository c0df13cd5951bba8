/* Copies of text fields: all their bytes, those behind the terminator, too. */
#ifndef CORE_TEXT_H
#define CORE_TEXT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "core/bytes.h"

namespace sc {

/* Texts are moved by halves of what a short one has where the CPU has registers for them. */
constexpr size_t kHalf = 16;
constexpr bool kHasHalves = sizeof(void*) == 8;
using Half = uint64_t __attribute__((vector_size(kHalf)));

/* 16 to 32 bytes, as two halves that overlap. */
inline void copy_short_text(void* to, const void* from, size_t size) {
  if constexpr (kHasHalves) {
    const size_t second_at = size - kHalf;
    const auto first = load<Half>(from);
    const auto second = load<Half>(static_cast<const uint8_t*>(from) + second_at);
    store(to, first);
    store(static_cast<uint8_t*>(to) + second_at, second);
  } else {
    memcpy(to, from, size);
  }
}

/* More than 32 bytes, over zeroes. Most of a text is the zeroes behind it: it takes half the time to
 * look at them and write nothing. */
template <size_t kSize>
inline void copy_over_zeroes(char (&to)[kSize], const char (&from)[kSize]) {
  constexpr size_t start = kHasHalves ? 2 * kHalf : 0;
  if constexpr (kHasHalves) {
    copy_short_text(to, from, start);
    auto rest = load<Half>(from + kSize - kHalf);
#pragma GCC unroll 16
    for (size_t at = start; at < kSize - kHalf; at += kHalf) rest |= load<Half>(from + at);
    if ((rest[0] | rest[1]) == 0) return;
  }
  memcpy(to + start, from + start, kSize - start);
}

}  // namespace sc

#endif
