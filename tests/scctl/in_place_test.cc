/* scctl --in-place beside other programs: edits at once, signals, files that cannot be replaced. */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "scctl/in_place_case.h"
#include "support/listener.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

/* An exclusive lock on a whole file, as one edit holds it against another. */
class FileLock {
 public:
  explicit FileLock(const std::string& path) : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (flock(file_, LOCK_EX | LOCK_NB) != 0) throw std::runtime_error("lock on " + path);
  }
  ~FileLock() { release(); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  void release() {
    if (file_ >= 0) close(file_);
    file_ = -1;
  }

 private:
  int file_;
};

template <class Condition>
bool comes_true(Condition condition) {
  for (int ms = 0; ms < 60'000; ++ms) {
    if (condition()) return true;
    poll(nullptr, 0, 1);
  }
  return false;
}

/* "1: -> FLOCK  ADVISORY  WRITE 4711 00:2f:19 0 EOF" */
bool waits_for_a_file(pid_t pid) {
  return comes_true([=] {
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
      int who;
      if (sscanf(line.c_str(), "%*d: -> FLOCK ADVISORY WRITE %d", &who) == 1 && who == pid) {
        return true;
      }
    }
    return false;
  });
}

bool is_locked(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const bool locked = flock(file, LOCK_EX | LOCK_NB) != 0;
  close(file);
  return locked;
}

pid_t child_of(pid_t parent) {
  const std::string children =
      "/proc/" + std::to_string(parent) + "/task/" + std::to_string(parent) + "/children";
  pid_t child = 0;
  EXPECT_TRUE(comes_true([&] { return bool(std::ifstream(children) >> child); }));
  return child;
}

class InPlaceTest : public InPlaceCase {
 protected:
  /* A batch that waits for its next line, in the middle of its edit. */
  class OpenBatch {
   public:
    explicit OpenBatch(const Words& prefix = {}) {
      fs::remove("/var/typed");
      if (mkfifo("/var/typed", 0600) != 0) throw std::runtime_error("mkfifo");
      Words command = prefix;
      for (const auto& word : scctl({"batch", "/var/typed", "--image", kImage, "--in-place"})) {
        command.push_back(word);
      }
      program_ = std::make_unique<Program>(command);
      typed_ = open("/var/typed", O_WRONLY | O_CLOEXEC);
      type("set lan_binds/1 flag=7\n");
      /* The line's own output tells that the child has done it. */
      type("get lan_binds/1.flag\n");
      EXPECT_TRUE(comes_true([] { return exists(kTemporary); }));
    }
    ~OpenBatch() { end_input(); }
    void type(const std::string& line) {
      EXPECT_EQ(write(typed_, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    void end_input() {
      if (typed_ >= 0) close(typed_);
      typed_ = -1;
    }
    Program& program() { return *program_; }

   private:
    std::unique_ptr<Program> program_;
    int typed_ = -1;
  };
};

TEST_F(InPlaceTest, TwoEditsAtOnce_BothTakeEffect) {
  ASSERT_EQ(run(scctl({"add", "lan_binds", "mac=00:11:22:33:44:66", "ip=10.0.0.2", "--image",
                       kImage, "--in-place"}))
                .status,
            0);
#ifdef __mips__
  constexpr int kRounds = 20; /* emulated */
#else
  constexpr int kRounds = 200;
#endif
  for (int round = 1; round <= kRounds; ++round) {
    const std::string value = std::to_string(round % 100);
    const auto set = [&](const std::string& record) {
      return scctl({"set", record, "flag=" + value, "--image", kImage, "--in-place"});
    };
    Program first(set("lan_binds/1")), second(set("lan_binds/2"));
    ASSERT_EQ(first.wait(), (Outcome{0, "", ""}));
    ASSERT_EQ(second.wait(), (Outcome{0, "", ""}));
    for (const char* field : {"lan_binds/1.flag", "lan_binds/2.flag"}) {
      ASSERT_EQ(run(scctl({"get", field, "--image", kImage})).out, value + "\n")
          << field << " in round " << round;
    }
  }
  EXPECT_EQ(names_in(kFolder), std::set<std::string>{"lan.cfg"});
}

TEST_F(InPlaceTest, WhileAnotherHoldsTheFile_WaitsAndThenWorksOnWhatIsThere) {
  FileLock other(kImage);
  Program edit(edit_flag("7"));
  ASSERT_TRUE(waits_for_a_file(edit.pid()));
  EXPECT_FALSE(exists(kTemporary));
  std::string newer = was_;
  newer[offsetof(LanBlock, lan_binds) + offsetof(DhcpBindRecord, bind_name)] = 'P';
  write_file("/var/edited/newer", newer);
  fs::rename("/var/edited/newer", kImage);
  other.release();
  EXPECT_EQ(edit.wait(), (Outcome{0, "", ""}));
  EXPECT_EQ(run(scctl({"get", "lan_binds/1.name", "--image", kImage})).out, "Printer\n");
  EXPECT_EQ(run(scctl({"get", "lan_binds/1.flag", "--image", kImage})).out, "7\n");
}

TEST_F(InPlaceTest, WaitingForTheFile_IsEndedByASignal) {
  FileLock other(kImage);
  Program edit(edit_flag("7"));
  ASSERT_TRUE(waits_for_a_file(edit.pid()));
  kill(edit.pid(), SIGTERM);
  EXPECT_EQ(edit.wait(), (Outcome{-SIGTERM, "", ""}));
  EXPECT_EQ(kind_of(read_file(kImage)), "old");
}

TEST_F(InPlaceTest, WhenTheFileGoesAwayMeanwhile_SaysThatThereIsNone) {
  FileLock other(kImage);
  Program edit(edit_flag("7"));
  ASSERT_TRUE(waits_for_a_file(edit.pid()));
  fs::remove(kImage);
  other.release();
  EXPECT_EQ(edit.wait(),
            (Outcome{3, "", std::string("scctl: ") + kImage + ": No such file or directory\n"}));
  EXPECT_TRUE(names_in(kFolder).empty());
}

TEST_F(InPlaceTest, WhenItsFolderGoesAwayMeanwhile_SaysThatThereIsNone) {
  FileLock other(kImage);
  Program edit(edit_flag("7"));
  ASSERT_TRUE(waits_for_a_file(edit.pid()));
  fs::remove_all(kFolder);
  other.release();
  EXPECT_EQ(edit.wait(),
            (Outcome{3, "", std::string("scctl: ") + kImage + ": No such file or directory\n"}));
}

TEST_F(InPlaceTest, DryRun_WritesNothingAndWaitsForNobody) {
  const std::string exported = run(scctl({"export", "--image", kImage})).out;
  write_file("/var/edited/other.cfg", is_);
  const auto marks_of = [](const std::string& path) {
    const struct stat is = status_of(path);
    return std::tuple(is.st_ino, is.st_mtim.tv_sec, is.st_mtim.tv_nsec, is.st_ctim.tv_sec,
                      is.st_ctim.tv_nsec, read_file(path));
  };
  const auto was = marks_of(kImage), other_was = marks_of("/var/edited/other.cfg");
  FileLock other(kImage);
  const Outcome outcome =
      run(scctl({"import", "-", "--dry-run", "--image", "/var/edited/other.cfg", "--in-place"}),
          exported);
  EXPECT_EQ(outcome, (Outcome{0, "lan_binds/1.flag: 7 -> 0\ntables to change: 1\n", ""}));
  EXPECT_EQ(run(scctl({"import", "-", "--dry-run", "--image", kImage, "--in-place"}), exported),
            (Outcome{0, "tables to change: 0\n", ""}));
  EXPECT_EQ(run(scctl({"repair", "--dry-run", "--image", "/var/edited/other.cfg", "--in-place"})),
            (Outcome{0, "areas repaired: 1, mended: 0, left: 0\n", ""}));
  EXPECT_TRUE(marks_of(kImage) == was);
  EXPECT_TRUE(marks_of("/var/edited/other.cfg") == other_was);
  EXPECT_EQ(names_in(kFolder), (std::set<std::string>{"lan.cfg", "other.cfg"}));
}

/* ---- signals ---- */

TEST_F(InPlaceTest, ASignalInTheMiddle_LeavesTheFileAndNothingElse) {
  const rlimit no_core = {};
  setrlimit(RLIMIT_CORE, &no_core);
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
    OpenBatch batch;
    kill(batch.program().pid(), number);
    const Outcome outcome = batch.program().wait();
    EXPECT_EQ(outcome.status, 1) << outcome;
    EXPECT_EQ(outcome.err, std::string("scctl: ") + kImage +
                               " is not changed: the edit was ended by signal " +
                               std::to_string(number) + "\n");
    EXPECT_EQ(kind_of(read_file(kImage)), "old") << number;
    EXPECT_EQ(names_in(kFolder), std::set<std::string>{"lan.cfg"}) << number;
    EXPECT_TRUE(comes_true([] { return !is_locked(kImage); })) << number;
  }
}

TEST_F(InPlaceTest, AnIgnoredSignal_StaysIgnored) {
  OpenBatch batch({"sh", "-c", "trap '' HUP; exec \"$@\"", "sh"});
  kill(batch.program().pid(), SIGHUP);
  kill(child_of(batch.program().pid()), SIGHUP); /* a terminal tells both */
  batch.end_input();
  const Outcome outcome = batch.program().wait();
  EXPECT_EQ(outcome, (Outcome{0, "7\ncommands done: 2\n", ""}));
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
}

TEST_F(InPlaceTest, WhenTheCallerIgnoresTheEndOfChildren_TheEditIsStillWaitedFor) {
  signal(SIGCHLD, SIG_IGN);
  OpenBatch batch;
  signal(SIGCHLD, SIG_DFL);
  batch.end_input();
  EXPECT_EQ(batch.program().wait(), (Outcome{0, "7\ncommands done: 2\n", ""}));
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
}

TEST_F(InPlaceTest, AChildThatIsEndedByItself_IsTold) {
  OpenBatch batch;
  ASSERT_EQ(kill(child_of(batch.program().pid()), SIGTERM), 0);
  batch.end_input();
  const Outcome outcome = batch.program().wait();
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_EQ(outcome.err,
            std::string("scctl: ") + kImage + " is not changed: the edit was ended by signal 15\n");
  EXPECT_EQ(kind_of(read_file(kImage)), "old");
  EXPECT_EQ(names_in(kFolder), std::set<std::string>{"lan.cfg"});
}

TEST_F(InPlaceTest, AKilledEdit_EndsItsChildAndLeavesAFileThatTheNextRemoves) {
  OpenBatch batch;
  kill(batch.program().pid(), SIGKILL);
  EXPECT_EQ(batch.program().wait().status, -SIGKILL);
  /* The child has the lock, too. */
  EXPECT_TRUE(comes_true([] { return !is_locked(kImage); }));
  EXPECT_EQ(kind_of(read_file(kImage)), "old");
  EXPECT_EQ(names_in(kFolder), (std::set<std::string>{"lan.cfg", "lan.cfg.scctl-tmp"}));
  EXPECT_EQ(run(edit()), (Outcome{0, "", ""}));
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
  EXPECT_EQ(names_in(kFolder), std::set<std::string>{"lan.cfg"});
}

/* ---- files ---- */

TEST_F(InPlaceTest, OwnerAndModeAreKept) {
  const bool is_root = geteuid() == 0;
  const uid_t owner = is_root ? 65534 : geteuid();
  const gid_t group = is_root ? 1 : getegid();
  write_file(kArchive, archive_);
  for (const mode_t mode : {0600u, 0644u, 0666u, 06755u}) {
    for (const char* file : {kImage, kArchive}) {
      ASSERT_EQ(chown(file, owner, group), 0);
      ASSERT_EQ(chmod(file, mode), 0);
      ASSERT_EQ(run(edit(file)), (Outcome{0, "", ""}));
      const struct stat is = status_of(file);
      EXPECT_EQ(is.st_uid, owner) << file;
      EXPECT_EQ(is.st_gid, group) << file;
      EXPECT_EQ(is.st_mode & 07777, mode) << file;
    }
  }
}

TEST_F(InPlaceTest, ALinkStaysOne_AndItsTargetIsReplacedInItsFolder) {
  fs::create_directory("/var/edited/links");
  fs::create_symlink("../lan.cfg", "/var/edited/links/one");
  fs::create_symlink("links/one", "/var/edited/two");
  EXPECT_EQ(run(edit("/var/edited/two")), (Outcome{0, "", ""}));
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
  EXPECT_TRUE(fs::is_symlink("/var/edited/two"));
  EXPECT_TRUE(fs::is_symlink("/var/edited/links/one"));
  EXPECT_FALSE(fs::is_symlink(kImage));
  EXPECT_EQ(names_in("/var/edited/links"), std::set<std::string>{"one"});
  EXPECT_EQ(names_in(kFolder), (std::set<std::string>{"lan.cfg", "links", "two"}));
}

TEST_F(InPlaceTest, AFileWithHardLinks_IsRefused) {
  fs::create_hard_link(kImage, "/var/edited/second");
  EXPECT_EQ(run(edit()),
            (Outcome{1, "",
                     std::string("scctl: ") + kImage +
                         " is not changed: it has 2 hard links, and one alone would change\n"}));
  EXPECT_EQ(kind_of(read_file(kImage)), "old");
  EXPECT_EQ(status_of(kImage).st_nlink, 2u);
  EXPECT_EQ(names_in(kFolder), (std::set<std::string>{"lan.cfg", "second"}));
}

TEST_F(InPlaceTest, WhatIsNoRegularFile_IsRefusedAtOnce) {
  ASSERT_EQ(mkfifo("/var/edited/pipe", 0600), 0);
  for (const char* file : {"/var/edited/pipe", "/dev/null"}) {
    EXPECT_EQ(run(edit(file)),
              (Outcome{3, "", std::string("scctl: ") + file + ": not a regular file\n"}));
  }
  EXPECT_EQ(run(edit(kFolder)),
            (Outcome{3, "", std::string("scctl: ") + kFolder + ": Is a directory\n"}));
  EXPECT_EQ(names_in(kFolder), (std::set<std::string>{"lan.cfg", "pipe"}));
}

TEST_F(InPlaceTest, WhatHasTheTemporaryFilesNameAndIsNone_IsLeftAlone) {
  const Outcome refused = {1, "",
                           std::string("scctl: ") + kImage +
                               " is not changed: lan.cfg.scctl-tmp in its folder is not a regular "
                               "file\n"};
  write_file("/var/edited/other", "other");
  fs::create_symlink("other", kTemporary);
  EXPECT_EQ(run(edit()), refused);
  EXPECT_TRUE(fs::is_symlink(kTemporary));
  EXPECT_EQ(read_file("/var/edited/other"), "other");
  fs::remove(kTemporary);
  fs::create_directory(kTemporary);
  EXPECT_EQ(run(edit()), refused);
  EXPECT_TRUE(fs::is_directory(kTemporary));
  fs::remove(kTemporary);
  ASSERT_EQ(mkfifo(kTemporary, 0600), 0);
  EXPECT_EQ(run(edit()), refused);
  EXPECT_TRUE(fs::is_fifo(kTemporary));
  EXPECT_EQ(kind_of(read_file(kImage)), "old");
}

/* Nobody removes a file on which another is mounted. */
TEST_F(InPlaceTest, WhenTheTemporaryFileOfAKilledEditStays_TheFileStaysAsItIs) {
  write_file(kTemporary, "left");
  ASSERT_EQ(mount(kTemporary, kTemporary, nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(run(edit_flag("7")),
            (Outcome{1, "",
                     std::string("scctl: ") + kImage +
                         " is not changed: cannot remove the temporary file of an edit that was "
                         "killed: Device or resource busy\n"}));
  EXPECT_EQ(umount(kTemporary), 0);
  EXPECT_EQ(read_file(kTemporary), "left");
  EXPECT_EQ(kind_of(read_file(kImage)), "old");
}

TEST_F(InPlaceTest, ALongNameWithoutRoomForATemporaryFile_IsRefused) {
  const std::string file = std::string(kFolder) + "/" + std::string(250, 'n');
  write_file(file, was_);
  EXPECT_EQ(run(edit_flag("7", file)),
            (Outcome{1, "",
                     "scctl: " + file +
                         " is not changed: cannot create a temporary file beside it: File name too "
                         "long\n"}));
  EXPECT_EQ(kind_of(read_file(file)), "old");
}

/* ---- descriptors 0 to 2 ---- */

Outcome run_with(const std::string& redirection, const Words& command) {
  Words words = {"sh", "-c", "exec \"$@\" " + redirection, "sh"};
  for (const std::string& word : command) words.push_back(word);
  return run(words);
}

TEST_F(InPlaceTest, WithStandardOutputClosed_NothingIsWrittenAndItIsSaid) {
  write_file(kArchive, archive_);
  for (const auto& [option, file] : {std::pair{"--image", kImage}, {"--archive", kArchive}}) {
    const std::string was = read_file(file);
    const Outcome outcome = run_with(">&-", scctl({"add", "lan_binds", "mac=00:11:22:33:44:66",
                                                   "ip=10.0.0.2", option, file, "--in-place"}));
    EXPECT_EQ(outcome, (Outcome{1, "", "scctl: standard output: the text could not be written\n"}));
    EXPECT_TRUE(read_file(file) == was);
  }
  EXPECT_EQ(names_in(kFolder), (std::set<std::string>{"lan.cfg", "lan.bin"}));
}

TEST_F(InPlaceTest, WithStandardInputOrErrorClosed_TheFileHoldsTheEditAlone) {
  for (const char* redirection : {"<&-", "2>&-", "<&- 2>&-"}) {
    write_file(kImage, was_);
    EXPECT_EQ(run_with(redirection, edit()).status, 0) << redirection;
    EXPECT_EQ(kind_of(read_file(kImage)), "new") << redirection;
    /* What is refused has a message, which must not land in the file. */
    const Words refused = scctl({"set", "lan_binds/9", "flag=1", "--image", kImage, "--in-place"});
    EXPECT_EQ(run_with(redirection, refused).status, 1) << redirection;
    EXPECT_EQ(kind_of(read_file(kImage)), "new") << redirection;
    EXPECT_EQ(names_in(kFolder), std::set<std::string>{"lan.cfg"}) << redirection;
  }
}

/* ---- the machine's own ---- */

/* A mount in one of several namespaces that share /var is one in all of them. */
TEST_F(InPlaceTest, AnEditWhereVarIsShared_HidesItFromNobody) {
  ASSERT_EQ(mount("none", "/var", nullptr, MS_REC | MS_SHARED, nullptr), 0);
  EXPECT_EQ(run(edit()), (Outcome{0, "", ""}));
  EXPECT_EQ(mount("none", "/var", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  ASSERT_TRUE(exists(kImage));
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
}

TEST_F(InPlaceTest, AnEditWithoutAPath_FindsTheProgramsOfASave) {
  write_file(kArchive, archive_);
  Words words = {"sh", "-c",
                 "program=$(command -v \"$1\"); shift; unset PATH; exec \"$program\" \"$@\"", "sh"};
  for (const std::string& word : edit(kArchive)) words.push_back(word);
  EXPECT_EQ(run(words), (Outcome{0, "", ""}));
  EXPECT_EQ(kind_of(image_of(kArchive)), "new");
}

/* Programs that a save runs, as stand-ins outside of /var, which an edit hides: each notes its call. */
class NotedPrograms {
 public:
  NotedPrograms() {
    char folder[] = "/tmp/noted_XXXXXX";
    if (mkdtemp(folder) == nullptr) throw std::runtime_error("mkdtemp");
    folder_ = folder;
    for (const char* name : {"change_event", "send_event", "sync"}) {
      write_file(folder_ / name, "#!/bin/sh\necho " + std::string(name) + " \"$@\" >>" +
                                     (folder_ / "calls").native() + "\n");
      fs::permissions(folder_ / name, fs::perms::owner_all);
    }
    path_ = getenv("PATH");
    setenv("PATH", (folder_.native() + ":" + path_).c_str(), 1);
  }
  ~NotedPrograms() {
    setenv("PATH", path_.c_str(), 1);
    fs::remove_all(folder_);
  }
  NotedPrograms(const NotedPrograms&) = delete;
  NotedPrograms& operator=(const NotedPrograms&) = delete;

  std::string calls() const {
    return exists(folder_ / "calls") ? read_file(folder_ / "calls") : "";
  }

 private:
  fs::path folder_;
  std::string path_;
};

TEST_F(InPlaceTest, AnEdit_RunsNoEventOfTheMachineAndTellsNoDaemon) {
  NotedPrograms programs;
  Listener daemon;
  write_file(kArchive, archive_);
  EXPECT_EQ(run(edit(kArchive)), (Outcome{0, "", ""}));
  EXPECT_EQ(run(edit()), (Outcome{0, "", ""}));
  EXPECT_EQ(programs.calls(), "");
  EXPECT_TRUE(daemon.messages().empty());
  EXPECT_EQ(kind_of(image_of(kArchive)), "new");
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
  /* The same live runs them, and tells. */
  ASSERT_EQ(run(scctl({"init", "Lan"})).status, 0);
  ASSERT_EQ(run(scctl({"add", "lan_binds", "mac=00:11:22:33:44:55"})).status, 0);
  EXPECT_EQ(daemon.codes().size(), 1u);
  ASSERT_EQ(run(scctl({"save", "Lan"})).status, 0);
  EXPECT_EQ(programs.calls(), "sync\nchange_event network\n");
}

TEST_F(InPlaceTest, AnEdit_LeavesTheLiveAreaItsLocksAndItsArchive) {
  ASSERT_EQ(run(scctl({"init", "Lan"})).status, 0);
  ASSERT_EQ(run(scctl({"add", "lan_binds", "mac=00:00:00:00:00:09", "name=live"})).status, 0);
  ASSERT_EQ(run(scctl({"save", "Lan"})).status, 0);
  const std::string saved = read_file("/var/dataconfig/config_lan.bin");
  const std::string exported = run(scctl({"export", "Lan"})).out;
  const struct stat lock = status_of("/var/lock_store/lan_conf_lock");
  write_file(kArchive, archive_);
  EXPECT_EQ(run(edit(kArchive)), (Outcome{0, "", ""}));
  EXPECT_EQ(run(scctl({"clear", "lan_binds", "--image", kImage, "--in-place"})).status, 0);
  EXPECT_EQ(run(scctl({"export", "Lan"})).out, exported);
  EXPECT_TRUE(read_file("/var/dataconfig/config_lan.bin") == saved);
  EXPECT_EQ(status_of("/var/lock_store/lan_conf_lock").st_ctim.tv_nsec, lock.st_ctim.tv_nsec);
  EXPECT_EQ(names_in("/var/systemconfig"), std::set<std::string>{"scctl"});
  const std::string log = run(scctl({"log"})).out;
  EXPECT_NE(log.find("add lan_binds"), std::string::npos);
  EXPECT_EQ(log.find("--in-place"), std::string::npos); /* it is about the machine's areas */
}

}  // namespace
}  // namespace sc_test
