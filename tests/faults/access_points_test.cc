/* Access points, users and templates under faults. */
#include <string.h>

#include <sysconfig/ap.h>

#include <algorithm>

#include "faults/fault_world.h"
#include "support/image.h"
#include "support/started.h"

namespace {

using namespace sc_test;

constexpr uint8_t kMac[] = {0xAA, 1, 2, 3, 4, 5};

class ApFaults : public FaultWorld {
 protected:
  void SetUp() override {
    FaultWorld::SetUp();
    aps = started<ManageApListBlock>("ManageApList");
    users = started<ApUserListBlock>("ApUserList");
    templates = started<ApTemplateListBlock>("ApTemplateList");
    ASSERT_TRUE(aps && users && templates);
    for (const uint32_t p : {0u, 3u, 299u}) {
      fill(&aps->aps[p].run_state, 200, p);
      aps->aps[p].ap_id = p + 1;
      fill(users->users[p].opaque_14, 200, p);
      users->users[p].user_id = p + 1;
    }
    for (const uint32_t p : {0u, 3u}) {
      fill(templates->templates[p].opaque_8, 300, p);
      templates->templates[p].template_id = p + 1;
    }
    memcpy(aps->aps[3].ap_mac, kMac, 6);
    memcpy(users->users[3].user_mac, kMac, 6);
    memcpy(templates->templates[3].bound_ap_mac, kMac, 6);
  }

  struct Images {
    std::unique_ptr<ManageApListBlock> aps;
    std::unique_ptr<ApUserListBlock> users;
    std::unique_ptr<ApTemplateListBlock> templates;
  };
  Images images() const {
    return {std::make_unique<ManageApListBlock>(*aps), std::make_unique<ApUserListBlock>(*users),
            std::make_unique<ApTemplateListBlock>(*templates)};
  }
  void restore(const Images& saved) {
    memcpy(aps, saved.aps.get(), sizeof *aps);
    memcpy(users, saved.users.get(), sizeof *users);
    memcpy(templates, saved.templates.get(), sizeof *templates);
  }

  struct Step {
    const char* function;
    std::function<int64_t()> action;
    Lines opens; /* the areas whose lock files it opens, in order */
    int64_t result_without_lock = 0;
  };
  std::vector<Step> steps() {
    return {
        {"SC_Del_Ap_Info_by_Mac",
         [&] { return Noted<SC_Del_Ap_Info_by_Mac>::call(aps, kMac); },
         {"ManageApList"}},
        {"SC_Ap_Add_GroupInfo_by_Mac",
         [&] { return Noted<SC_Ap_Add_GroupInfo_by_Mac>::call(aps, info, 7, kMac); },
         {"ManageApList"}},
        {"SC_Ap_Clean_GroupInfo_by_Mac",
         [&] { return Noted<SC_Ap_Clean_GroupInfo_by_Mac>::call(aps, kMac); },
         {"ManageApList"}},
        {"SC_Set_Ap_Info_Id2Zero",
         [&] { return Noted<SC_Set_Ap_Info_Id2Zero>::call(aps); },
         {"ManageApList"}},
        {"SC_Del_ApUser_Info_by_Mac",
         [&] { return Noted<SC_Del_ApUser_Info_by_Mac>::call(users, kMac); },
         {"ApUserList"}},
        {"SC_Del_AP_Template_Info_By_Id",
         [&] { return Noted<SC_Del_AP_Template_Info_By_Id>::call(templates, 3); },
         {"ApTemplateList"}},
        /* Bound to the first template, which is unbound, and once more to the fourth, which has it. */
        {"SC_Add_Ap_Mac2Template_By_Id",
         [&] { return Noted<SC_Add_Ap_Mac2Template_By_Id>::call(templates, aps, 1, kMac); },
         {"ApTemplateList", "ManageApList"}},
        {"SC_Add_Ap_Mac2Template_By_Id",
         [&] { return Noted<SC_Add_Ap_Mac2Template_By_Id>::call(templates, aps, 4, kMac); },
         {"ApTemplateList", "ManageApList"}},
        {"SC_Del_Ap_Mac2Template_By_Id",
         [&] { return Noted<SC_Del_Ap_Mac2Template_By_Id>::call(templates, aps, 4, kMac); },
         {"ApTemplateList", "ManageApList"}},
        /* Without locks. */
        {"SC_Get_Ap_Info_By_Id", [&] { return Noted<SC_Get_Ap_Info_By_Id>::call(aps, 4); }, {}},
        {"SC_Get_Ap_Info_By_Mac",
         [&] { return Noted<SC_Get_Ap_Info_By_Mac>::call(aps, kMac); },
         {}},
        {"SC_Get_Ap_Info_Blank",
         [&] { return Noted<SC_Get_Ap_Info_Blank>::call(aps, &limits); },
         {}},
        {"SC_Get_Ap_Info_Count", [&] { return Noted<SC_Get_Ap_Info_Count>::call(aps); }, {}},
        {"SC_Get_Ap_Info_Count_Online",
         [&] { return Noted<SC_Get_Ap_Info_Count_Online>::call(aps); },
         {}},
        {"SC_Get_Ap_Info_Count_Offline",
         [&] { return Noted<SC_Get_Ap_Info_Count_Offline>::call(aps); },
         {}},
        {"SC_Get_Ap_Info_Count_And_Id",
         [&] { return Noted<SC_Get_Ap_Info_Count_And_Id>::call(positions, aps); },
         {}},
        {"SC_CleanWtpFragBuffer",
         [&] {
           Noted<SC_CleanWtpFragBuffer>::call(aps);
           return 0;
         },
         {}},
        {"SC_Get_ApUser_Info_By_Id",
         [&] { return Noted<SC_Get_ApUser_Info_By_Id>::call(users, 4); },
         {}},
        {"SC_Get_ApUser_Info_By_Mac",
         [&] { return Noted<SC_Get_ApUser_Info_By_Mac>::call(users, kMac); },
         {}},
        {"SC_Get_ApUser_Info_Blank",
         [&] { return Noted<SC_Get_ApUser_Info_Blank>::call(users); },
         {}},
        {"SC_Get_ApUser_Info_Count",
         [&] { return Noted<SC_Get_ApUser_Info_Count>::call(users); },
         {}},
        {"SC_Get_AP_Template_Info_By_Id",
         [&] { return Noted<SC_Get_AP_Template_Info_By_Id>::call(templates, 4); },
         {}},
        {"SC_Get_AP_Template_Info_Blank",
         [&] { return Noted<SC_Get_AP_Template_Info_Blank>::call(templates); },
         {}},
        {"SC_Get_AP_Template_Info_Count",
         [&] { return Noted<SC_Get_AP_Template_Info_Count>::call(templates); },
         {}},
    };
  }

  ManageApListBlock* aps = nullptr;
  ApUserListBlock* users = nullptr;
  ApTemplateListBlock* templates = nullptr;
  ApLimitsRecord limits = {{}, 300};
  uint32_t positions[300];
  char info[50] = "a template's name";
};

TEST_F(ApFaults, ALockFileThatDoesNotOpen_LeavesItsAreaAsItWasAndAnyOtherFaultChangesNothing) {
  const auto before = images();
  for (const Step& step : steps()) {
    SCOPED_TRACE(step.function);
    restore(before);
    const Seen seen = run(kNoFault, step.action);
    EXPECT_EQ(seen.output, kSilence);
    const auto after = images();
    const std::vector<Fault> all = faults();
    EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const Fault& f) { return f.is("open"); }),
              static_cast<long>(step.opens.size()));
    if (step.opens.empty()) EXPECT_EQ(calls_, Lines{});

    for (const Fault& fault : sample_of(all)) {
      SCOPED_TRACE(testing::Message() << fault);
      Seen expected = seen;
      const Images *aps_left = &after, *templates_left = &after, *users_left = &after;
      if (fault.is("open")) {
        const std::string& area = step.opens.at(fault.nth - 1);
        expected.output = cannot_lock(lock_file(area));
        expected.result = step.result_without_lock;
        aps_left = &before; /* it is the only area or the inner one */
        users_left = &before;
        if (fault.nth == 1) templates_left = &before;
      }
      restore(before);
      EXPECT_EQ(run(fault, step.action), expected);
      EXPECT_EQ(memcmp(aps, aps_left->aps.get(), sizeof *aps), 0);
      EXPECT_EQ(memcmp(users, users_left->users.get(), sizeof *users), 0);
      EXPECT_EQ(memcmp(templates, templates_left->templates.get(), sizeof *templates), 0);
    }
  }
}

}  // namespace
