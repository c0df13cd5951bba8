/* What a tool prints: one line on standard error for an error, text that grows, and a way to hide
 * what the library prints.
 */
#ifndef STORE_SAY_H
#define STORE_SAY_H

#include <stddef.h>
#include <stdint.h>

namespace store {

/* Exit statuses. */
enum Status : int {
  kOk = 0,
  kRefused = 1, /* a value, a record or the store is refused; also findings and differences */
  kUsage = 2,
  kNoArea = 3 /* no area, no file or no permission */
};

/* Prints an error on one line of standard error and returns the status. The line is displayed as by
 * add_shown, so text from elsewhere can be passed as it is, by %s. It is cut after one kilobyte. */
int fail(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* Where the command stands, "FILE:LINE: "; fail prints it before the error. Null: the command is
 * from the shell. */
extern const char* g_where;

/* The file whose area is the live one of this process. Null: the machine's areas are the live
 * ones. */
extern const char* g_file;

/* FNV-1a. */
uint32_t hash_of(const char* text, size_t size);

/* Prints what was done on a line of standard output. When standard output cannot be written, the
 * error message of flush_output contains the last of these lines. */
void tell(const char* format, ...) __attribute__((format(printf, 1, 2)));
/* Flushes standard output. If that fails, prints an error message, once, and returns its status. */
int flush_output();

/* The known name that is nearest to a wrong name, if it is near: up to a third of its letters may
 * differ. */
class Nearest {
 public:
  Nearest(const char* wrong, size_t length)
      : wrong_(wrong), length_(length), distance_((length + 2) / 3 + 1) {}
  void offer(const char* name);
  /* "the nearest is NAME", or `otherwise` when no name is near. */
  const char* hint(const char* otherwise);

 private:
  const char* wrong_;
  size_t length_;
  size_t distance_; /* of the best name; a name with more is not near */
  const char* best_ = nullptr;
  char hint_[64] = "";
};

/* Memory of a fixed size, zeroed. The program ends when there is no memory. */
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
  /* The caller frees the memory. */
  uint8_t* release() {
    uint8_t* data = data_;
    data_ = nullptr;
    return data;
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  uint8_t* data() { return data_; }
  const uint8_t* data() const { return data_; }

 private:
  uint8_t* data_ = nullptr;
};

/* Text that grows. It is always terminated. */
class Text {
 public:
  Text() = default;
  ~Text();
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  void add(char c);
  void add(const char* text);
  void add(const char* bytes, size_t size);
  /* Adds bytes as they may be displayed: letters.h. */
  void add_shown(const char* bytes, size_t size);
  void cut(size_t size);
  void trim(char c); /* cuts all of these off the end */
  void print(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void clear();
  char* data() { /* may be overwritten, up to its end */
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

/* While it lives, standard output is discarded, and standard error is discarded or goes to a
 * descriptor. If that cannot be done, it prints an error and changes neither. A daemon that closes
 * a notification early does not end the program (SIGPIPE is ignored). */
class Quiet {
 public:
  explicit Quiet(int errors = -1);
  ~Quiet();
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  int out_ = -1; /* copies of the original descriptors; -1: not redirected */
  int err_ = -1;
  void (*on_hang_up_)(int);
};

}  // namespace store

#endif
