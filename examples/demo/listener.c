/* The child hears notifications as they come and says them when its parent asks, by a byte over a
 * control socket, at the end of a row. A notification is in the listening socket's queue from the
 * moment that the library has connected, so what was sent before a request is heard before it:
 * nothing is lost and nothing is timed. */
#include "listener.h"

#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "areas.h"
#include "page.h"

static const char kSocketPath[] = "/var/config_socket";

static pid_t child;
static int control;

static void fail(const char* what) {
  perror(what);
  exit(STATUS_CANNOT_RUN);
}

/* What was heard since the last row. */
static struct {
  unsigned count;
  int32_t codes[SC_CLIENTS];
} unsaid;

/* Hears every notification that waits in the queue. */
static void empty_queue(int socket_fd) {
  int connection;
  while ((connection = accept(socket_fd, NULL, NULL)) >= 0) {
    int32_t code;
    if (recv(connection, &code, sizeof code, MSG_WAITALL) != sizeof code) code = -1;
    if (unsaid.count < SC_CLIENTS) unsaid.codes[unsaid.count++] = code;
    close(connection);
  }
}

static void say(void) {
  for (unsigned i = 0; i < unsaid.count; i++) {
    printf("%s%d %s", i == 0 ? "" : ", ", (int)unsaid.codes[i], area_of_code(unsaid.codes[i]));
  }
  putchar('\n');
  fflush(stdout);
  unsaid.count = 0;
}

static void listen_until_parent_ends(int socket_fd, int parent) {
  struct pollfd awaited[] = {{.fd = socket_fd, .events = POLLIN}, {.fd = parent, .events = POLLIN}};
  char request;
  while (poll(awaited, 2, -1) > 0) {
    empty_queue(socket_fd); /* and so everything that was sent before a request */
    if (awaited[1].revents == 0) continue;
    if (read(parent, &request, 1) != 1) return;
    say();
    if (write(parent, &request, 1) != 1) return;
  }
}

void start_listener(void) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  snprintf(address.sun_path, sizeof address.sun_path, "%s", kSocketPath);
  int socket_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (socket_fd < 0 || bind(socket_fd, (struct sockaddr*)&address, sizeof address) < 0 ||
      listen(socket_fd, SOMAXCONN) < 0) {
    fail(kSocketPath);
  }
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0) fail("socketpair");
  fflush(stdout);
  child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_IGN); /* a reader who has gone ends the parent */
    close(ends[0]);
    listen_until_parent_ends(socket_fd, ends[1]);
    _exit(0);
  }
  close(socket_fd);
  close(ends[1]);
  control = ends[0];
}

void heard(void) {
  char request = 0;
  fflush(stdout);
  if (write(control, &request, 1) != 1 || read(control, &request, 1) != 1) fail("listener");
}

void stop_listener(void) {
  close(control);
  waitpid(child, NULL, 0);
}
