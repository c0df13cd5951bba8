/* The guard of the flash archives: keeps a last good copy of an area's archive beside it, and puts
 * it back at boot, before the areas are made, where the archive is missing or broken. There is a
 * copy of each good archive before anything can overwrite it: made after a save, or at boot.
 *
 * An archive is good when its gzip stream is whole and holds one file: the area's image under its
 * full name, of exactly the area's size, with the area's lock path and record numbering in it.
 *
 * The rule that every step obeys: a file that matters is only ever replaced whole, by a rename of
 * a copy that is already on the flash. A cut at any point leaves the old one or the new one.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sysconfig/core.h>

#include "core/area.h"
#include "core/bytes.h"
#include "device/tar_header.h"

namespace {

using sc::Area;

constexpr char kFolder[] = "/var/dataconfig";

/* A file that belongs to an area: the archive (bin), its last good copy (good), what becomes one
 * of them (new), and a broken archive that nothing could be put in place of (bad). */
struct Path {
  char text[64];

  Path(const char* format, const char* stem, const char* ending = "") {
    snprintf(text, sizeof text, format, stem, ending);
  }
};

Path in_folder(const char* stem, const char* ending) {
  return Path("/var/dataconfig/config_%s.%s", stem, ending);
}

/* The boot script hands what is said to the system's log. */
__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
  va_list values;
  va_start(values, format);
  fputs("scguard: ", stderr);
  vfprintf(stderr, format, values);
  fputc('\n', stderr);
  va_end(values);
}

/* ---- what an archive holds ---- */

/* Null when the image is the area's. */
const char* fault_of_image(const Area& area, const char* image) {
  const Path lock_path("/var/lock_store/%s_conf_lock", area.lock_stem);
  if (strcmp(image + area.header.path_at, lock_path.text) != 0) return "another lock path";
  if (sc::load<int32_t>(image + area.header.index_at) != 1) return "another block lock";
  int32_t lock_index = 2;
  for (const sc::LockSpan& span : sc::kLockSpans) {
    if (&sc::kAreas[span.area] != &area) continue;
    for (uint32_t n = 0; n < span.count; ++n) {
      if (sc::load<int32_t>(image + span.at + n * span.stride) != lock_index++) {
        return "another record numbering";
      }
    }
  }
  return nullptr;
}

/* Reads the unpacked archive: header, image, then zeros alone, up to a whole number of blocks. */
const char* fault_of_stream(const Area& area, FILE* stream, char* image) {
  TarHeader header;
  if (fread(&header, sizeof header, 1, stream) != 1) return "it is cut off";
  if (!checksum_fits(header)) return "it is no tar archive";
  const Path name("var/systemconfig/config_%s.cfg", area.stem);
  if (header.type != '0' || strncmp(header.name, name.text, sizeof header.name) != 0) {
    return "it holds another file";
  }
  if (strtoul(header.size, nullptr, 8) != area.size) return "its image has another size";
  if (fread(image, area.size, 1, stream) != 1) return "it is cut off";
  size_t length = sizeof header + area.size;
  for (int byte; (byte = getc(stream)) != EOF; ++length) {
    if (byte != 0) return "it holds more than the image";
  }
  if (length % sizeof header != 0) return "it is cut off";
  return fault_of_image(area, image);
}

struct Archive {
  enum State { kMissing, kBroken, kGood } state;
  const char* fault;
};

/* Looks at an archive; its image is filled in when it is good. */
Archive look(const Area& area, const Path& path, char* image) {
  const int fd = open(path.text, O_RDONLY);
  if (fd < 0)
    return errno == ENOENT ? Archive{Archive::kMissing, "it is missing"}
                           : Archive{Archive::kBroken, strerror(errno)};
  close(fd);
  char command[96];
  snprintf(command, sizeof command, "gzip -dc <%s 2>/dev/null", path.text);
  FILE* stream = popen(command, "r");
  if (stream == nullptr) return {Archive::kBroken, "gzip cannot be run"};
  const char* fault = fault_of_stream(area, stream, image);
  char rest[512];
  while (fread(rest, 1, sizeof rest, stream) > 0) {
  }
  /* gzip tells a wrong length or checksum at the end of its stream only. */
  if (pclose(stream) != 0) fault = "its gzip stream is not whole";
  return {fault == nullptr ? Archive::kGood : Archive::kBroken, fault};
}

/* ---- replacing files ---- */

bool flush_folder() {
  const int folder = open(kFolder, O_RDONLY | O_DIRECTORY);
  if (folder < 0) return false;
  const bool done = fsync(folder) == 0;
  close(folder);
  /* fsync reaches the flash itself only where the driver below has no cache of its own. */
  sync();
  return done;
}

bool copy_bytes(int from, int to) {
  char bytes[4096];
  ssize_t got;
  while ((got = read(from, bytes, sizeof bytes)) > 0) {
    for (ssize_t done = 0; done < got;) {
      const ssize_t written = write(to, bytes + done, static_cast<size_t>(got - done));
      if (written < 0) return false;
      done += written;
    }
  }
  return got == 0;
}

/* Makes `to` a copy of `from`, or leaves it as it was. errno tells why not. */
bool replace(const char* stem, const Path& from, const Path& to) {
  const Path fresh = in_folder(stem, "new");
  const int in = open(from.text, O_RDONLY);
  if (in < 0) return false;
  const int out = open(fresh.text, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  bool done = out >= 0 && copy_bytes(in, out) && fsync(out) == 0;
  if (out >= 0 && close(out) != 0) done = false;
  close(in);
  done = done && flush_folder() && rename(fresh.text, to.text) == 0 && flush_folder();
  if (!done) {
    const int why = errno;
    unlink(fresh.text);
    errno = why;
  }
  return done;
}

/* ---- commands ---- */

/* Holds the area's block lock, under which archives are written, as long as the process lives. */
bool lock(const Area& area) {
  const Path path("/var/lock_store/%s_conf_lock", area.lock_stem);
  const int fd = open(path.text, O_RDWR);
  struct flock byte = {};
  byte.l_type = F_WRLCK;
  byte.l_whence = SEEK_SET;
  byte.l_start = 1;
  byte.l_len = 1;
  if (fd >= 0 && fcntl(fd, F_SETLKW, &byte) == 0) return true;
  say("%s cannot be locked: %s", path.text, strerror(errno));
  return false;
}

/* Images of the archive and of the good copy. */
struct Images {
  char* archive;
  char* good;

  explicit Images(size_t size)
      : archive(static_cast<char*>(malloc(size))), good(static_cast<char*>(malloc(size))) {}
  ~Images() {
    free(archive);
    free(good);
  }
  explicit operator bool() const {
    if (archive != nullptr && good != nullptr) return true;
    say("no memory for two images");
    return false;
  }
};

/* An area's files, and what is in them. */
struct Files {
  const Area& area;
  Path archive, good;
  Images images;
  Archive now, kept;

  explicit Files(const Area& of)
      : area(of),
        archive(in_folder(of.stem, "bin")),
        good(in_folder(of.stem, "good")),
        images(of.size),
        now{},
        kept{} {}
  bool look_at_both() {
    if (!images) return false;
    now = look(area, archive, images.archive);
    kept = look(area, good, images.good);
    return true;
  }
};

/* The copy becomes that of a good archive. The archive's bytes change with the time of the save; the
 * image says whether anything did. */
bool bring_copy_up_to_date(const Files& files) {
  if (files.kept.state == Archive::kGood &&
      memcmp(files.images.archive, files.images.good, files.area.size) == 0) {
    return true;
  }
  if (replace(files.area.stem, files.archive, files.good)) return true;
  say("%s is not kept: %s", files.archive.text, strerror(errno));
  return false;
}

bool keep(const Area& area) {
  Files files(area);
  if (!lock(area) || !files.look_at_both()) return false;
  if (files.now.state == Archive::kGood) return bring_copy_up_to_date(files);
  say("%s is not kept: %s", files.archive.text, files.now.fault);
  return false;
}

/* A good archive can be newer than its copy, when the power was cut between a save and its keep. It
 * is kept now: the next save overwrites it, and a cut in that one would bring the old copy back.
 * Init must not meet a broken archive: it would load as much of it as there is. */
bool restore(const Area& area) {
  Files files(area);
  unlink(in_folder(area.stem, "new").text);
  if (!files.look_at_both()) return false;
  const Path &archive = files.archive, &good = files.good;
  const Archive &now = files.now, &kept = files.kept;
  if (now.state == Archive::kGood) return bring_copy_up_to_date(files);
  if (kept.state == Archive::kGood) {
    if (replace(area.stem, good, archive)) {
      say("%s: %s; the last good copy is back", archive.text, now.fault);
      return true;
    }
    say("%s: %s; the last good copy cannot be put back: %s", archive.text, now.fault,
        strerror(errno));
    return false;
  }
  if (kept.state == Archive::kBroken) say("%s: %s", good.text, kept.fault);
  if (now.state == Archive::kMissing) return kept.state == Archive::kMissing;
  const Path bad = in_folder(area.stem, "bad");
  const bool aside = rename(archive.text, bad.text) == 0 && flush_folder();
  say("%s: %s; there is no good copy, it %s", archive.text, now.fault,
      aside ? "is set aside as .bad" : "stays");
  return false;
}

const Area* named(const char* stem) {
  for (const Area& area : sc::kAreas) {
    if (area.stem[0] != '\0' && strcmp(area.stem, stem) == 0) return &area;
  }
  say("unknown area '%s'", stem);
  return nullptr;
}

int usage() {
  fputs(
      "usage: scguard keep AREA       after a save: keep a copy of the area's archive\n"
      "       scguard restore [AREA]  at boot, before Init: put good copies back or renew them\n"
      "areas:",
      stderr);
  for (const Area& area : sc::kAreas) {
    if (area.stem[0] != '\0') fprintf(stderr, " %s", area.stem);
  }
  fputc('\n', stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const bool keeping = argc == 3 && strcmp(argv[1], "keep") == 0;
  const bool restoring = (argc == 2 || argc == 3) && strcmp(argv[1], "restore") == 0;
  if (!keeping && !restoring) return usage();
  if (argc == 3) {
    const Area* area = named(argv[2]);
    if (area == nullptr) return 2;
    return (keeping ? keep(*area) : restore(*area)) ? 0 : 1;
  }
  bool good = true;
  for (const Area& area : sc::kAreas) {
    if (area.stem[0] != '\0' && !restore(area)) good = false;
  }
  return good ? 0 : 1;
}
