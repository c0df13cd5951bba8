/* Two areas as a try leaves them on the flash: marked, with bases, and archives of later saves. */
#ifndef STORE_TRIED_H
#define STORE_TRIED_H

#include <filesystem>
#include <string>

#include <sysconfig/core.h>

#include "store/saved_lan.h"

namespace sc_test {

constexpr char kMarker[] = "/var/dataconfig/try";
constexpr char kNewMarker[] = "/var/dataconfig/try.new";
constexpr char kMiscArchive[] = "/var/dataconfig/config_misc.bin";
constexpr char kMiscGood[] = "/var/dataconfig/config_misc.good";
constexpr char kMiscNew[] = "/var/dataconfig/config_misc.new";
constexpr char kMiscLock[] = "/var/lock_store/misc_conf_lock";

constexpr char kBothGood[] = "sysconfig try 1\nlan good\nmisc good\nend\n";
constexpr char kMiscHadNone[] = "sysconfig try 1\nlan good\nmisc none\nend\n";

class Tried : public SavedLan {
 protected:
  void SetUp() override {
    SavedLan::SetUp();
    misc_ = started<MiscBlock>("Misc");
    ASSERT_NE(misc_, nullptr);
  }

  void save_misc(uint8_t state) {
    misc_->settings_140[0] = state;
    capture([&] { SC_Save_System_Misc_Config2Flash(misc_); });
  }

  /* Of both areas: an archive in state 2, and a copy in state 1. */
  void save_two_states_of_both() {
    save_two_states();
    save_misc(1);
    EXPECT_EQ(guard({"keep", "misc"}), (Guarded{0, ""}));
    save_misc(2);
    misc_copy_ = read_file(kMiscGood);
    misc_archive_ = read_file(kMiscArchive);
    ASSERT_NE(misc_copy_, misc_archive_);
  }

  /* The files of save_two_states_of_both, and the marker. */
  void try_again(const std::string& marker) const {
    namespace fs = std::filesystem;
    for (const auto& file : fs::directory_iterator("/var/dataconfig")) fs::remove_all(file);
    write_file(kArchive, archive_);
    write_file(kGood, copy_);
    write_file(kMiscArchive, misc_archive_);
    if (marker != kMiscHadNone) write_file(kMiscGood, misc_copy_);
    write_file(kMarker, marker);
  }

  bool bases_are_back(const std::string& marker) const {
    const bool misc_is_back =
        marker == kMiscHadNone ? !exists(kMiscArchive) : read_file(kMiscArchive) == misc_copy_;
    return read_file(kArchive) == copy_ && misc_is_back;
  }
  void expect_the_bases_alone(const std::string& marker) const {
    EXPECT_TRUE(bases_are_back(marker));
    EXPECT_TRUE(read_file(kGood) == copy_);
    if (marker == kMiscHadNone)
      EXPECT_FALSE(exists(kMiscGood));
    else
      EXPECT_TRUE(read_file(kMiscGood) == misc_copy_);
    for (const char* path : {kMarker, kNewMarker, kNew, kMiscNew})
      EXPECT_FALSE(exists(path)) << path;
  }
  void expect_nothing_changed(const std::string& marker) const {
    expect_unchanged();
    EXPECT_TRUE(read_file(kMiscArchive) == misc_archive_);
    if (marker != kMiscHadNone) EXPECT_TRUE(read_file(kMiscGood) == misc_copy_);
    EXPECT_EQ(read_file(kMarker), marker);
  }

  MiscBlock* misc_ = nullptr;
  std::string misc_archive_, misc_copy_;
};

}  // namespace sc_test

#endif
