/* Any bytes in a block, then every function that reads it. */
#include <sysconfig/ap.h>

#include "fuzz/harness.h"
#include "support/areas.h"

namespace sc_fuzz {

namespace {

using namespace sc_test;

constexpr uint32_t kMostSteps = 8;

void run_list(Source& source, uint32_t list) {
  Stage stage(list);
  for (const std::string& area : stage.areas()) stage.set(area, hostile_block(source, area));
  stage.read(source);
  for (uint32_t steps = 0; steps < kMostSteps && !source.empty(); ++steps) stage.step(source);
  stage.read(source);
  stage.compare_blocks();
}

/* A number among the results that a function has. */
void within(const char* what, int64_t result, int64_t lowest, int64_t highest) {
  if (result < lowest || result > highest) {
    found("%s is %lld", what, static_cast<long long>(result));
  }
}

/* Every record that the block says is used, counted by hand. */
int64_t used(const std::string& table) {
  const IdTableRow& row = id_table_row(table);
  const uint8_t* block = block_of(row.area).data();
  int64_t count = 0;
  for (uint32_t p = 0; p < row.capacity; ++p) {
    count += load(block + row.record_at(p) + row.id_at, 4) != 0;
  }
  return count;
}

void run_aps(Source& source) {
  block_of("ManageApList") = hostile_block(source, "ManageApList");
  auto* block = block_of("ManageApList").as<ManageApListBlock>();
  while (true) {
    const int64_t count = used("Ap_Info");
    within("count", SC_Get_Ap_Info_Count(block), count, count);
    Exact positions(300 * sizeof(uint32_t));
    within("list", SC_Get_Ap_Info_Count_And_Id(positions.as<uint32_t>(), block), count, count);
    within("online and offline",
           int64_t{SC_Get_Ap_Info_Count_Online(block)} + SC_Get_Ap_Info_Count_Offline(block), 0,
           count);
    within("by id", SC_Get_Ap_Info_By_Id(block, source.number()), -1, 299);
    Exact mac(source.bytes(6));
    within("by MAC", SC_Get_Ap_Info_By_Mac(block, mac.data()), -1, 299);
    if (source.empty()) return;
    switch (source.below(6)) {
      case 0: within("delete", SC_Del_Ap_Info_by_Mac(block, mac.data()), 0, 1); break;
      case 1: {
        const auto group = static_cast<int>(source.number());
        Exact info(source.bytes(50));
        within("bind", SC_Ap_Add_GroupInfo_by_Mac(block, info.as<char>(), group, mac.data()), 0, 1);
        break;
      }
      case 2: within("unbind", SC_Ap_Clean_GroupInfo_by_Mac(block, mac.data()), 0, 1); break;
      case 3: within("clear", SC_Set_Ap_Info_Id2Zero(block), 0, count); break;
      case 4: SC_CleanWtpFragBuffer(block); break;
      default: {
        Bytes limits = source.bytes(470);
        store(limits.data() + 468, 2, source.half());
        Exact exact(limits);
        within("claim", SC_Get_Ap_Info_Blank(block, exact.as<ApLimitsRecord>()), -1, 299);
      }
    }
  }
}

void run_users(Source& source) {
  block_of("ApUserList") = hostile_block(source, "ApUserList");
  auto* block = block_of("ApUserList").as<ApUserListBlock>();
  for (uint32_t steps = 0; steps < kMostSteps; ++steps) {
    const int64_t count = used("ApUser_Info");
    within("count", SC_Get_ApUser_Info_Count(block), count, count);
    within("by id", SC_Get_ApUser_Info_By_Id(block, source.number()), -1, 299);
    Exact mac(source.bytes(6));
    within("by MAC", SC_Get_ApUser_Info_By_Mac(block, mac.data()), -1, 299);
    if (source.empty()) return;
    if (source.below(2) == 0) {
      within("delete", SC_Del_ApUser_Info_by_Mac(block, mac.data()), 0, 1);
    } else {
      within("claim", SC_Get_ApUser_Info_Blank(block), -1, 299);
    }
  }
}

void run_templates(Source& source) {
  block_of("ManageApList") = hostile_block(source, "ManageApList");
  block_of("ApTemplateList") = hostile_block(source, "ApTemplateList");
  auto* aps = block_of("ManageApList").as<ManageApListBlock>();
  auto* block = block_of("ApTemplateList").as<ApTemplateListBlock>();
  for (uint32_t steps = 0; steps < kMostSteps; ++steps) {
    const int64_t count = used("AP_Template_Info");
    within("count", SC_Get_AP_Template_Info_Count(block), count, count);
    const uint32_t id = source.number();
    within("by id", SC_Get_AP_Template_Info_By_Id(block, id), -1, 14);
    Exact mac(source.bytes(6));
    if (source.empty()) return;
    switch (source.below(4)) {
      case 0: within("bind", SC_Add_Ap_Mac2Template_By_Id(block, aps, id, mac.data()), 0, 0); break;
      case 1:
        within("unbind", SC_Del_Ap_Mac2Template_By_Id(block, aps, id, mac.data()), 0, 0);
        break;
      case 2: within("claim", SC_Get_AP_Template_Info_Blank(block), -1, 14); break;
      default: within("delete", SC_Del_AP_Template_Info_By_Id(block, source.below(15)), 0, 1);
    }
  }
}

/* Saving, announcing and numbering, which every area has. */
void run_area(Source& source, const AreaCalls& area) {
  if (area.save_to_flash == nullptr) return run_users(source);
  Exact& block = block_of(area.name);
  const Bytes& image = hostile_block(source, area.name);
  block = image;
  area.save_to_flash(block.data());
  if (memcmp(block.data(), image.data(), block.size()) != 0) found("a save changed %s", area.name);
  area.save();
  within("read", area.read(block.data()), -1, -1); /* there is no archive */
  Image numbered(image.data(), image.size());
  golden_area(area.name).number(numbered);
  if (memcmp(block.data(), numbered.data(), block.size()) != 0) found("numbers of %s", area.name);
}

}  // namespace

void run_block(Source& source) {
  const uint32_t areas = static_cast<uint32_t>(all_areas().size());
  const uint32_t choice = source.below(kLists + 3 + areas);
  if (choice < kLists) return run_list(source, choice);
  switch (choice - kLists) {
    case 0: return run_aps(source);
    case 1: return run_users(source);
    case 2: return run_templates(source);
    default: return run_area(source, all_areas()[choice - kLists - 3]);
  }
}

}  // namespace sc_fuzz
