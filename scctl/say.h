/* What scctl says: one line on standard error for what went wrong, text that grows, and silence
 * while the library works, whose own messages are not scctl's answer.
 */
#ifndef SCCTL_SAY_H
#define SCCTL_SAY_H

#include <stddef.h>
#include <stdint.h>

namespace scctl {

/* Exit statuses. */
enum Status : int {
  kOk = 0,
  kRefused = 1, /* a value, a record or the store says no; also findings and differences */
  kUsage = 2,
  kNoArea = 3 /* no area, no file or no permission */
};

/* Says why on one line of standard error; returns the status. */
int fail(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* Where the command comes from, "FILE:LINE: ", in front of what fail says; null: from the shell. */
extern const char* g_where;

/* The known name that is nearest to a wrong one. */
class Nearest {
 public:
  explicit Nearest(const char* wrong, size_t length) : wrong_(wrong), length_(length) {}
  void offer(const char* name);
  const char* name() const { return best_; }

 private:
  const char* wrong_;
  size_t length_;
  const char* best_ = "";
  size_t distance_ = SIZE_MAX;
};

/* Memory of a fixed size, zeroed; ends the program when there is none. */
class Buffer {
 public:
  Buffer() = default;
  explicit Buffer(size_t size);
  ~Buffer();
  void swap(Buffer& other) {
    uint8_t* data = data_;
    data_ = other.data_;
    other.data_ = data;
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  uint8_t* data() { return data_; }
  const uint8_t* data() const { return data_; }

 private:
  uint8_t* data_ = nullptr;
};

/* Text that grows; always terminated. */
class Text {
 public:
  Text() = default;
  ~Text();
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  void add(char c);
  void add(const char* text);
  void add(const char* bytes, size_t size);
  void trim(); /* cuts blanks off its end */
  void print(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void clear();
  const char* c_str() const { return data_ == nullptr ? "" : data_; }
  size_t size() const { return size_; }

 private:
  void reserve(size_t more);
  char* data_ = nullptr;
  size_t size_ = 0;
  size_t room_ = 0;
};

/* Sends standard output nowhere while it lives, and standard error there or into a descriptor. A
 * daemon that hangs up on a notification does not end the program. */
class Quiet {
 public:
  explicit Quiet(int errors = -1);
  ~Quiet();
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  int out_;
  int err_;
  void (*on_hang_up_)(int);
};

}  // namespace scctl

#endif
