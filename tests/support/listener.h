/* The configuration daemon's end of the notification socket. */
#ifndef SUPPORT_LISTENER_H
#define SUPPORT_LISTENER_H

#include <stdint.h>

#include <string>
#include <vector>

namespace sc_test {

/* Listens on /var/config_socket. Connections and their bytes wait in the kernel until a test asks
 * for them, so no thread or child is needed. The queue takes some thousand: call messages now and
 * then. */
class Listener {
 public:
  struct Message {
    std::string bytes;
    bool closed; /* the sender closed its end */
  };

  Listener();
  ~Listener() { close(); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /* The messages since the last call, one for each connection, in order of connection. */
  std::vector<Message> messages();
  /* The same as codes. The test fails when a message is not 4 bytes long or its sender did not
   * close. */
  std::vector<int32_t> codes();
  void close();

 private:
  int fd_;
};

}  // namespace sc_test

#endif
