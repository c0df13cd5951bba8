/* Reading checkpoints. */
#include "store/checkpoint.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "store/gzip.h"
#include "store/say.h"
#include "store/stream.h"

namespace store {

namespace {

constexpr size_t kPage = 4096;
constexpr char kBroken[] = "broken";

}  // namespace

bool is_checkpoint_name(const char* name) {
  constexpr size_t kLongest = 31;
  const size_t length = strspn(name,
                               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                               "0123456789._-");
  return length > 0 && length <= kLongest && name[length] == '\0' && name[0] != '.';
}

CheckpointPath checkpoint_path(const char* name) {
  CheckpointPath path;
  snprintf(path.text, sizeof path.text, "%s/%s", kCheckpoints, name);
  return path;
}

int need_checkpoint(const char* name) {
  if (is_checkpoint_name(name)) {
    const CheckpointPath path = checkpoint_path(name);
    if (access(path.text, F_OK) == 0) return kOk;
    if (errno != ENOENT) return fail(kNoArea, "%s: %s", path.text, strerror(errno));
  }
  Nearest nearest(name, strlen(name));
  dirent** names;
  const int count = scandir(kCheckpoints, &names, nullptr, nullptr);
  for (int n = 0; n < count; ++n) {
    if (is_checkpoint_name(names[n]->d_name)) nearest.offer(names[n]->d_name);
  }
  const int status = fail(kNoArea, "unknown checkpoint '%s'; %s", name,
                          nearest.hint("scctl checkpoints lists them"));
  for (int n = 0; n < count; ++n) free(names[n]); /* the hint had one of them */
  if (count >= 0) free(names);
  return status;
}

ImageName image_name(const Area& area) {
  ImageName name;
  snprintf(name.text, sizeof name.text, "config_%s.cfg.gz", area.row().stem);
  return name;
}

unsigned long long sum_of(const void* bytes, size_t size) {
  unsigned long long sum = 0xcbf29ce484222325;
  for (const auto* at = static_cast<const uint8_t*>(bytes); size > 0; --size) {
    sum = (sum ^ *at++) * 0x100000001b3;
  }
  return sum;
}

bool copy_pages(uint8_t* to, const uint8_t* from, size_t size) {
  bool any = false;
  for (size_t at = 0; at < size; at += kPage) {
    const size_t part = size - at < kPage ? size - at : kPage;
    if (memcmp(to + at, from + at, part) == 0) continue;
    memcpy(to + at, from + at, part);
    any = true;
  }
  return any;
}

/* ---- one checkpoint ---- */

Checkpoint::~Checkpoint() {
  for (uint8_t* image : images) free(image);
}

uint8_t* Checkpoint::add_area(const Area& area) {
  auto* image = static_cast<uint8_t*>(calloc(area.row().size, 1));
  images[id_of(area)] = image;
  return image;
}

bool Checkpoint::is(const char* what, const char* file) {
  snprintf(fault, sizeof fault, "%s: %s", what, file);
  return false;
}

namespace {

/* Does not block on a pipe without a writer. */
int open_file(int folder, const char* name) {
  return openat(folder, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
}

}  // namespace

void Checkpoint::add_size(int folder, const char* name) {
  struct stat found;
  if (fstatat(folder, name, &found, AT_SYMLINK_NOFOLLOW) != 0) return;
  size += static_cast<unsigned long>(found.st_size);
}

/* Reads the manifest without its last line. */
bool Checkpoint::read_manifest(int folder, char* text) {
  char end[32];
  const Descriptor file(open_file(folder, kManifest));
  Stream stream = {file.number};
  const size_t got = file.number >= 0 ? stream.take(text, kMostManifest) : 0;
  const auto end_size = static_cast<size_t>(snprintf(end, sizeof end, kManifestEnd, 0ull));
  if (got < end_size) return is(kBroken, kManifest);
  char* last = text + got - end_size;
  snprintf(end, sizeof end, kManifestEnd, sum_of(text, got - end_size));
  if (memcmp(last, end, end_size) != 0) return is(kBroken, kManifest);
  *last = '\0';
  return true;
}

bool Checkpoint::read_image(int folder, const Area& area, size_t image_size,
                            unsigned long long sum) {
  const ImageName name = image_name(area);
  if (image_size != area.row().size) return is("broken: another size", name.text);
  const Descriptor file(open_file(folder, name.text));
  if (file.number < 0) return is("broken: missing", name.text);
  Gzip gzip;
  if (!gzip.start(file.number, Gzip::kUnpacks)) return is("not known", kNoGzip);
  uint8_t* image = add_area(area);
  if (image == nullptr) return is("not known", "out of memory");
  Stream stream = {gzip.stream};
  uint8_t page[kPage];
  size_t at = 0, got;
  while ((got = stream.take(page, kPage)) > 0 && at + got <= image_size) {
    copy_pages(image + at, page, got);
    at += got;
  }
  int status;
  const bool ended = gzip.end(&status);
  if (at < image_size || got > 0 || status != 0) {
    /* gzip's own statuses are 1 for an error and 2 for a warning. */
    const bool known = got > 0 || (ended && WIFEXITED(status) && WEXITSTATUS(status) <= 2);
    return known ? is(kBroken, name.text) : is("not known", kNoGzip);
  }
  return sum_of(image, image_size) == sum ? true : is(kBroken, name.text);
}

bool Checkpoint::read(const char* name) {
  const Descriptor folder(
      ::open(checkpoint_path(name).text, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  if (folder.number < 0) return is("not known", strerror(errno));
  add_size(folder.number, kManifest);
  for (const Area& area : kAreas) add_size(folder.number, image_name(area).text);
  char text[kMostManifest];
  if (!read_manifest(folder.number, text)) return false;
  int used = 0;
  sscanf(text, "scctl checkpoint 1\ntime %23s\nwho %63[^\n]\ncopied %23[^\n]\n%n", time, who,
         copied, &used);
  if (used == 0) return is(kBroken, kManifest);
  for (const char* at = text + used; *at != '\0'; at += used) {
    char stem[32];
    size_t image_size;
    unsigned long long sum;
    const Area* area = sscanf(at, "%31s %zu %llx\n%n", stem, &image_size, &sum, &used) == 3
                           ? find_area(stem)
                           : nullptr;
    if (area == nullptr || images[id_of(*area)] != nullptr) return is(kBroken, kManifest);
    if (!read_image(folder.number, *area, image_size, sum)) return false;
  }
  return true;
}

int Checkpoint::open(const char* name) {
  if (const int status = need_checkpoint(name); status != kOk) return status;
  return read(name) ? kOk : fail(kNoArea, "checkpoint %s: %s", name, fault);
}

}  // namespace store
