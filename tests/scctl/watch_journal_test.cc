/* The journal: what other programs change is in the log while scctl watch --journal runs. */
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include <sysconfig/ap.h>

#include "scctl/stream_case.h"

namespace sc_test {
namespace {

constexpr char kLog[] = "/var/systemconfig/scctl/log";
constexpr long kHalf = 32 * 1024;

class TraceWatchJournalTest : public WatchTest {
 protected:
  void SetUp() override {
    WatchTest::SetUp();
    std::filesystem::remove_all("/var/systemconfig/scctl");
    add(1, "one");
    add(2, "two");
  }

  static std::string done(const Words& words) {
    const Outcome outcome = run(scctl(words));
    EXPECT_EQ(outcome.status, 0) << outcome;
    return outcome.out;
  }
  /* The log without numbers, times and processes. */
  static std::string log(const Words& words) {
    Words all = {"log"};
    all.insert(all.end(), words.begin(), words.end());
    static const std::regex kHead("(^|\n)[0-9]+  [-0-9]+ [:0-9]+  ");
    static const std::regex kPid("\\[[0-9]+\\]");
    return std::regex_replace(std::regex_replace(done(all), kHead, "$1"), kPid, "[]");
  }
  /* The number of the newest entry with this text. */
  static std::string entry_of(const std::string& text) {
    std::istringstream lines(done({"log", "--all"}));
    std::string number;
    for (std::string line; std::getline(lines, line);) {
      if (line[0] != ' ') number = line.substr(0, line.find(' '));
      if (line.find(text) != std::string::npos) return number;
    }
    return "none";
  }
  static long log_size() {
    struct stat status = {};
    stat(kLog, &status);
    return status.st_size;
  }
  std::string name(int position) { return text_of(lan->lan_binds[position].bind_name); }
};

TEST_F(TraceWatchJournalTest, OtherProgramsChanges_AreInTheWholeLog_ScctlsOnlyOnce) {
  JsonWatch watch({"--journal"});
  rename("by a program");
  watch.object();
  done({"set", "lan_binds/2", "name=by scctl"});
  watch.object();
  del("1");
  watch.object();
  add(7, "added");
  watch.object();
  const std::string self = "root  watch_journal_t[]\n";
  EXPECT_EQ(log({}),
            "root  set lan_binds/2 'name=by scctl'\n  lan_binds/2.name: two -> 'by scctl'\n");
  /* Deleted and added within two seconds, by one program: a change. */
  EXPECT_EQ(log({"--all"}),
            "root  set lan_binds/2 'name=by scctl'\n"
            "  lan_binds/2.name: two -> 'by scctl'\n" +
                self +
                "  lan_binds/1.mac: 00:11:22:33:44:01 -> 00:11:22:33:44:07\n"
                "  lan_binds/1.ip: 192.168.1.1 -> 192.168.1.7\n"
                "  lan_binds/1.flag: 1 -> 7\n"
                "  lan_binds/1.name: one -> added\n");
  const std::string json = done({"log", "--all", "--json"});
  EXPECT_NE(json.find("\"pid\": " + std::to_string(getpid()) + ", \"program\": \"watch_journal_t["),
            std::string::npos)
      << json;
}

/* It is gone before it is asked for, and no program was run in it: whose it was is not known. */
TEST_F(TraceWatchJournalTest, AnAuthorOfUnknownUser_IsNoUsers) {
  JsonWatch watch({"--journal"});
  const std::string pid = std::to_string(watch.program().pid());
  const pid_t child = atoi(read_file("/proc/" + pid + "/task/" + pid + "/children").c_str());
  ASSERT_GT(child, 0);
  kill(watch.program().pid(), SIGSTOP);
  kill(child, SIGSTOP);
  Child writer([&] { rename("by nobody"); });
  writer.wait();
  kill(child, SIGCONT);
  pause_ms(100);
  kill(watch.program().pid(), SIGCONT);
  EXPECT_EQ(watch.object().author, "{\"pid\":" + std::to_string(writer.pid()) + "}");
  const std::string text = log({"--all"});
  EXPECT_EQ(text.find("root"), std::string::npos) << text;
  EXPECT_NE(text.find("one -> 'by nobody'"), std::string::npos) << text;
  EXPECT_EQ(done({"log", "--all", "--json"}).find("\"uid\""), std::string::npos);
}

TEST_F(TraceWatchJournalTest, AChangeWithoutAnAuthor_IsInTheWholeLog) {
  JsonWatch watch({"Lan", "--journal"});
  lan->lan_binds[1].bind_flag += 1;
  EXPECT_EQ(watch.object(kSlowMs).author, "");
  const std::string text = log({"--all"});
  EXPECT_NE(text.find("unknown\n  lan_binds/2.flag: 2 -> 3\n"), std::string::npos) << text;
}

/* Also when they are of a record that scctl has just edited. */
TEST_F(TraceWatchJournalTest, AnotherFieldThanScctlsEdit_IsTheOthers) {
  JsonWatch watch({"--journal"});
  EXPECT_EQ(
      run(scctl({"batch"}), "set lan_binds/1 name=mine\nset lan_binds/1 ip=10.0.0.1\n").status, 0);
  watch.object();
  const auto flag_becomes = [&](int value) {
    lan->lan_binds[0].bind_flag = value;
    close(open(kLanLock, O_RDWR | O_CLOEXEC));
    EXPECT_NE(watch.rest().find("\"flag\""), std::string::npos);
  };
  flag_becomes(50);
  const std::string all = log({"--all"});
  /* The batch's own process may be a candidate, too. */
  static const std::regex kTheOthers(
      "(root|-)  ([^\n]*, )?watch_journal_t\\[\\]\n  lan_binds/1\\.flag: 1 -> 50\nroot  batch\n");
  EXPECT_TRUE(std::regex_search(all, kTheOthers, std::regex_constants::match_continuous)) << all;
  /* An edit after that is scctl's, with all that it has edited before. */
  done({"set", "lan_binds/1", "name=again"});
  watch.object();
  EXPECT_EQ(log({"--all"}).find("root  set lan_binds/1 'name=again'\n  lan_binds/1.name"), 0u)
      << log({"--all"});
}

TEST_F(TraceWatchJournalTest, BytesWithoutANameBesideScctlsEdit_AreTheOthers) {
  auto* aps = started<ManageApListBlock>("ManageApList");
  ApLimitsRecord limits = {};
  limits.max_ap_count = 300;
  ASSERT_EQ(SC_Get_Ap_Info_Blank(aps, &limits), 0);
  JsonWatch watch({"--journal"});
  done({"set", "aps/1", "group_id=5"});
  watch.object();
  aps->aps[0].opaque_399[11000] = 7;
  Child([] { close(open(lock_file("ManageApList").c_str(), O_WRONLY | O_CLOEXEC)); }).wait();
  EXPECT_NE(watch.rest().find("\"unnamed\":true"), std::string::npos);
  EXPECT_NE(log({"--all"}).find("(cannot be undone)"), std::string::npos) << log({"--all"});
}

TEST_F(TraceWatchJournalTest, UndoEntry_TakesBackThatOne_AndUndoMeansScctlsOwn) {
  JsonWatch watch({"--journal"});
  done({"set", "lan_binds/1", "name=mine"});
  watch.object();
  Child([&] { rename("theirs", 1); }).wait();
  watch.object();
  lan->lan_settings[5] = 1;
  Child([] { close(open(kLanLock, O_WRONLY | O_CLOEXEC)); }).wait();
  watch.object();
  const std::string theirs = entry_of("theirs");
  EXPECT_EQ(run(scctl({"undo", "--entry", entry_of("cannot be undone")})).status, 1);
  EXPECT_EQ(run(scctl({"undo", "--entry", "99"})).err, "scctl: entry 99 is not in the log\n");
  EXPECT_EQ(run(scctl({"undo", "--entry", theirs, "1"})).status, 2);
  done({"undo"});
  EXPECT_EQ(name(0), "one");
  EXPECT_EQ(name(1), "theirs");
  done({"undo", "--entry", theirs});
  EXPECT_EQ(name(1), "two");
  EXPECT_EQ(name(0), "one");
}

TEST_F(TraceWatchJournalTest, DeletedAndAdded_GoBack) {
  JsonWatch watch({"--journal"});
  del("1");
  watch.object();
  const std::string deleted = entry_of("lan_binds/1");
  done({"undo", "--entry", deleted});
  watch.object();
  EXPECT_EQ(name(0), "one");
  EXPECT_EQ(lan->lan_binds[0].slot_id, 1);
  add(9, "nine");
  watch.object();
  done({"undo", "--entry", entry_of("lan_binds/3: added")});
  EXPECT_EQ(lan->lan_binds[2].slot_id, -1);
}

/* The watch sees the try's change before the try is in the log. */
TEST_F(TraceWatchJournalTest, ATry_IsLoggedOnceWhenItIsConfirmedAndNeverWhenItIsTakenBack) {
  JsonWatch watch({"--journal"});
  const auto try_name = [&](const std::string& name) {
    const std::string line = "set lan_binds/1 name=" + name;
    EXPECT_EQ(run(scctl({"try", "batch", "-", "--note", "for " + name}), line).status, 0);
    const std::string rest = watch.rest();
    EXPECT_NE(rest.find(",\"" + name + "\"]}"), std::string::npos) << rest;
    EXPECT_NE(rest.find(",\"note\":\"for " + name + "\""), std::string::npos) << rest;
    EXPECT_NE(done({"try", "--status", "--json"}).find("\"note\": \"for " + name + "\""),
              std::string::npos);
  };
  try_name("back");
  done({"revert"});
  EXPECT_NE(watch.rest().find("[\"back\",\"one\"]"), std::string::npos);
  EXPECT_EQ(log({"--all"}), "");
  try_name("kept");
  done({"confirm"});
  EXPECT_EQ(log({"--all"}),
            "root  try batch - --note 'for kept'\n  lan_binds/1.name: one -> kept\n");
  EXPECT_NE(done({"log", "--json"}).find("\"note\": \"for kept\""), std::string::npos);
}

TEST_F(TraceWatchJournalTest, OneJournalAtATime_AndTheSecondSaysWho) {
  JsonWatch watch({"--journal"});
  Words words = {"timeout", "20"}; /* a second one would go on for ever */
  for (const std::string& word : scctl({"watch", "--journal"})) words.push_back(word);
  const Outcome second = run(words);
  EXPECT_EQ(second.status, 3);
  EXPECT_NE(second.err.find(std::to_string(watch.program().pid())), std::string::npos) << second;
}

/* A clock of the test's own. */
class TraceWatchJournalLaterTest : public TraceWatchJournalTest {
 protected:
  void SetUp() override {
    TraceWatchJournalTest::SetUp();
    const int file = open("/var/later", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_EQ(ftruncate(file, sizeof *later), 0);
    later = static_cast<int64_t*>(
        mmap(nullptr, sizeof *later, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    close(file);
    ASSERT_NE(later, MAP_FAILED);
  }

  /* A change, seen and journalled. */
  void change(JsonWatch& watch, const std::string& to) {
    rename(to);
    for (std::string said; said.find(to) == std::string::npos;) {
      said = watch.rest();
      ASSERT_NE(said, "nothing");
    }
  }

  static constexpr char kLater[] = "export LD_PRELOAD=" SC_TEST_LATER "; ";
  int64_t* later = nullptr;
};

TEST_F(TraceWatchJournalLaterTest, WithinTwoSeconds_ARecordAndAProgramAreOneEntry) {
  JsonWatch watch({"--journal"}, kLater);
  for (int n = 0; n < 20; ++n) change(watch, "a" + std::to_string(n));
  const long size = log_size();
  for (int n = 0; n < 20; ++n) change(watch, "b" + std::to_string(n));
  EXPECT_EQ(log_size(), size);
  EXPECT_EQ(log({"--all"}), "root  watch_journal_t[]\n  lan_binds/1.name: one -> b19\n");
  *later += 3;
  change(watch, "later");
  EXPECT_EQ(log({"--all"}),
            "root  watch_journal_t[]\n  lan_binds/1.name: b19 -> later\n"
            "root  watch_journal_t[]\n  lan_binds/1.name: one -> b19\n");
  /* Another field of the record, and another program. */
  lan->lan_binds[0].bind_flag = 50;
  close(open(kLanLock, O_RDWR | O_CLOEXEC));
  EXPECT_NE(watch.rest().find("\"flag\":[1,50]"), std::string::npos);
  EXPECT_EQ(run({SC_TEST_WRITER, "0"}).status, 0);
  watch.object();
  const std::string all = log({"--all"});
  EXPECT_EQ(all.find("root  writer[]\n  lan_binds/1.name: later -> "), 0u) << all;
  EXPECT_NE(all.find("  lan_binds/1.flag: 1 -> 50\n  lan_binds/1.name: b19 -> later\n"),
            std::string::npos)
      << all;
}

/* SC_TEST_CHANGES=10080: a week. */
TEST_F(TraceWatchJournalLaterTest, AWriterEachMinute_LeavesMondaysEditInTheJournal) {
  const char* text = getenv("SC_TEST_CHANGES");
  const int minutes = text != nullptr ? atoi(text) : 400;
  JsonWatch watch({"--journal"}, kLater);
  done({"set", "lan_binds/2", "name=engineer", "--note", "monday"});
  watch.object();
  const std::string monday = entry_of("engineer");
  long most = 0;
  for (int n = 0; n < minutes; ++n) {
    *later += 60;
    change(watch, "minute" + std::to_string(n));
    most = std::max(most, log_size());
  }
  std::istringstream lines(log({"--all"}));
  int entries = 0;
  for (std::string line; std::getline(lines, line);) entries += line == "root  watch_journal_t[]";
  printf("%d changes, a minute apart: %d of them in the journal, which had %ld bytes at most\n",
         minutes, entries, most);
  EXPECT_LE(most, kHalf + 1024);
  EXPECT_GT(entries, 50);
  EXPECT_LT(entries, minutes);
  EXPECT_EQ(entry_of("engineer"), monday);
  done({"undo", "--entry", monday});
  EXPECT_EQ(name(1), "two");
}

/* Own edits have the whole log while no other program is in it. */
TEST_F(TraceWatchJournalLaterTest, ScctlItself_HasNoMoreThanHalfBesideOthers) {
  std::string batch;
  for (int n = 0; n < 700; ++n) {
    batch = "set lan_binds/2 name=" + std::string(150, static_cast<char>('a' + n % 26)) + "\n";
    ASSERT_EQ(run(scctl({"batch"}), batch).status, 0);
    if (log_size() > kHalf + 8192) break;
  }
  EXPECT_GT(log_size(), kHalf);
  JsonWatch watch({"--journal"}, kLater);
  *later += 60;
  change(watch, "other");
  EXPECT_LE(log_size(), kHalf + 1024);
  EXPECT_NE(entry_of("other"), "none");
  EXPECT_NE(entry_of("batch"), "none");
  /* And it takes no more again. */
  for (int n = 0; n < 30; ++n) {
    ASSERT_EQ(run(scctl({"set", "lan_binds/2", "name=x" + std::to_string(n)})).status, 0);
  }
  EXPECT_LE(log_size(), kHalf + 1024);
  EXPECT_NE(entry_of("other"), "none");
}

}  // namespace
}  // namespace sc_test
