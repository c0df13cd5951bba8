/* Preloaded: the clocks of a process are ahead by the seconds in /var/later, an int64_t that a test
 * advances. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static int64_t later(void) {
  static const volatile int64_t* seconds;
  if (seconds == NULL) {
    const int file = open("/var/later", O_RDONLY | O_CLOEXEC);
    if (file < 0) return 0;
    seconds = mmap(NULL, sizeof *seconds, PROT_READ, MAP_SHARED, file, 0);
    close(file);
  }
  return *seconds;
}

int clock_gettime(clockid_t clock, struct timespec* to) {
  static int (*real)(clockid_t, struct timespec*);
  if (real == NULL) real = (int (*)(clockid_t, struct timespec*))dlsym(RTLD_NEXT, "clock_gettime");
  const int result = real(clock, to);
  if (result == 0) to->tv_sec += later();
  return result;
}

time_t time(time_t* to) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (to != NULL) *to = now.tv_sec;
  return now.tv_sec;
}
