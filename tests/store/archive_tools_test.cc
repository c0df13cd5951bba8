/* Archives and the tars of the host: what GNU tar, BusyBox tar and Python's tarfile pack is good, and what
 * is good or not is unpacked by the tars accordingly.
 */
#include <chrono>
#include <filesystem>

#include "store/archives.h"
#include "store/saved_lan.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

constexpr char kRoot[] = "/var/root";

/* Whether a tar ends well and leaves just the image's file with these bytes. */
bool unpacks(const std::string& tar, const std::string& image) {
  fs::remove_all(kRoot);
  fs::create_directories(std::string(kRoot) + "/var/systemconfig");
  const Outcome outcome =
      run({"sh", "-c", tar + " -zxf " + kArchive + " -C " + kRoot + " >/dev/null 2>&1"});
  std::vector<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(kRoot)) {
    if (!entry.is_directory()) files.push_back(fs::relative(entry.path(), kRoot));
  }
  return outcome.status == 0 && files == std::vector<std::string>{kLanMember} &&
         fs::is_regular_file(fs::symlink_status(std::string(kRoot) + kLanImage)) &&
         read_file(std::string(kRoot) + kLanImage) == image;
}

class ArchiveToolsTest : public SavedLan {};

class ArchiveToolsSampleTest : public ArchiveToolsTest,
                               public testing::WithParamInterface<Sample> {};

TEST_P(ArchiveToolsSampleTest, BothTars_MakeOfItWhatTheVerdictSays) {
  const std::string archive = GetParam().make(image());
  write_file(kArchive, archive);
  /* Where the image is at fault, the one that was packed counts. */
  std::string packed = image();
  if (GetParam().kind == Sample::kUnpacked) {
    run({"sh", "-c", std::string("tar -zxf ") + kArchive + " -C / 2>/dev/null"});
    packed = read_file(kLanImage);
  }
  const bool gnu = unpacks("tar", packed), busybox = unpacks("busybox tar", packed);
  switch (GetParam().kind) {
    case Sample::kGood:
    case Sample::kUnpacked:
      EXPECT_TRUE(gnu);
      EXPECT_TRUE(busybox);
      return;
    case Sample::kOldGood: EXPECT_TRUE(gnu); return;
    case Sample::kNotForTar: EXPECT_FALSE(gnu && busybox);
  }
}

INSTANTIATE_TEST_SUITE_P(EachSample, ArchiveToolsSampleTest, testing::ValuesIn(samples()),
                         [](const testing::TestParamInfo<Sample>& sample) {
                           return std::string(sample.param.name);
                         });

/* ---- what tars pack ---- */

struct Packer {
  const char* name;
  const char* command; /* packs $1 into $2 */
};

std::ostream& operator<<(std::ostream& stream, const Packer& packer) {
  return stream << packer.name;
}

#define PYTHON_PACKER(format)                                                                   \
  "python3 -c 'import sys, tarfile; tarfile.open(sys.argv[2], \"w:gz\", format=tarfile." format \
  ").add(sys.argv[1])' \"$@\""

const Packer kPackers[] = {
    {"GnuTar", "tar -zcf \"$2\" \"$1\""},
    {"GnuTarV7", "tar --format=v7 -zcf \"$2\" \"$1\""},
    {"GnuTarOldGnu", "tar --format=oldgnu -zcf \"$2\" \"$1\""},
    {"GnuTarUstar", "tar --format=ustar -zcf \"$2\" \"$1\""},
    {"GnuTarPax", "tar --format=pax -zcf \"$2\" \"$1\""},
    {"GnuTarPaxWithAComment", "tar --format=pax --pax-option=comment=x -zcf \"$2\" \"$1\""},
    {"GnuTarOfALargeOwner", "tar --owner=x:70000000 --group=x:70000000 -zcf \"$2\" \"$1\""},
    {"BusyBoxTar", "busybox tar -zcf \"$2\" \"$1\""},
    {"PythonUstar", PYTHON_PACKER("USTAR_FORMAT")},
    {"PythonGnu", PYTHON_PACKER("GNU_FORMAT")},
    {"PythonPax", PYTHON_PACKER("PAX_FORMAT")},
};

class ArchiveToolsPackerTest : public ArchiveToolsTest,
                               public testing::WithParamInterface<Packer> {};

TEST_P(ArchiveToolsPackerTest, WhatItPacks_IsGoodAndLoadsWhole) {
  lan_->lan_bind_count = 5;
  const std::string saved = image();
  write_file(kLanImage, saved);
  for (const std::string name : {std::string(kLanMember), std::string("./") + kLanMember}) {
    fs::remove(kArchive);
    const Outcome packed = run(
        {"sh", "-c", std::string("cd /; { ") + GetParam().command + "; }", "sh", name, kArchive});
    EXPECT_EQ(packed.status, 0) << packed;
    EXPECT_EQ(guard({"keep", "lan"}), (Guarded{0, ""})) << name;
    EXPECT_EQ(guard({"restore"}), (Guarded{0, ""})) << name;
    EXPECT_TRUE(unpacks("tar", saved)) << name;
    memset(static_cast<void*>(lan_), 0x5a, sizeof *lan_);
    capture([] { SC_Init_System_Lan_Config(1); });
    EXPECT_TRUE(image() == saved) << name;
    write_file(kLanImage, saved);
  }
}

INSTANTIATE_TEST_SUITE_P(EachPacker, ArchiveToolsPackerTest, testing::ValuesIn(kPackers),
                         [](const testing::TestParamInfo<Packer>& packer) {
                           return std::string(packer.param.name);
                         });

/* 200 MiB of zeros behind the image, in 200 KB: no more is unpacked than the verdict needs. */
TEST_F(ArchiveToolsTest, FloodOfZeros_IsRefusedAtOnce) {
  write_file("/var/member", tar_member(image()));
  run({"sh", "-c",
       std::string("{ cat /var/member; head -c 209715200 /dev/zero; } | gzip -1 >") + kArchive});
  const auto begin = std::chrono::steady_clock::now();
  const Guarded kept = guard({"keep", "lan"});
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
  EXPECT_EQ(kept.said,
            "scguard: /var/dataconfig/config_lan.bin is not kept: more than 64 KiB after the "
            "image\n");
}

}  // namespace
}  // namespace sc_test
