/* Letters of foreign texts: where each ends, whether a terminal shows it and nothing else, and how
 * many columns it takes. What comes from a store, a file or the command line goes through
 * next_letter before a person sees it.
 */
#ifndef STORE_LETTERS_H
#define STORE_LETTERS_H

#include <stddef.h>
#include <stdint.h>

namespace store {

struct Letter {
  uint32_t code;   /* the byte, where there is no UTF-8 */
  uint8_t size;    /* in bytes, 1 at least */
  uint8_t columns; /* 0 for one that is written above another, 2 for a wide one */
  bool is_utf8;
  bool is_harmless; /* it moves no cursor and turns no direction; no letter of invalid UTF-8 is */
};

/* The first letter of a text that is not empty. */
Letter next_letter(const char* text, size_t size);

/* A letter as a person may see it. Harmless ones stay; the bytes of others become \xHH, two digits of
 * 0-9 and a-f. So does a backslash that would read as the beginning of such an escape: what is shown
 * stands for one text alone. */
struct Shown {
  char bytes[16];
  uint8_t size;
  uint8_t columns;
};
/* Shows the first letter; returns how many bytes it has. */
size_t show_letter(const char* text, size_t size, Shown* shown);

/* How many columns a text takes that is shown. */
size_t columns_of(const char* shown);

}  // namespace store

#endif
