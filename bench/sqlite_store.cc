/* SQLite with a write-ahead log: a column for each field of an item, and statements prepared once.
 * Nothing is synchronised with a disk, because the file is not on one. */
#include <sqlite3.h>
#include <string.h>

#include "data.h"
#include "store.h"

namespace bench {

namespace {

constexpr char kFile[] = "/var/dataconfig/bindings.db";
constexpr int kPatience = 60000; /* ms */

class SqliteStore : public Store {
 public:
  SqliteStore() {
    check(sqlite3_open(kFile, &db_));
    check(sqlite3_busy_timeout(db_, kPatience));
    run("PRAGMA journal_mode=WAL");
    run("PRAGMA synchronous=OFF");
    run("PRAGMA mmap_size=67108864");
    run("CREATE TABLE IF NOT EXISTS bindings"
        " (id INTEGER PRIMARY KEY, flag INTEGER, mac TEXT, ip TEXT, name TEXT)");
    run("CREATE TABLE IF NOT EXISTS aps (mac BLOB PRIMARY KEY, position INTEGER) WITHOUT ROWID");
    read_ = prepare("SELECT id, flag, mac, ip, name FROM bindings WHERE id = ?");
    list_ = prepare("SELECT id, flag, mac, ip, name FROM bindings ORDER BY id");
    find_ = prepare("SELECT position FROM aps WHERE mac = ?");
    change_ = prepare("REPLACE INTO bindings (id, flag, mac, ip, name) VALUES (?, ?, ?, ?, ?)");
    put_ap_ = prepare("REPLACE INTO aps (mac, position) VALUES (?, ?)");
  }

  ~SqliteStore() override {
    for (sqlite3_stmt* statement : {read_, list_, find_, change_, put_ap_}) {
      sqlite3_finalize(statement);
    }
    sqlite3_close(db_);
  }

  void read(uint32_t id, DhcpStaticItem* item) override {
    memset(item, 0, sizeof *item);
    check(sqlite3_bind_int64(read_, 1, id));
    if (sqlite3_step(read_) == SQLITE_ROW) show(read_, item);
    check(sqlite3_reset(read_));
  }

  void list(DhcpStaticItemList* list) override {
    memset(list, 0, sizeof *list);
    while (sqlite3_step(list_) == SQLITE_ROW) show(list_, &list->items[list->count++]);
    check(sqlite3_reset(list_));
    list->capacity = SC_DHCP_BINDS;
  }

  int find_ap(const uint8_t* mac) override {
    check(sqlite3_bind_blob(find_, 1, mac, SC_MAC_BYTES, SQLITE_STATIC));
    const bool there = sqlite3_step(find_) == SQLITE_ROW;
    const int position = there ? sqlite3_column_int(find_, 0) : -1;
    check(sqlite3_reset(find_));
    return position;
  }

  void change(const DhcpStaticItem& item) override {
    check(sqlite3_bind_int64(change_, 1, item.id));
    check(sqlite3_bind_int64(change_, 2, item.flag));
    check(sqlite3_bind_text(change_, 3, item.mac, -1, SQLITE_STATIC));
    check(sqlite3_bind_text(change_, 4, item.ip, -1, SQLITE_STATIC));
    check(sqlite3_bind_text(change_, 5, item.name, -1, SQLITE_STATIC));
    must(sqlite3_step(change_) == SQLITE_DONE, "sqlite: not changed");
    check(sqlite3_reset(change_));
  }

  void change_and_tell(const DhcpStaticItem& item) override {
    change(item);
    SC_Save_System_Lan_Config();
  }

  void put_ap(const uint8_t* mac, int position) {
    check(sqlite3_bind_blob(put_ap_, 1, mac, SC_MAC_BYTES, SQLITE_STATIC));
    check(sqlite3_bind_int(put_ap_, 2, position));
    must(sqlite3_step(put_ap_) == SQLITE_DONE, "sqlite: not put");
    check(sqlite3_reset(put_ap_));
  }

 private:
  void check(int result) {
    if (result != SQLITE_OK) must(false, sqlite3_errmsg(db_));
  }

  void run(const char* statement) {
    check(sqlite3_exec(db_, statement, nullptr, nullptr, nullptr));
  }

  sqlite3_stmt* prepare(const char* statement) {
    sqlite3_stmt* prepared = nullptr;
    check(sqlite3_prepare_v3(db_, statement, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr));
    return prepared;
  }

  template <size_t kWidth>
  static void show_text(sqlite3_stmt* row, int column, char (&field)[kWidth]) {
    const auto size = static_cast<size_t>(sqlite3_column_bytes(row, column));
    memcpy(field, sqlite3_column_text(row, column), size < kWidth ? size : kWidth);
  }

  /* Writes a row into a zeroed item. */
  static void show(sqlite3_stmt* row, DhcpStaticItem* item) {
    item->id = sqlite3_column_int(row, 0);
    item->flag = sqlite3_column_int(row, 1);
    show_text(row, 2, item->mac);
    show_text(row, 3, item->ip);
    show_text(row, 4, item->name);
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* read_ = nullptr;
  sqlite3_stmt* list_ = nullptr;
  sqlite3_stmt* find_ = nullptr;
  sqlite3_stmt* change_ = nullptr;
  sqlite3_stmt* put_ap_ = nullptr;
};

void fill() {
  SqliteStore store;
  for (uint32_t id = 1; id <= SC_DHCP_BINDS; ++id) {
    DhcpStaticItem item;
    GetDhcpStaticItem(data().lan, id, &item);
    store.change(item);
  }
  for (int n = 0; n < SC_ACCESS_POINTS; ++n) store.put_ap(data().aps->aps[n].ap_mac, n);
}

}  // namespace

const StoreKind kSqlite = {
    "sqlite", fill, []() -> std::unique_ptr<Store> { return std::make_unique<SqliteStore>(); }};

}  // namespace bench
