/* Messages, text and memory. */
#include "say.h"

#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace scctl {

const char* g_where = nullptr;

int fail(int status, const char* format, ...) {
  fflush(stdout);
  Text line;
  char text[512];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof text, format, values);
  va_end(values);
  line.print("scctl: %s%s\n", g_where == nullptr ? "" : g_where, text);
  fputs(line.c_str(), stderr);
  return status;
}

void Nearest::offer(const char* name) {
  /* The distance of Levenshtein, row by row; names are short. */
  constexpr size_t kLongest = 31;
  const size_t columns = strlen(name);
  if (length_ > kLongest || columns > kLongest) return;
  size_t row[kLongest + 1];
  for (size_t i = 0; i <= columns; ++i) row[i] = i;
  for (size_t n = 1; n <= length_; ++n) {
    size_t diagonal = row[0];
    row[0] = n;
    for (size_t i = 1; i <= columns; ++i) {
      size_t least = diagonal + (wrong_[n - 1] == name[i - 1] ? 0 : 1);
      if (row[i] + 1 < least) least = row[i] + 1;
      if (row[i - 1] + 1 < least) least = row[i - 1] + 1;
      diagonal = row[i];
      row[i] = least;
    }
  }
  if (row[columns] < distance_) {
    distance_ = row[columns];
    best_ = name;
  }
}

namespace {

[[noreturn]] void out_of_memory() { exit(fail(kRefused, "out of memory")); }

}  // namespace

Buffer::Buffer(size_t size) : data_(static_cast<uint8_t*>(calloc(size, 1))) {
  if (data_ == nullptr) out_of_memory();
}

Buffer::~Buffer() { free(data_); }

Text::~Text() { free(data_); }

void Text::reserve(size_t more) {
  if (size_ + more + 1 <= room_) return;
  room_ = 2 * (size_ + more + 1);
  data_ = static_cast<char*>(realloc(data_, room_));
  if (data_ == nullptr) out_of_memory();
}

void Text::add(const char* bytes, size_t size) {
  reserve(size);
  memcpy(data_ + size_, bytes, size);
  size_ += size;
  data_[size_] = '\0';
}

void Text::trim() {
  while (size_ > 0 && data_[size_ - 1] == ' ') data_[--size_] = '\0';
}

void Text::add(char c) { add(&c, 1); }

void Text::add(const char* text) { add(text, strlen(text)); }

void Text::print(const char* format, ...) {
  constexpr size_t kUsual = 64;
  reserve(kUsual);
  while (true) {
    va_list values;
    va_start(values, format);
    const auto size = static_cast<size_t>(vsnprintf(data_ + size_, room_ - size_, format, values));
    va_end(values);
    if (size_ + size < room_) {
      size_ += size;
      return;
    }
    reserve(size);
  }
}

void Text::clear() {
  if (data_ != nullptr) data_[0] = '\0';
  size_ = 0;
}

Quiet::Quiet(int errors) {
  fflush(stdout);
  out_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10);
  err_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10);
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(nowhere, STDOUT_FILENO);
  dup2(errors >= 0 ? errors : nowhere, STDERR_FILENO);
  close(nowhere);
  on_hang_up_ = signal(SIGPIPE, SIG_IGN);
}

Quiet::~Quiet() {
  signal(SIGPIPE, on_hang_up_);
  fflush(stdout);
  dup2(out_, STDOUT_FILENO);
  dup2(err_, STDERR_FILENO);
  close(out_);
  close(err_);
}

}  // namespace scctl
