/* Secrets of overlays: shown nowhere unless --secrets is given, and kept by whoever gives the token
 * back. */
#include <filesystem>

#include "scctl/overlay_case.h"

namespace sc_test {
namespace {

constexpr char kPlanted[] = "plAnted-Secret";
constexpr char kHex[] = "706c416e7465642d536563726574";

class OverlaySecretsTest : public OverlayTest {
 protected:
  void SetUp() override {
    OverlayTest::SetUp();
    make_section();
    memcpy(block("Wan") + kWan + 96, kPlanted, strlen(kPlanted));
    const uint8_t token[] = {0xde, 0xad, 0xbe, 0xef, 0xfe, 0xed, 0xfa, 0xce};
    memcpy(block("Wan") + kWan + 168, token, sizeof token);
  }

  static void expect_hidden(const std::string& text, const std::string& of) {
    for (const std::string planted : {kPlanted, kHex, "deadbeef", "de ad be ef", "70 6c 41 6e"}) {
      EXPECT_EQ(text.find(planted), std::string::npos) << of << ":\n" << text;
    }
  }
  Outcome hidden(const Words& words, const std::string& input = "") {
    const Outcome result = outcome(words, input);
    std::string all;
    for (const std::string& word : words) all += word + " ";
    expect_hidden(result.out, all);
    expect_hidden(result.err, all);
    return result;
  }
};

TEST_F(OverlaySecretsTest, NoCommand_ShowsAPlantedSecret) {
  done({"save", "Wan"});
  done({"checkpoint", "before"});
  const std::string archive = golden_area("Wan").archive_path;
  write_file("/var/image", std::string(reinterpret_cast<char*>(block("Wan")), 4476));
  EXPECT_NE(hidden({"get", "wan/1"}).out.find("\npsk             <secret>\n"), std::string::npos);
  EXPECT_EQ(hidden({"get", "wan/1.psk"}).out, "<secret>\n");
  EXPECT_EQ(hidden({"get", "wan/1.psk", "--json"}).out, "null\n");
  EXPECT_EQ(hidden({"get", "wan/1.token"}).out, "<secret>\n");
  EXPECT_EQ(hidden({"get", "wan/1.settings"}).out, "<secret>\n");
  EXPECT_EQ(hidden({"get", "wan/1.settings", "--json"}).out, "null\n");
  hidden({"get", "wan/1", "--json"});
  hidden({"get", "wan/1", "--commands"});
  hidden({"list", "wan"});
  hidden({"list", "wan", "--json"});
  hidden({"list", "wan", "--commands"});
  hidden({"list", "wan", "--json", "--image", "/var/image"});
  hidden({"list", "wan", "--commands", "--archive", archive});
  EXPECT_EQ(hidden({"find", "wan", "mtu=0"}).status, 0);
  EXPECT_EQ(hidden({"find", "wan", "mtu=0", "--json"}).status, 0);
  /* No answer tells whether a guess is right. */
  for (const char* field : {"psk", "settings"}) {
    hidden({"find", "wan", field + ("=" + std::string(kPlanted))});
    EXPECT_EQ(hidden({"find", "wan", std::string(field) + "=00"}),
              (Outcome{1, "",
                       std::string("scctl: wan.") + field + " is a secret; --secrets finds it\n"}));
  }
  hidden({"export", "Wan"});
  hidden({"export", "--image", "/var/image"});
  EXPECT_NE(hidden({"dump", "Wan"}).out.find(" ** ** ** **"), std::string::npos);
  hidden({"dump", "Wan", "--archive", archive});
  hidden({"fields", "wan", "--json"});
  hidden({"schema"});
  hidden({"completion"});
  hidden({"overlay", "cover"});
  hidden({"areas"});
  hidden({"tables"});
  hidden({"check", "Wan"});
  hidden({"locks"});

  /* Changes of the secret, told by each command that tells changes. */
  Program watch(scctl(with_overlay({"watch", "Wan", "--count", "2"})));
  while (watch.out().find("watching") == std::string::npos) usleep(1000);
  hidden({"set", "wan/1", "psk=another one", "token=0102"});
  EXPECT_NE(hidden({"diff"}).out.find("wan/1.psk: <secret> -> <secret>\n"), std::string::npos);
  EXPECT_NE(hidden({"diff"}).out.find("wan/1.token: <secret> -> <secret>\n"), std::string::npos);
  hidden({"diff", "checkpoint:before", "live"});
  hidden({"diff", "/var/image", "live"});
  const std::string at = std::string("@") + kFile;
  const std::string by_name = run(scctl({"diff", "saved" + at, "live" + at})).out;
  expect_hidden(by_name, "diff @");
  EXPECT_NE(by_name.find("wan/1.psk: <secret> -> <secret>\n"), std::string::npos) << by_name;
  EXPECT_NE(hidden({"log"}).out.find("wan/1.psk: <secret> -> <secret>\n"), std::string::npos);
  hidden({"log", "--json"});
  hidden({"rollback", "before", "Wan", "--dry-run"});
  write_file("/var/change", std::string("set wan/1 psk=") + kPlanted + " token=deadbeef\n");
  hidden({"try", "--timeout", "600", "batch", "/var/change"});
  hidden({"try", "--status"});
  hidden({"try", "--status", "--json"});
  hidden({"diff", "try", "live"});
  hidden({"confirm"});
  hidden({"log"});
  hidden({"undo"});
  hidden({"rollback", "before"});
  const Outcome watched = watch.wait();
  expect_hidden(watched.out, "watch");
  EXPECT_NE(watched.out.find("psk: <secret> -> <secret>"), std::string::npos) << watched.out;

  /* Commands and files that give it. */
  const std::string value = std::string("psk=") + kPlanted;
  hidden({"set", "wan/1", value});
  hidden({"set", "wan/1", "psk:hex=" + std::string(kHex)});
  hidden({"set", "wan/1", "psk:hex=" + std::string(kHex) + "x"});
  hidden({"set", "wan/1", "psk:hax=" + std::string(kHex)});
  hidden({"set", "wan/1", "settings=" + std::string(kHex) + "x"});
  hidden({"set", "wan/1", value + std::string(80, 'x')});
  hidden({"set", "wan/1", value + "\x01"});
  hidden({"set", "wan/1", "token=" + std::string("deadbeefx")});
  const std::string file = run(scctl(with_overlay({"export", "Wan", "--secrets"}))).out;
  EXPECT_NE(file.find(kPlanted), std::string::npos);
  std::string broken = file;
  broken.replace(broken.find(kPlanted), strlen(kPlanted),
                 std::string(kPlanted) + std::string(70, 'x'));
  EXPECT_EQ(hidden({"import", "-"}, broken).status, 1);
  hidden({"import", "-"}, file);
  EXPECT_NE(hidden({"log"}).out.find("psk=<secret>"), std::string::npos);
  hidden({"log", "--json"});
  hidden({"undo"});

  /* What a person reads of the files that scctl keeps: all but the bytes of changes. */
  for (const auto& entry : std::filesystem::directory_iterator("/var/systemconfig/scctl")) {
    if (!entry.is_regular_file()) continue;
    const std::string name = entry.path().filename();
    const std::string bytes = read_file(entry.path());
    if (name != "log" && name != "try" && name != "waiting") expect_hidden(bytes, name);
    EXPECT_EQ(bytes.find(value), std::string::npos) << name; /* words */
  }
}

TEST_F(OverlaySecretsTest, WithSecrets_TheyAreShown) {
  EXPECT_EQ(shown({"get", "wan/1.psk", "--secrets"}), std::string(kPlanted) + "\n");
  EXPECT_EQ(shown({"get", "wan/1.token", "--secrets"}), "deadbeeffeedface\n");
  EXPECT_NE(shown({"dump", "Wan", "--secrets"}).find(" 70 6c 41 6e"), std::string::npos);
  EXPECT_NE(shown({"get", "wan/1.settings", "--secrets"}).find(kHex), std::string::npos);
  EXPECT_NE(
      shown({"find", "wan", std::string("psk=") + kPlanted, "--secrets"}).find("(1 of 4 records"),
      std::string::npos);
  EXPECT_EQ(shown({"batch"}, "get wan/1.psk --secrets\nget wan/1.psk\n"),
            std::string(kPlanted) + "\n<secret>\ncommands done: 2\n");
}

TEST_F(OverlaySecretsTest, ATokenOfAnImport_LeavesTheSecretAsItIs) {
  const std::string file = shown({"export", "Wan"});
  EXPECT_NE(file.find("\"psk\": null"), std::string::npos);
  std::string changed = file;
  changed.replace(changed.find("\"mtu\": 0"), 8, "\"mtu\": 1400");
  Image expected = image("Wan");
  expected.put16(kWan + 4, 1400);
  EXPECT_EQ(shown({"import", "-"}, changed),
            "wan: 0 added, 1 changed, 0 deleted\ntables changed: 1\n");
  EXPECT_TRUE(expected.matches(block("Wan")));
}

/* What the secret is is decided when nobody else edits, not when the file was read. */
TEST_F(OverlaySecretsTest, ATokenOfAnImportThatHasToWait_KeepsTheSecretOfThen) {
  std::string changed = shown({"export", "Wan"});
  changed.replace(changed.find("\"mtu\": 0"), 8, "\"mtu\": 1400");
  std::string left;
  {
    LockHolder editor(lock_file("Wan"), 0);
    Program import(scctl(with_overlay({"import", "-"})), changed);
    ASSERT_TRUE(becomes_blocked(import.pid(), lock_file("Wan"), 0));
    memcpy(block("Wan") + kWan + 96, "of-now", 7);
    editor.release();
    EXPECT_EQ(import.wait().status, 0);
  }
  EXPECT_EQ(shown({"get", "wan/1.psk", "--secrets"}), "of-now\n");
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1400\n");
}

TEST_F(OverlaySecretsTest, ATypedToken_LeavesTheSecretAsItIs) {
  Image expected = image("Wan");
  expected.put16(kWan + 4, 1400);
  shown({"set", "wan/1", "psk=<secret>", "token=<secret>", "mtu=1400"});
  EXPECT_TRUE(expected.matches(block("Wan")));
  shown({"set", "wan/1", "settings=<secret>"});
  EXPECT_TRUE(expected.matches(block("Wan")));
}

TEST_F(OverlaySecretsTest, ANewRecord_HasNoSecretThatCouldStay) {
  const std::string overlay = use(
      R"({"overlay": 1, "types": {"t": {"size": 504, "members": {
          "psk": {"at": 0, "kind": "text", "size": 32, "secret": true}}}},
          "at": {"ManageApList.aps.opaque_11800": "t"}})");
  const auto with = [&](const Words& words) { return scctl(with_overlay(words, overlay)); };
  EXPECT_EQ(run(with({"add", "aps/3", "ap_mac=02:00:00:00:00:03", "psk=<secret>"})).err,
            "scctl: aps.psk: a new record has no secret that could stay\n");
  EXPECT_EQ(run(with({"add", "aps/3", "ap_mac=02:00:00:00:00:03", "psk=geheim"})).status, 0);
  const std::string file = run(with({"export", "ManageApList"})).out;
  EXPECT_EQ(run(with({"import", "-"}), file).out, "tables changed: 0\n");
  done({"clear", "aps"});
  EXPECT_EQ(run(with({"import", "-"}), file).err,
            "scctl: aps/3.psk: a new record has no secret that could stay\n");
  EXPECT_EQ(run(with({"import", "-", "--dry-run"}), file).status, 1);
  EXPECT_EQ(done({"list", "aps", "--json"}), "[]\n");
}

TEST_F(OverlaySecretsTest, AMemberThatSharesBytesWithASecret_IsOneToo) {
  const std::string overlay = use(
      R"({"overlay": 1, "types": {"t": {"size": 16, "union": true, "members": {
          "psk": {"at": 4, "kind": "text", "size": 8, "secret": true},
          "raw": {"at": 0, "kind": "bytes", "size": 16},
          "last": {"at": 8, "kind": "unsigned", "size": 4},
          "before": {"at": 0, "kind": "unsigned", "size": 4},
          "behind": {"at": 12, "kind": "unsigned", "size": 4}}}},
          "at": {"Wan.sections/1.settings": "t"}})");
  const Words words = scctl(with_overlay({"get", "wan/1", "--json"}, overlay));
  const std::string json = run(words).out;
  EXPECT_NE(json.find("\"psk\": null, \"raw\": null, \"last\": null, \"before\": " +
                      std::to_string(kMagic) + ", \"behind\": 0"),
            std::string::npos)
      << json;
}

/* Its bytes may be left from when it held, whatever stands there now. */
TEST_F(OverlaySecretsTest, MembersInItsPlaceWhileASecretDoesNotHold_AreSecret) {
  memset(block("Wan") + kWan, 0, 956);
  const std::string overlay = use(R"({"overlay": 1, "types": {"t": {"size": 24, "union": true,
      "members": {
          "mode": {"at": 0, "kind": "unsigned", "size": 4},
          "psk": {"at": 4, "kind": "text", "size": 16, "secret": true, "if": {"mode": 1}},
          "name": {"at": 4, "kind": "text", "size": 16, "if": {"mode": 2}},
          "head": {"at": 4, "kind": "unsigned", "size": 2},
          "last": {"at": 20, "kind": "unsigned", "size": 4}}}},
          "at": {"Wan.sections/1.settings": "t"}})");
  const auto all = [&](const Words& words) { return run(scctl(with_overlay(words, overlay))); };
  for (int mode = 1; mode <= 3; ++mode) {
    const std::string text = "mode=" + std::to_string(mode);
    EXPECT_EQ(all({"set", "wan/1", text}).status, 0);
    if (mode == 1) EXPECT_EQ(all({"set", "wan/1", std::string("psk=") + kPlanted}).status, 0);
    for (const Words& words : {Words{"get", "wan/1"},
                               {"get", "wan/1.name"},
                               {"export", "Wan"},
                               {"list", "wan"},
                               {"get", "wan/1.head"},
                               {"dump", "Wan"}}) {
      const Outcome outcome = all(words);
      expect_hidden(outcome.out + outcome.err, words[0] + " " + text);
      EXPECT_EQ(outcome.out.find("27760"), std::string::npos) << "the number of its first bytes";
    }
    EXPECT_EQ(all({"get", "wan/1.head"}).out, "<secret>\n") << text;
    EXPECT_EQ(all({"get", "wan/1.last"}).out, "0\n") << text;
  }
}

TEST_F(OverlaySecretsTest, DiffCommands_SaysWhereASecretIsMissing) {
  shown({"set", "wan/1", "mtu=1400"});
  done({"save", "--all"});
  shown({"set", "wan/1", "psk=another-Secret"});
  const Words words = {"diff", "live", "saved", "--commands"};
  EXPECT_EQ(hidden(words),
            (Outcome{1, "# wan/1.psk is a secret; --secrets prints its value\n", ""}));
  shown({"set", "wan/1", "mtu=1492"});
  const Outcome two = hidden(words);
  EXPECT_EQ(std::count(two.out.begin(), two.out.end(), '\n'), 2) << two;
  EXPECT_NE(two.out.find("\nscctl set wan/1 mtu=1400\n"), std::string::npos) << two;
}

/* The password of a mode that is off stays in its bytes. */
TEST_F(OverlaySecretsTest, ASecretWhoseConditionFails_StaysOneAmongTheSpares) {
  memset(block("Wan") + kWan, 0, 956);
  const std::string overlay = use(overlay_of(R"(
      "mode": {"at": 0, "kind": "unsigned", "size": 1},
      "user": {"at": 1, "kind": "bytes", "size": 3, "if": {"mode": 1}},
      "psk": {"at": 4, "kind": "text", "size": 16, "secret": true, "if": {"mode": 1}},
      "keys": {"at": 20, "kind": "unsigned", "size": 4, "count": 2, "used": "mode", "secret": true},
      "bits": {"at": 28, "kind": "bit", "bit": 1, "width": 2, "secret": true, "if": {"mode": 1}},
      "low": {"at": 28, "kind": "bit", "bit": 0, "width": 1})"));
  uint8_t* settings = block("Wan") + kWan;
  memcpy(settings + 1, "\1\2\3", 3);
  memcpy(settings + 4, kPlanted, strlen(kPlanted));
  memcpy(settings + 20, "\xde\xad\xbe\xef\xde\xad\xbe\xef", 8);
  settings[28] = 0x87;
  const Image before = image("Wan");
  const auto with = [&](const Words& words) { return scctl(with_overlay(words, overlay)); };
  for (const Words& words : {Words{"get", "wan/1"},
                             {"get", "wan/1", "--json"},
                             {"get", "wan/1.settings"},
                             {"get", "wan/1.spare_8"},
                             {"list", "wan", "--commands"},
                             {"export", "Wan"},
                             {"dump", "Wan"}}) {
    expect_hidden(run(with(words)).out, words[1]);
  }
  EXPECT_EQ(run(with({"get", "wan/1"})).out,
            "mode            0\nlow             1\nspare_5         3/3 bytes\n"
            "spare_8         <secret>\nspare_32        <secret>\nspare_33        0/927 bytes\n");
  EXPECT_EQ(run(with({"get", "wan/1.spare_5"})).out, "010203\n");
  EXPECT_EQ(run(with({"get", "wan/1.spare_8", "--secrets"})).out,
            std::string(kHex) + "0000deadbeefdeadbeef\n");
  EXPECT_EQ(run(with({"import", "-"}), run(with({"export", "Wan"})).out).out,
            "tables changed: 0\n");
  EXPECT_TRUE(before.matches(block("Wan")));
  /* Of the list, what is used and what is left are both secret. */
  settings[0] = 1;
  EXPECT_NE(run(with({"get", "wan/1"})).out.find("\nkeys            <secret>\n"),
            std::string::npos);
  expect_hidden(run(with({"export", "Wan"})).out, "export");
  /* The log keeps the words of an edit. */
  settings[0] = 0;
  EXPECT_EQ(run(with({"set", "wan/1", "spare_8=6162", "spare_5=09", "spare_33=0a"})),
            (Outcome{0, "", ""}));
  const std::string log = run(with({"log"})).out;
  EXPECT_NE(log.find("'spare_8=<secret>' 'spare_5=09' 'spare_33=0a'"), std::string::npos) << log;
}

TEST_F(OverlaySecretsTest, ANumberThatDoesNotFit_IsNotTold) {
  const std::string overlay =
      use(overlay_of(R"("pin": {"at": 0, "kind": "unsigned", "size": 2, "secret": true})"));
  const auto with = [&](const Words& words) { return scctl(with_overlay(words, overlay)); };
  EXPECT_EQ(run(with({"set", "wan/1", "pin=70123"})).err,
            "scctl: wan.pin: <secret> is not within 0 to 65535\n");
  EXPECT_EQ(run(with({"import", "-"}), R"({"Wan": {"wan": [{"id": 1, "pin": 70123}]}})").err,
            "scctl: stdin:1: wan.pin: <secret> is not within 0 to 65535\n");
  EXPECT_EQ(run(with({"set", "wan/1", "pin=70123", "--secrets"})).err,
            "scctl: wan.pin: 70123 is not within 0 to 65535\n");
}

TEST_F(OverlaySecretsTest, AnotherFile_TakesAMarkBack) {
  write_file("/var/second.json", R"({"overlay": 1, "completes": "vendor.json", "types": {
      "wan_section": {"members": {"psk": {"secret": false}}}}})");
  EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1.psk"}, "/var/second.json"))).out,
            std::string(kPlanted) + "\n");
  EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1.token"}, "/var/second.json"))).out, "<secret>\n");
}

}  // namespace
}  // namespace sc_test
