/* Golden images: the history in golden/history.txt, done by the library, has to leave the bytes in
 * golden/images. These were computed by golden/make_images.py, in which the library takes no part.
 */
#include <stdio.h>

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "images/history.h"
#include "images/layout.h"
#include "model/list_calls.h"
#include "support/areas.h"
#include "support/listener.h"
#include "support/output.h"
#include "support/world.h"

namespace sc_test {
namespace {

constexpr int kMaxReported = 12;

/* What a shell command writes to its standard output. */
std::string output_of(const std::string& command) {
  std::string bytes;
  FILE* pipe = popen(command.c_str(), "r");
  EXPECT_NE(pipe, nullptr) << command;
  if (pipe == nullptr) return bytes;
  char part[65536];
  for (size_t size; (size = fread(part, 1, sizeof part, pipe)) > 0;) bytes.append(part, size);
  EXPECT_EQ(pclose(pipe), 0) << command;
  return bytes;
}

std::string image_name(const Layout::Area& area) {
  return area.stem.empty() ? "apuserlist" : "config_" + area.stem + ".cfg";
}

std::string golden_image(const Layout::Area& area) {
  return output_of("gzip -dc " SC_TEST_SOURCES "/tests/golden/images/" + image_name(area) + ".gz");
}

std::string hex(const std::string& bytes, size_t offset, size_t size) {
  std::string text;
  char digits[3];
  for (size_t i = offset; i < offset + size && i < offset + 16; ++i) {
    snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(bytes[i]));
    text += digits;
  }
  return text;
}

/* Names each field that differs, with its offset and the bytes from the first that differs on. */
::testing::AssertionResult equal_images(const Layout& layout, const Layout::Area& area,
                                        const std::string& expected, const std::string& actual) {
  if (expected == actual) return ::testing::AssertionSuccess();
  auto result = ::testing::AssertionFailure();
  if (expected.size() != actual.size()) {
    return result << area.name << ": expected " << expected.size() << " bytes, got "
                  << actual.size();
  }
  result << area.name << " differs:";
  int fields = 0;
  for (size_t at = 0; at < expected.size(); ++at) {
    if (expected[at] == actual[at]) continue;
    const Layout::Span field = layout.at_offset(area.block, at);
    const size_t end = field.offset + field.size;
    if (++fields <= kMaxReported) {
      result << "\n  " << field.path << " at " << field.offset << "+" << at - field.offset
             << ": expected " << hex(expected, at, end - at) << ", got "
             << hex(actual, at, end - at);
    }
    at = end - 1;
  }
  if (fields > kMaxReported) result << "\n  and " << fields - kMaxReported << " other fields";
  return result;
}

class GoldenImages : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    const Output output = capture([this] { replay(); });
    if (HasFatalFailure()) FAIL() << output.out;
    std::string unread; /* the steps on areas that are not read yet */
    for (int n = 0; n < 7; ++n) unread += "Cannot Lock file ";
    ASSERT_EQ(output.out, unread);
  }

  void replay() {
    Listener listener;
    for (const Step& step : read_history()) {
      ASSERT_EQ(replay_.run(step), step.results) << step.text;
      listener.codes();
    }
  }

  std::string block_bytes(const Layout::Area& area) const {
    return std::string(reinterpret_cast<const char*>(replay_.block(area.name)),
                       layout_.size_of(area.block));
  }

  void save_all() {
    const Output output = capture([this] {
      for (const AreaCalls& calls : all_areas()) {
        if (calls.save_to_flash != nullptr) calls.save_to_flash(replay_.block(calls.name));
      }
    });
    ASSERT_EQ(output.out, "");
  }

  Layout layout_;
  Replay replay_;
};

TEST_F(GoldenImages, AfterTheHistoryEveryBlockHoldsTheGoldenBytes) {
  for (const Layout::Area& area : layout_.areas()) {
    EXPECT_TRUE(equal_images(layout_, area, golden_image(area), block_bytes(area)));
  }
}

TEST_F(GoldenImages, TheFlashArchivesHoldTheGoldenBytesUnderTheImagesPath) {
  save_all();
  for (const Layout::Area& area : layout_.areas()) {
    if (area.stem.empty()) continue;
    const std::string& archive = golden_area(area.name).archive_path;
    const std::string member = golden_area(area.name).image_path.substr(1);
    EXPECT_EQ(output_of("tar -tzf " + archive), member + "\n");
    EXPECT_TRUE(equal_images(layout_, area, golden_image(area),
                             output_of("tar -xzOf " + archive + " " + member)));
    EXPECT_FALSE(exists("/" + member));
  }
}

TEST_F(GoldenImages, InitAfterAFlashSaveRestoresTheGoldenBytes) {
  save_all();
  for (const AreaCalls& calls : all_areas()) ASSERT_EQ(calls.uninit(), 0) << calls.name;
  for (const Layout::Area& area : layout_.areas()) {
    if (area.stem.empty()) continue;
    ASSERT_EQ(replay_.run({"", area.name, "init", {{"", "1"}}, {}}), std::vector<int64_t>{0});
    EXPECT_TRUE(equal_images(layout_, area, golden_image(area), block_bytes(area)));
    EXPECT_FALSE(exists(golden_area(area.name).image_path));
  }
}

TEST(GoldenImagesReport, ADifferenceIsNamedByItsFieldAndOffset) {
  const Layout layout;
  for (const Layout::Area& area : layout.areas()) {
    if (area.name != "FwIpport") continue;
    const std::string expected = golden_image(area);
    std::string actual = expected;
    /* rules[3].param_2 lies at 144 + 3 * 984 + 248, its third byte two further. */
    actual[3346] = 'x';
    actual[32631] = 'x';
    const std::string message = equal_images(layout, area, expected, actual).message();
    EXPECT_NE(message.find("\n  rules[3].param_2 at 3344+2: expected ab89, got 7889\n"),
              std::string::npos)
        << message;
    EXPECT_NE(message.find("\n  spare_31632 at 31632+999: expected 00, got 78"), std::string::npos)
        << message;
    EXPECT_FALSE(equal_images(layout, area, expected, expected + "x"));
    return;
  }
  FAIL() << "no area FwIpport";
}

TEST(History, UsesEveryOperationOfEveryListAndArea) {
  std::set<std::string> used;
  for (const Step& step : read_history()) {
    used.insert(step.subject + " " + step.verb);
    if (step.verb == "operate") used.insert(step.subject + " operate " + step.arg("op"));
  }
  std::vector<std::string> wanted = {
      "FireWall_IpPort delete_by_ip_group",
      "QosRule delete_by_ip_group",
      "FireWall_IpPort delete_by_time_group",
      "FireWall_Mac delete_by_time_group",
      "FireWall_Url delete_by_time_group",
      "QosRule delete_by_time_group",
      "ManageApList claim",
      "ManageApList delete_mac",
      "ManageApList group_info",
      "ManageApList clean_group_info",
      "ManageApList clear_used",
      "ManageApList clean_fragments",
      "ApUserList claim",
      "ApUserList delete_mac",
      "ApTemplateList claim",
      "ApTemplateList delete_template",
      "ApTemplateList bind",
      "ApTemplateList unbind",
  };
  for (const ListCalls& calls : kListCalls) {
    for (const char* verb : {"add", "modify", "delete", "delete_all", "blank", "operate 0",
                             "operate 1", "operate 2", "operate 5"}) {
      wanted.push_back(std::string(calls.list) + " " + verb);
    }
  }
  for (const AreaCalls& calls : all_areas()) {
    wanted.push_back(std::string(calls.name) + " init");
    wanted.push_back(std::string(calls.name) + " remove");
    if (calls.save_to_flash != nullptr) wanted.push_back(std::string(calls.name) + " flash");
  }
  for (const std::string& operation : wanted) EXPECT_TRUE(used.count(operation)) << operation;
}

}  // namespace
}  // namespace sc_test
