/* Exports and imports with overlays: whatever the bytes are, they come back. */
#include <stdlib.h>

#include "scctl/overlay_case.h"
#include "support/random.h"

namespace sc_test {
namespace {

class OverlayImportTest : public OverlayTest {
 protected:
  /* Random bytes in all fields; conditions hold as often as they do not. */
  void randomize(Random& random) {
    uint8_t* wan = block("Wan");
    for (int section = 0; section < 4; ++section) {
      uint8_t* settings = wan + kWan + 960 * section;
      const uint32_t kind = random.below(3); /* random, sparse, or text */
      for (int n = 0; n < 956; ++n) {
        settings[n] = static_cast<uint8_t>(kind == 0   ? random.next()
                                           : kind == 1 ? (random.one_in(16) ? random.next() : 0)
                                                       : 32 + random.below(96));
      }
      const uint32_t magic = kMagic;
      if (!random.one_in(8)) memcpy(settings, &magic, sizeof magic);
      const uint32_t mode = random.below(4), family = random.below(8);
      if (random.one_in(2)) memcpy(settings + 8, &mode, sizeof mode);
      if (random.one_in(2)) memcpy(settings + 244, &family, sizeof family);
      if (random.one_in(2)) settings[28] = static_cast<uint8_t>(random.below(10));
      if (random.one_in(2)) settings[64] = static_cast<uint8_t>(random.below(6));
    }
    for (int n = 3976; n < 4476; ++n) wan[n] = static_cast<uint8_t>(random.next());
  }
};

/* SC_TEST_IMAGES=10000 is the long form. */
TEST_F(OverlayImportTest, RandomImages_ComeBackFromTheirExports) {
  const char* asked = getenv("SC_TEST_IMAGES");
  const int count = asked != nullptr ? atoi(asked) : 60;
  const Image empty = image("Wan");
  Random random;
  for (int n = 0; n < count && !HasFailure(); ++n) {
    randomize(random);
    const Image expected = image("Wan");
    const std::string file = shown({"export", "Wan", "--secrets"});
    memcpy(block("Wan"), empty.data(), empty.size());
    shown({"import", "-"}, file);
    EXPECT_TRUE(expected.matches(block("Wan"))) << "image " << n;
  }
}

/* The values that are there are no part of what is checked. */
TEST_F(OverlayImportTest, RangesNamesAndPatterns_AreForValuesThatReplaceOthers) {
  make_section();
  const auto with_mtu = [&](const std::string& mtu) {
    return "{\"Wan\": {\"wan\": [{\"id\": 1, \"magic\": 1463897669, \"mtu\": " + mtu +
           ", \"mode\": 9, \"psk\": \"short\"}]}}";
  };
  shown({"import", "-"}, with_mtu("100")); /* into zeros */
  shown({"import", "-"}, with_mtu("100")); /* equal */
  EXPECT_EQ(outcome({"import", "-"}, with_mtu("101")),
            (Outcome{1, "", "scctl: wan/1.mtu: it is out of range\n"}));
  EXPECT_EQ(outcome({"import", "-", "--dry-run"}, with_mtu("101")).status, 1);
  shown({"import", "-"}, with_mtu("1400"));
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1400\n");
  EXPECT_EQ(shown({"get", "wan/1.mode"}), "9\n");
  /* Typed, they are checked wherever they change something. */
  EXPECT_EQ(outcome({"set", "wan/1", "mtu=1501"}).err,
            "scctl: wan.mtu: '1501': it is out of range\n");
  EXPECT_EQ(outcome({"set", "wan/1", "mode=8"}).err, "scctl: wan.mode: '8': it has no name\n");
  shown({"set", "wan/1", "mode=9"});
  EXPECT_EQ(outcome({"set", "wan/1", "psk=shorter"}).err,
            "scctl: wan.psk: '<secret>': it does not match the pattern\n");
  shown({"set", "wan/1", "psk=short", "mtu:hex=0100"});
  EXPECT_EQ(shown({"get", "wan/1.mtu"}), "1\n");
}

TEST_F(OverlayImportTest, NamesThatTheRecordDoesNotHave_AreErrorsOfTheirLines) {
  const std::string file =
      "{\"Wan\": {\"wan\": [{\"id\": 1, \"magic\": 1463897669,\n \"mode\": \"dhcp\",\n \"peer\": "
      "\"1.2.3.4\"}]}}";
  EXPECT_EQ(outcome({"import", "-"}, file).err,
            "scctl: stdin:3: wan/1 has no field 'peer'; mode is dhcp, peer needs 7 or pppoe\n");
  EXPECT_EQ(outcome({"import", "-"}, "{\"Wan\": {\"wan\": [{\"id\": 1, \"mtu\": 600}]}}").err,
            "scctl: stdin:1: wan/1 has no field 'mtu'; settings: magic is 0, wan_section needs "
            "1463897669\n");
  EXPECT_EQ(outcome({"import", "-"},
                    "{\"Wan\": {\"wan\": [{\"id\": 1, \"magic\": 1463897669, \"mtu\": "
                    "600, \"mtu\": 600}]}}")
                .err,
            "scctl: stdin:1: wan: a record has mtu twice\n");
}

TEST_F(OverlayImportTest, NamesOfOneByteThatDisagree_AreRefused) {
  const std::string overlay = use(
      R"({"overlay": 1, "types": {"t": {"size": 4, "union": true, "members": {
          "word": {"at": 0, "kind": "unsigned", "size": 4},
          "byte": {"at": 0, "kind": "unsigned", "size": 1}}}},
          "at": {"Wan.sections/1.settings": "t"}})");
  const auto import = [&](const std::string& members) {
    return run(scctl(with_overlay({"import", "-"}, overlay)),
               "{\"Wan\": {\"wan\": [{\"id\": 1, " + members + "}]}}");
  };
  EXPECT_EQ(import("\"word\": 258, \"byte\": 2").status, 0);
  EXPECT_EQ(import("\"word\": 258, \"byte\": 3").err,
            "scctl: stdin:1: wan/1.word: another name of its bytes has another value\n");
  EXPECT_EQ(run(scctl(with_overlay({"set", "wan/1", "word=258", "byte=3"}, overlay))).err,
            "scctl: wan/1.word: another name of its bytes has another value\n");
}

TEST_F(OverlayImportTest, ARenamedMember_IsTakenFromTheOtherVersion) {
  make_section();
  shown({"set", "wan/1", "mtu=1400", "radio_count=2", "radio[1].channel=6"});
  const std::string file = shown({"export", "Wan", "--secrets"});
  std::string other = kVendor;
  other.replace(other.find("\"mtu\""), 5, "\"link_mtu\"");
  other.replace(other.find("\"radio\": {\"at\""), 7, "\"wifi\"");
  const std::string path = use(other);
  write_file("/var/names.json", R"({"wan.mtu": "wan.link_mtu", "wan.radio": "wan.wifi"})");
  const Image expected = image("Wan");
  done({"set", "wan/1", "settings="});
  const Words import = with_overlay({"import", "-"}, path);
  EXPECT_EQ(run(scctl(import), file).status, 1);
  Words renaming = import;
  renaming.insert(renaming.end(), {"--rename", "/var/names.json"});
  EXPECT_EQ(run(scctl(renaming), file).status, 0);
  EXPECT_TRUE(expected.matches(block("Wan")));
  write_file("/var/names.json", R"({"wan.mtu": "aps.link_mtu"})");
  EXPECT_EQ(run(scctl(renaming), file).err,
            "scctl: /var/names.json:1: expected \"TABLE.NAME\": \"TABLE.NAME\" of one table\n");
  write_file("/var/names.json", "[]");
  EXPECT_EQ(run(scctl(renaming), file).err,
            "scctl: /var/names.json:1: no { where an object begins\n");
}

/* The same values under other offsets are no difference; a value that one of them lacks is. */
TEST_F(OverlayImportTest, TwoOverlays_AreComparedByTheNames) {
  const std::string one = overlay_of(R"("mtu": {"at": 4, "kind": "unsigned", "size": 2},
      "name": {"at": 8, "kind": "text", "size": 8}, "old": {"at": 16, "kind": "unsigned", "size": 1})");
  const std::string two = overlay_of(R"("name": {"at": 20, "kind": "text", "size": 16},
      "mtu": {"at": 40, "kind": "unsigned", "size": 4}, "new": {"at": 44, "kind": "unsigned", "size": 1})");
  write_file("/var/one.json", one);
  write_file("/var/two.json", two);
  run(scctl(with_overlay({"set", "wan/1", "mtu=1400", "name=a", "old=3"}, "/var/one.json")));
  write_file("/var/image", std::string(reinterpret_cast<char*>(block("Wan")), 4476));
  done({"set", "wan/1", "settings="});
  run(scctl(with_overlay({"set", "wan/1", "mtu=1400", "name=b", "new=4"}, "/var/two.json")));
  EXPECT_EQ(run(scctl({"diff", "/var/image@/var/one.json", "live@/var/two.json"})),
            (Outcome{1,
                     "wan/1.name: a -> b\n"
                     "wan/1.new: (none) -> 4\n"
                     "wan/1.old: 3 -> (none)\n",
                     ""}));
  /* A command has one name for a member. */
  const Outcome refused = {
      2, "", "scctl: commands have the names of --overlay FILE alone, not of @OVERLAY\n"};
  EXPECT_EQ(run(scctl({"diff", "/var/image@/var/one.json", "live", "--commands"})), refused);
  EXPECT_EQ(run(scctl({"diff", "/var/image", "live@/var/two.json", "--commands"})), refused);
}

TEST_F(OverlayImportTest, AnImport_MayBeLargerWithOverlays) {
  const std::string blanks(49u << 20, ' ');
  EXPECT_EQ(run(scctl({"import", "-"}), blanks + "{}").err, "scctl: stdin: more than 48 MiB\n");
  EXPECT_EQ(shown({"import", "-"}, blanks + "{}"), "tables changed: 0\n");
}

}  // namespace
}  // namespace sc_test
