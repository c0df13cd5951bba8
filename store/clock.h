/* Time: pauses, the time since boot, times as text. */
#ifndef STORE_CLOCK_H
#define STORE_CLOCK_H

#include "store/say.h"

namespace store {

/* A signal ends it early. */
void pause_ms(uint32_t ms);
/* Milliseconds since boot, suspended time included. Setting the clock has no effect. */
uint64_t boot_ms();
/* "2026-01-02 03:04:05", or ISO 8601 in UTC. */
void add_time(int64_t seconds, bool json, Text* to);

}  // namespace store

#endif
