/* Authors that scctl watch --json cannot know, because it did not keep up, or because its child is stopped or
 * killed: none is told. */
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>

#include "scctl/stream_case.h"

namespace sc_test {
namespace {

/* Whose suite is named Trace: it runs where the host's kernel is asked. */
class TraceWatchLostAuthorsTest : public WatchTest {
 protected:
  void SetUp() override {
    WatchTest::SetUp();
    for (int n = 1; n <= 2; ++n) add(n, "n");
  }
};

/* Its child has told of so much that there is no room for the last one, and says so later. */
TEST_F(TraceWatchLostAuthorsTest, WithoutRoomForAllThatIsTold_NoAuthorIsTold) {
  JsonWatch watch({"Lan"});
  ASSERT_TRUE(watch.knows_authors());
  kill(watch.program().pid(), SIGSTOP);
  Child many([&] {
    for (int n = 0; n < 20'000; ++n) close(open(kLanLock, O_RDWR | O_CLOEXEC));
  });
  many.wait();
  pause_ms(200);
  Child last([&] { rename("last"); });
  last.wait();
  pause_ms(200);
  kill(watch.program().pid(), SIGCONT);
  const Object object = watch.object();
  EXPECT_NE(object.rest.find("[\"n\",\"last\"]"), std::string::npos) << object.rest;
  EXPECT_EQ(object.author, "");
  watch.object(); /* the state after what the kernel did not keep for the watch either */
  for (std::string said = watch.rest(500); said != "nothing";) said = watch.rest(500);
  Child next([&] { rename("next"); });
  next.wait();
  EXPECT_EQ(watch.object().pids(), (std::set<int>{next.pid()}));
}

/* Its child is killed: changes are told on, without authors, and that is said once. */
TEST_F(TraceWatchLostAuthorsTest, WithoutItsChild_NoAuthorIsTold_AndThatIsSaid) {
  JsonWatch watch({"Lan"});
  const pid_t child = watch.child();
  rename("first");
  EXPECT_EQ(watch.object().pids(), (std::set<int>{getpid()}));
  kill(child, SIGKILL);
  for (const char* name : {"second", "third"}) {
    Child([&] { rename(name); }).wait();
    if (name[0] == 's') {
      EXPECT_EQ(watch.raw_line(kSoonMs).value_or("nothing"),
                "authors are no longer known: the process that looks for them has ended");
    }
    const Object object = watch.object();
    EXPECT_NE(object.rest.find(name), std::string::npos) << object.rest;
    EXPECT_EQ(object.author, "");
  }
}

/* It is stopped: it is waited for once, not at each change, and tells authors again when it goes on. */
TEST_F(TraceWatchLostAuthorsTest, WhileItsChildIsStopped_ChangesAreToldAtOnceWithoutAuthors) {
  JsonWatch watch({"Lan"});
  const pid_t child = watch.child();
  const auto change = [&](const std::string& name) {
    Child([&] { rename(name); }).wait();
    const Object object = watch.object();
    EXPECT_NE(object.rest.find("\"" + name + "\""), std::string::npos) << object.rest;
    return object;
  };
  kill(child, SIGSTOP);
  const double begun = now_ms();
  for (int n = 0; n < 30; ++n) EXPECT_EQ(change("stopped" + std::to_string(n)).author, "");
  EXPECT_LT(now_ms() - begun, 1500);
  kill(child, SIGCONT);
  change("late"); /* it still has to tell of those before */
  pause_ms(100);
  EXPECT_NE(change("again").author, "");
  kill(child, SIGSTOP);
  change("stopped again");
  kill(child, SIGKILL);
  Child([&] { rename("ended"); }).wait();
  EXPECT_EQ(watch.raw_line(kSoonMs).value_or("nothing"),
            "authors are no longer known: the process that looks for them has ended");
}

/* The kernel gives a descriptor with each event. */
TEST_F(TraceWatchLostAuthorsTest, TheChild_KeepsNoDescriptors) {
  JsonWatch watch({"Lan"});
  const std::filesystem::path folder = "/proc/" + std::to_string(watch.child()) + "/fd";
  const auto count = [&] {
    const std::filesystem::directory_iterator all(folder);
    return std::distance(begin(all), end(all));
  };
  rename("first"); /* after it the child is at work */
  watch.object();
  const auto before = count();
  for (int n = 0; n < 5; ++n) {
    rename("n" + std::to_string(n));
    EXPECT_NE(watch.object().author, "");
    /* It is told of each program that is run, too. */
    waitpid(started_writer({SC_TEST_WRITER, "1"}), nullptr, 0);
    EXPECT_NE(watch.object().author, "");
  }
  EXPECT_EQ(count(), before);
}

/* Neither the watch nor its child stops a writer, and the child goes with the watch. */
TEST_F(TraceWatchLostAuthorsTest, StoppedItStopsNoWriter_KilledItLeavesNobody) {
  JsonWatch watch({"Lan"});
  const pid_t pid = watch.program().pid();
  const pid_t child = watch.child();
  kill(pid, SIGSTOP);
  kill(child, SIGSTOP);
  const double begun = now_ms();
  for (int n = 0; n < 2000; ++n) rename("n" + std::to_string(n));
  EXPECT_LT(now_ms() - begun, 4000);
  kill(child, SIGCONT);
  kill(pid, SIGCONT);
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"n\",\"n1999\"]",
                                    "\"seen\":\"lock\",\"closes\":2000"));
  kill(pid, SIGKILL);
  for (int ms = 0; ms < kSoonMs && kill(child, 0) == 0; ++ms) pause_ms(1);
  EXPECT_NE(kill(child, 0), 0);
}

}  // namespace
}  // namespace sc_test
