/* Rows of the areas, and boot, save and power cut over all of them. */
#include "areas.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include "page.h"

/* Every area that is saved: name in the functions, block, suffix of its code. */
// clang-format off
#define SAVED(area)                                 \
  area(Lan, LanBlock, LAN)                          \
  area(Wan, WanBlock, WAN)                          \
  area(ProductInfo, ProductInfoBlock, PRODUCT_INFO) \
  area(Misc, MiscBlock, MISC)                       \
  area(VsIpport, VsIpportBlock, VS_IPPORT)          \
  area(FwIpport, FwIpportBlock, FW_IPPORT)          \
  area(IpGroup, IpGroupBlock, IP_GROUP)             \
  area(TimeGroup, TimeGroupBlock, TIME_GROUP)       \
  area(FwMac, FwMacBlock, FW_MAC)                   \
  area(FwUrl, FwUrlBlock, FW_URL)                   \
  area(Qos, QosBlock, QOS)                          \
  area(ManageApList, ManageApListBlock, MANAGE_AP_LIST)

/* Behind the AP users. */
#define SAVED_LAST(area)                                    \
  area(ApTemplateList, ApTemplateListBlock, AP_TEMPLATE_LIST) \
  area(DefApTemplate, DefApTemplateBlock, DEF_AP_TEMPLATE)  \
  area(Clients_Groups, ClientsGroupsBlock, CLIENTS_GROUPS)  \
  area(Clients, ClientsBlock, CLIENTS)
// clang-format on

#define SAVE(name, Block, suffix)                             \
  static void save_##name(uint32_t address) {                 \
    SC_Save_System_##name##_Config2Flash(AT(Block, address)); \
  }
SAVED(SAVE)
SAVED_LAST(SAVE)

#define ROW(name, Block, suffix) {#name, sizeof(struct Block), SC_CODE_##suffix, save_##name},
const struct Area kAreas[AREAS] = {
    SAVED(ROW){"ApUserList", sizeof(struct ApUserListBlock), 0, NULL}, SAVED_LAST(ROW)};

const char* area_of_code(int32_t code) {
  for (int i = 0; i < AREAS; i++) {
    if (kAreas[i].code == code && code != 0) return kAreas[i].name;
  }
  return "unknown";
}

void boot(struct SystemConfigDirectory* directory) {
  type("scctl init --all");
  SC_Get_SysConfig(directory);
}

uint32_t address_of(const struct SystemConfigDirectory* directory, int place) {
  uint32_t address;
  memcpy(&address, (const char*)directory + 4 * place, sizeof address);
  return address;
}

void save_area(const struct Area* area, uint32_t address) {
  int terminal = dup(STDERR_FILENO);
  int remarks = open("/var/remarks", O_RDWR | O_CREAT | O_TRUNC, 0600);
  if (terminal < 0 || remarks < 0) {
    perror("demo: /var/remarks");
    exit(STATUS_CANNOT_RUN);
  }
  fflush(stdout);
  dup2(remarks, STDERR_FILENO);
  area->save_to_flash(address);
  fflush(stdout);
  dup2(terminal, STDERR_FILENO);
  close(terminal);

  lseek(remarks, 0, SEEK_SET);
  FILE* file = fdopen(remarks, "r");
  char line[256];
  while (fgets(line, sizeof line, file) != NULL) {
    if (strncasecmp(line, "tar: removing leading", 21) != 0) fputs(line, stderr);
  }
  fclose(file);
}

void cut_power(void) { type("scctl remove --all; rm -rf /var/lock_store/* /var/systemconfig/*"); }
