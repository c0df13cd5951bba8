/* The same operations as they are usually written in C: struct members, printf, memcmp. They show
 * what a floor means in practice.
 */
#ifndef BENCH_PLAIN_H
#define BENCH_PLAIN_H

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

namespace bench::plain {

int modify_binding(LanBlock* block, uint32_t position, const DhcpBindRecord* record);
int add_binding(LanBlock* block, const DhcpStaticItem* item);
void delete_bindings(LanBlock* block, char* ids);
void read_binding(const LanBlock* block, uint32_t id, DhcpStaticItem* item);
void list_bindings(const DhcpBindRecord* binds, DhcpStaticItemList* list);
void list_ip_filters(const FwIpportBlock* block, const IpGroupBlock* ip_groups,
                     const TimeGroupBlock* time_groups, IpFilterItemList* list);
void list_qos(const QosBlock* block, const IpGroupBlock* ip_groups,
              const TimeGroupBlock* time_groups, QosItemList* list);
int find_ap(const ManageApListBlock* block, const uint8_t* mac);
int check_client(const ClientsBlock* block, const ClientsItem* item, uint32_t skip_slot);

}  // namespace bench::plain

#endif
