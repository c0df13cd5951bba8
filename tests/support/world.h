/* The private world of a test process, and the fixture that makes it new for every test.
 *
 * main() first enters its own mount and IPC namespaces (and a user namespace when not root). Then
 * it mounts a tmpfs over /var and new terminals over /dev/pts, and puts stand-ins for the device's
 * commands first in PATH. If this is refused, the run ends with one line. It never touches the
 * host's keys, files or terminals.
 */
#ifndef SUPPORT_WORLD_H
#define SUPPORT_WORLD_H

#include <stdint.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace sc_test {

/* main() calls this once. If it fails, the process ends with a message on stderr. */
void enter_private_world();

/* Base of every test that uses blocks or files. Each test starts without segments, with the three
 * directories empty, and with no other file of the library in /var. What a test attached is
 * detached after it. */
class World : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

/* The command lines with which the stand-ins for change_event, send_event, sync and logger were
 * run. */
std::vector<std::string> commands_run();

/* Whole files. write_file creates or truncates. read_file fails the test when the file does not
 * exist. */
void write_file(const std::string& path, const std::string& bytes);
std::string read_file(const std::string& path);
bool exists(const std::string& path);

/* System V identifier of the segment with this key, or -1. */
int segment_of(int key);
/* Size of the segment with this key, or 0 when it does not exist. */
size_t segment_size(int key);

/* Addresses that shmat returned in this process and that are still attached. */
std::vector<void*> attached_addresses();

/* After this call the process can map no more memory (RLIMIT_AS), so shmat really fails. Only for
 * child processes: it cannot be undone. */
void forbid_new_mappings();

/* While it lives, no further descriptor can be opened. */
class NoDescriptors {
 public:
  NoDescriptors();
  ~NoDescriptors();
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  uint64_t soft_, hard_;
};

}  // namespace sc_test

#endif
