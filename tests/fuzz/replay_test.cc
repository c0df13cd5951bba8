/* The committed inputs, each a test of its own, in a process that can change nothing. */
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "fuzz/harness.h"
#include "support/output.h"

namespace {

namespace fs = std::filesystem;

struct Input {
  std::string harness, name;
  fs::path path;
};

void PrintTo(const Input& input, std::ostream* stream) { *stream << input.path; }

std::vector<Input> committed_inputs() {
  std::vector<Input> inputs;
  for (const sc_fuzz::Harness& harness : sc_fuzz::kHarnesses) {
    for (const auto& file : fs::directory_iterator(fs::path(SC_FUZZ_CORPUS) / harness.name)) {
      inputs.push_back({harness.name, file.path().filename(), file.path()});
    }
  }
  std::sort(inputs.begin(), inputs.end(),
            [](const Input& left, const Input& right) { return left.path < right.path; });
  return inputs;
}

class Replay : public testing::TestWithParam<Input> {};

TEST_P(Replay, IsSurvived) {
  std::ifstream file(GetParam().path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), {});
  ASSERT_TRUE(file) << GetParam().path;
  sc_test::Child child([&] {
    sc_fuzz::confine(nullptr);
    sc_fuzz::run(GetParam().harness.c_str(), reinterpret_cast<const uint8_t*>(bytes.data()),
                 bytes.size());
  });
  EXPECT_EQ(child.wait(), 0) << GetParam().path;
}

INSTANTIATE_TEST_SUITE_P(HostileBytes, Replay, testing::ValuesIn(committed_inputs()),
                         [](const testing::TestParamInfo<Input>& info) {
                           return info.param.harness + "_" + info.param.name;
                         });

}  // namespace
