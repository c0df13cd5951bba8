/* Dotted text of IPv4 addresses, without the printf family. */
#ifndef CORE_ADDRESS_H
#define CORE_ADDRESS_H

#include <stddef.h>
#include <stdint.h>

#include "core/bytes.h"
#include "core/text.h"

namespace sc {

/* An octet as text, followed by the character `end`; the first letter is in the low byte. Tens and
 * hundreds are computed by multiplication, which is exact for a byte: at -Os the compiler would
 * divide. */
[[gnu::always_inline]] inline uint32_t octet_text(uint32_t octet, char end) {
  const uint32_t tens = octet * 205 >> 11;
  const uint32_t hundreds = octet * 41 >> 12;
  /* From the high byte on: ones, tens minus ten times the hundreds, hundreds. */
  const uint32_t digits =
      (octet << 16) - tens * ((10 << 16) - (1 << 8)) - hundreds * (10 * 256 - 1);
  const int leading_zeroes = __builtin_ctz(digits | 1 << 16) & ~7;
  return (digits + (0x303030 | static_cast<uint32_t>(end) << 24)) >> leading_zeroes;
}

/* Writes addresses one after the other. Neighbours are mostly in one network, so the network's text
 * is kept and only the last octet's text is made. */
class AddressWriter {
 public:
  /* Writes the text of an address (as inet_addr returns it): 16 bytes, filled up with zeroes. */
  [[gnu::always_inline]] void write(uint32_t address, void* to) {
    if ((address ^ last_) << 8 != 0) change_network(address);
    auto* text = static_cast<uint8_t*>(to);
    copy_short_text(text, network_, sizeof network_);
    store(text + size_, octet_text(address >> 24, '\0'));
  }

 private:
  void change_network(uint32_t address);

  uint32_t last_ = 0; /* an address of the network */
  uint32_t size_ = 6;
  uint64_t network_[2] = {0x2e302e302e30, 0}; /* its text of this size: "0.0.0." */
};

/* The same for records: the n-th address lies at records[n] + at, and its text goes to `to` + n *
 * step. `count` is at least 1. */
void write_addresses(const uint8_t* const* records, size_t at, uint32_t count, uint8_t* to,
                     size_t step);

}  // namespace sc

#endif
