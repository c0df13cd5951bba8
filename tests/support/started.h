/* Areas after the device's start: initialised, read (without an archive) and attached.
 */
#ifndef SUPPORT_STARTED_H
#define SUPPORT_STARTED_H

#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/areas.h"
#include "support/output.h"

namespace sc_test {

/* A null block when the area could not be started; the test has failed then. */
template <class Block>
Block* started(const std::string& name) {
  EXPECT_EQ(area(name).init(1), 0) << name;
  const uint32_t address = area(name).get();
  EXPECT_NE(address, 0u) << name;
  return block_at<Block>(address);
}

/* The output of an operation that cannot open its lock file. */
inline Output cannot_lock(const std::string& path) { return {"Cannot Lock file " + path, ""}; }

/* The journal of one change notification. The socket is the descriptor with this number. */
inline std::vector<std::string> notification(int number, int32_t code) {
  const std::string fd = "#" + std::to_string(number);
  char bytes[9];
  snprintf(bytes, sizeof bytes, "%02x000000", static_cast<unsigned>(code));
  return {fd + " = socket " + std::to_string(AF_UNIX) + " " + std::to_string(SOCK_STREAM) + " 0",
          "connect " + fd + " /var/config_socket length 20",
          "send " + fd + " " + bytes + " flags 0", "close " + fd};
}

/* Several journals, one after the other. */
inline std::vector<std::string> joined(std::vector<std::vector<std::string>> parts) {
  std::vector<std::string> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/* Writes a text into a field: its bytes, then zeroes. A text that is too long is cut and has no
 * terminator. */
template <size_t kWidth>
void put_text(char (&field)[kWidth], const std::string& text) {
  memset(field, 0, kWidth);
  memcpy(field, text.data(), text.size() < kWidth ? text.size() : kWidth);
}

/* The text of a field, which need not be terminated. */
template <size_t kWidth>
std::string text_of(const char (&field)[kWidth]) {
  return std::string(field, strnlen(field, kWidth));
}

}  // namespace sc_test

#endif
