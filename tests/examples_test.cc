/* The example programs, run as the commands that they are: a daemon among well- and ill-behaved callers,
 * a section that is written by hand, a page, and the README's first program. */
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <sysconfig/core.h>
#include <sysconfig/lan.h>

#include "support/areas.h"
#include "support/listener.h"
#include "support/locks.h"
#include "support/output.h"
#include "support/program.h"
#include "support/world.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

constexpr char kSocket[] = "/var/config_socket";
constexpr int kDeadlineMs = 30'000;

/* The command of an example of this build. The environment's EXAMPLES takes the place of its folder. */
Words example(const std::string& name, const Words& arguments = {}) {
  const char* given = getenv("EXAMPLES");
  std::istringstream text(given != nullptr ? given : EXAMPLES_FOLDER);
  Words words;
  for (std::string word; text >> word;) words.push_back(word);
  words.back() += "/" + name;
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

ino_t inode_of(const char* path) {
  struct stat file;
  return lstat(path, &file) == 0 ? file.st_ino : 0;
}

/* ---- the daemon ---- */

/* A connection to the daemon, by hand. */
class Caller {
 public:
  explicit Caller(int flags = 0) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kSocket);
    connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~Caller() { hang_up(); }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  bool connected() const { return connected_; }
  void say(const std::string& bytes) const {
    ASSERT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  /* Whether the daemon has closed its end. */
  bool is_cut_off() const {
    char byte;
    return recv(fd_, &byte, 1, MSG_DONTWAIT) == 0;
  }
  void hang_up() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
  bool connected_;
};

std::string bytes_of(int32_t code) { return {reinterpret_cast<const char*>(&code), sizeof code}; }

class DaemonExample : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    start();
  }

  void start() {
    daemon_ = std::make_unique<Program>(example("daemon"));
    said_ = "";
    expect("listening\n");
  }

  /* Waits until the daemon has said this after what it said before, and nothing else. */
  void expect(const std::string& lines) {
    said_ += lines;
    for (int ms = 0; ms < kDeadlineMs && daemon_->out().size() < said_.size(); ++ms) usleep(1000);
    EXPECT_EQ(daemon_->out(), said_);
  }

  /* How a further daemon ends, which has to refuse. */
  static Outcome refused() {
    Words words = example("daemon");
    words.insert(words.begin(), {"timeout", "30"});
    return run(words);
  }

  /* Ends the daemon by this signal: what it then has said in all, and how it ended. */
  Outcome end(int signal) {
    kill(daemon_->pid(), signal);
    return daemon_->wait();
  }

  std::unique_ptr<Program> daemon_;
  std::string said_;
};

TEST_F(DaemonExample, AreaThatChanges_IsPrintedByItsName) {
  std::string names;
  for (const AreaCalls& area : all_areas()) {
    if (area.save == nullptr) continue;
    EXPECT_EQ(capture(area.save), kSilence) << area.name;
    names += std::string(area.name) + " changed\n";
  }
  expect(names);
}

TEST_F(DaemonExample, EditOfAnItem_IsHeard) {
  SC_Init_System_Lan_Config(1);
  auto* lan = reinterpret_cast<LanBlock*>(static_cast<uintptr_t>(SC_Get_Lan_System_Config()));
  const DhcpStaticItem item = {.mac = "00:11:22:33:44:55", .ip = "192.168.1.20"};
  EXPECT_EQ(AddDhcpStaticItem(lan, &item), SC_LIST_OK);
  DelAllDhcpStaticItem(lan);
  expect("Lan changed\nLan changed\n");
}

TEST_F(DaemonExample, CodeOfNoArea_IsToldAsSuch) {
  for (const int32_t code : {0, 12, 13, 19, -1, INT32_MIN, INT32_MAX}) {
    Caller().say(bytes_of(code));
    expect("no area has code " + std::to_string(code) + "\n");
  }
}

TEST_F(DaemonExample, SecondDaemon_RefusesAndTheFirstGoesOn) {
  const ino_t socket_file = inode_of(kSocket);
  EXPECT_EQ(refused(), (Outcome{1, "", "daemon: /var/config_socket: another daemon listens\n"}));
  EXPECT_EQ(inode_of(kSocket), socket_file);
  SC_Save_System_Wan_Config();
  expect("Wan changed\n");
}

TEST_F(DaemonExample, DaemonWhoseQueueIsFull_IsNotTakenForAStaleOne) {
  end(SIGTERM);
  const int busy = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, kSocket);
  ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(busy, 0), 0);
  const ino_t socket_file = inode_of(kSocket);
  std::vector<std::unique_ptr<Caller>> queue;
  do {
    queue.push_back(std::make_unique<Caller>(SOCK_NONBLOCK));
  } while (queue.back()->connected());

  EXPECT_EQ(refused(), (Outcome{1, "", "daemon: /var/config_socket: another daemon listens\n"}));
  EXPECT_EQ(inode_of(kSocket), socket_file);
  close(busy);
}

TEST_F(DaemonExample, SocketOfAKilledDaemon_IsReplaced) {
  EXPECT_EQ(end(SIGKILL).status, -SIGKILL);
  ASSERT_TRUE(exists(kSocket));
  start();
  SC_Save_System_Wan_Config();
  expect("Wan changed\n");
}

TEST_F(DaemonExample, FileThatIsNoSocket_IsLeftAlone) {
  end(SIGTERM);
  write_file(kSocket, "somebody's");
  EXPECT_EQ(refused(), (Outcome{1, "", "daemon: /var/config_socket: is not a socket\n"}));
  EXPECT_EQ(read_file(kSocket), "somebody's");
}

TEST_F(DaemonExample, EndedBySignal_RemovesItsSocket) {
  for (const int signal : {SIGTERM, SIGINT}) {
    EXPECT_EQ(end(signal), (Outcome{0, "listening\n", ""}));
    EXPECT_FALSE(exists(kSocket));
    start();
  }
}

TEST_F(DaemonExample, EndedAfterItsSocketWasReplaced_LeavesTheOtherOne) {
  Listener other;
  EXPECT_EQ(end(SIGTERM).status, 0);
  SC_Save_System_Wan_Config();
  EXPECT_EQ(other.codes(), std::vector<int32_t>{SC_CODE_WAN});
}

TEST_F(DaemonExample, EndedWhileCallersWait_HearsThemFirst) {
  const Caller slow;
  kill(daemon_->pid(), SIGSTOP);
  SC_Save_System_Wan_Config();
  SC_Save_System_Misc_Config();
  kill(daemon_->pid(), SIGTERM);
  kill(daemon_->pid(), SIGCONT);
  for (int ms = 0; ms < kDeadlineMs && exists(kSocket); ++ms) usleep(1000);
  slow.say(bytes_of(SC_CODE_QOS));
  EXPECT_EQ(daemon_->wait(),
            (Outcome{0, "listening\nWan changed\nMisc changed\nQos changed\n", ""}));
}

TEST_F(DaemonExample, ThreeHundredCallersAtOnce_AllEndWellAndAreHeard) {
  int gate[2];
  ASSERT_EQ(pipe(gate), 0);
  std::vector<std::unique_ptr<Child>> callers;
  std::string lines;
  for (int i = 0; i < 300; ++i) {
    callers.push_back(std::make_unique<Child>([&] {
      char byte;
      close(gate[1]);
      if (read(gate[0], &byte, 1) != 0) abort(); /* until the gate opens for all */
      SC_Save_System_Wan_Config();
    }));
    lines += "Wan changed\n";
  }
  close(gate[0]);
  close(gate[1]);
  int well = 0;
  for (const auto& caller : callers) well += caller->wait() == 0;
  EXPECT_EQ(well, 300); /* SIGPIPE is as it was: it ends a program */
  expect(lines);
}

TEST_F(DaemonExample, ConnectionWithoutAByte_IsNoChange) {
  Caller().hang_up();
  SC_Save_System_Wan_Config();
  expect("Wan changed\n");
}

TEST_F(DaemonExample, ConnectionOfTwoBytes_IsNoChangeAndTold) {
  Caller().say(std::string("\1\0", 2));
  expect("only 2 bytes of 4 came\n");
  SC_Save_System_Wan_Config();
  expect("Wan changed\n");
}

TEST_F(DaemonExample, CodeInPieces_IsPutTogether) {
  Caller caller;
  const std::string bytes = bytes_of(SC_CODE_QOS);
  for (const char byte : bytes) {
    caller.say({byte});
    usleep(10'000);
  }
  expect("Qos changed\n");
}

TEST_F(DaemonExample, CallerThatHasSpoken_IsLetGo) {
  Caller caller;
  caller.say(bytes_of(SC_CODE_QOS));
  expect("Qos changed\n");
  for (int ms = 0; ms < kDeadlineMs && !caller.is_cut_off(); ++ms) usleep(1000);
  EXPECT_TRUE(caller.is_cut_off());
}

TEST_F(DaemonExample, SilentCaller_HoldsNobodyUp) {
  const Caller silent, half;
  half.say("\x01");
  SC_Save_System_Wan_Config();
  expect("Wan changed\n");
  EXPECT_FALSE(silent.is_cut_off());
  EXPECT_FALSE(half.is_cut_off());
}

TEST_F(DaemonExample, SilentCallersInAllPlaces_GiveWayOneByOne) {
  std::vector<std::unique_ptr<Caller>> silent;
  for (int i = 0; i < 64; ++i) silent.push_back(std::make_unique<Caller>());
  SC_Save_System_Wan_Config();
  expect("Wan changed\n");
  EXPECT_TRUE(silent.front()->is_cut_off());
  EXPECT_FALSE(silent.back()->is_cut_off());
}

/* ---- a section by hand ---- */

class WriteSectionExample : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    SC_Init_System_Wan_Config(1);
    wan_ = reinterpret_cast<WanBlock*>(static_cast<uintptr_t>(SC_Get_Wan_System_Config()));
  }

  std::string text(int section) const {
    const uint8_t* settings = wan_->sections[section - 1].settings;
    return {reinterpret_cast<const char*>(settings), sizeof WanSection::settings};
  }
  static std::string padded(std::string text) {
    text.resize(sizeof WanSection::settings);
    return text;
  }

  const std::string lock_path_ = lock_file("Wan");
  WanBlock* wan_ = nullptr;
};

TEST_F(WriteSectionExample, ByteThatIsHeld_IsWaitedForBeforeAnythingIsWritten) {
  Listener daemon;
  LockHolder holder(lock_path_, 3);
  Program writer(example("write_section", {"2", "pppoe"}));
  EXPECT_TRUE(becomes_blocked(writer.pid(), lock_path_, 3));
  EXPECT_EQ(text(2), padded(""));
  EXPECT_EQ(daemon.codes(), std::vector<int32_t>{});

  holder.release();
  EXPECT_EQ(writer.wait(), (Outcome{0, "", ""}));
  EXPECT_EQ(text(2), padded("pppoe"));
  EXPECT_EQ(daemon.codes(), std::vector<int32_t>{SC_CODE_WAN});
}

TEST_F(WriteSectionExample, BytesOfOtherSections_AreNotWaitedFor) {
  Listener daemon;
  const LockHolder area(lock_path_, 1), first(lock_path_, 2), second(lock_path_, 3),
      third(lock_path_, 4);
  EXPECT_EQ(run(example("write_section", {"4", "dhcp"})), (Outcome{0, "", ""}));
  EXPECT_EQ(text(4), padded("dhcp"));
}

TEST_F(WriteSectionExample, Writing_ChangesOneSectionsSettingsAlone) {
  Listener daemon;
  const WanBlock before = *wan_;
  const std::string whole(sizeof WanSection::settings, 'x');
  EXPECT_EQ(run(example("write_section", {"1", whole})), (Outcome{0, "", ""}));
  EXPECT_EQ(text(1), whole);
  EXPECT_EQ(run(example("write_section", {"1", "short"})), (Outcome{0, "", ""}));
  EXPECT_EQ(text(1), padded("short"));
  memset(wan_->sections[0].settings, 0, sizeof WanSection::settings);
  EXPECT_EQ(memcmp(wan_, &before, sizeof before), 0);
}

TEST_F(WriteSectionExample, WordsThatDoNotFit_ChangeNothing) {
  Listener daemon;
  const WanBlock before = *wan_;
  const std::string too_long(sizeof WanSection::settings + 1, 'x');
  for (const Words& words : {Words{"0", "x"}, {"5", "x"}, {"1", too_long}, {"1"}}) {
    EXPECT_EQ(run(example("write_section", words)).status, 2);
  }
  EXPECT_EQ(memcmp(wan_, &before, sizeof before), 0);
  EXPECT_EQ(daemon.codes(), std::vector<int32_t>{});
}

TEST_F(WriteSectionExample, LockFileThatIsMissing_LeavesAllAsItIs) {
  Listener daemon;
  unlink(lock_path_.c_str());
  const Outcome outcome = run(example("write_section", {"1", "x"}));
  EXPECT_EQ(outcome,
            (Outcome{1, "", "/var/lock_store/wan_conf_lock: No such file or directory\n"}));
  EXPECT_EQ(text(1), padded(""));
  EXPECT_EQ(daemon.codes(), std::vector<int32_t>{});
}

TEST_F(WriteSectionExample, AreaThatWasNotMade_IsTold) {
  SC_Uninit_System_Wan_Config();
  EXPECT_EQ(run(example("write_section", {"1", "x"})),
            (Outcome{1, "", "write_section: there is no Wan area; it is made at boot\n"}));
}

/* ---- bindings ---- */

class BindingExample : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    daemon_ = std::make_unique<Listener>();
    SC_Init_System_Lan_Config(1);
    lan_ = reinterpret_cast<LanBlock*>(static_cast<uintptr_t>(SC_Get_Lan_System_Config()));
  }

  void add(const std::string& mac, const std::string& ip) {
    DhcpStaticItem item = {};
    strcpy(item.mac, mac.c_str());
    strcpy(item.ip, ip.c_str());
    ASSERT_EQ(AddDhcpStaticItem(lan_, &item), SC_LIST_OK);
  }
  /* The page for these words. */
  static std::string page(const Words& words) {
    const Outcome outcome = run(example("bind_page", words));
    EXPECT_EQ(outcome.status, 0);
    const std::string head = "Content-Type: text/plain\r\n\r\n";
    EXPECT_TRUE(outcome.out.starts_with(head)) << outcome.out;
    return outcome.out.substr(std::min(head.size(), outcome.out.size()));
  }

  std::unique_ptr<Listener> daemon_;
  LanBlock* lan_ = nullptr;
};

TEST_F(BindingExample, BindingThatIsAdded_IsShownWithItsNumberAndSaved) {
  add("00:11:22:33:44:01", "192.168.1.1");
  add("00:11:22:33:44:02", "192.168.1.2");
  add("00:11:22:33:44:03", "192.168.1.3");
  char second[] = "2";
  DelDhcpStaticItem(lan_, second);
  EXPECT_EQ(page({"00:11:22:33:44:04", "192.168.1.4", "printer"}), "Bound: number 2 of 3.\n");
  EXPECT_STREQ(lan_->lan_binds[1].bind_name, "printer");
  EXPECT_TRUE(exists(golden_area("Lan").archive_path));
}

TEST_F(BindingExample, Refusal_IsToldApart) {
  add("00:11:22:33:44:aa", "192.168.1.1");
  EXPECT_EQ(page({"00:11:22:33:44:AA", "192.168.1.2", "x"}),
            "Refused: this MAC address has a binding.\n");
  EXPECT_EQ(page({"00:11:22:33:44:bb", "192.168.1.1", "x"}), "Refused: this address is bound.\n");
  for (int i = 2; i <= SC_DHCP_BINDS; ++i) {
    add("mac " + std::to_string(i), "10.0.0." + std::to_string(i));
  }
  EXPECT_EQ(page({"00:11:22:33:44:bb", "192.168.1.2", "x"}), "Refused: the table is full.\n");
  unlink(lock_file("Lan").c_str());
  EXPECT_NE(page({"00:11:22:33:44:bb", "192.168.1.2", "x"}).find("lock file cannot be opened"),
            std::string::npos);
}

TEST_F(BindingExample, TextThatIsNoAddress_IsNotStored) {
  for (const char* text : {"printer", "192.168.1", "192.168.1.20 ", "1.2.3.256", ""}) {
    EXPECT_EQ(page({"00:11:22:33:44:55", text, "x"}),
              "A MAC address, an IPv4 address and a name are wanted.\n");
  }
  EXPECT_EQ(lan_->lan_bind_count, 0U);
  EXPECT_EQ(daemon_->codes(), std::vector<int32_t>{});
}

TEST_F(BindingExample, WhatASavePrints_IsNotOnThePage) {
  fs::remove("/var/systemconfig");
  const Outcome outcome =
      run(example("bind_page", {"00:11:22:33:44:55", "192.168.1.20", "printer"}));
  EXPECT_EQ(outcome, (Outcome{0, "Content-Type: text/plain\r\n\r\nBound: number 1 of 1.\n",
                              "canot open the file."}));
}

TEST_F(BindingExample, FirstProgram_AddsToWhatIsLive) {
  add("00:11:22:33:44:01", "192.168.1.1");
  const Outcome outcome = run(example("first_binding"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "printer is bound, one of 2\n");
  EXPECT_STREQ(lan_->lan_binds[0].bind_mac, "00:11:22:33:44:01");
  EXPECT_STREQ(lan_->lan_binds[1].bind_mac, "00:11:22:33:44:55");
  EXPECT_TRUE(exists(golden_area("Lan").archive_path));
  EXPECT_EQ(run(example("first_binding")).status, 1); /* it is bound by now */
}

TEST_F(BindingExample, AreaThatWasNotMade_EndsTheFirstProgram) {
  SC_Uninit_System_Lan_Config();
  EXPECT_EQ(run(example("first_binding")).status, 1);
  EXPECT_EQ(segment_of(SC_KEY_LAN), -1);
}

}  // namespace
}  // namespace sc_test
