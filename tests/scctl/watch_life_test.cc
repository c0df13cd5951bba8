/* scctl watch beside a daemon and others who must not wait for it, lock files and areas that come and
 * go, and its own end. */
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/rules.h>

#include "scctl/watch_case.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

bool begins(Program& watch) {
  for (int ms = 0; ms < kSoonMs && watch.out().empty(); ++ms) pause_ms(1);
  return watch.out() == "watching\n";
}

/* ---- the daemon ---- */

TEST_F(WatchTest, ADaemonThatIsThere_HearsEachNotificationAndNothingElse) {
  struct stat before, after;
  ASSERT_EQ(stat(kSocket, &before), 0);
  {
    Watch watch({});
    for (int n = 1; n <= 5; ++n) add(n, "x");
    watch.lines(5);
    EXPECT_EQ(listener->codes(), (std::vector<int32_t>(5, SC_CODE_LAN)));
    kill(watch.program().pid(), SIGTERM);
    EXPECT_EQ(watch.program().wait().status, 0);
  }
  ASSERT_EQ(stat(kSocket, &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  add(6, "x");
  EXPECT_EQ(listener->codes(), (std::vector<int32_t>(1, SC_CODE_LAN)));
}

TEST_F(WatchTest, ADaemonThatComesLater_HearsEachNotificationAndNothingElse) {
  listener->close();
  unlink(kSocket);
  Watch watch({});
  EXPECT_EQ(watch.first(), "watching");
  EXPECT_FALSE(exists(kSocket));
  Listener daemon;
  struct stat before, after;
  ASSERT_EQ(stat(kSocket, &before), 0);
  for (int n = 1; n <= 5; ++n) add(n, "x");
  EXPECT_EQ(watch.lines(5).back(), "lan_binds/5: added " + words_of(5, "x"));
  kill(watch.program().pid(), SIGINT);
  EXPECT_EQ(watch.program().wait().status, 0);
  ASSERT_EQ(stat(kSocket, &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  add(6, "x");
  EXPECT_EQ(daemon.codes(), (std::vector<int32_t>(6, SC_CODE_LAN)));
}

/* The file of a daemon that died is not watch's either. */
TEST_F(WatchTest, ASocketThatNobodyListensAt_StaysAsItIs) {
  struct stat before, after;
  ASSERT_EQ(stat(kSocket, &before), 0);
  listener->close();
  {
    Watch watch({});
    kill(watch.program().pid(), SIGTERM);
    EXPECT_EQ(watch.program().wait().status, 0);
  }
  ASSERT_EQ(stat(kSocket, &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
}

/* ---- nobody waits for it ---- */

/* Ten thousand changes, alternately of two areas, so that the kernel has to queue an event for each. */
double change_much(LanBlock* lan, ClientsGroupsBlock* groups, int* last) {
  const double begun = now_ms();
  for (int n = 0; n < 5000; ++n) {
    uint32_t position = 0;
    lan->lan_binds[1].bind_flag = static_cast<int8_t>(n);
    DhcpBindRecord bind = lan->lan_binds[0];
    put_text(bind.bind_name, "n" + std::to_string(++*last));
    SC_Operate_System_List_DhcpdBind(lan, LIST_OP_MODIFY, &position, &bind);
    ClientsGroupsItem group = {};
    put_text(group.group_name, "g" + std::to_string(*last));
    SC_Operate_System_List_ClientsGroups(groups, LIST_OP_MODIFY, &position, &group);
  }
  return now_ms() - begun;
}

TEST_F(WatchTest, WhileItIsStopped_ChangesTakeNoLonger_AndThenThePresentIsShown) {
  auto* groups = started<ClientsGroupsBlock>("Clients_Groups");
  started<MiscBlock>("Misc");
  add(1, "n0");
  ClientsGroupsItem group = {};
  put_text(group.group_name, "g0");
  ASSERT_EQ(AddClientsGroupsItem(groups, &group), SC_LIST_OK);
  int last = 0;
  const double alone = change_much(lan, groups, &last);
  Watch watch({});
  kill(watch.program().pid(), SIGSTOP);
  /* More events than the kernel queues: it drops the last, and that of a third area. */
  const double first = change_much(lan, groups, &last);
  const double second = change_much(lan, groups, &last);
  printf("10000 changes: %.0f ms alone, %.0f ms and %.0f ms beside a stopped watch\n", alone, first,
         second);
  EXPECT_LT(std::min(first, second), 3 * alone + 100);
  auto* misc = block_at<MiscBlock>(SC_Get_Misc_System_Config());
  misc->settings_140[0] = 1;
  close(open(lock_file("Misc").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(watch.is_silent(50));
  kill(watch.program().pid(), SIGCONT);
  EXPECT_EQ(watch.lines(3, 2000),
            (Lines{"lan_binds/1.name: n5000 -> n" + std::to_string(last),
                   "misc_1/1.settings: 1 byte differs, at 0",
                   "client_groups/1.group_name: g5000 -> g" + std::to_string(last)}));
  EXPECT_TRUE(watch.is_silent(50));
}

TEST_F(WatchTest, WhileNobodyReadsItsLines_ChangesGoOn_AndASignalEndsIt) {
  add(1, "n0");
  Watch watch({});
  fcntl(watch.pipe(), F_SETPIPE_SZ, 4096);
  const std::string name(190, 'x');
  int pending = 0;
  const double begun = now_ms();
  for (int n = 0; n < 200; ++n) {
    rename(name + std::to_string(n));
    if (n < 100) pause_ms(5);
  }
  EXPECT_LT(now_ms() - begun, 4000);
  struct pollfd readable = {watch.pipe(), POLLIN, 0};
  EXPECT_EQ(poll(&readable, 1, 0), 1);
  /* It is in the midst of a line, and no byte is held. */
  for (off_t byte = 0; byte < 70; ++byte) EXPECT_FALSE(is_locked(kLanLock, byte)) << byte;
  EXPECT_FALSE(watch.program().ended());

  /* Read again: what is the present comes. */
  std::string last;
  while (last.find("-> " + name + "199") == std::string::npos) {
    last = watch.line();
    ASSERT_NE(last, "nothing");
    ++pending;
  }
  EXPECT_LT(pending, 100);

  for (int n = 0; n < 100; ++n) {
    rename(name + std::to_string(n));
    pause_ms(5);
  }
  kill(watch.program().pid(), SIGTERM);
  for (int ms = 0; ms < kSoonMs && !watch.program().ended(); ++ms) pause_ms(1);
  ASSERT_TRUE(watch.program().ended());
  EXPECT_EQ(watch.program().wait().status, 0);
}

/* ---- lock files and areas that come and go ---- */

/* Whoever writes into a lock file again and again silences nobody. */
TEST_F(WatchTest, ALockFileThatIsMadeAnew_DelaysByASecondAtMost) {
  add(1, "one");
  Watch watch({"Lan"});
  {
    Child maker([] {
      for (;;) {
        unlink(kLanLock);
        write_file(kLanLock, "\n");
        pause_ms(50);
      }
    });
    pause_ms(100);
    lan->lan_binds[0].bind_flag = 9;
    EXPECT_EQ(watch.line(3000), "lan_binds/1.flag: 1 -> 9");
  }
  write_file(kLanLock, "\n");
  pause_ms(1100);
  const double begun = now_ms();
  rename("two");
  EXPECT_EQ(watch.line(), "lan_binds/1.name: one -> two");
  EXPECT_LT(now_ms() - begun, 900);
}

TEST_F(WatchTest, Init_IsShownWhenItsArchiveIsLoaded_AndNotAsItEmptiesTheArea) {
  add(1, "saved");
  add(2, "same");
  capture([&] { SC_Save_System_Lan_Config2Flash(lan); });
  rename("live");
  add(3, "live alone");
  Watch watch({"Lan"});
  EXPECT_EQ(SC_Init_System_Lan_Config(1), 0);
  EXPECT_EQ(watch.lines(2), (Lines{"lan_binds/1.name: live -> saved",
                                   "lan_binds/3: deleted " + words_of(3, "'live alone'")}));
  EXPECT_TRUE(watch.is_silent(100));
}

/* Areas that a process has attached, those that are removed among them. */
size_t segments_of(pid_t pid) {
  std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
  size_t count = 0;
  for (std::string line; std::getline(maps, line);) count += line.find("/SYSV") != line.npos;
  return count;
}

TEST_F(WatchTest, AnAreaThatIsMadeAnew_IsWatchedOn_AndTheFormerIsLetGo) {
  add(1, "one");
  add(2, "two");
  Watch watch({"Lan"});
  const size_t segments = segments_of(watch.program().pid());
  EXPECT_GE(segments, 1u);
  ASSERT_EQ(SC_Uninit_System_Lan_Config(), 0);
  lan = started<LanBlock>("Lan");
  ASSERT_NE(lan, nullptr);
  add(9, "one of the new");
  EXPECT_EQ(watch.line(), "Lan: made anew");
  EXPECT_EQ(watch.lines(5).back(), "lan_binds/2: deleted " + words_of(2, "two"));
  rename("changed");
  EXPECT_EQ(watch.line(), "lan_binds/1.name: 'one of the new' -> changed");
  EXPECT_EQ(segments_of(watch.program().pid()), segments);
}

size_t descriptors_of(pid_t pid) {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST_F(WatchTest, ALockFileThatItHasAsked_IsClosed) {
  add(1, "n");
  Watch watch({"Lan"});
  const size_t before = descriptors_of(watch.program().pid());
  rename("m");
  EXPECT_EQ(watch.line(), "lan_binds/1.name: n -> m");
  /* The line comes before the close. */
  for (int ms = 0; ms < kSoonMs && descriptors_of(watch.program().pid()) != before; ++ms) {
    pause_ms(1);
  }
  EXPECT_EQ(descriptors_of(watch.program().pid()), before);
}

/* The folder is another one then; that of before tells nothing any more. */
TEST_F(WatchTest, WhenTheLockFolderGoesAway_ItSaysSoAndGoesOnWithTheNext) {
  add(1, "one");
  Watch watch({"Lan"});
  EXPECT_EQ(watch.first(), "watching");
  fs::rename("/var/lock_store", "/var/away");
  EXPECT_EQ(watch.raw_line(kSlowMs),
            "looking every 5 s: /var/lock_store/: No such file or directory");
  lan->lan_binds[0].bind_flag = 2;
  close(open("/var/away/lan_conf_lock", O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(watch.is_silent(300));
  fs::create_directory("/var/lock_store");
  write_file(kLanLock, "\n");
  EXPECT_EQ(watch.raw_line(kSlowMs), "watching");
  EXPECT_EQ(watch.line(), "lan_binds/1.flag: 1 -> 2");
  fs::remove_all("/var/away");
  fs::rename("/var/lock_store", "/var/away");
  fs::create_directory("/var/lock_store");
  write_file(kLanLock, "\n");
  lan->lan_binds[0].bind_flag = 3;
  EXPECT_EQ(watch.line(kSlowMs), "lan_binds/1.flag: 2 -> 3");
  lan->lan_binds[0].bind_flag = 4;
  close(open("/var/away/lan_conf_lock", O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(watch.is_silent(300));
  rename("two");
  EXPECT_EQ(watch.lines(2), (Lines{"lan_binds/1.flag: 3 -> 4", "lan_binds/1.name: one -> two"}));
  fs::remove_all("/var/away");
}

/* As between Init's emptying and Read's first step. */
TEST_F(WatchTest, AnAreaWithoutItsLockPath_IsWaitedForButNotForEver) {
  add(1, "one");
  Watch watch({"Lan"});
  lan->header.lock_path[0] = '\0';
  lan->lan_binds[0].bind_flag = 9;
  close(open(kLanLock, O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(watch.is_silent(200));
  lan->header.lock_path[0] = '/';
  lan->lan_binds[0].bind_flag = 1;
  EXPECT_TRUE(watch.is_silent(1000));
  /* Once more, and waited for anew. */
  lan->header.lock_path[0] = '\0';
  lan->lan_binds[0].bind_flag = 8;
  close(open(kLanLock, O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(watch.is_silent(300));
  EXPECT_EQ(watch.line(3000), "lan_binds/1.flag: 1 -> 8");
}

/* ---- what no lock file tells of ---- */

/* How often the process has gone to sleep. */
long sleeps_of(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    long count;
    if (sscanf(line.c_str(), "voluntary_ctxt_switches: %ld", &count) == 1) return count;
  }
  return -1;
}

/* Both take their seconds, so they take them together. */
TEST_F(WatchTest, IdleItWakesEachFiveSeconds_AndSeesThenWhatNoLockFileTellsOf) {
  add(1, "one");
  add(2, "saved");
  capture([&] { SC_Save_System_Lan_Config2Flash(lan); });
  rename("live", 1);
  auto* misc = started<MiscBlock>("Misc");
  auto* aps = started<ManageApListBlock>("ManageApList");
  started<WanBlock>("Wan");
  started<QosBlock>("Qos");
  Program idle(scctl({"watch", "Wan"}));
  ASSERT_TRUE(begins(idle));
  Watch watch({"Lan", "Misc", "Qos", "ManageApList"});
  pause_ms(100);
  const long sleeps = sleeps_of(idle.pid());
  const double begun = now_ms();

  misc->settings_140[5] = 7;
  ApLimitsRecord limits = {};
  limits.max_ap_count = 300;
  ASSERT_EQ(SC_Get_Ap_Info_Blank(aps, &limits), 0);
  capture([&] { SC_Read_System_Lan_Config(lan); });
  ASSERT_EQ(SC_Uninit_System_Qos_Config(), 0);
  EXPECT_EQ(watch.lines(3, kSlowMs),
            (Lines{"lan_binds/2.name: live -> saved", "misc_1/1.settings: 1 byte differs, at 5",
                   "Qos: removed"}));
  EXPECT_LT(now_ms() - begun, kSlowMs);
  EXPECT_EQ(watch.line(), "aps/1: added");

  /* Those who read open lock files, too. */
  for (int n = 0; n < 20; ++n) EXPECT_EQ(run(scctl({"list", "wan"})).status, 0);
  const int left = static_cast<int>(11'000 - (now_ms() - begun));
  pause_ms(left);
  const long woken = sleeps_of(idle.pid()) - sleeps;
  printf("woken in 11 s without a change: %ld times\n", woken);
  EXPECT_GE(woken, 1);
  EXPECT_LE(woken, 3);
  EXPECT_EQ(idle.out(), "watching\n");
}

/* ---- its own end, and what it starts ---- */

TEST_F(WatchTest, SignalsEndItWithZero_ButThoseThatItsParentIgnores) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    Watch watch({});
    kill(watch.program().pid(), number);
    EXPECT_EQ(watch.program().wait(), (Outcome{0, "", ""})) << number;
  }
  add(1, "one");
  Watch watch({}, "trap '' HUP; ");
  kill(watch.program().pid(), SIGHUP);
  rename("two");
  EXPECT_EQ(watch.line(), "lan_binds/1.name: one -> two");
}

TEST_F(WatchTest, Count_EndsItAfterSoManyChangedAreas) {
  add(1, "one");
  Watch watch({"--count", "2"});
  rename("two");
  EXPECT_EQ(watch.line(), "lan_binds/1.name: one -> two");
  EXPECT_FALSE(watch.program().ended());
  rename("three");
  for (int ms = 0; ms < kSoonMs && !watch.program().ended(); ++ms) pause_ms(1);
  ASSERT_TRUE(watch.program().ended());
  EXPECT_EQ(watch.program().wait(), (Outcome{0, "", ""}));
  EXPECT_EQ(watch.line(), "lan_binds/1.name: two -> three");
}

/* Changes of three areas, which are seen in one round; the lines of them. */
class WatchTogetherTest : public WatchTest {
 protected:
  void SetUp() override {
    WatchTest::SetUp();
    misc = started<MiscBlock>("Misc");
    product = started<ProductInfoBlock>("ProductInfo");
    ASSERT_TRUE(misc != nullptr && product != nullptr);
  }

  void change_all(Watch& watch, uint8_t to) {
    kill(watch.program().pid(), SIGSTOP);
    lan->lan_settings[0] = misc->settings_140[0] = product->settings[0] = to;
    for (const char* name : {"Lan", "Misc", "ProductInfo"}) {
      close(open(lock_file(name).c_str(), O_RDWR | O_CLOEXEC));
    }
    kill(watch.program().pid(), SIGCONT);
  }
  static std::string differs(const std::string& record) {
    return record + ".settings: 1 byte differs, at 0";
  }

  MiscBlock* misc = nullptr;
  ProductInfoBlock* product = nullptr;
};

TEST_F(WatchTogetherTest, Count_HoldsAlsoWhenAreasChangeTogether) {
  for (const size_t count : {1, 2, 3, 4}) {
    unlink("/var/told");
    Watch watch({"--count", std::to_string(count), "--exec", "echo $1 >>/var/told"});
    change_all(watch, static_cast<uint8_t>(count));
    Lines said = watch.lines(std::min<size_t>(count, 3));
    if (count == 4) {
      EXPECT_TRUE(watch.is_silent(50));
      EXPECT_FALSE(watch.program().ended());
      change_all(watch, 5);
      said.push_back(watch.line());
    }
    EXPECT_EQ(watch.program().wait(), (Outcome{0, "", ""}));
    EXPECT_EQ(watch.line(), "nothing"); /* by then all have closed it, the commands too */
    EXPECT_EQ(said.size(), count);
    EXPECT_EQ(std::count(said.begin(), said.end(), "nothing"), 0) << count;
    const std::string told = read_file("/var/told");
    EXPECT_EQ(static_cast<size_t>(std::count(told.begin(), told.end(), '\n')), count) << told;
  }
}

size_t zombies_of(pid_t parent) {
  size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::ifstream stat(entry.path() / "stat");
    std::string text;
    std::getline(stat, text);
    const size_t name_end = text.rfind(')');
    char state;
    int its_parent;
    if (name_end != std::string::npos &&
        sscanf(text.c_str() + name_end, ") %c %d", &state, &its_parent) == 2) {
      count += state == 'Z' && its_parent == parent;
    }
  }
  return count;
}

/* Their number once there are so many, or after a while. */
size_t zombies_of_soon(pid_t parent, size_t count) {
  for (int ms = 0; ms < kSoonMs && zombies_of(parent) < count; ++ms) pause_ms(1);
  return zombies_of(parent);
}

TEST_F(WatchTest, TheCommandOfExec_GetsTheAreaAndNothingOfOurs) {
  add(1, "one");
  /* A parent that ignores these two must not make the command ignore them. */
  Watch watch({"Lan", "--exec",
               "echo \"$1\" >/var/told; grep -E 'SigIgn|SigBlk' /proc/self/status >>/var/told; "
               "ls -l /proc/self/fd >>/var/told; echo done >>/var/told"},
              "trap '' CHLD PIPE; ");
  const auto told = [] {
    std::string text;
    for (int ms = 0; ms < kSoonMs && text.find("done\n") == std::string::npos; ++ms) {
      pause_ms(1);
      if (exists("/var/told")) text = read_file("/var/told");
    }
    unlink("/var/told");
    return text;
  };
  rename("two");
  EXPECT_EQ(watch.line(), "lan_binds/1.name: one -> two");
  const std::string text = told();
  EXPECT_EQ(text.substr(0, 4), "Lan\n") << text;
  EXPECT_NE(text.find("SigIgn:\t0000000000000000"), std::string::npos) << text;
  EXPECT_NE(text.find("SigBlk:\t0000000000000000"), std::string::npos) << text;
  EXPECT_EQ(text.find("inotify"), std::string::npos) << text;
  EXPECT_EQ(text.find("lock_store"), std::string::npos) << text;
  for (int n = 0; n < 3; ++n) {
    /* A command that says "done" has not ended yet: only one that has is waited for. */
    EXPECT_EQ(zombies_of_soon(watch.program().pid(), 1), 1u);
    rename("again" + std::to_string(n));
    EXPECT_NE(watch.line().find("again" + std::to_string(n)), std::string::npos);
    EXPECT_NE(told(), "");
  }
  EXPECT_EQ(zombies_of_soon(watch.program().pid(), 1), 1u);
}

TEST_F(WatchTogetherTest, CommandsThatHaveEnded_AreAllWaitedForInTheNextRound) {
  Watch watch({"--exec", ":"});
  const pid_t pid = watch.program().pid();
  change_all(watch, 1);
  Lines said = watch.lines(3);
  std::sort(said.begin(), said.end());
  EXPECT_EQ(said,
            (Lines{differs("lan_settings/1"), differs("misc_1/1"), differs("product_info/1")}));
  EXPECT_EQ(zombies_of_soon(pid, 3), 3u);
  add(1, "one");
  EXPECT_EQ(watch.line(), "lan_binds/1: added " + words_of(1, "one"));
  EXPECT_LE(zombies_of(pid), 1u); /* that of this change */
}

TEST_F(WatchTest, WhenItsReaderIsGone_TheNextChangeEndsIt) {
  add(1, "one");
  Words words = {"sh", "-c", "\"$@\" | head -n 1", "sh"};
  for (const std::string& word : scctl({"watch"})) words.push_back(word);
  Program watch(words);
  ASSERT_TRUE(begins(watch));
  pause_ms(50);
  rename("two");
  for (int ms = 0; ms < kSoonMs && !watch.ended(); ++ms) pause_ms(1);
  EXPECT_TRUE(watch.ended());
}

}  // namespace
}  // namespace sc_test
