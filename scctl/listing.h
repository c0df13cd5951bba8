/* Rows of columns, as text or as JSON: what the listing commands print, from one table of columns. */
#ifndef SCCTL_LISTING_H
#define SCCTL_LISTING_H

#include "store/json.h"

namespace scctl {

using namespace store;

struct Column {
  const char* name;    /* in JSON; null: it is no member there */
  const char* heading; /* as text; null: it is no column there */
  int8_t width;        /* columns on the terminal; negative: flush left; 0: the last one */
};

/* Cells are given in the order of the columns; a row ends with its last. */
class Listing {
 public:
  /* Prints the headings. */
  template <size_t kCount>
  Listing(bool json, const Column (&columns)[kCount]) : Listing(json, columns, kCount) {}
  Listing(const Listing&) = delete;
  Listing& operator=(const Listing&) = delete;

  void add(const char* text);
  /* Bytes that come from elsewhere. */
  void add_foreign(const Text& text);
  void add(unsigned long number);
  /* One thing in JSON, another as text. */
  void add(const char* raw_json, const char* text);
  /* Prints what is left. */
  void end();

 private:
  Listing(bool json, const Column* columns, size_t count);
  void cell(const char* raw_json, const char* text);

  const bool json_;
  const Column* const columns_;
  const size_t count_;
  size_t next_ = 0;
  bool any_ = false;
  Text text_;
  JsonWriter writer_{&text_};
};

}  // namespace scctl

#endif
