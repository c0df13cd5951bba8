/* scctl --in-place, looked at call by call: killed at each, failing at each, and with another program
 * at work at each. */
#include <errno.h>
#include <fcntl.h>
#include <linux/stat.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "scctl/in_place_case.h"
#include "support/random.h"
#include "support/trace.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

const std::set<std::string> kImageAlone = {"lan.cfg"};

bool is_stat_by_name(const SystemCall& call) {
#if defined(__x86_64__)
  return call.call == SYS_newfstatat && !call.text(1).empty();
#else
  return (call.call == SYS_statx || call.call == SYS_fstatat64) && !call.text(1).empty();
#endif
}

bool is_chown(const SystemCall& call) {
#if defined(__x86_64__)
  return call.call == SYS_fchown;
#else
  return call.call == SYS_fchown32 || call.call == SYS_fchown;
#endif
}

/* On i386 it is one of many behind one number. */
bool is_shmget(const SystemCall& call) {
#if defined(__x86_64__)
  return call.call == SYS_shmget;
#else
  constexpr uint64_t kShmget = 23;
  return call.call == SYS_shmget || (call.call == SYS_ipc && call.arguments[0] == kShmget);
#endif
}

class TraceInPlaceTest : public InPlaceCase {
 protected:
  void prepare() {
    fs::remove_all(kFolder);
    fs::create_directory(kFolder);
    write_file(kImage, was_);
    write_file(kArchive, archive_);
  }

  /* Kills the edit at each of its calls, or at each of a sample: the parent, the child, or what the
   * child is about to start. */
  void kill_at_every_call_of(const Words& command, const std::string& file,
                             const std::function<std::string()>& image, size_t step = 1) {
    const std::set<std::string> files = {"lan.bin", "lan.cfg"};
    std::set<std::string> files_and_rest = files;
    files_and_rest.insert(fs::path(file).filename().native() + ".scctl-tmp");
    size_t parents = 0, others = 0, rests = 0, replaced = 0;
    for (size_t last = 1 + Random().below(step);; last += step) {
      prepare();
      bool killed = false;
      const Outcome outcome = trace(command, [&](const SystemCall& call) {
        if (call.is_done || call.number != last) return Fate{};
        killed = true;
        return Fate{Fate::kKills};
      });
      const std::string kind = kind_of(image());
      if (!killed) {
        EXPECT_EQ(outcome, (Outcome{0, "", ""}));
        EXPECT_EQ(kind, "new");
        break;
      }
      SCOPED_TRACE("killed at call " + std::to_string(last));
      ASSERT_NE(kind, "neither");
      if (outcome.status == -SIGKILL) {
        ++parents;
        replaced += kind == "new";
        if (names_in(kFolder) != files) {
          ++rests;
          ASSERT_EQ(kind, "old");
          ASSERT_EQ(names_in(kFolder), files_and_rest);
        }
      } else {
        ++others;
        ASSERT_EQ(kind, outcome.status == 0 ? "new" : "old") << outcome;
        ASSERT_EQ(outcome.err.empty(), outcome.status == 0) << outcome;
        if (outcome.status != 0) ASSERT_EQ(outcome.err.find("scctl: " + file), 0u) << outcome;
        ASSERT_EQ(names_in(kFolder), files);
      }
      ASSERT_EQ(run(command), (Outcome{0, "", ""}));
      ASSERT_EQ(kind_of(image()), "new");
      ASSERT_EQ(names_in(kFolder), files);
    }
    EXPECT_GT(parents, 50 / step);
    EXPECT_GT(others, 50 / step);
    if (step == 1) {
      EXPECT_GT(rests, 5u);
      EXPECT_GT(replaced, 2u);
    }
  }
};

TEST_F(TraceInPlaceTest, KilledAtAnyCall_AnImageIsOldOrNewAndTheNextEditWorks) {
  kill_at_every_call_of(edit(kImage), kImage, [] { return read_file(kImage); });
}

TEST_F(TraceInPlaceTest, KilledAtAnyCall_AnArchiveIsOldOrNewAndTheNextEditWorks) {
  kill_at_every_call_of(
      edit(kArchive), kArchive, [] { return image_of(kArchive); }, 10);
}

/* ---- the order ---- */

/* What happens to the file, its folder and its temporary file, in order; what is looked at and read is
 * left out up to the temporary file. */
TEST_F(TraceInPlaceTest, TheNewFileIsOnTheDiskBeforeItIsLookedAtForTheLastTimeAndRenamed) {
  std::vector<std::string> journal;
  size_t opened = 0;
  std::set<std::string> written;
  ASSERT_EQ(trace(edit(),
                  [&](const SystemCall& call) {
                    if (call.call == SYS_openat && !call.is_done) {
                      opened += call.text(1) == kImage;
                      const int flags = static_cast<int>(call.arguments[2]);
                      const std::string name = call.text(1);
                      if (name == kImage || name == std::string(kFolder) + "/") {
                        EXPECT_NE(flags & O_CLOEXEC, 0) << name; /* a save runs programs */
                      }
                      if ((flags & O_ACCMODE) != O_RDONLY && !name.starts_with("/proc/")) {
                        written.insert(name);
                      }
                      if ((flags & O_CREAT) != 0 && name == "lan.cfg.scctl-tmp") {
                        EXPECT_TRUE((flags & O_EXCL) != 0 && (flags & O_CLOEXEC) != 0);
                        EXPECT_EQ(call.arguments[3], 0600u);
                        journal.push_back("create " + call.file(0) + " " + name);
                      }
                    }
                    if (call.is_done) return Fate{};
                    if (call.call == SYS_flock) journal.push_back("lock " + call.file(0));
                    if (is_chown(call)) journal.push_back("chown " + call.file(0));
                    if (call.call == SYS_write && call.file(0) == kTemporary) {
                      journal.push_back("write " + call.file(0));
                    }
                    if (call.call == SYS_fchmod) journal.push_back("chmod " + call.file(0));
                    if (call.call == SYS_fsync) journal.push_back("sync " + call.file(0));
                    if (is_stat_by_name(call) && call.file(0) == kFolder) {
                      EXPECT_NE(call.arguments[3] & AT_SYMLINK_NOFOLLOW, 0u);
                      journal.push_back("look at " + call.text(1));
                    }
                    if (call.call == SYS_renameat || call.call == SYS_renameat2) {
                      EXPECT_EQ(call.file(2), kFolder);
                      journal.push_back("rename " + call.text(1) + " " + call.text(3));
                    }
                    return Fate{};
                  }),
            (Outcome{0, "", ""}));
  const std::string temporary = kTemporary, folder = kFolder, image = kImage;
  EXPECT_EQ(journal, (std::vector<std::string>{
                         "lock " + image, "look at lan.cfg", "look at lan.cfg.scctl-tmp",
                         "create " + folder + " lan.cfg.scctl-tmp", "chown " + temporary,
                         "write " + temporary, "chmod " + temporary, "sync " + temporary,
                         "look at lan.cfg", "rename lan.cfg.scctl-tmp lan.cfg", "sync " + folder}));
  EXPECT_EQ(opened, 1u);
  written.erase("/dev/null");
  EXPECT_EQ(written, (std::set<std::string>{kImage, "lan.cfg.scctl-tmp", "/var/bin/change_event",
                                            "/var/bin/send_event", "/var/bin/sync",
                                            "/var/lock_store/lan_conf_lock"}));
}

/* Else the edit would be one of the machine's own area. */
TEST_F(TraceInPlaceTest, WithoutRights_TheUserNamespaceComesWithIpcAndMountsOfItsOwn) {
  std::vector<uint64_t> asked;
  const Outcome outcome = trace(edit(), [&](const SystemCall& call) {
    if (call.is_done || call.call != SYS_unshare) return Fate{};
    asked.push_back(call.arguments[0]);
    return asked.size() == 1 ? Fate{Fate::kFails, EPERM} : Fate{};
  });
  EXPECT_EQ(asked, (std::vector<uint64_t>{CLONE_NEWIPC | CLONE_NEWNS,
                                          CLONE_NEWUSER | CLONE_NEWIPC | CLONE_NEWNS}));
  /* Nobody has them in a chroot. */
  if (run({"unshare", "--user", "true"}).status != 0) {
    EXPECT_EQ(outcome, (Outcome{3, "",
                                std::string("scctl: ") + kImage +
                                    " is not changed: cannot make a sandbox: namespaces: Operation "
                                    "not permitted\n"}));
    EXPECT_EQ(kind_of(read_file(kImage)), "old");
    return;
  }
  EXPECT_EQ(outcome, (Outcome{0, "", ""}));
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
}

/* ---- calls that fail ---- */

struct Failure {
  const char* what;
  std::function<bool(const SystemCall&)> call;
  int error;
  int status;
  std::string said;
};

TEST_F(TraceInPlaceTest, AFailingStep_IsSaidWithTheFilesNameAndLeavesTheFile) {
  const auto is = [](long number, const std::string& file) {
    return [=](const SystemCall& call) { return call.call == number && call.file(0) == file; };
  };
  const auto creates = [](const SystemCall& call) {
    return call.call == SYS_openat && call.text(1) == "lan.cfg.scctl-tmp";
  };
  const auto opens_folder = [](const SystemCall& call) {
    return call.call == SYS_openat && call.text(1) == std::string(kFolder) + "/";
  };
  const auto calls = [](long number) {
    return [=](const SystemCall& call) { return call.call == number; };
  };
  const std::vector<Failure> failures = {
      {"lock", is(SYS_flock, kImage), ENOLCK, 1, "cannot lock it: No locks available"},
      {"open folder", opens_folder, EACCES, 3, "cannot open its folder: Permission denied"},
      {"create", creates, ENOSPC, 1,
       "cannot create a temporary file beside it: No space left on device"},
      {"create", creates, EROFS, 3,
       "cannot create a temporary file beside it: Read-only file system"},
      {"chown", is_chown, EPERM, 3, "cannot keep its owner: Operation not permitted"},
      {"unshare", calls(SYS_unshare), ENOSPC, 3,
       "cannot make a sandbox: namespaces: No space left on device"},
      {"mount", calls(SYS_mount), EPERM, 3,
       "cannot make a sandbox: private mounts: Operation not permitted"},
      {"mkdir", calls(SYS_mkdir), ENOSPC, 3,
       "cannot make a sandbox: /var/lock_store: No space left on device"},
      {"shmget", is_shmget, ENOSPC, 3, "area Lan cannot be created: No space left on device"},
      {"write", is(SYS_write, kTemporary), EIO, 1,
       "cannot write the temporary file: Input/output error"},
      {"write", is(SYS_write, kTemporary), ENOSPC, 1,
       "cannot write the temporary file: No space left on device"},
      {"chmod", is(SYS_fchmod, kTemporary), EPERM, 3,
       "cannot keep its mode: Operation not permitted"},
      {"attributes", calls(SYS_flistxattr), EIO, 1,
       "cannot keep its extended attributes: Input/output error"},
      {"sync", is(SYS_fsync, kTemporary), EIO, 1,
       "cannot flush the temporary file: Input/output error"},
      {"rename", calls(SYS_renameat), EIO, 1,
       "cannot rename the temporary file: Input/output error"},
  };
  for (const Failure& failure : failures) {
    prepare();
    fs::remove(kArchive);
    size_t failed = 0;
    const Outcome outcome = trace(edit(), [&](const SystemCall& call) {
      if (call.is_done || failed > 0 || !failure.call(call)) return Fate{};
      ++failed;
      return Fate{Fate::kFails, failure.error};
    });
    EXPECT_EQ(failed, 1u) << failure.what;
    EXPECT_EQ(outcome, (Outcome{failure.status, "",
                                std::string("scctl: ") + kImage +
                                    " is not changed: " + failure.said + "\n"}))
        << failure.what;
    EXPECT_EQ(kind_of(read_file(kImage)), "old") << failure.what;
    EXPECT_EQ(names_in(kFolder), kImageAlone) << failure.what;
  }
}

TEST_F(TraceInPlaceTest, AFolderThatCannotBeFlushed_IsToldThoughTheFileIsChanged) {
  for (const int error : {EIO, EINVAL, ENOTSUP}) {
    prepare();
    fs::remove(kArchive);
    const Outcome outcome = trace(edit(), [=](const SystemCall& call) {
      const bool folder = call.call == SYS_fsync && call.file(0) == kFolder;
      return folder ? Fate{Fate::kFails, error} : Fate{};
    });
    EXPECT_EQ(outcome,
              (Outcome{1, "",
                       std::string("scctl: ") + kImage +
                           " is changed, but a power cut may undo it: cannot flush its folder: " +
                           strerror(error) + "\n"}));
    EXPECT_EQ(kind_of(read_file(kImage)), "new");
    EXPECT_EQ(names_in(kFolder), kImageAlone);
  }
}

/* Whatever fails, once: success is the new file, all else is said and leaves the old one. */
TEST_F(TraceInPlaceTest, AnyCallThatFailsOnce_LeavesTheOldFileOrTheNewOne) {
  for (const char* file : {kImage, kArchive}) {
    const auto image = [&] { return file == kImage ? read_file(kImage) : image_of(kArchive); };
    size_t refused = 0;
    const size_t step = file == kImage ? 1 : 10;
    prepare();
    size_t locked_at = 0; /* what fails before has nothing to undo */
    trace(edit(file), [&](const SystemCall& call) {
      if (call.call == SYS_flock) locked_at = call.number;
      return Fate{};
    });
    for (size_t last = locked_at + Random().below(step);; last += step) {
      prepare();
      long failed = -1;
      std::string on;
      const Outcome outcome = trace(edit(file), [&](const SystemCall& call) {
        /* These do not fail, or not without their effect. */
        static const std::set<long> kSpared = {SYS_exit_group, SYS_rt_sigreturn, SYS_getpid,
                                               SYS_getppid,    SYS_geteuid,      SYS_getegid,
                                               SYS_close};
        if (call.is_done || call.number != last) return Fate{};
        failed = call.call;
        on = call.file(0);
        return kSpared.contains(call.call) ? Fate{} : Fate{Fate::kFails, EIO};
      });
      if (failed < 0) break;
      const std::string where =
          "call " + std::to_string(last) + ", number " + std::to_string(failed) + " on " + on;
      if (outcome.status == 0) {
        ASSERT_EQ(kind_of(image()), "new") << where;
      } else {
        ++refused;
        ASSERT_FALSE(outcome.err.empty()) << where;
        const bool folder = failed == SYS_fsync && on == kFolder;
        ASSERT_EQ(kind_of(image()), folder ? "new" : "old") << where << outcome;
      }
      ASSERT_EQ(names_in(kFolder), (std::set<std::string>{"lan.bin", "lan.cfg"})) << where;
    }
    EXPECT_GT(refused, 20 / step);
  }
}

/* ---- other programs at work ---- */

TEST_F(TraceInPlaceTest, WrittenByAnotherDuringTheFlush_IsNotReplaced) {
  std::string other = was_;
  other[2000] = 'x';
  const auto writes_it = [&](bool hides_it) {
    return [&, hides_it](const SystemCall& call) {
      if (call.call != SYS_fsync || call.is_done) return Fate{};
      const struct stat was = status_of(kImage);
      const int file = open(kImage, O_WRONLY | O_CLOEXEC);
      EXPECT_EQ(pwrite(file, other.data(), other.size(), 0), static_cast<ssize_t>(other.size()));
      const timespec times[] = {was.st_atim, was.st_mtim};
      if (hides_it) futimens(file, times);
      close(file);
      return Fate{};
    };
  };
  for (const bool hides_it : {false, true}) {
    write_file(kImage, was_);
    EXPECT_EQ(trace(edit(), writes_it(hides_it)),
              (Outcome{1, "",
                       std::string("scctl: ") + kImage +
                           " is not changed: another program has changed it meanwhile\n"}));
    EXPECT_EQ(read_file(kImage), other);
    EXPECT_EQ(names_in(kFolder), kImageAlone);
  }
}

TEST_F(TraceInPlaceTest, ReplacedByAnotherDuringTheFlush_IsNotReplacedAgain) {
  std::string other = was_;
  other[2000] = 'x';
  for (const bool is_link : {false, true}) {
    prepare();
    fs::remove(kArchive);
    const Outcome outcome = trace(edit(), [&](const SystemCall& call) {
      if (call.call != SYS_fsync || call.is_done) return Fate{};
      if (is_link) {
        fs::rename(kImage, "/var/edited/moved");
        fs::create_symlink("moved", kImage);
      } else {
        write_file("/var/edited/other", other);
        fs::rename("/var/edited/other", kImage);
      }
      return Fate{};
    });
    EXPECT_EQ(outcome.status, 1) << outcome;
    EXPECT_EQ(read_file(kImage), is_link ? was_ : other);
    EXPECT_EQ(fs::is_symlink(kImage), is_link);
    EXPECT_FALSE(exists(kTemporary));
  }
}

TEST_F(TraceInPlaceTest, TheNextEditsTemporaryFile_IsNotRemovedByTheOneBefore) {
  /* It may begin as soon as the file is renamed. */
  const Outcome outcome = trace(edit(), [&](const SystemCall& call) {
    if (call.call == SYS_fsync && call.file(0) == kFolder)
      write_file(kTemporary, "the next edit's");
    return Fate{};
  });
  EXPECT_EQ(outcome, (Outcome{0, "", ""}));
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
  EXPECT_TRUE(exists(kTemporary));
}

/* Each mark of a change counts by itself: what the kernel tells of the file is changed in one. */
TEST_F(TraceInPlaceTest, AnyMarkOfAChange_IsSeen) {
  struct Mark {
    const char* name;
    size_t at, at_in_statx;
  };
  static constexpr Mark kMarks[] = {
      {"device", offsetof(struct stat, st_dev), offsetof(struct statx, stx_dev_minor)},
      {"inode", offsetof(struct stat, st_ino), offsetof(struct statx, stx_ino)},
      {"size", offsetof(struct stat, st_size), offsetof(struct statx, stx_size)},
      {"mtime", offsetof(struct stat, st_mtim.tv_sec), offsetof(struct statx, stx_mtime.tv_sec)},
      {"mtime, ns", offsetof(struct stat, st_mtim.tv_nsec),
       offsetof(struct statx, stx_mtime.tv_nsec)},
      {"ctime", offsetof(struct stat, st_ctim.tv_sec), offsetof(struct statx, stx_ctime.tv_sec)},
      {"ctime, ns", offsetof(struct stat, st_ctim.tv_nsec),
       offsetof(struct statx, stx_ctime.tv_nsec)}};
  for (const Mark& mark : kMarks) {
    write_file(kImage, was_);
    bool is_flushed = false, is_marked = false;
    const Outcome outcome = trace(edit(), [&](const SystemCall& call) {
      is_flushed |= call.call == SYS_fsync;
      if (!is_flushed || !call.is_done || !is_stat_by_name(call)) return Fate{};
      const bool is_statx = call.call == SYS_statx;
      const uint64_t place =
          call.arguments[is_statx ? 4 : 2] + (is_statx ? mark.at_in_statx : mark.at);
      unsigned char byte;
      iovec here = {&byte, 1}, there = {reinterpret_cast<void*>(static_cast<uintptr_t>(place)), 1};
      EXPECT_EQ(process_vm_readv(call.process, &here, 1, &there, 1, 0), 1);
      byte ^= 1;
      EXPECT_EQ(process_vm_writev(call.process, &here, 1, &there, 1, 0), 1);
      is_marked = true;
      return Fate{};
    });
    EXPECT_TRUE(is_marked) << mark.name;
    EXPECT_EQ(outcome.status, 1) << mark.name;
    EXPECT_EQ(kind_of(read_file(kImage)), "old") << mark.name;
    EXPECT_EQ(names_in(kFolder), kImageAlone) << mark.name;
  }
}

TEST_F(TraceInPlaceTest, ALinkThatIsTurnedAtAnyCall_MixesNoTwoFiles) {
  const bool is_root = geteuid() == 0;
  const std::string first = "/var/edited/first/lan.cfg", second = "/var/edited/second/lan.cfg";
  std::string other = was_, other_is = is_;
  other[offsetof(LanBlock, lan_binds) + offsetof(DhcpBindRecord, bind_name)] = 'S';
  other_is[offsetof(LanBlock, lan_binds) + offsetof(DhcpBindRecord, bind_name)] = 'S';
  size_t first_edits = 0, second_edits = 0;
  for (size_t turned_at = 1;; ++turned_at) {
    fs::remove_all(kFolder);
    fs::create_directories("/var/edited/first");
    fs::create_directories("/var/edited/second");
    write_file(first, was_);
    write_file(second, other);
    fs::permissions(first, fs::perms(0644));
    fs::permissions(second, fs::perms(0600));
    if (is_root) ASSERT_EQ(chown(first.c_str(), 65534, 1), 0);
    fs::create_directory_symlink("first", "/var/edited/folder");
    fs::create_symlink("folder/lan.cfg", "/var/edited/link");
    bool is_turned = false;
    const Outcome outcome = trace(edit("/var/edited/link"), [&](const SystemCall& call) {
      if (call.is_done || call.number != turned_at) return Fate{};
      is_turned = true;
      fs::create_directory_symlink("second", "/var/edited/new");
      fs::rename("/var/edited/new", "/var/edited/folder");
      return Fate{};
    });
    if (!is_turned) break;
    ASSERT_EQ(outcome, (Outcome{0, "", ""})) << turned_at;
    const bool is_first = read_file(first) != was_;
    (is_first ? first_edits : second_edits) += 1;
    ASSERT_EQ(read_file(first), is_first ? is_ : was_) << turned_at;
    ASSERT_EQ(read_file(second), is_first ? other : other_is) << turned_at;
    ASSERT_EQ(status_of(first).st_mode & 07777, 0644u) << turned_at;
    ASSERT_EQ(status_of(second).st_mode & 07777, 0600u) << turned_at;
    if (is_root) ASSERT_EQ(status_of(first).st_uid, 65534u) << turned_at;
    ASSERT_EQ(status_of(second).st_uid, geteuid()) << turned_at;
    ASSERT_EQ(names_in("/var/edited/first"), kImageAlone) << turned_at;
    ASSERT_EQ(names_in("/var/edited/second"), kImageAlone) << turned_at;
  }
  EXPECT_GT(first_edits, 50u);
  EXPECT_GT(second_edits, 5u);
}

TEST_F(TraceInPlaceTest, ASignalAtAnyCall_LeavesTheFileOldOrNewAndNothingElse) {
  size_t refused = 0, late = 0;
  for (const int number : {SIGTERM, SIGINT}) {
    for (size_t last = 1;; ++last) {
      write_file(kImage, was_);
      bool is_sent = false, is_created = false, is_renamed = false, is_late = false,
           is_reaped = false;
      pid_t parent = 0;
      const Outcome outcome = trace(edit(), [&](const SystemCall& call) {
        if (call.number == 1) parent = call.process;
        is_created |= !is_sent && exists(kTemporary);
        is_renamed |= call.call == SYS_renameat;
        /* Its number may be another's from then on. */
        is_reaped |= call.call == SYS_wait4 && call.process == parent;
        EXPECT_FALSE(is_reaped && call.call == SYS_kill);
        is_late |= !is_sent && call.call == SYS_fremovexattr;
        if (call.is_done || call.number != last) return Fate{};
        is_sent = true;
        kill(parent, number);
        return Fate{};
      });
      if (!is_sent) break;
      SCOPED_TRACE("signal " + std::to_string(number) + " at call " + std::to_string(last));
      ASSERT_EQ(kind_of(read_file(kImage)), is_renamed ? "new" : "old") << outcome;
      ASSERT_EQ(names_in(kFolder), kImageAlone) << outcome;
      if (outcome.status == 0) {
        ++late;
        ASSERT_TRUE(is_renamed && is_late) << outcome;
      } else if (outcome.status == 1) {
        ++refused;
        ASSERT_EQ(outcome.err, std::string("scctl: ") + kImage +
                                   " is not changed: the edit was ended by signal " +
                                   std::to_string(number) + "\n");
      } else {
        ASSERT_EQ(outcome, (Outcome{-number, "", ""}));
        ASSERT_EQ(is_created, is_renamed);
      }
    }
  }
  EXPECT_GT(refused, 100u);
  EXPECT_GT(late, 5u);
}

/* The child that edits may get the signal alone, in the middle of an edit of its own, which it ends. */
TEST_F(TraceInPlaceTest, ASignalToTheChildAtAnyCall_LeavesTheFile) {
  write_file("/var/lines", "set lan_binds/1 flag=3\nset lan_binds/1 flag=7\n");
  const Words batch = scctl({"batch", "/var/lines", "--image", kImage, "--in-place"});
  size_t refused = 0;
  for (size_t last = 1 + Random().below(3);; last += 3) {
    write_file(kImage, was_);
    bool is_sent = false;
    pid_t parent = 0, child = 0;
    size_t number = 0; /* of the child's calls */
    const Outcome outcome = trace(batch, [&](const SystemCall& call) {
      if (call.number == 1) parent = call.process;
      if (child == 0 && call.process != parent) child = call.process;
      if (call.is_done || call.process != child || ++number != last) return Fate{};
      is_sent = true;
      kill(call.process, SIGTERM);
      return Fate{};
    });
    if (!is_sent) break;
    SCOPED_TRACE("signal at call " + std::to_string(last));
    ASSERT_EQ(names_in(kFolder), kImageAlone) << outcome;
    if (outcome.status == 0) { /* the child was as good as gone */
      ASSERT_EQ(outcome, (Outcome{0, "commands done: 2\n", ""}));
      ASSERT_EQ(kind_of(read_file(kImage)), "new");
      continue;
    }
    ASSERT_EQ(outcome.status, 1) << outcome;
    ASSERT_NE(outcome.err.find("is not changed: "), std::string::npos) << outcome;
    ASSERT_EQ(read_file(kImage), was_);
    ++refused;
  }
  EXPECT_GT(refused, 40u);
}

}  // namespace
}  // namespace sc_test
