/* Other stores in which a user could keep the same data: 32 bindings, found by id, and 300 access
 * points, found by MAC. Processes share them as they share the library's areas.
 */
#ifndef BENCH_STORE_H
#define BENCH_STORE_H

#include <memory>
#include <string>

#include <sysconfig/lan.h>

namespace bench {

class Store {
 public:
  virtual ~Store() = default;

  virtual void read(uint32_t id, DhcpStaticItem* item) = 0;
  /* Fills the list as the library does: count, capacity, used items, zeroes behind them. */
  virtual void list(DhcpStaticItemList* list) = 0;
  virtual int find_ap(const uint8_t* mac) = 0;
  /* Changes the binding with the id of the item. */
  virtual void change(const DhcpStaticItem& item) = 0;
  virtual void change_and_tell(const DhcpStaticItem& item) = 0;
};

/* A kind of store. A process opens it after its fork, never before. */
struct StoreKind {
  const char* name;
  void (*fill)(); /* from bench::data(), once */
  std::unique_ptr<Store> (*open)();
};

extern const StoreKind kSysconfig, kLmdb, kLmdbInPlace, kSqlite;

}  // namespace bench

#endif
