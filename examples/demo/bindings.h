/* DHCP bindings from a file: one a line, a MAC, an address and a name, apart by blanks or a comma.
 * Empty lines and lines that begin with '#' are passed over. */
#ifndef DEMO_BINDINGS_H
#define DEMO_BINDINGS_H

#include <stdio.h>

#include <sysconfig/lan.h>

struct Tally {
  unsigned added;
  unsigned refused; /* malformed, or not taken by the library */
};

/* Adds every binding of the file to the LAN table and shows what became of it. What is refused is
 * said on stderr with the name of the file, the line and the reason. */
struct Tally add_bindings(FILE* file, const char* name, struct LanBlock* lan);

#endif
