/* try --status, and the try as a source of diff. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "changes.h"
#include "commands.h"
#include "try.h"

namespace scctl {

namespace {

int print_no_try(Call& call) {
  if (!open_state(false) && errno != ENOENT) return fail_state();
  if (call.has(kJson)) {
    puts("null");
    return kRefused;
  }
  puts(kNoTry);
  if (state_folder() < 0) return kRefused;
  Text ended;
  const Descriptor file(open_state_file("ended", O_RDONLY));
  if (file && read_file(file.number, &ended)) printf("the last one: %s", ended.c_str());
  Changes waiting;
  if (read_waiting(&waiting)) puts("these wait for scctl revert:");
  print_changes("  ", waiting);
  return kRefused;
}

const char* phase_name(Phase phase) {
  static constexpr const char* kNames[] = {"making", "made", "confirming", "reverting"};
  return kNames[static_cast<uint32_t>(phase) & 3];
}

}  // namespace

int run_status(Call& call) {
  Try running;
  if (!open_state(false) || !running.open()) return print_no_try(call);
  call.source.open_live();
  Changes changes, later;
  running.read_changes(call.source, &changes);
  find_later_changes(call.source, changes, &later);
  const TryHeader& header = running.header;
  if (call.has(kJson)) {
    Text text;
    JsonWriter writer(&text);
    writer.open('{', JsonWriter::kLines);
    write_author(header.author, &writer);
    writer.member("command", header.words);
    if (header.note[0] != '\0') writer.member("note", header.note);
    writer.member("phase", phase_name(header.phase));
    writer.member("left", running.left());
    writer.name("changes");
    write_changes(changes, &writer);
    writer.name("others");
    write_changes(later, &writer);
    writer.close();
    puts(text.c_str());
    return kOk;
  }
  Text line;
  line.add("a try of ");
  add_user(header.author.uid, &line);
  line.print(" (process %u) since ", header.author.pid);
  add_time(header.author.time, false, &line);
  line.print(", %s, %u s left: ", phase_name(header.phase), running.left());
  line.add(header.words);
  puts(line.c_str());
  if (header.is_command != 0) puts("whatever changes meanwhile is part of it");
  print_changes("  ", changes);
  if (!later.empty()) {
    puts("what others changed in these records since:");
    print_changes("  ", later);
  }
  return kOk;
}

namespace {

/* Lays the values of before over a record. */
void lay_over(const Change& change, uint8_t* record) {
  change.put(change.before, record);
  if (is_section(*change.table)) return;
  const int32_t id =
      change.was_used ? static_cast<int32_t>(change.position + 1) : change.table->free;
  memcpy(record + change.table->id_at, &id, sizeof id);
}

}  // namespace

int open_try(Source* source) {
  Try running;
  if (need_try(running) != kOk) return kNoArea; /* 1 means that two sources differ */
  Source live;
  live.open_live();
  Changes changes;
  running.read_changes(live, &changes);
  source->open_copy("try", changes.areas());
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    const Table& table = *change->table;
    uint8_t* block = source->block(table.area);
    if (block != nullptr) lay_over(*change, block + table.at + change->position * table.stride);
  }
  return kOk;
}

}  // namespace scctl
