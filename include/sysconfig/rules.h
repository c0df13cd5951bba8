/* The MAC filter, the URL filter and the QoS rules. Conventions: core.h.
 */
#ifndef SYSCONFIG_RULES_H
#define SYSCONFIG_RULES_H

#include <sysconfig/layout.h>

struct MacFilterRecord {
  int32_t lock_index; /* 2..33 */
  int32_t slot_id;    /* -1 free, else position + 1 */
  char leading_text[SC_TEXT];
  char mac[SC_MAC_TEXT]; /* compared without case */
  int8_t time_mode;      /* 1: listed with its time group; 2: deleted with its time group */
  int8_t time_group_id;
  int8_t weekday[SC_WEEKDAYS];
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  int8_t rule_flag;
  char trailing_text[SC_TEXT];
  uint8_t spare_458[502];
} SC_PACKED;
SC_SIZE(MacFilterRecord, 960);
SC_OFFSET(MacFilterRecord, lock_index, 0);
SC_OFFSET(MacFilterRecord, slot_id, 4);
SC_OFFSET(MacFilterRecord, leading_text, 8);
SC_OFFSET(MacFilterRecord, mac, 208);
SC_OFFSET(MacFilterRecord, time_mode, 228);
SC_OFFSET(MacFilterRecord, time_group_id, 229);
SC_OFFSET(MacFilterRecord, weekday, 230);
SC_OFFSET(MacFilterRecord, start_time, 237);
SC_OFFSET(MacFilterRecord, end_time, 247);
SC_OFFSET(MacFilterRecord, rule_flag, 257);
SC_OFFSET(MacFilterRecord, trailing_text, 258);
SC_OFFSET(MacFilterRecord, spare_458, 458);

struct FwMacBlock {
  struct BlockHeader header;
  uint8_t spare_136[4];
  uint16_t rule_count;
  uint8_t spare_142[2];
  struct MacFilterRecord rules[SC_FILTER_RULES];
  uint8_t spare_30864[1000];
} SC_PACKED;
SC_SIZE(FwMacBlock, 31864);
SC_OFFSET(FwMacBlock, header, 0);
SC_OFFSET(FwMacBlock, spare_136, 136);
SC_OFFSET(FwMacBlock, rule_count, 140);
SC_OFFSET(FwMacBlock, spare_142, 142);
SC_OFFSET(FwMacBlock, rules, 144);
SC_OFFSET(FwMacBlock, spare_30864, 30864);

struct MacFilterItem {
  int32_t id;
  char leading_text[SC_TEXT];
  uint8_t spare_204[200];
  char mac[SC_MAC_TEXT];
  int32_t time_mode;             /* low byte stored */
  int32_t time_group_id;         /* low byte stored */
  char time_group_name[SC_TEXT]; /* filled by the listing only */
  int32_t weekday[SC_WEEKDAYS];
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  int32_t rule_flag;
  char trailing_text[SC_TEXT];
  uint8_t spare_884[1456];
} SC_PACKED;
SC_SIZE(MacFilterItem, 2340);
SC_OFFSET(MacFilterItem, id, 0);
SC_OFFSET(MacFilterItem, leading_text, 4);
SC_OFFSET(MacFilterItem, spare_204, 204);
SC_OFFSET(MacFilterItem, mac, 404);
SC_OFFSET(MacFilterItem, time_mode, 424);
SC_OFFSET(MacFilterItem, time_group_id, 428);
SC_OFFSET(MacFilterItem, time_group_name, 432);
SC_OFFSET(MacFilterItem, weekday, 632);
SC_OFFSET(MacFilterItem, start_time, 660);
SC_OFFSET(MacFilterItem, end_time, 670);
SC_OFFSET(MacFilterItem, rule_flag, 680);
SC_OFFSET(MacFilterItem, trailing_text, 684);
SC_OFFSET(MacFilterItem, spare_884, 884);

struct MacFilterItemList {
  uint32_t count;
  uint32_t capacity; /* always 32 */
  struct MacFilterItem items[SC_FILTER_RULES];
  uint8_t tail[SC_LIST_TAIL];
} SC_PACKED;
SC_SIZE(MacFilterItemList, 75388);
SC_OFFSET(MacFilterItemList, count, 0);
SC_OFFSET(MacFilterItemList, capacity, 4);
SC_OFFSET(MacFilterItemList, items, 8);
SC_OFFSET(MacFilterItemList, tail, 74888);

struct UrlFilterRecord {
  int32_t lock_index; /* 2..33 */
  int32_t slot_id;    /* -1 free, else position + 1 */
  char leading_text[SC_TEXT];
  char url[128];    /* compared byte for byte, all 128 */
  int8_t time_mode; /* 1: listed with its time group; 2: deleted with its time group */
  int8_t time_group_id;
  int8_t weekday[SC_WEEKDAYS];
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  int8_t rule_flag;
  char trailing_text[SC_TEXT];
  uint8_t spare_566[502];
} SC_PACKED;
SC_SIZE(UrlFilterRecord, 1068);
SC_OFFSET(UrlFilterRecord, lock_index, 0);
SC_OFFSET(UrlFilterRecord, slot_id, 4);
SC_OFFSET(UrlFilterRecord, leading_text, 8);
SC_OFFSET(UrlFilterRecord, url, 208);
SC_OFFSET(UrlFilterRecord, time_mode, 336);
SC_OFFSET(UrlFilterRecord, time_group_id, 337);
SC_OFFSET(UrlFilterRecord, weekday, 338);
SC_OFFSET(UrlFilterRecord, start_time, 345);
SC_OFFSET(UrlFilterRecord, end_time, 355);
SC_OFFSET(UrlFilterRecord, rule_flag, 365);
SC_OFFSET(UrlFilterRecord, trailing_text, 366);
SC_OFFSET(UrlFilterRecord, spare_566, 566);

struct FwUrlBlock {
  struct BlockHeader header;
  uint8_t spare_136[4];
  uint16_t rule_count;
  uint8_t spare_142[2];
  struct UrlFilterRecord rules[SC_FILTER_RULES];
  uint8_t spare_34320[1000];
} SC_PACKED;
SC_SIZE(FwUrlBlock, 35320);
SC_OFFSET(FwUrlBlock, header, 0);
SC_OFFSET(FwUrlBlock, spare_136, 136);
SC_OFFSET(FwUrlBlock, rule_count, 140);
SC_OFFSET(FwUrlBlock, spare_142, 142);
SC_OFFSET(FwUrlBlock, rules, 144);
SC_OFFSET(FwUrlBlock, spare_34320, 34320);

struct UrlFilterItem {
  int32_t id;
  char leading_text[SC_TEXT];
  char url[128];
  uint8_t spare_332[2096];
  int32_t time_mode;             /* low byte stored */
  int32_t time_group_id;         /* low byte stored */
  char time_group_name[SC_TEXT]; /* filled by the listing only */
  int32_t weekday[SC_WEEKDAYS];
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  int32_t rule_flag;
  uint8_t spare_2688[4];
  char trailing_text[SC_TEXT];
  uint8_t spare_2892[500];
} SC_PACKED;
SC_SIZE(UrlFilterItem, 3392);
SC_OFFSET(UrlFilterItem, id, 0);
SC_OFFSET(UrlFilterItem, leading_text, 4);
SC_OFFSET(UrlFilterItem, url, 204);
SC_OFFSET(UrlFilterItem, spare_332, 332);
SC_OFFSET(UrlFilterItem, time_mode, 2428);
SC_OFFSET(UrlFilterItem, time_group_id, 2432);
SC_OFFSET(UrlFilterItem, time_group_name, 2436);
SC_OFFSET(UrlFilterItem, weekday, 2636);
SC_OFFSET(UrlFilterItem, start_time, 2664);
SC_OFFSET(UrlFilterItem, end_time, 2674);
SC_OFFSET(UrlFilterItem, rule_flag, 2684);
SC_OFFSET(UrlFilterItem, spare_2688, 2688);
SC_OFFSET(UrlFilterItem, trailing_text, 2692);
SC_OFFSET(UrlFilterItem, spare_2892, 2892);

struct UrlFilterItemList {
  uint32_t count;
  uint32_t capacity; /* always 32 */
  struct UrlFilterItem items[SC_FILTER_RULES];
  uint8_t tail[SC_LIST_TAIL];
} SC_PACKED;
SC_SIZE(UrlFilterItemList, 109052);
SC_OFFSET(UrlFilterItemList, count, 0);
SC_OFFSET(UrlFilterItemList, capacity, 4);
SC_OFFSET(UrlFilterItemList, items, 8);
SC_OFFSET(UrlFilterItemList, tail, 108552);

struct QosRuleRecord {
  int32_t lock_index; /* 2..33 */
  int32_t slot_id;    /* -1 free, else position + 1 */
  char leading_text[SC_TEXT];
  int8_t match_kind; /* 0: the rule selects by addresses */
  char match_text[SC_MAC_TEXT];
  int8_t ip_mode; /* 1: the addresses are those of the IP group */
  int16_t ip_group_id;
  uint8_t spare_232[4];
  uint32_t start_addr; /* as inet_addr returns it */
  uint8_t spare_240[12];
  uint32_t end_addr;
  uint8_t spare_256[8];
  int8_t time_mode; /* 1: listed with its time group; 2: deleted with its time group */
  int8_t time_group_id;
  int8_t weekday[SC_WEEKDAYS];
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  uint8_t spare_293[3];
  uint32_t param_1;
  uint32_t param_2;
  int8_t param_byte;
  int8_t rule_flag;
  char trailing_text[SC_TEXT];
  uint8_t spare_506[502];
} SC_PACKED;
SC_SIZE(QosRuleRecord, 1008);
SC_OFFSET(QosRuleRecord, lock_index, 0);
SC_OFFSET(QosRuleRecord, slot_id, 4);
SC_OFFSET(QosRuleRecord, leading_text, 8);
SC_OFFSET(QosRuleRecord, match_kind, 208);
SC_OFFSET(QosRuleRecord, match_text, 209);
SC_OFFSET(QosRuleRecord, ip_mode, 229);
SC_OFFSET(QosRuleRecord, ip_group_id, 230);
SC_OFFSET(QosRuleRecord, spare_232, 232);
SC_OFFSET(QosRuleRecord, start_addr, 236);
SC_OFFSET(QosRuleRecord, spare_240, 240);
SC_OFFSET(QosRuleRecord, end_addr, 252);
SC_OFFSET(QosRuleRecord, spare_256, 256);
SC_OFFSET(QosRuleRecord, time_mode, 264);
SC_OFFSET(QosRuleRecord, time_group_id, 265);
SC_OFFSET(QosRuleRecord, weekday, 266);
SC_OFFSET(QosRuleRecord, start_time, 273);
SC_OFFSET(QosRuleRecord, end_time, 283);
SC_OFFSET(QosRuleRecord, spare_293, 293);
SC_OFFSET(QosRuleRecord, param_1, 296);
SC_OFFSET(QosRuleRecord, param_2, 300);
SC_OFFSET(QosRuleRecord, param_byte, 304);
SC_OFFSET(QosRuleRecord, rule_flag, 305);
SC_OFFSET(QosRuleRecord, trailing_text, 306);
SC_OFFSET(QosRuleRecord, spare_506, 506);

struct QosBlock {
  struct BlockHeader header;
  uint8_t spare_136[4];
  uint16_t rule_count;
  uint8_t spare_142[2];
  struct QosRuleRecord rules[SC_FILTER_RULES];
  uint8_t spare_32400[1000];
} SC_PACKED;
SC_SIZE(QosBlock, 33400);
SC_OFFSET(QosBlock, header, 0);
SC_OFFSET(QosBlock, spare_136, 136);
SC_OFFSET(QosBlock, rule_count, 140);
SC_OFFSET(QosBlock, spare_142, 142);
SC_OFFSET(QosBlock, rules, 144);
SC_OFFSET(QosBlock, spare_32400, 32400);

struct QosItem {
  int32_t id;
  char leading_text[SC_TEXT];
  uint8_t spare_204[200];
  int32_t match_kind;          /* low byte stored */
  int32_t ip_mode;             /* low byte stored */
  int32_t ip_group_id;         /* low 16 bits stored */
  char ip_group_name[SC_TEXT]; /* filled by the listing only */
  uint8_t spare_616[940];
  int32_t time_mode;
  int32_t time_group_id;
  char time_group_name[SC_TEXT]; /* filled by the listing only */
  uint8_t spare_1764[956];
  char match_text[SC_MAC_TEXT];
  char start_ip_text[SC_IP_TEXT];
  char end_ip_text[SC_IP_TEXT];
  uint32_t param_1;
  uint32_t param_2;
  int32_t param_byte;
  int32_t weekday[SC_WEEKDAYS];
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  int32_t rule_flag;
  uint8_t spare_2836[4];
  char trailing_text[SC_TEXT];
  uint8_t spare_3040[500];
} SC_PACKED;
SC_SIZE(QosItem, 3540);
SC_OFFSET(QosItem, id, 0);
SC_OFFSET(QosItem, leading_text, 4);
SC_OFFSET(QosItem, spare_204, 204);
SC_OFFSET(QosItem, match_kind, 404);
SC_OFFSET(QosItem, ip_mode, 408);
SC_OFFSET(QosItem, ip_group_id, 412);
SC_OFFSET(QosItem, ip_group_name, 416);
SC_OFFSET(QosItem, spare_616, 616);
SC_OFFSET(QosItem, time_mode, 1556);
SC_OFFSET(QosItem, time_group_id, 1560);
SC_OFFSET(QosItem, time_group_name, 1564);
SC_OFFSET(QosItem, spare_1764, 1764);
SC_OFFSET(QosItem, match_text, 2720);
SC_OFFSET(QosItem, start_ip_text, 2740);
SC_OFFSET(QosItem, end_ip_text, 2756);
SC_OFFSET(QosItem, param_1, 2772);
SC_OFFSET(QosItem, param_2, 2776);
SC_OFFSET(QosItem, param_byte, 2780);
SC_OFFSET(QosItem, weekday, 2784);
SC_OFFSET(QosItem, start_time, 2812);
SC_OFFSET(QosItem, end_time, 2822);
SC_OFFSET(QosItem, rule_flag, 2832);
SC_OFFSET(QosItem, spare_2836, 2836);
SC_OFFSET(QosItem, trailing_text, 2840);
SC_OFFSET(QosItem, spare_3040, 3040);

struct QosItemList {
  uint32_t count;
  uint32_t capacity; /* always 32 */
  struct QosItem items[SC_FILTER_RULES];
  uint8_t tail[SC_LIST_TAIL];
} SC_PACKED;
SC_SIZE(QosItemList, 113788);
SC_OFFSET(QosItemList, count, 0);
SC_OFFSET(QosItemList, capacity, 4);
SC_OFFSET(QosItemList, items, 8);
SC_OFFSET(QosItemList, tail, 113288);

struct IpGroupBlock;
struct TimeGroupBlock;

SC_BEGIN_DECLS

/* MAC filter: two rules clash when their MAC texts are equal without case. Modify out of range:
 * SC_LIST_REJECTED. The listing shows a rule of time_mode 1 with its time group's name and
 * schedule. */
uint32_t SC_Get_FwMac_System_Config(void);
int SC_Uninit_System_FwMac_Config(void);
int SC_Init_System_FwMac_Config(int read_flag);
int SC_Read_System_FwMac_Config(struct FwMacBlock* block);
void SC_Save_System_FwMac_Config(void);
void SC_Save_System_FwMac_Config2Flash(struct FwMacBlock* block);
int32_t SC_Operate_System_List_FireWall_Mac(struct FwMacBlock* block, uint32_t op,
                                            uint32_t* position,
                                            const struct MacFilterRecord* record);
int32_t SC_Operate_System_List_GetFireWall_Mac_Blank(struct FwMacBlock* block);
int32_t SC_Operate_System_List_FireWall_MacCheckMac(const struct FwMacBlock* block,
                                                    const struct MacFilterRecord* record,
                                                    uint32_t skip_slot);
void GetMacFilterItemList(const struct FwMacBlock* block, const struct TimeGroupBlock* time_groups,
                          struct MacFilterItemList* list);
void GetMacFilterItem(const struct FwMacBlock* block, uint32_t id, struct MacFilterItem* item);
int32_t AddMacFilterItem(struct FwMacBlock* block, const struct MacFilterItem* item);
int32_t ModifyMacFilterItem(struct FwMacBlock* block, const struct MacFilterItem* item);
void DelMacFilterItem(struct FwMacBlock* block, char* ids);
void DelAllMacFilterItem(struct FwMacBlock* block);
/* Deletes every rule of time_mode 2 that refers to the group. Only these bytes of the record are
 * compared: a rule that was freed earlier is freed and counted again. One notification for each
 * rule. */
void DelMacFilterItemByTimeGroupId(struct FwMacBlock* block, int32_t time_group_id);

/* URL filter: two rules clash when all 128 bytes of their URLs are equal. Modify out of range:
 * SC_LIST_REJECTED. The listing shows a rule of time_mode 1 with its time group's name and
 * schedule. */
uint32_t SC_Get_FwUrl_System_Config(void);
int SC_Uninit_System_FwUrl_Config(void);
int SC_Init_System_FwUrl_Config(int read_flag);
int SC_Read_System_FwUrl_Config(struct FwUrlBlock* block);
void SC_Save_System_FwUrl_Config(void);
void SC_Save_System_FwUrl_Config2Flash(struct FwUrlBlock* block);
int32_t SC_Operate_System_List_FireWall_Url(struct FwUrlBlock* block, uint32_t op,
                                            uint32_t* position,
                                            const struct UrlFilterRecord* record);
int32_t SC_Operate_System_List_GetFireWall_Url_Blank(struct FwUrlBlock* block);
int32_t SC_Operate_System_List_FireWall_UrlCheckUrl(const struct FwUrlBlock* block,
                                                    const struct UrlFilterRecord* record,
                                                    uint32_t skip_slot);
void GetUrlFilterItemList(const struct FwUrlBlock* block, const struct TimeGroupBlock* time_groups,
                          struct UrlFilterItemList* list);
void GetUrlFilterItem(const struct FwUrlBlock* block, uint32_t id, struct UrlFilterItem* item);
int32_t AddUrlFilterItem(struct FwUrlBlock* block, const struct UrlFilterItem* item);
int32_t ModifyUrlFilterItem(struct FwUrlBlock* block, const struct UrlFilterItem* item);
void DelUrlFilterItem(struct FwUrlBlock* block, char* ids);
void DelAllUrlFilterItem(struct FwUrlBlock* block);
/* Deletes every rule of time_mode 2 that refers to the group. Only these bytes of the record are
 * compared: a rule that was freed earlier is freed and counted again. One notification for each
 * rule. */
void DelUrlFilterItemByTimeGroupId(struct FwUrlBlock* block, int32_t time_group_id);

/* QoS: no clash check. Modify out of range: SC_LIST_MOD_RANGE. The listing shows a rule of
 * match_kind 0 and ip_mode 1 with its IP group's name and addresses, and a rule of time_mode 1 with
 * its time group's name and schedule. */
uint32_t SC_Get_Qos_System_Config(void);
int SC_Uninit_System_Qos_Config(void);
int SC_Init_System_Qos_Config(int read_flag);
int SC_Read_System_Qos_Config(struct QosBlock* block);
void SC_Save_System_Qos_Config(void);
void SC_Save_System_Qos_Config2Flash(struct QosBlock* block);
int32_t SC_Operate_System_List_QosRule(struct QosBlock* block, uint32_t op, uint32_t* position,
                                       const struct QosRuleRecord* record);
int32_t SC_Operate_System_List_GetQosRule_Blank(struct QosBlock* block);
void GetQosItemList(const struct QosBlock* block, const struct IpGroupBlock* ip_groups,
                    const struct TimeGroupBlock* time_groups, struct QosItemList* list);
void GetQosItem(const struct QosBlock* block, uint32_t id, struct QosItem* item);
int32_t AddQosItem(struct QosBlock* block, const struct QosItem* item);
int32_t ModifyQosItem(struct QosBlock* block, const struct QosItem* item);
void DelQosItem(struct QosBlock* block, char* ids);
void DelAllQosItem(struct QosBlock* block);
/* Delete every rule of ip_mode 1 (time_mode 2) that refers to the group, as the IP filter does. */
void DelQosItemByIpGroupId(struct QosBlock* block, int32_t ip_group_id);
void DelQosItemByTimeGroupId(struct QosBlock* block, int32_t time_group_id);

SC_END_DECLS

#endif
