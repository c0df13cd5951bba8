#include "listing.h"

#include <stdio.h>

namespace scctl {

Listing::Listing(bool json, const Column* columns, size_t count)
    : json_(json), columns_(columns), count_(count) {
  if (json_) {
    writer_.open('[', JsonWriter::kLines);
    return;
  }
  for (size_t n = 0; n < count_; ++n) add(nullptr, columns_[n].heading);
  any_ = false;
}

void Listing::add(const char* text) {
  Text quoted;
  if (json_) add_json_text(text, &quoted);
  add(quoted.c_str(), text);
}

void Listing::add_foreign(const Text& text) {
  Text made;
  if (json_) {
    add_json_text(reinterpret_cast<const uint8_t*>(text.c_str()), text.size(), &made);
  } else {
    made.add_shown(text.c_str(), text.size());
  }
  add(made.c_str(), made.c_str());
}

void Listing::add(unsigned long number) {
  char digits[24];
  snprintf(digits, sizeof digits, "%lu", number);
  add(digits, digits);
}

void Listing::add(const char* raw_json, const char* text) {
  const Column& column = columns_[next_];
  any_ = true;
  if (json_) {
    if (next_ == 0) writer_.open('{', JsonWriter::kInline);
    if (column.name != nullptr) {
      writer_.name(column.name);
      writer_.value().add(raw_json);
    }
  } else if (column.heading != nullptr) {
    if (next_ > 0) text_.add("  ");
    text_.print("%*s", column.width, text);
  }
  if (++next_ < count_) return;
  next_ = 0;
  if (json_) {
    writer_.close();
  } else {
    text_.add('\n');
  }
}

void Listing::end() {
  if (json_) {
    if (!any_) text_.add('\n');
    writer_.close();
    text_.add('\n');
  }
  fwrite(text_.c_str(), 1, text_.size(), stdout);
}

}  // namespace scctl
