#include "support/areas.h"

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>
#include <sysconfig/core.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <stdlib.h>
#include <string.h>

#include <stdexcept>

#include "support/called.h"
#include "support/golden.h"

namespace sc_test {

namespace {

template <auto kFunction, class Block>
auto untyped(void* block) {
  return Noted<kFunction>::call(static_cast<Block*>(block));
}

int init_ap_users(int) { return Noted<SC_Init_System_ApUserList_Config>::call(); }

// clang-format off
#define AREA(name, Block)                                         \
  {#name,                                                         \
   Noted<SC_Get_##name##_System_Config>::call,                    \
   Noted<SC_Uninit_System_##name##_Config>::call,                 \
   Noted<SC_Init_System_##name##_Config>::call,                   \
   untyped<SC_Read_System_##name##_Config, Block>,                \
   Noted<SC_Save_System_##name##_Config>::call,                   \
   untyped<SC_Save_System_##name##_Config2Flash, Block>}
// clang-format on

/* "offset:stride:count:first offset:stride:count:first" */
std::vector<Span> spans(const std::string& text) {
  std::vector<Span> all;
  for (const std::string& part : split(text, ' ')) {
    std::vector<unsigned long> numbers;
    for (const std::string& number : split(part, ':')) {
      numbers.push_back(strtoul(number.c_str(), nullptr, 10));
    }
    numbers.resize(4);
    all.push_back({numbers[0], numbers[1], numbers[2], static_cast<uint32_t>(numbers[3])});
  }
  return all;
}

}  // namespace

const std::vector<AreaCalls>& all_areas() {
  static const std::vector<AreaCalls> areas = {
      AREA(Lan, LanBlock),
      AREA(Wan, WanBlock),
      AREA(ProductInfo, ProductInfoBlock),
      AREA(Misc, MiscBlock),
      AREA(VsIpport, VsIpportBlock),
      AREA(FwIpport, FwIpportBlock),
      AREA(IpGroup, IpGroupBlock),
      AREA(TimeGroup, TimeGroupBlock),
      AREA(FwMac, FwMacBlock),
      AREA(FwUrl, FwUrlBlock),
      AREA(Qos, QosBlock),
      AREA(ManageApList, ManageApListBlock),
      {"ApUserList", Noted<SC_Get_ApUserList_System_Config>::call,
       Noted<SC_Uninit_System_ApUserList_Config>::call, init_ap_users, nullptr, nullptr, nullptr},
      AREA(ApTemplateList, ApTemplateListBlock),
      AREA(DefApTemplate, DefApTemplateBlock),
      AREA(Clients_Groups, ClientsGroupsBlock),
      AREA(Clients, ClientsBlock),
  };
  return areas;
}

const AreaCalls& area(const std::string& name) {
  for (const AreaCalls& calls : all_areas()) {
    if (name == calls.name) return calls;
  }
  throw std::out_of_range("no area " + name);
}

Image AreaFacts::emptied() const {
  Image image(size);
  for (const Span& span : free_marks) {
    for (size_t i = 0; i < span.count; ++i) image.put32(span.offset + i * span.stride, 0xffffffff);
  }
  return image;
}

void AreaFacts::number_locks(void* block) const {
  for (const Span& span : locks) {
    for (size_t i = 0; i < span.count; ++i) {
      const uint32_t lock_index = span.first + static_cast<uint32_t>(i);
      memcpy(static_cast<uint8_t*>(block) + span.offset + i * span.stride, &lock_index,
             sizeof lock_index);
    }
  }
}

void AreaFacts::number(Image& image) const {
  image.put(path_at, lock_path, lock_path.size() + 1).put32(index_at, 1);
  number_locks(image.data());
  for (const Span& span : zeroed_by_read) {
    for (size_t i = 0; i < span.count; ++i) image.put32(span.offset + i * span.stride, 0);
  }
}

const std::vector<AreaFacts>& golden_areas() {
  static const std::vector<AreaFacts> areas = [] {
    std::vector<AreaFacts> all;
    for (const GoldenRow& row : golden_table("areas.csv")) {
      const std::string stem = "config_" + row.text("stem");
      all.push_back({row.text("area"), static_cast<int>(row.number("key")),
                     static_cast<size_t>(row.number("size")),
                     static_cast<int32_t>(row.number("code")),
                     "/var/lock_store/" + row.text("lock_stem") + "_conf_lock",
                     "/var/systemconfig/" + stem + ".cfg", "/var/dataconfig/" + stem + ".bin",
                     split(row.text("post_flash"), ';'), static_cast<size_t>(row.number("path_at")),
                     static_cast<size_t>(row.number("index_at")), spans(row.text("locks")),
                     spans(row.text("free_marks")), spans(row.text("zeroed_by_read"))});
    }
    return all;
  }();
  return areas;
}

const AreaFacts& golden_area(const std::string& name) {
  for (const AreaFacts& facts : golden_areas()) {
    if (name == facts.name) return facts;
  }
  throw std::out_of_range("no golden area " + name);
}

const std::string& lock_file(const std::string& area) { return golden_area(area).lock_path; }

std::vector<std::string> area_names() {
  std::vector<std::string> names;
  for (const AreaCalls& calls : all_areas()) names.push_back(calls.name);
  return names;
}

std::vector<std::string> saved_area_names() {
  std::vector<std::string> names;
  for (const AreaCalls& calls : all_areas()) {
    if (calls.read != nullptr) names.push_back(calls.name);
  }
  return names;
}

}  // namespace sc_test
