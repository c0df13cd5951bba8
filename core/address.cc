/* Dotted text without the printf family: it is most of what a listing costs. */
#include "core/address.h"

#include <string.h>

#include <sysconfig/core.h>

#include "core/bytes.h"

namespace sc {

namespace {

/* An octet as text with an end behind it, first letter in the low byte. Tens and hundreds come by
 * multiplication, exact for a byte: at -Os the compiler would divide. */
[[gnu::always_inline]] inline uint32_t text_of(uint32_t octet, char end) {
  const uint32_t tens = octet * 205 >> 11;
  const uint32_t hundreds = octet * 41 >> 12;
  /* From the high byte on: ones, tens less ten times the hundreds, hundreds. */
  const uint32_t digits =
      (octet << 16) - tens * ((10 << 16) - (1 << 8)) - hundreds * (10 * 256 - 1);
  const int leading_zeroes = __builtin_ctz(digits | 1 << 16) & ~7;
  return (digits + (0x303030 | static_cast<uint32_t>(end) << 24)) >> leading_zeroes;
}

}  // namespace

/* Neighbours are mostly of one network: its text is copied from the first of them, and the last
 * octet covers the other's. */
void write_addresses(const uint8_t* const* addresses, size_t at, uint32_t count, uint8_t* to,
                     size_t step) {
  const uint8_t* first = to;
  uint32_t size = 0; /* of the network */
  uint32_t last = ~load<uint32_t>(*addresses + at);
  do {
    const uint32_t address = load<uint32_t>(*addresses++ + at);
    if ((address ^ last) << 8 == 0) {
      store(to, load<uint64_t>(first));
      store(to + 8, load<uint64_t>(first + 8));
    } else {
      first = to;
      size = 0;
      for (int shift = 0; shift < 24; shift += 8) {
        const uint32_t text = text_of(address >> shift & 0xff, '.');
        store(to + size, text);
        size += 4 - static_cast<uint32_t>(__builtin_clz(text)) / 8;
      }
    }
    last = address;
    store(to + size, text_of(address >> 24, '\0'));
    to += step;
  } while (--count != 0);
}

}  // namespace sc

/* Required: appends to what dst holds. */
char* sc_inet_ntoa(uint32_t addr, char* dst) {
  const auto* address = reinterpret_cast<const uint8_t*>(&addr);
  char text[16] = {};
  sc::write_addresses(&address, 0, 1, reinterpret_cast<uint8_t*>(text), 0);
  return strcat(dst, text);
}
