/* try, confirm and revert: a change that takes itself back. try.h tells how. */
#include "try.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "changes.h"
#include "commands.h"
#include "store/kept.h"

namespace scctl {

namespace {

constexpr uint32_t kUsualSeconds = 90;
constexpr uint32_t kGuardsEndMs = 3000;
constexpr uint32_t kMarkerBytes = 4096;

/* ---- the marker ---- */

/* Judges archives and copies while nobody saves the areas, and renews the copies. */
class Bases {
 public:
  explicit Bases(uint32_t areas) : areas_(areas) {}

  int prepare() {
    uint32_t stale = 0;
    for (const Area& area : kAreas) {
      if (!has(area)) continue;
      CopyReport found;
      if (const int status = look(area, false, &found); status != kOk) return status;
      if (found.state == CopyState::kStale) stale += static_cast<uint32_t>(found.archive_bytes);
      if (found.state == CopyState::kNone) never_saved_ |= bit(id_of(area));
    }
    if (const int status = need_room(stale); status != kOk) return status;
    for (const Area& area : kAreas) {
      if (!has(area)) continue;
      CopyReport found;
      if (const int status = look(area, true, &found); status != kOk) return status;
    }
    return kOk;
  }
  uint32_t never_saved() const { return never_saved_; }

 private:
  bool has(const Area& area) const { return (areas_ & bit(id_of(area))) != 0; }

  /* Judges the archive and its copy while nobody saves, and renews a copy that is stale. */
  static int look(const Area& area, bool is_renewed, CopyReport* found) {
    const NoSaves no_saves(area);
    if (!no_saves) return fail_saving(area);
    const ArchiveFolder folder;
    if (!folder) return fail_flash("it cannot be locked");
    look_at_copy(area.row(), folder.descriptor(), found);
    if (found->state == CopyState::kUnknown || found->state == CopyState::kBroken) {
      return fail(kRefused, "%s: %s; nothing is tried", archive_path(area).text, found->reason);
    }
    if (!is_renewed || found->state != CopyState::kStale) return kOk;
    return renew_copy(area.row(), folder.descriptor())
               ? kOk
               : fail_flash("a kept copy cannot be renewed");
  }

  static int need_room(uint32_t bytes) {
    const uint32_t missing = missing_room(kArchiveFolder, bytes + kMarkerBytes);
    if (missing == 0) return kOk;
    return fail(kRefused, "%s: %u bytes are missing: the kept copies need %u, and %u stay free",
                kArchiveFolder, missing, bytes + kMarkerBytes, kKeptFree);
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

void set_text(const char* from, char* to, size_t size) {
  snprintf(to, size, "%s", from != nullptr ? from : "");
}

/* Writes the edits of this process into the try's journal. */
class TryJournal final : public Journal {
 public:
  explicit TryJournal(Try& running) : running_(running), before_(g_journal) { g_journal = this; }
  ~TryJournal() { g_journal = before_; }
  TryJournal(const TryJournal&) = delete;
  TryJournal& operator=(const TryJournal&) = delete;

  int begin(uint32_t areas) override {
    char(&note)[sizeof TryHeader::note] = running_.header.note;
    if (note[0] == '\0' && g_note[0] != '\0') {
      set_text(g_note, note, sizeof note);
      if (!running_.write()) return fail_state();
    }
    return mark(running_, areas);
  }
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
  Text why_not;
  if (!copy_areas(call.source, &why_not)) return fail_state();
  if (why_not.size() > 0) fail(kOk, "copied area by area, not in one moment: %s", why_not.c_str());
  running.header.is_command = 1;
  if (!running.write()) return fail_state();
  if (const int status = run_program(call.words); status != kOk) return status;
  for (int n = 0; n < kAreaCount; ++n) Source::forget_live(static_cast<AreaId>(n));
  Source now;
  now.open_live();
  Changes changes;
  if (!add_differences(now, running, &changes)) return fail_state();
  running.header.is_command = 0;
  if (!running.write()) return fail_state();
  remove_copies();
  return kOk;
}

/* ---- starting ---- */

int refuse_running(const Try& running) {
  Text user;
  add_user(running.header.author.uid, &user);
  return fail(kRefused, "a try of %s runs, for %u s; scctl confirm or scctl revert ends it",
              user.c_str(), running.left());
}

/* Takes the actor's role for a try that is started; the last one's guards have to be gone. */
int become_actor() {
  if (!open_state(true)) return fail_state();
  if (!take_role(Role::kActor, 0)) {
    return fail(kRefused, "a try is being made or ended by process %d",
                static_cast<int>(holder_of(Role::kActor)));
  }
  Try running;
  if (running.open()) return refuse_running(running);
  if (is_marked()) {
    return fail(kRefused, "%s/%s is of a try before the last boot; scguard restore ends it",
                kArchiveFolder, kMarkerName);
  }
  Wait wait(kGuardsEndMs);
  while (is_guarded(Role::kGuard) || is_guarded(Role::kTwin)) {
    if (!wait.pause()) return fail(kRefused, "the guards of the last try do not end");
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
       ended != Ended::kNotYet ? "" : " by its guards: another program holds a record");
  fputs(report.c_str(), stderr);
  return status;
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

bool g_is_trying = false;

namespace {

bool has_changes(Call& call, const Try& running) {
  Changes changes;
  call.source.open_live();
  running.read_changes(call.source, &changes);
  return !changes.empty();
}

int end_unchanged(Try& running) {
  Text report;
  revert(running, "it changed nothing", &report);
  leave_role(Role::kActor);
  tell("nothing was changed; no try runs");
  return kOk;
}

}  // namespace

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
  if (!has_changes(call, running)) return end_unchanged(running);
  const bool is_in_time = !running.is_over() && running.set_phase(Phase::kMade);
  if (!is_in_time) return take_back_failed(running, fail(kRefused, "its time is over"));
  leave_role(Role::kActor);
  tell("scctl confirm keeps the change; it is taken back in %u s", running.left());
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

}  // namespace scctl
