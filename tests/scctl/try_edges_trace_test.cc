/* A try beside programs that an event starts, a full memory, stopped processes, and a flash that
 * takes nothing; and the log of a device that has run for long.
 */
#include <sysconfig/lan.h>

#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <optional>
#include <set>
#include <sstream>

#include "scctl/lock_calls.h"
#include "scctl/tries.h"
#include "support/locks.h"
#include "support/trace.h"

namespace sc_test {
namespace {

constexpr char kState[] = "/var/systemconfig/scctl";

class TraceTryEdgeTest : public TryTest {
 protected:
  void SetUp() override {
    TryTest::SetUp();
    make_store();
    done({"save", "--all"});
  }
  static Words with_path(const std::string& folder, const Words& words) {
    return joined(Words{"sh", "-c", "PATH=" + folder + ":$PATH; exec \"$@\"", "sh"}, scctl(words));
  }
  /* A try of a program: scctl with a batch, then something else. */
  static Words try_program(const std::string& then) {
    std::string line;
    for (const std::string& word : scctl({"batch", kBatch})) line += word + " ";
    return scctl({"try", "--timeout", "60", "--", "sh", "-c", line + "&& { " + then + "; }"});
  }
  /* The names in the folder of the state. */
  static std::string state_files() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kState)) {
      names.insert(entry.path().filename());
    }
    std::string text;
    for (const std::string& name : names) text += name + " ";
    return text;
  }
};

/* A file system over a folder. */
class MountedOver {
 public:
  MountedOver(const char* folder, const char* options, unsigned long flags = 0) : folder_(folder) {
    EXPECT_EQ(mount("tmpfs", folder, "tmpfs", flags, options), 0);
  }
  ~MountedOver() { EXPECT_EQ(umount2(folder_, MNT_DETACH), 0); }
  MountedOver(const MountedOver&) = delete;
  MountedOver& operator=(const MountedOver&) = delete;

 private:
  const char* folder_;
};

/* The daemon, which hears what is announced. */
class Daemon {
 public:
  Daemon() : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {AF_UNIX, "/var/config_socket"};
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(socket_, 4096), 0);
  }
  ~Daemon() {
    close(socket_);
    unlink("/var/config_socket");
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /* The codes since the last time. */
  std::vector<int32_t> heard() const {
    std::vector<int32_t> codes;
    for (int caller; (caller = accept(socket_, nullptr, nullptr)) >= 0; close(caller)) {
      int32_t code = 0;
      EXPECT_EQ(recv(caller, &code, sizeof code, 0), static_cast<ssize_t>(sizeof code));
      codes.push_back(code);
    }
    return codes;
  }

 private:
  int socket_;
};

/* The stream tells it with the change, which is before the try is made. */
TEST_F(TraceTryEdgeTest, ANote_IsInTheTryBeforeARecordIsLocked) {
  const std::string note("for the stream", sizeof "for the stream"); /* the words have it, too */
  for (const char* area : {"Lan", "ApUserList"}) {
    write_file(kBatch, area == std::string("Lan") ? "del lan_binds/1\n" : "del ap_users/4\n");
    int locked = 0;
    const Words words = scctl({"try", "batch", kBatch, "--note", note.c_str()});
    trace(words, [&](const SystemCall& call) {
      if (!call.is_done && lock_call(call).type == F_WRLCK && call.file(0) == lock_file(area)) {
        ++locked;
        EXPECT_NE(read_file(kTryFile).find(note), std::string::npos) << area;
      }
      return without_forks(call);
    });
    EXPECT_GT(locked, 0) << area;
    done({"revert"});
  }
}

/* ---- programs that go on ---- */

TEST_F(TraceTryEdgeTest, AProgramThatAnEventLeavesRunning_HoldsUpNoConfirm) {
  std::filesystem::create_directory("/var/own");
  write_file("/var/own/change_event",
             "#!/bin/sh\nsleep 60 </dev/null >/dev/null 2>&1 &\necho $! >>/var/left\n");
  std::filesystem::permissions("/var/own/change_event", std::filesystem::perms::owner_all);
  for (const char* name : {"tried", "again"}) {
    start_try_of(std::string("set lan_binds/1 name=") + name + "\n");
    const auto begin = Clock::now();
    const Outcome outcome = run(with_path("/var/own", {"confirm"}));
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_LT(ms_since(begin), 8000);
  }
  std::istringstream left(read_file("/var/left"));
  for (pid_t pid; left >> pid;) EXPECT_EQ(kill(pid, SIGKILL), 0);
  std::filesystem::remove_all("/var/own");
}

/* The tar of a confirm that was killed writes the archive without any lock of the area. */
TEST_F(TraceTryEdgeTest, TheTarOfAKilledConfirm_IsWaitedForBeforeArchivesAreCompared) {
  std::filesystem::create_directory("/var/own");
  write_file("/var/own/tar",
             "#!/bin/sh\nPATH=${PATH#/var/own:}\ncase $1 in\n"
             "  -zcf) [ -e /var/tar_runs ] || { touch /var/tar_runs; sleep 1; } ;;\nesac\n"
             "tar \"$@\"\nstatus=$?\ntouch /var/tar_ended\nexit $status\n");
  std::filesystem::permissions("/var/own/tar", std::filesystem::perms::owner_all);
  start_try_of("set lan_binds/1 name=tried\n");
  Program confirm(with_path("/var/own", {"confirm"}));
  ASSERT_TRUE(becomes([] { return exists("/var/tar_runs"); }));
  kill(confirm.pid(), SIGKILL);
  confirm.wait();
  EXPECT_FALSE(exists("/var/tar_ended"));
  const Outcome outcome = run(scctl({"revert"}));
  EXPECT_EQ(outcome.status, 0) << outcome;
  EXPECT_TRUE(exists("/var/tar_ended"));
  EXPECT_FALSE(exists(kMarkerFile));
  EXPECT_EQ(done({"get", "lan_binds/1.name", "--archive", "/var/dataconfig/config_lan.bin"}),
            "one\n");
  std::filesystem::remove_all("/var/own");
}

/* An archive that is lost or broken after it was saved, before all are read back. */
TEST_F(TraceTryEdgeTest, AnArchiveThatIsLostWhileOthersAreSaved_KeepsTheTryFromBeingConfirmed) {
  std::filesystem::create_directory("/var/own");
  for (const char* loss : {"rm", "truncate -s 100"}) {
    /* The access points are saved behind Lan. */
    write_file("/var/own/change_event", "#!/bin/sh\n[ $1 != ap ] || " + std::string(loss) +
                                            " /var/dataconfig/config_lan.bin\n");
    std::filesystem::permissions("/var/own/change_event", std::filesystem::perms::owner_all);
    start_try_of("set lan_binds/1 name=tried\nset aps/1 run_state=5\n");
    const Outcome outcome = run(with_path("/var/own", {"confirm"}));
    EXPECT_EQ(outcome.status, 1) << loss << outcome;
    EXPECT_NE(outcome.err.find("not confirmed: /var/dataconfig/config_lan.bin"), std::string::npos)
        << outcome;
    EXPECT_TRUE(exists(kMarkerFile)) << loss;
    done({"revert"});
    EXPECT_EQ(done({"get", "lan_binds/1.name", "--archive", "/var/dataconfig/config_lan.bin"}),
              "one\n");
  }
  std::filesystem::remove_all("/var/own");
}

/* A boot would then leave the archives as they are: old ones beside new ones. */
TEST_F(TraceTryEdgeTest, AMarkerThatIsLostWhileAreasAreSaved_KeepsTheTryFromBeingConfirmed) {
  std::filesystem::create_directory("/var/own");
  write_file("/var/own/change_event", "#!/bin/sh\nrm -f /var/dataconfig/try\n");
  std::filesystem::permissions("/var/own/change_event", std::filesystem::perms::owner_all);
  start_try_of("set lan_binds/1 name=tried\n");
  const Outcome outcome = run(with_path("/var/own", {"confirm"}));
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_EQ(outcome.err,
            "scctl: not confirmed: /var/dataconfig/try was removed; scctl revert takes the try "
            "back\n");
  done({"revert"});
  EXPECT_EQ(done({"get", "lan_binds/1.name", "--archive", "/var/dataconfig/config_lan.bin"}),
            "one\n");
  std::filesystem::remove_all("/var/own");
}

/* A copy that is older than its archive would bring an old state back after a power cut. */
TEST_F(TraceTryEdgeTest, AnOldCopy_IsRenewedBeforeTheFirstChange) {
  done({"set", "lan_binds/1", "name=newer"});
  done({"save", "Lan"});
  start_try_of("set lan_binds/1 name=tried\n");
  EXPECT_EQ(done({"get", "lan_binds/1.name", "--archive", "/var/dataconfig/config_lan.good"}),
            "newer\n");
  done({"revert"});
}

/* ---- a full memory ---- */

TEST_F(TraceTryEdgeTest, ChangesOfAProgramWithoutRoomForThem_AreTakenBack) {
  std::string commands;
  for (int n = 3; n < 30; ++n) {
    const std::string id = std::to_string(n), mac = std::to_string(n + 10);
    commands += "add lan_binds/" + id + " mac=00:11:22:33:44:" + mac + " ip=10.0.1." + id +
                " name=the_name_of_number_" + id + "\n";
    commands +=
        "add ip_filter/" + std::to_string(n + 3) + " leading_text=the_text_of_number_" + id + "\n";
  }
  write_file(kBatch, commands);
  const Images before = live();
  {
    const MountedOver small("/var/systemconfig", "size=8m");
    const Outcome outcome =
        run(try_program("cat /dev/zero >/var/systemconfig/filler 2>/var/no_room; true"));
    EXPECT_EQ(outcome.status, 3) << outcome;
    EXPECT_NE(outcome.err.find("scctl: /var/systemconfig/scctl: No space left on device\n"
                               "scctl: the try failed, and is taken back\n"),
              std::string::npos)
        << outcome;
    EXPECT_NE(read_file("/var/no_room").find("No space left"), std::string::npos);
    expect_live(before);
    EXPECT_TRUE(is_over());
    EXPECT_FALSE(exists(kMarkerFile));
    EXPECT_TRUE(becomes([] { return !has_guards(); }));
  }
}

TEST_F(TraceTryEdgeTest, ChangesOfABatchWithoutRoomForThem_AreTakenBack) {
  std::string commands;
  for (int n = 0; n < 60; ++n) {
    commands += "set lan_binds/1 name=" + std::string(180, static_cast<char>('a' + n % 2)) + "\n";
  }
  write_file(kBatch, commands);
  const Images before = live();
  const MountedOver small("/var/systemconfig", "size=32k");
  write_file("/var/systemconfig/filler", std::string(16 * 1024, 'x'));
  const Outcome outcome = run(try_batch(60));
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_TRUE(
      outcome.err.ends_with("No space left on device\nscctl: the try failed, and is taken back\n"))
      << outcome;
  expect_live(before);
  EXPECT_TRUE(is_over());
  EXPECT_TRUE(becomes([] { return !has_guards(); }));
}

TEST_F(TraceTryEdgeTest, CopiesOfAreasThatDoNotFit_AreRemoved) {
  const MountedOver small("/var/systemconfig", "size=48k");
  const Outcome outcome = run(scctl({"try", "--", "true"}));
  EXPECT_EQ(outcome.status, 3) << outcome;
  EXPECT_NE(outcome.err.find("No space left on device"), std::string::npos) << outcome;
  EXPECT_EQ(state_files().find("before_"), std::string::npos) << state_files();
  EXPECT_TRUE(becomes([] { return !has_guards(); }));
}

/* ---- the commit ---- */

TEST_F(TraceTryEdgeTest, UntilTheCopiesAreRenewed_NobodyCanSave) {
  write_batch();
  start_try();
  size_t renewed = 0;
  trace(scctl({"confirm"}), [&](const SystemCall& call) {
    const bool renews = !call.is_done && call.call == SYS_renameat &&
                        call.text(3).find(".good") != std::string::npos;
    if (!renews) return Fate{};
    ++renewed;
    EXPECT_FALSE(exists(kMarkerFile));
    for (const std::string& name : tried_areas()) {
      if (name == "ApUserList") continue; /* is never saved */
      EXPECT_TRUE(is_locked(lock_file(name), 1)) << name << " at " << call.text(3);
    }
    return Fate{};
  });
  EXPECT_EQ(renewed, tried_areas().size() - 1);
  EXPECT_TRUE(is_over());
}

/* A cut of that save would bring an old archive back behind the commit. */
TEST_F(TraceTryEdgeTest, WhileAnotherProgramSavesAgain_NothingIsConfirmed) {
  start_try_of("set lan_binds/1 name=tried\n");
  std::optional<LockHolder> save;
  const Outcome outcome = trace(scctl({"confirm"}), [&](const SystemCall& call) {
    const bool has_saved = call.is_done && call.call == SYS_flock && call.arguments[1] == LOCK_UN &&
                           call.file(0) == std::string(kState) + "/saves";
    if (has_saved) save.emplace(lock_file("Lan"), off_t{1});
    return Fate{};
  });
  ASSERT_TRUE(save.has_value());
  EXPECT_EQ(outcome, (Outcome{1, "", "scctl: area Lan is being saved by another program\n"}));
  EXPECT_TRUE(exists(kMarkerFile));
  save.reset();
  done({"confirm"});
  EXPECT_FALSE(exists(kMarkerFile));
}

/* A confirm that goes on, although a boot would take the areas back. */
TEST_F(TraceTryEdgeTest, WhileTheMarkerCannotBeRemoved_NothingIsConfirmed) {
  start_try_of("set lan_binds/1 name=tried\n");
  const Outcome outcome = trace(scctl({"confirm"}), [](const SystemCall& call) {
    const bool removes = !call.is_done && call.call == SYS_unlinkat && call.text(1) == "try";
    return removes ? Fate{Fate::kFails, EIO} : Fate{};
  });
  EXPECT_EQ(outcome.status, 3) << outcome;
  EXPECT_EQ(
      outcome.err,
      "scctl: /var/dataconfig: not confirmed: the marker is not removed: Input/output error\n");
  EXPECT_TRUE(exists(kMarkerFile));
  EXPECT_TRUE(exists(kTryFile));
  done({"confirm"});
  EXPECT_FALSE(exists(kMarkerFile));
}

/* A process that was forked for the logger and goes on would remove the next try's file. */
TEST_F(TraceTryEdgeTest, WithoutALogger_OneProcessEndsTheTry) {
  start_try_of("set ap_users/4 opaque_14=736574\n"); /* whose end needs no other program */
  const std::string path = getenv("PATH");
  setenv("PATH", "/var/nowhere", 1);
  size_t ends = 0;
  const Outcome outcome = trace(scctl({"revert"}), [&](const SystemCall& call) {
    ends += !call.is_done && call.call == SYS_unlinkat && call.file(0) == kState &&
            call.text(1) == "try";
    return Fate{};
  });
  setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(outcome, (Outcome{0, "", ""}));
  EXPECT_EQ(ends, 1u);
}

/* ---- guards ---- */

TEST_F(TraceTryEdgeTest, AGuardOfTheLastTryThatWasStopped_DoesNotKeepTheNextOneFromStarting) {
  start_try_of("set lan_binds/1 name=tried\n");
  revert();
  ASSERT_TRUE(becomes([] { return !has_guards(); }));
  Child stopped([] {
    const int file = open(kStateLocks, O_RDWR | O_CLOEXEC);
    struct flock byte = {};
    byte.l_type = F_WRLCK;
    byte.l_whence = SEEK_SET;
    byte.l_start = kTwinByte;
    byte.l_len = 1;
    if (fcntl(file, F_SETLK, &byte) != 0) _exit(1);
    raise(SIGSTOP);
    _exit(2);
  });
  ASSERT_TRUE(becomes([&] { return holder(kTwinByte) == stopped.pid(); }));
  pause_ms(100);
  start_try_of("set lan_binds/1 name=tried\n");
  EXPECT_TRUE(becomes([&] { return stopped.ended(); }));
  EXPECT_TRUE(becomes([] { return holder(kGuardByte) != 0 && holder(kTwinByte) != 0; }));
}

TEST_F(TraceTryEdgeTest, WhenBothGuardsOfTheLastTryWereStopped_TheNextOneHasItsOwn) {
  const Images before = live();
  start_try_of("set lan_binds/1 name=tried\n");
  const pid_t guards[] = {holder(kGuardByte), holder(kTwinByte)};
  trace(scctl({"revert"}), [&](const SystemCall& call) {
    if (call.call == SYS_unlinkat && call.file(0) == kState && call.text(1) == "try") {
      for (const pid_t guard : guards) kill(guard, SIGSTOP);
    }
    return Fate{};
  });
  EXPECT_EQ(holder(kGuardByte), guards[0]);
  EXPECT_EQ(holder(kTwinByte), guards[1]);
  start_try_of("set lan_binds/1 name=again\n", 1);
  EXPECT_TRUE(becomes(is_over, 6000));
  expect_live(before);
}

/* The last try has ended when a call looks for it, and the next one has begun when it looks again. */
TEST_F(TraceTryEdgeTest, ACallBetweenTwoTries_RemovesNoneOfThem) {
  start_try_of("set lan_binds/1 name=tried\n");
  const pid_t guards[] = {holder(kGuardByte), holder(kTwinByte)};
  size_t hidden = 0;
  trace(scctl({"tables"}), [&](const SystemCall& call) {
    if (call.call != SYS_openat || call.text(1) != "try") return Fate{};
    if (!call.is_done) {
      ++hidden;
      for (const pid_t guard : guards) kill(guard, SIGSTOP);
      EXPECT_EQ(rename(kTryFile, "/var/hidden"), 0);
    } else {
      EXPECT_EQ(rename("/var/hidden", kTryFile), 0);
      for (const pid_t guard : guards) kill(guard, SIGCONT);
    }
    return Fate{};
  });
  EXPECT_EQ(hidden, 1u);
  EXPECT_FALSE(is_over());
  EXPECT_EQ(run_scctl({"try", "--status"}).status, 0);
}

/* It looks while the try has no guards yet, and waits for the maker's role. */
TEST_F(TraceTryEdgeTest, GuardsThatTheMakerStartsMeanwhile_WereNotKilled) {
  for (const off_t byte : {kGuardByte, kTwinByte, off_t{-1}}) {
    const bool is_started = byte >= 0;
    start_try_of("set lan_binds/1 name=tried\n");
    const std::string journal = read_file(kTryFile);
    unlink(kTryFile);
    ASSERT_TRUE(becomes([] { return !has_guards(); }));
    write_file(kTryFile, journal);
    std::optional<LockHolder> guard;
    const Outcome outcome = trace(scctl({"tables"}), [&](const SystemCall& call) {
      const LockCall lock = lock_call(call);
      const bool takes_role = lock.is_lock && lock.type == F_WRLCK && lock.first == kActorByte;
      if (!call.is_done && takes_role && is_started && !guard) guard.emplace(kStateLocks, byte);
      return without_forks(call);
    });
    EXPECT_EQ(outcome.err, is_started ? ""
                                      : "scctl: the guards of the try were killed; they are "
                                        "started again\n");
    guard.reset();
    run_scctl({"revert"});
  }
}

/* All is written, and nothing is announced. */
TEST_F(TraceTryEdgeTest, AGuardKilledBeforeItAnnounces_IsReplacedByOneThatDoes) {
  const Daemon daemon;
  start_try_of("set lan_binds/1 name=tried\n", 2);
  daemon.heard();
  bool is_killed = false;
  trace_running({holder(kGuardByte), holder(kTwinByte)}, [&](const SystemCall& call) {
    if (is_killed) return Fate{Fate::kLeaves};
    /* A guard takes a process that is looked at for one that was stopped. */
    if (!call.is_done && call.call == SYS_kill) return Fate{Fate::kFails, EPERM};
    is_killed = !call.is_done && call.call == SYS_connect;
    return Fate{is_killed ? Fate::kKills : Fate::kMade};
  });
  EXPECT_TRUE(is_killed);
  EXPECT_TRUE(becomes(is_over));
  EXPECT_EQ(daemon.heard(), std::vector<int32_t>{1});
}

TEST_F(TraceTryEdgeTest, WhileAnotherProgramSaves_WhatIsTakenBackIsAnnouncedOnce) {
  const Daemon daemon;
  start_try_of("set lan_binds/1 name=tried\nset lan_binds/1 name=twice\n", 2);
  daemon.heard();
  {
    const LockHolder save(lock_file("Lan"), 1);
    pause_ms(16000); /* a guard waits for a save some seconds long, then looks again and again */
    EXPECT_FALSE(is_over());
  }
  EXPECT_TRUE(becomes(is_over));
  const size_t times = daemon.heard().size();
  EXPECT_TRUE(times == 1 || times == 2) << times; /* once by each guard */
}

/* ---- waits ---- */

/* A kernel with a coarse timer makes a pause of a millisecond ten and more. */
class TraceCoarseTimerTest : public TraceTryEdgeTest {
 protected:
  /* Runs scctl, whose pauses get longer, and expects a wait of so many milliseconds in all. */
  static Outcome waited(const Words& words, size_t ms) {
    size_t pauses = 0;
    const Outcome outcome = trace(scctl(words), [&](const SystemCall& call) {
      if (call.is_done || (call.call != SYS_clock_nanosleep && call.call != SYS_nanosleep))
        return Fate{};
      ++pauses;
      pause_ms(9);
      return Fate{};
    });
    EXPECT_GT(pauses, ms / 100)
        << words[0]; /* ten milliseconds each, and more on a loaded machine */
    EXPECT_LE(pauses, ms / 10 + 10) << words[0];
    return outcome;
  }
};

TEST_F(TraceCoarseTimerTest, ARecordThatIsHeld_IsWaitedForASecondAllTheSame) {
  start_try_of("set lan_binds/1 name=tried\nset lan_binds/2 name=tried\n");
  const auto& lan = *block_as<LanBlock>("Lan");
  const LockHolder foreign(lock_file("Lan"), lan.lan_binds[0].lock_index);
  EXPECT_EQ(waited({"list", "lan_binds"}, 1000).status, 0);
  EXPECT_EQ(waited({"checkpoint", "a"}, 2000).status, 0); /* all areas, then this one alone */
  EXPECT_EQ(waited({"revert"}, 1000).out, "lan_binds/1: another program holds it\n");
  EXPECT_STREQ(lan.lan_binds[1].bind_name, "two");
}

TEST_F(TraceCoarseTimerTest, OnlyTheFirstOfSeveralThatAreHeld_IsWaitedFor) {
  const auto& lan = *block_as<LanBlock>("Lan");
  const LockHolder record(lock_file("Lan"), lan.lan_binds[0].lock_index);
  const LockHolder next(lock_file("Lan"), lan.lan_binds[1].lock_index);
  EXPECT_EQ(waited({"list", "lan_binds"}, 1000).status, 0);
  const LockHolder save(lock_file("FwMac"), 1), other(lock_file("FwUrl"), 1);
  EXPECT_EQ(waited({"diff", "saved", "saved"}, 5000).status, 0);
}

TEST_F(TraceCoarseTimerTest, ASaveThatDoesNotEnd_IsWaitedForFiveSecondsAllTheSame) {
  const LockHolder foreign(lock_file("Lan"), 1);
  /* Its byte also guards the settings. */
  EXPECT_EQ(waited({"list", "lan_settings"}, 1000).status, 0);
  EXPECT_EQ(waited({"diff", "saved", "live"}, 5000 + 1000).status, 0);
}

TEST_F(TraceCoarseTimerTest, ATryThatIsBeingEnded_IsWaitedForThreeSecondsAllTheSame) {
  start_try_of("set lan_binds/1 name=tried\n");
  const LockHolder foreign(kStateLocks, kActorByte);
  const Outcome outcome = waited({"confirm"}, 3000);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("not confirmed: process "), std::string::npos) << outcome;
}

TEST_F(TraceCoarseTimerTest, ALogThatIsBeingWritten_IsWaitedForASecondAllTheSame) {
  done({"set", "lan_binds/1", "name=first"});
  const int folder = open(kState, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_EQ(flock(folder, LOCK_EX), 0);
  EXPECT_EQ(waited({"set", "lan_binds/1", "name=second"}, 1000).status, 0);
  close(folder);
}

/* ---- the flash ---- */

TEST_F(TraceTryEdgeTest, AnAreaThatChangesWhileItIsSavedAgain_IsSavedOnceMore) {
  start_try_of("set lan_binds/1 name=tried\n");
  done({"save", "Lan"});
  auto* value = reinterpret_cast<volatile uint32_t*>(block("Lan") + 136);
  Child writer([&] {
    for (const auto end = in_ms(1500); Clock::now() < end;) *value = *value + 1;
  });
  run_scctl({"revert"});
  EXPECT_TRUE(becomes(is_over));
  writer.wait();
  EXPECT_FALSE(exists(kMarkerFile));
  EXPECT_EQ(read_file(std::string(kState) + "/ended").find("an archive holds"), std::string::npos);
}

/* ---- messages ---- */

TEST_F(TraceTryEdgeTest, WithoutAMarker_NoArchiveIsSaidToHoldWhatWasTried) {
  const MountedOver read_only("/var/dataconfig", "", MS_RDONLY);
  write_file(kBatch, "set lan_binds/1 name=tried\n");
  const Outcome outcome = run(scctl({"try", "batch", kBatch}));
  EXPECT_EQ(outcome.status, 3) << outcome;
  EXPECT_NE(outcome.err.find("the try failed, and is taken back\n"), std::string::npos) << outcome;
  EXPECT_EQ(outcome.err.find("an archive holds"), std::string::npos) << outcome;
}

TEST_F(TraceTryEdgeTest, WhileAProgramRuns_StatusSaysThatAllOfItCounts) {
  constexpr char kSays[] = "\nwhatever changes meanwhile is part of it\n";
  write_file(kBatch, "set lan_binds/1 name=tried\n");
  const Child caller([] {
    const Words words = try_program("touch /var/runs; while [ -e /var/runs ]; do sleep 0.1; done");
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
  });
  ASSERT_TRUE(becomes([] { return exists("/var/runs"); }));
  EXPECT_NE(done({"try", "--status"}).find(kSays), std::string::npos);
  unlink("/var/runs");
  EXPECT_TRUE(becomes([] { return holder(kActorByte) == 0; }));
  const std::string made = done({"try", "--status"});
  EXPECT_EQ(made.find(kSays), std::string::npos) << made;
  EXPECT_NE(made.find("lan_binds/1.name: one -> tried\n"), std::string::npos) << made;
}

/* ---- the log ---- */

TEST_F(TraceTryEdgeTest, AfterMillionsOfEdits_TheNextOneIsLoggedAsFast) {
  constexpr uint32_t kEdits = 40'000'000;
  constexpr size_t kMostLog = 64 * 1024, kSizeAt = 4, kEntryAt = 8;
  const std::string file = std::string(kState) + "/log";
  unlink(file.c_str());
  done({"set", "lan_binds/1", "name=edited"});
  const std::string entry = read_file(file);
  std::string log;
  for (uint32_t number = kEdits; log.size() + entry.size() <= kMostLog; ++number) {
    const size_t start = log.size();
    log += entry;
    for (size_t at = start; at < log.size();) {
      uint32_t size;
      memcpy(&size, log.data() + at + kSizeAt, sizeof size);
      memcpy(log.data() + at + kEntryAt, &number, sizeof number);
      at += size;
    }
  }
  const uint32_t last = kEdits + static_cast<uint32_t>(log.size() / entry.size()) - 1;
  write_file(file, log);
  const auto begin = Clock::now();
  done({"set", "lan_binds/1", "name=again"});
  EXPECT_LT(ms_since(begin), 5000);
  const std::string shown = done({"log"});
  EXPECT_EQ(shown.find(std::to_string(last + 1) + "  "), 0u) << shown.substr(0, 200);
  EXPECT_LE(read_file(file).size(), kMostLog);
  EXPECT_GT(read_file(file).size(), kMostLog - 2 * entry.size());
  EXPECT_EQ(shown.find("\n" + std::to_string(kEdits) + "  "), std::string::npos);
}

}  // namespace
}  // namespace sc_test
