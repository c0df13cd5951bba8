/* A page's program, as a web server runs it: adds a DHCP binding and prints a page that tells what
 * came of it. Called as bind_page MAC ADDRESS NAME; a real one would read its request.
 *
 * Where the library's calls say less than a page has to, the program looks for itself: no id comes
 * back from an add, one result stands for a clash and for a full table, text that is no address is
 * stored all the same, and a save prints on standard output, where the page is.
 */
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <sysconfig/lan.h>

static struct DhcpStaticItemList bindings; /* 15 KB: too much for a small stack */

/* The binding of this MAC address in a fresh listing, or NULL. */
static const struct DhcpStaticItem* find_mac(const struct LanBlock* lan, const char* mac) {
  GetDhcpStaticItemList(lan, &bindings);
  for (uint32_t i = 0; i < bindings.count; i++) {
    if (strncasecmp(bindings.items[i].mac, mac, SC_MAC_TEXT) == 0) return &bindings.items[i];
  }
  return NULL;
}

/* Why an add was refused. */
static const char* refusal(const struct LanBlock* lan, const struct DhcpStaticItem* item) {
  if (find_mac(lan, item->mac) != NULL) return "this MAC address has a binding";
  for (uint32_t i = 0; i < bindings.count; i++) {
    if (strncmp(bindings.items[i].ip, item->ip, SC_IP_TEXT) == 0) return "this address is bound";
  }
  if (bindings.count == bindings.capacity) return "the table is full";
  return "another program was changing the table; try again";
}

/* Saves with standard output turned to standard error, a web server's
 * log: for what the call prints, and for the commands that it runs. */
static void save(struct LanBlock* lan) {
  fflush(stdout);
  const int page = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  SC_Save_System_Lan_Config2Flash(lan);
  fflush(stdout); /* the library prints by stdio */
  dup2(page, STDOUT_FILENO);
  close(page);
}

int main(int argc, char** argv) {
  puts("Content-Type: text/plain\r\n\r");
  struct in_addr address;
  if (argc != 4 || strlen(argv[1]) >= SC_MAC_TEXT || strlen(argv[3]) >= SC_TEXT ||
      inet_pton(AF_INET, argv[2], &address) != 1) { /* the library would store 255.255.255.255 */
    puts("A MAC address, an IPv4 address and a name are wanted.");
    return 0;
  }
  struct LanBlock* lan = (struct LanBlock*)(uintptr_t)SC_Get_Lan_System_Config();
  if (lan == NULL) {
    puts("The router is starting.");
    return 0;
  }
  signal(SIGPIPE, SIG_IGN); /* the daemon may end while it is told */
  struct DhcpStaticItem item = {.flag = 1};
  snprintf(item.mac, sizeof item.mac, "%s", argv[1]);
  snprintf(item.ip, sizeof item.ip, "%s", argv[2]);
  snprintf(item.name, sizeof item.name, "%s", argv[3]);
  switch (AddDhcpStaticItem(lan, &item)) {
    case SC_LIST_OK: break;
    case SC_LIST_REJECTED: printf("Refused: %s.\n", refusal(lan, &item)); return 0;
    default: puts("Refused: the lock file cannot be opened."); return 0;
  }
  save(lan);
  const struct DhcpStaticItem* binding = find_mac(lan, item.mac);
  if (binding == NULL) {
    puts("Bound, and deleted again by another program.");
  } else {
    printf("Bound: number %d of %u.\n", (int)binding->id, (unsigned)bindings.count);
  }
  return 0;
}
