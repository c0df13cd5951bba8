/* What scctl says: one line on standard error for what went wrong, text that grows, and silence
 * while the library works, whose own messages are not scctl's answer.
 */
#ifndef STORE_SAY_H
#define STORE_SAY_H

#include <stddef.h>
#include <stdint.h>

namespace store {

/* Exit statuses. */
enum Status : int {
  kOk = 0,
  kRefused = 1, /* a value, a record or the store says no; also findings and differences */
  kUsage = 2,
  kNoArea = 3 /* no area, no file or no permission */
};

/* Says why on one line of standard error; returns the status. The line is shown as by add_shown, so
 * what comes from elsewhere is printed as it is, by %s; a line of a kilobyte is cut. */
int fail(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* Where the command comes from, "FILE:LINE: ", in front of what fail says; null: from the shell. */
extern const char* g_where;

/* The file whose area is the live one of this process; null: the machine's areas are. */
extern const char* g_file;

/* Says what was done on a line of standard output. When the line cannot be written, the last that
 * was said is part of what flush_output says. */
void tell(const char* format, ...) __attribute__((format(printf, 1, 2)));
/* All that was printed is out, or this says that it cannot be. */
int flush_output();

/* The known name that is nearest to a wrong one, if it is near: a third of its letters may differ. */
class Nearest {
 public:
  Nearest(const char* wrong, size_t length)
      : wrong_(wrong), length_(length), distance_((length + 2) / 3 + 1) {}
  void offer(const char* name);
  /* "the nearest is NAME", or what tells the names. */
  const char* hint(const char* otherwise);

 private:
  const char* wrong_;
  size_t length_;
  size_t distance_; /* of the best; more are not near */
  const char* best_ = nullptr;
  char hint_[64] = "";
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
  /* As a person may see it: letters.h. */
  void add_shown(const char* bytes, size_t size);
  void trim(char c); /* cuts these off its end */
  void print(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void clear();
  char* data() { /* to be written over, up to its end */
    reserve(0);
    return data_;
  }
  const char* c_str() const { return data_ == nullptr ? "" : data_; }
  size_t size() const { return size_; }

 private:
  void reserve(size_t more);
  char* data_ = nullptr;
  size_t size_ = 0;
  size_t room_ = 0;
};

/* Sends standard output nowhere while it lives, and standard error there or into a descriptor; says
 * so when it cannot, and leaves both as they are. A daemon that hangs up on a notification does not
 * end the program. */
class Quiet {
 public:
  explicit Quiet(int errors = -1);
  ~Quiet();
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  int out_ = -1; /* what they were; -1: they are that still */
  int err_ = -1;
  void (*on_hang_up_)(int);
};

}  // namespace store

#endif
