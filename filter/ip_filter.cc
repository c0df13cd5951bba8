/* The IP filter. Rules may refer to an IP group and to a time group; the listing shows a rule
 * with what it refers to. */
#include <sysconfig/filter.h>

#include "core/area.h"
#include "filter/rows.h"

using namespace sc;

uint32_t SC_Get_FwIpport_System_Config(void) { return attach_area(kFwIpport); }

int SC_Uninit_System_FwIpport_Config(void) { return remove_area(kFwIpport); }

int SC_Init_System_FwIpport_Config(int read_flag) { return init_area(read_flag, kFwIpport); }

int SC_Read_System_FwIpport_Config(FwIpportBlock* block) { return load_area(block, kFwIpport); }

void SC_Save_System_FwIpport_Config(void) { announce_area(kFwIpport); }

void SC_Save_System_FwIpport_Config2Flash(FwIpportBlock* block) { save_area(block, kFwIpport); }

int32_t SC_Operate_System_List_FireWall_IpPort(FwIpportBlock* block, uint32_t op,
                                               uint32_t* position, const IpFilterRecord* record) {
  return operate(block, op, position, record, kIpFilters.list.table);
}

int32_t SC_Operate_System_List_GetFireWall_IpPort_Blank(FwIpportBlock* block) {
  return claim(block, kIpFilters.list.table.geometry);
}

void GetIpFilterItemList(const FwIpportBlock* block, const IpGroupBlock* ip_groups,
                         const TimeGroupBlock* time_groups, IpFilterItemList* list) {
  uint32_t count = get_items(block, list, kIpFilters);
  show_groups(kIpFilterIpGroup, ip_groups, list->items, count);
  show_groups(kIpFilterTimeGroup, time_groups, list->items, count);
}

void GetIpFilterItem(const FwIpportBlock* block, uint32_t id, IpFilterItem* item) {
  get_item(block, id, item, kIpFilters);
}

int32_t AddIpFilterItem(FwIpportBlock* block, const IpFilterItem* item) {
  return add_item(block, item, kIpFilters);
}

int32_t ModifyIpFilterItem(FwIpportBlock* block, const IpFilterItem* item) {
  return modify_item(block, item, kIpFilters);
}

void DelIpFilterItem(FwIpportBlock* block, char* ids) { delete_items(block, ids, kIpFilters.list); }

void DelIpFilterItemByIpGroupId(FwIpportBlock* block, int32_t ip_group_id) {
  delete_linked(block, ip_group_id, kIpFilters.list, kIpFilterIpGroup);
}

void DelIpFilterItemByTimeGroupId(FwIpportBlock* block, int32_t time_group_id) {
  delete_linked(block, time_group_id, kIpFilters.list, kIpFilterTimeGroup);
}

/* Required: this works on the block as if it held the port-forwarding table, which begins at the
 * same place but has shorter records. Only rule 0 is freed. The other 31 words of -1 overwrite
 * spare bytes, texts, times and addresses of other rules. The byte that is locked for each is named
 * by the word at the place where a port-forwarding record has its lock_index. */
void DelAllIpFilterItem(FwIpportBlock* block) {
  SC_Operate_System_List_ForwordIpPort(reinterpret_cast<VsIpportBlock*>(block), LIST_OP_DEL_ALL,
                                       nullptr, nullptr);
  block->rule_count = 0;
  announce_area(kFwIpport);
}
