#include "core/address.h"

#include <string.h>

#include <sysconfig/core.h>

namespace sc {

void AddressWriter::change_network(uint32_t address) {
  last_ = address;
  size_ = 0;
  network_[1] = 0; /* the first half is filled whole by any three octets */
  for (int shift = 0; shift < 24; shift += 8) {
    const uint32_t octet = octet_text(address >> shift & 0xff, '.');
    store(reinterpret_cast<uint8_t*>(network_) + size_, octet);
    size_ += 4 - static_cast<uint32_t>(__builtin_clz(octet)) / 8;
  }
}

void write_addresses(const uint8_t* const* records, size_t at, uint32_t count, uint8_t* to,
                     size_t step) {
  AddressWriter addresses;
  do {
    addresses.write(load<uint32_t>(*records++ + at), to);
    to += step;
  } while (--count != 0);
}

}  // namespace sc

/* Required: appends to what dst holds. */
char* sc_inet_ntoa(uint32_t addr, char* dst) {
  const auto* record = reinterpret_cast<const uint8_t*>(&addr);
  char text[SC_IP_TEXT];
  sc::write_addresses(&record, 0, 1, reinterpret_cast<uint8_t*>(text), 0);
  return strcat(dst, text);
}
