/* The commands and what they share: options, the grammar TABLE[/ID][.FIELD], and how a record is
 * printed.
 */
#ifndef SCCTL_COMMANDS_H
#define SCCTL_COMMANDS_H

#include <stdio.h>

#include "store/json.h"
#include "store/source.h"

namespace scctl {

using namespace store;

enum Option : uint32_t {
  kJson = 1 << 0,
  kCommandsOption = 1 << 1,
  kAll = 1 << 2,
  kDryRun = 1 << 3,
  kImage = 1 << 4,
  kArchive = 1 << 5,
  kExec = 1 << 6,
  kCount = 1 << 7,
  kInPlace = 1 << 8,
  kDelete = 1 << 9,
  kTimeout = 1 << 10,
  kStatus = 1 << 11,
  kOnlyMine = 1 << 12,
  kNote = 1 << 13,
  kJournalOption = 1 << 14,
  kEntry = 1 << 15,
  kEverybody = 1 << 16, /* --all of log */
  kRename = 1 << 17,
  kChanged = 1 << 18,
  kFactory = 1 << 19,
  kFields = 1 << 20,
  kInput = 1 << 21, /* for commands only: the argument is a file, none or - is standard input */
};
constexpr uint32_t kSources = kImage | kArchive;

/* The most bytes that are read of an input; of an import with overlays, which say more. */
constexpr size_t kMostInput = 48u << 20;
constexpr size_t kMostImport = 256u << 20;

struct Call {
  uint32_t options; /* those that are given */
  const char* image;
  const char* archive;
  const char* exec;
  const char* rename;
  int overlay_count; /* their files stand behind the words */
  const char* factory;
  uint32_t count;
  uint32_t timeout; /* in seconds */
  uint32_t entry;   /* of the log */
  bool is_foreign;  /* the words stand behind a -- */
  int word_count;   /* without the command's name */
  char** words;
  FILE* input; /* of a command with kInput */
  const char* input_name;
  Source source; /* opened according to the options */
  bool is_done;  /* set by a command whose status reports findings: it has not failed */

  ~Call() {
    if (input != nullptr && input != stdin) fclose(input);
  }
  bool has(Option option) const { return (options & option) != 0; }
};

struct Command {
  const char* name;
  const char* arguments;
  const char* summary;
  const char* details; /* lines for --help */
  uint32_t options;
  int8_t least; /* number of words */
  int8_t most;  /* -1: any */
  int (*run)(Call& call);
};

struct OptionRow {
  const char* name; /* without its hyphens */
  Option option;
  const char* value; /* the name of its value; null: the option has no value */
  const char* help;
};

/* All commands and options. */
template <class Row>
struct Rows {
  const Row* first;
  size_t count;

  const Row* begin() const { return first; }
  const Row* end() const { return first + count; }
};
extern const Rows<Command> kAllCommands;
extern const Rows<OptionRow> kAllOptions;

/* Null when there is no such command. */
const Command* find_command(const char* name);

/* The command that runs is part of a try: only changes that can be taken back are allowed. */
extern bool g_is_trying;

/* Runs a command. The first word is its name. */
int run_words(int word_count, char** words);

/* TABLE[/ID][.FIELD]. If they are left out, id is 0 and field is null. */
struct Target {
  const Table* table;
  uint32_t id;
  const char* field; /* its name, which some record of the table may have */
};
enum Parts : uint8_t { kTableAlone, kWithId, kMayHaveId, kMayHaveField };
int parse_target(const char* text, Parts parts, Target* target);
/* Splits FIELD=VALUE or FIELD:hex=HEX. */
struct Assignment {
  const char* name;
  size_t length;
  const char* value;
  bool is_hex;
};
int split_assignment(const char* text, Assignment* assignment);
/* Writes FIELD=VALUE or FIELD:hex=HEX into the record. After the latter, the record is compared
 * with other records as the library compares them. */
int parse_assignment(const Table& table, const char* text, uint8_t* record, const Field** field,
                     Spelling* spelling = nullptr);
/* Prints that the field does not exist, with the nearest name. */
int unknown_field(const Table& table, const char* name, size_t length);
/* Finds an area by its name. */
int parse_area(const char* name, AreaId* area);
/* The areas of the words, or all of them for --all. Too many words, or none, are a usage error. */
int parse_areas(const Call& call, bool none_is_all, bool* chosen);
/* The areas of the words, which have to exist, or all areas that exist if there are no words. */
int present_areas(Call& call, bool* chosen);
/* Prints that no area exists. */
int fail_without_areas();

class KeptSecrets;
/* Makes the tables equal to those that are wanted, ids included, and prints what was done. With
 * --dry-run, prints what would change. A table that is not wanted stays as it is. */
int replace_tables(Call& call, Snapshot* wanted, const KeptSecrets* kept = nullptr);

/* Prints commands that turn the areas that both have from the first into the second. True when
 * anything was printed. */
bool print_commands(Source& from, Source& into);

/* The number of records of these areas that differ. */
unsigned long count_differences(Source& one, Source& other, uint32_t areas);

/* The number of processes that hold, and wait for, records of each area. */
int count_lockers(long* holders, long* waiters);

int init_area(Call& call, AreaId id);
/* Saves the area, then reads the archive back to check it. */
int save_area(Call& call, AreaId id);

/* The table is the record's view. */
void write_json_record(const Table& view, uint32_t id, const uint8_t* record, bool whole,
                       JsonWriter* writer);
/* Prints the fields in which two records differ, each on a line after the prefix, or one line for a
 * record that was added or deleted, where the other one is null. True when anything was printed. */
bool print_changes(const char* prefix, const Table& table, uint32_t id, const uint8_t* was,
                   const uint8_t* is);
/* The same with the views of both records. If these are of different overlays, the values of equal
 * names are compared. */
bool print_changes(const char* prefix, uint32_t id, const Table& was_view, const uint8_t* was,
                   const Table& is_view, const uint8_t* is, bool by_name = false);
/* The same for all records of a table. */
bool print_changes(const char* prefix, const Snapshot& was, const Snapshot& is);

int run_tables(Call&);
int run_fields(Call&);
int run_areas(Call&);
int run_list(Call&);
int run_get(Call&);
int run_find(Call&);
int run_dump(Call&);
int run_add(Call&);
int run_set(Call&);
int run_del(Call&);
int run_clear(Call&);
int run_edit(Call&);
int run_reset(Call&);
int run_bind(Call&);
int run_unbind(Call&);
int run_batch(Call&);
int run_init(Call&);
int run_save(Call&);
int run_restore(Call&);
int run_remove(Call&);
int run_notify(Call&);
int run_lease(Call&);
int run_export(Call&);
int run_import(Call&);
int run_diff(Call&);
int run_checkpoint(Call&);
int run_checkpoints(Call&);
int run_rollback(Call&);
int run_check(Call&);
int run_repair(Call&);
int run_locks(Call&);
int run_metrics(Call&);
int run_watch(Call&);
/* Makes a change as a try. */
int run_tried(Call& call, int (*make)(Call& call));
/* Opens the live areas that a try concerns, with the values of before it. */
int open_try(Source* source);
int run_try(Call&);
int run_confirm(Call&);
int run_revert(Call&);
int run_log(Call&);
int run_undo(Call&);
int run_overlay(Call&);
int run_schema(Call&);
int run_completion(Call&);
int run_help(Call&);

}  // namespace scctl

#endif
