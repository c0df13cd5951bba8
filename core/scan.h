/* The search loop for tables of hundreds of records. */
#ifndef CORE_SCAN_H
#define CORE_SCAN_H

#include <stddef.h>
#include <stdint.h>

namespace sc {

/* First word equal to `word`, `stride` bytes apart in [at, end), ignoring the bits of
 * `ignored_bits`, which are set in `word`; >= end if none. */
const uint8_t* find_word(const uint8_t* at, const uint8_t* end, size_t stride, uint32_t word,
                         uint32_t ignored_bits);

}  // namespace sc

#endif
