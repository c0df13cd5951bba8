/* watch: prints each change of the live store, field by field.
 *
 * A program that changes a record opens the area's lock file for writing and closes it after the
 * change. inotify reports this close. Changes without it, above all the loading of an area, are
 * found by comparing everything every 5 s. watch does not lock, send or listen, so no program ever
 * waits for it, even while it is stopped or its output is not read.
 *
 * A record is printed when it is complete: no program holds its byte, and two copies of it are
 * equal. A record that is claimed but not filled yet is waited for. Both waits have a limit.
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
#include "store/clock.h"

namespace scctl {

namespace {

constexpr char kLockFolder[] = "/var/lock_store/";

constexpr int64_t kNever = INT64_MAX;
constexpr int64_t kPauseMs = 5000;
/* Time from an event to the comparison: changes that follow each other closely are compared
 * together. */
constexpr uint32_t kSettleMs = 2;
/* Init writes its lock file. Read follows it without opening the file, so it causes no event. */
constexpr int64_t kMakingMs = 1000;
/* How long a record may be incomplete before it is printed as it is. */
constexpr int64_t kPatienceMs = 1000;
/* The same for a record that may be complete: it has the contents that its place had before a
 * deletion. */
constexpr int64_t kRefillMs = 12;
constexpr int64_t kLongestStepMs = 50; /* between two looks at an incomplete record */
constexpr int kCopies = 100;

int64_t now_ms() { return static_cast<int64_t>(boot_ms()); }

/* ---- signals ---- */

/* Those that are ignored stay ignored, as under nohup. */
constexpr int kEnding[] = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t g_ended;
volatile sig_atomic_t g_printing;

/* The program that reads the output may have stopped. So the end does not wait for output that is
 * not printed yet. */
void end(int) {
  if (g_printing != 0) _exit(kOk);
  g_ended = 1;
}

void pass(int) {}

/* Unlike ignored signals, handlers are not inherited by the commands of --exec. */
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

/* Reports closes of lock files. The folder is watched, not the files, so files that are created
 * later are included. */
class Events {
 public:
  Events() = default;
  ~Events() {
    if (inotify_ >= 0) close(inotify_);
  }
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  /* Begins to watch the folder, or watches the folder that exists now. */
  void follow() {
    if (inotify_ < 0) inotify_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const int folder =
        inotify_ < 0 ? -1 : inotify_add_watch(inotify_, kLockFolder, IN_CLOSE_WRITE | IN_MODIFY);
    error_ = folder < 0 ? errno : 0;
    if (folder != folder_ && folder_ >= 0) inotify_rm_watch(inotify_, folder_);
    folder_ = folder;
  }

  /* Prints a line when watching begins or becomes impossible. A program that reads this line may
   * change the store at once. */
  void tell() {
    if (error_ == told_) return;
    told_ = error_;
    if (error_ == 0)
      puts("watching");
    else
      printf("looking every %d s: %s: %s\n", static_cast<int>(kPauseMs / 1000),
             inotify_ < 0 ? "inotify" : kLockFolder, strerror(error_));
  }

  /* Waits for events, for a signal that ends the program, or until the given time. Marks the areas
   * to compare. */
  void wait(int64_t until, Watched* areas) {
    const auto pause = static_cast<int32_t>(until - now_ms()); /* no 64-bit division */
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
    pause_ms(kSettleMs);
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
  /* Whether the event is about the area's lock file. Thousands of events can arrive together: not
   * making a path for each saves seconds on the router. */
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
  int error_ = 0; /* errno of the last try */
  int told_ = -1;
};

/* ---- what is there ---- */

/* Asks which bytes of an area's lock file are held. Asking takes no lock. */
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

/* The records of a table as they were printed last. For a free record, this is what it contained
 * when it was freed. */
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

  /* Prints differences of complete records; true when there are any. Incomplete records are looked
   * at again later. */
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

  /* Deleted records of lists keep their bytes. Those of the access points' tables are zeros and are
   * not read: reading pages that nobody has written makes them use memory. */
  bool leaves_bytes() const { return table_->free != 0; }

  bool is_as_shown(uint32_t position, const uint8_t* live, bool used) {
    if (used) return memcmp(at(position), live, table_->stride) == 0;
    if (leaves_bytes()) memcpy(at(position), live, table_->stride);
    return true;
  }

  /* A writer holds the byte. So the copy is complete if the byte was not held after it and the
   * record is still equal. */
  bool copy_whole(const uint8_t* live, int32_t byte, Holders& holders) {
    for (int n = 0; n < kCopies; ++n) {
      memcpy(copy_.data(), live, table_->stride);
      __atomic_thread_fence(__ATOMIC_SEQ_CST);
      if (holders.hold(byte)) return false;
      if (memcmp(copy_.data(), live, table_->stride) == 0) return true;
    }
    return false;
  }

  /* A record that was free and now has only its id is filled next. */
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
  Buffer since_; /* when a record was first seen incomplete; 0: it is complete */
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

  /* Reads the present contents, without printing them. */
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

  /* Compares the areas that are due and prints differences. Sets `changed` for areas that have
   * changed, at most `most` of them. */
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
    /* Init has emptied it, and Read has not written its lock words yet. */
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
  int64_t slow_ = 0; /* the time when everything is compared */
  Watched areas_[kAreaCount];
  Shown shown_[kTableCount];
};

/* Runs the shell command with the area as $1. Its standard output is that of scctl. */
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
