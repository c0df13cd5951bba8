/* The commands, and what they have in common: options, the grammar TABLE[/ID][.FIELD], and how a
 * record is printed.
 */
#ifndef SCCTL_COMMANDS_H
#define SCCTL_COMMANDS_H

#include <stdio.h>

#include "store/json.h"
#include "store/source.h"

namespace scctl {

using namespace store;

enum Option : uint16_t {
  kJson = 1,
  kCommandsOption = 2,
  kAll = 4,
  kDryRun = 8,
  kImage = 16,
  kArchive = 32,
  kExec = 64,
  kCount = 128,
  kInPlace = 256,
  kInput = 512, /* of a command alone: its word is a file, none or - standard input */
};
constexpr uint16_t kSources = kImage | kArchive;

/* More is read of no input. */
constexpr size_t kMostInput = 48u << 20;

struct Call {
  uint16_t options; /* those that are given */
  const char* image;
  const char* archive;
  const char* exec;
  uint32_t count;
  int word_count; /* behind the command's name */
  char** words;
  FILE* input; /* of a command with kInput */
  const char* input_name;
  Source source; /* opened as the options say */
  bool is_done;  /* by a command that tells by its status what is left: it has not failed */

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
  uint16_t options;
  int8_t least; /* number of words */
  int8_t most;  /* -1: any */
  int (*run)(Call& call);
};

/* Runs a command of these words, the name first. */
int run_words(int word_count, char** words);

/* TABLE[/ID][.FIELD]; id 0 and field null where they are left out. */
struct Target {
  const Table* table;
  uint32_t id;
  const Field* field;
};
enum Parts : uint8_t { kTableAlone, kWithId, kMayHaveId, kMayHaveField };
int parse_target(const char* text, Parts parts, Target* target);
/* FIELD=VALUE, or FIELD:hex=HEX, into the record. The latter is compared with other records as the
 * library compares them. */
int parse_assignment(const Table& table, const char* text, uint8_t* record, const Field** field,
                     Spelling* spelling = nullptr);
/* Says so, with the nearest name. */
int unknown_field(const Table& table, const char* name, size_t length);
/* An area by its name. */
int parse_area(const char* name, AreaId* area);
/* The areas of the words, or all of them for --all; a word too many or none is wrong usage. */
int parse_areas(const Call& call, bool none_is_all, bool* chosen);
/* The areas of the words, which have to be there, or all that are there when no word says one. */
int present_areas(Call& call, bool* chosen);
/* Says that no area is there. */
int fail_without_areas();

int init_area(Call& call, AreaId id);
/* Reads the archive back to see that it is good. */
int save_area(Call& call, AreaId id);

void write_json_record(const Table& table, uint32_t id, const uint8_t* record, bool whole,
                       JsonWriter* writer);
/* The fields in which two records differ, a line each behind the prefix; a line for a record that
 * came or went, whose other is null. True when there are any. */
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
int run_check(Call&);
int run_repair(Call&);
int run_locks(Call&);
int run_watch(Call&);
int run_completion(Call&);
int run_help(Call&);

}  // namespace scctl

#endif
