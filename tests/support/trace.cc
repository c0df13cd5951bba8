#include "support/trace.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <set>
#include <stdexcept>

namespace sc_test {

namespace {

[[noreturn]] void give_up(const std::string& what) {
  throw std::runtime_error(what + ": " + strerror(errno));
}

/* Without an error, replaces the number of the call before which the process is stopped. With an
 * error, sets the result of the call that is done. */
void change_registers(pid_t process, int64_t number, int error) {
  user_regs_struct registers;
  if (ptrace(PTRACE_GETREGS, process, nullptr, &registers) != 0) give_up("PTRACE_GETREGS");
  auto &call = registers.orig_rax, &result = registers.rax;
  if (error != 0)
    result = static_cast<decltype(result + 0)>(-error);
  else
    call = static_cast<decltype(call + 0)>(number);
  if (ptrace(PTRACE_SETREGS, process, nullptr, &registers) != 0) give_up("PTRACE_SETREGS");
}

class Tracer {
 public:
  Tracer(pid_t program, const std::function<Fate(const SystemCall&)>& look)
      : program_(program), look_(look) {}

  /* Runs until the program and all its forks have ended. Returns how the program ended, as waitpid
   * does. */
  int run() {
    int stopped, ended = 0;
    if (waitpid(program_, &stopped, __WALL) != program_ || !WIFSTOPPED(stopped)) {
      throw std::runtime_error("a program cannot be traced");
    }
    constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC | PTRACE_O_TRACEFORK |
                              PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL;
    if (ptrace(PTRACE_SETOPTIONS, program_, nullptr, kOptions) != 0) give_up("PTRACE_SETOPTIONS");
    go_on(program_, 0);
    for (;;) {
      const pid_t process = waitpid(-program_, &stopped, __WALL);
      if (process < 0 && errno == ECHILD) return ended;
      if (process < 0) give_up("waitpid");
      if (WIFSTOPPED(stopped)) {
        handle(process, stopped);
      } else if (process == program_) {
        ended = stopped;
      }
    }
  }

  /* Takes up programs that run and looks at them until all have ended or are left. They may be of
   * any process group, so one after the other is asked whether it has stopped. */
  void take_up(const std::vector<pid_t>& programs) {
    started_ = true;
    watched_.insert(programs.begin(), programs.end());
    constexpr long kOptions = PTRACE_O_TRACESYSGOOD;
    for (const pid_t process : programs) {
      if (ptrace(PTRACE_SEIZE, process, nullptr, kOptions) != 0) give_up("PTRACE_SEIZE");
      ptrace(PTRACE_INTERRUPT, process, nullptr, nullptr);
    }
    while (!watched_.empty()) {
      bool idle = true;
      for (const pid_t process : std::set<pid_t>(watched_)) {
        int stopped;
        const pid_t found = waitpid(process, &stopped, __WALL | WNOHANG);
        if (found == 0) continue;
        idle = false;
        if (found == process && WIFSTOPPED(stopped))
          handle(process, stopped);
        else
          watched_.erase(process);
      }
      if (idle) usleep(20);
    }
  }

 private:
  void leave(pid_t process) {
    ptrace(PTRACE_DETACH, process, nullptr, nullptr);
    watched_.erase(process);
  }

  static void go_on(pid_t process, int signal) {
    ptrace(PTRACE_SYSCALL, process, nullptr, static_cast<long>(signal));
  }

  void handle(pid_t process, int stopped) {
    const int signal = WSTOPSIG(stopped);
    const int event = stopped >> 16;
    if (signal == (SIGTRAP | 0x80)) {
      handle_call(process);
    } else if (event == PTRACE_EVENT_EXEC) {
      /* The first process is the program itself. */
      if (process != program_ || started_) {
        ptrace(PTRACE_DETACH, process, nullptr, nullptr);
        return;
      }
      started_ = true;
      go_on(process, 0);
    } else {
      const bool own = event != 0 || signal == SIGSTOP || signal == SIGTRAP;
      go_on(process, own ? 0 : signal);
    }
  }

  void handle_call(pid_t process) {
    __ptrace_syscall_info info;
    if (ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof info, &info) <= 0) {
      go_on(process, 0); /* it was killed in the meantime */
      return;
    }
    if (!started_) { /* calls before the program starts are those of the test */
      go_on(process, 0);
      return;
    }
    SystemCall& call = calls_[process];
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      call = {process, ++count_, static_cast<long>(info.entry.nr), {}, false, 0};
      for (int n = 0; n < 6; ++n) call.arguments[n] = info.entry.args[n];
      const Fate fate = look_(call);
      failing_[process] = 0;
      if (fate.kind == Fate::kKills) {
        kill(process, SIGKILL);
        return;
      }
      if (fate.kind == Fate::kStops || fate.kind == Fate::kLeaves) {
        if (fate.kind == Fate::kStops) kill(process, SIGSTOP);
        leave(process);
        return;
      }
      if (fate.kind == Fate::kFails) {
        change_registers(process, -1, 0);
        failing_[process] = fate.error;
      }
    } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && call.process != 0) {
      call.is_done = true;
      call.result = info.exit.rval;
      if (failing_[process] != 0) {
        change_registers(process, 0, failing_[process]);
        call.result = -failing_[process];
      }
      look_(call);
    }
    go_on(process, 0);
  }

  const pid_t program_;
  const std::function<Fate(const SystemCall&)>& look_;
  std::map<pid_t, SystemCall> calls_;
  std::map<pid_t, int> failing_;
  std::set<pid_t> watched_; /* programs that were taken up */
  size_t count_ = 0;
  bool started_ = false;
};

}  // namespace

std::string SystemCall::bytes(int argument, size_t size) const {
  std::string bytes(size, '\0');
  iovec here = {bytes.data(), size};
  iovec there = {reinterpret_cast<void*>(static_cast<uintptr_t>(arguments[argument])), size};
  const ssize_t read = process_vm_readv(process, &here, 1, &there, 1, 0);
  bytes.resize(read > 0 ? static_cast<size_t>(read) : 0);
  return bytes;
}

std::string SystemCall::text(int argument) const {
  /* Reads up to the end of a page: the next page may not exist. */
  constexpr size_t kPage = 4096;
  std::string all;
  SystemCall part = *this;
  while (all.size() < PATH_MAX) {
    const size_t size = kPage - part.arguments[argument] % kPage;
    const std::string bytes = part.bytes(argument, size);
    const size_t end = bytes.find('\0');
    if (end != std::string::npos) return all + bytes.substr(0, end);
    if (bytes.size() < size) break;
    all += bytes;
    part.arguments[argument] += size;
  }
  return all;
}

std::string SystemCall::file(int argument) const {
  const std::string link = "/proc/" + std::to_string(process) + "/fd/" +
                           std::to_string(static_cast<int>(arguments[argument]));
  char target[PATH_MAX];
  const ssize_t size = readlink(link.c_str(), target, sizeof target);
  return std::string(target, size > 0 ? static_cast<size_t>(size) : 0);
}

Fate without_forks(const SystemCall& call) {
  return call.process == getpgid(call.process) ? Fate{} : Fate{Fate::kLeaves};
}

Outcome trace(const Words& command, const std::function<Fate(const SystemCall&)>& look,
              const std::string& input) {
  Program program(command, input, Program::kTracer);
  program.set_ended(Tracer(program.pid(), look).run());
  return program.wait();
}

void trace_running(const std::vector<pid_t>& programs,
                   const std::function<Fate(const SystemCall&)>& look) {
  Tracer(0, look).take_up(programs);
}

size_t kill_at_every_call(const Words& command, const std::function<void()>& prepare,
                          const std::function<void(size_t)>& check) {
  for (size_t last = 1;; ++last) {
    prepare();
    bool killed = false;
    trace(command, [&](const SystemCall& call) {
      if (call.is_done || call.number != last) return Fate{};
      killed = true;
      return Fate{Fate::kKills};
    });
    check(last);
    if (!killed) return last - 1;
  }
}

}  // namespace sc_test
