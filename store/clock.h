/* Time: pauses, the time since boot, times as text. */
#ifndef STORE_CLOCK_H
#define STORE_CLOCK_H

#include "store/say.h"

namespace store {

/* A signal ends it early. */
void pause_ms(uint32_t ms);
/* Patience with what others hold; the first pause begins it. By the clock: a pause of a millisecond
 * lasts ten and more where timers are coarse. */
class Wait {
 public:
  explicit Wait(uint32_t ms) : ms_(ms) {}
  /* Pauses for a millisecond. False, without a pause, when the time is over. */
  bool pause();

 private:
  uint32_t ms_;
  uint64_t end_ = 0;
};
/* Milliseconds since boot, suspended time included. Setting the clock has no effect. */
uint64_t boot_ms();
/* "2026-01-02 03:04:05", or ISO 8601 in UTC. */
void add_time(int64_t seconds, bool json, Text* to);

}  // namespace store

#endif
