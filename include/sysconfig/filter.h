/* IP groups and time groups, to which rules refer by id, the IP filter and port forwarding.
 * Conventions: core.h.
 */
#ifndef SYSCONFIG_FILTER_H
#define SYSCONFIG_FILTER_H

#include <sysconfig/layout.h>

struct IpGroupRecord {
  int32_t lock_index;         /* 2..17 */
  int32_t slot_id;            /* -1 free, else position + 1 */
  char leading_text[SC_TEXT]; /* the group's name */
  uint8_t spare_208[4];
  uint32_t start_addr; /* as inet_addr returns it */
  uint8_t spare_216[12];
  uint32_t end_addr;
  uint8_t spare_232[8];
  char trailing_text[SC_TEXT];
  uint8_t spare_440[500];
} SC_PACKED;
SC_SIZE(IpGroupRecord, 940);
SC_OFFSET(IpGroupRecord, lock_index, 0);
SC_OFFSET(IpGroupRecord, slot_id, 4);
SC_OFFSET(IpGroupRecord, leading_text, 8);
SC_OFFSET(IpGroupRecord, spare_208, 208);
SC_OFFSET(IpGroupRecord, start_addr, 212);
SC_OFFSET(IpGroupRecord, spare_216, 216);
SC_OFFSET(IpGroupRecord, end_addr, 228);
SC_OFFSET(IpGroupRecord, spare_232, 232);
SC_OFFSET(IpGroupRecord, trailing_text, 240);
SC_OFFSET(IpGroupRecord, spare_440, 440);

struct IpGroupBlock {
  struct BlockHeader header;
  uint32_t group_count;
  struct IpGroupRecord groups[SC_IP_GROUPS];
  uint8_t spare_15180[1000];
} SC_PACKED;
SC_SIZE(IpGroupBlock, 16180);
SC_OFFSET(IpGroupBlock, header, 0);
SC_OFFSET(IpGroupBlock, group_count, 136);
SC_OFFSET(IpGroupBlock, groups, 140);
SC_OFFSET(IpGroupBlock, spare_15180, 15180);

struct IpGroupItem {
  int32_t slot_id; /* the group's id */
  char leading_text[SC_TEXT];
  char start_ip_text[SC_IP_TEXT];
  char end_ip_text[SC_IP_TEXT];
  char trailing_text[SC_TEXT];
  uint8_t spare_436[504];
} SC_PACKED;
SC_SIZE(IpGroupItem, 940);
SC_OFFSET(IpGroupItem, slot_id, 0);
SC_OFFSET(IpGroupItem, leading_text, 4);
SC_OFFSET(IpGroupItem, start_ip_text, 204);
SC_OFFSET(IpGroupItem, end_ip_text, 220);
SC_OFFSET(IpGroupItem, trailing_text, 236);
SC_OFFSET(IpGroupItem, spare_436, 436);

struct IpGroupItemList {
  uint32_t count;
  uint32_t capacity; /* always 16 */
  struct IpGroupItem items[SC_IP_GROUPS];
  uint8_t tail[SC_LIST_TAIL];
} SC_PACKED;
SC_SIZE(IpGroupItemList, 15548);
SC_OFFSET(IpGroupItemList, count, 0);
SC_OFFSET(IpGroupItemList, capacity, 4);
SC_OFFSET(IpGroupItemList, items, 8);
SC_OFFSET(IpGroupItemList, tail, 15048);

/* The library copies the schedule (weekday, start_time, end_time) and never parses it. It consists
 * of seven signed day values and two texts of 10 bytes, which need no terminator. */
struct TimeGroupRecord {
  int32_t lock_index;         /* 2..17 */
  int32_t slot_id;            /* -1 free, else position + 1 */
  char leading_text[SC_TEXT]; /* the group's name */
  int8_t weekday[SC_WEEKDAYS];
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  char trailing_text[SC_TEXT];
  uint8_t spare_435[501];
} SC_PACKED;
SC_SIZE(TimeGroupRecord, 936);
SC_OFFSET(TimeGroupRecord, lock_index, 0);
SC_OFFSET(TimeGroupRecord, slot_id, 4);
SC_OFFSET(TimeGroupRecord, leading_text, 8);
SC_OFFSET(TimeGroupRecord, weekday, 208);
SC_OFFSET(TimeGroupRecord, start_time, 215);
SC_OFFSET(TimeGroupRecord, end_time, 225);
SC_OFFSET(TimeGroupRecord, trailing_text, 235);
SC_OFFSET(TimeGroupRecord, spare_435, 435);

struct TimeGroupBlock {
  struct BlockHeader header;
  uint32_t group_count;
  struct TimeGroupRecord groups[SC_TIME_GROUPS];
  uint8_t spare_15116[1000];
} SC_PACKED;
SC_SIZE(TimeGroupBlock, 16116);
SC_OFFSET(TimeGroupBlock, header, 0);
SC_OFFSET(TimeGroupBlock, group_count, 136);
SC_OFFSET(TimeGroupBlock, groups, 140);
SC_OFFSET(TimeGroupBlock, spare_15116, 15116);

struct TimeGroupItem {
  int32_t slot_id; /* the group's id */
  char leading_text[SC_TEXT];
  int32_t weekday[SC_WEEKDAYS]; /* low bytes are stored; come back sign-extended */
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  char trailing_text[SC_TEXT];
  uint8_t spare_452[504];
} SC_PACKED;
SC_SIZE(TimeGroupItem, 956);
SC_OFFSET(TimeGroupItem, slot_id, 0);
SC_OFFSET(TimeGroupItem, leading_text, 4);
SC_OFFSET(TimeGroupItem, weekday, 204);
SC_OFFSET(TimeGroupItem, start_time, 232);
SC_OFFSET(TimeGroupItem, end_time, 242);
SC_OFFSET(TimeGroupItem, trailing_text, 252);
SC_OFFSET(TimeGroupItem, spare_452, 452);

struct TimeGroupItemList {
  uint32_t count;
  uint32_t capacity; /* always 16 */
  struct TimeGroupItem items[SC_TIME_GROUPS];
  uint8_t tail[SC_LIST_TAIL];
} SC_PACKED;
SC_SIZE(TimeGroupItemList, 15804);
SC_OFFSET(TimeGroupItemList, count, 0);
SC_OFFSET(TimeGroupItemList, capacity, 4);
SC_OFFSET(TimeGroupItemList, items, 8);
SC_OFFSET(TimeGroupItemList, tail, 15304);

struct IpFilterRecord {
  int32_t lock_index; /* 2..33 */
  int32_t slot_id;    /* -1 free, else position + 1 */
  char leading_text[SC_TEXT];
  int8_t ip_mode; /* 1: the addresses are those of the IP group */
  uint8_t spare_209[1];
  int16_t ip_group_id;
  uint8_t spare_212[4];
  uint32_t start_addr; /* as inet_addr returns it */
  uint8_t spare_220[12];
  uint32_t end_addr;
  uint8_t spare_236[8];
  uint32_t param_1;
  uint32_t param_2;
  int8_t param_byte;
  int8_t time_mode; /* 1: listed with its time group; 2: deleted with its time group */
  int8_t time_group_id;
  int8_t weekday[SC_WEEKDAYS];
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  int8_t rule_flag;
  char trailing_text[SC_TEXT];
  uint8_t spare_483[501];
} SC_PACKED;
SC_SIZE(IpFilterRecord, 984);
SC_OFFSET(IpFilterRecord, lock_index, 0);
SC_OFFSET(IpFilterRecord, slot_id, 4);
SC_OFFSET(IpFilterRecord, leading_text, 8);
SC_OFFSET(IpFilterRecord, ip_mode, 208);
SC_OFFSET(IpFilterRecord, spare_209, 209);
SC_OFFSET(IpFilterRecord, ip_group_id, 210);
SC_OFFSET(IpFilterRecord, spare_212, 212);
SC_OFFSET(IpFilterRecord, start_addr, 216);
SC_OFFSET(IpFilterRecord, spare_220, 220);
SC_OFFSET(IpFilterRecord, end_addr, 232);
SC_OFFSET(IpFilterRecord, spare_236, 236);
SC_OFFSET(IpFilterRecord, param_1, 244);
SC_OFFSET(IpFilterRecord, param_2, 248);
SC_OFFSET(IpFilterRecord, param_byte, 252);
SC_OFFSET(IpFilterRecord, time_mode, 253);
SC_OFFSET(IpFilterRecord, time_group_id, 254);
SC_OFFSET(IpFilterRecord, weekday, 255);
SC_OFFSET(IpFilterRecord, start_time, 262);
SC_OFFSET(IpFilterRecord, end_time, 272);
SC_OFFSET(IpFilterRecord, rule_flag, 282);
SC_OFFSET(IpFilterRecord, trailing_text, 283);
SC_OFFSET(IpFilterRecord, spare_483, 483);

struct FwIpportBlock {
  struct BlockHeader header;
  uint8_t spare_136[4];
  uint16_t rule_count;
  uint8_t spare_142[2];
  struct IpFilterRecord rules[SC_FILTER_RULES];
  uint8_t spare_31632[1000];
} SC_PACKED;
SC_SIZE(FwIpportBlock, 32632);
SC_OFFSET(FwIpportBlock, header, 0);
SC_OFFSET(FwIpportBlock, spare_136, 136);
SC_OFFSET(FwIpportBlock, rule_count, 140);
SC_OFFSET(FwIpportBlock, spare_142, 142);
SC_OFFSET(FwIpportBlock, rules, 144);
SC_OFFSET(FwIpportBlock, spare_31632, 31632);

struct IpFilterItem {
  int32_t slot_id; /* the rule's id */
  char leading_text[SC_TEXT];
  uint8_t spare_204[200];
  int32_t ip_mode;             /* low byte stored */
  int32_t ip_group_id;         /* low 16 bits stored */
  char ip_group_name[SC_TEXT]; /* filled by the listing only */
  int32_t time_mode;
  int32_t time_group_id;
  char time_group_name[SC_TEXT]; /* filled by the listing only */
  uint8_t spare_820[1896];
  int32_t weekday[SC_WEEKDAYS];
  char start_time[SC_TIME_TEXT];
  char end_time[SC_TIME_TEXT];
  char start_ip_text[SC_IP_TEXT];
  char end_ip_text[SC_IP_TEXT];
  uint32_t param_1;
  uint32_t param_2;
  int32_t param_byte;
  char trailing_text[SC_TEXT];
  int32_t rule_flag;
  uint8_t spare_3012[504];
} SC_PACKED;
SC_SIZE(IpFilterItem, 3516);
SC_OFFSET(IpFilterItem, slot_id, 0);
SC_OFFSET(IpFilterItem, leading_text, 4);
SC_OFFSET(IpFilterItem, spare_204, 204);
SC_OFFSET(IpFilterItem, ip_mode, 404);
SC_OFFSET(IpFilterItem, ip_group_id, 408);
SC_OFFSET(IpFilterItem, ip_group_name, 412);
SC_OFFSET(IpFilterItem, time_mode, 612);
SC_OFFSET(IpFilterItem, time_group_id, 616);
SC_OFFSET(IpFilterItem, time_group_name, 620);
SC_OFFSET(IpFilterItem, spare_820, 820);
SC_OFFSET(IpFilterItem, weekday, 2716);
SC_OFFSET(IpFilterItem, start_time, 2744);
SC_OFFSET(IpFilterItem, end_time, 2754);
SC_OFFSET(IpFilterItem, start_ip_text, 2764);
SC_OFFSET(IpFilterItem, end_ip_text, 2780);
SC_OFFSET(IpFilterItem, param_1, 2796);
SC_OFFSET(IpFilterItem, param_2, 2800);
SC_OFFSET(IpFilterItem, param_byte, 2804);
SC_OFFSET(IpFilterItem, trailing_text, 2808);
SC_OFFSET(IpFilterItem, rule_flag, 3008);
SC_OFFSET(IpFilterItem, spare_3012, 3012);

struct IpFilterItemList {
  uint32_t count;
  uint32_t capacity; /* always 32 */
  struct IpFilterItem items[SC_FILTER_RULES];
  uint8_t tail[SC_LIST_TAIL];
} SC_PACKED;
SC_SIZE(IpFilterItemList, 113020);
SC_OFFSET(IpFilterItemList, count, 0);
SC_OFFSET(IpFilterItemList, capacity, 4);
SC_OFFSET(IpFilterItemList, items, 8);
SC_OFFSET(IpFilterItemList, tail, 112520);

struct PortFwRecord {
  int32_t lock_index; /* 2..33 */
  int32_t slot_id;    /* -1 free, else position + 1 */
  char leading_text[SC_TEXT];
  uint8_t spare_208[4];
  uint32_t ip_addr; /* as inet_addr returns it */
  uint8_t spare_216[8];
  int8_t option_1;
  uint8_t spare_225[3];
  uint32_t number_1;
  uint32_t number_2;
  uint32_t number_3;
  uint32_t number_4;
  int8_t option_2;
  int8_t option_3;
  char trailing_text[SC_TEXT];
  uint8_t spare_446[502];
} SC_PACKED;
SC_SIZE(PortFwRecord, 948);
SC_OFFSET(PortFwRecord, lock_index, 0);
SC_OFFSET(PortFwRecord, slot_id, 4);
SC_OFFSET(PortFwRecord, leading_text, 8);
SC_OFFSET(PortFwRecord, spare_208, 208);
SC_OFFSET(PortFwRecord, ip_addr, 212);
SC_OFFSET(PortFwRecord, spare_216, 216);
SC_OFFSET(PortFwRecord, option_1, 224);
SC_OFFSET(PortFwRecord, spare_225, 225);
SC_OFFSET(PortFwRecord, number_1, 228);
SC_OFFSET(PortFwRecord, number_2, 232);
SC_OFFSET(PortFwRecord, number_3, 236);
SC_OFFSET(PortFwRecord, number_4, 240);
SC_OFFSET(PortFwRecord, option_2, 244);
SC_OFFSET(PortFwRecord, option_3, 245);
SC_OFFSET(PortFwRecord, trailing_text, 246);
SC_OFFSET(PortFwRecord, spare_446, 446);

struct VsIpportBlock {
  struct BlockHeader header;
  uint8_t spare_136[4];
  uint16_t rule_count;
  uint8_t spare_142[2];
  struct PortFwRecord rules[SC_FILTER_RULES];
  uint8_t spare_30480[1000];
} SC_PACKED;
SC_SIZE(VsIpportBlock, 31480);
SC_OFFSET(VsIpportBlock, header, 0);
SC_OFFSET(VsIpportBlock, spare_136, 136);
SC_OFFSET(VsIpportBlock, rule_count, 140);
SC_OFFSET(VsIpportBlock, spare_142, 142);
SC_OFFSET(VsIpportBlock, rules, 144);
SC_OFFSET(VsIpportBlock, spare_30480, 30480);

/* The numbers have another order here than in the record. */
struct PortFwItem {
  int32_t slot_id; /* the rule's id */
  char leading_text[SC_TEXT];
  uint8_t spare_204[200];
  int32_t option_1; /* low byte stored */
  char ip_text[SC_IP_TEXT];
  uint32_t number_3;
  uint32_t number_4;
  uint32_t number_1;
  uint32_t number_2;
  int32_t option_3;
  char trailing_text[SC_TEXT];
  int32_t option_2;
  uint8_t spare_648[504];
} SC_PACKED;
SC_SIZE(PortFwItem, 1152);
SC_OFFSET(PortFwItem, slot_id, 0);
SC_OFFSET(PortFwItem, leading_text, 4);
SC_OFFSET(PortFwItem, spare_204, 204);
SC_OFFSET(PortFwItem, option_1, 404);
SC_OFFSET(PortFwItem, ip_text, 408);
SC_OFFSET(PortFwItem, number_3, 424);
SC_OFFSET(PortFwItem, number_4, 428);
SC_OFFSET(PortFwItem, number_1, 432);
SC_OFFSET(PortFwItem, number_2, 436);
SC_OFFSET(PortFwItem, option_3, 440);
SC_OFFSET(PortFwItem, trailing_text, 444);
SC_OFFSET(PortFwItem, option_2, 644);
SC_OFFSET(PortFwItem, spare_648, 648);

struct PortFwItemList {
  uint32_t count;
  uint32_t capacity; /* always 32 */
  struct PortFwItem items[SC_FILTER_RULES];
  uint8_t tail[SC_LIST_TAIL];
} SC_PACKED;
SC_SIZE(PortFwItemList, 37372);
SC_OFFSET(PortFwItemList, count, 0);
SC_OFFSET(PortFwItemList, capacity, 4);
SC_OFFSET(PortFwItemList, items, 8);
SC_OFFSET(PortFwItemList, tail, 36872);

SC_BEGIN_DECLS

/* IP groups: named address ranges. Every range is accepted: there is no clash check, and the end
 * may be below the start. Modify out of range: SC_LIST_MOD_RANGE. */
uint32_t SC_Get_IpGroup_System_Config(void);
int SC_Uninit_System_IpGroup_Config(void);
int SC_Init_System_IpGroup_Config(int read_flag);
int SC_Read_System_IpGroup_Config(struct IpGroupBlock* block);
void SC_Save_System_IpGroup_Config(void);
void SC_Save_System_IpGroup_Config2Flash(struct IpGroupBlock* block);
int32_t SC_Operate_System_List_UserIpGroup(struct IpGroupBlock* block, uint32_t op,
                                           uint32_t* position, const struct IpGroupRecord* record);
int32_t SC_Operate_System_List_GetUserIpGroup_Blank(struct IpGroupBlock* block);
void GetIpGroupItemList(const struct IpGroupBlock* block, struct IpGroupItemList* list);
void GetIpGroupItem(const struct IpGroupBlock* block, uint32_t id, struct IpGroupItem* item);
int32_t AddIpGroupItem(struct IpGroupBlock* block, const struct IpGroupItem* item);
int32_t ModifyIpGroupItem(struct IpGroupBlock* block, const struct IpGroupItem* item);
/* Returns the position of the first record whose slot_id is id, or -1 (also for a null block). For
 * an id of -1 this is the first free position. */
int32_t GetIpGroupIndex(const struct IpGroupBlock* block, int32_t id);
struct QosBlock;
/* For each group of ids, deletes the IP filter and QoS rules that refer to it, then the group. */
void DelIpGroupItem(struct IpGroupBlock* block, struct FwIpportBlock* ip_filters,
                    struct QosBlock* qos_rules, char* ids);
/* Leaves the rules that refer to groups as they are. */
void DelAllIpGroupItem(struct IpGroupBlock* block);

/* Time groups: named weekly schedules. Modify out of range: SC_LIST_MOD_RANGE. */
uint32_t SC_Get_TimeGroup_System_Config(void);
int SC_Uninit_System_TimeGroup_Config(void);
int SC_Init_System_TimeGroup_Config(int read_flag);
int SC_Read_System_TimeGroup_Config(struct TimeGroupBlock* block);
void SC_Save_System_TimeGroup_Config(void);
void SC_Save_System_TimeGroup_Config2Flash(struct TimeGroupBlock* block);
int32_t SC_Operate_System_List_UserTimeGroup(struct TimeGroupBlock* block, uint32_t op,
                                             uint32_t* position,
                                             const struct TimeGroupRecord* record);
int32_t SC_Operate_System_List_GetUserTimeGroup_Blank(struct TimeGroupBlock* block);
void GetTimeGroupItemList(const struct TimeGroupBlock* block, struct TimeGroupItemList* list);
void GetTimeGroupItem(const struct TimeGroupBlock* block, uint32_t id, struct TimeGroupItem* item);
int32_t AddTimeGroupItem(struct TimeGroupBlock* block, const struct TimeGroupItem* item);
int32_t ModifyTimeGroupItem(struct TimeGroupBlock* block, const struct TimeGroupItem* item);
struct FwMacBlock;
struct FwUrlBlock;
/* For each group of ids, deletes the rules that refer to it with time_mode 2, then the group. The
 * order is IP filter, URL filter, MAC filter and QoS. */
void DelTimeGroupItem(struct TimeGroupBlock* block, struct FwIpportBlock* ip_filters,
                      struct FwMacBlock* mac_filters, struct FwUrlBlock* url_filters,
                      struct QosBlock* qos_rules, char* ids);
/* Leaves the rules that refer to groups as they are. */
void DelAllTimeGroupItem(struct TimeGroupBlock* block);

/* IP filter: no clash check. Modify out of range: SC_LIST_MOD_RANGE. The listing shows a rule of
 * ip_mode 1 with its IP group's name and addresses, and a rule of time_mode 1 with its time group's
 * name and schedule. GetIpFilterItem shows the rule's own addresses and schedule. */
uint32_t SC_Get_FwIpport_System_Config(void);
int SC_Uninit_System_FwIpport_Config(void);
int SC_Init_System_FwIpport_Config(int read_flag);
int SC_Read_System_FwIpport_Config(struct FwIpportBlock* block);
void SC_Save_System_FwIpport_Config(void);
void SC_Save_System_FwIpport_Config2Flash(struct FwIpportBlock* block);
int32_t SC_Operate_System_List_FireWall_IpPort(struct FwIpportBlock* block, uint32_t op,
                                               uint32_t* position,
                                               const struct IpFilterRecord* record);
int32_t SC_Operate_System_List_GetFireWall_IpPort_Blank(struct FwIpportBlock* block);
void GetIpFilterItemList(const struct FwIpportBlock* block, const struct IpGroupBlock* ip_groups,
                         const struct TimeGroupBlock* time_groups, struct IpFilterItemList* list);
void GetIpFilterItem(const struct FwIpportBlock* block, uint32_t id, struct IpFilterItem* item);
int32_t AddIpFilterItem(struct FwIpportBlock* block, const struct IpFilterItem* item);
int32_t ModifyIpFilterItem(struct FwIpportBlock* block, const struct IpFilterItem* item);
void DelIpFilterItem(struct FwIpportBlock* block, char* ids);
/* Delete every rule of ip_mode 1 (time_mode 2) that refers to the group. Only these bytes of the
 * record are compared: a rule that was freed earlier is freed and counted again. One notification
 * for each rule. */
void DelIpFilterItemByIpGroupId(struct FwIpportBlock* block, int32_t ip_group_id);
void DelIpFilterItemByTimeGroupId(struct FwIpportBlock* block, int32_t time_group_id);
/* Walks the block with the port-forwarding table's geometry: frees rule 0 and writes -1 at 31 other
 * places. Rules 1 to 31 stay in use. Then rule_count is 0. */
void DelAllIpFilterItem(struct FwIpportBlock* block);

/* Port forwarding: no clash check. Modify out of range: SC_LIST_MOD_RANGE. */
uint32_t SC_Get_VsIpport_System_Config(void);
int SC_Uninit_System_VsIpport_Config(void);
int SC_Init_System_VsIpport_Config(int read_flag);
int SC_Read_System_VsIpport_Config(struct VsIpportBlock* block);
void SC_Save_System_VsIpport_Config(void);
void SC_Save_System_VsIpport_Config2Flash(struct VsIpportBlock* block);
int32_t SC_Operate_System_List_ForwordIpPort(struct VsIpportBlock* block, uint32_t op,
                                             uint32_t* position, const struct PortFwRecord* record);
int32_t SC_Operate_System_List_GetForwordIpPort_Blank(struct VsIpportBlock* block);
void GetPortFwItemList(const struct VsIpportBlock* block, struct PortFwItemList* list);
void GetPortFwItem(const struct VsIpportBlock* block, uint32_t id, struct PortFwItem* item);
int32_t AddPortFwItem(struct VsIpportBlock* block, const struct PortFwItem* item);
int32_t ModifyPortFwItem(struct VsIpportBlock* block, const struct PortFwItem* item);
void DelPortFwItem(struct VsIpportBlock* block, char* ids);
void DelAllPortFwItem(struct VsIpportBlock* block);

SC_END_DECLS

#endif
