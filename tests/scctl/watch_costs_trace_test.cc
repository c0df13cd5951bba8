/* What scctl watch --json costs: memory, and the time of those who change the store. */
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include <sysconfig/ap.h>

#include "scctl/stream_case.h"

namespace sc_test {
namespace {

using TraceWatchCostsTest = WatchTest;

/* The memory that a process has allocated and written. */
long allocated_kb(pid_t pid) {
  std::ifstream smaps("/proc/" + std::to_string(pid) + "/smaps");
  long all = 0, size = 0;
  bool is_own = false, was_program = false;
  for (std::string line; std::getline(smaps, line);) {
    char path[256] = "", rights[8];
    unsigned long inode;
    if (sscanf(line.c_str(), "%*x-%*x %7s %*x %*s %lu %255s", rights, &inode, path) >= 2) {
      /* the heap, and what follows the program's own file: its variables */
      const bool is_program = strstr(path, "/scctl") != nullptr;
      is_own = is_program || strcmp(path, "[heap]") == 0 || (path[0] == '\0' && was_program);
      was_program = is_program;
      is_own = is_own && rights[1] == 'w';
    } else if (is_own && sscanf(line.c_str(), "Anonymous: %ld", &size) == 1) {
      all += size;
    }
  }
  return all;
}

/* Records of all tables, and the bytes of their named fields. */
struct Tables {
  long records = 0, bytes = 0;
};
Tables all_tables() {
  Tables all;
  std::istringstream tables(run(scctl({"tables"})).out);
  std::string line, name, area, capacity;
  for (std::getline(tables, line); std::getline(tables, line);) {
    std::istringstream(line) >> name >> area >> capacity;
    std::istringstream fields(run(scctl({"fields", name})).out);
    const long count = atol(capacity.c_str());
    all.records += count;
    std::string field, kind, size;
    for (std::getline(fields, line); std::getline(fields, line);) {
      const bool is_mac_text = line.find(" mac text ") != std::string::npos;
      std::istringstream words(line);
      words >> field >> kind;
      if (is_mac_text) words >> kind;
      words >> size;
      if (kind != "bytes") all.bytes += count * atol(size.c_str());
    }
  }
  return all;
}

/* The memory of a segment, in bytes. */
long resident_of(const char* name) {
  std::ifstream segments("/proc/sysvipc/shm");
  const int wanted = shmget(golden_area(name).key, 0, 0);
  for (std::string line; std::getline(segments, line);) {
    long id, resident;
    if (sscanf(line.c_str(), "%*d %ld %*o %*u %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %ld", &id,
               &resident) == 2 &&
        id == wanted) {
      return resident;
    }
  }
  return -1;
}

TEST_F(TraceWatchCostsTest, ItsMemoryIsSmall_AndItsLooksGiveNoneToTheAreas) {
  for (const char* name : {"ManageApList", "ApUserList", "ApTemplateList", "Clients", "FwUrl",
                           "Clients_Groups", "ProductInfo"}) {
    started<LanBlock>(name);
  }
  auto* aps = block_at<ManageApListBlock>(SC_Get_ManageApList_System_Config());
  ApLimitsRecord limits = {};
  limits.max_ap_count = 300;
  ASSERT_EQ(SC_Get_Ap_Info_Blank(aps, &limits), 0);
  aps->aps[0].group_id = 1; /* and there are pages of this record that nobody has written */
  const char* const kAreas[] = {"ManageApList", "ApUserList", "ApTemplateList", "ProductInfo"};
  std::vector<long> before;
  for (const char* name : kAreas) before.push_back(resident_of(name));
  ASSERT_GT(before[0], 0);
  JsonWatch small({"ProductInfo"});
  const long least = allocated_kb(small.program().pid());
  JsonWatch watch({});
  aps->aps[0].group_id = 2;
  Child([] { close(open(lock_file("ManageApList").c_str(), O_WRONLY | O_CLOEXEC)); }).wait();
  EXPECT_NE(watch.rest(kSlowMs).find("\"aps\""), std::string::npos);
  add(1, "one");
  EXPECT_NE(watch.rest(kSlowMs).find("\"lan_binds\""), std::string::npos);
  for (size_t n = 0; n < before.size(); ++n)
    EXPECT_EQ(resident_of(kAreas[n]), before[n]) << kAreas[n];
  const Tables tables = all_tables();
  const long all = allocated_kb(watch.program().pid());
  printf("allocated: %ld KB; for the least area %ld KB; %ld records with %ld KB in named fields\n",
         all, least, tables.records, tables.bytes / 1024);
  EXPECT_LE(all, 64 + (tables.bytes + 8 * tables.records) / 1024);
}

/* SC_TEST_CHANGES=20000: the figure. Rounds without a watch and with one alternate, and the least of
 * each counts: what else the machine does only adds. */
TEST_F(TraceWatchCostsTest, AChange_TakesHardlyLongerWhileItIsWatched) {
  add(1, "n");
  const char* text = getenv("SC_TEST_CHANGES");
  const int changes = text != nullptr ? atoi(text) : 2000;
  const auto us_a_change = [&] {
    const double begun = now_ms();
    for (int n = 0; n < changes; ++n) rename(n % 2 == 0 ? "a" : "b");
    return (now_ms() - begun) * 1000 / changes;
  };
  double alone = 1e9, watched = 1e9;
  for (int round = 0; round < 5; ++round) {
    alone = std::min(alone, us_a_change());
    JsonWatch watch({"Lan"});
    watched = std::min(watched, us_a_change());
    kill(watch.program().pid(), SIGTERM);
    watch.program().wait();
  }
  printf("a change: %.1f us alone, %.1f us while it is watched\n", alone, watched);
  EXPECT_LE(watched - alone, text != nullptr ? 15 : 150);
}

}  // namespace
}  // namespace sc_test
