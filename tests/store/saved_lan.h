/* The Lan area, saved in numbered states, and the guard run on its archive. */
#ifndef STORE_SAVED_LAN_H
#define STORE_SAVED_LAN_H

#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include <sysconfig/lan.h>

#include "support/output.h"
#include "support/program.h"
#include "support/started.h"
#include "support/world.h"

namespace sc_test {

constexpr char kArchive[] = "/var/dataconfig/config_lan.bin";
constexpr char kGood[] = "/var/dataconfig/config_lan.good";
constexpr char kNew[] = "/var/dataconfig/config_lan.new";
constexpr char kBad[] = "/var/dataconfig/config_lan.bad";
constexpr char kLock[] = "/var/lock_store/lan_conf_lock";

/* A command with what a shell does before it becomes the command, and with redirections. The command
 * is found before that. */
inline Words in_shell(const Words& command, const std::string& redirections,
                      const std::string& before = "") {
  Words words = {
      "sh", "-c",
      "it=$(command -v \"$1\"); shift; " + before + " exec \"$it\" \"$@\" " + redirections, "sh"};
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

/* What a run of the guard did; it prints nothing. */
struct Guarded {
  int status;
  std::string said;

  bool operator==(const Guarded&) const = default;
};
inline std::ostream& operator<<(std::ostream& stream, const Guarded& run) {
  return stream << "status " << run.status << ", said {" << run.said << "}";
}

inline Guarded guard(const Words& arguments, const std::string& before = "") {
  const Words command = scguard(arguments);
  const Outcome outcome = run(before.empty() ? command : in_shell(command, "", before + ";"));
  EXPECT_EQ(outcome.out, "");
  return {outcome.status, outcome.err};
}

class SavedLan : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    lan_ = started<LanBlock>("Lan");
    ASSERT_NE(lan_, nullptr);
  }

  /* Changes the area and saves it; the image that was saved. */
  std::string save(int32_t state) {
    lan_->lan_bind_count = state;
    capture([&] { SC_Save_System_Lan_Config2Flash(lan_); });
    return image();
  }

  /* An archive in state 2, and a copy in state 1. */
  void save_two_states() {
    save(1);
    EXPECT_EQ(guard({"keep", "lan"}), (Guarded{0, ""}));
    save(2);
    copy_ = read_file(kGood);
    archive_ = read_file(kArchive);
    ASSERT_NE(copy_, archive_);
  }
  void expect_unchanged() const {
    EXPECT_TRUE(read_file(kArchive) == archive_);
    EXPECT_TRUE(read_file(kGood) == copy_);
    EXPECT_FALSE(exists(kNew));
    EXPECT_FALSE(exists(kBad));
  }

  std::string image() const {
    return std::string(reinterpret_cast<const char*>(lan_), sizeof *lan_);
  }

  /* The area as a boot with the guard brings it back. */
  std::string rebooted(Guarded* run = nullptr) {
    const Guarded restored = guard({"restore", "lan"});
    if (run != nullptr) *run = restored;
    memset(static_cast<void*>(lan_), 0x5a, sizeof *lan_);
    EXPECT_EQ(capture([] { SC_Init_System_Lan_Config(1); }), kSilence);
    return image();
  }

  LanBlock* lan_ = nullptr;
  std::string archive_, copy_;
};

}  // namespace sc_test

#endif
