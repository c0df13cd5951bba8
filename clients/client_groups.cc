/* Client groups: ten names. An item is laid out as the first bytes of its record, so the frame uses
 * it as a record. */
#include <sysconfig/clients.h>

#include "core/area.h"
#include "clients/rows.h"

using namespace sc;

static_assert(offsetof(ClientsGroupsItem, group_name) == offsetof(ClientsGroupRecord, group_name));

uint32_t SC_Get_Clients_Groups_System_Config(void) { return attach_area(kClientsGroups); }

int SC_Uninit_System_Clients_Groups_Config(void) { return remove_area(kClientsGroups); }

int SC_Init_System_Clients_Groups_Config(int read_flag) {
  return init_area(read_flag, kClientsGroups);
}

int SC_Read_System_Clients_Groups_Config(ClientsGroupsBlock* block) {
  return load_area(block, kClientsGroups);
}

void SC_Save_System_Clients_Groups_Config(void) { announce_area(kClientsGroups); }

void SC_Save_System_Clients_Groups_Config2Flash(ClientsGroupsBlock* block) {
  save_area(block, kClientsGroups);
}

int32_t SC_Operate_System_List_ClientsGroups(ClientsGroupsBlock* block, uint32_t op,
                                             uint32_t* position, const ClientsGroupsItem* item) {
  return operate(block, op, position, item, kClientGroupList.table);
}

int32_t SC_Operate_System_List_GetClientsGroups_Blank(ClientsGroupsBlock* block) {
  return claim(block, kClientGroupList.table.geometry);
}

int32_t SC_Operate_System_List_ClientsGroupsCheckName(const ClientsGroupsBlock* block,
                                                      const ClientsGroupsItem* item,
                                                      uint32_t skip_slot) {
  return find_clash(block, item, skip_slot, kClientGroupList.table);
}

int32_t AddClientsGroupsItem(ClientsGroupsBlock* block, const ClientsGroupsItem* item) {
  return add_record(block, item, kClientGroupList);
}

int32_t ModifyClientsGroupsItem(ClientsGroupsBlock* block, const ClientsGroupsItem* item) {
  return modify_record(block, static_cast<uint32_t>(item->slot_id), item, kClientGroupList);
}

void DelClientsGroupsItem(ClientsGroupsBlock* block, char* ids) {
  delete_items(block, ids, kClientGroupList);
}

void DelAllClientsGroupsItem(ClientsGroupsBlock* block) {
  delete_all_items(block, kClientGroupList);
}
