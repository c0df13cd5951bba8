/* The library itself. */
#include <arpa/inet.h>
#include <string.h>

#include "data.h"
#include "store.h"

namespace bench {

namespace {

class SysconfigStore : public Store {
 public:
  void read(uint32_t id, DhcpStaticItem* item) override { GetDhcpStaticItem(data().lan, id, item); }

  void list(DhcpStaticItemList* list) override { GetDhcpStaticItemList(data().lan, list); }

  int find_ap(const uint8_t* mac) override { return SC_Get_Ap_Info_By_Mac(data().aps, mac); }

  /* Uses the table operation, because an item operation sends a notification. */
  void change(const DhcpStaticItem& item) override {
    DhcpBindRecord record;
    record.bind_flag = static_cast<int8_t>(item.flag);
    memcpy(record.bind_mac, item.mac, sizeof record.bind_mac);
    record.bind_ip = inet_addr(item.ip);
    memcpy(record.bind_name, item.name, sizeof record.bind_name);
    uint32_t position = static_cast<uint32_t>(item.id) - 1;
    must(SC_Operate_System_List_DhcpdBind(data().lan, LIST_OP_MODIFY, &position, &record) ==
             SC_LIST_OK,
         "sysconfig: not changed");
  }

  void change_and_tell(const DhcpStaticItem& item) override {
    must(ModifyDhcpStaticItem(data().lan, &item) == SC_LIST_OK, "sysconfig: not changed");
  }
};

}  // namespace

const StoreKind kSysconfig = {
    "sysconfig", [] { data(); },
    []() -> std::unique_ptr<Store> { return std::make_unique<SysconfigStore>(); }};

}  // namespace bench
