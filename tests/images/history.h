/* golden/history.txt: its steps, and the library doing them. What they mean is said there. */
#ifndef IMAGES_HISTORY_H
#define IMAGES_HISTORY_H

#include <stdint.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "images/layout.h"

namespace sc_test {

/* One step on one area or list. */
struct Step {
  std::string text; /* the line */
  std::string subject, verb;
  std::vector<std::pair<std::string, std::string>> args; /* the name is empty where there is none */
  std::vector<int64_t> results;

  const std::string& arg(const std::string& name) const;
  int64_t number(const std::string& name) const;
};

/* Repeated lines and lines on all areas are written out. */
std::vector<Step> read_history();

class Replay {
 public:
  /* Does the step and returns its results. */
  std::vector<int64_t> run(const Step& step);

  /* The area's attached block. */
  uint8_t* block(const std::string& area) const { return blocks_.at(area); }

 private:
  std::vector<int64_t> on_list(const Step& step);
  std::vector<int64_t> on_area(const Step& step);
  std::vector<int64_t> on_access_points(const Step& step);
  std::vector<uint8_t> build(const std::string& name, const Step& step) const;
  template <class Block>
  Block* typed(const std::string& area) const {
    return reinterpret_cast<Block*>(block(area));
  }

  Layout layout_;
  std::map<std::string, uint8_t*> blocks_;
};

}  // namespace sc_test

#endif
