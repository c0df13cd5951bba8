/* JSON, read and written piece by piece: no tree is built in memory. */
#ifndef STORE_JSON_H
#define STORE_JSON_H

#include "store/say.h"

namespace store {

enum class JsonKind : uint8_t { kText, kNumber, kNumbers, kNull };

/* Reads JSON as far as an import needs it. The first fault is kept with its line. After it all
 * reads fail. */
class JsonReader {
 public:
  JsonReader(const char* text, size_t size) : at_(text), end_(text + size) {}

  /* open reads the '{' or '[' of an object or array. next tells whether another member follows, and
   * reads the closing bracket after the last. */
  bool open(char bracket);
  bool next(char closing, bool* first);
  /* A member's name, and the colon after it. The name contains no NUL. */
  bool name(Text* name);
  /* A value as it is typed on the command line: a string without quotes, a number, or the numbers
   * of an array with commas between them. */
  bool value(Text* value, JsonKind* kind);
  /* Takes a word, such as true, if it is next. */
  bool word(const char* word);
  /* Whether this letter is next. */
  bool is_next(char c);
  /* Only blanks are left. */
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
  const char* const end_;
  const char* fault_ = nullptr;
  unsigned line_ = 1;
};

/* Adds a string. JSON text is UTF-8, so bytes that are not valid UTF-8 become \udc80 to \udcff. */
void add_json_text(const uint8_t* text, size_t size, Text* to);
void add_json_text(const char* text, Text* to);

/* Writes the commas, blanks and line ends between the values. */
class JsonWriter {
 public:
  /* Elements are on one line, or each on its own line, indented by two more blanks. */
  enum Layout : uint8_t { kInline, kLines };

  explicit JsonWriter(Text* to) : to_(to) {}

  /* Opens an object or array, as an element or a member. At most kDeepest levels. */
  void open(char bracket, Layout layout);
  void close();
  /* The name of the member that follows. */
  void name(const char* name);
  /* A member whose value is a text or a number. */
  void member(const char* name, const char* text);
  void member(const char* name, uint32_t number);
  /* The caller adds the next element's or member's value to this text. */
  Text& value();

 private:
  static constexpr int kDeepest = 16;
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
