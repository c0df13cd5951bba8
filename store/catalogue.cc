/* The rows of the catalogue, and the makers that derive them from the library's rows. */
#include "store/catalogue.h"

#include <string.h>

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include "ap/rows.h"
#include "clients/rows.h"
#include "core/registry.h"
#include "filter/rows.h"
#include "lan/rows.h"
#include "rules/rows.h"

namespace store {

/* This is not constexpr: a row that calls it does not compile, and the error names it. */
[[noreturn]] void no_area_has_this_code();
[[noreturn]] void this_is_not_the_counter_of_the_list();

namespace {

/* ---- makers of fields ---- */

consteval Kind kind_of(sc::Meaning meaning) {
  switch (meaning) {
    case sc::Meaning::kText: return Kind::kText;
    case sc::Meaning::kMacText: return Kind::kMacText;
    case sc::Meaning::kAddress: return Kind::kAddress;
    case sc::Meaning::kMac: return Kind::kMac;
    case sc::Meaning::kBytes: return Kind::kBytes;
    case sc::Meaning::kSigned: return Kind::kSigned;
    case sc::Meaning::kUnsigned: return Kind::kUnsigned;
  }
}

template <size_t kCount>
struct Fields {
  Field rows[kCount];
};

/* The fields of a list, made from its members, keys and identity. */
template <size_t kCount>
consteval Fields<kCount> fields_of(const sc::Member (&members)[kCount], const sc::TableRow& table) {
  Fields<kCount> made = {};
  Field* field = made.rows;
  for (const sc::Member& member : members) {
    const sc::Run& run = member.run;
    *field = {member.name,
              member.record_name,
              static_cast<uint16_t>(run.record_at),
              static_cast<uint16_t>(run.item_at),
              static_cast<uint16_t>(run.size),
              kind_of(member.meaning),
              member.width,
              Clash::kNone,
              table.identity.size != 0 && table.identity.at == run.record_at};
    for (const sc::Key& key : table.keys) {
      if (key.compare == sc::Compare::kNone || key.at != run.record_at) continue;
      field->clash = key.compare == sc::Compare::kBytes ? Clash::kBytes : Clash::kTextWithoutCase;
    }
    ++field;
  }
  return made;
}

/* The library has no members for the access-point tables, so their fields are named here. */
template <class Member>
consteval Field in_record(const char* name, size_t at) {
  static_assert(sizeof(Member) <= UINT16_MAX);
  return {name,
          name,
          static_cast<uint16_t>(at),
          kNoItem,
          sizeof(Member),
          kind_of(sc::meaning_of<Member>()),
          sizeof(typename sc::Extent<Member>::Element) & 0xff,
          Clash::kNone,
          false};
}
#define IN_RECORD(member) in_record<decltype(Record::member)>(#member, offsetof(Record, member))

/* ---- fields ---- */

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

/* Settings: one field, behind the section's lock word if it has one. */
template <class Bytes, size_t kAhead>
constexpr Field kSettings[] = {
    {"settings", "settings", kAhead, kNoItem, sizeof(Bytes), Kind::kBytes, 1, Clash::kNone, false}};

/* ---- makers of tables ---- */

consteval AreaId area_of_code(uint8_t code) {
  for (const sc::AreaRow& row : sc::kAreas) {
    if (row.code == code) return static_cast<AreaId>(&row - sc::kAreas);
  }
  no_area_has_this_code();
}

struct CounterName {
  const char* name;
  size_t at;
};
#define COUNTER(Block, member) \
  CounterName { #member, offsetof(Block, member) }

template <size_t kCount>
consteval Table list_table(const char* name, const Fields<kCount>& fields, const sc::ListRow& list,
                           CounterName counter = {}) {
  const sc::Geometry& geometry = list.table.geometry;
  if (counter.at != list.counter_at) this_is_not_the_counter_of_the_list();
  Table t = {};
  t.name = name;
  t.area = area_of_code(list.code);
  t.at = geometry.at;
  t.stride = geometry.stride;
  t.capacity = geometry.capacity;
  t.lock_at = geometry.lock_at;
  t.id_at = geometry.slot_at;
  t.free = -1;
  t.counter = counter.name;
  t.counter_at = list.counter_at;
  t.counter_size = list.counter_size;
  t.fields = fields.rows;
  t.field_count = kCount;
  return t;
}
constexpr const sc::TableRow& table_of(const sc::ListRow& row) { return row.table; }
constexpr const sc::TableRow& table_of(const sc::MappedListRow& row) { return row.list.table; }

template <auto& kMembers, auto& kRow>
constexpr auto kFieldsOf = fields_of(kMembers, table_of(kRow));
#define FIELDS(members, row) kFieldsOf<sc::members, sc::row>

template <size_t kFieldCount>
consteval Table id_table(const char* name, const char* member, AreaId area,
                         const sc::IdTableRow& row, const Field (&fields)[kFieldCount]) {
  Table t = {};
  t.name = name;
  t.member = member;
  t.area = area;
  t.at = row.at;
  t.stride = row.stride;
  t.capacity = row.capacity;
  t.lock_at = 0;
  t.id_at = static_cast<int16_t>(row.id_at);
  t.fields = fields;
  t.field_count = kFieldCount;
  return t;
}

template <class Bytes, size_t kAhead>
consteval Table settings(const char* name, const char* member, AreaId area, size_t at,
                         uint16_t count = 1) {
  static_assert(kAhead == 0 || kAhead == sizeof(int32_t), "a lock word or nothing stands ahead");
  Table t = {};
  t.name = name;
  t.member = member;
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
  settings<decltype(Block::bytes), 0>(name, #bytes, area, offsetof(Block, bytes))
#define SECTION(name, area, Block, lock, bytes)                                     \
  settings<decltype(Block::bytes), offsetof(Block, bytes) - offsetof(Block, lock)>( \
      name, #bytes, area, offsetof(Block, lock))

template <size_t kCount>
consteval const char* name_at(const sc::Member (&members)[kCount], size_t record_at) {
  const sc::Member* member = members;
  while (member->run.record_at != record_at) ++member;
  return member->name;
}

template <size_t kCount>
consteval Reference reference(const char* table, const sc::Member (&members)[kCount],
                              const sc::GroupLink& link) {
  return {table, name_at(members, link.mode_at), link.deleted_mode, name_at(members, link.id_at),
          link.group == kIpGroup ? "ip_groups" : "time_groups"};
}

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

/* Groups stand before the rules that refer to them: an import writes records in this order and
 * deletes them in the opposite order. The tables of one area have the order of its lock words. */
constexpr Table kTables[kTableCount] = {
  SETTINGS("lan_settings", kLan, LanBlock, lan_settings),
  list_table("lan_binds", FIELDS(kBindMembers, kLanBinds), sc::kLanBinds.list,
             COUNTER(LanBlock, lan_bind_count)),
  list_table("ac_binds", FIELDS(kBindMembers, kLanBinds), sc::kAcBinds.list,
             COUNTER(LanBlock, ac_bind_count)),
  settings<decltype(WanSection::settings), offsetof(WanSection, settings)>(
      "wan", "sections", kWan, offsetof(WanBlock, sections), 4),
  SETTINGS("wan_rest", kWan, WanBlock, spare_3976),
  SETTINGS("product_info", kProductInfo, ProductInfoBlock, settings),
  SECTION("misc_1", kMisc, MiscBlock, lock_index_136, settings_140),
  SECTION("misc_2", kMisc, MiscBlock, lock_index_908, settings_912),
  SECTION("misc_3", kMisc, MiscBlock, lock_index_1416, settings_1420),
  SECTION("misc_4", kMisc, MiscBlock, lock_index_1944, settings_1948),
  SECTION("misc_5", kMisc, MiscBlock, lock_index_2500, settings_2504),
  list_table("ip_groups", FIELDS(kIpGroupMembers, kIpGroups), sc::kIpGroups.list,
             COUNTER(IpGroupBlock, group_count)),
  list_table("time_groups", FIELDS(kTimeGroupMembers, kTimeGroups), sc::kTimeGroups.list,
             COUNTER(TimeGroupBlock, group_count)),
  list_table("port_forward", FIELDS(kPortForwardMembers, kPortForwards), sc::kPortForwards.list,
             COUNTER(VsIpportBlock, rule_count)),
  list_table("ip_filter", FIELDS(kIpFilterMembers, kIpFilters), sc::kIpFilters.list,
             COUNTER(FwIpportBlock, rule_count)),
  list_table("mac_filter", FIELDS(kMacFilterMembers, kMacFilters), sc::kMacFilters.list,
             COUNTER(FwMacBlock, rule_count)),
  list_table("url_filter", FIELDS(kUrlFilterMembers, kUrlFilters), sc::kUrlFilters.list,
             COUNTER(FwUrlBlock, rule_count)),
  list_table("qos", FIELDS(kQosMembers, kQosRules), sc::kQosRules.list,
             COUNTER(QosBlock, rule_count)),
  id_table("aps", "aps", kManageApList, sc::kAps, ap::kFields),
  id_table("ap_users", "users", kApUserList, sc::kApUsers, ap_user::kFields),
  id_table("ap_templates", "templates", kApTemplateList, sc::kApTemplates, ap_template::kFields),
  SETTINGS("default_template", kDefApTemplate, DefApTemplateBlock, settings),
  list_table("client_groups", FIELDS(kClientGroupMembers, kClientGroupList), sc::kClientGroupList),
  list_table("clients", FIELDS(kClientMembers, kClientList), sc::kClientList),
};

consteval bool have_records_at_most(uint32_t size) {
  for (const Table& table : kTables) {
    if (table.stride > size) return false;
  }
  return true;
}
static_assert(have_records_at_most(kLargestRecord));

constexpr Reference kReferences[kReferenceCount] = {
  reference("ip_filter",  sc::kIpFilterMembers,  sc::kIpFilterIpGroup),
  reference("qos",        sc::kQosMembers,       sc::kQosIpGroup),
  reference("ip_filter",  sc::kIpFilterMembers,  sc::kIpFilterTimeGroup),
  reference("mac_filter", sc::kMacFilterMembers, sc::kMacFilterTimeGroup),
  reference("url_filter", sc::kUrlFilterMembers, sc::kUrlFilterTimeGroup),
  reference("qos",        sc::kQosMembers,       sc::kQosTimeGroup),
};
// clang-format on

const char* kind_name(Kind kind) {
  static constexpr const char* kNames[] = {"text",  "mac text", "address", "mac",
                                           "bytes", "signed",   "unsigned"};
  return kNames[static_cast<int>(kind)];
}

const char* kind_name(const Field& field) {
  const Extra* extra = field.extra;
  if (extra != nullptr && extra->names != nullptr) return kEnumKind;
  if (extra != nullptr && extra->bits != 0) return kBitKind;
  return kind_name(field.kind);
}

namespace {

bool is_named(const char* own, const char* name, size_t length) {
  return strncmp(own, name, length) == 0 && own[length] == '\0';
}

}  // namespace

const sc::AreaRow& Area::row() const { return sc::kAreas[id_of(*this)]; }

const Area* find_area(const char* name) {
  for (const Area& area : kAreas) {
    const char* stem = area.row().stem;
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
  for (const Field* field = table.begin(); field < table.end() + table.hidden_count; ++field) {
    if (is_named(field->name, name, length)) return field;
  }
  return nullptr;
}

uint32_t lock_index_of(const Table& table, uint32_t position) {
  if (table.lock_at < 0) return 1;
  const sc::LockSpan* span = sc::kLockSpans.begin();
  while (span->area != table.area || span->at != table.at + static_cast<uint32_t>(table.lock_at)) {
    ++span;
  }
  return span->first + position;
}

}  // namespace store
