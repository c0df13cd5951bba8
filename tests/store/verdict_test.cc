/* scguard keep, scctl areas, check, list and restore say the same of each archive, in the same
 * words.
 */
#include <poll.h>
#include <sys/stat.h>

#include <filesystem>

#include "store/archives.h"
#include "store/saved_lan.h"
#include "support/locks.h"

namespace sc_test {
namespace {

namespace fs = std::filesystem;

/* What each command says of the archive; "" when it takes it for good. */
struct Said {
  std::string keep, areas, check, list, restore;

  bool operator==(const Said&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Said& said) {
  return stream << "keep {" << said.keep << "} areas {" << said.areas << "} check {" << said.check
                << "} list {" << said.list << "} restore {" << said.restore << "}";
}

/* The rest of the line behind a text; "" where there is none. */
std::string behind(const std::string& lines, const std::string& text) {
  const size_t found = lines.find(text);
  if (found == std::string::npos) return "";
  const size_t from = found + text.size();
  return lines.substr(from, lines.find('\n', from) - from);
}

class VerdictTest : public SavedLan {
 protected:
  Said said(const std::string& path = "") {
    const auto command = [&](const Words& words) {
      return path.empty() ? words : in_shell(words, "", "PATH=" + path + ";");
    };
    const Outcome keep = run(command(scguard({"keep", "lan"})));
    const Outcome areas = run(command(scctl({"areas"})));
    const Outcome check = run(command(scctl({"check", "Lan"})));
    const Outcome list = run(command(scctl({"list", "lan_binds", "--archive", kArchive})));
    const Outcome restore = run(command(scctl({"restore", "Lan"})));
    const Said said = {
        behind(keep.err, "config_lan.bin is not kept: ") + behind(keep.err, "config_lan.bin: "),
        behind(areas.out, "0/64     "), behind(check.out, "config_lan.bin: "),
        behind(list.err, std::string(kArchive) + ": "), behind(restore.err, "config_lan.bin: ")};
    const bool good = said.list.empty();
    EXPECT_EQ(keep.status, good ? 0 : 1);
    EXPECT_EQ(check.status, good ? 0 : 1);
    EXPECT_EQ(list.status, good ? 0 : 3);
    EXPECT_EQ(restore.status, good ? 0 : 1);
    return said;
  }
};

class VerdictSampleTest : public VerdictTest, public testing::WithParamInterface<Sample> {};

TEST_P(VerdictSampleTest, Verdict_IsTheSameEverywhere) {
  const std::string reason = GetParam().reason;
  write_file(kArchive, GetParam().make(image()));
  const Said expected = reason.empty() ? Said{"", "0 s old", "", "", ""}
                                       : Said{reason, "bad: " + reason,
                                              reason + "; remedy: scctl save Lan", reason, reason};
  Said actual = said();
  /* The library loads it by the tar in PATH, which may not know the oldest format. */
  if (GetParam().kind == Sample::kOldGood) actual.restore = "";
  if (reason.empty() && actual.areas.find(" s old") == 1) actual.areas = "0 s old";
  EXPECT_EQ(actual, expected);
}

std::string name_of(const testing::TestParamInfo<Sample>& sample) { return sample.param.name; }

INSTANTIATE_TEST_SUITE_P(OneOfEachKind, VerdictSampleTest, testing::ValuesIn(one_of_each_kind()),
                         name_of);
INSTANTIATE_TEST_SUITE_P(EachOther, VerdictSampleTest, testing::ValuesIn(other_samples()), name_of);

TEST_F(VerdictTest, ArchiveThatCannotBeJudged_IsCalledNeitherGoodNorBad) {
  save(1);
  fs::create_directory("/var/none");
  const std::string why = "not known: gzip could not be run";
  EXPECT_EQ(said("/var/none"), (Said{why + "; nothing is changed", why, why, why, why}));
}

TEST_F(VerdictTest, PipeInPlaceOfAnArchive_StopsNobody) {
  EXPECT_EQ(mkfifo(kArchive, 0644), 0);
  const std::string why = "not known: not a regular file";
  EXPECT_EQ(said(), (Said{why + "; nothing is changed", why, why, why, why}));
}

/* A save holds byte 1 while its archive is half written. */
TEST_F(VerdictTest, ArchiveThatIsBeingSaved_IsWaitedFor) {
  save(0);
  const std::string whole = read_file(kArchive);
  for (const Words& command : {Words{"check", "Lan"}, {"areas"}, {"diff"}, {"restore", "Lan"}}) {
    write_file(kArchive, whole.substr(0, whole.size() / 2));
    LockHolder saving(kLock, 1);
    Program program(scctl(command));
    poll(nullptr, 0, 300);
    EXPECT_FALSE(program.ended()) << command[0];
    write_file(kArchive, whole);
    saving.release();
    const Outcome outcome = program.wait();
    EXPECT_EQ(outcome.status, 0) << outcome;
    EXPECT_EQ(outcome.out.find("truncated"), std::string::npos) << outcome;
    EXPECT_EQ(outcome.err, "");
  }
}

TEST_F(VerdictTest, ArchiveOfAnAreaThatIsHeldForLong_IsNotCalledBroken) {
  save(0);
  LockHolder saving(kLock, 1);
  const std::string before = read_file(kArchive);
  EXPECT_EQ(run(scctl({"restore", "Lan"})),
            (Outcome{1, "",
                     std::string("scctl: area Lan is not restored: ") + kArchive +
                         ": another program holds the area\n"}));
  write_file(kArchive, before.substr(0, before.size() / 2));
  EXPECT_EQ(run(scctl({"check", "Lan"})),
            (Outcome{1,
                     std::string("Lan: ") + kArchive +
                         ": not known: another program holds the area\n"
                         "areas checked: 1, findings: 1\n",
                     ""}));
}

TEST_F(VerdictTest, SaveOntoAPipe_IsRefusedAtOnce) {
  save(1);
  for (const char* path : {"/var/systemconfig/config_lan.cfg", kArchive}) {
    fs::remove(path);
    ASSERT_EQ(mkfifo(path, 0644), 0);
    Words command = {"timeout", "10"};
    for (const std::string& word : scctl({"save", "Lan"})) command.push_back(word);
    EXPECT_EQ(run(command), (Outcome{3, "",
                                     std::string("scctl: area Lan is not saved: ") + path +
                                         ": not a regular file\n"}));
    fs::remove(path);
  }
}

TEST_F(VerdictTest, SaveThatCannotBeReadBack_IsNotCalledFailed) {
  save(1);
  fs::create_directory("/var/broken");
  for (const auto& [name, status] : {std::pair{"gzip", "127"}, std::pair{"tar", "0"}}) {
    const std::string path = std::string("/var/broken/") + name;
    write_file(path, std::string("#!/bin/sh\nexit ") + status + "\n");
    fs::permissions(path, fs::perms::owner_all);
  }
  EXPECT_EQ(run(in_shell(scctl({"save", "Lan"}), "", "PATH=/var/broken:$PATH;")),
            (Outcome{1, "",
                     "scctl: area Lan is perhaps not saved: /var/dataconfig/config_lan.bin: not "
                     "known: gzip could not be run\n"}));
}

}  // namespace
}  // namespace sc_test
