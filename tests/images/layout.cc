#include "images/layout.h"

#include <stdlib.h>

#include <fstream>
#include <stdexcept>

namespace sc_test {

namespace {

/* The value of a key in a line of the file, which has one area, struct or field a line. Empty when
 * the key is not there. */
std::string value(const std::string& line, const std::string& key) {
  const std::string start = "\"" + key + "\": ";
  const size_t at = line.find(start);
  if (at == std::string::npos) return "";
  const size_t begin = at + start.size();
  if (line[begin] != '"') return line.substr(begin, line.find_first_of(",}", begin) - begin);
  return line.substr(begin + 1, line.find('"', begin + 1) - begin - 1);
}

size_t number(const std::string& line, const std::string& key) {
  const std::string digits = value(line, key);
  if (digits.empty()) throw std::runtime_error("layout.json: no " + key + " in " + line);
  return strtoul(digits.c_str(), nullptr, 10);
}

const std::string kStruct = "struct ";

bool is_struct(const std::string& type) { return type.rfind(kStruct, 0) == 0; }

}  // namespace

Layout::Layout() {
  std::ifstream file(SC_TEST_SOURCES "/docs/layout.json");
  Struct* current = nullptr;
  for (std::string line; std::getline(file, line);) {
    if (const std::string name = value(line, "area"); !name.empty()) {
      areas_.push_back({name, value(line, "block"), value(line, "stem")});
    } else if (const std::string name = value(line, "struct"); !name.empty()) {
      current = &structs_[name];
      current->size = number(line, "size");
    } else if (current != nullptr && line.rfind("    {", 0) == 0) {
      const size_t size = number(line, "size");
      const bool array = !value(line, "stride").empty();
      current->fields.push_back({value(line, "name"), value(line, "type"), number(line, "offset"),
                                 size, array ? number(line, "stride") : size});
    }
  }
  if (structs_.empty()) throw std::runtime_error("no docs/layout.json");
}

const std::string& Layout::block_of(const std::string& area) const {
  for (const Area& known : areas_) {
    if (known.name == area) return known.block;
  }
  throw std::out_of_range("no area " + area);
}

const Layout::Struct& Layout::find(const std::string& name) const {
  const auto found = structs_.find(name);
  if (found == structs_.end()) throw std::out_of_range("no struct " + name);
  return found->second;
}

Layout::Span Layout::at_path(const std::string& name, const std::string& path) const {
  const size_t dot = path.find('.');
  std::string first = path.substr(0, dot);
  size_t position = 0;
  const size_t bracket = first.find('[');
  if (bracket != std::string::npos) {
    position = strtoul(first.c_str() + bracket + 1, nullptr, 10);
    first.resize(bracket);
  }
  for (const Field& field : find(name).fields) {
    if (field.name != first) continue;
    const size_t offset = field.offset + position * field.element;
    if (offset >= field.offset + field.size) throw std::out_of_range(name + "." + path);
    if (dot == std::string::npos) return {path, offset, field.size, field.element};
    Span inner = at_path(field.type.substr(kStruct.size()), path.substr(dot + 1));
    return {path, offset + inner.offset, inner.size, inner.element};
  }
  throw std::out_of_range(name + " has no " + path);
}

Layout::Span Layout::at_offset(const std::string& name, size_t offset) const {
  for (const Field& field : find(name).fields) {
    if (offset >= field.offset + field.size) continue;
    if (!is_struct(field.type)) return {field.name, field.offset, field.size, field.element};
    const size_t position = (offset - field.offset) / field.element;
    const size_t start = field.offset + position * field.element;
    Span inner = at_offset(field.type.substr(kStruct.size()), offset - start);
    const std::string index =
        field.size == field.element ? "" : "[" + std::to_string(position) + "]";
    return {field.name + index + "." + inner.path, start + inner.offset, inner.size, inner.element};
  }
  throw std::out_of_range(name + " ends before " + std::to_string(offset));
}

}  // namespace sc_test
