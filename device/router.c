/* The programs of a small router, as one command for the box: what makes the areas at boot, the
 * configuration daemon, and the page that edits the DHCP bindings of the LAN.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

static const struct {
  const char* name;
  int (*init)(int read_flag);
} kInits[] = {
    {"Lan", SC_Init_System_Lan_Config},
    {"Wan", SC_Init_System_Wan_Config},
    {"ProductInfo", SC_Init_System_ProductInfo_Config},
    {"Misc", SC_Init_System_Misc_Config},
    {"VsIpport", SC_Init_System_VsIpport_Config},
    {"FwIpport", SC_Init_System_FwIpport_Config},
    {"IpGroup", SC_Init_System_IpGroup_Config},
    {"TimeGroup", SC_Init_System_TimeGroup_Config},
    {"FwMac", SC_Init_System_FwMac_Config},
    {"FwUrl", SC_Init_System_FwUrl_Config},
    {"Qos", SC_Init_System_Qos_Config},
    {"ManageApList", SC_Init_System_ManageApList_Config},
    {"ApTemplateList", SC_Init_System_ApTemplateList_Config},
    {"DefApTemplate", SC_Init_System_DefApTemplate_Config},
    {"Clients_Groups", SC_Init_System_Clients_Groups_Config},
    {"Clients", SC_Init_System_Clients_Config},
};

static int make_areas(void) {
  int failed = 0;
  for (size_t i = 0; i < sizeof kInits / sizeof *kInits; i++) {
    const int status = kInits[i].init(1);
    if (status != 0) {
      fprintf(stderr, "router: area %s cannot be created: %d\n", kInits[i].name, status);
      failed = 1;
    }
  }
  const int status = SC_Init_System_ApUserList_Config();
  if (status != 0) {
    fprintf(stderr, "router: area ApUserList cannot be created: %d\n", status);
    failed = 1;
  }
  return failed;
}

/* The configuration daemon: says which area changed. Ends with the box. */
static int listen_for_changes(void) {
  struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "/var/config_socket"};
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  if (listener < 0 || bind(listener, (struct sockaddr*)&address, sizeof address) != 0 ||
      listen(listener, 16) != 0) {
    perror("router: /var/config_socket");
    return 1;
  }
  if (daemon(1, 1) != 0) {
    perror("router: daemon");
    return 1;
  }
  for (;;) {
    const int change = accept(listener, NULL, NULL);
    int32_t code;
    if (change < 0) continue;
    if (recv(change, &code, sizeof code, MSG_WAITALL) == sizeof code) {
      printf("configuration daemon: area %d changed\n", (int)code);
      fflush(stdout);
    }
    close(change);
  }
}

static struct LanBlock* attach(void) {
  struct LanBlock* lan = (struct LanBlock*)(uintptr_t)SC_Get_Lan_System_Config();
  if (lan == NULL) {
    fprintf(stderr, "router: there is no Lan area\n");
    exit(1);
  }
  return lan;
}

static int add(const char* mac, const char* ip, const char* name) {
  struct DhcpStaticItem item = {.flag = 1};
  snprintf(item.mac, sizeof item.mac, "%s", mac);
  snprintf(item.ip, sizeof item.ip, "%s", ip);
  snprintf(item.name, sizeof item.name, "%s", name);
  const int result = AddDhcpStaticItem(attach(), &item);
  if (result != SC_LIST_OK) fprintf(stderr, "router: the binding was refused with %d\n", result);
  return result != SC_LIST_OK;
}

static void list(void) {
  static struct DhcpStaticItemList bindings;
  GetDhcpStaticItemList(attach(), &bindings);
  printf("%u bindings\n", (unsigned)bindings.count);
  for (uint32_t i = 0; i < bindings.count; i++) {
    const struct DhcpStaticItem* item = &bindings.items[i];
    printf("%2d  %.20s  %-15.16s  %.200s\n", (int)item->id, item->mac, item->ip, item->name);
  }
}

int main(int argc, char** argv) {
  const char* command = argc > 1 ? argv[1] : "";
  if (argc == 2 && strcmp(command, "init") == 0) return make_areas();
  if (argc == 2 && strcmp(command, "listen") == 0) return listen_for_changes();
  if (argc == 5 && strcmp(command, "add") == 0) return add(argv[2], argv[3], argv[4]);
  if (argc == 3 && strcmp(command, "delete") == 0) {
    DelDhcpStaticItem(attach(), argv[2]);
    return 0;
  }
  if (argc == 2 && strcmp(command, "list") == 0) {
    list();
    return 0;
  }
  if (argc == 2 && strcmp(command, "save") == 0) {
    SC_Save_System_Lan_Config2Flash(attach());
    return 0;
  }
  fprintf(stderr,
          "usage: router init              make all areas, as at boot\n"
          "       router listen            be the configuration daemon\n"
          "       router add MAC IP NAME   add a DHCP binding\n"
          "       router delete ID[#ID]... delete DHCP bindings\n"
          "       router list              list the DHCP bindings\n"
          "       router save              save the Lan area to flash\n");
  return 2;
}
