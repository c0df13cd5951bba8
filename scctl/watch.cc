/* watch: prints each change of the live store, field by field, or as a stream of JSON.
 *
 * A program that changes a record opens the area's lock file for writing and closes it after the
 * change. inotify reports this close. Changes without it, above all the loading of an area, are
 * found by comparing everything every 5 s. watch does not lock, send or listen, so no program ever
 * waits for it, even while it is stopped or its output is not read.
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

#include "authors.h"
#include "core/registry.h"
#include "shown.h"
#include "state.h"
#include "store/clock.h"
#include "stream.h"
#include "try.h"

namespace scctl {

namespace {

constexpr char kImageFolder[] = "/var/systemconfig/";

constexpr int64_t kPauseMs = 5000;
/* Time from an event to the comparison: changes that follow each other closely are compared
 * together. */
constexpr uint32_t kSettleMs = 2;
/* Init writes its lock file. Read follows it without opening the file, so it causes no event. */
constexpr int64_t kMakingMs = 1000;
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

/* Reports closes of lock files. The folder is watched, not the files, so files that are created
 * later are included. For a stream it also reports how often they are closed and the end of a Read,
 * which removes the image that it has unpacked. */
class Events {
 public:
  explicit Events(bool streaming) : streaming_(streaming) {}
  ~Events() {
    if (inotify_ >= 0) close(inotify_);
  }
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  /* Begins to watch the folder, or watches the folder that exists now; true when it is another. */
  bool follow() {
    if (inotify_ < 0) inotify_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    /* Closes that follow each other are one event, unless an open is between them. */
    const uint32_t events = IN_CLOSE_WRITE | IN_MODIFY | (streaming_ ? IN_OPEN : 0);
    const int folder = inotify_ < 0 ? -1 : inotify_add_watch(inotify_, kLockFolder, events);
    error_ = folder < 0 ? errno : 0;
    if (streaming_ && inotify_ >= 0) images_ = inotify_add_watch(inotify_, kImageFolder, IN_DELETE);
    const bool is_other = folder != folder_;
    if (is_other && folder_ >= 0) inotify_rm_watch(inotify_, folder_);
    folder_ = folder;
    return is_other;
  }

  /* Prints a line when watching begins or becomes impossible. A program that reads this line may
   * change the store at once. */
  void tell() {
    if (error_ == told_) return;
    told_ = error_;
    FILE* to = streaming_ ? stderr : stdout;
    if (error_ == 0)
      fputs("watching\n", to);
    else
      fprintf(to, "looking every %d s: %s: %s\n", static_cast<int>(kPauseMs / 1000),
              inotify_ < 0 ? "inotify" : kLockFolder, strerror(error_));
  }

  enum class Output : uint8_t {
    kIgnored,
    kEmpty, /* the program ends when its reader is gone */
    kWaits  /* for the reader, too */
  };
  /* Waits for events, for a signal that ends the program, for the reader of the output, or until
   * the given time. Marks the areas to compare. */
  void wait(int64_t until, Output output, Watched* areas) {
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
    pollfd events[] = {{inotify_, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    if (output == Output::kWaits) events[1].events = POLLOUT;
    const nfds_t count = output == Output::kIgnored ? 1 : 2;
    const bool any = g_ended == 0 && ppoll(events, count, &timeout, &before) > 0;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if ((events[1].revents & (POLLERR | POLLHUP)) != 0) g_ended = 1;
    if (!any || events[0].revents == 0) return;
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

  /* Whether events were dropped since the last call. */
  bool has_lost() {
    const bool lost = lost_;
    lost_ = false;
    return lost;
  }

 private:
  /* Whether the event is about a file of the area. Thousands of events can arrive together: not
   * making a path for each saves seconds on the router. */
  bool is_of(const inotify_event& event, int area) const {
    if (event.len == 0) return false;
    if (event.wd != images_) return area == area_of_lock(event.name);
    static constexpr char kAhead[] = "config_";
    const char* stem = kAreas[area].row().stem;
    const size_t ahead = sizeof kAhead - 1, length = strlen(stem);
    return strncmp(event.name, kAhead, ahead) == 0 &&
           strncmp(event.name + ahead, stem, length) == 0 &&
           strcmp(event.name + ahead + length, ".cfg") == 0;
  }

  void take(const inotify_event& event, int64_t now, Watched* areas) {
    const bool all = (event.mask & IN_Q_OVERFLOW) != 0;
    lost_ |= all;
    if ((event.mask & (IN_OPEN | IN_ISDIR)) != 0) return;
    for (int n = 0; n < kAreaCount; ++n) {
      if (!all && !is_of(event, n)) continue;
      Watched& area = areas[n];
      if ((event.mask & IN_MODIFY) != 0) {
        area.is_made = true;
        area.not_before = now + kMakingMs;
      }
      if ((event.mask & IN_CLOSE_WRITE) != 0) ++area.closes;
      if ((event.mask & IN_DELETE) != 0) {
        area.is_loaded = true;
        area.not_before = now;
      }
      area.look_at(now);
    }
  }

  const bool streaming_;
  bool lost_ = false;
  int inotify_ = -1;
  int folder_ = -1;
  int images_ = -1;
  int error_ = 0; /* errno of the last try */
  int told_ = -1;
};

struct Clock {
  char text[16];
  Clock() {
    const time_t now = time(nullptr);
    tm local;
    strftime(text, sizeof text, "%H:%M:%S ", localtime_r(&now, &local));
  }
};

class Watch final : private Teller {
 public:
  Watch(Source& source, bool streaming, bool journaling)
      : source_(source),
        events_(streaming || journaling),
        streaming_(streaming || journaling),
        printing_(streaming),
        journaling_(journaling) {}

  /* Reads the present contents, without printing them. */
  void begin(const bool* chosen) {
    if (streaming_ && !authors_.begin()) {
      fprintf(stderr, "authors are not known: fanotify: %s\n", strerror(errno));
    }
    const int64_t now = now_ms();
    events_.follow();
    slow_ = now + kPauseMs;
    for (const Area& area : kAreas) {
      const AreaId id = id_of(area);
      areas_[id].chosen = chosen[id];
      if (!chosen[id]) continue;
      areas_[id].segment = shmget(area.row().key, 0, 0);
      begin(id);
    }
    events_.tell();
  }

  void wait() {
    int64_t until = slow_;
    for (const Watched& area : areas_) {
      if (area.chosen && area.due < until) until = area.due;
    }
    using Output = Events::Output;
    const Output output = !printing_             ? Output::kIgnored
                          : stream_.has_unsent() ? Output::kWaits
                                                 : Output::kEmpty;
    events_.wait(until, output, areas_);
  }

  /* Compares the areas that are due and prints differences. Sets `changed` for areas that have
   * changed, at most `most` of them. */
  void look(bool* changed, uint32_t most) {
    const int64_t now = now_ms();
    if (now >= slow_) {
      if (events_.follow()) authors_.follow();
      events_.tell();
      slow_ = now + kPauseMs;
      for (Watched& area : areas_) area.look_at(now);
    }
    const Clock clock;
    clock_ = clock.text;
    for (int n = 0; n < kAreaCount; ++n) {
      Watched& area = areas_[n];
      changed[n] = false;
      if (!area.chosen || area.due > now || most == 0) continue;
      area.due = kNever;
      authors_.begin_look();
      changed[n] = look_at(static_cast<AreaId>(n), now);
      most -= changed[n];
      if (area.due != kNever) continue;
      authors_.end_look(static_cast<AreaId>(n));
      area.closes = 0;
      area.is_made = area.is_loaded = false;
    }
    if (printing_ && events_.has_lost()) stream_.lose("queue");
  }

  /* Writes what the reader takes at once. False when it is gone. */
  bool flush() {
    if (!printing_) return fflush(stdout) == 0;
    do {
      if (stream_.is_losing() && !stream_.has_unsent()) {
        stream_.tell_lost();
        anew_ = {0, 0};
      }
      while (anew_.table < kTableCount && stream_.has_room()) tell_anew();
      if (!stream_.flush()) return false;
    } while (!stream_.has_unsent() && (stream_.is_losing() || anew_.table < kTableCount));
    return true;
  }

 private:
  /* Keeps the present contents of an area. */
  void begin(AreaId id) {
    const uint8_t* block = areas_[id].segment < 0 ? nullptr : source_.block(id);
    for (int n = 0; n < kTableCount; ++n) {
      if (kTables[n].area != id) continue;
      if (block == nullptr) {
        shown_[n].begin(kTables[n]);
      } else {
        shown_[n].begin(kTables[n], !streaming_, Pages(block, kAreas[id].row().size));
      }
    }
  }

  bool look_at(AreaId id, int64_t now) {
    Watched& area = areas_[id];
    const auto& facts = kAreas[id].row();
    bool any = false;
    if (const int segment = shmget(facts.key, 0, 0); segment != area.segment) {
      Source::forget_live(id);
      any = true;
      area.segment = segment;
      tell_segment(id);
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
    const Pages pages(block, facts.size);
    Holders holders(kAreas[id]);
    const auto look = [&](Teller* teller) {
      uint32_t count = 0;
      for (int n = 0; n < kTableCount; ++n) {
        if (kTables[n].area == id) count += shown_[n].look({pages, holders, now, &area, teller});
      }
      return count;
    };
    /* Whether Init or Read has written the area. Read opens no lock file. So with one record more
     * than closes of the lock file differing, they were not all changed by edits. */
    if (streaming_ && (area.is_made || area.is_loaded) &&
        look(nullptr) > (area.is_made ? 0 : area.closes)) {
      tell(id, "load", area.is_made ? "lock" : "image");
      begin(id);
      return true;
    }
    return look(this) != 0 || any;
  }

  void tell_segment(AreaId id) {
    const bool removed = areas_[id].segment < 0;
    if (!streaming_) {
      printf("%s%s: %s\n", clock_, kAreas[id].name, removed ? "removed" : "made anew");
      return;
    }
    tell(id, removed ? "delete" : "load", "look");
    begin(id);
  }

  /* All of an area is another. */
  void tell(AreaId id, const char* what, const char* seen) {
    if (printing_) stream_.tell_area(id, what, seen);
    if (!journaling_) return;
    Text words;
    words.print("%s %s", what, kAreas[id].name);
    log_seen({time(nullptr), boot_ms(), kNobody, 0}, words.c_str(), nullptr);
  }

  bool tell(const Seen& seen) override {
    if (!streaming_) {
      return print_changes(clock_, seen.table, seen.position + 1, seen.was, seen.is);
    }
    const Watched& area = areas_[seen.table.area];
    authors_.find(seen.table.area);
    uint32_t pid = 0;
    Text note;
    bool is_own = is_logged(seen, &pid, &note);
    if (!is_own) read_try_note(&pid, &note);
    Text rest, words;
    Author first = {time(nullptr), boot_ms(), kNobody, 0};
    bool is_noted = false, is_scctl = true;
    for (const Program* one = nullptr; (one = authors_.next(one)) != nullptr;) {
      if (words.size() == 0) {
        first.pid = one->pid;
        if (one->is_known) first.uid = one->uid;
      }
      is_noted |= one->pid == pid && note.size() > 0;
      is_scctl &= strcmp(one->name, "scctl") == 0;
      words.print("%s%s[%u]", words.size() > 0 ? ", " : "", one->name, one->pid);
      rest.print("%s{\"pid\":%u", rest.size() > 0 ? "," : ",\"author\":[", one->pid);
      if (one->is_known) {
        rest.print(",\"uid\":%u,\"program\":", one->uid);
        add_json_text(one->name, &rest);
      }
      rest.add('}');
    }
    if (rest.size() > 0) rest.add(']');
    rest.print(",\"seen\":\"%s\"", area.closes > 0 ? "lock" : "look");
    if (area.closes > 1) rest.print(",\"closes\":%u", area.closes);
    if (is_noted) {
      rest.add(",\"note\":");
      add_json_text(note.c_str(), &rest);
    }
    if (printing_) stream_.tell_record(seen, rest.c_str());
    /* What scctl tries is logged when it is confirmed; what it takes back leaves nothing to log. */
    is_own |= is_scctl && words.size() > 0;
    if (words.size() == 0) words.add("unknown");
    if (journaling_ && !is_own) log_seen(first, words.c_str(), &seen);
    return true;
  }

  /* Sends the next record of the present state. */
  void tell_anew() {
    const Shown& shown = shown_[anew_.table];
    const Table& table = kTables[anew_.table];
    if (!areas_[table.area].chosen || anew_.position == table.capacity) {
      anew_ = {anew_.table + 1, 0};
      return;
    }
    if (anew_.position == 0 && (anew_.table == 0 || (&table)[-1].area != table.area)) {
      stream_.tell_area(table.area, "load", "anew");
    }
    const uint32_t position = anew_.position++;
    if (!shown.is_used(position)) return;
    Buffer record(table.stride);
    shown.unpack(position, record.data());
    stream_.tell_record({table, position, nullptr, record.data(), false}, ",\"seen\":\"anew\"");
  }

  Source& source_;
  Events events_;
  Authors authors_;
  const bool streaming_; /* named fields are kept, and authors are asked for */
  const bool printing_;
  const bool journaling_;
  const char* clock_ = nullptr; /* of the look, in front of a line of text */
  ChangeStream stream_;
  /* What of the present state is sent next, after a loss. */
  struct {
    int table;
    uint32_t position;
  } anew_ = {kTableCount, 0};
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
  const bool streaming = call.has(kJson) || call.has(kJournalOption);
  /* A stream without named areas also tells of those that are made later. */
  const int status = streaming && call.word_count == 0 ? parse_areas(call, true, chosen)
                                                       : present_areas(call, chosen);
  if (status != kOk) return status;
  handle_signals();
  const bool journaling = call.has(kJournalOption);
  if (journaling && !open_state(true)) return fail_state();
  if (journaling && !take_role(Role::kJournal, 0)) {
    return fail(kNoArea, "process %d keeps the journal already", holder_of(Role::kJournal));
  }
  Watch watch(call.source, call.has(kJson), journaling);
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
    if (!watch.flush()) {
      if (call.has(kJson) && errno != EPIPE) {
        return fail(kRefused, "standard output: %s", strerror(errno));
      }
      break;
    }
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
