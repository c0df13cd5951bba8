/* What the tests of scctl watch --json share: a watch whose first words on standard error were read, and
 * its objects in parts. */
#ifndef SCCTL_STREAM_CASE_H
#define SCCTL_STREAM_CASE_H

#include <stdlib.h>
#include <unistd.h>

#include <set>

#include "scctl/watch_case.h"

namespace sc_test {

/* An object of the stream. */
struct Object {
  long seq = -1;
  std::string rest;   /* behind the time, without its authors */
  std::string author; /* in its brackets; empty: not told */

  std::string number_behind(const std::string& name) const {
    const size_t at = rest.find("\"" + name + "\":");
    if (at == std::string::npos) return "";
    const size_t from = at + name.size() + 3;
    return rest.substr(from, rest.find_first_not_of("0123456789", from) - from);
  }
  std::set<int> pids() const {
    std::set<int> all;
    static const std::regex kPid("\"pid\":([0-9]+)");
    for (std::sregex_iterator at(author.begin(), author.end(), kPid), end; at != end; ++at) {
      all.insert(atoi((*at)[1].str().c_str()));
    }
    return all;
  }
};

class JsonWatch : public Watch {
 public:
  explicit JsonWatch(Words words, const std::string& before = "")
      : Watch(with_json(std::move(words)), "exec 2>/var/lines; " + before) {
    if (first().starts_with("authors")) {
      knows_authors_ = false;
      EXPECT_EQ(raw_line(kSoonMs).value_or("nothing"), "watching");
    } else {
      EXPECT_EQ(first(), "watching");
    }
  }

  bool knows_authors() const { return knows_authors_; }
  /* The process that asks the kernel for authors. */
  pid_t child() {
    const std::string pid = std::to_string(program().pid());
    const pid_t child = atoi(read_file("/proc/" + pid + "/task/" + pid + "/children").c_str());
    EXPECT_GT(child, 0);
    return child;
  }

  Object object(int ms = kSoonMs) {
    static const std::regex kObject(
        "\\{\"seq\":([1-9][0-9]*),\"boot\":[0-9]+\\.[0-9]{3},\"time\":\"20[0-9]{2}-[01][0-9]-[0-3]["
        "0-9]T"
        "[0-2][0-9]:[0-5][0-9]:[0-5][0-9]\\.[0-9]{3}Z\",(.*)\\}");
    static const std::regex kAuthor("(.*),\"author\":\\[([^\\]]+)\\](,\"seen\".*)");
    const std::optional<std::string> line = raw_line(ms);
    if (!line) return {-1, "nothing", ""};
    std::smatch parts, authors;
    EXPECT_TRUE(std::regex_match(*line, parts, kObject)) << *line;
    if (parts.empty()) return {-1, *line, ""};
    Object object = {atol(parts[1].str().c_str()), parts[2], ""};
    if (std::regex_match(object.rest, authors, kAuthor)) {
      object.author = authors[2];
      object.rest = authors[1].str() + authors[3].str();
    }
    return object;
  }
  std::string rest(int ms = kSoonMs) { return object(ms).rest; }

 private:
  static Words with_json(Words words) {
    words.insert(words.begin(), "--json");
    return words;
  }
  bool knows_authors_ = true;
};

/* An object about a LAN binding. */
inline std::string bind_line(int id, const std::string& what, const std::string& fields,
                             const std::string& behind = "\"seen\":\"lock\"") {
  return "\"area\":\"Lan\",\"table\":\"lan_binds\",\"id\":" + std::to_string(id) + ",\"what\":\"" +
         what + "\",\"fields\":{" + fields + "}," + behind;
}

/* Runs a program, which the caller waits for. */
inline pid_t started_writer(const Words& words) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  execv(arguments[0], arguments.data());
  _exit(127);
}

}  // namespace sc_test

#endif
