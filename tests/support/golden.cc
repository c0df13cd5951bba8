#include "support/golden.h"

#include <stdlib.h>

#include <fstream>
#include <stdexcept>

namespace sc_test {

const std::string& GoldenRow::text(const std::string& column) const {
  auto found = values_.find(column);
  if (found == values_.end()) throw std::out_of_range("no golden column " + column);
  return found->second;
}

long GoldenRow::number(const std::string& column) const {
  const std::string& value = text(column);
  char* end;
  const long number = strtol(value.c_str(), &end, 0);
  if (*end != '\0') throw std::invalid_argument("golden column " + column + ": " + value);
  return number;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  if (text.empty()) return parts;
  size_t begin = 0, end;
  while ((end = text.find(separator, begin)) != std::string::npos) {
    parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  parts.push_back(text.substr(begin));
  return parts;
}

std::vector<std::string> golden_lines(const std::string& name) {
  const std::string path = std::string(SC_TEST_GOLDEN) + "/" + name;
  std::ifstream file(path);
  if (!file) throw std::runtime_error("no golden file " + path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty()) lines.push_back(line);
  }
  if (lines.empty()) throw std::runtime_error("empty golden file " + path);
  return lines;
}

std::vector<GoldenRow> golden_table(const std::string& name) {
  const std::vector<std::string> lines = golden_lines(name);
  const std::vector<std::string> columns = split(lines[0], ',');
  std::vector<GoldenRow> rows;
  for (size_t line = 1; line < lines.size(); ++line) {
    const std::vector<std::string> parts = split(lines[line], ',');
    if (parts.size() != columns.size()) throw std::runtime_error(name + ": " + lines[line]);
    std::map<std::string, std::string> values;
    for (size_t i = 0; i < columns.size(); ++i) values[columns[i]] = parts[i];
    rows.emplace_back(std::move(values));
  }
  if (rows.empty()) throw std::runtime_error("no rows in golden file " + name);
  return rows;
}

}  // namespace sc_test
