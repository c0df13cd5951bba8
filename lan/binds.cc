/* DHCP static bindings: the LAN table and the access controller's. Their listings use the unrolled
 * row, because pages read them most. */
#include <sysconfig/lan.h>

#include "core/unrolled.h"
#include "lan/rows.h"

using namespace sc;

namespace {

void list_binds(const DhcpBindRecord (&binds)[SC_DHCP_BINDS], DhcpStaticItemList* list) {
  get_items_unrolled<kLanBinds>(reinterpret_cast<const uint8_t*>(binds),
                                reinterpret_cast<ItemListHead*>(list));
}

}  // namespace

int32_t SC_Operate_System_List_DhcpdBind(LanBlock* block, uint32_t op, uint32_t* position,
                                         const DhcpBindRecord* record) {
  return operate(block, op, position, record, kLanBinds.list.table);
}

int32_t SC_Operate_System_List_GetDhcpdBind_Blank(LanBlock* block) {
  return claim(block, kLanBinds.list.table.geometry);
}

int32_t SC_Operate_System_List_DhcpdBindCheckIpMac(const LanBlock* block,
                                                   const DhcpBindRecord* record,
                                                   uint32_t skip_slot) {
  return find_clash(block, record, skip_slot, kLanBinds.list.table);
}

int32_t SC_Operate_System_List_AC_DhcpdBind(LanBlock* block, uint32_t op, uint32_t* position,
                                            const DhcpBindRecord* record) {
  return operate(block, op, position, record, kAcBinds.list.table);
}

int32_t SC_Operate_System_List_AC_GetDhcpdBind_Blank(LanBlock* block) {
  return claim(block, kAcBinds.list.table.geometry);
}

int32_t SC_Operate_System_List_AC_DhcpdBindCheckIpMac(const LanBlock* block,
                                                      const DhcpBindRecord* record,
                                                      uint32_t skip_slot) {
  return find_clash(block, record, skip_slot, kAcBinds.list.table);
}

void GetDhcpStaticItemList(const LanBlock* block, DhcpStaticItemList* list) {
  if (block != nullptr) list_binds(block->lan_binds, list);
}

void GetDhcpStaticItem(const LanBlock* block, uint32_t id, DhcpStaticItem* item) {
  get_item(block, id, item, kLanBinds);
}

int32_t AddDhcpStaticItem(LanBlock* block, const DhcpStaticItem* item) {
  return add_item(block, item, kLanBinds);
}

int32_t ModifyDhcpStaticItem(LanBlock* block, const DhcpStaticItem* item) {
  return modify_item(block, item, kLanBinds);
}

void DelDhcpStaticItem(LanBlock* block, char* ids) { delete_items(block, ids, kLanBinds.list); }

void DelAllDhcpStaticItem(LanBlock* block) { delete_all_items(block, kLanBinds.list); }

void AC_GetDhcpStaticItemList(const LanBlock* block, DhcpStaticItemList* list) {
  if (block != nullptr) list_binds(block->ac_binds, list);
}

void AC_GetDhcpStaticItem(const LanBlock* block, uint32_t id, DhcpStaticItem* item) {
  get_item(block, id, item, kAcBinds);
}

int32_t AC_AddDhcpStaticItem(LanBlock* block, const DhcpStaticItem* item) {
  return add_item(block, item, kAcBinds);
}

int32_t AC_ModifyDhcpStaticItem(LanBlock* block, const DhcpStaticItem* item) {
  return modify_item(block, item, kAcBinds);
}

void AC_DelDhcpStaticItem(LanBlock* block, char* ids) { delete_items(block, ids, kAcBinds.list); }

void AC_DelAllDhcpStaticItem(LanBlock* block) { delete_all_items(block, kAcBinds.list); }
