/* Lines to items, and items to the library. */
#include "bindings.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "listener.h"
#include "page.h"

/* Why a line was refused. */
struct Reason {
  char text[160];
};

static void because(struct Reason* reason, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

static void because(struct Reason* reason, const char* format, ...) {
  va_list values;
  va_start(values, format);
  vsnprintf(reason->text, sizeof reason->text, format, values);
  va_end(values);
  /* Parts of the line are quoted: nothing of them may move the terminal's cursor. */
  for (char* letter = reason->text; *letter != '\0'; letter++) {
    if (iscntrl((unsigned char)*letter)) *letter = '?';
  }
}

/* ---- from a line to an item ---- */

/* What some editors begin a file with. */
static const char kByteOrderMark[] = "\xef\xbb\xbf";

static int is_mac(const char* text) {
  for (int i = 0; i < 17; i++) {
    if (i % 3 == 2 ? text[i] != ':' : !isxdigit((unsigned char)text[i])) return 0;
  }
  return text[17] == '\0';
}

/* Cuts the next word off: up to a blank or a comma, with the blanks and the comma behind it. */
static char* next_word(char** line) {
  char* word = *line;
  char* end = word + strcspn(word, " \t,");
  char* rest = end + strspn(end, " \t");
  if (*rest == ',') rest += 1 + strspn(rest + 1, " \t");
  *end = '\0';
  *line = rest;
  return word;
}

/* 1 when the line holds a binding, else 0 and the reason. */
static int parse(char* line, struct DhcpStaticItem* item, struct Reason* reason) {
  memset(item, 0, sizeof *item);
  item->flag = 1;
  char* mac = next_word(&line);
  char* ip = next_word(&line);
  char* name = line;
  struct in_addr address;

  if (!is_mac(mac)) {
    because(reason, "'%.40s' is not a valid MAC address, such as 00:11:22:33:44:55", mac);
  } else if (*ip == '\0') {
    because(reason, "no address behind the MAC");
  } else if (inet_pton(AF_INET, ip, &address) != 1) {
    because(reason, "'%.40s' is not a valid IPv4 address, such as 192.168.1.20", ip);
  } else if (*name == '\0') {
    because(reason, "no name behind the address");
  } else if (strlen(name) > sizeof item->name) {
    because(reason, "the name has %zu bytes, at most %zu fit", strlen(name), sizeof item->name);
  } else {
    for (const char* letter = name; *letter != '\0'; letter++) {
      if (!iscntrl((unsigned char)*letter)) continue;
      because(reason, "the name has a control character");
      return 0;
    }
    strcpy(item->mac, mac);
    strcpy(item->ip, ip);
    memcpy(item->name, name, strlen(name)); /* one that fills it has no end */
    return 1;
  }
  return 0;
}

/* ---- from an item to the table ---- */

/* Which line a binding came from, by its id. */
static unsigned line_of_id[SC_DHCP_BINDS + 1];
static struct DhcpStaticItemList list;

static const struct DhcpStaticItem* find(int (*same)(const struct DhcpStaticItem*,
                                                     const struct DhcpStaticItem*),
                                         const struct DhcpStaticItem* wanted) {
  for (uint32_t i = 0; i < list.count; i++) {
    if (same(&list.items[i], wanted)) return &list.items[i];
  }
  return NULL;
}

static int same_mac(const struct DhcpStaticItem* one, const struct DhcpStaticItem* other) {
  return strcasecmp(one->mac, other->mac) == 0;
}

static int same_address(const struct DhcpStaticItem* one, const struct DhcpStaticItem* other) {
  return strcmp(one->ip, other->ip) == 0;
}

/* The library says that it refused; the list says why. */
static void explain(int32_t result, const struct DhcpStaticItem* item, struct Reason* reason) {
  const struct DhcpStaticItem* other;
  if (result == SC_LIST_NO_LOCK) {
    because(reason, "the lock file of the area cannot be opened");
  } else if ((other = find(same_mac, item)) != NULL) {
    because(reason, "MAC bound already, by line %u (id %d)", line_of_id[other->id], (int)other->id);
  } else if ((other = find(same_address, item)) != NULL) {
    because(reason, "address bound already, by line %u (id %d)", line_of_id[other->id],
            (int)other->id);
  } else if (list.count == list.capacity) {
    because(reason, "the table is full (%u bindings)", (unsigned)list.capacity);
  } else {
    because(reason, "the library answered %d", (int)result);
  }
}

/* 1 when the binding was added, else 0 and the reason. */
static int add(unsigned line, const struct DhcpStaticItem* item, struct LanBlock* lan,
               struct Reason* reason) {
  char name[CUT_BYTES], whole[sizeof item->name + 1] = "";
  char outcome[16] = "refused";
  int32_t result = AddDhcpStaticItem(lan, item);
  GetDhcpStaticItemList(lan, &list);
  if (result == SC_LIST_OK) {
    int id = (int)find(same_mac, item)->id;
    line_of_id[id] = line;
    snprintf(outcome, sizeof outcome, "id %d", id);
  } else {
    explain(result, item, reason);
  }
  memcpy(whole, item->name, sizeof item->name);
  int left = cut(name, 18, whole);
  printf("%6u  %s  %-15s  %s%*s  %-7s  ", line, item->mac, item->ip, name, left, "", outcome);
  heard();
  return result == SC_LIST_OK;
}

struct Tally add_bindings(FILE* file, const char* name, struct LanBlock* lan) {
  struct Tally tally = {0, 0};
  char* line = NULL;
  size_t room = 0;
  ssize_t length;
  printf("%6s  %-17s  %-15s  %-18s  %-7s  %s\n", "line", "MAC", "address", "name", "result",
         "daemon");
  for (unsigned number = 1; (length = getline(&line, &room, file)) >= 0; number++) {
    struct DhcpStaticItem item;
    struct Reason reason;
    const char* verdict = "malformed";
    while (length > 0 && isspace((unsigned char)line[length - 1])) line[--length] = '\0';
    char* text = line;
    if (number == 1 && strncmp(text, kByteOrderMark, 3) == 0) text += 3;
    text += strspn(text, " \t");
    if (strlen(line) != (size_t)length) {
      because(&reason, "NUL byte in the line");
    } else if (*text == '\0' || *text == '#') {
      continue;
    } else if (parse(text, &item, &reason)) {
      if (add(number, &item, lan, &reason)) {
        tally.added++;
        continue;
      }
      verdict = "refused";
    }
    tally.refused++;
    fflush(stdout);
    fprintf(stderr, "%s:%u: %s: %s\n", name, number, verdict, reason.text);
  }
  if (ferror(file)) {
    fprintf(stderr, "%s: cannot be read to its end\n", name);
    tally.refused++;
  }
  free(line);
  return tally;
}
