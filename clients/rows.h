/* The rows of clients/. */
#ifndef CLIENTS_ROWS_H
#define CLIENTS_ROWS_H

#include <sysconfig/clients.h>

#include "core/rows.h"

namespace sc {

/* Items are laid out as the first bytes of their records, so the frame uses them as records. */

constexpr Member kClientGroupMembers[] = {
    SC_MEMBER(ClientsGroupRecord, group_name, ClientsGroupsItem, group_name),
};

constexpr ListRow kClientGroupList = {
    .table = {.geometry = SC_GEOMETRY(ClientsGroupsBlock, groups),
              .modify_range = SC_LIST_MOD_RANGE,
              .keys = {SC_TEXT_KEY(ClientsGroupRecord, group_name)},
              .payload = payload(kClientGroupMembers)},
    .code = SC_CODE_CLIENTS_GROUPS,
};

constexpr Member kClientMembers[] = {
    SC_MEMBER(ClientRecord, client_mac, ClientsItem, client_mac),
    SC_MEMBER(ClientRecord, text_52, ClientsItem, text_52),
    SC_MEMBER(ClientRecord, text_82, ClientsItem, text_82),
    SC_MEMBER(ClientRecord, text_102, ClientsItem, text_102),
    SC_MEMBER(ClientRecord, text_122, ClientsItem, text_122),
    SC_MEMBER(ClientRecord, text_142, ClientsItem, text_142),
    SC_MEMBER(ClientRecord, text_162, ClientsItem, text_162),
    SC_MEMBER(ClientRecord, text_182, ClientsItem, text_182),
    SC_MEMBER(ClientRecord, field_14, ClientsItem, field_14),
    SC_MEMBER(ClientRecord, field_16, ClientsItem, field_16),
    SC_MEMBER(ClientRecord, field_20, ClientsItem, field_20),
    SC_MEMBER(ClientRecord, field_24, ClientsItem, field_24),
    SC_MEMBER(ClientRecord, field_26, ClientsItem, field_26),
    SC_MEMBER(ClientRecord, field_27, ClientsItem, field_27),
    SC_MEMBER(ClientRecord, field_28, ClientsItem, field_28),
    SC_MEMBER(ClientRecord, field_29, ClientsItem, field_29),
    SC_MEMBER(ClientRecord, field_30, ClientsItem, field_30),
    SC_MEMBER(ClientRecord, field_31, ClientsItem, field_31),
    SC_MEMBER(ClientRecord, field_32, ClientsItem, field_32),
    SC_MEMBER(ClientRecord, field_34, ClientsItem, field_34),
    SC_MEMBER(ClientRecord, field_36, ClientsItem, field_36),
    SC_MEMBER(ClientRecord, field_40, ClientsItem, field_40),
    SC_MEMBER(ClientRecord, field_44, ClientsItem, field_44),
    SC_MEMBER(ClientRecord, field_48, ClientsItem, field_48),
};

/* The MAC is the record's identity: add writes it, delete clears it, modify does not change it. */
constexpr Identity kClientMac = SC_IDENTITY(ClientRecord, client_mac);

constexpr ListRow kClientList = {
    .table = {.geometry = SC_GEOMETRY(ClientsBlock, clients),
              .modify_range = SC_LIST_MOD_RANGE,
              .identity = kClientMac,
              .keys = {SC_BYTES_KEY(ClientRecord, client_mac)},
              .payload = payload(kClientMembers, kClientMac)},
    .code = SC_CODE_CLIENTS,
};

}  // namespace sc

#endif
