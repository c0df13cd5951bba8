/* A file that is replaced as a whole: what is written goes to a temporary file beside it, which is
 * renamed over it at the end. Until then the file is as it was.
 *
 * The file is opened once, and locked from then on. After that its name is looked at as an entry of
 * its folder alone, which is open, too: a link that is turned meanwhile leads nowhere else. Who has
 * the lock owns the name of the temporary file.
 */
#ifndef STORE_ATOMIC_FILE_H
#define STORE_ATOMIC_FILE_H

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

namespace store {

/* What fails is said; each function returns kOk or a status. */
class AtomicFile {
 public:
  AtomicFile() = default;
  /* What was not committed is removed. */
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  /* Waits until no other edit has the file. One with several hard links is refused. */
  int open(const char* name);
  int descriptor() const { return file_; }
  /* The temporary file, with the owner of the file. An edit that was killed has left its own. */
  int create();
  int write_all(const uint8_t* bytes, size_t size);
  /* Mode and extended attributes are the file's. Refused when another program has changed the file
   * since it was opened. Flushes the file before the rename and the folder behind it. */
  int commit();

 private:
  int open_and_lock();
  bool open_folder();
  bool is_as_it_was() const;
  bool copy_attributes() const;
  void close_all();
  int not_changed(const char* why) const;

  const char* name_ = ""; /* as it was given */
  char base_[NAME_MAX + 1] = "";
  char temporary_name_[sizeof base_ + sizeof ".scctl-tmp"] = "";
  struct stat was_ = {};
  int file_ = -1;
  int folder_ = -1;
  int temporary_ = -1;
};

}  // namespace store

#endif
