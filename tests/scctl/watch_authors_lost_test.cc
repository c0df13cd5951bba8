/* Authors that scctl watch --json cannot know, because it did not keep up: none is told. */
#include <signal.h>
#include <stdlib.h>

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

}  // namespace
}  // namespace sc_test
