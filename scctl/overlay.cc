/* overlay: import by its helper, and cover: which bytes have no name. */
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "commands.h"
#include "store/edit.h"
#include "store/overlay.h"
#include "store/value.h"

namespace scctl {

namespace {

/* Runs the helper that stands beside scctl, or where it is installed. */
int import(Call& call) {
  static constexpr char kHelper[] = "scctl-overlay-import";
  Buffer room_of_path(PATH_MAX);
  auto* own = reinterpret_cast<char*>(room_of_path.data());
  if (readlink("/proc/self/exe", own, PATH_MAX - 1) < 0) own[0] = '\0';
  const char* slash = strrchr(own, '/');
  Text beside, installed;
  beside.add(own, slash != nullptr ? static_cast<size_t>(slash + 1 - own) : 0);
  beside.add(kHelper);
  installed.print("%s/%s", SCCTL_HELPERS, kHelper);
  Buffer room((static_cast<size_t>(call.word_count) + 1) * sizeof(char*));
  auto** words = reinterpret_cast<char**>(room.data());
  for (int n = 0; n < call.word_count; ++n) words[n] = call.words[n];
  Text* const places[] = {&beside, &installed};
  for (Text* path : places) {
    words[0] = path->data();
    execv(path->c_str(), words);
    if (errno != ENOENT) break;
  }
  return fail(kNoArea, "%s, which reads object files, is neither at %s nor at %s: %s", kHelper,
              beside.c_str(), installed.c_str(), strerror(errno));
}

/* Bytes without a name: opaque ones, as far as no member stands in their place, and spares. */
bool is_nameless(const Field& field) {
  return field.kind == Kind::kBytes && (field.extra == nullptr || is_spare_name(field.name));
}

/* Counts bytes that are not zero, and prints where there are any. */
class Cover {
 public:
  void add(const Table& view, uint32_t id, const uint8_t* record) {
    Buffer known(view.stride);
    const int words[] = {view.lock_at, view.id_at};
    for (const int word : words) {
      if (word >= 0) memset(known.data() + word, 1, sizeof(int32_t));
    }
    for (const Field& field : view) {
      memset(known.data() + field.record_at, 1, field.size);
      if (!is_nameless(field)) continue;
      uint32_t count = 0;
      for (uint32_t n = 0; n < field.size; ++n) {
        count += (record[field.record_at + n] & mask_at(field, n)) != 0;
      }
      if (count > 0) print(view.name, id, field.name, count, field.size);
    }
    add_rest(view.name, id, record, known.data(), view.stride);
  }

  /* What is outside of fields or of tables. */
  void add_rest(const char* name, uint32_t id, const uint8_t* bytes, const uint8_t* known,
                uint32_t size) {
    for (uint32_t at = 0, end; at < size; at = end) {
      uint32_t count = 0;
      for (end = at; end < size && known[end] == 0; ++end) count += bytes[end] != 0;
      Text spare;
      spare.print("spare_%u", at);
      if (count > 0) print(name, id, spare.c_str(), count, end - at);
      if (end == at) ++end;
    }
  }

  uint32_t total() const { return total_; }

 private:
  void print(const char* name, uint32_t id, const char* field, uint32_t count, uint32_t size) {
    Text record;
    record.add(name);
    if (id > 0) record.print("/%u", id);
    printf("%s.%s: %u of %u byte%s\n", record.c_str(), field, count, size, size == 1 ? "" : "s");
    total_ += count;
  }

  uint32_t total_ = 0;
};

void cover_area(Source& source, AreaId id, Cover* cover) {
  const Area& area = kAreas[id];
  const auto& header = area.row().header;
  Buffer known(area.row().size);
  const auto know = [&](uint32_t at, uint32_t size) { memset(known.data() + at, 1, size); };
  know(0, static_cast<uint32_t>(header.index_at) + 4);
  for (const Table& table : kTables) {
    if (table.area != id) continue;
    if (table.counter != nullptr) know(table.counter_at, table.counter_size);
    know(table.at, table.capacity * table.stride);
    Reader reader(source, table);
    Buffer record(table.stride);
    for (uint32_t position = 0; reader.copy_next(&position, record.data()); ++position) {
      cover->add(view_of(table, position, record.data()), position + 1, record.data());
    }
  }
  cover->add_rest(area.name, 0, source.block(id), known.data(), area.row().size);
}

int cover(Call& call) {
  --call.word_count;
  ++call.words;
  bool chosen[kAreaCount];
  if (const int status = present_areas(call, chosen); status != kOk) return status;
  Cover cover;
  for (int n = 0; n < kAreaCount; ++n) {
    if (chosen[n]) cover_area(call.source, static_cast<AreaId>(n), &cover);
  }
  printf("bytes without a name: %u\n", cover.total());
  call.is_done = cover.total() > 0;
  return cover.total() > 0 ? kRefused : kOk;
}

}  // namespace

int run_overlay(Call& call) {
  if (strcmp(call.words[0], "import") == 0) return import(call);
  if (strcmp(call.words[0], "cover") == 0) return cover(call);
  return fail(kUsage, "unknown command 'overlay %s'; it is import or cover", call.words[0]);
}

}  // namespace scctl
