/* A try from its start to each of its ends: what is live, what is on the flash, who hears of it, and
 * what a refused command says. */
#include <sys/ioctl.h>
#include <sys/statvfs.h>
#include <termios.h>

#include <algorithm>

#include "scctl/tries.h"

namespace sc_test {
namespace {

/* The ways to make the same change. */
struct Way {
  const char* name;
  Words words;
};
std::ostream& operator<<(std::ostream& stream, const Way& way) { return stream << way.name; }

const Way kWays[] = {{"Batch", {"batch", kBatch}},
                     {"Import", {"import", "/var/import"}},
                     {"Command", {"--", "sh", "-c", "exec $SCCTL_WORDS batch /var/batch"}}};

class TryWayTest : public TryTest, public ::testing::WithParamInterface<Way> {
 protected:
  void SetUp() override {
    TryTest::SetUp();
    make_store();
    write_batch();
    std::string words;
    for (const std::string& word : scctl({})) words += word + " ";
    setenv("SCCTL_WORDS", words.c_str(), 1);
    done({"save", "--all"});
    before_ = live();
    done({"batch", kBatch});
    after_ = live();
    write_file("/var/import", done({"export"}));
    for (const auto& [name, image] : before_) memcpy(block(name), image.data(), image.size());
    flash_ = flash();
  }

  Outcome start(int seconds) {
    Words words = {"try", "--timeout", std::to_string(seconds)};
    words.insert(words.end(), GetParam().words.begin(), GetParam().words.end());
    return run(scctl(words));
  }

  /* Codes of the areas that the change concerns, in order. */
  static std::vector<int32_t> codes_of_tried_areas() {
    std::vector<int32_t> codes;
    for (const std::string& name : tried_areas()) {
      if (golden_area(name).code != 0) codes.push_back(golden_area(name).code);
    }
    std::sort(codes.begin(), codes.end());
    return codes;
  }

  static bool is_copy(const std::string& name) {
    return std::filesystem::path(name).extension() == ".good";
  }

  /* Kept copies are renewed before the marker is written; nothing else changes. */
  void expect_flash_unchanged(bool marked) {
    std::map<std::string, std::string> now = flash();
    EXPECT_EQ(now.erase("try"), marked ? 1u : 0u);
    std::erase_if(now, [](const auto& file) { return is_copy(file.first); });
    std::map<std::string, std::string> expected = flash_;
    std::erase_if(expected, [](const auto& file) { return is_copy(file.first); });
    EXPECT_TRUE(now == expected);
  }

  Images before_, after_;
  std::map<std::string, std::string> flash_;
};

TEST_P(TryWayTest, WhenItsTimeIsOver_AllIsAsBeforeAndEveryAreaConcernedHearsOfIt) {
  const auto begin = Clock::now();
  const Outcome outcome = start(3);
  ASSERT_EQ(outcome.status, 0) << outcome;
  EXPECT_NE(outcome.out.find("scctl confirm keeps the change; it is taken back in "),
            std::string::npos)
      << outcome;
  EXPECT_FALSE(is_live(before_));
  EXPECT_TRUE(exists(kTryFile));
  expect_flash_unchanged(true);
  Listener listener;
  EXPECT_TRUE(becomes(is_over));
  EXPECT_GE(ms_since(begin), 3000);
  EXPECT_LE(ms_since(begin), 6000);
  expect_live(before_);
  expect_flash_unchanged(false);
  std::vector<int32_t> codes = listener.codes();
  std::sort(codes.begin(), codes.end());
  EXPECT_EQ(codes, codes_of_tried_areas());
  /* The guard does not wait for the program that writes the log. */
  const auto told = [] {
    const std::vector<std::string> commands = commands_run();
    return std::count_if(commands.begin(), commands.end(), [](const std::string& line) {
      return line.starts_with("logger -t scctl the try of ") &&
             line.find(" is taken back (it was not confirmed): try --timeout 3 ") !=
                 std::string::npos;
    });
  };
  EXPECT_TRUE(becomes([&] { return told() > 0; }));
  EXPECT_EQ(told(), 1);
  for (const auto& entry : std::filesystem::directory_iterator("/var/systemconfig/scctl")) {
    const std::string name = entry.path().filename();
    EXPECT_TRUE(name == "counts" || name == "ended" || name == "locks" || name == "log" ||
                name == "saves")
        << name;
  }
  EXPECT_EQ(refusal({"confirm"}), "scctl: no try runs\n");
}

TEST_P(TryWayTest, Confirmed_IsOnTheFlashWithEqualCopies) {
  ASSERT_EQ(start(60).status, 0);
  const Images tried = live();
  EXPECT_EQ(run_scctl({"confirm"}).status, 0);
  EXPECT_TRUE(is_over());
  EXPECT_TRUE(becomes([] { return !has_guards(); }));
  expect_live(tried);
  std::map<std::string, std::string> files = flash();
  EXPECT_EQ(files.count("try"), 0u);
  for (const std::string& name : tried_areas()) {
    const std::filesystem::path path = golden_area(name).archive_path;
    if (name == "ApUserList") continue; /* users of access points, whom nobody saves */
    EXPECT_TRUE(files[path.filename()] != flash_[path.filename()]) << name;
    EXPECT_TRUE(files[path.filename()] == files[path.stem().native() + ".good"]) << name;
  }
  EXPECT_EQ(run_scctl({"diff", "saved", "live"}).out, "");
  for (const std::string& name : saved_area_names()) {
    memset(block(name), 0, golden_area(name).size);
  }
  done({"restore", "--all"});
  EXPECT_EQ(run_scctl({"diff", "saved", "live"}).out, "");
  const std::string log = done({"log"});
  EXPECT_NE(log.find("  try --timeout 60 "), std::string::npos) << log;
  EXPECT_NE(log.find("\n  lan_binds/7: added "), std::string::npos) << log;
}

TEST_P(TryWayTest, Reverted_IsAsBeforeAtOnce) {
  ASSERT_EQ(start(60).status, 0);
  EXPECT_EQ(revert(), "");
  expect_live(before_);
  expect_flash_unchanged(false);
  EXPECT_TRUE(is_over());
  EXPECT_TRUE(becomes([] { return !has_guards(); }));
}

INSTANTIATE_TEST_SUITE_P(EachWay, TryWayTest, ::testing::ValuesIn(kWays),
                         [](const auto& way) { return std::string(way.param.name); });

/* ---- changes that fail ---- */

TEST_F(TryTest, AChangeThatFails_IsTakenBackAtOnceWithItsStatus) {
  make_store();
  done({"save", "--all"});
  const Images before = live();
  std::string program;
  for (const std::string& word : scctl({"set", "lan_binds/1", "name=tried"})) program += word + " ";
  write_file("/var/fails", "set lan_binds/1 name=tried\ndel lan_binds/31\n");
  write_file("/var/wrong", "set lan_binds/1 name=tried\nnothing\n");
  write_file("/var/text", "no JSON");
  const struct {
    Words words;
    int status;
  } kFailing[] = {
      {{"batch", "/var/fails"}, 1},
      {{"batch", "/var/wrong"}, 2},
      {{"batch", "/var/missing"}, 3},
      {{"import", "/var/text"}, 1},
      {{"import", "/var/missing"}, 3},
      {{"--", "sh", "-c", program + "; exit 7"}, 7},
      /* What a terminal sends to all in the foreground is the program's. */
      {{"--", "sh", "-c", program + "; kill -INT $PPID; kill -QUIT $PPID; exit 8"}, 8},
      {{"--", "sh", "-c", program + "; kill -INT $$; exit 9"}, 128 + SIGINT},
      {{"--", "sh", "-c", program + "; kill -QUIT $$; exit 9"}, 128 + SIGQUIT},
      {{"--", "sh", "-c", program + "; kill -9 $$"}, 128 + SIGKILL},
      {{"--", "/var/missing"}, 127},
      {{"--", "/var/text"}, 126},
  };
  for (const auto& failing : kFailing) {
    const Outcome outcome = run(scctl(joined(Words{"try"}, failing.words)));
    EXPECT_EQ(outcome.status, failing.status) << outcome;
    EXPECT_NE(outcome.err.find("scctl: the try failed, and is taken back\n"), std::string::npos)
        << outcome;
    expect_live(before, failing.words.back());
    EXPECT_TRUE(is_over());
    EXPECT_NE(read_file("/var/systemconfig/scctl/ended").find(" is taken back (it failed): try "),
              std::string::npos);
    EXPECT_FALSE(exists(kMarkerFile));
    EXPECT_EQ(run_scctl({"try", "--status"}).status, 1);
  }
}

/* ---- refusals ---- */

TEST_F(TryTest, RefusedCommands_ChangeNothingAndSayWhy) {
  write_file(kBatch, "add lan_binds mac=00:11:22:33:44:55\n");
  const Images before = live();
  const std::string range = "scctl: --timeout: expected a number from 1 to 86400, not '";
  const struct {
    Words words;
    int status;
    std::string says;
  } kRefused[] = {
      {{"confirm"}, 1, "scctl: no try runs\n"},
      {{"revert"}, 1, "scctl: no try runs\n"},
      {{"try", "--timeout", "5"}, 1, "scctl: no try runs\n"},
      {{"try", "--timeout", "0", "batch", kBatch}, 2, range + "0'\n"},
      {{"try", "--timeout", "86401", "batch", kBatch}, 2, range + "86401'\n"},
      {{"try", "--timeout", "x", "batch", kBatch}, 2, range + "x'\n"},
      {{"try", "--timeout", "-1", "batch", kBatch}, 2, range + "-1'\n"},
      {{"try", "--timeout", "4294967297", "batch", kBatch}, 2, range + "4294967297'\n"},
      {{"try"}, 2, "scctl: what is tried? scctl help try\n"},
      {{"try", "--timeout", "5", "--"}, 2, "scctl: what is tried? scctl help try\n"},
      {{"try", "set", "lan_binds/1"}, 2, "scctl: 'set': expected batch, import or -- COMMAND\n"},
      {{"try", "--json", "batch", kBatch}, 2, "scctl: --json needs --status\n"},
      {{"try", "--status", "batch"}, 2, "scctl: usage: scctl try --status [--json]\n"},
      {{"diff", "try", "live"}, 3, "scctl: no try runs\n"},
  };
  for (const auto& refused : kRefused) {
    EXPECT_EQ(refusal(refused.words, refused.status), refused.says);
  }
  expect_live(before);
  EXPECT_TRUE(flash().empty());
  EXPECT_FALSE(exists(kTryFile));
}

TEST_F(TryTest, ASecondTry_IsRefusedWhateverItTries) {
  start_try_of("add lan_binds/3 mac=00:11:22:33:44:55\n");
  const Images tried = live();
  for (const Words& words : {Words{"try", "batch", kBatch}, Words{"try", "import", kBatch},
                             Words{"try", "--", "true"}}) {
    const std::string says = refusal(words);
    EXPECT_NE(says.find(" runs, for "), std::string::npos) << says;
    EXPECT_NE(says.find(" s; scctl confirm or scctl revert ends it\n"), std::string::npos) << says;
  }
  expect_live(tried);
  EXPECT_EQ(run_scctl({"try", "--status"}).status, 0);
}

TEST_F(TryTest, ATryWithinATry_IsRefusedAndTheOuterOneIsTakenBack) {
  const Images before = live();
  write_file("/var/inner", "add lan_binds mac=00:11:22:33:44:66\n");
  write_file(kBatch, "add lan_binds mac=00:11:22:33:44:55\ntry batch /var/inner\n");
  const Outcome in_batch = run(try_batch(60));
  EXPECT_EQ(in_batch.status, 2) << in_batch;
  EXPECT_NE(in_batch.err.find("try cannot be tried"), std::string::npos) << in_batch;
  expect_live(before);
  Words words = joined(Words{"try", "--"}, scctl({"try", "batch", "/var/inner"}));
  const Outcome by_program = run(scctl(words));
  EXPECT_EQ(by_program.status, 1) << by_program;
  EXPECT_NE(by_program.err.find("scctl: a try "), std::string::npos) << by_program;
  expect_live(before);
  EXPECT_TRUE(is_over());
}

TEST_F(TryTest, ConfirmBehindTheDeadline_IsTooLate) {
  const Images before = live();
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  start_try(1);
  /* A record that another program holds keeps the guards from taking it back. */
  const LockHolder foreign(lock_file("Lan"), edited_table("lan_binds").first_lock + 2);
  pause_ms(1100);
  EXPECT_NE(refusal({"confirm"}).find("too late"), std::string::npos);
  EXPECT_NE(refusal({"try", "--timeout", "50"}).find("too late"), std::string::npos);
  EXPECT_NE(done({"try", "--status"}).find(", 0 s left: "), std::string::npos);
  EXPECT_TRUE(exists(kTryFile));
}

TEST_F(TryTest, ConfirmBehindTheDeadlineOfStoppedGuards_TakesBackAndIsTooLate) {
  const Images before = live();
  start_try_of("add lan_binds/3 mac=00:11:22:33:44:55\n", 2);
  for (const off_t byte : {kGuardByte, kTwinByte}) kill(holder(byte), SIGSTOP);
  pause_ms(2100);
  EXPECT_EQ(
      refusal({"confirm"}),
      "scctl: the guards of the try were killed; it is ended now, scctl try --status tells how\n"
      "scctl: no try runs\n");
  EXPECT_TRUE(is_over());
  expect_live(before);
}

TEST_F(TryTest, Extended_ItLastsLonger) {
  const Images before = live();
  start_try_of("add lan_binds/3 mac=00:11:22:33:44:55\n", 2);
  const auto begin = Clock::now();
  done({"try", "--timeout", "4"});
  pause_ms(3000);
  EXPECT_FALSE(is_over());
  EXPECT_TRUE(becomes(is_over));
  EXPECT_GE(ms_since(begin), 4000);
  EXPECT_LE(ms_since(begin), 6500);
  expect_live(before);
}

TEST_F(TryTest, Extended_ItsTimeCountsFromNow) {
  start_try_of("add lan_binds/3 mac=00:11:22:33:44:55\n");
  done({"try", "--timeout", "40"});
  const std::string status = done({"try", "--status"});
  const size_t at = status.find(", made, ") + strlen(", made, ");
  const int left = atoi(status.c_str() + at);
  EXPECT_LE(left, 40) << status;
  EXPECT_GT(left, 0) << status;
}

TEST_F(TryTest, AMarkerOfBeforeTheBoot_KeepsATryFromStarting) {
  start_try_of("add lan_binds/3 mac=00:11:22:33:44:55\n");
  const std::string marker = read_file(kMarkerFile);
  revert();
  write_file(kMarkerFile, marker);
  const Images before = live();
  EXPECT_EQ(refusal({"try", "batch", kBatch}),
            "scctl: /var/dataconfig/try is of a try before the last boot; scguard restore ends "
            "it\n");
  expect_live(before);
  EXPECT_EQ(read_file(kMarkerFile), marker);
}

TEST_F(TryTest, WithoutItsFolders_ATryIsRefused) {
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  const Images before = live();
  std::filesystem::remove_all("/var/systemconfig");
  EXPECT_EQ(refusal({"try", "batch", kBatch}, 3),
            "scctl: /var/systemconfig/scctl: No such file or directory\n");
  expect_live(before);
  std::filesystem::create_directory("/var/systemconfig");
  write_file("/var/systemconfig/scctl", "no folder");
  EXPECT_EQ(refusal({"try", "batch", kBatch}, 3),
            "scctl: /var/systemconfig/scctl: Not a directory\n");
  expect_live(before);
  std::filesystem::remove("/var/systemconfig/scctl");
  std::filesystem::remove_all("/var/dataconfig");
  const Outcome outcome = run(scctl({"try", "batch", kBatch}));
  EXPECT_EQ(outcome.status, 3) << outcome;
  EXPECT_NE(outcome.err.find("/var/dataconfig: it cannot be locked: No such file or directory\n"),
            std::string::npos)
      << outcome;
  expect_live(before);
  EXPECT_TRUE(is_over());
  std::filesystem::create_directory("/var/dataconfig");
}

/* Mounts a file system over a folder. */
class Mounted {
 public:
  Mounted(const char* folder, const char* options, unsigned long flags = 0,
          const char* kind = "tmpfs")
      : folder_(folder) {
    EXPECT_EQ(mount(kind, folder, kind, flags, options), 0);
  }
  ~Mounted() { EXPECT_EQ(umount2(folder_, MNT_DETACH), 0); }

 private:
  const char* folder_;
};

TEST_F(TryTest, AReadOnlyFlash_KeepsATryFromStarting) {
  const Images before = live();
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  const Mounted read_only("/var/dataconfig", "", MS_RDONLY);
  const Outcome outcome = run(scctl({"try", "batch", kBatch}));
  EXPECT_EQ(outcome.status, 3) << outcome;
  EXPECT_NE(outcome.err.find("Read-only file system"), std::string::npos) << outcome;
  expect_live(before);
  EXPECT_TRUE(is_over());
}

TEST_F(TryTest, AFullMemory_KeepsATryFromStarting) {
  const Images before = live();
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  const Mounted small("/var/systemconfig", "size=16k");
  run({"sh", "-c", "cat /dev/zero >/var/systemconfig/filler 2>/dev/null"});
  EXPECT_EQ(refusal({"try", "batch", kBatch}, 3),
            "scctl: /var/systemconfig/scctl: No space left on device\n");
  expect_live(before);
  EXPECT_TRUE(flash().empty());
}

TEST_F(TryTest, AFullFlash_KeepsATryFromStartingAndTheMissingBytesAreSaid) {
  make_store();
  const Mounted small("/var/dataconfig", "size=192k");
  done({"save", "Lan"});
  std::filesystem::remove("/var/dataconfig/config_lan.good");
  write_file("/var/dataconfig/filler", std::string(140 * 1024, 'x'));
  const Images before = live();
  const auto files = flash();
  struct statvfs room;
  ASSERT_EQ(statvfs("/var/dataconfig", &room), 0);
  const uint64_t free = uint64_t{room.f_bavail} * room.f_frsize;
  const uint64_t archive = files.at("config_lan.bin").size();
  const uint64_t needed = archive + 4096 + 65536;
  ASSERT_GT(needed, free);
  write_file(kBatch, "set lan_binds/1 name=tried\n");
  const Outcome outcome = run(scctl({"try", "batch", kBatch}));
  EXPECT_EQ(outcome.status, 1) << outcome;
  const std::string says = "/var/dataconfig: " + std::to_string(needed - free) +
                           " bytes are missing: the kept copies need " +
                           std::to_string(archive + 4096) + ", and 65536 stay free\n";
  EXPECT_NE(outcome.err.find(says), std::string::npos) << outcome << "\nexpected: " << says;
  expect_live(before);
  EXPECT_TRUE(flash() == files);
  EXPECT_TRUE(is_over());
  /* With so many bytes more it starts. */
  write_file("/var/dataconfig/filler",
             std::string(140 * 1024 - (needed - free + 4095) / 4096 * 4096, 'x'));
  EXPECT_EQ(run(scctl({"try", "batch", kBatch})).status, 0);
}

TEST_F(TryTest, AnUnprivilegedCaller_IsRefused) {
  start_try_of("add lan_binds/3 mac=00:11:22:33:44:55\n");
  constexpr char kFolder[] = "/var/systemconfig/scctl";
  /* Root becomes another user. Who is not root takes his own rights away. */
  const bool is_root = geteuid() == 0;
  const Images tried = live();
  for (const Words& words :
       {Words{"try", "batch", kBatch}, Words{"confirm"}, Words{"revert"},
        Words{"try", "--timeout", "5"}, Words{"try", "--status"}, Words{"undo"}, Words{"log"}}) {
    const Ending ending = run_in_child([&] {
      const Words command = scctl(words);
      std::vector<char*> arguments;
      for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
      arguments.push_back(nullptr);
      if (is_root ? setgid(65534) != 0 || setuid(65534) != 0 : chmod(kFolder, 0) != 0) _exit(99);
      execvp(arguments[0], arguments.data());
      _exit(98);
    });
    EXPECT_EQ(ending.status, 3) << words[0] << ending;
    EXPECT_EQ(ending.output.err, "scctl: /var/systemconfig/scctl: Permission denied\n");
  }
  ASSERT_EQ(chmod(kFolder, 0700), 0);
  expect_live(tried);
  EXPECT_TRUE(exists(kTryFile));
}

/* ---- the caller's descriptors and terminal ---- */

TEST_F(TryTest, AReaderOfItsOutput_SeesTheEndAtOnce) {
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  std::string command;
  for (const std::string& word : try_batch(30)) command += word + " ";
  const auto begin = Clock::now();
  /* Descriptor 9 is one that nobody closes but the guard itself. */
  const Outcome outcome = run({"sh", "-c", "(" + command + " 9>&1 2>&1) | cat"});
  EXPECT_LT(ms_since(begin), 10000);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.out.find("it is taken back in"), std::string::npos) << outcome;
  EXPECT_TRUE(has_guards());
  EXPECT_FALSE(is_over());
}

TEST_F(TryTest, TheFolderOfItsCaller_IsNotKeptBusy) {
  std::filesystem::create_directory("/var/stick");
  ASSERT_EQ(mount("tmpfs", "/var/stick", "tmpfs", 0, ""), 0);
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  const Words in_there = {"sh", "-c", "cd /var/stick && exec \"$@\"", "sh"};
  ASSERT_EQ(run(joined(in_there, try_batch(60))).status, 0);
  EXPECT_TRUE(has_guards());
  EXPECT_EQ(umount2("/var/stick", 0), 0);
}

TEST_F(TryTest, AHangupOfTheSession_EndsNoGuard) {
  const Images before = live();
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  ASSERT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
  const std::string name = ptsname(terminal);
  Child session([&] {
    close(terminal);
    signal(SIGHUP, SIG_DFL); /* nohup may have started the tests */
    setsid();
    const int end = open(name.c_str(), O_RDWR); /* which makes it the session's terminal */
    for (int n = 0; n < 3; ++n) dup2(end, n);
    const Words words = try_batch(2);
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    if (fork() == 0) {
      execvp(arguments[0], arguments.data());
      _exit(98);
    }
    pause();
  });
  ASSERT_TRUE(becomes([] { return has_guards() && holder(kActorByte) == 0; }));
  const pid_t guards[] = {holder(kGuardByte), holder(kTwinByte)};
  for (const pid_t guard : guards) EXPECT_EQ(getsid(guard), guard);
  close(terminal); /* the kernel sends SIGHUP to the session */
  EXPECT_TRUE(becomes([&] { return session.ended(); }));
  EXPECT_EQ(holder(kGuardByte), guards[0]);
  EXPECT_EQ(holder(kTwinByte), guards[1]);
  EXPECT_TRUE(becomes(is_over));
  expect_live(before);
}

/* A terminal that somebody works at, by its name in a folder of terminals. */
class Terminal {
 public:
  explicit Terminal(const std::string& folder = "/dev/pts")
      : screen_(open((folder + "/ptmx").c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
    int number = -1, locked = 0;
    EXPECT_EQ(ioctl(screen_, TIOCGPTN, &number), 0);
    EXPECT_EQ(ioctl(screen_, TIOCSPTLCK, &locked), 0);
    path = folder + "/" + std::to_string(number);
    file = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(file, 0);
  }
  ~Terminal() {
    close(file);
    close(screen_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /* Whether the text is shown in time. */
  bool shows(const std::string& text, int ms = 20000) {
    return becomes([&] { return shown().find(text) != std::string::npos; }, ms);
  }
  /* What was shown so far. */
  const std::string& shown() {
    char text[512];
    const ssize_t size = read(screen_, text, sizeof text);
    if (size > 0) shown_.append(text, static_cast<size_t>(size));
    return shown_;
  }

  std::string path;
  int file;

 private:
  int screen_;
  std::string shown_;
};

TEST_F(TryTest, TheEnd_IsToldOnTheTerminalsOfItsUser) {
  Terminal own, other;
  /* Root gives one to another user. Who is not root has both. */
  const bool is_root = geteuid() == 0;
  ASSERT_TRUE(!is_root || fchown(other.file, 65534, 65534) == 0);
  start_try_of("add lan_binds/3 mac=00:11:22:33:44:55\n", 1);
  EXPECT_TRUE(becomes(is_over));
  constexpr char kTold[] = " is taken back (it was not confirmed)";
  EXPECT_TRUE(own.shows(kTold)) << own.shown();
  EXPECT_NE(own.shown().find("scctl: the try of "), std::string::npos) << own.shown();
  EXPECT_EQ(other.shows(kTold, is_root ? 500 : 20000), !is_root);
}

/* A serial console. */
TEST_F(TryTest, TheEnd_IsToldOnTheTerminalOfItsCallerWhereverThatIs) {
  std::filesystem::create_directory("/var/terminals");
  const Mounted consoles("/var/terminals", "newinstance,ptmxmode=0666", 0, "devpts");
  write_file(kBatch, "add lan_binds/3 mac=00:11:22:33:44:55\n");
  for (const char* standard : {"0<", "1>", "2>"}) {
    Terminal console("/var/terminals");
    const std::string command = std::string("exec \"$@\" ") + standard + console.path;
    ASSERT_EQ(run(joined(Words{"sh", "-c", command, "sh"}, try_batch(60))).status, 0);
    revert();
    EXPECT_TRUE(console.shows(" is taken back (by scctl revert)")) << standard;
  }
}

TEST_F(TryTest, ATerminalWhoseUserHasStoppedIt_HoldsUpNoEnd) {
  const Images before = live();
  const Terminal terminal;
  ASSERT_EQ(tcflow(terminal.file, TCOOFF), 0);
  start_try_of("add lan_binds/3 mac=00:11:22:33:44:55\n");
  Program revert(scctl({"revert"}));
  EXPECT_TRUE(becomes([&] { return revert.ended(); }, 5000));
  EXPECT_TRUE(is_over());
  expect_live(before);
}

}  // namespace
}  // namespace sc_test
