/* Dotted text of IPv4 addresses, as inet_addr returns them. */
#ifndef CORE_ADDRESS_H
#define CORE_ADDRESS_H

#include <stdint.h>

namespace sc {

/* Writes the texts of addresses, one after the other. It keeps the text of the first three octets,
 * which neighbours of one network share: a listing then formats little more than the last one. */
class AddressText {
 public:
  /* Writes 16 bytes: the text and zeroes behind it. */
  void write(uint32_t address, char* to);

 private:
  uint32_t network_ = 0;
  uint32_t size_ = 0; /* of the network's text; 0: none yet */
  char text_[16];
};

}  // namespace sc

#endif
