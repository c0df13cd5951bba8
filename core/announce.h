/* The change notification: an area's code, sent to the configuration daemon. */
#ifndef CORE_ANNOUNCE_H
#define CORE_ANNOUNCE_H

#include <stdint.h>

namespace sc {

/* Sends the 4 bytes of the code on a new connection to "/var/config_socket". No reply, no retry;
 * errors are printed by perror. */
void announce(int32_t code);

}  // namespace sc

#endif
