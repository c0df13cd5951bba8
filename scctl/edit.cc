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

int check_lock(Source& live, AreaId id) {
  const Area& area = kAreas[id];
  const Path path = lock_path(area);
  const char* own = static_cast<const char*>(live.blocks()[id]) + area.facts().header.path_at;
  if (strncmp(own, path.text,
              static_cast<size_t>(area.facts().header.index_at - area.facts().header.path_at)) !=
      0) {
    return fail(kRefused, "area %s is damaged; scctl check tells more", area.name);
  }
  const int file = open(path.text, O_RDWR | O_CLOEXEC);
  if (file < 0) return fail(kNoArea, "%s cannot be opened: %s", path.text, strerror(errno));
  close(file);
  return kOk;
}

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

/* The reasons that these checks know are told before. */
int refused(const Table& table, int32_t result) {
  return fail(kRefused, "%s: the library refused the record (%d)", table.name, result);
}

int is_full(const Table& table) {
  return fail(kRefused, "%s is full (%d records)", table.name, table.capacity);
}

/* The library announces changes of lists itself. */
void announce(const Table& table) {
  const Area& area = kAreas[table.area];
  if (table.calls.modify != nullptr || area.notify == nullptr) return;
  Quiet quiet;
  area.notify();
}

/* A record that belongs to the programs, under its lock: all fields, or those that are not what
 * they were. */
void write_fields(Source& live, const Table& table, const uint8_t* was, const uint8_t* record,
                  uint32_t position) {
  const int file = open(lock_path(kAreas[table.area]).text, O_RDWR | O_CLOEXEC);
  const auto byte = static_cast<off_t>(lock_index_of(table, position));
  uint8_t* to = live.block(table.area) + table.at + position * table.stride;
  sc_lock_reg(file, F_SETLKW, F_WRLCK, byte, SEEK_SET, 1);
  for (const Field& field : table) {
    if (was != nullptr && equal(field, was, record)) continue;
    memcpy(to + field.record_at, record + field.record_at, field.size);
  }
  sc_lock_reg(file, F_SETLK, F_UNLCK, byte, SEEK_SET, 1);
  close(file);
  announce(table);
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

/* The library does not tell which record it took: it is the one that was free and has these values
 * now. 0 when it is gone again. */
uint32_t find_added(Source& live, const Snapshot& before, const uint8_t* record) {
  const Table& table = before.table();
  const uint8_t* own = live.block(table.area) + table.at;
  for (uint32_t position = 0; position < table.capacity; ++position, own += table.stride) {
    if (before.used(position) || !is_used(table, own)) continue;
    bool same = true;
    for (const Field& field : table) same = same && equal(field, own, record);
    if (same) return position + 1;
  }
  return 0;
}

}  // namespace

int add_record(Source& live, Snapshot* now, const uint8_t* record, uint32_t* id) {
  const Table& table = now->table();
  if (is_section(table)) {
    return fail(kRefused, "%s is always there; scctl set changes it", table.name);
  }
  if (*id != 0 && now->used(*id - 1)) {
    return fail(kRefused, "%s/%u is used; scctl set changes it", table.name, *id);
  }
  if (now->count() == table.capacity) return is_full(table);
  if (const int status = refuse_clash(*now, record, -1); status != kOk) return status;
  if (const int status = check_lock(live, table.area); status != kOk) return status;

  int32_t result = SC_LIST_OK;
  {
    Holes holes(live, table);
    holes.hold_below(*id);
    if (table.calls.add == nullptr) {
      const int32_t claimed = table.calls.claim(live.block(table.area));
      if (claimed < 0) return is_full(table);
      write_fields(live, table, nullptr, record, static_cast<uint32_t>(claimed));
    } else {
      Buffer item(table.item_size);
      to_item(table, record, 0, item.data());
      Quiet quiet;
      result = table.calls.add(live.block(table.area), item.data());
    }
  }
  if (result != SC_LIST_OK) return refused(table, result);
  const uint32_t added = find_added(live, *now, record);
  if (added == 0 || (*id != 0 && added != *id)) {
    return fail(kRefused, "%s/%u was taken by another program; the record is %s/%u now", table.name,
                *id, table.name, added);
  }
  *id = added;
  memcpy(now->put(added - 1), record, table.stride);
  return kOk;
}

int modify_record(Source& live, const Table& table, const uint8_t* was, const uint8_t* wanted,
                  uint32_t id) {
  Snapshot now(table);
  now.take(live);
  if (!now.used(id - 1)) {
    return fail(kRefused, "%s/%u is free; scctl add %s/%u makes it", table.name, id, table.name,
                id);
  }
  Buffer record(table.stride);
  memcpy(record.data(), now.record(id - 1), table.stride);
  for (const Field& field : table) {
    if (equal(field, was, wanted)) continue;
    if (field.add_only) {
      return fail(kRefused, "%s.%s is written by add alone; delete %s/%u and add it", table.name,
                  field.name, table.name, id);
    }
    memcpy(record.data() + field.record_at, wanted + field.record_at, field.size);
  }
  if (const int status = refuse_clash(now, record.data(), static_cast<int>(id - 1));
      status != kOk) {
    return status;
  }
  if (const int status = check_lock(live, table.area); status != kOk) return status;
  if (table.calls.modify == nullptr) {
    write_fields(live, table, was, wanted, id - 1);
    return kOk;
  }
  Buffer item(table.item_size);
  to_item(table, record.data(), id, item.data());
  int32_t result;
  {
    Quiet quiet;
    result = table.calls.modify(live.block(table.area), item.data());
  }
  return result == SC_LIST_OK ? kOk : refused(table, result);
}

namespace {

/* The areas that a deletion reaches into. */
int need_all(Source& live, const Table& table) {
  for (int area = 0; area < kAreaCount; ++area) {
    if ((table.needs >> area & 1) == 0) continue;
    if (g_file != nullptr && live.block(static_cast<AreaId>(area)) == nullptr) {
      return fail(kRefused, "deleting from %s reaches into area %s, which %s does not hold",
                  table.name, kAreas[area].name, g_file);
    }
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
  if (const int status = check_lock(live, table.area); status != kOk) return status;
  {
    Quiet quiet;
    table.calls.erase(live.blocks(), id);
  }
  announce(table);
  if (is_used(table, record)) {
    return fail(kRefused, "%s/%u is not deleted", table.name, id);
  }
  return kOk;
}

int clear_table(Source& live, const Table& table) {
  if (is_section(table)) return fail(kRefused, "%s is always there", table.name);
  if (const int status = check_lock(live, table.area); status != kOk) return status;
  if (table.calls.clear != nullptr) {
    {
      Quiet quiet;
      table.calls.clear(live.block(table.area));
    }
    announce(table);
    return kOk;
  }
  for (uint32_t id = 1; id <= table.capacity; ++id) {
    if (!is_used(table, live.block(table.area) + table.at + (id - 1) * table.stride)) continue;
    if (const int status = delete_record(live, table, id); status != kOk) return status;
  }
  return kOk;
}

}  // namespace scctl
