/* Commands that show records: list, get, find, dump. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "commands.h"
#include "members.h"
#include "store/letters.h"
#include "store/overlay.h"
#include "store/value.h"

namespace scctl {

namespace {

constexpr size_t kColumns = 80;
constexpr size_t kWidest = 32; /* letters of a cell, at most */
constexpr size_t kIdWidth = 3;

/* Adds a text, cut to a number of columns. */
void add_cut(const char* text, size_t size, Text* to) {
  static constexpr char kCut[] = "..";
  Text whole;
  size_t kept = 0, columns = 0; /* what is left after a cut */
  while (size > 0) {
    Shown shown;
    const size_t taken = show_letter(text, size, &shown);
    columns += shown.columns;
    if (columns > kWidest) {
      to->add(whole.c_str(), kept);
      to->add(kCut);
      return;
    }
    whole.add(shown.bytes, shown.size);
    if (columns <= kWidest - strlen(kCut)) kept = whole.size();
    text += taken;
    size -= taken;
  }
  to->add(whole.c_str());
}

/* Adds a value, cut to the width of a cell. */
void format_cell(const Field& field, const uint8_t* record, Text* to) {
  if (field.kind == Kind::kBytes && !is_hidden(field)) {
    to->print("%zu/%u bytes", size_without_trailing_zeros(field, record), field.size);
    return;
  }
  Text value;
  format(field, record, &value);
  add_cut(value.c_str(), value.size(), to);
}

void add_cell(const char* text, size_t width, Text* to) {
  to->add(text);
  for (size_t n = columns_of(text); n < width + 2; ++n) to->add(' ');
}

void end_line(Text* to) {
  to->trim(' ');
  to->add('\n');
}

void print(const Text& text) { fwrite(text.c_str(), 1, text.size(), stdout); }

/* Chooses the records with a given value in a field, or all records when there is no word. */
class Choice {
 public:
  explicit Choice(const Table& of) : table(of) {}
  Choice(const Table& of, const char* word) : table(of), word_(word), wanted_(of.stride) {}

  /* An error in the word. Whether the field exists may depend on the records. */
  int check() {
    if (const int status = split_assignment(word_, &given_); status != kOk) return status;
    const Table& names = names_of(table);
    const Field* field = find_field(names, given_.name, given_.length);
    if (field == nullptr) return unknown_field(names, given_.name, given_.length);
    if (is_hidden(*field)) {
      return fail(kRefused, "%s.%s is a secret; --secrets finds it", table.name, field->name);
    }
    return is_covered(table) ? kOk : parse_in(table);
  }
  bool is_of_all() const { return word_ == nullptr; }
  int status() const { return status_; }

  bool has(const Table& view, const uint8_t* record) {
    if (word_ == nullptr) return true;
    if (status_ != kOk || (parsed_ != &view && parse_in(view) != kOk) || field_ == nullptr) {
      return false;
    }
    const uint8_t* wanted = wanted_.data();
    if (!is_text(*field_) || spelling_ == Spelling::kAsLibrary) {
      return equal(*field_, record, wanted);
    }
    if (field_->kind == Kind::kMacText) return is_same_mac_text(*field_, record, wanted);
    return strncmp(reinterpret_cast<const char*>(record) + field_->record_at,
                   reinterpret_cast<const char*>(wanted) + field_->record_at, field_->size) == 0;
  }

  const Table& table;

 private:
  int parse_in(const Table& view) {
    parsed_ = &view;
    field_ = find_field(view, given_.name, given_.length);
    if (field_ == nullptr) return kOk;
    status_ = parse_assignment(view, word_, wanted_.data(), &field_, &spelling_);
    return status_;
  }

  const char* word_ = nullptr;
  Assignment given_ = {};
  Buffer wanted_;
  const Table* parsed_ = nullptr; /* the view in which the word was read */
  const Field* field_ = nullptr;
  Spelling spelling_ = Spelling::kAsMac; /* kAsLibrary: all bytes are compared */
  int status_ = kOk;
};

/* The columns of a printed table: as many of the first fields as fit. Large fields are left out: to
 * print how much of one is filled, scctl would have to read all of it, and reading pages that
 * nobody has written makes them use memory. */
class Columns {
 public:
  explicit Columns(const Table& view) {
    for (const Field& field : view) {
      if ((field.size > kLargest && !is_section(view)) || shown_ == kMostFields) break;
      names_[shown_] = field.name;
      widths_[shown_++] = strlen(field.name);
    }
    drop();
  }
  const char* name(int column) const { return names_[column]; }
  /* Members have other places where conditions hold otherwise. */
  const Field* find(const Table& table, const Table& view, int column) const {
    if (&view == &table && !is_covered(table)) return &table.fields[column];
    const Field* field = find_field(view, names_[column], strlen(names_[column]));
    return field != nullptr && field < view.end() ? field : nullptr;
  }
  int shown() const { return shown_; }
  size_t width(int column) const { return widths_[column]; }
  void widen(int column, size_t width) {
    if (width <= widths_[column]) return;
    widths_[column] = width;
    drop();
  }

 private:
  void drop() {
    size_t width = kIdWidth + 2;
    int fitting = 0;
    for (; fitting < shown_ && width + widths_[fitting] <= kColumns; ++fitting) {
      width += widths_[fitting] + 2;
    }
    shown_ = fitting;
  }

  static constexpr int kMostFields = 32;
  static constexpr int kLargest = 1024;
  const char* names_[kMostFields];
  size_t widths_[kMostFields];
  int shown_ = 0;
};

/* Prints a table in one pass. Cells are made before the widths are known, but only of columns that
 * may still fit. Returns the number of records. If no record has the value, nothing is printed. */
uint32_t print_table(Source& source, Choice& choice) {
  const Table& table = choice.table;
  const bool is_whole = !choice.is_of_all() || is_covered(table);
  Buffer record(table.stride);
  uint32_t first = 0;
  const bool any = is_covered(table) && Reader(source, table).copy_next(&first, record.data());
  const Table& first_view = any ? view_of(table, first, record.data()) : names_of(table);
  Columns columns(first_view);
  const int field_count = first_view.field_count;
  Reader reader(source, table, is_whole ? Reader::kWhole : columns.shown());
  Buffer cell_counts(table.capacity);
  Text cells; /* the id and the values of each record, each terminated by NUL */
  Text cell;
  uint32_t count = 0;
  for (uint32_t position = 0; reader.copy_next(&position, record.data()); ++position) {
    const Table& view = view_of(table, position, record.data());
    if (!choice.has(view, record.data())) continue;
    cells.print("%u", position + 1);
    cells.add('\0');
    int made = 0;
    for (; made < columns.shown(); ++made) {
      cell.clear();
      const Field* field = columns.find(table, view, made);
      if (field != nullptr) format_cell(*field, record.data(), &cell);
      columns.widen(made, columns_of(cell.c_str()));
      cells.add(cell.c_str(), cell.size() + 1);
    }
    cell_counts.data()[count++] = static_cast<uint8_t>(made);
    if (!is_whole) reader.read_fields(columns.shown());
  }
  if (count == 0 && !choice.is_of_all()) return 0;

  Text text;
  add_cell("id", kIdWidth, &text);
  for (int n = 0; n < columns.shown(); ++n) {
    add_cell(columns.name(n), columns.width(n), &text);
  }
  end_line(&text);
  const char* next = cells.c_str();
  for (uint32_t n = 0; n < count; ++n) {
    add_cell(next, kIdWidth, &text);
    next += strlen(next) + 1;
    for (int made = 0; made < cell_counts.data()[n]; ++made) {
      if (made < columns.shown()) add_cell(next, columns.width(made), &text);
      next += strlen(next) + 1;
    }
    end_line(&text);
  }
  text.print("(%u of %u records", count, table.capacity);
  const int more = field_count - columns.shown();
  if (more > 0) text.print("; %d more field%s: scctl get", more, more == 1 ? "" : "s");
  text.add(")\n");
  print(text);
  return count;
}

/* Writes records as scctl commands, which can be pasted back. */
class Commands {
 public:
  explicit Commands(const Table& table) : table_(table), made_(table) {}

  /* Zero fields are left out, but a command needs at least one field. If add will refuse a record
   * because of an earlier one, a comment names it. */
  void add(uint32_t id, const uint8_t* record, Text* to) {
    const Field* field;
    if (const int other = made_.find_clash(record, -1, &field, Spelling::kAsLibrary); other >= 0) {
      to->print("# %s/%u cannot be added: its %s equals that of %s/%d\n", table_.name, id,
                field->name, table_.name, other + 1);
      return;
    }
    const bool checked = made_.find_clash(record, -1, &field) < 0;
    memcpy(made_.put(id - 1), record, table_.stride);
    to->print("scctl %s %s/%u", is_section(table_) ? "set" : "add", table_.name, id);
    bool any = false;
    const Table& view = view_of(table_, id - 1, record);
    for (const Field& member : view) {
      if (size_without_trailing_zeros(member, record) == 0 && (any || &member + 1 < view.end()))
        continue;
      format_assignment(member, record, checked || &member != field, to);
      any = true;
    }
    to->add('\n');
  }

 private:
  const Table& table_;
  Snapshot made_;
};

/* Returns the number of records. */
uint32_t print_records(Call& call, Choice& choice) {
  if (!call.has(kJson) && !call.has(kCommandsOption)) return print_table(call.source, choice);
  const Table& table = choice.table;
  const bool json = !call.has(kCommandsOption);
  Reader reader(call.source, table);
  Buffer record(table.stride);
  Commands commands(table);
  uint32_t count = 0;
  Text text;
  JsonWriter writer(&text);
  if (json) writer.open('[', JsonWriter::kLines);
  for (uint32_t position = 0; reader.copy_next(&position, record.data()); ++position) {
    const Table& view = view_of(table, position, record.data());
    if (!choice.has(view, record.data())) continue;
    if (json) {
      write_json_record(view, position + 1, record.data(), false, &writer);
    } else {
      commands.add(position + 1, record.data(), &text);
    }
    print(text);
    text.clear();
    ++count;
  }
  if (json) {
    writer.close();
    text.add('\n');
    print(text);
  }
  return count;
}

}  // namespace

void write_json_record(const Table& view, uint32_t id, const uint8_t* record, bool whole,
                       JsonWriter* writer) {
  writer->open('{', JsonWriter::kInline);
  writer->member("id", id);
  for (const Field& field : view) {
    writer->name(field.name);
    format_json(field, record, whole, &writer->value());
  }
  writer->close();
}

/* ---- records ---- */

namespace {

void print_fields(const Table& view, const uint8_t* record, Text* to) {
  size_t width = 14;
  for (const Field& field : view) {
    if (strlen(field.name) > width && strlen(field.name) < kColumns / 2) width = strlen(field.name);
  }
  for (const Field& field : view) {
    to->print("%-*s  ", static_cast<int>(width), field.name);
    if (field.kind == Kind::kBytes)
      format_cell(field, record, to);
    else
      format_shown(field, record, to);
    if (field.extra != nullptr && field.extra->unit != nullptr) {
      to->add(' ');
      to->add_shown(field.extra->unit, strlen(field.extra->unit));
    }
    end_line(to);
  }
}

}  // namespace

int run_list(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kTableAlone, &target); status != kOk) {
    return status;
  }
  if (const int status = call.source.need(target.table->area); status != kOk) return status;
  Choice all(*target.table);
  print_records(call, all);
  return kOk;
}

int run_find(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kTableAlone, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  Choice choice(table, call.words[1]);
  if (const int status = choice.check(); status != kOk) return status;
  if (const int status = call.source.need(table.area); status != kOk) return status;
  const uint32_t found = print_records(call, choice);
  if (choice.status() != kOk) return choice.status();
  if (found > 0) return kOk;
  if (call.has(kJson)) return kRefused;
  return fail(kRefused, "no record of %s has %s", table.name, call.words[1]);
}

int run_get(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kMayHaveField, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  if (const int status = call.source.need(table.area); status != kOk) return status;
  Buffer record(table.stride);
  if (!Reader(call.source, table).copy(target.id - 1, record.data())) {
    return fail(kRefused, "%s/%u is free", table.name, target.id);
  }
  const Table& view = view_of(table, target.id - 1, record.data());
  Text text;
  if (call.has(kCommandsOption)) {
    Commands(table).add(target.id, record.data(), &text);
  } else if (target.field != nullptr) {
    const Field* field = find_field(view, target.field, strlen(target.field));
    if (field == nullptr) {
      return unknown_member(table, target.id - 1, record.data(), target.field,
                            strlen(target.field));
    }
    if (call.has(kJson))
      format_json(*field, record.data(), false, &text);
    else if (isatty(STDOUT_FILENO) != 0)
      format_shown(*field, record.data(), &text);
    else
      format(*field, record.data(), &text);
    text.add('\n');
  } else if (call.has(kJson)) {
    JsonWriter writer(&text);
    write_json_record(view, target.id, record.data(), false, &writer);
    text.add('\n');
  } else {
    print_fields(view, record.data(), &text);
    if (g_overlays != nullptr) {
      g_overlays->add_reasons(table, target.id - 1, record.data(), nullptr, &text);
    }
  }
  print(text);
  return kOk;
}

/* ---- dump ---- */

namespace {

/* Prints sixteen bytes a line, and the name behind the first line. Lines of zeros are only
 * counted. */
void dump_bytes(const uint8_t* bytes, uint32_t at, uint32_t size, const char* name,
                const uint8_t* secret = nullptr) {
  constexpr uint32_t kLine = 16;
  const uint32_t end = at + size;
  uint32_t zeros = 0;
  Text line;
  const auto finish = [&] {
    line.print("%*s%s", 58 - static_cast<int>(line.size()), "", name);
    end_line(&line);
    print(line);
    line.clear();
    name = "";
  };
  const auto tell_zeros = [&](uint32_t upto) {
    if (zeros == 0) return;
    line.print("%8u  %u zero byte%s", upto - zeros, zeros, zeros == 1 ? "" : "s");
    finish();
    zeros = 0;
  };
  for (; at < end; at += kLine, bytes += kLine) {
    const uint32_t count = end - at < kLine ? end - at : kLine;
    bool zero = true;
    const uint8_t* hides = secret != nullptr ? secret + (size - (end - at)) : nullptr;
    for (uint32_t n = 0; n < count; ++n) {
      zero = zero && bytes[n] == 0 && (hides == nullptr || hides[n] == 0);
    }
    if (zero) {
      zeros += count;
      continue;
    }
    tell_zeros(at);
    line.print("%8u ", at);
    for (uint32_t n = 0; n < count; ++n) {
      if (hides != nullptr && hides[n] != 0)
        line.add(" **");
      else
        line.print(" %02x", bytes[n]);
    }
    finish();
  }
  tell_zeros(end);
}

/* Prints bytes without a known use. Their name is their place, as in the public structs. */
void dump_spare(const uint8_t* bytes, uint32_t start, uint32_t at, uint32_t size) {
  Text name;
  name.print("spare_%u", at);
  dump_bytes(bytes + at, start + at, size, name.c_str());
}

/* Prints a record in the order of its bytes: fields, the lock word, the id and spare bytes. Members
 * that begin at one byte share its line. */
void dump_record(const Table& view, const uint8_t* record, uint32_t start) {
  Buffer secret(view.stride);
  for (const Field& field : view) {
    if (is_hidden(field)) memset(secret.data() + field.record_at, 1, field.size);
  }
  for (uint32_t at = 0; at < view.stride;) {
    Text name;
    uint32_t size = 0, next = view.stride;
    const auto consider = [&](int place, uint32_t own_size, const char* own_name) {
      if (place == static_cast<int>(at)) {
        if (name.size() > 0) name.add(' ');
        name.add(own_name);
        if (own_size > size) size = own_size;
      } else if (place > static_cast<int>(at) && place < static_cast<int>(next)) {
        next = static_cast<uint32_t>(place); /* another part begins there */
      }
    };
    for (const Field& field : view) consider(field.record_at, field.size, field.member);
    consider(view.lock_at, 4, "lock_index");
    consider(view.id_at, 4, "id");
    if (size == 0 || at + size > next) size = next - at;
    if (name.size() == 0) name.print("spare_%u", at);
    dump_bytes(record + at, start + at, size, name.c_str(), secret.data() + at);
    at += size;
  }
}

}  // namespace

int run_dump(Call& call) {
  AreaId id;
  if (const int status = parse_area(call.words[0], &id); status != kOk) return status;
  if (const int status = call.source.need(id); status != kOk) return status;
  const Area& area = kAreas[id];
  const uint8_t* block = call.source.block(id);
  printf("%s: %u bytes\n", area.name, area.row().size);
  uint32_t at = 0;
  const auto dump_next = [&](uint32_t place, uint32_t size, const char* name) {
    if (place > at) dump_spare(block, 0, at, place - at);
    if (name != nullptr) dump_bytes(block + place, place, size, name);
    at = place + size;
  };
  const auto& header = area.row().header;
  dump_next(0, header.path_at, "header_reserved");
  dump_next(header.path_at, header.index_at - header.path_at, "lock_path");
  dump_next(header.index_at, 4, "block_lock_index");
  for (const Table& table : kTables) {
    if (table.area != id) continue;
    if (table.counter != nullptr) {
      dump_next(table.counter_at, table.counter_size, table.counter);
    }
    dump_next(table.at, table.capacity * table.stride, nullptr);
    Reader reader(call.source, table);
    Buffer record(table.stride);
    uint32_t free = table.capacity;
    for (uint32_t position = 0; reader.copy_next(&position, record.data()); ++position) {
      --free;
      printf("%s/%u: byte %u of the lock file\n", table.name, position + 1,
             lock_index_of(table, position));
      dump_record(view_of(table, position, record.data()), record.data(),
                  table.at + position * table.stride);
    }
    if (free > 0) printf("%s: %u free record%s\n", table.name, free, free == 1 ? "" : "s");
  }
  dump_next(area.row().size, 0, nullptr);
  return kOk;
}

}  // namespace scctl
