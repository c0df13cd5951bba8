/* Any bytes as an archive, as a tar file inside a sound gzip file, or as the image that an archive
 * unpacks to; then Read, and the functions that read what it loaded. The first two run the device's
 * tar for real. What the tools' reader calls good must be what Read has loaded then. */
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "fuzz/harness.h"
#include "store/archive.h"
#include "support/areas.h"

namespace sc_fuzz {

namespace {

using namespace sc_test;

void write_bytes(const std::string& path, const Bytes& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) found("%s cannot be written", path.c_str());
}

void append(Bytes& bytes, uint32_t value, uint32_t width) {
  bytes.resize(bytes.size() + width);
  sc_test::store(&*bytes.end() - width, width, value);
}

/* As a gzip file without compression. */
Bytes gzipped(const Bytes& bytes) {
  constexpr size_t kMostInABlock = 0xffff;
  Bytes file = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 3};
  for (size_t at = 0; at < bytes.size(); at += kMostInABlock) {
    const auto size = static_cast<uint32_t>(std::min(bytes.size() - at, kMostInABlock));
    append(file, 0, 1);
    append(file, size, 2);
    append(file, ~size, 2);
    file.insert(file.end(), bytes.begin() + at, bytes.begin() + at + size);
  }
  file.insert(file.end(), {1, 0, 0, 0xff, 0xff}); /* the last block, of no bytes */
  uint32_t crc = 0xffffffff;
  for (const uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (0xedb88320 & (0u - (crc & 1)));
  }
  append(file, ~crc, 4);
  append(file, static_cast<uint32_t>(bytes.size()), 4);
  return file;
}

/* What tar left in place of the image and is no file: opening a pipe would wait for its writer. */
void remove_unless_file(const std::string& path) {
  struct stat state;
  if (stat(path.c_str(), &state) == 0 && !S_ISREG(state.st_mode)) remove(path.c_str());
}

/* An image of the right size, or of another. */
Bytes any_image(Source& source, const std::string& area) {
  Bytes image = hostile_block(source, area);
  const uint8_t kind = source.byte();
  if (kind >= 0xe0) image.resize(source.word() % (image.size() + 1));
  if (kind >= 0xc0 && kind < 0xe0) image.resize(image.size() + source.byte());
  return image;
}

/* The reader's verdict on unpacked bytes. */
void judge(const Bytes& tar, store::Archive* archive) {
  const int stream = memfd_create("tar", MFD_CLOEXEC);
  if (stream < 0 || write(stream, tar.data(), tar.size()) != static_cast<ssize_t>(tar.size()) ||
      lseek(stream, 0, SEEK_SET) != 0) {
    found("no stream");
  }
  store::judge_tar(stream, nullptr, archive);
  close(stream);
}

void read_lists_of(const std::string& area, Source& source) {
  Exact& block = block_of(area);
  const Bytes loaded(block.data(), block.data() + block.size());
  for (uint32_t list = 0; list < kLists; ++list) {
    if (list_rows()[list].area != area) continue;
    Stage stage(list);
    stage.set(area, loaded);
    stage.read(source);
    while (!source.empty()) stage.step(source);
    stage.compare_blocks();
  }
}

}  // namespace

void run_archive(Source& source) {
  const uint8_t kind = source.byte();
  const AreaCalls* calls;
  do {
    calls = &all_areas()[source.below(static_cast<uint32_t>(all_areas().size()))];
  } while (calls->read == nullptr);
  const AreaFacts& facts = golden_area(calls->name);
  memset(block_of(calls->name).data(), 0, facts.size);
  Image numbered(facts.size);
  facts.number(numbered);

  if (kind < 0xf0) {
    const Bytes image = any_image(source, calls->name);
    write_bytes(facts.archive_path, {});
    on_command = [&](const char* command) {
      if (strncmp(command, "tar -zxf ", 9) == 0) write_bytes(facts.image_path, image);
      if (strncmp(command, "rm -f ", 6) == 0) unlink(command + 6);
      return 0;
    };
    if (calls->read(block_of(calls->name).data()) != 0) found("status of %s", calls->name);
    numbered.copy(0, image.data(), std::min(image.size(), facts.size));
    if (!numbered.matches(block_of(calls->name).data())) found("image of %s", calls->name);
    if (access(facts.image_path.c_str(), F_OK) == 0) found("the image of %s stays", calls->name);
    unlink(facts.archive_path.c_str());
  } else {
    set_up();
    const Bytes bytes = source.rest();
    write_bytes(facts.archive_path, kind < 0xf8 ? bytes : gzipped(bytes));
    on_command = [&](const char* command) {
      const int status = really_run(command);
      remove_unless_file(facts.image_path);
      return status;
    };
    calls->read(block_of(calls->name).data());
    store::Archive archive;
    if (kind >= 0xf8) judge(bytes, &archive);
    if (archive.state == store::State::kGood && archive.area->key == facts.key &&
        memcmp(block_of(calls->name).data(), archive.image, facts.size) != 0) {
      found("%s is called good and not loaded whole", calls->name);
    }
    set_up(); /* tar can have left anything in /var */
  }
  read_lists_of(calls->name, source);
}

}  // namespace sc_fuzz
