/* How the demo's pages are laid out: headings, rows and cut texts, all within 80 columns. */
#ifndef DEMO_PAGE_H
#define DEMO_PAGE_H

/* A numbered heading over the full width. */
void heading(const char* title);

/* A row of which the last column follows: what the daemon hears (listener.h). */
void row(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* The text, cut to the width with "..." where it is longer; a multi-byte character counts as one
 * column. Returns how many columns are left over. */
enum { CUT_BYTES = 256 };
int cut(char* to, unsigned width, const char* text);

#endif
