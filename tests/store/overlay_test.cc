/* The views that overlays make of records. */
#include "store/overlay.h"

#include <string.h>

#include <set>

#include "scctl/overlay_case.h"
#include "store/value.h"
#include "support/random.h"

namespace sc_test {
namespace {

class ViewTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    write_file("/var/vendor.json", kVendor);
    ASSERT_EQ(overlays_.load("/var/vendor.json"), 0);
    const uint32_t magic = kMagic;
    memcpy(record_ + 4, &magic, sizeof magic);
  }
  const store::Table& view() { return overlays_.view(wan_, 0, record_); }
  std::string names() {
    std::string all;
    for (const store::Field& field : view()) all += std::string(field.name) + " ";
    return all;
  }

  const store::Table& wan_ = *store::find_table("wan", 3);
  store::Overlays overlays_;
  uint8_t record_[960] = {};
};

TEST_F(ViewTest, RecordsThatDecideAlike_ShareAView) {
  const store::Table* first = &view();
  record_[8] = 77;
  EXPECT_EQ(&view(), first);
  record_[12] = 2; /* mode */
  const store::Table* other = &view();
  EXPECT_NE(other, first);
  record_[12] = 0;
  EXPECT_EQ(&view(), first);
  EXPECT_EQ(&overlays_.view(wan_, 3, record_), first);
  EXPECT_EQ(&overlays_.view(*first, 0, record_), first); /* of a view as of its table */
}

TEST_F(ViewTest, ATableWithoutMembers_IsItsOwnView) {
  const store::Table& rest = *store::find_table("wan_rest", 8);
  EXPECT_FALSE(overlays_.covers(rest));
  EXPECT_EQ(&overlays_.view(rest, 0, record_), &rest);
}

TEST_F(ViewTest, EveryBit_HasOneNameWhateverTheContents) {
  Random random;
  for (int n = 0; n < 2000; ++n) {
    for (int at = 8; at < 960; ++at) record_[at] = static_cast<uint8_t>(random.next());
    record_[12] = static_cast<uint8_t>(random.below(4));
    memset(record_ + 13, 0, 3);
    record_[32] = static_cast<uint8_t>(random.below(12));
    record_[68] = static_cast<uint8_t>(random.below(6));
    const uint32_t family = random.below(8);
    memcpy(record_ + 248, &family, sizeof family);
    uint8_t named[960] = {};
    std::set<std::string> seen;
    for (const store::Field& field : view()) {
      EXPECT_TRUE(seen.insert(field.name).second) << field.name;
      for (size_t at = 0; at < field.size; ++at) {
        const uint8_t own = store::mask_at(field, at);
        EXPECT_EQ(named[field.record_at + at] & own, 0) << field.name;
        named[field.record_at + at] |= own;
      }
    }
    for (int at = 4; at < 960; ++at) ASSERT_EQ(named[at], 0xff) << at;
    EXPECT_EQ(memcmp(named, "\0\0\0", 4), 0);
  }
}

/* More kinds of contents than views are kept. */
TEST_F(ViewTest, AViewThatIsMadeAgain_IsAsBefore) {
  record_[32] = 2;
  const std::string before = names();
  for (uint8_t ports = 0; ports <= 8; ++ports) {
    for (uint8_t radios = 0; radios <= 4; ++radios) {
      for (uint8_t mode = 0; mode < 4; ++mode) {
        record_[32] = ports;
        record_[68] = radios;
        record_[12] = mode;
        const std::string all = names();
        EXPECT_EQ(all.find("ports ") != std::string::npos, ports > 0);
        EXPECT_EQ(all.find("radio[3].") != std::string::npos, radios > 3);
        EXPECT_EQ(all.find("peer ") != std::string::npos, mode == 2);
      }
    }
  }
  record_[32] = 2;
  record_[68] = record_[12] = 0;
  EXPECT_EQ(names(), before);
}

/* As in a folder, where a file that is not good is left out. */
TEST_F(ViewTest, AFileThatIsNotGood_TakesNothingFromTheOneThatItCompletes) {
  write_file("/var/second.json", R"({"overlay": 1, "completes": "vendor.json", "types": {
      "wan_section": {"members": {"mtu": {"range": [-1, 5]}}}}})");
  EXPECT_EQ(overlays_.load("/var/second.json", true), store::kRefused);
  EXPECT_NE(names().find("mtu "), std::string::npos) << names();
}

/* There is room for 16384 members and types in all. */
TEST_F(ViewTest, FilesThatDoNotCount_TakeNoRoom) {
  const auto with =
      [](const std::string& file, const std::string& more, const std::string& places) {
        write_file(file, R"({"overlay": 1, )" + more + R"("types": {"none": {"size": 0},
        "t": {"size": 0, "members": {"a": {"at": 0, "type": "none", "count": 9000}}}},
        "at": {)" + places + "}}");
        return file;
      };
  const std::string place = R"("Misc.settings_140": "t")";
  const std::string bad = with("/var/bad.json", "", place + R"(, "Misc.nothing": "t")");
  const std::string first = with("/var/first.json", "", place);
  const std::string second = with("/var/second.json", R"("completes": "first.json", )", "");
  EXPECT_EQ(overlays_.load(bad.c_str(), true), store::kRefused);
  EXPECT_EQ(overlays_.load(first.c_str()), 0);
  EXPECT_EQ(overlays_.load(second.c_str()), 0);
}

/* A member that does not hold decides nothing, wherever its bytes lead. */
TEST_F(ViewTest, AConditionOnAMemberThatDoesNotHold_DoesNotHold) {
  write_file("/var/other.json", R"({"overlay": 1, "types": {"t": {"size": 8, "members": {
      "c": {"at": 2, "kind": "unsigned", "size": 1, "if": {"b": 1}},
      "b": {"at": 1, "kind": "unsigned", "size": 1, "if": {"a": 1}},
      "a": {"at": 0, "kind": "unsigned", "size": 1}}}},
      "at": {"Misc.settings_140": "t"}})");
  ASSERT_EQ(overlays_.load("/var/other.json"), 0);
  const store::Table& misc = *store::find_table("misc_1", 6);
  uint8_t record[772] = {};
  record[5] = 1;
  const auto has_c = [&] {
    return store::find_field(overlays_.view(misc, 0, record), "c", 1) != nullptr;
  };
  EXPECT_FALSE(has_c());
  record[4] = 1;
  EXPECT_TRUE(has_c());
}

/* The members of a type in the place of the settings of Misc, for a record. */
class ConditionTest : public World {
 protected:
  std::string names(const std::string& members, const std::string& record) {
    write_file("/var/other.json", R"({"overlay": 1, "types": {"t": {"size": 16, "members": {)" +
                                      members + R"(}}}, "at": {"Misc.settings_140": "t"}})");
    store::Overlays overlays;
    EXPECT_EQ(overlays.load("/var/other.json"), 0);
    const store::Table& misc = *store::find_table("misc_1", 6);
    uint8_t bytes[772] = {};
    memcpy(bytes + 4, record.data(), record.size());
    std::string all;
    for (const store::Field& field : overlays.view(misc, 0, bytes)) {
      if (!store::is_spare_name(field.name)) all += std::string(field.name) + " ";
    }
    return all;
  }
};

TEST_F(ConditionTest, AValueThatOnlyBeginsAsTheNumber_IsAnother) {
  const std::string members = R"("a": {"at": 0, "kind": "unsigned", "size": 1},
      "b": {"at": 1, "kind": "unsigned", "size": 1, "if": {"a": "7x"}},
      "c": {"at": 2, "kind": "unsigned", "size": 1, "if": {"a": "0x7"}})";
  EXPECT_EQ(names(members, "\7"), "a c ");
}

TEST_F(ConditionTest, ATextThatIsASecret_DecidesByWhatItIs) {
  const std::string members = R"("a": {"at": 0, "kind": "text", "size": 4, "secret": true},
      "b": {"at": 4, "kind": "unsigned", "size": 1, "if": {"a": "yes"}})";
  EXPECT_EQ(names(members, "yes"), "a b ");
  EXPECT_EQ(names(members, "no"), "a ");
}

TEST_F(ConditionTest, ACountOfAnArrayOfArrays_IsOfTheOuterOne) {
  const std::string members = R"("n": {"at": 0, "kind": "unsigned", "size": 1},
      "a": {"at": 1, "kind": "text", "size": 1, "count": [3, 2], "used": "n"})";
  EXPECT_EQ(names(members, "\1"), "n a[0][0] a[0][1] ");
  EXPECT_EQ(names(members, "\2"), "n a[0][0] a[0][1] a[1][0] a[1][1] ");
}

TEST_F(ConditionTest, ACountBelowZero_CountsNothing) {
  const std::string members = R"("n": {"at": 0, "kind": "signed", "size": 1},
      "list": {"at": 1, "kind": "unsigned", "size": 1, "count": 3, "used": "n"})";
  EXPECT_EQ(names(members, "\xff"), "n ");
  EXPECT_EQ(names(members, "\1"), "n list ");
}

}  // namespace
}  // namespace sc_test
