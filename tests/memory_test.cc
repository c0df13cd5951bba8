/* What the areas keep resident, and what a process that uses the library pays for itself. */
#include <stdio.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "model/list_calls.h"
#include "support/rows.h"
#include "support/areas.h"
#include "support/faults.h"
#include "support/image.h"
#include "support/output.h"
#include "support/world.h"

namespace {

using namespace sc_test;

constexpr size_t kMostResident = 3'500'000;
constexpr size_t kMostPrivatePages = 2;

class Memory : public World {
 protected:
  /* Of all areas' segments, as the kernel counts them in this namespace. */
  static size_t resident() {
    std::ifstream segments("/proc/sysvipc/shm");
    std::string line;
    std::getline(segments, line);
    std::istringstream head(line);
    std::vector<std::string> names;
    for (std::string name; head >> name;) names.push_back(name);
    size_t bytes = 0;
    while (std::getline(segments, line)) {
      std::istringstream values(line);
      std::map<std::string, size_t> value;
      for (const std::string& name : names) values >> value[name];
      bytes += value.at("rss");
    }
    return bytes;
  }

  static size_t whole_size() {
    size_t bytes = 0;
    for (const AreaFacts& facts : golden_areas()) bytes += facts.size;
    return bytes;
  }

  /* Not the user-mode emulator, which takes the call for advice. */
  static bool kernel_takes_pages_back() {
    const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const int segment = shmget(IPC_PRIVATE, size, 0600);
    auto* page = static_cast<volatile char*>(shmat(segment, nullptr, 0));
    shmctl(segment, IPC_RMID, nullptr);
    *page = 1;
    madvise(const_cast<char*>(page), size, MADV_REMOVE);
    return *page == 0;
  }

  static void init_all() {
    for (const AreaCalls& area : all_areas()) ASSERT_EQ(area.init(1), 0) << area.name;
  }
  /* As other programs may have left it. */
  static void fill_all() {
    for (const AreaFacts& facts : golden_areas()) {
      fill(block_at(area(facts.name).get()), facts.size, 7);
    }
  }
  static void expect_empty_areas() {
    for (const AreaFacts& facts : golden_areas()) {
      Image expected = facts.emptied();
      facts.number(expected);
      EXPECT_TRUE(expected.matches(block_at(area(facts.name).get()))) << facts.name;
    }
  }
  /* Where no pages are given back the areas are written over, and are resident whole. */
  static void expect_marks_and_numbers_alone() {
    const size_t bytes = resident();
    printf("%zu of %zu bytes are resident\n", bytes, whole_size());
    if (kernel_takes_pages_back()) {
      EXPECT_LE(bytes, kMostResident);
    } else {
      EXPECT_GE(bytes, whole_size());
    }
    expect_empty_areas();
  }
};

TEST_F(Memory, InitOfAllAreas_KeepsThePagesAloneThatHoldMarksAndNumbers) {
  init_all();
  expect_marks_and_numbers_alone();
}

TEST_F(Memory, InitOfAllAreasOnceMore_GivesBackWhatWasWrittenInBetween) {
  init_all();
  fill_all();
  EXPECT_GE(resident(), whole_size());
  init_all();
  expect_marks_and_numbers_alone();
}

TEST_F(Memory, InitWhereTheKernelTakesNoPagesBack_EmptiesTheAreasAllTheSame) {
  init_all();
  fill_all();
  for (const AreaCalls& area : all_areas()) {
    std::vector<std::string> calls;
    {
      Faults none;
      ASSERT_EQ(area.init(1), 0);
      calls = none.calls();
    }
    fill(block_at(area.get()), golden_area(area.name).size, 7);
    const auto refused = std::find(calls.begin(), calls.end(), "madvise") - calls.begin() + 1;
    Faults one(static_cast<size_t>(refused));
    ASSERT_EQ(area.init(1), 0);
  }
  EXPECT_GE(resident(), whole_size());
  expect_empty_areas();
}

/* The pages of the library's own mappings that this process has written: copies, which are anonymous.
 * Dirty they may be for another reason, while the linker's output is on its way to the disk. */
size_t private_pages() {
  std::ifstream maps("/proc/self/smaps");
  bool ours = false, found = false;
  size_t kilobytes = 0;
  for (std::string line; std::getline(maps, line);) {
    size_t number;
    char permissions[5];
    if (sscanf(line.c_str(), "%*x-%*x %4s", permissions) == 1) {
      ours = line.find("/libsysconfig.so") != std::string::npos;
      found = found || ours;
    } else if (ours && sscanf(line.c_str(), "Anonymous: %zu kB", &number) == 1) {
      kilobytes += number;
    }
  }
  EXPECT_TRUE(found) << "the library is not mapped";
  return kilobytes * 1024 / static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

/* Before anything is called: none of the library's own, but the sanitizer has written to its data. */
size_t sanitizers_pages() {
#ifdef __SANITIZE_ADDRESS__
  return private_pages();
#else
  return 0;
#endif
}

TEST_F(Memory, AProcessThatUsedAllLists_HasTwoPagesOfTheLibraryToItselfAtMost) {
  const size_t not_ours = sanitizers_pages();
  init_all();
  std::map<std::string, uint8_t*> blocks;
  for (const AreaCalls& area : all_areas()) blocks[area.name] = block_at(area.get());
  const Blocks groups = blocks_at([&](const char* area) { return blocks[area]; });
  capture([&] {
    for (const ListCalls& calls : kListCalls) {
      const ListRow& row = list_row(calls.list);
      uint8_t* block = blocks[row.area];
      std::vector<uint8_t> item(row.item_size, 'x'), list(row.list_size);
      calls.add(block, item.data());
      calls.modify(block, item.data());
      if (calls.get_list != nullptr) calls.get_list(block, groups, list.data());
      char ids[] = "1#2";
      calls.del(block, groups, ids);
    }
    for (const AreaCalls& area : all_areas()) {
      if (area.save == nullptr) continue;
      area.save();
      area.save_to_flash(blocks[area.name]);
    }
  });
  const size_t pages = private_pages();
  printf("%zu pages are private\n", pages);
  EXPECT_GE(pages, 1u); /* the addresses of what it calls */
  EXPECT_LE(pages - not_ours, kMostPrivatePages);
}

}  // namespace
