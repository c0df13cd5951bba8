/* watch: prints each change of the live store, field by field.
 *
 * Who changes a record opens the area's lock file for writing and closes it when the change is done:
 * inotify tells of that close. What is changed without it, an area that is loaded above all, is seen
 * by a look at everything every 5 s. Nothing here locks, sends or listens, so nobody ever waits for
 * watch, also while it is stopped or its output is not read.
 *
 * A record is shown when it is whole: nobody holds its byte, and two copies of it agree. One that is
 * claimed and not filled yet is waited for. Neither is waited for without end.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "commands.h"

namespace scctl {

namespace {

constexpr char kLockFolder[] = "/var/lock_store/";

constexpr int64_t kNever = INT64_MAX;
constexpr int64_t kPauseMs = 5000;
/* From an event to the look: changes that follow each other closely are looked at together. */
constexpr timespec kSettle = {0, 2000000};
/* Init writes its lock file, and Read, which opens none, comes behind it. */
constexpr int64_t kMakingMs = 1000;
/* How long a record may be under way before it is shown as it is. */
constexpr int64_t kPatienceMs = 1000;
/* The same for one that may be whole: it has what its place held before it was deleted. */
constexpr int64_t kRefillMs = 12;
constexpr int64_t kLongestStepMs = 50; /* between two looks at what is under way */
constexpr int kCopies = 100;

int64_t now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* ---- signals ---- */

/* Those that are ignored stay so, as under nohup. */
constexpr int kEnding[] = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t g_ended;
volatile sig_atomic_t g_printing;

/* Whoever reads the output may have stopped: what is not printed then is not waited for. */
void end(int) {
  if (g_printing != 0) _exit(kOk);
  g_ended = 1;
}

void pass(int) {}

/* Handlers, unlike ignored signals, do not reach the commands of --exec. */
void handle_signals() {
  struct sigaction action = {};
  action.sa_handler = end;
  for (const int number : kEnding) {
    struct sigaction was;
    sigaction(number, nullptr, &was);
    if (was.sa_handler != SIG_IGN) sigaction(number, &action, nullptr);
  }
  action.sa_handler = pass;
  sigaction(SIGPIPE, &action, nullptr);
  signal(SIGCHLD, SIG_DFL);
}

/* ---- when to look ---- */

/* An area that is watched. */
struct Watched {
  bool chosen = false;
  int segment = -1;
  int64_t unnumbered_since = 0;
  int64_t due = kNever;
  int64_t not_before = 0;

  void look_at(int64_t when) {
    if (when < not_before) when = not_before;
    if (when < due) due = when;
  }
};

/* The closes of lock files. The folder is watched, not the files: it sees those that are made anew. */
class Events {
 public:
  Events() = default;
  ~Events() {
    if (inotify_ >= 0) close(inotify_);
  }
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  /* Begins, or goes on with the folder that is there now. */
  void follow() {
    if (inotify_ < 0) inotify_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const int folder =
        inotify_ < 0 ? -1 : inotify_add_watch(inotify_, kLockFolder, IN_CLOSE_WRITE | IN_MODIFY);
    error_ = folder < 0 ? errno : 0;
    if (folder != folder_ && folder_ >= 0) inotify_rm_watch(inotify_, folder_);
    folder_ = folder;
  }

  /* Says when it can or cannot follow from now on. Its reader may change the store at once. */
  void tell() {
    if (error_ == told_) return;
    told_ = error_;
    if (error_ == 0)
      puts("watching");
    else
      printf("looking every %d s: %s: %s\n", static_cast<int>(kPauseMs / 1000),
             inotify_ < 0 ? "inotify" : kLockFolder, strerror(error_));
  }

  /* Waits for events, for a signal that ends the program or until then. Tells which areas to look at. */
  void wait(int64_t until, Watched* areas) {
    const int64_t pause = until - now_ms();
    timespec timeout = {};
    if (pause > 0) {
      timeout.tv_sec = static_cast<time_t>(pause / 1000);
      timeout.tv_nsec = static_cast<long>(pause % 1000 * 1000000);
    }
    sigset_t ending, before;
    sigemptyset(&ending);
    for (const int number : kEnding) sigaddset(&ending, number);
    sigprocmask(SIG_BLOCK, &ending, &before);
    pollfd events = {inotify_, POLLIN, 0};
    const bool any = g_ended == 0 && ppoll(&events, 1, &timeout, &before) > 0;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if (!any) return;
    nanosleep(&kSettle, nullptr);
    alignas(inotify_event) char bytes[4096];
    const int64_t now = now_ms();
    for (ssize_t size; (size = read(inotify_, bytes, sizeof bytes)) > 0;) {
      for (const char* at = bytes; at < bytes + size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(at);
        take(*event, now, areas);
        at += sizeof *event + event->len;
      }
    }
  }

 private:
  /* Whether the event is of the area's lock file. Thousands of them can come together: that no path
   * is made for each saves seconds on the router. */
  static bool is_of(const inotify_event& event, const Area& area) {
    const auto& facts = area.row();
    const size_t length = strlen(facts.lock_stem);
    return event.len != 0 && strncmp(event.name, facts.lock_stem, length) == 0 &&
           strcmp(event.name + length, "_conf_lock") == 0;
  }

  static void take(const inotify_event& event, int64_t now, Watched* areas) {
    const bool all = (event.mask & IN_Q_OVERFLOW) != 0;
    for (int n = 0; n < kAreaCount; ++n) {
      if (!all && !is_of(event, kAreas[n])) continue;
      Watched& area = areas[n];
      if ((event.mask & IN_MODIFY) != 0) area.not_before = now + kMakingMs;
      area.look_at(now);
    }
  }

  int inotify_ = -1;
  int folder_ = -1;
  int error_ = 0; /* of the last try */
  int told_ = -1;
};

/* ---- what is there ---- */

/* Who holds bytes of an area's lock file. Asking takes no lock. */
class Holders {
 public:
  explicit Holders(const Area& area) : area_(area) {}
  ~Holders() {
    if (file_ >= 0) close(file_);
  }
  Holders(const Holders&) = delete;
  Holders& operator=(const Holders&) = delete;

  /* Whether the byte is held for writing. */
  bool hold(int32_t byte) {
    if (!opened_) file_ = open(lock_path(area_).text, O_RDONLY | O_CLOEXEC);
    opened_ = true;
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return fcntl(file_, F_GETLK, &lock) == 0 && lock.l_type == F_WRLCK;
  }

 private:
  const Area& area_;
  int file_ = -1;
  bool opened_ = false;
};

/* The records of a table as they were shown last. Of a free one this is what it left. */
class Shown {
 public:
  void begin(const Table& table, const uint8_t* block) {
    table_ = &table;
    Buffer(table.capacity * table.stride).swap(records_);
    Buffer(table.stride).swap(copy_);
    Buffer(table.capacity).swap(used_);
    Buffer(table.capacity * sizeof(int64_t)).swap(since_);
    for (uint32_t position = 0; position < table.capacity; ++position) {
      const uint8_t* live = block + table.at + position * table.stride;
      used_.data()[position] = is_used(table, live);
      if (used_.data()[position] != 0 || leaves_bytes()) memcpy(at(position), live, table.stride);
    }
  }

  /* Prints what differs and is whole; true when there is any. What is under way is looked at again
   * when it is due. */
  bool look(const uint8_t* block, const char* prefix, int64_t now, Holders& holders,
            Watched* area) {
    bool any = false;
    for (uint32_t position = 0; position < table_->capacity; ++position) {
      const uint8_t* live = block + table_->at + position * table_->stride;
      const bool was = used_.data()[position] != 0;
      int64_t& since = reinterpret_cast<int64_t*>(since_.data())[position];
      if (was == is_used(*table_, live) && is_as_shown(position, live, was)) {
        since = 0;
        continue;
      }
      const int32_t byte = named_lock(*table_, block, position);
      const int64_t patience =
          copy_whole(live, byte, holders) ? claim_patience(position) : kPatienceMs;
      if (since == 0) since = now;
      const int64_t age = now - since;
      if (age < patience) {
        area->look_at(now + (age < 1 ? 1 : age < kLongestStepMs ? age : kLongestStepMs));
        continue;
      }
      since = 0;
      const bool is = is_used(*table_, copy_.data());
      any |= print_changes(prefix, *table_, position + 1, was ? at(position) : nullptr,
                           is ? copy_.data() : nullptr);
      memcpy(at(position), copy_.data(), table_->stride);
      used_.data()[position] = is;
    }
    return any;
  }

 private:
  uint8_t* at(uint32_t position) { return records_.data() + position * table_->stride; }

  /* Deleted records of lists keep their bytes; those of the access points' tables are zeros, and are
   * not read: that would make memory of pages that nobody has written. */
  bool leaves_bytes() const { return table_->free != 0; }

  bool is_as_shown(uint32_t position, const uint8_t* live, bool used) {
    if (used) return memcmp(at(position), live, table_->stride) == 0;
    if (leaves_bytes()) memcpy(at(position), live, table_->stride);
    return true;
  }

  /* Who writes it holds the byte meanwhile: it was not held behind the copy, and the record is what
   * it was then. */
  bool copy_whole(const uint8_t* live, int32_t byte, Holders& holders) {
    for (int n = 0; n < kCopies; ++n) {
      memcpy(copy_.data(), live, table_->stride);
      __atomic_thread_fence(__ATOMIC_SEQ_CST);
      if (holders.hold(byte)) return false;
      if (memcmp(copy_.data(), live, table_->stride) == 0) return true;
    }
    return false;
  }

  /* For one that was free and has its id alone: it is filled next. */
  int64_t claim_patience(uint32_t position) {
    if (used_.data()[position] != 0 || !is_used(*table_, copy_.data())) return 0;
    const uint8_t* left = at(position);
    bool zero = true;
    for (uint32_t n = 0; n < table_->stride; ++n) {
      const auto is_word = [n](int place) { return n - static_cast<uint32_t>(place) < 4; };
      if (is_word(table_->lock_at) || is_word(table_->id_at)) continue;
      if (copy_.data()[n] != left[n]) return 0;
      zero = zero && left[n] == 0;
    }
    return zero ? kPatienceMs : kRefillMs;
  }

  const Table* table_ = nullptr;
  Buffer records_;
  Buffer copy_;
  Buffer used_;
  Buffer since_; /* when each was first seen under way; 0: it is not */
};

struct Clock {
  char text[16];
  Clock() {
    const time_t now = time(nullptr);
    tm local;
    strftime(text, sizeof text, "%H:%M:%S ", localtime_r(&now, &local));
  }
};

class Watch {
 public:
  explicit Watch(Source& source) : source_(source) {}

  /* What is there now is known and not printed. */
  void begin(const bool* chosen) {
    const int64_t now = now_ms();
    events_.follow();
    slow_ = now + kPauseMs;
    for (const Area& area : kAreas) {
      const AreaId id = id_of(area);
      areas_[id].chosen = chosen[id];
      if (chosen[id]) areas_[id].segment = shmget(area.row().key, 0, 0);
    }
    for (int n = 0; n < kTableCount; ++n) {
      const AreaId id = kTables[n].area;
      if (chosen[id]) shown_[n].begin(kTables[n], source_.block(id));
    }
    events_.tell();
  }

  void wait() {
    int64_t until = slow_;
    for (const Watched& area : areas_) {
      if (area.chosen && area.due < until) until = area.due;
    }
    events_.wait(until, areas_);
  }

  /* Looks at what is due and prints it; tells the areas that have changed, no more than so many. */
  void look(bool* changed, uint32_t most) {
    const int64_t now = now_ms();
    if (now >= slow_) {
      events_.follow();
      events_.tell();
      slow_ = now + kPauseMs;
      for (Watched& area : areas_) area.look_at(now);
    }
    const Clock clock;
    for (int n = 0; n < kAreaCount; ++n) {
      Watched& area = areas_[n];
      changed[n] = false;
      if (!area.chosen || area.due > now || most == 0) continue;
      area.due = kNever;
      changed[n] = look_at(static_cast<AreaId>(n), clock.text, now);
      most -= changed[n];
    }
  }

 private:
  bool look_at(AreaId id, const char* prefix, int64_t now) {
    Watched& area = areas_[id];
    const auto& facts = kAreas[id].row();
    bool any = false;
    if (const int segment = shmget(facts.key, 0, 0); segment != area.segment) {
      Source::forget_live(id);
      any = true;
      printf("%s%s: %s\n", prefix, kAreas[id].name, segment < 0 ? "removed" : "made anew");
      area.segment = segment;
    }
    const uint8_t* block = area.segment < 0 ? nullptr : source_.block(id);
    if (block == nullptr) return any;
    /* Init has emptied it, and Read has not numbered it yet. */
    if (block[facts.header.path_at] != 0) {
      area.unnumbered_since = 0;
    } else {
      if (area.unnumbered_since == 0) area.unnumbered_since = now;
      if (now - area.unnumbered_since < kPatienceMs) {
        area.look_at(now + kLongestStepMs);
        return any;
      }
    }
    Holders holders(kAreas[id]);
    for (int n = 0; n < kTableCount; ++n) {
      if (kTables[n].area == id) any |= shown_[n].look(block, prefix, now, holders, &area);
    }
    return any;
  }

  Source& source_;
  Events events_;
  int64_t slow_ = 0; /* when all is looked at */
  Watched areas_[kAreaCount];
  Shown shown_[kTableCount];
};

/* The shell command, with the area as $1. Its standard output is scctl's. */
void run_command(const char* command, const char* area) {
  if (fork() != 0) return;
  execl("/bin/sh", "sh", "-c", command, "scctl", area, static_cast<char*>(nullptr));
  _exit(127);
}

}  // namespace

int run_watch(Call& call) {
  bool chosen[kAreaCount];
  if (const int status = present_areas(call, chosen); status != kOk) return status;
  handle_signals();
  Watch watch(call.source);
  watch.begin(chosen);
  fflush(stdout);
  uint32_t left = call.count == 0 ? UINT32_MAX : call.count;
  while (g_ended == 0 && left > 0) {
    watch.wait();
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    bool changed[kAreaCount];
    g_printing = 1;
    watch.look(changed, left);
    if (fflush(stdout) != 0) break;
    g_printing = 0;
    for (int n = 0; n < kAreaCount; ++n) {
      if (!changed[n]) continue;
      if (call.count != 0) --left;
      if (call.exec != nullptr) run_command(call.exec, kAreas[n].name);
    }
  }
  return kOk;
}

}  // namespace scctl
