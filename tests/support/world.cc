#include "support/world.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace sc_test {

namespace fs = std::filesystem;

namespace {

constexpr int kFirstKey = 9600, kLastKey = 9616;
const char* const kDirectories[] = {"/var/lock_store", "/var/systemconfig", "/var/dataconfig"};
const fs::path kStandIns = "/var/stand_ins";
const fs::path kCommandsRun = "/var/stand_ins/commands_run";

/* Addresses attached by this process, recorded by shmat and shmdt below. */
std::vector<void*>& attached() {
  static std::vector<void*> addresses;
  return addresses;
}

[[noreturn]] void refuse(const std::string& step) {
  fprintf(stderr, "No private world for the tests: %s: %s\n", step.c_str(), strerror(errno));
  exit(2);
}

void must(bool done, const std::string& step) {
  if (!done) refuse(step);
}

void write_map(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY);
  must(fd >= 0, path);
  must(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
  close(fd);
}

void enter_namespaces() {
  const bool root = geteuid() == 0;
  const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
  must(unshare(CLONE_NEWNS | CLONE_NEWIPC | (root ? 0 : CLONE_NEWUSER)) == 0, "unshare");
  if (!root) {
    write_map("/proc/self/setgroups", "deny");
    write_map("/proc/self/uid_map", uid + " " + uid + " 1");
    write_map("/proc/self/gid_map", gid + " " + gid + " 1");
  }
  must(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount / private");
}

/* Mounts a tmpfs over /var. The folders that were in it before stay visible, because the build tree
 * may be in one of them; the folders of the library do not. */
void replace_var() {
  int old_var = open("/var", O_PATH | O_DIRECTORY);
  must(old_var >= 0, "open /var");
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator("/var")) {
    if (entry.is_directory() && !entry.is_symlink()) names.push_back(entry.path().filename());
  }
  must(mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") == 0, "mount tmpfs over /var");
  for (const auto& name : names) {
    if (name == "lock_store" || name == "systemconfig" || name == "dataconfig") continue;
    const std::string from = "/proc/self/fd/" + std::to_string(old_var) + "/" + name;
    fs::create_directory("/var/" + name);
    must(mount(from.c_str(), ("/var/" + name).c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
         "bind /var/" + name);
  }
  close(old_var);
}

/* sync is one of the stand-ins: no test needs the host's disks to be flushed again and again. logger
 * is another: no test writes to the host's log. */
void put_stand_ins_first_in_path() {
  fs::create_directory(kStandIns);
  for (const char* name : {"change_event", "send_event", "sync", "logger"}) {
    const fs::path script = kStandIns / name;
    std::ofstream(script) << "#!/bin/sh\necho \"" << name << "${*:+ }$*\" >>"
                          << kCommandsRun.native() << "\n";
    fs::permissions(script, fs::perms::owner_all);
  }
  const char* path = getenv("PATH");
  setenv("PATH", (kStandIns.native() + ":" + (path ? path : "/usr/bin:/bin")).c_str(), 1);
}

/* No test writes to the terminals of the user who runs it. */
void replace_terminals() {
  if (access("/dev/pts", F_OK) != 0) return;
  must(mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666") == 0,
       "mount devpts over /dev/pts");
}

}  // namespace

void enter_private_world() {
  enter_namespaces();
  replace_var();
  replace_terminals();
  put_stand_ins_first_in_path();
}

void World::SetUp() {
  for (int key = kFirstKey; key <= kLastKey; ++key) {
    int segment = segment_of(key);
    if (segment >= 0) ASSERT_EQ(shmctl(segment, IPC_RMID, nullptr), 0) << strerror(errno);
  }
  for (const char* directory : kDirectories) {
    fs::remove_all(directory);
    ASSERT_TRUE(fs::create_directory(directory));
  }
  for (const auto& entry : fs::directory_iterator("/var")) {
    if (!entry.is_directory()) fs::remove(entry.path());
  }
  fs::remove(kCommandsRun);
}

void World::TearDown() {
  for (void* address : attached_addresses()) shmdt(address);
}

std::vector<std::string> commands_run() {
  std::vector<std::string> lines;
  std::ifstream file(kCommandsRun);
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  ASSERT_TRUE(file) << path;
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  std::stringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

int segment_of(int key) { return shmget(key, 0, 0); }

size_t segment_size(int key) {
  shmid_ds state;
  return shmctl(segment_of(key), IPC_STAT, &state) == 0 ? state.shm_segsz : 0;
}

std::vector<void*> attached_addresses() { return attached(); }

void forbid_new_mappings() {
  rlimit none;
  getrlimit(RLIMIT_AS, &none);
  none.rlim_cur = 0;
  setrlimit(RLIMIT_AS, &none);
  void* page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page != MAP_FAILED) {
    /* The user-mode emulator ignores setrlimit, and a command is a program of the host. */
    munmap(page, 1);
    const std::string command = "prlimit --as=0: --pid " + std::to_string(getpid());
    if (system(command.c_str()) != 0) throw std::runtime_error(command);
  }
  /* Sanitizers need memory again when the process ends. */
  atexit([] {
    rlimit limit;
    getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_AS, &limit);
  });
}

NoDescriptors::NoDescriptors() {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  soft_ = limit.rlim_cur;
  hard_ = limit.rlim_max;
  int lowest_free = dup(0);
  close(lowest_free);
  limit.rlim_cur = static_cast<rlim_t>(lowest_free);
  setrlimit(RLIMIT_NOFILE, &limit);
}

NoDescriptors::~NoDescriptors() {
  rlimit limit;
  limit.rlim_cur = static_cast<rlim_t>(soft_);
  limit.rlim_max = static_cast<rlim_t>(hard_);
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace sc_test

#include <dlfcn.h>

/* Interposed: the library attaches and never detaches, so the fixture has to record the
 * addresses. */
extern "C" void* shmat(int segment, const void* at, int flags) noexcept {
  static const auto next = reinterpret_cast<decltype(&shmat)>(dlsym(RTLD_NEXT, "shmat"));
  void* address = next(segment, at, flags);
  if (address != reinterpret_cast<void*>(-1)) sc_test::attached().push_back(address);
  return address;
}

extern "C" int shmdt(const void* address) noexcept {
  static const auto next = reinterpret_cast<decltype(&shmdt)>(dlsym(RTLD_NEXT, "shmdt"));
  int result = next(address);
  if (result == 0) {
    std::erase(sc_test::attached(), address);
  }
  return result;
}
