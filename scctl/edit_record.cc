/* edit: a record is changed as a text in an editor.
 *
 * The text has a line for each field. What is wrong with it is written into it as comments, and the
 * editor is opened again with all that was typed. A record is written only when it is still as it
 * was when it was shown: another program's values come into the text first.
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "commands.h"
#include "store/edit.h"
#include "store/files.h"
#include "store/value.h"

namespace scctl {

namespace {

constexpr char kNote[] = "#! "; /* begins a comment that scctl writes into the text */

const char* setting(const char* name, const char* otherwise) {
  const char* value = getenv(name);
  return value != nullptr && *value != '\0' ? value : otherwise;
}

/* The temporary file. Only its owner may read it. */
class Draft {
 public:
  ~Draft() {
    if (is_there_) unlink(path_.c_str());
  }

  int create() {
    path_.print("%s/scctl-edit.XXXXXX", setting("TMPDIR", "/tmp"));
    const Descriptor file(mkstemp(path_.data()));
    is_there_ = static_cast<bool>(file);
    return is_there_ ? kOk : fail_file();
  }

  /* Shows the text in the editor, and reads it again. */
  int edit(const Text& shown, Text* typed) {
    {
      const Descriptor file(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      if (!file || !write_all(file.number, shown.c_str(), shown.size())) return fail_file();
    }
    Text command;
    command.print("%s \"$SCCTL_EDIT\"", setting("VISUAL", setting("EDITOR", "vi")));
    setenv("SCCTL_EDIT", path_.c_str(), 1);
    fflush(stdout);
    signal(SIGCHLD, SIG_DFL); /* if it were ignored, system could not return how the editor ended */
    if (system(command.c_str()) != 0) return fail(kRefused, "the editor failed");
    const Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    return file && read_file(file.number, typed) ? kOk : fail_file();
  }

 private:
  int fail_file() const { return fail(kNoArea, "%s: %s", path_.c_str(), strerror(errno)); }

  Text path_;
  bool is_there_ = false;
};

/* What is printed as errors meanwhile is added to a text as notes. */
template <class Act>
int note_errors(Text* to, Act act) {
  int ends[2];
  if (pipe(ends) != 0) return fail(kRefused, "pipe: %s", strerror(errno));
  int status;
  {
    const Quiet quiet(ends[1]);
    status = act();
  }
  close(ends[1]);
  char said[2048]; /* one line, which fail cuts */
  const ssize_t size = read(ends[0], said, sizeof said);
  close(ends[0]);
  if (status != kOk) to->print("%s%.*s", kNote, static_cast<int>(size), said);
  return status;
}

class Session {
 public:
  Session(Call& call, const Target& target)
      : call_(call), table_(*target.table), id_(target.id), base_(table_.stride) {}

  int run() {
    Draft draft;
    if (const int status = draft.create(); status != kOk) return status;
    if (!read(base_.data())) return fail(kRefused, "%s/%u is free", table_.name, id_);
    Text shown;
    shown.print("# %s/%u: a field without a line keeps its value.\n"
                "# Empty the file or leave it unchanged to give up.\n",
                table_.name, id_);
    for (const Field& field : table_) add_line(field, base_.data(), &shown);
    int status = kOk;
    while (!is_interrupted()) {
      Text typed;
      if (const int failed = draft.edit(shown, &typed); failed != kOk) return failed;
      if (typed.size() == 0 || strcmp(typed.c_str(), shown.c_str()) == 0) break;
      shown.clear();
      bool is_changed = false;
      status = write(typed, &shown, &is_changed);
      if (status == kOk && is_changed) return kOk;
      if (status == kOk) break;
    }
    tell("%s/%u is not changed", table_.name, id_);
    return status;
  }

 private:
  bool read(uint8_t* record) { return Reader(call_.source, table_).copy(id_ - 1, record); }

  static void add_line(const Field& field, const uint8_t* record, Text* to) {
    Text line;
    format_assignment(field, record, true, &line, false);
    to->print("%s\n", line.data() + 1);
  }

  /* Calls act for each line that scctl did not write. */
  template <class Act>
  static void each_line(const Text& text, Act act) {
    for (const char* at = text.c_str(); *at != '\0';) {
      const size_t size = strcspn(at, "\n");
      Text line;
      line.add(at, size);
      if (strncmp(at, kNote, strlen(kNote)) != 0) act(line.c_str());
      at += size + (at[size] == '\n');
    }
  }
  static bool is_field(const char* line) { return *line != '\0' && *line != '#'; }

  /* Writes the typed values into the record. If that fails, shown gets the text with the reasons. */
  int write(const Text& typed, Text* shown, bool* is_changed) {
    Buffer record(table_.stride);
    Mask named(table_), changed(table_);
    Spelling spelling = Spelling::kAsMac;
    int status = kOk;
    each_line(typed, [&](const char* line) {
      if (is_field(line)) {
        const int refused = note_errors(shown, [&] {
          const Field* field;
          Spelling own = Spelling::kAsMac;
          const int parsed = parse_assignment(table_, line, record.data(), &field, &own);
          if (parsed != kOk) return parsed;
          if (named.has(*field)) return fail(kUsage, "%s stands twice", field->name);
          named.add(*field);
          if (equal(*field, record.data(), base_.data())) return parsed;
          changed.add(*field);
          if (own != Spelling::kAsMac) spelling = own;
          return parsed;
        });
        if (refused != kOk) status = refused;
      }
      shown->print("%s\n", line);
    });
    *is_changed = !changed.empty();
    if (status != kOk || !*is_changed) return status;
    shown->clear();
    status = note_errors(shown, [&] {
      return set_record(call_.source, table_, id_, record.data(), changed, spelling, base_.data());
    });
    if (status != kOk) show_again(typed, changed, shown);
    return status;
  }

  /* Shows what was typed. Fields that another program has changed since get its values, or its
   * values stand above those that were typed. */
  void show_again(const Text& typed, const Mask& changed, Text* shown) {
    Buffer now(table_.stride);
    const bool is_there = read(now.data());
    if (!is_there) memcpy(now.data(), base_.data(), table_.stride);
    if (!has_equal_fields(table_, now.data(), base_.data())) {
      shown->print("%sdelete this line to write it all the same\n", kNote);
    }
    each_line(typed, [&](const char* line) {
      const Field* field = is_field(line) ? find_field(table_, line, strcspn(line, ":=")) : nullptr;
      const bool is_other = field != nullptr && !equal(*field, now.data(), base_.data());
      if (is_other && !changed.has(*field)) {
        add_line(*field, now.data(), shown);
        return;
      }
      if (is_other) {
        shown->print("%sit is now ", kNote);
        add_line(*field, now.data(), shown);
      }
      shown->print("%s\n", line);
    });
    memcpy(base_.data(), now.data(), table_.stride);
  }

  Call& call_;
  const Table& table_;
  const uint32_t id_;
  Buffer base_; /* the record as it was shown */
};

}  // namespace

int run_edit(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kWithId, &target); status != kOk) {
    return status;
  }
  if (const int status = call.source.need(target.table->area); status != kOk) return status;
  return Session(call, target).run();
}

}  // namespace scctl
