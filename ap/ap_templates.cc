/* AP templates and the binding of an AP to one. A template's lock is always taken before its
 * AP's. */
#include <string.h>

#include <sysconfig/ap.h>

#include "core/area.h"
#include "ap/rows.h"

using namespace sc;

namespace {

static_assert(sizeof(ApTemplateRecord::template_name) == sizeof(ApInfoRecord::group_info));

constexpr uint8_t kNobody[SC_MAC_BYTES] = {};

bool equal(const uint8_t* one, const uint8_t* other) {
  return memcmp(one, other, SC_MAC_BYTES) == 0;
}

/* Binds the AP to the template with the id, or unbinds it from that template. */
void change_binding(ApTemplateListBlock* block, ManageApListBlock* aps, uint32_t id,
                    const uint8_t* mac, bool bind) {
  LockFile file(block->header.lock_path);
  if (!file) return;
  int32_t position = find_id(block, id, kApTemplates);
  if (position < 0) return;
  ApTemplateRecord& target = block->templates[position];
  ByteLock lock(file, &target.lock_index);
  bool bound = equal(target.bound_ap_mac, mac);
  if (bind && (bound || equal(target.bound_ap_mac, kNobody))) {
    /* Required: an AP that is not in the list is bound, too. */
    SC_Ap_Add_GroupInfo_by_Mac(aps, target.template_name, static_cast<int>(target.template_id),
                               mac);
    memcpy(target.bound_ap_mac, mac, SC_MAC_BYTES);
  } else if (!bind && bound) {
    memset(target.bound_ap_mac, 0, SC_MAC_BYTES);
    SC_Ap_Clean_GroupInfo_by_Mac(aps, mac);
  }
}

}  // namespace

uint32_t SC_Get_ApTemplateList_System_Config(void) { return attach_area(kApTemplateList); }

int SC_Uninit_System_ApTemplateList_Config(void) { return remove_area(kApTemplateList); }

int SC_Init_System_ApTemplateList_Config(int read_flag) {
  return init_area(read_flag, kApTemplateList);
}

int SC_Read_System_ApTemplateList_Config(ApTemplateListBlock* block) {
  return load_area(block, kApTemplateList);
}

void SC_Save_System_ApTemplateList_Config(void) { announce_area(kApTemplateList); }

void SC_Save_System_ApTemplateList_Config2Flash(ApTemplateListBlock* block) {
  save_area(block, kApTemplateList);
}

int32_t SC_Get_AP_Template_Info_By_Id(const ApTemplateListBlock* block, uint32_t id) {
  return find_id(block, id, kApTemplates);
}

int32_t SC_Get_AP_Template_Info_Blank(ApTemplateListBlock* block) {
  return claim_id(block, kApTemplates);
}

int32_t SC_Get_AP_Template_Info_Count(const ApTemplateListBlock* block) {
  return count_used(block, kApTemplates);
}

/* Required: it takes a position, despite its name. */
int32_t SC_Del_AP_Template_Info_By_Id(ApTemplateListBlock* block, uint32_t position) {
  LockFile file(block->header.lock_path);
  if (!file) return 0;
  clear_record(block, position, file, kApTemplates);
  return 1;
}

/* Required: the result is always 0. */
int32_t SC_Add_Ap_Mac2Template_By_Id(ApTemplateListBlock* block, ManageApListBlock* aps,
                                     uint32_t id, const uint8_t* mac) {
  change_binding(block, aps, id, mac, true);
  return 0;
}

int32_t SC_Del_Ap_Mac2Template_By_Id(ApTemplateListBlock* block, ManageApListBlock* aps,
                                     uint32_t id, const uint8_t* mac) {
  change_binding(block, aps, id, mac, false);
  return 0;
}
