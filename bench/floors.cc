#include "floors.h"

#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "data.h"

namespace bench {

namespace {

void lock(int fd, int command, short type, int lock_index) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = lock_index;
  lock.l_len = 1;
  fcntl(fd, command, &lock);
}

void change_under_lock(int fd, int lock_index) {
  lock(fd, F_SETLKW, F_WRLCK, lock_index);
  lock(fd, F_SETLK, F_UNLCK, lock_index);
}

void change(const char* lock_path, int lock_index) {
  int fd = open(lock_path, O_RDWR, 0644);
  change_under_lock(fd, lock_index);
  close(fd);
}

void announce() {
  static const sockaddr_un address = {AF_UNIX, "/var/config_socket"};
  const int32_t code = SC_CODE_LAN;
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  connect(fd, reinterpret_cast<const sockaddr*>(&address),
          offsetof(sockaddr_un, sun_path) + sizeof "/var/config_socket" - 1);
  send(fd, &code, sizeof code, 0);
  close(fd);
}

/* For the compiler these read all memory, or change a value. So it cannot remove what was done to
 * them before. */
void touch_memory() { asm volatile("" : : : "memory"); }

template <class T>
void touch(T& value) {
  asm volatile("" : "+r"(value) : : "memory");
}

template <class T>
T* scratch() {
  alignas(64) static T value;
  return &value;
}

template <class List>
void show_list(int64_t times) {
  List* list = scratch<List>();
  alignas(64) static const List from = {};
  for (int64_t n = 0; n < times; ++n) {
    memset(list, 0, sizeof *list);
    touch_memory(); /* without this the memset, whose bytes are overwritten, is removed */
    memcpy(list, &from, sizeof *list);
    touch_memory();
  }
}

uint32_t load(const void* at) {
  uint32_t word;
  memcpy(&word, at, sizeof word);
  return word;
}

template <class Record>
void search(const Record* records, const void* first_key, int64_t times) {
  const size_t key_at =
      static_cast<const char*>(first_key) - reinterpret_cast<const char*>(records);
  for (int64_t n = 0; n < times; ++n) {
    uint32_t sum = 0;
    for (int position = 0; position < 300; ++position) {
      sum += load(reinterpret_cast<const char*>(&records[position]) + key_at);
    }
    touch(sum);
  }
}

template <class Record>
void tight_search(const void* first_key, int64_t times) {
  constexpr size_t kStride = sizeof(Record);
  for (int64_t n = 0; n < times; ++n) {
    const auto* at = static_cast<const char*>(first_key);
    uint32_t sum = 0, sum_1 = 0, sum_2 = 0, sum_3 = 0;
    for (int position = 0; position < 300; position += 4, at += 4 * kStride) {
      sum += load(at);
      sum_1 += load(at + kStride);
      sum_2 += load(at + 2 * kStride);
      sum_3 += load(at + 3 * kStride);
    }
    sum += sum_1 + sum_2 + sum_3;
    touch(sum);
  }
}

void run(const char* command) { must(system(command) == 0, command); }

}  // namespace

void floor_modify(int64_t times) {
  const LanBlock* lan = data().lan;
  for (int64_t n = 0; n < times; ++n) {
    change(lan->header.lock_path, lan->lan_binds[n % SC_DHCP_BINDS].lock_index);
  }
}

void floor_add_and_delete(int64_t times) {
  const char* lock_path = data().lan->header.lock_path;
  const int lock_index = data().lan->lan_binds[SC_DHCP_BINDS - 1].lock_index;
  for (int64_t n = 0; n < times; ++n) {
    int fd = open(lock_path, O_RDWR, 0644);
    change(lock_path, lock_index); /* the claim has its own descriptor */
    change_under_lock(fd, lock_index);
    close(fd);
    announce();
    change(lock_path, lock_index);
    announce();
  }
}

void floor_read(int64_t times) {
  auto* item = scratch<DhcpStaticItem>();
  for (int64_t n = 0; n < times; ++n) {
    memset(item, 0, sizeof *item);
    touch_memory();
    memcpy(item, &data().lan->lan_binds[n % SC_DHCP_BINDS], sizeof *item);
    touch_memory();
  }
}

void tight_floor_read(int64_t times) {
  auto* item = scratch<DhcpStaticItem>();
  size_t size = sizeof *item;
  touch(size); /* the compiler does not know the size, so it calls the C library */
  for (int64_t n = 0; n < times; ++n) {
    memset(item, 0, size);
    memcpy(item, &data().lan->lan_binds[n % SC_DHCP_BINDS], size);
    touch_memory();
  }
}

void floor_list_bindings(int64_t times) { show_list<DhcpStaticItemList>(times); }

void fields_floor_list_bindings(int64_t times) {
  auto* list = scratch<DhcpStaticItemList>();
  for (int64_t n = 0; n < times; ++n) {
    memset(list, 0, sizeof *list);
    DhcpStaticItem* item = list->items;
    for (const DhcpBindRecord& bind : data().lan->lan_binds) {
      item->id = bind.slot_id;
      item->flag = bind.bind_flag;
      memcpy(item->mac, bind.bind_mac, sizeof item->mac);
      memcpy(item->ip, &bind.bind_ip, sizeof bind.bind_ip);
      memcpy(item->name, bind.bind_name, sizeof item->name);
      ++item;
    }
    touch_memory();
  }
}

void floor_list_ip_filters(int64_t times) { show_list<IpFilterItemList>(times); }

void floor_list_qos(int64_t times) { show_list<QosItemList>(times); }

void floor_search_aps(int64_t times) { search(data().aps->aps, data().aps->aps[0].ap_mac, times); }

void floor_search_clients(int64_t times) {
  search(data().clients->clients, data().clients->clients[0].client_mac, times);
}

void tight_floor_search_aps(int64_t times) {
  tight_search<ApInfoRecord>(data().aps->aps[0].ap_mac, times);
}

void tight_floor_search_clients(int64_t times) {
  tight_search<ClientRecord>(data().clients->clients[0].client_mac, times);
}

void floor_save(int64_t times) {
  for (int64_t n = 0; n < times; ++n) {
    run("tar -zcf /var/dataconfig/config_lan.bin  /var/systemconfig/config_lan.cfg "
        ">/dev/null;sync");
    run("rm -f /var/systemconfig/config_lan.cfg");
    run("change_event network");
  }
}

}  // namespace bench
