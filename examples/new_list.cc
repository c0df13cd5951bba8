/* A list of an imaginary area, static routes, and a program that tries it: what CONTRIBUTING.md says
 * about adding a list, as code that the tests compile and run. In the library the three parts would
 * go to a public header, to the subsystem's rows and to its exports.
 */
#include <sysconfig/core.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/rows.h"

/* ---- 1. the structs: record, block, item and list, every offset typed as a literal ---- */

enum { SC_ROUTES = 8, SC_CODE_ROUTES = 19 };

struct RouteRecord {
  int32_t lock_index; /* 2..9 */
  int32_t slot_id;    /* -1 free, else position + 1 */
  char name[SC_TEXT];
  uint32_t network; /* as inet_addr returns it */
  uint32_t gateway;
  int8_t metric;
  uint8_t spare_217[3];
} SC_PACKED;
SC_SIZE(RouteRecord, 220);
SC_OFFSET(RouteRecord, lock_index, 0);
SC_OFFSET(RouteRecord, slot_id, 4);
SC_OFFSET(RouteRecord, name, 8);
SC_OFFSET(RouteRecord, network, 208);
SC_OFFSET(RouteRecord, gateway, 212);
SC_OFFSET(RouteRecord, metric, 216);
SC_OFFSET(RouteRecord, spare_217, 217);

struct RoutesBlock {
  struct BlockHeader header;
  uint32_t route_count;
  struct RouteRecord routes[SC_ROUTES];
} SC_PACKED;
SC_SIZE(RoutesBlock, 1900);
SC_OFFSET(RoutesBlock, header, 0);
SC_OFFSET(RoutesBlock, route_count, 136);
SC_OFFSET(RoutesBlock, routes, 140);

struct RouteItem {
  int32_t id;
  char name[SC_TEXT];
  char network[SC_IP_TEXT];
  char gateway[SC_IP_TEXT];
  int32_t metric;
} SC_PACKED;
SC_SIZE(RouteItem, 240);
SC_OFFSET(RouteItem, id, 0);
SC_OFFSET(RouteItem, name, 4);
SC_OFFSET(RouteItem, network, 204);
SC_OFFSET(RouteItem, gateway, 220);
SC_OFFSET(RouteItem, metric, 236);

struct RouteItemList {
  uint32_t count;
  uint32_t capacity;
  struct RouteItem items[SC_ROUTES];
  uint8_t tail[SC_LIST_TAIL];
} SC_PACKED;
SC_SIZE(RouteItemList, 2428);
SC_OFFSET(RouteItemList, count, 0);
SC_OFFSET(RouteItemList, capacity, 4);
SC_OFFSET(RouteItemList, items, 8);
SC_OFFSET(RouteItemList, tail, 1928);

using namespace sc;

namespace {

/* ---- 2. the row: the members in the order in which people see them, and what deviates ---- */

constexpr Member kMembers[] = {
    SC_MEMBER(RouteRecord, name, RouteItem, name),
    SC_MEMBER(RouteRecord, network, RouteItem, network),
    SC_MEMBER(RouteRecord, gateway, RouteItem, gateway),
    SC_MEMBER(RouteRecord, metric, RouteItem, metric),
};

constexpr MappedListRow kRoutes = {
    .list = {.table = {.geometry = SC_GEOMETRY(RoutesBlock, routes),
                       .modify_range = SC_LIST_MOD_RANGE,
                       .keys = {SC_BYTES_KEY(RouteRecord, network)},
                       .payload = payload(kMembers)},
             SC_COUNTER(RoutesBlock, route_count),
             .code = SC_CODE_ROUTES},
    .item_size = SC_ITEM_SIZE(RouteItem, RoutesBlock, routes),
};

}  // namespace

/* ---- 3. the exports: one line each ---- */

SC_BEGIN_DECLS

int32_t SC_Operate_System_List_Routes(RoutesBlock* block, uint32_t op, uint32_t* position,
                                      const RouteRecord* record) {
  return operate(block, op, position, record, kRoutes.list.table);
}

int32_t SC_Operate_System_List_GetRoutes_Blank(RoutesBlock* block) {
  return claim(block, kRoutes.list.table.geometry);
}

int32_t SC_Operate_System_List_RoutesCheckNetwork(const RoutesBlock* block,
                                                  const RouteRecord* record, uint32_t skip_slot) {
  return find_clash(block, record, skip_slot, kRoutes.list.table);
}

void GetRouteItemList(const RoutesBlock* block, RouteItemList* list) {
  get_items(block, list, kRoutes);
}

void GetRouteItem(const RoutesBlock* block, uint32_t id, RouteItem* item) {
  get_item(block, id, item, kRoutes);
}

int32_t AddRouteItem(RoutesBlock* block, const RouteItem* item) {
  return add_item(block, item, kRoutes);
}

int32_t ModifyRouteItem(RoutesBlock* block, const RouteItem* item) {
  return modify_item(block, item, kRoutes);
}

void DelRouteItem(RoutesBlock* block, char* ids) { delete_items(block, ids, kRoutes.list); }

void DelAllRouteItem(RoutesBlock* block) { delete_all_items(block, kRoutes.list); }

SC_END_DECLS

/* ---- the program: what Init and Read would do with the area, and one call of each function ---- */

namespace {

RoutesBlock block;
RouteItemList list;

void prepare() {
  strcpy(block.header.lock_path, "/var/lock_store/routes_conf_lock");
  sc_do_system("echo '' > %s", block.header.lock_path);
  block.header.block_lock_index = 1;
  for (int32_t position = 0; position < SC_ROUTES; ++position) {
    block.routes[position].lock_index = position + 2;
    block.routes[position].slot_id = -1;
  }
}

void expect(bool good, const char* what) {
  if (good) return;
  fprintf(stderr, "new_list: not so: %s\n", what);
  exit(1);
}

}  // namespace

#define EXPECT(condition) expect(condition, #condition)

int main() {
  prepare();
  RouteItem item = {0, "to the lab", "10.8.0.0", "192.168.1.2", -1};
  EXPECT(AddRouteItem(&block, &item) == SC_LIST_OK);
  EXPECT(AddRouteItem(&block, &item) == SC_LIST_REJECTED);
  strcpy(item.network, "10.9.0.0");
  EXPECT(AddRouteItem(&block, &item) == SC_LIST_OK);
  EXPECT(block.route_count == 2 && block.routes[1].slot_id == 2);

  GetRouteItemList(&block, &list);
  EXPECT(list.count == 2 && list.capacity == SC_ROUTES);
  EXPECT(strcmp(list.items[0].network, "10.8.0.0") == 0 && list.items[0].metric == -1);

  GetRouteItem(&block, 2, &item);
  strcpy(item.gateway, "192.168.1.3");
  EXPECT(ModifyRouteItem(&block, &item) == SC_LIST_OK);
  GetRouteItem(&block, 2, &item);
  EXPECT(strcmp(item.gateway, "192.168.1.3") == 0);

  RouteRecord record = block.routes[0];
  EXPECT(SC_Operate_System_List_RoutesCheckNetwork(&block, &record, 0) == 1);
  EXPECT(SC_Operate_System_List_RoutesCheckNetwork(&block, &record, 1) == 0);
  EXPECT(SC_Operate_System_List_GetRoutes_Blank(&block) == 2);
  uint32_t position = 2;
  EXPECT(SC_Operate_System_List_Routes(&block, LIST_OP_DEL, &position, nullptr) == SC_LIST_OK);

  char ids[] = "1#";
  DelRouteItem(&block, ids);
  EXPECT(block.route_count == 1 && block.routes[0].slot_id == -1);
  DelAllRouteItem(&block);
  GetRouteItemList(&block, &list);
  EXPECT(list.count == 0 && block.route_count == 0);
  puts("new_list: as expected");
}
