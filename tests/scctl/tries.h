/* What the tests of scctl try share: a store whose areas are saved, what is live and on the flash,
 * the guards, and runs beside each other.
 */
#ifndef SCCTL_TRIES_H
#define SCCTL_TRIES_H

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "scctl/edits.h"
#include "support/random.h"

namespace sc_test {

inline constexpr char kTryFile[] = "/var/systemconfig/scctl/try";
inline constexpr char kStateLocks[] = "/var/systemconfig/scctl/locks";
inline constexpr char kMarkerFile[] = "/var/dataconfig/try";
inline constexpr char kBatch[] = "/var/batch";
inline constexpr off_t kGuardByte = 0, kTwinByte = 1, kActorByte = 2;

using Clock = std::chrono::steady_clock;
inline Clock::time_point in_ms(int ms) { return Clock::now() + std::chrono::milliseconds(ms); }
inline int ms_since(Clock::time_point then) {
  return static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - then).count());
}
inline void pause_ms(int ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

/* Waits until it holds; false when it does not in time. */
inline bool becomes(const std::function<bool()>& holds, int ms = 20000) {
  for (const auto end = in_ms(ms); !holds(); pause_ms(2)) {
    if (Clock::now() > end) return holds();
  }
  return true;
}

/* The process that holds a byte of the state's lock file; 0: none. */
inline pid_t holder(off_t byte) {
  const int file = open(kStateLocks, O_RDWR | O_CLOEXEC);
  if (file < 0) return 0;
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  const int found = fcntl(file, F_GETLK, &lock);
  close(file);
  return found != 0 || lock.l_type == F_UNLCK ? 0 : lock.l_pid;
}
inline bool has_guards() { return holder(kGuardByte) != 0 || holder(kTwinByte) != 0; }

/* All files in the folder of the archives. */
inline std::map<std::string, std::string> flash() {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator("/var/dataconfig")) {
    files[entry.path().filename()] = read_file(entry.path());
  }
  return files;
}

inline Words try_batch(int seconds) {
  return scctl({"try", "--timeout", std::to_string(seconds), "batch", kBatch});
}

class TryTest : public EditTest {
 protected:
  /* A test ends with its tries: no guard of it may meet those of the next one. */
  void TearDown() override {
    unlink(kTryFile);
    EXPECT_TRUE(becomes([] { return !has_guards(); }));
    EditTest::TearDown();
  }

  using Images = std::map<std::string, Image>;
  Images live() {
    Images images;
    for (const std::string& name : started_areas()) images.emplace(name, image(name));
    return images;
  }
  void expect_live(const Images& images, const std::string& when = "") {
    for (const auto& [name, image] : images) {
      EXPECT_TRUE(image.matches(block(name))) << name << " " << when;
    }
  }
  bool is_live(const Images& images) {
    for (const auto& [name, image] : images) {
      if (!image.matches(block(name))) return false;
    }
    return true;
  }

  /* Records in six areas with groups, rules that refer to them, and a binding. */
  void make_store() {
    write_file("/var/store",
               "add lan_binds/1 mac=00:11:22:33:44:01 ip=10.0.0.1 name=one\n"
               "add lan_binds/2 mac=00:11:22:33:44:02 ip=10.0.0.2 name=two\n"
               "add ip_groups/1 leading_text=home\n"
               "add ip_groups/2 leading_text=office\n"
               "add ip_filter/1 leading_text=a ip_mode=1 ip_group_id=2\n"
               "add ip_filter/5 leading_text=b ip_mode=1 ip_group_id=1\n"
               "add qos/3 leading_text=slow ip_mode=1 ip_group_id=2\n"
               "add aps/1 ap_mac=02:61:62:63:64:65\n"
               "add aps/2 ap_mac=02:61:62:63:64:66\n"
               "add ap_templates/2 template_name=lobby\n"
               "bind ap_templates/2 aps/1\n"
               "add ap_users/4 user_mac=02:00:00:00:00:04\n"
               "add clients/1 client_mac=02:00:00:00:00:01 text_52=laptop\n");
    done({"batch", "/var/store"});
  }

  /* A change that adds, changes, deletes with the rules of a group, and rebinds. */
  static void write_batch() {
    write_file(kBatch,
               "set lan_binds/1 name=tried ip=10.0.0.9\n"
               "set lan_binds/1 name=twice\n"
               "del lan_binds/2\n"
               "add lan_binds/7 mac=00:11:22:33:44:07 name=new\n"
               "del ip_groups/2\n"
               "add ip_groups/2 leading_text=other\n"
               "add qos/4 leading_text=fast ip_mode=1 ip_group_id=2\n"
               "unbind ap_templates/2\n"
               "bind ap_templates/2 aps/2\n"
               "set ap_users/4 opaque_14=736574\n"
               "clear clients\n");
  }
  static const Words& tried_areas() {
    static const Words areas = {"Lan",          "FwIpport",       "Qos",        "IpGroup",
                                "ManageApList", "ApTemplateList", "ApUserList", "Clients"};
    return areas;
  }

  Outcome run_scctl(const Words& words, const std::string& input = "") {
    return run(scctl(words), input);
  }
  /* What a refused command says. */
  std::string refusal(const Words& words, int status = 1) {
    const Outcome outcome = run_scctl(words);
    EXPECT_EQ(outcome.status, status) << outcome;
    EXPECT_EQ(outcome.out, "");
    return outcome.err;
  }

  /* Starts a try of the batch, or of another change. */
  void start_try(int seconds = 60) {
    const Outcome outcome = run(try_batch(seconds));
    ASSERT_EQ(outcome.status, 0) << outcome;
  }
  void start_try_of(const std::string& commands, int seconds = 60) {
    write_file(kBatch, commands);
    start_try(seconds);
  }
  std::string revert() { return done({"revert"}); }
  /* A revert after which records wait. */
  std::string revert_in_part() {
    const Outcome outcome = run_scctl({"revert"});
    EXPECT_EQ(outcome.status, 1) << outcome;
    EXPECT_EQ(outcome.err, "scctl: records wait: scctl revert tries again\n");
    return outcome.out;
  }

  static bool is_over() { return !exists(kTryFile); }
};

/* Runs the check for numbers from 1 to a count, eight at a time, each in a process with areas, folders
 * and locks of its own. Of so many numbers one is chosen: by the seed of the run, the first of them.
 * SC_TEST_FAULTS=1 is all of them. */
class TrySeries : public TryTest {
 protected:
  void for_each(size_t count, size_t step, const std::function<void(size_t)>& check) {
    constexpr size_t kAtOnce = 8;
    if (const char* given = getenv("SC_TEST_FAULTS"); given != nullptr && count > 1) {
      step = strtoul(given, nullptr, 10);
    }
    size_t runs = 0;
    std::map<pid_t, size_t> running;
    const auto wait_for_one = [&] {
      int status = 0;
      const pid_t ended = waitpid(-1, &status, 0);
      ASSERT_TRUE(running.count(ended));
      EXPECT_TRUE(status == 0) << "number " << running[ended];
      running.erase(ended);
    };
    for (size_t n = 1 + run_seed() % step; n <= count; n += step, ++runs) {
      if (running.size() == kAtOnce) wait_for_one();
      fflush(nullptr);
      const pid_t child = fork();
      if (child == 0) run_one(n, check);
      running[child] = n;
    }
    while (!running.empty()) wait_for_one();
    if (count > 1) printf("%zu of %zu\n", runs, count);
  }

 private:
  [[noreturn]] void run_one(size_t n, const std::function<void(size_t)>& check) {
    bool is_private = unshare(CLONE_NEWNS | CLONE_NEWIPC) == 0;
    for (const char* folder : {"/var/lock_store", "/var/systemconfig", "/var/dataconfig"}) {
      is_private = is_private && mount("tmpfs", folder, "tmpfs", 0, nullptr) == 0;
    }
    if (!is_private) {
      perror("a private world");
      _exit(2);
    }
    for (void* address : attached_addresses()) shmdt(address);
    start_areas(started_areas());
    try {
      check(n);
    } catch (const std::exception& fault) {
      ADD_FAILURE() << fault.what();
    }
    unlink(kTryFile);
    EXPECT_TRUE(becomes([] { return !has_guards(); }));
    fflush(nullptr);
    _exit(HasFailure() ? 1 : 0);
  }
};

}  // namespace sc_test

#endif
