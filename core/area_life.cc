/* The life of every area: attach, remove, create, read, announce, save to flash. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "core/area.h"
#include "core/bytes.h"
#include "core/lock_file.h"
#include "core/registry.h"
#include "core/announce.h"

namespace sc {

namespace {

constexpr char kNoSegment[] = "shmget failed\n";
constexpr char kNotAttached[] = "shmat failed\n";
constexpr char kNotDetached[] = "shmdt failed\n";
constexpr char kNotRemoved[] = "shmctl(IPC_RMID) failed\n";
/* Required: the first two have no newline. */
constexpr char kNoImageToRead[] = "cant open the file";
constexpr char kNoImageToWrite[] = "canot open the file.";
constexpr char kReadError[] = "file read error\n";
constexpr char kWriteError[] = "file write error\n";

/* Required: the blanks. Those of the default template differ. */
constexpr char kPack[] = "tar -zcf %s  %s >/dev/null;sync";
constexpr char kUnpack[] = "tar -zxf %s -C / >/dev/null";
constexpr char kUnpackDefTemplate[] = "tar -zxf %s  -C />/dev/null";

constexpr int kMode = 0666;
void* const kAttachFailed = reinterpret_cast<void*>(-1);

/* The path of one of an area's files. */
struct FilePath {
  char text[48];

  FilePath(const char* format, const char* stem) { snprintf(text, sizeof text, format, stem); }
};

void complain(const char* message) { fwrite(message, strlen(message), 1, stderr); }

/* Addresses are 32-bit values of the interface. So a 64-bit host reserves room below 4 GiB and
 * attaches there. */
void* attach(int segment) {
  if constexpr (sizeof(void*) == 4) {
    return shmat(segment, nullptr, 0);
  } else {
    shmid_ds status;
    if (shmctl(segment, IPC_STAT, &status) < 0) return kAttachFailed;
    const size_t size = status.shm_segsz; /* may be more than the area's */
#ifdef MAP_32BIT
    void* room = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
#else
    constexpr uintptr_t kLowest = 0x10000000, kHighest = 0xf0000000, kStep = 0x10000;
    void* room = MAP_FAILED;
    for (uintptr_t hint = kLowest; room == MAP_FAILED && hint < kHighest; hint += kStep) {
      room = mmap(reinterpret_cast<void*>(hint), size, PROT_NONE,
                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    }
#endif
    if (room == MAP_FAILED) return kAttachFailed;
    void* block = shmat(segment, room, SHM_REMAP);
    if (block == kAttachFailed) munmap(room, size);
    return block;
  }
}

/* Zeroes a block without touching pages that nobody wrote: a new segment stays as small as it is,
 * and an old one gives its pages back. If the kernel refuses this, or ignores the advice, the mark
 * is still there and the block is overwritten. */
void empty(uint8_t* block, size_t size) {
  volatile uint8_t* mark = block;
  *mark = 1;
  if (madvise(block, size, MADV_REMOVE) != 0 || *mark != 0) memset(block, 0, size);
}

/* Writes lock path and lock indices. */
void write_lock_words(AreaId id, uint8_t* block) {
  const AreaRow& area = kAreas[id];
  snprintf(reinterpret_cast<char*>(block) + area.header.path_at, sizeof FilePath::text, kLockPath,
           area.lock_stem);
  store<int32_t>(block + area.header.index_at, 1);
  for (const LockSpan& span : kLockSpans) {
    if (span.area != id) continue;
    uint8_t* word = block + span.at;
    for (uint32_t n = 0; n < span.count; ++n, word += span.stride) store(word, span.first + n);
  }
}

/* Creates and empties an area's block. Init returns the status of this. */
int create(AreaId id, uint8_t** block) {
  const AreaRow& area = kAreas[id];
  int segment = shmget(area.key, area.size, IPC_CREAT | kMode);
  if (segment < 0) return errno;
  void* attached = attach(segment);
  if (attached == kAttachFailed) return -1;
  *block = static_cast<uint8_t*>(attached);
  empty(*block, area.size);
  sc_do_system("echo '' > %s", FilePath(kLockPath, area.lock_stem).text);
  for (const LockSpan& span : kLockSpans) {
    if (span.area != id || span.slot_delta == 0) continue;
    for (uint32_t n = 0; n < span.count; ++n) {
      store<int32_t>(*block + span.at + span.slot_delta + n * span.stride, -1);
    }
  }
  return 0;
}

}  // namespace

uint32_t attach_area(AreaId id) {
  const AreaRow& area = kAreas[id];
  int segment = shmget(area.key, area.size, kMode);
  if (segment < 0) return 0;
  void* block = attach(segment);
  if (block == kAttachFailed) {
    complain(kNotAttached);
    exit(1); /* Required: an area that exists but cannot be attached is fatal. */
  }
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(block));
}

/* Required: after a failed step a message is printed and the next step follows. */
int remove_area(AreaId id) {
  const AreaRow& area = kAreas[id];
  int segment = shmget(area.key, area.size, IPC_CREAT | kMode);
  if (segment < 0) complain(kNoSegment);
  void* block = attach(segment);
  if (block == kAttachFailed) complain(kNotAttached);
  if (shmdt(block) < 0) complain(kNotDetached);
  if (shmctl(segment, IPC_RMID, nullptr) < 0) complain(kNotRemoved);
  return 0;
}

int init_area(int read_flag, AreaId id) {
  uint8_t* block = nullptr;
  int status = create(id, &block);
  /* Required: only the low byte counts. */
  if (block != nullptr && static_cast<uint8_t>(read_flag) == 1) load_area(block, id);
  return status;
}

int init_run_time_area(AreaId id) {
  uint8_t* block = nullptr;
  int status = create(id, &block);
  if (block != nullptr) write_lock_words(id, block);
  return status;
}

int load_area(void* block, AreaId id) {
  const AreaRow& area = kAreas[id];
  write_lock_words(id, static_cast<uint8_t*>(block));
  FilePath archive(kArchivePath, area.stem);
  int status = access(archive.text, F_OK);
  if (status < 0) return status;
  status = sc_do_system(id == kDefApTemplate ? kUnpackDefTemplate : kUnpack, archive.text);
  FilePath image(kImagePath, area.stem);
  FILE* file = fopen(image.text, "rb");
  if (file == nullptr) {
    printf(kNoImageToRead);
    return status;
  }
  if (fread(block, area.size, 1, file) != 1) printf(kReadError);
  fclose(file);
  return sc_do_system("rm -f %s", image.text);
}

void announce_area(AreaId id) { announce(kAreas[id].code); }

void save_area(const void* block, AreaId id) {
  const AreaRow& area = kAreas[id];
  const auto& header = *static_cast<const BlockHeader*>(block);
  {
    LockFile file(header.lock_path);
    if (!file) return;
    ByteLock lock(file, &header.block_lock_index);
    FilePath image(kImagePath, area.stem);
    FILE* out = fopen(image.text, "w");
    if (out == nullptr) {
      printf(kNoImageToWrite);
      return;
    }
    if (fwrite(block, area.size, 1, out) != 1) printf(kWriteError);
    fclose(out);
    sc_do_system(kPack, FilePath(kArchivePath, area.stem).text, image.text);
    sc_do_system("rm -f %s", image.text);
  }
  switch (area.events) {
    case Events::kNone: break;
    case Events::kNetwork: sc_do_system("change_event network"); break;
    case Events::kAccessPoints:
      sc_do_system("send_event 5 0");
      sc_do_system("change_event ap");
      break;
  }
}

}  // namespace sc
