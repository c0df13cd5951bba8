/* The log of scctl's own edits in this boot, and undo. A call that changes records is one entry,
 * whose steps are written down before they are made. The log takes 64 KB at most: the oldest
 * entries make room, and an entry that does not fit is kept without its steps.
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
#include "state.h"
#include "store/take_back.h"

namespace scctl {

namespace {

constexpr size_t kMostLog = 64 * 1024;
constexpr int kTriesToLog = 1000;
constexpr char kLog[] = "log";

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
  void begin(const Author& author, const char* words) {
    author_ = author;
    words_ = words;
  }

  void add(const Step& step) {
    if (is_closed_) return;
    Text chunk;
    pack_step(step, 0, &chunk);
    add(chunk);
  }

  void set_not_undoable() {
    if (is_closed_) return;
    Text chunk;
    pack(ChunkKind::kNotUndoable, 0, nullptr, 0, &chunk);
    add(chunk);
    is_closed_ = true;
  }

 private:
  void add(Text& chunk) {
    is_closed_ = true;
    if (!open_state(true) || !lock_folder()) return;
    if (const int file = open_state_file(kLog, O_RDWR | O_CREAT | O_APPEND); file >= 0) {
      is_closed_ = !append(file, chunk);
      close(file);
    }
    flock(state_folder(), LOCK_UN);
  }

  /* A logger that was stopped is not waited for for ever. */
  static bool lock_folder() {
    for (int n = 0; n < kTriesToLog; ++n) {
      if (flock(state_folder(), LOCK_EX | LOCK_NB) == 0) return true;
      pause_ms(1);
    }
    return false;
  }

  bool append(int file, Text& chunk) {
    struct stat status;
    if (fstat(file, &status) != 0) return false;
    Text log, fresh;
    const bool is_known = number_ != 0 && status.st_size == end_;
    if (!is_known && !read_log(file, &log)) return false;
    if (number_ == 0) begin(&fresh);
    Chunk head;
    memcpy(&head, chunk.data(), sizeof head);
    head.entry = number_;
    memcpy(chunk.data(), &head, sizeof head);
    fresh.add(chunk.c_str(), chunk.size());
    const size_t size = is_known ? static_cast<size_t>(end_) : log.size();
    if (size + fresh.size() > kMostLog) return rewrite(file, fresh);
    end_ = static_cast<off_t>(size + fresh.size());
    if (write_all(file, fresh.c_str(), fresh.size())) return true;
    ftruncate(file, static_cast<off_t>(size));
    return false;
  }

  /* Removes a chunk that a kill has cut off. Finds the number of the last entry. */
  bool read_log(int file, Text* log) {
    if (!read_file(file, log)) return false;
    size_t at = 0;
    for (const Chunk* chunk; (chunk = chunk_at(*log, at)) != nullptr; at += chunk->size) {
      if (chunk->entry > last_) last_ = chunk->entry;
    }
    if (at == log->size()) return true;
    log->cut(at);
    return ftruncate(file, static_cast<off_t>(at)) == 0;
  }

  void begin(Text* to) {
    number_ = last_ + 1;
    Text payload;
    payload.add(reinterpret_cast<const char*>(&author_), sizeof author_);
    payload.add(words_);
    payload.add('\0');
    pack(ChunkKind::kBegin, number_, payload.c_str(), payload.size(), to);
  }

  /* Writes the log anew with this chunk and without what has no room. */
  bool rewrite(int file, const Text& fresh) {
    Text log;
    if (!read_file(file, &log)) return false;
    log.add(fresh.c_str(), fresh.size());
    const size_t own = size_of_entry(log, number_);
    const bool fits = own <= kMostLog;
    Text closed;
    if (!fits) pack(ChunkKind::kNotUndoable, number_, nullptr, 0, &closed);
    const auto is_kept = [&](const Chunk& chunk) {
      return fits || chunk.entry != number_ || chunk.kind == ChunkKind::kBegin;
    };
    size_t size = closed.size(), at = 0;
    for (const Chunk* chunk; (chunk = chunk_at(log, at)) != nullptr; at += chunk->size) {
      if (is_kept(*chunk)) size += chunk->size;
    }
    const Chunk* first = chunk_at(log, 0);
    uint32_t oldest = first != nullptr ? first->entry : number_; /* that is kept */
    for (; size > kMostLog && oldest < number_; ++oldest) size -= size_of_entry(log, oldest);
    Text kept;
    at = 0;
    for (const Chunk* chunk; (chunk = chunk_at(log, at)) != nullptr; at += chunk->size) {
      if (chunk->entry < oldest || !is_kept(*chunk)) continue;
      kept.add(reinterpret_cast<const char*>(chunk), chunk->size);
    }
    kept.add(closed.c_str(), closed.size());
    end_ = static_cast<off_t>(kept.size());
    return replace_state_file(kLog, kept.c_str(), kept.size()) && fits;
  }

  Author author_ = {};
  const char* words_ = "";
  uint32_t number_ = 0; /* 0: nothing is written yet */
  uint32_t last_ = 0;
  off_t end_ = 0;          /* of the log after the last chunk of this entry */
  bool is_closed_ = false; /* nothing more is written */
};

/* Writes the edits of this call into the log. */
class Log final : public Journal {
 public:
  int begin(uint32_t) override { return kOk; }
  bool append(const Step& step) override {
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

void log_changes(const Author& author, const char* words, const Changes& changes) {
  Entry entry;
  entry.begin(author, words);
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    entry.add(change->step());
  }
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
  bool is_undoable;

  explicit Logged(const Text& log, const Chunk& begin) : chunk(&begin), is_undoable(true) {
    const char* payload = reinterpret_cast<const char*>(&begin + 1);
    memcpy(&author, payload, sizeof author);
    words = payload + sizeof author;
    size_t at = 0;
    for (const Chunk* other; (other = chunk_at(log, at)) != nullptr; at += other->size) {
      if (other->entry == begin.entry && other->kind == ChunkKind::kNotUndoable) {
        is_undoable = false;
      }
    }
  }
};

/* The newest entry before another one; null when there is none. */
const Chunk* entry_before(const Text& log, uint32_t number) {
  const Chunk* newest = nullptr;
  size_t at = 0;
  for (const Chunk* chunk; (chunk = chunk_at(log, at)) != nullptr; at += chunk->size) {
    if (chunk->kind == ChunkKind::kBegin && chunk->entry < number &&
        chunk->size > sizeof *chunk + sizeof(Author) &&
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
  add_user(entry.author.uid, &line);
  line.add("  ");
  line.add_shown(entry.words, strlen(entry.words));
  if (!entry.is_undoable) line.add("  (cannot be undone)");
  puts(line.c_str());
  print_changes("  ", changes);
}

void write_entry(const Logged& entry, const Changes& changes, JsonWriter* writer) {
  writer->open('{', JsonWriter::kInline);
  writer->member("entry", entry.chunk->entry);
  write_author(entry.author, writer);
  writer->member("command", entry.words);
  writer->name("undoable");
  writer->value().add(entry.is_undoable ? "true" : "false");
  writer->name("changes");
  write_changes(changes, writer);
  writer->close();
}

}  // namespace

int run_log(Call& call) {
  Text log;
  if (const int status = read_log(&log); status != kOk) return status;
  Text text;
  JsonWriter writer(&text);
  if (call.has(kJson)) writer.open('[', JsonWriter::kLines);
  for (const Chunk* chunk = entry_before(log, UINT32_MAX); chunk != nullptr;
       chunk = entry_before(log, chunk->entry)) {
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
    take_back(edit, changes, &report);
  }
  Text words;
  words.add_shown(entry.words, strlen(entry.words));
  tell("taken back: %u of %u record%s of edit %u: %s", count(changes, Fate::kBack), count(changes),
       count(changes) == 1 ? "" : "s", entry.chunk->entry, words.c_str());
  fputs(report.c_str(), stdout);
  return count(changes, Fate::kBack) == count(changes) ? kOk : kRefused;
}

}  // namespace

int run_undo(Call& call) {
  uint32_t wanted = 1;
  if (call.word_count == 1) {
    char* rest = call.words[0];
    const unsigned long number = strtoul(rest, &rest, 10);
    if (call.words[0][0] < '1' || call.words[0][0] > '9' || *rest != '\0' || number > INT32_MAX) {
      return fail(kUsage, "expected a number of edits above 0, not '%s'", call.words[0]);
    }
    wanted = static_cast<uint32_t>(number);
  }
  Text log;
  if (const int status = read_log(&log); status != kOk) return status;
  uint32_t before = UINT32_MAX;
  for (uint32_t n = 0; n < wanted; ++n) {
    const Chunk* chunk = entry_before(log, before);
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
  before = UINT32_MAX;
  for (uint32_t n = 0; n < wanted && !is_interrupted(); ++n) {
    const Chunk* chunk = entry_before(log, before);
    if (chunk == nullptr) break;
    const int undone = undo(call, log, Logged(log, *chunk));
    if (undone != kOk) status = undone;
    before = chunk->entry;
  }
  return status;
}

}  // namespace scctl
