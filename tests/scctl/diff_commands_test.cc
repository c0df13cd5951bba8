/* diff --commands: what it prints turns the first store into the second. */
#include <sysconfig/ap.h>
#include <sysconfig/lan.h>

#include <algorithm>
#include <numeric>
#include <sstream>

#include "scctl/shell.h"
#include "support/random.h"

namespace sc_test {
namespace {

class DiffCommandsTest : public EditTest {
 protected:
  void make(const std::string& commands) { done({"batch", "-"}, commands); }

  /* Keeps the live areas as a checkpoint and makes them empty. */
  void keep(const std::string& name) {
    done({"checkpoint", name});
    for (const std::string& area_name : started_areas()) area(area_name).init(1);
  }

  /* The live areas become those of the checkpoint by the commands; nothing is left to say. */
  void become(const std::string& name, bool by_shell) {
    const std::string other = "checkpoint:" + name;
    const Outcome commands = run(scctl({"diff", "live", other, "--commands"}));
    EXPECT_EQ(commands.err, "");
    EXPECT_EQ(("\n" + commands.out).find("\n# "), std::string::npos) << commands;
    EXPECT_EQ(commands.status, commands.out.empty() ? 0 : 1);
    const ShellScctl in_path;
    const Outcome pasted =
        by_shell ? run({"sh", "-e"}, commands.out) : run(scctl({"batch", "-"}), commands.out);
    EXPECT_EQ(pasted.status, 0) << pasted << commands.out;
    EXPECT_EQ(run(scctl({"diff", "live", other})), (Outcome{0, "", ""})) << commands.out;
    EXPECT_EQ(run(scctl({"diff", "live", other, "--commands"})), (Outcome{0, "", ""}));
  }
  /* From the first store to the second, by scctl batch and by a shell. */
  void turns(const std::string& from, const std::string& into) {
    make(into);
    const std::string wanted = done({"export"});
    keep("into");
    for (const bool by_shell : {false, true}) {
      make(from);
      become("into", by_shell);
      EXPECT_EQ(done({"export"}), wanted);
      for (const std::string& area_name : started_areas()) area(area_name).init(1);
    }
    done({"checkpoint", "into", "--delete"});
  }
};

TEST_F(DiffCommandsTest, ARuleIsAddedAfterItsGroupAndDeletedBeforeIt) {
  const std::string group = "add ip_groups/3 leading_text=office\n";
  const std::string rule = "add ip_filter/2 leading_text=rule ip_mode=1 ip_group_id=3\n";
  make(group + rule);
  keep("full");
  done({"checkpoint", "empty"});
  EXPECT_EQ(run(scctl({"diff", "checkpoint:empty", "checkpoint:full", "--commands"})),
            (Outcome{1,
                     "scctl add ip_groups/3 leading_text=office\n"
                     "scctl add ip_filter/2 leading_text=rule ip_mode=1 ip_group_id=3\n",
                     ""}));
  EXPECT_EQ(run(scctl({"diff", "checkpoint:full", "checkpoint:empty", "--commands"})),
            (Outcome{1, "scctl del ip_filter/2\nscctl del ip_groups/3\n", ""}));
}

TEST_F(DiffCommandsTest, KeysThatMoveBetweenRecords_AreFreedFirst) {
  turns(
      "add lan_binds/1 mac=00:11:22:33:44:01 ip=10.0.0.1\n"
      "add lan_binds/2 mac=00:11:22:33:44:02 ip=10.0.0.2\n"
      "add lan_binds/3 mac=00:11:22:33:44:03 ip=10.0.0.3\n",
      "add lan_binds/1 mac=00-11-22-33-44-02 ip=10.0.0.1 name=one\n"
      "add lan_binds/2 mac=00:11:22:33:44:01 ip=10.0.0.3\n"
      "add lan_binds/4 mac=00:11:22:33:44:03 ip=10.0.0.2\n");
}

TEST_F(DiffCommandsTest, AFieldThatSetCannotWrite_IsAddedAnew) {
  turns("add clients/1 client_mac=02:00:00:00:00:01 text_52=one\n",
        "add clients/1 client_mac=02:00:00:00:00:02 text_52=one\n");
}

TEST_F(DiffCommandsTest, ARuleThatOutlivesItsGroup_IsThereAgain) {
  turns(
      "add ip_groups/2 leading_text=office\nadd time_groups/1 leading_text=night\n"
      "add qos/1 leading_text=q ip_mode=1 ip_group_id=2 time_mode=2 time_group_id=1\n",
      "add qos/1 leading_text=q ip_mode=1 ip_group_id=2 time_mode=2 time_group_id=1\n");
}

TEST_F(DiffCommandsTest, AnAccessPointKeepsItsGroupWhenTheTemplateGoes) {
  turns(
      "add aps/1 ap_mac=02:61:62:63:64:65\nadd ap_templates/2 template_name=lobby\n"
      "bind ap_templates/2 aps/1\n",
      "add aps/1 ap_mac=02:61:62:63:64:65 group_id=2 group_info=lobby\n");
}

TEST_F(DiffCommandsTest, MacTextsThatOnlyTheLibraryTellsApart_AreWrittenInHex) {
  const std::string one = "add mac_filter/1 mac=00:11:22:33:44:01\n";
  turns(one, one + "add mac_filter/2 mac:hex=30302d31312d32322d33332d34342d3031\n");
  turns("", one + "add mac_filter/2 mac:hex=6e6f206d6163 leading_text='it'\\''s $HOME `x` *'\n");
}

TEST_F(DiffCommandsTest, ADuplicateThatTheLibraryRefuses_IsAComment) {
  make("add lan_binds/1 mac=00:11:22:33:44:01\nadd lan_binds/2 mac=00:11:22:33:44:02 ip=1.1.1.1\n");
  memcpy(block_as<LanBlock>("Lan")->lan_binds[1].bind_mac, "00:11:22:33:44:01", 17);
  keep("twice");
  EXPECT_EQ(run(scctl({"diff", "live", "checkpoint:twice", "--commands"})),
            (Outcome{1,
                     "scctl add lan_binds/1 mac=00:11:22:33:44:01\n"
                     "# lan_binds/2 cannot be as wanted: its mac equals that of lan_binds/1\n",
                     ""}));
}

TEST_F(DiffCommandsTest, AnAreaOfOneSideAlone_IsAComment) {
  done({"save", "Lan"});
  done({"remove", "--all"});
  done({"init", "Qos"});
  const Outcome outcome = run(scctl({"diff", "--commands"}));
  EXPECT_EQ(outcome, (Outcome{1, "# Lan: only in saved\n# Qos: only in live\n", ""}));
}

TEST_F(DiffCommandsTest, UsersOfAccessPoints_ComeFromAnImage) {
  make("add ap_users/7 user_mac=02:00:00:00:00:07 opaque_14=00736574\n");
  write_file("/var/users.cfg", std::string(reinterpret_cast<char*>(block("ApUserList")),
                                           golden_area("ApUserList").size));
  done({"clear", "ap_users"});
  const Outcome outcome = run(scctl({"diff", "live", "/var/users.cfg", "--commands"}));
  EXPECT_EQ(outcome, (Outcome{1,
                              "scctl add ap_users/7 user_mac=02:00:00:00:00:07 "
                              "opaque_14=00736574\n",
                              ""}));
}

/* Commands that make a random store. */
class RandomStore {
 public:
  explicit RandomStore(Random& random) : random_(random) {
    for (const char* table : {"ip_groups", "time_groups"}) {
      rows(table, "", [&] { return " leading_text=" + text(); });
    }
    rows("lan_binds", "mac=00:11:22:33:44:0",
         [&] { return " ip=10.0.0." + std::to_string(++address_) + " name=" + text(); });
    rows("mac_filter", "mac=00:11:22:33:44:0", [&] { return rule(false); });
    rows("url_filter", "url=example", [&] { return rule(false); });
    rows("ip_filter", "", [&] { return rule(true); });
    rows("qos", "", [&] { return rule(true); });
    rows("clients", "client_mac=02:00:00:00:00:0", [&] { return " text_52=" + text(); });
    rows("client_groups", "group_name=g", [&] { return std::string(); });
    rows("aps", "ap_mac=02:61:62:63:64:0",
         [&] { return random_.one_in(3) ? " group_id=" + number(4) : std::string(); });
    rows("ap_templates", "", [&] {
      return " template_name=" + text() +
             (random_.one_in(2) ? " bound_ap_mac=02:61:62:63:64:0" + number(8) : "");
    });
    for (const char* id : {"1", "2", "4"}) {
      if (random_.one_in(2))
        commands_ << "set wan/" << id << " settings=" << number(90) << "00ff\n";
    }
  }
  std::string commands() const { return commands_.str(); }

 private:
  /* Six ids and keys of nine; the key is left out if there is none. */
  template <class Rest>
  void rows(const char* table, const std::string& key, Rest rest) {
    int digits[9];
    std::iota(digits, digits + 9, 1);
    for (int n = 8; n > 0; --n) std::swap(digits[n], digits[random_.below(n + 1)]);
    for (int id = 1; id <= 6; ++id) {
      if (random_.one_in(3)) continue;
      commands_ << "add " << table << '/' << id;
      if (!key.empty()) commands_ << ' ' << key << digits[id];
      commands_ << rest() << '\n';
    }
  }
  /* Two digits, or one for a limit of ten at most. */
  std::string number(uint32_t limit) {
    return std::to_string((limit > 10 ? 10 : 0) + random_.below(limit));
  }
  std::string text() {
    static const char* const kTexts[] = {"a", "'two words'", "'it'\\''s'", "'#x'", "'$(y)'", "''"};
    return kTexts[random_.below(6)];
  }
  std::string rule(bool has_ip_group) {
    const auto digit = [&](uint32_t limit) { return std::to_string(random_.below(limit)); };
    std::string fields =
        " leading_text=" + text() + " time_mode=" + digit(3) + " time_group_id=" + digit(7);
    if (has_ip_group) fields += " ip_mode=" + digit(3) + " ip_group_id=" + digit(7);
    return fields;
  }

  Random& random_;
  std::ostringstream commands_;
  int address_ = 0;
};

TEST_F(DiffCommandsTest, RandomStores_BecomeEachOther) {
  Random random;
  for (int round = 0; round < 4; ++round) {
    const std::string from = RandomStore(random).commands();
    const std::string into = RandomStore(random).commands();
    SCOPED_TRACE(from + "---\n" + into);
    turns(from, into);
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace sc_test
