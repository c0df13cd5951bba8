/* A line as a shell's words, so that what a shell and batch both take means the same to both.
 *
 * Quoting is POSIX's, the whole of it. What a shell would expand or take as an operator is refused
 * where it is not quoted, and a command is one line: an open quote ends it nowhere.
 */
#ifndef SCCTL_WORDS_H
#define SCCTL_WORDS_H

#include "store/say.h"

namespace scctl {

using namespace store;

class Words {
 public:
  /* The words are written over the line, which is terminated and lives as long as they. False when
   * it cannot be done; fault says why then. */
  bool split(char* line);

  const char* fault() const { return fault_; }
  int count() const { return count_; }
  char** words() { return reinterpret_cast<char**>(words_.data()); }

 private:
  bool refuse(const char* fault);
  bool refuse(char letter);
  bool copy_word();
  bool copy_double_quoted();

  const char* from_ = nullptr;
  char* to_ = nullptr;
  Buffer words_;
  int count_ = 0;
  char fault_[64] = "";
};

}  // namespace scctl

#endif
