/* Commands for checkpoints: checkpoint, checkpoints, rollback.
 *
 * A checkpoint is made in a folder .NAME.new, which is renamed when all of it is on flash. To delete
 * one, it is first renamed to .NAME.old. So a kill or a power cut leaves all of it or nothing. The
 * next command that makes or deletes one removes what was left.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "commands.h"
#include "listing.h"
#include "record_locks.h"
#include "try.h"
#include "store/edit.h"
#include "store/gzip.h"
#include "store/value.h"

namespace scctl {

namespace {

/* Copies all areas that can be saved. False when there is none. `why_not` stays empty when the copies
 * are of one moment. */
bool copy_areas(Source& live, Checkpoint* to, Text* why_not) {
  constexpr int kUnlockedCopies = 100;
  RecordLocks locks(live, saved_areas());
  for (const Area& area : kAreas) {
    if (!locks.has(id_of(area))) continue;
    if (to->add_area(area) == nullptr) exit(fail(kRefused, "out of memory"));
  }
  locks.copy(why_not, [&](AreaId id, bool held) {
    /* Without locks it is copied again while it changes, but not for ever. */
    for (int times = held ? 1 : kUnlockedCopies; times > 0; --times) {
      if (!copy_pages(to->images[id], live.block(id), kAreas[id].row().size)) break;
    }
  });
  return !locks.empty();
}

/* ---- the folder ---- */

/* Calls `act` for each entry of a folder. */
bool for_entries(int parent, const char* name, void (*act)(int folder, const char* entry)) {
  const int folder = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
  DIR* entries = folder >= 0 ? fdopendir(folder) : nullptr;
  if (entries == nullptr) return false;
  while (const dirent* entry = readdir(entries)) act(folder, entry->d_name);
  closedir(entries);
  return true;
}

void remove_file(int folder, const char* name) { unlinkat(folder, name, 0); }

/* Removes a folder of files. */
bool remove_folder(int parent, const char* name) {
  return for_entries(parent, name, remove_file) && unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

/* What a killed command left. */
void remove_unfinished(int folder, const char* name) {
  if (name[0] == '.' && name[1] != '\0' && name[1] != '.') remove_folder(folder, name);
}

int fail_folder() { return fail(kNoArea, "%s: %s", kCheckpoints, strerror(errno)); }

/* Opens the folder of all checkpoints, which nobody else changes meanwhile, and removes what a
 * killed command left in it. */
int open_store(Descriptor* store) {
  if (mkdir(kCheckpoints, 0700) != 0 && errno != EEXIST) return fail_folder();
  store->number = open(kCheckpoints, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (store->number < 0) return fail_folder();
  if (flock(store->number, LOCK_EX | LOCK_NB) != 0) {
    return fail(kRefused, "%s: another checkpoint is being made or deleted", kCheckpoints);
  }
  for_entries(store->number, ".", remove_unfinished);
  return kOk;
}

/* The name of a folder that is not or no longer a checkpoint. */
struct HiddenName {
  HiddenName(const char* name, const char* end) { snprintf(text, sizeof text, ".%s%s", name, end); }
  char text[40];
};

/* ---- writing ---- */

/* A checkpoint that is being made. It is removed unless it was renamed. */
class NewCheckpoint {
 public:
  NewCheckpoint(int store, const char* name) : store_(store), name_(name), hidden_(name, ".new") {}
  ~NewCheckpoint() {
    if (folder_ >= 0) close(folder_);
    if (hidden_.text[0] != '\0') remove_folder(store_, hidden_.text);
    signal(SIGPIPE, on_hang_up_);
  }
  NewCheckpoint(const NewCheckpoint&) = delete;
  NewCheckpoint& operator=(const NewCheckpoint&) = delete;

  /* A step that does not succeed is told by fail(). */
  bool begin() {
    return missing_room(kCheckpoints, 0) == 0 && mkdirat(store_, hidden_.text, 0700) == 0 &&
           (folder_ = openat(store_, hidden_.text, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) >= 0;
  }
  bool write(const Checkpoint& made);
  bool publish() {
    lacks_ = "";
    if (fsync(folder_) != 0 || missing_room(kCheckpoints, 0) > 0 ||
        renameat(store_, hidden_.text, store_, name_) != 0) {
      return false;
    }
    hidden_.text[0] = '\0';
    return fsync(store_) == 0 && syncfs(store_) == 0;
  }

  int fail() const {
    const char* why = why_ != nullptr ? why_ : strerror(errno);
    const uint32_t missing = missing_room(kCheckpoints, 0);
    return missing > 0 ? store::fail(kRefused,
                                     "checkpoint %s is not made: %s%u bytes are missing: 64 KiB "
                                     "stay free",
                                     name_, lacks_, missing)
                       : store::fail(kNoArea, "checkpoint %s is %s: %s: %s", name_,
                                     hidden_.text[0] != '\0' ? "not made" : "perhaps not on flash",
                                     file_, why);
  }

 private:
  int create(const char* name) {
    snprintf(file_, sizeof file_, "%s", name);
    return openat(folder_, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  }
  bool pack(const Area& area, const uint8_t* image);

  int store_;
  int folder_ = -1;
  const char* name_;
  HiddenName hidden_;            /* empty when it was renamed */
  char file_[40] = "the folder"; /* of the last step */
  const char* why_ = nullptr;    /* it failed; null: errno tells */
  const char* lacks_ = "at least ";
  /* A gzip that ends early does not end this program. */
  void (*on_hang_up_)(int) = signal(SIGPIPE, SIG_IGN);
};

bool NewCheckpoint::pack(const Area& area, const uint8_t* image) {
  const ImageName name = image_name(area);
  const Descriptor file(create(name.text));
  Gzip gzip;
  if (file.number < 0 || !gzip.start(file.number, Gzip::kPacks)) return false;
  const bool written = write_all(gzip.stream, image, area.row().size);
  int status;
  if (!gzip.end(&status) || status != 0 || !written) {
    why_ = "gzip failed";
    return false;
  }
  return fsync(file.number) == 0;
}

bool NewCheckpoint::write(const Checkpoint& made) {
  Text manifest;
  manifest.print(kManifestStart, made.time, made.who, made.copied);
  for (const Area& area : kAreas) {
    const uint8_t* image = made.images[id_of(area)];
    const size_t size = area.row().size;
    if (image == nullptr) continue;
    if (!pack(area, image)) return false;
    manifest.print(kManifestArea, area.row().stem, size, sum_of(image, size));
  }
  manifest.print(kManifestEnd, sum_of(manifest.c_str(), manifest.size()));
  const Descriptor file(create(kManifest));
  return file.number >= 0 && write_all(file.number, manifest.c_str(), manifest.size()) &&
         fsync(file.number) == 0;
}

/* Sets time and maker. */
void sign(Checkpoint* made) {
  Text text;
  add_time(time(nullptr), true, &text);
  snprintf(made->time, sizeof made->time, "%s", text.c_str());
  text.clear();
  add_user(getuid(), &text);
  snprintf(made->who, sizeof made->who, "%s", text.c_str());
}

int delete_checkpoint(const char* name) {
  if (const int status = need_checkpoint(name); status != kOk) return status;
  Descriptor store(-1);
  if (const int status = open_store(&store); status != kOk) return status;
  const HiddenName hidden(name, ".old");
  if (renameat(store.number, name, store.number, hidden.text) == 0) {
    if (fsync(store.number) == 0 && remove_folder(store.number, hidden.text)) return kOk;
    const int why = errno;
    renameat(store.number, hidden.text, store.number, name); /* what is left stays listed */
    errno = why;
  }
  return fail(kNoArea, "checkpoint %s: %s", name, strerror(errno));
}

}  // namespace

int run_checkpoint(Call& call) {
  const char* name = call.words[0];
  if (call.has(kDelete)) return delete_checkpoint(name);
  if (!is_checkpoint_name(name)) {
    return fail(kRefused,
                "'%s': a checkpoint's name has 1 to 31 of A-Z a-z 0-9 . _ - and no dot in front",
                name);
  }
  Descriptor store(-1);
  if (const int status = open_store(&store); status != kOk) return status;
  if (access(checkpoint_path(name).text, F_OK) == 0) {
    return fail(kRefused, "checkpoint %s exists; scctl checkpoint --delete %s removes it", name,
                name);
  }
  NewCheckpoint checkpoint(store.number, name);
  if (!checkpoint.begin()) return checkpoint.fail();
  Checkpoint made;
  Text why_not;
  if (!copy_areas(call.source, &made, &why_not)) return fail_without_areas();
  snprintf(made.copied, sizeof made.copied, "%s", why_not.size() == 0 ? kOneMoment : kOneByOne);
  sign(&made);
  if (!checkpoint.write(made) || !checkpoint.publish()) return checkpoint.fail();
  if (why_not.size() == 0) return kOk;
  return fail(kOk, "checkpoint %s is copied area by area, not in one moment: %s", name,
              why_not.c_str());
}

/* ---- list ---- */

namespace {

bool differs(const Snapshot& one, const Snapshot& other, uint32_t position) {
  if (one.used(position) != other.used(position)) return true;
  return one.used(position) &&
         !has_equal_fields(one.table(), one.record(position), other.record(position));
}

}  // namespace

unsigned long count_differences(Source& one, Source& other, uint32_t areas) {
  unsigned long count = 0;
  for (const Table& table : kTables) {
    if ((areas & bit(table.area)) == 0) continue;
    Snapshot in_one(table), in_other(table);
    in_one.take(one);
    in_other.take(other);
    for (uint32_t n = 0; n < table.capacity; ++n) count += differs(in_one, in_other, n);
  }
  return count;
}

namespace {

void list_checkpoint(const char* name, Source& live, Listing* listing) {
  Checkpoint checkpoint;
  const bool good = checkpoint.read(name);
  const auto add = [listing](const char* text) {
    if (text[0] != '\0')
      listing->add(text);
    else
      listing->add("null", "-");
  };
  listing->add(name);
  add(checkpoint.time);
  listing->add(checkpoint.size);
  add(checkpoint.who);
  if (good) {
    Source source;
    source.take_checkpoint(&checkpoint);
    listing->add(count_differences(source, live, saved_areas()));
  } else {
    listing->add("null", "-");
  }
  listing->add(good ? checkpoint.copied : checkpoint.fault);
}

}  // namespace

int run_checkpoints(Call& call) {
  static constexpr Column kColumns[] = {{"name", "name", -16},   {"time", "time", -20},
                                        {"bytes", "bytes", 7},   {"who", "who", -8},
                                        {"differ", "differ", 6}, {"state", "state", 0}};
  dirent** names = nullptr;
  const int count = scandir(kCheckpoints, &names, nullptr, alphasort);
  if (count < 0 && errno != ENOENT) return fail_folder();
  Listing listing(call.has(kJson), kColumns);
  for (int n = 0; n < count; ++n) {
    if (is_checkpoint_name(names[n]->d_name)) {
      list_checkpoint(names[n]->d_name, call.source, &listing);
    }
    free(names[n]);
  }
  free(names);
  listing.end();
  return kOk;
}

/* ---- rollback ---- */

namespace {

/* Reads what the tables of the named areas held, or of all areas in the checkpoint. */
int read_wanted(const Call& call, Snapshot* wanted) {
  bool chosen[kAreaCount] = {};
  for (int n = 1; n < call.word_count; ++n) {
    AreaId id = kAreaCount;
    if (const int status = parse_area(call.words[n], &id); status != kOk) return status;
    chosen[id] = true;
  }
  Text name;
  name.print("checkpoint:%s", call.words[0]);
  Source source;
  if (const int status = source.open_named(name.c_str()); status != kOk) return status;
  for (int n = 0; n < kAreaCount; ++n) {
    const auto id = static_cast<AreaId>(n);
    if (call.word_count == 1) {
      chosen[n] = source.block(id) != nullptr;
    } else if (chosen[n]) {
      if (const int status = source.need(id); status != kOk) return status;
    }
  }
  for (int n = 0; n < kTableCount; ++n) {
    if (!chosen[kTables[n].area]) continue;
    wanted[n].take(kTables[n], source);
  }
  return kOk;
}

}  // namespace

namespace {

int roll_back(Call& call) {
  Snapshot wanted[kTableCount];
  if (const int status = read_wanted(call, wanted); status != kOk) return status;
  return replace_tables(call, wanted);
}

}  // namespace

int run_rollback(Call& call) {
  if (!call.has(kTimeout)) return roll_back(call);
  if (call.has(kDryRun)) return fail(kUsage, "--dry-run and --timeout exclude each other");
  return run_tried(call, roll_back);
}

}  // namespace scctl
