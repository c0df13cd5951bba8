/* reset: a record or a field gets its factory value. */
#include <stdio.h>
#include <string.h>

#include "commands.h"
#include "members.h"
#include "store/edit.h"
#include "store/overlay.h"

namespace scctl {

int run_reset(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kMayHaveField, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  Source factory;
  if (const int status = factory.open_factory(call.factory); status != kOk) return status;
  if (const int status = factory.need(table.area); status != kOk) return status;
  if (const int status = call.source.need(table.area); status != kOk) return status;
  Buffer record(table.stride);
  if (!Reader(factory, table).copy(target.id - 1, record.data())) {
    return fail(kRefused, "the factory has no %s/%u; scctl del %s/%u deletes it", table.name,
                target.id, table.name, target.id);
  }
  const uint8_t* live = call.source.block(table.area) + table.at + (target.id - 1) * table.stride;
  if (target.field == nullptr && !is_used(table, live)) {
    return add_record(call.source, table, record.data(), Spelling::kAsLibrary, &target.id);
  }
  Buffer wanted(table.stride);
  if (!Reader(call.source, table).copy(target.id - 1, wanted.data())) {
    return refuse_free(table, target.id);
  }
  Mask mask(table);
  if (target.field != nullptr) {
    /* Both have to have the member: its bytes may be another one's. */
    const Buffer* const both[] = {&record, &wanted};
    for (const Buffer* own : both) {
      const Table& view = view_of(table, target.id - 1, own->data());
      const size_t length = strlen(target.field);
      const Field* field = find_field(view, target.field, length);
      if (field == nullptr) {
        return unknown_member(table, target.id - 1, own->data(), target.field, length);
      }
      mask.add(*field);
    }
  } else {
    for (const Field& field : table) mask.add(field);
  }
  mask.merge(wanted.data(), record.data());
  return set_record(call.source, table, target.id, wanted.data(), mask, Spelling::kAsLibrary);
}

}  // namespace scctl
