/* Messages about shared memory and the notification socket, each provoked for real, and the results
 * that go with them. Those about files and lock files stand with what they are about. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/areas.h"
#include "support/journal.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Lines = std::vector<std::string>;

/* ---- shared memory ---- */

class SegmentMessages : public World, public testing::WithParamInterface<std::string> {
 protected:
  const AreaCalls& area_ = area(GetParam());
  const AreaFacts& golden_ = golden_area(GetParam());

  /* A segment under the area's key that is one byte smaller than the area. */
  uint8_t* smaller_segment() {
    const int segment = shmget(golden_.key, golden_.size - 1, IPC_CREAT | 0666);
    auto* bytes = static_cast<uint8_t*>(shmat(segment, nullptr, 0));
    fill(bytes, golden_.size - 1, 1);
    return bytes;
  }
};

INSTANTIATE_TEST_SUITE_P(Areas, SegmentMessages, testing::ValuesIn(area_names()),
                         [](const auto& info) { return info.param; });

TEST_P(SegmentMessages, GetOfAnAreaThatCannotBeAttached_SaysSoOnStderrAndExitsWith1) {
  area_.init(0);
  const Ending ending = run_in_child([&] {
    forbid_new_mappings();
    area_.get();
  });
  EXPECT_EQ(ending, (Ending{1, {"", "shmat failed\n"}}));
}

TEST_P(SegmentMessages, GetOfASmallerSegment_ReturnsZeroInSilence) {
  smaller_segment();
  EXPECT_EQ(capture([&] { EXPECT_EQ(area_.get(), 0u); }), kSilence);
}

TEST_P(SegmentMessages, InitThatCannotAttach_ReturnsMinusOneAndLeavesTheBlockUntouched) {
  area_.init(0);
  auto* block = block_at(area_.get());
  fill(block, golden_.size, 1);
  const Image expected(block, golden_.size);
  remove(golden_.lock_path.c_str());
  const Ending ending = run_in_child([&] {
    forbid_new_mappings();
    ASSERT_EQ(area_.init(1), -1);
  });
  EXPECT_EQ(ending, (Ending{0, kSilence}));
  EXPECT_TRUE(expected.matches(block));
  EXPECT_FALSE(exists(golden_.lock_path));
}

TEST_P(SegmentMessages, InitOverASmallerSegment_ReturnsErrnoAndLeavesItUntouched) {
  auto* bytes = smaller_segment();
  const Image expected(bytes, golden_.size - 1);
  int result = 0;
  EXPECT_EQ(capture([&] { result = area_.init(1); }), kSilence);
  EXPECT_EQ(result, EINVAL);
  EXPECT_TRUE(expected.matches(bytes));
  EXPECT_FALSE(exists(golden_.lock_path));
}

TEST_P(SegmentMessages, UninitOfASmallerSegment_SaysAllFourStepsAndReturnsZero) {
  smaller_segment();
  int result = -1;
  EXPECT_EQ(capture([&] { result = area_.uninit(); }),
            (Output{"", "shmget failed\nshmat failed\nshmdt failed\nshmctl(IPC_RMID) failed\n"}));
  EXPECT_EQ(result, 0);
  EXPECT_EQ(segment_size(golden_.key), golden_.size - 1);
}

TEST_P(SegmentMessages, UninitThatCannotAttach_SaysSoAndRemovesTheSegmentAllTheSame) {
  area_.init(0);
  const Ending ending = run_in_child([&] {
    forbid_new_mappings();
    ASSERT_EQ(area_.uninit(), 0);
  });
  EXPECT_EQ(ending, (Ending{0, {"", "shmat failed\nshmdt failed\n"}}));
  EXPECT_EQ(segment_of(golden_.key), -1);
}

/* ---- notification ---- */

constexpr char kSocketPath[] = "/var/config_socket";

class SocketMessages : public World, public testing::WithParamInterface<std::string> {
 protected:
  const AreaCalls& area_ = area(GetParam());

  /* The journal without the code that is sent. */
  static Lines calls(const Journal& journal) {
    Lines lines = journal.lines();
    for (std::string& line : lines) line = line.substr(0, line.find(" = socket"));
    return lines;
  }
};

INSTANTIATE_TEST_SUITE_P(Areas, SocketMessages, testing::ValuesIn(saved_area_names()),
                         [](const auto& info) { return info.param; });

TEST_P(SocketMessages, SaveWithNoListener_ReportsTheConnectAndClosesTheSocket) {
  Journal journal;
  EXPECT_EQ(capture(area_.save), (Output{"", "connect: No such file or directory\n"}));
  EXPECT_EQ(calls(journal),
            (Lines{"#1", "connect #1 /var/config_socket length 20 failed", "close #1"}));
}

TEST_P(SocketMessages, SaveWithAListenerThatHasGone_ReportsTheConnect) {
  Listener listener;
  listener.close();
  EXPECT_EQ(capture(area_.save), (Output{"", "connect: Connection refused\n"}));
}

TEST_P(SocketMessages, SaveWithoutADescriptorLeft_ReportsTheSocketAndStops) {
  Listener listener;
  Journal journal;
  EXPECT_EQ(capture([&] {
              NoDescriptors none;
              area_.save();
            }),
            (Output{"", "socket: Too many open files\n"}));
  ASSERT_EQ(journal.lines().size(), 1u);
  EXPECT_EQ(journal.lines()[0],
            "socket " + std::to_string(AF_UNIX) + " " + std::to_string(SOCK_STREAM) + " 0 failed");
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{});
}

TEST_P(SocketMessages, SaveToAListenerThatHangsUp_ReportsTheSendAndClosesTheSocket) {
  Listener listener;
  const auto handler = signal(SIGPIPE, SIG_IGN);
  Journal journal;
  journal.before("send", [&] { listener.messages(); }); /* accepts and closes */
  EXPECT_EQ(capture(area_.save), (Output{"", "send: Broken pipe\n"}));
  signal(SIGPIPE, handler);
  ASSERT_EQ(journal.lines().size(), 4u);
  EXPECT_EQ(journal.lines()[3], "close #1");
}

bool is_socket(int fd) {
  struct stat state;
  return fstat(fd, &state) == 0 && S_ISSOCK(state.st_mode);
}

TEST_P(SocketMessages, ASocketOfDescriptor0_IsLeftOpenAfterTheCodeIsSent) {
  Listener listener;
  Child sender([&] {
    close(0);
    area_.save();
    ASSERT_TRUE(is_socket(0));
    ASSERT_EQ(listener.messages().at(0).closed, false);
  });
  EXPECT_EQ(sender.wait(), 0);
}

TEST_P(SocketMessages, ASocketOfDescriptor1_IsClosedAfterTheCodeIsSent) {
  Listener listener;
  Child sender([&] {
    close(1);
    area_.save();
    ASSERT_EQ(fcntl(1, F_GETFD), -1);
    ASSERT_EQ(listener.messages().at(0).closed, true);
  });
  EXPECT_EQ(sender.wait(), 0);
}

TEST_P(SocketMessages, ASocketOfDescriptor0_IsClosedAfterAFailedConnect) {
  const Ending ending = run_in_child([&] {
    close(0);
    area_.save();
    ASSERT_EQ(fcntl(0, F_GETFD), -1);
  });
  EXPECT_EQ(ending, (Ending{0, {"", "connect: No such file or directory\n"}}));
}

TEST_P(SocketMessages, TheAddress_IsBoundToThePathWithoutItsNul) {
  Listener listener;
  Journal journal;
  area_.save();
  ASSERT_GE(journal.lines().size(), 2u);
  EXPECT_EQ(journal.lines()[1],
            "connect #1 /var/config_socket length " + std::to_string(strlen(kSocketPath) + 2));
}

}  // namespace
