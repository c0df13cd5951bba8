/* metrics: figures in the text format of Prometheus. */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "commands.h"
#include "state.h"
#include "store/edit.h"

namespace scctl {

namespace {

/* In the order of kFamilies. */
enum Metric : uint8_t {
  kRecords,
  kCapacity,
  kPresent,
  kUnsaved,
  kGood,
  kAge,
  kHolders,
  kWaiters,
  kSaves,
  kMetricCount
};

struct Family {
  const char* name;
  const char* type;
  const char* help;
};

constexpr Family kFamilies[kMetricCount] = {
    {"table_records", "gauge", "Used records of a table."},
    {"table_capacity", "gauge", "Most records of a table."},
    {"area_present", "gauge", "Whether the area exists."},
    {"area_unsaved_records", "gauge", "Records that differ from the area's archive."},
    {"archive_good", "gauge", "Whether the area's archive is good."},
    {"archive_age_seconds", "gauge", "Time since the archive was written."},
    {"lock_holders", "gauge", "Processes that hold locks of the area."},
    {"lock_waiters", "gauge", "Processes that wait for locks of the area."},
    {"saves_total", "counter", "Saves of the area by scctl since the boot."},
};

constexpr long kUnknown = -1; /* there is no such figure */

struct Figures {
  long of[kMetricCount][kTableCount];

  Figures() { memset(of, kUnknown, sizeof of); }
};

void look_at_archive(Source& live, AreaId id, Figures* figures) {
  const Area& area = kAreas[id];
  if (area.row().stem[0] == '\0') return;
  ArchiveImage image;
  read_own_archive(area, &image);
  if (image.verdict.state != State::kUnknown) {
    figures->of[kGood][id] = image.verdict.state == State::kGood;
    Checkpoint images;
    images.images[id] = image.bytes;
    Source saved;
    saved.take_checkpoint(&images);
    if (live.block(id) != nullptr) {
      figures->of[kUnsaved][id] = static_cast<long>(count_differences(saved, live, bit(id)));
    }
  }
  struct stat file;
  if (lstat(archive_path(area).text, &file) != 0 || !S_ISREG(file.st_mode)) return;
  const time_t age = time(nullptr) - file.st_mtime;
  figures->of[kAge][id] = age > 0 ? static_cast<long>(age) : 0;
}

void look(Source& live, Figures* figures) {
  for (int n = 0; n < kTableCount; ++n) {
    const Table& table = kTables[n];
    const uint8_t* block = live.block(table.area);
    if (block == nullptr) continue;
    long used = 0;
    for (uint32_t position = 0; position < table.capacity; ++position) {
      used += is_used(table, block + table.at + position * table.stride);
    }
    figures->of[kRecords][n] = used;
    figures->of[kCapacity][n] = table.capacity;
  }
  errno = 0;
  const uint32_t* counts = saves(false);
  const bool has_counts = counts != nullptr || errno == ENOENT; /* nothing was saved yet */
  count_lockers(figures->of[kHolders], figures->of[kWaiters]);
  for (const Area& area : kAreas) {
    const AreaId id = id_of(area);
    figures->of[kPresent][id] = live.block(id) != nullptr;
    if (has_counts && area.save != nullptr) {
      figures->of[kSaves][id] = counts != nullptr ? static_cast<long>(counts[id]) : 0;
    }
    look_at_archive(live, id, figures);
  }
}

}  // namespace

int run_metrics(Call& call) {
  Figures figures;
  look(call.source, &figures);
  for (int metric = 0; metric < kMetricCount; ++metric) {
    const Family& family = kFamilies[metric];
    printf("# HELP sysconfig_%s %s\n# TYPE sysconfig_%s %s\n", family.name, family.help,
           family.name, family.type);
    const bool is_of_table = metric <= kCapacity;
    for (int n = 0; n < kTableCount; ++n) {
      const long figure = figures.of[metric][n];
      if (figure == kUnknown) continue;
      printf("sysconfig_%s{%s=\"%s\"} %ld\n", family.name, is_of_table ? "table" : "area",
             is_of_table ? kTables[n].name : kAreas[n].name, figure);
    }
  }
  return kOk;
}

}  // namespace scctl
