/* Bindings looked at from call to call: what a kill leaves, and what becomes of changes that others make
 * at the same moment. */
#include <sysconfig/ap.h>

#include <fcntl.h>

#include "scctl/edits.h"
#include "scctl/lock_calls.h"

namespace sc_test {
namespace {

using TraceBindingTest = EditTest;

TEST_F(TraceBindingTest, BindAndUnbindKilledAtAnyCall_LeaveBothRecordsOldOrBothNew) {
  done({"add", "ap_templates/1", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  for (const Words& command :
       {Words{"bind", "ap_templates/1", "aps/1"}, {"unbind", "ap_templates/1"}}) {
    const Image templates = image("ApTemplateList"), aps = image("ManageApList");
    done(command);
    const Image new_templates = image("ApTemplateList"), new_aps = image("ManageApList");
    size_t old_states = 0, new_states = 0;
    kill_at_every_call(
        scctl(command),
        [&] {
          memcpy(block("ApTemplateList"), templates.data(), templates.size());
          memcpy(block("ManageApList"), aps.data(), aps.size());
        },
        [&](size_t call) {
          const bool is_old =
              templates.matches(block("ApTemplateList")) && aps.matches(block("ManageApList"));
          const bool is_new = new_templates.matches(block("ApTemplateList")) &&
                              new_aps.matches(block("ManageApList"));
          EXPECT_TRUE(is_old || is_new) << "killed at call " << call;
          old_states += is_old;
          new_states += is_new;
        });
    EXPECT_GT(old_states, 10u);
    EXPECT_GT(new_states, 2u);
  }
}

/* Between our look and our locks. */
TEST_F(TraceBindingTest, WhatAnotherProgramBindsMeanwhile_IsNotWrittenOver) {
  done({"add", "ap_templates/1", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  auto& target = block_as<ApTemplateListBlock>("ApTemplateList")->templates[0];
  auto& ap = block_as<ManageApListBlock>("ManageApList")->aps[0];
  const Image templates = image("ApTemplateList"), aps = image("ManageApList");
  const auto changed_by = [&](const Words& command, auto meanwhile) {
    Image wanted_templates = templates, wanted_aps = aps;
    Listener listener;
    int locks = 0;
    const Outcome outcome = trace(scctl(command), [&](const SystemCall& call) {
      const LockCall lock = lock_call(call);
      /* That of the access point is the last that is asked for. */
      if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 2 &&
          ++locks == 2) {
        meanwhile();
        wanted_templates = image("ApTemplateList");
        wanted_aps = image("ManageApList");
      }
      return Fate{};
    });
    EXPECT_EQ(outcome,
              (Outcome{1, "", "scctl: ap_templates/1 was changed by another program meanwhile\n"}));
    EXPECT_EQ(locks, 2);
    EXPECT_TRUE(wanted_templates.matches(block("ApTemplateList")));
    EXPECT_TRUE(wanted_aps.matches(block("ManageApList")));
    EXPECT_TRUE(listener.codes().empty());
    memcpy(block("ApTemplateList"), templates.data(), templates.size());
    memcpy(block("ManageApList"), aps.data(), aps.size());
  };
  const Words bind = {"bind", "ap_templates/1", "aps/1"};
  changed_by(bind, [&] { target.bound_ap_mac[0] = 7; });
  changed_by(bind, [&] { target.template_id = 0; });
  changed_by(bind, [&] { ap.group_id = 2; });
  changed_by(bind, [&] { ap.ap_id = 0; });
}

TEST_F(TraceBindingTest, AnAccessPointThatIsReplacedBeforeItIsUnbound_Stays) {
  done({"add", "ap_templates/1", "template_name=lobby"});
  done({"add", "aps/1", "ap_mac=02:61:62:63:64:65"});
  done({"bind", "ap_templates/1", "aps/1"});
  auto& ap = block_as<ManageApListBlock>("ManageApList")->aps[0];
  for (const char* command : {"unbind", "del"}) {
    int locks = 0;
    const Outcome outcome = trace(scctl({command, "ap_templates/1"}), [&](const SystemCall& call) {
      const LockCall lock = lock_call(call);
      if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 2 &&
          ++locks == 2) {
        ap.ap_mac[0] = 7;
      }
      return Fate{};
    });
    EXPECT_EQ(outcome,
              (Outcome{1, "", "scctl: ap_templates/1 was changed by another program meanwhile\n"}));
    EXPECT_EQ(ap.group_id, 1);
    ap.ap_mac[0] = 2;
  }
}

}  // namespace
}  // namespace sc_test
