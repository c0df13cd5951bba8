#include "store/journal.h"

#include <stdlib.h>
#include <string.h>

#include "store/edit.h"
#include "store/value.h"

namespace store {

Journal* g_journal = nullptr;

namespace {

constexpr uint16_t kMark = 0x5c6a;

void add_bytes(const void* bytes, size_t size, Text* to) {
  to->add(static_cast<const char*>(bytes), size);
}

/* Ends a chunk that starts at an offset of the text. The next one begins at an aligned address. */
void end_chunk(Chunk chunk, size_t start, Text* to) {
  while (to->size() % alignof(Chunk) != 0) to->add('\0');
  chunk.mark = kMark;
  chunk.size = static_cast<uint32_t>(to->size() - start);
  memcpy(to->data() + start, &chunk, sizeof chunk);
}

}  // namespace

Run next_run(const uint8_t* mask, uint32_t at, uint32_t end) {
  /* Most of a mask is zeros, which are passed a word at a time. */
  constexpr uint32_t kWord = sizeof(uint32_t);
  while (at < end && mask[at] == 0) {
    ++at;
    if (at % kWord != 0) continue;
    while (end - at >= kWord && *reinterpret_cast<const uint32_t*>(mask + at) == 0) at += kWord;
  }
  uint32_t behind = at;
  while (behind < end && mask[behind] != 0) ++behind;
  return {at, behind - at};
}

void pack(ChunkKind kind, uint32_t entry, const void* payload, size_t size, Text* to,
          uint16_t program) {
  const size_t start = to->size();
  Chunk chunk = {};
  chunk.kind = kind;
  chunk.entry = entry;
  chunk.program = program;
  add_bytes(&chunk, sizeof chunk, to);
  add_bytes(payload, size, to);
  end_chunk(chunk, start, to);
}

namespace {

/* Marks the bytes of fields that are not zero, before or after. */
void mark_contents(const Table& table, const uint8_t* before, const uint8_t* after, Mask* mask) {
  for (const Field& field : table) {
    if (size_without_trailing_zeros(field, before) != 0 ||
        (after != nullptr && size_without_trailing_zeros(field, after) != 0)) {
      mask->add(field);
    }
  }
}

}  // namespace

void pack_step(const Step& step, uint32_t entry, Text* to, uint16_t program) {
  const Table& table = step.table;
  const Buffer zeros(table.stride);
  const uint8_t* before = step.before != nullptr ? step.before : zeros.data();
  Mask contents(table);
  if (step.mask == nullptr) mark_contents(table, before, step.after, &contents);
  const uint8_t* mask = step.mask != nullptr ? step.mask : contents.bytes();
  const size_t start = to->size();
  Chunk chunk = {};
  chunk.kind = ChunkKind::kStep;
  chunk.table = static_cast<uint8_t>(number_of(table));
  chunk.entry = entry;
  chunk.program = program;
  chunk.position = step.position;
  chunk.was_used = step.was_used;
  chunk.is_used = step.is_used;
  add_bytes(&chunk, sizeof chunk, to);
  for (Run run = next_run(mask, 0, table.stride); run.size != 0;
       run = next_run(mask, run.end(), table.stride)) {
    add_bytes(&run, sizeof run, to);
    add_bytes(before + run.at, run.size, to);
    if (step.is_used) add_bytes(step.after + run.at, run.size, to);
  }
  end_chunk(chunk, start, to);
}

const Chunk* chunk_at(const Text& bytes, size_t at) {
  if (at > bytes.size() || bytes.size() - at < sizeof(Chunk)) return nullptr;
  const auto* chunk = reinterpret_cast<const Chunk*>(bytes.c_str() + at);
  const bool good = chunk->mark == kMark && chunk->size >= sizeof *chunk &&
                    chunk->size % alignof(Chunk) == 0 && chunk->size <= bytes.size() - at;
  return good ? chunk : nullptr;
}

/* ---- changes ---- */

Change::Change(const Table& of, uint32_t at)
    : table(&of),
      position(at),
      was_used(false),
      is_used(false),
      fate(Fate::kDue),
      is_partly_kept(false),
      before(of.stride),
      after(of.stride),
      mask(of.stride),
      next(nullptr) {}

Step Change::step() const {
  const bool is_whole = !was_used || !is_used;
  return {*table,   position, before.data(), after.data(), is_whole ? nullptr : mask.data(),
          was_used, is_used};
}

void Change::put(const Buffer& values, uint8_t* record) const {
  for (uint32_t at = 0; at < table->stride; ++at) {
    if (mask.data()[at] != 0) record[at] = values.data()[at];
  }
}

bool Change::is_field_changed(const Field& field) const {
  for (uint32_t at = field.record_at; at < field.record_at + uint32_t{field.size}; ++at) {
    const uint8_t own = mask.data()[at] & mask_at(field, at - field.record_at);
    if (((before.data()[at] ^ after.data()[at]) & own) != 0) return true;
  }
  return false;
}

Changes::~Changes() {
  while (first_ != nullptr) {
    Change* next = first_->next;
    first_->~Change();
    free(first_);
    first_ = next;
  }
}

Change* Changes::find(const Table& table, uint32_t position) {
  for (Change* change = first_; change != nullptr; change = change->next) {
    if (change->table == &table && change->position == position) return change;
  }
  return nullptr;
}

Change& Changes::at(const Table& table, uint32_t position, bool was_used) {
  if (Change* known = find(table, position); known != nullptr) return *known;
  Buffer room(sizeof(Change));
  auto* change = new (room.release()) Change(table, position);
  change->was_used = was_used;
  *end_ = change;
  end_ = &change->next;
  return *change;
}

void Changes::add(const Step& step) {
  Change& change = at(step.table, step.position, step.was_used);
  Mask whole(step.table);
  if (step.mask == nullptr) {
    for (const Field& field : step.table) whole.add(field);
  }
  const uint8_t* mask = step.mask != nullptr ? step.mask : whole.bytes();
  const uint32_t end = step.table.stride;
  for (Run run = next_run(mask, 0, end); run.size != 0; run = next_run(mask, run.end(), end)) {
    for (uint32_t at = run.at; at < run.end(); ++at) {
      if (change.mask.data()[at] == 0) change.before.data()[at] = step.before[at];
      change.mask.data()[at] = 0xff;
      change.after.data()[at] = step.is_used ? step.after[at] : 0;
    }
  }
  change.is_used = step.is_used;
}

void Changes::add(const Chunk& chunk) {
  if (chunk.kind != ChunkKind::kStep || chunk.table >= kTableCount) return;
  const Table& table = kTables[chunk.table];
  if (chunk.position >= table.capacity) return;
  Buffer before(table.stride), after(table.stride), mask(table.stride);
  const auto* at = reinterpret_cast<const uint8_t*>(&chunk + 1);
  const auto* end = reinterpret_cast<const uint8_t*>(&chunk) + chunk.size;
  Run run;
  while (static_cast<size_t>(end - at) >= sizeof run) {
    memcpy(&run, at, sizeof run);
    at += sizeof run;
    if (run.at > table.stride || run.size > table.stride - run.at ||
        static_cast<size_t>(end - at) < (chunk.is_used != 0 ? 2 : 1) * size_t{run.size}) {
      return;
    }
    memset(mask.data() + run.at, 0xff, run.size);
    memcpy(before.data() + run.at, at, run.size);
    at += run.size;
    if (chunk.is_used == 0) continue;
    memcpy(after.data() + run.at, at, run.size);
    at += run.size;
  }
  const bool whole = chunk.was_used == 0 || chunk.is_used == 0;
  add({table, chunk.position, before.data(), after.data(), whole ? nullptr : mask.data(),
       chunk.was_used != 0, chunk.is_used != 0});
}

void Changes::add(const Text& journal, size_t from, size_t end, uint32_t entry) {
  for (const Chunk* chunk; from < end && (chunk = chunk_at(journal, from)) != nullptr;
       from += chunk->size) {
    if (chunk->entry == entry) add(*chunk);
  }
}

uint32_t Changes::areas() const {
  uint32_t areas = 0;
  for (const Change* change = first_; change != nullptr; change = change->next) {
    areas |= bit(change->table->area);
  }
  return areas;
}

}  // namespace store
