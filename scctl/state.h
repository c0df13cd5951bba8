/* What scctl keeps between its calls, in memory: the folder /var/systemconfig/scctl.
 *
 * Its lock file has a byte for each role. A byte falls with the process that holds it, however that
 * ends, and the kernel names the process. The file is opened once: closing any descriptor of it
 * would drop all bytes of the process.
 */
#ifndef SCCTL_STATE_H
#define SCCTL_STATE_H

#include <stdint.h>
#include <sys/types.h>

#include "store/clock.h"
#include "store/files.h"
#include "store/journal.h"

namespace scctl {

using namespace store;

inline constexpr char kStateFolder[] = "/var/systemconfig/scctl";
/* A file in it: the journal of a try. */
inline constexpr char kTryName[] = "try";
inline constexpr char kTryPath[] = "/var/systemconfig/scctl/try";

enum class Role : uint8_t {
  kGuard, /* and the next byte: the two guards of a try */
  kTwin,
  kActor,  /* makes, confirms or reverts a try */
  kJournal /* the watch that writes what other programs change into the log */
};

/* Opens the folder; makes it if `create`. errno tells why not. */
bool open_state(bool create);
/* After a fork: the child has to open it for itself. */
void forget_state();
/* The folder's descriptor. */
int state_folder();
/* Waits that long for a process that has it. */
bool take_role(Role role, uint32_t ms);
void leave_role(Role role);
/* The process that holds the role; 0: none. */
pid_t holder_of(Role role);

/* A file of the folder; -1 with errno. */
int open_state_file(const char* name, int flags);
/* Replaces a file of the folder as a whole. */
bool replace_state_file(const char* name, const char* bytes, size_t size);

/* The user's name, or the number. */
void add_user(uint32_t uid, Text* to);

/* The words of this call, and those of --note. */
extern Text g_words;
extern const char* g_note;

/* The number of saves of each area since the boot, which all processes share; null with errno. */
uint32_t* saves(bool create);

/* The log of scctl's edits. */
void start_log();
/* Who made an edit, and when. */
struct Author {
  int64_t time;
  uint64_t boot_ms;
  uint32_t uid;
  uint32_t pid;
};
constexpr uint32_t kNobody = UINT32_MAX; /* the uid of an author who is not known */
struct Seen;
/* Logs what another program changed. The words begin with its name, and a [ behind it; without a
 * difference something else has changed an area. */
void log_seen(const Author& author, const char* words, const Seen* seen);
/* Whether the difference is the last edit of the record that is logged, by scctl itself: its process
 * and its note. */
bool is_logged(const Seen& seen, uint32_t* pid, Text* note);
/* The process that made the try that runs, and its note. False when none runs. */
bool read_try_note(uint32_t* pid, Text* note);
/* Logs the changes of a try that was confirmed. */
void log_changes(const Author& author, const char* words, const char* note, const Changes& changes);

}  // namespace scctl

#endif
