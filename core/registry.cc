/* The registry: the seventeen areas, in directory order. Keys, stems and codes are names under
 * which other programs find the segments, the files and the messages.
 */
#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include "core/area.h"
#include "core/rows.h"

namespace sc {

namespace {

constexpr Events kQuiet = Events::kNone;
constexpr Events kNetwork = Events::kNetwork;
constexpr Events kApEvents = Events::kAccessPoints;

constexpr Header kPlain = {offsetof(BlockHeader, lock_path),
                           offsetof(BlockHeader, block_lock_index)};
/* Required: the header of the AP users lies differently. */
constexpr Header kUsers = {offsetof(ApUserListBlock, lock_path),
                           offsetof(ApUserListBlock, block_lock_index)};

}  // namespace

// clang-format off
constexpr Area kAreas[kAreaCount] = {
  /* key                   code                      events     header  size                         stem              lock stem */
  {SC_KEY_LAN,              SC_CODE_LAN,              kNetwork,  kPlain, sizeof(LanBlock),            "lan",            "lan"},
  {SC_KEY_WAN,              SC_CODE_WAN,              kNetwork,  kPlain, sizeof(WanBlock),            "wan",            "wan"},
  {SC_KEY_PRODUCT_INFO,     SC_CODE_PRODUCT_INFO,     kQuiet,    kPlain, sizeof(ProductInfoBlock),    "product",        "product"},
  {SC_KEY_MISC,             SC_CODE_MISC,             kQuiet,    kPlain, sizeof(MiscBlock),           "misc",           "misc"},
  {SC_KEY_VS_IPPORT,        SC_CODE_VS_IPPORT,        kQuiet,    kPlain, sizeof(VsIpportBlock),       "vs_ipport",      "vs_ipport"},
  {SC_KEY_FW_IPPORT,        SC_CODE_FW_IPPORT,        kQuiet,    kPlain, sizeof(FwIpportBlock),       "fw_ipport",      "fw_ipport"},
  {SC_KEY_IP_GROUP,         SC_CODE_IP_GROUP,         kQuiet,    kPlain, sizeof(IpGroupBlock),        "ipgroup",        "ipgroup"},
  {SC_KEY_TIME_GROUP,       SC_CODE_TIME_GROUP,       kQuiet,    kPlain, sizeof(TimeGroupBlock),      "timegroup",      "timegroup"},
  {SC_KEY_FW_MAC,           SC_CODE_FW_MAC,           kQuiet,    kPlain, sizeof(FwMacBlock),          "fw_mac",         "fw_mac"},
  {SC_KEY_FW_URL,           SC_CODE_FW_URL,           kQuiet,    kPlain, sizeof(FwUrlBlock),          "fw_url",         "fw_url"},
  {SC_KEY_QOS,              SC_CODE_QOS,              kQuiet,    kPlain, sizeof(QosBlock),            "qos",            "qos"},
  /* Required: spelled so, and with another lock stem. */
  {SC_KEY_MANAGE_AP_LIST,   SC_CODE_MANAGE_AP_LIST,   kApEvents, kPlain, sizeof(ManageApListBlock),   "mange_aplist",   "aplist"},
  {SC_KEY_AP_USER_LIST,     0,                        kQuiet,    kUsers, sizeof(ApUserListBlock),     "",               "apuserlist"},
  {SC_KEY_AP_TEMPLATE_LIST, SC_CODE_AP_TEMPLATE_LIST, kQuiet,    kPlain, sizeof(ApTemplateListBlock), "aptemplatelist", "aptemplatelist"},
  {SC_KEY_DEF_AP_TEMPLATE,  SC_CODE_DEF_AP_TEMPLATE,  kQuiet,    kPlain, sizeof(DefApTemplateBlock),  "defaptemplate",  "defaptemplate"},
  {SC_KEY_CLIENTS_GROUPS,   SC_CODE_CLIENTS_GROUPS,   kQuiet,    kPlain, sizeof(ClientsGroupsBlock),  "clients_groups", "clients_groups"},
  {SC_KEY_CLIENTS,          SC_CODE_CLIENTS,          kQuiet,    kPlain, sizeof(ClientsBlock),        "clients",        "clients"},
};

constexpr LockSpan kLockSpans[kLockSpanCount] = {
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
};
// clang-format on

}  // namespace sc
