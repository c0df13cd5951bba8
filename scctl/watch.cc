/* watch: prints each change of the live store, field by field.
 *
 * It hears of changes by the notification socket when nobody else has it; otherwise, and for what
 * is not announced, it looks once a second. Connections are taken at once and never answered, so no
 * sender waits.
 */
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "commands.h"

namespace scctl {

namespace {

constexpr sockaddr_un kSocket = {AF_UNIX, "/var/config_socket"};
constexpr int kBacklog = 128;
constexpr int kPauseMs = 1000;

/* Those that are ignored stay so, as under nohup. */
constexpr int kEnding[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

volatile sig_atomic_t g_ended;

void end(int) { g_ended = 1; }

/* The socket, or -1 when a daemon has it. A file that nobody listens at is from one that died. */
int listen_for_changes() {
  const auto* address = reinterpret_cast<const sockaddr*>(&kSocket);
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool dead = connect(probe, address, sizeof kSocket) != 0 && errno == ECONNREFUSED;
  close(probe);
  if (dead) unlink(kSocket.sun_path);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener >= 0 && bind(listener, address, sizeof kSocket) == 0 &&
      listen(listener, kBacklog) == 0) {
    return listener;
  }
  close(listener);
  return -1;
}

/* Senders that are connected. One that is cut off before it has sent is killed by its signal, so
 * each is heard to its end. */
class Senders {
 public:
  explicit Senders(int listener) : count_(listener >= 0 ? 1 : 0) {
    all_[0] = {listener, POLLIN, 0};
  }

  /* Waits for a notification or a second. */
  void wait() {
    poll(all_, count_, kPauseMs);
    for (nfds_t n = 1; n < count_;) {
      if (all_[n].revents == 0) {
        ++n;
        continue;
      }
      int32_t code;
      read(all_[n].fd, &code, sizeof code);
      close(all_[n].fd);
      all_[n] = all_[--count_];
    }
    while (count_ > 0 && count_ < kMost) {
      const int sender = accept(all_[0].fd, nullptr, nullptr);
      if (sender < 0) return;
      all_[count_++] = {sender, POLLIN, 0};
    }
  }

 private:
  static constexpr nfds_t kMost = 64; /* more wait to be accepted */

  pollfd all_[kMost];
  nfds_t count_;
};

/* The shell command, with the area as $1. Its standard output is scctl's. */
void run_command(const char* command, const char* area) {
  fflush(stdout);
  const pid_t child = fork();
  if (child != 0) return; /* it is not waited for */
  execl("/bin/sh", "sh", "-c", command, "scctl", area, static_cast<char*>(nullptr));
  _exit(127);
}

struct Clock {
  char text[16];
  Clock() {
    const time_t now = time(nullptr);
    tm local;
    strftime(text, sizeof text, "%H:%M:%S ", localtime_r(&now, &local));
  }
};

}  // namespace

int run_watch(Call& call) {
  bool chosen[kAreaCount];
  if (const int status = present_areas(call, chosen); status != kOk) return status;
  Snapshot known[kTableCount];
  for (int n = 0; n < kTableCount; ++n) {
    if (!chosen[kTables[n].area]) continue;
    Snapshot(kTables[n]).swap(known[n]);
    known[n].take(call.source);
  }

  struct sigaction action = {};
  action.sa_handler = end;
  for (const int number : kEnding) {
    struct sigaction was;
    sigaction(number, nullptr, &was);
    if (was.sa_handler != SIG_IGN) sigaction(number, &action, nullptr);
  }
  signal(SIGCHLD, SIG_IGN);
  const int listener = listen_for_changes();
  puts(listener >= 0 ? "listening" : "looking once a second");
  fflush(stdout);

  Senders senders(listener);
  uint32_t rounds = 0;
  while (g_ended == 0 && (call.count == 0 || rounds < call.count)) {
    senders.wait();
    bool changed[kAreaCount] = {};
    const Clock now;
    for (int n = 0; n < kTableCount; ++n) {
      if (!chosen[kTables[n].area]) continue;
      Snapshot is(kTables[n]);
      is.take(call.source);
      if (print_changes(now.text, known[n], is)) changed[kTables[n].area] = true;
      known[n].swap(is);
    }
    if (fflush(stdout) != 0) break;
    for (int n = 0; n < kAreaCount; ++n) {
      if (!changed[n]) continue;
      ++rounds;
      if (call.exec != nullptr) run_command(call.exec, kAreas[n].name);
    }
  }
  if (listener >= 0) {
    unlink(kSocket.sun_path);
    close(listener);
  }
  return kOk;
}

}  // namespace scctl
