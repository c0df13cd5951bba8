/* What the tests of scctl's --in-place begin with: an image and an archive of a LAN area that holds
 * one binding. Nothing is live.
 */
#ifndef SCCTL_IN_PLACE_CASE_H
#define SCCTL_IN_PLACE_CASE_H

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <sysconfig/lan.h>

#include "support/program.h"
#include "support/world.h"

namespace sc_test {

class InPlaceCase : public World {
 protected:
  static constexpr char kFolder[] = "/var/edited";
  static constexpr char kImage[] = "/var/edited/lan.cfg";
  static constexpr char kArchive[] = "/var/edited/lan.bin";
  static constexpr char kTemporary[] = "/var/edited/lan.cfg.scctl-tmp";

  void SetUp() override {
    World::SetUp();
    std::filesystem::remove_all(kFolder);
    std::filesystem::create_directory(kFolder);
    ASSERT_EQ(run(scctl({"init", "Lan"})).status, 0);
    ASSERT_EQ(run(scctl({"add", "lan_binds", "mac=00:11:22:33:44:55", "name=printer"})).status, 0);
    ASSERT_EQ(run(scctl({"save", "Lan"})).status, 0);
    archive_ = read_file("/var/dataconfig/config_lan.bin");
    ASSERT_EQ(run(scctl({"remove", "Lan"})).status, 0);
    std::filesystem::remove("/var/dataconfig/config_lan.bin");
    std::filesystem::remove("/var/lock_store/lan_conf_lock");
    write_file(kArchive, archive_);
    was_ = image_of(kArchive);
    is_ = with_flag(7);
    std::filesystem::remove(kArchive);
    write_file(kImage, was_);
  }
  void TearDown() override { std::filesystem::remove_all(kFolder); }

  /* The image with another flag in its binding. */
  std::string with_flag(char flag) const {
    std::string image = was_;
    image[offsetof(LanBlock, lan_binds) + offsetof(DhcpBindRecord, bind_flag)] = flag;
    return image;
  }

  /* The edit that makes is_ of was_. */
  static Words edit(const std::string& file = kImage) { return edit_flag("7", file); }
  static Words edit_flag(const std::string& flag, const std::string& file = kImage) {
    const bool archive = file.ends_with(".bin");
    return scctl({"set", "lan_binds/1", "flag=" + flag, archive ? "--archive" : "--image", file,
                  "--in-place"});
  }

  static std::string image_of(const std::string& archive) {
    const Outcome outcome = run({"tar", "-xzOf", archive});
    EXPECT_EQ(outcome.status, 0) << outcome;
    return outcome.out;
  }

  /* Which of the two an image is, for messages that can be read. */
  std::string kind_of(const std::string& image) const {
    return image == was_ ? "old" : image == is_ ? "new" : "neither";
  }

  static std::set<std::string> names_in(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  static struct stat status_of(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
  }

  std::string was_, is_, archive_;
};

}  // namespace sc_test

#endif
