/* batch: runs the commands of a file. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "commands.h"
#include "store/edit.h"
#include "words.h"

namespace scctl {

namespace {

/* Reads the lines of a file, one by one. */
class Lines {
 public:
  explicit Lines(FILE* file) : file_(file) {}

  /* False at the end and on an error. The line end is removed, also that of DOS. */
  bool next() {
    line_.clear();
    ++number_;
    int c;
    while ((c = getc(file_)) != EOF && c != '\n') {
      if (c == '\0') return refuse(kUsage, "NUL byte in the line");
      if (line_.size() == kMostInput) return refuse(kUsage, "the line is too long");
      line_.add(static_cast<char>(c));
    }
    if (ferror(file_) != 0) return refuse(kNoArea, strerror(errno));
    if (c == EOF && line_.size() == 0) return false;
    line_.trim('\r');
    return true;
  }

  char* line() { return line_.data(); }
  unsigned number() const { return number_; }
  const char* fault() const { return fault_; }
  int status() const { return status_; }

 private:
  bool refuse(int status, const char* fault) {
    fault_ = fault;
    status_ = status;
    return false;
  }

  FILE* file_;
  Text line_;
  unsigned number_ = 0;
  const char* fault_ = nullptr;
  int status_ = kOk;
};

/* Runs a line, and counts it when its command succeeded. */
int run_line(char* line, unsigned* done) {
  Words split;
  if (!split.split(line)) return fail(kUsage, "%s", split.fault());
  char** words = split.words();
  int count = split.count();
  /* --commands prints lines that begin so. */
  if (count > 0 && strcmp(words[0], "scctl") == 0) {
    ++words;
    --count;
  }
  if (count == 0) return kOk;
  if (strcmp(words[0], "batch") == 0) return fail(kUsage, "a batch in a batch");
  const int status = run_words(count, words);
  if (status == kOk) ++*done;
  return status;
}

}  // namespace

int run_batch(Call& call) {
  Lines lines(call.input);
  int status = kOk;
  unsigned done = 0;
  while (status == kOk && !is_interrupted() && lines.next()) {
    Text where;
    where.print("%s:%u: ", call.input_name, lines.number());
    g_where = where.c_str();
    status = run_line(lines.line(), &done);
    g_where = nullptr;
  }
  if (lines.fault() != nullptr) {
    status = fail(lines.status(), "%s:%u: %s", call.input_name, lines.number(), lines.fault());
  }
  tell("commands done: %u%s", done, status == kOk ? "" : failure_note());
  return status;
}

}  // namespace scctl
