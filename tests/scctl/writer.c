/* A program that changes the store as the tests of watch need it, and ends at once: each of its changes
 * names the process.
 *
 * usage: writer POSITION [COUNT [each]]   renames a LAN binding, so often, each time when there is a byte
 *                                         on standard input
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sysconfig/lan.h>

int main(int argc, char** argv) {
  struct LanBlock* lan = (struct LanBlock*)(uintptr_t)SC_Get_Lan_System_Config();
  uint32_t position = argc > 1 ? (uint32_t)atoi(argv[1]) : 0;
  const int count = argc > 2 ? atoi(argv[2]) : 1;
  struct DhcpBindRecord record;
  if (lan == NULL) return 1;
  record = lan->lan_binds[position];
  for (int n = 0; n < count; ++n) {
    char byte;
    if (argc > 3 && read(STDIN_FILENO, &byte, 1) != 1) return 1;
    snprintf(record.bind_name, sizeof record.bind_name, "%d.%d", (int)getpid(), n);
    if (SC_Operate_System_List_DhcpdBind(lan, LIST_OP_MODIFY, &position, &record) != SC_LIST_OK)
      return 1;
  }
  return 0;
}
