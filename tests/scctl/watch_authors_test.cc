/* The authors that scctl watch --json tells: the right one is among them, or none is told. The kernel
 * names them by fanotify, which the host has. */
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <sysconfig/ap.h>

#include "scctl/stream_case.h"

namespace sc_test {
namespace {

/* Whose suite is named Trace: it runs where the host's kernel is asked. */
class TraceWatchAuthorsTest : public WatchTest {
 protected:
  void SetUp() override {
    WatchTest::SetUp();
    for (int n = 1; n <= 8; ++n) add(n, "n");
  }

  /* Its child goes on and tells of the earlier changes first, whose programs are not the authors of what
   * comes. A program that ends while its change is looked at may be a candidate in the next look, too. */
  void tells_authors_again(JsonWatch& watch) {
    std::set<int> told;
    pid_t before = 0;
    for (int n = 0; n < 20 && told.empty(); ++n) {
      pause_ms(50);
      Child next([&] { rename("again" + std::to_string(n)); });
      next.wait();
      told = watch.object().pids();
      if (told.empty()) {
        before = next.pid();
        continue;
      }
      EXPECT_EQ(told.count(next.pid()), 1u);
      EXPECT_EQ(told.size(), 1u + told.count(before));
    }
    EXPECT_FALSE(told.empty());
  }

  /* The process that the name of a binding tells. */
  static int writer_of(const std::string& rest) {
    const size_t at = rest.find("\"name\":[\"");
    const size_t comma = at == std::string::npos ? at : rest.find("\",\"", at);
    return comma == std::string::npos ? -1 : atoi(rest.c_str() + comma + 3);
  }
};

/* A writer that waits before its change. */
class WaitingWriter {
 public:
  explicit WaitingWriter(Words words) {
    EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
    words.insert(words.end(), {"0", "1", "each"});
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends_[0], STDIN_FILENO);
      std::vector<char*> arguments;
      for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
      arguments.push_back(nullptr);
      execvp(arguments[0], arguments.data());
      _exit(127);
    }
    pause_ms(100);
  }
  pid_t pid() const { return pid_; }
  /* Lets it change its record and end. */
  void go() {
    EXPECT_EQ(write(ends_[1], "x", 1), 1);
    int status = -1;
    waitpid(pid_, &status, 0);
    EXPECT_EQ(status, 0);
    for (const int end : ends_) close(end);
  }

 private:
  int ends_[2];
  pid_t pid_;
};

/* A process that has done something, and keeps the files open that it opened for that. */
class FileHolder {
 public:
  explicit FileHolder(const std::function<void()>& action)
      : paired_(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_)), child_([&] {
          action();
          char byte = 0;
          if (write(ends_[1], &byte, 1) == 1) read(ends_[1], &byte, 1);
        }) {
    char byte = 0;
    EXPECT_EQ(paired_, 0);
    EXPECT_EQ(read(ends_[0], &byte, 1), 1);
  }
  pid_t pid() const { return child_.pid(); }
  void end() {
    EXPECT_EQ(write(ends_[0], "", 1), 1);
    EXPECT_EQ(child_.wait(), 0);
    for (const int end : ends_) close(end);
  }

 private:
  int ends_[2];
  int paired_;
  Child child_;
};

struct Told {
  int changes = 0, authors = 0, alone = 0, named = 0, wrong = 0;
};

void count(const Object& object, int writer, Told* told) {
  ++told->changes;
  if (object.author.empty()) return;
  ++told->authors;
  const std::set<int> pids = object.pids();
  told->wrong += pids.count(writer) == 0;
  told->alone += pids.size() == 1;
  told->named += object.author.find("{\"pid\":" + std::to_string(writer) +
                                    ",\"uid\":0,\"program\":\"writer\"}") != std::string::npos;
}

void print(const char* what, const Told& told) {
  const double all = told.changes / 100.0;
  printf(
      "%s: %d changes seen; author told of %.1f %%, alone %.1f %%, with user and program %.1f %%, "
      "wrong %d\n",
      what, told.changes, told.authors / all, told.alone / all, told.named / all, told.wrong);
}

int times(int otherwise) {
  const char* text = getenv("SC_TEST_CHANGES");
  return text != nullptr ? atoi(text) : otherwise;
}

/* SC_TEST_CHANGES=100000: all that are promised. */
TEST_F(TraceWatchAuthorsTest, ProgramsThatEndAtOnce_AreNamed) {
  JsonWatch watch({"Lan"});
  ASSERT_TRUE(watch.knows_authors());
  Told told;
  const int changes = times(200);
  int lost = 0;
  for (int n = 0; n < changes; ++n) {
    const double next = now_ms() + 5;
    const pid_t pid = started_writer({SC_TEST_WRITER, std::to_string(n % 6)});
    const Object object = watch.object();
    int status;
    waitpid(pid, &status, 0);
    ASSERT_EQ(status, 0);
    if (writer_of(object.rest) != pid)
      ++lost;
    else
      count(object, pid, &told);
    while (now_ms() < next) pause_ms(1);
  }
  print("programs that end at once", told);
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(told.wrong, 0);
  EXPECT_GE(told.authors, told.changes * (changes > 1000 ? 99 : 50) / 100);
  EXPECT_GE(told.named, told.changes * (changes > 1000 ? 99 : 50) / 100);
}

/* Six programs as fast as they can, */
TEST_F(TraceWatchAuthorsTest, OfSixProgramsAtATime_NoneIsTakenForAnother) {
  const int each = times(30'000) / 6;
  JsonWatch watch({"Lan"});
  ASSERT_TRUE(watch.knows_authors());
  std::vector<pid_t> writers;
  for (int n = 0; n < 6; ++n) {
    writers.push_back(started_writer({SC_TEST_WRITER, std::to_string(n), std::to_string(each)}));
  }
  Told told;
  size_t ended = 0;
  for (;;) {
    const Object object = watch.object(ended < writers.size() ? 20 : 2000);
    if (object.rest == "nothing") {
      if (ended == writers.size()) break;
      while (ended < writers.size() && waitpid(writers[ended], nullptr, WNOHANG) > 0) ++ended;
    } else if (object.rest.find("\"what\":\"change\"") != std::string::npos) {
      count(object, writer_of(object.rest), &told);
    } /* or the kernel's queue was too short, and the state follows */
  }
  print("six programs, no pauses", told);
  EXPECT_EQ(told.wrong, 0);
  EXPECT_GE(told.changes, 6);
}

/* and one after the other, 5 ms apart. */
TEST_F(TraceWatchAuthorsTest, OfSixProgramsInTurn_EachIsNamed) {
  const int changes = times(300);
  JsonWatch watch({"Lan"});
  ASSERT_TRUE(watch.knows_authors());
  struct Writer {
    pid_t pid;
    int pipe;
  };
  std::vector<Writer> writers;
  for (int n = 0; n < 6; ++n) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int own = dup(STDIN_FILENO);
    dup2(ends[0], STDIN_FILENO);
    writers.push_back(
        {started_writer({SC_TEST_WRITER, std::to_string(n), "1000000", "each"}), ends[1]});
    dup2(own, STDIN_FILENO);
    close(own);
    close(ends[0]);
  }
  Told told;
  for (int n = 0; n < changes; ++n) {
    const double next = now_ms() + 5;
    const Writer& writer = writers[static_cast<size_t>(n % 6)];
    ASSERT_EQ(write(writer.pipe, "x", 1), 1);
    const Object object = watch.object();
    ASSERT_EQ(writer_of(object.rest), writer.pid) << object.rest;
    count(object, writer.pid, &told);
    while (now_ms() < next) pause_ms(1);
  }
  for (const Writer& writer : writers) {
    close(writer.pipe);
    waitpid(writer.pid, nullptr, 0);
  }
  print("six programs in turn, 5 ms apart", told);
  EXPECT_EQ(told.wrong, 0);
  EXPECT_GE(told.named, told.changes * (changes > 1000 ? 99 : 50) / 100);
  EXPECT_GE(told.alone, told.changes / 2);
}

/* Both had the file open for writing, and either may have changed the record. */
TEST_F(TraceWatchAuthorsTest, TwoInOneWindow_AreBothListed_AReaderIsNot) {
  JsonWatch watch({"Lan"});
  kill(watch.program().pid(), SIGSTOP);
  Child one([&] { rename("one"); });
  one.wait();
  Child saver([&] { capture([&] { SC_Save_System_Lan_Config2Flash(lan); }); });
  saver.wait();
  Child reader([] { close(open(kLanLock, O_RDONLY | O_CLOEXEC)); });
  reader.wait();
  kill(watch.program().pid(), SIGCONT);
  const Object object = watch.object();
  EXPECT_EQ(object.pids(), (std::set<int>{one.pid(), saver.pid()}));
  EXPECT_EQ(object.number_behind("closes"), "2");
  /* The next change has one author. */
  Child two([&] { rename("two"); });
  two.wait();
  EXPECT_EQ(watch.object().pids(), (std::set<int>{two.pid()}));
}

/* A program that has changed a record, and another's close lets it be seen before its own. */
TEST_F(TraceWatchAuthorsTest, WhoHasTheFileStillOpen_IsListed) {
  JsonWatch watch({"Lan"});
  for (int round = 0; round < 3; ++round) {
    FileHolder holder([&] {
      /* Opened and closed before: both may be reported as one. */
      close(open(kLanLock, O_RDWR | O_CLOEXEC));
      open(kLanLock, O_RDWR | O_CLOEXEC);
      lan->lan_binds[0].bind_flag += 1;
    });
    Object object = watch.object();
    if (object.rest.find("\"flag\"") == std::string::npos) object = watch.object();
    EXPECT_EQ(object.pids().count(holder.pid()), 1u) << object.rest << object.author;
    Child other([&] {
      lan->lan_binds[1].bind_flag += 1;
      close(open(kLanLock, O_RDWR | O_CLOEXEC));
    });
    other.wait();
    EXPECT_EQ(watch.object().pids(), (std::set<int>{holder.pid(), other.pid()}));
    holder.end();
    pause_ms(20);
  }
}

/* The kernel names the process that closes it last; the other one opened it. */
TEST_F(TraceWatchAuthorsTest, AnInheritedFile_ListsWhoOpenedItAndWhoClosedIt) {
  JsonWatch watch({"Lan"});
  const int file = open(kLanLock, O_RDWR | O_CLOEXEC);
  Child child([&] {
    pause_ms(50);
    lan->lan_binds[0].bind_flag = 77;
    close(file);
  });
  close(file);
  child.wait();
  EXPECT_EQ(watch.object().pids(), (std::set<int>{child.pid(), getpid()}));
  Child next([&] { rename("next"); });
  next.wait();
  EXPECT_EQ(watch.object().pids(), (std::set<int>{next.pid()}));
}

TEST_F(TraceWatchAuthorsTest, AProgramOfAnInnerNamespace_IsNamedFromOutside_AndNobodyFromInside) {
  JsonWatch watch({"Lan"});
  const pid_t outer = fork();
  if (outer == 0) {
    if (unshare(CLONE_NEWPID) != 0) _exit(1);
    const pid_t inner = fork();
    if (inner == 0) {
      rename("inner");
      _exit(getpid() == 1 ? 0 : 1);
    }
    int status;
    waitpid(inner, &status, 0);
    std::ofstream("/var/inner") << inner << '\n';
    _exit(status);
  }
  int status;
  waitpid(outer, &status, 0);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(watch.object().pids(), (std::set<int>{atoi(read_file("/var/inner").c_str())}));

  /* A watch in a namespace of its own, with its own /proc: processes outside have no number there. */
  JsonWatch inside({"Lan"}, "set -- unshare --pid --fork --mount-proc \"$@\"; ");
  ASSERT_TRUE(inside.knows_authors());
  Child([&] { rename("outside"); }).wait();
  const Object object = inside.object();
  EXPECT_NE(object.rest.find("\"outside\""), std::string::npos) << object.rest;
  EXPECT_EQ(object.author, "");
  /* With the /proc of another namespace the numbers would name other processes. */
  JsonWatch foreign({"Lan"}, "set -- unshare --pid --fork \"$@\"; ");
  EXPECT_FALSE(foreign.knows_authors());
}

/* Another process gets the number of one that was an author. */
TEST_F(TraceWatchAuthorsTest, AReusedNumber_TellsTheProgramThatHasItNow) {
  const std::string script =
      "echo 399 >/proc/sys/kernel/ns_last_pid; " SC_TEST_WRITER
      " 0; sleep 0.1;"
      "ln -s " SC_TEST_WRITER
      " /var/second; echo 399 >/proc/sys/kernel/ns_last_pid; /var/second 1; sleep 0.1";
  /* All in one namespace, with the watch. */
  std::ofstream("/var/script") << "\"$@\" & watch=$!\nsleep 0.5\n" << script << "\nkill $watch\n";
  JsonWatch watch({"Lan"}, "set -- unshare --pid --fork --mount-proc sh /var/script \"$@\"; ");
  ASSERT_TRUE(watch.knows_authors());
  EXPECT_EQ(watch.object().author, "{\"pid\":400,\"uid\":0,\"program\":\"writer\"}");
  EXPECT_EQ(watch.object().author, "{\"pid\":400,\"uid\":0,\"program\":\"second\"}");
}

/* Two processes with one number in one window. */
TEST_F(TraceWatchAuthorsTest, AReusedNumberInOneWindow_ListsBoth) {
  std::ofstream("/var/script")
      << "\"$@\" & watch=$!\nsleep 0.5\nln -s " SC_TEST_WRITER
         " /var/second\nkill -STOP $watch\n"
         "echo 399 >/proc/sys/kernel/ns_last_pid; " SC_TEST_WRITER
         " 0; sleep 0.1\n"
         "echo 399 >/proc/sys/kernel/ns_last_pid; /var/second 0; sleep 0.1\n"
         "kill -CONT $watch\nsleep 1\nkill $watch\n";
  JsonWatch watch({"Lan"}, "set -- unshare --pid --fork --mount-proc sh /var/script \"$@\"; ");
  ASSERT_TRUE(watch.knows_authors());
  EXPECT_EQ(watch.object().author,
            "{\"pid\":400,\"uid\":0,\"program\":\"writer\"},"
            "{\"pid\":400,\"uid\":0,\"program\":\"second\"}");
}

/* It is gone when it is asked for, and another program had its number before. */
TEST_F(TraceWatchAuthorsTest, AReusedNumberLater_TellsNoFormerProgram) {
  std::ofstream("/var/script")
      << "\"$@\" & watch=$!\nsleep 0.5\nchild=$(cat /proc/$watch/task/$watch/children)\n"
         "echo 399 >/proc/sys/kernel/ns_last_pid; " SC_TEST_WRITER
         " 0\n"
         "while [ ! -e /var/go ]; do sleep 0.05; done\nkill -STOP $child\n"
         "echo 399 >/proc/sys/kernel/ns_last_pid; (: >>/var/lock_store/lan_conf_lock)\n"
         "kill -CONT $child\nsleep 1\nkill $watch\n";
  JsonWatch watch({"Lan"}, "set -- unshare --pid --fork --mount-proc sh /var/script \"$@\"; ");
  ASSERT_TRUE(watch.knows_authors());
  EXPECT_EQ(watch.object().author, "{\"pid\":400,\"uid\":0,\"program\":\"writer\"}");
  pause_ms(1200);
  lan->lan_binds[1].bind_flag = 77;
  write_file("/var/go", "");
  const Object object = watch.object();
  EXPECT_NE(object.rest.find("\"flag\":[2,77]"), std::string::npos) << object.rest;
  EXPECT_EQ(object.author, "{\"pid\":400}");
}

TEST_F(TraceWatchAuthorsTest, ANameWithBracketsAndBlanks_IsToldWhole) {
  symlink(SC_TEST_WRITER, "/var/a) (b");
  JsonWatch watch({"Lan"});
  ASSERT_TRUE(watch.knows_authors());
  WaitingWriter writer({"/var/a) (b"});
  writer.go();
  const std::string pid = std::to_string(writer.pid());
  EXPECT_EQ(watch.object().author, "{\"pid\":" + pid + ",\"uid\":0,\"program\":\"a) (b\"}");
}

/* The program that is run decides whose it is, also when it is gone before it is asked for. It lies on
 * another mount than the one that runs it. */
TEST_F(TraceWatchAuthorsTest, AProgramThatRunsAsItsOwner_IsTheOwners) {
  ASSERT_EQ(run({"sh", "-c", "cp " SC_TEST_WRITER " /var/owned && chmod 4755 /var/owned"}).status,
            0);
  JsonWatch watch({"Lan"});
  ASSERT_TRUE(watch.knows_authors());
  WaitingWriter writer({"setpriv", "--reuid", "12345", "--clear-groups", "/var/owned"});
  const pid_t child = watch.child();
  kill(watch.program().pid(), SIGSTOP);
  kill(child, SIGSTOP);
  writer.go();
  kill(child, SIGCONT);
  pause_ms(100);
  kill(watch.program().pid(), SIGCONT);
  EXPECT_EQ(watch.object().author,
            "{\"pid\":" + std::to_string(writer.pid()) + ",\"uid\":0,\"program\":\"owned\"}");
}

/* Its close was told with an earlier change. */
TEST_F(TraceWatchAuthorsTest, AChangeWithoutAClose_IsNotThatOfWhoHasTheFileOpen) {
  JsonWatch watch({"Lan"});
  FileHolder holder([&] {
    rename("by the holder");
    open(kLanLock, O_RDWR | O_CLOEXEC);
  });
  EXPECT_EQ(watch.object().pids(), (std::set<int>{holder.pid()}));
  Child other([&] { rename("by another"); });
  other.wait();
  EXPECT_EQ(watch.object().pids(), (std::set<int>{holder.pid(), other.pid()}));
  lan->lan_binds[1].bind_flag += 1;
  const Object object = watch.object(kSlowMs);
  EXPECT_NE(object.rest.find("\"seen\":\"look\""), std::string::npos) << object.rest;
  EXPECT_EQ(object.author, "");
  holder.end();
}

/* ---- authors that may be missing ---- */

/* The answer of its child is late: it may know of another program. */
TEST_F(TraceWatchAuthorsTest, WithoutAnAnswerInTime_NoAuthorIsTold) {
  JsonWatch watch({"Lan"});
  ASSERT_TRUE(watch.knows_authors());
  const pid_t child = watch.child();
  kill(watch.program().pid(), SIGSTOP);
  Child([&] { rename("one"); }).wait();
  pause_ms(50);
  kill(child, SIGSTOP);
  Child([&] { rename("two"); }).wait();
  kill(watch.program().pid(), SIGCONT);
  const Object object = watch.object();
  EXPECT_NE(object.rest.find("[\"n\",\"two\"]"), std::string::npos) << object.rest;
  EXPECT_EQ(object.author, "");
  kill(child, SIGCONT);
  tells_authors_again(watch);
}

/* More events than the kernel keeps, so that only one of two writers is known, of two areas. */
TEST_F(TraceWatchAuthorsTest, AfterMoreEventsThanTheKernelKeeps_NoAuthorIsTold) {
  auto* aps = started<ManageApListBlock>("ManageApList");
  ApLimitsRecord limits = {};
  limits.max_ap_count = 300;
  ASSERT_EQ(SC_Get_Ap_Info_Blank(aps, &limits), 0);
  JsonWatch watch({"Lan", "ManageApList"});
  ASSERT_TRUE(watch.knows_authors());
  const auto change_both = [&](uint8_t to) {
    Child([&] {
      rename("n" + std::to_string(to));
      aps->aps[0].group_id = to;
      close(open(lock_file("ManageApList").c_str(), O_WRONLY | O_CLOEXEC));
    }).wait();
  };
  const pid_t child = watch.child();
  kill(watch.program().pid(), SIGSTOP);
  kill(child, SIGSTOP);
  change_both(1);
  std::ifstream told("/proc/sys/fs/fanotify/max_queued_events");
  int most = 16384;
  told >> most;
  for (int n = 0; n < most; ++n) write_file("/var/lock_store/x" + std::to_string(n), "");
  change_both(2);
  kill(child, SIGCONT);
  pause_ms(300);
  kill(watch.program().pid(), SIGCONT);
  for (const char* table : {"lan_binds", "aps"}) {
    const Object object = watch.object();
    EXPECT_NE(object.rest.find(table), std::string::npos) << object.rest;
    EXPECT_EQ(object.author, "") << table;
  }
}

TEST_F(TraceWatchAuthorsTest, WithoutTheRight_NoAuthorIsTold_AndChangesAre) {
  JsonWatch watch({"Lan"},
                  "set -- setpriv --bounding-set -sys_admin --inh-caps -sys_admin \"$@\"; ");
  EXPECT_FALSE(watch.knows_authors());
  rename("two");
  const Object object = watch.object();
  EXPECT_EQ(object.rest, bind_line(1, "change", "\"name\":[\"n\",\"two\"]"));
  EXPECT_EQ(object.author, "");
}

TEST_F(TraceWatchAuthorsTest, TheNoteOfAnEdit_IsToldWithIt) {
  JsonWatch watch({"Lan"});
  EXPECT_EQ(run(scctl({"set", "lan_binds/1", "name=x", "--note", "ticket \"12\""})).status, 0);
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"n\",\"x\"]",
                                    "\"seen\":\"lock\",\"note\":\"ticket \\\"12\\\"\""));
  rename("y");
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"x\",\"y\"]"));
  /* Another program that writes what scctl has written is not scctl. */
  Child([&] { rename("x"); }).wait();
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"y\",\"x\"]"));
  EXPECT_NE(run(scctl({"log", "--json"})).out.find("\"note\": \"ticket \\\"12\\\"\""),
            std::string::npos);
}

/* More than it keeps: any of them may have changed the record. */
TEST_F(TraceWatchAuthorsTest, TooManyInOneWindow_AreNotToldInPart) {
  JsonWatch watch({"Lan"});
  kill(watch.program().pid(), SIGSTOP);
  for (int n = 0; n < 70; ++n) Child([&] { rename("n" + std::to_string(n)); }).wait();
  kill(watch.program().pid(), SIGCONT);
  const Object object = watch.object();
  EXPECT_NE(object.rest.find("\"n69\""), std::string::npos) << object.rest;
  EXPECT_EQ(object.author, "");
  Child next([&] { rename("next"); });
  next.wait();
  EXPECT_EQ(watch.object().pids(), (std::set<int>{next.pid()}));
}

/* Also when the watch's child does not answer at that time. */
TEST_F(TraceWatchAuthorsTest, AnotherLockFolder_IsFollowed) {
  for (const bool is_late : {false, true}) {
    JsonWatch watch({"Lan"});
    if (is_late) {
      kill(watch.child(), SIGSTOP);
      Child([&] { rename("late"); }).wait();
      EXPECT_EQ(watch.object().author, "");
    }
    std::filesystem::rename("/var/lock_store", "/var/away");
    std::filesystem::create_directory("/var/lock_store");
    write_file(kLanLock, "\n");
    lan->lan_binds[0].bind_flag += 1; /* seen when everything is looked at, as the folder is */
    EXPECT_EQ(watch.object(kSlowMs).author, "");
    if (is_late) kill(watch.child(), SIGCONT);
    tells_authors_again(watch);
    std::filesystem::remove_all("/var/away");
  }
}

}  // namespace
}  // namespace sc_test
