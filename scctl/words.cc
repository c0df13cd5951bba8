/* Splits words by the quoting rules of POSIX. */
#include "words.h"

#include <stdio.h>
#include <string.h>

namespace scctl {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

bool is_any(char c, const char* of) { return c != '\0' && strchr(of, c) != nullptr; }

}  // namespace

bool Words::refuse(const char* fault) {
  snprintf(fault_, sizeof fault_, "%s", fault);
  return false;
}

bool Words::refuse(char letter) {
  snprintf(fault_, sizeof fault_, "a shell takes %c as more than a letter: quote it", letter);
  return false;
}

/* Copies what follows the quote. A backslash stays unless it stands before one of these
 * characters. */
bool Words::copy_double_quoted() {
  while (*from_ != '"') {
    if (*from_ == '\0') return refuse("a quote is not closed");
    if (is_any(*from_, "$`")) return refuse(*from_);
    if (from_[0] == '\\' && is_any(from_[1], "$`\"\\")) ++from_;
    *to_++ = *from_++;
  }
  ++from_;
  return true;
}

bool Words::copy_word() {
  const char* const start = from_;
  while (*from_ != '\0' && !is_blank(*from_)) {
    switch (const char c = *from_) {
      case '\'': {
        const char* end = strchr(++from_, '\'');
        if (end == nullptr) return refuse("a quote is not closed");
        const auto size = static_cast<size_t>(end - from_);
        memmove(to_, from_, size);
        to_ += size;
        from_ = end + 1;
        break;
      }
      case '"':
        ++from_;
        if (!copy_double_quoted()) return false;
        break;
      case '\\':
        if (from_[1] == '\0') return refuse("a backslash at the end; a command is one line");
        *to_++ = from_[1];
        from_ += 2;
        break;
      case '~': /* a home folder, even in a word that looks like an assignment */
        if (from_ == start || is_any(from_[-1], "=:")) return refuse(c);
        *to_++ = *from_++;
        break;
      default:
        if (is_any(c, "$`*?[{};&|<>()")) return refuse(c);
        *to_++ = *from_++;
    }
  }
  return true;
}

bool Words::split(char* line) {
  from_ = to_ = line;
  count_ = 0;
  /* A word needs at least one letter and one blank. */
  Buffer words((strlen(line) / 2 + 1) * sizeof(char*));
  words_.swap(words);
  while (true) {
    while (is_blank(*from_)) ++from_;
    if (*from_ == '\0' || *from_ == '#') return true;
    char* const word = to_;
    if (!copy_word()) return false;
    /* The terminator is written over the blank behind the word, or over the line's own end. */
    const bool ended = *from_ == '\0';
    *to_++ = '\0';
    this->words()[count_++] = word;
    if (ended) return true;
    ++from_;
  }
}

}  // namespace scctl
