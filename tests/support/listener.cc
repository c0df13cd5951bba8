#include "support/listener.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>

#include <gtest/gtest.h>

namespace sc_test {

Listener::Listener() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/var/config_socket");
  unlink(address.sun_path);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0 ||
      listen(fd_, 4096) < 0) {
    throw std::runtime_error(strerror(errno));
  }
}

std::vector<Listener::Message> Listener::messages() {
  std::vector<Message> all;
  for (int fd; (fd = accept(fd_, nullptr, nullptr)) >= 0; ::close(fd)) {
    Message message = {};
    char part[64];
    ssize_t size;
    while ((size = recv(fd, part, sizeof part, MSG_DONTWAIT)) > 0) {
      message.bytes.append(part, static_cast<size_t>(size));
    }
    message.closed = size == 0;
    all.push_back(message);
  }
  return all;
}

std::vector<int32_t> Listener::codes() {
  std::vector<int32_t> all;
  for (const Message& message : messages()) {
    EXPECT_TRUE(message.closed);
    int32_t code = 0;
    EXPECT_EQ(message.bytes.size(), sizeof code);
    memcpy(&code, message.bytes.data(), std::min(message.bytes.size(), sizeof code));
    all.push_back(code);
  }
  return all;
}

void Listener::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace sc_test
