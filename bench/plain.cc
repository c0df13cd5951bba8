#include "plain.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace bench::plain {

namespace {

void lock(int fd, int command, short type, int lock_index) {
  struct flock lock;
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = lock_index;
  lock.l_len = 1;
  fcntl(fd, command, &lock);
}

void announce() {
  int code = SC_CODE_LAN;
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) return perror("socket");
  sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/var/config_socket");
  if (connect(fd, reinterpret_cast<sockaddr*>(&address),
              static_cast<socklen_t>(strlen(address.sun_path) + 2)) < 0) {
    perror("connect");
    close(fd);
    return;
  }
  if (send(fd, &code, sizeof code, 0) < 0) perror("send");
  if (fd > 0) close(fd);
}

int open_lock_file(const BlockHeader& header) {
  int fd = open(header.lock_path, O_RDWR, 0644);
  if (fd < 0) printf("Cannot Lock file %s", header.lock_path);
  return fd;
}

int check_binding(const LanBlock* block, const DhcpBindRecord* record, uint32_t skip_slot) {
  for (int n = 0; n < SC_DHCP_BINDS; ++n) {
    const DhcpBindRecord& bind = block->lan_binds[n];
    if (bind.slot_id == -1 || static_cast<uint32_t>(bind.slot_id) == skip_slot) continue;
    if (strncasecmp(bind.bind_mac, record->bind_mac, sizeof bind.bind_mac) == 0) return 1;
    if (bind.bind_ip == record->bind_ip) return 1;
  }
  return 0;
}

int claim_binding(LanBlock* block) {
  int fd = open_lock_file(block->header);
  if (fd < 0) return -1;
  for (int n = 0; n < SC_DHCP_BINDS; ++n) {
    DhcpBindRecord& bind = block->lan_binds[n];
    if (bind.slot_id != -1) continue;
    lock(fd, F_SETLKW, F_WRLCK, bind.lock_index);
    bind.slot_id = n + 1;
    lock(fd, F_SETLK, F_UNLCK, bind.lock_index);
    close(fd);
    return n;
  }
  close(fd);
  return -1;
}

void write_binding(int fd, DhcpBindRecord& bind, const DhcpBindRecord* record) {
  lock(fd, F_SETLKW, F_WRLCK, bind.lock_index);
  bind.bind_flag = record->bind_flag;
  memcpy(bind.bind_mac, record->bind_mac, sizeof bind.bind_mac);
  bind.bind_ip = record->bind_ip;
  memcpy(bind.bind_name, record->bind_name, sizeof bind.bind_name);
  lock(fd, F_SETLK, F_UNLCK, bind.lock_index);
}

void append_address(uint32_t address, char* to) {
  char text[32];
  sprintf(text, "%d.%d.%d.%d", address & 0xff, address >> 8 & 0xff, address >> 16 & 0xff,
          address >> 24);
  strcat(to, text);
}

void show_binding(const DhcpBindRecord& bind, DhcpStaticItem* item) {
  item->id = bind.slot_id;
  item->flag = bind.bind_flag;
  memcpy(item->mac, bind.bind_mac, sizeof item->mac);
  append_address(bind.bind_ip, item->ip);
  memcpy(item->name, bind.bind_name, sizeof item->name);
}

template <class From, class To>
void show_schedule(const From& from, To* to) {
  for (int day = 0; day < SC_WEEKDAYS; ++day) to->weekday[day] = from.weekday[day];
  memcpy(to->start_time, from.start_time, sizeof to->start_time);
  memcpy(to->end_time, from.end_time, sizeof to->end_time);
}

void read_ip_group(const IpGroupBlock* block, uint32_t id, IpGroupItem* item) {
  memset(item, 0, sizeof *item);
  if (id - 1 >= SC_IP_GROUPS) return;
  const IpGroupRecord& group = block->groups[id - 1];
  item->slot_id = group.slot_id;
  memcpy(item->leading_text, group.leading_text, sizeof item->leading_text);
  append_address(group.start_addr, item->start_ip_text);
  append_address(group.end_addr, item->end_ip_text);
  memcpy(item->trailing_text, group.trailing_text, sizeof item->trailing_text);
}

void read_time_group(const TimeGroupBlock* block, uint32_t id, TimeGroupItem* item) {
  memset(item, 0, sizeof *item);
  if (id - 1 >= SC_TIME_GROUPS) return;
  const TimeGroupRecord& group = block->groups[id - 1];
  item->slot_id = group.slot_id;
  memcpy(item->leading_text, group.leading_text, sizeof item->leading_text);
  show_schedule(group, item);
  memcpy(item->trailing_text, group.trailing_text, sizeof item->trailing_text);
}

/* The members that IP filter and QoS rules share. */
template <class Record, class Item>
void show_rule(const Record& rule, Item* item) {
  memcpy(item->leading_text, rule.leading_text, sizeof item->leading_text);
  item->ip_mode = rule.ip_mode;
  item->ip_group_id = rule.ip_group_id;
  item->time_mode = rule.time_mode;
  item->time_group_id = rule.time_group_id;
  show_schedule(rule, item);
  append_address(rule.start_addr, item->start_ip_text);
  append_address(rule.end_addr, item->end_ip_text);
  item->param_1 = rule.param_1;
  item->param_2 = rule.param_2;
  item->param_byte = rule.param_byte;
  item->rule_flag = rule.rule_flag;
  memcpy(item->trailing_text, rule.trailing_text, sizeof item->trailing_text);
}

template <class Item>
void show_groups(const IpGroupBlock* ip_groups, const TimeGroupBlock* time_groups, Item* item) {
  if (item->ip_mode == 1) {
    IpGroupItem group;
    memset(&group, 0, sizeof group);
    read_ip_group(ip_groups, static_cast<uint32_t>(item->ip_group_id), &group);
    memcpy(item->ip_group_name, group.leading_text, sizeof item->ip_group_name);
    memcpy(item->start_ip_text, group.start_ip_text, sizeof item->start_ip_text);
    memcpy(item->end_ip_text, group.end_ip_text, sizeof item->end_ip_text);
  }
  if (item->time_mode == 1 && item->time_group_id >= 0) {
    TimeGroupItem group;
    memset(&group, 0, sizeof group);
    read_time_group(time_groups, static_cast<uint32_t>(item->time_group_id), &group);
    strcpy(item->time_group_name, group.leading_text);
    memcpy(item->weekday, group.weekday, sizeof item->weekday);
    memcpy(item->start_time, group.start_time, sizeof item->start_time);
    memcpy(item->end_time, group.end_time, sizeof item->end_time);
  }
}

}  // namespace

int modify_binding(LanBlock* block, uint32_t position, const DhcpBindRecord* record) {
  int fd = open_lock_file(block->header);
  if (fd < 0) return SC_LIST_NO_LOCK;
  int result = SC_LIST_OK;
  if (check_binding(block, record, position + 1)) {
    result = SC_LIST_REJECTED;
  } else if (position >= SC_DHCP_BINDS) {
    result = SC_LIST_MOD_RANGE;
  } else {
    write_binding(fd, block->lan_binds[position], record);
  }
  close(fd);
  return result;
}

int add_binding(LanBlock* block, const DhcpStaticItem* item) {
  DhcpBindRecord record;
  memset(&record, 0, sizeof record);
  record.slot_id = item->id;
  record.bind_flag = static_cast<int8_t>(item->flag);
  memcpy(record.bind_mac, item->mac, sizeof record.bind_mac);
  record.bind_ip = inet_addr(item->ip);
  memcpy(record.bind_name, item->name, sizeof record.bind_name);

  int result = SC_LIST_REJECTED;
  int fd = open_lock_file(block->header);
  if (fd < 0) return SC_LIST_NO_LOCK;
  if (!check_binding(block, &record, UINT32_MAX)) {
    int position = claim_binding(block);
    if (position >= 0) {
      write_binding(fd, block->lan_binds[position], &record);
      result = SC_LIST_OK;
    }
  }
  close(fd);
  if (result == SC_LIST_OK) ++block->lan_bind_count;
  announce();
  return result;
}

void delete_bindings(LanBlock* block, char* ids) {
  for (char* id = strtok(ids, "#"); id != nullptr; id = strtok(nullptr, "#")) {
    const uint32_t position = static_cast<uint32_t>(atoi(id)) - 1;
    int fd = open_lock_file(block->header);
    if (fd >= 0 && position < SC_DHCP_BINDS) {
      DhcpBindRecord& bind = block->lan_binds[position];
      lock(fd, F_SETLKW, F_WRLCK, bind.lock_index);
      bind.slot_id = -1;
      lock(fd, F_SETLK, F_UNLCK, bind.lock_index);
    }
    if (fd >= 0) close(fd);
    --block->lan_bind_count;
  }
  announce();
}

void read_binding(const LanBlock* block, uint32_t id, DhcpStaticItem* item) {
  memset(item, 0, sizeof *item);
  if (id - 1 < SC_DHCP_BINDS) show_binding(block->lan_binds[id - 1], item);
}

void list_bindings(const DhcpBindRecord* binds, DhcpStaticItemList* list) {
  memset(list, 0, sizeof *list);
  uint32_t count = 0;
  for (int n = 0; n < SC_DHCP_BINDS; ++n) {
    if (binds[n].slot_id >= 0) show_binding(binds[n], &list->items[count++]);
  }
  list->count = count;
  list->capacity = SC_DHCP_BINDS;
}

void list_ip_filters(const FwIpportBlock* block, const IpGroupBlock* ip_groups,
                     const TimeGroupBlock* time_groups, IpFilterItemList* list) {
  memset(list, 0, sizeof *list);
  uint32_t count = 0;
  for (const IpFilterRecord& rule : block->rules) {
    if (rule.slot_id < 0) continue;
    IpFilterItem* item = &list->items[count++];
    item->slot_id = rule.slot_id;
    show_rule(rule, item);
    show_groups(ip_groups, time_groups, item);
  }
  list->count = count;
  list->capacity = SC_FILTER_RULES;
}

void list_qos(const QosBlock* block, const IpGroupBlock* ip_groups,
              const TimeGroupBlock* time_groups, QosItemList* list) {
  memset(list, 0, sizeof *list);
  uint32_t count = 0;
  for (const QosRuleRecord& rule : block->rules) {
    if (rule.slot_id < 0) continue;
    QosItem* item = &list->items[count++];
    item->id = rule.slot_id;
    item->match_kind = rule.match_kind;
    memcpy(item->match_text, rule.match_text, sizeof item->match_text);
    show_rule(rule, item);
    show_groups(ip_groups, time_groups, item);
  }
  list->count = count;
  list->capacity = SC_FILTER_RULES;
}

int find_ap(const ManageApListBlock* block, const uint8_t* mac) {
  for (int n = 0; n < SC_ACCESS_POINTS; ++n) {
    if (memcmp(block->aps[n].ap_mac, mac, SC_MAC_BYTES) == 0) return n;
  }
  return -1;
}

int check_client(const ClientsBlock* block, const ClientsItem* item, uint32_t skip_slot) {
  for (const ClientRecord& client : block->clients) {
    if (client.slot_id == -1 || static_cast<uint32_t>(client.slot_id) == skip_slot) continue;
    if (memcmp(client.client_mac, item->client_mac, SC_MAC_BYTES) == 0) return 1;
  }
  return 0;
}

}  // namespace bench::plain
