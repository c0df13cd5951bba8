/* A file that is replaced as a whole. Data is written to a temporary file beside it. At the end the
 * temporary file is renamed over it. Until then the file does not change.
 *
 * The file is opened once, and is locked from then on. After that its name is only used as an entry
 * of its folder, which is open, too. So a symbolic link that is changed meanwhile has no effect.
 * The program that holds the lock owns the name of the temporary file.
 */
#ifndef STORE_ATOMIC_FILE_H
#define STORE_ATOMIC_FILE_H

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>

namespace store {

/* Each function prints an error message when it fails, and returns kOk or another status. */
class AtomicFile {
 public:
  AtomicFile() = default;
  /* Removes the temporary file unless it was committed. */
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  /* Waits until no other edit has the file open. A file with several hard links is refused. */
  int open(const char* name);
  int descriptor() const { return file_; }
  /* Creates the temporary file, with the owner of the file. The temporary file of an edit that was
   * killed is replaced. */
  int create();
  int write_all(const uint8_t* bytes, size_t size);
  /* Gives the temporary file the mode and the extended attributes of the file and renames it.
   * Refused when another program has changed the file since it was opened. Flushes the temporary
   * file before the rename, and the folder after it. */
  int commit();

 private:
  int open_and_lock();
  bool open_folder();
  bool is_as_it_was() const;
  bool copy_attributes() const;
  void close_all();
  int not_changed(const char* why) const;

  const char* name_ = ""; /* as the caller gave it */
  char base_[NAME_MAX + 1] = "";
  char temporary_name_[sizeof base_ + sizeof ".scctl-tmp"] = "";
  struct stat was_ = {};
  int file_ = -1;
  int folder_ = -1;
  int temporary_ = -1;
};

}  // namespace store

#endif
