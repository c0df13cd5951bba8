/* Rows of columns, printed as text or as JSON by the listing commands. One table describes the
 * columns of both. */
#ifndef SCCTL_LISTING_H
#define SCCTL_LISTING_H

#include "store/json.h"

namespace scctl {

using namespace store;

struct Column {
  const char* name;    /* in JSON; null: not in JSON */
  const char* heading; /* as text; null: not as text */
  int8_t width;        /* columns on the terminal; negative: flush left; 0: the last one */
};

/* Cells are added in the order of the columns. The last cell ends a row. */
class Listing {
 public:
  /* Prints the headings. */
  template <size_t kCount>
  Listing(bool json, const Column (&columns)[kCount]) : Listing(json, columns, kCount) {}
  Listing(const Listing&) = delete;
  Listing& operator=(const Listing&) = delete;

  void add(const char* text);
  /* Adds text from elsewhere. */
  void add_foreign(const Text& text);
  void add(unsigned long number);
  /* Adds a cell with different contents in JSON and as text. */
  void add(const char* raw_json, const char* text);
  /* Prints the rest. */
  void end();

 private:
  Listing(bool json, const Column* columns, size_t count);

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
