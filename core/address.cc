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

}  // namespace

void AddressText::write(uint32_t address, char* to) {
  const uint32_t network = address & 0xffffff;
  if (size_ == 0 || network != network_) {
    network_ = network;
    size_ = 0;
    for (int shift = 0; shift < 24; shift += 8) {
      Octet octet(network >> shift & 0xff);
      store(text_ + size_, octet.text | uint32_t{'.'} << 8 * octet.size);
      size_ += octet.size + 1;
    }
    memset(text_ + size_, 0, sizeof text_ - size_);
  }
  store(to, load<uint64_t>(text_));
  store(to + 8, load<uint64_t>(text_ + 8));
  store(to + size_, Octet(address >> 24).text);
}

}  // namespace sc

/* Required: appends to what dst holds. */
char* sc_inet_ntoa(uint32_t addr, char* dst) {
  char text[16];
  sc::AddressText().write(addr, text);
  return strcat(dst, text);
}
