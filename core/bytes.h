/* Unaligned loads and stores. Words of a block may lie at any byte. So they are accessed through
 * packed structs of one member: the compiler turns these into lwl/lwr on MIPS, where memcpy would
 * become a call.
 */
#ifndef CORE_BYTES_H
#define CORE_BYTES_H

#include <stdint.h>

namespace sc {

template <class T>
struct Unaligned {
  T value;
} __attribute__((packed, may_alias));

template <class T>
inline T load(const void* at) {
  return static_cast<const Unaligned<T>*>(at)->value;
}

template <class T>
inline void store(void* at, T value) {
  static_cast<Unaligned<T>*>(at)->value = value;
}

}  // namespace sc

#endif
