/* The objects of scctl watch --json. */
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <sysconfig/ap.h>

#include "scctl/stream_case.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

TEST_F(WatchTest, Json_AddModifyDelete_AreObjectsWithFieldsBeforeAndAfter) {
  JsonWatch watch({"Lan"});
  add(17, "printer");
  const Object first = watch.object();
  EXPECT_EQ(first.seq, 1);
  EXPECT_EQ(first.rest,
            bind_line(1, "add",
                      "\"mac\":[null,\"00:11:22:33:44:11\"],\"ip\":[null,\"192.168.1.17\"],"
                      "\"flag\":[null,17],\"name\":[null,\"printer\"]"));
  rename("copier");
  const Object second = watch.object();
  EXPECT_EQ(second.seq, 2);
  EXPECT_EQ(second.rest, bind_line(1, "change", "\"name\":[\"printer\",\"copier\"]"));
  del("1");
  EXPECT_EQ(watch.rest(),
            bind_line(1, "delete",
                      "\"mac\":[\"00:11:22:33:44:11\",null],\"ip\":[\"192.168.1.17\",null],"
                      "\"flag\":[17,null],\"name\":[\"copier\",null]"));
  EXPECT_EQ(watch.rest(100), "nothing");
}

TEST_F(WatchTest, Json_OfUnnamedBytes_OnlyThatTheyDiffer) {
  auto* aps = started<ManageApListBlock>("ManageApList");
  ApLimitsRecord limits = {};
  limits.max_ap_count = 300;
  ASSERT_EQ(SC_Get_Ap_Info_Blank(aps, &limits), 0);
  aps->aps[0].group_id = 1;
  JsonWatch watch({"Lan", "ManageApList"});
  const auto poke = [&](uint8_t& byte, uint8_t to) {
    byte = to;
    Child([] { close(open(lock_file("ManageApList").c_str(), O_WRONLY | O_CLOEXEC)); }).wait();
    return watch.rest();
  };
  const std::string ap =
      "\"area\":\"ManageApList\",\"table\":\"aps\",\"id\":1,\"what\":\"change\",";
  EXPECT_EQ(poke(aps->aps[0].opaque_399[11000], 7),
            ap + "\"fields\":{},\"unnamed\":true,\"seen\":\"lock\"");
  EXPECT_EQ(poke(aps->aps[0].opaque_399[11000], 0),
            ap + "\"fields\":{},\"unnamed\":true,\"seen\":\"lock\"");
  aps->aps[0].opaque_4[132] = 1; /* the last byte of a field that is no multiple of words */
  EXPECT_EQ(poke(aps->aps[0].group_id, 9),
            ap + "\"fields\":{\"group_id\":[1,9]},\"unnamed\":true,\"seen\":\"lock\"");
  EXPECT_EQ(poke(aps->aps[0].group_id, 8),
            ap + "\"fields\":{\"group_id\":[9,8]},\"seen\":\"lock\"");
}

TEST_F(WatchTest, Json_TextThatIsNoUtf8_IsEscaped) {
  add(1, "n");
  JsonWatch watch({"Lan"});
  rename("a\xff\"\\\x01\n\xc3\xa9");
  EXPECT_EQ(watch.rest(),
            bind_line(1, "change", "\"name\":[\"n\",\"a\\udcff\\\"\\\\\\u0001\\u000a\xc3\xa9\"]"));
  rename(std::string("a\0left", 6)); /* what is behind a text's end is its, too */
  EXPECT_EQ(watch.rest(), bind_line(1, "change",
                                    "\"name\":[\"a\\udcff\\\"\\\\\\u0001\\u000a\xc3\xa9\","
                                    "\"a\\u0000left\"]"));
}

TEST_F(WatchTest, Json_TheTime_IsThatOfUtcInAnyZone) {
  add(1, "one");
  JsonWatch watch({"Lan"}, "export TZ=EAST-5:30; ");
  rename("two");
  const std::string line = watch.raw_line(kSoonMs).value_or("nothing");
  const size_t at = line.find("\"time\":\"");
  ASSERT_NE(at, std::string::npos) << line;
  tm told = {};
  ASSERT_NE(strptime(line.c_str() + at + 8, "%Y-%m-%dT%H:%M:%S", &told), nullptr) << line;
  EXPECT_NEAR(static_cast<double>(timegm(&told)), static_cast<double>(time(nullptr)), 60) << line;
}

/* A value between two looks is not known. */
TEST_F(WatchTest, Json_ARecordThatMayHaveChangedMoreOften_IsSaidToBeSo) {
  add(1, "one");
  JsonWatch watch({"Lan"});
  kill(watch.program().pid(), SIGSTOP);
  rename("two");
  rename("three");
  kill(watch.program().pid(), SIGCONT);
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"one\",\"three\"]",
                                    "\"seen\":\"lock\",\"closes\":2"));
  rename("four");
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"three\",\"four\"]"));
  /* Changed and back: what still stands is the same. */
  kill(watch.program().pid(), SIGSTOP);
  rename("five");
  rename("four");
  kill(watch.program().pid(), SIGCONT);
  EXPECT_EQ(watch.rest(200), "nothing");
}

TEST_F(WatchTest, Json_InitAndRead_AreOneObjectEach) {
  for (int n = 1; n <= 32; ++n) add(n, "saved" + std::to_string(n));
  capture([&] { SC_Save_System_Lan_Config2Flash(lan); });
  DelAllDhcpStaticItem(lan);
  JsonWatch watch({"Lan"});
  capture([&] { EXPECT_EQ(SC_Init_System_Lan_Config(1), 0); });
  const double begun = now_ms();
  EXPECT_EQ(watch.rest(), "\"area\":\"Lan\",\"what\":\"load\",\"seen\":\"lock\"");
  EXPECT_LT(now_ms() - begun, 700) << "the end of Read is seen";
  rename("live");
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"saved1\",\"live\"]"));
  capture([&] { SC_Read_System_Lan_Config(lan); });
  EXPECT_EQ(watch.rest(), "\"area\":\"Lan\",\"what\":\"load\",\"seen\":\"image\"");
  /* Read again: nothing differs. A save writes an image, too. */
  capture([&] { SC_Read_System_Lan_Config(lan); });
  EXPECT_EQ(watch.rest(1000), "nothing");
  rename("live");
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"saved1\",\"live\"]"));
  capture([&] { SC_Save_System_Lan_Config2Flash(lan); });
  EXPECT_EQ(watch.rest(200), "nothing");
}

/* Beside the image that a Read removes. */
TEST_F(WatchTest, Json_AnotherFileThatIsRemoved_IsNoRead) {
  for (int n = 1; n <= 3; ++n) add(n, "n");
  JsonWatch watch({"Lan"});
  kill(watch.program().pid(), SIGSTOP);
  for (const char* name : {"config_lan.cfg.old", "config_lan", "xconfig_lan.cfg"}) {
    const std::string path = std::string("/var/systemconfig/") + name;
    write_file(path, "x");
    unlink(path.c_str());
  }
  lan->lan_binds[1].bind_flag = 77;
  rename("one");
  kill(watch.program().pid(), SIGCONT);
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"n\",\"one\"]"));
  EXPECT_EQ(watch.rest(), bind_line(2, "change", "\"flag\":[2,77]"));
}

TEST_F(WatchTest, Json_ALockFileThatIsMadeAnew_IsFollowed) {
  add(1, "one");
  JsonWatch watch({"Lan"});
  unlink(kLanLock);
  capture([&] { EXPECT_EQ(SC_Init_System_Lan_Config(1), 0); });
  EXPECT_EQ(watch.rest(), "\"area\":\"Lan\",\"what\":\"load\",\"seen\":\"lock\"");
  pause_ms(1100);
  add(2, "two");
  const Object added = watch.object();
  EXPECT_NE(added.rest.find("\"what\":\"add\""), std::string::npos) << added.rest;
  if (watch.knows_authors()) EXPECT_EQ(added.pids(), (std::set<int>{getpid()}));
}

TEST_F(WatchTest, Json_AnAreaThatIsRemovedAndMadeAnew_IsWatchedOn) {
  add(1, "one");
  JsonWatch watch({"Lan"});
  ASSERT_EQ(SC_Uninit_System_Lan_Config(), 0);
  EXPECT_EQ(watch.rest(kSlowMs), "\"area\":\"Lan\",\"what\":\"delete\",\"seen\":\"look\"");
  lan = started<LanBlock>("Lan");
  EXPECT_EQ(watch.rest(kSlowMs), "\"area\":\"Lan\",\"what\":\"load\",\"seen\":\"look\"");
  pause_ms(1100);
  add(2, "two");
  EXPECT_NE(watch.rest().find("\"table\":\"lan_binds\",\"id\":1,\"what\":\"add\""),
            std::string::npos);
}

TEST_F(WatchTest, Json_AnAreaThatIsMadeLater_IsToldOf) {
  ASSERT_EQ(SC_Uninit_System_Lan_Config(), 0);
  JsonWatch watch({}); /* there is no area at all */
  lan = started<LanBlock>("Lan");
  EXPECT_EQ(watch.rest(kSlowMs), "\"area\":\"Lan\",\"what\":\"load\",\"seen\":\"look\"");
  pause_ms(1100);
  rename("one");
  add(1, "two");
  EXPECT_NE(watch.rest().find("\"what\":\"add\""), std::string::npos);
}

/* ---- what does not keep up ---- */

/* The state as it is sent anew: from the area to the last record of it. */
std::string state_of_lan(JsonWatch& watch) {
  EXPECT_EQ(watch.rest(), "\"area\":\"Lan\",\"what\":\"load\",\"seen\":\"anew\"");
  std::string said = watch.rest(), all;
  while (said.find("\"seen\":\"anew\"") != std::string::npos) {
    all += said + "\n";
    said = watch.rest(200);
  }
  EXPECT_EQ(said, "nothing");
  return all;
}

TEST_F(WatchTest, Json_AfterMoreEventsThanTheKernelQueues_TheLossIsSaidAndTheStateFollows) {
  add(1, "n");
  add(2, "same");
  JsonWatch watch({"Lan"});
  const std::string most = read_file("/proc/sys/fs/inotify/max_queued_events");
  kill(watch.program().pid(), SIGSTOP);
  for (int n = 0; n < atoi(most.c_str()) / 2 + 100; ++n) rename("n" + std::to_string(n % 100));
  rename("last");
  kill(watch.program().pid(), SIGCONT);
  Object object = watch.object();
  EXPECT_NE(object.rest.find("\"name\":[\"n\",\"last\"]"), std::string::npos) << object.rest;
  EXPECT_EQ(watch.rest(), "\"what\":\"lost\",\"count\":1,\"seen\":\"queue\"");
  const std::string state = state_of_lan(watch);
  EXPECT_NE(state.find("\"id\":1,\"what\":\"add\""), std::string::npos) << state;
  EXPECT_NE(state.find("\"name\":[null,\"last\"]"), std::string::npos) << state;
  EXPECT_NE(state.find("\"name\":[null,\"same\"]"), std::string::npos) << state;
}

/* More changes than the pipe has room for, which nobody reads. The names of lan_binds/1 begin so and end with
 * the number of the change. */
const std::string kLong(190, 'x');
void change_without_reader(const JsonWatch& watch,
                           const std::function<void(const std::string&)>& rename) {
  fcntl(watch.pipe(), F_SETPIPE_SZ, 4096);
  for (int n = 0; n < 150; ++n) {
    rename(kLong + std::to_string(n));
    pause_ms(5);
  }
}

TEST_F(WatchTest, Json_ForAReaderThatStops_LinesAreDroppedAndCounted_AndTheStateFollows) {
  add(1, "n");
  JsonWatch watch({"Lan"});
  change_without_reader(watch, [&](const std::string& name) { rename(name); });
  /* It waits for nobody: it still looks, in no more memory, and a signal ends it. */
  for (off_t byte = 0; byte < 70; ++byte) EXPECT_FALSE(is_locked(kLanLock, byte)) << byte;
  long seq = 0;
  Object object = watch.object();
  for (; object.rest.find("\"lost\"") == std::string::npos; object = watch.object()) {
    ASSERT_NE(object.rest, "nothing");
    EXPECT_EQ(object.seq, ++seq);
  }
  const long lost = atol(object.number_behind("count").c_str());
  EXPECT_EQ(object.rest,
            "\"what\":\"lost\",\"count\":" + std::to_string(lost) + ",\"seen\":\"reader\"");
  EXPECT_GT(lost, 10);
  EXPECT_EQ(object.seq, seq + lost + 1);
  EXPECT_LT(seq, 120);
  const std::string state = state_of_lan(watch);
  EXPECT_NE(state.find("\"name\":[null,\"" + kLong + "149\"]"), std::string::npos) << state;
  rename("on");
  EXPECT_EQ(watch.rest(), bind_line(1, "change", "\"name\":[\"" + kLong + "149\",\"on\"]"));

  for (int n = 0; n < 100; ++n) {
    rename(kLong + std::to_string(n));
    pause_ms(5);
  }
  kill(watch.program().pid(), SIGTERM);
  for (int ms = 0; ms < kSoonMs && !watch.program().ended(); ++ms) pause_ms(1);
  EXPECT_TRUE(watch.program().ended());
}

/* A pipe that has room for a part of what waits. */
TEST_F(WatchTest, Json_ForAReaderThatReadsALittle_ItWaitsNoLonger_AndTellsTheLossFirst) {
  add(1, "n");
  JsonWatch watch({"Lan"});
  change_without_reader(watch, [&](const std::string& name) { rename(name); });
  long seq = watch.object().seq; /* reads a page */
  EXPECT_EQ(seq, 1);
  pause_ms(100);
  /* -1 where the kernel does not count. */
  const auto bytes_read = [&] {
    std::ifstream io("/proc/" + std::to_string(watch.program().pid()) + "/io");
    std::string word;
    long count = -1;
    io >> word >> count;
    return count;
  };
  const long before = bytes_read();
  rename("again");
  pause_ms(100);
  if (before >= 0) EXPECT_GT(bytes_read(), before) << "it does not look";
  Object object = watch.object();
  for (; object.rest.find("\"lost\"") == std::string::npos; object = watch.object()) {
    ASSERT_NE(object.rest, "nothing");
    EXPECT_EQ(object.seq, ++seq) << object.rest;
  }
  const std::string state = state_of_lan(watch);
  EXPECT_NE(state.find("\"name\":[null,\"again\"]"), std::string::npos) << state;
}

/* A watch over ssh that stays on a router where nothing changes. */
TEST_F(WatchTest, Json_WhenItsReaderIsGone_EndsWithoutAChange) {
  add(1, "one");
  Words words = {"sh", "-c", "\"$@\" | head -n 1", "sh"};
  for (const std::string& word : scctl({"watch", "--json"})) words.push_back(word);
  Program watch(words);
  while (watch.err().find("watching") == std::string::npos) pause_ms(1);
  rename("first");
  for (int ms = 0; ms < kSoonMs && !watch.ended(); ++ms) pause_ms(1);
  EXPECT_TRUE(watch.ended());
}

TEST_F(WatchTest, Json_ToAFullDisk_FailsAndSaysWhy) {
  add(1, "one");
  Words words = {"sh", "-c", "exec \"$@\" >/dev/full", "sh"};
  for (const std::string& word : scctl({"watch", "--json"})) words.push_back(word);
  Program watch(words);
  while (watch.err().find("watching") == std::string::npos) pause_ms(1);
  rename("lost");
  const Outcome outcome = watch.wait();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(outcome.err.ends_with("scctl: standard output: No space left on device\n"))
      << outcome;
}

/* ---- what it costs ---- */

TEST_F(WatchTest, Json_AChange_IsToldAtOnceBesideADaemon) {
  add(1, "n");
  for (const char* name : {"ManageApList", "Clients", "Misc", "Qos"}) started<LanBlock>(name);
  JsonWatch watch({});
  expect_at_once(watch.program().pid(), [&](const std::string& name) {
    return watch.rest().find(",\"" + name + "\"") != std::string::npos;
  });
}

long sleeps_of_all(pid_t pid) {
  long all = 0;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::ifstream status(entry.path() / "status");
    long parent = 0, own = 0, sleeps = 0;
    for (std::string line; std::getline(status, line);) {
      sscanf(line.c_str(), "Pid: %ld", &own);
      sscanf(line.c_str(), "PPid: %ld", &parent);
      sscanf(line.c_str(), "voluntary_ctxt_switches: %ld", &sleeps);
    }
    if (own == pid || parent == pid) all += sleeps;
  }
  return all;
}

TEST_F(WatchTest, Json_IdleItWakesEachFiveSeconds_AndSeesWhatNoLockFileTellsOf) {
  add(1, "one");
  JsonWatch watch({"Lan"});
  pause_ms(100);
  const long sleeps = sleeps_of_all(watch.program().pid());
  const double begun = now_ms();
  pause_ms(11'000);
  const long woken = sleeps_of_all(watch.program().pid()) - sleeps;
  printf("woken in %.1f s without a change: %ld times\n", (now_ms() - begun) / 1000, woken);
  EXPECT_GE(woken, 1);
  EXPECT_LE(woken, 3);
  lan->lan_binds[0].bind_flag = 9;
  const Object object = watch.object(kSlowMs);
  EXPECT_EQ(object.rest, bind_line(1, "change", "\"flag\":[1,9]", "\"seen\":\"look\""));
  EXPECT_EQ(object.author, "");
}

}  // namespace
}  // namespace sc_test
