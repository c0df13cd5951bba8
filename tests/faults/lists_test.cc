/* Every function of every list under faults: the naive model says what is left. */
#include <string.h>

#include <set>

#include "faults/lists.h"

namespace {

using namespace sc_test;

/* Lists whose rules are deleted by a group, and lists that are not read. */
const std::map<std::string, size_t> kDeletedByGroup = {
    {"FireWall_IpPort", 2}, {"FireWall_Mac", 1}, {"FireWall_Url", 1}, {"QosRule", 2}};
const std::set<std::string> kNotRead = {"ClientsGroups", "Clients"};

INSTANTIATE_TEST_SUITE_P(Lists, ListFaults, testing::ValuesIn(kListCalls),
                         [](const auto& info) { return std::string(info.param.list); });

TEST_P(ListFaults, TableOperations_LeaveWhatTheModelLeaves) {
  const Bytes fresh = record(90), same_as_the_first = [&] {
    Bytes bytes = record(90);
    const uint8_t* first = before[row.area].data() + row.record_at(0);
    for (const KeyRow& key : row.keys) memcpy(bytes.data() + key.at, first + key.at, key.width);
    return bytes;
  }();
  struct {
    const char* what;
    uint32_t op, position;
    const Bytes& with;
  } const steps[] = {{"add", LIST_OP_ADD, 77, fresh},
                     {"add what is there", LIST_OP_ADD, 77, same_as_the_first},
                     {"modify", LIST_OP_MODIFY, 2, fresh},
                     {"modify a free one", LIST_OP_MODIFY, 3, fresh},
                     {"modify out of range", LIST_OP_MODIFY, row.capacity, fresh},
                     {"delete", LIST_OP_DEL, 1, fresh},
                     {"delete out of range", LIST_OP_DEL, row.capacity, fresh},
                     {"delete all", LIST_OP_DEL_ALL, 0, fresh},
                     {"no such operation", 3, 0, fresh}};
  for (const auto& step : steps) {
    auto both = [](int32_t result, uint32_t position) {
      return static_cast<int64_t>(result) << 32 | position;
    };
    expect_every_fault_survived(
        step.what,
        [&] {
          uint32_t position = step.position;
          const int32_t result = calls.operate(block(), step.op, &position, step.with.data());
          return both(result, position);
        },
        [&](Model& model) {
          uint32_t position = step.position;
          const int32_t result = model.operate(row, step.op, &position, step.with.data());
          return both(result, position);
        });
  }
  expect_every_fault_survived(
      "claim", [&] { return calls.blank(block()); },
      [&](Model& model) { return model.blank(row); });
  if (calls.check != nullptr) {
    expect_no_calls("check", [&] { calls.check(block(), fresh.data(), 1); });
  }
}

TEST_P(ListFaults, ItemFunctions_LeaveWhatTheModelLeaves) {
  const Bytes fresh = item(90, 0), changed = item(91, 3), nowhere = item(92, row.capacity + 1);
  expect_every_fault_survived(
      "add", [&] { return calls.add(block(), fresh.data()); },
      [&](Model& model) { return model.add(row, fresh.data()); });
  for (const Bytes& with : {changed, nowhere}) {
    expect_every_fault_survived(
        "modify", [&] { return calls.modify(block(), with.data()); },
        [&](Model& model) { return model.modify(row, with.data()); });
  }
  for (const char* text : {"2", "1#3#40#2", ""}) {
    expect_every_fault_survived(
        "delete",
        [&] {
          std::string ids = text;
          calls.del(block(), others(), ids.data());
          return 0;
        },
        [&](Model& model) {
          std::string ids = text;
          model.del(row, ids);
          return 0;
        });
  }
  expect_every_fault_survived(
      "delete all",
      [&] {
        calls.del_all(block());
        return 0;
      },
      [&](Model& model) {
        model.del_all(row);
        return 0;
      });
}

TEST_P(ListFaults, DeletionByGroup_LeavesWhatTheModelLeaves) {
  const auto known = kDeletedByGroup.find(row.name);
  EXPECT_EQ(row.references.size(), known == kDeletedByGroup.end() ? 0 : known->second);
  for (const ReferenceRow& reference : row.references) {
    const bool ip = reference.group == "ip";
    expect_every_fault_survived(
        reference.group.c_str(),
        [&] {
          const Blocks all = others();
          if (row.name == "FireWall_IpPort") {
            (ip ? Noted<DelIpFilterItemByIpGroupId>::call
                : Noted<DelIpFilterItemByTimeGroupId>::call)(all.ip_filters, 2);
          } else if (row.name == "QosRule") {
            (ip ? Noted<DelQosItemByIpGroupId>::call : Noted<DelQosItemByTimeGroupId>::call)(
                all.qos_rules, 2);
          } else if (row.name == "FireWall_Mac") {
            Noted<DelMacFilterItemByTimeGroupId>::call(all.mac_filters, 2);
          } else {
            Noted<DelUrlFilterItemByTimeGroupId>::call(all.url_filters, 2);
          }
          return 0;
        },
        [&](Model& model) {
          model.del_by_group(row, reference.group, 2);
          return 0;
        });
  }
}

TEST_P(ListFaults, Reading_CallsNothingThatCouldFail) {
  ASSERT_EQ(calls.get != nullptr, kNotRead.count(row.name) == 0);
  if (calls.get == nullptr) return;
  Bytes one(row.item_size), list(row.list_size);
  expect_no_calls("get", [&] { calls.get(block(), 2, one.data()); });
  expect_no_calls("list", [&] { calls.get_list(block(), others(), list.data()); });
  if (row.name == "UserIpGroup") {
    expect_no_calls("index", [&] { Noted<GetIpGroupIndex>::call(others().ip_groups, 2); });
  }
}

}  // namespace
