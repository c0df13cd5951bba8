/* The journal of the library's calls into the C library, in order, as lines of text.
 *
 * The test program interposes the calls, records them while a Journal lives and then makes them for
 * real. Descriptors are numbered in the order in which they were opened under the journal:
 *
 *   #1 = open /var/lock_store/lan_conf_lock   O_RDWR; other flags are spelled out
 *   lock #1 2        fcntl F_SETLKW, F_WRLCK, SEEK_SET, start 2, length 1, exactly
 *   unlock #1 2      fcntl F_SETLK,  F_UNLCK, SEEK_SET, start 2, length 1, exactly
 *   fcntl #1 cmd 6 type 0 whence 0 start 2 length 1      any other one
 *   close #1         (descriptors that were open before are not recorded)
 *   fopen /var/systemconfig/config_lan.cfg w
 *   fclose
 *   access /var/dataconfig/config_lan.bin 0
 *   system echo '' > /var/lock_store/lan_conf_lock
 *   #2 = socket 1 1 0
 *   connect #2 /var/config_socket length 20
 *   send #2 01000000 flags 0
 *
 * " failed" follows a call that returned its error value.
 */
#ifndef SUPPORT_JOURNAL_H
#define SUPPORT_JOURNAL_H

#include <functional>
#include <string>
#include <vector>

namespace sc_test {

class Journal {
 public:
  Journal();
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  const std::vector<std::string>& lines() const { return lines_; }
  void clear();

  /* Runs the action once, before (or after) the first call whose line begins with this text. The
   * action's own calls are not recorded. A second hook of the same kind replaces the first. */
  void before(const std::string& text, std::function<void()> action);
  void after(const std::string& text, std::function<void()> action);

 private:
  friend class Call;
  struct Hook {
    std::string text;
    std::function<void()> action;
  };
  void run(Hook& hook, const std::string& line);

  std::vector<std::string> lines_;
  Hook before_, after_;
};

}  // namespace sc_test

#endif
