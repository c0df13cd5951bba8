/* scctl: sees and edits the live configuration, a saved image or an archive with one grammar.
 * The rows of the commands, options, help, and what the commands have in common.
 */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "commands.h"
#include "edit.h"
#include "in_place.h"
#include "value.h"

namespace scctl {

constexpr uint16_t kChanges = kSources | kInPlace;

/* In the order of the help. */
// clang-format off
constexpr Command kCommands[] = {
  {"tables", "", "the tables",
   "Each table with its area, how many records it has room for and how large one\n"
   "is.\n",
   kJson, 0, 0, run_tables},
  {"fields", "TABLE", "the fields of a table",
   "Each field with its kind, its size, where it lies in a record and what it is\n"
   "called there, and where it lies in the item that the library takes.\n",
   kJson, 1, 1, run_fields},
  {"areas", "", "the areas",
   "Key, size, how many processes have it attached, used records, age of the\n"
   "archive and whether it is good.\n",
   kJson, 0, 0, run_areas},
  {"list", "TABLE", "the used records of a table",
   "What does not fit into 80 columns, and large fields, are left out; see scctl get.\n",
   kJson | kCommandsOption | kSources, 1, 1, run_list},
  {"get", "TABLE/ID[.FIELD]", "one record, or one field of it",
   "A field is printed as it is, alone on its line; bytes in hex without the\n"
   "zeros at the end.\n",
   kJson | kCommandsOption | kSources, 1, 1, run_get},
  {"find", "TABLE FIELD=VALUE", "the records that have a value",
   "MAC addresses as text are compared without case. Exit status 1 when there is\n"
   "none.\n",
   kJson | kCommandsOption | kSources, 2, 2, run_find},
  {"dump", "AREA", "an area's bytes with their names",
   "Of records the used ones alone; lines of zeros are counted.\n",
   kSources, 1, 1, run_dump},
  {"add", "TABLE[/ID] FIELD=VALUE...", "add a record",
   "It becomes the lowest free record, or the one of the ID. Other fields are\n"
   "zero. Prints its id.\n",
   kChanges, 2, -1, run_add},
  {"set", "TABLE/ID FIELD=VALUE...", "change fields of a record",
   "Other fields stay.\n",
   kChanges, 2, -1, run_set},
  {"del", "TABLE/ID...", "delete records",
   "With a group go the rules that refer to it, with a template its binding. All\n"
   "records must be used, or none is deleted. A file holds one area: from it\n"
   "groups and templates are not deleted.\n",
   kChanges, 1, -1, run_del},
  {"clear", "TABLE", "delete all records of a table",
   "Rules that refer to groups stay.\n",
   kChanges, 1, 1, run_clear},
  {"bind", "ap_templates/ID aps/ID", "bind an access point to a template",
   "",
   0, 2, 2, run_bind},
  {"unbind", "ap_templates/ID", "undo a binding",
   "",
   0, 1, 1, run_unbind},
  {"batch", "[FILE]", "run commands from a file or standard input",
   "A command a line, with or without scctl in front, quoted as for a shell; #\n"
   "begins a comment. Stops at the first that fails, says its line and how many\n"
   "were done. A file is changed when all were done, or not at all.\n",
   kChanges | kInput, 0, 1, run_batch},
  {"init", "AREA...", "make or empty areas and load their archives",
   "For the start, before others work on the area: it takes no lock.\n",
   kAll, 0, -1, run_init},
  {"save", "AREA...", "save areas to their archives",
   "Reads the archive back to see that it is good.\n",
   kAll, 0, -1, run_save},
  {"restore", "AREA...", "load areas from their archives and announce them",
   "A broken archive is refused. Loading takes no lock: a write at the same time\n"
   "is lost.\n",
   kAll, 0, -1, run_restore},
  {"remove", "AREA...", "remove the segments of areas",
   "Programs that have one attached keep it until they end.\n",
   kAll, 0, -1, run_remove},
  {"notify", "AREA...", "tell the configuration daemon that areas changed",
   "",
   kAll, 0, -1, run_notify},
  {"lease", "save|restore [clients|aps]", "copy the DHCP lease files to flash or back",
   "",
   0, 1, 2, run_lease},
  {"export", "[AREA...]", "print areas as JSON",
   "All that are there, when none is named. Bytes are hex without the zeros at\n"
   "the end; bytes of texts that are no UTF-8 are \\udc80 to \\udcff.\n",
   kSources, 0, -1, run_export},
  {"import", "FILE", "make tables what a file of export says",
   "Each table of the file becomes exactly that, ids included; others are left\n"
   "alone. All of the file is checked before anything is written. - is standard\n"
   "input.\n",
   kDryRun | kChanges | kInput, 1, 1, run_import},
  {"diff", "[A B]", "compare two sources field by field",
   "A and B are images, archives, live or saved; without them, saved is compared\n"
   "with live. Exit status 1 when they differ.\n",
   0, 0, 2, run_diff},
  {"check", "[AREA...]", "look for damage",
   "Header, lock and id words, counters, duplicates, references to groups that\n"
   "are not there, archives; each finding with its remedy. Exit status 1 when\n"
   "there is one.\n",
   kSources, 0, -1, run_check},
  {"repair", "AREA...", "mend damage in place",
   "Mends headers, lock and id words and counters under the locks; every record\n"
   "stays. Records with the same key are named, for you to choose from. Exit\n"
   "status 1 when something is left.\n",
   kAll | kDryRun | kChanges, 0, -1, run_repair},
  {"locks", "", "who holds or waits for which record",
   "From the kernel's table: a state of holds, waits or reads, process and\n"
   "program.\n",
   kJson, 0, 0, run_locks},
  {"watch", "[AREA...]", "print each change as it happens",
   "By the notification socket when no daemon has it, else once a second. The\n"
   "command of --exec is run with the area's name as $1. Ends on SIGINT,\n"
   "SIGTERM and SIGHUP.\n",
   kExec | kCount, 0, -1, run_watch},
  {"completion", "", "print the completion for bash",
   "",
   0, 0, 0, run_completion},
};
// clang-format on

namespace {

struct OptionRow {
  const char* name;
  Option option;
  bool has_value;
  const char* help;
};

// clang-format off
constexpr OptionRow kOptions[] = {
  {"--json",     kJson,           false, "--json          as JSON"},
  {"--commands", kCommandsOption, false, "--commands      as commands that make the same records"},
  {"--all",      kAll,            false, "--all           all areas"},
  {"--dry-run",  kDryRun,         false, "--dry-run       say what would change, change nothing"},
  {"--image",    kImage,          true,  "--image FILE    a .cfg image, not the live area"},
  {"--archive",  kArchive,        true,  "--archive FILE  a .bin archive, not the live area"},
  {"--in-place", kInPlace,        false, "--in-place      change that file"},
  {"--exec",     kExec,           true,  "--exec COMMAND  run a shell command after each change"},
  {"--count",    kCount,          true,  "--count N       end after N changes"},
};
// clang-format on

constexpr int8_t kAny = -1;

int usage(const Command& command) {
  const bool blank = command.arguments[0] != '\0';
  return fail(kUsage, "usage: scctl %s%s%s", command.name, blank ? " " : "", command.arguments);
}

void print_command_help(const Command& command) {
  printf("usage: scctl %s%s%s\n\n", command.name, command.arguments[0] != '\0' ? " " : "",
         command.arguments);
  printf("%c%s.\n%s", toupper(command.summary[0]), command.summary + 1, command.details);
  if (command.options == 0) return;
  puts("\noptions:");
  for (const OptionRow& row : kOptions) {
    if ((command.options & row.option) != 0) printf("  %s\n", row.help);
  }
}

void print_help() {
  puts(
      "usage: scctl COMMAND [ARGUMENT]... [OPTION]...\n\n"
      "Sees and edits the live configuration, a saved image or an archive.\n"
      "Records are named TABLE/ID, fields of them TABLE/ID.FIELD.\n\ncommands:");
  for (const Command& command : kCommands) printf("  %-10s  %s\n", command.name, command.summary);
  puts(
      "\nscctl COMMAND --help tells more. Exit status: 0 done; 1 refused, found or different;\n"
      "2 wrong usage; 3 no area, no file or no permission.");
}

const Command* find_command(const char* name) {
  for (const Command& command : kCommands) {
    if (strcmp(command.name, name) == 0) return &command;
  }
  return nullptr;
}

/* Takes the options out of the words. */
int parse_options(const Command& command, int count, char** words, Call* call) {
  bool ended = false;
  for (int n = 0; n < count; ++n) {
    char* word = words[n];
    if (ended || strncmp(word, "--", 2) != 0) {
      call->words[call->word_count++] = word;
      continue;
    }
    if (word[2] == '\0') {
      ended = true;
      continue;
    }
    const OptionRow* option = nullptr;
    for (const OptionRow& row : kOptions) {
      if ((command.options & row.option) != 0 && strcmp(row.name, word) == 0) option = &row;
    }
    if (option == nullptr) {
      return fail(kUsage, "%s has no option %s; scctl %s --help tells more", command.name, word,
                  command.name);
    }
    call->options = static_cast<uint16_t>(call->options | option->option);
    if (!option->has_value) continue;
    if (++n == count) return fail(kUsage, "%s needs a value", word);
    switch (option->option) {
      case kImage: call->image = words[n]; break;
      case kArchive: call->archive = words[n]; break;
      case kExec: call->exec = words[n]; break;
      default: {
        char* rest;
        const unsigned long value = strtoul(words[n], &rest, 10);
        if (value == 0 || value > INT32_MAX || *rest != '\0') {
          return fail(kUsage, "%s: '%s' is no number above 0", word, words[n]);
        }
        call->count = static_cast<uint32_t>(value);
      }
    }
  }
  return kOk;
}

int open_input(Call* call) {
  const bool standard = call->word_count == 0 || strcmp(call->words[0], "-") == 0;
  call->input_name = standard ? "stdin" : call->words[0];
  call->input = standard ? stdin : fopen(call->input_name, "rbe");
  return call->input != nullptr ? kOk : fail(kNoArea, "%s: %s", call->input_name, strerror(errno));
}

/* Which of the options go together, and with the command. */
int check_sources(const Command& command, const Call& call) {
  if (call.has(kImage) && call.has(kArchive)) {
    return fail(kUsage, "--image and --archive exclude each other");
  }
  const bool file = (call.options & kSources) != 0;
  if (call.has(kInPlace) && !file) return fail(kUsage, "--in-place needs --image or --archive");
  if (file && (command.options & kInPlace) != 0 && !call.has(kInPlace) && !call.has(kDryRun)) {
    return fail(kUsage, "%s would change the file, which is read-only without --in-place",
                command.name);
  }
  if (g_file == nullptr) return kOk;
  if ((command.options & kSources) == 0 || (command.options & kInput) != 0) {
    return fail(kUsage, "%s does not work on a file", command.name);
  }
  return file ? fail(kUsage, "the batch works on %s already", g_file) : kOk;
}

int open_source(Call* call) {
  if (call->has(kImage)) return call->source.open_image(call->image);
  if (call->has(kArchive)) return call->source.open_archive(call->archive);
  call->source.open_live();
  return kOk;
}

}  // namespace

int run_words(int word_count, char** words) {
  const Command* command = find_command(words[0]);
  if (command == nullptr) {
    Nearest nearest(words[0], strlen(words[0]));
    for (const Command& known : kCommands) nearest.offer(known.name);
    return fail(kUsage, "unknown command '%s'; the nearest is %s", words[0], nearest.name());
  }
  for (int n = 1; n < word_count && strcmp(words[n], "--") != 0; ++n) {
    if (strcmp(words[n], "--help") != 0) continue;
    print_command_help(*command);
    return kOk;
  }
  Call call = {};
  Buffer kept(static_cast<size_t>(word_count) * sizeof(char*));
  call.words = reinterpret_cast<char**>(kept.data());
  if (const int status = parse_options(*command, word_count - 1, words + 1, &call); status != kOk) {
    return status;
  }
  if (call.word_count < command->least ||
      (command->most != kAny && call.word_count > command->most)) {
    return usage(*command);
  }
  if (const int status = check_sources(*command, call); status != kOk) return status;
  if ((command->options & kInput) != 0) {
    if (const int status = open_input(&call); status != kOk) return status;
  }
  if (call.has(kInPlace) && !call.has(kDryRun)) return run_in_place(call, command->run);
  if (const int status = open_source(&call); status != kOk) return status;
  const int status = command->run(call);
  end_if_interrupted();
  return status;
}

int flush_output() {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return kOk;
  return fail(kRefused, "standard output: the text could not be written");
}

/* ---- completion ---- */

/* Commands, then what their first word is: a table, a record of one, or an area. */
int run_completion(Call&) {
  Text commands, tables, areas, of_tables, of_areas;
  for (const Command& command : kCommands) {
    commands.print(" %s", command.name);
    if (strncmp(command.arguments, "TABLE", 5) == 0) of_tables.print("|%s", command.name);
    if (strstr(command.arguments, "AREA") != nullptr) of_areas.print("|%s", command.name);
  }
  for (const Table& table : kTables) tables.print(" %s", table.name);
  for (const Area& area : kAreas) areas.print(" %s", area.name);
  printf(
      "_scctl() {\n"
      "  local words\n"
      "  if [[ $COMP_CWORD == 1 ]]; then\n"
      "    words='%s --help'\n"
      "  else\n"
      "    case ${COMP_WORDS[1]} in\n"
      "      %s) words='%s' ;;\n"
      "      %s) words='%s' ;;\n"
      "      *) return ;;\n"
      "    esac\n"
      "  fi\n"
      "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"${COMP_WORDS[COMP_CWORD]}\")\n"
      "}\n"
      "complete -o default -F _scctl scctl\n",
      commands.c_str() + 1, of_tables.c_str() + 1, tables.c_str() + 1, of_areas.c_str() + 1,
      areas.c_str() + 1);
  return kOk;
}

/* ---- the grammar ---- */

int unknown_field(const Table& table, const char* name, size_t length) {
  Nearest nearest(name, length);
  for (const Field& field : table) nearest.offer(field.name);
  return fail(kRefused, "%s has no field '%.*s'; the nearest is %s", table.name,
              static_cast<int>(length), name, nearest.name());
}

int parse_target(const char* text, Parts parts, Target* target) {
  const size_t length = strcspn(text, "/");
  target->table = find_table(text, length);
  target->id = 0;
  target->field = nullptr;
  if (target->table == nullptr) {
    Nearest nearest(text, length);
    for (const Table& table : kTables) nearest.offer(table.name);
    return fail(kRefused, "unknown table '%.*s'; the nearest is %s", static_cast<int>(length), text,
                nearest.name());
  }
  const Table& table = *target->table;
  if (text[length] == '\0') {
    if (parts == kTableAlone || parts == kMayHaveId) return kOk;
    return fail(kUsage, "'%s': which record? %s/1 to %s/%u", text, table.name, table.name,
                table.capacity);
  }
  if (parts == kTableAlone) return fail(kUsage, "'%s': the table's name alone, please", text);
  char* rest;
  const char* digits = text + length + 1;
  const unsigned long id = strtoul(digits, &rest, 10);
  if (rest == digits || *digits == '-' || *digits == '+' || (*rest != '\0' && *rest != '.')) {
    return fail(kUsage, "'%s': '%s' is no id", text, digits);
  }
  if (id == 0 || id > table.capacity) {
    return fail(kRefused, "%s: id %.*s is not within 1 to %u", table.name,
                static_cast<int>(rest - digits), digits, table.capacity);
  }
  target->id = static_cast<uint32_t>(id);
  if (*rest == '\0') return kOk;
  if (parts != kMayHaveField) return fail(kUsage, "'%s': a record without a field, please", text);
  target->field = find_field(table, rest + 1, strlen(rest + 1));
  return target->field != nullptr ? kOk : unknown_field(table, rest + 1, strlen(rest + 1));
}

int parse_assignment(const Table& table, const char* text, uint8_t* record, const Field** field) {
  const size_t length = strcspn(text, "=");
  if (text[length] == '\0') return fail(kUsage, "'%s' is no FIELD=VALUE", text);
  *field = find_field(table, text, length);
  if (*field == nullptr) return unknown_field(table, text, length);
  const char* value = text + length + 1;
  return parse(table, **field, value, strlen(value), Origin::kTyped, record);
}

int parse_area(const char* name, AreaId* id) {
  if (const Area* area = find_area(name); area != nullptr) {
    *id = id_of(*area);
    return kOk;
  }
  Nearest nearest(name, strlen(name));
  for (const Area& area : kAreas) nearest.offer(area.name);
  return fail(kRefused, "unknown area '%s'; the nearest is %s", name, nearest.name());
}

int parse_areas(const Call& call, bool none_is_all, bool* chosen) {
  const bool all = call.has(kAll) || (none_is_all && call.word_count == 0);
  if (all && call.word_count > 0) return fail(kUsage, "areas and --all exclude each other");
  if (!all && call.word_count == 0) return fail(kUsage, "which area? scctl areas lists them");
  for (int n = 0; n < kAreaCount; ++n) chosen[n] = all;
  for (int n = 0; n < call.word_count; ++n) {
    AreaId id = kAreaCount;
    if (const int status = parse_area(call.words[n], &id); status != kOk) return status;
    chosen[id] = true;
  }
  return kOk;
}

int fail_without_areas() { return fail(kNoArea, "no area is there; scctl init --all makes them"); }

int present_areas(Call& call, bool* chosen) {
  if (const int status = parse_areas(call, true, chosen); status != kOk) return status;
  bool any = false;
  for (int n = 0; n < kAreaCount; ++n) {
    const auto id = static_cast<AreaId>(n);
    if (!chosen[n]) continue;
    if (call.word_count == 0) {
      chosen[n] = call.source.block(id) != nullptr;
    } else if (const int status = call.source.need(id); status != kOk) {
      return status;
    }
    any |= chosen[n];
  }
  return any ? kOk : fail_without_areas();
}

}  // namespace scctl

int main(int argc, char** argv) {
  if (argc < 2) return scctl::fail(scctl::kUsage, "which command? scctl --help lists them");
  if (strcmp(argv[1], "--help") == 0) {
    scctl::print_help();
    return scctl::flush_output();
  }
  const int status = scctl::run_words(argc - 1, argv + 1);
  const int flushed = scctl::flush_output();
  return flushed == scctl::kOk ? status : flushed;
}
