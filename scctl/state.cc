#include "state.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <sysconfig/core.h>

namespace scctl {

Text g_words;
const char* g_note = "";

namespace {

int g_folder = -1;
int g_locks = -1;

}  // namespace

bool open_state(bool create) {
  if (g_locks >= 0) return true;
  if (create && mkdir(kStateFolder, 0700) != 0 && errno != EEXIST) return false;
  g_folder = open(kStateFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (g_folder < 0) return false;
  g_locks =
      openat(g_folder, "locks", O_RDWR | (create ? O_CREAT : 0) | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (g_locks >= 0) return true;
  const int why = errno;
  forget_state();
  errno = why;
  return false;
}

void forget_state() {
  if (g_locks >= 0) close(g_locks);
  if (g_folder >= 0) close(g_folder);
  g_locks = g_folder = -1;
}

int state_folder() { return g_folder; }

bool take_role(Role role, uint32_t ms) {
  Wait wait(ms);
  while (sc_lock_reg(g_locks, F_SETLK, F_WRLCK, static_cast<off_t>(role), SEEK_SET, 1) != 0) {
    if (!wait.pause()) return false;
  }
  return true;
}

void leave_role(Role role) {
  sc_lock_reg(g_locks, F_SETLK, F_UNLCK, static_cast<off_t>(role), SEEK_SET, 1);
}

pid_t holder_of(Role role) {
  struct flock byte = {};
  byte.l_type = F_WRLCK;
  byte.l_whence = SEEK_SET;
  byte.l_start = static_cast<off_t>(role);
  byte.l_len = 1;
  if (fcntl(g_locks, F_GETLK, &byte) != 0 || byte.l_type == F_UNLCK) return 0;
  return byte.l_pid;
}

int open_state_file(const char* name, int flags) {
  return openat(g_folder, name, flags | O_NOFOLLOW | O_CLOEXEC, 0600);
}

bool replace_state_file(const char* name, const char* bytes, size_t size) {
  Text fresh;
  fresh.print("%s.new", name);
  const Descriptor file(open_state_file(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC));
  if (!file) return false;
  if (write_all(file.number, bytes, size) &&
      renameat(g_folder, fresh.c_str(), g_folder, name) == 0) {
    return true;
  }
  const int why = errno;
  unlinkat(g_folder, fresh.c_str(), 0);
  errno = why;
  return false;
}

uint32_t* saves(bool create) {
  static uint32_t* counts;
  constexpr size_t kSize = kAreaCount * sizeof *counts;
  if (counts != nullptr || !open_state(create)) return counts;
  const Descriptor file(open_state_file("counts", O_RDWR | O_CREAT));
  if (!file || ftruncate(file.number, kSize) != 0) return nullptr;
  void* mapped = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.number, 0);
  if (mapped != MAP_FAILED) counts = static_cast<uint32_t*>(mapped);
  return counts;
}

void add_user(uint32_t uid, Text* to) {
  const passwd* user = getpwuid(uid);
  if (user != nullptr)
    to->add(user->pw_name);
  else
    to->print("%u", uid);
}

}  // namespace scctl
