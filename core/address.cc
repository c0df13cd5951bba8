/* Dotted text without the printf family: it is most of what a listing costs. */
#include "core/address.h"

#include <string.h>

#include <sysconfig/core.h>

#include "core/bytes.h"

namespace sc {

namespace {

/* The text of an octet, first letter in the low byte, and how many letters it has. Tens and
 * hundreds come by multiplication, exact for a byte: at -Os the compiler would divide. */
struct Octet {
  uint32_t text;
  uint32_t size;

  explicit Octet(uint32_t octet) {
    uint32_t tens = octet * 205 >> 11;
    text = octet - tens * 10 + '0';
    size = 1;
    if (tens == 0) return;
    uint32_t hundreds = tens * 205 >> 11;
    text = text << 8 | (tens - hundreds * 10 + '0');
    size = 2;
    if (hundreds == 0) return;
    text = text << 8 | (hundreds + '0');
    size = 3;
  }
};

/* The text of three octets and their dots, with zeroes behind it. */
struct Network {
  char text[16];
  uint32_t size = 0;

  explicit Network(uint32_t address) {
    for (int shift = 0; shift < 24; shift += 8) {
      Octet octet(address >> shift & 0xff);
      store(text + size, octet.text | uint32_t{'.'} << 8 * octet.size);
      size += octet.size + 1;
    }
    memset(text + size, 0, sizeof text - size);
  }
};

}  // namespace

/* Neighbours are mostly of one network, whose text is kept. */
void write_addresses(const uint8_t* const* addresses, size_t at, uint32_t count, uint8_t* to,
                     size_t step) {
  if (count == 0) return;
  uint32_t last = load<uint32_t>(*addresses + at);
  Network network(last);
  for (const uint8_t* const* end = addresses + count; addresses < end; ++addresses, to += step) {
    uint32_t address = load<uint32_t>(*addresses + at);
    if ((address ^ last) << 8 != 0) network = Network(address);
    last = address;
    store(to, load<uint64_t>(network.text));
    store(to + 8, load<uint64_t>(network.text + 8));
    store(to + network.size, Octet(address >> 24).text);
  }
}

}  // namespace sc

/* Required: appends to what dst holds. */
char* sc_inet_ntoa(uint32_t addr, char* dst) {
  const auto* address = reinterpret_cast<const uint8_t*>(&addr);
  char text[16];
  sc::write_addresses(&address, 0, 1, reinterpret_cast<uint8_t*>(text), 0);
  return strcat(dst, text);
}
