/* The utilities under faults. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "faults/fault_world.h"

namespace {

using namespace sc_test;

using UtilityFaults = FaultWorld;

TEST_F(UtilityFaults, ACommandThatCannotBeRun_IsReportedByItsResultAlone) {
  const std::function<int64_t()> steps[] = {
      [] {
        tell_of_call<sc_do_system>();
        return sc_do_system("echo x >%s", "/var/ran");
      },
      Noted<SC_Save_Dhcp_Clients>::call,
      Noted<SC_Save_Dhcp_Ap>::call,
      Noted<SC_Restore_Dhcp_Clients>::call,
      Noted<SC_Restore_Dhcp_Ap>::call,
  };
  for (const auto& step : steps) {
    const Seen seen = run({1, "system", 1}, step);
    EXPECT_EQ(seen, (Seen{-1, kSilence, {}}));
    EXPECT_EQ(calls_, Lines{"system"});
    EXPECT_FALSE(exists("/var/ran"));
  }
}

TEST_F(UtilityFaults, ALockThatCannotBeTaken_ReturnsMinusOneWithItsErrno) {
  const int fd = open("/var/lock_store/file", O_RDWR | O_CREAT, 0644);
  const Seen seen = run({1, "fcntl", 1}, [&] {
    const int result = Noted<sc_lock_reg>::call(fd, F_SETLKW, F_WRLCK, 2, SEEK_SET, 1);
    return result < 0 ? -errno : result;
  });
  EXPECT_EQ(seen, (Seen{-error_of("fcntl"), kSilence, {}}));
  EXPECT_EQ(calls_, Lines{"fcntl"});
  close(fd);
}

TEST_F(UtilityFaults, AnAddressBecomesTextWithoutACallThatCouldFail) {
  run(kNoFault, [&] {
    char text[16] = {};
    return strcmp(Noted<sc_inet_ntoa>::call(0x0100000a, text), "10.0.0.1");
  });
  EXPECT_EQ(calls_, Lines{});
}

}  // namespace
