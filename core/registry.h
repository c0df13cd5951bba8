/* The registry: the seventeen areas, in directory order, and the lock words of their records. By
 * its keys, stems and codes other programs find the segments, the files and the messages.
 */
#ifndef CORE_REGISTRY_H
#define CORE_REGISTRY_H

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include "core/area.h"
#include "core/rows.h"

namespace sc {

constexpr Events kNoEvents = Events::kNone;
constexpr Events kNetworkEvents = Events::kNetwork;
constexpr Events kApEvents = Events::kAccessPoints;

constexpr Header kPlainHeader = {offsetof(BlockHeader, lock_path),
                                 offsetof(BlockHeader, block_lock_index)};
/* Required: the header of the AP users has another layout. */
constexpr Header kUsersHeader = {offsetof(ApUserListBlock, lock_path),
                                 offsetof(ApUserListBlock, block_lock_index)};

// clang-format off
inline constexpr AreaRow kAreas[kAreaCount] = {
  /* key                   header        size                         code                      events          stem              lock stem */
  {SC_KEY_LAN,              kPlainHeader, sizeof(LanBlock),            SC_CODE_LAN,              kNetworkEvents,  "lan",            "lan"},
  {SC_KEY_WAN,              kPlainHeader, sizeof(WanBlock),            SC_CODE_WAN,              kNetworkEvents,  "wan",            "wan"},
  {SC_KEY_PRODUCT_INFO,     kPlainHeader, sizeof(ProductInfoBlock),    SC_CODE_PRODUCT_INFO,     kNoEvents,      "product",        "product"},
  {SC_KEY_MISC,             kPlainHeader, sizeof(MiscBlock),           SC_CODE_MISC,             kNoEvents,      "misc",           "misc"},
  {SC_KEY_VS_IPPORT,        kPlainHeader, sizeof(VsIpportBlock),       SC_CODE_VS_IPPORT,        kNoEvents,      "vs_ipport",      "vs_ipport"},
  {SC_KEY_FW_IPPORT,        kPlainHeader, sizeof(FwIpportBlock),       SC_CODE_FW_IPPORT,        kNoEvents,      "fw_ipport",      "fw_ipport"},
  {SC_KEY_IP_GROUP,         kPlainHeader, sizeof(IpGroupBlock),        SC_CODE_IP_GROUP,         kNoEvents,      "ipgroup",        "ipgroup"},
  {SC_KEY_TIME_GROUP,       kPlainHeader, sizeof(TimeGroupBlock),      SC_CODE_TIME_GROUP,       kNoEvents,      "timegroup",      "timegroup"},
  {SC_KEY_FW_MAC,           kPlainHeader, sizeof(FwMacBlock),          SC_CODE_FW_MAC,           kNoEvents,      "fw_mac",         "fw_mac"},
  {SC_KEY_FW_URL,           kPlainHeader, sizeof(FwUrlBlock),          SC_CODE_FW_URL,           kNoEvents,      "fw_url",         "fw_url"},
  {SC_KEY_QOS,              kPlainHeader, sizeof(QosBlock),            SC_CODE_QOS,              kNoEvents,      "qos",            "qos"},
  /* Required: this spelling, and another lock stem. */
  {SC_KEY_MANAGE_AP_LIST,   kPlainHeader, sizeof(ManageApListBlock),   SC_CODE_MANAGE_AP_LIST,   kApEvents,      "mange_aplist",   "aplist"},
  {SC_KEY_AP_USER_LIST,     kUsersHeader, sizeof(ApUserListBlock),     0,                        kNoEvents,      "",               "apuserlist"},
  {SC_KEY_AP_TEMPLATE_LIST, kPlainHeader, sizeof(ApTemplateListBlock), SC_CODE_AP_TEMPLATE_LIST, kNoEvents,      "aptemplatelist", "aptemplatelist"},
  {SC_KEY_DEF_AP_TEMPLATE,  kPlainHeader, sizeof(DefApTemplateBlock),  SC_CODE_DEF_AP_TEMPLATE,  kNoEvents,      "defaptemplate",  "defaptemplate"},
  {SC_KEY_CLIENTS_GROUPS,   kPlainHeader, sizeof(ClientsGroupsBlock),  SC_CODE_CLIENTS_GROUPS,   kNoEvents,      "clients_groups", "clients_groups"},
  {SC_KEY_CLIENTS,          kPlainHeader, sizeof(ClientsBlock),        SC_CODE_CLIENTS,          kNoEvents,      "clients",        "clients"},
};

inline constexpr auto kLockSpans = numbered({
  SC_LOCKS(kLan, LanBlock, lan_binds),
  SC_LOCKS(kLan, LanBlock, ac_binds),
  SC_LOCKS(kWan, WanBlock, sections),
  SC_LOCK(kMisc, MiscBlock, lock_index_136),
  SC_LOCK(kMisc, MiscBlock, lock_index_908),
  SC_LOCK(kMisc, MiscBlock, lock_index_1416),
  SC_LOCK(kMisc, MiscBlock, lock_index_1944),
  SC_LOCK(kMisc, MiscBlock, lock_index_2500),
  SC_LOCKS(kVsIpport, VsIpportBlock, rules),
  SC_LOCKS(kFwIpport, FwIpportBlock, rules),
  SC_LOCKS(kIpGroup, IpGroupBlock, groups),
  SC_LOCKS(kTimeGroup, TimeGroupBlock, groups),
  SC_LOCKS(kFwMac, FwMacBlock, rules),
  SC_LOCKS(kFwUrl, FwUrlBlock, rules),
  SC_LOCKS(kQos, QosBlock, rules),
  SC_LOCKS(kManageApList, ManageApListBlock, aps),
  SC_LOCKS(kApUserList, ApUserListBlock, users),
  SC_LOCKS(kApTemplateList, ApTemplateListBlock, templates),
  SC_LOCKS(kClientsGroups, ClientsGroupsBlock, groups),
  SC_LOCKS(kClients, ClientsBlock, clients),
});
// clang-format on

}  // namespace sc

#endif
