/* The loop of the searches through hundreds of records. */
#ifndef CORE_SCAN_H
#define CORE_SCAN_H

#include <stddef.h>
#include <stdint.h>

namespace sc {

/* The first of the words that lie `stride` apart, from `at` to before `end`, that is this one where
 * `ignored_bits` has no bits; where it has, the word has them, too. `end` or behind it when there is none. */
const uint8_t* find_word(const uint8_t* at, const uint8_t* end, size_t stride, uint32_t word,
                         uint32_t ignored_bits);

}  // namespace sc

#endif
