/* Reads the JSON of an import. */
#include "import_reader.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "store/files.h"
#include "store/json.h"
#include "store/overlay.h"
#include "store/value.h"

namespace scctl {

namespace {

/* Reads the whole input of the command. */
int read_text(const Call& call, Text* text) {
  const size_t most = g_overlays != nullptr ? kMostImport : kMostInput;
  char bytes[4096];
  for (size_t size; (size = fread(bytes, 1, sizeof bytes, call.input)) > 0;) {
    if (memchr(bytes, 0, size) != nullptr) {
      return fail(kRefused, "%s: NUL byte in JSON", call.input_name);
    }
    if (text->size() + size > most) {
      return fail(kRefused, "%s: more than %zu MiB", call.input_name, most >> 20);
    }
    text->add(bytes, size);
  }
  if (ferror(call.input) == 0) return kOk;
  return fail(kNoArea, "%s: %s", call.input_name, strerror(errno));
}

/* Members that were read are bits of `seen`. True when this one was read before. */
bool is_second(uint64_t* seen, size_t which) {
  const uint64_t bit = 1ULL << which;
  const bool second = (*seen & bit) != 0;
  *seen |= bit;
  return second;
}

int read_id(const Table& table, const Text& value, JsonKind kind, uint32_t* id) {
  if (kind != JsonKind::kNumber) {
    return fail(kRefused, "%s: invalid id: expected a plain number", table.name);
  }
  const long long number = strtoll(value.c_str(), nullptr, 10);
  if (number < 1 || number > table.capacity) {
    return fail(kRefused, "%s: id %s is not within 1 to %u", table.name, value.c_str(),
                table.capacity);
  }
  *id = static_cast<uint32_t>(number);
  return kOk;
}

int read_field(const Table& table, const Field& field, const Text& value, JsonKind kind,
               uint8_t* record) {
  if (const int status = check_json_kind(table, field, kind); status != kOk) return status;
  return parse(table, field, value.c_str(), value.size(), Origin::kCopied, record);
}

/* While it lives, errors name the line of the input that was read last. */
class LineOfErrors final : public Values::Lines {
 public:
  LineOfErrors(const char* input, const JsonReader& json)
      : input_(input), json_(json), outer_(g_where) {}
  ~LineOfErrors() { end(); }
  LineOfErrors(const LineOfErrors&) = delete;
  LineOfErrors& operator=(const LineOfErrors&) = delete;

  void end() { g_where = outer_; }
  void update() { at(json_.line()); }
  void at(unsigned line) override {
    text_.clear();
    text_.print("%s%s:%u: ", outer_ != nullptr ? outer_ : "", input_, line);
    g_where = text_.c_str();
  }

 private:
  const char* const input_;
  const JsonReader& json_;
  const char* const outer_;
  Text text_;
};

/* Names of the file that stand for others: pairs of texts, "wan.old" and "wan.new". The members of
 * a name go with it. */
class Renames {
 public:
  int read(const char* path) {
    if (path == nullptr) return kOk;
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    Text text;
    if (!file || !read_file(file.number, &text)) {
      return fail(kNoArea, "%s: %s", path, strerror(errno));
    }
    JsonReader json(text.c_str(), text.size());
    Text from, to;
    json.open('{');
    for (bool first = true; json.next('}', &first);) {
      JsonKind kind = JsonKind::kNumber;
      if (!json.name(&from) || !json.value(&to, &kind)) break;
      const size_t table = strcspn(from.c_str(), ".") + 1;
      if (kind != JsonKind::kText || from.size() < table ||
          strncmp(from.c_str(), to.c_str(), table) != 0) {
        return fail(kRefused, "%s:%u: expected \"TABLE.NAME\": \"TABLE.NAME\" of one table", path,
                    json.line());
      }
      pairs_.add(from.c_str(), strlen(from.c_str()) + 1);
      pairs_.add(to.c_str() + table, strlen(to.c_str() + table) + 1);
    }
    if (json.end()) return kOk;
    return fail(kRefused, "%s:%u: %s", path, json.line(), json.fault());
  }

  void take(const Table& table, Text* name) const {
    const char* end = pairs_.c_str() + pairs_.size();
    for (const char* from = pairs_.c_str(); from < end;) {
      const char* to = from + strlen(from) + 1;
      const size_t length = strlen(table.name);
      const char* own = from + length + 1;
      if (strncmp(from, table.name, length) == 0 && from[length] == '.' &&
          strncmp(name->c_str(), own, strlen(own)) == 0 &&
          strchr(".[", name->c_str()[strlen(own)]) != nullptr) {
        Text whole;
        whole.add(to);
        whole.add(name->c_str() + strlen(own));
        name->clear();
        name->add(whole.c_str());
        return;
      }
      from = to + strlen(to) + 1;
    }
  }

 private:
  Text pairs_;
};

/* What all reading functions share. */
struct Reading {
  JsonReader& json;
  LineOfErrors& line;
  const Renames& renames;
  KeptSecrets& kept;
};

int read_record(const Reading& reading, Snapshot* wanted) {
  JsonReader& json = reading.json;
  const Table& table = wanted->table();
  Buffer record(table.stride);
  Text name, value;
  Values values; /* of members, which may depend on each other */
  const bool has_members = is_covered(table);
  uint32_t id = 0;
  uint64_t seen = 0;
  if (!json.open('{')) return kRefused;
  for (bool first = true; json.next('}', &first);) {
    JsonKind kind = JsonKind::kNull;
    if (!json.name(&name)) return kRefused;
    value.clear();
    if (!(has_members && json.word("null")) && !json.value(&value, &kind)) return kRefused;
    reading.line.update();
    reading.renames.take(table, &name);
    if (has_members && strcmp(name.c_str(), "id") != 0) {
      values.add(name.c_str(), name.size(), value.c_str(), value.size(), Values::From::kFile, kind,
                 json.line());
      continue;
    }
    const Field* field = nullptr; /* the bit of the id stands behind those of the fields */
    if (strcmp(name.c_str(), "id") != 0) {
      field = find_field(table, name.c_str(), name.size());
      if (field == nullptr) return unknown_field(table, name.c_str(), name.size());
    }
    const auto which = static_cast<size_t>((field != nullptr ? field : table.end()) - table.fields);
    if (is_second(&seen, which)) {
      return fail(kRefused, "%s: a record has %s twice", table.name, name.c_str());
    }
    const int status = field == nullptr ? read_id(table, value, kind, &id)
                                        : read_field(table, *field, value, kind, record.data());
    if (status != kOk) return status;
  }
  if (json.failed()) return kRefused;
  if (id == 0) return fail(kRefused, "%s: a record without an id", table.name);
  if (wanted->used(id - 1)) return fail(kRefused, "%s: id %u appears twice", table.name, id);
  if (has_members) {
    const int status = values.write(table, id - 1, !is_section(table), record.data(), nullptr,
                                    &reading.kept, &reading.line);
    if (status != kOk) return status;
    reading.line.update();
  }
  const Field* field;
  if (const int other = wanted->find_clash(record.data(), -1, &field, Spelling::kAsLibrary);
      other >= 0) {
    return fail(kRefused, "%s: ids %d and %u have the same %s", table.name, other + 1, id,
                field->name);
  }
  memcpy(wanted->put(id - 1), record.data(), table.stride);
  return kOk;
}

int read_table(const Reading& reading, AreaId area, Snapshot* all) {
  JsonReader& json = reading.json;
  Text name;
  if (!json.name(&name)) return kRefused;
  reading.line.update();
  Target target;
  if (const int status = parse_target(name.c_str(), kTableAlone, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  if (table.area != area) {
    return fail(kRefused, "%s is not a table of area %s", table.name, kAreas[area].name);
  }
  Snapshot& own = all[number_of(table)];
  if (own) return fail(kRefused, "table %s appears twice", table.name);
  Snapshot wanted(table);
  json.open('['); /* on an error, next is false */
  for (bool first = true; json.next(']', &first);) {
    if (const int status = read_record(reading, &wanted); status != kOk) return status;
  }
  if (json.failed()) return kRefused;
  own.swap(wanted);
  return kOk;
}

int read_areas(const Reading& reading, Snapshot* all) {
  JsonReader& json = reading.json;
  if (!json.open('{')) return kRefused;
  Text name;
  uint64_t areas = 0;
  for (bool first = true; json.next('}', &first);) {
    AreaId area;
    if (!json.name(&name) || !json.open('{')) return kRefused;
    reading.line.update();
    if (const int status = parse_area(name.c_str(), &area); status != kOk) return status;
    if (is_second(&areas, area)) {
      return fail(kRefused, "area %s appears twice", kAreas[area].name);
    }
    for (bool first_table = true; json.next('}', &first_table);) {
      if (const int status = read_table(reading, area, all); status != kOk) return status;
    }
  }
  return json.end() ? kOk : kRefused;
}

}  // namespace

int Import::read(const Call& call) {
  Text text;
  if (const int status = read_text(call, &text); status != kOk) return status;
  JsonReader json(text.c_str(), text.size());
  Renames renames;
  if (const int status = renames.read(call.rename); status != kOk) return status;
  LineOfErrors line(call.input_name, json);
  const int status = read_areas({json, line, renames, kept}, wanted);
  if (!json.failed()) return status;
  line.end();
  return fail(kRefused, "%s:%u: %s", call.input_name, json.line(), json.fault());
}

}  // namespace scctl
