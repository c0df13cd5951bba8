#include "races/tables.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <sysconfig/ap.h>
#include <sysconfig/core.h>

#include "support/areas.h"

namespace sc_test {

Shared* shared;
Table tables[kTables];
Blocks blocks;

void violation(const char* format, ...) {
  const uint32_t number = shared->violations++;
  if (number >= kMostMessages) return;
  va_list values;
  va_start(values, format);
  vsnprintf(shared->messages[number], sizeof shared->messages[number], format, values);
  va_end(values);
}

uint32_t new_stamp() { return (shared->stamps++ + 1) * 2654435761u; }

Held::Held(const Table& table, uint32_t position)
    : fd_(open(lock_file(table.area).c_str(), O_RDWR)),
      lock_index_(static_cast<off_t>(table.first_lock_index + position)) {
  locked_ = sc_lock_reg(fd_, F_SETLKW, F_WRLCK, lock_index_, SEEK_SET, 1) == 0;
  if (!locked_ && errno == EINTR) ++shared->interrupted_locks;
}

Held::~Held() {
  sc_lock_reg(fd_, F_SETLK, F_UNLCK, lock_index_, SEEK_SET, 1);
  close(fd_);
}

uint8_t letter(uint32_t stamp, size_t offset) {
  return static_cast<uint8_t>('a' + (stamp >> 4 * (offset % 8) & 15));
}

void put_stamp(uint8_t* record, const std::vector<RunRow>& runs, uint32_t stamp) {
  for (const RunRow& run : runs) {
    for (uint32_t i = 0; i < run.width; ++i) record[run.at + i] = letter(stamp, run.at + i);
  }
}

uint32_t stamp_at(const uint8_t* record, uint32_t at) {
  uint32_t stamp = 0;
  for (uint32_t i = at; i < at + 8; ++i) {
    stamp |= static_cast<uint32_t>(record[i] - 'a') << 4 * (i % 8);
  }
  return stamp;
}

bool is_whole(const uint8_t* record, const std::vector<RunRow>& runs) {
  uint32_t stamp = 0;
  bool stamped = false;
  for (const RunRow& run : runs) {
    if (run.width < 8) continue;
    stamped = record[run.at] != 0;
    stamp = stamp_at(record, run.at);
    break;
  }
  for (const RunRow& run : runs) {
    for (uint32_t i = 0; i < run.width; ++i) {
      if (record[run.at + i] != (stamped ? letter(stamp, run.at + i) : 0)) return false;
    }
  }
  return true;
}

const std::vector<RunRow>& payload(uint32_t table) {
  static const std::vector<RunRow> binding = {{349, 50}}, name = {{58, 50}}, nothing;
  if (table < kLists) return list_rows()[table].payload;
  return table == kAps ? binding : table == kTemplates ? name : nothing;
}

uint32_t unlocked_word(uint32_t table) {
  return table < kLists ? ~0u : id_table_rows()[table - kLists].id_at;
}

uint8_t* mac_of(uint32_t table, uint32_t at) {
  return tables[table].record(at) + id_table_rows()[table - kLists].mac_at;
}

int32_t claim_id(uint32_t table) {
  static const ApLimitsRecord limits = {{}, kMostRecords};
  uint8_t* block = tables[table].block;
  if (table == kAps) {
    return SC_Get_Ap_Info_Blank(reinterpret_cast<ManageApListBlock*>(block), &limits);
  }
  if (table == kUsers) {
    return SC_Get_ApUser_Info_Blank(reinterpret_cast<ApUserListBlock*>(block));
  }
  return SC_Get_AP_Template_Info_Blank(reinterpret_cast<ApTemplateListBlock*>(block));
}

int32_t remove(uint32_t table, uint32_t at) {
  uint8_t* block = tables[table].block;
  if (table < kLists) return kListCalls[table].operate(block, LIST_OP_DEL, &at, nullptr);
  if (table == kTemplates) {
    return SC_Del_AP_Template_Info_By_Id(reinterpret_cast<ApTemplateListBlock*>(block), at);
  }
  uint8_t mac[6];
  memcpy(mac, mac_of(table, at), sizeof mac);
  return table == kAps ? SC_Del_Ap_Info_by_Mac(reinterpret_cast<ManageApListBlock*>(block), mac)
                       : SC_Del_ApUser_Info_by_Mac(reinterpret_cast<ApUserListBlock*>(block), mac);
}

}  // namespace sc_test
