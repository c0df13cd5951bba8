#include "authors.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core/registry.h"
#include "store/clock.h"
#include "store/files.h"

#ifndef FAN_OPEN_EXEC
#define FAN_OPEN_EXEC 0x1000
#endif

namespace scctl {

namespace {

constexpr size_t kFolderLength = sizeof kLockFolder - 1;

/* Bits of a note that are none of the events that are asked for. */
constexpr uint8_t kAnswer = FAN_ACCESS, kLost = FAN_MODIFY;

/* What the child is asked: to answer when it has told all, and to follow another folder before. */
constexpr char kTell = '?', kFollow = 'f';

/* How long an answer of the child is waited for, and its first one. */
constexpr int kAnswerMs = 100;
constexpr int kFirstAnswerMs = 1000;
/* A process that is gone is the one that had this number so recently: the kernel gives all other
 * numbers first. */
constexpr uint32_t kRecentMs = 1000;

/* "/proc/PID/NAME". */
struct ProcPath {
  char text[40];
  ProcPath(uint32_t pid, const char* name) {
    snprintf(text, sizeof text, "/proc/%u/%s", pid, name);
  }
};

/* The area of a lock file that a link of /proc leads to; also of one that is removed. */
int area_of_link(const char* link) {
  char path[128];
  const ssize_t size = readlink(link, path, sizeof path - 1);
  if (size < 0) return kAreaCount;
  path[size] = '\0';
  return strncmp(path, kLockFolder, kFolderLength) == 0 ? area_of_lock(path + kFolderLength)
                                                        : kAreaCount;
}

/* ---- the child ---- */

/* Processes that were about to run a program. */
struct Known {
  Program program;
  uint32_t at; /* when, in ms */
};
constexpr uint32_t kMostKnown = 64;
Known g_known[kMostKnown];
uint32_t g_next_known;

void remember(const Program& program) {
  g_known[g_next_known++ % kMostKnown] = {program, static_cast<uint32_t>(boot_ms())};
}

void set_name(const char* name, size_t size, Program* program) {
  if (size >= sizeof program->name) size = sizeof program->name - 1;
  memcpy(program->name, name, size);
  program->name[size] = '\0';
}

/* Reads name, user and start of a process that exists. */
bool read_program(Program* program) {
  const Descriptor file(open(ProcPath(program->pid, "stat").text, O_RDONLY | O_CLOEXEC));
  char text[512];
  const ssize_t size = file ? read(file.number, text, sizeof text - 1) : -1;
  struct stat status;
  if (size <= 0 || stat(ProcPath(program->pid, "").text, &status) != 0) return false;
  text[size] = '\0';
  const char* name = strchr(text, '(');
  const char* at = strrchr(text, ')');
  if (name == nullptr || at == nullptr) return false;
  set_name(name + 1, static_cast<size_t>(at - name - 1), program);
  for (int blanks = 20; blanks > 0 && *at != '\0'; ++at) blanks -= *at == ' ';
  program->start = static_cast<uint32_t>(strtoul(at, nullptr, 10));
  program->uid = status.st_uid;
  program->is_known = true;
  return true;
}

void identify(Program* program) {
  if (read_program(program)) return;
  const auto now = static_cast<uint32_t>(boot_ms());
  for (uint32_t n = 1; n <= kMostKnown; ++n) {
    const Known& known = g_known[(g_next_known - n) % kMostKnown];
    if (known.program.pid != program->pid || now - known.at > kRecentMs) continue;
    *program = known.program;
    return;
  }
}

/* A program is about to be run in a process, which may be gone before it is asked for. The loader of
 * its libraries follows it. */
void take_exec(const fanotify_event_metadata& event, const char* link, Program* program) {
  char path[256];
  struct stat status;
  const ssize_t size = readlink(link, path, sizeof path - 1);
  if (size <= 0 || fstat(event.fd, &status) != 0 || !read_program(program)) return;
  path[size] = '\0';
  const char* name = strrchr(path, '/') + 1;
  if (strncmp(name, "ld-", 3) == 0 || strncmp(name, "ld.", 3) == 0) return;
  set_name(name, strlen(name), program);
  if ((status.st_mode & S_ISUID) != 0) program->uid = status.st_uid;
  remember(*program);
}

bool mark(int events) {
  return fanotify_mark(events, FAN_MARK_ADD, FAN_OPEN | FAN_CLOSE | FAN_EVENT_ON_CHILD, AT_FDCWD,
                       kLockFolder) == 0;
}

/* Of all mounts: if one program that runs another is heard of alone, its name would stay. */
void mark_programs(int events) {
  FILE* mounts = setmntent("/proc/self/mounts", "re");
  if (mounts == nullptr) return;
  while (const mntent* mount = getmntent(mounts)) {
    fanotify_mark(events, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_EXEC, AT_FDCWD, mount->mnt_dir);
  }
  endmntent(mounts);
}

}  // namespace

int area_of_lock(const char* name) {
  static constexpr char kEnd[] = "_conf_lock";
  int area = 0;
  for (; area < kAreaCount; ++area) {
    const char* stem = kAreas[area].row().lock_stem;
    const size_t length = strlen(stem);
    if (strncmp(name, stem, length) == 0 && strncmp(name + length, kEnd, sizeof kEnd - 1) == 0) {
      break;
    }
  }
  return area;
}

void Authors::run_child(int events, int in, int out) {
  sched_param priority = {};
  priority.sched_priority = 1;
  syscall(SYS_sched_setscheduler, 0, SCHED_FIFO, &priority); /* musl has no function for it */
  const pid_t watch = getppid(); /* it opens lock files, to ask who holds a record */
  mark_programs(events);         /* here, because it takes memory */
  /* What has to be told also when there was no room for it. */
  bool is_lost = false;
  uint32_t answers = 0;
  for (;;) {
    const bool is_due = is_lost || answers != 0;
    pollfd ready[] = {{events, POLLIN, 0}, {in, POLLIN, 0}, {out, POLLOUT, 0}};
    ppoll(ready, is_due ? 3 : 2, nullptr, nullptr);
    char asked = 0;
    if (ready[1].revents != 0 && read(in, &asked, 1) <= 0) _exit(0);
    if (asked == kFollow) mark(events);
    answers += asked != 0;
    alignas(fanotify_event_metadata) char bytes[2048];
    ssize_t size;
    while ((size = read(events, bytes, sizeof bytes)) > 0 || (size < 0 && errno != EAGAIN)) {
      const auto* event = reinterpret_cast<const fanotify_event_metadata*>(bytes);
      is_lost |= size < 0;
      for (; FAN_EVENT_OK(event, size); event = FAN_EVENT_NEXT(event, size)) {
        Note note = {};
        is_lost |= event->fd < 0;
        if (event->fd < 0) continue;
        char link[32];
        snprintf(link, sizeof link, "/proc/self/fd/%d", event->fd);
        note.program.pid = static_cast<uint32_t>(event->pid);
        if ((event->mask & FAN_OPEN_EXEC) != 0) {
          take_exec(*event, link, &note.program);
        } else if (event->pid != watch) {
          note.area = static_cast<uint8_t>(area_of_link(link));
          identify(&note.program);
          note.events = static_cast<uint8_t>(event->mask);
          if (note.area < kAreaCount) {
            is_lost |= event->pid <= 0 || write(out, &note, sizeof note) < 0;
          }
        }
        close(event->fd);
      }
    }
    while (is_lost || answers != 0) {
      Note note = {};
      note.events = static_cast<uint8_t>((is_lost ? kLost : 0) | (answers != 0 ? kAnswer : 0));
      if (write(out, &note, sizeof note) < 0) break;
      is_lost = false;
      answers -= answers != 0;
    }
  }
}

/* ---- the watch ---- */

Authors::~Authors() { end(); }

void Authors::end() {
  if (asks_ >= 0) close(asks_);
  if (notes_ >= 0) close(notes_);
  asks_ = notes_ = -1;
}

bool Authors::begin() {
  char self[16] = "", own[16];
  snprintf(own, sizeof own, "%d", static_cast<int>(getpid()));
  /* Another namespace's /proc would name other processes. */
  if (readlink("/proc/self", self, sizeof self - 1) < 0) return false;
  errno = ENOENT;
  if (strcmp(self, own) != 0) return false;
  const Descriptor events(fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY));
  int asks[2], notes[2];
  if (!events || !mark(events.number) || pipe2(asks, O_CLOEXEC) != 0) return false;
  if (pipe2(notes, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  const pid_t child = fork();
  if (child == 0) {
    close(asks[1]);
    close(notes[0]);
    run_child(events.number, asks[0], notes[1]);
  }
  close(asks[0]);
  close(notes[1]);
  asks_ = asks[1];
  notes_ = notes[0];
  if (child > 0) ask(kTell, kFirstAnswerMs); /* the answer says that the child is at work */
  return child > 0;
}

/* Takes all notes about what happened before this call. A child that did not answer in time is not
 * asked and not waited for again until it has. */
void Authors::ask(char what, int ms) {
  if (notes_ < 0) return;
  const bool is_late = due_answers_ != 0;
  if (!is_late || what == kFollow) due_answers_ += write(asks_, &what, 1) == 1;
  const bool is_there = take(is_late ? 0 : ms);
  if (due_answers_ != 0 || !is_there) lost_areas_ = UINT32_MAX;
  if (is_there) return;
  fputs("authors are no longer known: the process that looks for them has ended\n", stderr);
  end();
}

void Authors::follow() { ask(kFollow, kAnswerMs); }

/* Takes notes until the answer that is due, or those that are there. False when the child has ended. */
bool Authors::take(int timeout) {
  Note note;
  pollfd ready = {notes_, POLLIN, 0};
  const timespec wait = {timeout / 1000, timeout % 1000 * 1000000};
  while (ppoll(&ready, 1, &wait, nullptr) > 0) {
    if (read(notes_, &note, sizeof note) <= 0) return false;
    if ((note.events & kLost) != 0) lost_areas_ = UINT32_MAX;
    if ((note.events & kAnswer) != 0 && --due_answers_ == 0) return true;
    if ((note.events & (kLost | kAnswer)) == 0) take(note);
  }
  return true;
}

namespace {

bool has_open(const Program& program, int area) {
  DIR* folder = opendir(ProcPath(program.pid, "fd").text);
  if (folder == nullptr) return false;
  bool has = false;
  while (const dirent* entry = readdir(folder)) {
    char link[sizeof entry->d_name + 24];
    snprintf(link, sizeof link, "/proc/%u/fd/%s", program.pid, entry->d_name);
    has |= area_of_link(link) == area;
  }
  closedir(folder);
  return has;
}

}  // namespace

void Authors::take(const Note& note) {
  Suspect* found = nullptr;
  for (Suspect& suspect : suspects_) {
    const Program& known = suspect.program;
    if (suspect.area == kAreaCount) {
      if (found == nullptr) found = &suspect;
    } else if (suspect.area == note.area && known.pid == note.program.pid &&
               (known.start == note.program.start || !note.program.is_known)) {
      found = &suspect;
      break;
    }
  }
  if (found == nullptr) {
    lost_areas_ |= 1u << note.area;
    return;
  }
  if (found->area == kAreaCount) *found = {note.program, note.area};
  const bool is_closed = (note.events & FAN_CLOSE) != 0;
  found->is_fresh = true;
  found->has_written |= (note.events & FAN_CLOSE_WRITE) != 0;
  found->is_open = !is_closed;
  /* Of an open and a close that are reported together, either may be the last. */
  found->may_be_open = is_closed && (note.events & FAN_OPEN) != 0;
  if (!found->has_written && is_closed) settle(found);
}

/* Finds out whether the file is still open. When it is closed later, there is a note of that. */
void Authors::settle(Suspect* suspect) {
  suspect->is_open =
      (suspect->is_open || suspect->may_be_open) && has_open(suspect->program, suspect->area);
  suspect->may_be_open = false;
  if (!suspect->is_open) suspect->area = kAreaCount;
}

void Authors::begin_look() {
  if (notes_ < 0) return;
  /* Notes that come late may be of changes that an earlier look has seen. */
  if (due_answers_ != 0) lost_areas_ = UINT32_MAX;
  take(0);
  for (Suspect& suspect : suspects_) suspect.is_fresh = false;
}

void Authors::find(AreaId area) {
  area_ = area;
  ask(kTell, kAnswerMs);
}

/* The changes of programs that had closed their files before the look were seen by it. */
void Authors::end_look(AreaId area) {
  if (notes_ < 0) return;
  lost_areas_ &= ~(1u << area);
  for (Suspect& suspect : suspects_) {
    if (suspect.area != area || suspect.is_fresh) continue;
    suspect.has_written = false;
    settle(&suspect);
  }
}

const Program* Authors::next(const Program* last) const {
  bool has_written = false, is_behind = last == nullptr;
  const Program* next = nullptr;
  for (const Suspect& suspect : suspects_) {
    if (suspect.area != area_) continue;
    has_written |= suspect.has_written;
    if (is_behind && next == nullptr) next = &suspect.program;
    is_behind |= &suspect.program == last;
  }
  return has_written && (lost_areas_ & 1u << area_) == 0 ? next : nullptr;
}

}  // namespace scctl
