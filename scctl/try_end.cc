/* How a try ends: it is taken back, or what a confirm began is finished. Each step can be repeated,
 * by whoever takes over from a process that was killed.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "commands.h"
#include "store/kept.h"
#include "try.h"

namespace scctl {

/* ---- messages ---- */

namespace {

void write_to_terminal(const char* path, uint32_t uid, const char* text) {
  struct stat status;
  if (stat(path, &status) != 0 || !S_ISCHR(status.st_mode) || status.st_uid != uid) return;
  const int terminal = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0) return;
  dprintf(terminal, "\r\nscctl: %s\r\n", text);
  close(terminal);
}

/* Tells the user, on his terminals, and the system's log. */
void announce_end(const TryHeader& header, const char* text) {
  constexpr int kMostTerminals = 64;
  for (int n = 0; n < kMostTerminals; ++n) {
    char path[24];
    snprintf(path, sizeof path, "/dev/pts/%d", n);
    write_to_terminal(path, header.author.uid, text);
  }
  if (strncmp(header.terminal, "/dev/pts/", strlen("/dev/pts/")) != 0) {
    write_to_terminal(header.terminal, header.author.uid, text);
  }
  if (fork() != 0) return;
  const int nowhere = open("/dev/null", O_RDWR);
  for (int n = 0; n < 3; ++n) dup2(nowhere, n);
  execlp("logger", "logger", "-t", "scctl", text, static_cast<char*>(nullptr));
  _exit(127);
}

/* Ends the try's journal, after all else. It is taken back for a reason, or confirmed (null). */
void close_try(const Try& running, const char* why, const Text& report) {
  Text text;
  text.add("the try of ");
  add_user(running.header.author.uid, &text);
  if (why != nullptr)
    text.print(" is taken back (%s): ", why);
  else
    text.add(" is confirmed: ");
  text.add(running.header.words, strnlen(running.header.words, sizeof running.header.words));
  announce_end(running.header, text.c_str());
  Text ended;
  add_time(time(nullptr), false, &ended);
  ended.print("  %s\n%s", text.c_str(), report.c_str());
  replace_state_file("ended", ended.c_str(), ended.size());
  remove_copies();
  unlinkat(state_folder(), kTryName, 0);
}

/* While it lives, a call that waits is interrupted every second: a daemon that hangs does not stop
 * the end of a try. */
class Alarms {
 public:
  Alarms() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before_);
    set(1);
  }
  ~Alarms() {
    set(0);
    sigaction(SIGALRM, &before_, nullptr);
  }
  Alarms(const Alarms&) = delete;
  Alarms& operator=(const Alarms&) = delete;

 private:
  static void set(time_t seconds) {
    const itimerval period = {{seconds, 0}, {seconds, 0}};
    setitimer(ITIMER_REAL, &period, nullptr);
  }
  struct sigaction before_;
};

}  // namespace

/* ---- saves ---- */

OwnSaves::OwnSaves() {
  constexpr uint32_t kMostMs = 10000;
  file_ = openat(state_folder(), "saves", O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  Wait wait(kMostMs);
  while (file_ >= 0 && flock(file_, LOCK_EX | LOCK_NB) != 0 && wait.pause()) {
  }
}

/* Unlocks it for all who inherited it: an event command may have started a daemon. */
OwnSaves::~OwnSaves() {
  flock(file_, LOCK_UN);
  close(file_);
}

bool is_marked() {
  const int folder = open(kArchiveFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  Marker marker;
  if (folder < 0) return errno != ENOENT;
  const bool marked = read_marker(folder, &marker) != MarkerState::kMissing;
  close(folder);
  return marked;
}

namespace {

/* What the archive holds, looked at while nobody saves the area. */
Ended look_at_flash(const Area& area, CopyReport* found) {
  const NoSaves no_saves(area);
  if (!no_saves) return Ended::kNotYet;
  const ArchiveFolder folder;
  if (!folder) return Ended::kNotYet;
  look_at_copy(area.row(), folder.descriptor(), found);
  return Ended::kYes;
}

/* Saves an area that somebody saved in the meantime, or whose save was cut off. The area is as
 * before. A save that began before that has ended when its byte is free. */
Ended save_again(const Area& area, uint32_t* saved, bool* failed) {
  const OwnSaves own; /* the tar of a confirm that was killed has ended */
  CopyReport found;
  if (look_at_flash(area, &found) == Ended::kNotYet) return Ended::kNotYet;
  if (found.state == CopyState::kCurrent || found.state == CopyState::kNone) return Ended::kYes;
  Call call = {};
  call.source.open_live();
  /* It is repeated when another program has changed the area while it was saved. */
  static int tries = 20;
  if (found.state == CopyState::kUnknown || save_area(call, id_of(area)) != kOk) {
    if (--tries > 0) return Ended::kNotYet;
    *failed = true;
  }
  *saved |= bit(id_of(area));
  return Ended::kYes;
}

void renew_copies(uint32_t areas) {
  for (const Area& area : kAreas) {
    if ((areas & bit(id_of(area))) == 0) continue;
    const NoSaves no_saves(area);
    const ArchiveFolder folder;
    CopyReport found;
    if (!no_saves || !folder || !look_at_copy(area.row(), folder.descriptor(), &found)) continue;
    if (found.state == CopyState::kStale) renew_copy(area.row(), folder.descriptor());
  }
}

/* The archives hold what they held before, or the reverted areas; then the marker goes. */
Ended clear_flash(const Try& running, Text* report) {
  if (running.header.marked == 0) return Ended::kYes;
  uint32_t saved = 0;
  bool failed = false;
  for (const Area& area : kAreas) {
    if ((running.header.marked & bit(id_of(area))) == 0) continue;
    if (save_again(area, &saved, &failed) == Ended::kNotYet) return Ended::kNotYet;
  }
  if (!failed && is_marked()) {
    const ArchiveFolder folder;
    failed = (!folder || !remove_marker(folder.descriptor())) && is_marked();
  }
  if (failed) {
    report->add("an archive holds what was tried; scguard restore puts back what it held\n");
    return Ended::kYes;
  }
  renew_copies(saved);
  return Ended::kYes;
}

void keep_waiting(const Changes& changes) {
  const int file = open_state_file("waiting", O_WRONLY | O_CREAT | O_APPEND);
  if (file < 0) return;
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    if (change->fate != Fate::kWaits) continue;
    Text chunk;
    pack_step(change->step(), 0, &chunk);
    if (!write_all(file, chunk.c_str(), chunk.size())) break;
  }
  close(file);
}

}  // namespace

/* ---- the ends ---- */

Ended take_back_live(Source& live, Changes& changes, Text* report) {
  Journal* const journal = g_journal;
  g_journal = nullptr;
  {
    const Alarms alarms;
    Edit edit(live, Patience::kOneSecond);
    edit.begin_in_time(changes.areas());
    take_back(edit, changes, "it waits", report);
    /* A guard that was killed may have announced nothing. One that comes back for the flash does
     * not announce again. */
    static bool is_told;
    if (count(changes, Fate::kDue) == 0 && !is_told) {
      edit.announce();
      is_told = true;
    }
  }
  g_journal = journal;
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    if (change->fate != Fate::kDue) continue;
    report->print("%s/%u: another program holds it\n", change->table->name, change->position + 1);
  }
  return count(changes, Fate::kDue) == 0 ? Ended::kYes : Ended::kNotYet;
}

Ended revert(Try& running, const char* why, Text* report) {
  for (int n = 0; n < kAreaCount; ++n) Source::forget_live(static_cast<AreaId>(n));
  Source live;
  live.open_live();
  Changes changes;
  running.read_changes(live, &changes);
  running.set_phase(Phase::kReverting);
  if (running.header.is_command != 0) {
    /* The copies are kept if the journal has no room: they are compared again then. */
    const bool is_written = add_differences(live, running, &changes);
    running.header.is_command = is_written ? 0 : 1;
    running.write();
  }
  if (take_back_live(live, changes, report) == Ended::kNotYet) return Ended::kNotYet;
  if (clear_flash(running, report) == Ended::kNotYet) return Ended::kNotYet;
  const bool is_waiting = count(changes, Fate::kWaits) != 0;
  if (is_waiting) keep_waiting(changes);
  close_try(running, why, *report);
  return is_waiting ? Ended::kWaiting : Ended::kYes;
}

void finish_confirmed(Try& running) {
  {
    /* A confirm that was killed may not have flushed the folder. */
    const ArchiveFolder folder;
    if (folder) remove_marker(folder.descriptor());
  }
  renew_copies(running.header.marked);
  Source live;
  live.open_live();
  Changes changes;
  running.read_changes(live, &changes);
  log_changes(running.header.author, running.header.words, running.header.note, changes);
  close_try(running, nullptr, Text());
}

}  // namespace scctl
