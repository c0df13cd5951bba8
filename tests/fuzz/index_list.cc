/* Any text as an index list, against tables that are full. */
#include "fuzz/harness.h"
#include "support/areas.h"

namespace sc_fuzz {

using namespace sc_test;

void run_index_list(Source& source) {
  Stage stage(source.below(kLists));
  for (const std::string& area : stage.areas()) {
    Bytes image = started(area);
    for (const ListRow& row : list_rows()) {
      if (row.area != area) continue;
      for (uint32_t p = 0; p < row.capacity; ++p) {
        store(image.data() + row.slot_of(p), 4, p + 1);
        /* Rules refer to the groups of the numbers around theirs, in either way. */
        for (const ReferenceRow& reference : row.references) {
          uint8_t* rule = image.data() + row.record_at(p);
          rule[reference.mode_at] = static_cast<uint8_t>(reference.cascade_mode);
          store(rule + reference.id_at, reference.id_width, p / 2 - 2);
        }
      }
    }
    stage.set(area, image);
  }
  const Bytes text = source.rest();
  stage.del(std::string(text.begin(), text.end()).c_str());
  stage.get_list();
  stage.compare_blocks();
}

}  // namespace sc_fuzz
