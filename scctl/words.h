/* Splits a line into words as a shell does, so a line means the same to batch and to a shell.
 *
 * All POSIX quoting is supported. Characters that a shell would expand or take as operators are
 * refused unless they are quoted. A command is one line: a quote that is still open at its end is
 * an error.
 */
#ifndef SCCTL_WORDS_H
#define SCCTL_WORDS_H

#include "store/say.h"

namespace scctl {

using namespace store;

class Words {
 public:
  /* The words are written over the line, which is terminated. The line has to live as long as the
   * words. False on an error; `fault` then tells what is wrong. */
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
