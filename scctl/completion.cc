/* completion: what can stand in place of a word of a command line, and the scripts by which the
 * shells ask for it.
 */
#include <stdio.h>
#include <string.h>

#include "commands.h"

namespace scctl {

namespace {

/* ---- words ---- */

/* Prints a word if it continues what is typed, with its description behind a tab. */
struct Offer {
  const char* typed;

  void operator()(const char* word, const char* description = nullptr, const char* ahead = "",
                  const char* behind = "") const {
    Text whole;
    whole.print("%s%s%s", ahead, word, behind);
    if (strncmp(whole.c_str(), typed, strlen(typed)) != 0) return;
    if (description != nullptr) whole.print("\t%s", description);
    puts(whole.c_str());
  }
  /* Each of the words of a text. */
  void each(const char* words) const {
    while (*words != '\0') {
      const size_t size = strcspn(words, " ");
      Text word;
      word.add(words, size);
      (*this)(word.c_str());
      words += size + (words[size] == ' ');
    }
  }
};

const OptionRow* find_option(const char* word) {
  if (strncmp(word, "--", 2) != 0) return nullptr;
  for (const OptionRow& row : kAllOptions) {
    if (strcmp(row.name, word + 2) == 0) return &row;
  }
  return nullptr;
}

bool takes_value(const char* word) {
  const OptionRow* row = find_option(word);
  return row != nullptr && row->value != nullptr;
}

/* Words that are not from the rows. */
struct Fixed {
  const char* command;
  uint32_t place; /* of the argument */
  const char* words;
};
constexpr Fixed kFixed[] = {{"lease", 1, "save restore"},
                            {"lease", 2, "clients aps"},
                            {"bind", 1, "ap_templates/"},
                            {"bind", 2, "aps/"},
                            {"unbind", 1, "ap_templates/"},
                            {"diff", 1, "live saved factory try"},
                            {"diff", 2, "live saved factory try"},
                            {"try", 1, "batch import --"},
                            {"completion", 1, "bash zsh fish"},
                            {"rollback", 1, ""}};

void offer_fields(const Command& command, const char* record, const Offer& offer) {
  const char* typed = offer.typed;
  const Table* table = find_table(record, strcspn(record, "/"));
  if (table == nullptr) return;
  if (record != typed) {
    for (const Field& field : *table) offer(field.name, nullptr, "", "=");
    return;
  }
  if (strstr(command.arguments, ".FIELD") == nullptr) return;
  Text ahead;
  ahead.add(typed, static_cast<size_t>(strrchr(typed, '.') - typed) + 1);
  for (const Field& field : *table) offer(field.name, nullptr, ahead.c_str());
}

/* The arguments of a command; `first` is the first of them, and `place` counts from 1. */
void offer_arguments(const Command& command, uint32_t place, const char* first,
                     const Offer& offer) {
  for (const Fixed& fixed : kFixed) {
    if (fixed.place == place && strcmp(fixed.command, command.name) == 0) {
      offer.each(fixed.words);
      return;
    }
  }
  if (command.run == run_help && place == 1) {
    for (const Command& other : kAllCommands) offer(other.name, other.summary);
  } else if (strstr(command.arguments, "TABLE") != nullptr && place == 1) {
    const char* id = strchr(first, '/');
    if (id != nullptr && strchr(id, '.') != nullptr) {
      offer_fields(command, first, offer);
      return;
    }
    for (const Table& table : kTables) offer(table.name);
  } else if (strstr(command.arguments, "FIELD=") != nullptr) {
    offer_fields(command, first, offer);
  } else if (strstr(command.arguments, "AREA") != nullptr) {
    for (const Area& area : kAreas) offer(area.name);
  }
}

/* The words of a line without the program's name. The last one is completed. */
void offer_words(char** words, int count) {
  const char* typed = words[count - 1];
  const Offer offer = {typed};
  if (count == 1) {
    for (const Command& command : kAllCommands) offer(command.name, command.summary);
    offer.each("--help --version");
    return;
  }
  const Command* command = find_command(words[0]);
  const char* before = words[count - 2];
  /* bash takes = for a word of its own. */
  if (command == nullptr || strcmp(typed, "=") == 0 || strcmp(before, "=") == 0 ||
      takes_value(before)) {
    return;
  }
  if (typed[0] == '-') {
    offer("--help");
    for (const OptionRow& row : kAllOptions) {
      if ((command->options & row.option) != 0) offer(row.name, row.help, "--");
    }
    return;
  }
  uint32_t place = 0;
  const char* first = nullptr;
  for (int n = 1; n < count; ++n) {
    if (words[n][0] == '-' && words[n][1] == '-') {
      if (takes_value(words[n])) n += strcmp(words[n + 1], "=") == 0 ? 2 : 1;
      continue;
    }
    if (++place == 1) first = words[n];
  }
  if (first != nullptr) offer_arguments(*command, place, first, offer);
}

/* ---- scripts ---- */

struct Script {
  const char* shell;
  const char* text;
};

constexpr Script kScripts[] = {
    {"bash",
     "_scctl() {\n"
     "  mapfile -t COMPREPLY < <(\n"
     "    scctl completion words -- \"${COMP_WORDS[@]:1:COMP_CWORD}\" 2>/dev/null\n"
     "    [[ ${COMP_WORDS[1]} != diff ]] || compgen -f -- \"${COMP_WORDS[COMP_CWORD]}\"\n"
     "  )\n"
     "  COMPREPLY=(\"${COMPREPLY[@]%%$'\\t'*}\")\n"
     "  [[ ${COMPREPLY[0]} != *[=/] ]] || compopt -o nospace 2>/dev/null\n"
     "}\n"
     "complete -o default -F _scctl scctl\n"},
    {"zsh",
     "#compdef scctl\n"
     "_scctl() {\n"
     "  local -a lines shown\n"
     "  lines=(${(f)\"$(scctl completion words -- \"${(@Q)words[2,CURRENT]}\" 2>/dev/null)\"})\n"
     "  shown=(${${lines:#*[=/]}/$'\\t'/  -- })\n"
     "  compadd -S '' -- ${(M)lines:#*[=/]}\n"
     "  compadd -d shown -- ${${lines:#*[=/]}%%$'\\t'*}\n"
     "  [[ $#lines != 0 && $words[2] != diff ]] || _files\n"
     "}\n"
     "if [[ $funcstack[1] == _scctl ]]; then _scctl; else compdef _scctl scctl; fi\n"},
    {"fish",
     "function __scctl_words\n"
     "  set -l words (commandline -opc) (commandline -ct)\n"
     "  scctl completion words -- $words[2..] 2>/dev/null\n"
     "end\n"
     "complete -c scctl -f -a '(__scctl_words)'\n"
     "complete -c scctl -n '__fish_seen_subcommand_from diff; or not count (__scctl_words) "
     ">/dev/null' -F\n"}};

}  // namespace

int run_completion(Call& call) {
  const char* wanted = call.word_count > 0 ? call.words[0] : "bash";
  if (strcmp(wanted, "words") == 0) {
    if (call.word_count > 1) offer_words(call.words + 1, call.word_count - 1);
    return kOk;
  }
  for (const Script& script : kScripts) {
    if (strcmp(script.shell, wanted) != 0 || call.word_count > 1) continue;
    fputs(script.text, stdout);
    return kOk;
  }
  return fail(kUsage, "usage: scctl completion [bash|zsh|fish]");
}

}  // namespace scctl
