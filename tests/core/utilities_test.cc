/* Shell commands, byte locks, address texts and the copies of the lease files. */
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "support/journal.h"
#include "support/locks.h"
#include "support/output.h"
#include "support/world.h"

namespace {

using namespace sc_test;
using Lines = std::vector<std::string>;

class Utilities : public World {};

/* ---- sc_do_system ---- */

TEST_F(Utilities, ACommand_IsFormattedAndHandedToTheShell) {
  Journal journal;
  EXPECT_EQ(sc_do_system("echo %s-%d >%s", "text", 42, "/var/made"), 0);
  EXPECT_EQ(journal.lines(), (Lines{"system echo text-42 >/var/made"}));
  EXPECT_EQ(read_file("/var/made"), "text-42\n");
}

TEST_F(Utilities, ACommandOf4095Characters_ReachesTheShellWhole) {
  const std::string blanks(4095 - 4, ' ');
  Journal journal;
  EXPECT_EQ(sc_do_system("true%s", blanks.c_str()), 0);
  EXPECT_EQ(journal.lines(), (Lines{"system true" + blanks}));
}

TEST_F(Utilities, ACommandOfMoreThan4095Characters_IsTruncatedToThem) {
  const std::string blanks(4095 - 4, ' ');
  Journal journal;
  EXPECT_EQ(sc_do_system("true%s%s", blanks.c_str(), "; exit 7"), 0);
  EXPECT_EQ(journal.lines(), (Lines{"system true" + blanks}));
}

TEST_F(Utilities, TheStatusOfACommand_IsReturnedAsSystemGivesItAndNothingIsPrinted) {
  int status = 0;
  EXPECT_EQ(capture([&] { status = sc_do_system("exit %d", 3); }), kSilence);
  EXPECT_EQ(status, 3 << 8);
}

/* ---- sc_lock_reg ---- */

TEST_F(Utilities, LockReg_PassesEachArgumentToItsMemberOfTheLock) {
  write_file("/var/file", "");
  Journal journal;
  int fd = open("/var/file", O_RDWR);
  EXPECT_EQ(sc_lock_reg(fd, F_SETLK, F_RDLCK, 5, SEEK_END, 7), 0);
  close(fd);
  const std::string numbers = "cmd " + std::to_string(F_SETLK) + " type " +
                              std::to_string(F_RDLCK) + " whence 2 start 5 length 7";
  EXPECT_EQ(journal.lines(), (Lines{"#1 = open /var/file", "fcntl #1 " + numbers, "close #1"}));
}

TEST_F(Utilities, LockReg_HoldsExactlyOneByteUntilItIsReleased) {
  write_file("/var/file", "");
  int fd = open("/var/file", O_RDWR);
  EXPECT_EQ(sc_lock_reg(fd, F_SETLKW, F_WRLCK, 9, SEEK_SET, 1), 0);
  EXPECT_FALSE(is_locked("/var/file", 8));
  EXPECT_TRUE(is_locked("/var/file", 9));
  EXPECT_FALSE(is_locked("/var/file", 10));
  EXPECT_EQ(sc_lock_reg(fd, F_SETLK, F_UNLCK, 9, SEEK_SET, 1), 0);
  EXPECT_FALSE(is_locked("/var/file", 9));
  close(fd);
}

TEST_F(Utilities, LockReg_WaitsForTheByteOfAnotherProcess) {
  write_file("/var/file", "");
  LockHolder holder("/var/file", 4);
  Child waiter([] {
    int fd = open("/var/file", O_RDWR);
    ASSERT_EQ(sc_lock_reg(fd, F_SETLKW, F_WRLCK, 4, SEEK_SET, 1), 0);
  });
  ASSERT_TRUE(becomes_blocked(waiter.pid(), "/var/file", 4));
  holder.release();
  EXPECT_EQ(waiter.wait(), 0);
}

TEST_F(Utilities, LockReg_WithoutWaitingReportsTheByteOfAnotherProcess) {
  write_file("/var/file", "");
  LockHolder holder("/var/file", 4);
  int fd = open("/var/file", O_RDWR);
  EXPECT_EQ(sc_lock_reg(fd, F_SETLK, F_WRLCK, 4, SEEK_SET, 1), -1);
  EXPECT_TRUE(errno == EAGAIN || errno == EACCES) << errno;
  close(fd);
}

TEST_F(Utilities, LockReg_ReturnsTheFailureOfFcntlWithoutAMessage) {
  int result = 0, error = 0;
  EXPECT_EQ(capture([&] {
              result = sc_lock_reg(-1, F_SETLK, F_WRLCK, 1, SEEK_SET, 1);
              error = errno;
            }),
            kSilence);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(error, EBADF);
}

/* ---- sc_inet_ntoa ---- */

struct AddressText {
  uint8_t octets[4];
  const char* text;
};

constexpr AddressText kAddressTexts[] = {
    {{0, 0, 0, 0}, "0.0.0.0"},
    {{255, 255, 255, 255}, "255.255.255.255"},
    {{0xc0, 0xa8, 0x01, 0x02}, "192.168.1.2"},
    {{9, 10, 99, 100}, "9.10.99.100"},
    {{199, 200, 109, 1}, "199.200.109.1"},
};

TEST(Addresses, EachFourBytes_ConvertToTheirDottedTextInMemoryOrder) {
  for (const AddressText& row : kAddressTexts) {
    uint32_t addr;
    memcpy(&addr, row.octets, sizeof addr);
    char text[16] = "";
    EXPECT_EQ(sc_inet_ntoa(addr, text), text);
    EXPECT_STREQ(text, row.text);
  }
}

TEST(Addresses, EveryValueOfAnOctet_ConvertsWithoutPadding) {
  for (uint32_t octet = 0; octet < 256; ++octet) {
    char text[16] = "";
    const std::string digits = std::to_string(octet);
    EXPECT_EQ(sc_inet_ntoa(octet * 0x01010101u, text),
              digits + "." + digits + "." + digits + "." + digits);
  }
}

TEST(Addresses, ASecondConversionIntoTheSameText_IsAppended) {
  char text[32] = "";
  sc_inet_ntoa(0x0100000a, text);
  EXPECT_EQ(sc_inet_ntoa(0x0200000a, text), text);
  EXPECT_STREQ(text, "10.0.0.110.0.0.2");
}

TEST(Addresses, TheLongestText_FillsItsSixteenBytesAndNoMore) {
  char text[18];
  memset(text, '#', sizeof text);
  text[0] = '\0';
  sc_inet_ntoa(0xffffffff, text);
  EXPECT_EQ(std::string(text, sizeof text), std::string("255.255.255.255\0##", 18));
}

/* ---- lease files ---- */

struct LeaseCopy {
  const char* name;
  int (*copy)();
  const char *from, *to;
};

constexpr LeaseCopy kLeaseCopies[] = {
    {"SaveClients", SC_Save_Dhcp_Clients, "/var/udhcpd.leases", "/var/dataconfig/udhcpd.leases"},
    {"RestoreClients", SC_Restore_Dhcp_Clients, "/var/dataconfig/udhcpd.leases",
     "/var/udhcpd.leases"},
    {"SaveAp", SC_Save_Dhcp_Ap, "/var/addrserver.leases", "/var/dataconfig/addrserver.leases"},
    {"RestoreAp", SC_Restore_Dhcp_Ap, "/var/dataconfig/addrserver.leases",
     "/var/addrserver.leases"},
};

class Leases : public World, public testing::WithParamInterface<LeaseCopy> {};

TEST_P(Leases, ACopy_RunsOneCommandAndReplacesTheOtherFile) {
  const auto& [name, copy, from, to] = GetParam();
  write_file(from, "new leases");
  write_file(to, "old leases, longer");
  Journal journal;
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(journal.lines(), (Lines{std::string("system cp -rf ") + from + " " + to}));
  EXPECT_EQ(read_file(to), "new leases");
  EXPECT_EQ(read_file(from), "new leases");
}

TEST_P(Leases, ACopyOfAMissingFile_ReturnsTheStatusOfTheShell) {
  int status = 0;
  const Output output = capture([&] { status = GetParam().copy(); });
  EXPECT_EQ(status, 1 << 8);
  EXPECT_EQ(output.out, "");
  EXPECT_FALSE(exists(GetParam().to));
}

INSTANTIATE_TEST_SUITE_P(All, Leases, testing::ValuesIn(kLeaseCopies),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
