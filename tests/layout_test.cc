/* The headers against golden/layout.csv and golden/constants.csv: sizes, offsets and widths of the
 * structs' fields, and every number that a caller uses by name.
 */
#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <map>

#include <gtest/gtest.h>

#include "support/golden.h"

namespace {

using namespace sc_test;

/* "field@offset:width" of each field, as golden/layout.csv has them. */
struct Struct {
  size_t size;
  std::string fields;
};

template <class... Fields>
Struct describe(size_t size, const Fields&... fields) {
  std::string all;
  ((all += (all.empty() ? "" : " ") + fields), ...);
  return {size, all};
}

std::string describe_field(const char* name, size_t offset, size_t width) {
  return std::string(name) + "@" + std::to_string(offset) + ":" + std::to_string(width);
}

#define FIELD(field) describe_field(#field, offsetof(T, field), sizeof(T::field))
#define STRUCT(name, ...)         \
  {                               \
#name, [] {                     \
      using T = name;               \
      return describe(sizeof(T), __VA_ARGS__); \
    }() \
  }

// clang-format off
const std::map<std::string, Struct> kStructs = {
  STRUCT(BlockHeader, FIELD(header_reserved), FIELD(lock_path), FIELD(block_lock_index)),
  STRUCT(WanSection, FIELD(lock_index)),
  STRUCT(WanBlock, FIELD(header), FIELD(sections)),
  STRUCT(ProductInfoBlock, FIELD(header)),
  STRUCT(MiscBlock, FIELD(header), FIELD(lock_index_136), FIELD(lock_index_908),
         FIELD(lock_index_1416), FIELD(lock_index_1944), FIELD(lock_index_2500)),
  STRUCT(SystemConfigDirectory, FIELD(lan), FIELD(wan), FIELD(product_info), FIELD(misc),
         FIELD(vs_ipport), FIELD(fw_ipport), FIELD(ip_group), FIELD(time_group), FIELD(fw_mac),
         FIELD(fw_url), FIELD(qos), FIELD(manage_ap_list), FIELD(ap_user_list),
         FIELD(ap_template_list), FIELD(def_ap_template), FIELD(clients_groups), FIELD(clients)),
  STRUCT(DhcpBindRecord, FIELD(slot_id), FIELD(lock_index), FIELD(bind_flag), FIELD(bind_mac),
         FIELD(bind_ip), FIELD(bind_name)),
  STRUCT(LanBlock, FIELD(header), FIELD(lan_settings), FIELD(lan_bind_count), FIELD(lan_binds),
         FIELD(ac_bind_count), FIELD(ac_binds)),
  STRUCT(DhcpStaticItem, FIELD(id), FIELD(reserved), FIELD(flag), FIELD(mac), FIELD(ip),
         FIELD(name)),
  STRUCT(DhcpStaticItemList, FIELD(count), FIELD(capacity), FIELD(items), FIELD(tail)),
  STRUCT(IpGroupRecord, FIELD(lock_index), FIELD(slot_id), FIELD(leading_text), FIELD(start_addr),
         FIELD(end_addr), FIELD(trailing_text)),
  STRUCT(IpGroupBlock, FIELD(header), FIELD(group_count), FIELD(groups)),
  STRUCT(IpGroupItem, FIELD(slot_id), FIELD(leading_text), FIELD(start_ip_text),
         FIELD(end_ip_text), FIELD(trailing_text)),
  STRUCT(IpGroupItemList, FIELD(count), FIELD(capacity), FIELD(items), FIELD(tail)),
  STRUCT(TimeGroupRecord, FIELD(lock_index), FIELD(slot_id), FIELD(leading_text), FIELD(weekday),
         FIELD(start_time), FIELD(end_time), FIELD(trailing_text)),
  STRUCT(TimeGroupBlock, FIELD(header), FIELD(group_count), FIELD(groups)),
  STRUCT(TimeGroupItem, FIELD(slot_id), FIELD(leading_text), FIELD(weekday), FIELD(start_time),
         FIELD(end_time), FIELD(trailing_text)),
  STRUCT(TimeGroupItemList, FIELD(count), FIELD(capacity), FIELD(items), FIELD(tail)),
  STRUCT(IpFilterRecord, FIELD(lock_index), FIELD(slot_id), FIELD(leading_text), FIELD(ip_mode),
         FIELD(ip_group_id), FIELD(start_addr), FIELD(end_addr), FIELD(param_1), FIELD(param_2),
         FIELD(param_byte), FIELD(time_mode), FIELD(time_group_id), FIELD(weekday),
         FIELD(start_time), FIELD(end_time), FIELD(rule_flag), FIELD(trailing_text)),
  STRUCT(FwIpportBlock, FIELD(header), FIELD(rule_count), FIELD(rules)),
  STRUCT(IpFilterItem, FIELD(slot_id), FIELD(leading_text), FIELD(ip_mode), FIELD(ip_group_id),
         FIELD(ip_group_name), FIELD(time_mode), FIELD(time_group_id), FIELD(time_group_name),
         FIELD(weekday), FIELD(start_time), FIELD(end_time), FIELD(start_ip_text),
         FIELD(end_ip_text), FIELD(param_1), FIELD(param_2), FIELD(param_byte),
         FIELD(trailing_text), FIELD(rule_flag)),
  STRUCT(IpFilterItemList, FIELD(count), FIELD(capacity), FIELD(items), FIELD(tail)),
  STRUCT(PortFwRecord, FIELD(lock_index), FIELD(slot_id), FIELD(leading_text), FIELD(ip_addr),
         FIELD(option_1), FIELD(number_1), FIELD(number_2), FIELD(number_3), FIELD(number_4),
         FIELD(option_2), FIELD(option_3), FIELD(trailing_text)),
  STRUCT(VsIpportBlock, FIELD(header), FIELD(rule_count), FIELD(rules)),
  STRUCT(PortFwItem, FIELD(slot_id), FIELD(leading_text), FIELD(option_1), FIELD(ip_text),
         FIELD(number_3), FIELD(number_4), FIELD(number_1), FIELD(number_2), FIELD(option_3),
         FIELD(trailing_text), FIELD(option_2)),
  STRUCT(PortFwItemList, FIELD(count), FIELD(capacity), FIELD(items), FIELD(tail)),
  STRUCT(MacFilterRecord, FIELD(lock_index), FIELD(slot_id), FIELD(leading_text), FIELD(mac),
         FIELD(time_mode), FIELD(time_group_id), FIELD(weekday), FIELD(start_time),
         FIELD(end_time), FIELD(rule_flag), FIELD(trailing_text)),
  STRUCT(FwMacBlock, FIELD(header), FIELD(rule_count), FIELD(rules)),
  STRUCT(MacFilterItem, FIELD(id), FIELD(leading_text), FIELD(mac), FIELD(time_mode),
         FIELD(time_group_id), FIELD(time_group_name), FIELD(weekday), FIELD(start_time),
         FIELD(end_time), FIELD(rule_flag), FIELD(trailing_text)),
  STRUCT(MacFilterItemList, FIELD(count), FIELD(capacity), FIELD(items), FIELD(tail)),
  STRUCT(UrlFilterRecord, FIELD(lock_index), FIELD(slot_id), FIELD(leading_text), FIELD(url),
         FIELD(time_mode), FIELD(time_group_id), FIELD(weekday), FIELD(start_time),
         FIELD(end_time), FIELD(rule_flag), FIELD(trailing_text)),
  STRUCT(FwUrlBlock, FIELD(header), FIELD(rule_count), FIELD(rules)),
  STRUCT(UrlFilterItem, FIELD(id), FIELD(leading_text), FIELD(url), FIELD(time_mode),
         FIELD(time_group_id), FIELD(time_group_name), FIELD(weekday), FIELD(start_time),
         FIELD(end_time), FIELD(rule_flag), FIELD(trailing_text)),
  STRUCT(UrlFilterItemList, FIELD(count), FIELD(capacity), FIELD(items), FIELD(tail)),
  STRUCT(QosRuleRecord, FIELD(lock_index), FIELD(slot_id), FIELD(leading_text), FIELD(match_kind),
         FIELD(match_text), FIELD(ip_mode), FIELD(ip_group_id), FIELD(start_addr),
         FIELD(end_addr), FIELD(time_mode), FIELD(time_group_id), FIELD(weekday),
         FIELD(start_time), FIELD(end_time), FIELD(param_1), FIELD(param_2), FIELD(param_byte),
         FIELD(rule_flag), FIELD(trailing_text)),
  STRUCT(QosBlock, FIELD(header), FIELD(rule_count), FIELD(rules)),
  STRUCT(QosItem, FIELD(id), FIELD(leading_text), FIELD(match_kind), FIELD(ip_mode),
         FIELD(ip_group_id), FIELD(ip_group_name), FIELD(time_mode), FIELD(time_group_id),
         FIELD(time_group_name), FIELD(match_text), FIELD(start_ip_text), FIELD(end_ip_text),
         FIELD(param_1), FIELD(param_2), FIELD(param_byte), FIELD(weekday), FIELD(start_time),
         FIELD(end_time), FIELD(rule_flag), FIELD(trailing_text)),
  STRUCT(QosItemList, FIELD(count), FIELD(capacity), FIELD(items), FIELD(tail)),
  STRUCT(ApInfoRecord, FIELD(lock_index), FIELD(run_state), FIELD(ap_mac), FIELD(group_id),
         FIELD(group_info), FIELD(ap_id), FIELD(wtp_frag_len)),
  STRUCT(ManageApListBlock, FIELD(header), FIELD(aps)),
  STRUCT(ApUserRecord, FIELD(lock_index), FIELD(user_id), FIELD(user_mac)),
  STRUCT(ApUserListBlock, FIELD(lock_path), FIELD(block_lock_index), FIELD(users)),
  STRUCT(ApTemplateRecord, FIELD(lock_index), FIELD(template_id), FIELD(template_name),
         FIELD(bound_ap_mac)),
  STRUCT(ApTemplateListBlock, FIELD(header), FIELD(templates)),
  STRUCT(DefApTemplateBlock, FIELD(header)),
  STRUCT(ApLimitsRecord, FIELD(max_ap_count)),
  STRUCT(ClientsGroupRecord, FIELD(lock_index), FIELD(slot_id), FIELD(group_name)),
  STRUCT(ClientsGroupsBlock, FIELD(header), FIELD(groups)),
  STRUCT(ClientsGroupsItem, FIELD(slot_id), FIELD(group_name)),
  STRUCT(ClientRecord, FIELD(lock_index), FIELD(slot_id), FIELD(client_mac), FIELD(field_14),
         FIELD(field_16), FIELD(field_20), FIELD(field_24), FIELD(field_26), FIELD(field_27),
         FIELD(field_28), FIELD(field_29), FIELD(field_30), FIELD(field_31), FIELD(field_32),
         FIELD(field_34), FIELD(field_36), FIELD(field_40), FIELD(field_44), FIELD(field_48),
         FIELD(text_52), FIELD(text_82), FIELD(text_102), FIELD(text_122), FIELD(text_142),
         FIELD(text_162), FIELD(text_182)),
  STRUCT(ClientsBlock, FIELD(header), FIELD(clients)),
  STRUCT(ClientsItem, FIELD(slot_id), FIELD(client_mac), FIELD(field_14), FIELD(field_16),
         FIELD(field_20), FIELD(field_24), FIELD(field_26), FIELD(field_27), FIELD(field_28),
         FIELD(field_29), FIELD(field_30), FIELD(field_31), FIELD(field_32), FIELD(field_34),
         FIELD(field_36), FIELD(field_40), FIELD(field_44), FIELD(field_48), FIELD(text_52),
         FIELD(text_82), FIELD(text_102), FIELD(text_122), FIELD(text_142), FIELD(text_162),
         FIELD(text_182)),
};

#define CONSTANT(name) {#name, name}
const std::map<std::string, long> kConstants = {
  CONSTANT(SC_KEY_LAN), CONSTANT(SC_KEY_WAN), CONSTANT(SC_KEY_PRODUCT_INFO),
  CONSTANT(SC_KEY_MISC), CONSTANT(SC_KEY_VS_IPPORT), CONSTANT(SC_KEY_FW_IPPORT),
  CONSTANT(SC_KEY_FW_MAC), CONSTANT(SC_KEY_FW_URL), CONSTANT(SC_KEY_IP_GROUP),
  CONSTANT(SC_KEY_TIME_GROUP), CONSTANT(SC_KEY_QOS), CONSTANT(SC_KEY_MANAGE_AP_LIST),
  CONSTANT(SC_KEY_AP_TEMPLATE_LIST), CONSTANT(SC_KEY_DEF_AP_TEMPLATE),
  CONSTANT(SC_KEY_AP_USER_LIST), CONSTANT(SC_KEY_CLIENTS_GROUPS), CONSTANT(SC_KEY_CLIENTS),
  CONSTANT(SC_CODE_LAN), CONSTANT(SC_CODE_WAN), CONSTANT(SC_CODE_PRODUCT_INFO),
  CONSTANT(SC_CODE_MISC), CONSTANT(SC_CODE_VS_IPPORT), CONSTANT(SC_CODE_FW_IPPORT),
  CONSTANT(SC_CODE_FW_MAC), CONSTANT(SC_CODE_FW_URL), CONSTANT(SC_CODE_QOS),
  CONSTANT(SC_CODE_IP_GROUP), CONSTANT(SC_CODE_TIME_GROUP), CONSTANT(SC_CODE_MANAGE_AP_LIST),
  CONSTANT(SC_CODE_AP_TEMPLATE_LIST), CONSTANT(SC_CODE_DEF_AP_TEMPLATE),
  CONSTANT(SC_CODE_CLIENTS_GROUPS), CONSTANT(SC_CODE_CLIENTS), CONSTANT(SC_DHCP_BINDS),
  CONSTANT(SC_IP_GROUPS), CONSTANT(SC_TIME_GROUPS), CONSTANT(SC_FILTER_RULES),
  CONSTANT(SC_ACCESS_POINTS), CONSTANT(SC_AP_USERS), CONSTANT(SC_AP_TEMPLATES),
  CONSTANT(SC_CLIENTS_GROUPS), CONSTANT(SC_CLIENTS), CONSTANT(SC_TEXT), CONSTANT(SC_MAC_TEXT),
  CONSTANT(SC_MAC_BYTES), CONSTANT(SC_IP_TEXT), CONSTANT(SC_TIME_TEXT), CONSTANT(SC_WEEKDAYS),
  CONSTANT(SC_LOCK_PATH), CONSTANT(SC_LIST_TAIL), CONSTANT(LIST_OP_ADD), CONSTANT(LIST_OP_DEL),
  CONSTANT(LIST_OP_MODIFY), CONSTANT(LIST_OP_DEL_ALL), CONSTANT(SC_LIST_OK),
  CONSTANT(SC_LIST_REJECTED), CONSTANT(SC_LIST_DEL_RANGE), CONSTANT(SC_LIST_MOD_RANGE),
  CONSTANT(SC_LIST_BAD_OP), CONSTANT(SC_LIST_NO_LOCK),
};
// clang-format on

TEST(Layout, EveryStruct_HasItsGoldenSizeOffsetsAndWidths) {
  const auto golden = golden_table("layout.csv");
  for (const GoldenRow& row : golden) {
    const std::string& name = row.text("struct");
    ASSERT_EQ(kStructs.count(name), 1u) << name;
    EXPECT_EQ(kStructs.at(name).size, static_cast<size_t>(row.number("size"))) << name;
    EXPECT_EQ(kStructs.at(name).fields, row.text("fields")) << name;
  }
  EXPECT_EQ(golden.size(), kStructs.size());
}

TEST(Layout, EveryConstant_HasItsGoldenValue) {
  const auto golden = golden_table("constants.csv");
  for (const GoldenRow& row : golden) {
    const std::string& name = row.text("constant");
    ASSERT_EQ(kConstants.count(name), 1u) << name;
    EXPECT_EQ(kConstants.at(name), row.number("value")) << name;
  }
  EXPECT_EQ(golden.size(), kConstants.size());
}

/* The prototype of sc_lock_reg names it, so it may not depend on the build's file-offset choice. */
TEST(Layout, FileOffsetsOfThe32BitInterface_HaveFourBytes) {
  EXPECT_EQ(sizeof(off_t), sizeof(long));
}

}  // namespace
