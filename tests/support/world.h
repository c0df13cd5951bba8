/* The private world of a test process, and the fixture that makes it fresh for every test.
 *
 * main() enters its own mount and IPC namespace (and user namespace, when not root) before anything
 * else, lays a tmpfs over /var and puts stand-ins for the device's commands first in PATH. Where
 * that is refused the run ends with one line; it never touches the host's keys or files.
 */
#ifndef SUPPORT_WORLD_H
#define SUPPORT_WORLD_H

#include <stdint.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace sc_test {

/* Called by main() once; ends the process with a message on stderr when it cannot be done. */
void enter_private_world();

/* Base of every test that touches blocks or files: starts with no segment, with the three
 * directories empty, and with nothing else of ours in /var. What a test attached is detached after
 * it. */
class World : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

/* Command lines that the stand-ins for change_event, send_event and sync were run with. */
std::vector<std::string> commands_run();

/* Files, whole. write_file creates or truncates; read_file fails the test when there is none. */
void write_file(const std::string& path, const std::string& bytes);
std::string read_file(const std::string& path);
bool exists(const std::string& path);

/* System V identifier of the segment with this key, or -1. */
int segment_of(int key);
/* Its size, 0 when there is none. */
size_t segment_size(int key);

/* Mapped addresses that shmat gave to this process and that are still attached. */
std::vector<void*> attached_addresses();

/* From now on this process can map no more memory (RLIMIT_AS), so that shmat fails for real. For
 * children: it cannot be undone. */
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
