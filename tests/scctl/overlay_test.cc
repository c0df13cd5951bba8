/* Members of opaque fields by name: each command with an overlay. */
#include "scctl/overlay_case.h"

namespace sc_test {
namespace {

TEST_F(OverlayTest, ASet_WritesTheBytesOfItsMembersAloneAndAnnouncesTheAreaOnce) {
  make_section();
  fill(block("Wan") + kWan + 4, 952, 7);
  Image expected = image("Wan");
  Listener listener;
  shown({"set", "wan/1", "mtu=1400", "raw=0x01020304", "grid[1]=-1,2,-3", "deep=-2"});
  expected.put16(kWan + 4, 1400).put32(kWan + 164, 0x04030201);
  expected.put16(kWan + 182, -1).put16(kWan + 184, 2).put16(kWan + 186, -3);
  expected.put32(kWan + 196, 0xfffffffe).put32(kWan + 200, 0xffffffff);
  EXPECT_TRUE(expected.matches(block("Wan")));
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{2});
}

TEST_F(OverlayTest, ABit_LeavesTheOtherBitsOfItsByte) {
  make_section();
  Image expected = image("Wan");
  expected.put8(kWan + 6, 0xaf).put8(kWan + 7, 0xff);
  memcpy(block("Wan"), expected.data(), expected.size());
  shown({"set", "wan/1", "bits.b=-4", "bits.c=5"}); /* bits 1 to 3, and 6 to 9 */
  expected.put8(kWan + 6, 0x69).put8(kWan + 7, 0xfd);
  EXPECT_TRUE(expected.matches(block("Wan")));
  EXPECT_EQ(shown({"get", "wan/1.bits.b"}), "-4\n");
  EXPECT_EQ(shown({"get", "wan/1.bits.c"}), "5\n");
  EXPECT_EQ(shown({"get", "wan/1.bits.a"}), "1\n");
  EXPECT_EQ(shown({"get", "wan/1.spare_10"}), "20\n"); /* the bits without a name */
}

TEST_F(OverlayTest, EveryKind_IsShownAsItIsTyped) {
  make_section();
  const Words typed = {"mtu=1400",
                       "mode=pppoe",
                       "port_count=2",
                       "ports=80,443",
                       "level=low",
                       "temperature=-5",
                       "radio_count=1",
                       "radio[0].channel=-6",
                       "radio[0].ssid=abcd",
                       "station=02:00:00:00:00:01",
                       "station_text=02-00-00-00-00-02",
                       "peer=10.0.0.1",
                       "raw=7",
                       "wide=18446744073709551615",
                       "deep=-9223372036854775808",
                       "names[1][0]=x y",
                       "address.family=4",
                       "address.u.v4=10.0.0.9"};
  Words words = {"set", "wan/1"};
  words.insert(words.end(), typed.begin(), typed.end());
  shown(words);
  for (const std::string& assignment : typed) {
    const size_t at = assignment.find('=');
    EXPECT_EQ(shown({"get", "wan/1." + assignment.substr(0, at)}),
              assignment.substr(at + 1) + "\n");
  }
}

TEST_F(OverlayTest, AnotherFamily_HasTheOtherMembersOfTheUnion) {
  make_section();
  shown({"set", "wan/1", "address.family=6", "address.u.v6=8193,3512,0,0,0,0,0,1"});
  EXPECT_EQ(block("Wan")[kWan + 248], 0x20); /* the first byte is the most significant */
  EXPECT_EQ(
      outcome({"get", "wan/1.address.u.v4"}).err,
      "scctl: wan/1 has no field 'address.u.v4'; address.family is 6, address.u.v4 needs 4\n");
}

TEST_F(OverlayTest, AConditionThatDoesNotHold_ShowsHexAndWhy) {
  done({"set", "wan/1", "settings=0102"});
  EXPECT_EQ(shown({"get", "wan/1"}),
            "settings        2/956 bytes\n"
            "settings: magic is 513, wan_section needs 1463897669\n");
  EXPECT_EQ(shown({"get", "wan/1.settings"}), "0102\n");
  EXPECT_EQ(outcome({"get", "wan/1.mtu"}),
            (Outcome{1, "",
                     "scctl: wan/1 has no field 'mtu'; settings: magic is 513, wan_section needs "
                     "1463897669\n"}));
  shown({"set", "wan/1", "magic=1463897669", "mtu=1500"});
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1500\n");
}

TEST_F(OverlayTest, TheWholeField_CanStillBeReadAndWritten) {
  make_section();
  done({"set", "wan/1", "settings=454e4157dc05"});
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1500\n");
  shown({"set", "wan/1", "settings=454e41570006"});
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1536\n");
}

TEST_F(OverlayTest, AList_HasTheColumnsOfTheFirstRecord) {
  make_section();
  shown({"set", "wan/1", "mtu=1400"});
  done({"set", "wan/3", "settings=454e41570006"});
  EXPECT_EQ(shown({"list", "wan"}),
            "id   magic       mtu   bits.a  bits.b  bits.c  mode  port_count  level\n"
            "1    1463897669  1400  0       0       0       off   0           0\n"
            "2\n"
            "3    1463897669  1536  0       0       0       off   0           0\n"
            "4\n"
            "(4 of 4 records; 23 more fields: scctl get)\n");
}

TEST_F(OverlayTest, AFind_ComparesMembersOfTheRecordsThatHaveThem) {
  make_section();
  shown({"set", "wan/1", "mtu=1400", "bits.a=1", "mode=dhcp"});
  for (const char* word : {"mtu=1400", "bits.a=1", "mode=dhcp", "mode=1"}) {
    const std::string json = shown({"find", "wan", word, "--json"});
    EXPECT_EQ(json.rfind("[\n  {\"id\": 1, ", 0), 0u) << word;
    EXPECT_EQ(json.find("\"id\": 2"), std::string::npos) << word;
  }
  EXPECT_EQ(outcome({"find", "wan", "mtu=1401"}).err, "scctl: no record of wan has mtu=1401\n");
  EXPECT_EQ(outcome({"find", "wan", "mtx=1"}).err,
            "scctl: wan has no field 'mtx'; the nearest is mtu\n");
  EXPECT_EQ(outcome({"find", "wan", "mtu=x"}).err, "scctl: wan.mtu: 'x' is not a number\n");
}

TEST_F(OverlayTest, ADiff_NamesMembersAndWhatAppearedAndWent) {
  make_section();
  shown({"set", "wan/1", "mode=pppoe", "peer=10.0.0.1", "bits.a=1"});
  done({"save", "Wan"});
  shown({"set", "wan/1", "mtu=1400", "mode=dhcp", "bits.a=0", "bits.b=2"});
  done({"set", "wan/2", "settings=454e41570006"});
  const std::string changed = outcome({"diff"}).out;
  EXPECT_NE(changed.find("wan/1.mtu: 0 -> 1400\nwan/1.bits.a: 1 -> 0\nwan/1.bits.b: 0 -> 2\n"
                         "wan/1.mode: pppoe -> dhcp\nwan/2.magic: (none) -> 1463897669\n"
                         "wan/2.mtu: (none) -> 1536\nwan/2.settings: (0 bytes) -> (none)\n"),
            std::string::npos)
      << changed;
}

TEST_F(OverlayTest, TheLogAndAnUndo_AreByMembers) {
  make_section();
  shown({"set", "wan/1", "mtu=1400", "bits.b=1"});
  shown({"set", "wan/1", "mtu=600", "bits.a=1"});
  const std::string log = shown({"log"});
  EXPECT_NE(log.find("  wan/1.mtu: 1400 -> 600\n  wan/1.bits.a: 0 -> 1\n"), std::string::npos)
      << log;
  EXPECT_NE(shown({"log", "--json"}).find("\"fields\": {\"mtu\": [1400, 600], \"bits.a\": [0, 1]}"),
            std::string::npos);
  /* 601 differs from 600 in one byte; the member does not go back torn. */
  const uint16_t others = 601;
  memcpy(block("Wan") + kWan + 4, &others, sizeof others);
  EXPECT_EQ(outcome({"undo"}).out.substr(0, 16), "taken back: 0 of");
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "601\n");
  EXPECT_EQ(shown({"get", "wan/1.bits.a"}), "0\n");
  EXPECT_EQ(shown({"get", "wan/1.bits.b"}), "1\n");
}

TEST_F(OverlayTest, Commands_MakeTheSameRecordAgain) {
  make_section();
  shown({"set", "wan/1", "mtu=1400", "mode=pppoe", "peer=10.0.0.1", "radio_count=2",
         "radio[1].ssid=a b", "bits.c=9", "token:hex=0102", "psk=geheim 123", "names[0][1]=x"});
  block("Wan")[kWan + 8] = 9; /* no mode has this number: peer is gone */
  block("Wan")[kWan + 900] = 5;
  const Image expected = image("Wan");
  const std::string commands = shown({"list", "wan", "--commands", "--secrets"});
  done({"set", "wan/1", "settings="});
  shown({"batch"}, commands);
  EXPECT_TRUE(expected.matches(block("Wan")));
}

TEST_F(OverlayTest, ATry_ShowsMembersAndTakesThemBack) {
  make_section();
  const Image before = image("Wan");
  write_file("/var/change", "set wan/1 mtu=1400 bits.a=1\n");
  shown({"try", "--timeout", "600", "batch", "/var/change"});
  EXPECT_NE(shown({"try", "--status"}).find("  wan/1.mtu: 0 -> 1400\n  wan/1.bits.a: 0 -> 1\n"),
            std::string::npos);
  EXPECT_NE(outcome({"diff", "try", "live"}).out.find("wan/1.mtu: 0 -> 1400\n"), std::string::npos);
  shown({"revert"});
  EXPECT_TRUE(before.matches(block("Wan")));
}

TEST_F(OverlayTest, AWatch_PrintsMembers) {
  make_section();
  Program watch(scctl(with_overlay({"watch", "Wan", "--count", "1"})));
  while (watch.out().find("watching") == std::string::npos) usleep(1000);
  shown({"set", "wan/1", "mtu=1400"});
  EXPECT_NE(watch.wait().out.find(" wan/1.mtu: 0 -> 1400\n"), std::string::npos);
}

TEST_F(OverlayTest, Fields_SayWhatTheOverlaySays) {
  const std::string fields = shown({"fields", "wan"});
  for (const char* line : {"mtu              unsigned       2       8  mtu              576 to "
                           "1500 bytes, default 1500\n",
                           "bits.c           bit            2      10  bits.c              -\n",
                           "psk              text          64     100  psk              matches ^[ "
                           "-~]{8,63}$, secret\n"}) {
    EXPECT_NE(fields.find(line), std::string::npos) << fields;
  }
}

TEST_F(OverlayTest, ADefaultThatIsNoNumber_IsATextInTheSchema) {
  const std::string overlay = use(overlay_of(R"(
      "a": {"at": 0, "kind": "unsigned", "size": 1, "default": "1x"},
      "b": {"at": 1, "kind": "signed", "size": 1, "default": -1})"));
  const std::string schema = run(scctl(with_overlay({"schema"}, overlay))).out;
  EXPECT_NE(schema.find("\"default\": \"1x\""), std::string::npos);
  EXPECT_NE(schema.find("\"default\": -1"), std::string::npos);
}

TEST_F(OverlayTest, Cover_CountsTheBytesWithoutANameAndEndsWithTheirNumber) {
  make_section();
  shown({"set", "wan/1", "mtu=1400", "psk=geheim 123"});
  EXPECT_EQ(shown({"overlay", "cover", "Wan"}), "bytes without a name: 0\n");
  block("Wan")[kWan + 300] = 1;
  block("Wan")[kWan + 302] = 1;
  block("Wan")[kWan + 6] = 0x30; /* two bits that no member has */
  EXPECT_EQ(outcome({"overlay", "cover", "Wan"}), (Outcome{1,
                                                           "wan/1.spare_10: 1 of 1 byte\n"
                                                           "wan/1.spare_252: 2 of 708 bytes\n"
                                                           "bytes without a name: 3\n",
                                                           ""}));
  EXPECT_EQ(run(scctl({"overlay", "cover", "Wan"})).out,
            "wan/1.settings: 19 of 956 bytes\nbytes without a name: 19\n");
  /* The last area, too; each area has spares in its header. */
  block("Wan")[kWan + 300] = block("Wan")[kWan + 302] = block("Wan")[kWan + 6] = 0;
  const uint32_t last = static_cast<uint32_t>(image("Clients").size()) - 1;
  const std::string before = outcome({"overlay", "cover", "Clients"}).out;
  block("Clients")[last] ^= 0x7f;
  const std::string after = outcome({"overlay", "cover", "Clients"}).out;
  EXPECT_NE(before, after);
  EXPECT_TRUE(outcome({"overlay", "cover"}).out.ends_with(after)) << after;
}

TEST_F(OverlayTest, AFolder_IsTakenBesidesAndABadFileOfItIsLeftOut) {
  make_section();
  /* In the sandbox of this test. */
  const std::string script =
      "mount -t tmpfs none /etc && mkdir -p /etc/sysconfig/overlays && cd /etc/sysconfig/overlays "
      "&&"
      "cp /var/vendor.json b.json && cp b.json c.json && echo '{' >a.json && echo x >notes.txt "
      "&& echo '{' >.b.json && \"$@\"";
  Words words = {"unshare", "-m", "sh", "-c", script, "sh"};
  const Words command = scctl({"batch"});
  words.insert(words.end(), command.begin(), command.end());
  const std::string left_out =
      "scctl: /etc/sysconfig/overlays/a.json:2: expected a string; the file is left out\n"
      "scctl: /etc/sysconfig/overlays/c.json: Wan.sections.settings and Wan.sections.settings of "
      "/etc/sysconfig/overlays/b.json name the same bytes; the file is left out\n";
  EXPECT_EQ(run(words, "get wan/1.mtu\nget wan/1.mtu\n"),
            (Outcome{0, "0\n0\ncommands done: 2\n", left_out}));
  const std::string other = use(
      R"({"overlay": 1, "types": {"t": {"size": 1}}, "at": {"ManageApList.aps.opaque_11800": "t"}})");
  const std::string line = "get wan/1.mtu --overlay " + other + "\n";
  EXPECT_EQ(run(words, line + "get wan/1.mtu\n" + line),
            (Outcome{0, "0\n0\n0\ncommands done: 3\n", left_out}));
}

TEST_F(OverlayTest, ABatch_HasTheOverlaysOfItsCallAndALineItsOwn) {
  make_section();
  const std::string other = use(overlay_of(R"("other": {"at": 4, "kind": "unsigned", "size": 2})"));
  EXPECT_EQ(shown({"batch"},
                  "set wan/1 mtu=1400\nget wan/1.other --overlay " + other + "\nget wan/1.mtu\n"),
            "1400\n1400\ncommands done: 3\n");
}

TEST_F(OverlayTest, Completion_HasTheMembers) {
  const Words typed[] = {{"get", "wan/1."}, {"get", "wan/1.bits."}};
  for (const Words& words : typed) {
    const std::string offered =
        done(joined({"completion", "words", "--overlay", kFile, "--"}, words));
    EXPECT_TRUE(offered.starts_with("wan/1.magic\nwan/1.mtu\nwan/1.bits.a\n")) << offered;
  }
}

TEST_F(OverlayTest, WithoutAHelper_AnImportSaysWhereItShouldBe) {
  /* A copy of scctl in a folder of its own. */
  Words words = scctl({});
  ASSERT_EQ(run({"cp", words.back(), "/var/scctl"}).status, 0);
  words.back() = "/var/scctl";
  words.insert(words.end(), {"overlay", "import", "x.o", "--at", "A=b"});
  const Outcome missing = run(words);
  EXPECT_EQ(missing.status, 3);
  EXPECT_EQ(
      missing.err.rfind("scctl: scctl-overlay-import, which reads object files, is neither at "
                        "/var/scctl-overlay-import nor at ",
                        0),
      0u)
      << missing.err;
  EXPECT_TRUE(missing.err.ends_with("/scctl-overlay-import: No such file or directory\n"))
      << missing.err;
  write_file("/var/scctl-overlay-import", "#!/bin/sh\necho \"$@\"\nexit 5\n");
  ASSERT_EQ(run({"chmod", "+x", "/var/scctl-overlay-import"}).status, 0);
  EXPECT_EQ(run(words), (Outcome{5, "x.o --at A=b\n", ""}));
  /* The one that is installed is the second choice. */
  const std::string script =
      "mount -t tmpfs none /usr/local/bin && printf '#!/bin/sh\\necho installed\\n' "
      ">/usr/local/bin/scctl-overlay-import && chmod +x /usr/local/bin/scctl-overlay-import && "
      "\"$@\"; rm -f /var/scctl-overlay-import; \"$@\"";
  Words sandbox = {"unshare", "-m", "sh", "-c", script, "sh"};
  sandbox.insert(sandbox.end(), words.begin(), words.end());
  EXPECT_EQ(run(sandbox).out, "x.o --at A=b\ninstalled\n");
}

}  // namespace
}  // namespace sc_test
