/* scctl: shows and edits the live configuration, a saved image or an archive, with one grammar.
 * This file holds the rows of the commands, the options, the help, and what the commands share.
 */
#include <ctype.h>
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "commands.h"
#include "store/edit.h"
#include "in_place.h"
#include "try.h"
#include "store/streams.h"
#include "store/overlay.h"
#include "store/value.h"

namespace scctl {

constexpr uint32_t kChanges = kSources | kInPlace | kNote;
constexpr char kOverlayFolder[] = "/etc/sysconfig/overlays";

/* In the order of the help text. */
// clang-format off
constexpr Command kCommands[] = {
  {"tables", "", "list the tables",
   "Prints the area, the number of records and the record size of each table.\n",
   kJson, 0, 0, run_tables},
  {"fields", "TABLE", "list the fields of a table",
   "Prints the kind and size of each field, its offset and name in a record, and its\n"
   "offset in the item that the library takes.\n",
   kJson, 1, 1, run_fields},
  {"areas", "", "list the areas",
   "Prints key, size, number of attached processes, used records, age of the archive\n"
   "and whether it is good.\n",
   kJson, 0, 0, run_areas},
  {"list", "TABLE", "list the used records of a table",
   "Large fields, and fields that do not fit into 80 columns, are left out; see\n"
   "scctl get.\n",
   kJson | kCommandsOption | kSources, 1, 1, run_list},
  {"get", "TABLE/ID[.FIELD]", "print one record, or one field of it",
   "A field is printed unchanged, alone on its line; on a terminal its control\n"
   "characters are \\xHH. Bytes are hex without trailing zeros.\n",
   kJson | kCommandsOption | kSources, 1, 1, run_get},
  {"find", "TABLE FIELD=VALUE", "list the records that have a value",
   "Compares MAC addresses in texts by value, FIELD:hex=HEX byte by byte. Exit\n"
   "status 1 if there is no such record.\n",
   kJson | kCommandsOption | kSources, 2, 2, run_find},
  {"dump", "AREA", "print an area's bytes with their names",
   "Prints only used records, and a run of zero bytes as its length.\n",
   kSources, 1, 1, run_dump},
  {"add", "TABLE[/ID] FIELD=VALUE...", "add a record",
   "Uses the lowest free id, or the given ID, and prints it. Other fields are zero.\n"
   "FIELD:hex=HEX gives a text's bytes, unchecked.\n",
   kChanges, 2, -1, run_add},
  {"set", "TABLE/ID FIELD=VALUE...", "change fields of a record",
   "Other fields keep their values. FIELD:hex=HEX gives a text's bytes, unchecked.\n",
   kChanges, 2, -1, run_set},
  {"del", "TABLE/ID...", "delete records",
   "Deleting a group also deletes the rules that refer to it; deleting a template\n"
   "undoes its binding. All records must be used, or none is deleted. A file holds\n"
   "one area: groups and templates in it cannot be deleted.\n",
   kChanges, 1, -1, run_del},
  {"clear", "TABLE", "delete all records of a table",
   "Rules that refer to groups are kept.\n",
   kChanges, 1, 1, run_clear},
  {"edit", "TABLE/ID", "change a record in an editor",
   "Opens it as FIELD=VALUE lines in $VISUAL, $EDITOR or vi, again after an error, and\n"
   "when another program changed it. An empty or unchanged file gives up.\n",
   kNote, 1, 1, run_edit},
  {"reset", "TABLE/ID[.FIELD]", "set a record or a field to its factory value",
   "Takes it from the archives in /etc/sysconfig/factory. Creates a free record.\n"
   "Refuses a record that the factory does not have: del deletes it.\n",
   kFactory | kNote, 1, 1, run_reset},
  {"bind", "ap_templates/ID aps/ID", "bind an access point to a template",
   "",
   kNote, 2, 2, run_bind},
  {"unbind", "ap_templates/ID", "undo a binding",
   "",
   kNote, 1, 1, run_unbind},
  {"batch", "[FILE]", "run commands from a file or standard input",
   "Each line is a command, with or without scctl in front, quoted as for a shell.\n"
   "Quote what a shell would expand. # begins a comment. Stops at the first command\n"
   "that fails, and prints its line and the number of completed commands. A file is\n"
   "changed only if all commands succeed.\n",
   kChanges | kInput, 0, 1, run_batch},
  {"init", "AREA...", "create or empty areas and load their archives",
   "Takes no lock: use it at boot, before others work on the area. Exit status 1 if\n"
   "an archive is not good.\n",
   kAll, 0, -1, run_init},
  {"save", "AREA...", "save areas to their archives",
   "Reads the archive back to verify it. With --changed, leaves equal archives as\n"
   "they are, and prints how many were written.\n",
   kAll | kChanged, 0, -1, run_save},
  {"restore", "AREA...", "load areas from their archives and announce them",
   "Refuses a broken archive. Takes no lock of a record: concurrent changes are\n"
   "lost.\n",
   kAll, 0, -1, run_restore},
  {"remove", "AREA...", "remove the segments of areas",
   "Programs that have one attached keep it until they end.\n",
   kAll, 0, -1, run_remove},
  {"notify", "AREA...", "announce to the configuration daemon that areas changed",
   "",
   kAll, 0, -1, run_notify},
  {"lease", "save|restore [clients|aps]", "copy the DHCP lease files to flash or back",
   "",
   0, 1, 2, run_lease},
  {"export", "[AREA...]", "print areas as JSON",
   "Prints all existing areas if none is named. Bytes are hex without trailing\n"
   "zeros; bytes of texts that are invalid UTF-8 are \\udc80 to \\udcff. With\n"
   "--fields, prints a line for each field that is not zero.\n",
   kSources | kFields, 0, -1, run_export},
  {"import", "FILE", "replace tables by those of an export",
   "Each table of the file gets exactly the records in it, ids included. Other\n"
   "tables do not change. The whole file is checked before anything is written.\n"
   "- is standard input. null leaves a secret as it is.\n",
   kDryRun | kChanges | kInput | kRename, 1, 1, run_import},
  {"diff", "[A B]", "compare two sources field by field",
   "A and B are images, archives, live, saved, factory, checkpoint:NAME or try: the\n"
   "areas of a try as they were before it. Without them, compares saved with live.\n"
   "With A@OVERLAY and B@OVERLAY, compares by the names of each. With --commands,\n"
   "prints commands that turn A into B. Exit status 1 if they differ.\n",
   kCommandsOption | kFactory, 0, 2, run_diff},
  {"checkpoint", "NAME", "keep the present state of all areas under a name",
   "Copies all areas that can be saved, of one moment: nobody changes a record while\n"
   "it copies. If records stay locked for a second, it copies area by area, and says\n"
   "so. NAME has 1 to 31 of A-Z a-z 0-9 . _ - and no dot in front.\n",
   kDelete, 1, 1, run_checkpoint},
  {"checkpoints", "", "list the checkpoints",
   "Prints time, size on flash, who made it, the number of records that differ from\n"
   "live, and how it was copied, or why it cannot be used.\n",
   kJson, 0, 0, run_checkpoints},
  {"rollback", "NAME [AREA...]", "make areas equal to a checkpoint",
   "Changes all areas of the checkpoint if none is named. Writes only what differs;\n"
   "ids stay. Refuses a broken checkpoint. With --timeout it is a try.\n",
   kDryRun | kTimeout | kNote, 1, -1, run_rollback},
  {"check", "[AREA...]", "look for damage",
   "Checks header, lock and id words, counters, duplicates, archives, and references\n"
   "to groups that do not exist. Prints the remedies. Exit status 1 if there\n"
   "is a finding.\n",
   kSources, 0, -1, run_check},
  {"repair", "AREA...", "repair damage in place",
   "Repairs headers, lock and id words and counters under the locks. Every record is\n"
   "kept. Lists records with the same key: you choose which to delete. Exit status 1\n"
   "if something is left.\n",
   kAll | kDryRun | kChanges, 0, -1, run_repair},
  {"locks", "", "list the holders of record locks, and who waits for them",
   "Reads the kernel's table. Prints a state (holds, waits or reads), process and\n"
   "program.\n",
   kJson, 0, 0, run_locks},
  {"metrics", "", "print figures for Prometheus",
   "Tables, unsaved records, archives, lock holders, and saves by scctl.\n",
   0, 0, 0, run_metrics},
  {"watch", "[AREA...]", "print each change as it happens",
   "Prints a change at once if the writer used the area's lock file, as programs do;\n"
   "other changes, and areas that are loaded, within 5 s. Takes no lock, so no\n"
   "writer waits for it. Runs the command of --exec with the area's name as $1.\n"
   "--json prints an object on each line; --journal, a service, logs what other\n"
   "programs change. Ends on SIGINT, SIGTERM and SIGHUP.\n",
   kExec | kCount | kJson | kJournalOption, 0, -1, run_watch},
  {"try", "[--timeout SECONDS] batch FILE|import FILE|-- COMMAND...",
   "make a change that is taken back unless it is confirmed",
   "Takes the change back after 90 seconds or the given time, 1 to 86400, field by\n"
   "field: what others changed since stays. If it fails, takes it back at once and\n"
   "ends with its status. A power cut takes it back, too. try --timeout SECONDS\n"
   "alone gives the running try that much time from now. --status describes it; exit\n"
   "status 1 if none runs.\n",
   kTimeout | kStatus | kJson, 0, -1, run_try},
  {"confirm", "", "keep the change of a try",
   "Saves the areas that it changed, all of them or none. Lists other changes in\n"
   "these areas that nobody saved: they are saved, too. Exit status 1 if no try\n"
   "runs, or it is too late.\n",
   kOnlyMine, 0, 0, run_confirm},
  {"revert", "", "take back the change of a try now",
   "Prints what stays because others changed it since, and which deleted records\n"
   "wait because their ids are used. When no try runs, tries again for these. Exit\n"
   "status 1 if there is nothing to take back, or other programs prevent it.\n",
   0, 0, 0, run_revert},
  {"log", "", "list the edits by scctl since the boot, newest first",
   "The log is in memory and has 64 KB: the oldest edits make room. An edit that\n"
   "does not fit, and one of whole areas, cannot be undone. --all adds what\n"
   "other programs changed, from scctl watch --journal.\n",
   kJson | kEverybody, 0, 0, run_log},
  {"undo", "[N]", "take back the last edit, or the last N",
   "Takes back field by field what is still as the edit left it, and prints the\n"
   "rest, which stays. It is an edit itself: a second undo takes back the first.\n"
   "--entry takes back one entry of scctl log --all. Exit status 1 if something\n"
   "stays.\n",
   kNote | kEntry, 0, 1, run_undo},
  {"overlay", "import OBJECT --at PLACE=STRUCT...|cover [AREA...]",
   "name the members of opaque bytes",
   "import reads the debug information of an object file, and prints an overlay: the\n"
   "names of a struct's members for AREA.MEMBER[/ID].FIELD. cover lists the bytes\n"
   "that are not zero and have no name; exit status 1 if there are any.\n",
   kSources, 1, -1, run_overlay},
  {"schema", "", "print the JSON Schema of an export",
   "Of draft 7, with the members of the overlays.\n",
   0, 0, 0, run_schema},
  {"completion", "[bash|zsh|fish]", "print the completion for a shell",
   "",
   0, 0, -1, run_completion},
  {"help", "[COMMAND]", "list the commands, or describe one",
   "",
   0, 0, 1, run_help},
};
// clang-format on

namespace {

// clang-format off
constexpr OptionRow kOptions[] = {
  {"json",     kJson,           nullptr,   "print JSON"},
  {"commands", kCommandsOption, nullptr,   "print commands to paste"},
  {"all",      kAll,            nullptr,   "all areas"},
  {"all",      kEverybody,      nullptr,   "list what other programs changed, too"},
  {"dry-run",  kDryRun,         nullptr,   "print what would change, but change nothing"},
  {"image",    kImage,          "FILE",    "use a .cfg image, not the live area"},
  {"archive",  kArchive,        "FILE",    "use a .bin archive, not the live area"},
  {"in-place", kInPlace,        nullptr,   "change that file"},
  {"delete",   kDelete,         nullptr,   "remove the checkpoint"},
  {"exec",     kExec,           "COMMAND", "run a shell command after each change"},
  {"count",    kCount,          "N",       "end after N changes"},
  {"timeout",  kTimeout,        "SECONDS", "time until it is taken back"},
  {"status",   kStatus,         nullptr,   "print who tries what, and what others changed"},
  {"rename",   kRename,         "FILE",    "take names of the file for others: {\"wan.old\": \"wan.new\"}"},
  {"only-mine", kOnlyMine,      nullptr,   "refuse if other changes would be saved"},
  {"note",     kNote,           "TEXT",    "log it with the edit, and show it in watch --json"},
  {"journal",  kJournalOption,  nullptr,   "log what other programs change"},
  {"entry",    kEntry,          "SEQ",     "take back this entry of the log"},
  {"changed",  kChanged,        nullptr,   "not those whose archive is equal"},
  {"factory",  kFactory,        "DIR",     "folder of the factory's archives"},
  {"fields",   kFields,         nullptr,   "print a line for each field"},
};
// clang-format on
constexpr int kOptionCount = sizeof kOptions / sizeof *kOptions;

constexpr int kOption = 256; /* plus its place in kOptions */
constexpr int8_t kAny = -1;

/* Every command takes these. */
constexpr int kOverlayOption = kOption - 1, kSecretsOption = kOption - 2;

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
    if ((command.options & row.option) == 0) continue;
    Text name;
    name.print("--%s%s%s", row.name, row.value != nullptr ? " " : "",
               row.value != nullptr ? row.value : "");
    printf("  %-17s  %s\n", name.c_str(), row.help);
  }
}

void print_help() {
  puts(
      "usage: scctl COMMAND [ARGUMENT]... [OPTION]...\n\n"
      "Shows and edits the live configuration, a saved image or an archive.\n"
      "TABLE/ID names a record, TABLE/ID.FIELD a field of it.\n\ncommands:");
  for (const Command& command : kCommands) printf("  %-11s  %s\n", command.name, command.summary);
  puts(
      "\nEvery command takes --overlay FILE, several times, which names members of opaque\n"
      "bytes, and --secrets, which shows what it marks as secret. Files in\n"
      "/etc/sysconfig/overlays are taken besides.\n"
      "\nscctl help COMMAND or scctl COMMAND --help describes a command; scctl --version\n"
      "prints the version. Exit status: 0 done; 1 refused, nothing found, different, or\n"
      "findings; 2 wrong usage; 3 no area, no file or no permission.");
}

int fail_unknown_command(const char* name) {
  Nearest nearest(name, strlen(name));
  for (const Command& known : kCommands) nearest.offer(known.name);
  return fail(kUsage, "unknown command '%s'; %s", name, nearest.hint("scctl --help lists them"));
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

int take_option(const OptionRow& row, char* value, Call* call) {
  call->options |= row.option;
  switch (row.option) {
    case kImage: call->image = value; break;
    case kArchive: call->archive = value; break;
    case kExec: call->exec = value; break;
    case kRename: call->rename = value; break;
    case kNote: g_note = value; break;
    case kFactory: call->factory = value; break;
    case kCount:
    case kEntry:
    case kTimeout: {
      constexpr unsigned long kDay = 86400;
      const unsigned long most = row.option == kTimeout ? kDay : INT32_MAX;
      char* rest = value;
      const unsigned long number = is_digit(*value) ? strtoul(value, &rest, 10) : 0;
      if (number == 0 || number > most || *rest != '\0') {
        return fail(kUsage, "--%s: expected a number from 1 to %lu, not '%s'", row.name, most,
                    value);
      }
      (row.option == kCount   ? call->count
       : row.option == kEntry ? call->entry
                              : call->timeout) = static_cast<uint32_t>(number);
      break;
    }
    default: break;
  }
  return kOk;
}

/* Removes the options from the words, which include the command's name. A request for help comes
 * first. */
int parse_options(const Command& command, int count, char** words, Call* call, bool* help) {
  constexpr int kHelp = 'h', kWord = 1;
  option known[kOptionCount + 4] = {{"help", no_argument, nullptr, kHelp},
                                    {"overlay", required_argument, nullptr, kOverlayOption},
                                    {"secrets", no_argument, nullptr, kSecretsOption}};
  int known_count = 3;
  for (int n = 0; n < kOptionCount; ++n) {
    if ((command.options & kOptions[n].option) == 0) continue;
    const int has_value = kOptions[n].value != nullptr ? required_argument : no_argument;
    known[known_count++] = {kOptions[n].name, has_value, nullptr, kOption + n};
  }
  opterr = 0;
  optind = 0; /* restarts getopt in both C libraries */
  while (true) {
    /* "-": words are returned in place, wherever they stand. */
    const int found = getopt_long(count, words, "-:h", known, nullptr);
    if (found == -1) {
      /* getopt stops at "--" and at the end. That of the small C library also stops at a single
       * hyphen, which is a word here. */
      const bool word =
          optind < count && strcmp(words[optind], "-") == 0 && strcmp(words[optind - 1], "--") != 0;
      if (!word) break;
      call->words[call->word_count++] = words[optind++];
    } else if (found == kWord) {
      call->words[call->word_count++] = optarg;
      const bool is_import = command.run == run_overlay && strcmp(optarg, "import") == 0;
      if (command.run == run_try || is_import) break; /* the rest is another command */
    } else if (found == kHelp) {
      *help = true;
      return kOk;
    } else if (found == kOverlayOption) {
      call->words[count - ++call->overlay_count] = optarg;
    } else if (found == kSecretsOption) {
      g_shows_secrets = true;
    } else if (found == ':') {
      return fail(kUsage, "%s needs a value", words[optind - 1]);
    } else if (found == '?' && optopt >= kOption) {
      return fail(kUsage, "--%s takes no value", kOptions[optopt - kOption].name);
    } else if (found == '?' && (optopt == kHelp || optopt == kSecretsOption)) {
      return fail(kUsage, "--%s takes no value", optopt == kHelp ? "help" : "secrets");
    } else if (found == '?' && optopt != 0) {
      return fail(kUsage, "%s has no option -%c; scctl %s --help tells more", command.name, optopt,
                  command.name);
    } else if (found == '?') {
      return fail(kUsage, "%s has no option %s; scctl %s --help tells more", command.name,
                  words[optind - 1], command.name);
    } else if (const int status = take_option(kOptions[found - kOption], optarg, call);
               status != kOk) {
      return status;
    }
  }
  call->is_foreign = call->word_count == 0 && optind > 1 && optind <= count &&
                     strcmp(words[optind - 1], "--") == 0;
  while (optind < count) call->words[call->word_count++] = words[optind++];
  return kOk;
}

int open_input(Call* call) {
  const bool standard = call->word_count == 0 || strcmp(call->words[0], "-") == 0;
  call->input_name = standard ? "stdin" : call->words[0];
  call->input = standard ? stdin : fopen(call->input_name, "rbe");
  return call->input != nullptr ? kOk : fail(kNoArea, "%s: %s", call->input_name, strerror(errno));
}

/* Whole areas change without a journal, and a confirm saves. */
bool can_be_tried(const Command& command) {
  static constexpr int (*kRefused[])(Call&) = {
      run_init,  run_save, run_restore, run_remove,  run_notify, run_repair,
      run_lease, run_try,  run_undo,    run_confirm, run_revert, run_checkpoint};
  for (int (*run)(Call&) : kRefused) {
    if (command.run == run) return false;
  }
  return true;
}

/* Checks which options may be combined, and used with the command. */
int check_sources(const Command& command, const Call& call) {
  if (call.has(kImage) && call.has(kArchive)) {
    return fail(kUsage, "--image and --archive exclude each other");
  }
  if (call.has(kJson) && call.has(kCommandsOption)) {
    return fail(kUsage, "--json and --commands exclude each other");
  }
  const bool file = (call.options & kSources) != 0;
  if (g_is_trying && (file || !can_be_tried(command))) {
    return fail(kUsage, "%s cannot be tried; scctl try -- COMMAND tries any program",
                file ? "an edit of a file" : command.name);
  }
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

int open_source(const Command& command, Call* call) {
  if (call->has(kImage)) return call->source.open_image(call->image);
  if (call->has(kArchive)) {
    const bool for_repair = command.run == run_check || command.run == run_repair;
    return call->source.open_archive(call->archive, -1, for_repair);
  }
  call->source.open_live();
  return kOk;
}

}  // namespace

namespace {

/* Replaces the values of secrets in words of a command by the token. */
void hide_secrets(Text* word) {
  static constexpr char kNameLetters[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.[]";
  const char* text = word->c_str();
  for (const char* at = text; g_overlays != nullptr && *at != '\0'; ++at) {
    const size_t length = strspn(at, kNameLetters);
    at += length;
    if (*at == '\0') return;
    if ((*at == '=' || *at == ':') && g_overlays->is_secret(at - length, length)) {
      word->cut(static_cast<size_t>(at - text));
      word->print("=%s", kSecret);
      return;
    }
  }
}

/* The words of this call, as people may read them. */
int g_count;
char** g_given;
void compose_words() {
  g_words.clear();
  for (int n = 1; n < g_count; ++n) {
    Text word;
    word.add(g_given[n]);
    hide_secrets(&word);
    if (n > 1) g_words.add(' ');
    add_word(word.c_str(), word.size(), &g_words);
  }
  start_log();
}

/* While it lives, a command's own overlays are in use if there are any, else those of the batch
 * around it. */
class OverlaysInUse {
 public:
  OverlaysInUse() : outer_(g_overlays), shows_secrets_(g_shows_secrets) {}
  ~OverlaysInUse() {
    g_overlays = outer_;
    g_shows_secrets = shows_secrets_;
  }
  OverlaysInUse(const OverlaysInUse&) = delete;
  OverlaysInUse& operator=(const OverlaysInUse&) = delete;

  /* Reads those that the command names, which stand behind its words, and those of the folder. */
  int begin(const Call& call, int word_count) {
    static bool is_first = true;
    for (int n = 1; n <= call.overlay_count; ++n) {
      if (const int status = own_.load(call.words[word_count - n]); status != kOk) return status;
    }
    if (is_first || call.overlay_count > 0) own_.load_folder(kOverlayFolder);
    if (!own_.empty()) g_overlays = &own_;
    if (is_first && g_overlays != nullptr) compose_words();
    is_first = false;
    return kOk;
  }

 private:
  Overlays own_;
  Overlays* const outer_;
  const bool shows_secrets_;
};

}  // namespace

const Rows<Command> kAllCommands = {kCommands, sizeof kCommands / sizeof *kCommands};
const Rows<OptionRow> kAllOptions = {kOptions, kOptionCount};

const Command* find_command(const char* name) {
  for (const Command& command : kCommands) {
    if (strcmp(command.name, name) == 0) return &command;
  }
  return nullptr;
}

int run_words(int word_count, char** words) {
  const Command* command = find_command(words[0]);
  if (command == nullptr) return fail_unknown_command(words[0]);
  Call call = {};
  Buffer kept(static_cast<size_t>(word_count) * sizeof(char*));
  call.words = reinterpret_cast<char**>(kept.data());
  bool help = false;
  OverlaysInUse overlays;
  if (const int status = parse_options(*command, word_count, words, &call, &help); status != kOk) {
    return status;
  }
  if (help) {
    print_command_help(*command);
    return kOk;
  }
  if (const int status = overlays.begin(call, word_count); status != kOk) return status;
  if (call.word_count < command->least ||
      (command->most != kAny && call.word_count > command->most)) {
    return usage(*command);
  }
  if (const int status = check_sources(*command, call); status != kOk) return status;
  if ((command->options & kInput) != 0) {
    if (const int status = open_input(&call); status != kOk) return status;
  }
  if (call.has(kInPlace) && !call.has(kDryRun)) return run_in_place(call, command->run);
  if (const int status = open_source(*command, &call); status != kOk) return status;
  return command->run(call);
}

int run_help(Call& call) {
  if (call.word_count == 0) {
    print_help();
    return kOk;
  }
  const Command* command = find_command(call.words[0]);
  if (command == nullptr) return fail_unknown_command(call.words[0]);
  print_command_help(*command);
  return kOk;
}

/* ---- the grammar ---- */

int unknown_field(const Table& table, const char* name, size_t length) {
  Nearest nearest(name, length);
  for (const Field& field : table) nearest.offer(field.name);
  Text otherwise;
  otherwise.print("scctl fields %s lists them", table.name);
  return fail(kRefused, "%s has no field '%.*s'; %s", table.name, static_cast<int>(length), name,
              nearest.hint(otherwise.c_str()));
}

int parse_target(const char* text, Parts parts, Target* target) {
  const size_t length = strcspn(text, "/");
  target->table = find_table(text, length);
  target->id = 0;
  target->field = nullptr;
  if (target->table == nullptr) {
    Nearest nearest(text, length);
    for (const Table& table : kTables) nearest.offer(table.name);
    return fail(kRefused, "unknown table '%.*s'; %s", static_cast<int>(length), text,
                nearest.hint("scctl tables lists them"));
  }
  const Table& table = *target->table;
  if (text[length] == '\0') {
    if (parts == kTableAlone || parts == kMayHaveId) return kOk;
    return fail(kUsage, "'%s': which record? %s/1 to %s/%u", text, table.name, table.name,
                table.capacity);
  }
  if (parts == kTableAlone) return fail(kUsage, "'%s': expected TABLE", text);
  const char* digits = text + length + 1;
  char* rest = const_cast<char*>(digits);
  const unsigned long id = is_digit(*digits) ? strtoul(digits, &rest, 10) : 0;
  if (rest == digits || (*rest != '\0' && *rest != '.')) {
    return fail(kUsage, "'%s': invalid id '%s'", text, digits);
  }
  if (id == 0 || id > table.capacity) {
    return fail(kRefused, "%s: id %.*s is not within 1 to %u", table.name,
                static_cast<int>(rest - digits), digits, table.capacity);
  }
  target->id = static_cast<uint32_t>(id);
  if (*rest == '\0') return kOk;
  if (parts != kMayHaveField) return fail(kUsage, "'%s': expected TABLE/ID without a field", text);
  target->field = rest + 1;
  const Table& names = names_of(table, static_cast<int>(id) - 1);
  if (is_covered(table) || find_field(names, rest + 1, strlen(rest + 1)) != nullptr) return kOk;
  return unknown_field(table, rest + 1, strlen(rest + 1));
}

int split_assignment(const char* text, Assignment* assignment) {
  static constexpr char kHex[] = ":hex=";
  const size_t length = strcspn(text, ":=");
  const bool is_hex = strncmp(text + length, kHex, strlen(kHex)) == 0;
  *assignment = {text, length, text + length + (is_hex ? strlen(kHex) : 1), is_hex};
  if (is_hex || text[length] == '=') return kOk;
  Text shown;
  shown.add(text);
  hide_secrets(&shown);
  return fail(kUsage, "'%s': expected FIELD=VALUE", shown.c_str());
}

int parse_assignment(const Table& table, const char* text, uint8_t* record, const Field** field,
                     Spelling* spelling) {
  Assignment given;
  if (const int status = split_assignment(text, &given); status != kOk) return status;
  *field = find_field(table, given.name, given.length);
  if (*field == nullptr) return unknown_field(table, given.name, given.length);
  if (given.is_hex) {
    if (spelling != nullptr) *spelling = Spelling::kAsLibrary;
    return parse_text_bytes(table, **field, given.value, record);
  }
  return parse(table, **field, given.value, strlen(given.value), Origin::kTyped, record);
}

int parse_area(const char* name, AreaId* id) {
  if (const Area* area = find_area(name); area != nullptr) {
    *id = id_of(*area);
    return kOk;
  }
  Nearest nearest(name, strlen(name));
  for (const Area& area : kAreas) nearest.offer(area.name);
  return fail(kRefused, "unknown area '%s'; %s", name, nearest.hint("scctl areas lists them"));
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

int fail_without_areas() { return fail(kNoArea, "no area exists; scctl init --all creates them"); }

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
  using namespace scctl;
  store::open_standard_streams();
  if (argc < 2) return fail(kUsage, "which command? scctl --help lists them");
  int status = kOk;
  if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
    print_help();
  } else if (strcmp(argv[1], "--version") == 0) {
    puts("scctl " SCCTL_VERSION);
  } else {
    g_count = argc;
    g_given = argv;
    compose_words();
    if (strcmp(argv[1], "completion") != 0) look_after_try();
    status = run_words(argc - 1, argv + 1);
  }
  const int flushed = flush_output();
  end_if_interrupted();
  return flushed == kOk ? status : flushed;
}
