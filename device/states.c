/* Numbered states of the Lan area, for the power cut.
 *
 * State 0 is an area with all 32 LAN bindings filled; state n differs from state n - 1 in binding
 * n % 32 alone. The names are noise, so that an archive is as long as one of a busy router and
 * takes several writes. What a state looks like is built here from the layout, by hand and whole,
 * and compared byte for byte: an area is a state, or empty, or broken.
 */
#include <arpa/inet.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <sysconfig/lan.h>

static struct LanBlock wanted;

static struct LanBlock* attach(void) {
  struct LanBlock* lan = (struct LanBlock*)(uintptr_t)SC_Get_Lan_System_Config();
  if (lan == NULL) {
    fprintf(stderr, "states: there is no Lan area\n");
    exit(1);
  }
  return lan;
}

/* The state that last changed this binding, up to and with state n. */
static uint32_t changed_in(uint32_t position, uint32_t n) {
  return n < position ? 0 : n - (n - position) % SC_DHCP_BINDS;
}

static struct DhcpStaticItem binding(uint32_t position, uint32_t state) {
  struct DhcpStaticItem item = {.id = (int32_t)position + 1, .flag = 1};
  snprintf(item.mac, sizeof item.mac, "02:00:00:%02x:%02x:%02x", position, (state >> 8) & 0xff,
           state & 0xff);
  snprintf(item.ip, sizeof item.ip, "10.%u.%u.%u", position, (state >> 8) & 0xff, state & 0xff);
  uint32_t noise = state * 2654435761u + position + 1;
  for (size_t i = 0; i < sizeof item.name - 1; i++) {
    noise ^= noise << 13;
    noise ^= noise >> 17;
    noise ^= noise << 5;
    item.name[i] = (char)('!' + noise % 90);
  }
  return item;
}

static void want_empty(void) {
  memset(&wanted, 0, sizeof wanted);
  strcpy(wanted.header.lock_path, "/var/lock_store/lan_conf_lock");
  wanted.header.block_lock_index = 1;
  for (uint32_t i = 0; i < SC_DHCP_BINDS; i++) {
    wanted.lan_binds[i].slot_id = -1;
    wanted.lan_binds[i].lock_index = 2 + (int32_t)i;
    wanted.ac_binds[i].slot_id = -1;
    wanted.ac_binds[i].lock_index = 2 + SC_DHCP_BINDS + (int32_t)i;
  }
}

static void want_state(uint32_t n) {
  want_empty();
  wanted.lan_bind_count = SC_DHCP_BINDS;
  for (uint32_t i = 0; i < SC_DHCP_BINDS; i++) {
    const struct DhcpStaticItem item = binding(i, changed_in(i, n));
    struct DhcpBindRecord* record = &wanted.lan_binds[i];
    record->slot_id = item.id;
    record->bind_flag = (int8_t)item.flag;
    record->bind_ip = inet_addr(item.ip);
    memcpy(record->bind_mac, item.mac, sizeof item.mac);
    memcpy(record->bind_name, item.name, sizeof item.name);
  }
}

/* The number of the state that an area would be in: the latest that one of its bindings names. */
static uint32_t named_state(const struct LanBlock* lan) {
  uint32_t latest = 0;
  for (uint32_t i = 0; i < SC_DHCP_BINDS; i++) {
    unsigned high, low;
    char mac[SC_MAC_TEXT + 1] = "";
    memcpy(mac, lan->lan_binds[i].bind_mac, SC_MAC_TEXT);
    if (sscanf(mac, "02:00:00:%*x:%x:%x", &high, &low) == 2 && high * 256 + low > latest) {
      latest = high * 256 + low;
    }
  }
  return latest;
}

/* -1: empty; -2: broken. */
static int32_t classify(const struct LanBlock* lan) {
  want_empty();
  if (memcmp(lan, &wanted, sizeof wanted) == 0) return -1;
  const uint32_t n = named_state(lan);
  want_state(n);
  return memcmp(lan, &wanted, sizeof wanted) == 0 ? (int32_t)n : -2;
}

static void show(void) {
  const int32_t state = classify(attach());
  if (state == -1) puts("state empty");
  if (state == -2) puts("state broken");
  if (state >= 0) printf("state %d\n", (int)state);
}

/* What is said must be on the wire before the next step: the host may cut the power any time. */
static void say(const char* what, uint32_t n) {
  printf("%s %u\n", what, (unsigned)n);
  fflush(stdout);
  tcdrain(STDOUT_FILENO);
}

static int save(struct LanBlock* lan, uint32_t n, int guarded) {
  say("save", n);
  SC_Save_System_Lan_Config2Flash(lan);
  if (guarded && system("scguard keep lan") != 0) return 1;
  say("saved", n);
  return 0;
}

/* Brings the area into state 0, when it is not in a state, or goes on from the state that it is
 * in, and saves `count` states more. */
static int run(uint32_t count, int guarded) {
  struct LanBlock* lan = attach();
  int32_t state = classify(lan);
  if (state < 0) {
    DelAllDhcpStaticItem(lan);
    for (uint32_t i = 0; i < SC_DHCP_BINDS; i++) {
      struct DhcpStaticItem item = binding(i, 0);
      if (AddDhcpStaticItem(lan, &item) != SC_LIST_OK) return 1;
    }
    state = 0;
    if (classify(lan) != state || save(lan, 0, guarded) != 0) return 1;
  }
  for (uint32_t n = (uint32_t)state + 1; n <= (uint32_t)state + count; n++) {
    struct DhcpStaticItem item = binding(n % SC_DHCP_BINDS, n);
    if (ModifyDhcpStaticItem(lan, &item) != SC_LIST_OK || save(lan, n, guarded) != 0) return 1;
  }
  return 0;
}

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "show") == 0) {
    show();
    return 0;
  }
  if (argc == 4 && strcmp(argv[1], "run") == 0) {
    return run((uint32_t)atoi(argv[2]), atoi(argv[3]));
  }
  fprintf(stderr,
          "usage: states show              say which state the Lan area is in\n"
          "       states run COUNT GUARD   save so many further states, with the guard if 1\n");
  return 2;
}
