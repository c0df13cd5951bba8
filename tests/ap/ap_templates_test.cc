/* AP templates: lookups, claims, deletion, and the binding of APs. */
#include <unistd.h>

#include <sysconfig/ap.h>

#include "ap/lock_lines.h"
#include "support/image.h"
#include "support/journal.h"
#include "support/output.h"
#include "support/started.h"
#include "support/world.h"

namespace {

using namespace sc_test;

const std::string kTemplateLock = lock_file("ApTemplateList");
const std::string kApLock = lock_file("ManageApList");
constexpr uint8_t kMacA[] = {0xAA, 1, 2, 3, 4, 5}, kMacB[] = {0xBB, 1, 2, 3, 4, 5};

class ApTemplates : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    block = started<ApTemplateListBlock>("ApTemplateList");
    aps = started<ManageApListBlock>("ManageApList");
    ASSERT_TRUE(block && aps);
  }

  /* Stale bytes everywhere; every template in use and unbound. */
  void fill_used() {
    fill(block->templates, sizeof block->templates, 1);
    golden_area("ApTemplateList").number_locks(block);
    for (uint32_t i = 0; i < 15; ++i) {
      block->templates[i].template_id = i + 1;
      memset(block->templates[i].bound_ap_mac, 0, 6);
    }
  }
  /* A at position 4 and B at position 7 of the AP list. */
  void put_aps() {
    memcpy(aps->aps[4].ap_mac, kMacA, 6);
    memcpy(aps->aps[7].ap_mac, kMacB, 6);
    aps->aps[4].ap_id = 5;
    aps->aps[7].ap_id = 8;
  }
  int32_t bind(uint32_t id, const uint8_t* mac) {
    return SC_Add_Ap_Mac2Template_By_Id(block, aps, id, mac);
  }
  int32_t unbind(uint32_t id, const uint8_t* mac) {
    return SC_Del_Ap_Mac2Template_By_Id(block, aps, id, mac);
  }
  static size_t template_at(size_t position) { return 136 + 12008 * position; }
  static size_t ap_at(size_t position) { return 136 + 12304 * position; }

  ApTemplateListBlock* block = nullptr;
  ManageApListBlock* aps = nullptr;
};

TEST_F(ApTemplates, BindingAToAnUnboundTemplate_StoresAThereAndNameAndIdInAsRecord) {
  fill_used();
  put_aps();
  Image templates(block, sizeof *block), list(aps, sizeof *aps);
  EXPECT_EQ(bind(3, kMacA), 0);
  EXPECT_TRUE(templates.copy(template_at(2) + 11416, kMacA, 6).matches(block));
  list.put8(ap_at(4) + 348, 3).copy(ap_at(4) + 349, block->templates[2].template_name, 50);
  EXPECT_TRUE(list.matches(aps));
}

TEST_F(ApTemplates, BindingBToATemplateBoundToA_ChangesNothingInEitherArea) {
  fill_used();
  put_aps();
  ASSERT_EQ(bind(3, kMacA), 0);
  const Image templates(block, sizeof *block), list(aps, sizeof *aps);
  Journal journal;
  EXPECT_EQ(bind(3, kMacB), 0);
  EXPECT_TRUE(templates.matches(block));
  EXPECT_TRUE(list.matches(aps));
  EXPECT_EQ(journal.lines(), under(kTemplateLock, {"lock #1 4", "unlock #1 4"}));
}

TEST_F(ApTemplates, BindingAAgain_RewritesAsGroupInformationFromTheCurrentName) {
  fill_used();
  put_aps();
  ASSERT_EQ(bind(3, kMacA), 0);
  memset(block->templates[2].template_name, 'n', 50);
  aps->aps[4].group_id = 77;
  const Image templates(block, sizeof *block);
  Image list(aps, sizeof *aps);
  EXPECT_EQ(bind(3, kMacA), 0);
  EXPECT_TRUE(templates.matches(block));
  EXPECT_TRUE(list.put8(ap_at(4) + 348, 3).put(ap_at(4) + 349, std::string(50, 'n')).matches(aps));
}

TEST_F(ApTemplates, TheIdOfABoundTemplate_IsStoredAsItsLowByte) {
  put_aps();
  block->templates[0].template_id = 0x1234567F;
  EXPECT_EQ(bind(0x1234567F, kMacA), 0);
  EXPECT_EQ(aps->aps[4].group_id, 0x7F);
}

TEST_F(ApTemplates, Binding_LocksTheTemplateFirstAndTheApInside) {
  fill_used();
  put_aps();
  const std::string ap_opened = "#2 = open " + kApLock;
  const std::vector<std::string> nested =
      under(kTemplateLock,
            {"lock #1 16", ap_opened, "lock #2 6", "unlock #2 6", "close #2", "unlock #1 16"});
  Journal journal;
  bind(15, kMacA);
  EXPECT_EQ(journal.lines(), nested);
  journal.clear();
  bind(15, kMacA); /* refreshed */
  EXPECT_EQ(journal.lines(), nested);
  journal.clear();
  unbind(15, kMacA);
  EXPECT_EQ(journal.lines(), nested);
}

TEST_F(ApTemplates, BindingAnApThatIsNotInTheList_BindsTheTemplateOnly) {
  fill_used();
  Image templates(block, sizeof *block);
  const Image list(aps, sizeof *aps);
  EXPECT_EQ(bind(1, kMacA), 0);
  EXPECT_TRUE(templates.copy(template_at(0) + 11416, kMacA, 6).matches(block));
  EXPECT_TRUE(list.matches(aps));
}

TEST_F(ApTemplates, OnlySixZeroBytes_MeanUnbound) {
  put_aps();
  for (int byte = 0; byte < 6; ++byte) {
    block->templates[0].template_id = 1;
    memset(block->templates[0].bound_ap_mac, 0, 6);
    block->templates[0].bound_ap_mac[byte] = 0x80;
    const Image templates(block, sizeof *block), list(aps, sizeof *aps);
    EXPECT_EQ(bind(1, kMacA), 0);
    EXPECT_TRUE(templates.matches(block)) << byte;
    EXPECT_TRUE(list.matches(aps)) << byte;
  }
}

TEST_F(ApTemplates, TwoBytesThatCancelOutInOneByte_AreStillABinding) {
  put_aps();
  block->templates[0].template_id = 1;
  block->templates[0].bound_ap_mac[0] = 0x80;
  block->templates[0].bound_ap_mac[1] = 0x80;
  const Image templates(block, sizeof *block);
  EXPECT_EQ(bind(1, kMacA), 0);
  EXPECT_TRUE(templates.matches(block));
}

TEST_F(ApTemplates, AnIdThatNoTemplateHas_ChangesNothingAndTakesNoRecordLock) {
  fill_used();
  put_aps();
  const Image templates(block, sizeof *block), list(aps, sizeof *aps);
  Journal journal;
  EXPECT_EQ(bind(16, kMacA), 0);
  EXPECT_EQ(journal.lines(), under(kTemplateLock, {}));
  journal.clear();
  EXPECT_EQ(unbind(16, kMacA), 0);
  EXPECT_EQ(journal.lines(), under(kTemplateLock, {}));
  EXPECT_TRUE(templates.matches(block));
  EXPECT_TRUE(list.matches(aps));
}

TEST_F(ApTemplates, UnbindingAnotherMac_ChangesNothing) {
  fill_used();
  put_aps();
  ASSERT_EQ(bind(3, kMacA), 0);
  const Image templates(block, sizeof *block), list(aps, sizeof *aps);
  EXPECT_EQ(unbind(3, kMacB), 0);
  EXPECT_TRUE(templates.matches(block));
  EXPECT_TRUE(list.matches(aps));
}

TEST_F(ApTemplates, UnbindingTheBoundMac_ZeroesItAndTheApsGroupInformation) {
  fill_used();
  put_aps();
  ASSERT_EQ(bind(3, kMacA), 0);
  Image templates(block, sizeof *block), list(aps, sizeof *aps);
  EXPECT_EQ(unbind(3, kMacA), 0);
  EXPECT_TRUE(templates.zero(template_at(2) + 11416, 6).matches(block));
  EXPECT_TRUE(list.zero(ap_at(4) + 348, 51).matches(aps));
}

TEST_F(ApTemplates, WithoutTheTemplateLockFile_BindingAndUnbindingSaySoAndChangeNothing) {
  fill_used();
  put_aps();
  ASSERT_EQ(unlink(kTemplateLock.c_str()), 0);
  const Image templates(block, sizeof *block), list(aps, sizeof *aps);
  const Output message = cannot_lock(kTemplateLock);
  int32_t results[2] = {7, 7};
  EXPECT_EQ(capture([&] { results[0] = bind(3, kMacA); }), message);
  EXPECT_EQ(capture([&] { results[1] = unbind(3, kMacA); }), message);
  EXPECT_EQ(results[0], 0);
  EXPECT_EQ(results[1], 0);
  EXPECT_TRUE(templates.matches(block));
  EXPECT_TRUE(list.matches(aps));
}

TEST_F(ApTemplates, WithoutTheApLockFile_TheTemplateIsBoundAllTheSame) {
  fill_used();
  put_aps();
  ASSERT_EQ(unlink(kApLock.c_str()), 0);
  Image templates(block, sizeof *block);
  const Image list(aps, sizeof *aps);
  EXPECT_EQ(capture([&] { bind(3, kMacA); }), cannot_lock(kApLock));
  EXPECT_TRUE(templates.copy(template_at(2) + 11416, kMacA, 6).matches(block));
  EXPECT_TRUE(list.matches(aps));
}

/* ---- lookups, claims, deletion ---- */

TEST_F(ApTemplates, A16thClaim_IsRefusedAndAFullTableCounts15) {
  Journal journal;
  for (int i = 0; i < 15; ++i) ASSERT_EQ(SC_Get_AP_Template_Info_Blank(block), i);
  EXPECT_EQ(SC_Get_AP_Template_Info_Blank(block), -1);
  EXPECT_EQ(SC_Get_AP_Template_Info_Count(block), 15);
  EXPECT_TRUE(journal.lines().empty());
}

TEST_F(ApTemplates, AClaim_TakesTheLowestFreeRecordAndChangesItsIdOnly) {
  fill_used();
  block->templates[6].template_id = 0;
  block->templates[8].template_id = 0;
  Image expected(block, sizeof *block);
  EXPECT_EQ(SC_Get_AP_Template_Info_Blank(block), 6);
  EXPECT_TRUE(expected.put32(template_at(6) + 4, 7).matches(block));
}

TEST_F(ApTemplates, AnId_IsFoundAtItsFirstPositionAndZeroAtTheFirstFreeOne) {
  EXPECT_EQ(SC_Get_AP_Template_Info_By_Id(block, 0), 0);
  EXPECT_EQ(SC_Get_AP_Template_Info_By_Id(block, 1), -1);
  fill_used();
  EXPECT_EQ(SC_Get_AP_Template_Info_By_Id(block, 0), -1);
  EXPECT_EQ(SC_Get_AP_Template_Info_By_Id(block, 15), 14);
  block->templates[3].template_id = 0xFFFFFFFF;
  EXPECT_EQ(SC_Get_AP_Template_Info_By_Id(block, 0xFFFFFFFF), 3);
}

TEST_F(ApTemplates, WhatLiesBehindTheTable_IsNoTemplate) {
  fill_used();
  const uint32_t id = 77;
  memcpy(block->spare_180256 + 4, &id, sizeof id);
  EXPECT_EQ(SC_Get_AP_Template_Info_By_Id(block, 77), -1);
  EXPECT_EQ(SC_Get_AP_Template_Info_Count(block), 15);
}

TEST_F(ApTemplates, TheCount_CountsEveryIdButZeroAndIsZeroForANullBlock) {
  block->templates[0].template_id = 0xFFFFFFFF;
  block->templates[14].template_id = 3;
  EXPECT_EQ(SC_Get_AP_Template_Info_Count(block), 2);
  EXPECT_EQ(SC_Get_AP_Template_Info_Count(nullptr), 0);
}

TEST_F(ApTemplates, DeletionAtPosition3_ClearsTheFourthRecordWhateverItsId) {
  fill_used();
  block->templates[3].template_id = 11;
  Image expected(block, sizeof *block);
  Journal journal;
  EXPECT_EQ(SC_Del_AP_Template_Info_By_Id(block, 3), 1);
  expected.zero(template_at(3), 12008).put32(template_at(3), 5);
  EXPECT_TRUE(expected.matches(block));
  EXPECT_EQ(journal.lines(), under(kTemplateLock, {"lock #1 5", "unlock #1 5"}));
  EXPECT_EQ(SC_Del_AP_Template_Info_By_Id(block, 3), 1); /* free already */
}

TEST_F(ApTemplates, TheDeletionOfABoundTemplate_LeavesTheApsGroupInformation) {
  fill_used();
  put_aps();
  ASSERT_EQ(bind(3, kMacA), 0);
  const Image list(aps, sizeof *aps);
  EXPECT_EQ(SC_Del_AP_Template_Info_By_Id(block, 2), 1);
  EXPECT_TRUE(list.matches(aps));
}

TEST_F(ApTemplates, WithoutLockFile_TheDeletionSaysSoAndReturnsZero) {
  fill_used();
  ASSERT_EQ(unlink(kTemplateLock.c_str()), 0);
  const Image before(block, sizeof *block);
  int32_t result = 7;
  EXPECT_EQ(capture([&] { result = SC_Del_AP_Template_Info_By_Id(block, 3); }),
            cannot_lock(kTemplateLock));
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(before.matches(block));
}

}  // namespace
