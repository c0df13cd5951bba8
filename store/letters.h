/* Letters of texts from other programs and people: where each ends, whether a terminal displays it
 * without side effects, and how many columns it takes. Text from a store, a file or the command
 * line passes through next_letter before it is displayed.
 */
#ifndef STORE_LETTERS_H
#define STORE_LETTERS_H

#include <stddef.h>
#include <stdint.h>

namespace store {

struct Letter {
  uint32_t code;   /* the byte, if it is not valid UTF-8 */
  uint8_t size;    /* in bytes, at least 1 */
  uint8_t columns; /* 0 for a combining letter, 2 for a wide one */
  bool is_utf8;
  bool is_harmless; /* moves no cursor, changes no direction, is valid UTF-8 */
};

/* The first letter of a text that is not empty. */
Letter next_letter(const char* text, size_t size);

/* A letter as it is displayed. A harmless letter stays. The bytes of others become \xHH, two digits
 * of 0-9 and a-f. A backslash that looks like the start of such an escape becomes one, too, so two
 * different texts are never displayed alike. */
struct Shown {
  char bytes[16];
  uint8_t size;
  uint8_t columns;
};
/* Writes the first letter to `shown`; returns the number of its bytes in the text. */
size_t show_letter(const char* text, size_t size, Shown* shown);

/* The number of columns of a text as it is displayed. */
size_t columns_of(const char* shown);

}  // namespace store

#endif
