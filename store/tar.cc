/* The tar archive in an archive: which file GNU tar and BusyBox tar unpack from it, and its
 * contents. If the two tars would unpack different files, the archive is not good.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/bytes.h"
#include "core/registry.h"
#include "store/archive.h"
#include "store/stream.h"
#include "store/tar_header.h"

namespace store {

namespace {

using sc::AreaRow;

constexpr size_t kBlock = sizeof(TarHeader);
constexpr size_t kMostInFront = 64 * 1024; /* bytes before the image's header */
constexpr uint32_t kHuge = UINT32_MAX;     /* stands for any number above 32 bits */

constexpr char kNoTar[] = "not a tar archive";
constexpr char kCut[] = "truncated tar archive";
constexpr char kNoFile[] = "holds no plain file";
constexpr char kOtherFile[] = "holds a different file";
constexpr char kBadExtension[] = "invalid extended header";
constexpr char kNoMemory[] = "not known: no memory";

/* ---- headers ---- */

/* Reads a number: octal digits, or binary bytes after 0x80 (positive) or 0xff (negative). */
bool read_number(const char* field, size_t size, uint32_t* number) {
  const auto* at = reinterpret_cast<const uint8_t*>(field);
  const uint8_t* const end = at + size;
  uint32_t value = 0;
  if (*at == 0x80 || *at == 0xff) {
    while (++at < end) value = value >> 24 != 0 ? kHuge : value << 8 | *at;
  } else {
    while (at < end && *at == ' ') ++at;
    for (; at < end && *at >= '0' && *at <= '7'; ++at) {
      value = value >> 29 != 0 ? kHuge : value << 3 | (*at & 7);
    }
    if (at < end && *at != '\0' && *at != ' ') return false;
  }
  *number = value;
  return true;
}

/* Whether the checksum is right. Its own bytes count as blanks. */
bool checksum_fits(const TarHeader& header) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&header);
  uint32_t sum = 0, wanted;
  for (size_t n = 0; n < kBlock; ++n) {
    const bool own = n - offsetof(TarHeader, checksum) < sizeof header.checksum;
    sum += own ? ' ' : bytes[n];
  }
  return read_number(header.checksum, sizeof header.checksum, &wanted) && wanted == sum;
}

bool is_zero(const TarHeader& header) {
  const auto* bytes = reinterpret_cast<const char*>(&header);
  size_t n = 0;
  while (n < kBlock && bytes[n] == '\0') ++n;
  return n == kBlock;
}

/* ---- the image ---- */

/* Null when it is an image of the area. */
const char* fault_of_image(const AreaRow& area, const uint8_t* image) {
  char lock_path[64];
  snprintf(lock_path, sizeof lock_path, sc::kLockPath, area.lock_stem);
  if (memcmp(image + area.header.path_at, lock_path, strlen(lock_path) + 1) != 0) {
    return "wrong lock path";
  }
  if (sc::load<int32_t>(image + area.header.index_at) != 1) {
    return "wrong block lock";
  }
  for (const sc::LockSpan& span : sc::kLockSpans) {
    if (&sc::kAreas[span.area] != &area) continue;
    for (uint32_t n = 0; n < span.count; ++n) {
      if (sc::load<uint32_t>(image + span.at + n * span.stride) != span.first + n) {
        return "wrong lock indices";
      }
    }
  }
  return nullptr;
}

/* ---- the archive ---- */

constexpr char kV7[5] = {}; /* magic */
constexpr unsigned long kNone = ~0ul;
constexpr struct {
  uint16_t at;
  uint8_t size;
} kNumbers[] = {
    {offsetof(TarHeader, mode), 8},         {offsetof(TarHeader, uid), 8},
    {offsetof(TarHeader, gid), 8},          {offsetof(TarHeader, mtime), 12},
    {offsetof(TarHeader, device_major), 8}, {offsetof(TarHeader, device_minor), 8},
    {offsetof(TarHeader, size), 12},
};

/* The functions stand in the order in which the archive is read. Each returns what is wrong, or
 * null. */
class Tar {
 public:
  Tar(int stream, const AreaRow* area, Archive* archive)
      : stream_{stream}, area_(area), archive_(archive) {}

  bool judge() {
    const char* fault = fault_of_members();
    if (stream_.error != 0) {
      errno = stream_.error;
      return archive_->cannot(kNoGzip);
    }
    if (fault == kNoMemory) return archive_->is(State::kUnknown, fault);
    if (fault != nullptr) return archive_->is(State::kBroken, fault);
    fault = fault_of_image(*area_, archive_->image);
    const bool good = archive_->is(fault == nullptr ? State::kGood : State::kBroken,
                                   fault == nullptr ? "" : fault);
    archive_->area = area_;
    return good;
  }

 private:
  const char* fault_of_members() {
    const char* fault = fault_of_header();
    while (fault == nullptr && is_extension()) {
      fault = fault_of_extension();
      if (fault == nullptr) fault = fault_of_header();
    }
    if (fault == nullptr) fault = fault_of_file();
    return fault != nullptr ? fault : fault_of_rest();
  }

  bool is_extension() const {
    return header_.type == 'x' || header_.type == 'g' || header_.type == 'L';
  }

  const char* fault_of_header() {
    const size_t got = stream_.take(&header_, kBlock);
    if (got < kBlock && (got > 0 || in_front_ > 0)) return kCut;
    if (got == 0 || !checksum_fits(header_) ||
        (memcmp(header_.magic, "ustar", 5) != 0 && memcmp(header_.magic, kV7, 5) != 0)) {
      return kNoTar;
    }
    const auto* bytes = reinterpret_cast<const char*>(&header_);
    for (const auto& number : kNumbers) {
      if (!read_number(bytes + number.at, number.size, &size_)) {
        return "invalid number in the header";
      }
    }
    return nullptr;
  }

  /* A file is filled up to a whole number of blocks. */
  bool skip_padding() {
    char bytes[kBlock];
    const size_t size = (kBlock - size_ % kBlock) % kBlock;
    return stream_.take(bytes, size) == size;
  }

  /* A pax header, or a long name of GNU. */
  const char* fault_of_extension() {
    if (size_ > kMostInFront) return kBadExtension;
    in_front_ += kBlock + size_;
    if (in_front_ > kMostInFront) return kBadExtension;
    auto* text = static_cast<char*>(malloc(size_ + 1));
    if (text == nullptr) return kNoMemory;
    text[size_] = '\0';
    const char* fault = kCut;
    if (stream_.take(text, size_) == size_ && skip_padding()) {
      fault = header_.type == 'L' ? fault_of_name(text) : fault_of_records(text);
    }
    free(text);
    return fault;
  }

  /* Each line consists of its size in decimal, a blank, KEY=VALUE and a newline. */
  const char* fault_of_records(char* text) {
    char* const end = text + size_;
    while (text < end) {
      char* key;
      const unsigned long size = strtoul(text, &key, 10);
      if (size - 1 >= static_cast<size_t>(end - text)) return kBadExtension;
      char* const last = text + size - 1;
      if (last <= key || *key != ' ' || *last != '\n') return kBadExtension;
      *last = '\0';
      char* value = strchr(++key, '=');
      if (value == nullptr) return kBadExtension;
      *value++ = '\0';
      if (value + strlen(value) != last) return kBadExtension;
      if (const char* fault = fault_of_record(key, value)) return fault;
      text = last + 1;
    }
    return nullptr;
  }

  /* Some keys change what is unpacked. Of these, path and size are allowed if their values are the
   * right ones. */
  const char* fault_of_record(const char* key, const char* value) {
    if (strcmp(key, "path") == 0) return fault_of_name(value);
    if (strcmp(key, "size") == 0) {
      char* end;
      extended_size_ = strtoul(value, &end, 10);
      return *value >= '0' && *value <= '9' && *end == '\0' ? nullptr : kBadExtension;
    }
    return strncmp(key, "GNU.sparse.", 11) == 0 ? kNoFile : nullptr;
  }

  /* This name replaces that of the next header. A name for all headers (type g) does not count. */
  const char* fault_of_name(const char* name) {
    if (header_.type != 'g') is_named_ = true;
    return is_wanted(name) ? nullptr : kOtherFile;
  }

  /* Whether it is the name of the area's image, or of any area's while the area is not known. */
  bool is_wanted(const char* name) {
    /* tar unpacks each name relative to a folder. */
    while (*name == '/' || (name[0] == '.' && name[1] == '/')) ++name;
    for (const AreaRow& area : sc::kAreas) {
      if (area.stem[0] == '\0' || (area_ != nullptr && area_ != &area)) continue;
      char wanted[64];
      snprintf(wanted, sizeof wanted, sc::kImagePath + 1, area.stem);
      if (strcmp(name, wanted) != 0) continue;
      area_ = &area;
      return true;
    }
    return false;
  }

  const char* fault_of_file() {
    /* Type 7 is a contiguous file. */
    if (header_.type != '0' && header_.type != '\0' && header_.type != '7') return kNoFile;
    /* The two tars use the prefix differently. */
    if (!is_named_ && (header_.prefix[0] != '\0' || !is_wanted(header_.name))) return kOtherFile;
    if (size_ != area_->size || (extended_size_ != kNone && extended_size_ != size_)) {
      return "image of the wrong size";
    }
    archive_->image = static_cast<uint8_t*>(malloc(size_));
    if (archive_->image == nullptr) return kNoMemory;
    return stream_.take(archive_->image, size_) == size_ && skip_padding() ? nullptr : kCut;
  }

  /* The archive ends after the image, at once or with one or two blocks of zeros. tar reads nothing
   * after two. */
  const char* fault_of_rest() {
    size_t blocks = 0;
    for (size_t got; (got = stream_.take(&header_, kBlock)) > 0;) {
      if (blocks < 2 && got < kBlock) return kCut;
      if (blocks < 2 && !is_zero(header_)) {
        return checksum_fits(header_) ? "holds a second member" : "junk after the image";
      }
      if (++blocks > kMostBehind / kBlock) return "more than 64 KiB after the image";
    }
    return nullptr;
  }

  Stream stream_;
  const AreaRow* area_;
  Archive* archive_;
  TarHeader header_ = {};
  uint32_t size_ = 0; /* of the member behind the header */
  unsigned long extended_size_ = kNone;
  bool is_named_ = false;
  size_t in_front_ = 0;
};

}  // namespace

bool judge_tar(int stream, const AreaRow* area, Archive* archive) {
  return Tar(stream, area, archive).judge();
}

}  // namespace store
