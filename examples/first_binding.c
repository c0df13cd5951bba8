#include <stdio.h>
#include <sysconfig/lan.h>

int main(void) {
  struct LanBlock* lan = (struct LanBlock*)(uintptr_t)SC_Get_Lan_System_Config();
  if (lan == NULL) return 1; /* there is none: it is made at boot, by SC_Init... */
  struct DhcpStaticItem item = {
      .flag = 1, .mac = "00:11:22:33:44:55", .ip = "192.168.1.20", .name = "printer"};
  if (AddDhcpStaticItem(lan, &item) != SC_LIST_OK) return 1; /* taken, or the table is full */
  SC_Save_System_Lan_Config2Flash(lan);                      /* to survive a restart */
  printf("%s is bound, one of %u\n", item.name, lan->lan_bind_count);
}
