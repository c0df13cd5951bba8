/* Messages, text and memory. */
#include "store/say.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "store/letters.h"

namespace store {

const char* g_where = nullptr;
const char* g_file = nullptr;

int fail(int status, const char* format, ...) {
  static constexpr char kCut[] = "..";
  fflush(stdout);
  char text[1024];
  va_list values;
  va_start(values, format);
  const auto size = static_cast<size_t>(vsnprintf(text, sizeof text, format, values));
  va_end(values);
  if (size >= sizeof text) memcpy(text + sizeof text - sizeof kCut, kCut, sizeof kCut);
  /* Memory is not allocated here: there may be none. */
  char line[4 * sizeof text];
  size_t used = 0;
  const auto show = [&](const char* from) {
    for (size_t left = strlen(from); left > 0;) {
      Shown shown;
      const size_t taken = show_letter(from, left, &shown);
      if (used + shown.size > sizeof line) return;
      memcpy(line + used, shown.bytes, shown.size);
      used += shown.size;
      from += taken;
      left -= taken;
    }
  };
  show("scctl: ");
  if (g_where != nullptr) show(g_where);
  show(text);
  fprintf(stderr, "%.*s\n", static_cast<int>(used), line);
  return status;
}

namespace {

char g_told[128];

}  // namespace

uint32_t hash_of(const char* text, size_t size) {
  uint32_t hash = 2166136261u;
  for (size_t n = 0; n < size; ++n) hash = (hash ^ static_cast<uint8_t>(text[n])) * 16777619u;
  return hash;
}

void tell(const char* format, ...) {
  va_list values;
  va_start(values, format);
  vsnprintf(g_told, sizeof g_told, format, values);
  va_end(values);
  puts(g_told);
}

int flush_output() {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return kOk;
  static bool is_said;
  if (is_said) return kRefused;
  is_said = true;
  /* When a file is edited, the edit is discarded, so the line would be wrong. */
  if (g_told[0] == '\0' || g_file != nullptr) {
    return fail(kRefused, "standard output: the text could not be written");
  }
  return fail(kRefused, "%s, but standard output takes no more", g_told);
}

void Nearest::offer(const char* name) {
  /* Levenshtein distance, row by row. Known names are short. */
  constexpr size_t kLongest = 31;
  const size_t columns = strlen(name);
  if (columns > kLongest) return;
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

const char* Nearest::hint(const char* otherwise) {
  if (best_ == nullptr) return otherwise;
  snprintf(hint_, sizeof hint_, "the nearest is %s", best_);
  return hint_;
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
  data_[size_] = '\0';
}

void Text::add(const char* bytes, size_t size) {
  reserve(size);
  if (size > 0) memcpy(data_ + size_, bytes, size); /* bytes may be null */
  size_ += size;
  data_[size_] = '\0';
}

void Text::add_shown(const char* bytes, size_t size) {
  while (size > 0) {
    Shown shown;
    const size_t taken = show_letter(bytes, size, &shown);
    add(shown.bytes, shown.size);
    bytes += taken;
    size -= taken;
  }
}

void Text::cut(size_t size) {
  size_ = size;
  data_[size_] = '\0';
}

void Text::trim(char c) {
  while (size_ > 0 && data_[size_ - 1] == c) data_[--size_] = '\0';
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
  on_hang_up_ = signal(SIGPIPE, SIG_IGN);
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int out = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int err = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (nowhere >= 0 && out >= 0 && err >= 0) {
    dup2(nowhere, STDOUT_FILENO);
    dup2(errors >= 0 ? errors : nowhere, STDERR_FILENO);
    out_ = out;
    err_ = err;
  } else {
    fail(kRefused, "cannot silence the library's messages: %s", strerror(errno));
    if (out >= 0) close(out);
    if (err >= 0) close(err);
  }
  if (nowhere >= 0) close(nowhere);
}

Quiet::~Quiet() {
  fflush(stdout);
  signal(SIGPIPE, on_hang_up_);
  if (out_ < 0) return;
  dup2(out_, STDOUT_FILENO);
  dup2(err_, STDERR_FILENO);
  close(out_);
  close(err_);
}

}  // namespace store
