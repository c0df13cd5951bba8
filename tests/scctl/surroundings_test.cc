/* Surroundings that the host alone has: inputs that fail on demand or have no end, a terminal. */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/trace.h"
#include "support/world.h"

namespace sc_test {
namespace {

class TraceSurroundingsTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    ASSERT_EQ(run(scctl({"init", "--all"})), (Outcome{0, "", ""}));
  }
};

Words with(Words command, const Words& more) {
  command.insert(command.end(), more.begin(), more.end());
  return command;
}

/* The command, whose n-th read of standard input fails. */
Outcome with_failing_read(const Words& command, const std::string& input, int nth) {
  return trace(
      command,
      [&](const SystemCall& call) {
        const bool read = call.call == SYS_read && call.arguments[0] == 0 && !call.is_done;
        return read && --nth == 0 ? Fate{Fate::kFails, EIO} : Fate{};
      },
      input);
}

/* Forty commands of some 120 bytes: more than one read. */
std::string many_commands() {
  std::string commands;
  for (int n = 1; n <= 40; ++n) {
    commands += "add clients client_mac=02:00:00:00:00:" + std::to_string(n + 10) +
                " text_52=" + std::to_string(n) + "   # " + std::string(70, '.') + "\n";
  }
  return commands;
}

unsigned records_of(const std::string& table) {
  const std::string list = run(scctl({"list", table})).out;
  return static_cast<unsigned>(std::stoul(list.substr(list.rfind('(') + 1)));
}

TEST_F(TraceSurroundingsTest, BatchWhoseInputFails_SaysSoAndHowManyWereDone) {
  const Outcome outcome = with_failing_read(scctl({"batch"}), many_commands(), 2);
  EXPECT_EQ(outcome.status, 3);
  const unsigned done = records_of("clients");
  EXPECT_GT(done, 10u);
  EXPECT_LT(done, 40u);
  EXPECT_EQ(outcome.err, "scctl: stdin:" + std::to_string(done + 1) + ": Input/output error\n");
  const std::string last = "commands done: " + std::to_string(done) + ", then one failed\n";
  EXPECT_EQ(outcome.out.substr(outcome.out.size() - last.size()), last);
  EXPECT_EQ(
      with_failing_read(scctl({"batch"}), many_commands(), 1),
      (Outcome{3, "commands done: 0, then one failed\n", "scctl: stdin:1: Input/output error\n"}));
}

TEST_F(TraceSurroundingsTest, BatchOnAFileWhoseInputFails_LeavesTheFile) {
  ASSERT_EQ(run(scctl({"save", "Clients"})), (Outcome{0, "", ""}));
  const std::string archive = "/var/dataconfig/config_clients.bin", before = read_file(archive);
  const Outcome outcome =
      with_failing_read(scctl({"batch", "--archive", archive, "--in-place"}), many_commands(), 2);
  EXPECT_EQ(outcome.status, 3);
  EXPECT_NE(outcome.err.find("Input/output error"), std::string::npos) << outcome.err;
  EXPECT_NE(outcome.out.find(", then one failed: the file is as it was\n"), std::string::npos);
  EXPECT_EQ(read_file(archive), before);
}

TEST_F(TraceSurroundingsTest, ImportWhoseInputFails_WritesNothing) {
  ASSERT_EQ(run(scctl({"batch"}), many_commands()).status, 0);
  const std::string exported = run(scctl({"export", "Clients"})).out;
  ASSERT_EQ(run(scctl({"clear", "clients"})).status, 0);
  for (const int nth : {1, 2}) {
    EXPECT_EQ(with_failing_read(scctl({"import", "-"}), exported, nth),
              (Outcome{3, "", "scctl: stdin: Input/output error\n"}));
  }
  EXPECT_EQ(records_of("clients"), 0u);
}

TEST_F(TraceSurroundingsTest, InputWithoutAnEnd_IsRefusedSoon) {
  EXPECT_EQ(run(scctl({"import", "/dev/zero"})),
            (Outcome{1, "", "scctl: /dev/zero: NUL byte in JSON\n"}));
  EXPECT_EQ(run(scctl({"import", "/dev/full"})),
            (Outcome{1, "", "scctl: /dev/full: NUL byte in JSON\n"}));
  EXPECT_EQ(run(scctl({"batch", "/dev/zero"})),
            (Outcome{2, "commands done: 0, then one failed\n",
                     "scctl: /dev/zero:1: NUL byte in the line\n"}));
}

TEST_F(TraceSurroundingsTest, InputOfMoreThan48MiB_IsRefusedAndLittleMemoryTaken) {
  constexpr size_t kMost = 48u << 20;
#ifdef __SANITIZE_ADDRESS__
  const std::string shell = "exec \"$@\""; /* its own memory is larger */
#else
  const std::string shell = "ulimit -v 200000; exec \"$@\"";
#endif
  const auto limited = [&](const Words& arguments, const std::string& input) {
    return run(with({"sh", "-c", shell, "sh"}, scctl(arguments)), input);
  };
  EXPECT_EQ(limited({"import", "-"}, std::string(kMost + 1, ' ')),
            (Outcome{1, "", "scctl: stdin: more than 48 MiB\n"}));
  EXPECT_EQ(limited({"import", "-"}, std::string(kMost - 2, ' ') + "{}"),
            (Outcome{0, "tables changed: 0\n", ""}));
  EXPECT_EQ(limited({"batch"}, std::string(kMost + 1, ' ')),
            (Outcome{2, "commands done: 0, then one failed\n",
                     "scctl: stdin:1: the line is too long\n"}));
}

TEST_F(TraceSurroundingsTest, WithoutMemory_ThatIsSaid) {
  const std::string shell = "ulimit -d 4000; exec \"$@\"";
  const auto limited = [&](const Words& arguments, const std::string& input) {
    return run(with({"sh", "-c", shell, "sh"}, scctl(arguments)), input);
  };
  const Outcome refused = {1, "", "scctl: out of memory\n"};
  EXPECT_EQ(limited({"check", "ApUserList"}, ""), refused);
  write_file("/var/image", "no image");
  EXPECT_EQ(limited({"list", "wan", "--image", "/var/image"}, ""), refused);
  EXPECT_EQ(limited({"import", "-"}, std::string(4 << 20, ' ')), refused);
}

/* Each of the three descriptors that it takes to silence the library. */
TEST_F(TraceSurroundingsTest, WhereADescriptorIsMissing_TheLibraryIsNotSilencedAndNoneIsLeftOpen) {
  const auto descriptors_of = [](pid_t pid) {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
    return std::distance(begin(all), end(all));
  };
  const auto is_first_taken = [](const SystemCall& call) {
    return call.call == SYS_openat && call.text(1) == "/dev/null";
  };
  for (int failing = 0; failing < 4; ++failing) {
    ASSERT_EQ(run(scctl({"init", "Lan"})).status, 0);
    ptrdiff_t before = -1, meanwhile = -1, behind = -1;
    const Outcome outcome = trace(scctl({"remove", "Lan"}), [&](const SystemCall& call) {
      const bool taken = is_first_taken(call);
      const bool copied = call.call == SYS_fcntl && call.arguments[1] == F_DUPFD_CLOEXEC;
      if (call.is_done) return Fate{};
      if (taken) before = descriptors_of(call.process);
      if (call.call == SYS_shmctl) meanwhile = descriptors_of(call.process);
      if (call.call == SYS_exit_group) behind = descriptors_of(call.process);
      const bool fails = failing == 0 ? taken : copied && call.arguments[0] == uint64_t(failing);
      return fails ? Fate{Fate::kFails, EMFILE} : Fate{};
    });
    const std::string said = "scctl: cannot silence the library's messages: Too many open files\n";
    EXPECT_EQ(outcome, (Outcome{0, "", failing < 3 ? said : ""}));
    EXPECT_GE(before, 3);
    EXPECT_EQ(meanwhile, before + (failing < 3 ? 0 : 2)) << failing;
    EXPECT_EQ(behind, before) << failing;
  }
}

/* What a program prints on a terminal. */
std::string on_terminal(const Words& command) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  EXPECT_EQ(grantpt(terminal), 0);
  EXPECT_EQ(unlockpt(terminal), 0);
  const int other = open(ptsname(terminal), O_RDWR | O_NOCTTY);
  EXPECT_GE(other, 0);
  termios raw;
  tcgetattr(other, &raw);
  cfmakeraw(&raw);
  tcsetattr(other, TCSANOW, &raw);
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(other, 1);
    execvp(words[0], words.data());
    _exit(127);
  }
  int ended = -1;
  EXPECT_EQ(waitpid(child, &ended, 0), child);
  EXPECT_EQ(ended, 0);
  char said[1024];
  const ssize_t size = read(terminal, said, sizeof said); /* while the other end is open */
  close(other);
  close(terminal);
  return {said, static_cast<size_t>(size > 0 ? size : 0)};
}

TEST_F(TraceSurroundingsTest, AField_IsRawForAFileAndHarmlessForATerminal) {
  const std::string name = "a\x1b[2J\xc2\x9b\xe2\x80\xae\x9b\\x41";
  ASSERT_EQ(run(scctl({"add", "lan_binds", "mac=00:11:22:33:44:55", "name=" + name})).status, 0);
  EXPECT_EQ(run(scctl({"get", "lan_binds/1.name"})), (Outcome{0, name + "\n", ""}));
  EXPECT_EQ(on_terminal(scctl({"get", "lan_binds/1.name"})),
            "a\\x1b[2J\\xc2\\x9b\\xe2\\x80\\xae\\x9b\\x5cx41\n");
}

}  // namespace
}  // namespace sc_test
