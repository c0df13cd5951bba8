/* The change notification over the daemon's stream socket. */
#include "core/notify.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace sc {

namespace {

constexpr char kSocketPath[] = "/var/config_socket";
/* Required: the path goes without its NUL. */
constexpr socklen_t kAddressSize = offsetof(sockaddr_un, sun_path) + sizeof kSocketPath - 1;

}  // namespace

void notify(int32_t code) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) {
    perror("socket");
    return;
  }
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, kSocketPath, sizeof kSocketPath);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), kAddressSize) < 0) {
    perror("connect");
    close(fd);
    return;
  }
  if (send(fd, &code, sizeof code, 0) < 0) perror("send");
  /* Required: a descriptor 0 is left open here, though not after a failed connect. */
  if (fd > 0) close(fd);
}

}  // namespace sc
