/* A small configuration daemon: listens on /var/config_socket and prints the name of each area that
 * changed. Ends on SIGTERM or SIGINT.
 *
 * A program that announces a change connects, sends 4 bytes and closes, and its call returns only
 * then. So the daemon reads before it closes: a sender whose connection was closed gets SIGPIPE, which
 * ends a program that does not ignore it. And it never waits for one caller while others queue: when
 * the queue is full, each further caller is held in connect().
 */
#define _GNU_SOURCE /* ppoll, SOCK_NONBLOCK */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <sysconfig/core.h>

#define SOCKET_FOLDER "/var"
#define SOCKET_PATH "/var/config_socket"

enum {
  ROOM = 64,         /* callers that are listened to at once */
  PATIENCE = 5000,   /* ms: how long a silent caller keeps a place when all are taken */
  LAST_WORDS = 2000, /* ms: how long callers that came before the end are waited for */
};

static const char* const kAreas[] = {
    [SC_CODE_LAN] = "Lan",
    [SC_CODE_WAN] = "Wan",
    [SC_CODE_PRODUCT_INFO] = "ProductInfo",
    [SC_CODE_MISC] = "Misc",
    [SC_CODE_VS_IPPORT] = "VsIpport",
    [SC_CODE_FW_IPPORT] = "FwIpport",
    [SC_CODE_FW_MAC] = "FwMac",
    [SC_CODE_FW_URL] = "FwUrl",
    [SC_CODE_QOS] = "Qos",
    [SC_CODE_IP_GROUP] = "IpGroup",
    [SC_CODE_TIME_GROUP] = "TimeGroup",
    [SC_CODE_MANAGE_AP_LIST] = "ManageApList",
    [SC_CODE_AP_TEMPLATE_LIST] = "ApTemplateList",
    [SC_CODE_DEF_AP_TEMPLATE] = "DefApTemplate",
    [SC_CODE_CLIENTS_GROUPS] = "Clients_Groups",
    [SC_CODE_CLIENTS] = "Clients",
};

static volatile sig_atomic_t ended;

static void end(int number) {
  (void)number;
  ended = 1;
}

/* ---- the socket ---- */

/* Two daemons that start or end at once take turns: none removes what the other has just made. */
static int take_turn(void) {
  const int folder = open(SOCKET_FOLDER, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) flock(folder, LOCK_EX);
  return folder;
}

static int new_socket(void) {
  return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

static const struct sockaddr_un kAddress = {.sun_family = AF_UNIX, .sun_path = SOCKET_PATH};
static struct stat own; /* the file that is this daemon's */

/* Removes the socket of a daemon that was killed. Whether it is one can be told by connecting: nobody
 * listens, so the kernel refuses. For a daemon that lives this is an empty connection. Returns why the
 * file is left alone, or NULL. */
static const char* remove_stale(void) {
  struct stat file;
  if (lstat(SOCKET_PATH, &file) != 0) return strerror(errno);
  if (!S_ISSOCK(file.st_mode)) return "is not a socket";
  const int probe = new_socket();
  const int answered = connect(probe, (const struct sockaddr*)&kAddress, sizeof kAddress) == 0;
  const int why = errno;
  close(probe);
  if (answered || why == EAGAIN) return "another daemon listens"; /* EAGAIN: its queue is full */
  if (why != ECONNREFUSED) return strerror(why);
  return unlink(SOCKET_PATH) == 0 ? NULL : strerror(errno);
}

static int bound(int listener) {
  return bind(listener, (const struct sockaddr*)&kAddress, sizeof kAddress) == 0;
}

/* The listening socket, or -1. No other file is touched than a stale socket. */
static int make_listener(void) {
  const int listener = new_socket();
  const int turn = take_turn();
  const char* why = NULL;
  if (!bound(listener)) {
    why = errno == EADDRINUSE ? remove_stale() : strerror(errno);
    if (why == NULL && !bound(listener)) why = strerror(errno);
  }
  if (why == NULL && (lstat(SOCKET_PATH, &own) != 0 || listen(listener, SOMAXCONN) != 0)) {
    why = strerror(errno);
  }
  close(turn);
  if (why == NULL) return listener;
  fprintf(stderr, "daemon: %s: %s\n", SOCKET_PATH, why);
  return -1;
}

/* Takes the name away, unless it is another daemon's by now. */
static void remove_own(void) {
  struct stat file;
  const int turn = take_turn();
  if (lstat(SOCKET_PATH, &file) == 0 && file.st_dev == own.st_dev && file.st_ino == own.st_ino) {
    unlink(SOCKET_PATH);
  }
  close(turn);
}

/* ---- the callers ---- */

struct Caller {
  int fd;
  int64_t since; /* ms */
  size_t size;
  unsigned char bytes[4]; /* of which so many are there */
};

static struct Caller callers[ROOM]; /* the one that came first is the first */
static size_t caller_count;

static int64_t now(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (int64_t)time.tv_sec * 1000 + time.tv_nsec / 1000000;
}

/* An area changed; which of its records did is not said. A daemon that applies changes looks at the
 * area here, once for all codes of it that have come meanwhile, and hands what takes long to a child. */
static void apply(int32_t code) {
  const int known = code > 0 && code < (int32_t)(sizeof kAreas / sizeof *kAreas);
  if (known && kAreas[code] != NULL) {
    printf("%s changed\n", kAreas[code]);
  } else {
    printf("no area has code %d\n", (int)code);
  }
}

/* Takes in what a caller has sent so far. Whether it has no more to say. */
static int hear(struct Caller* caller) {
  const ssize_t size =
      recv(caller->fd, caller->bytes + caller->size, sizeof caller->bytes - caller->size, 0);
  if (size < 0) return errno != EAGAIN && errno != EINTR;
  caller->size += (size_t)size;
  if (caller->size == sizeof caller->bytes) {
    int32_t code;
    memcpy(&code, caller->bytes, sizeof code);
    apply(code);
    return 1;
  }
  if (size > 0) return 0;
  /* Without a byte it was a probe, or a program that ended between connect and send: no news. */
  if (caller->size > 0) printf("only %d bytes of 4 came\n", (int)caller->size);
  return 1;
}

static void greet(int listener) {
  while (caller_count < ROOM) {
    const int fd = accept4(listener, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      callers[caller_count++] = (struct Caller){.fd = fd, .since = now()};
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != ECONNABORTED && errno != EINTR) {
      perror("daemon: accept");
      poll(NULL, 0, 100); /* what is lacking, descriptors or memory, may come back */
      return;
    }
  }
}

/* Waits for callers, at most so many ms (-1: for ever), and serves those that are ready. Returns
 * what ppoll does. The signals that end the daemon come here or nowhere. */
static int serve(int listener, int timeout, const sigset_t* signals) {
  /* A full house hears nobody new until one has spoken, or the first has been silent too long. */
  const int full = caller_count == ROOM;
  if (full) {
    const int64_t left = callers[0].since + PATIENCE - now();
    timeout = left > 0 ? (int)left : 0;
  }
  struct pollfd awaited[1 + ROOM] = {{.fd = full ? -1 : listener, .events = POLLIN}};
  for (size_t i = 0; i < caller_count; i++) {
    awaited[1 + i] = (struct pollfd){.fd = callers[i].fd, .events = POLLIN};
  }
  const struct timespec limit = {timeout / 1000, timeout % 1000 * 1000000};
  const int ready = ppoll(awaited, 1 + caller_count, timeout < 0 ? NULL : &limit, signals);
  if (ready < 0) return ready;

  const size_t waiting = caller_count;
  caller_count = 0;
  for (size_t i = 0; i < waiting; i++) {
    struct Caller* caller = &callers[i];
    const int tired = full && ready == 0 && i == 0;
    if (tired || (awaited[1 + i].revents != 0 && hear(caller))) {
      close(caller->fd);
    } else {
      callers[caller_count++] = *caller;
    }
  }
  if (awaited[0].revents != 0) greet(listener);
  return ready;
}

int main(void) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  signal(SIGPIPE, SIG_IGN); /* who reads what is printed may go */
  sigset_t none, ends;
  sigemptyset(&none);
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, NULL);
  const struct sigaction action = {.sa_handler = end};
  sigaction(SIGTERM, &action, NULL);
  sigaction(SIGINT, &action, NULL);

  const int listener = make_listener();
  if (listener < 0) return 1;
  puts("listening");
  while (!ended) {
    if (serve(listener, -1, &none) < 0 && errno != EINTR) {
      perror("daemon: ppoll");
      break;
    }
  }
  /* First the name, so that nobody new comes; then those who had come are heard. */
  remove_own();
  while (serve(listener, caller_count > 0 ? LAST_WORDS : 0, &ends) > 0) continue;
  return 0;
}
