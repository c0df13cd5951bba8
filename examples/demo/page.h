/* How the demo's pages are laid out: headings, rows, commands, cut texts, all within 80 columns. */
#ifndef DEMO_PAGE_H
#define DEMO_PAGE_H

enum { STATUS_DONE, STATUS_REFUSED, STATUS_USAGE, STATUS_CANNOT_RUN };

/* A numbered heading over the full width. */
void heading(const char* title);

/* A row of which the last column follows: what the daemon hears (listener.h). */
void row(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* Shows a shell's command as it is typed, and what it says; ends the program when it fails. */
void type(const char* command);

/* The text, cut to the width with "..." where it is longer; a multi-byte character counts as one
 * column. Returns how many columns are left over. */
enum { CUT_BYTES = 256 };
int cut(char* to, unsigned width, const char* text);

#endif
