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
#include "store/overlay.h"
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
  ~Draft() { remove(); }

  /* Shows the text in the editor, and reads it again. Each look has a file of its own: when there is
   * no room for the next one, what was typed is in the one before. */
  int edit(const Text& shown, Text* typed) {
    Text path;
    path.print("%s/scctl-edit.XXXXXX", setting("TMPDIR", "/tmp"));
    if (!write(&path, shown)) {
      Text why;
      why.print("%s: %s", path.c_str(), strerror(errno));
      return fail_kept(kNoArea, why.c_str());
    }
    remove();
    path_.add(path.c_str());
    Text command;
    command.print("%s \"$SCCTL_EDIT\"", setting("VISUAL", setting("EDITOR", "vi")));
    setenv("SCCTL_EDIT", path_.c_str(), 1);
    fflush(stdout);
    signal(SIGCHLD, SIG_DFL); /* if it were ignored, system could not return how the editor ended */
    const bool is_done = system(command.c_str()) == 0;
    const Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file || !read_file(file.number, typed)) {
      return fail(kNoArea, "%s: %s", path_.c_str(), strerror(errno));
    }
    has_typed_ |= is_done || strcmp(shown.c_str(), typed->c_str()) != 0;
    if (!is_done) return fail_kept(kRefused, "the editor failed");
    if (strlen(typed->c_str()) == typed->size()) return kOk;
    return fail_kept(kRefused, "the text has a NUL byte");
  }

 private:
  /* Makes a file with the text; the path gets its last letters. errno tells why not. */
  static bool write(Text* path, const Text& text) {
    const Descriptor file(mkstemp(path->data()));
    if (!file) return false;
    if (write_all(file.number, text.c_str(), text.size())) return true;
    const int why = errno;
    unlink(path->c_str());
    errno = why;
    return false;
  }

  void remove() {
    if (path_.size() > 0) unlink(path_.c_str());
    path_.clear();
  }

  /* What was typed stays in the file. */
  int fail_kept(int status, const char* why) {
    if (!has_typed_) return fail(status, "%s", why);
    fail(status, "%s; what was typed is in %s", why, path_.c_str());
    path_.clear();
    return status;
  }

  Text path_; /* empty: there is no file */
  bool has_typed_ = false;
};

/* Takes what is printed as an error meanwhile. */
class Errors {
 public:
  Errors() {
    if (pipe(ends_) != 0) ends_[0] = ends_[1] = -1;
  }
  ~Errors() {
    for (const int end : ends_) close(end);
  }
  Errors(const Errors&) = delete;
  Errors& operator=(const Errors&) = delete;

  int writer() const { return ends_[1]; }
  /* Adds an error as a note. Fewer bytes are printed than the pipe takes. */
  void note(Text* to) {
    char said[2048];
    const ssize_t size = read(ends_[0], said, sizeof said);
    to->print("%s%.*s", kNote, static_cast<int>(size), said);
  }

 private:
  int ends_[2];
};

/* The lines of a text but for scctl's notes. */
class Lines {
 public:
  explicit Lines(const Text& text) : at_(text.c_str()) {}
  bool next() {
    do {
      if (*at_ == '\0') return false;
      const size_t size = strcspn(at_, "\n");
      line_.clear();
      line_.add(at_, size);
      at_ += size + (at_[size] == '\n');
    } while (strncmp(line_.c_str(), kNote, strlen(kNote)) == 0);
    return true;
  }
  const char* line() const { return line_.c_str(); }
  bool is_field() const { return *line() != '\0' && *line() != '#'; }

 private:
  const char* at_;
  Text line_;
};

void add_line(const Field& field, const uint8_t* record, Text* to) {
  Text line;
  format_assignment(field, record, true, &line, false);
  to->print("%s\n", line.data() + 1);
}

/* The values of a text. */
class Typed {
 public:
  explicit Typed(const Table& table)
      : record(table.stride), changed(table), table_(table), named_(table) {}

  /* Reads a line; `shown` is the record as it was shown. A line that is as it was shown may be one
   * that cannot be typed. */
  int take(const char* line, const uint8_t* shown) {
    const Field* field = find_field(table_, line, strcspn(line, ":="));
    if (field != nullptr && !named_.has(*field)) {
      Text as_shown;
      add_line(*field, shown, &as_shown);
      if (strncmp(as_shown.c_str(), line, as_shown.size() - 1) == 0 &&
          line[as_shown.size() - 1] == '\0') {
        named_.add(*field);
        return kOk;
      }
    }
    Spelling own = Spelling::kAsMac;
    const int status = parse_assignment(table_, line, record.data(), &field, &own);
    if (status != kOk) return status;
    if (named_.has(*field)) return fail(kUsage, "%s stands twice", field->name);
    named_.add(*field);
    if (equal(*field, record.data(), shown)) return kOk;
    if (const char* fault = find_fault(*field, record.data()); fault != nullptr) {
      return fail(kRefused, "%s.%s: %s", table_.name, field->name, fault);
    }
    changed.add(*field);
    if (own != Spelling::kAsMac) spelling = own;
    return kOk;
  }

  Buffer record;
  Mask changed;
  Spelling spelling = Spelling::kAsMac;

 private:
  const Table& table_;
  Mask named_;
};

class Session {
 public:
  Session(Call& call, const Target& target)
      : call_(call), table_(*target.table), id_(target.id), shown_(table_.stride) {}

  int run() {
    if (!read(shown_.data())) return fail(kRefused, "%s/%u is free", table_.name, id_);
    Text text;
    text.print(
        "# %s/%u: a field without a line keeps its value.\n"
        "# Empty the file or leave it unchanged to give up.\n",
        table_.name, id_);
    for (const Field& field : view()) add_line(field, shown_.data(), &text);
    Draft draft;
    int status = kOk;
    bool is_written = false;
    while (!is_written && !is_interrupted()) {
      Text typed;
      if (const int failed = draft.edit(text, &typed); failed != kOk) return failed;
      if (strcmp(typed.c_str(), text.c_str()) == 0) break;
      text.clear();
      const int written = write(typed, &text, &is_written);
      if (is_written || written != kOk) status = written;
      if (written == kOk) break;
    }
    if (!is_written) tell("%s/%u is not changed", table_.name, id_);
    return status;
  }

 private:
  const Table& view() const { return view_of(table_, id_ - 1, shown_.data()); }
  bool read(uint8_t* record) { return Reader(call_.source, table_).copy(id_ - 1, record); }

  /* Writes the typed values into the record. If that fails, `again` gets the text with the
   * reasons. */
  int write(const Text& text, Text* again, bool* is_written) {
    Typed typed(view());
    Errors errors;
    int status = kOk;
    for (Lines lines(text); lines.next();) {
      if (lines.is_field()) {
        int taken;
        {
          const Quiet quiet(errors.writer());
          taken = typed.take(lines.line(), shown_.data());
        }
        if (taken != kOk) {
          errors.note(again);
          status = taken;
        }
      }
      again->print("%s\n", lines.line());
    }
    if (status != kOk || typed.changed.empty()) return status;
    Buffer wanted(table_.stride);
    memcpy(wanted.data(), shown_.data(), table_.stride);
    typed.changed.merge(wanted.data(), typed.record.data());
    {
      const Quiet quiet(errors.writer());
      status = set_record(call_.source, table_, id_, wanted.data(), typed.changed, typed.spelling,
                          shown_.data());
    }
    *is_written = status == kOk;
    if (*is_written) return status;
    again->clear();
    errors.note(again);
    show_again(text, typed.changed, again);
    return status;
  }

  /* Shows what was typed. Fields that another program has changed since get its values, or its
   * values stand above those that were typed. */
  void show_again(const Text& text, const Mask& changed, Text* again) {
    Buffer now(table_.stride);
    if (!read(now.data())) memcpy(now.data(), shown_.data(), table_.stride);
    if (!has_equal_fields(table_, now.data(), shown_.data())) {
      again->print("%sdelete this line to write it all the same\n", kNote);
    }
    for (Lines lines(text); lines.next();) {
      const char* line = lines.line();
      const Field* field = find_field(view(), line, strcspn(line, ":="));
      if (field != nullptr && !equal(*field, now.data(), shown_.data())) {
        const bool is_typed = changed.has(*field);
        if (is_typed) again->print("%sit is now ", kNote);
        add_line(*field, now.data(), again);
        if (!is_typed) continue;
      }
      again->print("%s\n", line);
    }
    shown_.swap(now);
  }

  Call& call_;
  const Table& table_;
  const uint32_t id_;
  Buffer shown_; /* the record as it was shown */
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
