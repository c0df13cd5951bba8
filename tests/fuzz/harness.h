/* Hostile bytes: what the harnesses share. A harness turns any bytes into blocks, items, index
 * lists, archives, or what scctl reads, and calls the functions that read them. libFuzzer drives it (libfuzzer.cc) or
 * the committed inputs do (replay_test.cc). A harness ends the process at what it finds, and the
 * sanitizers do the same.
 *
 * Only what is the callers' duty stays out: blocks are aligned as attached segments are, items and
 * texts are as large as their types and terminated where they are texts without a field, pointers
 * are null only where that is allowed, and templates are deleted at positions 0 to 14.
 */
#ifndef FUZZ_HARNESS_H
#define FUZZ_HARNESS_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <memory>
#include <string>

#include "model/list_calls.h"
#include "model/model.h"
#include "support/rows.h"

namespace sc_fuzz {

using sc_test::Bytes;

/* An input, read from its front. Where it ends, everything that follows is zero. */
class Source {
 public:
  Source(const uint8_t* bytes, size_t size) : at_(bytes), end_(bytes + size) {}

  bool empty() const { return at_ == end_; }
  uint8_t byte() { return empty() ? 0 : *at_++; }
  uint32_t half() { return byte() | static_cast<uint32_t>(byte()) << 8; }
  uint32_t word() { return half() | half() << 16; }
  /* A number that is mostly small, at times any at all. */
  uint32_t number() {
    const uint8_t first = byte();
    return first < 0xf0 ? first : first < 0xf8 ? word() : 0u - (first - 0xf7u);
  }
  uint32_t below(uint32_t limit) { return (limit > 256 ? half() : byte()) % limit; }
  Bytes bytes(size_t size);
  Bytes rest() { return bytes(static_cast<size_t>(end_ - at_)); }

 private:
  const uint8_t* at_;
  const uint8_t* end_;
};

/* Memory of exactly this size, with red zones around it under the address sanitizer. */
class Exact {
 public:
  explicit Exact(size_t size) : size_(size), bytes_(new uint8_t[size]) {}
  explicit Exact(const Bytes& bytes) : Exact(bytes.size()) { *this = bytes; }
  Exact& operator=(const Bytes& bytes) {
    memcpy(bytes_.get(), bytes.data(), size_);
    return *this;
  }

  uint8_t* data() { return bytes_.get(); }
  template <class T>
  T* as() {
    return reinterpret_cast<T*>(bytes_.get());
  }
  size_t size() const { return size_; }

 private:
  size_t size_;
  std::unique_ptr<uint8_t[]> bytes_;
};

/* Says what is wrong and aborts. */
[[noreturn]] void found(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* The block of an area, kept from input to input. What it holds is the last input's. */
Exact& block_of(const std::string& area);

/* As Init and Read leave it. */
const Bytes& started(const std::string& area);

/* Any bytes: a background and patches, anywhere or in one field of several records. Mostly with the
 * area's lock path, since nothing else happens where no lock file can be opened. Good until the
 * next one of the area. */
const Bytes& hostile_block(Source& source, const std::string& area);

/* A list between the library and the naive model: every step is made on both, and results, outputs
 * and blocks have to be the same. */
class Stage {
 public:
  explicit Stage(uint32_t list);

  const sc_test::ListRow& row() const { return row_; }
  /* Its own area and those that its listing and its deletion reach. */
  const std::vector<std::string>& areas() const { return areas_; }
  void set(const std::string& area, const Bytes& image);

  void operate(uint32_t op, uint32_t position, Bytes record);
  void blank();
  void check(Bytes record, uint32_t skip_slot);
  void add(Bytes item);
  void modify(Bytes item);
  void get(uint32_t id);
  void get_list();
  void del(std::string ids);
  void del_by_group(int32_t id);
  void del_all();
  /* Any of them, with arguments of the source. */
  void step(Source& source);
  /* Those that only read: the listing, the single reads at the ends of the table, a check. */
  void read(Source& source);

  void compare_blocks();

 private:
  sc_test::Blocks blocks();
  void same(const char* what, int64_t library, int64_t model);

  const sc_test::ListRow& row_;
  const sc_test::ListCalls& calls_;
  std::vector<std::string> areas_;
  sc_test::Model& model_; /* kept, for its images are large */
};

constexpr uint32_t kLists = 11;

/* What the library's commands do in a harness: nothing, with this status, unless a harness says
 * otherwise. Event commands, notifications and what it prints go nowhere in any case. */
extern std::function<int(const char* command)> on_command;

/* Runs a command after all, silenced. */
int really_run(const char* command);

/* An empty /var with a device's folders and lock files. */
void set_up();

/* Called once, before everything else. After it no file outside of /var can be changed, but in the
 * folder: archives are unpacked to "/". Ends the process where that is refused. */
void confine(const char* but_this_folder);

struct Harness {
  const char* name;
  void (*run)(Source& source);
};
void run_block(Source& source);
void run_item(Source& source);
void run_index_list(Source& source);
void run_archive(Source& source);
void run_scctl_block(Source& source);
void run_scctl_import(Source& source);
void run_scctl_overlay(Source& source);
void run_scctl_edit(Source& source);
void run_scctl_state(Source& source);
void run_scctl_batch(Source& source);
void run_scctl_value(Source& source);
void run_store_tar(Source& source);

inline constexpr Harness kHarnesses[] = {
    {"block", run_block},
    {"item", run_item},
    {"index_list", run_index_list},
    {"archive", run_archive},
    {"scctl_block", run_scctl_block},
    {"scctl_import", run_scctl_import},
    {"scctl_overlay", run_scctl_overlay},
    {"scctl_edit", run_scctl_edit},
    {"scctl_state", run_scctl_state},
    {"scctl_batch", run_scctl_batch},
    {"scctl_value", run_scctl_value},
    {"store_tar", run_store_tar},
};

/* Runs the harness of this name on an input. */
void run(const char* harness, const uint8_t* bytes, size_t size);

}  // namespace sc_fuzz

#endif
