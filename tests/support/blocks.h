/* The blocks that a listing or a delete of one list uses besides its own. */
#ifndef SUPPORT_BLOCKS_H
#define SUPPORT_BLOCKS_H

#include <sysconfig/filter.h>
#include <sysconfig/rules.h>

namespace sc_test {

struct Blocks {
  FwIpportBlock* ip_filters;
  FwMacBlock* mac_filters;
  FwUrlBlock* url_filters;
  QosBlock* qos_rules;
  IpGroupBlock* ip_groups;
  TimeGroupBlock* time_groups;
};

/* Made by a function that returns the address of an area's block. */
template <class At>
Blocks blocks_at(const At& at) {
  auto block = [&](const char* area) -> void* { return at(area); };
  return {static_cast<FwIpportBlock*>(block("FwIpport")),
          static_cast<FwMacBlock*>(block("FwMac")),
          static_cast<FwUrlBlock*>(block("FwUrl")),
          static_cast<QosBlock*>(block("Qos")),
          static_cast<IpGroupBlock*>(block("IpGroup")),
          static_cast<TimeGroupBlock*>(block("TimeGroup"))};
}

}  // namespace sc_test

#endif
