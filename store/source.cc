/* Live segments, images, archives, and snapshots of their tables. */
#include "store/source.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "core/registry.h"
#include "store/clock.h"
#include "store/value.h"

namespace store {

namespace {

/* ---- files ---- */

struct FileBytes {
  uint8_t* bytes; /* from malloc */
  size_t size;
};

/* Reads the file, up to one byte more than the largest area. */
FileBytes read_all(FILE* file) {
  size_t largest = 0;
  for (const Area& area : kAreas) {
    if (area.row().size > largest) largest = area.row().size;
  }
  auto* bytes = static_cast<uint8_t*>(malloc(largest + 1));
  if (bytes == nullptr) exit(fail(kRefused, "out of memory"));
  return {bytes, fread(bytes, 1, largest + 1, file)};
}

const Area* area_of_size(size_t size) {
  for (const Area& area : kAreas) {
    if (area.row().size == size) return &area;
  }
  return nullptr;
}

const char* read_archive(const char* path, int opened, const sc::AreaRow* area,
                         ArchiveImage* image) {
  Archive& archive = image->verdict;
  const int file = opened >= 0 ? opened : store::open_archive(AT_FDCWD, path, 0, &archive);
  if (file >= 0) store::judge(file, area, &archive);
  if (file >= 0 && opened < 0) close(file);
  image->bytes = archive.image;
  archive.image = nullptr;
  return archive.state == State::kGood ? nullptr : archive.reason;
}

/* ---- locks for reading ---- */

constexpr uint32_t kLockMs = 1000;
constexpr uint32_t kSaveMs = 5000; /* a save takes longer: it packs, writes and syncs */
constexpr int kReadTries = 1000;
constexpr int32_t kAreaByte = 1; /* the byte that a save holds */

bool lock_shared(int file, int32_t lock_index, uint32_t ms) {
  Wait wait(ms);
  while (sc_lock_reg(file, F_SETLK, F_RDLCK, lock_index, SEEK_SET, 1) != 0) {
    if (errno == EACCES) errno = EAGAIN; /* POSIX allows both for a lock of another process */
    if (errno != EAGAIN || !wait.pause()) return false;
  }
  return true;
}

/* Opens a lock file for read locks. Does not block on a pipe without a writer. */
int open_lock_file(const Area& area) {
  return open(lock_path(area).text, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

}  // namespace

Path archive_path(const Area& area) {
  Path path;
  snprintf(path.text, sizeof path.text, sc::kArchivePath, area.row().stem);
  return path;
}

Path lock_path(const Area& area) {
  Path path;
  snprintf(path.text, sizeof path.text, sc::kLockPath, area.row().lock_stem);
  return path;
}

const char* read_own_archive(const Area& area, ArchiveImage* image) {
  const NoSaves no_saves(area);
  const char* fault = read_archive(archive_path(area).text, -1, &area.row(), image);
  if (fault == nullptr) return nullptr;
  Archive& archive = image->verdict;
  if (!no_saves && archive.state == State::kBroken) {
    archive.is(State::kUnknown, "not known: another program holds the area");
  }
  free(image->bytes);
  image->bytes = nullptr;
  return fault;
}

/* ---- sources ---- */

namespace {

/* Kept, because the library attaches the segment again in every call. */
void* g_live[kAreaCount];

}  // namespace

int g_lock_files[kAreaCount];

NoSaves::NoSaves(const Area& area) : area_(id_of(area)) {
  if (g_lock_files[area_] != 0) return;
  file_ = open_lock_file(area);
  if (file_ < 0) return;
  static uint32_t ms = kSaveMs; /* after one long wait, the next do not wait */
  held_ = lock_shared(file_, kAreaByte, ms);
  if (!held_) ms = 0;
  g_lock_files[area_] = file_;
}

NoSaves::~NoSaves() {
  if (file_ < 0) return;
  close(file_);
  g_lock_files[area_] = 0;
}

Source::~Source() {
  for (void* block : own_) free(block);
}

void Source::forget_live(AreaId area) {
  if (g_live[area] != nullptr) shmdt(g_live[area]);
  g_live[area] = nullptr;
}

void Source::open_live() {
  live_ = true;
  blocks_ = g_live;
  name_ = g_file != nullptr ? g_file : "live";
}

void Source::open_copy(const char* name, uint32_t areas) {
  name_ = name;
  Source live;
  live.open_live();
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    const uint8_t* block = live.block(id);
    if ((areas & (1u << id)) == 0 || block == nullptr) continue;
    Buffer copy(area.row().size);
    memcpy(copy.data(), block, area.row().size);
    own_[id] = copy.release();
  }
}

void Source::open_saved() {
  saved_ = true;
  name_ = "saved";
}

int Source::open_factory(const char* folder) {
  factory_ = folder != nullptr ? folder : "/etc/sysconfig/factory";
  name_ = "factory";
  return access(factory_, X_OK) == 0 ? kOk : fail(kNoArea, "%s: %s", factory_, strerror(errno));
}

const char* Source::read_area(const Area& area, Text* path, ArchiveImage* image) const {
  const char* stem = area.row().stem;
  if (stem[0] == '\0' || (factory_ == nullptr && !saved_)) return "";
  if (factory_ == nullptr) {
    path->add(archive_path(area).text);
    return read_own_archive(area, image);
  }
  path->print("%s/config_%s.bin", factory_, stem);
  const char* fault = read_archive(path->c_str(), -1, &area.row(), image);
  if (fault != nullptr) {
    free(image->bytes);
    image->bytes = nullptr;
  }
  return fault;
}

int Source::open_image(const char* path, int opened) {
  name_ = path;
  FILE* file = opened >= 0 ? fdopen(dup(opened), "r") : fopen(path, "r");
  if (file == nullptr) return fail(kNoArea, "%s: %s", path, strerror(errno));
  const FileBytes image = read_all(file);
  const int error = ferror(file) != 0 ? errno : 0;
  fclose(file);
  if (error != 0) {
    free(image.bytes);
    return fail(kNoArea, "%s: %s", path, strerror(error));
  }
  const Area* area = area_of_size(image.size);
  if (area == nullptr) {
    free(image.bytes);
    return fail(kNoArea, "%s: %zu byte%s the image of no area", path, image.size,
                image.size == 1 ? " is" : "s are");
  }
  blocks_[id_of(*area)] = image.bytes;
  return kOk;
}

int Source::open_archive(const char* path, int opened, bool for_repair) {
  name_ = path;
  ArchiveImage image;
  const char* fault = read_archive(path, opened, nullptr, &image);
  if (image.bytes == nullptr || (fault != nullptr && !for_repair)) {
    free(image.bytes);
    return fail(kNoArea, "%s: %s", path, fault);
  }
  blocks_[image.verdict.area - sc::kAreas] = image.bytes;
  return kOk;
}

AreaId Source::held() const {
  int area = 0;
  while (blocks_[area] == nullptr) ++area;
  return static_cast<AreaId>(area);
}

void Source::take_checkpoint(Checkpoint* checkpoint) {
  checkpoint_ = true;
  for (int n = 0; n < kAreaCount; ++n) {
    own_[n] = checkpoint->images[n];
    checkpoint->images[n] = nullptr;
  }
}

namespace {

constexpr char kCheckpointPrefix[] = "checkpoint:";
constexpr size_t kPrefixSize = sizeof kCheckpointPrefix - 1;

}  // namespace

int Source::open_named(const char* name) {
  if (strncmp(name, kCheckpointPrefix, kPrefixSize) == 0) {
    name_ = name;
    Checkpoint checkpoint;
    if (const int status = checkpoint.open(name + kPrefixSize); status != kOk) return status;
    take_checkpoint(&checkpoint);
    return kOk;
  }
  if (strcmp(name, "live") == 0) {
    open_live();
    return kOk;
  }
  if (strcmp(name, "saved") == 0) {
    open_saved();
    return kOk;
  }
  FILE* file = fopen(name, "rb");
  if (file == nullptr) return fail(kNoArea, "%s: %s", name, strerror(errno));
  uint8_t mark[2] = {};
  const bool zipped = fread(mark, sizeof mark, 1, file) == 1 && mark[0] == 0x1f && mark[1] == 0x8b;
  fclose(file);
  return zipped ? open_archive(name) : open_image(name);
}

uint8_t* Source::block(AreaId id) {
  const Area& area = kAreas[id];
  if (blocks_[id] == nullptr && live_) {
    blocks_[id] = reinterpret_cast<void*>(static_cast<uintptr_t>(area.attach()));
  }
  if (blocks_[id] == nullptr && !live_) {
    ArchiveImage image;
    Text path;
    read_area(area, &path, &image);
    blocks_[id] = image.bytes;
  }
  return static_cast<uint8_t*>(blocks_[id]);
}

int Source::need(AreaId id) {
  errno = 0;
  if (block(id) != nullptr) return kOk;
  const char* area = kAreas[id].name;
  if (factory_ != nullptr) {
    ArchiveImage image;
    Text path;
    const char* fault = read_area(kAreas[id], &path, &image);
    if (path.size() > 0) return fail(kNoArea, "%s: %s", path.c_str(), fault);
  }
  if (!live_ || g_file != nullptr) {
    return fail(kNoArea, "%s does not hold area %s", name_, area);
  }
  switch (errno) {
    case ENOENT:
      return fail(kNoArea, "area %s does not exist; scctl init %s creates it", area, area);
    case EINVAL: return fail(kNoArea, "area %s: its segment is too small", area);
    default: return fail(kNoArea, "area %s: %s", area, strerror(errno));
  }
}

/* ---- records ---- */

bool is_used(const Table& table, const uint8_t* record) {
  return is_section(table) || load_word(record + table.id_at) != table.free;
}

int32_t named_lock(const Table& table, const uint8_t* block, uint32_t position) {
  if (table.lock_at < 0) return load_word(block + kAreas[table.area].row().header.index_at);
  return load_word(block + table.at + position * table.stride + table.lock_at);
}

Reader::Reader(Source& source, const Table& table, int field_count)
    : table_(table),
      block_(source.block(table.area)),
      field_count_(field_count),
      wait_ms_(kLockMs) {
  /* Closing a lock file that an edit has open would drop the locks of the edit. */
  if (!source.is_live() || g_lock_files[table.area] != 0) return;
  lock_ = open_lock_file(kAreas[table.area]);
}

Reader::~Reader() {
  if (lock_ >= 0) close(lock_);
}

/* Calls part with offset and size of each piece that is read, until it returns false. */
template <class Part>
bool Reader::each_part(Part part) const {
  if (field_count_ == kWhole) return part(0u, table_.stride);
  if (!is_section(table_) && !part(static_cast<uint32_t>(table_.id_at), 4u)) return false;
  for (int n = 0; n < field_count_; ++n) {
    const Field& field = table_.fields[n];
    if (!part(uint32_t{field.record_at}, uint32_t{field.size})) return false;
  }
  return true;
}

void Reader::copy_parts(uint8_t* to, const uint8_t* from) const {
  each_part([=](uint32_t at, uint32_t size) {
    memcpy(to + at, from + at, size);
    return true;
  });
}

void Reader::copy_until_equal(uint8_t* to, const uint8_t* from) const {
  copy_parts(to, from);
  const auto is_equal = [=](uint32_t at, uint32_t size) {
    return memcmp(to + at, from + at, size) == 0;
  };
  for (int n = 0; n < kReadTries && !each_part(is_equal); ++n) copy_parts(to, from);
}

bool Reader::copy(uint32_t position, uint8_t* to) {
  if (block_ == nullptr) return false;
  const uint8_t* from = block_ + table_.at + position * table_.stride;
  if (!is_used(table_, from)) return false;
  const int32_t byte = named_lock(table_, block_, position);
  if (lock_ >= 0 && lock_shared(lock_, byte, wait_ms_)) {
    copy_parts(to, from);
    sc_lock_reg(lock_, F_SETLK, F_UNLCK, byte, SEEK_SET, 1);
  } else {
    wait_ms_ = 0; /* the holder may hold other bytes, too: the next records are not waited for */
    copy_until_equal(to, from);
  }
  /* The record may have been freed before it was locked. */
  return is_used(table_, to);
}

bool Reader::copy_next(uint32_t* position, uint8_t* to) {
  while (*position < table_.capacity && !copy(*position, to)) ++*position;
  return *position < table_.capacity;
}

Snapshot::Snapshot(const Table& table)
    : table_(&table), records_(table.capacity * table.stride), used_(table.capacity) {}

void Snapshot::take(Source& source) {
  Reader reader(source, *table_);
  for (uint32_t position = 0; position < table_->capacity; ++position) {
    used_.data()[position] = reader.copy(position, put(position));
  }
}

void Snapshot::take(const Table& table, Source& source) {
  Snapshot taken(table);
  taken.take(source);
  taken.swap(*this);
}

void Snapshot::take(Source& source, uint32_t position) {
  Reader reader(source, *table_);
  used_.data()[position] = reader.copy(position, put(position));
}

void Snapshot::swap(Snapshot& other) {
  const Table* table = table_;
  table_ = other.table_;
  other.table_ = table;
  records_.swap(other.records_);
  used_.swap(other.used_);
}

int Snapshot::find_clash(const uint8_t* wanted, int skip, const Field** clashing,
                         Spelling spelling) const {
  for (const Field& field : *table_) {
    if (field.clash == Clash::kNone) continue;
    const bool as_mac = spelling == Spelling::kAsMac && field.kind == Kind::kMacText;
    for (int position = 0; position < table_->capacity; ++position) {
      if (position == skip || !used(static_cast<uint32_t>(position))) continue;
      const uint8_t* own = record(static_cast<uint32_t>(position));
      const bool clash = field.clash == Clash::kBytes ? equal(field, own, wanted)
                         : as_mac                     ? is_same_mac_text(field, own, wanted)
                                                      : is_same_text(field, own, wanted);
      if (clash) {
        *clashing = &field;
        return position;
      }
    }
  }
  return -1;
}

}  // namespace store
