/* JSON, read and written piece by piece: nothing is built in memory. */
#ifndef STORE_JSON_H
#define STORE_JSON_H

#include "store/say.h"

namespace store {

enum class JsonKind : uint8_t { kText, kNumber, kNumbers };

/* Reads as far as an import needs it. The first fault is kept with its line; after it all reads fail. */
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

/* A string. Bytes that are no UTF-8 become \udc80 to \udcff, as text in JSON is UTF-8. */
void add_json_text(const uint8_t* text, size_t size, Text* to);
void add_json_text(const char* text, Text* to);

/* Writes commas, blanks and line ends between what is given. */
class JsonWriter {
 public:
  /* Elements follow each other on one line, or stand on lines of their own, each two blanks deeper. */
  enum Layout : uint8_t { kInline, kLines };

  explicit JsonWriter(Text* to) : to_(to) {}

  /* An object or array, as an element or a member; at most kDeepest of them within each other. */
  void open(char bracket, Layout layout);
  void close();
  /* Of the member that follows. */
  void name(const char* name);
  /* Where the next element's or member's value is to be added. */
  Text& value();

 private:
  static constexpr int kDeepest = 4;
  struct Level {
    char closing;
    Layout layout;
    bool any;
  };

  void end_line();

  Text* to_;
  Level levels_[kDeepest] = {};
  int depth_ = 0;
  bool is_named_ = false;
};

}  // namespace store

#endif
