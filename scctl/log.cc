/* The log of scctl's own edits in this boot, and undo. A call that changes records is one entry,
 * whose steps are written down before they are made. The log takes 64 KB at most: the oldest
 * entries make room, and an entry that does not fit is kept without its steps.
 *
 * A watch --journal adds what other programs changed. The entries of each program then have half of
 * the log at most, so one that writes all the time drives out no other program's.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "changes.h"
#include "commands.h"
#include "shown.h"
#include "state.h"
#include "store/take_back.h"
#include "store/value.h"

namespace scctl {

namespace {

constexpr size_t kMostLog = 64 * 1024;
constexpr uint32_t kLoggerMs = 1000;
constexpr char kLog[] = "log";

/* Changes of a record by one program that follow its first within this time are one entry. */
constexpr uint32_t kTogetherMs = 2000;
/* How long after an edit the watch looks for it in the log. */
constexpr time_t kRecently = 10;

/* The head of an entry, in a kBegin or kSeen. The words and the note follow, both terminated. */
bool begins_entry(const Chunk& chunk) {
  return (chunk.kind == ChunkKind::kBegin || chunk.kind == ChunkKind::kSeen) &&
         chunk.size > sizeof chunk + sizeof(Author);
}

/* The size of the chunks of a program in the log. */
size_t size_of_program(const Text& log, uint16_t program) {
  size_t size = 0, at = 0;
  for (const Chunk* chunk; (chunk = chunk_at(log, at)) != nullptr; at += chunk->size) {
    if (chunk->program == program) size += chunk->size;
  }
  return size;
}

/* Removes the chunks of an entry that are not `kept`. */
template <class IsKept>
void remove_entry(Text* log, uint32_t entry, IsKept is_kept) {
  size_t to = 0, at = 0;
  for (const Chunk* chunk; (chunk = chunk_at(*log, at)) != nullptr;) {
    const size_t size = chunk->size;
    if (chunk->entry != entry || is_kept(*chunk)) {
      memmove(log->data() + to, chunk, size);
      to += size;
    }
    at += size;
  }
  log->cut(to);
}

/* The size of an entry's chunks in the log. */
size_t size_of_entry(const Text& log, uint32_t entry) {
  size_t size = 0, at = 0;
  for (const Chunk* chunk; (chunk = chunk_at(log, at)) != nullptr; at += chunk->size) {
    if (chunk->entry == entry) size += chunk->size;
  }
  return size;
}

/* Writes one entry. An edit that cannot be logged is made all the same. */
class Entry {
 public:
  void begin(const Author& author, const char* words, uint16_t program = 0) {
    author_ = author;
    words_ = words;
    program_ = program;
  }

  void set_note(const char* note) { note_ = note; }

  void add(const Step& step) {
    if (is_closed_) return;
    Text chunk;
    pack_step(step, 0, &chunk, program_);
    add(chunk);
  }

  void set_not_undoable() {
    if (is_closed_) return;
    Text chunk;
    pack(ChunkKind::kNotUndoable, 0, nullptr, 0, &chunk, program_);
    add(chunk);
    is_closed_ = true;
  }

 private:
  void add(Text& chunk) {
    is_closed_ = true;
    write(chunk);
    /* Who may not write it was never told of it. */
    if (number_ == 0 && program_ == 0 && errno != EACCES) {
      fail(kOk, "%s/%s: %s; undo will not know this edit", kStateFolder, kLog, strerror(errno));
    }
  }

  void write(Text& chunk) {
    if (!open_state(true) || !lock_folder()) return;
    if (const int file = open_state_file(kLog, O_RDWR | O_CREAT | O_APPEND); file >= 0) {
      is_closed_ = !append(file, chunk);
      close(file);
    }
    flock(state_folder(), LOCK_UN);
  }

  /* A logger that was stopped is not waited for for ever. */
  static bool lock_folder() {
    Wait wait(kLoggerMs);
    while (flock(state_folder(), LOCK_EX | LOCK_NB) != 0) {
      if (!wait.pause()) return false;
    }
    return true;
  }

  bool append(int file, Text& chunk) {
    struct stat status;
    if (fstat(file, &status) != 0) return false;
    Text log, fresh;
    const bool is_known = number_ != 0 && !is_shared_ && status.st_size == end_;
    if (!is_known && !read_log(file, &log)) return false;
    Chunk head;
    memcpy(&head, chunk.data(), sizeof head);
    if (number_ == 0 && program_ != 0 && join(log, chunk)) return true;
    if (number_ == 0) begin(&fresh);
    head.entry = number_;
    memcpy(chunk.data(), &head, sizeof head);
    fresh.add(chunk.c_str(), chunk.size());
    const size_t size = is_known ? static_cast<size_t>(end_) : log.size();
    const size_t most = is_shared_ ? kMostLog / 2 : kMostLog;
    const bool has_room =
        size_of_program(log, program_) + fresh.size() <= most && size_of_program(log, 0) <= most;
    if (size + fresh.size() > kMostLog || !has_room) return rewrite(file, fresh, most);
    end_ = static_cast<off_t>(size + fresh.size());
    if (write_all(file, fresh.c_str(), fresh.size())) return true;
    ftruncate(file, static_cast<off_t>(size));
    return false;
  }

  /* Removes a chunk that a kill has cut off. Finds the number of the last entry. */
  bool read_log(int file, Text* log) {
    if (!read_file(file, log)) return false;
    size_t at = 0;
    is_shared_ = program_ != 0;
    for (const Chunk* chunk; (chunk = chunk_at(*log, at)) != nullptr; at += chunk->size) {
      if (chunk->entry > last_) last_ = chunk->entry;
      is_shared_ |= chunk->program != 0;
    }
    if (at == log->size()) return true;
    log->cut(at);
    return ftruncate(file, static_cast<off_t>(at)) == 0;
  }

  /* Adds the chunk to an entry about the same record and program that has just begun. A chunk that
   * is as long as the one there replaces it. */
  bool join(const Text& log, const Text& chunk) {
    const Chunk& head = *chunk_at(chunk, 0);
    uint32_t recent = 0;
    size_t at = 0;
    for (const Chunk* known; (known = chunk_at(log, at)) != nullptr; at += known->size) {
      if (known->program != program_) continue;
      if (known->kind == ChunkKind::kSeen) {
        Author author;
        memcpy(&author, known + 1, sizeof author);
        recent = author_.boot_ms - author.boot_ms < kTogetherMs ? known->entry : 0;
      }
      if (known->entry != recent || known->kind != head.kind || known->table != head.table ||
          known->position != head.position) {
        continue;
      }
      Changes changes;
      changes.add(*known);
      changes.add(head);
      Text merged;
      pack_step(changes.first()->step(), recent, &merged, program_);
      number_ = recent;
      if (merged.size() != known->size) return false;
      const Descriptor in_place(open_state_file(kLog, O_WRONLY));
      return pwrite(in_place.number, merged.c_str(), merged.size(), static_cast<off_t>(at)) ==
             static_cast<ssize_t>(merged.size());
    }
    return false;
  }

  void begin(Text* to) {
    number_ = last_ + 1;
    Text payload;
    payload.add(reinterpret_cast<const char*>(&author_), sizeof author_);
    payload.add(words_, strlen(words_) + 1);
    payload.add(note_, strlen(note_) + 1);
    pack(program_ != 0 ? ChunkKind::kSeen : ChunkKind::kBegin, number_, payload.c_str(),
         payload.size(), to, program_);
  }

  /* Writes the log anew with this chunk and without what has no room. */
  bool rewrite(int file, const Text& fresh, size_t most) {
    Text log;
    if (!read_file(file, &log)) return false;
    log.add(fresh.c_str(), fresh.size());
    const bool fits = size_of_entry(log, number_) <= most;
    if (!fits) {
      remove_entry(&log, number_, begins_entry);
      pack(ChunkKind::kNotUndoable, number_, nullptr, 0, &log, program_);
    }
    make_room(&log, most);
    end_ = static_cast<off_t>(log.size());
    return replace_state_file(kLog, log.c_str(), log.size()) && fits;
  }

  /* Removes the oldest entries: of a program that has more than it may have, then of the one that
   * has the most. Where the watch writes, some more, so that it does not rewrite the log for each
   * change. */
  void make_room(Text* log, size_t most) const {
    size_t all = kMostLog;
    for (;;) {
      size_t largest = 0, at = 0;
      uint16_t program = 0;
      for (const Chunk* chunk; (chunk = chunk_at(*log, at)) != nullptr; at += chunk->size) {
        if (!begins_entry(*chunk)) continue;
        const size_t size = size_of_program(*log, chunk->program);
        if (size <= largest) continue;
        largest = size;
        program = chunk->program;
      }
      if (largest <= most && log->size() <= all) return;
      if (program_ != 0) {
        most = kMostLog / 2 - kMostLog / 16;
        all = kMostLog - kMostLog / 16;
      }
      const size_t before = log->size();
      do {
        if (!remove_oldest(log, program)) return;
        largest = size_of_program(*log, program);
      } while ((largest > most || log->size() > all) && before - log->size() < kMostLog / 32);
    }
  }

  bool remove_oldest(Text* log, uint16_t program) const {
    size_t at = 0;
    for (const Chunk* chunk; (chunk = chunk_at(*log, at)) != nullptr; at += chunk->size) {
      if (chunk->program != program || chunk->entry == number_) continue;
      remove_entry(log, chunk->entry, [](const Chunk&) { return false; });
      return true;
    }
    return false;
  }

  Author author_ = {};
  const char* words_ = "";
  const char* note_ = "";
  uint16_t program_ = 0;
  bool is_shared_ = false; /* the log has entries about other programs */
  uint32_t number_ = 0;    /* 0: nothing is written yet */
  uint32_t last_ = 0;
  off_t end_ = 0;          /* of the log after the last chunk of this entry */
  bool is_closed_ = false; /* nothing more is written */
};

/* Writes the edits of this call into the log. */
class Log final : public Journal {
 public:
  int begin(uint32_t) override { return kOk; }
  bool append(const Step& step) override {
    entry_.set_note(g_note);
    entry_.add(step);
    return true;
  }
  void set_not_undoable() override { entry_.set_not_undoable(); }
  void start() {
    entry_.begin({time(nullptr), boot_ms(), getuid(), static_cast<uint32_t>(getpid())},
                 g_words.c_str());
    g_journal = this;
  }

 private:
  Entry entry_;
};

Log g_log;

}  // namespace

void start_log() { g_log.start(); }

void log_changes(const Author& author, const char* words, const char* note,
                 const Changes& changes) {
  Entry entry;
  entry.begin(author, words);
  entry.set_note(note);
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    entry.add(change->step());
  }
}

/* ---- what the watch writes ---- */

void log_seen(const Author& author, const char* words, const Seen* seen) {
  const uint32_t program = hash_of(words, strcspn(words, "["));
  Entry entry;
  entry.begin(author, words, static_cast<uint16_t>(program >> 16 | 1));
  if (seen == nullptr) return entry.set_not_undoable();
  const Table& table = seen->table;
  const bool is_change = seen->was != nullptr && seen->is != nullptr;
  Mask named(table);
  for (const Field& field : table) {
    if (!is_named(table, field)) continue;
    if (is_change)
      named.add_difference(field, seen->was, seen->is);
    else
      named.add(field);
  }
  const Buffer none(table.stride);
  const bool is_whole = !is_change && !seen->is_unnamed;
  entry.add({table, seen->position, seen->was != nullptr ? seen->was : none.data(),
             seen->is != nullptr ? seen->is : none.data(), is_whole ? nullptr : named.bytes(),
             seen->was != nullptr, seen->is != nullptr});
  if (seen->is_unnamed) entry.set_not_undoable();
}

/* ---- the commands ---- */

namespace {

/* The log as it is now; empty when nothing was logged. */
int read_log(Text* log) {
  if (!open_state(false)) {
    return errno == ENOENT ? kOk : fail(kNoArea, "%s: %s", kStateFolder, strerror(errno));
  }
  const int file = open_state_file(kLog, O_RDONLY);
  if (file < 0) {
    return errno == ENOENT ? kOk : fail(kNoArea, "%s/%s: %s", kStateFolder, kLog, strerror(errno));
  }
  const bool is_read = read_file(file, log);
  const int why = errno;
  close(file);
  return is_read ? kOk : fail(kNoArea, "%s/%s: %s", kStateFolder, kLog, strerror(why));
}

/* An entry of the log. */
struct Logged {
  const Chunk* chunk;
  Author author;
  const char* words;
  const char* note;
  bool is_undoable;

  /* Words of scctl are kept as they are shown; another program has the name that it gave itself. */
  void add_words(Text* to) const {
    if (chunk->program == 0)
      to->add(words);
    else
      to->add_shown(words, strlen(words));
  }

  explicit Logged(const Text& log, const Chunk& begin) : chunk(&begin), is_undoable(true) {
    const char* payload = reinterpret_cast<const char*>(&begin + 1);
    memcpy(&author, payload, sizeof author);
    words = payload + sizeof author;
    note = words + strlen(words) + 1;
    size_t at = 0;
    for (const Chunk* other; (other = chunk_at(log, at)) != nullptr; at += other->size) {
      if (other->entry == begin.entry && other->kind == ChunkKind::kNotUndoable) {
        is_undoable = false;
      }
    }
  }
};

/* The newest entry before another one; null when there is none. */
const Chunk* entry_before(const Text& log, uint32_t number, bool all = false) {
  const Chunk* newest = nullptr;
  size_t at = 0;
  for (const Chunk* chunk; (chunk = chunk_at(log, at)) != nullptr; at += chunk->size) {
    if (begins_entry(*chunk) && (all || chunk->program == 0) && chunk->entry < number &&
        (newest == nullptr || chunk->entry > newest->entry)) {
      newest = chunk;
    }
  }
  return newest;
}

void print_entry(const Logged& entry, const Changes& changes) {
  Text line;
  line.print("%u  ", entry.chunk->entry);
  add_time(entry.author.time, false, &line);
  line.add("  ");
  if (entry.author.uid == kNobody)
    line.add('-');
  else
    add_user(entry.author.uid, &line);
  line.add("  ");
  entry.add_words(&line);
  if (!entry.is_undoable) line.add("  (cannot be undone)");
  puts(line.c_str());
  print_changes("  ", changes);
}

void write_entry(const Logged& entry, const Changes& changes, JsonWriter* writer) {
  writer->open('{', JsonWriter::kInline);
  writer->member("entry", entry.chunk->entry);
  write_author(entry.author, writer);
  writer->member(entry.chunk->program == 0 ? "command" : "program", entry.words);
  if (entry.note[0] != '\0') writer->member("note", entry.note);
  writer->name("undoable");
  writer->value().add(entry.is_undoable ? "true" : "false");
  writer->name("changes");
  write_changes(changes, writer);
  writer->close();
}

}  // namespace

bool is_logged(const Seen& seen, uint32_t* pid, Text* note) {
  Text log;
  struct stat status;
  if (!open_state(false) || fstatat(state_folder(), kLog, &status, 0) != 0 ||
      status.st_mtime + kRecently < time(nullptr) || read_log(&log) != kOk) {
    return false;
  }
  const Chunk* last = nullptr;
  Changes changes;
  size_t at = 0;
  for (const Chunk* chunk; (chunk = chunk_at(log, at)) != nullptr; at += chunk->size) {
    if (chunk->kind != ChunkKind::kStep || &kTables[chunk->table] != &seen.table ||
        chunk->position != seen.position) {
      continue;
    }
    last = chunk;
    if (chunk->program == 0) changes.add(*chunk);
  }
  if (last == nullptr || last->program != 0 || (last->is_used != 0) != (seen.is != nullptr)) {
    return false;
  }
  /* Another program may have changed other fields since. Of bytes without a name it is not known which
   * differ: the edits have to have written some. */
  const Change* change = changes.first();
  bool is_explained = !seen.is_unnamed;
  for (const Field& field : seen.table) {
    const bool named = is_named(seen.table, field);
    const uint32_t end = seen.is == nullptr ? 0 : field.record_at + uint32_t{field.size};
    for (uint32_t n = field.record_at; n < end; ++n) {
      const bool is_edited = change->mask.data()[n] != 0;
      const bool is_as_edited = is_edited && change->after.data()[n] == seen.is[n];
      const bool differs = named ? seen.was == nullptr || seen.was[n] != seen.is[n] : is_edited;
      if (differs && !is_as_edited) return false;
      is_explained |= !named && is_edited;
    }
  }
  if (seen.is != nullptr && !is_explained) return false;
  if (const Chunk* begin = entry_before(log, last->entry + 1); begin != nullptr) {
    const Logged entry(log, *begin);
    *pid = entry.author.pid;
    note->add(entry.note);
  }
  return true;
}

int run_log(Call& call) {
  Text log;
  if (const int status = read_log(&log); status != kOk) return status;
  Text text;
  JsonWriter writer(&text);
  if (call.has(kJson)) writer.open('[', JsonWriter::kLines);
  for (const Chunk* chunk = entry_before(log, UINT32_MAX, call.has(kEverybody)); chunk != nullptr;
       chunk = entry_before(log, chunk->entry, call.has(kEverybody))) {
    const Logged entry(log, *chunk);
    Changes changes;
    changes.add(log, 0, log.size(), chunk->entry);
    if (call.has(kJson))
      write_entry(entry, changes, &writer);
    else
      print_entry(entry, changes);
  }
  if (call.has(kJson)) {
    writer.close();
    puts(text.c_str());
  }
  return kOk;
}

namespace {

/* Takes one entry back, as one edit. */
int undo(Call& call, const Text& log, const Logged& entry) {
  Changes changes;
  changes.add(log, 0, log.size(), entry.chunk->entry);
  Text report;
  {
    Edit edit(call.source);
    if (const int status = edit.begin(changes.areas()); status != kOk) return status;
    take_back(edit, changes, "it does not come back", &report);
  }
  Text words;
  entry.add_words(&words);
  tell("taken back: %u of %u record%s of edit %u: %s", count(changes, Fate::kBack), count(changes),
       count(changes) == 1 ? "" : "s", entry.chunk->entry, words.c_str());
  fputs(report.c_str(), stdout);
  return count(changes, Fate::kBack) == count(changes) ? kOk : kRefused;
}

}  // namespace

int run_undo(Call& call) {
  uint32_t wanted = 1, before = UINT32_MAX;
  const bool is_one = call.has(kEntry); /* of any program */
  if (is_one) before = call.entry + 1;
  if (is_one && call.word_count > 0) return fail(kUsage, "N and --entry exclude each other");
  if (call.word_count == 1) {
    char* rest = call.words[0];
    const unsigned long number = strtoul(rest, &rest, 10);
    if (call.words[0][0] < '1' || call.words[0][0] > '9' || *rest != '\0') {
      return fail(kUsage, "expected a number of edits above 0, not '%s'", call.words[0]);
    }
    wanted = number < INT32_MAX ? static_cast<uint32_t>(number) : INT32_MAX; /* all */
  }
  Text log;
  if (const int status = read_log(&log); status != kOk) return status;
  const uint32_t first = before;
  for (uint32_t n = 0; n < wanted; ++n) {
    const Chunk* chunk = entry_before(log, before, is_one);
    if (is_one && (chunk == nullptr || chunk->entry != call.entry)) {
      return fail(kRefused, "entry %u is not in the log", call.entry);
    }
    if (chunk == nullptr && n == 0) return fail(kRefused, "no edit is logged");
    if (chunk == nullptr)
      return fail(kRefused, "only %u edit%s logged", n, n == 1 ? " is" : "s are");
    const Logged entry(log, *chunk);
    if (!entry.is_undoable) {
      return fail(kRefused, "edit %u cannot be undone: %s", chunk->entry, entry.words);
    }
    before = chunk->entry;
  }
  int status = kOk;
  before = first;
  for (uint32_t n = 0; n < wanted && !is_interrupted(); ++n) {
    const Chunk* chunk = entry_before(log, before, is_one);
    if (chunk == nullptr) break;
    const int undone = undo(call, log, Logged(log, *chunk));
    if (undone != kOk) status = undone;
    before = chunk->entry;
  }
  return status;
}

}  // namespace scctl
