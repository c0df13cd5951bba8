#include "store/clock.h"

#include <time.h>

namespace store {

void pause_ms(uint32_t ms) {
  const timespec pause = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000)};
  nanosleep(&pause, nullptr);
}

bool Wait::pause() {
  const uint64_t now = boot_ms();
  if (end_ == 0) end_ = now + ms_;
  if (now >= end_) return false;
  pause_ms(1);
  return true;
}

/* The division has 32 bits: this CPU has no instruction for 64. */
uint64_t boot_ms() {
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint32_t>(now.tv_nsec) / 1000000;
}

void add_time(int64_t seconds, bool json, Text* to) {
  const auto time = static_cast<time_t>(seconds);
  tm parts;
  char text[32];
  const size_t size =
      json ? strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&time, &parts))
           : strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime_r(&time, &parts));
  to->add(text, size);
}

}  // namespace store
