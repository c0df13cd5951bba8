/* DHCP static bindings: the LAN table and the access controller's, alike but for their place and
 * their counter. Here slot_id stands before lock_index, in all other tables behind it.
 */
#include <string.h>

#include <sysconfig/lan.h>

#include "core/address.h"
#include "core/bytes.h"
#include "core/rows.h"
#include "core/text.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(DhcpBindRecord, bind_flag, DhcpStaticItem, flag),
    SC_FIELD(DhcpBindRecord, bind_mac, DhcpStaticItem, mac),
    SC_FIELD(DhcpBindRecord, bind_ip, DhcpStaticItem, ip),
    SC_FIELD(DhcpBindRecord, bind_name, DhcpStaticItem, name),
};

consteval List binds(Geometry geometry, Counter counter) {
  return {
      .table = {.geometry = geometry,
                .modify_range = SC_LIST_MOD_RANGE,
                .keys = {SC_TEXT_KEY(DhcpBindRecord, bind_mac),
                         SC_BYTES_KEY(DhcpBindRecord, bind_ip)},
                .payload = payload(kFields)},
      .code = SC_CODE_LAN,
      .counter = counter,
      .item_size = SC_ITEM_SIZE(DhcpStaticItem, LanBlock, lan_binds),
  };
}

constexpr List kLanBinds =
    binds(SC_GEOMETRY(LanBlock, lan_binds), SC_COUNTER(LanBlock, lan_bind_count));
constexpr List kAcBinds =
    binds(SC_GEOMETRY(LanBlock, ac_binds), SC_COUNTER(LanBlock, ac_bind_count));

/* get_items for both tables, written out by members: it takes two thirds of the time that rows
 * take. */
void list_bindings(const DhcpBindRecord (&binds)[SC_DHCP_BINDS], DhcpStaticItemList* list) {
  memset(list, 0, sizeof *list);
  DhcpStaticItem* item = list->items;
  AddressWriter addresses;
  const DhcpBindRecord* bind = binds;
  do {
    const int32_t id = bind->slot_id;
    if (id < 0) continue;
    item->id = id;
    store<int32_t>(&item->flag, bind->bind_flag);
    copy_short_text(item->mac, bind->bind_mac, sizeof item->mac);
    addresses.write(bind->bind_ip, item->ip);
    copy_over_zeroes(item->name, bind->bind_name);
    ++item;
  } while (++bind != binds + SC_DHCP_BINDS);
  list->count = static_cast<uint32_t>(item - list->items);
  list->capacity = SC_DHCP_BINDS;
}

}  // namespace

int32_t SC_Operate_System_List_DhcpdBind(LanBlock* block, uint32_t op, uint32_t* index,
                                         const DhcpBindRecord* record) {
  return operate(block, op, index, record, kLanBinds.table);
}

int32_t SC_Operate_System_List_GetDhcpdBind_Blank(LanBlock* block) {
  return claim(block, kLanBinds.table.geometry);
}

int32_t SC_Operate_System_List_DhcpdBindCheckIpMac(const LanBlock* block,
                                                   const DhcpBindRecord* record,
                                                   uint32_t skip_slot) {
  return find_clash(block, record, skip_slot, kLanBinds.table);
}

int32_t SC_Operate_System_List_AC_DhcpdBind(LanBlock* block, uint32_t op, uint32_t* index,
                                            const DhcpBindRecord* record) {
  return operate(block, op, index, record, kAcBinds.table);
}

int32_t SC_Operate_System_List_AC_GetDhcpdBind_Blank(LanBlock* block) {
  return claim(block, kAcBinds.table.geometry);
}

int32_t SC_Operate_System_List_AC_DhcpdBindCheckIpMac(const LanBlock* block,
                                                      const DhcpBindRecord* record,
                                                      uint32_t skip_slot) {
  return find_clash(block, record, skip_slot, kAcBinds.table);
}

void GetDhcpStaticItemList(const LanBlock* block, DhcpStaticItemList* list) {
  if (block != nullptr) list_bindings(block->lan_binds, list);
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

void DelDhcpStaticItem(LanBlock* block, char* ids) { delete_items(block, ids, kLanBinds); }

void DelAllDhcpStaticItem(LanBlock* block) { delete_all_items(block, kLanBinds); }

void AC_GetDhcpStaticItemList(const LanBlock* block, DhcpStaticItemList* list) {
  if (block != nullptr) list_bindings(block->ac_binds, list);
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

void AC_DelDhcpStaticItem(LanBlock* block, char* ids) { delete_items(block, ids, kAcBinds); }

void AC_DelAllDhcpStaticItem(LanBlock* block) { delete_all_items(block, kAcBinds); }
