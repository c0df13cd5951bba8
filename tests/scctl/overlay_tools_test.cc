/* Overlays in the commands around an edit: the stream of changes, edit, reset, and diffs as commands. */
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "scctl/overlay_case.h"
#include "scctl/shell.h"

namespace sc_test {
namespace {

constexpr char kPlanted[] = "hunter2hunter2";

class OverlayToolsTest : public OverlayTest {
 protected:
  void SetUp() override {
    OverlayTest::SetUp();
    make_section();
    shown({"set", "wan/1", std::string("psk=") + kPlanted, "mtu=1400"});
  }
  /* Edits wan/1 by a command of sed. Returns what the editor was shown. */
  std::string edit(const std::string& command) {
    write_script("/var/editor", "cp \"$1\" /var/seen; sed -i '" + command + "' \"$1\"\n");
    setenv("EDITOR", "/var/editor", 1);
    unsetenv("VISUAL");
    shown({"edit", "wan/1"});
    return read_file("/var/seen");
  }
  void save_as_factory() {
    done({"save", "Wan"});
    std::filesystem::create_directory("/var/factory");
    std::filesystem::copy("/var/dataconfig/config_wan.bin", "/var/factory/config_wan.bin",
                          std::filesystem::copy_options::overwrite_existing);
  }
  std::string secret() { return shown({"get", "wan/1.psk", "--secrets"}); }
};

TEST_F(OverlayToolsTest, TheStream_HasMembersAndNoSecret) {
  Program watch(scctl(with_overlay({"watch", "--json", "Wan"})));
  const auto says = [&](const std::string& text) {
    for (int n = 0; n < 5000 && watch.out().find(text) == std::string::npos; ++n) usleep(1000);
    return watch.out().find(text) != std::string::npos;
  };
  while (watch.err().find("watching") == std::string::npos) usleep(1000);
  shown({"set", "wan/1", "mtu=1300"});
  EXPECT_TRUE(says("\"fields\":{\"mtu\":[1400,1300]},\"")) << watch.out();
  shown({"set", "wan/1", "psk=another secret"});
  EXPECT_TRUE(says("\"fields\":{\"psk\":[null,null]},\"")) << watch.out();
  shown({"set", "wan/1", "token=0102030405060708"});
  EXPECT_TRUE(says("\"fields\":{\"token\":[null,null]},\"")) << watch.out();
  shown({"set", "wan/1", "spare_252=ff"});
  EXPECT_TRUE(says("\"fields\":{},\"unnamed\":true")) << watch.out();
  /* A member that holds only after the change. */
  shown({"set", "wan/1", "mode=pppoe", "peer=10.0.0.1"});
  EXPECT_TRUE(says("\"peer\":[null,\"10.0.0.1\"]")) << watch.out();
  /* One that holds no longer is told once, and its bytes are what they were. */
  shown({"set", "wan/1", "mode=dhcp"});
  const std::string last = "{\"mode\":[\"pppoe\",\"dhcp\"],\"peer\":[\"10.0.0.1\",null]}";
  EXPECT_TRUE(says(last)) << watch.out();
  kill(watch.pid(), SIGTERM);
  const std::string all = watch.wait().out;
  EXPECT_EQ(all.find("unnamed", all.find(last)), std::string::npos) << all;
  EXPECT_EQ(all.find(kPlanted), std::string::npos);
  EXPECT_EQ(all.find("another secret"), std::string::npos);
}

TEST_F(OverlayToolsTest, AnEditor_ShowsMembersAndLeavesSecretsAsTheyAre) {
  const std::string seen = edit("s/^mtu=.*/mtu=1200/");
  EXPECT_NE(seen.find("\nmtu=1400\n"), std::string::npos) << seen;
  EXPECT_NE(seen.find("\npsk=<secret>\n"), std::string::npos) << seen;
  EXPECT_EQ(seen.find(kPlanted), std::string::npos);
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1200\n");
  EXPECT_EQ(secret(), std::string(kPlanted) + "\n");
}

/* A value that could not be typed has a line as any other, for a person to change. */
TEST_F(OverlayToolsTest, AnEditor_ShowsAValueOutOfRangeAndLeavesIt) {
  memset(block("Wan") + kWan + 4, 0, 2);
  const std::string seen = edit("s/^temperature=.*/temperature=7/");
  EXPECT_NE(seen.find("\nmtu=0\n"), std::string::npos) << seen;
  EXPECT_EQ(shown({"get", "wan/1.temperature"}), "7\n");
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "0\n");
}

TEST_F(OverlayToolsTest, Reset_TakesOneMember) {
  save_as_factory();
  /* Other members hold for the live record than for the factory's. */
  shown({"set", "wan/1", "mtu=1300", "mode=pppoe", "peer=10.0.0.1"});
  shown({"reset", "wan/1.mtu", "--factory", "/var/factory"});
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1400\n");
  EXPECT_EQ(shown({"get", "wan/1.mode"}), "pppoe\n");
  const Outcome unknown = outcome({"reset", "wan/1.nothing", "--factory", "/var/factory"});
  EXPECT_EQ(unknown.status, 1) << unknown;
  EXPECT_NE(unknown.err.find("wan has no field 'nothing'"), std::string::npos) << unknown;
  EXPECT_EQ(outcome({"reset", "wan/2.mtu", "--factory", "/var/factory"}).err,
            "scctl: wan/2 has no field 'mtu'; settings: magic is 0, wan_section needs "
            "1463897669\n");
}

/* Bytes that are another member's now. */
TEST_F(OverlayToolsTest, Reset_LeavesAMemberOfAnotherUnion) {
  shown({"set", "wan/1", "address.family=4", "address.u.v4=10.0.0.1"});
  save_as_factory();
  shown({"set", "wan/1", "address.family=6", "address.u.v6=1,2,3,4,5,6,7,8"});
  EXPECT_EQ(outcome({"reset", "wan/1.address.u.v4", "--factory", "/var/factory"}).status, 1);
  EXPECT_EQ(outcome({"reset", "wan/1.address.u.v6", "--factory", "/var/factory"}).status, 1);
  EXPECT_EQ(shown({"get", "wan/1.address.u.v6"}), "1,2,3,4,5,6,7,8\n");
}

TEST_F(OverlayToolsTest, ADiffAsCommands_NamesMembersAndMakesThemEqual) {
  done({"save", "Wan"});
  const Image saved = image("Wan");
  shown({"set", "wan/1", "mtu=1300", "bits.c=9", "mode=pppoe", "peer=10.0.0.1"});
  const Outcome back = outcome({"diff", "live", "saved", "--commands"});
  EXPECT_EQ(back.status, 1) << back;
  EXPECT_NE(back.out.find("scctl set wan/1 mtu=1400"), std::string::npos) << back;
  write_file("/var/back", back.out);
  shown({"batch", "/var/back"});
  EXPECT_TRUE(saved.matches(block("Wan")));
  const std::string lines = shown({"export", "Wan", "--fields"});
  EXPECT_NE(lines.find("wan/1.mtu: 1400\n"), std::string::npos) << lines;
  EXPECT_NE(lines.find("wan/1.psk: <secret>\n"), std::string::npos) << lines;
  EXPECT_EQ(lines.find(kPlanted), std::string::npos);
}

/* The firmware's next version has the bytes elsewhere. */
TEST_F(OverlayToolsTest, ADiffOfTwoOverlays_ComparesBytesThatMoved) {
  done({"save", "Wan"});
  const auto with_raw = [](const std::string& file, int at) {
    write_file(file, overlay_of("\"raw\": {\"at\": " + std::to_string(at) +
                                R"(, "kind": "bytes", "size": 4})"));
    return "@" + file;
  };
  const std::string was = with_raw("/var/was.json", 300), is = with_raw("/var/is.json", 310);
  memcpy(block("Wan") + kWan + 310, "\1\2\3", 3);
  EXPECT_NE(run(scctl({"diff", "live" + was, "live" + is}))
                .out.find("wan/1.raw: (0 bytes) -> (3 bytes)\n"),
            std::string::npos);
}

TEST_F(OverlayToolsTest, ADiff_TakesAFileWithAnAtInItsName) {
  write_file("/var/image@home", std::string(reinterpret_cast<char*>(block("Wan")), 4476));
  shown({"set", "wan/1", "mtu=1300"});
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1300\n");
  EXPECT_NE(outcome({"diff", "/var/image@home", "live"}).out.find("wan/1.mtu: 1400 -> 1300\n"),
            std::string::npos);
}

}  // namespace
}  // namespace sc_test
