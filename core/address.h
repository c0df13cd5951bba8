/* Dotted text of IPv4 addresses. */
#ifndef CORE_ADDRESS_H
#define CORE_ADDRESS_H

#include <stddef.h>
#include <stdint.h>

namespace sc {

/* Writes the text of each of `count` addresses, at least one: 16 bytes with zeroes behind it. The
 * n-th address, as inet_addr returns it, lies at addresses[n] + at; its text goes to `to`, `step`
 * bytes behind the one before. */
void write_addresses(const uint8_t* const* addresses, size_t at, uint32_t count, uint8_t* to,
                     size_t step);

}  // namespace sc

#endif
