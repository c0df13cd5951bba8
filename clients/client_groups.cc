/* Client groups: ten names. An item is laid out as the first bytes of its record, so the frame
 * works on it without a map. */
#include <sysconfig/clients.h>

#include "core/area.h"
#include "core/rows.h"

using namespace sc;

namespace {

constexpr Field kFields[] = {
    SC_FIELD(ClientsGroupRecord, group_name, ClientsGroupsItem, group_name)};

constexpr List kGroups = {
    .table = {.geometry = SC_GEOMETRY(ClientsGroupsBlock, groups),
              .modify_range = SC_LIST_MOD_RANGE,
              .keys = {SC_TEXT_KEY(ClientsGroupRecord, group_name)},
              .payload = payload(kFields)},
    .code = SC_CODE_CLIENTS_GROUPS,
};

static_assert(offsetof(ClientsGroupsItem, group_name) == offsetof(ClientsGroupRecord, group_name));

}  // namespace

uint32_t SC_Get_Clients_Groups_System_Config(void) { return get(kClientsGroups); }

int SC_Uninit_System_Clients_Groups_Config(void) { return uninit(kClientsGroups); }

int SC_Init_System_Clients_Groups_Config(int read_flag) { return init(read_flag, kClientsGroups); }

int SC_Read_System_Clients_Groups_Config(ClientsGroupsBlock* block) {
  return read(block, kClientsGroups);
}

void SC_Save_System_Clients_Groups_Config(void) { save(kClientsGroups); }

void SC_Save_System_Clients_Groups_Config2Flash(ClientsGroupsBlock* block) {
  save_to_flash(block, kClientsGroups);
}

int32_t SC_Operate_System_List_ClientsGroups(ClientsGroupsBlock* block, uint32_t op,
                                             uint32_t* index, const ClientsGroupsItem* item) {
  return operate(block, op, index, item, kGroups.table);
}

int32_t SC_Operate_System_List_GetClientsGroups_Blank(ClientsGroupsBlock* block) {
  return claim(block, kGroups.table.geometry);
}

int32_t SC_Operate_System_List_ClientsGroupsCheckName(const ClientsGroupsBlock* block,
                                                      const ClientsGroupsItem* item,
                                                      uint32_t skip_slot) {
  return find_clash(block, item, skip_slot, kGroups.table);
}

int32_t AddClientsGroupsItem(ClientsGroupsBlock* block, const ClientsGroupsItem* item) {
  return add_record(block, item, kGroups);
}

int32_t ModifyClientsGroupsItem(ClientsGroupsBlock* block, const ClientsGroupsItem* item) {
  return modify_record(block, static_cast<uint32_t>(item->slot_id), item, kGroups);
}

void DelClientsGroupsItem(ClientsGroupsBlock* block, char* ids) {
  delete_items(block, ids, kGroups);
}

void DelAllClientsGroupsItem(ClientsGroupsBlock* block) { delete_all_items(block, kGroups); }
