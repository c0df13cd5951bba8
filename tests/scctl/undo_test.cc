/* The log of scctl's edits, and what undo takes back. */
#include <fcntl.h>
#include <sys/file.h>

#include <sysconfig/lan.h>

#include <algorithm>
#include <memory>
#include <set>
#include <sstream>

#include "scctl/tries.h"

namespace sc_test {
namespace {

constexpr char kLogFile[] = "/var/systemconfig/scctl/log";
constexpr size_t kMostLog = 64 * 1024;

class UndoTest : public TryTest {
 protected:
  const char* name_of(int position) {
    return block_as<LanBlock>("Lan")->lan_binds[position].bind_name;
  }
  /* The commands in the log, newest first. */
  std::vector<std::string> commands() {
    std::vector<std::string> all;
    std::istringstream lines(done({"log"}));
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("  ")) continue;
      size_t at = 0;
      for (int n = 0; n < 3; ++n) at = line.find("  ", at) + 2; /* number, time and user */
      all.push_back(line.substr(at));
    }
    return all;
  }
};

TEST_F(UndoTest, TheLog_TellsEveryEditNewestFirst) {
  EXPECT_EQ(done({"log"}), "");
  EXPECT_EQ(done({"log", "--json"}), "[]\n");
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:02", "name=two words"});
  done({"set", "lan_binds/2", "name=other"});
  done({"del", "lan_binds/2"});
  done({"list", "lan_binds"});
  run_scctl({"set", "lan_binds/2", "name=refused"});
  EXPECT_EQ(commands(),
            (std::vector<std::string>{"del lan_binds/2", "set lan_binds/2 'name=other'",
                                      "add lan_binds/2 'mac=00:11:22:33:44:02' 'name=two words'"}));
  const std::string text = done({"log"});
  EXPECT_EQ(text.find("3  "), 0u);
  EXPECT_NE(text.find("\n  lan_binds/2.name: 'two words' -> other\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\n  lan_binds/2: deleted mac=00:11:22:33:44:02 name=other\n"),
            std::string::npos)
      << text;
  const std::string json = done({"log", "--json"});
  for (const char* what : {"add", "change", "delete"}) {
    const std::string text_of_one = std::string("\"what\": \"") + what + "\"";
    EXPECT_NE(json.find(text_of_one), std::string::npos) << what << "\n" << json;
  }
  EXPECT_NE(json.find("{\"entry\": 2, \"time\": \"20"), std::string::npos) << json;
  EXPECT_NE(
      json.find("\"command\": \"set lan_binds/2 'name=other'\", \"undoable\": true, \"changes\": "
                "[{\"table\": \"lan_binds\", \"id\": 2, \"what\": \"change\", \"fields\": "
                "{\"name\": [\"two words\", \"other\"]}}]}"),
      std::string::npos)
      << json;
}

TEST_F(UndoTest, Undo_TakesBackTheLastEditAndIsOneItself) {
  make_store();
  const Images before = live();
  done({"del", "ip_groups/2", "lan_binds/2"});
  const Images after = live();
  const std::string said = done({"undo"});
  EXPECT_EQ(said.find("taken back: 4 of 4 records of "), 0u) << said;
  expect_live(before);
  EXPECT_EQ(commands()[0], "undo");
  done({"undo"}); /* takes the undo back */
  expect_live(after);
  done({"undo", "2"});
  expect_live(after);
}

TEST_F(UndoTest, UndoOfSeveral_GoesBackStepByStepAndAnnounces) {
  make_store();
  const Images before = live();
  done({"set", "lan_binds/1", "name=a"});
  done({"set", "lan_binds/1", "name=b", "ip=10.7.7.7"});
  done({"clear", "clients"});
  Listener listener;
  done({"undo", "3"});
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{18, 1, 1}));
  expect_live(before);
}

TEST_F(UndoTest, AnAdditionThatIsUndone_IsAnnounced) {
  for (const char* name : {"lan_binds", "aps"}) {
    const EditedTable& table = edited_table(name);
    done({"add", record_name(table, 1), table.key});
    Listener listener;
    done({"undo"});
    EXPECT_EQ(listener.codes(), one_of(table.area)) << name;
  }
}

TEST_F(UndoTest, WhatAnotherProgramChangedSince_StaysAndIsListed) {
  make_store();
  done({"set", "lan_binds/1", "name=mine", "flag=1"});
  memcpy(block_as<LanBlock>("Lan")->lan_binds[0].bind_name, "theirs", 7);
  const Outcome outcome = run_scctl({"undo"});
  EXPECT_EQ(outcome.status, 1) << outcome;
  EXPECT_NE(outcome.out.find("lan_binds/1.name: it was changed since; it stays\n"),
            std::string::npos)
      << outcome;
  EXPECT_STREQ(name_of(0), "theirs");
  EXPECT_EQ(block_as<LanBlock>("Lan")->lan_binds[0].bind_flag, 0);
}

TEST_F(UndoTest, OneOfSeveralThatDoesNotGoBackWhole_IsNoSuccess) {
  make_store();
  done({"set", "lan_binds/1", "name=a"});
  done({"set", "lan_binds/2", "name=b"});
  memcpy(block_as<LanBlock>("Lan")->lan_binds[1].bind_name, "theirs", 7);
  EXPECT_EQ(run_scctl({"undo", "2"}).status, 1);
  EXPECT_STREQ(name_of(0), "one");
  EXPECT_STREQ(name_of(1), "theirs");
}

TEST_F(UndoTest, WhatATriedProgramEdits_IsLoggedOnceAndWhenItIsConfirmed) {
  make_store();
  const std::vector<std::string> before = commands();
  const Words tried = joined(Words{"try", "--"}, scctl({"set", "lan_binds/1", "name=tried"}));
  run_scctl(tried);
  EXPECT_EQ(commands(), before);
  done({"revert"});
  EXPECT_EQ(commands(), before);
  run_scctl(tried);
  done({"confirm"});
  const std::vector<std::string> after = commands();
  ASSERT_EQ(after.size(), before.size() + 1);
  EXPECT_TRUE(after[0].starts_with("try -- ")) << after[0];
}

TEST_F(UndoTest, WhatCannotBeUndone_IsRefusedAndNothingIsChanged) {
  EXPECT_EQ(refusal({"undo"}), "scctl: no edit is logged\n");
  EXPECT_EQ(refusal({"undo", "0"}, 2), "scctl: expected a number of edits above 0, not '0'\n");
  EXPECT_EQ(refusal({"undo", "x"}, 2), "scctl: expected a number of edits above 0, not 'x'\n");
  EXPECT_EQ(refusal({"undo", "1x"}, 2), "scctl: expected a number of edits above 0, not '1x'\n");
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01", "name=one"});
  EXPECT_EQ(refusal({"undo", "2"}), "scctl: only 1 edit is logged\n");
  EXPECT_EQ(refusal({"undo", "99999999999999999999"}), "scctl: only 1 edit is logged\n");
  done({"save", "Lan"});
  done({"restore", "Lan"});
  done({"set", "lan_binds/1", "name=two"});
  const Images before = live();
  const std::string says = refusal({"undo", "2"});
  EXPECT_NE(says.find(" cannot be undone: restore Lan\n"), std::string::npos) << says;
  expect_live(before);
  done({"undo"});
  done({"init", "Lan"});
  EXPECT_NE(refusal({"undo"}).find(" cannot be undone: init Lan\n"), std::string::npos);
}

TEST_F(UndoTest, AnEditOfAFile_IsNotLogged) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01", "name=one"});
  done({"save", "Lan"});
  const std::string log = read_file(kLogFile);
  const std::string file = "/var/dataconfig/config_lan.bin";
  done({"set", "lan_binds/1", "name=filed", "--in-place", "--archive", file});
  EXPECT_EQ(done({"get", "lan_binds/1.name", "--archive", file}), "filed\n");
  EXPECT_TRUE(read_file(kLogFile) == log);
  EXPECT_STREQ(name_of(0), "one");
}

TEST_F(UndoTest, TheLog_TakesSixtyFourKilobytesAndTheOldestEntriesGo) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01", "name=first"});
  std::string commands_of_one;
  const std::string big(180, 'x');
  for (int n = 0; n < 60; ++n) {
    commands_of_one += "set lan_binds/1 name=" + big + std::to_string(n) + "\n";
  }
  for (int n = 0; n < 5; ++n) {
    done({"batch", "-"}, commands_of_one);
    EXPECT_LE(read_file(kLogFile).size(), kMostLog);
  }
  const std::vector<std::string> left = commands();
  EXPECT_GE(left.size(), 1u);
  EXPECT_LT(left.size(), 5u);
  for (const std::string& command : left) EXPECT_EQ(command, "batch -");
  const std::string text = done({"log"});
  EXPECT_EQ(text.find("6  "), 0u) << text.substr(0, 80); /* numbers go on */
  done({"undo"});
  EXPECT_EQ(std::string(name_of(0)), big + "59");
}

TEST_F(UndoTest, AnEditThatIsTooBigForTheLog_IsMadeAndCannotBeUndone) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01"});
  std::string commands_of_one;
  for (int n = 0; n < 30; ++n) {
    commands_of_one += "add aps/" + std::to_string(n + 1) +
                       " ap_mac=02:00:00:00:00:" + std::to_string(n + 10) +
                       " opaque_242=" + std::string(212, 'a') +
                       " opaque_399=" + std::string(11389 * 2, 'b') + "\n";
  }
  done({"batch", "-"}, commands_of_one);
  EXPECT_LE(read_file(kLogFile).size(), kMostLog);
  EXPECT_EQ(commands(), (std::vector<std::string>{"batch -  (cannot be undone)",
                                                  "add lan_binds/1 'mac=00:11:22:33:44:01'"}));
  const Images before = live();
  EXPECT_NE(refusal({"undo"}).find(" cannot be undone: batch -\n"), std::string::npos);
  expect_live(before);
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:02", "ip=10.0.0.2"});
  EXPECT_EQ(commands().size(), 3u);
  done({"undo"});
  expect_live(before);
}

TEST_F(UndoTest, LoggersAtTheSameTime_LoseNoEntryAndMixNone) {
  constexpr int kLoggers = 6, kEdits = 8;
  std::string commands_of_all;
  for (int n = 1; n <= kLoggers; ++n) {
    const std::string number = std::to_string(n);
    commands_of_all += "add lan_binds/" + number + " mac=00:11:22:33:44:0" + number +
                       " ip=10.0.0." + number + " name=start\n";
  }
  done({"batch", "-"}, commands_of_all);
  const Images before = live();
  std::vector<std::unique_ptr<Child>> loggers;
  for (int n = 1; n <= kLoggers; ++n) {
    loggers.push_back(std::make_unique<Child>([n] {
      for (int edit = 0; edit < kEdits; ++edit) {
        const Words words = {"set", "lan_binds/" + std::to_string(n),
                             "name=" + std::to_string(n) + "_" + std::to_string(edit)};
        if (run(scctl(words)).status != 0) _exit(1);
      }
    }));
  }
  for (auto& logger : loggers) EXPECT_EQ(logger->wait(), 0);
  const std::vector<std::string> all = commands();
  EXPECT_EQ(all.size(), size_t{kLoggers * kEdits + 1});
  EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), all.size());
  done({"undo", std::to_string(kLoggers * kEdits)});
  expect_live(before);
}

TEST_F(UndoTest, WhileAnotherProgramWritesTheLog_AnEditWaits) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01"});
  const int writer = open("/var/systemconfig/scctl", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(writer, LOCK_EX), 0);
  Program edit(scctl({"set", "lan_binds/1", "name=late"}));
  pause_ms(300);
  EXPECT_FALSE(edit.ended());
  EXPECT_EQ(commands().size(), 1u);
  close(writer);
  EXPECT_EQ(edit.wait().status, 0);
  EXPECT_EQ(commands().size(), 2u);
}

/* A batch whose commands come one by one, from a terminal or another program. */
TEST_F(UndoTest, WhileABatchWaitsForItsNextCommand_OtherEditsAreLogged) {
  make_store();
  const size_t before = commands().size();
  const Program batch(joined({"sh", "-c", "(echo set lan_binds/1 name=a; sleep 5) | \"$@\"", "sh"},
                             scctl({"batch", "-"})));
  ASSERT_TRUE(becomes([&] { return name_of(0) == std::string("a"); }));
  done({"set", "lan_binds/2", "name=b"});
  const std::vector<std::string> all = commands();
  ASSERT_EQ(all.size(), before + 2);
  EXPECT_EQ(all[0], "set lan_binds/2 'name=b'");
}

/* A kill between the log and the record: the log has a change that was never made. */
TEST_F(UndoTest, AChangeThatWasLoggedAndNotMade_IsNotUndone) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01", "name=one"});
  const Images before = live();
  done({"set", "lan_binds/1", "name=two"});
  for (const auto& [name, image] : before) memcpy(block(name), image.data(), image.size());
  run_scctl({"undo"});
  expect_live(before);
  EXPECT_STREQ(name_of(0), "one");
}

TEST_F(UndoTest, ADeletedRecordWhosePlaceIsTaken_DoesNotComeBackAndDoesNotWait) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01", "name=one"});
  done({"del", "lan_binds/1"});
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:02", "name=two"});
  const Outcome outcome = run_scctl({"undo", "--entry", "2"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.out.find("lan_binds/1: it does not come back: its id is used by another "
                             "record\n"),
            std::string::npos)
      << outcome;
}

TEST_F(UndoTest, WordsThatAreNoPlainText_AreShownAsTheyAreTyped) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01", "name=a\nb\\c"});
  EXPECT_NE(done({"log"}).find("add lan_binds/1 'mac=00:11:22:33:44:01' 'name=a\\x0ab\\c'\n"),
            std::string::npos)
      << done({"log"});
  EXPECT_NE(done({"undo"}).find(" 'name=a\\x0ab\\c'\n"), std::string::npos);
}

TEST_F(UndoTest, AnEditThatCannotBeLogged_SaysSo) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01", "name=one"});
  unlink(kLogFile);
  mkdir(kLogFile, 0700);
  EXPECT_EQ(run_scctl({"set", "lan_binds/1", "name=two"}),
            (Outcome{0, "",
                     std::string("scctl: ") + kLogFile +
                         ": Is a directory; undo will not know this edit\n"}));
  rmdir(kLogFile);
}

TEST_F(UndoTest, AChunkThatAKillCutOff_IsIgnoredAndOverwritten) {
  done({"add", "lan_binds/1", "mac=00:11:22:33:44:01", "name=one"});
  done({"set", "lan_binds/1", "name=two"});
  const std::string whole = read_file(kLogFile);
  const std::vector<std::string> known = commands();
  for (const size_t cut : {1u, 19u, 20u, 21u}) {
    write_file(kLogFile, whole + whole.substr(0, cut));
    EXPECT_EQ(commands(), known) << cut;
    done({"set", "lan_binds/1", "name=three"});
    EXPECT_EQ(commands().size(), 3u) << cut;
    EXPECT_EQ(commands()[0], "set lan_binds/1 'name=three'");
    done({"undo"});
    EXPECT_STREQ(name_of(0), "two");
  }
}

}  // namespace
}  // namespace sc_test
