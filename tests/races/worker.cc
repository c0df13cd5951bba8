#include "races/worker.h"

#include <string.h>
#include <unistd.h>

#include <sysconfig/ap.h>

#include <algorithm>
#include <initializer_list>
#include <string>

#include "model/model.h"
#include "races/tables.h"
#include "support/areas.h"
#include "support/random.h"

namespace sc_test {
namespace {

class Worker {
 public:
  Worker(uint32_t number, uint64_t seed, Disturbance disturbance)
      : number_(number), random_(seed), disturbance_(disturbance) {}

  void run() {
    while (shared->stop == 0) {
      const uint32_t table = random_.below(kTables);
      shared->works_on[number_] = table;
      if (table < kLists) {
        work_on_list(table);
      } else {
        work_on_ids(table);
      }
      ++shared->operations;
    }
  }

 private:
  uint32_t me() const { return number_ + 1; }

  /* Claims and the entries for them: a claim is entered after it, its entry removed before it. */
  void own(uint32_t table, uint32_t position) {
    if (disturbance_.interrupts) return; /* an interrupted lock is none */
    uint32_t nobody = 0;
    if (position >= tables[table].capacity) {
      violation("table %u: position %u claimed", table, position);
    } else if (!shared->owners[table][position].compare_exchange_strong(nobody, me())) {
      violation("table %u: position %u claimed by %u and %u", table, position, me(), nobody);
    }
  }
  bool owned(uint32_t table, uint32_t* position) {
    const uint32_t capacity = tables[table].capacity, start = random_.below(capacity);
    for (uint32_t i = 0; i < capacity; ++i) {
      *position = (start + i) % capacity;
      if (disturbance_.interrupts) return true;
      if (shared->owners[table][*position] == me()) return true;
    }
    return false;
  }
  void disown(uint32_t table, uint32_t position) {
    if (!disturbance_.interrupts) shared->owners[table][position] = 0;
  }

  void expect(const char* what, uint32_t table, int64_t result, std::initializer_list<int> fine) {
    for (int value : fine) {
      if (result == value) return;
    }
    violation("table %u: %s returned %lld", table, what, static_cast<long long>(result));
  }

  /* Few records, so that processes meet at them. */
  uint32_t position(uint32_t table) {
    return random_.below(random_.one_in(2) ? 3 : tables[table].capacity);
  }

  Bytes record(const ListRow& row, uint32_t stamp) {
    Bytes bytes(row.stride);
    put_stamp(bytes.data(), row.payload, stamp);
    put_stamp(bytes.data(), row.identity, stamp);
    return bytes;
  }
  Bytes item(const ListRow& row, uint32_t stamp, uint32_t id) {
    Bytes bytes(row.item_size);
    const Bytes from = record(row, stamp);
    to_item(row, from.data(), bytes.data());
    for (const RunRow& run : row.identity) put_stamp(bytes.data(), {run}, stamp);
    store(bytes.data() + row.id_at, 4, id);
    return bytes;
  }

  void work_on_list(uint32_t list) {
    const ListRow& row = list_rows()[list];
    const ListCalls& calls = kListCalls[list];
    uint8_t* block = tables[list].block;
    const uint32_t stamp = new_stamp();
    uint32_t at = 0xdead;
    switch (random_.below(12)) {
      case 0:
      case 1: {
        const int32_t result = calls.operate(block, LIST_OP_ADD, &at, record(row, stamp).data());
        expect("an add", list, result, {SC_LIST_OK, SC_LIST_REJECTED});
        if (result == SC_LIST_OK) own(list, at);
        break;
      }
      case 2:
      case 3: {
        const int32_t result = calls.add(block, item(row, stamp, 0).data());
        expect("an item's add", list, result, {SC_LIST_OK, SC_LIST_REJECTED});
        if (result != SC_LIST_OK) break;
        ++shared->counted[list];
        own_by_stamp(list, stamp);
        break;
      }
      case 4:
      case 5:
        if (!owned(list, &at)) break;
        disown(list, at);
        if (random_.one_in(2)) {
          expect("a delete", list, remove(list, at), {SC_LIST_OK});
        } else {
          std::string id = std::to_string(at + 1);
          --shared->counted[list];
          calls.del(block, blocks, id.data());
        }
        break;
      case 6:
        at = position(list);
        expect("a modify", list,
               calls.operate(block, LIST_OP_MODIFY, &at, record(row, stamp).data()),
               {SC_LIST_OK, SC_LIST_REJECTED});
        break;
      case 7:
        expect("an item's modify", list,
               calls.modify(block, item(row, stamp, position(list) + 1).data()),
               {SC_LIST_OK, SC_LIST_REJECTED});
        break;
      case 8:
        if (calls.get_list != nullptr) look_at_list(list, row, calls);
        break;
      case 9:
        if (random_.one_in(100)) save(list);
        break;
      default: verify(list);
    }
  }

  /* Nobody but an owner deletes, so what was added is there unless another one modified it. */
  void own_by_stamp(uint32_t list, uint32_t stamp) {
    const ListRow& row = list_rows()[list];
    const RunRow& run = *std::find_if(row.payload.begin(), row.payload.end(),
                                      [](const RunRow& wide) { return wide.width >= 8; });
    for (uint32_t p = 0; p < row.capacity; ++p) {
      if (stamp_at(tables[list].record(p), run.at) == stamp) return own(list, p);
    }
  }

  void look_at_list(uint32_t list, const ListRow& row, const ListCalls& calls) {
    Bytes out(row.list_size);
    calls.get_list(tables[list].block, blocks, out.data());
    const uint32_t count = load(out.data(), 4);
    if (count > row.capacity || load(out.data() + 4, 4) != row.capacity) {
      violation("table %u: a list of %u", list, count);
    }
    calls.get(tables[list].block, position(list) + 1, out.data());
  }

  void save(uint32_t table) {
    area(tables[table].area).save_to_flash(tables[table].block);
    ++shared->saves;
  }

  void work_on_ids(uint32_t table) {
    auto* aps = reinterpret_cast<ManageApListBlock*>(tables[kAps].block);
    auto* users = reinterpret_cast<ApUserListBlock*>(tables[kUsers].block);
    auto* templates = reinterpret_cast<ApTemplateListBlock*>(tables[kTemplates].block);
    uint32_t at;
    switch (random_.below(8)) {
      case 0:
      case 1: {
        const int32_t claimed = claim_id(table);
        if (claimed < 0) break;
        own(table, static_cast<uint32_t>(claimed));
        fill_claimed(table, static_cast<uint32_t>(claimed));
        break;
      }
      case 2:
      case 3:
        if (!owned(table, &at)) break;
        disown(table, at);
        if (const int32_t removed = remove(table, at); !disturbance_.interrupts) {
          expect("a removal", table, removed, {1});
        }
        break;
      case 4:
        if (table == kTemplates) {
          bind(aps, templates);
        } else {
          uint8_t info[50], mac[6];
          memcpy(mac, mac_of(table, position(table)), sizeof mac);
          for (size_t i = 0; i < sizeof info; ++i) info[i] = letter(number_, 349 + i);
          SC_Ap_Add_GroupInfo_by_Mac(aps, reinterpret_cast<const char*>(info), 1, mac);
        }
        break;
      case 5:
        SC_Get_Ap_Info_Count_Online(aps);
        SC_Get_ApUser_Info_Count(users);
        SC_Get_AP_Template_Info_Count(templates);
        if (table == kTemplates && random_.one_in(100)) save(table);
        break;
      default: verify(table);
    }
  }

  /* As the callers do that claim: under the record's lock. */
  void fill_claimed(uint32_t table, uint32_t at) {
    const uint32_t stamp = new_stamp();
    Held held(tables[table], at);
    if (table == kTemplates) {
      put_stamp(tables[table].record(at), payload(table), stamp);
    } else {
      uint8_t mac[6] = {2, static_cast<uint8_t>(table)};
      memcpy(mac + 2, &stamp, sizeof stamp);
      memcpy(mac_of(table, at), mac, sizeof mac);
    }
  }

  /* An AP of this worker's own to a template of its own, and away from it. */
  void bind(ManageApListBlock* aps, ApTemplateListBlock* templates) {
    uint32_t ap, to;
    if (!owned(kAps, &ap) || !owned(kTemplates, &to)) return;
    uint8_t mac[6];
    memcpy(mac, mac_of(kAps, ap), sizeof mac);
    if (random_.one_in(2)) {
      SC_Add_Ap_Mac2Template_By_Id(templates, aps, to + 1, mac);
    } else {
      SC_Del_Ap_Mac2Template_By_Id(templates, aps, to + 1, mac);
    }
  }

  /* Under its lock a record is whole and stays as it is, but for an id that is claimed. */
  void verify(uint32_t table) {
    const uint32_t at = position(table);
    while (true) {
      const uint32_t kills = shared->kills;
      const bool repairing = shared->repairing != 0;
      const char* wrong = nullptr;
      {
        Held held(tables[table], at);
        if (random_.one_in(disturbance_.interrupts ? 2 : 8)) usleep(50); /* others have to wait */
        if (!held.locked() || disturbance_.interrupts) return;
        wrong = look(table, at);
      }
      ++shared->verified;
      if (wrong == nullptr) return;
      if (!repairing && shared->repairing == 0 && shared->kills == kills) {
        return violation("table %u: record %u is %s", table, at, wrong);
      }
      usleep(100); /* a writer was killed in the middle of it: wait for the repair */
    }
  }
  const char* look(uint32_t table, uint32_t at) {
    const uint8_t* record = tables[table].record(at);
    const Bytes seen(record, record + tables[table].stride);
    if (!is_whole(seen.data(), payload(table))) return "a mixture";
    if (load(seen.data() + tables[table].lock_at, 4) != tables[table].first_lock_index + at) {
      return "without its lock index";
    }
    if (random_.one_in(8)) usleep(50);
    const uint32_t unlocked = unlocked_word(table);
    for (uint32_t i = 0; i < seen.size(); ++i) {
      if (i >= unlocked && i < unlocked + 4) continue;
      if (record[i] != seen[i]) return "changed under its lock";
    }
    return nullptr;
  }

  uint32_t number_;
  Random random_;
  Disturbance disturbance_;
};

}  // namespace

void work(uint32_t number, uint64_t seed, Disturbance disturbance) {
  Worker(number, seed, disturbance).run();
}

}  // namespace sc_test
