#include "support/faults.h"

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

namespace sc_test {

namespace {

struct Known {
  const char* name;
  int error;
};

constexpr Known kKnown[] = {
    {"open", ENFILE},    {"fcntl", EINTR},   {"close", EIO},     {"socket", EMFILE},
    {"connect", ENOENT}, {"send", EPIPE},    {"shmget", ENOSPC}, {"shmat", ENOMEM},
    {"shmdt", EINVAL},   {"shmctl", EPERM},  {"mmap", ENOMEM},   {"madvise", EINVAL},
    {"fopen", EMFILE},   {"fread", EIO},     {"fwrite", ENOSPC}, {"fclose", EIO},
    {"access", EACCES},  {"system", EAGAIN},
};

/* Counting allocates no memory, because the calls are made from anywhere. */
constexpr size_t kMostCalls = 4096;
const char* made[kMostCalls];
size_t count = 0, failing = 0;
const char* failing_name = nullptr;
bool counting = false;
Fate fate = Fate::kFails;

/* Counts a call; true when it has to fail. */
bool fails(const char* name) {
  if (!counting) return false;
  if (count == kMostCalls) abort();
  made[count++] = name;
  if (count != failing && (failing_name == nullptr || strcmp(name, failing_name) != 0))
    return false;
  if (fate == Fate::kKillsTheProcess) raise(SIGKILL);
  errno = error_of(name);
  return true;
}

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

Faults::Faults(size_t failing_call, Fate its_fate) {
  if (counting) abort();
  /* What a process does at its end, such as writing coverage data, is not done by the library. */
  static const int at_exit = atexit([] { counting = false; });
  if (at_exit != 0) abort();
  count = 0;
  failing = failing_call;
  fate = its_fate;
  counting = true;
}

Faults::Faults(const std::string& name) : Faults() {
  for (const Known& known : kKnown) {
    if (name == known.name) failing_name = known.name;
  }
  if (failing_name == nullptr) abort();
}

Faults::~Faults() {
  counting = false;
  failing_name = nullptr;
}

std::vector<std::string> Faults::calls() const { return {made, made + count}; }

std::set<std::string> failing_calls() {
  std::set<std::string> names;
  for (const Known& known : kKnown) names.insert(known.name);
  return names;
}

int error_of(const std::string& call) {
  for (const Known& known : kKnown) {
    if (call == known.name) return known.error;
  }
  abort();
}

}  // namespace sc_test

using sc_test::fails;
using sc_test::next;

extern "C" {

int open(const char* path, int flags, ...) {
  static auto* const real = next<int(const char*, int, ...)>("open");
  va_list rest;
  va_start(rest, flags);
  const int mode = va_arg(rest, int); /* garbage when it was not passed, and then not used */
  va_end(rest);
  return fails("open") ? -1 : real(path, flags, mode);
}

int fcntl(int fd, int command, ...) {
  static auto* const real = next<int(int, int, ...)>("fcntl");
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  return fails("fcntl") ? -1 : real(fd, command, argument);
}

int close(int fd) {
  static auto* const real = next<int(int)>("close");
  if (!fails("close")) return real(fd);
  const int error = errno;
  real(fd);
  errno = error;
  return -1;
}

int socket(int domain, int type, int protocol) noexcept {
  static auto* const real = next<int(int, int, int)>("socket");
  return fails("socket") ? -1 : real(domain, type, protocol);
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  static auto* const real = next<int(int, const sockaddr*, socklen_t)>("connect");
  return fails("connect") ? -1 : real(fd, address, size);
}

ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  static auto* const real = next<ssize_t(int, const void*, size_t, int)>("send");
  return fails("send") ? -1 : real(fd, bytes, size, flags);
}

int shmget(key_t key, size_t size, int flags) noexcept {
  static auto* const real = next<int(key_t, size_t, int)>("shmget");
  return fails("shmget") ? -1 : real(key, size, flags);
}

void* shmat(int segment, const void* at, int flags) noexcept {
  static auto* const real = next<void*(int, const void*, int)>("shmat");
  return fails("shmat") ? reinterpret_cast<void*>(-1) : real(segment, at, flags);
}

int shmdt(const void* at) noexcept {
  static auto* const real = next<int(const void*)>("shmdt");
  return fails("shmdt") ? -1 : real(at);
}

int shmctl(int segment, int command, shmid_ds* state) noexcept {
  static auto* const real = next<int(int, int, shmid_ds*)>("shmctl");
  return fails("shmctl") ? -1 : real(segment, command, state);
}

void* mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  static auto* const real = next<void*(void*, size_t, int, int, int, off_t)>("mmap");
  return fails("mmap") ? MAP_FAILED : real(at, size, protection, flags, fd, offset);
}

int madvise(void* at, size_t size, int advice) noexcept {
  static auto* const real = next<int(void*, size_t, int)>("madvise");
  return fails("madvise") ? -1 : real(at, size, advice);
}

FILE* fopen(const char* path, const char* mode) {
  static auto* const real = next<FILE*(const char*, const char*)>("fopen");
  return fails("fopen") ? nullptr : real(path, mode);
}

size_t fread(void* bytes, size_t size, size_t items, FILE* file) {
  static auto* const real = next<size_t(void*, size_t, size_t, FILE*)>("fread");
  if (!fails("fread")) return real(bytes, size, items, file);
  real(bytes, 1, size * items / 2, file);
  return 0;
}

size_t fwrite(const void* bytes, size_t size, size_t items, FILE* file) {
  static auto* const real = next<size_t(const void*, size_t, size_t, FILE*)>("fwrite");
  if (!fails("fwrite")) return real(bytes, size, items, file);
  real(bytes, 1, size * items / 2, file);
  return 0;
}

int fclose(FILE* file) {
  static auto* const real = next<int(FILE*)>("fclose");
  if (!fails("fclose")) return real(file);
  real(file);
  return EOF;
}

int access(const char* path, int mode) noexcept {
  static auto* const real = next<int(const char*, int)>("access");
  return fails("access") ? -1 : real(path, mode);
}

int system(const char* command) {
  static auto* const real = next<int(const char*)>("system");
  return fails("system") ? -1 : real(command);
}
}
