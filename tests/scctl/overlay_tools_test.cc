/* Overlays in the commands around an edit: the stream of changes, edit, reset, and diffs as commands. */
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "scctl/overlay_case.h"

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
  std::string secret_of(const std::string& id) {
    return shown({"get", "wan/" + id + ".psk", "--secrets"});
  }
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
  kill(watch.pid(), SIGTERM);
  const std::string all = watch.wait().out;
  EXPECT_EQ(all.find(kPlanted), std::string::npos);
  EXPECT_EQ(all.find("another secret"), std::string::npos);
}

TEST_F(OverlayToolsTest, AnEditor_ShowsMembersAndLeavesSecretsAsTheyAre) {
  write_file("/var/editor",
             "#!/bin/sh\ncp \"$1\" /var/seen; sed -i 's/^mtu=.*/mtu=1200/' \"$1\"\n");
  chmod("/var/editor", 0755);
  setenv("EDITOR", "/var/editor", 1);
  unsetenv("VISUAL");
  shown({"edit", "wan/1"});
  const std::string seen = read_file("/var/seen");
  EXPECT_NE(seen.find("\nmtu=1400\n"), std::string::npos) << seen;
  EXPECT_NE(seen.find("\npsk=<secret>\n"), std::string::npos) << seen;
  EXPECT_EQ(seen.find(kPlanted), std::string::npos);
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1200\n");
  EXPECT_EQ(secret_of("1"), std::string(kPlanted) + "\n");
}

/* A value that could not be typed has a line as any other, for a person to change. */
TEST_F(OverlayToolsTest, AnEditor_ShowsAValueOutOfRangeAndLeavesIt) {
  memset(block("Wan") + kWan + 4, 0, 2);
  write_file("/var/editor",
             "#!/bin/sh\ncp \"$1\" /var/seen; sed -i 's/^temperature=.*/temperature=7/' \"$1\"\n");
  chmod("/var/editor", 0755);
  setenv("EDITOR", "/var/editor", 1);
  unsetenv("VISUAL");
  shown({"edit", "wan/1"});
  const std::string seen = read_file("/var/seen");
  EXPECT_NE(seen.find("\nmtu=0\n"), std::string::npos) << seen;
  EXPECT_EQ(shown({"get", "wan/1.temperature"}), "7\n");
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "0\n");
}

TEST_F(OverlayToolsTest, Reset_TakesOneMember) {
  done({"save", "Wan"});
  std::filesystem::create_directory("/var/factory");
  std::filesystem::copy("/var/dataconfig/config_wan.bin", "/var/factory/config_wan.bin");
  shown({"set", "wan/1", "mtu=1300", "mode=dhcp"});
  shown({"reset", "wan/1.mtu", "--factory", "/var/factory"});
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1400\n");
  EXPECT_EQ(shown({"get", "wan/1.mode"}), "dhcp\n");
  const Outcome unknown = outcome({"reset", "wan/1.nothing", "--factory", "/var/factory"});
  EXPECT_EQ(unknown.status, 1) << unknown;
  EXPECT_NE(unknown.err.find("wan has no field 'nothing'"), std::string::npos) << unknown;
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

}  // namespace
}  // namespace sc_test
