/* What an area is: one row of the registry, and the functions that create, load, save and remove
 * it.
 *
 * The exported functions are one-liners beside the subsystem that the area belongs to.
 * sysconfig/core.h says what they do and print.
 */
#ifndef CORE_AREA_H
#define CORE_AREA_H

#include <stdint.h>

namespace sc {

/* In the order of the SystemConfigDirectory. */
enum AreaId : uint8_t {
  kLan,
  kWan,
  kProductInfo,
  kMisc,
  kVsIpport,
  kFwIpport,
  kIpGroup,
  kTimeGroup,
  kFwMac,
  kFwUrl,
  kQos,
  kManageApList,
  kApUserList,
  kApTemplateList,
  kDefApTemplate,
  kClientsGroups,
  kClients,
  kAreaCount
};

/* Lock words of one table or section. The words of an area are numbered from 2 on, span after span.
 * Byte 1 of its lock file is the area's own. */
struct LockSpan {
  AreaId area;
  int8_t slot_delta; /* from the lock word to the slot word; 0: the record has no free mark */
  uint16_t at;       /* block offset of the first lock word */
  uint16_t stride;   /* from one lock word to the next */
  uint16_t count;
  uint16_t first; /* lock index of the first */
};

/* What a flash save runs at its end. */
enum class Events : uint8_t { kNone, kNetwork, kAccessPoints };

/* Block offsets of lock_path and block_lock_index. */
struct Header {
  uint8_t path_at;
  uint8_t index_at;
};

struct AreaRow {
  uint16_t key;
  Header header;
  uint32_t size;
  uint8_t code; /* of the change notification; 0: none */
  Events events;
  char stem[15];      /* of the image and the archive */
  char lock_stem[15]; /* of the lock file */
};

/* Where an area's files lie; %s is a stem of its row. */
inline constexpr char kLockPath[] = "/var/lock_store/%s_conf_lock";
inline constexpr char kImagePath[] = "/var/systemconfig/config_%s.cfg";
inline constexpr char kArchivePath[] = "/var/dataconfig/config_%s.bin";

/* The exported functions of an area. sysconfig/core.h says what they do. */
uint32_t attach_area(AreaId id);
int remove_area(AreaId id);
int init_area(int read_flag, AreaId id);
/* Init without a flag: creates and empties the block and writes its header and lock indices. */
int init_run_time_area(AreaId id);
int load_area(void* block, AreaId id);
void announce_area(AreaId id);
void save_area(const void* block, AreaId id);

}  // namespace sc

#endif
