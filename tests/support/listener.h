/* The configuration daemon's end of the notification socket. */
#ifndef SUPPORT_LISTENER_H
#define SUPPORT_LISTENER_H

#include <stdint.h>

#include <string>
#include <vector>

namespace sc_test {

/* Listens on /var/config_socket. Connections and their bytes wait in the kernel until they are
 * asked for, so there is neither a thread nor a child: drain it now and then (it takes some
 * thousand). */
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

  /* One message a connection, in order of connection, since the last call. */
  std::vector<Message> messages();
  /* The same as codes; the test fails when a message is not 4 bytes long or was not closed. */
  std::vector<int32_t> codes();
  void close();

 private:
  int fd_;
};

}  // namespace sc_test

#endif
