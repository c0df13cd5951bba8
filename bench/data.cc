#include "data.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <sys/stat.h>

#include "listener.h"

namespace bench {

namespace {

/* The last half of a MAC is its number. */
constexpr uint8_t kMaker[] = {0x00, 0x1a, 0x2b};

void put_mac(uint8_t* mac, uint32_t number) {
  memcpy(mac, kMaker, sizeof kMaker);
  for (int n = 0; n < 3; ++n) mac[3 + n] = static_cast<uint8_t>(number >> (16 - 8 * n));
}

template <class Block>
Block* attached(uint32_t address) {
  must(address != 0, "an area cannot be attached");
  return reinterpret_cast<Block*>(static_cast<uintptr_t>(address));
}

DhcpStaticItem binding(uint32_t number, const char* address) {
  DhcpStaticItem item = {};
  item.flag = 1;
  snprintf(item.mac, sizeof item.mac, "00:1A:2B:3C:4D:%02X", number);
  snprintf(item.ip, sizeof item.ip, "%s", address);
  snprintf(item.name, sizeof item.name, "workstation-%u", number);
  return item;
}

DhcpStaticItem lan_binding(uint32_t number) {
  char address[16];
  snprintf(address, sizeof address, "192.168.1.%u", 100 + number);
  return binding(number, address);
}

template <class Item>
void put_schedule(Item* item) {
  for (int day = 0; day < 5; ++day) item->weekday[day] = 1;
  strcpy(item->start_time, "08:00");
  strcpy(item->end_time, "18:30");
}

void fill_bindings(LanBlock* lan) {
  for (uint32_t n = 0; n < SC_DHCP_BINDS; ++n) {
    DhcpStaticItem item = lan_binding(n);
    must(AddDhcpStaticItem(lan, &item) == SC_LIST_OK, "a binding is not added");
    char address[16];
    snprintf(address, sizeof address, "10.%u.%u.%u", 7 * n, 255 - n, 3 * n);
    item = binding(n, address);
    must(AC_AddDhcpStaticItem(lan, &item) == SC_LIST_OK, "an AC binding is not added");
  }
}

void fill_groups(IpGroupBlock* ip_groups, TimeGroupBlock* time_groups) {
  for (uint32_t n = 0; n < SC_IP_GROUPS; ++n) {
    IpGroupItem item = {};
    snprintf(item.leading_text, sizeof item.leading_text, "department-%u", n);
    snprintf(item.start_ip_text, sizeof item.start_ip_text, "172.16.%u.1", n);
    snprintf(item.end_ip_text, sizeof item.end_ip_text, "172.16.%u.254", n);
    must(AddIpGroupItem(ip_groups, &item) == SC_LIST_OK, "an IP group is not added");
  }
  for (uint32_t n = 0; n < SC_TIME_GROUPS; ++n) {
    TimeGroupItem item = {};
    snprintf(item.leading_text, sizeof item.leading_text, "working-hours-%u", n);
    put_schedule(&item);
    must(AddTimeGroupItem(time_groups, &item) == SC_LIST_OK, "a time group is not added");
  }
}

/* The members that an IP filter rule and a QoS rule share. */
template <class Item>
Item rule(uint32_t number) {
  Item item = {};
  snprintf(item.leading_text, sizeof item.leading_text, "rule-%u", number);
  item.ip_mode = 1;
  item.ip_group_id = 1 + number % SC_IP_GROUPS;
  item.time_mode = 1;
  item.time_group_id = 1 + number % SC_TIME_GROUPS;
  strcpy(item.start_ip_text, "0.0.0.0");
  strcpy(item.end_ip_text, "0.0.0.0");
  item.rule_flag = 1;
  strcpy(item.trailing_text, "made by the installer");
  return item;
}

void fill_rules(FwIpportBlock* ip_filters, QosBlock* qos) {
  for (uint32_t n = 0; n < SC_FILTER_RULES; ++n) {
    const auto filter = rule<IpFilterItem>(n);
    must(AddIpFilterItem(ip_filters, &filter) == SC_LIST_OK, "an IP filter rule is not added");
    const auto qos_rule = rule<QosItem>(n);
    must(AddQosItem(qos, &qos_rule) == SC_LIST_OK, "a QoS rule is not added");
  }
}

/* Rule n: 192.168.<100+n>.1 to .254; group n: 10.<100+n>.100.1 to .254. */
uint32_t address(int first, int second, int third, int last) {
  char text[16];
  snprintf(text, sizeof text, "%d.%d.%d.%d", first, second, third, last);
  return inet_addr(text);
}

const ScatteredRules* scatter(const Data& data) {
  static ScatteredRules rules;
  rules = {*data.ip_groups, *data.ip_filters, *data.qos};
  for (int n = 0; n < SC_IP_GROUPS; ++n) {
    rules.ip_groups.groups[n].start_addr = address(10, 100 + n, 100, 1);
    rules.ip_groups.groups[n].end_addr = address(10, 100 + n, 100, 254);
  }
  for (int n = 0; n < SC_FILTER_RULES; ++n) {
    const uint32_t start = address(192, 168, 100 + n, 1), end = address(192, 168, 100 + n, 254);
    rules.ip_filters.rules[n].start_addr = rules.qos.rules[n].start_addr = start;
    rules.ip_filters.rules[n].end_addr = rules.qos.rules[n].end_addr = end;
  }
  return &rules;
}

void fill_aps(ManageApListBlock* aps) {
  ApLimitsRecord limits = {};
  limits.max_ap_count = SC_ACCESS_POINTS;
  for (uint32_t n = 0; n < SC_ACCESS_POINTS; ++n) {
    must(SC_Get_Ap_Info_Blank(aps, &limits) == static_cast<int32_t>(n), "an AP is not claimed");
    put_mac(aps->aps[n].ap_mac, n);
  }
}

ClientsItem client(uint32_t number) {
  ClientsItem item = {};
  put_mac(item.client_mac, number);
  snprintf(item.text_52, sizeof item.text_52, "client-%u", number);
  return item;
}

void fill_clients(ClientsBlock* clients) {
  for (uint32_t n = 0; n < SC_CLIENTS; ++n) {
    const ClientsItem item = client(n);
    must(AddClientsItem(clients, &item) == SC_LIST_OK, "a client is not added");
  }
}

/* The device's own commands of a save do nothing here. sync is one of them: flushing this machine's
 * disks is not measured. */
void replace_commands() {
  static constexpr const char* kCommands[] = {"/var/bin/sync", "/var/bin/change_event",
                                              "/var/bin/send_event"};
  for (const char* command : kCommands) {
    unlink(command);
    FILE* file =
        fopen(command, "w"); /* not a link: BusyBox selects a program by the name of the link */
    must(file != nullptr && fputs("#!/bin/true\n", file) >= 0 && fclose(file) == 0 &&
             chmod(command, 0755) == 0,
         "a command has no stand-in");
  }
}

Data start() {
  must(access("/var/private_world", F_OK) == 0, "run it by examples/private_world");
  replace_commands();
  start_listener();
  SC_Init_System_Lan_Config(1);
  SC_Init_System_IpGroup_Config(1);
  SC_Init_System_TimeGroup_Config(1);
  SC_Init_System_FwIpport_Config(1);
  SC_Init_System_Qos_Config(1);
  SC_Init_System_ManageApList_Config(1);
  SC_Init_System_Clients_Config(1);
  Data data = {attached<LanBlock>(SC_Get_Lan_System_Config()),
               attached<IpGroupBlock>(SC_Get_IpGroup_System_Config()),
               attached<TimeGroupBlock>(SC_Get_TimeGroup_System_Config()),
               attached<FwIpportBlock>(SC_Get_FwIpport_System_Config()),
               attached<QosBlock>(SC_Get_Qos_System_Config()),
               attached<ManageApListBlock>(SC_Get_ManageApList_System_Config()),
               attached<ClientsBlock>(SC_Get_Clients_System_Config())};
  fill_bindings(data.lan);
  fill_groups(data.ip_groups, data.time_groups);
  fill_rules(data.ip_filters, data.qos);
  fill_aps(data.aps);
  fill_clients(data.clients);
  return data;
}

}  // namespace

const ScatteredRules& scattered_rules() {
  static const ScatteredRules* const made = scatter(data());
  return *made;
}

const Data& data() {
  static const Data started = start();
  return started;
}

DhcpStaticItem new_binding() { return lan_binding(SC_DHCP_BINDS); }

ClientsItem new_client() { return client(SC_CLIENTS); }

void must(bool condition, const char* what) {
  if (condition) return;
  printf("bench: %s\n", what);
  exit(1);
}

}  // namespace bench
