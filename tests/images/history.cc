#include "images/history.h"

#include <stdlib.h>

#include <sysconfig/ap.h>

#include <algorithm>
#include <stdexcept>

#include "model/list_calls.h"
#include "support/areas.h"
#include "support/golden.h"

namespace sc_test {

namespace {

/* What a list's steps need besides its calls. */
struct ListStructs {
  const char *list, *area, *item, *record;
  void (*delete_by_ip_group)(void* block, int32_t id);
  void (*delete_by_time_group)(void* block, int32_t id);
};

// clang-format off
const ListStructs kLists[] = {
  {"DhcpdBind",       "Lan",            "DhcpStaticItem",    "DhcpBindRecord",    nullptr, nullptr},
  {"AC_DhcpdBind",    "Lan",            "DhcpStaticItem",    "DhcpBindRecord",    nullptr, nullptr},
  {"UserIpGroup",     "IpGroup",        "IpGroupItem",       "IpGroupRecord",     nullptr, nullptr},
  {"UserTimeGroup",   "TimeGroup",      "TimeGroupItem",     "TimeGroupRecord",   nullptr, nullptr},
  {"FireWall_IpPort", "FwIpport",       "IpFilterItem",      "IpFilterRecord",
   Erased<DelIpFilterItemByIpGroupId>::call, Erased<DelIpFilterItemByTimeGroupId>::call},
  {"ForwordIpPort",   "VsIpport",       "PortFwItem",        "PortFwRecord",      nullptr, nullptr},
  {"FireWall_Mac",    "FwMac",          "MacFilterItem",     "MacFilterRecord",
   nullptr, Erased<DelMacFilterItemByTimeGroupId>::call},
  {"FireWall_Url",    "FwUrl",          "UrlFilterItem",     "UrlFilterRecord",
   nullptr, Erased<DelUrlFilterItemByTimeGroupId>::call},
  {"QosRule",         "Qos",            "QosItem",           "QosRuleRecord",
   Erased<DelQosItemByIpGroupId>::call, Erased<DelQosItemByTimeGroupId>::call},
  {"ClientsGroups",   "Clients_Groups", "ClientsGroupsItem", "ClientsGroupsItem", nullptr, nullptr},
  {"Clients",         "Clients",        "ClientsItem",       "ClientsItem",       nullptr, nullptr},
};
// clang-format on

const ListStructs* find_list(const std::string& name) {
  for (const ListStructs& row : kLists) {
    if (name == row.list) return &row;
  }
  return nullptr;
}

const ListCalls& calls_of(const std::string& name) {
  for (const ListCalls& calls : kListCalls) {
    if (name == calls.list) return calls;
  }
  throw std::out_of_range("no list " + name);
}

std::string without_quotes(const std::string& value) {
  const size_t begin = value.find('"') + 1;
  return value.substr(begin, value.rfind('"') - begin);
}

/* The bytes of a field from a value of the history. */
std::vector<uint8_t> encode(const std::string& value, size_t size, size_t element) {
  std::vector<uint8_t> bytes;
  if (value[0] == '"' || value[0] == '*') {
    const std::string text = without_quotes(value);
    const size_t length = value[0] == '*' ? size : text.size();
    for (size_t i = 0; i < length; ++i)
      bytes.push_back(static_cast<uint8_t>(text[i % text.size()]));
  } else if (value[0] == 'x') {
    for (size_t i = 1; i < value.size(); i += 2) {
      bytes.push_back(static_cast<uint8_t>(strtoul(value.substr(i, 2).c_str(), nullptr, 16)));
    }
  } else {
    for (const std::string& digits : split(value, ',')) {
      const auto number = static_cast<uint64_t>(strtoll(digits.c_str(), nullptr, 0));
      for (size_t i = 0; i < element; ++i) bytes.push_back(static_cast<uint8_t>(number >> 8 * i));
    }
  }
  if (bytes.size() > size) throw std::length_error("too wide: " + value);
  bytes.resize(size);
  return bytes;
}

/* Words at blanks, but for those inside quotes. */
std::vector<std::string> words_of(const std::string& line) {
  std::vector<std::string> words;
  bool quoted = false, inside = false;
  for (const char c : line) {
    if (c == '"') quoted = !quoted;
    if (c == ' ' && !quoted) {
      inside = false;
      continue;
    }
    if (!inside) words.emplace_back();
    inside = true;
    words.back() += c;
  }
  return words;
}

Step parse(const std::string& line) {
  Step step;
  step.text = line;
  const std::vector<std::string> words = words_of(line);
  step.subject = words.at(0);
  step.verb = words.at(1);
  bool arrow = false;
  for (size_t i = 2; i < words.size(); ++i) {
    const std::string& word = words[i];
    const size_t equals = word.find('='), quote = word.find('"');
    if (word == "->") {
      arrow = true;
    } else if (arrow) {
      step.results.push_back(strtoll(word.c_str(), nullptr, 0));
    } else if (equals < quote) {
      step.args.emplace_back(word.substr(0, equals), word.substr(equals + 1));
    } else {
      step.args.emplace_back("", word);
    }
  }
  return step;
}

void replace_all(std::string& text, const std::string& what, const std::string& with) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
}

}  // namespace

const std::string& Step::arg(const std::string& name) const {
  for (const auto& [key, value] : args) {
    if (key == name) return value;
  }
  throw std::out_of_range("no " + name + ": " + text);
}

int64_t Step::number(const std::string& name) const {
  return strtoll(arg(name).c_str(), nullptr, 0);
}

std::vector<Step> read_history() {
  std::vector<Step> steps;
  for (const std::string& whole : golden_lines("history.txt")) {
    if (whole[0] == '#') continue;
    std::string line = whole;
    long first = 0, last = 0;
    if (line[0] == '{') {
      char* end;
      first = strtol(line.c_str() + 1, &end, 10);
      last = strtol(end + 2, &end, 10);
      line.erase(0, static_cast<size_t>(end - line.c_str()) + 2);
    }
    for (long n = first; n <= last; ++n) {
      std::string text = line;
      replace_all(text, "{}", std::to_string(n));
      Step step = parse(text);
      if (step.subject != "all") {
        steps.push_back(step);
        continue;
      }
      for (const AreaCalls& calls : all_areas()) {
        if (step.verb == "flash" && calls.save_to_flash == nullptr) continue;
        step.subject = calls.name;
        steps.push_back(step);
      }
    }
  }
  return steps;
}

/* An item or a record of this layout with the fields that the step names. */
std::vector<uint8_t> Replay::build(const std::string& name, const Step& step) const {
  uint8_t filler = 0;
  for (const auto& [path, value] : step.args) {
    if (path == "fill") filler = encode(value, 1, 1)[0];
  }
  std::vector<uint8_t> bytes(layout_.size_of(name), filler);
  for (const auto& [path, value] : step.args) {
    if (path == "fill" || path == "op" || path == "index") continue;
    const Layout::Span field = layout_.at_path(name, path);
    const auto encoded = encode(value, field.size, field.element);
    std::copy(encoded.begin(), encoded.end(), bytes.begin() + static_cast<long>(field.offset));
  }
  return bytes;
}

std::vector<int64_t> Replay::run(const Step& step) {
  for (const char* verb : {"init", "read", "flash", "remove", "set"}) {
    if (step.verb == verb) return on_area(step);
  }
  return find_list(step.subject) != nullptr ? on_list(step) : on_access_points(step);
}

std::vector<int64_t> Replay::on_list(const Step& step) {
  const ListStructs& row = *find_list(step.subject);
  const ListCalls& calls = calls_of(step.subject);
  uint8_t* own = block(row.area);
  const Blocks blocks = blocks_at([&](const char* area) { return block(area); });
  if (step.verb == "add") return {calls.add(own, build(row.item, step).data())};
  if (step.verb == "modify") return {calls.modify(own, build(row.item, step).data())};
  if (step.verb == "delete") {
    std::string ids = without_quotes(step.arg(""));
    calls.del(own, blocks, ids.data());
    return {};
  }
  if (step.verb == "delete_all") {
    calls.del_all(own);
    return {};
  }
  if (step.verb == "delete_by_ip_group") {
    row.delete_by_ip_group(own, static_cast<int32_t>(step.number("")));
    return {};
  }
  if (step.verb == "delete_by_time_group") {
    row.delete_by_time_group(own, static_cast<int32_t>(step.number("")));
    return {};
  }
  if (step.verb == "blank") return {calls.blank(own)};
  if (step.verb == "operate") {
    const std::vector<uint8_t> record = build(row.record, step);
    auto index = static_cast<uint32_t>(step.number("index"));
    const int32_t result = calls.operate(own, static_cast<uint32_t>(step.number("op")), &index,
                                         step.args.size() > 2 ? record.data() : nullptr);
    return {result, index};
  }
  throw std::invalid_argument(step.text);
}

std::vector<int64_t> Replay::on_area(const Step& step) {
  const AreaCalls& calls = area(step.subject);
  if (step.verb == "init") {
    const int status = calls.init(static_cast<int>(step.number("")));
    blocks_[step.subject] = block_at(calls.get());
    return {status};
  }
  if (step.verb == "remove") return {calls.uninit()};
  if (step.verb == "read") calls.read(block(step.subject));
  if (step.verb == "flash") calls.save_to_flash(block(step.subject));
  if (step.verb == "set") {
    const auto& [path, value] = step.args.at(0);
    const Layout::Span field = layout_.at_path(layout_.block_of(step.subject), path);
    const auto encoded = encode(value, field.size, field.element);
    std::copy(encoded.begin(), encoded.end(), block(step.subject) + field.offset);
  }
  return {};
}

std::vector<int64_t> Replay::on_access_points(const Step& step) {
  auto* aps = typed<ManageApListBlock>("ManageApList");
  auto* users = typed<ApUserListBlock>("ApUserList");
  auto* templates = typed<ApTemplateListBlock>("ApTemplateList");
  const bool on_aps = step.subject == "ManageApList", on_users = step.subject == "ApUserList";
  const bool on_templates = step.subject == "ApTemplateList";
  auto mac = [&] { return encode(step.arg("mac"), SC_MAC_BYTES, 1); };

  if (on_aps && step.verb == "claim") {
    ApLimitsRecord limits = {};
    limits.max_ap_count = static_cast<int16_t>(step.number("limit"));
    return {SC_Get_Ap_Info_Blank(aps, &limits)};
  }
  if (on_users && step.verb == "claim") return {SC_Get_ApUser_Info_Blank(users)};
  if (on_templates && step.verb == "claim") return {SC_Get_AP_Template_Info_Blank(templates)};
  if (on_aps && step.verb == "delete_mac") return {SC_Del_Ap_Info_by_Mac(aps, mac().data())};
  if (on_users && step.verb == "delete_mac")
    return {SC_Del_ApUser_Info_by_Mac(users, mac().data())};
  if (on_aps && step.verb == "group_info") {
    const auto info = encode(step.arg("info"), sizeof(ApInfoRecord::group_info), 1);
    return {SC_Ap_Add_GroupInfo_by_Mac(aps, reinterpret_cast<const char*>(info.data()),
                                       static_cast<int>(step.number("group")), mac().data())};
  }
  if (on_aps && step.verb == "clean_group_info") {
    return {SC_Ap_Clean_GroupInfo_by_Mac(aps, mac().data())};
  }
  if (on_aps && step.verb == "clear_used") return {SC_Set_Ap_Info_Id2Zero(aps)};
  if (on_aps && step.verb == "clean_fragments") {
    SC_CleanWtpFragBuffer(aps);
    return {};
  }
  if (on_templates && step.verb == "delete_template") {
    return {
        SC_Del_AP_Template_Info_By_Id(templates, static_cast<uint32_t>(step.number("position")))};
  }
  if (on_templates && (step.verb == "bind" || step.verb == "unbind")) {
    const auto change =
        step.verb == "bind" ? SC_Add_Ap_Mac2Template_By_Id : SC_Del_Ap_Mac2Template_By_Id;
    return {change(templates, aps, static_cast<uint32_t>(step.number("id")), mac().data())};
  }
  throw std::invalid_argument(step.text);
}

}  // namespace sc_test
