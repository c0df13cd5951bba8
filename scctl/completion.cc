/* completion: what can stand in place of a word of a command line, and the scripts by which the
 * shells ask for it.
 */
#include <stdio.h>
#include <string.h>

#include "commands.h"
#include "store/overlay.h"

namespace scctl {

namespace {

/* ---- words ---- */

/* Each word is a line, some with a tab and a description. The shells choose those that continue what
 * is typed. */
void offer(const char* word, const char* description) { printf("%s\t%s\n", word, description); }

bool takes_value(const char* word) {
  if (strcmp(word, "--overlay") == 0) return true;
  for (const OptionRow& row : kAllOptions) {
    if (row.value != nullptr && strncmp(word, "--", 2) == 0 && strcmp(row.name, word + 2) == 0) {
      return true;
    }
  }
  return false;
}

/* Words that are not from the rows. */
struct Fixed {
  const char* command;
  uint32_t place; /* of the argument */
  const char* words;
};
constexpr char kSourceWords[] = "live\nsaved\nfactory\ntry\n";
constexpr Fixed kFixed[] = {{"lease", 1, "save\nrestore\n"},
                            {"lease", 2, "clients\naps\n"},
                            {"bind", 1, "ap_templates/\n"},
                            {"bind", 2, "aps/\n"},
                            {"unbind", 1, "ap_templates/\n"},
                            {"diff", 1, kSourceWords},
                            {"diff", 2, kSourceWords},
                            {"try", 1, "batch\nimport\n--\n"},
                            {"completion", 1, "bash\nzsh\nfish\n"},
                            {"overlay", 1, "import\ncover\n"},
                            {"rollback", 1, ""}};

void offer_commands() {
  for (const Command& command : kAllCommands) offer(command.name, command.summary);
}

/* The arguments of a command; `first` is the first of them, and `place` counts from 1. */
void offer_arguments(const Command& command, uint32_t place, const char* first) {
  for (const Fixed& fixed : kFixed) {
    if (fixed.place != place || strcmp(fixed.command, command.name) != 0) continue;
    fputs(fixed.words, stdout);
    return;
  }
  if (command.run == run_help && place == 1) offer_commands();
  const bool has_fields = strstr(command.arguments, "FIELD=") != nullptr && place > 1;
  const char* dot = strchr(first, '.');
  const bool is_field = strstr(command.arguments, ".FIELD") != nullptr && dot != nullptr;
  if (has_fields || is_field) {
    const Table* table = find_table(first, strcspn(first, "/"));
    if (table == nullptr) return;
    const int ahead = has_fields ? 0 : static_cast<int>(dot + 1 - first);
    for (const Field& field : names_of(*table)) {
      printf("%.*s%s%s\n", ahead, first, field.name, has_fields ? "=" : "");
    }
  } else if (strstr(command.arguments, "TABLE") != nullptr && place == 1) {
    for (const Table& table : kTables) puts(table.name);
  } else if (strstr(command.arguments, "AREA") != nullptr) {
    for (const Area& area : kAreas) puts(area.name);
  }
}

/* The words of a line without the program's name. The last one is completed. */
void offer_words(char** words, int count) {
  const char* typed = words[count - 1];
  if (count == 1) {
    offer_commands();
    puts("--help\n--version");
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
    puts("--help\n--overlay\n--secrets");
    for (const OptionRow& row : kAllOptions) {
      if ((command->options & row.option) == 0) continue;
      printf("--");
      offer(row.name, row.help);
    }
    return;
  }
  uint32_t place = 0;
  const char* first = nullptr;
  for (int n = 1; n < count; ++n) {
    if (words[n][0] != '-') {
      if (++place == 1) first = words[n];
    } else if (takes_value(words[n])) {
      n += strcmp(words[n + 1], "=") == 0 ? 2 : 1;
    }
  }
  if (first != nullptr) offer_arguments(*command, place, first);
}

/* ---- scripts ---- */

struct Script {
  const char* shell;
  const char* text;
};

constexpr Script kScripts[] = {
    {"bash",
     "_scctl() {\n"
     "  local word typed=${COMP_WORDS[COMP_CWORD]}\n"
     "  COMPREPLY=()\n"
     "  while IFS=$'\\t' read -r word _; do\n"
     "    [[ $word != \"$typed\"* ]] || COMPREPLY+=(\"$word\")\n"
     "  done < <(\n"
     "    scctl completion words -- \"${COMP_WORDS[@]:1:COMP_CWORD}\" 2>/dev/null\n"
     "    [[ ${COMP_WORDS[1]} != diff ]] || compgen -f -- \"$typed\"\n"
     "  )\n"
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
