/* The interface as a C99 program sees it: one function of each family, called through the headers
 * as they are. abi_cases_test.cc runs these in a private world; each returns 0, or the number of
 * the first line that did not hold.
 */
#include <string.h>

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include "abi_test.h"

#define HOLDS(condition)               \
  do {                                 \
    if (!(condition)) return __LINE__; \
  } while (0)

/* The block at an address of the 32-bit interface. */
#define BLOCK(type, address) ((struct type*)(uintptr_t)(address))

int abi_utilities(void) {
  char text[16] = "";
  HOLDS(sc_do_system("exit %d", 0) == 0);
  HOLDS(sc_lock_reg(-1, 0, 0, 1, 0, 1) == -1);
  HOLDS(strcmp(sc_inet_ntoa(0x0201a8c0, text), "192.168.1.2") == 0);
  HOLDS(SC_Save_Dhcp_Clients() != 0); /* there are no leases */
  return 0;
}

int abi_life_cycle(void) {
  struct SystemConfigDirectory directory;
  struct WanBlock* block;
  HOLDS(SC_Init_System_Wan_Config(1) == 0);
  HOLDS(SC_Get_SysConfig(&directory) == 0);
  HOLDS(directory.wan != 0 && directory.lan == 0);
  block = BLOCK(WanBlock, directory.wan);
  HOLDS(block->sections[3].lock_index == 5);
  HOLDS(SC_Read_System_Wan_Config(block) == -1);
  SC_Save_System_Wan_Config();
  SC_Save_System_Wan_Config2Flash(block);
  HOLDS(SC_Read_System_Wan_Config(block) == 0);
  HOLDS(SC_Uninit_System_Wan_Config() == 0);
  HOLDS(SC_Get_Wan_System_Config() == 0);
  return 0;
}

int abi_bindings(void) {
  static struct DhcpStaticItemList list;
  struct DhcpStaticItem item;
  struct DhcpBindRecord record;
  uint32_t position = 0;
  char ids[] = "1";
  struct LanBlock* block;
  HOLDS(SC_Init_System_Lan_Config(1) == 0);
  block = BLOCK(LanBlock, SC_Get_Lan_System_Config());
  memset(&item, 0, sizeof item);
  strcpy(item.mac, "00:11:22:33:44:55");
  strcpy(item.ip, "192.168.1.2");
  HOLDS(AddDhcpStaticItem(block, &item) == SC_LIST_OK);
  HOLDS(AC_AddDhcpStaticItem(block, &item) == SC_LIST_OK);
  GetDhcpStaticItemList(block, &list);
  HOLDS(list.count == 1 && list.capacity == SC_DHCP_BINDS && list.items[0].id == 1);
  memcpy(&record, &block->lan_binds[0], sizeof record);
  HOLDS(SC_Operate_System_List_DhcpdBindCheckIpMac(block, &record, (uint32_t)-1) == 1);
  HOLDS(SC_Operate_System_List_DhcpdBind(block, LIST_OP_MODIFY, &position, &record) == SC_LIST_OK);
  HOLDS(SC_Operate_System_List_GetDhcpdBind_Blank(block) == 1);
  DelDhcpStaticItem(block, ids);
  HOLDS(block->lan_bind_count == 0 && block->ac_bind_count == 1);
  return 0;
}

int abi_groups_and_filters(void) {
  struct IpGroupItem group;
  struct TimeGroupItem times;
  struct IpFilterItem filter;
  struct PortFwItem forward;
  static struct IpFilterItemList list;
  struct IpGroupBlock* groups;
  struct TimeGroupBlock* schedules;
  struct FwIpportBlock* filters;
  struct VsIpportBlock* forwards;
  HOLDS(SC_Init_System_IpGroup_Config(1) == 0 && SC_Init_System_TimeGroup_Config(1) == 0);
  HOLDS(SC_Init_System_FwIpport_Config(1) == 0 && SC_Init_System_VsIpport_Config(1) == 0);
  groups = BLOCK(IpGroupBlock, SC_Get_IpGroup_System_Config());
  schedules = BLOCK(TimeGroupBlock, SC_Get_TimeGroup_System_Config());
  filters = BLOCK(FwIpportBlock, SC_Get_FwIpport_System_Config());
  forwards = BLOCK(VsIpportBlock, SC_Get_VsIpport_System_Config());
  memset(&group, 0, sizeof group);
  memset(&times, 0, sizeof times);
  memset(&filter, 0, sizeof filter);
  memset(&forward, 0, sizeof forward);
  HOLDS(AddIpGroupItem(groups, &group) == SC_LIST_OK);
  HOLDS(GetIpGroupIndex(groups, 1) == 0);
  HOLDS(AddTimeGroupItem(schedules, &times) == SC_LIST_OK);
  HOLDS(AddIpFilterItem(filters, &filter) == SC_LIST_OK);
  GetIpFilterItemList(filters, groups, schedules, &list);
  HOLDS(list.count == 1);
  HOLDS(AddPortFwItem(forwards, &forward) == SC_LIST_OK);
  GetPortFwItem(forwards, 1, &forward);
  HOLDS(forward.slot_id == 1);
  return 0;
}

int abi_rules(void) {
  struct MacFilterItem mac;
  struct UrlFilterItem url;
  struct QosItem qos;
  struct FwMacBlock* macs;
  struct FwUrlBlock* urls;
  struct QosBlock* rules;
  HOLDS(SC_Init_System_FwMac_Config(1) == 0 && SC_Init_System_FwUrl_Config(1) == 0);
  HOLDS(SC_Init_System_Qos_Config(1) == 0);
  macs = BLOCK(FwMacBlock, SC_Get_FwMac_System_Config());
  urls = BLOCK(FwUrlBlock, SC_Get_FwUrl_System_Config());
  rules = BLOCK(QosBlock, SC_Get_Qos_System_Config());
  memset(&mac, 0, sizeof mac);
  memset(&url, 0, sizeof url);
  memset(&qos, 0, sizeof qos);
  HOLDS(AddMacFilterItem(macs, &mac) == SC_LIST_OK);
  HOLDS(AddMacFilterItem(macs, &mac) == SC_LIST_REJECTED);
  HOLDS(AddUrlFilterItem(urls, &url) == SC_LIST_OK);
  HOLDS(AddQosItem(rules, &qos) == SC_LIST_OK);
  DelAllQosItem(rules);
  HOLDS(rules->rule_count == 0);
  return 0;
}

int abi_access_points(void) {
  static const uint8_t mac[SC_MAC_BYTES] = {1, 2, 3, 4, 5, 6};
  struct ApLimitsRecord limits;
  struct ManageApListBlock* aps;
  struct ApUserListBlock* users;
  struct ApTemplateListBlock* templates;
  HOLDS(SC_Init_System_ManageApList_Config(1) == 0 && SC_Init_System_ApUserList_Config() == 0);
  HOLDS(SC_Init_System_ApTemplateList_Config(1) == 0);
  HOLDS(SC_Init_System_DefApTemplate_Config(1) == 0);
  aps = BLOCK(ManageApListBlock, SC_Get_ManageApList_System_Config());
  users = BLOCK(ApUserListBlock, SC_Get_ApUserList_System_Config());
  templates = BLOCK(ApTemplateListBlock, SC_Get_ApTemplateList_System_Config());
  memset(&limits, 0, sizeof limits);
  limits.max_ap_count = 1;
  HOLDS(SC_Get_Ap_Info_Blank(aps, &limits) == 0);
  memcpy(aps->aps[0].ap_mac, mac, sizeof mac);
  HOLDS(SC_Get_ApUser_Info_Blank(users) == 0);
  HOLDS(SC_Get_AP_Template_Info_Blank(templates) == 0);
  HOLDS(SC_Add_Ap_Mac2Template_By_Id(templates, aps, 1, mac) == 0);
  HOLDS(aps->aps[0].group_id == 1);
  return 0;
}

int abi_clients(void) {
  struct ClientsGroupsItem group;
  struct ClientsItem client;
  char ids[] = "1";
  struct ClientsGroupsBlock* groups;
  struct ClientsBlock* clients;
  HOLDS(SC_Init_System_Clients_Groups_Config(1) == 0 && SC_Init_System_Clients_Config(1) == 0);
  groups = BLOCK(ClientsGroupsBlock, SC_Get_Clients_Groups_System_Config());
  clients = BLOCK(ClientsBlock, SC_Get_Clients_System_Config());
  memset(&group, 0, sizeof group);
  memset(&client, 0, sizeof client);
  HOLDS(AddClientsGroupsItem(groups, &group) == SC_LIST_OK);
  HOLDS(AddClientsItem(clients, &client) == SC_LIST_OK);
  DelClientsItem(clients, ids);
  HOLDS(clients->clients[0].slot_id == -1);
  return 0;
}
