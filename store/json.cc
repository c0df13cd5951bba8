/* The JSON reader. */
#include "store/json.h"

#include <string.h>

#include "store/letters.h"

namespace store {

bool JsonReader::fail(const char* fault) {
  if (fault_ == nullptr) fault_ = fault;
  return false;
}

void JsonReader::skip_blanks() {
  for (; at_ < end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t'); ++at_) {
    line_ += *at_ == '\n';
  }
}

bool JsonReader::take(char c) {
  skip_blanks();
  if (fault_ != nullptr || at_ == end_ || *at_ != c) return false;
  ++at_;
  return true;
}

bool JsonReader::is_next(char c) {
  skip_blanks();
  return fault_ == nullptr && at_ < end_ && *at_ == c;
}

bool JsonReader::word(const char* word) {
  const size_t length = strlen(word);
  if (!is_next(*word) || static_cast<size_t>(end_ - at_) < length ||
      memcmp(at_, word, length) != 0) {
    return false;
  }
  at_ += length;
  return true;
}

bool JsonReader::open(char bracket) {
  return take(bracket) ||
         fail(bracket == '{' ? "no { where an object begins" : "no [ where a list begins");
}

bool JsonReader::next(char closing, bool* first) {
  if (fault_ != nullptr || take(closing)) return false;
  if (!*first && !take(',')) return fail("expected ',' between two members");
  *first = false;
  return true;
}

bool JsonReader::name(Text* name) {
  name->clear();
  skip_blanks();
  if (!string(name)) return false;
  if (strlen(name->c_str()) != name->size()) return fail("NUL in a name");
  return take(':') || fail("expected ':' after a name");
}

bool JsonReader::end() {
  skip_blanks();
  return fault_ == nullptr && (at_ == end_ || fail("unexpected text after the end"));
}

bool JsonReader::value(Text* value, JsonKind* kind) {
  value->clear();
  skip_blanks();
  if (at_ < end_ && *at_ == '"') {
    *kind = JsonKind::kText;
    return string(value);
  }
  if (!take('[')) {
    *kind = JsonKind::kNumber;
    return number(value);
  }
  *kind = JsonKind::kNumbers;
  for (bool first = true; next(']', &first);) {
    if (value->size() > 0) value->add(',');
    skip_blanks();
    if (!number(value)) return false;
  }
  return fault_ == nullptr;
}

/* Reads a whole number; an export prints no others. */
bool JsonReader::number(Text* to) {
  const auto is_digit = [this] { return at_ < end_ && *at_ >= '0' && *at_ <= '9'; };
  const char* from = at_;
  if (at_ < end_ && *at_ == '-') ++at_;
  const char* digits = at_;
  while (is_digit()) ++at_;
  if (digits == at_) return fail("expected a string, a number or an array of numbers");
  if (*digits == '0' && at_ - digits > 1) return fail("a number with a leading zero");
  if (at_ < end_ && strchr(".eE", *at_) != nullptr && *at_ != '\0') {
    return fail("expected a whole number");
  }
  to->add(from, static_cast<size_t>(at_ - from));
  return true;
}

bool JsonReader::four_digits(unsigned* code) {
  *code = 0;
  for (int n = 0; n < 4; ++n, ++at_) {
    static constexpr char kDigits[] = "0123456789abcdef";
    const char* digit =
        at_ < end_ && *at_ != '\0' ? strchr(kDigits, *at_ | (*at_ > '9' ? ' ' : 0)) : nullptr;
    if (digit == nullptr) return fail("expected four hex digits after \\u");
    *code = *code * 16 + static_cast<unsigned>(digit - kDigits);
  }
  return true;
}

/* Reads what follows a backslash. */
bool JsonReader::escape(Text* to) {
  static constexpr char kLetters[] = "\"\\/bfnrt";
  static constexpr char kMeanings[] = "\"\\/\b\f\n\r\t";
  if (at_ == end_) return fail("unterminated string");
  const char c = *at_++;
  if (c != 'u') {
    const char* letter = c == '\0' ? nullptr : strchr(kLetters, c);
    if (letter == nullptr) return fail("invalid escape in a string");
    to->add(kMeanings[letter - kLetters]);
    return true;
  }
  unsigned code;
  if (!four_digits(&code)) return false;
  if (code >= 0xdc80 && code <= 0xdcff) { /* a byte that is not valid UTF-8 */
    to->add(static_cast<char>(code & 0xff));
    return true;
  }
  if (code >= 0xd800 && code < 0xdc00 && end_ - at_ >= 2 && at_[0] == '\\' && at_[1] == 'u') {
    unsigned low;
    at_ += 2;
    if (!four_digits(&low)) return false;
    if (low < 0xdc00 || low > 0xdfff) return fail("unpaired surrogate");
    code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
  }
  if (code >= 0xd800 && code < 0xe000) return fail("unpaired surrogate");
  const auto tail = [&](int shift) { to->add(static_cast<char>(0x80 | (code >> shift & 0x3f))); };
  if (code < 0x80) {
    to->add(static_cast<char>(code));
  } else if (code < 0x800) {
    to->add(static_cast<char>(0xc0 | code >> 6));
    tail(0);
  } else if (code < 0x10000) {
    to->add(static_cast<char>(0xe0 | code >> 12));
    tail(6);
    tail(0);
  } else {
    to->add(static_cast<char>(0xf0 | code >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
  return true;
}

bool JsonReader::string(Text* to) {
  if (at_ == end_ || *at_ != '"') return fail("expected a string");
  for (++at_; at_ < end_ && *at_ != '"';) {
    if (static_cast<unsigned char>(*at_) < ' ') return fail("control character in a string");
    const char* from = at_;
    while (at_ < end_ && *at_ != '"' && *at_ != '\\' && static_cast<unsigned char>(*at_) >= ' ') {
      ++at_;
    }
    to->add(from, static_cast<size_t>(at_ - from));
    if (at_ == end_ || *at_ != '\\') continue;
    ++at_;
    if (!escape(to)) return false;
  }
  if (at_ == end_) return fail("unterminated string");
  ++at_;
  return true;
}

void add_json_text(const uint8_t* bytes, size_t size, Text* to) {
  const char* text = reinterpret_cast<const char*>(bytes);
  to->add('"');
  while (size > 0) {
    const Letter letter = next_letter(text, size);
    if (!letter.is_utf8) {
      to->print("\\udc%02x", letter.code);
    } else if (!letter.is_harmless) {
      to->print("\\u%04x", letter.code);
    } else {
      if (*text == '"' || *text == '\\') to->add('\\');
      to->add(text, letter.size);
    }
    text += letter.size;
    size -= letter.size;
  }
  to->add('"');
}

void add_json_text(const char* text, Text* to) {
  add_json_text(reinterpret_cast<const uint8_t*>(text), strlen(text), to);
}

/* ---- writing ---- */

void JsonWriter::end_line() {
  to_->add('\n');
  for (int n = 0; n < depth_; ++n) to_->add("  ");
}

Text& JsonWriter::value() {
  if (depth_ > 0 && !is_named_) {
    Level& level = levels_[depth_ - 1];
    if (level.any) to_->add(level.layout == kLines ? "," : ", ");
    level.any = true;
    if (level.layout == kLines) end_line();
  }
  is_named_ = false;
  return *to_;
}

void JsonWriter::name(const char* name) {
  value().print("\"%s\": ", name);
  is_named_ = true;
}

void JsonWriter::open(char bracket, Layout layout) {
  value().add(bracket);
  levels_[depth_++] = {bracket == '{' ? '}' : ']', layout, false};
}

void JsonWriter::close() {
  const Level& level = levels_[--depth_];
  if (level.any && level.layout == kLines) end_line();
  to_->add(level.closing);
}

void JsonWriter::member(const char* name, const char* text) {
  this->name(name);
  add_json_text(text, &value());
}

void JsonWriter::member(const char* name, uint32_t number) {
  this->name(name);
  value().print("%u", number);
}

}  // namespace store
