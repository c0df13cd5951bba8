/* Any bytes as what gzip makes of an archive: as they are, or as a tar file with members of several
 * formats around an image, whose headers are patched. The reader of archives judges it. What it calls
 * good is the image that stands in the bytes, with the area's own numbers in it. */
#include "store/archive.h"

#include <sys/mman.h>
#include <unistd.h>

#include "fuzz/harness.h"
#include "store/catalogue.h"
#include "store/tar_header.h"
#include "support/areas.h"

namespace sc_fuzz {

namespace {

using namespace sc_test;

constexpr size_t kBlock = 512;

/* Patches of the source, anywhere in it. */
void patch(Source& source, Bytes& bytes) {
  for (uint32_t patches = source.below(4); patches > 0; --patches) {
    const size_t at = source.half() % bytes.size();
    const Bytes with = source.bytes(1 + source.below(16));
    std::copy_n(with.begin(), std::min(with.size(), bytes.size() - at), bytes.begin() + at);
  }
}

/* A header with what follows it, filled up to whole blocks. */
void add_member(Source& source, char type, const std::string& name, const Bytes& content,
                Bytes* to) {
  store::TarHeader header = {};
  snprintf(header.name, sizeof header.name, "%s", name.c_str());
  snprintf(header.mode, sizeof header.mode, "0000644");
  snprintf(header.size, sizeof header.size, "%011o", static_cast<unsigned>(content.size()));
  header.type = type;
  constexpr const char* kMagics[] = {"ustar\00000", "ustar  \0", "\0\0\0\0\0\0\0\0"};
  memcpy(header.magic, kMagics[source.below(3)], sizeof header.magic);
  Bytes block(sizeof header);
  memcpy(block.data(), &header, sizeof header);
  patch(source, block);
  if (source.byte() < 0xf0) { /* mostly with a sum that is right */
    auto* patched = reinterpret_cast<store::TarHeader*>(block.data());
    memset(patched->checksum, ' ', sizeof patched->checksum);
    unsigned sum = 0;
    for (const uint8_t byte : block) sum += byte;
    snprintf(patched->checksum, sizeof patched->checksum, "%06o", sum);
  }
  to->insert(to->end(), block.begin(), block.end());
  to->insert(to->end(), content.begin(), content.end());
  to->resize((to->size() + kBlock - 1) / kBlock * kBlock);
}

Bytes tar_of(Source& source, const AreaFacts& facts) {
  const std::string name = facts.image_path.substr(1);
  Bytes file;
  for (uint32_t before = source.below(3); before > 0; --before) {
    constexpr char kTypes[] = {'x', 'g', 'L', 'K', '0', '5', '2', '\0'};
    const char type = kTypes[source.below(sizeof kTypes)];
    add_member(source, type, name, source.bytes(source.byte()), &file);
  }
  Bytes image = started(facts.name);
  patch(source, image);
  const uint8_t kind = source.byte();
  if (kind >= 0xe0) image.resize(source.word() % (image.size() + kBlock));
  add_member(source, source.byte() < 0xe0 ? '0' : '\0', name, image, &file);
  const Bytes rest = source.rest();
  file.resize(file.size() + (kind % 3) * kBlock);
  file.insert(file.end(), rest.begin(), rest.end());
  return file;
}

/* The verdict on bytes, read from a file that is kept. */
void judge(const Bytes& bytes, const sc::AreaRow* area, store::Archive* archive) {
  static const int file = memfd_create("archive", MFD_CLOEXEC);
  if (ftruncate(file, 0) != 0 ||
      pwrite(file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()) ||
      lseek(file, 0, SEEK_SET) != 0) {
    found("no file for an archive");
  }
  const bool good = store::judge_tar(file, area, archive);
  if (good != (archive->state == store::State::kGood)) found("two verdicts");
  if (!good && archive->state != store::State::kBroken)
    found("state %d", static_cast<int>(archive->state));
  if (!good && archive->reason[0] == '\0') found("no reason");
}

}  // namespace

void run_store_tar(Source& source) {
  const uint32_t choice = source.below(static_cast<uint32_t>(golden_areas().size()));
  const AreaFacts& facts = golden_areas()[choice];
  const sc::AreaRow* own = &store::kAreas[choice].row();
  const uint8_t kind = source.byte();
  const Bytes bytes = kind < 0xe0 ? tar_of(source, facts) : source.rest();
  store::Archive of_any, of_own;
  judge(bytes, nullptr, &of_any);
  judge(bytes, own, &of_own);
  if (of_own.state == store::State::kGood && of_any.state != store::State::kGood) {
    found("good for its area alone: %s", of_any.reason);
  }
  if (of_any.state != store::State::kGood) return;
  if (of_any.area == nullptr || of_any.image == nullptr) found("good without an image");
  const AreaFacts& its = golden_areas()[static_cast<size_t>(of_any.area - &store::kAreas[0].row())];
  if (memmem(bytes.data(), bytes.size(), of_any.image, its.size) == nullptr) {
    found("an image of %s that is not in the archive", its.name.c_str());
  }
  Image numbered(of_any.image, its.size);
  its.number(numbered);
  if (memcmp(numbered.data() + its.path_at, of_any.image + its.path_at, its.lock_path.size() + 1) !=
      0) {
    found("wrong lock path in an image of %s", its.name.c_str());
  }
  if ((of_own.state == store::State::kGood) != (of_any.area == own))
    found("another area is its own");
}

}  // namespace sc_fuzz
