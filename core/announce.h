/* The change notification: an area's code, told to the configuration daemon. */
#ifndef CORE_ANNOUNCE_H
#define CORE_ANNOUNCE_H

#include <stdint.h>

namespace sc {

/* Sends the 4 bytes of the code on a fresh connection to "/var/config_socket". No reply, no retry;
 * errors are told by perror. */
void announce(int32_t code);

}  // namespace sc

#endif
