/* The Lan area and its two tables of DHCP static bindings (a fixed address for a MAC address): the
 * LAN table for hosts of the LAN DHCP server, the AC table for devices of the access controller's
 * address server. Conventions: core.h.
 */
#ifndef SYSCONFIG_LAN_H
#define SYSCONFIG_LAN_H

#include <sysconfig/layout.h>

struct DhcpBindRecord {
  int32_t slot_id;    /* -1 free, else position + 1; stands before lock_index here only */
  int32_t lock_index; /* LAN table 2..33, AC table 34..65 */
  int8_t bind_flag;
  char bind_mac[SC_MAC_TEXT]; /* compared without case */
  uint8_t spare_29[7];
  uint32_t bind_ip; /* as inet_addr returns it */
  uint8_t spare_40[8];
  char bind_name[SC_TEXT];
  uint8_t spare_248[500];
} SC_PACKED;
SC_SIZE(DhcpBindRecord, 748);
SC_OFFSET(DhcpBindRecord, slot_id, 0);
SC_OFFSET(DhcpBindRecord, lock_index, 4);
SC_OFFSET(DhcpBindRecord, bind_flag, 8);
SC_OFFSET(DhcpBindRecord, bind_mac, 9);
SC_OFFSET(DhcpBindRecord, spare_29, 29);
SC_OFFSET(DhcpBindRecord, bind_ip, 36);
SC_OFFSET(DhcpBindRecord, spare_40, 40);
SC_OFFSET(DhcpBindRecord, bind_name, 48);
SC_OFFSET(DhcpBindRecord, spare_248, 248);

struct LanBlock {
  struct BlockHeader header;
  uint8_t lan_settings[1368];
  uint32_t lan_bind_count;
  struct DhcpBindRecord lan_binds[SC_DHCP_BINDS];
  uint8_t spare_25444[500];
  uint32_t ac_bind_count;
  struct DhcpBindRecord ac_binds[SC_DHCP_BINDS];
  uint8_t spare_49884[1004];
} SC_PACKED;
SC_SIZE(LanBlock, 50888);
SC_OFFSET(LanBlock, header, 0);
SC_OFFSET(LanBlock, lan_settings, 136);
SC_OFFSET(LanBlock, lan_bind_count, 1504);
SC_OFFSET(LanBlock, lan_binds, 1508);
SC_OFFSET(LanBlock, spare_25444, 25444);
SC_OFFSET(LanBlock, ac_bind_count, 25944);
SC_OFFSET(LanBlock, ac_binds, 25948);
SC_OFFSET(LanBlock, spare_49884, 49884);

struct DhcpStaticItem {
  int32_t id;
  uint8_t reserved[200]; /* the caller's; zeroed in items that the library fills */
  int32_t flag;          /* only the low byte is stored; comes back sign-extended */
  char mac[SC_MAC_TEXT];
  char ip[SC_IP_TEXT]; /* dotted text; invalid text is stored as 255.255.255.255 */
  char name[SC_TEXT];
} SC_PACKED;
SC_SIZE(DhcpStaticItem, 444);
SC_OFFSET(DhcpStaticItem, id, 0);
SC_OFFSET(DhcpStaticItem, reserved, 4);
SC_OFFSET(DhcpStaticItem, flag, 204);
SC_OFFSET(DhcpStaticItem, mac, 208);
SC_OFFSET(DhcpStaticItem, ip, 228);
SC_OFFSET(DhcpStaticItem, name, 244);

struct DhcpStaticItemList {
  uint32_t count;
  uint32_t capacity; /* always 32 */
  struct DhcpStaticItem items[SC_DHCP_BINDS];
  uint8_t tail[SC_LIST_TAIL];
} SC_PACKED;
SC_SIZE(DhcpStaticItemList, 14716);
SC_OFFSET(DhcpStaticItemList, count, 0);
SC_OFFSET(DhcpStaticItemList, capacity, 4);
SC_OFFSET(DhcpStaticItemList, items, 8);
SC_OFFSET(DhcpStaticItemList, tail, 14216);

SC_BEGIN_DECLS

/* Lan: two tables of DHCP static bindings. A flash save runs "change_event network" afterwards. */
uint32_t SC_Get_Lan_System_Config(void);
int SC_Uninit_System_Lan_Config(void);
int SC_Init_System_Lan_Config(int read_flag);
int SC_Read_System_Lan_Config(struct LanBlock* block);
void SC_Save_System_Lan_Config(void);
void SC_Save_System_Lan_Config2Flash(struct LanBlock* block);

/* Table operations. Two bindings clash when their MAC texts are equal without case or their
 * addresses are equal. Empty MAC texts and zero addresses clash like any other. Bindings of
 * different tables do not clash. Add and modify write bind_flag, bind_mac, bind_ip and bind_name.
 * Modify out of range: SC_LIST_MOD_RANGE. */
int32_t SC_Operate_System_List_DhcpdBind(struct LanBlock* block, uint32_t op, uint32_t* position,
                                         const struct DhcpBindRecord* record);
int32_t SC_Operate_System_List_GetDhcpdBind_Blank(struct LanBlock* block);
int32_t SC_Operate_System_List_DhcpdBindCheckIpMac(const struct LanBlock* block,
                                                   const struct DhcpBindRecord* record,
                                                   uint32_t skip_slot);
int32_t SC_Operate_System_List_AC_DhcpdBind(struct LanBlock* block, uint32_t op, uint32_t* position,
                                            const struct DhcpBindRecord* record);
int32_t SC_Operate_System_List_AC_GetDhcpdBind_Blank(struct LanBlock* block);
int32_t SC_Operate_System_List_AC_DhcpdBindCheckIpMac(const struct LanBlock* block,
                                                      const struct DhcpBindRecord* record,
                                                      uint32_t skip_slot);

/* Items. Only these functions change lan_bind_count and ac_bind_count. */
void GetDhcpStaticItemList(const struct LanBlock* block, struct DhcpStaticItemList* list);
void GetDhcpStaticItem(const struct LanBlock* block, uint32_t id, struct DhcpStaticItem* item);
int32_t AddDhcpStaticItem(struct LanBlock* block, const struct DhcpStaticItem* item);
int32_t ModifyDhcpStaticItem(struct LanBlock* block, const struct DhcpStaticItem* item);
void DelDhcpStaticItem(struct LanBlock* block, char* ids);
void DelAllDhcpStaticItem(struct LanBlock* block);
void AC_GetDhcpStaticItemList(const struct LanBlock* block, struct DhcpStaticItemList* list);
void AC_GetDhcpStaticItem(const struct LanBlock* block, uint32_t id, struct DhcpStaticItem* item);
int32_t AC_AddDhcpStaticItem(struct LanBlock* block, const struct DhcpStaticItem* item);
int32_t AC_ModifyDhcpStaticItem(struct LanBlock* block, const struct DhcpStaticItem* item);
void AC_DelDhcpStaticItem(struct LanBlock* block, char* ids);
void AC_DelAllDhcpStaticItem(struct LanBlock* block);

SC_END_DECLS

#endif
