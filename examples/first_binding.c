#include <stdio.h>
#include <sysconfig/lan.h>

int main(void) {
  SC_Init_System_Lan_Config(1); /* at boot: make the area, load its flash archive */
  struct LanBlock* lan = (struct LanBlock*)(uintptr_t)SC_Get_Lan_System_Config();
  struct DhcpStaticItem item = {
      .flag = 1, .mac = "00:11:22:33:44:55", .ip = "192.168.1.20", .name = "printer"};
  if (AddDhcpStaticItem(lan, &item) != SC_LIST_OK) return 1; /* taken, or the table is full */
  SC_Save_System_Lan_Config2Flash(lan);                      /* to survive a restart */
  printf("%u binding: %s\n", lan->lan_bind_count, lan->lan_binds[0].bind_name);
}
