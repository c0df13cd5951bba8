/* schema: the JSON Schema, draft 7, of what export prints and import takes. */
#include <stdio.h>
#include <string.h>

#include "commands.h"
#include "store/overlay.h"
#include "store/value.h"

namespace scctl {

namespace {

class Schema {
 public:
  explicit Schema(JsonWriter& writer) : writer_(writer) {}

  void table(const Table& table) {
    writer_.name(table.name);
    open();
    writer_.member("type", "array");
    writer_.member("maxItems", table.capacity);
    writer_.name("items");
    begin_object();
    writer_.name("id");
    open();
    number(1, table.capacity);
    writer_.close();
    const Table& names = names_of(table);
    for (const Field* field = names.begin(); field < names.end() + names.hidden_count; ++field) {
      writer_.name(field->name);
      member(*field);
    }
    writer_.close();
    if (is_covered(table)) {
      writer_.name("patternProperties");
      open();
      writer_.name("^spare_[0-9]+$");
      open();
      hex(table.stride);
      writer_.close();
      writer_.close();
    }
    writer_.name("required");
    writer_.open('[', JsonWriter::kInline);
    add_json_text("id", &writer_.value());
    writer_.close();
    end_object();
    writer_.close();
  }

  /* An object without other members than those that follow. */
  void begin_object() {
    open();
    writer_.member("type", "object");
    writer_.name("properties");
    writer_.open('{', JsonWriter::kLines);
  }
  void end_object() {
    writer_.name("additionalProperties");
    writer_.value().add("false");
    writer_.close();
  }

 private:
  void open() { writer_.open('{', JsonWriter::kInline); }
  void open_list(const char* name) {
    writer_.name(name);
    writer_.open('[', JsonWriter::kInline);
  }

  void number(long long least, unsigned long long most) {
    writer_.member("type", "integer");
    writer_.name("minimum");
    writer_.value().print("%lld", least);
    writer_.name("maximum");
    writer_.value().print("%llu", most);
  }
  void text(uint32_t size) {
    writer_.member("type", "string");
    writer_.member("maxLength", size);
  }
  void hex(uint32_t size) {
    text(2 * size);
    writer_.member("pattern", "^([0-9a-fA-F]{2})*$");
  }

  void member(const Field& field) {
    const Extra* extra = field.extra;
    open();
    if (extra != nullptr && extra->unit != nullptr) writer_.member("description", extra->unit);
    if (extra != nullptr && extra->fallback != nullptr) default_value(field);
    if (field.is_secret) {
      open_list("anyOf");
      open();
      writer_.member("type", "null");
      writer_.close();
      open();
    }
    value(field);
    if (field.is_secret) {
      writer_.close();
      writer_.close();
    }
    writer_.close();
  }

  /* A number stands without quotes. */
  void default_value(const Field& field) {
    const char* text = field.extra->fallback;
    writer_.name("default");
    char* end;
    int64_t number;
    if (field.kind >= Kind::kSigned && list_size(field) == 0 &&
        read_number(text, &end, *text == '-', 64, &number) && *end == '\0') {
      writer_.value().add(text);
    } else {
      add_json_text(text, &writer_.value());
    }
  }

  void value(const Field& field) {
    switch (field.kind) {
      case Kind::kText:
      case Kind::kMacText: text(field.size); return;
      case Kind::kAddress:
        writer_.member("type", "string");
        writer_.member("pattern", "^([0-9]{1,3}\\.){3}[0-9]{1,3}$");
        return;
      case Kind::kMac:
        writer_.member("type", "string");
        writer_.member("pattern", "^[0-9a-fA-F]{2}([:-][0-9a-fA-F]{2}){5}$");
        return;
      case Kind::kBytes: hex(field.size); return;
      case Kind::kSigned:
      case Kind::kUnsigned: break;
    }
    const size_t count = list_size(field);
    if (count != 0) {
      writer_.member("type", "array");
      writer_.member("minItems", field.extra != nullptr && field.extra->is_counted
                                     ? 1
                                     : static_cast<uint32_t>(count));
      writer_.member("maxItems", static_cast<uint32_t>(count));
      writer_.name("items");
      open();
      numbers(field);
      writer_.close();
    } else if (field.extra != nullptr && field.extra->names != nullptr) {
      open_list("anyOf");
      open();
      open_list("enum");
      for (const EnumName* name = field.extra->names; name != nullptr; name = name->next) {
        add_json_text(name->name, &writer_.value());
      }
      writer_.close();
      writer_.close();
      open();
      numbers(field);
      writer_.close();
      writer_.close();
    } else {
      numbers(field);
    }
  }

  void numbers(const Field& field) {
    const int bits =
        field.extra != nullptr && field.extra->bits != 0 ? field.extra->bits : 8 * field.width;
    const uint64_t high = 1ULL << (bits - 1);
    if (field.kind == Kind::kSigned)
      number(static_cast<long long>(0 - high), high - 1);
    else
      number(0, high - 1 + high);
  }

  JsonWriter& writer_;
};

}  // namespace

int run_schema(Call&) {
  Text text;
  JsonWriter writer(&text);
  Schema schema(writer);
  schema.begin_object();
  for (const Area& area : kAreas) {
    writer.name(area.name);
    schema.begin_object();
    for (const Table& table : kTables) {
      if (table.area == id_of(area)) schema.table(table);
    }
    writer.close();
    schema.end_object();
  }
  writer.close();
  writer.member("$schema", "http://json-schema.org/draft-07/schema#");
  schema.end_object();
  puts(text.c_str());
  return kOk;
}

}  // namespace scctl
