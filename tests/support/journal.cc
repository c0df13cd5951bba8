#include "support/journal.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <errno.h>
#include <stddef.h>

#include <map>
#include <stdexcept>

namespace sc_test {

namespace {

Journal* current = nullptr;
std::map<int, std::string> names; /* of the descriptors opened under the journal */
int opened = 0;

std::string name_descriptor(int fd) { return names[fd] = "#" + std::to_string(++opened); }

bool known(int fd) { return names.count(fd) != 0; }

std::string text(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string text(const char* format, ...) {
  char line[8192];
  va_list values;
  va_start(values, format);
  vsnprintf(line, sizeof line, format, values);
  va_end(values);
  return line;
}

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

/* One recorded call. Hooks run around it; its own nested calls are not recorded. */
class Call {
 public:
  explicit Call(std::string line) : line_(std::move(line)), journal_(current) {
    current = nullptr;
    journal_->run(journal_->before_, line_);
  }
  ~Call() {
    int error = errno;
    journal_->lines_.push_back(line_);
    journal_->run(journal_->after_, line_);
    current = journal_;
    errno = error;
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  void prefix(const std::string& more) { line_ = more + line_; }
  void failed_if(bool failed) {
    if (failed) line_ += " failed";
  }

 private:
  std::string line_;
  Journal* journal_;
};

Journal::Journal() {
  if (current != nullptr) throw std::logic_error("one journal at a time");
  names.clear();
  opened = 0;
  current = this;
}

Journal::~Journal() { current = nullptr; }

void Journal::clear() {
  lines_.clear();
  names.clear();
  opened = 0;
}

void Journal::before(const std::string& text, std::function<void()> action) {
  before_ = {text, std::move(action)};
}

void Journal::after(const std::string& text, std::function<void()> action) {
  after_ = {text, std::move(action)};
}

void Journal::run(Hook& hook, const std::string& line) {
  if (!hook.action || line.rfind(hook.text, 0) != 0) return;
  auto action = std::move(hook.action);
  hook.action = nullptr;
  action();
}

namespace {

std::string describe_lock(int fd, int command, const struct flock& lock) {
  const std::string& name = names[fd];
  const bool one_byte = lock.l_whence == SEEK_SET && lock.l_len == 1;
  const long start = static_cast<long>(lock.l_start);
  if (one_byte && command == F_SETLKW && lock.l_type == F_WRLCK) {
    return text("lock %s %ld", name.c_str(), start);
  }
  if (one_byte && command == F_SETLK && lock.l_type == F_UNLCK) {
    return text("unlock %s %ld", name.c_str(), start);
  }
  return text("fcntl %s cmd %d type %d whence %d start %ld length %ld", name.c_str(), command,
              lock.l_type, lock.l_whence, start, static_cast<long>(lock.l_len));
}

std::string describe_address(const sockaddr* address, socklen_t size) {
  const auto* local = reinterpret_cast<const sockaddr_un*>(address);
  const std::string path(local->sun_path, size - offsetof(sockaddr_un, sun_path));
  return text("%s length %u", path.c_str(), static_cast<unsigned>(size));
}

}  // namespace
}  // namespace sc_test

/* The dynamic linker finds these definitions of the calls first. */
extern "C" {

int open(const char* path, int flags, ...) {
  static auto* const real = sc_test::next<int(const char*, int, ...)>("open");
  va_list rest;
  va_start(rest, flags);
  const int mode = va_arg(rest, int); /* garbage when it was not passed, and then not used */
  va_end(rest);
  if (sc_test::current == nullptr) return real(path, flags, mode);
  const std::string how = flags == O_RDWR ? "" : sc_test::text("(0x%x)", flags);
  sc_test::Call call("open" + how + " " + path);
  const int fd = real(path, flags, mode);
  call.failed_if(fd < 0);
  if (fd >= 0) call.prefix(sc_test::name_descriptor(fd) + " = ");
  return fd;
}

int close(int fd) {
  static auto* const real = sc_test::next<int(int)>("close");
  if (sc_test::current == nullptr || !sc_test::known(fd)) return real(fd);
  sc_test::Call call("close " + sc_test::names[fd]);
  sc_test::names.erase(fd);
  const int result = real(fd);
  call.failed_if(result < 0);
  return result;
}

int fcntl(int fd, int command, ...) {
  static auto* const real = sc_test::next<int(int, int, ...)>("fcntl");
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  const bool of_locks = command == F_SETLKW || command == F_SETLK || command == F_GETLK;
  if (sc_test::current == nullptr || !of_locks || !sc_test::known(fd)) {
    return real(fd, command, argument);
  }
  sc_test::Call call(
      sc_test::describe_lock(fd, command, *static_cast<const struct flock*>(argument)));
  const int result = real(fd, command, argument);
  call.failed_if(result < 0);
  return result;
}

FILE* fopen(const char* path, const char* mode) {
  static auto* const real = sc_test::next<FILE*(const char*, const char*)>("fopen");
  if (sc_test::current == nullptr) return real(path, mode);
  sc_test::Call call(sc_test::text("fopen %s %s", path, mode));
  FILE* file = real(path, mode);
  call.failed_if(file == nullptr);
  return file;
}

int fclose(FILE* file) {
  static auto* const real = sc_test::next<int(FILE*)>("fclose");
  if (sc_test::current == nullptr) return real(file);
  sc_test::Call call("fclose");
  const int result = real(file);
  call.failed_if(result != 0);
  return result;
}

int access(const char* path, int mode) noexcept {
  static auto* const real = sc_test::next<int(const char*, int)>("access");
  if (sc_test::current == nullptr) return real(path, mode);
  sc_test::Call call(sc_test::text("access %s %d", path, mode));
  const int result = real(path, mode);
  call.failed_if(result != 0);
  return result;
}

int system(const char* command) {
  static auto* const real = sc_test::next<int(const char*)>("system");
  if (sc_test::current == nullptr) return real(command);
  sc_test::Call call(std::string("system ") + command);
  return real(command);
}

int socket(int domain, int type, int protocol) noexcept {
  static auto* const real = sc_test::next<int(int, int, int)>("socket");
  if (sc_test::current == nullptr) return real(domain, type, protocol);
  sc_test::Call call(sc_test::text("socket %d %d %d", domain, type, protocol));
  const int fd = real(domain, type, protocol);
  call.failed_if(fd < 0);
  if (fd >= 0) call.prefix(sc_test::name_descriptor(fd) + " = ");
  return fd;
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  static auto* const real = sc_test::next<int(int, const sockaddr*, socklen_t)>("connect");
  if (sc_test::current == nullptr || !sc_test::known(fd)) return real(fd, address, size);
  sc_test::Call call("connect " + sc_test::names[fd] + " " +
                     sc_test::describe_address(address, size));
  const int result = real(fd, address, size);
  call.failed_if(result < 0);
  return result;
}

ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  static auto* const real = sc_test::next<ssize_t(int, const void*, size_t, int)>("send");
  if (sc_test::current == nullptr || !sc_test::known(fd)) return real(fd, bytes, size, flags);
  std::string line = "send " + sc_test::names[fd] + " ";
  for (size_t i = 0; i < size; ++i) {
    line += sc_test::text("%02x", static_cast<const uint8_t*>(bytes)[i]);
  }
  sc_test::Call call(line + sc_test::text(" flags %d", flags));
  const ssize_t result = real(fd, bytes, size, flags);
  call.failed_if(result < 0);
  return result;
}
}
