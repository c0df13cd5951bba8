#include "stream.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "page.h"

enum { INDENT = 4, WIDTH = 78 - INDENT };

static FILE* watch;
static char* line;
static size_t room;

static size_t next_line(void) {
  ssize_t size = getline(&line, &room, watch);
  if (size <= 0) {
    fputs("demo: the watch has ended\n", stderr);
    exit(STATUS_CANNOT_RUN);
  }
  return (size_t)size - 1;
}

void start_stream(const char* area) {
  char command[80];
  printf("$ scctl watch --json %s &\n", area);
  fflush(stdout);
  snprintf(command, sizeof command, "scctl watch --json %s 2>&1", area);
  watch = popen(command, "r");
  if (watch == NULL) {
    perror("scctl");
    exit(STATUS_CANNOT_RUN);
  }
  /* Who may not know authors is told so first. */
  do {
    next_line();
  } while (strcmp(line, "watching\n") != 0);
}

void streamed(void) {
  size_t left = next_line();
  for (const char* at = line; left > 0;) {
    size_t part = left < WIDTH ? left : WIDTH;
    while (part < left && part > 1 && at[part - 1] != ',') part--;
    printf("%*s%.*s\n", INDENT, "", (int)part, at);
    at += part;
    left -= part;
  }
}

void stop_stream(void) {
  pclose(watch);
  free(line);
}
