/* The rows of the catalogue, and the makers that derive them from the public structs. */
#include "catalogue.h"

#include <string.h>

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

namespace scctl {

namespace {

/* ---- makers of fields ---- */

template <class T>
struct Element {
  using Type = T;
};
template <class T, size_t kCount>
struct Element<T[kCount]> {
  using Type = T;
};

template <class T>
constexpr bool kIsSigned = static_cast<T>(-1) < static_cast<T>(0);

template <class Member>
consteval Kind kind_of() {
  using T = typename Element<Member>::Type;
  if (__is_same(T, char)) return Kind::kText;
  if (__is_same(Member, uint8_t[SC_MAC_BYTES])) return Kind::kMac;
  if (__is_same(T, uint8_t) && sizeof(Member) > 1) return Kind::kBytes;
  return kIsSigned<T> ? Kind::kSigned : Kind::kUnsigned;
}

template <class Member>
consteval Field in_record(const char* name, size_t at) {
  static_assert(sizeof(Member) <= UINT16_MAX);
  return {name,
          name,
          static_cast<uint16_t>(at),
          kNoItem,
          sizeof(Member),
          kind_of<Member>(),
          sizeof(typename Element<Member>::Type) & 0xff,
          Clash::kNone,
          false};
}

template <class Member, class Shown>
consteval Field in_item(const char* member, size_t at, const char* name, size_t item_at) {
  Field f = in_record<Member>(member, at);
  f.name = name;
  f.item_at = static_cast<uint16_t>(item_at);
  if constexpr (__is_same(Member, uint32_t) && __is_same(Shown, char[SC_IP_TEXT])) {
    f.kind = Kind::kAddress;
  } else if constexpr (sizeof(Member) != sizeof(Shown)) {
    using T = typename Element<Member>::Type;
    static_assert(kIsSigned<T> && __is_same(typename Element<Shown>::Type, int32_t) &&
                      sizeof(Shown) / 4 == sizeof(Member) / sizeof(T),
                  "items widen signed numbers one by one");
  }
  return f;
}

consteval Field unique(Field f, Clash clash) {
  f.clash = clash;
  return f;
}

consteval Field mac_text(Field f) {
  f.kind = Kind::kMacText;
  return f;
}

consteval Field written_by_add(Field f) {
  f.add_only = true;
  return f;
}

#define IN_RECORD(member) in_record<decltype(Record::member)>(#member, offsetof(Record, member))
#define IN_ITEM(member, shown)                                                                \
  in_item<decltype(Record::member), decltype(Item::shown)>(#member, offsetof(Record, member), \
                                                           #shown, offsetof(Item, shown))
#define SAME(member) IN_ITEM(member, member)

/* What several lists of rules have, member by member. */
#define ADDRESS_RANGE                                                   \
  SAME(ip_mode), SAME(ip_group_id), IN_ITEM(start_addr, start_ip_text), \
      IN_ITEM(end_addr, end_ip_text), SAME(param_1), SAME(param_2), SAME(param_byte)
#define SCHEDULE                                                                         \
  SAME(time_mode), SAME(time_group_id), SAME(weekday), SAME(start_time), SAME(end_time), \
      SAME(rule_flag), SAME(trailing_text)

/* ---- fields ---- */

namespace dhcp {
using Record = DhcpBindRecord;
using Item = DhcpStaticItem;
constexpr Field kFields[] = {
    unique(mac_text(IN_ITEM(bind_mac, mac)), Clash::kTextWithoutCase),
    unique(IN_ITEM(bind_ip, ip), Clash::kBytes),
    IN_ITEM(bind_flag, flag),
    IN_ITEM(bind_name, name),
};
}  // namespace dhcp

namespace ip_group {
using Record = IpGroupRecord;
using Item = IpGroupItem;
constexpr Field kFields[] = {
    SAME(leading_text),
    IN_ITEM(start_addr, start_ip_text),
    IN_ITEM(end_addr, end_ip_text),
    SAME(trailing_text),
};
}  // namespace ip_group

namespace time_group {
using Record = TimeGroupRecord;
using Item = TimeGroupItem;
constexpr Field kFields[] = {
    SAME(leading_text), SAME(weekday), SAME(start_time), SAME(end_time), SAME(trailing_text),
};
}  // namespace time_group

namespace ip_filter {
using Record = IpFilterRecord;
using Item = IpFilterItem;
constexpr Field kFields[] = {
    SAME(leading_text),
    ADDRESS_RANGE,
    SCHEDULE,
};
}  // namespace ip_filter

namespace port_forward {
using Record = PortFwRecord;
using Item = PortFwItem;
constexpr Field kFields[] = {
    SAME(leading_text), IN_ITEM(ip_addr, ip_text),
    SAME(option_1),     SAME(number_1),
    SAME(number_2),     SAME(number_3),
    SAME(number_4),     SAME(option_2),
    SAME(option_3),     SAME(trailing_text),
};
}  // namespace port_forward

namespace mac_filter {
using Record = MacFilterRecord;
using Item = MacFilterItem;
constexpr Field kFields[] = {
    unique(mac_text(SAME(mac)), Clash::kTextWithoutCase),
    SAME(leading_text),
    SCHEDULE,
};
}  // namespace mac_filter

namespace url_filter {
using Record = UrlFilterRecord;
using Item = UrlFilterItem;
constexpr Field kFields[] = {
    unique(SAME(url), Clash::kBytes),
    SAME(leading_text),
    SCHEDULE,
};
}  // namespace url_filter

namespace qos {
using Record = QosRuleRecord;
using Item = QosItem;
constexpr Field kFields[] = {
    SAME(leading_text), SAME(match_kind), SAME(match_text), ADDRESS_RANGE, SCHEDULE,
};
}  // namespace qos

namespace ap {
using Record = ApInfoRecord;
constexpr Field kFields[] = {
    IN_RECORD(ap_mac),       IN_RECORD(run_state),    IN_RECORD(group_id),
    IN_RECORD(group_info),   IN_RECORD(wtp_frag_len), IN_RECORD(opaque_4),
    IN_RECORD(opaque_138),   IN_RECORD(opaque_242),   IN_RECORD(opaque_399),
    IN_RECORD(opaque_11792), IN_RECORD(opaque_11800),
};
}  // namespace ap

namespace ap_user {
using Record = ApUserRecord;
constexpr Field kFields[] = {IN_RECORD(user_mac), IN_RECORD(opaque_14)};
}  // namespace ap_user

namespace ap_template {
using Record = ApTemplateRecord;
constexpr Field kFields[] = {
    IN_RECORD(template_name), IN_RECORD(bound_ap_mac), IN_RECORD(opaque_8),
    IN_RECORD(opaque_108),    IN_RECORD(opaque_11422),
};
}  // namespace ap_template

namespace client_group {
using Record = ClientsGroupRecord;
using Item = ClientsGroupsItem;
constexpr Field kFields[] = {unique(SAME(group_name), Clash::kTextWithoutCase)};
}  // namespace client_group

namespace client {
using Record = ClientRecord;
using Item = ClientsItem;
constexpr Field kFields[] = {
    unique(written_by_add(SAME(client_mac)), Clash::kBytes),
    SAME(text_52),
    SAME(text_82),
    SAME(text_102),
    SAME(text_122),
    SAME(text_142),
    SAME(text_162),
    SAME(text_182),
    SAME(field_14),
    SAME(field_16),
    SAME(field_20),
    SAME(field_24),
    SAME(field_26),
    SAME(field_27),
    SAME(field_28),
    SAME(field_29),
    SAME(field_30),
    SAME(field_31),
    SAME(field_32),
    SAME(field_34),
    SAME(field_36),
    SAME(field_40),
    SAME(field_44),
    SAME(field_48),
};
}  // namespace client

/* Settings: one field, behind the section's lock word or at once. */
template <class Bytes, size_t kAhead>
constexpr Field kSettings[] = {
    {"settings", "settings", kAhead, kNoItem, sizeof(Bytes), Kind::kBytes, 1, Clash::kNone, false}};

/* ---- makers of tables ---- */

template <class Records, size_t kFieldCount>
consteval Table list_table(const char* name, AreaId area, size_t at,
                           const Field (&fields)[kFieldCount], const char* counter = nullptr,
                           size_t counter_at = 0, size_t counter_size = 0) {
  using Record = typename Element<Records>::Type;
  Table t = {};
  t.name = name;
  t.area = area;
  t.at = static_cast<uint32_t>(at);
  t.stride = sizeof(Record);
  t.capacity = sizeof(Records) / sizeof(Record);
  t.lock_at = offsetof(Record, lock_index);
  t.id_at = offsetof(Record, slot_id);
  t.free = -1;
  t.counter = counter;
  t.counter_at = static_cast<uint32_t>(counter_at);
  t.counter_size = static_cast<uint8_t>(counter_size);
  t.fields = fields;
  t.field_count = kFieldCount;
  return t;
}
#define LIST(name, area, Block, records, of, ...)                            \
  list_table<decltype(Block::records)>(name, area, offsetof(Block, records), \
                                       of::kFields __VA_OPT__(, ) __VA_ARGS__)
#define COUNTER(Block, member) #member, offsetof(Block, member), sizeof(Block::member)

template <class Records, size_t kFieldCount>
consteval Table id_table(const char* name, AreaId area, size_t at, size_t id_at,
                         const Field (&fields)[kFieldCount]) {
  using Record = typename Element<Records>::Type;
  Table t = {};
  t.name = name;
  t.area = area;
  t.at = static_cast<uint32_t>(at);
  t.stride = sizeof(Record);
  t.capacity = sizeof(Records) / sizeof(Record);
  t.lock_at = offsetof(Record, lock_index);
  t.id_at = static_cast<int16_t>(id_at);
  t.fields = fields;
  t.field_count = kFieldCount;
  return t;
}
#define ID_TABLE(name, area, Block, records, of, id)                       \
  id_table<decltype(Block::records)>(name, area, offsetof(Block, records), \
                                     offsetof(of::Record, id), of::kFields)

template <class Bytes, size_t kAhead>
consteval Table settings(const char* name, AreaId area, size_t at, uint16_t count = 1) {
  static_assert(kAhead == 0 || kAhead == sizeof(int32_t), "a lock word or nothing stands ahead");
  Table t = {};
  t.name = name;
  t.area = area;
  t.at = static_cast<uint32_t>(at);
  t.stride = kAhead + sizeof(Bytes);
  t.capacity = count;
  t.lock_at = kAhead > 0 ? 0 : -1;
  t.id_at = -1;
  t.fields = kSettings<Bytes, kAhead>;
  t.field_count = 1;
  return t;
}
#define SETTINGS(name, area, Block, bytes) \
  settings<decltype(Block::bytes), 0>(name, area, offsetof(Block, bytes))
#define SECTION(name, area, Block, lock, bytes)                                     \
  settings<decltype(Block::bytes), offsetof(Block, bytes) - offsetof(Block, lock)>( \
      name, area, offsetof(Block, lock))

/* ---- areas ---- */

template <auto kCall>
int init_and_read() {
  if constexpr (requires { kCall(1); }) {
    return kCall(1);
  } else {
    return kCall();
  }
}
template <class Result, class Block>
Result on_block(Result (*call)(Block*), void* block) {
  return call(static_cast<Block*>(block));
}
template <auto kCall>
int read_block(void* block) {
  return on_block(kCall, block);
}
template <auto kCall>
void save_block(void* block) {
  on_block(kCall, block);
}

}  // namespace

// clang-format off
#define AREA_LIFE(name) \
  SC_Get_##name##_System_Config, SC_Uninit_System_##name##_Config, \
  init_and_read<SC_Init_System_##name##_Config>
#define AREA(name) \
  {#name, AREA_LIFE(name), read_block<SC_Read_System_##name##_Config>, \
   SC_Save_System_##name##_Config, save_block<SC_Save_System_##name##_Config2Flash>}

constexpr Area kAreas[kAreaCount] = {
  AREA(Lan),
  AREA(Wan),
  AREA(ProductInfo),
  AREA(Misc),
  AREA(VsIpport),
  AREA(FwIpport),
  AREA(IpGroup),
  AREA(TimeGroup),
  AREA(FwMac),
  AREA(FwUrl),
  AREA(Qos),
  AREA(ManageApList),
  {"ApUserList", AREA_LIFE(ApUserList), nullptr, nullptr, nullptr},
  AREA(ApTemplateList),
  AREA(DefApTemplate),
  AREA(Clients_Groups),
  AREA(Clients),
};

/* Groups before the rules that refer to them: an import writes records in this order and deletes in
 * the opposite one. The tables of one area stand in the order of its lock words. */
constexpr Table kTables[kTableCount] = {
  SETTINGS("lan_settings", kLan, LanBlock, lan_settings),
  LIST("lan_binds", kLan, LanBlock, lan_binds, dhcp, COUNTER(LanBlock, lan_bind_count)),
  LIST("ac_binds", kLan, LanBlock, ac_binds, dhcp, COUNTER(LanBlock, ac_bind_count)),
  settings<decltype(WanSection::settings), offsetof(WanSection, settings)>(
      "wan", kWan, offsetof(WanBlock, sections), 4),
  SETTINGS("wan_rest", kWan, WanBlock, spare_3976),
  SETTINGS("product_info", kProductInfo, ProductInfoBlock, settings),
  SECTION("misc_1", kMisc, MiscBlock, lock_index_136, settings_140),
  SECTION("misc_2", kMisc, MiscBlock, lock_index_908, settings_912),
  SECTION("misc_3", kMisc, MiscBlock, lock_index_1416, settings_1420),
  SECTION("misc_4", kMisc, MiscBlock, lock_index_1944, settings_1948),
  SECTION("misc_5", kMisc, MiscBlock, lock_index_2500, settings_2504),
  LIST("ip_groups", kIpGroup, IpGroupBlock, groups, ip_group, COUNTER(IpGroupBlock, group_count)),
  LIST("time_groups", kTimeGroup, TimeGroupBlock, groups, time_group,
       COUNTER(TimeGroupBlock, group_count)),
  LIST("port_forward", kVsIpport, VsIpportBlock, rules, port_forward,
       COUNTER(VsIpportBlock, rule_count)),
  LIST("ip_filter", kFwIpport, FwIpportBlock, rules, ip_filter,
       COUNTER(FwIpportBlock, rule_count)),
  LIST("mac_filter", kFwMac, FwMacBlock, rules, mac_filter, COUNTER(FwMacBlock, rule_count)),
  LIST("url_filter", kFwUrl, FwUrlBlock, rules, url_filter, COUNTER(FwUrlBlock, rule_count)),
  LIST("qos", kQos, QosBlock, rules, qos, COUNTER(QosBlock, rule_count)),
  ID_TABLE("aps", kManageApList, ManageApListBlock, aps, ap, ap_id),
  ID_TABLE("ap_users", kApUserList, ApUserListBlock, users, ap_user, user_id),
  ID_TABLE("ap_templates", kApTemplateList, ApTemplateListBlock, templates, ap_template,
           template_id),
  SETTINGS("default_template", kDefApTemplate, DefApTemplateBlock, settings),
  LIST("client_groups", kClientsGroups, ClientsGroupsBlock, groups, client_group),
  LIST("clients", kClients, ClientsBlock, clients, client),
};

constexpr Reference kReferences[kReferenceCount] = {
  {"ip_filter",  "ip_mode",   1, "ip_group_id",   "ip_groups"},
  {"qos",        "ip_mode",   1, "ip_group_id",   "ip_groups"},
  {"ip_filter",  "time_mode", 2, "time_group_id", "time_groups"},
  {"mac_filter", "time_mode", 2, "time_group_id", "time_groups"},
  {"url_filter", "time_mode", 2, "time_group_id", "time_groups"},
  {"qos",        "time_mode", 2, "time_group_id", "time_groups"},
};
// clang-format on

const char* kind_name(Kind kind) {
  static constexpr const char* kNames[] = {"text",  "mac text", "address", "mac",
                                           "bytes", "signed",   "unsigned"};
  return kNames[static_cast<int>(kind)];
}

namespace {

bool is_named(const char* own, const char* name, size_t length) {
  return strncmp(own, name, length) == 0 && own[length] == '\0';
}

}  // namespace

const sc::Area& Area::facts() const { return sc::kAreas[this - kAreas]; }

const Area* find_area(const char* name) {
  for (const Area& area : kAreas) {
    const char* stem = area.facts().stem;
    if (strcmp(area.name, name) == 0 || (stem[0] != '\0' && strcmp(stem, name) == 0)) return &area;
  }
  return nullptr;
}

const Table* find_table(const char* name, size_t length) {
  for (const Table& table : kTables) {
    if (is_named(table.name, name, length)) return &table;
  }
  return nullptr;
}

const Field* find_field(const Table& table, const char* name, size_t length) {
  for (const Field& field : table) {
    if (is_named(field.name, name, length)) return &field;
  }
  return nullptr;
}

/* The records of an area are numbered from 2 on, table after table; byte 1 is the area's own. */
uint32_t lock_index_of(const Table& table, uint32_t position) {
  if (table.lock_at < 0) return 1;
  uint32_t lock_index = 2;
  for (const Table* other = kTables; other != &table; ++other) {
    if (other->area == table.area && other->lock_at >= 0) lock_index += other->capacity;
  }
  return lock_index + position;
}

}  // namespace scctl
