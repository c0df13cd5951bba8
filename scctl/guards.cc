/* The guards of a try: two processes, each with its own byte of the state's lock file. A guard looks
 * several times a second. It starts its twin again when that is dead, kills it when it is stopped,
 * and ends the try when it is time. A dead process holds no byte, even if nobody reaps it.
 */
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "commands.h"
#include "store/gzip.h"
#include "try.h"

namespace scctl {

namespace {

constexpr uint32_t kStepMs = 200;
constexpr uint32_t kBusyStepMs = 50;    /* while a try is being ended */
constexpr uint32_t kCallersEndMs = 600; /* for a caller that still makes the change */
constexpr uint32_t kStartMs = 3000;

Role twin_of(Role role) { return role == Role::kGuard ? Role::kTwin : Role::kGuard; }

/* Closes all descriptors of the caller, so that nobody waits for the guard's output. */
void close_all() {
  forget_state();
  for (int& file : g_lock_files) file = 0;
  close_others();
  const int nowhere = open("/dev/null", O_RDWR);
  for (int n = 0; n <= STDERR_FILENO; ++n) dup2(nowhere, n);
}

/* The process has been stopped. */
bool is_stopped(pid_t pid) {
  char path[32], text[256];
  snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const ssize_t size = read(file, text, sizeof text - 1);
  close(file);
  if (size <= 0) return false;
  text[size] = '\0';
  const char* state = strrchr(text, ')'); /* the program's name may hold anything */
  return state != nullptr && (strncmp(state, ") T", 3) == 0 || strncmp(state, ") t", 3) == 0);
}

/* What is due for the try now. kGiveBack: it may be confirmed again. */
enum class Duty : uint8_t { kNothing, kGiveBack, kFinish, kRevert };

/* Nobody else is the actor: one that was making, confirming or reverting the try has died. */
Duty duty(const Try& running) {
  switch (running.header.phase) {
    case Phase::kMaking:
    case Phase::kReverting: return Duty::kRevert;
    case Phase::kConfirming:
      if (!is_marked()) return Duty::kFinish;
      return running.is_over() ? Duty::kRevert : Duty::kGiveBack;
    case Phase::kMade: return running.is_over() ? Duty::kRevert : Duty::kNothing;
  }
  return Duty::kNothing;
}

/* A process that acts is in the way of the end: it is killed if it is stopped, and the caller that
 * still makes the change is ended. Another guard, a confirm or a revert is waited for. */
void clear_way(const Try& running, pid_t actor) {
  if (actor <= 0 || !running.is_over()) return;
  if (is_stopped(actor)) {
    kill(actor, SIGKILL);
  } else if (running.header.phase == Phase::kMaking &&
             static_cast<uint32_t>(actor) == running.header.author.pid) {
    const bool is_late = boot_ms() >= running.header.deadline_ms + kCallersEndMs;
    kill(actor, is_late ? SIGKILL : SIGTERM);
  }
}

/* Does what is due, as the actor. True when the try is over. */
bool do_duty(Try& running, const char* why) {
  Text report;
  switch (duty(running)) {
    case Duty::kNothing: return false;
    case Duty::kGiveBack: running.set_phase(Phase::kMade); return false;
    case Duty::kFinish: finish_confirmed(running); return true;
    case Duty::kRevert: return revert(running, why, &report) != Ended::kNotYet;
  }
  return false;
}

/* True when the try is over. */
bool act(Try& running) {
  const pid_t actor = holder_of(Role::kActor);
  if (actor != 0) {
    clear_way(running, actor);
    return false;
  }
  if (duty(running) == Duty::kNothing || !take_role(Role::kActor, 0)) return false;
  Try now; /* what was read before may be out of date */
  const bool is_over = !now.open() || !now.is_same(running) || do_duty(now, "it was not confirmed");
  leave_role(Role::kActor);
  return is_over;
}

/* Each guard may start another: that is another process. */
// NOLINTBEGIN(misc-no-recursion)
[[noreturn]] void run_guard(Role role) {
  setsid();
  constexpr int kIgnored[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU};
  for (const int number : kIgnored) signal(number, SIG_IGN);
  signal(SIGCHLD, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  close_all();
  if (chdir("/") != 0) _exit(1);
  g_journal = nullptr;
  g_where = nullptr;
  Try first;
  /* One that was killed may still hold the byte. */
  if (!open_state(false) || !take_role(role, kStepMs) || !first.open()) _exit(0);
  /* The caller starts both: the twin may be on its way. */
  for (Wait wait(kStepMs); holder_of(twin_of(role)) == 0 && wait.pause();) {
  }
  while (true) {
    Try running;
    if (!running.open() || !running.is_same(first)) {
      is_guarded(twin_of(role)); /* a twin that was stopped behind the end goes, too */
      _exit(0);
    }
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    if (!is_guarded(twin_of(role))) start_guard(twin_of(role));
    if (act(running)) _exit(0);
    const bool is_busy = running.is_over() || running.header.phase == Phase::kReverting;
    const uint64_t left = running.header.deadline_ms - boot_ms();
    pause_ms(is_busy ? kBusyStepMs : left < kStepMs ? static_cast<uint32_t>(left) + 1 : kStepMs);
  }
}

}  // namespace

bool is_guarded(Role role) {
  const pid_t guard = holder_of(role);
  if (guard <= 0 || !is_stopped(guard)) return guard != 0;
  kill(guard, SIGKILL);
  return false;
}

void start_guard(Role role) {
  fflush(stdout);
  if (fork() == 0) run_guard(role);
}
// NOLINTEND(misc-no-recursion)

bool start_guards() {
  start_guard(Role::kGuard);
  start_guard(Role::kTwin);
  Wait wait(kStartMs);
  while (holder_of(Role::kGuard) == 0 || holder_of(Role::kTwin) == 0) {
    if (!wait.pause()) return false;
  }
  return true;
}

void look_after_try() {
  if (access(kTryPath, R_OK | W_OK) != 0 || !open_state(false)) return;
  Try running;
  if (!running.open()) return;
  /* What other programs change while a try of any program is made is part of the try. */
  if (running.header.phase == Phase::kMaking && running.header.is_command != 0) g_journal = nullptr;
  const pid_t before[] = {holder_of(Role::kGuard), holder_of(Role::kTwin)};
  if (is_guarded(Role::kGuard) || is_guarded(Role::kTwin)) return;
  clear_way(running, holder_of(Role::kActor));
  if (!take_role(Role::kActor, kStepMs)) return; /* it is being made or ended */
  /* The maker of the try may have started them meanwhile. */
  const auto is_new = [&](Role role) {
    const pid_t guard = holder_of(role);
    return guard != 0 && guard != before[static_cast<int>(role)];
  };
  if (running.open() && !is_new(Role::kGuard) && !is_new(Role::kTwin)) {
    const bool is_over = do_duty(running, "its guards were killed");
    if (!is_over) start_guards();
    fail(kOk, "the guards of the try were killed; %s",
         is_over ? "it is ended now, scctl try --status tells how" : "they are started again");
  }
  leave_role(Role::kActor);
}

}  // namespace scctl
