/* Where scctl reads tables from: files that are nearly images or archives, and live records that are
 * written while they are copied. */
#include "store/source.h"

#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <sysconfig/ap.h>

#include "scctl/in_place_case.h"
#include "support/areas.h"
#include "support/started.h"

namespace sc_test {
namespace {

/* ---- files ---- */

class SourceTest : public InPlaceCase {};

TEST_F(SourceTest, AFileOfOneByteMoreThanAnImage_IsTheImageOfNoArea) {
  size_t largest = 0;
  for (const AreaCalls& calls : all_areas()) {
    largest = std::max(largest, golden_area(calls.name).size);
  }
  const std::string path = "/var/edited/bytes";
  const auto list_with = [&](size_t size) {
    write_file(path, std::string(size, '\0'));
    return run(scctl({"list", "ap_users", "--image", path, "--json"}));
  };
  EXPECT_EQ(list_with(largest), (Outcome{0, "[]\n", ""}));
  for (const size_t size : {largest - 1, largest + 1}) {
    EXPECT_EQ(list_with(size), (Outcome{3, "",
                                        "scctl: " + path + ": " + std::to_string(size) +
                                            " bytes are the image of no area\n"}));
  }
  EXPECT_EQ(list_with(1).err, "scctl: " + path + ": 1 byte is the image of no area\n");
  EXPECT_EQ(list_with(0).err, "scctl: " + path + ": 0 bytes are the image of no area\n");
}

/* The LAN image's first two bytes belong to nobody. */
TEST_F(SourceTest, AnImageThatBeginsWithHalfOfAnArchivesMark_IsAnImage) {
  const std::string path = "/var/edited/bytes";
  const auto diff_with = [&](const std::string& begin) {
    write_file(path, std::string(was_).replace(0, 2, begin));
    return run(scctl({"diff", kImage, path}));
  };
  EXPECT_EQ(diff_with("\x1f!"), (Outcome{0, "", ""}));
  EXPECT_EQ(diff_with("!\x8b"), (Outcome{0, "", ""}));
  EXPECT_EQ(diff_with("\x8b\x1f"), (Outcome{0, "", ""}));
  EXPECT_EQ(diff_with("\x1f\x8b"),
            (Outcome{3, "", "scctl: " + path + ": corrupt or truncated gzip data\n"}));
}

/* ---- records that are written meanwhile ---- */

/* Another program writes all of a record at the moment when the copy comes to this page of it. */
struct Writing {
  uint8_t* bytes;
  size_t size;
  void* page;
  size_t page_size;
} g_writing;

void write_all(int) {
  mprotect(g_writing.page, g_writing.page_size, PROT_READ | PROT_WRITE);
  memset(g_writing.bytes, 'n', g_writing.size);
}

class ReaderTest : public World {};

TEST_F(ReaderTest, ARecordWithoutALockThatIsWrittenMeanwhile_IsCopiedAgain) {
  auto* block = started<ApUserListBlock>("ApUserList");
  ASSERT_NE(block, nullptr);
  const ::store::Table& table = *::store::find_table("ap_users", 8);
  unlink(lock_file("ApUserList").c_str());
  struct sigaction action = {}, before;
  action.sa_handler = write_all;
  ASSERT_EQ(sigaction(SIGSEGV, &action, &before), 0);
  for (const int fields : {::store::Reader::kWhole, int{table.field_count}}) {
    ::store::Source live;
    live.open_live();
    uint8_t* const first = live.block(table.area);
    uint8_t* const record = first + table.at;
    const auto page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    constexpr size_t kWords = 8; /* the lock's and the id */
    record[table.id_at] = 1;
    memset(record + kWords, 'o', table.stride - kWords);
    g_writing = {record + kWords, table.stride - kWords, first + 2 * page_size, page_size};
    ASSERT_LT(3 * page_size, table.at + table.stride);
    std::string copy(table.stride, '\0');
    ::store::Reader reader(live, table, fields);
    ASSERT_EQ(mprotect(g_writing.page, page_size, PROT_NONE), 0);
    EXPECT_TRUE(reader.copy(0, reinterpret_cast<uint8_t*>(copy.data())));
    EXPECT_EQ(copy.substr(kWords), std::string(table.stride - kWords, 'n')) << fields;
    ::store::Source::forget_live(table.area);
  }
  sigaction(SIGSEGV, &before, nullptr);
}

}  // namespace
}  // namespace sc_test
