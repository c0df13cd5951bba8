/* The fixture of tests with overlays: an overlay of WAN sections with a member of every kind, and
 * scctl with it. A member at N of a section stands at kWan + N in the area.
 */
#ifndef SCCTL_OVERLAY_CASE_H
#define SCCTL_OVERLAY_CASE_H

#include <unistd.h>

#include "scctl/edits.h"

namespace sc_test {

constexpr size_t kWan = 140; /* the settings of wan/1 */
constexpr uint32_t kMagic = 1463897669;

inline const char kVendor[] = R"({
  "overlay": 1,
  "order": "little",
  "enums": {"wan_mode": {"off": 0, "dhcp": 1, "pppoe": 2}, "level": {"low": -1, "high": 1}},
  "types": {
    "wan_section": {"size": 956, "if": {"magic": 1463897669}, "members": {
      "magic": {"at": 0, "kind": "unsigned", "size": 4},
      "mtu": {"at": 4, "kind": "unsigned", "size": 2, "unit": "bytes", "range": [576, 1500], "default": 1500},
      "bits": {"at": 6, "type": "wan_bits"},
      "mode": {"at": 8, "kind": "enum", "size": 4, "names": "wan_mode"},
      "ports": {"at": 12, "kind": "unsigned", "size": 2, "count": 8, "used": "port_count"},
      "port_count": {"at": 28, "kind": "unsigned", "size": 1},
      "level": {"at": 29, "kind": "enum", "size": 1, "names": "level"},
      "temperature": {"at": 30, "kind": "signed", "size": 2},
      "radio": {"at": 32, "type": "radio", "count": 4, "used": "radio_count"},
      "radio_count": {"at": 64, "kind": "unsigned", "size": 1},
      "station": {"at": 65, "kind": "mac", "size": 6},
      "station_text": {"at": 71, "kind": "mac text", "size": 18},
      "psk": {"at": 96, "kind": "text", "size": 64, "secret": true, "pattern": "^[ -~]{8,63}$"},
      "peer": {"at": 160, "kind": "address", "size": 4, "if": {"mode": ["pppoe", 7]}},
      "raw": {"at": 164, "kind": "unsigned", "size": 4, "order": "big"},
      "token": {"at": 168, "kind": "bytes", "size": 8, "secret": true},
      "grid": {"at": 176, "kind": "signed", "size": 2, "count": [2, 3]},
      "wide": {"at": 188, "kind": "unsigned", "size": 8},
      "deep": {"at": 196, "kind": "signed", "size": 8},
      "names": {"at": 204, "kind": "text", "size": 10, "count": [2, 2]},
      "address": {"at": 244, "type": "peer_address"}
    }},
    "radio": {"size": 8, "members": {
      "channel": {"at": 0, "kind": "signed", "size": 4},
      "ssid": {"at": 4, "kind": "text", "size": 4}
    }},
    "wan_bits": {"size": 2, "members": {
      "a": {"at": 0, "kind": "bit", "bit": 0, "width": 1},
      "b": {"at": 0, "kind": "bit", "bit": 1, "width": 3, "signed": true},
      "c": {"at": 0, "kind": "bit", "bit": 6, "width": 4, "order": "little"}
    }},
    "peer_address": {"size": 20, "members": {
      "family": {"at": 0, "kind": "unsigned", "size": 4},
      "u": {"at": 4, "type": "any_address"}
    }},
    "any_address": {"size": 16, "union": true, "members": {
      "v4": {"at": 0, "kind": "address", "size": 4, "if": {"family": 4}},
      "v6": {"at": 0, "kind": "unsigned", "size": 2, "count": 8, "order": "big", "if": {"family": 6}}
    }}
  },
  "at": {"Wan.sections.settings": "wan_section"}
})";

class OverlayTest : public EditTest {
 protected:
  void SetUp() override {
    EditTest::SetUp();
    write_file(kFile, kVendor);
  }

  /* The words with --overlay. */
  static Words with_overlay(Words words, const std::string& file = kFile) {
    words.insert(words.end(), {"--overlay", file});
    return words;
  }
  std::string shown(const Words& words, const std::string& input = "") {
    return done(with_overlay(words), input);
  }
  Outcome outcome(const Words& words, const std::string& input = "") {
    return run(scctl(with_overlay(words)), input);
  }
  /* What the error says of a command with an overlay of this text. */
  static std::string refused(const std::string& overlay, const Words& words = {"get", "wan/1"}) {
    write_file("/var/other.json", overlay);
    const Outcome outcome = run(scctl(with_overlay(words, "/var/other.json")));
    EXPECT_EQ(outcome.status, 1) << outcome;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    return outcome.err;
  }
  /* An overlay of these members in a type of this size, for wan/1. */
  static std::string overlay_of(const std::string& members, int size = 956,
                                const std::string& more = "") {
    return R"({"overlay": 1, "types": {"t": {"size": )" + std::to_string(size) +
           R"(, "members": {)" + members + "}}" + more +
           R"(}, "at": {"Wan.sections/1.settings": "t"}})";
  }
  static std::string use(const std::string& overlay) {
    write_file("/var/other.json", overlay);
    return "/var/other.json";
  }
  /* wan/1 holds for the type. */
  void make_section() {
    const uint32_t magic = kMagic;
    memcpy(block("Wan") + kWan, &magic, sizeof magic);
  }

  static constexpr char kFile[] = "/var/vendor.json";
};

}  // namespace sc_test

#endif
