/* What the emulated router knows about its own tries: marks on the console, sums of its areas, and
 * the moments at which an area comes back.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <sysconfig/layout.h>

struct Area {
  const uint8_t* bytes;
  size_t size;
};

static struct Area attach(int key) {
  struct shmid_ds status;
  const int id = shmget(key, 0, 0);
  void* bytes = id < 0 ? (void*)-1 : shmat(id, NULL, SHM_RDONLY);
  if (bytes == (void*)-1 || shmctl(id, IPC_STAT, &status) != 0) {
    fprintf(stderr, "tries: there is no area with key %d\n", key);
    exit(1);
  }
  return (struct Area){bytes, status.shm_segsz};
}

/* Returns when the line is on the wire: the host may cut the power any time. */
static void say(const char* what) {
  printf("now %s\n", what);
  fflush(stdout);
  tcdrain(STDOUT_FILENO);
}

static uint32_t sum_of(struct Area area) {
  const uint32_t* words = (const uint32_t*)(const void*)area.bytes;
  uint32_t sum = 2166136261u;
  for (size_t i = 0; i < area.size / sizeof *words; i++) sum = (sum ^ words[i]) * 16777619u;
  return sum;
}

/* Of all bytes of each area that can be saved. */
static void print_sums(void) {
  printf("sums");
  for (int key = SC_KEY_LAN; key <= SC_KEY_CLIENTS; key++) {
    if (key != SC_KEY_AP_USER_LIST) printf(" %08x", (unsigned)sum_of(attach(key)));
  }
  putchar('\n');
}

/* ---- how long a try lasts ---- */

static double now(void) {
  struct timespec time;
  clock_gettime(CLOCK_BOOTTIME, &time);
  return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static void set_clock(int years) {
  struct timespec time;
  clock_gettime(CLOCK_REALTIME, &time);
  time.tv_sec += (time_t)years * 365 * 24 * 3600;
  if (clock_settime(CLOCK_REALTIME, &time) != 0) perror("tries: clock_settime");
}

static void* copy_of(struct Area area) {
  void* copy = malloc(area.size);
  if (copy == NULL) exit(1);
  return memcpy(copy, area.bytes, area.size);
}

static int run_command(char** words) {
  const pid_t child = fork();
  if (child == 0) {
    execvp(words[0], words);
    _exit(127);
  }
  int status = 1;
  waitpid(child, &status, 0);
  return status;
}

/* Runs a command that begins a try of so many seconds in one area. Then sets the clock by so many
 * years, and prints when the area begins to go back, when it is as before, and when the try is over:
 * seconds since the deadline. The deadline is counted from the begin of the command, which is before
 * scctl counts it. */
static int measure(int key, int seconds, int years, char** words) {
  const struct Area area = attach(key);
  const void* before = copy_of(area);
  const double deadline = now() + seconds;
  if (run_command(words) != 0) return 1;
  const void* tried = copy_of(area);
  if (memcmp(before, tried, area.size) == 0) {
    fprintf(stderr, "tries: the command changes nothing\n");
    return 1;
  }
  const double made = now();
  set_clock(years);
  /* Looks without a pause, in time that no other process wants. A router that counts its time by
   * instructions takes long for pauses. */
  if (nice(19) == -1) perror("tries: nice");
  double begins = 0, is_back = 0;
  while (now() < deadline + 5 && access("/var/systemconfig/scctl/try", F_OK) == 0) {
    if (begins == 0 && memcmp(area.bytes, tried, area.size) != 0) begins = now();
    if (begins != 0 && is_back == 0 && memcmp(area.bytes, before, area.size) == 0) is_back = now();
  }
  const double over = now();
  if (is_back == 0 && memcmp(area.bytes, before, area.size) == 0) is_back = over;
  printf("made %.2f begins %.2f back %.2f over %.2f\n", made - deadline, begins - deadline,
         is_back - deadline, over - deadline);
  return 0;
}

int main(int argc, char** argv) {
  const char* command = argc > 1 ? argv[1] : "";
  if (argc == 3 && strcmp(command, "say") == 0) {
    say(argv[2]);
    return 0;
  }
  if (argc == 2 && strcmp(command, "sums") == 0) {
    print_sums();
    return 0;
  }
  if (argc > 5 && strcmp(command, "time") == 0) {
    return measure(atoi(argv[2]), atoi(argv[3]), atoi(argv[4]), argv + 5);
  }
  fprintf(
      stderr,
      "usage: tries say WORD                           print it at once\n"
      "       tries sums                               print a sum of each saved area\n"
      "       tries time KEY SECONDS YEARS COMMAND...  begin a try in an area, set the clock by\n"
      "                                                so many years, and print when it ends\n");
  return 2;
}
