/* Client groups, and the clients keyed by their MAC. Conventions: core.h.
 */
#ifndef SYSCONFIG_CLIENTS_H
#define SYSCONFIG_CLIENTS_H

#include <sysconfig/layout.h>

struct ClientsGroupRecord {
  int32_t lock_index;           /* 2..11 */
  int32_t slot_id;              /* -1 free, else position + 1 */
  char group_name[SC_MAC_TEXT]; /* compared without case */
  uint8_t spare_28[500];
} SC_PACKED;
SC_SIZE(ClientsGroupRecord, 528);
SC_OFFSET(ClientsGroupRecord, lock_index, 0);
SC_OFFSET(ClientsGroupRecord, slot_id, 4);
SC_OFFSET(ClientsGroupRecord, group_name, 8);
SC_OFFSET(ClientsGroupRecord, spare_28, 28);

struct ClientsGroupsBlock {
  struct BlockHeader header;
  struct ClientsGroupRecord groups[SC_CLIENTS_GROUPS];
  uint8_t spare_5416[500];
} SC_PACKED;
SC_SIZE(ClientsGroupsBlock, 5916);
SC_OFFSET(ClientsGroupsBlock, header, 0);
SC_OFFSET(ClientsGroupsBlock, groups, 136);
SC_OFFSET(ClientsGroupsBlock, spare_5416, 5416);

/* Laid out as the record's first bytes. */
struct ClientsGroupsItem {
  uint8_t spare_0[4];
  int32_t slot_id; /* read by modify: the group's id */
  char group_name[SC_MAC_TEXT];
} SC_PACKED;
SC_SIZE(ClientsGroupsItem, 28);
SC_OFFSET(ClientsGroupsItem, spare_0, 0);
SC_OFFSET(ClientsGroupsItem, slot_id, 4);
SC_OFFSET(ClientsGroupsItem, group_name, 8);

/* The named fields belong to the programs that fill them. The spare bytes are never written. */
struct ClientRecord {
  int32_t lock_index;               /* 2..301 */
  int32_t slot_id;                  /* -1 free, else position + 1 */
  uint8_t client_mac[SC_MAC_BYTES]; /* compared exactly; written by add, cleared by delete */
  uint16_t field_14;
  uint32_t field_16;
  uint32_t field_20;
  uint16_t field_24;
  uint8_t field_26;
  uint8_t field_27;
  uint8_t field_28;
  uint8_t field_29;
  uint8_t field_30;
  uint8_t field_31;
  uint8_t field_32;
  uint8_t spare_33[1];
  uint16_t field_34;
  uint8_t field_36;
  uint8_t spare_37[3];
  uint32_t field_40;
  uint32_t field_44;
  uint32_t field_48;
  char text_52[20];
  uint8_t spare_72[10];
  char text_82[20];
  char text_102[20];
  char text_122[20];
  char text_142[20];
  char text_162[20];
  char text_182[35];
  uint8_t spare_217[503];
} SC_PACKED;
SC_SIZE(ClientRecord, 720);
SC_OFFSET(ClientRecord, lock_index, 0);
SC_OFFSET(ClientRecord, slot_id, 4);
SC_OFFSET(ClientRecord, client_mac, 8);
SC_OFFSET(ClientRecord, field_14, 14);
SC_OFFSET(ClientRecord, field_16, 16);
SC_OFFSET(ClientRecord, field_20, 20);
SC_OFFSET(ClientRecord, field_24, 24);
SC_OFFSET(ClientRecord, field_26, 26);
SC_OFFSET(ClientRecord, field_27, 27);
SC_OFFSET(ClientRecord, field_28, 28);
SC_OFFSET(ClientRecord, field_29, 29);
SC_OFFSET(ClientRecord, field_30, 30);
SC_OFFSET(ClientRecord, field_31, 31);
SC_OFFSET(ClientRecord, field_32, 32);
SC_OFFSET(ClientRecord, spare_33, 33);
SC_OFFSET(ClientRecord, field_34, 34);
SC_OFFSET(ClientRecord, field_36, 36);
SC_OFFSET(ClientRecord, spare_37, 37);
SC_OFFSET(ClientRecord, field_40, 40);
SC_OFFSET(ClientRecord, field_44, 44);
SC_OFFSET(ClientRecord, field_48, 48);
SC_OFFSET(ClientRecord, text_52, 52);
SC_OFFSET(ClientRecord, spare_72, 72);
SC_OFFSET(ClientRecord, text_82, 82);
SC_OFFSET(ClientRecord, text_102, 102);
SC_OFFSET(ClientRecord, text_122, 122);
SC_OFFSET(ClientRecord, text_142, 142);
SC_OFFSET(ClientRecord, text_162, 162);
SC_OFFSET(ClientRecord, text_182, 182);
SC_OFFSET(ClientRecord, spare_217, 217);

struct ClientsBlock {
  struct BlockHeader header;
  struct ClientRecord clients[SC_CLIENTS];
  uint8_t spare_216136[500];
} SC_PACKED;
SC_SIZE(ClientsBlock, 216636);
SC_OFFSET(ClientsBlock, header, 0);
SC_OFFSET(ClientsBlock, clients, 136);
SC_OFFSET(ClientsBlock, spare_216136, 216136);

/* Laid out as the record's first bytes; nothing behind them is read. */
struct ClientsItem {
  uint8_t spare_0[4];
  int32_t slot_id;                  /* read by modify: the client's id */
  uint8_t client_mac[SC_MAC_BYTES]; /* compared exactly; written by add, cleared by delete */
  uint16_t field_14;
  uint32_t field_16;
  uint32_t field_20;
  uint16_t field_24;
  uint8_t field_26;
  uint8_t field_27;
  uint8_t field_28;
  uint8_t field_29;
  uint8_t field_30;
  uint8_t field_31;
  uint8_t field_32;
  uint8_t spare_33[1];
  uint16_t field_34;
  uint8_t field_36;
  uint8_t spare_37[3];
  uint32_t field_40;
  uint32_t field_44;
  uint32_t field_48;
  char text_52[20];
  uint8_t spare_72[10];
  char text_82[20];
  char text_102[20];
  char text_122[20];
  char text_142[20];
  char text_162[20];
  char text_182[35];
} SC_PACKED;
SC_SIZE(ClientsItem, 217);
SC_OFFSET(ClientsItem, spare_0, 0);
SC_OFFSET(ClientsItem, slot_id, 4);
SC_OFFSET(ClientsItem, client_mac, 8);
SC_OFFSET(ClientsItem, field_14, 14);
SC_OFFSET(ClientsItem, field_16, 16);
SC_OFFSET(ClientsItem, field_20, 20);
SC_OFFSET(ClientsItem, field_24, 24);
SC_OFFSET(ClientsItem, field_26, 26);
SC_OFFSET(ClientsItem, field_27, 27);
SC_OFFSET(ClientsItem, field_28, 28);
SC_OFFSET(ClientsItem, field_29, 29);
SC_OFFSET(ClientsItem, field_30, 30);
SC_OFFSET(ClientsItem, field_31, 31);
SC_OFFSET(ClientsItem, field_32, 32);
SC_OFFSET(ClientsItem, spare_33, 33);
SC_OFFSET(ClientsItem, field_34, 34);
SC_OFFSET(ClientsItem, field_36, 36);
SC_OFFSET(ClientsItem, spare_37, 37);
SC_OFFSET(ClientsItem, field_40, 40);
SC_OFFSET(ClientsItem, field_44, 44);
SC_OFFSET(ClientsItem, field_48, 48);
SC_OFFSET(ClientsItem, text_52, 52);
SC_OFFSET(ClientsItem, spare_72, 72);
SC_OFFSET(ClientsItem, text_82, 82);
SC_OFFSET(ClientsItem, text_102, 102);
SC_OFFSET(ClientsItem, text_122, 122);
SC_OFFSET(ClientsItem, text_142, 142);
SC_OFFSET(ClientsItem, text_162, 162);
SC_OFFSET(ClientsItem, text_182, 182);

SC_BEGIN_DECLS

/* Client groups: two clash when their names are equal without case over 20 bytes. Modify out of
 * range: SC_LIST_MOD_RANGE. Groups and clients are not linked. */
uint32_t SC_Get_Clients_Groups_System_Config(void);
int SC_Uninit_System_Clients_Groups_Config(void);
int SC_Init_System_Clients_Groups_Config(int read_flag);
int SC_Read_System_Clients_Groups_Config(struct ClientsGroupsBlock* block);
void SC_Save_System_Clients_Groups_Config(void);
void SC_Save_System_Clients_Groups_Config2Flash(struct ClientsGroupsBlock* block);
int32_t SC_Operate_System_List_ClientsGroups(struct ClientsGroupsBlock* block, uint32_t op,
                                             uint32_t* position,
                                             const struct ClientsGroupsItem* item);
int32_t SC_Operate_System_List_GetClientsGroups_Blank(struct ClientsGroupsBlock* block);
int32_t SC_Operate_System_List_ClientsGroupsCheckName(const struct ClientsGroupsBlock* block,
                                                      const struct ClientsGroupsItem* item,
                                                      uint32_t skip_slot);
int32_t AddClientsGroupsItem(struct ClientsGroupsBlock* block,
                             const struct ClientsGroupsItem* item);
int32_t ModifyClientsGroupsItem(struct ClientsGroupsBlock* block,
                                const struct ClientsGroupsItem* item);
void DelClientsGroupsItem(struct ClientsGroupsBlock* block, char* ids);
void DelAllClientsGroupsItem(struct ClientsGroupsBlock* block);

/* Clients: two clash when their MACs are equal. Add writes client_mac and the fields, modify writes
 * the fields only, delete clears client_mac. Modify out of range: SC_LIST_MOD_RANGE. */
uint32_t SC_Get_Clients_System_Config(void);
int SC_Uninit_System_Clients_Config(void);
int SC_Init_System_Clients_Config(int read_flag);
int SC_Read_System_Clients_Config(struct ClientsBlock* block);
void SC_Save_System_Clients_Config(void);
void SC_Save_System_Clients_Config2Flash(struct ClientsBlock* block);
int32_t SC_Operate_System_List_Clients(struct ClientsBlock* block, uint32_t op, uint32_t* position,
                                       const struct ClientsItem* item);
int32_t SC_Operate_System_List_GetClients_Blank(struct ClientsBlock* block);
int32_t SC_Operate_System_List_ClientsCheckMac(const struct ClientsBlock* block,
                                               const struct ClientsItem* item, uint32_t skip_slot);
int32_t AddClientsItem(struct ClientsBlock* block, const struct ClientsItem* item);
void DelClientsItem(struct ClientsBlock* block, char* ids);
void DelAllClientsItem(struct ClientsBlock* block);
/* Checks for a clash with the zero MAC, whatever the item holds. So the call is refused only when
 * another used record has a zero MAC. */
int32_t ModifyClientsItem(struct ClientsBlock* block, const struct ClientsItem* item);

SC_END_DECLS

#endif
