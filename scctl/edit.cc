/* Adding, modifying, deleting and clearing. */
#include "edit.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "value.h"

namespace scctl {

namespace {

int refuse_clash(const Snapshot& now, const uint8_t* record, int skip) {
  const Field* field;
  const int other = now.find_clash(record, skip, &field);
  if (other < 0) return kOk;
  Text value;
  format_visible(*field, record, &value);
  const char* table = now.table().name;
  return fail(kRefused, "%s: %s '%s' is that of %s/%d", table, field->name, value.c_str(), table,
              other + 1);
}

int no_lock(const Table& table) {
  const Path path = lock_path(kAreas[table.area]);
  return fail(kNoArea, "%s cannot be opened: %s", path.text, strerror(errno));
}

/* The library answers with a number; the reasons that it has in common with these checks are told
 * before. */
int result_of(const Table& table, int32_t result) {
  if (result == 0) return kOk;
  return fail(kRefused, "%s: the library refused the record (%d)", table.name, result);
}

bool lock_opens(const Table& table) {
  const int file = open(lock_path(kAreas[table.area]).text, O_RDWR | O_CLOEXEC);
  if (file < 0) return false;
  close(file);
  return true;
}

/* The fields of a record that belongs to the programs, under its lock. */
int write_fields(Source& live, const Table& table, const uint8_t* record, uint32_t position) {
  const int file = open(lock_path(kAreas[table.area]).text, O_RDWR | O_CLOEXEC);
  if (file < 0) return no_lock(table);
  const auto byte = static_cast<off_t>(lock_index_of(table, position));
  uint8_t* to = live.block(table.area) + table.at + position * table.stride;
  sc_lock_reg(file, F_SETLKW, F_WRLCK, byte, SEEK_SET, 1);
  for (const Field& field : table) {
    memcpy(to + field.record_at, record + field.record_at, field.size);
  }
  sc_lock_reg(file, F_SETLK, F_UNLCK, byte, SEEK_SET, 1);
  close(file);
  const Area& area = kAreas[table.area];
  if (area.notify != nullptr) {
    Quiet quiet;
    area.notify();
  }
  return kOk;
}

/* Free records below one that is wanted, held meanwhile, so that the lowest free one is this. While
 * they are held they have keys that nobody has. */
class Holes {
 public:
  Holes(Source& live, const Table& table) : live_(live), table_(table) {}

  void hold_below(uint32_t id) {
    Buffer record(table_.stride);
    Buffer item(table_.item_size + 1u);
    Quiet quiet;
    for (uint32_t position = 0; position + 1 < id; ++position) {
      const uint8_t* own = at(position);
      if (is_used(table_, own)) continue;
      const int32_t claimed = table_.calls.claim(live_.block(table_.area));
      if (claimed < 0) return;
      held_.data()[claimed] = 1;
      if (table_.calls.modify == nullptr) continue;
      for (const Field& field : table_) {
        if (field.clash == Clash::kNone) continue;
        char* key = reinterpret_cast<char*>(record.data()) + field.record_at;
        snprintf(key, field.size, field.size > 8 ? "\x01hole %d" : "%03d", claimed + 1);
      }
      to_item(table_, record.data(), static_cast<uint32_t>(claimed) + 1, item.data());
      table_.calls.modify(live_.block(table_.area), item.data());
    }
  }

  ~Holes() {
    Buffer item(table_.item_size + 1u);
    Quiet quiet;
    for (uint32_t position = 0; position < table_.capacity; ++position) {
      if (held_.data()[position] == 0) continue;
      if (table_.calls.modify != nullptr) {
        const Buffer empty(table_.stride);
        to_item(table_, empty.data(), position + 1, item.data());
        table_.calls.modify(live_.block(table_.area), item.data());
      }
      table_.calls.release(live_.block(table_.area), position);
    }
  }
  Holes(const Holes&) = delete;
  Holes& operator=(const Holes&) = delete;

 private:
  const uint8_t* at(uint32_t position) {
    return live_.block(table_.area) + table_.at + position * table_.stride;
  }

  Source& live_;
  const Table& table_;
  Buffer held_{table_.capacity};
};

/* The id of the first free record, 0 when there is none. */
uint32_t first_free(const Snapshot& now) {
  for (uint32_t position = 0; position < now.table().capacity; ++position) {
    if (!now.used(position)) return position + 1;
  }
  return 0;
}

}  // namespace

int add_record(Source& live, const Table& table, const uint8_t* record, uint32_t* id) {
  if (is_section(table)) {
    return fail(kRefused, "%s is always there; scctl set changes it", table.name);
  }
  Snapshot now(table);
  now.take(live);
  if (*id != 0 && now.used(*id - 1)) {
    return fail(kRefused, "%s/%u is used; scctl set changes it", table.name, *id);
  }
  if (first_free(now) == 0) {
    return fail(kRefused, "%s is full (%d records)", table.name, table.capacity);
  }
  if (const int status = refuse_clash(now, record, -1); status != kOk) return status;
  if (!lock_opens(table)) return no_lock(table);

  Holes holes(live, table);
  if (*id != 0) holes.hold_below(*id);
  uint8_t* block = live.block(table.area);
  if (table.calls.add == nullptr) {
    const int32_t claimed = table.calls.claim(block);
    if (claimed < 0) return fail(kRefused, "%s is full (%d records)", table.name, table.capacity);
    *id = static_cast<uint32_t>(claimed) + 1;
    return write_fields(live, table, record, static_cast<uint32_t>(claimed));
  }
  Buffer item(table.item_size);
  to_item(table, record, 0, item.data());
  int32_t result;
  {
    Quiet quiet;
    result = table.calls.add(block, item.data());
  }
  if (*id == 0) {
    /* The library does not tell which record it took: it is the one that was free and has these
     * values now. */
    Snapshot then(table);
    then.take(live);
    for (uint32_t position = 0; position < table.capacity && *id == 0; ++position) {
      if (now.used(position) || !then.used(position)) continue;
      bool same = true;
      for (const Field& field : table) same = same && equal(field, then.record(position), record);
      if (same) *id = position + 1;
    }
  }
  return result_of(table, result);
}

int modify_record(Source& live, const Table& table, const uint8_t* record, uint32_t id) {
  Snapshot now(table);
  now.take(live);
  if (!now.used(id - 1)) {
    return fail(kRefused, "%s/%u is free; scctl add %s/%u makes it", table.name, id, table.name,
                id);
  }
  for (const Field& field : table) {
    if (field.add_only && !equal(field, now.record(id - 1), record)) {
      return fail(kRefused, "%s.%s is written by add alone; delete %s/%u and add it", table.name,
                  field.name, table.name, id);
    }
  }
  if (const int status = refuse_clash(now, record, static_cast<int>(id - 1)); status != kOk) {
    return status;
  }
  if (table.calls.modify == nullptr) return write_fields(live, table, record, id - 1);
  if (!lock_opens(table)) return no_lock(table);
  Buffer item(table.item_size);
  to_item(table, record, id, item.data());
  int32_t result;
  {
    Quiet quiet;
    result = table.calls.modify(live.block(table.area), item.data());
  }
  return result_of(table, result);
}

namespace {

/* The areas that a deletion reaches into. */
int need_all(Source& live, const Table& table) {
  for (int area = 0; area < kAreaCount; ++area) {
    if ((table.needs >> area & 1) == 0) continue;
    if (const int status = live.need(static_cast<AreaId>(area)); status != kOk) return status;
  }
  return kOk;
}

}  // namespace

int delete_record(Source& live, const Table& table, uint32_t id) {
  if (is_section(table)) return fail(kRefused, "%s is always there", table.name);
  if (const int status = need_all(live, table); status != kOk) return status;
  const uint8_t* record = live.block(table.area) + table.at + (id - 1) * table.stride;
  if (!is_used(table, record)) return fail(kRefused, "%s/%u is free", table.name, id);
  if (!lock_opens(table)) return no_lock(table);
  {
    Quiet quiet;
    table.calls.erase(live.blocks(), id);
    const Area& area = kAreas[table.area];
    if (table.calls.modify == nullptr && area.notify != nullptr) area.notify();
  }
  if (is_used(table, record)) {
    return fail(kRefused, "%s/%u is not deleted", table.name, id);
  }
  return kOk;
}

int clear_table(Source& live, const Table& table) {
  if (is_section(table)) return fail(kRefused, "%s is always there", table.name);
  if (!lock_opens(table)) return no_lock(table);
  if (table.calls.clear != nullptr) {
    Quiet quiet;
    table.calls.clear(live.block(table.area));
    const Area& area = kAreas[table.area];
    if (table.calls.modify == nullptr && area.notify != nullptr) area.notify();
    return kOk;
  }
  for (uint32_t id = 1; id <= table.capacity; ++id) {
    if (!is_used(table, live.block(table.area) + table.at + (id - 1) * table.stride)) continue;
    if (const int status = delete_record(live, table, id); status != kOk) return status;
  }
  return kOk;
}

}  // namespace scctl
