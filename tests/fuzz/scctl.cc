/* Hostile bytes for scctl, whose commands are run as functions: whole corrupt blocks under every
 * command that looks, live and as images; any text as the file of an import, as an overlay, as a
 * batch, as what an editor leaves and as values; corrupt files that earlier calls have kept. The
 * blocks are segments in a world of their own. */
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <vector>

#include "fuzz/harness.h"
#include "scctl/commands.h"
#include "scctl/state.h"
#include "scctl/words.h"
#include "store/checkpoint.h"
#include "store/edit.h"
#include "store/journal.h"
#include "store/kept.h"
#include "store/overlay.h"
#include "store/value.h"
#include "support/areas.h"

namespace sc_fuzz {

namespace {

using namespace sc_test;
using Words = std::vector<std::string>;

constexpr char kInput[] = "/var/empty/input";
constexpr char kImage[] = "/var/empty/image.cfg";

/* The live segments, made by the first input. */
uint8_t* live(const std::string& area) {
  static std::map<std::string, uint8_t*> blocks;
  if (blocks.empty()) {
    if (unshare(CLONE_NEWIPC) < 0) found("no IPC namespace");
    for (const AreaCalls& calls : all_areas()) {
      if (calls.init(0) != 0) found("%s cannot be made", calls.name);
      blocks[calls.name] = block_at(calls.get());
    }
  }
  return blocks.at(area);
}

void start_all() {
  for (const AreaFacts& facts : golden_areas()) {
    memcpy(live(facts.name), started(facts.name).data(), facts.size);
  }
}

void write_file(const char* path, const void* bytes, size_t size) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  file.close();
  if (!file) found("%s cannot be written", path);
}

/* Ends well or says why not, by one of its exit statuses. */
int run_command(const Words& words) {
  std::vector<std::vector<char>> copies;
  std::vector<char*> pointers;
  for (const std::string& word : words) {
    copies.emplace_back(word.c_str(), word.c_str() + word.size() + 1);
  }
  for (std::vector<char>& copy : copies) pointers.push_back(copy.data());
  pointers.push_back(nullptr);
  const int status = scctl::run_words(static_cast<int>(words.size()), pointers.data());
  if (status < store::kOk || status > store::kNoArea) found("%s: %d", words[0].c_str(), status);
  return status;
}

const store::Table& any_table(Source& source, const std::string& area) {
  std::vector<const store::Table*> tables;
  for (const store::Table& table : store::kTables) {
    if (area.empty() || store::kAreas[table.area].name == area) tables.push_back(&table);
  }
  if (tables.empty()) return store::kTables[0];
  return *tables[source.below(static_cast<uint32_t>(tables.size()))];
}

/* A value as it stands in the block, so that some record is found by it. */
std::string value_of(const store::Table& table, const store::Field& field, const uint8_t* record) {
  store::Text text;
  store::format(field, record, &text);
  return table.begin() == &field ? text.c_str() : "x";
}

void look(Source& source, const std::string& area, const uint8_t* block, bool as_image) {
  const store::Table& table = any_table(source, area);
  const std::string name = table.name;
  const uint32_t id = 1 + source.below(table.capacity);
  const store::Field& field = table.fields[source.below(table.field_count)];
  const std::string of_field = std::string(".") + field.name;
  const bool of_area = store::kAreas[table.area].name == area;
  const uint8_t* record = block + table.at + (id - 1) * table.stride;
  const std::string sought = of_area ? value_of(table, field, record) : "1";

  std::vector<Words> commands = {
      {"list", name},
      {"list", name, "--json"},
      {"list", name, "--commands"},
      {"get", name + "/" + std::to_string(id)},
      {"get", name + "/" + std::to_string(id), "--json"},
      {"get", name + "/" + std::to_string(id) + of_field},
      {"find", name, std::string(field.name) + "=" + sought},
      {"dump", area},
      {"check", area},
      {"export", area},
  };
  if (as_image) {
    for (Words& words : commands) words.insert(words.end(), {"--image", kImage});
    commands.push_back({"diff", kImage, "live"});
    commands.push_back({"check", "--image", kImage});
  } else {
    commands.push_back({"areas"});
    commands.push_back({"locks"});
    commands.push_back({"check", "--json"});
    commands.push_back({"repair", area, "--dry-run"});
  }
  for (int times = 0; times < 3; ++times) {
    run_command(commands[source.below(static_cast<uint32_t>(commands.size()))]);
  }
}

}  // namespace

void run_scctl_block(Source& source) {
  const AreaFacts& facts =
      golden_areas()[source.below(static_cast<uint32_t>(golden_areas().size()))];
  start_all();
  const bool as_image = source.byte() % 2 == 0;
  const Bytes& block = hostile_block(source, facts.name);
  if (as_image) {
    write_file(kImage, block.data(), block.size());
  } else {
    memcpy(live(facts.name), block.data(), block.size());
  }
  look(source, facts.name, block.data(), as_image);
}

void run_scctl_import(Source& source) {
  start_all();
  const uint8_t kind = source.byte();
  const Bytes text = source.rest();
  write_file(kInput, text.data(), text.size());
  Words words = {"import", kInput};
  if (kind % 2 == 0) words.push_back("--dry-run");
  if (run_command(words) != store::kOk || kind % 2 == 0) return;
  /* What was imported once is there. */
  std::map<std::string, Bytes> before;
  for (const AreaFacts& facts : golden_areas()) {
    before[facts.name] = Bytes(live(facts.name), live(facts.name) + facts.size);
  }
  if (run_command(words) != store::kOk) found("a second import is refused");
  for (const auto& [area, bytes] : before) {
    if (memcmp(live(area), bytes.data(), bytes.size()) != 0)
      found("a second import changed %s", area.c_str());
  }
}

/* An overlay, and contents of WAN sections, which come back from what is shown of them. */
void run_scctl_overlay(Source& source) {
  const Bytes contents = source.bytes(source.half() % 1024);
  const Bytes text = source.rest();
  write_file(kImage, text.data(), text.size());
  const store::Table& table = *store::find_table("wan", 3);
  uint8_t* wan = live("Wan");
  memcpy(wan, started("Wan").data(), started("Wan").size());
  for (size_t n = 0; n < contents.size(); ++n) wan[140 + n % 956 + 960 * (n / 956)] = contents[n];
  const Bytes expected(wan, wan + 4476);
  std::string file = "{\"Wan\": {\"wan\": [";
  {
    store::Overlays overlays;
    if (overlays.load(kImage) != store::kOk) {
      if (run_command({"get", "wan/1", "--overlay", kImage}) != store::kRefused) {
        found("a bad overlay is used");
      }
      return;
    }
    store::g_overlays = overlays.empty() ? nullptr : &overlays;
    store::g_shows_secrets = true;
    for (uint32_t position = 0; position < table.capacity; ++position) {
      const uint8_t* record = wan + table.at + position * table.stride;
      store::Text json;
      store::JsonWriter writer(&json);
      scctl::write_json_record(store::view_of(table, position, record), position + 1, record, true,
                               &writer);
      file += (position > 0 ? "," : "") + std::string(json.c_str());
    }
    store::g_overlays = nullptr;
    store::g_shows_secrets = false;
  }
  file += "]}}";
  write_file(kInput, file.data(), file.size());
  for (const Words& words : {Words{"list", "wan"},
                             {"get", "wan/1"},
                             {"dump", "Wan"},
                             {"schema"},
                             {"fields", "wan"},
                             {"overlay", "cover", "Wan"},
                             {"list", "wan", "--commands"}}) {
    Words with = words;
    with.insert(with.end(), {"--overlay", kImage});
    run_command(with);
  }
  memcpy(wan, started("Wan").data(), expected.size());
  /* Conditions that depend on each other in a circle may be refused. */
  if (run_command({"import", kInput, "--overlay", kImage}) != store::kOk) return;
  if (memcmp(wan, expected.data(), expected.size()) != 0) found("an import lost bytes");
}

/* What an editor leaves of a record's text, at the first look and at the second. */
void run_scctl_edit(Source& source) {
  const store::Table& table = any_table(source, "");
  const Bytes record = source.bytes(source.half() % 1024);
  const Bytes text = source.rest();
  const std::string area = store::kAreas[table.area].name;
  memcpy(live(area), started(area).data(), started(area).size());
  memcpy(live(area) + table.at, record.data(), std::min<size_t>(record.size(), table.stride));
  write_file(kInput, text.data(), text.size());
  /* The editor works without a shell, which would be most of an input's time. */
  size_t left = text.size();
  on_command = [&](const char*) {
    write_file(getenv("SCCTL_EDIT"), text.data(), left);
    left /= 2;
    return 0;
  };
  setenv("TMPDIR", "/var/empty", 1);
  if (run_command({"edit", std::string(table.name) + "/1"}) != store::kOk) {
    unlink(getenv("SCCTL_EDIT")); /* where what was typed is kept */
  }
}

namespace {

/* The log: chunks, mostly whole ones of records and fields that exist. */
Bytes any_log(Source& source) {
  store::Text log;
  while (!source.empty() && log.size() < 4096) {
    const store::Table& table = any_table(source, "");
    const uint8_t kind = source.byte();
    const uint32_t entry = 1 + source.below(4), position = source.below(table.capacity);
    const uint16_t program = source.byte() % 4 == 0 ? 1 : 0;
    const size_t start = log.size();
    if (kind % 4 == 1) {
      const Bytes record = source.bytes(table.stride);
      Exact before(record), after(record);
      store::Mask mask(table);
      for (uint32_t times = source.below(4); times > 0; --times) {
        const store::Field& field = table.fields[source.below(table.field_count)];
        after.data()[field.record_at] ^= source.byte();
        mask.add(field);
      }
      store::pack_step({table, position, before.data(), after.data(),
                        kind < 0x80 ? mask.bytes() : nullptr, kind % 8 < 4, kind % 16 < 8},
                       entry, &log, program);
    } else {
      const Bytes payload = source.bytes(sizeof(scctl::Author) + source.below(64));
      store::pack(static_cast<store::ChunkKind>(kind % 4), entry, payload.data(), payload.size(),
                  &log, program);
    }
    if (source.byte() >= 0xc0) { /* another head or other runs */
      const size_t at = start + source.half() % (log.size() - start);
      log.data()[at] = static_cast<char>(source.byte());
    }
  }
  return Bytes(log.c_str(), log.c_str() + log.size());
}

/* The manifest of a checkpoint, mostly with a sum that is right. */
Bytes any_manifest(Source& source) {
  const bool is_summed = source.byte() < 0xf0;
  Bytes text = source.rest();
  char end[32];
  const int size =
      snprintf(end, sizeof end, store::kManifestEnd, store::sum_of(text.data(), text.size()));
  if (is_summed) text.insert(text.end(), end, end + size);
  return text;
}

}  // namespace

void run_scctl_state(Source& source) {
  const std::string state = scctl::kStateFolder, flash = store::kArchiveFolder;
  const std::string checkpoints = store::kCheckpoints;
  for (const std::string& folder : {state, checkpoints, checkpoints + "/a"}) {
    mkdir(folder.c_str(), 0700);
  }
  start_all();
  const uint8_t kind = source.byte();
  if (kind < 0x20) {
    const Bytes marker = source.rest();
    write_file((flash + "/try").c_str(), marker.data(), marker.size());
    const int folder = open(flash.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    store::Marker first, second;
    if (store::read_marker(folder, &first) == store::MarkerState::kThere) {
      if (!store::write_marker(folder, first) ||
          store::read_marker(folder, &second) != store::MarkerState::kThere ||
          memcmp(&first, &second, sizeof first) != 0) {
        found("a marker does not come back");
      }
    }
    store::remove_marker(folder);
    close(folder);
  } else if (kind < 0x40) {
    const Bytes manifest = any_manifest(source);
    write_file((checkpoints + "/a/manifest").c_str(), manifest.data(), manifest.size());
    run_command({"checkpoints"});
    run_command({"rollback", "a", "--dry-run"});
  } else {
    const Bytes log = any_log(source);
    write_file((state + (kind < 0x60 ? "/waiting" : "/log")).c_str(), log.data(), log.size());
    if (kind < 0x60) run_command({"revert"});
    run_command({"log"});
    run_command({"log", "--all", "--json"});
    run_command({"undo", "--entry", "3"});
    run_command({"undo", "2"});
  }
}

void run_scctl_batch(Source& source) {
  const Bytes bytes = source.rest();
  const std::string text(bytes.begin(), bytes.end());
  /* What would not end, would start programs, or would look at the machine. */
  for (const char* refused : {"watch", "in-place", "exec", "archive", "save", "restore", "remove",
                              "dev", "proc", "sys", "diff", "import"}) {
    if (text.find(refused) != std::string::npos) return;
  }
  start_all();
  write_file(kInput, text.data(), text.size());
  run_command({"batch", kInput});
}

namespace {

/* What --commands prints of a field is one word of a line, and gives the same bytes. */
void expect_same_as_word(const store::Table& table, const store::Field& field, Exact& record,
                         bool checked) {
  store::Text line;
  store::format_assignment(field, record.data(), checked, &line);
  scctl::Words words;
  const std::string printed = line.c_str();
  if (!words.split(line.data()) || words.count() != 1) found("no word: %s", printed.c_str());
  Exact again(Bytes(table.stride, 0));
  const store::Field* named = nullptr;
  if (scctl::parse_assignment(table, words.words()[0], again.data(), &named, nullptr) !=
          store::kOk ||
      named != &field) {
    found("refused: %s.%s", table.name, printed.c_str());
  }
  if (!store::equal(field, record.data(), again.data())) found("another: %s", printed.c_str());
}

}  // namespace

void run_scctl_value(Source& source) {
  const store::Table& table = any_table(source, "");
  const store::Field& field = table.fields[source.below(table.field_count)];
  Exact record(Bytes(table.stride, 0)), again(Bytes(table.stride, 0));
  const bool typed = source.byte() % 2 == 0;
  Bytes bytes = source.rest();
  const size_t length = bytes.size();
  bytes.push_back(0); /* texts have an end, and may have zeros before it */
  Exact text(bytes);
  const auto parse = [&](const char* from, size_t size, store::Origin origin, Exact& to) {
    return store::parse(table, field, from, size, origin, to.data());
  };
  const int status = parse(text.as<char>(), length,
                           typed ? store::Origin::kTyped : store::Origin::kCopied, record);
  if (status != store::kOk && status != store::kRefused) found("status %d", status);
  /* What stands behind a text's first zero is not shown. */
  if (status == store::kOk && strlen(text.as<char>()) == length) {
    store::Text shown;
    store::format(field, record.data(), &shown);
    if (parse(shown.c_str(), shown.size(), store::Origin::kCopied, again) != store::kOk) {
      found("%s.%s: what is shown is refused", table.name, field.name);
    }
    if (!store::equal(field, record.data(), again.data())) {
      found("%s.%s: what is shown is another value", table.name, field.name);
    }
  }
  /* The text as the record's own bytes, to be shown in every way. */
  const size_t size = std::min<size_t>(length, field.size);
  memcpy(record.data() + field.record_at, text.data(), size);
  store::Text shown;
  store::format(field, record.data(), &shown);
  store::format_shown(field, record.data(), &shown);
  for (const bool whole : {false, true}) {
    store::format_part(field, record.data(), whole, &shown);
    store::format_json(field, record.data(), whole, &shown);
    expect_same_as_word(table, field, record, whole);
  }
}

}  // namespace sc_fuzz
