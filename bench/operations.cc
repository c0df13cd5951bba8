/* The library's operations beside their floors. */
#include <stdio.h>
#include <string.h>

#include "data.h"
#include "floors.h"
#include "plain.h"
#include "rounds.h"

using namespace bench;

namespace {

alignas(64) union {
  DhcpStaticItem binding;
  DhcpStaticItemList bindings;
  IpFilterItemList ip_filters;
  QosItemList qos;
} out;

DhcpBindRecord changed() { return data().lan->lan_binds[SC_DHCP_BINDS / 2]; }

void modify(int64_t times) {
  static const DhcpBindRecord record = changed();
  LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) {
    uint32_t position = SC_DHCP_BINDS / 2;
    must(SC_Operate_System_List_DhcpdBind(lan, LIST_OP_MODIFY, &position, &record) == SC_LIST_OK,
         "a binding is not modified");
  }
}

void plain_modify(int64_t times) {
  static const DhcpBindRecord record = changed();
  LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) {
    must(plain::modify_binding(lan, SC_DHCP_BINDS / 2, &record) == SC_LIST_OK,
         "a binding is not modified");
  }
}

char last_id[] = "32"; /* an index list is split in place; one id is not changed by that */

void add_and_delete(int64_t times) {
  LanBlock* lan = data().lan;
  static const DhcpStaticItem item = new_binding();
  for (int64_t n = 0; n < times; ++n) {
    must(AddDhcpStaticItem(lan, &item) == SC_LIST_OK, "a binding is not added");
    DelDhcpStaticItem(lan, last_id);
  }
}

void plain_add_and_delete(int64_t times) {
  LanBlock* lan = data().lan;
  static const DhcpStaticItem item = new_binding();
  for (int64_t n = 0; n < times; ++n) {
    must(plain::add_binding(lan, &item) == SC_LIST_OK, "a binding is not added");
    plain::delete_bindings(lan, last_id);
  }
}

void make_room_for_one() { DelDhcpStaticItem(data().lan, last_id); }

void read(int64_t times) {
  const LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) {
    GetDhcpStaticItem(lan, 1 + n % SC_DHCP_BINDS, &out.binding);
  }
}

void plain_read(int64_t times) {
  const LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) {
    plain::read_binding(lan, 1 + n % SC_DHCP_BINDS, &out.binding);
  }
}

void list_bindings(int64_t times) {
  const LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) GetDhcpStaticItemList(lan, &out.bindings);
}

void plain_list_bindings(int64_t times) {
  const LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) plain::list_bindings(lan->lan_binds, &out.bindings);
}

void list_scattered_bindings(int64_t times) {
  const LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) AC_GetDhcpStaticItemList(lan, &out.bindings);
}

void plain_list_scattered_bindings(int64_t times) {
  const LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) plain::list_bindings(lan->ac_binds, &out.bindings);
}

void list_ip_filters(int64_t times) {
  const Data& d = data();
  for (int64_t n = 0; n < times; ++n) {
    GetIpFilterItemList(d.ip_filters, d.ip_groups, d.time_groups, &out.ip_filters);
  }
}

void plain_list_ip_filters(int64_t times) {
  const Data& d = data();
  for (int64_t n = 0; n < times; ++n) {
    plain::list_ip_filters(d.ip_filters, d.ip_groups, d.time_groups, &out.ip_filters);
  }
}

void list_qos(int64_t times) {
  const Data& d = data();
  for (int64_t n = 0; n < times; ++n) {
    GetQosItemList(d.qos, d.ip_groups, d.time_groups, &out.qos);
  }
}

void plain_list_qos(int64_t times) {
  const Data& d = data();
  for (int64_t n = 0; n < times; ++n) {
    plain::list_qos(d.qos, d.ip_groups, d.time_groups, &out.qos);
  }
}

void list_scattered_ip_filters(int64_t times) {
  const Data& d = data();
  const ScatteredRules& rules = scattered_rules();
  for (int64_t n = 0; n < times; ++n) {
    GetIpFilterItemList(&rules.ip_filters, &rules.ip_groups, d.time_groups, &out.ip_filters);
  }
}

void plain_list_scattered_ip_filters(int64_t times) {
  const Data& d = data();
  const ScatteredRules& rules = scattered_rules();
  for (int64_t n = 0; n < times; ++n) {
    plain::list_ip_filters(&rules.ip_filters, &rules.ip_groups, d.time_groups, &out.ip_filters);
  }
}

void list_scattered_qos(int64_t times) {
  const Data& d = data();
  const ScatteredRules& rules = scattered_rules();
  for (int64_t n = 0; n < times; ++n) {
    GetQosItemList(&rules.qos, &rules.ip_groups, d.time_groups, &out.qos);
  }
}

void plain_list_scattered_qos(int64_t times) {
  const Data& d = data();
  const ScatteredRules& rules = scattered_rules();
  for (int64_t n = 0; n < times; ++n) {
    plain::list_qos(&rules.qos, &rules.ip_groups, d.time_groups, &out.qos);
  }
}

constexpr int kLastAp = SC_ACCESS_POINTS - 1;

void find_last_ap(int64_t times) {
  const ManageApListBlock* block = data().aps;
  for (int64_t n = 0; n < times; ++n) {
    must(SC_Get_Ap_Info_By_Mac(block, block->aps[kLastAp].ap_mac) == kLastAp,
         "the AP is not found");
  }
}

void plain_find_last_ap(int64_t times) {
  const ManageApListBlock* block = data().aps;
  for (int64_t n = 0; n < times; ++n) {
    must(plain::find_ap(block, block->aps[kLastAp].ap_mac) == kLastAp, "the AP is not found");
  }
}

void check_clients(int64_t times) {
  static const ClientsItem nobody = new_client();
  const ClientsBlock* clients = data().clients;
  for (int64_t n = 0; n < times; ++n) {
    must(SC_Operate_System_List_ClientsCheckMac(clients, &nobody, UINT32_MAX) == 0,
         "a clash that is none");
  }
}

void plain_check_clients(int64_t times) {
  static const ClientsItem nobody = new_client();
  const ClientsBlock* clients = data().clients;
  for (int64_t n = 0; n < times; ++n) {
    must(plain::check_client(clients, &nobody, UINT32_MAX) == 0, "a clash that is none");
  }
}

void save(int64_t times) {
  LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) SC_Save_System_Lan_Config2Flash(lan);
}

void write_image() {
  FILE* file = fopen("/var/systemconfig/config_lan.cfg", "w");
  must(file != nullptr && fwrite(data().lan, sizeof(LanBlock), 1, file) == 1 && fclose(file) == 0,
       "no image to pack");
}

void compare(const char* name, Run* floor, Run* library, Run* plain) {
  add({.name = name, .sides = {{"floor", floor}, {"library", library}, {"plain", plain}}});
}

}  // namespace

int main(int argc, char** argv) {
  data();
  compare("modify a binding (table operation)", floor_modify, modify, plain_modify);
  add({.name = "add and delete a binding (items)",
       .sides = {{"floor", floor_add_and_delete},
                 {"library", add_and_delete},
                 {"plain", plain_add_and_delete}},
       .before_batch = make_room_for_one,
       .rounds = 1501}); /* the kernel schedules the listener meanwhile */
  compare("read one of 32 bindings (item)", floor_read, read, plain_read);
  compare("list 32 bindings", floor_list_bindings, list_bindings, plain_list_bindings);
  compare("list 32 IP filter rules, all groups resolved", floor_list_ip_filters, list_ip_filters,
          plain_list_ip_filters);
  compare("list 32 QoS rules, all groups resolved", floor_list_qos, list_qos, plain_list_qos);
  compare("list 32 IP filter rules, ranges in 48 networks", floor_list_ip_filters,
          list_scattered_ip_filters, plain_list_scattered_ip_filters);
  compare("list 32 QoS rules, ranges in 48 networks", floor_list_qos, list_scattered_qos,
          plain_list_scattered_qos);
  compare("find the 300th AP by MAC", floor_search_aps, find_last_ap, plain_find_last_ap);
  compare("duplicate check against 300 clients", floor_search_clients, check_clients,
          plain_check_clients);
  add({.name = "save an area to flash",
       .sides = {{"floor", floor_save}, {"library", save}},
       .before_batch = write_image,
       .rounds = 201,
       .most_times = 1});

  /* The same operations beside other floors. */
  compare("list 32 bindings of 32 networks", floor_list_bindings, list_scattered_bindings,
          plain_list_scattered_bindings);
  compare("read one binding; floor by the C library", tight_floor_read, read, plain_read);
  compare("list 32 bindings; floor field by field", fields_floor_list_bindings, list_bindings,
          plain_list_bindings);
  compare("find the 300th AP; floor of 4 loads a turn", tight_floor_search_aps, find_last_ap,
          plain_find_last_ap);
  compare("check 300 clients; floor of 4 loads a turn", tight_floor_search_clients, check_clients,
          plain_check_clients);

  /* Shows the error of the machine and of the measurement: both sides are equal. */
  compare("the same floor, compared with itself", floor_list_bindings, floor_list_bindings,
          floor_list_bindings);
  return run_comparisons(argc, argv);
}
