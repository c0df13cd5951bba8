/* edit: a record as a text in an editor. The editor is a script. */
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sysconfig/lan.h>

#include <filesystem>

#include "scctl/shell.h"

namespace sc_test {
namespace {

class EditRecordTest : public EditTest {
 protected:
  void SetUp() override {
    EditTest::SetUp();
    unsetenv("VISUAL");
    setenv("EDITOR", "/var/editor", 1);
    mkdir("/var/drafts", 0700);
    setenv("TMPDIR", "/var/drafts", 1);
    done({"add", "lan_binds/2", "mac=00:11:22:33:44:02", "ip=10.0.0.2", "name=two words"});
  }
  void TearDown() override {
    EXPECT_TRUE(std::filesystem::is_empty("/var/drafts")) << "the temporary file stayed";
    unsetenv("EDITOR");
    unsetenv("TMPDIR");
    unlink("/var/looks");
    EditTest::TearDown();
  }

  /* What the editor does at its first look, its second, ... with the file $1; then it fails. Each
   * look is kept. */
  static void looks(const std::vector<std::string>& scripts) {
    std::string text =
        "n=$(cat /var/looks 2>/dev/null || echo 1); echo $((n + 1)) >/var/looks\n"
        "cp \"$1\" /var/look$n\ncase $n in\n";
    for (size_t n = 0; n < scripts.size(); ++n) {
      text += std::to_string(n + 1) + ") " + scripts[n] + " ;;\n";
    }
    write_script("/var/editor", text + "*) exit 1 ;;\nesac\n");
  }
  static std::string look(int number) { return read_file("/var/look" + std::to_string(number)); }
  Outcome edit() { return run(scctl({"edit", "lan_binds/2"})); }
  /* Edits, which fails and keeps the file. Returns its text and removes it. */
  std::string kept(const std::string& why) {
    const Outcome outcome = edit();
    const std::string words = "scctl: " + why + "; what was typed is in ";
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.err.starts_with(words + "/var/drafts/")) << outcome;
    if (!outcome.err.starts_with(words)) return "";
    const std::string path =
        outcome.err.substr(words.size(), outcome.err.size() - words.size() - 1);
    const std::string text = read_file(path);
    unlink(path.c_str());
    return text;
  }
  const DhcpBindRecord& bind() { return block_as<LanBlock>("Lan")->lan_binds[1]; }

  const std::string kHeader_ =
      "# lan_binds/2: a field without a line keeps its value.\n"
      "# Empty the file or leave it unchanged to give up.\n";
  const std::string kLines_ = "mac=00:11:22:33:44:02\nip=10.0.0.2\nflag=0\n";
  const Outcome kGivenUp_ = {0, "lan_binds/2 is not changed\n", ""};
};

TEST_F(EditRecordTest, WhatIsTyped_IsWrittenAndAnnouncedOnceAndCanBeUndone) {
  const Image before = image("Lan");
  looks({"sed -i 's/^name=.*/name=it'\\''s # new/; /^mac/d' \"$1\""});
  Listener listener;
  EXPECT_EQ(edit(), (Outcome{0, "", ""}));
  EXPECT_EQ(look(1), kHeader_ + kLines_ + "name=two words\n");
  EXPECT_STREQ(bind().bind_name, "it's # new");
  EXPECT_STREQ(bind().bind_mac, "00:11:22:33:44:02"); /* without a line */
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
  done({"undo"});
  EXPECT_TRUE(before.matches(block("Lan")));
}

TEST_F(EditRecordTest, TheFile_IsForItsOwnerAlone) {
  umask(0);
  setenv("EDITOR", "stat -c %a", 1);
  EXPECT_EQ(edit(), (Outcome{0, "600\nlan_binds/2 is not changed\n", ""}));
  umask(022);
}

TEST_F(EditRecordTest, VisualComesBeforeEditor_AndMayHaveArguments) {
  setenv("VISUAL", "sed -i s/words/sheep/", 1);
  EXPECT_EQ(edit(), (Outcome{0, "", ""}));
  EXPECT_STREQ(bind().bind_name, "two sheep");
  setenv("VISUAL", "", 1);
  setenv("EDITOR", "sed -i s/sheep/cats/", 1);
  EXPECT_EQ(edit(), (Outcome{0, "", ""}));
  EXPECT_STREQ(bind().bind_name, "two cats");
  unsetenv("VISUAL");
}

TEST_F(EditRecordTest, AnEmptyOrUnchangedFile_GivesUp) {
  const Image before = image("Lan");
  Listener listener;
  for (const char* script : {":", ": >\"$1\"", "touch \"$1\"", "sed -i '/^#/d' \"$1\""}) {
    unlink("/var/looks");
    looks({script});
    EXPECT_EQ(edit(), kGivenUp_) << script;
  }
  EXPECT_TRUE(before.matches(block("Lan")));
  EXPECT_TRUE(listener.codes().empty());
}

TEST_F(EditRecordTest, AnEditorThatFails_ChangesNothing) {
  looks({"exit 3"});
  EXPECT_EQ(edit(), (Outcome{1, "", "scctl: the editor failed\n"}));
  EXPECT_STREQ(bind().bind_name, "two words");
}

TEST_F(EditRecordTest, WhatWasTypedBeforeTheEditorFailed_StaysInTheFile) {
  looks({"sed -i s/two/three/ \"$1\"; exit 3"});
  EXPECT_NE(kept("the editor failed").find("name=three words\n"), std::string::npos);
  EXPECT_STREQ(bind().bind_name, "two words");
  /* At the second look nothing more was typed. */
  unlink("/var/looks");
  looks({"sed -i 's/two/four/; s/^ip=.*/ip=here/' \"$1\"", "exit 3"});
  EXPECT_NE(kept("the editor failed").find("name=four words\n"), std::string::npos);
}

TEST_F(EditRecordTest, WhatWasTyped_StaysInTheFileWhenThereIsNoRoomForAnotherLook) {
  ASSERT_EQ(mount("tmpfs", "/var/drafts", "tmpfs", 0, "size=8k"), 0);
  looks(
      {"printf 'name=typed\\nip=here\\n' >\"$1\"; head -c 16384 /dev/zero >/var/drafts/full "
       "2>/dev/null; :"});
  const Outcome outcome = edit();
  EXPECT_EQ(outcome.status, 3) << outcome;
  const std::string said = ": No space left on device; what was typed is in ";
  const size_t at = outcome.err.find(said);
  std::string text;
  if (at != std::string::npos) {
    const size_t path = at + said.size();
    text = read_file(outcome.err.substr(path, outcome.err.size() - path - 1));
  }
  EXPECT_EQ(text, "name=typed\nip=here\n") << outcome;
  using Files = std::filesystem::directory_iterator;
  EXPECT_EQ(std::distance(Files("/var/drafts"), Files()), 2)
      << "that file, and what filled the disk";
  EXPECT_EQ(umount("/var/drafts"), 0);
}

TEST_F(EditRecordTest, ATextWithANulByte_IsNotWrittenInPart) {
  looks({"printf 'flag=3\\n\\000\\nname=behind\\n' >\"$1\""});
  EXPECT_EQ(kept("the text has a NUL byte"), std::string("flag=3\n\0\nname=behind\n", 21));
  EXPECT_EQ(bind().bind_flag, 0);
}

TEST_F(EditRecordTest, TheNote_IsLogged) {
  looks({"sed -i s/two/three/ \"$1\""});
  done({"edit", "lan_binds/2", "--note", "ticket 12"});
  EXPECT_NE(done({"log", "--json"}).find("\"note\": \"ticket 12\""), std::string::npos);
}

TEST_F(EditRecordTest, ErrorsAreComments_AndWhatWasTypedIsKept) {
  looks({"printf 'name=typed\\nip=here\\n# mine\\nnme=x\\nflag=1\\nflag=1' >\"$1\"",
         "sed -i 's/here/10.0.0.9/; /nme=/d; $d' \"$1\""});
  EXPECT_EQ(edit(), (Outcome{0, "", ""}));
  EXPECT_EQ(look(2),
            "name=typed\n"
            "#! scctl: lan_binds.ip: 'here' is not a valid IPv4 address, such as 192.168.1.20\n"
            "ip=here\n"
            "# mine\n"
            "#! scctl: lan_binds has no field 'nme'; the nearest is name\n"
            "nme=x\n"
            "flag=1\n"
            "#! scctl: flag stands twice\n"
            "flag=1\n");
  EXPECT_STREQ(bind().bind_name, "typed");
  EXPECT_EQ(bind().bind_ip, 0x0900000au);
}

TEST_F(EditRecordTest, CommentsOfBefore_AreNotKept) {
  const ShellScctl in_path;
  looks({"sed -i 's/^flag=.*/flag=x/' \"$1\"", "sed -i 's/^flag=.*/flag=y/' \"$1\"",
         "scctl set lan_binds/2 ip=10.0.0.7; sed -i 's/^flag=.*/flag=1/' \"$1\"", ":"});
  EXPECT_EQ(edit().status, 1);
  EXPECT_EQ(look(3), kHeader_ +
                         "mac=00:11:22:33:44:02\nip=10.0.0.2\n"
                         "#! scctl: lan_binds.flag: 'y' is not a number\nflag=y\nname=two words\n");
  EXPECT_EQ(look(4).find("number"), std::string::npos) << look(4);
}

TEST_F(EditRecordTest, FieldsThatAreNotTyped_AreNotWritten) {
  block_as<LanBlock>("Lan")->lan_binds[4] = bind(); /* as other programs may leave them */
  block_as<LanBlock>("Lan")->lan_binds[4].slot_id = 5;
  looks({"sed -i s/two/three/ \"$1\""});
  EXPECT_EQ(edit(), (Outcome{0, "", ""})); /* the key of another record is not looked at */
  EXPECT_STREQ(bind().bind_name, "three words");
}

TEST_F(EditRecordTest, AnErrorThatIsLeft_GivesUpWithItsStatus) {
  done({"add", "lan_binds/5", "mac=00:11:22:33:44:05", "ip=10.0.0.5"});
  looks({"sed -i 's/^ip=.*/ip=10.0.0.5/' \"$1\"", ":"});
  EXPECT_EQ(edit(), (Outcome{1, "lan_binds/2 is not changed\n", ""}));
  EXPECT_EQ(look(2), "#! scctl: lan_binds: ip '10.0.0.5' is already used by lan_binds/5\n" +
                         kHeader_ + "mac=00:11:22:33:44:02\nip=10.0.0.5\nflag=0\nname=two words\n");
  EXPECT_EQ(bind().bind_ip, 0x0200000au);
}

TEST_F(EditRecordTest, AnEmptyFileAfterAnError_GivesUpWithTheErrorsStatus) {
  for (const std::string& last : {": >\"$1\"", "sed -i 's/^ip=.*/ip=10.0.0.2/' \"$1\""}) {
    unlink("/var/looks");
    looks({"sed -i 's/^ip=.*/ip=bad/' \"$1\"", last});
    EXPECT_EQ(edit(), (Outcome{1, "lan_binds/2 is not changed\n", ""}));
  }
}

TEST_F(EditRecordTest, AValueThatAnOverlayForbids_IsAnErrorAndNotWritten) {
  write_file("/var/overlay.json", R"({"overlay": 1, "types": {"t": {"size": 16, "members": {
      "mtu": {"at": 0, "kind": "unsigned", "size": 2, "range": [576, 1500]}}}},
      "at": {"Wan.sections/1.settings": "t"}})");
  const Words words = scctl({"edit", "wan/1", "--overlay", "/var/overlay.json"});
  looks({"sed -i 's/^mtu=.*/mtu=1/' \"$1\"", "sed -i 's/^mtu=.*/mtu=1492/' \"$1\""});
  EXPECT_EQ(run(words), (Outcome{0, "", ""}));
  EXPECT_NE(look(2).find("\n#! scctl: wan.mtu: it is out of range\nmtu=1\n"), std::string::npos)
      << look(2);
  EXPECT_EQ(done({"get", "wan/1.mtu", "--overlay", "/var/overlay.json"}), "1492\n");
}

TEST_F(EditRecordTest, ARecordThatChangedMeanwhile_IsShownAndNotOverwritten) {
  const ShellScctl in_path;
  looks({"scctl set lan_binds/2 ip=10.0.0.7; sed -i s/two/three/ \"$1\"", ":"});
  EXPECT_EQ(edit(), (Outcome{1, "lan_binds/2 is not changed\n", ""}));
  EXPECT_STREQ(bind().bind_name, "two words");
  EXPECT_EQ(look(2),
            "#! scctl: lan_binds/2 was changed by another program meanwhile\n"
            "#! delete this line to write it all the same\n" +
                kHeader_ + "mac=00:11:22:33:44:02\nip=10.0.0.7\nflag=0\nname=three words\n");
}

TEST_F(EditRecordTest, AfterAnotherLook_TheTypedValueIsWrittenAndTheOthersStay) {
  const ShellScctl in_path;
  looks({"scctl set lan_binds/2 ip=10.0.0.7 name=theirs; sed -i s/two/three/ \"$1\"",
         "sed -i '/delete this line/d' \"$1\""});
  EXPECT_EQ(edit(), (Outcome{0, "", ""}));
  EXPECT_NE(look(2).find("#! it is now name=theirs\nname=three words\n"), std::string::npos)
      << look(2);
  EXPECT_STREQ(bind().bind_name, "three words");
  EXPECT_EQ(bind().bind_ip, 0x0700000au);
}

TEST_F(EditRecordTest, AChangeWhileTheRecordIsWaitedFor_IsSeen) {
  looks({"sed -i s/two/three/ \"$1\"", ":"});
  LockHolder holder(lock_file("Lan"), 3); /* lan_binds/2 */
  Program program(scctl({"edit", "lan_binds/2"}));
  ASSERT_TRUE(becomes_blocked(program.pid(), lock_file("Lan"), 3));
  block_as<LanBlock>("Lan")->lan_binds[1].bind_flag = 1;
  holder.release();
  EXPECT_EQ(program.wait().status, 1);
  EXPECT_STREQ(bind().bind_name, "two words");
  EXPECT_NE(look(2).find("\nflag=1\nname=three words\n"), std::string::npos) << look(2);
}

TEST_F(EditRecordTest, ARecordThatIsDeletedMeanwhile_IsNotMadeAgain) {
  const ShellScctl in_path;
  looks({"scctl del lan_binds/2; sed -i s/two/three/ \"$1\"", ":"});
  EXPECT_EQ(edit().status, 1);
  EXPECT_EQ(look(2).find("#! scctl: lan_binds/2 is free; "), 0u) << look(2);
  EXPECT_EQ(bind().slot_id, -1);
  EXPECT_EQ(edit(), (Outcome{1, "", "scctl: lan_binds/2 is free\n"}));
}

TEST_F(EditRecordTest, TextsThatAreNotPlain_StayAsTheyAreWhenAnotherFieldChanges) {
  const std::string hex = "name:hex=6162000aff63";
  done({"set", "lan_binds/2", hex, "mac:hex=6e6f206d6163"});
  looks({"sed -i 's/^flag=0/flag=1/' \"$1\""});
  EXPECT_EQ(edit(), (Outcome{0, "", ""}));
  EXPECT_NE(look(1).find("mac:hex=6e6f206d6163\n"), std::string::npos) << look(1);
  EXPECT_NE(look(1).find("\n" + hex + "\n"), std::string::npos) << look(1);
  EXPECT_EQ(std::string(bind().bind_name, 6), std::string("ab\0\n\xff"
                                                          "c",
                                                          6));
  EXPECT_EQ(bind().bind_flag, 1);
}

TEST_F(EditRecordTest, TheLastLine_NeedsNoEnd) {
  looks({"printf name=three >\"$1\""});
  EXPECT_EQ(edit(), (Outcome{0, "", ""}));
  EXPECT_STREQ(bind().bind_name, "three");
}

TEST_F(EditRecordTest, ALineThatStandsTwice_IsRefusedAlsoAsItWasShown) {
  looks({"echo flag=0 >>\"$1\"; sed -i s/two/three/ \"$1\"", ":"});
  EXPECT_EQ(edit(), (Outcome{2, "lan_binds/2 is not changed\n", ""}));
  EXPECT_NE(look(2).find("#! scctl: flag stands twice\nflag=0\n"), std::string::npos) << look(2);
  EXPECT_STREQ(bind().bind_name, "two words");
}

/* As set takes it. */
TEST_F(EditRecordTest, AKeyInHex_IsComparedAsTheLibraryDoes) {
  done({"add", "lan_binds/5", "mac=00:11:22:33:44:05", "ip=10.0.0.5"});
  looks({"sed -i 's/^mac=.*/mac:hex=30302d31312d32322d33332d34342d3035/' \"$1\""});
  EXPECT_EQ(edit(), (Outcome{0, "", ""}));
  EXPECT_STREQ(bind().bind_mac, "00-11-22-33-44-05");
}

TEST_F(EditRecordTest, Settings_AreOneLine) {
  looks({"sed -i 's/^settings=.*/settings=0102/' \"$1\""});
  EXPECT_EQ(run(scctl({"edit", "wan/2"})), (Outcome{0, "", ""}));
  EXPECT_EQ(done({"get", "wan/2.settings"}), "0102\n");
}

}  // namespace
}  // namespace sc_test
