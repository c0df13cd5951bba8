#include "support/rows.h"

#include <stdlib.h>

#include "support/areas.h"
#include "support/golden.h"

namespace sc_test {
namespace {

uint32_t whole(const std::string& text) {
  return static_cast<uint32_t>(strtoul(text.c_str(), nullptr, 10));
}

uint32_t whole(const GoldenRow& row, const char* column) {
  return static_cast<uint32_t>(row.number(column));
}

std::vector<RunRow> runs(const std::string& text) {
  std::vector<RunRow> parsed;
  for (const std::string& part : split(text, ' ')) {
    const std::vector<std::string> run = split(part, ':');
    parsed.push_back({whole(run.at(0)), whole(run.at(1))});
  }
  return parsed;
}

std::vector<KeyRow> keys(const std::string& text) {
  std::vector<KeyRow> parsed;
  for (const std::string& part : split(text, ' ')) {
    const std::vector<std::string> key = split(part, ':');
    parsed.push_back({key.at(0), whole(key.at(1)), whole(key.at(2))});
  }
  return parsed;
}

ListRow parsed(const GoldenRow& row) {
  ListRow list;
  list.name = row.text("list");
  list.area = row.text("area");
  list.code = golden_area(list.area).code;
  list.lock_path = golden_area(list.area).lock_path;
  list.base = whole(row, "base");
  list.stride = whole(row, "stride");
  list.capacity = whole(row, "capacity");
  list.slot_at = whole(row, "slot_at");
  list.lock_at = whole(row, "lock_at");
  list.first_lock_index = static_cast<int32_t>(row.number("first_lock_index"));
  list.free_mark = whole(row, "free_mark");
  list.counter_at = whole(row, "counter_at");
  list.counter_width = whole(row, "counter_width");
  list.keys = keys(row.text("keys"));
  list.modify_range = static_cast<int32_t>(row.number("modify_range"));
  list.payload = runs(row.text("payload"));
  list.identity = runs(row.text("identity"));
  list.item_size = whole(row, "item_size");
  list.id_at = whole(row, "id_at");
  list.list_size = whole(row, "list_size");
  return list;
}

std::vector<ListRow> read_rows() {
  std::vector<ListRow> lists;
  for (const GoldenRow& row : golden_table("lists.csv")) lists.push_back(parsed(row));
  for (ListRow& list : lists) {
    for (const GoldenRow& row : golden_table("item_fields.csv")) {
      if (row.text("list") != list.name) continue;
      list.fields.push_back({row.text("field"), row.text("kind"), whole(row, "record_at"),
                             whole(row, "item_at"), whole(row, "width")});
    }
    for (const GoldenRow& row : golden_table("references.csv")) {
      if (row.text("list") != list.name) continue;
      list.references.push_back({row.text("group"), whole(row, "mode_at"), whole(row, "id_at"),
                                 whole(row, "id_width"),
                                 static_cast<int32_t>(row.number("listing_mode")),
                                 static_cast<int32_t>(row.number("cascade_mode")),
                                 whole(row, "name_at"), whole(row, "values_at")});
    }
  }
  return lists;
}

std::vector<IdTableRow> read_id_tables() {
  std::vector<IdTableRow> tables;
  for (const GoldenRow& row : golden_table("id_tables.csv")) {
    const AreaFacts& area = golden_area(row.text("area"));
    tables.push_back({row.text("list"), area.name, static_cast<uint32_t>(area.path_at),
                      whole(row, "base"), whole(row, "stride"), whole(row, "capacity"),
                      whole(row, "id_at"), whole(row, "lock_at"), whole(row, "mac_at"),
                      area.locks.at(0).first});
  }
  return tables;
}

}  // namespace

const std::vector<ListRow>& list_rows() {
  static const std::vector<ListRow> rows = read_rows();
  return rows;
}

const ListRow& list_row(const std::string& name) {
  for (const ListRow& row : list_rows()) {
    if (row.name == name) return row;
  }
  abort();
}

const std::vector<IdTableRow>& id_table_rows() {
  static const std::vector<IdTableRow> rows = read_id_tables();
  return rows;
}

const IdTableRow& id_table_row(const std::string& name) {
  for (const IdTableRow& row : id_table_rows()) {
    if (row.name == name) return row;
  }
  abort();
}

}  // namespace sc_test
