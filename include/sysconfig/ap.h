/* Access points: the managed APs, the AP users, the AP templates and the default template. In these
 * tables a record is free when its id is 0. Conventions: core.h.
 */
#ifndef SYSCONFIG_AP_H
#define SYSCONFIG_AP_H

#include <sysconfig/layout.h>

/* One managed access point. Opaque bytes belong to the programs that write the records. */
struct ApInfoRecord {
  int32_t lock_index; /* 2..301 */
  uint8_t opaque_4[133];
  int8_t run_state; /* -2 offline; -1 and above online; below -2 neither */
  uint8_t opaque_138[98];
  uint8_t ap_mac[SC_MAC_BYTES];
  uint8_t opaque_242[106];
  uint8_t group_id;    /* id of the template that the AP is bound to, 0 none */
  char group_info[50]; /* the template's name */
  uint8_t opaque_399[11389];
  uint32_t ap_id; /* 0 free, else position + 1 */
  uint8_t opaque_11792[4];
  uint32_t wtp_frag_len; /* fill of the record's fragment buffer */
  uint8_t opaque_11800[504];
} SC_PACKED;
SC_SIZE(ApInfoRecord, 12304);
SC_OFFSET(ApInfoRecord, lock_index, 0);
SC_OFFSET(ApInfoRecord, opaque_4, 4);
SC_OFFSET(ApInfoRecord, run_state, 137);
SC_OFFSET(ApInfoRecord, opaque_138, 138);
SC_OFFSET(ApInfoRecord, ap_mac, 236);
SC_OFFSET(ApInfoRecord, opaque_242, 242);
SC_OFFSET(ApInfoRecord, group_id, 348);
SC_OFFSET(ApInfoRecord, group_info, 349);
SC_OFFSET(ApInfoRecord, opaque_399, 399);
SC_OFFSET(ApInfoRecord, ap_id, 11788);
SC_OFFSET(ApInfoRecord, opaque_11792, 11792);
SC_OFFSET(ApInfoRecord, wtp_frag_len, 11796);
SC_OFFSET(ApInfoRecord, opaque_11800, 11800);

struct ManageApListBlock {
  struct BlockHeader header;
  struct ApInfoRecord aps[SC_ACCESS_POINTS];
  uint8_t spare_3691336[504];
} SC_PACKED;
SC_SIZE(ManageApListBlock, 3691840);
SC_OFFSET(ManageApListBlock, header, 0);
SC_OFFSET(ManageApListBlock, aps, 136);
SC_OFFSET(ManageApListBlock, spare_3691336, 3691336);

/* The record that carries the limit of APs; only this much of it is read. */
struct ApLimitsRecord {
  uint8_t opaque_0[468];
  int16_t max_ap_count;
} SC_PACKED;
SC_SIZE(ApLimitsRecord, 470);
SC_OFFSET(ApLimitsRecord, opaque_0, 0);
SC_OFFSET(ApLimitsRecord, max_ap_count, 468);

struct ApUserRecord {
  int32_t lock_index; /* 2..301 */
  uint32_t user_id;   /* 0 free, else position + 1 */
  uint8_t user_mac[SC_MAC_BYTES];
  uint8_t opaque_14[23186];
} SC_PACKED;
SC_SIZE(ApUserRecord, 23200);
SC_OFFSET(ApUserRecord, lock_index, 0);
SC_OFFSET(ApUserRecord, user_id, 4);
SC_OFFSET(ApUserRecord, user_mac, 8);
SC_OFFSET(ApUserRecord, opaque_14, 14);

/* The run-time table of AP users. It is never saved, and its header differs from that of all other
 * areas. */
struct ApUserListBlock {
  char lock_path[128];
  int32_t block_lock_index; /* always 1 */
  uint8_t spare_132[4];
  struct ApUserRecord users[SC_AP_USERS];
  uint8_t spare_6960136[293472];
} SC_PACKED;
SC_SIZE(ApUserListBlock, 7253608);
SC_OFFSET(ApUserListBlock, lock_path, 0);
SC_OFFSET(ApUserListBlock, block_lock_index, 128);
SC_OFFSET(ApUserListBlock, spare_132, 132);
SC_OFFSET(ApUserListBlock, users, 136);
SC_OFFSET(ApUserListBlock, spare_6960136, 6960136);

struct ApTemplateRecord {
  int32_t lock_index;   /* 2..16 */
  uint32_t template_id; /* 0 free, else position + 1 */
  uint8_t opaque_8[50];
  char template_name[50];
  uint8_t opaque_108[11308];
  uint8_t bound_ap_mac[SC_MAC_BYTES]; /* all zero: none */
  uint8_t opaque_11422[586];
} SC_PACKED;
SC_SIZE(ApTemplateRecord, 12008);
SC_OFFSET(ApTemplateRecord, lock_index, 0);
SC_OFFSET(ApTemplateRecord, template_id, 4);
SC_OFFSET(ApTemplateRecord, opaque_8, 8);
SC_OFFSET(ApTemplateRecord, template_name, 58);
SC_OFFSET(ApTemplateRecord, opaque_108, 108);
SC_OFFSET(ApTemplateRecord, bound_ap_mac, 11416);
SC_OFFSET(ApTemplateRecord, opaque_11422, 11422);

struct ApTemplateListBlock {
  struct BlockHeader header;
  struct ApTemplateRecord templates[SC_AP_TEMPLATES];
  uint8_t spare_180256[504];
} SC_PACKED;
SC_SIZE(ApTemplateListBlock, 180760);
SC_OFFSET(ApTemplateListBlock, header, 0);
SC_OFFSET(ApTemplateListBlock, templates, 136);
SC_OFFSET(ApTemplateListBlock, spare_180256, 180256);

/* The default template: settings that the library neither reads nor writes. */
struct DefApTemplateBlock {
  struct BlockHeader header;
  uint8_t settings[11896];
} SC_PACKED;
SC_SIZE(DefApTemplateBlock, 12032);
SC_OFFSET(DefApTemplateBlock, header, 0);
SC_OFFSET(DefApTemplateBlock, settings, 136);

SC_BEGIN_DECLS

/* Managed APs. A record is free when its ap_id is 0. MACs are 6 raw bytes and are compared exactly.
 * Searches return the first match and do not skip free records. Claims and searches take no lock. A
 * flash save runs "send_event 5 0" and then "change_event ap" afterwards. Read also empties the
 * fragment buffers, before it loads the archive. */
uint32_t SC_Get_ManageApList_System_Config(void);
int SC_Uninit_System_ManageApList_Config(void);
int SC_Init_System_ManageApList_Config(int read_flag);
int SC_Read_System_ManageApList_Config(struct ManageApListBlock* block);
void SC_Save_System_ManageApList_Config(void);
void SC_Save_System_ManageApList_Config2Flash(struct ManageApListBlock* block);
/* Return the position of the first record with this id (0: the first free record) or this MAC, or
 * -1. */
int32_t SC_Get_Ap_Info_By_Id(const struct ManageApListBlock* block, uint32_t id);
int32_t SC_Get_Ap_Info_By_Mac(const struct ManageApListBlock* block, const uint8_t* mac);
/* Claims the lowest free record if fewer than max_ap_count records have an ap_id above 0 (as a
 * signed number). Returns its position or -1. */
int32_t SC_Get_Ap_Info_Blank(struct ManageApListBlock* block, const struct ApLimitsRecord* limits);
/* Return the number of used, online or offline APs; 0 for a null block. */
int32_t SC_Get_Ap_Info_Count(const struct ManageApListBlock* block);
int32_t SC_Get_Ap_Info_Count_Online(const struct ManageApListBlock* block);
int32_t SC_Get_Ap_Info_Count_Offline(const struct ManageApListBlock* block);
/* Fills positions[300] with the used positions, in order, then with -1. Returns the number of used
 * positions. For a null block it returns 0 and does not write to positions. */
int32_t SC_Get_Ap_Info_Count_And_Id(uint32_t* positions, const struct ManageApListBlock* block);
/* Under the record's lock. The first clears the whole record except its lock_index. The second
 * writes group_id (low byte of group) and group_info (50 bytes of info). The third clears these
 * two. Return 1 when done, 0 when no record has the MAC or the lock file could not be opened. */
int32_t SC_Del_Ap_Info_by_Mac(struct ManageApListBlock* block, const uint8_t* mac);
int32_t SC_Ap_Add_GroupInfo_by_Mac(struct ManageApListBlock* block, const char* info, int group,
                                   const uint8_t* mac);
int32_t SC_Ap_Clean_GroupInfo_by_Mac(struct ManageApListBlock* block, const uint8_t* mac);
/* Clears every used record except its lock_index, each under its lock. Returns the number of these
 * records; 0 when the lock file could not be opened. */
int32_t SC_Set_Ap_Info_Id2Zero(struct ManageApListBlock* block);
/* Sets wtp_frag_len of all records to 0, without locks. */
void SC_CleanWtpFragBuffer(struct ManageApListBlock* block);

/* AP users: a run-time table that is never saved. A record is free when its user_id is 0. MACs,
 * searches and claims work as with managed APs. */
uint32_t SC_Get_ApUserList_System_Config(void);
int SC_Uninit_System_ApUserList_Config(void);
/* Takes no flag, writes the header and the lock indices itself and loads nothing. In all else it
 * works as Init of the other areas. */
int SC_Init_System_ApUserList_Config(void);
/* Return the position of the first record with this id (0: the first free record) or this MAC, or
 * -1. */
int32_t SC_Get_ApUser_Info_By_Id(const struct ApUserListBlock* block, uint32_t id);
int32_t SC_Get_ApUser_Info_By_Mac(const struct ApUserListBlock* block, const uint8_t* mac);
/* Under the record's lock, clears the whole record except its lock_index. Returns 1 when done, 0
 * when no record has the MAC or the lock file could not be opened. */
int32_t SC_Del_ApUser_Info_by_Mac(struct ApUserListBlock* block, const uint8_t* mac);
/* Claims the lowest free record. Returns its position or -1. */
int32_t SC_Get_ApUser_Info_Blank(struct ApUserListBlock* block);
/* Number of used records; 0 for a null block. */
int32_t SC_Get_ApUser_Info_Count(const struct ApUserListBlock* block);

/* AP templates. A record is free when its template_id is 0. Searches and claims work as with
 * managed APs. A template binds at most one AP. */
uint32_t SC_Get_ApTemplateList_System_Config(void);
int SC_Uninit_System_ApTemplateList_Config(void);
int SC_Init_System_ApTemplateList_Config(int read_flag);
int SC_Read_System_ApTemplateList_Config(struct ApTemplateListBlock* block);
void SC_Save_System_ApTemplateList_Config(void);
void SC_Save_System_ApTemplateList_Config2Flash(struct ApTemplateListBlock* block);
/* Returns the position of the first record with this id (0: the first free record), or -1. */
int32_t SC_Get_AP_Template_Info_By_Id(const struct ApTemplateListBlock* block, uint32_t id);
/* Claims the lowest free record. Returns its position or -1. */
int32_t SC_Get_AP_Template_Info_Blank(struct ApTemplateListBlock* block);
/* Number of used records; 0 for a null block. */
int32_t SC_Get_AP_Template_Info_Count(const struct ApTemplateListBlock* block);
/* Clears the record at a position, not at an id. The position has to be 0 to 14; this is not
 * checked. Returns 1, or 0 when the lock file could not be opened. The bound AP keeps its group_id
 * and group_info: unbind it first. */
int32_t SC_Del_AP_Template_Info_By_Id(struct ApTemplateListBlock* block, uint32_t position);
/* Bind and unbind an AP by its MAC. They take the template's lock, then the AP's. Binding writes
 * the MAC to an unbound template, and the template's name and id to the AP. Binding the same AP
 * again writes name and id again. When another AP is bound, nothing changes. Unbinding clears the
 * MAC in the template, and group_id and group_info of the AP, if this AP is bound. Always return
 * 0. */
int32_t SC_Add_Ap_Mac2Template_By_Id(struct ApTemplateListBlock* block,
                                     struct ManageApListBlock* aps, uint32_t id,
                                     const uint8_t* mac);
int32_t SC_Del_Ap_Mac2Template_By_Id(struct ApTemplateListBlock* block,
                                     struct ManageApListBlock* aps, uint32_t id,
                                     const uint8_t* mac);

/* The default template: settings that the library neither reads nor writes. */
uint32_t SC_Get_DefApTemplate_System_Config(void);
int SC_Uninit_System_DefApTemplate_Config(void);
int SC_Init_System_DefApTemplate_Config(int read_flag);
int SC_Read_System_DefApTemplate_Config(struct DefApTemplateBlock* block);
void SC_Save_System_DefApTemplate_Config(void);
void SC_Save_System_DefApTemplate_Config2Flash(struct DefApTemplateBlock* block);

SC_END_DECLS

#endif
