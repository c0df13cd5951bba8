#include "support/areas.h"

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <stdexcept>

namespace sc_test {

namespace {

template <auto kFunction, class Block>
auto untyped(void* block) {
  return kFunction(static_cast<Block*>(block));
}

int init_ap_users(int) { return SC_Init_System_ApUserList_Config(); }

#define AREA(name, Block)                                                             \
  {#name, SC_Get_##name##_System_Config, SC_Uninit_System_##name##_Config,            \
   SC_Init_System_##name##_Config, untyped<SC_Read_System_##name##_Config, Block>,    \
   SC_Save_System_##name##_Config, untyped<SC_Save_System_##name##_Config2Flash, Block>}

}  // namespace

const std::vector<AreaCalls>& all_areas() {
  static const std::vector<AreaCalls> areas = {
      AREA(Lan, LanBlock),
      AREA(Wan, WanBlock),
      AREA(ProductInfo, ProductInfoBlock),
      AREA(Misc, MiscBlock),
      AREA(VsIpport, VsIpportBlock),
      AREA(FwIpport, FwIpportBlock),
      AREA(IpGroup, IpGroupBlock),
      AREA(TimeGroup, TimeGroupBlock),
      AREA(FwMac, FwMacBlock),
      AREA(FwUrl, FwUrlBlock),
      AREA(Qos, QosBlock),
      AREA(ManageApList, ManageApListBlock),
      {"ApUserList", SC_Get_ApUserList_System_Config, SC_Uninit_System_ApUserList_Config,
       init_ap_users, nullptr, nullptr, nullptr},
      AREA(ApTemplateList, ApTemplateListBlock),
      AREA(DefApTemplate, DefApTemplateBlock),
      AREA(Clients_Groups, ClientsGroupsBlock),
      AREA(Clients, ClientsBlock),
  };
  return areas;
}

const AreaCalls& area(const std::string& name) {
  for (const AreaCalls& calls : all_areas()) {
    if (name == calls.name) return calls;
  }
  throw std::out_of_range("no area " + name);
}

}  // namespace sc_test
