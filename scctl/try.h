/* A try: a change that is taken back unless it is confirmed in time.
 *
 * Its journal, the file "try" in the folder of the state, has a header and the steps of the change.
 * Whoever holds Role::kActor may change the header's phase or end the try; so only one process does.
 * The marker on the flash names the areas whose archives may hold the change: after a power cut the
 * boot restores what they held before. Two guards end a try in time, whatever is killed.
 */
#ifndef SCCTL_TRY_H
#define SCCTL_TRY_H

#include "state.h"
#include "store/take_back.h"

namespace scctl {

struct Call;

enum class Phase : uint32_t {
  kMaking,     /* the caller makes the change */
  kMade,       /* it waits to be confirmed */
  kConfirming, /* areas are being saved; without a marker it is confirmed */
  kReverting   /* it is taken back; nothing stops that */
};

struct TryHeader {
  char kind[8];
  Phase phase;
  uint32_t is_command; /* made by any program: the areas before it are in files */
  Author author;
  uint64_t deadline_ms; /* since boot */
  uint32_t marked;      /* areas in the marker, as bits */
  uint32_t spare;
  char boot[40];     /* the boot's id: areas and journal do not survive a boot */
  char terminal[32]; /* of the caller; empty: none */
  char words[256];
  char note[128];
};
static_assert(sizeof(TryHeader) % alignof(Chunk) == 0);

class Try {
 public:
  Try() = default;
  ~Try();
  Try(const Try&) = delete;
  Try& operator=(const Try&) = delete;

  /* Creates the journal. */
  bool create();
  /* Opens the try that runs; false when there is none. */
  bool open();
  bool is_same(const Try& other) const;
  /* Writes the header. */
  bool write() const;
  bool set_phase(Phase phase);
  bool append(const Step& step) const;
  /* Reads the steps. While the change is made, last ones that are not made are left out. */
  void read_changes(Source& live, Changes* changes) const;
  bool is_over() const { return boot_ms() >= header.deadline_ms; }
  /* Seconds up to the deadline. */
  unsigned left() const;

  TryHeader header = {};

 private:
  int file_ = -1;
};

inline constexpr char kNoTry[] = "no try runs";

/* Opens the try that runs. If there is none, prints an error and returns a status. */
int need_try(Try& running);
/* The same, and takes the actor's role in it. Refuses a try that is not made; `what` is not done. */
int join(Try& running, const char* what);
/* Reads the records that wait for their ids. False when there are none. */
bool read_waiting(Changes* changes);
/* The areas that can be saved, as bits. */
uint32_t saved_areas();
/* Print what does not work, and return a status. The first and the third add errno. */
int fail_state();
int fail_saving(const Area& area);
int fail_flash(const char* what);

/* try --status. */
int run_status(Call& call);

/* Whether a guard works. One that was stopped guards nothing, and is killed. */
bool is_guarded(Role role);
/* Starts a guard of the try that runs, as a process of its own. */
void start_guard(Role role);
/* Starts both and waits until they are there. */
bool start_guards();

/* While it lives, no program of a killed actor's save goes on writing. Programs that the library's
 * save starts inherit its lock; after ten seconds they are not waited for any more. */
class OwnSaves {
 public:
  OwnSaves();
  ~OwnSaves();
  OwnSaves(const OwnSaves&) = delete;
  OwnSaves& operator=(const OwnSaves&) = delete;

 private:
  int file_;
};

/* The actor's acts. */
enum class Ended : uint8_t {
  kYes,
  kWaiting, /* but records wait for their ids */
  kNotYet   /* another program holds a record or an area: to be repeated */
};
/* Takes the try back, in memory and on the flash. Tells how it ended. */
Ended revert(Try& running, const char* why, Text* report);
/* Ends a try whose marker is gone. */
void finish_confirmed(Try& running);
/* Takes changes back in the live areas and announces these. */
Ended take_back_live(Source& live, Changes& changes, Text* report);
/* Whether the marker is on the flash. */
bool is_marked();

/* If the guards of a try are gone, starts them again, or ends the try when it is time, and says
 * so. */
void look_after_try();

/* Keeps the areas as they are before a program changes them; adds to the try what it changed. False
 * with errno; `why_not` stays empty when they are of one moment. */
bool copy_areas(Source& live, Text* why_not);
void remove_copies();
bool add_differences(Source& live, const Try& running, Changes* changes);

}  // namespace scctl

#endif
