/* The rows of ap/: its three tables. */
#ifndef AP_ROWS_H
#define AP_ROWS_H

#include <sysconfig/ap.h>

#include "ap/id_table.h"

namespace sc {

constexpr IdTableRow kAps =
    SC_ID_TABLE(ManageApListBlock, header.lock_path, aps, ApInfoRecord, ap_id, ap_mac);

/* This table is never saved, and its header differs from that of other areas. */
constexpr IdTableRow kApUsers =
    SC_ID_TABLE(ApUserListBlock, lock_path, users, ApUserRecord, user_id, user_mac);

constexpr IdTableRow kApTemplates = SC_ID_TABLE(ApTemplateListBlock, header.lock_path, templates,
                                                ApTemplateRecord, template_id, bound_ap_mac);

}  // namespace sc

#endif
