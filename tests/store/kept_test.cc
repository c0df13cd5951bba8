/* The kept copies and the marker of a try, called: what is found, what is written, in which order it
 * reaches the flash, and what is left when a call fails. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/registry.h"
#include "store/archives.h"
#include "store/kept.h"
#include "store/saved_lan.h"

namespace sc_test {

/* The calls that change names or flush, in their order, and the one that is to fail: the number of
 * the call, from 1 on. */
struct Calls {
  std::vector<std::string> made;
  size_t failing = 0;

  bool fails(const std::string& call) {
    made.push_back(call);
    return made.size() == failing;
  }
};
static Calls g_calls;

static std::string path_of(int descriptor) {
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)).filename();
}

static int failed() {
  errno = EIO;
  return -1;
}

extern "C" {
int __real_fsync(int file);
int __real_syncfs(int file);
int __real_unlinkat(int folder, const char* name, int flags);
int __real_renameat(int folder, const char* from, int to_folder, const char* to);
int __wrap_fsync(int file) {
  return g_calls.fails("fsync " + path_of(file)) ? failed() : __real_fsync(file);
}
int __wrap_syncfs(int file) {
  return g_calls.fails("syncfs " + path_of(file)) ? failed() : __real_syncfs(file);
}
/* That of a leftover may fail, because opening the new file would fail then. A call that succeeds may
 * change errno. */
int __wrap_unlinkat(int folder, const char* name, int flags) {
  if (std::string(name).ends_with("new")) {
    const int result = __real_unlinkat(folder, name, flags);
    errno = ENOTTY;
    return result;
  }
  return g_calls.fails(std::string("remove ") + name) ? failed()
                                                      : __real_unlinkat(folder, name, flags);
}
int __wrap_renameat(int folder, const char* from, int to_folder, const char* to) {
  return g_calls.fails(std::string("rename ") + from + " " + to)
             ? failed()
             : __real_renameat(folder, from, to_folder, to);
}
}

namespace {

namespace fs = std::filesystem;
using store::ArchiveFolder;
using store::CopyReport;
using store::CopyState;
using store::Marker;
using store::MarkerState;

constexpr char kMarker[] = "/var/dataconfig/try";
constexpr char kNewMarker[] = "/var/dataconfig/try.new";
constexpr char kMarkerOfThree[] =
    "sysconfig try 1\n"
    "lan good\n"
    "clients_groups good\n"
    "clients none\n"
    "end\n";

constexpr uint32_t bit(sc::AreaId area) { return 1U << area; }
constexpr Marker kThree = {bit(sc::kLan) | bit(sc::kClientsGroups) | bit(sc::kClients),
                           bit(sc::kClients)};

const std::vector<std::string> kSyncsOfFolder = {"fsync dataconfig", "syncfs dataconfig"};

/* What is read of the folder. */
struct Found {
  MarkerState state;
  uint32_t areas, never_saved;

  bool operator==(const Found&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const Found& found) {
  return stream << "state " << static_cast<int>(found.state) << ", areas " << std::hex
                << found.areas << ", never saved " << found.never_saved << std::dec;
}
constexpr Found kNoMarker = {MarkerState::kMissing, 0, 0};
constexpr Found kBrokenMarker = {MarkerState::kBroken, 0, 0};

class KeptTest : public SavedLan {
 protected:
  void SetUp() override {
    SavedLan::SetUp();
    folder_ = open("/var/dataconfig", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(folder_, 0);
    g_calls = {};
  }
  void TearDown() override {
    close(folder_);
    SavedLan::TearDown();
  }

  Found found() const {
    Marker marker = {~0U, ~0U};
    errno = 0;
    const MarkerState state = store::read_marker(folder_, &marker);
    return {state, marker.areas, marker.never_saved};
  }
  Found written(const Marker& marker) const {
    EXPECT_TRUE(store::write_marker(folder_, marker));
    return found();
  }
  Found found_in(const std::string& text) const {
    write_file(kMarker, text);
    return found();
  }

  CopyReport report() const {
    CopyReport report;
    const bool known = store::look_at_copy(kLanArea, folder_, &report);
    EXPECT_EQ(known, report.state != CopyState::kUnknown);
    return report;
  }
  bool renew() const {
    errno = 0;
    return store::renew_copy(kLanArea, folder_);
  }

  const sc::AreaRow& kLanArea = sc::kAreas[sc::kLan];
  int folder_ = -1;
};

/* ---- the marker's text ---- */

TEST_F(KeptTest, MarkerThatIsWritten_CanBeReadByAPerson) {
  ASSERT_TRUE(store::write_marker(folder_, kThree));
  EXPECT_EQ(read_file(kMarker), kMarkerOfThree);
  struct stat status;
  ASSERT_EQ(stat(kMarker, &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600u);
  EXPECT_FALSE(exists(kNewMarker));
}

TEST_F(KeptTest, MarkerOfEachArea_IsReadAsItWasWritten) {
  for (const sc::AreaRow& area : sc::kAreas) {
    if (area.stem[0] == '\0') continue;
    const uint32_t one = Marker::bit(area);
    EXPECT_EQ(written({one, 0}), (Found{MarkerState::kThere, one, 0})) << area.stem;
    EXPECT_EQ(written({one, one}), (Found{MarkerState::kThere, one, one})) << area.stem;
  }
}

TEST_F(KeptTest, MarkerOfNoAreaOrOfAll_IsReadAsItWasWritten) {
  EXPECT_EQ(written({0, 0}), (Found{MarkerState::kThere, 0, 0}));
  const uint32_t all = (bit(sc::kAreaCount) - 1) & ~bit(sc::kApUserList);
  EXPECT_EQ(written({all, 0}), (Found{MarkerState::kThere, all, 0}));
  EXPECT_EQ(written({all, all}), (Found{MarkerState::kThere, all, all}));
  EXPECT_EQ(written({all, all & 0x5555}), (Found{MarkerState::kThere, all, all & 0x5555}));
}

TEST_F(KeptTest, UsersOfAccessPoints_AreLeftOut) {
  EXPECT_EQ(written({bit(sc::kApUserList) | bit(sc::kWan), bit(sc::kApUserList)}),
            (Found{MarkerState::kThere, bit(sc::kWan), 0}));
}

TEST_F(KeptTest, MarkerThatIsReplaced_HoldsTheNewAreasAlone) {
  EXPECT_EQ(written(kThree).areas, kThree.areas);
  EXPECT_EQ(written({bit(sc::kWan), 0}), (Found{MarkerState::kThere, bit(sc::kWan), 0}));
}

TEST_F(KeptTest, MarkerThatIsCut_IsBroken) {
  const std::string whole = kMarkerOfThree;
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_EQ(found_in(whole.substr(0, size)), kBrokenMarker) << size;
  }
  EXPECT_EQ(found_in(whole), (Found{MarkerState::kThere, kThree.areas, kThree.never_saved}));
}

TEST_F(KeptTest, MarkerWithAnyLetterChanged_IsBroken) {
  const std::string whole = kMarkerOfThree;
  for (size_t at = 0; at < whole.size(); ++at) {
    std::string changed = whole;
    changed[at] ^= 1;
    EXPECT_EQ(found_in(changed), kBrokenMarker) << at;
  }
}

TEST_F(KeptTest, FileThatIsNoMarker_IsBroken) {
  const std::string head = "sysconfig try 1\n";
  for (const std::string& text :
       Words{std::string("end\n"), "sysconfig try 2\nend\n", head + "lan good\nlan good\nend\n",
             head + "wan good\nlan good\nend\n", head + "lan\nend\n", head + "lanwan good\nend\n",
             head + "lan  good\nend\n", head + "nonsense good\nend\n", head + " good\nend\n",
             head + "end\nend\n", head + "end\n" + std::string(1, '\0'),
             head + "end\n" + std::string(600, '\n'), std::string(5000, 'x')}) {
    EXPECT_EQ(found_in(text), kBrokenMarker) << text;
  }
}

/* ---- the marker's file ---- */

TEST_F(KeptTest, NoMarker_IsMissing) { EXPECT_EQ(found(), kNoMarker); }

TEST_F(KeptTest, MarkerThatCannotBeRead_IsNotKnown) {
  const Found unknown = {MarkerState::kUnknown, 0, 0};
  ASSERT_EQ(mkfifo(kMarker, 0600), 0);
  EXPECT_EQ(found(), unknown);
  EXPECT_EQ(errno, ESPIPE);
  fs::remove(kMarker);
  fs::create_directory(kMarker);
  EXPECT_EQ(found(), unknown);
  EXPECT_EQ(errno, EISDIR);
  fs::remove(kMarker);
  write_file("/var/elsewhere", kMarkerOfThree);
  fs::create_symlink("/var/elsewhere", kMarker);
  EXPECT_EQ(found(), unknown);
  EXPECT_EQ(errno, ELOOP);
  fs::remove(kMarker);
  const NoDescriptors none;
  EXPECT_EQ(found(), unknown);
  EXPECT_EQ(errno, EMFILE);
}

TEST_F(KeptTest, Marker_ReachesTheFlashBeforeItsNameAndThenItsName) {
  ASSERT_TRUE(store::write_marker(folder_, kThree));
  EXPECT_EQ(g_calls.made,
            (std::vector<std::string>{"fsync try.new", "syncfs try.new", "rename try.new try",
                                      kSyncsOfFolder[0], kSyncsOfFolder[1]}));
}

TEST_F(KeptTest, RemovalOfTheMarker_ReachesTheFlash) {
  write_file(kMarker, kMarkerOfThree);
  write_file(kNewMarker, "half");
  ASSERT_TRUE(store::remove_marker(folder_));
  EXPECT_EQ(g_calls.made,
            (std::vector<std::string>{"remove try", kSyncsOfFolder[0], kSyncsOfFolder[1]}));
  EXPECT_EQ(found(), kNoMarker);
  EXPECT_FALSE(exists(kNewMarker));
}

/* Who removed it may have been killed before it was on the flash. */
TEST_F(KeptTest, RemovalOfNoMarker_SyncsTheFolder) {
  EXPECT_TRUE(store::remove_marker(folder_));
  EXPECT_EQ(g_calls.made,
            (std::vector<std::string>{"remove try", kSyncsOfFolder[0], kSyncsOfFolder[1]}));
}

TEST_F(KeptTest, WritingWithACallThatFails_IsToldAndLeavesAWholeMarker) {
  constexpr size_t kAtRename = 3, kSteps = 5;
  for (size_t failing = 1; failing <= kSteps; ++failing) {
    ASSERT_TRUE(store::write_marker(folder_, kThree));
    g_calls = {{}, failing};
    errno = 0;
    EXPECT_FALSE(store::write_marker(folder_, {bit(sc::kWan), 0})) << failing;
    EXPECT_EQ(errno, EIO) << failing;
    EXPECT_EQ(found().areas, failing <= kAtRename ? kThree.areas : bit(sc::kWan)) << failing;
    EXPECT_FALSE(exists(kNewMarker)) << failing;
    g_calls = {};
  }
}

TEST_F(KeptTest, RemovalWithACallThatFails_IsTold) {
  for (size_t failing = 1; failing <= 3; ++failing) {
    ASSERT_TRUE(store::write_marker(folder_, kThree));
    g_calls = {{}, failing};
    errno = 0;
    EXPECT_FALSE(store::remove_marker(folder_)) << failing;
    EXPECT_EQ(errno, EIO) << failing;
    EXPECT_EQ(exists(kMarker), failing == 1) << failing;
    g_calls = {};
  }
}

TEST_F(KeptTest, FullFlash_LeavesTheMarkerThatWasThere) {
  EXPECT_EQ(mount("tmpfs", "/var/dataconfig", "tmpfs", 0, "size=8k"), 0);
  const int flash = open("/var/dataconfig", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_TRUE(store::write_marker(flash, kThree));
  write_file("/var/dataconfig/ballast", std::string(4096, 'x'));
  EXPECT_FALSE(store::write_marker(flash, {bit(sc::kWan), 0}));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(read_file(kMarker), kMarkerOfThree);
  EXPECT_FALSE(exists(kNewMarker));
  close(flash);
  EXPECT_EQ(umount("/var/dataconfig"), 0);
}

TEST_F(KeptTest, LeftoverOfAMarker_IsReplacedAndNeverFollowed) {
  write_file("/var/elsewhere", "another's");
  fs::create_symlink("/var/elsewhere", kNewMarker);
  EXPECT_EQ(written(kThree).areas, kThree.areas);
  EXPECT_EQ(read_file("/var/elsewhere"), "another's");
  EXPECT_FALSE(fs::is_symlink(kMarker));
}

/* ---- the folder ---- */

TEST_F(KeptTest, Folder_IsLockedAgainstOthersUntilTheEndOfTheScope) {
  {
    const ArchiveFolder folder;
    ASSERT_TRUE(folder);
    struct stat here, there;
    ASSERT_EQ(fstat(folder.descriptor(), &here), 0);
    ASSERT_EQ(stat("/var/dataconfig", &there), 0);
    EXPECT_EQ(here.st_ino, there.st_ino);
    EXPECT_NE(fcntl(folder.descriptor(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(flock(folder_, LOCK_EX | LOCK_NB), 0);
    EXPECT_NE(flock(folder_, LOCK_SH | LOCK_NB), 0);
  }
  EXPECT_EQ(flock(folder_, LOCK_EX | LOCK_NB), 0);
}

TEST_F(KeptTest, FolderThatIsMissing_IsToldByErrno) {
  fs::remove_all("/var/dataconfig");
  const ArchiveFolder folder;
  EXPECT_FALSE(folder);
  EXPECT_EQ(errno, ENOENT);
  fs::create_directory("/var/dataconfig");
}

/* ---- the copy ---- */

struct Look {
  const char* name;
  const char* archive; /* "1" and "2" are good ones of these states, "" is none */
  const char* copy;
  CopyState state;
  const char* reason;
};
std::ostream& operator<<(std::ostream& stream, const Look& look) { return stream << look.name; }

const char kCut[] = "corrupt or truncated gzip data";
const char kNone[] = "No such file or directory";
const char kPipe[] = "not known: not a regular file";

const Look kLooks[] = {
    {"Nothing", "", "", CopyState::kNone, kNone},
    {"BrokenCopyAlone", "", "cut", CopyState::kNone, kNone},
    {"BrokenArchive", "cut", "", CopyState::kBroken, kCut},
    {"BothBroken", "cut", "cut", CopyState::kBroken, kCut},
    {"NoCopy", "1", "", CopyState::kStale, ""},
    {"BrokenCopy", "1", "cut", CopyState::kStale, ""},
    {"OlderCopy", "2", "1", CopyState::kStale, ""},
    {"SameImage", "1", "1", CopyState::kCurrent, ""},
    {"SameImageInOtherBytes", "1", "1 of another program", CopyState::kCurrent, ""},
    {"CopyAlone", "", "1", CopyState::kCopyOnly, kNone},
    {"CopyOfABrokenArchive", "cut", "1", CopyState::kCopyOnly, kCut},
    {"UnknownArchive", "pipe", "1", CopyState::kUnknown, kPipe},
    {"UnknownArchiveAlone", "pipe", "", CopyState::kUnknown, kPipe},
    {"UnknownCopy", "1", "pipe", CopyState::kUnknown, kPipe},
    {"UnknownCopyAlone", "", "pipe", CopyState::kUnknown, kPipe},
};

class KeptLookTest : public KeptTest, public testing::WithParamInterface<Look> {
 protected:
  void put(const std::string& path, const std::string& what) {
    if (what == "pipe") {
      ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    } else if (what == "cut") {
      write_file(path, "cut");
    } else if (what == "1 of another program") {
      save(1);
      fs::remove(kArchive);
      write_file(path, archive_of(tar_member(image())));
    } else if (!what.empty()) {
      save(std::stoi(what));
      fs::rename(kArchive, path);
    }
  }
};

TEST_P(KeptLookTest, States_AreToldApart) {
  put(kGood, GetParam().copy);
  put(kArchive, GetParam().archive);
  const CopyReport is = report();
  EXPECT_EQ(static_cast<int>(is.state), static_cast<int>(GetParam().state));
  EXPECT_STREQ(is.reason, GetParam().reason);
  EXPECT_EQ(is.archive_bytes, fs::is_regular_file(kArchive) ? fs::file_size(kArchive) : 0);
}

TEST_P(KeptLookTest, Copy_IsRenewedFromAGoodArchiveAlone) {
  put(kGood, GetParam().copy);
  put(kArchive, GetParam().archive);
  const auto bytes_of = [](const char* path) {
    return fs::is_regular_file(path) ? read_file(path) : "";
  };
  const std::string archive = bytes_of(kArchive), copy = bytes_of(kGood);
  const bool is_stale = GetParam().state == CopyState::kStale;
  const bool can = is_stale || GetParam().state == CopyState::kCurrent;
  g_calls = {};
  EXPECT_EQ(renew(), can);
  EXPECT_EQ(errno, can ? errno : EBADMSG);
  EXPECT_EQ(bytes_of(kArchive), archive);
  EXPECT_EQ(bytes_of(kGood), is_stale ? archive : copy);
  EXPECT_FALSE(exists(kNew));
  std::vector<std::string> calls;
  if (is_stale) {
    calls = {"fsync config_lan.new", "syncfs config_lan.new",
             "rename config_lan.new config_lan.good"};
  }
  if (can) calls.insert(calls.end(), kSyncsOfFolder.begin(), kSyncsOfFolder.end());
  EXPECT_EQ(g_calls.made, calls);
}

INSTANTIATE_TEST_SUITE_P(EachPair, KeptLookTest, testing::ValuesIn(kLooks),
                         [](const testing::TestParamInfo<Look>& look) {
                           return std::string(look.param.name);
                         });

TEST_F(KeptTest, RenewalWithACallThatFails_IsTold) {
  constexpr size_t kAtRename = 3, kSteps = 5;
  for (size_t failing = 1; failing <= kSteps; ++failing) {
    save_two_states();
    g_calls = {{}, failing};
    EXPECT_FALSE(renew()) << failing;
    EXPECT_EQ(errno, EIO) << failing;
    EXPECT_TRUE(read_file(kGood) == (failing <= kAtRename ? copy_ : archive_)) << failing;
    EXPECT_TRUE(read_file(kArchive) == archive_) << failing;
    EXPECT_FALSE(exists(kNew)) << failing;
    g_calls = {};
  }
}

TEST_F(KeptTest, CopyThatIsRenewed_HasTheArchivesOwnerAndMode) {
  save(1);
  const bool is_root = geteuid() == 0;
  const uid_t owner = is_root ? 65534 : geteuid();
  const gid_t group = is_root ? 1 : getegid();
  ASSERT_EQ(chown(kArchive, owner, group), 0);
  ASSERT_EQ(chmod(kArchive, 0640), 0);
  EXPECT_TRUE(renew());
  struct stat copy;
  ASSERT_EQ(stat(kGood, &copy), 0);
  EXPECT_EQ(copy.st_uid, owner);
  EXPECT_EQ(copy.st_gid, group);
  EXPECT_EQ(copy.st_mode & 07777, 0640u);
}

/* Each area's archive is judged as that of the area. */
TEST_F(KeptTest, ArchiveOfAnotherArea_IsBroken) {
  save(1);
  fs::rename(kArchive, "/var/dataconfig/config_wan.bin");
  CopyReport is;
  EXPECT_TRUE(store::look_at_copy(sc::kAreas[sc::kWan], folder_, &is));
  EXPECT_EQ(static_cast<int>(is.state), static_cast<int>(CopyState::kBroken));
}

}  // namespace
}  // namespace sc_test
