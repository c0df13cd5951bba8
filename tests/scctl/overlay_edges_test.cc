/* Overlays at their edges: contents that mislead, and files that are not good. */
#include "scctl/overlay_case.h"

namespace sc_test {
namespace {

TEST_F(OverlayTest, ATextThatFillsItsField_IsShownAndTakenWhole) {
  make_section();
  const std::string full(64, 'x');
  Image expected = image("Wan");
  expected.put(kWan + 96, full);
  shown({"set", "wan/1", "psk:hex=" + [] {
           std::string hex;
           for (int n = 0; n < 64; ++n) hex += "78";
           return hex;
         }()});
  EXPECT_TRUE(expected.matches(block("Wan")));
  EXPECT_EQ(shown({"get", "wan/1.psk", "--secrets"}), full + "\n");
  shown({"set", "wan/1", "names[0][0]=0123456789"});
  EXPECT_EQ(shown({"get", "wan/1.names[0][0]"}), "0123456789\n");
  EXPECT_EQ(shown({"get", "wan/1.names[0][1]"}), "\n");
  EXPECT_EQ(outcome({"set", "wan/1", "names[0][0]=0123456789a"}).err,
            "scctl: wan.names[0][0]: 11 bytes, at most 10 fit\n");
}

TEST_F(OverlayTest, AUnionWhoseTagIsOutOfRange_HasNoMemberAndLosesNoByte) {
  make_section();
  shown({"set", "wan/1", "address.family=99"});
  memcpy(block("Wan") + kWan + 248, "\1\2\3", 3);
  const std::string json = shown({"get", "wan/1", "--json"});
  EXPECT_EQ(json.find("address.u."), std::string::npos);
  EXPECT_NE(json.find("\"spare_252\": \"010203\""), std::string::npos) << json;
}

TEST_F(OverlayTest, BitsOfBothProcessors_HaveTheirOrder) {
  make_section();
  const std::string overlay = use(overlay_of(R"(
      "low": {"at": 8, "kind": "bit", "bit": 0, "width": 3},
      "rest": {"at": 8, "kind": "bit", "bit": 3, "width": 13},
      "high": {"at": 10, "kind": "bit", "bit": 0, "width": 3, "order": "big"},
      "tail": {"at": 10, "kind": "bit", "bit": 3, "width": 13, "order": "big"},
      "wide": {"at": 12, "kind": "bit", "bit": 5, "width": 64, "signed": true})"));
  run(scctl(with_overlay(
      {"set", "wan/1", "low=5", "rest=4660", "high=5", "tail=4660", "wide=-81985529216486896"},
      overlay)));
  const uint8_t* settings = block("Wan") + kWan;
  EXPECT_EQ(settings[8], 0xa5); /* 4660 << 3 | 5 = 0x91a5 */
  EXPECT_EQ(settings[9], 0x91);
  EXPECT_EQ(settings[10], 0xb2); /* 5 << 13 | 4660 = 0xb234, the first byte first */
  EXPECT_EQ(settings[11], 0x34);
  EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1.wide"}, overlay))).out, "-81985529216486896\n");
  EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1.tail"}, overlay))).out, "4660\n");
  EXPECT_EQ(settings[12] & 0x1f, 0);
  EXPECT_EQ(settings[20] >> 5, 0);
}

TEST_F(OverlayTest, AnArrayThatACountExceeds_EndsWhereItEnds) {
  make_section();
  shown({"set", "wan/1", "port_count=3", "ports=1,2,3", "radio_count=200"});
  EXPECT_EQ(shown({"get", "wan/1.ports"}), "1,2,3\n");
  EXPECT_EQ(shown({"get", "wan/1.radio[3].channel"}), "0\n");
  EXPECT_EQ(outcome({"get", "wan/1.radio[4].channel"}).status, 1);
  shown({"set", "wan/1", "port_count=250"});
  EXPECT_EQ(shown({"get", "wan/1.ports"}), "1,2,3,0,0,0,0,0\n");
  EXPECT_EQ(outcome({"set", "wan/1", "ports=1,2,3"}).err,
            "scctl: wan.ports: '1,2,3' is not 8 numbers with commas between them\n");
  shown({"set", "wan/1", "port_count=1"});
  EXPECT_NE(shown({"get", "wan/1", "--json"}).find("\"ports\": [1]"), std::string::npos);
  EXPECT_NE(shown({"get", "wan/1", "--json"}).find("\"spare_18\": \"020003\""), std::string::npos);
}

TEST_F(OverlayTest, AnUnknownNumberOfAnEnum_IsShownAndTakenBack) {
  make_section();
  block("Wan")[kWan + 8] = 77;
  EXPECT_EQ(shown({"get", "wan/1.mode"}), "77\n");
  const std::string file = shown({"export", "Wan"});
  EXPECT_NE(file.find("\"mode\": 77"), std::string::npos);
  EXPECT_EQ(shown({"import", "-"}, file), "tables changed: 0\n");
  std::string named = file;
  named.replace(named.find("\"mode\": 77"), 10, "\"mode\": \"dhcp\"");
  shown({"import", "-"}, named);
  EXPECT_EQ(shown({"get", "wan/1.mode"}), "dhcp\n");
  named.replace(named.find("\"dhcp\""), 6, "\"dhcq\"");
  EXPECT_EQ(outcome({"import", "-"}, named).err,
            "scctl: stdin:4: wan.mode: 'dhcq' is neither a name nor a number\n");
}

TEST_F(OverlayTest, ANameWhoseNumberDoesNotFit_IsRefused) {
  const std::string overlay = use(
      R"({"overlay": 1, "enums": {"e": {"small": 44, "big": 300, "two": 2, "six": 6}},
          "types": {"t": {"size": 8, "members": {
            "a": {"at": 0, "kind": "enum", "size": 1, "names": "e"},
            "b": {"at": 1, "kind": "bit", "bit": 0, "width": 2, "names": "e"}}}},
          "at": {"Wan.sections/1.settings": "t"}})");
  const auto with = [&](const Words& words) { return scctl(with_overlay(words, overlay)); };
  EXPECT_EQ(run(with({"set", "wan/1", "a=small"})), (Outcome{0, "", ""}));
  EXPECT_EQ(run(with({"set", "wan/1", "a=big"})),
            (Outcome{1, "", "scctl: wan.a: 'big' needs more than 8 bits\n"}));
  EXPECT_EQ(run(with({"set", "wan/1", "b=six"})),
            (Outcome{1, "", "scctl: wan.b: 'six' needs more than 2 bits\n"}));
  EXPECT_EQ(run(with({"set", "wan/1", "b=two"})), (Outcome{0, "", ""}));
  EXPECT_EQ(run(with({"get", "wan/1.b"})).out, "two\n");
}

TEST_F(OverlayTest, ANameThatIsTaken_HasItsFieldInFront) {
  const std::string overlay = use(
      R"({"overlay": 1, "types": {"t": {"size": 8, "members": {
          "id": {"at": 0, "kind": "unsigned", "size": 1},
          "group_id": {"at": 1, "kind": "unsigned", "size": 1},
          "value": {"at": 2, "kind": "unsigned", "size": 1, "if": {"id": 7}},
          "spare_11805": {"at": 3, "kind": "unsigned", "size": 1}}},
        "u": {"size": 4, "members": {"value": {"at": 0, "kind": "unsigned", "size": 1}}}},
        "at": {"ManageApList.aps.opaque_11792": "u", "ManageApList.aps.opaque_11800": "t"}})");
  const auto with = [&](const Words& words) { return scctl(with_overlay(words, overlay)); };
  EXPECT_EQ(run(with({"add", "aps/2", "ap_mac=02:00:00:00:00:02", "group_id=3", "value=4",
                      "opaque_11800.id=7", "opaque_11800.group_id=5", "opaque_11800.value=6",
                      "opaque_11800.spare_11805=8"}))
                .status,
            0);
  const uint8_t* record = block("ManageApList") + 136 + 12304;
  EXPECT_EQ(record[348], 3);
  EXPECT_EQ(record[11792], 4);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(record) + 11800, 4), "\7\5\6\10");
  const std::string file = run(with({"export", "ManageApList"})).out;
  done({"clear", "aps"});
  EXPECT_EQ(run(with({"import", "-"}), file).status, 0);
  EXPECT_EQ(run(with({"export", "ManageApList"})).out, file);
}

TEST_F(OverlayTest, ALongName_IsAColumnAsWideAsItIs) {
  const std::string name(60, 'n');
  const std::string overlay =
      use(overlay_of("\"" + name + R"(": {"at": 0, "kind": "unsigned", "size": 1},
      "b": {"at": 1, "kind": "unsigned", "size": 1})"));
  EXPECT_EQ(run(scctl(with_overlay({"list", "wan"}, overlay))).out,
            "id   " + name + "  b\n1    0" + std::string(61, ' ') +
                "0\n2\n3\n4\n(4 of 4 records; 1 more field: scctl get)\n");
}

TEST_F(OverlayTest, TheOpaquePartOfAListsRecord_HasMembersAmongTheFields) {
  const std::string overlay = use(
      R"({"overlay": 1, "types": {"t": {"size": 504, "members": {
          "channel": {"at": 0, "kind": "unsigned", "size": 1, "range": [1, 13]}}}},
          "at": {"ManageApList.aps/3.opaque_11800": "t"}})");
  const auto with = [&](const Words& words) { return scctl(with_overlay(words, overlay)); };
  done({"add", "aps/2", "ap_mac=02:00:00:00:00:02"});
  Image expected = image("ManageApList");
  Listener listener;
  EXPECT_EQ(run(with({"add", "aps/3", "ap_mac=02:00:00:00:00:03", "channel=6"})).status, 0);
  const size_t record = 136 + 2 * 12304;
  expected.put(record + 236, std::string("\2\0\0\0\0\3", 6)).put32(record + 11788, 3);
  expected.put8(record + 11800, 6);
  EXPECT_TRUE(expected.matches(block("ManageApList")));
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{14});
  EXPECT_EQ(run(with({"get", "aps/3.channel"})).out, "6\n");
  EXPECT_EQ(run(with({"get", "aps/2.channel"})).err,
            "scctl: aps has no field 'channel'; scctl fields aps lists them\n");
  EXPECT_EQ(run(with({"find", "aps", "channel=6", "--commands"})).out,
            "scctl add aps/3 ap_mac=02:00:00:00:00:03 channel=6\n");
  EXPECT_EQ(run(with({"add", "aps/4", "ap_mac=02:00:00:00:00:04", "channel=6"})).status, 1);
  EXPECT_EQ(run(with({"set", "aps/3", "channel=14"})).err,
            "scctl: aps.channel: '14': it is out of range\n");
}

/* ---- files that are not good ---- */

TEST_F(OverlayTest, WhatIsNoOverlay_IsRefusedByOneLine) {
  EXPECT_EQ(refused("x"), "scctl: /var/other.json:1: no { where an object begins\n");
  EXPECT_EQ(refused(""), "scctl: /var/other.json:1: no { where an object begins\n");
  EXPECT_EQ(refused("{}"), "scctl: /var/other.json:1: no overlay: \"overlay\": 1 is missing\n");
  EXPECT_EQ(refused("{\"overlay\": 1} x"),
            "scctl: /var/other.json:1: unexpected text after the end\n");
  EXPECT_EQ(refused("{\"overlay\": 2}"), "scctl: /var/other.json:1: expected a number up to 1\n");
  EXPECT_EQ(refused("{\"overlay\": 1,\n\"order\": \"big\"}"),
            "scctl: /var/other.json:2: it is of a big-endian processor\n");
  EXPECT_EQ(refused("{\"overlay\": 1, \"color\": 1}"),
            "scctl: /var/other.json:1: an overlay has no 'color'\n");
  EXPECT_EQ(refused(overlay_of(R"("a": {"at": 0, "kind": "unsigned", "size": 1, "secrte": true})")),
            "scctl: /var/other.json:1: a member has no 'secrte'\n");
  EXPECT_EQ(refused(std::string(257 * 1024, ' ')),
            "scctl: /var/other.json: no file of at most 256 KB\n");
  EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1"}, "/var/none.json"))),
            (Outcome{1, "", "scctl: /var/none.json: No such file or directory\n"}));
  EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1"}, "/var"))).err,
            "scctl: /var: no file of at most 256 KB\n");
  /* Nobody writes into it. */
  ASSERT_EQ(run({"mkfifo", "/var/pipe.json"}).status, 0);
  Words words = {"timeout", "20"};
  const Words command = scctl(with_overlay({"get", "wan/1"}, "/var/pipe.json"));
  words.insert(words.end(), command.begin(), command.end());
  EXPECT_EQ(run(words), (Outcome{1, "", "scctl: /var/pipe.json: no file of at most 256 KB\n"}));
}

TEST_F(OverlayTest, APatternThatIsTooLarge_IsRefusedByOneLine) {
  const auto with = [](const std::string& pattern) {
    return overlay_of(R"("a": {"at": 0, "kind": "text", "size": 64, "pattern": ")" + pattern +
                      "\"}");
  };
  for (const std::string& pattern :
       {std::string(60000, '('), std::string(256, 'a'), std::string("((a{1,99}){1,99}){1,99}"),
        std::string("((a{99,}){99}){99,}"), std::string("((a{,99}){,99}){,99}")}) {
    EXPECT_EQ(refused(with(pattern)), "scctl: /var/other.json:1: the pattern is too large\n");
  }
  for (const std::string& pattern :
       {std::string(255, 'a'), std::string("^([ -~]{8,63}|[0-9a-fA-F]{64})$"),
        std::string("a{0}a{x}a{,}a{1,}")}) {
    EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1.a"}, use(with(pattern))))),
              (Outcome{0, "\n", ""}));
  }
}

TEST_F(OverlayTest, AConditionWithoutAValue_IsRefusedByOneLine) {
  EXPECT_EQ(refused(overlay_of(R"("a": {"at": 0, "kind": "unsigned", "size": 1, "if": {"b": []}},
                                  "b": {"at": 1, "kind": "unsigned", "size": 1})")),
            "scctl: /var/other.json:1: a condition needs a value\n");
}

TEST_F(OverlayTest, AMemberUnderTwoConditions_SaysTheOuterOneFirst) {
  memset(block("Wan") + kWan, 0, 956);
  const std::string overlay = use(overlay_of(R"("mode": {"at": 0, "kind": "unsigned", "size": 1},
      "in": {"at": 4, "type": "u", "if": {"mode": 1}})",
                                             956, R"(, "u": {"size": 8, "members": {
      "form": {"at": 0, "kind": "unsigned", "size": 1},
      "x": {"at": 4, "kind": "unsigned", "size": 1, "if": {"form": 2}}}})"));
  const auto why = [&](const Words& words) { return run(scctl(with_overlay(words, overlay))).err; };
  const std::string begin = "scctl: wan/1 has no field 'in.x'; ";
  EXPECT_EQ(why({"get", "wan/1.in.x"}), begin + "mode is 0, in.x needs 1\n");
  EXPECT_EQ(why({"set", "wan/1", "in.x=1"}), begin + "mode is 0, in.x needs 1\n");
  EXPECT_EQ(why({"set", "wan/1", "mode=1", "in.x=1"}), begin + "in.form is 0, in.x needs 2\n");
  EXPECT_EQ(why({"set", "wan/1", "mode=1", "in.form=2", "in.x=1"}), "");
}

TEST_F(OverlayTest, AnAttributeOfAnotherKind_IsRefusedByOneLine) {
  const auto why = [&](const std::string& member) {
    const std::string said = refused(overlay_of("\"a\": {\"at\": 0, " + member + "}"));
    const std::string begin = "scctl: /var/other.json: t.a: ";
    EXPECT_TRUE(said.starts_with(begin)) << said;
    return said.substr(std::min(begin.size(), said.size()));
  };
  for (const char* kind : {"text", "bytes", "mac", "address"}) {
    const std::string of_kind = std::string(R"("size": 8, "kind": ")") + kind + '"';
    EXPECT_EQ(why(of_kind + R"(, "range": [1, 2])"), "only a number has names or a range\n");
    EXPECT_EQ(why(of_kind + R"(, "names": "e")"), "only a number has names or a range\n");
  }
  EXPECT_EQ(why(R"("kind": "unsigned", "size": 1, "pattern": "a")"), "only a text has a pattern\n");
  EXPECT_EQ(why(R"("kind": "mac text", "size": 18, "pattern": "a")"),
            "only a text has a pattern\n");
  for (const char* kind : {"\"unsigned\"", "\"signed\""}) {
    const std::string number = std::string(R"("size": 8, "kind": )") + kind;
    EXPECT_EQ(why(number + R"(, "range": [2, 1])"), "its range ends before it begins\n");
    use(overlay_of("\"a\": {\"at\": 0, " + number + R"(, "range": [1, 1]})"));
    EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1.a"}, "/var/other.json"))).status, 0) << kind;
  }
  EXPECT_EQ(why(R"("kind": "unsigned", "size": 8, "range": [9223372036854775808, 1])"),
            "its range ends before it begins\n");
  EXPECT_EQ(why(R"("kind": "signed", "size": 8, "range": [1, -1])"),
            "its range ends before it begins\n");
  EXPECT_EQ(why(R"("kind": "bytes", "size": 1, "used": "b")"),
            "it is no array, and is not counted\n");
}

TEST_F(OverlayTest, WhatLiesOutside_IsRefusedByOneLine) {
  const auto member = [](const std::string& text) { return overlay_of("\"a\": {" + text + "}"); };
  EXPECT_EQ(refused(member(R"("at": 956, "kind": "unsigned", "size": 1)")),
            "scctl: /var/other.json: t.a: it ends behind its type\n");
  EXPECT_EQ(refused(member(R"("at": 952, "kind": "unsigned", "size": 8)")),
            "scctl: /var/other.json: t.a: it ends behind its type\n");
  EXPECT_EQ(refused(member(R"("at": 4294967295, "kind": "unsigned", "size": 8)")),
            "scctl: /var/other.json:1: expected a number up to 65535\n");
  EXPECT_EQ(refused(member(R"("at": 0, "kind": "unsigned", "size": 1, "count": 2147483648)")),
            "scctl: /var/other.json:1: expected a number of elements up to 65535, or up to 4 of "
            "them\n");
  EXPECT_EQ(
      refused(member(R"("at": 0, "kind": "bytes", "size": 65535, "count": [65535, 65535, 65535])")),
      "scctl: /var/other.json: t.a: it ends behind its type\n");
  EXPECT_EQ(refused(member(R"("at": 0, "kind": "bit", "bit": 524279, "width": 64)")),
            "scctl: /var/other.json: t.a: it ends behind its type\n");
  EXPECT_EQ(refused(overlay_of("", 957)),
            "scctl: /var/other.json: Wan.sections/1.settings: the type is larger than the field\n");
  for (const char* place : {"Wan.sections/5.settings", "Wan.sections/0.settings", "Wan", "Wan.",
                            "Wan.sections.lock_index", "Nowhere.sections.settings",
                            "Wan.sections/1x.settings", "Lan.lan_binds.bind_mac"}) {
    EXPECT_EQ(refused(std::string(R"({"overlay": 1, "types": {"t": {"size": 1}}, "at": {")") +
                      place + R"(": "t"}})"),
              "scctl: /var/other.json: " + std::string(place) +
                  ": there is no such field of opaque bytes\n");
  }
}

TEST_F(OverlayTest, ASizeThatAKindCannotHave_IsRefusedByOneLine) {
  for (const char* kind :
       {R"("kind": "unsigned", "size": 9)", R"("kind": "signed")", R"("kind": "text", "size": 0)",
        R"("kind": "mac text", "size": 16)", R"("kind": "enum", "size": 16)",
        R"("kind": "mac", "size": 5)", R"("kind": "address", "size": 16)"}) {
    EXPECT_EQ(refused(overlay_of("\"a\": {\"at\": 0, " + std::string(kind) + "}")),
              "scctl: /var/other.json: t.a: its kind has no such size\n");
  }
  /* One that has its own. */
  const std::string overlay = use(overlay_of(R"("a": {"at": 0, "kind": "mac text", "size": 17},
      "b": {"at": 20, "kind": "mac"}, "c": {"at": 26, "kind": "unsigned", "size": 3})"));
  EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1.b"}, overlay))).out, "00:00:00:00:00:00\n");
}

TEST_F(OverlayTest, DeepAndEndlessTypes_AreRefusedByOneLine) {
  EXPECT_EQ(refused(std::string(200000, '[')),
            "scctl: /var/other.json:1: no { where an object begins\n");
  EXPECT_EQ(refused("{\"overlay\": 1, \"types\": " +
                    [] {
                      std::string deep;
                      for (int n = 0; n < 40000; ++n) deep += "{\"a\":";
                      return deep;
                    }()),
            "scctl: /var/other.json:1: a type has no 'a'\n");
  EXPECT_EQ(refused(overlay_of(R"("a": {"at": 0, "type": "t"})")),
            "scctl: /var/other.json: t: its types are nested too deeply\n");
  /* Elements of elements: 2 to the power of 20 of them, of no bytes. */
  std::string types;
  for (int n = 0; n < 10; ++n) {
    types += ", \"t" + std::to_string(n) +
             "\": {\"size\": 0, \"members\": {\"m\": {\"at\": 0, \"count\": "
             "[65535, 65535], \"type\": \"t" +
             std::to_string(n + 1) + "\"}}}";
  }
  types += ", \"t10\": {\"size\": 0}";
  EXPECT_EQ(refused(overlay_of(R"("a": {"at": 0, "type": "t0", "count": 65535})", 956, types)),
            "scctl: /var/other.json: a: more than 16384 members and types in all\n");
  EXPECT_EQ(refused(overlay_of(R"("a": {"at": 0, "kind": "unsigned", "size": 1, "if": {"b": 1}})")),
            "scctl: /var/other.json: b: a condition names it, and there is none\n");
}

TEST_F(OverlayTest, MembersThatOverlap_AreRefusedOutsideOfUnions) {
  EXPECT_EQ(refused(overlay_of(R"("a": {"at": 0, "kind": "unsigned", "size": 4},
                                  "b": {"at": 3, "kind": "unsigned", "size": 1})")),
            "scctl: /var/other.json: t.b: another member has its bits, too\n");
  EXPECT_EQ(refused(overlay_of(R"("a": {"at": 0, "kind": "bit", "bit": 0, "width": 3},
                                  "b": {"at": 0, "kind": "bit", "bit": 2, "width": 1})")),
            "scctl: /var/other.json: t.b: another member has its bits, too\n");
}

TEST_F(OverlayTest, BitsThatMeetInAByte_DoNotOverlap) {
  const auto with = [](const std::string& bit) {
    return overlay_of(R"("a": {"at": 0, "kind": "bit", "bit": 0, "width": 12},
                         "b": {"at": 0, "kind": "bit", "bit": )" +
                      bit + R"(, "width": 3})");
  };
  block("Wan")[kWan + 1] = 0x50;
  EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1.b"}, use(with("12"))))), (Outcome{0, "5\n", ""}));
  EXPECT_EQ(refused(with("11")), "scctl: /var/other.json: t.b: another member has its bits, too\n");
}

TEST_F(OverlayTest, TwoOverlaysOfOneByte_AreBothNamed) {
  const std::string overlay = use(overlay_of(""));
  Words words = with_overlay({"get", "wan/1"});
  words.insert(words.end(), {"--overlay", overlay});
  EXPECT_EQ(run(scctl(words)).err,
            "scctl: /var/other.json: Wan.sections/1.settings and Wan.sections.settings of "
            "/var/vendor.json name the same bytes\n");
  EXPECT_EQ(run(scctl(words)).status, 1);
  /* The same file twice is one; of two ids each has its own. */
  words = with_overlay(with_overlay({"get", "wan/1.settings"}));
  EXPECT_EQ(run(scctl(words)), (Outcome{0, "\n", ""}));
  EXPECT_EQ(refused(R"({"overlay": 1, "types": {"t": {"size": 1}, "u": {"size": 1}},
                        "at": {"Wan.sections/1.settings": "t", "Wan.sections/2.settings": "u",
                               "Wan.sections/1": "u"}})"),
            "scctl: /var/other.json: Wan.sections/1 and Wan.sections/1.settings of /var/other.json "
            "name the same bytes\n");
}

/* ---- a second file ---- */

class CompletedOverlayTest : public OverlayTest {
 protected:
  static Words completed(const std::string& text, const Words& words) {
    write_file("/var/second.json",
               "{\"overlay\": 1, \"completes\": \"vendor.json\", " + text + "}");
    return scctl(with_overlay(words, "/var/second.json"));
  }
};

TEST_F(CompletedOverlayTest, ItsAttributes_ReplaceThoseOfTheFirst) {
  make_section();
  const std::string text = R"("enums": {"wan_mode": {"none": 0, "static": 3}}, "types": {
      "wan_section": {"members": {"mtu": {"range": [1, 9]}, "temperature": {"names": "wan_mode"},
      "extra": {"at": 300, "kind": "unsigned", "size": 1}}}})";
  EXPECT_EQ(
      run(completed(text, {"set", "wan/1", "mtu=9", "mode=static", "temperature=none", "extra=5"})),
      (Outcome{0, "", ""}));
  EXPECT_EQ(run(completed(text, {"get", "wan/1.mode"})).out, "static\n");
  EXPECT_EQ(run(completed(text, {"set", "wan/1", "mtu=600"})).status, 1);
  EXPECT_EQ(block("Wan")[kWan + 300], 5);
}

TEST_F(CompletedOverlayTest, ItsConditions_ReplaceThoseOfTheFirst) {
  const std::string text = R"("types": {"wan_section": {"if": {"mtu": 7}, "members": {
      "peer": {"if": {"mtu": 7}}}}})";
  block("Wan")[kWan + 4] = 7;
  const std::string json = run(completed(text, {"get", "wan/1", "--json"})).out;
  EXPECT_NE(json.find("\"magic\": 0, "), std::string::npos) << json;
  EXPECT_NE(json.find("\"peer\": \"0.0.0.0\", "), std::string::npos) << json;
}

TEST_F(CompletedOverlayTest, AKindOrAType_ReplacesTheOther) {
  make_section();
  const std::string text = R"("types": {"wan_section": {"members": {
      "address": {"kind": "bytes", "size": 20}, "wide": {"type": "radio"}}}})";
  block("Wan")[kWan + 244] = 9;
  block("Wan")[kWan + 188] = 5;
  EXPECT_EQ(run(completed(text, {"get", "wan/1.address"})).out, "09\n");
  EXPECT_EQ(run(completed(text, {"get", "wan/1.wide.channel"})).out, "5\n");
}

TEST_F(CompletedOverlayTest, APathFromTheRoot_IsTakenAsItIs) {
  make_section();
  write_file("/var/third.json", R"({"overlay": 1, "completes": "/var/vendor.json"})");
  EXPECT_EQ(run(scctl(with_overlay({"get", "wan/1.mtu"}, "/var/third.json"))),
            (Outcome{0, "0\n", ""}));
}

TEST_F(CompletedOverlayTest, WhatTheFirstLacks_IsNamed) {
  EXPECT_EQ(
      run(completed(R"("types": {"wan_section": {"members": {"mtx": {"unit": "bytes"}}}})",
                    {"get", "wan/1"}))
          .err,
      "scctl: /var/second.json:1: wan_section.mtx has no place, and no completed file has it\n");
  EXPECT_EQ(
      run(completed(R"("types": {"wan_selection": {}})", {"get", "wan/1"})).err,
      "scctl: /var/second.json: wan_selection: it has no size, and no completed file has it\n");
  write_file("/var/vendor.json", R"({"overlay": 1, "completes": "second.json"})");
  EXPECT_EQ(run(completed("\"at\": {}", {"get", "wan/1"})).err,
            "scctl: /var/vendor.json:1: /var/second.json: it completes itself\n");
}

TEST_F(CompletedOverlayTest, BesideTheFileThatItCompletes_ItCountsOnce) {
  make_section();
  Words words = completed(R"("types": {"wan_section": {"members": {"mtu": {"unit": "octets"}}}})",
                          with_overlay({"get", "wan/1"}));
  const Outcome shown = run(words);
  EXPECT_EQ(shown.status, 0) << shown;
  EXPECT_NE(shown.out.find("0 octets"), std::string::npos) << shown;
  /* In the other order, too. */
  const Outcome other =
      run(scctl(with_overlay(with_overlay({"get", "wan/1"}, "/var/second.json"))));
  EXPECT_EQ(other, shown);
}

}  // namespace
}  // namespace sc_test
