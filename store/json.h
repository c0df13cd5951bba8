/* Reads JSON piece by piece, as far as an import needs it: nothing is built in memory. The first
 * fault is kept with its line; after it all reads fail.
 */
#ifndef STORE_JSON_H
#define STORE_JSON_H

#include "store/say.h"

namespace store {

enum class JsonKind : uint8_t { kText, kNumber, kNumbers };

class JsonReader {
 public:
  JsonReader(const char* text, size_t size) : at_(text), end_(text + size) {}

  /* An object or array opens with '{' or '['; next tells whether a member follows, up to the
   * bracket that closes it. */
  bool open(char bracket);
  bool next(char closing, bool* first);
  /* A member's name, with its colon; without a NUL. */
  bool name(Text* name);
  /* A value as it is typed: a string without quotes, a number, numbers of an array with commas. */
  bool value(Text* value, JsonKind* kind);
  /* Nothing but blanks is left. */
  bool end();

  bool failed() const { return fault_ != nullptr; }
  const char* fault() const { return fault_; }
  unsigned line() const { return line_; }

 private:
  bool fail(const char* fault);
  void skip_blanks();
  bool take(char c);
  bool string(Text* to);
  bool number(Text* to);
  bool four_digits(unsigned* code);
  bool escape(Text* to);

  const char* at_;
  const char* end_;
  const char* fault_ = nullptr;
  unsigned line_ = 1;
};

}  // namespace store

#endif
