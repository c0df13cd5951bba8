/* The typical request, from boot to power cut: make the Lan area, add a DHCP binding as an item,
 * save the area to flash, remove the segment, boot again, and find the binding where it was.
 *
 * It is built as a caller's program would be, against the installed library and for the small C
 * library, and run by examples/private_world. Without a configuration daemon each change says
 * "connect: ..." on stderr and goes on.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sysconfig/lan.h>

static struct LanBlock before;
static struct DhcpStaticItemList list;

static struct LanBlock* boot(void) {
  if (SC_Init_System_Lan_Config(1) != 0) {
    fprintf(stderr, "typical_request: the Lan area cannot be made\n");
    exit(1);
  }
  return (struct LanBlock*)(uintptr_t)SC_Get_Lan_System_Config();
}

static void show(const struct LanBlock* lan) {
  GetDhcpStaticItemList(lan, &list);
  for (uint32_t i = 0; i < list.count; i++) {
    printf("%d %s %s %s\n", (int)list.items[i].id, list.items[i].mac, list.items[i].ip,
           list.items[i].name);
  }
}

int main(void) {
  struct DhcpStaticItem item = {.flag = 1, .mac = "00:11:22:33:44:55", .ip = "192.168.1.20"};
  strcpy(item.name, "printer");

  struct LanBlock* lan = boot();
  const int32_t result = AddDhcpStaticItem(lan, &item);
  if (result != SC_LIST_OK) {
    fprintf(stderr, "typical_request: the binding was refused with %d\n", (int)result);
    return 1;
  }
  show(lan);
  SC_Save_System_Lan_Config2Flash(lan);
  memcpy(&before, lan, sizeof before);

  SC_Uninit_System_Lan_Config();
  lan = boot();
  show(lan);
  if (list.count != 1 || memcmp(&before, lan, sizeof before) != 0) {
    fprintf(stderr, "typical_request: the area came back changed\n");
    return 1;
  }
  puts("the same after the power cut");
  return 0;
}
