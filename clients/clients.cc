/* Clients, keyed by their MAC. An item is laid out as the first bytes of its record, so the frame
 * works on it without a map. The MAC is the record's identity: add writes it, delete clears it,
 * modify leaves it. */
#include <string.h>

#include <sysconfig/clients.h>

#include "core/area.h"
#include "core/rows.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(ClientRecord, field_14, ClientsItem, field_14),
    SC_FIELD(ClientRecord, field_16, ClientsItem, field_16),
    SC_FIELD(ClientRecord, field_20, ClientsItem, field_20),
    SC_FIELD(ClientRecord, field_24, ClientsItem, field_24),
    SC_FIELD(ClientRecord, field_26, ClientsItem, field_26),
    SC_FIELD(ClientRecord, field_27, ClientsItem, field_27),
    SC_FIELD(ClientRecord, field_28, ClientsItem, field_28),
    SC_FIELD(ClientRecord, field_29, ClientsItem, field_29),
    SC_FIELD(ClientRecord, field_30, ClientsItem, field_30),
    SC_FIELD(ClientRecord, field_31, ClientsItem, field_31),
    SC_FIELD(ClientRecord, field_32, ClientsItem, field_32),
    SC_FIELD(ClientRecord, field_34, ClientsItem, field_34),
    SC_FIELD(ClientRecord, field_36, ClientsItem, field_36),
    SC_FIELD(ClientRecord, field_40, ClientsItem, field_40),
    SC_FIELD(ClientRecord, field_44, ClientsItem, field_44),
    SC_FIELD(ClientRecord, field_48, ClientsItem, field_48),
    SC_FIELD(ClientRecord, text_52, ClientsItem, text_52),
    SC_FIELD(ClientRecord, text_82, ClientsItem, text_82),
    SC_FIELD(ClientRecord, text_102, ClientsItem, text_102),
    SC_FIELD(ClientRecord, text_122, ClientsItem, text_122),
    SC_FIELD(ClientRecord, text_142, ClientsItem, text_142),
    SC_FIELD(ClientRecord, text_162, ClientsItem, text_162),
    SC_FIELD(ClientRecord, text_182, ClientsItem, text_182),
};

constexpr List kClientList = {
    .table = {.geometry = SC_GEOMETRY(ClientsBlock, clients),
              .modify_range = SC_LIST_MOD_RANGE,
              .identity = SC_IDENTITY(ClientRecord, client_mac),
              .keys = {SC_BYTES_KEY(ClientRecord, client_mac)},
              .payload = payload(kFields)},
    .code = SC_CODE_CLIENTS,
};

static_assert(offsetof(ClientsItem, client_mac) == offsetof(ClientRecord, client_mac));
static_assert(sizeof(ClientsItem) == offsetof(ClientRecord, spare_217));

}  // namespace

uint32_t SC_Get_Clients_System_Config(void) { return get(kClients); }

int SC_Uninit_System_Clients_Config(void) { return uninit(kClients); }

int SC_Init_System_Clients_Config(int read_flag) { return init(read_flag, kClients); }

int SC_Read_System_Clients_Config(ClientsBlock* block) { return read(block, kClients); }

void SC_Save_System_Clients_Config(void) { save(kClients); }

void SC_Save_System_Clients_Config2Flash(ClientsBlock* block) { save_to_flash(block, kClients); }

int32_t SC_Operate_System_List_Clients(ClientsBlock* block, uint32_t op, uint32_t* index,
                                       const ClientsItem* item) {
  return operate(block, op, index, item, kClientList.table);
}

int32_t SC_Operate_System_List_GetClients_Blank(ClientsBlock* block) {
  return claim(block, kClientList.table.geometry);
}

int32_t SC_Operate_System_List_ClientsCheckMac(const ClientsBlock* block, const ClientsItem* item,
                                               uint32_t skip_slot) {
  return find_clash(block, item, skip_slot, kClientList.table);
}

int32_t AddClientsItem(ClientsBlock* block, const ClientsItem* item) {
  return add_record(block, item, kClientList);
}

/* Required: the check sees a zero MAC, not the item's. What lies between the item's fields is
 * copied here but goes no further. */
int32_t ModifyClientsItem(ClientsBlock* block, const ClientsItem* item) {
  ClientsItem scratch = *item;
  memset(scratch.client_mac, 0, sizeof scratch.client_mac);
  return modify_record(block, static_cast<uint32_t>(item->slot_id), &scratch, kClientList);
}

void DelClientsItem(ClientsBlock* block, char* ids) { delete_items(block, ids, kClientList); }

void DelAllClientsItem(ClientsBlock* block) { delete_all_items(block, kClientList); }
