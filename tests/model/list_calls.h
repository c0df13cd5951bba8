// The library's functions of each list behind one face, so that one set of rules runs over all.
#ifndef TESTS_MODEL_LIST_CALLS_H
#define TESTS_MODEL_LIST_CALLS_H

#include <sysconfig/clients.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <type_traits>

namespace model {

// Blocks, records and items as untyped pointers; everything else as it is.
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
struct Call;
template <class Result, class... Args, Result (*F)(Args...)>
struct Call<F> {
  static Result untyped(typename Untyped<Args>::type... args) {
    return F(static_cast<Args>(args)...);
  }
};

// The areas that a listing or a delete of one list reaches besides its own.
struct Blocks {
  FwIpportBlock* ip_filters;
  FwMacBlock* mac_filters;
  FwUrlBlock* url_filters;
  QosBlock* qos_rules;
  IpGroupBlock* ip_groups;
  TimeGroupBlock* time_groups;
};

struct ListCalls {
  const char* list;
  int32_t (*operate)(void* block, uint32_t op, uint32_t* index, const void* record);
  int32_t (*blank)(void* block);
  int32_t (*check)(const void* block, const void* record, uint32_t skip_slot);  // null: no check
  int32_t (*add)(void* block, const void* item);
  int32_t (*modify)(void* block, const void* item);
  void (*get)(const void* block, uint32_t id, void* item);  // null: items are not read back
  void (*get_list)(const void* block, const Blocks& blocks, void* list);
  void (*del)(void* block, const Blocks& blocks, char* ids);
  void (*del_all)(void* block);
};

template <auto F>
void PlainList(const void* block, const Blocks&, void* list) {
  Call<F>::untyped(block, list);
}
template <auto F>
void TimedList(const void* block, const Blocks& blocks, void* list) {
  Call<F>::untyped(block, blocks.time_groups, list);
}
template <auto F>
void GroupedList(const void* block, const Blocks& blocks, void* list) {
  Call<F>::untyped(block, blocks.ip_groups, blocks.time_groups, list);
}
template <auto F>
void PlainDel(void* block, const Blocks&, char* ids) {
  Call<F>::untyped(block, ids);
}
inline void IpGroupDel(void* block, const Blocks& blocks, char* ids) {
  DelIpGroupItem(static_cast<IpGroupBlock*>(block), blocks.ip_filters, blocks.qos_rules, ids);
}
inline void TimeGroupDel(void* block, const Blocks& blocks, char* ids) {
  DelTimeGroupItem(static_cast<TimeGroupBlock*>(block), blocks.ip_filters, blocks.mac_filters,
                   blocks.url_filters, blocks.qos_rules, ids);
}

// clang-format off
inline const ListCalls kListCalls[] = {
    {"DhcpdBind",
     Call<SC_Operate_System_List_DhcpdBind>::untyped,
     Call<SC_Operate_System_List_GetDhcpdBind_Blank>::untyped,
     Call<SC_Operate_System_List_DhcpdBindCheckIpMac>::untyped,
     Call<AddDhcpStaticItem>::untyped, Call<ModifyDhcpStaticItem>::untyped,
     Call<GetDhcpStaticItem>::untyped, PlainList<GetDhcpStaticItemList>,
     PlainDel<DelDhcpStaticItem>, Call<DelAllDhcpStaticItem>::untyped},
    {"AC_DhcpdBind",
     Call<SC_Operate_System_List_AC_DhcpdBind>::untyped,
     Call<SC_Operate_System_List_AC_GetDhcpdBind_Blank>::untyped,
     Call<SC_Operate_System_List_AC_DhcpdBindCheckIpMac>::untyped,
     Call<AC_AddDhcpStaticItem>::untyped, Call<AC_ModifyDhcpStaticItem>::untyped,
     Call<AC_GetDhcpStaticItem>::untyped, PlainList<AC_GetDhcpStaticItemList>,
     PlainDel<AC_DelDhcpStaticItem>, Call<AC_DelAllDhcpStaticItem>::untyped},
    {"UserIpGroup",
     Call<SC_Operate_System_List_UserIpGroup>::untyped,
     Call<SC_Operate_System_List_GetUserIpGroup_Blank>::untyped,
     nullptr,
     Call<AddIpGroupItem>::untyped, Call<ModifyIpGroupItem>::untyped,
     Call<GetIpGroupItem>::untyped, PlainList<GetIpGroupItemList>,
     IpGroupDel, Call<DelAllIpGroupItem>::untyped},
    {"UserTimeGroup",
     Call<SC_Operate_System_List_UserTimeGroup>::untyped,
     Call<SC_Operate_System_List_GetUserTimeGroup_Blank>::untyped,
     nullptr,
     Call<AddTimeGroupItem>::untyped, Call<ModifyTimeGroupItem>::untyped,
     Call<GetTimeGroupItem>::untyped, PlainList<GetTimeGroupItemList>,
     TimeGroupDel, Call<DelAllTimeGroupItem>::untyped},
    {"FireWall_IpPort",
     Call<SC_Operate_System_List_FireWall_IpPort>::untyped,
     Call<SC_Operate_System_List_GetFireWall_IpPort_Blank>::untyped,
     nullptr,
     Call<AddIpFilterItem>::untyped, Call<ModifyIpFilterItem>::untyped,
     Call<GetIpFilterItem>::untyped, GroupedList<GetIpFilterItemList>,
     PlainDel<DelIpFilterItem>, Call<DelAllIpFilterItem>::untyped},
    {"ForwordIpPort",
     Call<SC_Operate_System_List_ForwordIpPort>::untyped,
     Call<SC_Operate_System_List_GetForwordIpPort_Blank>::untyped,
     nullptr,
     Call<AddPortFwItem>::untyped, Call<ModifyPortFwItem>::untyped,
     Call<GetPortFwItem>::untyped, PlainList<GetPortFwItemList>,
     PlainDel<DelPortFwItem>, Call<DelAllPortFwItem>::untyped},
    {"FireWall_Mac",
     Call<SC_Operate_System_List_FireWall_Mac>::untyped,
     Call<SC_Operate_System_List_GetFireWall_Mac_Blank>::untyped,
     Call<SC_Operate_System_List_FireWall_MacCheckMac>::untyped,
     Call<AddMacFilterItem>::untyped, Call<ModifyMacFilterItem>::untyped,
     Call<GetMacFilterItem>::untyped, TimedList<GetMacFilterItemList>,
     PlainDel<DelMacFilterItem>, Call<DelAllMacFilterItem>::untyped},
    {"FireWall_Url",
     Call<SC_Operate_System_List_FireWall_Url>::untyped,
     Call<SC_Operate_System_List_GetFireWall_Url_Blank>::untyped,
     Call<SC_Operate_System_List_FireWall_UrlCheckUrl>::untyped,
     Call<AddUrlFilterItem>::untyped, Call<ModifyUrlFilterItem>::untyped,
     Call<GetUrlFilterItem>::untyped, TimedList<GetUrlFilterItemList>,
     PlainDel<DelUrlFilterItem>, Call<DelAllUrlFilterItem>::untyped},
    {"QosRule",
     Call<SC_Operate_System_List_QosRule>::untyped,
     Call<SC_Operate_System_List_GetQosRule_Blank>::untyped,
     nullptr,
     Call<AddQosItem>::untyped, Call<ModifyQosItem>::untyped,
     Call<GetQosItem>::untyped, GroupedList<GetQosItemList>,
     PlainDel<DelQosItem>, Call<DelAllQosItem>::untyped},
    {"ClientsGroups",
     Call<SC_Operate_System_List_ClientsGroups>::untyped,
     Call<SC_Operate_System_List_GetClientsGroups_Blank>::untyped,
     Call<SC_Operate_System_List_ClientsGroupsCheckName>::untyped,
     Call<AddClientsGroupsItem>::untyped, Call<ModifyClientsGroupsItem>::untyped,
     nullptr, nullptr,
     PlainDel<DelClientsGroupsItem>, Call<DelAllClientsGroupsItem>::untyped},
    {"Clients",
     Call<SC_Operate_System_List_Clients>::untyped,
     Call<SC_Operate_System_List_GetClients_Blank>::untyped,
     Call<SC_Operate_System_List_ClientsCheckMac>::untyped,
     Call<AddClientsItem>::untyped, Call<ModifyClientsItem>::untyped,
     nullptr, nullptr,
     PlainDel<DelClientsItem>, Call<DelAllClientsItem>::untyped},
};
// clang-format on

}  // namespace model

#endif
