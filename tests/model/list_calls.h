/* The library's functions of each list behind one face, so that one set of rules runs over all. */
#ifndef MODEL_LIST_CALLS_H
#define MODEL_LIST_CALLS_H

#include <sysconfig/clients.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <type_traits>

#include "support/blocks.h"
#include "support/called.h"

namespace sc_test {

/* Blocks, records and items as untyped pointers; everything else as it is. */
template <class T>
struct Untyped {
  using type = T;
};
template <class T>
requires std::is_class_v<T>
struct Untyped<T*> {
  using type = std::conditional_t<std::is_const_v<T>, const void*, void*>;
};

template <auto F>
struct Erased;
template <class Result, class... Args, Result (*F)(Args...)>
struct Erased<F> {
  static Result call(typename Untyped<Args>::type... args) {
    return Noted<F>::call(static_cast<Args>(args)...);
  }
};

struct ListCalls {
  const char* list;
  int32_t (*operate)(void* block, uint32_t op, uint32_t* index, const void* record);
  int32_t (*blank)(void* block);
  /* Null: the list has no check. */
  int32_t (*check)(const void* block, const void* record, uint32_t skip_slot);
  int32_t (*add)(void* block, const void* item);
  int32_t (*modify)(void* block, const void* item);
  /* Null: items are not read back. */
  void (*get)(const void* block, uint32_t id, void* item);
  void (*get_list)(const void* block, const Blocks& blocks, void* list);
  void (*del)(void* block, const Blocks& blocks, char* ids);
  void (*del_all)(void* block);
};

template <auto F>
void plain_list(const void* block, const Blocks&, void* list) {
  Erased<F>::call(block, list);
}
template <auto F>
void timed_list(const void* block, const Blocks& blocks, void* list) {
  Erased<F>::call(block, blocks.time_groups, list);
}
template <auto F>
void grouped_list(const void* block, const Blocks& blocks, void* list) {
  Erased<F>::call(block, blocks.ip_groups, blocks.time_groups, list);
}
template <auto F>
void plain_del(void* block, const Blocks&, char* ids) {
  Erased<F>::call(block, ids);
}
inline void ip_group_del(void* block, const Blocks& blocks, char* ids) {
  Erased<DelIpGroupItem>::call(block, blocks.ip_filters, blocks.qos_rules, ids);
}
inline void time_group_del(void* block, const Blocks& blocks, char* ids) {
  Erased<DelTimeGroupItem>::call(block, blocks.ip_filters, blocks.mac_filters, blocks.url_filters,
                                 blocks.qos_rules, ids);
}

// clang-format off
inline const ListCalls kListCalls[] = {
    {"DhcpdBind",
     Erased<SC_Operate_System_List_DhcpdBind>::call,
     Erased<SC_Operate_System_List_GetDhcpdBind_Blank>::call,
     Erased<SC_Operate_System_List_DhcpdBindCheckIpMac>::call,
     Erased<AddDhcpStaticItem>::call, Erased<ModifyDhcpStaticItem>::call,
     Erased<GetDhcpStaticItem>::call, plain_list<GetDhcpStaticItemList>,
     plain_del<DelDhcpStaticItem>, Erased<DelAllDhcpStaticItem>::call},
    {"AC_DhcpdBind",
     Erased<SC_Operate_System_List_AC_DhcpdBind>::call,
     Erased<SC_Operate_System_List_AC_GetDhcpdBind_Blank>::call,
     Erased<SC_Operate_System_List_AC_DhcpdBindCheckIpMac>::call,
     Erased<AC_AddDhcpStaticItem>::call, Erased<AC_ModifyDhcpStaticItem>::call,
     Erased<AC_GetDhcpStaticItem>::call, plain_list<AC_GetDhcpStaticItemList>,
     plain_del<AC_DelDhcpStaticItem>, Erased<AC_DelAllDhcpStaticItem>::call},
    {"UserIpGroup",
     Erased<SC_Operate_System_List_UserIpGroup>::call,
     Erased<SC_Operate_System_List_GetUserIpGroup_Blank>::call,
     nullptr,
     Erased<AddIpGroupItem>::call, Erased<ModifyIpGroupItem>::call,
     Erased<GetIpGroupItem>::call, plain_list<GetIpGroupItemList>,
     ip_group_del, Erased<DelAllIpGroupItem>::call},
    {"UserTimeGroup",
     Erased<SC_Operate_System_List_UserTimeGroup>::call,
     Erased<SC_Operate_System_List_GetUserTimeGroup_Blank>::call,
     nullptr,
     Erased<AddTimeGroupItem>::call, Erased<ModifyTimeGroupItem>::call,
     Erased<GetTimeGroupItem>::call, plain_list<GetTimeGroupItemList>,
     time_group_del, Erased<DelAllTimeGroupItem>::call},
    {"FireWall_IpPort",
     Erased<SC_Operate_System_List_FireWall_IpPort>::call,
     Erased<SC_Operate_System_List_GetFireWall_IpPort_Blank>::call,
     nullptr,
     Erased<AddIpFilterItem>::call, Erased<ModifyIpFilterItem>::call,
     Erased<GetIpFilterItem>::call, grouped_list<GetIpFilterItemList>,
     plain_del<DelIpFilterItem>, Erased<DelAllIpFilterItem>::call},
    {"ForwordIpPort",
     Erased<SC_Operate_System_List_ForwordIpPort>::call,
     Erased<SC_Operate_System_List_GetForwordIpPort_Blank>::call,
     nullptr,
     Erased<AddPortFwItem>::call, Erased<ModifyPortFwItem>::call,
     Erased<GetPortFwItem>::call, plain_list<GetPortFwItemList>,
     plain_del<DelPortFwItem>, Erased<DelAllPortFwItem>::call},
    {"FireWall_Mac",
     Erased<SC_Operate_System_List_FireWall_Mac>::call,
     Erased<SC_Operate_System_List_GetFireWall_Mac_Blank>::call,
     Erased<SC_Operate_System_List_FireWall_MacCheckMac>::call,
     Erased<AddMacFilterItem>::call, Erased<ModifyMacFilterItem>::call,
     Erased<GetMacFilterItem>::call, timed_list<GetMacFilterItemList>,
     plain_del<DelMacFilterItem>, Erased<DelAllMacFilterItem>::call},
    {"FireWall_Url",
     Erased<SC_Operate_System_List_FireWall_Url>::call,
     Erased<SC_Operate_System_List_GetFireWall_Url_Blank>::call,
     Erased<SC_Operate_System_List_FireWall_UrlCheckUrl>::call,
     Erased<AddUrlFilterItem>::call, Erased<ModifyUrlFilterItem>::call,
     Erased<GetUrlFilterItem>::call, timed_list<GetUrlFilterItemList>,
     plain_del<DelUrlFilterItem>, Erased<DelAllUrlFilterItem>::call},
    {"QosRule",
     Erased<SC_Operate_System_List_QosRule>::call,
     Erased<SC_Operate_System_List_GetQosRule_Blank>::call,
     nullptr,
     Erased<AddQosItem>::call, Erased<ModifyQosItem>::call,
     Erased<GetQosItem>::call, grouped_list<GetQosItemList>,
     plain_del<DelQosItem>, Erased<DelAllQosItem>::call},
    {"ClientsGroups",
     Erased<SC_Operate_System_List_ClientsGroups>::call,
     Erased<SC_Operate_System_List_GetClientsGroups_Blank>::call,
     Erased<SC_Operate_System_List_ClientsGroupsCheckName>::call,
     Erased<AddClientsGroupsItem>::call, Erased<ModifyClientsGroupsItem>::call,
     nullptr, nullptr,
     plain_del<DelClientsGroupsItem>, Erased<DelAllClientsGroupsItem>::call},
    {"Clients",
     Erased<SC_Operate_System_List_Clients>::call,
     Erased<SC_Operate_System_List_GetClients_Blank>::call,
     Erased<SC_Operate_System_List_ClientsCheckMac>::call,
     Erased<AddClientsItem>::call, Erased<ModifyClientsItem>::call,
     nullptr, nullptr,
     plain_del<DelClientsItem>, Erased<DelAllClientsItem>::call},
};
// clang-format on

}  // namespace sc_test

#endif
