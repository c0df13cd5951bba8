#include "support/program.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

namespace sc_test {

namespace {

[[noreturn]] void give_up(const std::string& what) {
  throw std::runtime_error(what + ": " + strerror(errno));
}

/* The program's words, from the environment variable or from this build, then the arguments. */
Words command(const char* variable, const char* built, const Words& arguments) {
  const char* given = getenv(variable);
  std::istringstream text(given != nullptr ? given : built);
  Words words;
  for (std::string word; text >> word;) words.push_back(word);
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

/* Under nohup, or in the background of a shell, some signals are ignored. The program would inherit
 * this. */
void hear_signals() {
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM}) signal(number, SIG_DFL);
}

}  // namespace

Words scctl(const Words& arguments) { return command("SCCTL", SCCTL_COMMAND, arguments); }
Words scguard(const Words& arguments) { return command("SCGUARD", SCGUARD_COMMAND, arguments); }

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "status " << outcome.status << " stdout {" << outcome.out << "} stderr {"
                << outcome.err << "}";
}

MemoryFile::MemoryFile(const std::string& bytes) : fd_(memfd_create("stream", MFD_CLOEXEC)) {
  if (fd_ < 0 || write(fd_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
      lseek(fd_, 0, SEEK_SET) != 0) {
    give_up("memfd");
  }
}

MemoryFile::~MemoryFile() { close(fd_); }

std::string MemoryFile::bytes() const {
  std::string all;
  char part[4096];
  for (ssize_t size; (size = pread(fd_, part, sizeof part, static_cast<off_t>(all.size()))) > 0;) {
    all.append(part, static_cast<size_t>(size));
  }
  return all;
}

Program::Program(const Words& command, const std::string& input, Eyes eyes) : in_(input) {
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) give_up("fork");
  if (pid_ > 0) return;
  setpgid(0, 0);
  hear_signals();
  dup2(in_.fd(), STDIN_FILENO);
  dup2(out_.fd(), STDOUT_FILENO);
  dup2(err_.fd(), STDERR_FILENO);
  if (eyes == kTracer) {
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1); /* the leak check uses ptrace itself */
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(126);
    raise(SIGSTOP);
  }
  execvp(words[0], words.data());
  _exit(127);
}

Program::~Program() {
  if (ended_) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, __WALL);
}

bool Program::ended() {
  int status;
  if (!ended_ && waitpid(pid_, &status, WNOHANG) == pid_) set_ended(status);
  return ended_;
}

Outcome Program::wait() {
  int status;
  if (!ended_) {
    if (waitpid(pid_, &status, 0) != pid_) give_up("waitpid");
    set_ended(status);
  }
  return {status_, out(), err()};
}

void Program::set_ended(int status) {
  ended_ = true;
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace sc_test
