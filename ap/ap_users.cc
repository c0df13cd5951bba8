/* The run-time table of AP users: it is never saved, and its header differs from that of other
 * areas. */
#include <sysconfig/ap.h>

#include "core/area.h"
#include "ap/rows.h"

using namespace sc;

uint32_t SC_Get_ApUserList_System_Config(void) { return attach_area(kApUserList); }

int SC_Uninit_System_ApUserList_Config(void) { return remove_area(kApUserList); }

/* Required: no flag, no archive. */
int SC_Init_System_ApUserList_Config(void) { return init_run_time_area(kApUserList); }

int32_t SC_Get_ApUser_Info_By_Id(const ApUserListBlock* block, uint32_t id) {
  return find_id(block, id, kApUsers);
}

int32_t SC_Get_ApUser_Info_By_Mac(const ApUserListBlock* block, const uint8_t* mac) {
  return find_mac(block, mac, kApUsers);
}

int32_t SC_Del_ApUser_Info_by_Mac(ApUserListBlock* block, const uint8_t* mac) {
  return delete_mac(block, mac, kApUsers);
}

int32_t SC_Get_ApUser_Info_Blank(ApUserListBlock* block) { return claim_id(block, kApUsers); }

int32_t SC_Get_ApUser_Info_Count(const ApUserListBlock* block) {
  return count_used(block, kApUsers);
}
