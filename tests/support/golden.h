/* Golden files: facts that were typed a second time, independently of the code. */
#ifndef SUPPORT_GOLDEN_H
#define SUPPORT_GOLDEN_H

#include <map>
#include <string>
#include <vector>

namespace sc_test {

/* One line of tests/golden/<name>: the value of each column that the first line names. */
class GoldenRow {
 public:
  explicit GoldenRow(std::map<std::string, std::string> values) : values_(std::move(values)) {}

  /* A missing column ends the run, so a golden file is never half read. */
  const std::string& text(const std::string& column) const;
  long number(const std::string& column) const; /* empty is 0 */

 private:
  std::map<std::string, std::string> values_;
};

std::vector<GoldenRow> golden_table(const std::string& name);
std::vector<std::string> golden_lines(const std::string& name);

/* "a b c" by a separator; empty text gives no parts. */
std::vector<std::string> split(const std::string& text, char separator);

}  // namespace sc_test

#endif
