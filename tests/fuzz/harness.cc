#include "fuzz/harness.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdarg.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "support/areas.h"

/* Of the sanitizers, where there are some. */
extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void* fd);

namespace sc_fuzz {

using namespace sc_test;

std::function<int(const char* command)> on_command;

namespace {

bool running = false; /* the interposed calls are the library's */
int nowhere = -1;
int report = STDERR_FILENO;

}  // namespace

void found(const char* format, ...) {
  va_list values;
  va_start(values, format);
  dprintf(report, "FOUND: ");
  vdprintf(report, format, values);
  dprintf(report, "\n");
  va_end(values);
  abort();
}

Bytes Source::bytes(size_t size) {
  Bytes taken(size, 0);
  const size_t there = std::min(size, static_cast<size_t>(end_ - at_));
  std::copy_n(at_, there, taken.begin());
  at_ += there;
  return taken;
}

Exact& block_of(const std::string& area) {
  static std::map<std::string, Exact> blocks;
  auto at = blocks.find(area);
  if (at == blocks.end()) at = blocks.emplace(area, golden_area(area).size).first;
  return at->second;
}

const Bytes& started(const std::string& area) {
  static std::map<std::string, Bytes> images;
  Bytes& bytes = images[area];
  if (bytes.empty()) {
    Image image = golden_area(area).emptied();
    golden_area(area).number(image);
    bytes.assign(image.data(), image.data() + image.size());
  }
  return bytes;
}

const Bytes& hostile_block(Source& source, const std::string& area) {
  static std::map<std::string, Bytes> blocks;
  const AreaFacts& facts = golden_area(area);
  const uint8_t kind = source.byte();
  Bytes& block = blocks[area];
  switch (kind & 3) {
    case 0: block = started(area); break;
    case 1: block.assign(facts.size, source.byte()); break;
    default: {
      const Bytes pattern = source.bytes(1 + source.below(64));
      block.resize(facts.size);
      memcpy(&block[0], pattern.data(), pattern.size());
      for (size_t filled = pattern.size(); filled < facts.size; filled *= 2) {
        memcpy(&block[filled], &block[0], std::min(filled, facts.size - filled));
      }
    }
  }
  for (uint32_t patches = source.below(16); patches > 0; --patches) {
    size_t at = source.word() % facts.size;
    const uint32_t span = source.below(4);
    if (span < facts.locks.size()) { /* at the same place of records one after the other */
      const Span& records = facts.locks[span];
      at = records.offset + source.below(static_cast<uint32_t>(records.count)) * records.stride +
           source.half() % std::max<size_t>(records.stride, 1);
    }
    const size_t step = span < facts.locks.size() ? facts.locks[span].stride : 0;
    const Bytes patch = source.bytes(1 + source.below(200));
    for (uint32_t times = 1 + source.below(8); times > 0; --times, at += step) {
      for (size_t i = 0; i < patch.size() && at + i < block.size(); ++i) block[at + i] = patch[i];
    }
  }
  if (kind < 0xc0) {
    memcpy(block.data() + facts.path_at, facts.lock_path.c_str(), facts.lock_path.size() + 1);
  }
  return block;
}

/* ---- a list ---- */

namespace {

Model& kept_model() {
  static Model model;
  return model;
}

}  // namespace

Stage::Stage(uint32_t list)
    : row_(list_rows().at(list)),
      calls_(kListCalls[list]),
      areas_{row_.area},
      model_(kept_model()) {
  model_.forget();
  if (row_.name != calls_.list) found("rows and calls of %s differ in order", calls_.list);
  if (!row_.references.empty()) areas_.insert(areas_.end(), {"IpGroup", "TimeGroup"});
  if (row_.name == "UserIpGroup" || row_.name == "UserTimeGroup") {
    areas_.insert(areas_.end(), {"FwIpport", "FwMac", "FwUrl", "Qos"});
  }
  for (const std::string& area : areas_) set(area, started(area));
}

void Stage::set(const std::string& area, const Bytes& image) {
  block_of(area) = image;
  const char* path = block_of(area).as<char>() + golden_area(area).path_at;
  const int fd = open(path, O_RDWR);
  if (fd >= 0) {
    close(fd);
    model_.without_lock.erase(area);
  } else {
    model_.without_lock.insert(area);
  }
  model_.areas[area] = image;
}

Blocks Stage::blocks() {
  return blocks_at([](const char* area) { return block_of(area).data(); });
}

void Stage::same(const char* what, int64_t library, int64_t model) {
  if (library != model) {
    found("%s of %s: %lld, the model's %lld", what, calls_.list, static_cast<long long>(library),
          static_cast<long long>(model));
  }
}

void Stage::operate(uint32_t op, uint32_t position, Bytes record) {
  Exact exact(record);
  uint32_t at = position, model_at = position;
  same("result", calls_.operate(block_of(row_.area).data(), op, &at, exact.data()),
       model_.operate(row_, op, &model_at, record.data()));
  same("position", at, model_at);
}

void Stage::blank() { same("claim", calls_.blank(block_of(row_.area).data()), model_.blank(row_)); }

void Stage::check(Bytes record, uint32_t skip_slot) {
  if (calls_.check == nullptr) return;
  Exact exact(record);
  same("check", calls_.check(block_of(row_.area).data(), exact.data(), skip_slot),
       model_.check(row_, record.data(), skip_slot));
}

void Stage::add(Bytes item) {
  Exact exact(item);
  same("add", calls_.add(block_of(row_.area).data(), exact.data()), model_.add(row_, item.data()));
}

void Stage::modify(Bytes item) {
  Exact exact(item);
  same("modify", calls_.modify(block_of(row_.area).data(), exact.data()),
       model_.modify(row_, item.data()));
}

void Stage::get(uint32_t id) {
  if (calls_.get == nullptr) return;
  Exact item(row_.item_size);
  calls_.get(block_of(row_.area).data(), id, item.data());
  if (memcmp(item.data(), model_.get(row_, id).data(), item.size()) != 0) {
    found("item %u of %s", id, calls_.list);
  }
}

void Stage::get_list() {
  if (calls_.get_list == nullptr) return;
  Exact list(row_.list_size);
  calls_.get_list(block_of(row_.area).data(), blocks(), list.data());
  if (memcmp(list.data(), model_.get_list(row_).data(), list.size()) != 0) {
    found("listing of %s", calls_.list);
  }
}

void Stage::del(std::string ids) {
  Exact text(Bytes(ids.c_str(), ids.c_str() + ids.size() + 1));
  calls_.del(block_of(row_.area).data(), blocks(), text.as<char>());
  model_.del(row_, ids);
  if (memcmp(text.data(), ids.c_str(), text.size()) != 0) found("split of %s", calls_.list);
}

void Stage::del_by_group(int32_t id) {
  const Blocks all = blocks();
  for (const ReferenceRow& reference : row_.references) {
    const bool ip = reference.group == "ip";
    if (row_.name == "FireWall_IpPort") {
      (ip ? DelIpFilterItemByIpGroupId : DelIpFilterItemByTimeGroupId)(all.ip_filters, id);
    } else if (row_.name == "QosRule") {
      (ip ? DelQosItemByIpGroupId : DelQosItemByTimeGroupId)(all.qos_rules, id);
    } else if (row_.name == "FireWall_Mac") {
      DelMacFilterItemByTimeGroupId(all.mac_filters, id);
    } else {
      DelUrlFilterItemByTimeGroupId(all.url_filters, id);
    }
    model_.del_by_group(row_, reference.group, id);
  }
  if (row_.name == "UserIpGroup") {
    int32_t position = -1;
    const Bytes& groups = model_.areas[row_.area];
    for (uint32_t p = row_.capacity; p-- > 0;) {
      if (load_signed(groups.data() + row_.slot_of(p), 4) == id) position = static_cast<int32_t>(p);
    }
    same("index", GetIpGroupIndex(all.ip_groups, id), position);
  }
}

void Stage::del_all() {
  calls_.del_all(block_of(row_.area).data());
  model_.del_all(row_);
}

void Stage::step(Source& source) {
  const uint32_t size = row_.list_size == 0 ? row_.item_size : row_.stride;
  switch (source.below(10)) {
    case 0: return add(source.bytes(row_.item_size));
    case 1: return modify(source.bytes(row_.item_size));
    case 2: {
      const uint32_t op = source.number(), position = source.number();
      return operate(op, position, source.bytes(size));
    }
    case 3: {
      const uint32_t skip_slot = source.number();
      return check(source.bytes(size), skip_slot);
    }
    case 4: return blank();
    case 5: return get(source.number());
    case 6: return get_list();
    case 7: {
      const Bytes text = source.bytes(source.byte());
      return del(std::string(text.begin(), text.end()).c_str());
    }
    case 8: return del_by_group(static_cast<int32_t>(source.number()));
    default: return del_all();
  }
}

void Stage::read(Source& source) {
  get_list();
  for (const uint32_t id : {0u, 1u, row_.capacity, row_.capacity + 1, source.number()}) get(id);
  const uint32_t skip_slot = source.number();
  check(source.bytes(row_.list_size == 0 ? row_.item_size : row_.stride), skip_slot);
}

void Stage::compare_blocks() {
  for (const std::string& area : areas_) {
    const Bytes& expected = model_.areas[area];
    const uint8_t* actual = block_of(area).data();
    for (size_t i = 0; i < expected.size(); ++i) {
      if (actual[i] != expected[i]) {
        found("%s at %zu after steps on %s: %02x, the model's %02x", area.c_str(), i, calls_.list,
              actual[i], expected[i]);
      }
    }
  }
}

/* ---- the world ---- */

void set_up() {
  static bool mounted = false;
  if (mounted && umount2("/var", MNT_DETACH) < 0) found("umount /var: %s", strerror(errno));
  mounted = mount("tmpfs", "/var", "tmpfs", MS_NODEV, "mode=0755") == 0;
  for (const char* folder :
       {"/var/empty", "/var/lock_store", "/var/systemconfig", "/var/dataconfig"}) {
    mkdir(folder, 0755);
  }
  for (const AreaFacts& facts : golden_areas()) std::ofstream(facts.lock_path) << "\n";
  /* A hostile path without a slash is a name in here. */
  if (!mounted || chdir("/var/empty") < 0) found("no /var to work in: %s", strerror(errno));
}

void confine(const char* but_this_folder) {
  if (unshare(CLONE_NEWNS) < 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) {
    found("no mount namespace: %s", strerror(errno));
  }
  if (but_this_folder != nullptr &&
      mount(but_this_folder, but_this_folder, nullptr, MS_BIND, nullptr) < 0) {
    found("mount %s: %s", but_this_folder, strerror(errno));
  }
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, root, folder;
    fields >> id >> parent >> device >> root >> folder;
    if (but_this_folder != nullptr && folder == but_this_folder) continue;
    struct statvfs state;
    if (statvfs(folder.c_str(), &state) < 0) continue; /* hidden below another mount */
    const unsigned long kept = state.f_flag & (ST_NOSUID | ST_NODEV | ST_NOEXEC | ST_NOATIME |
                                               ST_NODIRATIME | ST_RELATIME);
    mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | kept, nullptr);
  }
  for (const char* folder : {"/", "/etc", "/usr", "/tmp", "/proc", "/sys"}) {
    if (access(folder, W_OK) == 0) found("%s can be written to: no place for archives", folder);
  }
  nowhere = open("/dev/null", O_WRONLY);
  if (nowhere < 0) found("/dev/null: %s", strerror(errno));
  set_up();
}

/* What is printed goes nowhere, but for what the sanitizers report. */
class Silence {
 public:
  Silence() {
    fflush(stdout);
    for (int n = 0; n < 2; ++n) {
      kept_[n] = dup(n + 1);
      dup2(nowhere, n + 1);
    }
    report_to(kept_[1]);
  }
  ~Silence() {
    fflush(stdout);
    for (int n = 0; n < 2; ++n) {
      dup2(kept_[n], n + 1);
      close(kept_[n]);
    }
    report_to(STDERR_FILENO);
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  static void report_to(int fd) {
    report = fd;
    if (__sanitizer_set_report_fd != nullptr) {
      __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(fd)));
    }
  }
  int kept_[2];
};

void run(const char* harness, const uint8_t* bytes, size_t size) {
  for (const Harness& known : kHarnesses) {
    if (strcmp(known.name, harness) != 0) continue;
    Source source(bytes, size);
    const Silence silence;
    running = true;
    on_command = [](const char*) { return 0; };
    known.run(source);
    running = false;
    return;
  }
  found("no harness %s", harness);
}

int really_run(const char* command) {
  const int kept = dup(STDERR_FILENO);
  dup2(nowhere, STDERR_FILENO);
  running = false;
  const int status = system(command);
  running = true;
  dup2(kept, STDERR_FILENO);
  close(kept);
  return status;
}

}  // namespace sc_fuzz

/* The library's way out of the process. */
#include <dlfcn.h>

extern "C" {

int system(const char* command) {
  static const auto next = reinterpret_cast<decltype(&system)>(dlsym(RTLD_NEXT, "system"));
  return sc_fuzz::running ? sc_fuzz::on_command(command) : next(command);
}

int connect(int, const sockaddr*, socklen_t) { return 0; }

ssize_t send(int, const void*, size_t size, int) { return static_cast<ssize_t>(size); }
}
