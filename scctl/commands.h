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
  kJson = 1,
  kCommandsOption = 2,
  kAll = 4,
  kDryRun = 8,
  kImage = 16,
  kArchive = 32,
  kExec = 64,
  kCount = 128,
  kInPlace = 256,
  kDelete = 1024,
  kTimeout = 2048,
  kStatus = 4096,
  kOnlyMine = 8192,
  kNote = 16384,
  kJournalOption = 32768,
  kEntry = 65536,
  kInput = 512, /* for commands only: the argument is a file, none or - is standard input */
};
constexpr uint32_t kSources = kImage | kArchive;

/* The most bytes that are read of an input. */
constexpr size_t kMostInput = 48u << 20;

struct Call {
  uint32_t options; /* those that are given */
  const char* image;
  const char* archive;
  const char* exec;
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

/* The command that runs is part of a try: only changes that can be taken back are allowed. */
extern bool g_is_trying;

/* Runs a command. The first word is its name. */
int run_words(int word_count, char** words);

/* TABLE[/ID][.FIELD]. If they are left out, id is 0 and field is null. */
struct Target {
  const Table* table;
  uint32_t id;
  const Field* field;
};
enum Parts : uint8_t { kTableAlone, kWithId, kMayHaveId, kMayHaveField };
int parse_target(const char* text, Parts parts, Target* target);
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

/* Makes the tables equal to those that are wanted, ids included, and prints what was done. With
 * --dry-run, prints what would change. A table that is not wanted stays as it is. */
int replace_tables(Call& call, Snapshot* wanted);

int init_area(Call& call, AreaId id);
/* Saves the area, then reads the archive back to check it. */
int save_area(Call& call, AreaId id);

void write_json_record(const Table& table, uint32_t id, const uint8_t* record, bool whole,
                       JsonWriter* writer);
/* Prints the fields in which two records differ, each on a line after the prefix, or one line for a
 * record that was added or deleted, where the other one is null. True when anything was printed. */
bool print_changes(const char* prefix, const Table& table, uint32_t id, const uint8_t* was,
                   const uint8_t* is);
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
int run_completion(Call&);
int run_help(Call&);

}  // namespace scctl

#endif
