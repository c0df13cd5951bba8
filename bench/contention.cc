/* Several processes change the bindings of one table at the same time, each record again and again.
 * usage: contention STORE PROCESSES SECONDS; prints changes a second and the longest wait in us. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "data.h"
#include "store.h"

using namespace bench;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::duration;

constexpr int kMostProcesses = 64;

/* The data that the processes share. */
struct Meeting {
  std::atomic<int> ready;
  std::atomic<bool> started, ended;
  struct Result {
    long changes;
    double worst_wait;
  } results[kMostProcesses];
};

const StoreKind& kind_of(const char* name) {
  for (const StoreKind* kind : {&kSysconfig, &kLmdb, &kLmdbInPlace, &kSqlite}) {
    if (strcmp(kind->name, name) == 0) return *kind;
  }
  must(false, "there is no such store");
  abort();
}

[[noreturn]] void write_until_the_end(const StoreKind& kind, int number, Meeting* meeting) {
  const auto store = kind.open();
  DhcpStaticItem items[SC_DHCP_BINDS];
  for (uint32_t n = 0; n < SC_DHCP_BINDS; ++n) store->read(n + 1, &items[n]);
  ++meeting->ready;
  while (!meeting->started) usleep(1000);

  Meeting::Result result = {};
  for (int at = number; !meeting->ended; at += 7) {
    const auto begin = Clock::now();
    store->change(items[at % SC_DHCP_BINDS]);
    const double wait = duration<double>(Clock::now() - begin).count();
    result.worst_wait = std::max(result.worst_wait, wait);
    ++result.changes;
  }
  meeting->results[number] = result;
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  must(argc == 4, "usage: contention STORE PROCESSES SECONDS");
  const StoreKind& kind = kind_of(argv[1]);
  const int processes = atoi(argv[2]);
  must(processes >= 1 && processes <= kMostProcesses, "1 to 64 processes");
  kind.fill();

  void* shared =
      mmap(nullptr, sizeof(Meeting), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  must(shared != MAP_FAILED, "no memory to meet in");
  auto* meeting = new (shared) Meeting();
  for (int number = 0; number < processes; ++number) {
    const pid_t child = fork();
    must(child >= 0, "no process");
    if (child == 0) write_until_the_end(kind, number, meeting);
  }
  while (meeting->ready < processes) usleep(1000);
  const auto begin = Clock::now();
  meeting->started = true;
  usleep(static_cast<useconds_t>(1e6 * atof(argv[3])));
  meeting->ended = true;
  const double seconds = duration<double>(Clock::now() - begin).count();
  for (int number = 0; number < processes; ++number) {
    int status;
    must(wait(&status) > 0 && status == 0, "a process failed");
  }

  long changes = 0;
  double worst_wait = 0;
  for (int number = 0; number < processes; ++number) {
    changes += meeting->results[number].changes;
    worst_wait = std::max(worst_wait, meeting->results[number].worst_wait);
  }
  printf("%s %d %.0f %.1f\n", kind.name, processes, changes / seconds, 1e6 * worst_wait);
  return 0;
}
