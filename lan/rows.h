/* The rows of lan/: the two tables of DHCP static bindings. */
#ifndef LAN_ROWS_H
#define LAN_ROWS_H

#include <sysconfig/lan.h>

#include "core/rows.h"

namespace sc {

constexpr Member kBindMembers[] = {
    mac_text(SC_MEMBER(DhcpBindRecord, bind_mac, DhcpStaticItem, mac)),
    SC_MEMBER(DhcpBindRecord, bind_ip, DhcpStaticItem, ip),
    SC_MEMBER(DhcpBindRecord, bind_flag, DhcpStaticItem, flag),
    SC_MEMBER(DhcpBindRecord, bind_name, DhcpStaticItem, name),
};

/* The two tables differ only in their place and their counter. Here slot_id stands before
 * lock_index; in all other tables it stands behind it. */
consteval MappedListRow binds(Geometry geometry, size_t counter_at) {
  return {
      .list = {.table = {.geometry = geometry,
                         .modify_range = SC_LIST_MOD_RANGE,
                         .keys = {SC_TEXT_KEY(DhcpBindRecord, bind_mac),
                                  SC_BYTES_KEY(DhcpBindRecord, bind_ip)},
                         .payload = payload(kBindMembers)},
               .counter_at = half_column(counter_at),
               .counter_size = sizeof(LanBlock::lan_bind_count),
               .code = SC_CODE_LAN},
      .item_size = SC_ITEM_SIZE(DhcpStaticItem, LanBlock, lan_binds),
  };
}

constexpr MappedListRow kLanBinds =
    binds(SC_GEOMETRY(LanBlock, lan_binds), offsetof(LanBlock, lan_bind_count));
constexpr MappedListRow kAcBinds =
    binds(SC_GEOMETRY(LanBlock, ac_binds), offsetof(LanBlock, ac_bind_count));

}  // namespace sc

#endif
