/* get_items with a list's row known at compile time. The runs of its payload become straight code.
 * That takes two thirds of the interpreter's time, and as much room as the same code written by
 * hand.
 */
#ifndef CORE_UNROLLED_H
#define CORE_UNROLLED_H

#include <string.h>

#include <sysconfig/layout.h>

#include "core/address.h"
#include "core/bytes.h"
#include "core/item.h"
#include "core/text.h"

namespace sc {

/* Converts the runs from kRun on of a record into a zeroed item. */
template <const MappedListRow& kRow, int kRun>
[[gnu::always_inline]] inline void show_runs(const uint8_t* record, uint8_t* item,
                                             AddressWriter* addresses) {
  constexpr Run run = kRow.list.table.payload.runs[kRun];
  if constexpr (run.size != 0) {
    const uint8_t* from = record + run.record_at;
    uint8_t* to = item + run.item_at;
    if constexpr (run.conversion == Conversion::kAddress) {
      addresses->write(load<uint32_t>(from), to);
    } else if constexpr (run.conversion == Conversion::kSignedHalf) {
      store<int32_t>(to, load<int16_t>(from));
    } else if constexpr (run.conversion == Conversion::kSignedBytes) {
      for (size_t n = 0; n < run.size; ++n) store<int32_t>(to + 4 * n, load<int8_t>(from + n));
    } else if constexpr (run.size < sizeof(Vec16)) {
      memcpy(to, from, run.size);
    } else if constexpr (run.size <= 2 * sizeof(Vec16)) {
      copy_short_text(to, from, run.size);
    } else {
      copy_over_zeroes<run.size>(to, from);
    }
    if constexpr (kRun + 1 < kMaxRuns) show_runs<kRow, kRun + 1>(record, item, addresses);
  }
}

template <const MappedListRow& kRow>
void get_items_unrolled(const uint8_t* record, ItemListHead* items) {
  constexpr Geometry geometry = kRow.list.table.geometry;
  memset(items, 0, sizeof *items + geometry.capacity * kRow.item_size + SC_LIST_TAIL);
  auto* first = reinterpret_cast<uint8_t*>(items + 1);
  uint8_t* item = first;
  AddressWriter addresses;
  const uint8_t* end = record + geometry.capacity * geometry.stride;
  do {
    const auto id = load<int32_t>(record + geometry.slot_at);
    if (id < 0) continue;
    store(item, id);
    show_runs<kRow, 0>(record, item, &addresses);
    item += kRow.item_size;
  } while ((record += geometry.stride) != end);
  items->count = static_cast<uint32_t>(item - first) / kRow.item_size;
  items->capacity = geometry.capacity;
}

}  // namespace sc

#endif
