/* Clients, keyed by their MAC. An item is laid out as the first bytes of its record, so the frame
 * uses it as a record. The MAC is the record's identity: add writes it, delete clears it, modify
 * does not change it. */
#include <string.h>

#include <sysconfig/clients.h>

#include "core/area.h"
#include "clients/rows.h"

using namespace sc;

static_assert(offsetof(ClientsItem, client_mac) == offsetof(ClientRecord, client_mac));
static_assert(sizeof(ClientsItem) == offsetof(ClientRecord, spare_217));

uint32_t SC_Get_Clients_System_Config(void) { return attach_area(kClients); }

int SC_Uninit_System_Clients_Config(void) { return remove_area(kClients); }

int SC_Init_System_Clients_Config(int read_flag) { return init_area(read_flag, kClients); }

int SC_Read_System_Clients_Config(ClientsBlock* block) { return load_area(block, kClients); }

void SC_Save_System_Clients_Config(void) { announce_area(kClients); }

void SC_Save_System_Clients_Config2Flash(ClientsBlock* block) { save_area(block, kClients); }

int32_t SC_Operate_System_List_Clients(ClientsBlock* block, uint32_t op, uint32_t* position,
                                       const ClientsItem* item) {
  return operate(block, op, position, item, kClientList.table);
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

/* Required: the check uses a zero MAC, not the item's. The spare bytes between the item's fields
 * are copied here, but are not written to the record. */
int32_t ModifyClientsItem(ClientsBlock* block, const ClientsItem* item) {
  ClientsItem scratch = *item;
  memset(scratch.client_mac, 0, sizeof scratch.client_mac);
  return modify_record(block, static_cast<uint32_t>(item->slot_id), &scratch, kClientList);
}

void DelClientsItem(ClientsBlock* block, char* ids) { delete_items(block, ids, kClientList); }

void DelAllClientsItem(ClientsBlock* block) { delete_all_items(block, kClientList); }
