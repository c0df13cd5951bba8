/* What an area is: one row of the registry, and the life of every area as functions of its row.
 *
 * The exported life-cycle functions are one-liners beside the subsystem that the area belongs to;
 * what they do and print is said in sysconfig/core.h.
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

/* Lock words of one table or section. An area's words are numbered from 2 on, span after span. */
struct LockSpan {
  AreaId area;
  int8_t slot; /* where the record's slot word lies from its lock word; 0: it has no free mark */
  uint16_t at; /* block offset of the first lock word */
  uint16_t stride; /* from one lock word to the next */
  uint16_t count;
};

/* What a flash save runs when it is done. */
enum class Events : uint8_t { kNone, kNetwork, kAccessPoints };

/* Block offsets of lock_path and block_lock_index. */
struct Header {
  uint8_t path_at;
  uint8_t index_at;
};

struct Area {
  uint16_t key;
  uint8_t code; /* of the change notification; 0: none */
  Events events;
  Header header;
  uint32_t size;
  char stem[15];      /* of the image and the archive */
  char lock_stem[15]; /* of the lock file */
};

constexpr int kLockSpanCount = 20;

extern const Area kAreas[kAreaCount];
extern const LockSpan kLockSpans[kLockSpanCount];

uint32_t get(AreaId id);
int uninit(AreaId id);
int init(int read_flag, AreaId id);
/* Init without a flag: creates and empties the block and writes its header and lock indices. */
int init_run_time(AreaId id);
int read(void* block, AreaId id);
void save(AreaId id);
void save_to_flash(const void* block, AreaId id);

}  // namespace sc

#endif
