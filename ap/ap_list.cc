/* The managed access points. This file knows only a few fields of their records. */
#include <string.h>

#include <sysconfig/ap.h>

#include "core/area.h"
#include "ap/rows.h"

using namespace sc;

namespace {

constexpr int8_t kOffline = -2;
constexpr char kNoInfo[sizeof(ApInfoRecord::group_info)] = {};

/* Writes group_id and group_info of the first AP with the MAC, under its lock. Returns 1, or 0 when
 * no AP has the MAC or the lock file cannot be opened. */
int32_t bind(ManageApListBlock* block, const char* info, int group, const uint8_t* mac) {
  LockFile file(block->header.lock_path);
  if (!file) return 0;
  int32_t position = find_mac(block, mac, kAps);
  if (position < 0) return 0;
  ApInfoRecord& ap = block->aps[position];
  ByteLock lock(file, &ap.lock_index);
  ap.group_id = static_cast<uint8_t>(group);
  memcpy(ap.group_info, info, sizeof ap.group_info);
  return 1;
}

}  // namespace

uint32_t SC_Get_ManageApList_System_Config(void) { return attach_area(kManageApList); }

int SC_Uninit_System_ManageApList_Config(void) { return remove_area(kManageApList); }

int SC_Init_System_ManageApList_Config(int read_flag) {
  return init_area(read_flag, kManageApList);
}

int SC_Read_System_ManageApList_Config(ManageApListBlock* block) {
  SC_CleanWtpFragBuffer(block);
  return load_area(block, kManageApList);
}

void SC_Save_System_ManageApList_Config(void) { announce_area(kManageApList); }

void SC_Save_System_ManageApList_Config2Flash(ManageApListBlock* block) {
  save_area(block, kManageApList);
}

int32_t SC_Get_Ap_Info_By_Id(const ManageApListBlock* block, uint32_t id) {
  return find_id(block, id, kAps);
}

int32_t SC_Get_Ap_Info_By_Mac(const ManageApListBlock* block, const uint8_t* mac) {
  return find_mac(block, mac, kAps);
}

/* Required: records with ids below 0 do not count against the limit, but are not free either. */
int32_t SC_Get_Ap_Info_Blank(ManageApListBlock* block, const ApLimitsRecord* limits) {
  int16_t used = 0;
  for (const ApInfoRecord& ap : block->aps) {
    if (static_cast<int32_t>(ap.ap_id) > 0) ++used;
  }
  if (used >= limits->max_ap_count) return -1;
  return claim_id(block, kAps);
}

int32_t SC_Get_Ap_Info_Count(const ManageApListBlock* block) { return count_used(block, kAps); }

int32_t SC_Get_Ap_Info_Count_Online(const ManageApListBlock* block) {
  int32_t online = 0;
  if (block == nullptr) return online;
  for (const ApInfoRecord& ap : block->aps) {
    if (ap.ap_id != 0 && ap.run_state > kOffline) ++online;
  }
  return online;
}

int32_t SC_Get_Ap_Info_Count_Offline(const ManageApListBlock* block) {
  int32_t offline = 0;
  if (block == nullptr) return offline;
  for (const ApInfoRecord& ap : block->aps) {
    if (ap.ap_id != 0 && ap.run_state == kOffline) ++offline;
  }
  return offline;
}

int32_t SC_Get_Ap_Info_Count_And_Id(uint32_t* positions, const ManageApListBlock* block) {
  if (block == nullptr) return 0;
  memset(positions, 0xff, SC_ACCESS_POINTS * sizeof *positions);
  int32_t used = 0;
  for (uint32_t position = 0; position < SC_ACCESS_POINTS; ++position) {
    if (block->aps[position].ap_id != 0) positions[used++] = position;
  }
  return used;
}

int32_t SC_Del_Ap_Info_by_Mac(ManageApListBlock* block, const uint8_t* mac) {
  return delete_mac(block, mac, kAps);
}

int32_t SC_Ap_Add_GroupInfo_by_Mac(ManageApListBlock* block, const char* info, int group,
                                   const uint8_t* mac) {
  return bind(block, info, group, mac);
}

int32_t SC_Ap_Clean_GroupInfo_by_Mac(ManageApListBlock* block, const uint8_t* mac) {
  return bind(block, kNoInfo, 0, mac);
}

/* Required: it clears whole records, despite its name. */
int32_t SC_Set_Ap_Info_Id2Zero(ManageApListBlock* block) {
  LockFile file(block->header.lock_path);
  if (!file) return 0;
  int32_t cleared = 0;
  for (uint32_t position = 0; position < SC_ACCESS_POINTS; ++position) {
    if (block->aps[position].ap_id == 0) continue;
    clear_record(block, position, file, kAps);
    ++cleared;
  }
  return cleared;
}

void SC_CleanWtpFragBuffer(ManageApListBlock* block) {
  for (ApInfoRecord& ap : block->aps) ap.wtp_frag_len = 0;
}
