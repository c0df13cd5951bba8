/* The data of all measurements: all areas, started without archives and filled. */
#ifndef BENCH_DATA_H
#define BENCH_DATA_H

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

namespace bench {

struct Data {
  LanBlock* lan;           /* 32 bindings of one network; as many AC bindings of as many networks */
  IpGroupBlock* ip_groups; /* 16 */
  TimeGroupBlock* time_groups; /* 16 */
  FwIpportBlock* ip_filters;   /* 32 rules, each with an IP group and a time group */
  QosBlock* qos;               /* the same */
  ManageApListBlock* aps;      /* 300 of one maker */
  ClientsBlock* clients;       /* 300 of one maker */
};

/* The same rules and groups, but each has its range in its own network. */
struct ScatteredRules {
  IpGroupBlock ip_groups;
  FwIpportBlock ip_filters;
  QosBlock qos;
};
const ScatteredRules& scattered_rules();

/* Starts and fills the areas once; later calls return the same data. Ends the program with a
 * message when it does not run in a private world (examples/private_world). */
const Data& data();

/* A binding that is not in the data. */
DhcpStaticItem new_binding();
ClientsItem new_client();

/* Ends the program with a message unless the condition holds. */
void must(bool condition, const char* what);

}  // namespace bench

#endif
