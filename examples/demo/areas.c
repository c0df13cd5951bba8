/* Rows of the areas, and boot, save and power cut over all of them. */
#include "areas.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

/* Every area that is saved: name in the functions, block, stem, suffix of its numbers. */
#define SAVED(area)                                                                               \
  area(Lan, LanBlock, "lan", LAN) area(Wan, WanBlock, "wan", WAN) area(                           \
      ProductInfo, ProductInfoBlock, "product", PRODUCT_INFO) area(Misc, MiscBlock, "misc", MISC) \
      area(VsIpport, VsIpportBlock, "vs_ipport", VS_IPPORT)                                       \
          area(FwIpport, FwIpportBlock, "fw_ipport", FW_IPPORT)                                   \
              area(IpGroup, IpGroupBlock, "ipgroup", IP_GROUP)                                    \
                  area(TimeGroup, TimeGroupBlock, "timegroup", TIME_GROUP)                        \
                      area(FwMac, FwMacBlock, "fw_mac", FW_MAC) area(                             \
                          FwUrl, FwUrlBlock, "fw_url", FW_URL) area(Qos, QosBlock, "qos", QOS)    \
                          area(ManageApList, ManageApListBlock, "mange_aplist", MANAGE_AP_LIST)

/* Behind the AP users. */
#define SAVED_LAST(area)                                                             \
  area(ApTemplateList, ApTemplateListBlock, "aptemplatelist", AP_TEMPLATE_LIST)      \
      area(DefApTemplate, DefApTemplateBlock, "defaptemplate", DEF_AP_TEMPLATE)      \
          area(Clients_Groups, ClientsGroupsBlock, "clients_groups", CLIENTS_GROUPS) \
              area(Clients, ClientsBlock, "clients", CLIENTS)

#define SAVE(name, Block, stem, suffix)                       \
  static void save_##name(uint32_t address) {                 \
    SC_Save_System_##name##_Config2Flash(AT(Block, address)); \
  }
SAVED(SAVE)
SAVED_LAST(SAVE)

static int init_ap_users(int read_flag) {
  (void)read_flag; /* nothing to read: the AP users are never saved */
  return SC_Init_System_ApUserList_Config();
}

#define ROW(name, Block, stem, suffix) \
  {#name,                              \
   stem,                               \
   sizeof(struct Block),               \
   SC_KEY_##suffix,                    \
   SC_CODE_##suffix,                   \
   SC_Init_System_##name##_Config,     \
   SC_Uninit_System_##name##_Config,   \
   SC_Get_##name##_System_Config,      \
   save_##name},

const struct Area kAreas[AREAS] = {
    SAVED(ROW){"ApUserList", NULL, sizeof(struct ApUserListBlock), SC_KEY_AP_USER_LIST, 0,
               init_ap_users, SC_Uninit_System_ApUserList_Config, SC_Get_ApUserList_System_Config,
               NULL},
    SAVED_LAST(ROW)};

const char* area_of_code(int32_t code) {
  for (int i = 0; i < AREAS; i++) {
    if (kAreas[i].code == code && code != 0) return kAreas[i].name;
  }
  return "unknown";
}

void boot(struct SystemConfigDirectory* directory) {
  for (int i = 0; i < AREAS; i++) {
    int status = kAreas[i].init(1);
    if (status != 0) {
      fprintf(stderr, "demo: Init of %s: %s\n", kAreas[i].name,
              status > 0 ? strerror(status) : "cannot be attached");
      exit(STATUS_CANNOT_RUN);
    }
  }
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

const char* archive_of(const struct Area* area) {
  static char path[64];
  snprintf(path, sizeof path, "/var/dataconfig/config_%s.bin", area->stem);
  return path;
}

long archive_size(const struct Area* area) {
  struct stat file;
  return stat(archive_of(area), &file) == 0 ? (long)file.st_size : 0;
}

int count_segments(void) {
  int count = 0;
  for (int i = 0; i < AREAS; i++) count += kAreas[i].get() != 0;
  return count;
}

void cut_power(void) {
  for (int i = 0; i < AREAS; i++) kAreas[i].uninit();
  sc_do_system("rm -f /var/lock_store/* /var/systemconfig/*");
}
