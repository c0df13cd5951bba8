/* AP templates and the binding of an AP to one. A template's lock is taken before its AP's,
 * never the other way round. */
#include <string.h>

#include <sysconfig/ap.h>

#include "core/area.h"
#include "ap/id_table.h"

using namespace sc;

namespace {

constexpr IdTable kTemplates =
    SC_ID_TABLE(ApTemplateListBlock, templates, ApTemplateRecord, template_id, bound_ap_mac);

constexpr uint8_t kNobody[SC_MAC_BYTES] = {};

bool equal(const uint8_t* one, const uint8_t* other) {
  return memcmp(one, other, SC_MAC_BYTES) == 0;
}

}  // namespace

uint32_t SC_Get_ApTemplateList_System_Config(void) {
  return get(kApTemplateList);
}

int SC_Uninit_System_ApTemplateList_Config(void) {
  return uninit(kApTemplateList);
}

int SC_Init_System_ApTemplateList_Config(int read_flag) {
  return init(kApTemplateList, read_flag);
}

int SC_Read_System_ApTemplateList_Config(ApTemplateListBlock* block) {
  return read(kApTemplateList, block);
}

void SC_Save_System_ApTemplateList_Config(void) {
  save(kApTemplateList);
}

void SC_Save_System_ApTemplateList_Config2Flash(ApTemplateListBlock* block) {
  save_to_flash(kApTemplateList, block);
}

int32_t SC_Get_AP_Template_Info_By_Id(const ApTemplateListBlock* block, uint32_t id) {
  return find_id(kTemplates, block, id);
}

int32_t SC_Get_AP_Template_Info_Blank(ApTemplateListBlock* block) {
  return claim_id(kTemplates, block);
}

int32_t SC_Get_AP_Template_Info_Count(const ApTemplateListBlock* block) {
  return count_used(kTemplates, block);
}

/* Required: takes a position, despite the name. */
int32_t SC_Del_AP_Template_Info_By_Id(ApTemplateListBlock* block, uint32_t position) {
  LockFile file(block->header.lock_path);
  if (!file) return 0;
  clear_record(kTemplates, file, block, position);
  return 1;
}

/* Required: 0 in every case; an AP that is not in the list is bound all the same. */
int32_t SC_Add_Ap_Mac2Template_By_Id(ApTemplateListBlock* block, ManageApListBlock* aps,
                                     uint32_t id, const uint8_t* mac) {
  LockFile file(block->header.lock_path);
  if (!file) return 0;
  int32_t position = find_id(kTemplates, block, id);
  if (position < 0) return 0;
  ApTemplateRecord& bound = block->templates[position];
  ByteLock lock(file, &bound.lock_index);
  bool same = equal(bound.bound_ap_mac, mac);
  if (!same && !equal(bound.bound_ap_mac, kNobody)) return 0;
  SC_Ap_Add_GroupInfo_by_Mac(aps, bound.template_name, static_cast<int>(bound.template_id), mac);
  if (!same) memcpy(bound.bound_ap_mac, mac, SC_MAC_BYTES);
  return 0;
}

int32_t SC_Del_Ap_Mac2Template_By_Id(ApTemplateListBlock* block, ManageApListBlock* aps,
                                     uint32_t id, const uint8_t* mac) {
  LockFile file(block->header.lock_path);
  if (!file) return 0;
  int32_t position = find_id(kTemplates, block, id);
  if (position < 0) return 0;
  ApTemplateRecord& bound = block->templates[position];
  ByteLock lock(file, &bound.lock_index);
  if (!equal(bound.bound_ap_mac, mac)) return 0;
  memset(bound.bound_ap_mac, 0, SC_MAC_BYTES);
  SC_Ap_Clean_GroupInfo_by_Mac(aps, mac);
  return 0;
}
