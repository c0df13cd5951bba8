/* The committed inputs, in processes that can change nothing: those that found something, each a test
 * of its own, and those that were gathered because each reaches code that no other one does. */
#include <sys/mman.h>
#include <unistd.h>

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

std::vector<Input> inputs_of(const std::string& harness, const fs::path& folder) {
  std::vector<Input> inputs;
  for (const auto& file : fs::directory_iterator(fs::path(SC_FUZZ_CORPUS) / folder)) {
    inputs.push_back({harness, file.path().filename(), file.path()});
  }
  std::sort(inputs.begin(), inputs.end(),
            [](const Input& left, const Input& right) { return left.path < right.path; });
  return inputs;
}

std::vector<Input> committed_inputs() {
  std::vector<Input> inputs;
  for (const sc_fuzz::Harness& harness : sc_fuzz::kHarnesses) {
    const std::vector<Input> found = inputs_of(harness.name, harness.name);
    inputs.insert(inputs.end(), found.begin(), found.end());
  }
  return inputs;
}

/* One input after the other, as the fuzzer does it. */
void expect_survived(const std::vector<Input>& inputs) {
  ASSERT_FALSE(inputs.empty());
  void* shared =
      mmap(nullptr, sizeof(size_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  size_t& at = *static_cast<size_t*>(shared);
  {
    sc_test::Child child([&] {
      sc_fuzz::confine(nullptr);
      for (at = 0; at < inputs.size(); ++at) {
        std::ifstream file(inputs[at].path, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), {});
        if (!file) _exit(1);
        sc_fuzz::run(inputs[at].harness.c_str(), reinterpret_cast<const uint8_t*>(bytes.data()),
                     bytes.size());
      }
    });
    EXPECT_EQ(child.wait(), 0) << inputs.at(std::min(at, inputs.size() - 1)).path;
  }
  EXPECT_EQ(at, inputs.size());
  munmap(shared, sizeof(size_t));
}

class Replay : public testing::TestWithParam<Input> {};

TEST_P(Replay, IsSurvived) { expect_survived({GetParam()}); }

class Gathered : public testing::TestWithParam<sc_fuzz::Harness> {};

TEST_P(Gathered, AreSurvivedOneAfterTheOther) {
  const std::string harness = GetParam().name;
  const std::vector<Input> inputs = inputs_of(harness, fs::path("gathered") / harness);
  printf("%zu inputs\n", inputs.size());
  expect_survived(inputs);
}

INSTANTIATE_TEST_SUITE_P(HostileBytes, Gathered, testing::ValuesIn(sc_fuzz::kHarnesses),
                         [](const testing::TestParamInfo<sc_fuzz::Harness>& info) {
                           return std::string(info.param.name);
                         });

INSTANTIATE_TEST_SUITE_P(HostileBytes, Replay, testing::ValuesIn(committed_inputs()),
                         [](const testing::TestParamInfo<Input>& info) {
                           return info.param.harness + "_" + info.param.name;
                         });

}  // namespace
