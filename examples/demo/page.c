/* Headings, rows, commands and cut texts. */
#include "page.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { PAGE_WIDTH = 80, ROW_WIDTH = 58 };

void heading(const char* title) {
  static int number;
  int width = printf("\n-- %d. %s ", ++number, title) - 1;
  while (width++ < PAGE_WIDTH) putchar('-');
  putchar('\n');
}

void row(const char* format, ...) {
  va_list values;
  va_start(values, format);
  int width = vprintf(format, values);
  va_end(values);
  if (width > ROW_WIDTH) {
    putchar('\n');
    width = 0;
  }
  printf("%*s  ", ROW_WIDTH - width, "");
}

void type(const char* command) {
  printf("$ %s\n", command);
  fflush(stdout);
  if (system(command) == 0) return;
  fprintf(stderr, "demo: this failed: %s\n", command);
  exit(STATUS_CANNOT_RUN);
}

/* Bytes of the first characters of a text, or of all when it has no more. */
static size_t bytes_of(const char* text, unsigned characters) {
  size_t bytes = 0;
  for (;;) {
    if ((text[bytes] & 0xc0) != 0x80 && characters-- == 0) return bytes;
    if (text[bytes] == '\0') return bytes;
    bytes++;
  }
}

static unsigned width_of(const char* text) {
  unsigned width = 0;
  for (; *text != '\0'; text++) width += (*text & 0xc0) != 0x80;
  return width;
}

int cut(char* to, unsigned width, const char* text) {
  unsigned used = width_of(text);
  if (used <= width) {
    snprintf(to, CUT_BYTES, "%s", text);
    return (int)(width - used);
  }
  snprintf(to, CUT_BYTES, "%.*s...", (int)bytes_of(text, width - 3), text);
  return 0;
}
