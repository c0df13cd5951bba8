/* The change notification over the daemon's stream socket. */
#include "core/announce.h"

#include <stddef.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace sc {

namespace {

/* The part of a sockaddr_un that is used. */
constexpr struct {
  sa_family_t family;
  char path[sizeof "/var/config_socket"];
} kAddress = {AF_UNIX, "/var/config_socket"};
/* Required: the path is sent without its NUL. */
constexpr socklen_t kAddressSize = offsetof(sockaddr_un, sun_path) + sizeof kAddress.path - 1;

}  // namespace

void announce(int32_t code) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) {
    perror("socket");
    return;
  }
  if (connect(fd, reinterpret_cast<const sockaddr*>(&kAddress), kAddressSize) < 0) {
    perror("connect");
    close(fd);
    return;
  }
  if (send(fd, &code, sizeof code, 0) < 0) perror("send");
  /* Required: a descriptor 0 stays open here, but not after a failed connect. */
  if (fd > 0) close(fd);
}

}  // namespace sc
