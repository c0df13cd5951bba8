/* What the tests of checkpoints share: the folders, and what lies in a checkpoint. */
#ifndef SCCTL_CHECKPOINT_CASE_H
#define SCCTL_CHECKPOINT_CASE_H

#include <filesystem>
#include <set>
#include <string>

#include "scctl/edits.h"

namespace sc_test {

class CheckpointTest : public EditTest {
 protected:
  static constexpr char kFolder[] = "/var/dataconfig/checkpoints";

  static std::string folder(const std::string& name) { return kFolder + ("/" + name); }
  static std::string manifest(const std::string& name) { return folder(name) + "/manifest"; }
  static std::string packed(const std::string& name, const std::string& area_name) {
    const std::filesystem::path image = golden_area(area_name).image_path;
    return folder(name) + "/" + image.filename().string() + ".gz";
  }
  /* The image of an area in a checkpoint, by the host's gzip. */
  static std::string unpacked(const std::string& name, const std::string& area_name) {
    return run({"gzip", "-dc", packed(name, area_name)}).out;
  }
  /* The areas that can be saved. */
  static std::vector<std::string> saved_areas() {
    std::vector<std::string> names;
    for (const AreaCalls& calls : all_areas()) {
      if (std::string(calls.name) != "ApUserList") names.push_back(calls.name);
    }
    return names;
  }
  /* What lies in the folder of checkpoints, hidden names included. */
  static std::set<std::string> names() {
    std::set<std::string> found;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(kFolder, none)) {
      found.insert(entry.path().filename());
    }
    return found;
  }
  /* The line of a checkpoint in the list. */
  std::string listed(const std::string& name) {
    const std::string all = done({"checkpoints"});
    const size_t at = all.find("\n" + name + " ") + 1;
    return at == 0 ? "" : all.substr(at, all.find('\n', at) - at);
  }
  bool is_good(const std::string& name) {
    const std::string line = listed(name);
    return line.ends_with("in one moment") || line.ends_with("area by area");
  }
};

}  // namespace sc_test

#endif
