/* The reader of archives, called: its verdict on each sample, and what it says when it could not look. */
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include <sysconfig/lan.h>

#include "core/registry.h"
#include "store/archive.h"
#include "store/archives.h"
#include "support/output.h"
#include "support/program.h"
#include "support/started.h"
#include "support/world.h"

namespace {

bool g_no_memory = false;

/* What was taken last and is there yet. */
uint8_t* g_block = nullptr;
size_t g_size = 0;

#ifdef __SANITIZE_ADDRESS__
constexpr size_t kGuard = 0; /* the sanitizer has its own, for reads, too */
#else
constexpr size_t kGuard = 16;
#endif
constexpr uint8_t kOldByte = 0xa5;

}  // namespace

/* Called by the reader in place of malloc and free: memory holds old bytes at first, and those behind
 * it are to stay. */
extern "C" void* __real_malloc(size_t size);
extern "C" void __real_free(void* block);
extern "C" void* __wrap_malloc(size_t size) {
  auto* block = g_no_memory ? nullptr : static_cast<uint8_t*>(__real_malloc(size + kGuard));
  if (block == nullptr) return nullptr;
  memset(block, kOldByte, size + kGuard);
  g_block = block;
  g_size = size;
  return block;
}
extern "C" void __wrap_free(void* block) {
  if (block != nullptr && block == g_block) {
    for (size_t n = 0; n < kGuard; ++n) EXPECT_EQ(g_block[g_size + n], kOldByte) << n;
    g_block = nullptr;
  }
  __real_free(block);
}

namespace sc_test {
namespace {

namespace fs = std::filesystem;
using store::State;

const sc::AreaRow* const kLanArea = &sc::kAreas[sc::kLan];

/* What is said of an archive, and the image in it. */
struct Verdict {
  State state;
  std::string reason;
  std::string image;

  bool operator==(const Verdict&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Verdict& verdict) {
  return stream << static_cast<int>(verdict.state) << " '" << verdict.reason << "' with "
                << verdict.image.size() << " bytes";
}

Verdict verdict_of(const store::Archive& archive) {
  EXPECT_EQ(archive.image == nullptr, archive.area == nullptr);
  const auto* image = reinterpret_cast<const char*>(archive.image);
  return {archive.state, archive.reason,
          image == nullptr ? "" : std::string(image, archive.area->size)};
}

Verdict look(const char* path = kLanArchive, int flags = 0, const sc::AreaRow* area = kLanArea) {
  store::Archive archive;
  const int file = store::open_archive(AT_FDCWD, path, flags, &archive);
  if (file >= 0) {
    const bool is_good = store::judge(file, area, &archive);
    EXPECT_EQ(is_good, archive.state == State::kGood);
    close(file);
  }
  return verdict_of(archive);
}

Verdict unknown(const std::string& why) { return {State::kUnknown, "not known: " + why, ""}; }
Verdict broken(const std::string& why) { return {State::kBroken, why, ""}; }

std::set<std::string> open_files() {
  std::set<std::string> files;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    files.insert(entry.path().filename());
  }
  return files;
}

/* While it lives, this script is gzip. */
class FakeGzip {
 public:
  explicit FakeGzip(const std::string& script) : path_(getenv("PATH")) {
    fs::create_directory("/var/fake");
    write_file("/var/fake/gzip", "#!/bin/sh\n" + script + "\n");
    chmod("/var/fake/gzip", 0755);
    setenv("PATH", ("/var/fake:" + path_).c_str(), 1);
  }
  ~FakeGzip() {
    setenv("PATH", path_.c_str(), 1);
    fs::remove_all("/var/fake");
  }
  FakeGzip(const FakeGzip&) = delete;
  FakeGzip& operator=(const FakeGzip&) = delete;

 private:
  std::string path_;
};

class ArchiveTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    lan_ = started<LanBlock>("Lan");
    lan_->lan_bind_count = 7;
    write_file(kLanArchive, archive_of(tar_member(image())));
  }

  std::string image() const {
    return std::string(reinterpret_cast<const char*>(lan_), sizeof *lan_);
  }
  Verdict good() const { return {State::kGood, "", image()}; }

  LanBlock* lan_ = nullptr;
};

/* ---- each sample ---- */

class ArchiveSampleTest : public ArchiveTest, public testing::WithParamInterface<Sample> {
 protected:
  void SetUp() override {
    ArchiveTest::SetUp();
    write_file(kLanArchive, GetParam().make(image()));
  }
  bool is_good() const { return GetParam().reason[0] == '\0'; }
};

TEST_P(ArchiveSampleTest, Verdict_IsStateReasonAndWholeImage) {
  const Verdict verdict = look();
  EXPECT_EQ(verdict.state, is_good() ? State::kGood : State::kBroken);
  EXPECT_EQ(verdict.reason, GetParam().reason);
  if (is_good()) {
    EXPECT_TRUE(verdict.image == image());
  }
  const Verdict of_any = look(kLanArchive, 0, nullptr);
  EXPECT_EQ(of_any, verdict);
}

std::string name_of(const testing::TestParamInfo<Sample>& sample) { return sample.param.name; }

INSTANTIATE_TEST_SUITE_P(EachSample, ArchiveSampleTest, testing::ValuesIn(samples()), name_of);

class GoodArchiveTest : public ArchiveSampleTest {};

TEST_P(GoodArchiveTest, Library_LoadsItWhole) {
  const std::string saved = image();
  memset(static_cast<void*>(lan_), 0x5a, sizeof *lan_);
  EXPECT_EQ(capture([] { area("Lan").init(1); }).out, "");
  EXPECT_TRUE(image() == saved);
}

std::vector<Sample> good_samples() {
  std::vector<Sample> good;
  for (const Sample& sample : samples()) {
    if (sample.kind == Sample::kGood) good.push_back(sample);
  }
  return good;
}

INSTANTIATE_TEST_SUITE_P(EachGoodSample, GoodArchiveTest, testing::ValuesIn(good_samples()),
                         name_of);

/* ---- whose archive ---- */

TEST_F(ArchiveTest, ArchiveOfAnotherArea_HoldsAnotherFile) {
  EXPECT_EQ(look(kLanArchive, 0, &sc::kAreas[sc::kWan]), broken("holds a different file"));
}

TEST_F(ArchiveTest, ArchiveOfAnyArea_TellsWhose) {
  store::Archive archive;
  const int file = store::open_archive(AT_FDCWD, kLanArchive, 0, &archive);
  EXPECT_TRUE(store::judge(file, nullptr, &archive));
  EXPECT_EQ(archive.area, kLanArea);
  close(file);
}

TEST_F(ArchiveTest, ImageThatAloneIsAtFault_IsThereToBeRepaired) {
  lan_->header.block_lock_index = 9;
  write_file(kLanArchive, archive_of(tar_member(image())));
  EXPECT_EQ(look(), (Verdict{State::kBroken, "wrong block lock", image()}));
}

TEST_F(ArchiveTest, DescriptorThatWasReadBefore_IsJudgedFromItsBeginning) {
  store::Archive archive;
  const int file = store::open_archive(AT_FDCWD, kLanArchive, 0, &archive);
  for (int n = 0; n < 2; ++n) {
    store::Archive again;
    EXPECT_TRUE(store::judge(file, kLanArea, &again));
    EXPECT_EQ(verdict_of(again), good());
  }
  close(file);
}

/* ---- what is no file ---- */

TEST_F(ArchiveTest, NoFile_IsMissing) {
  fs::remove(kLanArchive);
  EXPECT_EQ(look(), (Verdict{State::kMissing, "No such file or directory", ""}));
}

TEST_F(ArchiveTest, LinkToAGoodArchive_IsRefusedOnRequest) {
  fs::rename(kLanArchive, "/var/elsewhere");
  fs::create_symlink("/var/elsewhere", kLanArchive);
  EXPECT_EQ(look(kLanArchive, O_NOFOLLOW), unknown("it is a link"));
  EXPECT_EQ(look(), good());
}

TEST_F(ArchiveTest, LinkToItself_IsNotTakenForALinkToBeRefused) {
  fs::remove(kLanArchive);
  fs::create_symlink(kLanArchive, kLanArchive);
  EXPECT_EQ(look(), unknown("it could not be opened: Too many levels of symbolic links"));
}

TEST_F(ArchiveTest, PipeThatNobodyWrites_IsRefusedAtOnce) {
  fs::remove(kLanArchive);
  ASSERT_EQ(mkfifo(kLanArchive, 0644), 0);
  EXPECT_EQ(look(), unknown("not a regular file"));
}

TEST_F(ArchiveTest, FolderAndDevice_AreRefused) {
  EXPECT_EQ(look("/var"), unknown("not a regular file"));
  EXPECT_EQ(look("/dev/zero"), unknown("not a regular file"));
}

/* ---- what could not be looked at ---- */

TEST_F(ArchiveTest, NoDescriptorLeft_IsNotKnown) {
  const NoDescriptors none;
  EXPECT_EQ(look(), unknown("it could not be opened: Too many open files"));
}

TEST_F(ArchiveTest, NoDescriptorLeftForThePipe_IsNotKnown) {
  store::Archive archive;
  const int file = store::open_archive(AT_FDCWD, kLanArchive, 0, &archive);
  {
    const NoDescriptors none;
    EXPECT_FALSE(store::judge(file, kLanArea, &archive));
  }
  close(file);
  EXPECT_EQ(verdict_of(archive), unknown("gzip could not be run: Too many open files"));
}

TEST_F(ArchiveTest, NoGzipInPath_IsNotKnown) {
  const std::string path = getenv("PATH");
  setenv("PATH", "/var/nowhere", 1);
  EXPECT_EQ(look(), unknown("gzip could not be run"));
  setenv("PATH", path.c_str(), 1);
}

TEST_F(ArchiveTest, GzipThatIsKilled_IsNotKnown) {
  const FakeGzip gzip("kill -9 $$");
  EXPECT_EQ(look(), unknown("gzip was ended by signal 9"));
}

TEST_F(ArchiveTest, GzipThatIsKilledInTheMiddle_IsNotKnown) {
  const FakeGzip gzip("head -c 5000 /var/unpacked; kill -15 $$");
  EXPECT_EQ(look(), unknown("gzip was ended by signal 15"));
}

/* As of a program that finds no library. */
TEST_F(ArchiveTest, GzipThatEndsWithAnotherStatusThanGzips_IsNotKnown) {
  const FakeGzip gzip("exit 127");
  EXPECT_EQ(look(), unknown("gzip could not be run"));
  const FakeGzip three("cat /var/unpacked; exit 3");
  EXPECT_EQ(look(), unknown("gzip could not be run"));
}

TEST_F(ArchiveTest, GzipThatFindsFaultWithAWholeStream_IsBelieved) {
  for (const char* status : {"1", "2"}) {
    const FakeGzip gzip(std::string("cat /var/unpacked; exit ") + status);
    EXPECT_EQ(look(), broken("corrupt or truncated gzip data"));
  }
}

/* gzip unpacks it; BusyBox tar takes gzip's own format alone. */
TEST_F(ArchiveTest, AnotherFormatThatGzipUnpacks_IsBroken) {
  write_file(kLanArchive, "\x1f\x9d packed by compress");
  const FakeGzip gzip("cat /var/unpacked");
  EXPECT_EQ(look(), broken("corrupt or truncated gzip data"));
}

TEST_F(ArchiveTest, NoMemory_IsNotKnown) {
  for (const std::string& header : {std::string(), pax_header(pax_record("comment", "x"))}) {
    write_file(kLanArchive, archive_of(header + tar_member(image())));
    EXPECT_EQ(look(), good());
    g_no_memory = true;
    const Verdict verdict = look();
    g_no_memory = false;
    EXPECT_EQ(verdict, unknown("no memory"));
  }
}

TEST_F(ArchiveTest, StreamThatCannotBeRead_IsNotKnown) {
  store::Archive archive;
  EXPECT_FALSE(store::judge_tar(-1, kLanArea, &archive));
  EXPECT_EQ(verdict_of(archive), unknown("gzip could not be run: Bad file descriptor"));
}

/* ---- how gzip is run ---- */

TEST_F(ArchiveTest, StreamWithoutAnEnd_IsReadNoFurtherThanTheVerdict) {
  const FakeGzip gzip("cat /var/unpacked /dev/zero");
  EXPECT_EQ(look(), broken("more than 64 KiB after the image"));
  const FakeGzip noise("cat /dev/zero");
  EXPECT_EQ(look(), broken("not a tar archive"));
}

TEST_F(ArchiveTest, SigchldThatIsIgnored_ChangesNothingAndStaysSo) {
  signal(SIGCHLD, SIG_IGN);
  const Verdict verdict = look();
  EXPECT_EQ(signal(SIGCHLD, SIG_DFL), SIG_IGN);
  EXPECT_EQ(verdict, good());
}

TEST_F(ArchiveTest, NoChildIsLeft) {
  look();
  const FakeGzip gzip("cat /dev/zero");
  look();
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(ArchiveTest, NoDescriptorIsLeft) {
  const std::set<std::string> before = open_files();
  look();
  const FakeGzip gzip("cat /dev/zero");
  look();
  EXPECT_EQ(open_files(), before);
}

TEST_F(ArchiveTest, GzipHasTheStandardStreamsAlone) {
  for (int file = 40; file < 50; ++file) ASSERT_EQ(dup2(STDERR_FILENO, file), file);
  const FakeGzip gzip("ls -l /proc/$$/fd >/var/open; exit 1");
  look();
  for (int file = 40; file < 50; ++file) close(file);
  const std::string files = read_file("/var/open");
  EXPECT_NE(files.find(std::string(" 0 -> ") + kLanArchive), std::string::npos) << files;
  EXPECT_NE(files.find(" 2 -> /dev/null"), std::string::npos) << files;
  EXPECT_EQ(files.find(" 40 -> "), std::string::npos) << files;
  EXPECT_EQ(files.find(" 49 -> "), std::string::npos) << files;
}

TEST_F(ArchiveTest, GzipHasDefaultSignals) {
  sigset_t blocked, before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, &before);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, SIG_IGN);
  const FakeGzip gzip("grep -E 'Sig(Blk|Ign)' /proc/self/status >/var/signals; exit 1");
  look();
  signal(SIGPIPE, SIG_DFL);
  signal(SIGINT, SIG_DFL);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  /* MIPS has 128 of them, others 64. */
  std::string signals = read_file("/var/signals");
  std::erase(signals, '0');
  EXPECT_EQ(signals, "SigBlk:\t\nSigIgn:\t\n");
}

}  // namespace
}  // namespace sc_test
