/* LMDB: the value is an item without conversion. Two variants: with LMDB's defaults; and without
 * synchronisation and written in place, which needs no system call and trusts every process with
 * the file. */
#include <lmdb.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "data.h"
#include "store.h"

namespace bench {

namespace {

constexpr char kAsItComes[] = "/var/dataconfig/lmdb";
constexpr char kInPlace[] = "/var/dataconfig/lmdb_in_place";
constexpr size_t kMapSize = 64 << 20;

void check(int result) {
  if (result != MDB_SUCCESS) must(false, mdb_strerror(result));
}

template <class T>
MDB_val value(const T& bytes) {
  return {sizeof bytes, const_cast<T*>(&bytes)};
}

class LmdbStore : public Store {
 public:
  explicit LmdbStore(const char* folder) {
    const unsigned flags = folder == kInPlace ? MDB_NOSYNC | MDB_WRITEMAP : 0;
    check(mdb_env_create(&env_));
    check(mdb_env_set_mapsize(env_, kMapSize));
    check(mdb_env_set_maxdbs(env_, 2));
    check(mdb_env_open(env_, folder, flags, 0644));
    MDB_txn* write;
    check(mdb_txn_begin(env_, nullptr, 0, &write));
    check(mdb_dbi_open(write, "bindings", MDB_CREATE | MDB_INTEGERKEY, &bindings_));
    check(mdb_dbi_open(write, "aps", MDB_CREATE, &aps_));
    check(mdb_txn_commit(write));
    check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &read_));
    check(mdb_cursor_open(read_, bindings_, &cursor_));
    mdb_txn_reset(read_);
  }

  ~LmdbStore() override {
    mdb_cursor_close(cursor_);
    mdb_txn_abort(read_);
    mdb_env_close(env_);
  }

  void read(uint32_t id, DhcpStaticItem* item) override {
    check(mdb_txn_renew(read_));
    MDB_val key = value(id), found;
    check(mdb_get(read_, bindings_, &key, &found));
    memcpy(item, found.mv_data, sizeof *item);
    mdb_txn_reset(read_);
  }

  void list(DhcpStaticItemList* list) override {
    check(mdb_txn_renew(read_));
    check(mdb_cursor_renew(read_, cursor_));
    MDB_val key, found;
    DhcpStaticItem* item = list->items;
    while (mdb_cursor_get(cursor_, &key, &found, MDB_NEXT) == MDB_SUCCESS) {
      memcpy(item++, found.mv_data, sizeof *item);
    }
    mdb_txn_reset(read_);
    list->count = static_cast<uint32_t>(item - list->items);
    list->capacity = SC_DHCP_BINDS;
    memset(item, 0, reinterpret_cast<char*>(list + 1) - reinterpret_cast<char*>(item));
  }

  int find_ap(const uint8_t* mac) override {
    check(mdb_txn_renew(read_));
    MDB_val key = {SC_MAC_BYTES, const_cast<uint8_t*>(mac)}, found;
    const bool there = mdb_get(read_, aps_, &key, &found) == MDB_SUCCESS;
    int position = -1;
    if (there) memcpy(&position, found.mv_data, sizeof position);
    mdb_txn_reset(read_);
    return position;
  }

  void change(const DhcpStaticItem& item) override { put(bindings_, value(item.id), value(item)); }

  void change_and_tell(const DhcpStaticItem& item) override {
    change(item);
    SC_Save_System_Lan_Config();
  }

  void put_ap(const uint8_t* mac, int position) {
    put(aps_, {SC_MAC_BYTES, const_cast<uint8_t*>(mac)}, value(position));
  }

 private:
  void put(MDB_dbi table, MDB_val key, MDB_val item) {
    MDB_txn* write;
    check(mdb_txn_begin(env_, nullptr, 0, &write));
    check(mdb_put(write, table, &key, &item, 0));
    check(mdb_txn_commit(write));
  }

  MDB_env* env_ = nullptr;
  MDB_dbi bindings_ = 0, aps_ = 0;
  MDB_txn* read_ = nullptr;
  MDB_cursor* cursor_ = nullptr;
};

template <const char* kFolder>
void fill() {
  must(mkdir(kFolder, 0755) == 0, "no folder for lmdb");
  LmdbStore store(kFolder);
  for (uint32_t id = 1; id <= SC_DHCP_BINDS; ++id) {
    DhcpStaticItem item;
    GetDhcpStaticItem(data().lan, id, &item);
    store.change(item);
  }
  for (int n = 0; n < SC_ACCESS_POINTS; ++n) store.put_ap(data().aps->aps[n].ap_mac, n);
}

template <const char* kFolder>
std::unique_ptr<Store> open() {
  return std::make_unique<LmdbStore>(kFolder);
}

}  // namespace

const StoreKind kLmdb = {"lmdb", fill<kAsItComes>, open<kAsItComes>};
const StoreKind kLmdbInPlace = {"lmdb_in_place", fill<kInPlace>, open<kInPlace>};

}  // namespace bench
