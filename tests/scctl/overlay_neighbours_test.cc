/* Overlays beside each other: members of one byte, types of several tables, and names that meet. */
#include "scctl/overlay_case.h"

namespace sc_test {
namespace {

/* Two bit-fields of one byte; the first of them is a secret. */
class OverlayNeighboursTest : public OverlayTest {
 protected:
  void SetUp() override {
    OverlayTest::SetUp();
    bits_ = use(overlay_of(R"(
        "pin": {"at": 0, "kind": "bit", "bit": 0, "width": 3, "secret": true},
        "low": {"at": 0, "kind": "bit", "bit": 3, "width": 2})"));
    block("Wan")[kWan] = 0x8d;
  }
  Outcome with(Words words, const std::string& input = "") {
    return run(scctl(with_overlay(words, bits_)), input);
  }
  std::string bits_;
};

TEST_F(OverlayNeighboursTest, BitsBesideASecret_AreShown) {
  EXPECT_EQ(with({"get", "wan/1.spare_4"}).out, "80\n");
  EXPECT_EQ(with({"get", "wan/1.low"}).out, "1\n");
  EXPECT_EQ(with({"get", "wan/1.pin"}).out, "<secret>\n");
}

TEST_F(OverlayNeighboursTest, ASecretThatStays_LeavesTheBitsBesideIt) {
  std::string file = with({"export", "Wan"}).out;
  file.replace(file.find("\"low\": 1"), 8, "\"low\": 2");
  EXPECT_EQ(with({"import", "-"}, file).status, 0);
  EXPECT_EQ(block("Wan")[kWan], 0x95);
}

TEST_F(OverlayNeighboursTest, HexDigitsOfAnothersBits_AreRefused) {
  EXPECT_EQ(with({"set", "wan/1", "spare_4=88"}).err,
            "scctl: wan.spare_4: '88' is not a valid row of hex digits, two for each byte\n");
  EXPECT_EQ(with({"set", "wan/1", "low:hex=20"}).status, 1);
  EXPECT_EQ(with({"set", "wan/1", "low:hex=18", "spare_4=60"}), (Outcome{0, "", ""}));
  EXPECT_EQ(block("Wan")[kWan], 0x7d);
}

TEST_F(OverlayNeighboursTest, NamedBitsBesideNamelessOnes_AreNotCounted) {
  EXPECT_EQ(with({"overlay", "cover", "Wan"}).out,
            "wan/1.spare_4: 1 of 1 byte\nbytes without a name: 1\n");
  block("Wan")[kWan] = 0x0d;
  EXPECT_EQ(with({"overlay", "cover", "Wan"}), (Outcome{0, "bytes without a name: 0\n", ""}));
}

/* A byte that goes back with one of its members tears the other one, which stays. */
TEST_F(OverlayNeighboursTest, AByteOfTwoMembers_StaysForBothWhenOneStays) {
  const std::string overlay = use(overlay_of(R"(
      "low": {"at": 0, "kind": "bit", "bit": 0, "width": 3},
      "wide": {"at": 0, "kind": "bit", "bit": 6, "width": 6})"));
  const auto call = [&](const Words& words) { return run(scctl(with_overlay(words, overlay))); };
  EXPECT_EQ(call({"set", "wan/1", "low=2", "wide=33"}).status, 0);
  const uint8_t first = block("Wan")[kWan];
  block("Wan")[kWan + 1] ^= 4; /* of wide, by another program */
  const Outcome undone = call({"undo"});
  EXPECT_EQ(undone.status, 1) << undone;
  EXPECT_NE(undone.out.find("wan/1.wide: it was changed since; it stays\n"), std::string::npos)
      << undone;
  EXPECT_EQ(block("Wan")[kWan], first);
}

/* Types without a condition, at two tables. */
TEST_F(OverlayNeighboursTest, TwoTables_HaveTheirOwnMembersAndSecrets) {
  const std::string overlay = use(
      R"({"overlay": 1, "types": {
          "t": {"size": 16, "members": {
            "psk": {"at": 0, "kind": "text", "size": 8, "secret": true}}},
          "u": {"size": 16, "members": {
            "channel": {"at": 0, "kind": "unsigned", "size": 1},
            "key": {"at": 8, "kind": "text", "size": 8, "secret": true}}}},
          "at": {"Wan.sections.settings": "t", "ManageApList.aps.opaque_11800": "u"}})");
  const auto with = [&](const Words& words) { return scctl(with_overlay(words, overlay)); };
  done({"add", "aps/1", "ap_mac=02:00:00:00:00:01"});
  EXPECT_EQ(run(with({"set", "aps/1", "channel=6", "key=second"})), (Outcome{0, "", ""}));
  EXPECT_EQ(run(with({"set", "wan/1", "psk=first"})), (Outcome{0, "", ""}));
  const std::string file = run(with({"export", "Wan", "ManageApList"})).out;
  EXPECT_NE(file.find("\"psk\": null"), std::string::npos);
  EXPECT_NE(file.find("\"channel\": 6, "), std::string::npos);
  EXPECT_NE(file.find("\"key\": null"), std::string::npos);
  EXPECT_EQ(run(with({"import", "-"}), file).out, "tables changed: 0\n");
  EXPECT_EQ(run(with({"get", "aps/1.key", "--secrets"})).out, "second\n");
}

TEST_F(OverlayNeighboursTest, ATypeOfAllRecordsBehindThatOfOne_IsRefused) {
  EXPECT_EQ(refused(R"({"overlay": 1, "types": {"t": {"size": 1}},
                        "at": {"Wan.sections/2.settings": "t", "Wan.sections.settings": "t"}})"),
            "scctl: /var/other.json: Wan.sections.settings and Wan.sections/2.settings of "
            "/var/other.json name the same bytes\n");
}

TEST_F(OverlayNeighboursTest, ANameOfAllRecordsAndOfOne_IsTakenForTheSecond) {
  for (const std::string places :
       {R"("ManageApList.aps/2.opaque_11792": "t", "ManageApList.aps.opaque_11800": "t")",
        R"("ManageApList.aps.opaque_11792": "t", "ManageApList.aps/2.opaque_11800": "t")"}) {
    const std::string overlay = use(
        R"({"overlay": 1, "types": {"t": {"size": 1, "members": {
            "value": {"at": 0, "kind": "unsigned", "size": 1}}}}, "at": {)" +
        places + "}}");
    const auto with = [&](const Words& words) { return scctl(with_overlay(words, overlay)); };
    done({"add", "aps/2", "ap_mac=02:00:00:00:00:02"});
    EXPECT_EQ(run(with({"set", "aps/2", "value=1", "opaque_11800.value=2"})), (Outcome{0, "", ""}));
    const uint8_t* record = block("ManageApList") + 136 + 12304;
    EXPECT_EQ(record[11792], 1);
    EXPECT_EQ(record[11800], 2);
    done({"del", "aps/2"});
  }
}

TEST_F(OverlayNeighboursTest, AMemberThatStandsTwice_IsRefused) {
  EXPECT_EQ(refused(overlay_of(R"("a": {"at": 0, "kind": "unsigned", "size": 1},
                                  "a": {"at": 1, "kind": "unsigned", "size": 1})")),
            "scctl: /var/other.json:2: t.a appears twice\n");
}

TEST_F(OverlayNeighboursTest, AnArray_HasAtMostFourDimensions) {
  const auto with_count = [](const std::string& count) {
    return overlay_of(R"("a": {"at": 0, "kind": "unsigned", "size": 1, "count": )" + count + "}");
  };
  EXPECT_EQ(refused(with_count("[1, 1, 1, 1, 1]")),
            "scctl: /var/other.json:1: expected a number of elements up to 65535, or up to 4 of "
            "them\n");
  block("Wan")[kWan + 15] = 7;
  EXPECT_EQ(
      run(scctl(with_overlay({"get", "wan/1.a[1][1][1]"}, use(with_count("[2, 2, 2, 2]"))))).out,
      "0,7\n");
}

}  // namespace
}  // namespace sc_test
