/* try, confirm and revert: a change that takes itself back. try.h tells how. */
#include "try.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "changes.h"
#include "commands.h"
#include "store/kept.h"

namespace scctl {

namespace {

constexpr uint32_t kUsualSeconds = 90;
constexpr int kActorTries = 3000;
constexpr uint64_t kFreeFlash = 64 * 1024;
constexpr uint64_t kMarkerBytes = 4096;

int fail_state() { return fail(kNoArea, "%s: %s", kStateFolder, strerror(errno)); }

int fail_flash(const char* what) {
  return fail(kNoArea, "%s: %s: %s", kArchiveFolder, what, strerror(errno));
}

uint32_t saved_areas() {
  uint32_t areas = 0;
  for (const Area& area : kAreas) {
    if (area.save != nullptr) areas |= bit(id_of(area));
  }
  return areas;
}

/* ---- the marker ---- */

/* Judges archives and copies while nobody saves the areas, and renews the copies. */
class Bases {
 public:
  explicit Bases(uint32_t areas) : areas_(areas) {}

  int prepare() {
    uint64_t stale = 0;
    for (const Area& area : kAreas) {
      if (!has(area)) continue;
      CopyReport found;
      if (const int status = look(area, &found); status != kOk) return status;
      if (found.state == CopyState::kStale) stale += found.archive_bytes;
      if (found.state == CopyState::kNone) never_saved_ |= bit(id_of(area));
    }
    if (const int status = need_room(stale); status != kOk) return status;
    for (const Area& area : kAreas) {
      if (!has(area)) continue;
      if (const int status = renew(area); status != kOk) return status;
    }
    return kOk;
  }
  uint32_t never_saved() const { return never_saved_; }

 private:
  bool has(const Area& area) const { return (areas_ & bit(id_of(area))) != 0; }

  static int look(const Area& area, CopyReport* found) {
    const NoSaves no_saves(area);
    if (!no_saves) return fail(kRefused, "area %s is being saved by another program", area.name);
    const ArchiveFolder folder;
    if (!folder) return fail_flash("it cannot be locked");
    look_at_copy(area.row(), folder.descriptor(), found);
    if (found->state != CopyState::kUnknown && found->state != CopyState::kBroken) return kOk;
    return fail(kRefused, "%s: %s; nothing is tried", archive_path(area).text, found->reason);
  }

  static int need_room(uint64_t bytes) {
    struct statvfs room;
    if (statvfs(kArchiveFolder, &room) != 0) return fail_flash("its room is not known");
    if (room.f_blocks == 0) return kOk; /* ramfs knows no sizes */
    const uint64_t free = uint64_t{room.f_bavail} * room.f_frsize;
    const uint64_t needed = bytes + kMarkerBytes + kFreeFlash;
    if (free >= needed) return kOk;
    return fail(kRefused, "%s: %llu bytes are missing: the kept copies need %llu, and %u stay free",
                kArchiveFolder, static_cast<unsigned long long>(needed - free),
                static_cast<unsigned long long>(bytes + kMarkerBytes),
                static_cast<unsigned>(kFreeFlash));
  }

  /* Somebody may have saved since it was looked at. */
  static int renew(const Area& area) {
    const NoSaves no_saves(area);
    if (!no_saves) return fail(kRefused, "area %s is being saved by another program", area.name);
    const ArchiveFolder folder;
    CopyReport found;
    if (!folder || !look_at_copy(area.row(), folder.descriptor(), &found)) {
      return fail_flash("a kept copy cannot be renewed");
    }
    if (found.state != CopyState::kStale) return kOk;
    return renew_copy(area.row(), folder.descriptor())
               ? kOk
               : fail_flash("a kept copy cannot be renewed");
  }

  uint32_t areas_;
  uint32_t never_saved_ = 0;
};

/* Before the first change in an area, its base is on the flash, and then the marker. */
int mark(Try& running, uint32_t areas) {
  const uint32_t fresh = areas & saved_areas() & ~running.header.marked;
  if (fresh == 0) return kOk;
  Bases bases(fresh);
  if (const int status = bases.prepare(); status != kOk) return status;
  const ArchiveFolder folder;
  if (!folder) return fail_flash("it cannot be locked");
  Marker marker = {};
  read_marker(folder.descriptor(), &marker);
  marker.areas |= fresh;
  marker.never_saved |= bases.never_saved();
  /* The journal first: the end of the try removes a marker that it knows. */
  running.header.marked |= fresh;
  if (!running.write()) return fail_state();
  if (!write_marker(folder.descriptor(), marker)) return fail_flash("the marker is not written");
  return kOk;
}

/* Writes the edits of this process into the try's journal. */
class TryJournal final : public Journal {
 public:
  explicit TryJournal(Try& running) : running_(running), before_(g_journal) { g_journal = this; }
  ~TryJournal() { g_journal = before_; }
  TryJournal(const TryJournal&) = delete;
  TryJournal& operator=(const TryJournal&) = delete;

  int begin(uint32_t areas) override { return mark(running_, areas); }
  bool append(const Step& step) override {
    if (running_.append(step)) return true;
    fail_state();
    return false;
  }
  void set_not_undoable() override {}

 private:
  Try& running_;
  Journal* before_;
};

/* ---- making ---- */

volatile sig_atomic_t g_ending;
void end_program(int) { g_ending = 1; }

/* Runs a program in the foreground. It ends with this process. A signal that would end this process
 * ends the program. */
int run_program(char** words) {
  signal(SIGCHLD, SIG_DFL);
  fflush(stdout);
  struct sigaction action = {};
  action.sa_handler = end_program;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);
  signal(SIGINT, SIG_IGN); /* the terminal sends these to the program, too */
  signal(SIGQUIT, SIG_IGN);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) return fail(kRefused, "%s: %s", words[0], strerror(errno));
  if (child == 0) {
    constexpr int kOwn[] = {SIGTERM, SIGHUP, SIGINT, SIGQUIT};
    for (const int number : kOwn) signal(number, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(kRefused);
    execvp(words[0], words);
    const int status = errno == ENOENT ? 127 : 126;
    fail(status, "%s: %s", words[0], strerror(errno));
    _exit(status);
  }
  int ended = 0;
  while (waitpid(child, &ended, 0) != child) {
    if (g_ending != 0) kill(child, SIGKILL);
  }
  if (g_ending != 0) return fail(kRefused, "%s did not end in time", words[0]);
  return WIFEXITED(ended) ? WEXITSTATUS(ended) : 128 + WTERMSIG(ended);
}

int make_by_program(Call& call, Try& running) {
  if (const int status = mark(running, saved_areas()); status != kOk) return status;
  call.source.open_live();
  if (!copy_areas(call.source)) return fail_state();
  running.header.is_command = 1;
  if (!running.write()) return fail_state();
  if (const int status = run_program(call.words); status != kOk) return status;
  for (int n = 0; n < kAreaCount; ++n) Source::forget_live(static_cast<AreaId>(n));
  Source now;
  now.open_live();
  Changes changes;
  add_differences(now, running, &changes);
  running.header.is_command = 0;
  if (!running.write()) return fail_state();
  remove_copies();
  return kOk;
}

void set_text(const char* from, char* to, size_t size) {
  snprintf(to, size, "%s", from != nullptr ? from : "");
}

/* ---- starting ---- */

int refuse_running(const Try& running) {
  Text user;
  add_user(running.header.author.uid, &user);
  return fail(kRefused, "a try of %s runs, for %llu s; scctl confirm or scctl revert ends it",
              user.c_str(), static_cast<unsigned long long>(running.left()));
}

/* Takes the actor's role for a try that is started; the last one's guards have to be gone. */
int become_actor() {
  if (!open_state(true)) return fail_state();
  if (!take_role(Role::kActor, 1)) {
    return fail(kRefused, "a try is being made or ended by process %d",
                static_cast<int>(holder_of(Role::kActor)));
  }
  Try running;
  if (running.open()) return refuse_running(running);
  if (is_marked()) {
    return fail(kRefused, "%s/%s: a try of before the boot left it; scguard restore ends that",
                kArchiveFolder, kMarkerName);
  }
  constexpr timespec kPause = {0, 1000000};
  for (int n = 0; holder_of(Role::kGuard) != 0 || holder_of(Role::kTwin) != 0; ++n) {
    if (n == kActorTries) return fail(kRefused, "the guards of the last try do not end");
    nanosleep(&kPause, nullptr);
  }
  return kOk;
}

int start(uint32_t seconds, Try& running) {
  if (const int status = become_actor(); status != kOk) return status;
  TryHeader& header = running.header;
  header.phase = Phase::kMaking;
  header.author = {time(nullptr), boot_ms(), getuid(), static_cast<uint32_t>(getpid())};
  header.deadline_ms = header.author.boot_ms + uint64_t{seconds} * 1000;
  for (int n = 0; n < 3 && header.terminal[0] == '\0'; ++n) {
    set_text(ttyname(n), header.terminal, sizeof header.terminal);
  }
  set_text(g_words.c_str(), header.words, sizeof header.words);
  if (!running.create()) return fail_state();
  if (start_guards()) return kOk;
  Text report;
  revert(running, "its guards do not start", &report);
  return fail(kRefused, "the guards of the try do not start");
}

int take_back_failed(Try& running, int status) {
  clear_interrupt();
  Text report;
  const Ended ended = revert(running, "it failed", &report);
  leave_role(Role::kActor);
  fail(status, "the try failed, and is taken back%s",
       ended == Ended::kYes ? "" : " by its guards: another program holds a record");
  fputs(report.c_str(), stderr);
  return status;
}

/* ---- the status ---- */

void print_waiting() {
  Text bytes;
  const int file = open_state_file("waiting", O_RDONLY);
  if (file < 0) return;
  Changes changes;
  if (read_file(file, &bytes)) {
    size_t at = 0;
    for (const Chunk* chunk; (chunk = chunk_at(bytes, at)) != nullptr; at += chunk->size) {
      changes.add(*chunk);
    }
  }
  close(file);
  if (changes.empty()) return;
  puts("records that wait for scctl revert:");
  Text lines;
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    printf("  %s/%u\n", change->table->name, change->position + 1);
  }
}

int print_no_try(Call& call) {
  if (call.has(kJson)) {
    puts("null");
    return kRefused;
  }
  puts("no try runs");
  if (!open_state(false)) return kRefused;
  Text ended;
  const int file = open_state_file("ended", O_RDONLY);
  if (file >= 0 && read_file(file, &ended)) {
    printf("the last one: %s", ended.c_str());
  }
  if (file >= 0) close(file);
  print_waiting();
  return kRefused;
}

const char* phase_name(Phase phase) {
  static constexpr const char* kNames[] = {"making", "made", "confirming", "reverting"};
  return kNames[static_cast<uint32_t>(phase) & 3];
}

int run_status(Call& call) {
  Try running;
  if (!open_state(false)) return errno == ENOENT ? print_no_try(call) : fail_state();
  if (!running.open()) return print_no_try(call);
  call.source.open_live();
  Changes changes, later;
  running.read_changes(call.source, &changes);
  find_later_changes(call.source, changes, &later);
  const TryHeader& header = running.header;
  if (call.has(kJson)) {
    Text text;
    JsonWriter writer(&text);
    writer.open('{', JsonWriter::kLines);
    write_author(header.author, &writer);
    writer.name("command");
    add_json_text(header.words, &writer.value());
    writer.name("phase");
    add_json_text(phase_name(header.phase), &writer.value());
    writer.name("left");
    writer.value().print("%llu", static_cast<unsigned long long>(running.left()));
    writer.name("changes");
    write_changes(changes, &writer);
    writer.name("others");
    write_changes(later, &writer);
    writer.close();
    puts(text.c_str());
    return kOk;
  }
  Text line;
  line.add("a try of ");
  add_user(header.author.uid, &line);
  line.print(" (process %u) since ", header.author.pid);
  add_time(header.author.time, false, &line);
  line.print(", %s, %llu s left: ", phase_name(header.phase),
             static_cast<unsigned long long>(running.left()));
  line.add_shown(header.words, strlen(header.words));
  puts(line.c_str());
  print_changes("  ", changes);
  if (!later.empty()) {
    puts("what others changed in these records since:");
    print_changes("  ", later);
  }
  return kOk;
}

/* Lays the values of before over a record. */
void lay_over(const Change& change, uint8_t* record) {
  for (uint32_t at = 0; at < change.table->stride; ++at) {
    if (change.mask.data()[at] != 0) record[at] = change.before.data()[at];
  }
  if (is_section(*change.table)) return;
  const int32_t id = change.was_used ? static_cast<int32_t>(change.position + 1) : change.table->free;
  memcpy(record + change.table->id_at, &id, sizeof id);
}

/* Takes the actor's role in a try that runs and is made. */
int join(Try& running, const char* what) {
  if (!open_state(false)) {
    return errno == ENOENT ? fail(kRefused, "no try runs") : fail_state();
  }
  if (!running.open()) return fail(kRefused, "no try runs");
  if (!take_role(Role::kActor, kActorTries)) {
    return fail(kRefused, "%s: process %d still makes or ends the try", what,
                static_cast<int>(holder_of(Role::kActor)));
  }
  if (!running.open()) return fail(kRefused, "no try runs: it has ended");
  const Phase phase = running.header.phase;
  if (phase == Phase::kMaking) return fail(kRefused, "%s: the try was not made", what);
  return kOk;
}

int extend(uint32_t seconds) {
  Try running;
  if (const int status = join(running, "not extended"); status != kOk) return status;
  int status = kOk;
  if (running.header.phase != Phase::kMade || running.is_over()) {
    status = fail(kRefused, "too late: the try ends already");
  } else {
    running.header.deadline_ms = boot_ms() + uint64_t{seconds} * 1000;
    if (!running.write()) status = fail_state();
  }
  leave_role(Role::kActor);
  return status;
}

}  // namespace

int open_try(Source* source) {
  Try running;
  if (!open_state(false)) return errno == ENOENT ? fail(kNoArea, "no try runs") : fail_state();
  if (!running.open()) return fail(kNoArea, "no try runs");
  Source live;
  live.open_live();
  Changes changes;
  running.read_changes(live, &changes);
  source->open_copy("try", changes.areas());
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    const Table& table = *change->table;
    uint8_t* block = source->block(table.area);
    if (block != nullptr) lay_over(*change, block + table.at + change->position * table.stride);
  }
  return kOk;
}

bool g_is_trying = false;

int run_tried(Call& call, int (*make)(Call& call)) {
  if (g_is_trying) return fail(kUsage, "a try in a try");
  Try running;
  const uint32_t seconds = call.has(kTimeout) ? call.timeout : kUsualSeconds;
  if (const int status = start(seconds, running); status != kOk) {
    leave_role(Role::kActor);
    return status;
  }
  int status;
  if (call.is_foreign) {
    status = make_by_program(call, running);
  } else {
    const TryJournal journal(running);
    g_is_trying = true;
    status = make(call);
    g_is_trying = false;
    if (flush_output() != kOk || is_interrupted()) status = kRefused;
  }
  if (status != kOk) return take_back_failed(running, status);
  const bool is_in_time = !running.is_over() && running.set_phase(Phase::kMade);
  if (!is_in_time) return take_back_failed(running, fail(kRefused, "its time is over"));
  leave_role(Role::kActor);
  tell("scctl confirm keeps the change; it is taken back in %llu s",
       static_cast<unsigned long long>(running.left()));
  return kOk;
}

namespace {

int run_inner(Call& call) { return run_words(call.word_count, call.words); }

}  // namespace

int run_try(Call& call) {
  if (call.has(kStatus)) {
    if (call.word_count != 0 || call.has(kTimeout)) {
      return fail(kUsage, "usage: scctl try --status [--json]");
    }
    return run_status(call);
  }
  if (call.has(kJson)) return fail(kUsage, "--json needs --status");
  if (call.word_count == 0) {
    if (!call.has(kTimeout) || call.is_foreign)
      return fail(kUsage, "what is tried? scctl help try");
    return extend(call.timeout);
  }
  if (!call.is_foreign && strcmp(call.words[0], "batch") != 0 &&
      strcmp(call.words[0], "import") != 0) {
    return fail(kUsage, "'%s': expected batch, import or -- COMMAND", call.words[0]);
  }
  return run_tried(call, run_inner);
}

/* ---- confirm ---- */

namespace {

/* Prints what others changed in an area and nobody saved. True when there was anything. */
bool print_unsaved(const Table& table, Source& live, const uint8_t* saved, Changes& own) {
  Reader reader(live, table);
  Buffer copy(table.stride), zeros(table.stride);
  Changes others;
  for (uint32_t position = 0; position < table.capacity; ++position) {
    const uint8_t* was =
        saved == nullptr ? zeros.data() : saved + table.at + position * table.stride;
    const bool was_used = is_section(table) || (saved != nullptr && is_used(table, was));
    const bool used = reader.copy(position, copy.data());
    if (!was_used && !used) continue;
    const Change* change = own.find(table, position);
    Mask differing(table);
    if (was_used && used) differing.add_differences(was, copy.data());
    for (uint32_t at = 0; change != nullptr && at < table.stride; ++at) {
      if (change->mask.data()[at] != 0 && change->after.data()[at] == copy.data()[at]) {
        differing.bytes()[at] = 0;
      }
    }
    const bool is_own =
        change != nullptr && change->was_used == was_used && change->is_used == used;
    if (was_used != used && is_own) continue;
    if (was_used == used && differing.empty()) continue;
    others.add({table, position, was, copy.data(), was_used && used ? differing.bytes() : nullptr,
                was_used, used});
  }
  print_changes("  ", others);
  return !others.empty();
}

bool list_unsaved(Source& live, Changes& own, uint32_t areas) {
  bool any = false;
  for (const Table& table : kTables) {
    if ((areas & bit(table.area)) == 0 || live.block(table.area) == nullptr) continue;
    ArchiveImage image;
    read_own_archive(kAreas[table.area], &image);
    any |= print_unsaved(table, live, image.bytes, own);
    free(image.bytes);
  }
  return any;
}

int fail_confirm(Try& running, int status) {
  running.set_phase(Phase::kMade);
  return status;
}

/* The removal of the marker is what confirms. */
int commit(Try& running) {
  for (const Area& area : kAreas) {
    if ((running.header.marked & bit(id_of(area))) == 0) continue;
    ArchiveImage image;
    const char* fault = read_own_archive(area, &image);
    free(image.bytes);
    if (fault == nullptr || image.verdict.state == State::kMissing) continue;
    return fail_confirm(running,
                        fail(kRefused, "not confirmed: %s: %s", archive_path(area).text, fault));
  }
  const ArchiveFolder folder;
  if (folder && remove_marker(folder.descriptor())) return kOk;
  return fail_confirm(running, fail_flash("not confirmed: the marker is not removed"));
}

/* Keeps others from saving the areas from n on, and commits. */
int commit_without_saves(Try& running, int n) {
  while (n < kAreaCount && (running.header.marked & bit(static_cast<AreaId>(n))) == 0) ++n;
  if (n == kAreaCount) return commit(running);
  const NoSaves no_saves(kAreas[n]);
  if (no_saves) return commit_without_saves(running, n + 1);
  return fail_confirm(running, fail(kRefused,
                                    "not confirmed: area %s is being saved by another "
                                    "program",
                                    kAreas[n].name));
}

int save_and_commit(Call& call, Try& running, uint32_t areas) {
  {
    const OwnSaves own;
    if (!own) return fail_confirm(running, fail(kRefused, "not confirmed: a save does not end"));
    for (const Area& area : kAreas) {
      if ((areas & bit(id_of(area))) == 0) continue;
      if (const int status = save_area(call, id_of(area)); status != kOk) {
        return fail_confirm(running, status);
      }
    }
  }
  return commit_without_saves(running, 0);
}

int confirm(Call& call, Try& running) {
  if (running.header.phase == Phase::kConfirming && !is_marked()) {
    finish_confirmed(running); /* another confirm was killed behind its last step */
    return kOk;
  }
  if (running.header.phase == Phase::kReverting || running.is_over()) {
    return fail(kRefused, "too late: the try is being taken back");
  }
  if (running.header.marked != 0 && !is_marked()) {
    return fail(kRefused, "not confirmed: %s/%s was removed; scctl revert takes the try back",
                kArchiveFolder, kMarkerName);
  }
  call.source.open_live();
  Changes changes;
  running.read_changes(call.source, &changes);
  const uint32_t areas = changes.areas() & saved_areas();
  if (list_unsaved(call.source, changes, areas)) {
    if (call.has(kOnlyMine)) {
      return fail(kRefused, "not confirmed: what others changed would be saved, too");
    }
    tell("what others changed in these areas is saved, too");
  }
  if (!running.set_phase(Phase::kConfirming)) return fail_state();
  if (const int status = save_and_commit(call, running, areas); status != kOk) return status;
  finish_confirmed(running);
  return kOk;
}

}  // namespace

int run_confirm(Call& call) {
  Try running;
  int status = join(running, "not confirmed");
  if (status == kOk) status = confirm(call, running);
  leave_role(Role::kActor);
  return status;
}

/* ---- revert ---- */

namespace {

/* Tries again for the records that wait. */
int take_back_waiting(Call& call) {
  Text bytes;
  const int file = open_state_file("waiting", O_RDONLY);
  if (file < 0) return fail(kRefused, "no try runs");
  const bool is_read = read_file(file, &bytes);
  close(file);
  if (!is_read) return fail_state();
  Changes changes;
  size_t at = 0;
  for (const Chunk* chunk; (chunk = chunk_at(bytes, at)) != nullptr; at += chunk->size) {
    changes.add(*chunk);
  }
  call.source.open_live();
  Text report, rest;
  take_back_live(call.source, changes, &report);
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    if (change->fate != Fate::kWaits && change->fate != Fate::kDue) continue;
    const bool whole = !change->was_used || !change->is_used;
    pack_step({*change->table, change->position, change->before.data(), change->after.data(),
               whole ? nullptr : change->mask.data(), change->was_used, change->is_used},
              0, &rest);
  }
  if (rest.size() == 0)
    unlinkat(state_folder(), "waiting", 0);
  else if (!replace_state_file("waiting", rest.c_str(), rest.size()))
    return fail_state();
  tell("taken back: %u of %u records that waited", count(changes, Fate::kBack), count(changes));
  fputs(report.c_str(), stdout);
  return rest.size() == 0 ? kOk : kRefused;
}

}  // namespace

int run_revert(Call& call) {
  if (!open_state(false)) {
    return errno == ENOENT ? fail(kRefused, "no try runs") : fail_state();
  }
  Try running;
  if (!running.open()) return take_back_waiting(call);
  if (const int status = join(running, "not taken back"); status != kOk) return status;
  if (running.header.phase == Phase::kConfirming && !is_marked()) {
    finish_confirmed(running);
    leave_role(Role::kActor);
    return fail(kRefused, "too late: the try was confirmed");
  }
  Text report;
  const Ended ended = revert(running, "by scctl revert", &report);
  leave_role(Role::kActor);
  fputs(report.c_str(), stdout);
  if (ended == Ended::kYes) return kOk;
  return fail(kRefused, "its guards go on: other programs hold records or save areas");
}

}  // namespace scctl
