/* Any bytes in items and records, as arguments and as what a table was filled with; any operation,
 * position and id. The blocks are sound. */
#include "fuzz/harness.h"

namespace sc_fuzz {

void run_item(Source& source) {
  Stage stage(source.below(kLists));
  while (!source.empty()) stage.step(source);
  stage.read(source);
  stage.compare_blocks();
}

}  // namespace sc_fuzz
