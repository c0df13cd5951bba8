/* A request through every subsystem behind the Lan area. */
#include "tour.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

#include "../vendor/vendor.h"
#include "areas.h"
#include "listener.h"
#include "page.h"
#include "stream.h"

/* The areas of the tour. */
static struct WanBlock* wan;
static struct VsIpportBlock* forwards;
static struct FwIpportBlock* ip_filters;
static struct IpGroupBlock* ip_groups;
static struct TimeGroupBlock* time_groups;
static struct FwMacBlock* mac_filters;
static struct FwUrlBlock* url_filters;
static struct QosBlock* qos_rules;
static struct ManageApListBlock* aps;
static struct ApTemplateListBlock* templates;
static struct ClientsGroupsBlock* client_groups;
static struct ClientsBlock* clients;

static const char* answer(int32_t result) { return result == SC_LIST_OK ? "done" : "refused"; }

/* ---- groups, and the rules that refer to them ---- */

/* Modes of a reference. An IP group takes rules of mode 1 along, a time group those of mode 2. */
enum { SHOWN_WITH_GROUP = 1, GOES_WITH_GROUP = 2 };

#define EVERY_DAY \
  { 1, 1, 1, 1, 1, 1, 1 }
#define WORKDAYS \
  { 1, 1, 1, 1, 1, 0, 0 }

static void add_ip_filter(const struct IpFilterItem* rule) {
  row("  IP filter   %-20s %s", rule->leading_text, answer(AddIpFilterItem(ip_filters, rule)));
  heard();
}

static void add_mac_filter(const struct MacFilterItem* rule) {
  row("  MAC filter  %-20s %s", rule->leading_text, answer(AddMacFilterItem(mac_filters, rule)));
  heard();
}

static void add_url_filter(const struct UrlFilterItem* rule) {
  row("  URL filter  %-20s %s", rule->leading_text, answer(AddUrlFilterItem(url_filters, rule)));
  heard();
}

static void add_qos_rule(const struct QosItem* rule) {
  row("  QoS         %-20s %s", rule->leading_text, answer(AddQosItem(qos_rules, rule)));
  heard();
}

static void add_groups_and_rules(void) {
  heading("An IP group, a time group, and rules that refer to them");
  struct IpGroupItem guests = {
      .leading_text = "guests", .start_ip_text = "10.0.0.100", .end_ip_text = "10.0.0.199"};
  row("  IP group    %-20s %s", guests.leading_text, answer(AddIpGroupItem(ip_groups, &guests)));
  heard();
  struct TimeGroupItem nights = {
      .leading_text = "nights", .weekday = EVERY_DAY, .start_time = "22:00", .end_time = "06:00"};
  row("  time group  %-20s %s", nights.leading_text,
      answer(AddTimeGroupItem(time_groups, &nights)));
  heard();

  add_ip_filter(&(struct IpFilterItem){.leading_text = "no mail for guests",
                                       .ip_mode = SHOWN_WITH_GROUP,
                                       .ip_group_id = 1,
                                       .time_mode = SHOWN_WITH_GROUP,
                                       .time_group_id = 1});
  add_ip_filter(&(struct IpFilterItem){.leading_text = "camera stays inside",
                                       .start_ip_text = "10.0.0.7",
                                       .end_ip_text = "10.0.0.7",
                                       .time_mode = GOES_WITH_GROUP,
                                       .time_group_id = 1,
                                       .weekday = WORKDAYS,
                                       .start_time = "08:00",
                                       .end_time = "18:00"});
  add_mac_filter(&(struct MacFilterItem){.leading_text = "tablet sleeps",
                                         .mac = "02:00:5E:10:00:51",
                                         .time_mode = SHOWN_WITH_GROUP,
                                         .time_group_id = 1});
  add_mac_filter(&(struct MacFilterItem){.leading_text = "console rests",
                                         .mac = "02:00:5E:10:00:52",
                                         .time_mode = GOES_WITH_GROUP,
                                         .time_group_id = 1,
                                         .weekday = WORKDAYS,
                                         .start_time = "20:00",
                                         .end_time = "07:00"});
  add_mac_filter(
      &(struct MacFilterItem){.leading_text = "console again", .mac = "02:00:5e:10:00:52"});
  add_url_filter(&(struct UrlFilterItem){.leading_text = "no games at night",
                                         .url = "games.example",
                                         .time_mode = SHOWN_WITH_GROUP,
                                         .time_group_id = 1});
  add_url_filter(&(struct UrlFilterItem){.leading_text = "homework first",
                                         .url = "films.example",
                                         .time_mode = GOES_WITH_GROUP,
                                         .time_group_id = 1,
                                         .weekday = WORKDAYS,
                                         .start_time = "14:00",
                                         .end_time = "17:00"});
  add_qos_rule(&(struct QosItem){.leading_text = "guests share 2 Mbit",
                                 .ip_mode = SHOWN_WITH_GROUP,
                                 .ip_group_id = 1,
                                 .weekday = EVERY_DAY,
                                 .start_time = "00:00",
                                 .end_time = "24:00",
                                 .param_1 = 2048});
  add_qos_rule(&(struct QosItem){.leading_text = "backup at night",
                                 .start_ip_text = "10.0.0.5",
                                 .end_ip_text = "10.0.0.5",
                                 .time_mode = GOES_WITH_GROUP,
                                 .time_group_id = 1,
                                 .weekday = EVERY_DAY,
                                 .start_time = "01:00",
                                 .end_time = "05:00"});
  puts(
      "\n\"console again\" has the MAC of \"console rests\", in small letters: MAC texts are\n"
      "compared without case. The daemon is told all the same.");
}

/* IP filters with what their groups say now. */
static void show_ip_filters(void) {
  static struct IpFilterItemList list;
  GetIpFilterItemList(ip_filters, ip_groups, time_groups, &list);
  for (const struct IpFilterItem* rule = list.items; rule < list.items + list.count; rule++) {
    printf("  %d  %-19s  %.15s-%.15s  %.10s-%.10s\n", (int)rule->slot_id, rule->leading_text,
           rule->start_ip_text, rule->end_ip_text, rule->start_time, rule->end_time);
    if (rule->ip_mode == SHOWN_WITH_GROUP) {
      printf("%28s IP group \"%s\", time group \"%s\"\n", "from", rule->ip_group_name,
             rule->time_group_name);
    }
  }
}

static void show_rules(void) {
  type("scctl list ip_filter");
  type("scctl list mac_filter");
  type("scctl list url_filter");
  type("scctl list qos");
}

static void change_groups(void) {
  heading("The rules, listed with what they refer to");
  puts(
      "A rule stores the id of a group, a listing of the library says what will apply.\n"
      "So one edit of the group changes every rule that refers to it.\n");
  show_rules();
  putchar('\n');
  show_ip_filters();
  struct IpGroupItem guests;
  GetIpGroupItem(ip_groups, 1, &guests);
  strcpy(guests.start_ip_text, "10.0.1.1");
  strcpy(guests.end_ip_text, "10.0.1.254");
  putchar('\n');
  row("  the guests move to 10.0.1.x: %s", answer(ModifyIpGroupItem(ip_groups, &guests)));
  heard();
  show_ip_filters();

  heading("The groups go, and take their rules along");
  char first[] = "1", again[] = "1";
  puts("IP group 1 takes along the rules that have its addresses. The daemon hears:");
  DelIpGroupItem(ip_groups, ip_filters, qos_rules, first);
  printf("  ");
  heard();
  puts("Time group 1 takes along the rules that asked for it, by a time_mode of 2:");
  DelTimeGroupItem(time_groups, ip_filters, mac_filters, url_filters, qos_rules, again);
  printf("  ");
  heard();
  puts("\nRules of time_mode 1 stay:\n");
  show_rules();
}

/* ---- port forwarding, and settings without a table ---- */

static void forward_ports(void) {
  heading("Port forwarding, and who changed what");
  puts(
      "The daemon hears the code of the area. A watch tells each field before and after\n"
      "and, where the kernel knows it, the program: an object on a line (folded here).\n");
  start_stream("VsIpport");
  const struct PortFwItem rules[] = {{.leading_text = "web server",
                                      .ip_text = "10.0.0.20",
                                      .option_1 = 1,
                                      .number_1 = 80,
                                      .number_2 = 80,
                                      .number_3 = 8080,
                                      .number_4 = 8080},
                                     {.leading_text = "camera",
                                      .ip_text = "10.0.0.7",
                                      .option_1 = 1,
                                      .number_1 = 554,
                                      .number_2 = 560,
                                      .number_3 = 10554,
                                      .number_4 = 10560}};
  for (int i = 0; i < 2; i++) {
    row("  %-20s %s", rules[i].leading_text, answer(AddPortFwItem(forwards, &rules[i])));
    heard();
    streamed();
  }
  type("scctl set port_forward/1 number_3=8081 --note 'the old port was taken'");
  row("  set under the same lock byte");
  heard();
  streamed();
  stop_stream();
  type("scctl list port_forward");
}

/* Holds one byte of a block's lock file, as every writer does. */
static int lock(const char* lock_path, int32_t lock_index) {
  int file = open(lock_path, O_RDWR);
  if (file < 0) {
    perror(lock_path);
    exit(STATUS_CANNOT_RUN);
  }
  sc_lock_reg(file, F_SETLKW, F_WRLCK, lock_index, SEEK_SET, 1);
  return file;
}

static void unlock(int file, int32_t lock_index) {
  sc_lock_reg(file, F_SETLK, F_UNLCK, lock_index, SEEK_SET, 1);
  close(file);
}

static void set_wan(void) {
  heading("Settings without a table");
  puts(
      "Wan, Misc, the product information and the default template hold settings of\n"
      "other programs, which write a section under its lock byte and tell the daemon.\n"
      "One of them is a made-up vendor's, with a struct of its own for the section.\n");
  const struct wan_section settings = {.magic = WAN_MAGIC,
                                       .mtu = 1492,
                                       .enabled = 1,
                                       .mode = WAN_PPPOE,
                                       .pppoe = {.user = "demo", .password = "uplink of the demo"}};
  struct WanSection* section = &wan->sections[0];
  _Static_assert(sizeof settings <= sizeof section->settings, "the vendor's struct fits");
  int file = lock(wan->header.lock_path, section->lock_index);
  memcpy(section->settings, &settings, sizeof settings);
  unlock(file, section->lock_index);
  SC_Save_System_Wan_Config();
  row("  Wan section 1, under lock byte %d: written", (int)section->lock_index);
  heard();
  type("scctl get wan/1.settings | cut -c 1-72");
  puts("\nAn overlay, made of the debug information of the vendor's object, has names:\n");
  type("scctl get wan/1.mtu --overlay examples/vendor/vendor.json");
  type("scctl set wan/1 mtu=1400 --overlay examples/vendor/vendor.json");
  row("  written under the same lock byte");
  heard();
  type("scctl get wan/1 --overlay examples/vendor/vendor.json | head -12");
}

/* ---- access points ---- */

static const uint8_t kMacs[][SC_MAC_BYTES] = {{2, 0, 0x5e, 0x20, 0, 1}, {2, 0, 0x5e, 0x20, 0, 2}};

/* Claims a record for an access point that has called, as the controller's program does. */
static void claim_ap(const struct ApLimitsRecord* limits, const uint8_t* mac, int8_t run_state) {
  int32_t position = SC_Get_Ap_Info_Blank(aps, limits);
  if (position < 0) {
    printf("  a third AP: refused, the limit is %d\n", limits->max_ap_count);
    return;
  }
  struct ApInfoRecord* ap = &aps->aps[position];
  int file = lock(aps->header.lock_path, ap->lock_index);
  memcpy(ap->ap_mac, mac, SC_MAC_BYTES);
  ap->run_state = run_state;
  unlock(file, ap->lock_index);
  SC_Save_System_ManageApList_Config();
  row("  AP %u claimed, written under lock byte %d", (unsigned)ap->ap_id, (int)ap->lock_index);
  heard();
}

static void manage_aps(struct ApUserListBlock* users) {
  heading("Access points");
  const struct ApLimitsRecord limits = {.max_ap_count = 2};
  claim_ap(&limits, kMacs[0], 0);
  claim_ap(&limits, kMacs[1], -2);
  claim_ap(&limits, kMacs[1], 0);

  int32_t position = SC_Get_AP_Template_Info_Blank(templates);
  struct ApTemplateRecord* template = &templates->templates[position];
  int file = lock(templates->header.lock_path, template->lock_index);
  strcpy(template->template_name, "lobby");
  unlock(file, template->lock_index);
  SC_Save_System_ApTemplateList_Config();
  row("  template %u \"%s\" claimed", (unsigned)template->template_id, template->template_name);
  heard();

  SC_Add_Ap_Mac2Template_By_Id(templates, aps, template->template_id, kMacs[0]);
  SC_Save_System_ManageApList_Config();
  row("  AP 1 bound to it: its record got the name and the id");
  heard();
  SC_Add_Ap_Mac2Template_By_Id(templates, aps, template->template_id, kMacs[1]);
  puts("  AP 2 asks for the same template: it has its AP, nothing changes");
  type("scctl list aps");
  printf("  %d in all, %d online, %d offline\n\n", (int)SC_Get_Ap_Info_Count(aps),
         (int)SC_Get_Ap_Info_Count_Online(aps), (int)SC_Get_Ap_Info_Count_Offline(aps));

  position = SC_Get_ApUser_Info_Blank(users);
  file = lock(users->lock_path, users->users[position].lock_index);
  memcpy(users->users[position].user_mac, kMacs[0], SC_MAC_BYTES);
  unlock(file, users->users[position].lock_index);
  type("scctl list ap_users");
}

/* ---- clients ---- */

static void add_client_group(const char* name) {
  struct ClientsGroupsItem group = {0};
  strcpy(group.group_name, name);
  row("  group %-20s %s", name, answer(AddClientsGroupsItem(client_groups, &group)));
  heard();
}

static void add_client(const uint8_t* mac, const char* text) {
  struct ClientsItem client = {0};
  memcpy(client.client_mac, mac, SC_MAC_BYTES);
  strcpy(client.text_52, text);
  row("  client %-19s %s", text, answer(AddClientsItem(clients, &client)));
  heard();
}

static void manage_clients(void) {
  heading("Client groups and clients");
  add_client_group("Staff");
  add_client_group("Visitors");
  add_client_group("STAFF");
  add_client(kMacs[0], "reception");
  add_client(kMacs[1], "meeting room");
  add_client(kMacs[0], "reception again");
  puts(
      "\nA group's name is compared without case, a client's MAC byte for byte. Modify\n"
      "writes every field of a client but its MAC.\n");
  struct ClientsItem renamed = {.slot_id = 1, .text_52 = "front desk"};
  row("  client 1 is now \"front desk\": %s", answer(ModifyClientsItem(clients, &renamed)));
  heard();
  char second[] = "2";
  DelClientsItem(clients, second);
  row("  client 2 deleted");
  heard();
  putchar('\n');
  type("scctl list client_groups");
  type("scctl list clients");
}

void tour(const struct SystemConfigDirectory* directory) {
  wan = AT(WanBlock, directory->wan);
  forwards = AT(VsIpportBlock, directory->vs_ipport);
  ip_filters = AT(FwIpportBlock, directory->fw_ipport);
  ip_groups = AT(IpGroupBlock, directory->ip_group);
  time_groups = AT(TimeGroupBlock, directory->time_group);
  mac_filters = AT(FwMacBlock, directory->fw_mac);
  url_filters = AT(FwUrlBlock, directory->fw_url);
  qos_rules = AT(QosBlock, directory->qos);
  aps = AT(ManageApListBlock, directory->manage_ap_list);
  templates = AT(ApTemplateListBlock, directory->ap_template_list);
  client_groups = AT(ClientsGroupsBlock, directory->clients_groups);
  clients = AT(ClientsBlock, directory->clients);

  add_groups_and_rules();
  change_groups();
  forward_ports();
  set_wan();
  manage_aps(AT(ApUserListBlock, directory->ap_user_list));
  manage_clients();
}
