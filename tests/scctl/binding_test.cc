/* Binding access points to templates: both records, the bytes that are waited for, and what a refused
 * command leaves. */
#include <signal.h>

#include <sysconfig/ap.h>

#include "scctl/edits.h"

namespace sc_test {
namespace {

using BindingTest = EditTest;

TEST_F(BindingTest, BindAndUnbind_WriteBothRecordsAndAnnounceBothAreas) {
  done({"add", "ap_templates/2", "template_name=lobby"});
  done({"add", "aps/300", "ap_mac=02:61:62:63:64:65"});
  const auto& ap = block_as<ManageApListBlock>("ManageApList")->aps[299];
  const auto& bound = block_as<ApTemplateListBlock>("ApTemplateList")->templates[1];
  Listener listener;
  done({"bind", "ap_templates/2", "aps/300"});
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{14, 15}));
  EXPECT_EQ(ap.group_id, 2);
  EXPECT_STREQ(ap.group_info, "lobby");
  EXPECT_EQ(memcmp(bound.bound_ap_mac,
                   "\x02"
                   "abcde",
                   6),
            0);
  done({"unbind", "ap_templates/2"});
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{14, 15}));
  EXPECT_EQ(ap.group_id, 0);
  EXPECT_STREQ(ap.group_info, "");
  EXPECT_EQ(memcmp(bound.bound_ap_mac, "\0\0\0\0\0\0", 6), 0);
}

TEST_F(BindingTest, DelOfABoundTemplate_UnbindsItsAccessPoint) {
  done({"add", "ap_templates/2", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  done({"bind", "ap_templates/2", "aps/1"});
  Listener listener;
  done({"del", "ap_templates/2"});
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{14, 15}));
  EXPECT_EQ(block_as<ManageApListBlock>("ManageApList")->aps[0].group_id, 0);
}

TEST_F(BindingTest, ClearOfBoundTemplates_UnbindsTheirAccessPoints) {
  for (const char* id : {"1", "15"}) {
    const std::string n = id;
    done({"add", "ap_templates/" + n, "template_name=lobby" + n});
    done({"add", "aps/" + n, "ap_mac=02:00:00:00:00:0" + n.substr(0, 1)});
    if (n == "15") done({"set", "aps/15", "ap_mac=02:00:00:00:00:0f"});
    done({"bind", "ap_templates/" + n, "aps/" + n});
  }
  Listener listener;
  done({"clear", "ap_templates"});
  EXPECT_EQ(listener.codes(), (std::vector<int32_t>{14, 15}));
  EXPECT_EQ(block_as<ManageApListBlock>("ManageApList")->aps[0].group_id, 0);
  EXPECT_EQ(block_as<ManageApListBlock>("ManageApList")->aps[14].group_id, 0);
}

TEST_F(BindingTest, BindWaitsForOtherEditorsOfBothAreas) {
  done({"add", "ap_templates/2", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  for (const char* area_name : {"ManageApList", "ApTemplateList"}) {
    const std::string file = lock_file(area_name);
    for (const Words& arguments :
         {Words{"bind", "ap_templates/2", "aps/1"}, Words{"unbind", "ap_templates/2"}}) {
      LockHolder holder(file, 0);
      Program program(scctl(arguments));
      ASSERT_TRUE(becomes_blocked(program.pid(), file, 0)) << area_name;
      holder.release();
      EXPECT_EQ(program.wait().status, 0);
    }
  }
}

TEST_F(BindingTest, ASignalThatComesWhileABindingWaits_EndsItWithoutAWrite) {
  done({"add", "ap_templates/1", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  done({"add", "ap_templates/2", "template_name=hall"});
  done({"add", "aps/2", "ap_mac=02:61:62:63:64:66"});
  done({"bind", "ap_templates/2", "aps/2"});
  const Image templates = image("ApTemplateList"), aps = image("ManageApList");
  const struct {
    Words command;
    const char* area_name;
    off_t byte;
    const char* waited_for;
  } kCases[] = {
      {{"bind", "ap_templates/1", "aps/1"}, "ApTemplateList", 2, "ap_templates/1"},
      {{"bind", "ap_templates/1", "aps/1"}, "ManageApList", 2, "aps/1"},
      {{"unbind", "ap_templates/2"}, "ApTemplateList", 3, "ap_templates/2"},
      {{"unbind", "ap_templates/2"}, "ManageApList", 3, "aps/2"},
      {{"del", "ap_templates/2"}, "ManageApList", 3, "aps/2"},
  };
  for (const auto& one : kCases) {
    LockHolder holder(lock_file(one.area_name), one.byte);
    Program program(scctl(one.command));
    ASSERT_TRUE(becomes_blocked(program.pid(), lock_file(one.area_name), one.byte));
    kill(program.pid(), SIGINT);
    EXPECT_EQ(program.wait(), (Outcome{-SIGINT, "",
                                       std::string("scctl: ") + one.waited_for +
                                           " cannot be locked: Interrupted system call\n"}));
    EXPECT_TRUE(templates.matches(block("ApTemplateList")));
    EXPECT_TRUE(aps.matches(block("ManageApList")));
  }
}

TEST_F(BindingTest, ADeletionThatUnbinds_KeepsOtherEditorsOutToItsEnd) {
  for (const Words& command :
       {Words{"del", "ap_templates/1", "ap_templates/2"}, Words{"clear", "ap_templates"}}) {
    done({"add", "ap_templates/1", "template_name=lobby"});
    done({"add", "ap_templates/2", "template_name=hall"});
    done({"add", "aps", "ap_mac=02:61:62:63:64:65"});
    done({"bind", "ap_templates/1", "aps/1"});
    const std::string file = lock_file("ApTemplateList");
    LockHolder holder(file, 3);
    Program program(scctl(command));
    ASSERT_TRUE(becomes_blocked(program.pid(), file, 3));
    EXPECT_EQ(block_as<ManageApListBlock>("ManageApList")->aps[0].group_id, 0);
    EXPECT_TRUE(is_locked(file, 0));
    EXPECT_TRUE(is_locked(lock_file("ManageApList"), 0));
    holder.release();
    EXPECT_EQ(program.wait().status, 0);
    done({"clear", "aps"});
  }
}

TEST_F(BindingTest, ABindingUnderADamagedLockWord_IsRefusedAndLeavesAllAsItWas) {
  done({"add", "ap_templates/1", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  auto& ap = block_as<ManageApListBlock>("ManageApList")->aps[0];
  const auto& target = block_as<ApTemplateListBlock>("ApTemplateList")->templates[0];
  const Outcome refused = {
      1, "", "scctl: aps/1: its lock word is damaged; scctl check ManageApList tells more\n"};
  Listener listener;
  ap.lock_index = 9;
  EXPECT_EQ(run(scctl({"bind", "ap_templates/1", "aps/1"})), refused);
  EXPECT_EQ(target.bound_ap_mac[0], 0);
  EXPECT_TRUE(listener.codes().empty());
  ap.lock_index = 2;
  done({"bind", "ap_templates/1", "aps/1"});
  listener.codes();
  ap.lock_index = 9;
  for (const Words& command :
       {Words{"unbind", "ap_templates/1"}, {"del", "ap_templates/1"}, {"clear", "ap_templates"}}) {
    EXPECT_EQ(run(scctl(command)), refused);
    EXPECT_EQ(ap.group_id, 1);
    EXPECT_EQ(target.template_id, 1u);
    EXPECT_EQ(target.bound_ap_mac[0], 2);
    EXPECT_TRUE(listener.codes().empty());
  }
}

TEST_F(BindingTest, UnbindOfAnAccessPointThatIsGone_FreesTheTemplateAlone) {
  done({"add", "ap_templates/1", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  done({"bind", "ap_templates/1", "aps/1"});
  done({"del", "aps/1"});
  Listener listener;
  done({"unbind", "ap_templates/1"});
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{15});
  EXPECT_EQ(block_as<ApTemplateListBlock>("ApTemplateList")->templates[0].bound_ap_mac[0], 0);
}

}  // namespace
}  // namespace sc_test
