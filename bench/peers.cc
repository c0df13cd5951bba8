/* The library beside other stores that a user could choose, on the same data. */
#include <string.h>

#include "data.h"
#include "rounds.h"
#include "store.h"

using namespace bench;

namespace {

template <const StoreKind& kKind>
Store& store() {
  static const std::unique_ptr<Store> opened = kKind.open();
  return *opened;
}

DhcpStaticItem item;
DhcpStaticItemList listed;

DhcpStaticItem changed() {
  DhcpStaticItem middle;
  GetDhcpStaticItem(data().lan, SC_DHCP_BINDS / 2, &middle);
  return middle;
}

template <const StoreKind& kKind>
void read(int64_t times) {
  for (int64_t n = 0; n < times; ++n) store<kKind>().read(1 + n % SC_DHCP_BINDS, &item);
}

template <const StoreKind& kKind>
void list(int64_t times) {
  for (int64_t n = 0; n < times; ++n) store<kKind>().list(&listed);
}

template <const StoreKind& kKind>
void find_last_ap(int64_t times) {
  constexpr int kLast = SC_ACCESS_POINTS - 1;
  for (int64_t n = 0; n < times; ++n) {
    must(store<kKind>().find_ap(data().aps->aps[kLast].ap_mac) == kLast, "the AP is not found");
  }
}

template <const StoreKind& kKind>
void change(int64_t times) {
  static const DhcpStaticItem same = changed();
  for (int64_t n = 0; n < times; ++n) store<kKind>().change(same);
}

template <const StoreKind& kKind>
void change_and_tell(int64_t times) {
  static const DhcpStaticItem same = changed();
  for (int64_t n = 0; n < times; ++n) store<kKind>().change_and_tell(same);
}

/* All stores hold the same data: each one's list is equal to the library's, byte for byte. */
template <const StoreKind& kKind>
void prepare() {
  kKind.fill();
  DhcpStaticItemList ours;
  GetDhcpStaticItemList(data().lan, &ours);
  memset(&listed, 0xff, sizeof listed);
  store<kKind>().list(&listed);
  must(memcmp(&listed, &ours, sizeof ours) == 0, "a store lists something else");
}

}  // namespace

#define STORES(operation)                                                           \
  {                                                                                 \
    {"sysconfig", operation<kSysconfig>}, {"lmdb", operation<kLmdb>},               \
        {"lmdb_in_place", operation<kLmdbInPlace>}, {"sqlite", operation<kSqlite>}, \
  }

int main(int argc, char** argv) {
  prepare<kSysconfig>();
  prepare<kLmdb>();
  prepare<kLmdbInPlace>();
  prepare<kSqlite>();
  add({.name = "read one of 32 bindings", .sides = STORES(read)});
  add({.name = "list 32 bindings", .sides = STORES(list)});
  add({.name = "find the 300th AP by MAC", .sides = STORES(find_last_ap)});
  add({.name = "change a binding", .sides = STORES(change)});
  add({.name = "change a binding and tell the daemon", .sides = STORES(change_and_tell)});
  return run_comparisons(argc, argv);
}
