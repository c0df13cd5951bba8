/* scctl's commands with hostile contents: whatever is stored can be printed as commands that make it
 * again, and comes back from an export. */
#include <string.h>
#include <sys/shm.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "store/catalogue.h"
#include "store/letters.h"
#include "support/program.h"
#include "support/random.h"
#include "support/world.h"

namespace sc_test {
namespace {

using store::Field;
using store::Kind;
using store::kTables;
using store::Table;

/* A shell's function that stands for the tool. */
std::string shell_function() {
  std::string words;
  for (const std::string& word : sc_test::scctl({})) words += "'" + word + "' ";
  return "scctl() { " + words + "\"$@\"; }\n";
}

Outcome scctl_run(const Words& arguments, const std::string& input = "") {
  return run(sc_test::scctl(arguments), input);
}

class Block {
 public:
  explicit Block(const Table& table) : table_(table) {
    const int segment = shmget(store::kAreas[table.area].row().key, 0, 0);
    block_ = static_cast<uint8_t*>(shmat(segment, nullptr, 0));
  }
  ~Block() { shmdt(block_); }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  uint8_t* record(uint32_t position) { return block_ + table_.at + position * table_.stride; }
  bool is_used(uint32_t position) {
    int32_t id;
    if (store::is_section(table_)) return true;
    memcpy(&id, record(position) + table_.id_at, sizeof id);
    return id != table_.free;
  }
  void use(uint32_t position) {
    const auto id = static_cast<int32_t>(position + 1);
    if (!store::is_section(table_)) memcpy(record(position) + table_.id_at, &id, sizeof id);
  }
  std::string field(uint32_t position, const Field& field) {
    return {reinterpret_cast<char*>(record(position)) + field.record_at, field.size};
  }
  void set(uint32_t position, const Field& field, std::string bytes) {
    bytes.resize(field.size);
    memcpy(record(position) + field.record_at, bytes.data(), field.size);
  }
  /* The named fields of the used records: id, field, bytes. */
  std::map<std::string, std::string> fields() {
    std::map<std::string, std::string> all;
    for (uint32_t position = 0; position < table_.capacity; ++position) {
      if (!is_used(position)) continue;
      for (const Field& own : table_) {
        all[std::to_string(position + 1) + "." + own.name] = field(position, own);
      }
    }
    return all;
  }

 private:
  const Table& table_;
  uint8_t* block_;
};

/* Contents of a field: none, typed ones, odd spellings, anything. */
std::string random_bytes(Random& random, const Field& field) {
  static const std::vector<std::string> kTexts = {"printer",
                                                  "it's \"me\"",
                                                  "x'; touch /var/PWNED; #",
                                                  "$(id)",
                                                  "`id`",
                                                  "\\",
                                                  "a\\x41",
                                                  "~",
                                                  "-n",
                                                  "--json",
                                                  "#",
                                                  " lead",
                                                  "trail ",
                                                  "caf\xc3\xa9",
                                                  "two\nlines",
                                                  "\x1b[2J",
                                                  "\xe2\x80\xae",
                                                  "\xff",
                                                  std::string("cut\0off", 7),
                                                  std::string("\0x", 2),
                                                  "=",
                                                  ":hex=00",
                                                  "!!",
                                                  "*"};
  static const std::vector<std::string> kMacs = {"00:11:22:33:44:55",
                                                 "00-11-22-33-44-55",
                                                 "aa:bb:cc:dd:ee:ff",
                                                 "AA-BB-CC-DD-EE-FF",
                                                 "00-11-22-33-44-0A ",
                                                 "001122334455",
                                                 "zz",
                                                 "",
                                                 "00:11-22:33:44:55",
                                                 std::string("00:11:22:33:44:66\0x", 19)};
  const auto pick = [&](const std::vector<std::string>& of) {
    return of[random.below(static_cast<uint32_t>(of.size()))];
  };
  switch (random.below(4)) {
    case 0: return "";
    case 1:
      if (field.kind == Kind::kMacText) return pick(kMacs);
      if (field.kind == Kind::kText) return pick(kTexts);
      [[fallthrough]];
    default: {
      std::string bytes(random.one_in(2) ? field.size : random.below(field.size + 1u), '\0');
      for (char& byte : bytes) byte = static_cast<char>(random.next() >> 8);
      return bytes;
    }
  }
}

void fill(Random& random, const Table& table, Block& block) {
  const bool large = table.stride > 2000;
  for (uint32_t n = 0; n < (large ? 3u : 8u); ++n) {
    const uint32_t position = n == 0 ? table.capacity - 1u : random.below(table.capacity);
    block.use(position);
    for (const Field& field : table) block.set(position, field, random_bytes(random, field));
  }
}

class CommandsTest : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    ASSERT_EQ(scctl_run({"init", "--all"}), (Outcome{0, "", ""}));
  }
};

/* As a router's flash is emptied. */
void empty(const Table& table) {
  const std::string area = store::kAreas[table.area].name;
  ASSERT_EQ(scctl_run({"remove", area}), (Outcome{0, "", ""}));
  ASSERT_EQ(scctl_run({"init", area}), (Outcome{0, "", ""}));
}

/* Records that a comment names, and why. */
void check_comments(const std::string& commands, Block& block, const Table& table,
                    std::map<std::string, std::string>& wanted) {
  for (size_t at = 0; (at = commands.find("# ", at)) != std::string::npos; ++at) {
    if (at > 0 && commands[at - 1] != '\n') continue;
    const std::string line = commands.substr(at, commands.find('\n', at) - at);
    unsigned id, other;
    char field[32], name[32];
    ASSERT_EQ(
        sscanf(line.c_str(), "# %*[^/]/%u cannot be added: its %31s equals that of %31[^/]/%u", &id,
               field, name, &other),
        4)
        << line;
    ASSERT_EQ(name, std::string(table.name));
    ASSERT_LT(other, id);
    bool found = false;
    for (const Field& key : table) {
      if (key.name != std::string(field)) continue;
      found = true;
      EXPECT_EQ(strncasecmp(block.field(id - 1, key).c_str(), block.field(other - 1, key).c_str(),
                            key.size),
                0)
          << line;
    }
    EXPECT_TRUE(found) << line;
    for (const Field& gone : table) wanted.erase(std::to_string(id) + "." + gone.name);
  }
}

TEST_F(CommandsTest, WhateverIsStored_CommandsMakeAgainInAShellAndInABatch) {
  Random random;
  for (const Table& table : kTables) {
    SCOPED_TRACE(table.name);
    std::map<std::string, std::string> wanted;
    Outcome commands;
    {
      Block block(table);
      fill(random, table, block);
      wanted = block.fields();
      commands = scctl_run({"list", table.name, "--commands"});
      ASSERT_EQ(commands.status, 0) << commands.err;
      check_comments(commands.out, block, table, wanted);
    }
    for (size_t at = 0; at < commands.out.size();) {
      const auto letter = store::next_letter(&commands.out[at], commands.out.size() - at);
      ASSERT_TRUE(letter.is_harmless || letter.code == '\n') << letter.code;
      at += letter.size;
    }
    empty(table);
    const Outcome shell = run({"sh"}, shell_function() + commands.out);
    EXPECT_EQ(shell.status, 0) << shell.err;
    EXPECT_EQ(shell.err, "");
    EXPECT_TRUE(Block(table).fields() == wanted) << "by a shell:\n" << commands.out;
    empty(table);
    const Outcome batch = scctl_run({"batch"}, commands.out);
    EXPECT_EQ(batch.status, 0) << batch.err;
    EXPECT_TRUE(Block(table).fields() == wanted) << "by a batch:\n" << commands.out;
    empty(table);
  }
  EXPECT_FALSE(exists("/var/PWNED"));
}

TEST_F(CommandsTest, WhateverIsStored_ComesBackFromAnExport) {
  Random random;
  for (const Table& table : kTables) {
    SCOPED_TRACE(table.name);
    const std::string area = store::kAreas[table.area].name;
    std::map<std::string, std::string> wanted;
    {
      Block block(table);
      fill(random, table, block);
      /* Keys that are the same in two records are no matter of texts. */
      for (const Field& field : table) {
        if (field.clash == store::Clash::kNone) continue;
        for (uint32_t position = 0; position < table.capacity; ++position) {
          if (block.is_used(position)) {
            block.set(position, field, std::to_string(position) + "'\xff\x1b\n");
          }
        }
      }
      wanted = block.fields();
    }
    const Outcome exported = scctl_run({"export", area});
    ASSERT_EQ(exported.status, 0) << exported.err;
    empty(table);
    const Outcome imported = scctl_run({"import", "-"}, exported.out);
    EXPECT_EQ(imported.status, 0) << imported.err;
    EXPECT_TRUE(Block(table).fields() == wanted) << exported.out;
    EXPECT_EQ(scctl_run({"export", area}).out, exported.out);
  }
}

TEST_F(CommandsTest, ARecordOfZeros_IsMadeByItsCommand) {
  for (const Table& table : kTables) {
    SCOPED_TRACE(table.name);
    {
      Block block(table);
      block.use(table.capacity - 1u);
      for (const Field& field : table) block.set(table.capacity - 1u, field, "");
    }
    const Outcome command = scctl_run(
        {"get", std::string(table.name) + "/" + std::to_string(table.capacity), "--commands"});
    EXPECT_EQ(command.status, 0) << command.err;
    empty(table);
    const Outcome batch = scctl_run({"batch"}, command.out);
    EXPECT_EQ(batch.status, 0) << command.out << batch.err;
    Block block(table);
    EXPECT_TRUE(block.is_used(table.capacity - 1u)) << command.out;
    for (const auto& [name, bytes] : block.fields()) {
      EXPECT_EQ(bytes.find_first_not_of('\0'), std::string::npos) << name;
    }
  }
}

TEST_F(CommandsTest, EverySpellingOfAMacIsKeptBesideTheOthers) {
  const Table& table = *store::find_table("lan_binds", 9);
  const char* const kSpellings[] = {"00:11:22:33:44:aa", "00-11-22-33-44-aa", "001122334455"};
  {
    Block block(table);
    for (uint32_t n = 0; n < 3; ++n) {
      block.use(n);
      block.set(n, table.fields[0], kSpellings[n]);
      block.set(n, table.fields[1], std::string(1, static_cast<char>(n + 1)));
      block.set(n, table.fields[3], "x");
    }
  }
  EXPECT_EQ(
      scctl_run({"list", "lan_binds", "--commands"}),
      (Outcome{
          0,
          "scctl add lan_binds/1 mac=00:11:22:33:44:aa ip=1.0.0.0 name=x\n"
          "scctl add lan_binds/2 mac:hex=30302d31312d32322d33332d34342d6161 ip=2.0.0.0 name=x\n"
          "scctl add lan_binds/3 mac:hex=303031313232333334343535 ip=3.0.0.0 name=x\n",
          ""}));
}

TEST_F(CommandsTest, AMessage_IsOneHarmlessLineHoweverLongItsWordsAre) {
  const std::string bad = "\x1b[2J\n\xe2\x80\xae";
  const std::string shown = "\\x1b[2J\\x0a\\xe2\\x80\\xae";
  EXPECT_EQ(scctl_run({bad}).err,
            "scctl: unknown command '" + shown + "'; scctl --help lists them\n");
  EXPECT_EQ(scctl_run({"list", bad}).err,
            "scctl: unknown table '" + shown + "'; scctl tables lists them\n");
  EXPECT_EQ(scctl_run({"save", bad}).err,
            "scctl: unknown area '" + shown + "'; scctl areas lists them\n");
  EXPECT_EQ(scctl_run({"import", bad}).err, "scctl: " + shown + ": No such file or directory\n");
  EXPECT_EQ(scctl_run({"list", "wan", "--image", bad}).err,
            "scctl: " + shown + ": No such file or directory\n");
  const Outcome far = scctl_run({"list", std::string(100000, '\x1b')});
  EXPECT_EQ(far.status, 1);
  EXPECT_EQ(far.err.find('\x1b'), std::string::npos);
  EXPECT_EQ(far.err.substr(far.err.size() - 7), "\\x1b..\n");
  EXPECT_LT(far.err.size(), 5000u);
}

TEST_F(CommandsTest, AMessageOfAKilobyte_IsCut_AndOneThatIsAByteShorterIsNot) {
  const std::string behind = ": No such file or directory";
  for (size_t size = 1020; size < 1030; ++size) {
    std::string path = "/none/";
    while (path.size() + 2 + behind.size() <= size) path += "x/";
    path.resize(size - behind.size(), 'x');
    const std::string said = "scctl: " + path + behind;
    EXPECT_EQ(scctl_run({"import", path}),
              (Outcome{3, "", (size < 1024 ? said : said.substr(0, 7 + 1021) + "..") + "\n"}))
        << size;
  }
}

TEST_F(CommandsTest, ALineOfABatch_IsAsLongAsItsWords) {
  std::string line = "set product_info/1 settings=", dels = "del", adds;
  for (int n = 0; n < 24088; ++n) line += "5a";
  for (int n = 1; n <= 300; ++n) {
    dels += " aps/" + std::to_string(n);
    adds += "add aps ap_mac=02:00:00:00:00:00\n";
  }
  const Outcome batch = scctl_run({"batch"}, line + "\n" + adds + dels + "\n" + line);
  EXPECT_EQ(batch.err, "");
  EXPECT_EQ(batch.out.substr(batch.out.size() - 19), "commands done: 303\n");
  EXPECT_EQ(Block(*store::find_table("product_info", 12)).fields()["1.settings"],
            std::string(24088, 'Z'));
  EXPECT_EQ(Block(*store::find_table("aps", 3)).fields().size(), 0u);
}

/* A command that can have so many descriptors, 0 to 2 among them. */
Outcome with_descriptors(int count, const Words& arguments) {
  Words command = {"sh", "-c", "ulimit -n " + std::to_string(count) + "; exec \"$@\"", "sh"};
  for (const std::string& word : sc_test::scctl(arguments)) command.push_back(word);
  return run(command);
}

TEST_F(CommandsTest, WithFewDescriptors_AllIsSaid) {
  const Words add = {"add", "lan_binds", "mac=00:00:00:00:00:03"};
  EXPECT_EQ(with_descriptors(10, add), (Outcome{0, "added lan_binds/1\n", ""}));
  EXPECT_EQ(
      with_descriptors(10, add),
      (Outcome{1, "",
               "scctl: lan_binds: mac '00:00:00:00:00:03' is already used by lan_binds/1\n"}));
  EXPECT_EQ(
      with_descriptors(10, {"notify", "Lan"}),
      (Outcome{1, "",
               "scctl: area Lan is not announced: /var/config_socket: connect: No such file or "
               "directory\n"}));
}

TEST_F(CommandsTest, ABatchOfManyFiles_KeepsNoneOpen) {
  write_file("/var/empty.json", "{}");
  std::string lines;
  for (int n = 0; n < 20; ++n) lines += "import /var/empty.json\n";
  write_file("/var/batch", lines);
  const Outcome outcome = with_descriptors(12, {"batch", "/var/batch"});
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.status, 0);
}

TEST_F(CommandsTest, WhereTheLibraryCannotBeSilenced_ThatIsSaidAndNothingLost) {
  EXPECT_EQ(
      with_descriptors(5, {"remove", "Lan"}),
      (Outcome{0, "",
               "scctl: /var/systemconfig/scctl/log: Too many open files; undo will not know this "
               "edit\nscctl: cannot silence the library's messages: Too many open files\n"}));
  EXPECT_EQ(scctl_run({"remove", "Lan"}).status, 3);
}

/* Nothing of scctl's output is open in what the library runs. */
TEST_F(CommandsTest, WhileTheLibraryIsSilenced_ItsCommandsHaveNoneOfOurStreams) {
  std::filesystem::create_directory("/var/own");
  write_file("/var/own/change_event", "#!/bin/sh\nls -l /proc/$$/fd >/var/told\n");
  std::filesystem::permissions("/var/own/change_event", std::filesystem::perms::owner_all);
  Words command = {"sh", "-c", "PATH=/var/own:$PATH; exec \"$@\"", "sh"};
  for (const std::string& word : sc_test::scctl({"save", "Lan"})) command.push_back(word);
  EXPECT_EQ(run(command), (Outcome{0, "", ""}));
  std::filesystem::remove_all("/var/own");
  const std::string told = read_file("/var/told");
  EXPECT_NE(told.find(" 0 -> /memfd:"), std::string::npos) << told;
  EXPECT_EQ(told.find("/memfd:"), told.rfind("/memfd:")) << told;
  EXPECT_NE(told.find(" 2 -> /dev/null"), std::string::npos) << told;
}

}  // namespace
}  // namespace sc_test
