/* A file is edited in a sandbox and replaced as a whole. */
#include "in_place.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "store/atomic_file.h"
#include "store/edit.h"
#include "store/sandbox.h"

namespace scctl {

namespace {

/* ---- the edit ---- */

/* Packs the image as the library does. */
int write_archive(const Area& area, AtomicFile* to) {
  const Path path = archive_path(area);
  const int file = open(path.text, O_RDONLY | O_CLOEXEC);
  if (file < 0) return fail(kRefused, "%s: %s", path.text, strerror(errno));
  uint8_t bytes[4096];
  ssize_t size;
  int status = kOk;
  while (status == kOk && (size = read(file, bytes, sizeof bytes)) != 0) {
    status = size < 0 ? fail(kRefused, "%s: %s", path.text, strerror(errno))
                      : to->write_all(bytes, static_cast<size_t>(size));
  }
  close(file);
  return status;
}

/* Added to the child's exit status when the temporary file is complete. */
constexpr int kComplete = 0x40;

/* Runs in the child. */
int edit(Call& call, int (*run)(Call& call), Source& file, AtomicFile* to) {
  for (int n = 0; n < kAreaCount; ++n) Source::forget_live(static_cast<AreaId>(n));
  if (const char* step = enter_sandbox(); step != nullptr) {
    return fail(kNoArea, "%s is not changed: cannot make a sandbox: %s: %s", file.name(), step,
                strerror(errno));
  }
  g_file = file.name();
  g_journal = nullptr; /* the log is about the machine's areas */
  call.source.open_live();
  const AreaId id = file.held();
  const char* outer = g_where;
  Text where;
  where.print("%s%s is not changed: ", outer != nullptr ? outer : "", file.name());
  g_where = where.c_str();
  if (const int status = init_area(call, id); status != kOk) return status;
  if (const int status = call.source.need(id); status != kOk) return status;
  memcpy(call.source.block(id), file.block(id), kAreas[id].row().size);
  g_where = outer;
  const int status = run(call);
  const int flushed = flush_output();
  end_if_interrupted(); /* a batch that was interrupted is not an edit */
  if (status != kOk && !call.is_done) return status;
  if (flushed != kOk) return flushed;
  int written;
  if (call.has(kArchive)) {
    g_where = where.c_str();
    written = save_area(call, id);
    g_where = outer;
    if (written == kOk) written = write_archive(kAreas[id], to);
  } else {
    written = to->write_all(call.source.block(id), kAreas[id].row().size);
  }
  return written == kOk ? status | kComplete : written;
}

/* ---- signals ---- */

volatile pid_t g_child;         /* the child that edits; 0: none */
volatile sig_atomic_t g_signal; /* the last signal that arrived; 0: none */

/* Uses SIGKILL: the child has nothing to clean up, and it handles no other signal while it edits or
 * runs a shell. */
void end_child(int signal_number) {
  g_signal = signal_number;
  if (g_child > 0) kill(g_child, SIGKILL);
}

/* A signal that would end the command ends the child instead. The parent continues, to remove the
 * temporary file. Ignored signals stay ignored. */
class SignalForwarder {
 public:
  SignalForwarder() = default;
  ~SignalForwarder() { stop(); }
  SignalForwarder(const SignalForwarder&) = delete;
  SignalForwarder& operator=(const SignalForwarder&) = delete;

  /* From now on signals are forwarded to the child. */
  void start() {
    sigset_t all;
    sigemptyset(&all);
    for (const int number : kSignals) sigaddset(&all, number);
    sigprocmask(SIG_BLOCK, &all, &mask_);
    for (int n = 0; n < kCount; ++n) {
      handlers_[n] = signal(kSignals[n], end_child);
      if (handlers_[n] == SIG_IGN) signal(kSignals[n], SIG_IGN);
    }
    g_signal = 0;
    is_started_ = true;
  }

  void forward_to(pid_t child) {
    g_child = child;
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
  }

  /* Waits for the child; the status is that of waitpid. The child's number is cleared before
   * another process can get it. */
  bool wait_for_child(int* ended) {
    const pid_t child = g_child;
    siginfo_t told;
    const bool has_ended = waitid(P_PID, static_cast<id_t>(child), &told, WEXITED | WNOWAIT) == 0;
    g_child = 0;
    return has_ended && waitpid(child, ended, 0) == child;
  }

  void stop() {
    if (!is_started_) return;
    for (int n = 0; n < kCount; ++n) signal(kSignals[n], handlers_[n]);
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
    is_started_ = false;
  }

 private:
  static constexpr int kSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE};
  static constexpr int kCount = sizeof kSignals / sizeof kSignals[0];
  void (*handlers_[kCount])(int) = {};
  sigset_t mask_ = {};
  bool is_started_ = false;
};

/* Runs the edit in a child, which ends when its parent ends. */
int edit_in_child(Call& call, int (*run)(Call& call), Source& file, AtomicFile* to,
                  SignalForwarder& signals) {
  fflush(stdout);
  signal(SIGCHLD, SIG_DFL); /* if it were ignored, waitpid could not return how the child ended */
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    signals.stop();
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(kRefused);
    _exit(edit(call, run, file, to));
  }
  int ended;
  if (child > 0) signals.forward_to(child);
  if (child < 0 || !signals.wait_for_child(&ended)) {
    return fail(kRefused, "%s is not changed: %s", file.name(), strerror(errno));
  }
  if (g_signal == 0 && WIFEXITED(ended)) return WEXITSTATUS(ended);
  return fail(kRefused, "%s is not changed: the edit was ended by signal %d", file.name(),
              g_signal != 0 ? static_cast<int>(g_signal) : WTERMSIG(ended));
}

}  // namespace

int run_in_place(Call& call, int (*run)(Call& call)) {
  const char* name = call.has(kArchive) ? call.archive : call.image;
  SignalForwarder signals; /* lives until the temporary file is removed */
  AtomicFile atomic;
  if (const int status = atomic.open(name); status != kOk) return status;
  Source file;
  const int opened = call.has(kArchive)
                         ? file.open_archive(name, atomic.descriptor(), run == run_repair)
                         : file.open_image(name, atomic.descriptor());
  if (opened != kOk) return opened;
  signals.start();
  if (const int status = atomic.create(); status != kOk) return status;
  const int status = edit_in_child(call, run, file, &atomic, signals);
  if ((status & kComplete) == 0) return status;
  const int committed = atomic.commit();
  return committed == kOk ? status & ~kComplete : committed;
}

}  // namespace scctl
