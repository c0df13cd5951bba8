/* Which programs had a lock file open for writing while a record changed.
 *
 * The kernel names the process of each open and close. A process that ends at once is gone when this
 * is read late, so a child reads it: in real time where that is allowed, and with nothing else to
 * do. It is a process of its own also because closing a descriptor of a lock file, which comes with
 * each event, would drop the locks of the process on that file.
 *
 * The programs are told completely or not at all: one of them made the change, if it was made under
 * the lock file.
 */
#ifndef SCCTL_AUTHORS_H
#define SCCTL_AUTHORS_H

#include "commands.h"

namespace scctl {

constexpr char kLockFolder[] = "/var/lock_store/";

/* The area whose lock file has this name in its folder; kAreaCount: none. */
int area_of_lock(const char* name);

/* A process. Its start tells it from another with the same number. */
struct Program {
  uint32_t pid, uid, start;
  bool is_known; /* all but the number */
  char name[19];
};

class Authors {
 public:
  Authors() = default;
  ~Authors();
  Authors(const Authors&) = delete;
  Authors& operator=(const Authors&) = delete;

  /* Starts the child. Without the right to it, no author is ever known; errno tells why. */
  bool begin();
  /* The folder of the lock files is another one. */
  void follow();
  /* Call this at the begin of a look at an area, */
  void begin_look();
  /* after a changed record was copied, */
  void find(AreaId area);
  /* and when all its records were complete. */
  void end_look(AreaId area);

  /* The programs found, one by one; null at their end, and for all when they are not known. */
  const Program* next(const Program* last) const;

 private:
  static constexpr int kMostSuspects = 64;
  struct Suspect {
    Program program = {};
    uint8_t area = kAreaCount; /* this place is free */
    bool is_open = false, may_be_open = false, has_written = false, is_fresh = false;
  };
  /* What the child tells of a process and a lock file. */
  struct Note {
    Program program;
    uint8_t area;
    uint8_t events;
  };

  static void run_child(int events, int in, int out);
  void ask(char what, int ms);
  void end();
  bool take(int timeout);
  void take(const Note& note);
  static void settle(Suspect* suspect);

  int asks_ = -1;
  int notes_ = -1;
  int due_answers_ = 0;
  uint32_t lost_areas_ = 0; /* a bit for each area whose authors are not all known */
  AreaId area_ = kAreaCount;
  Suspect suspects_[kMostSuspects];
};

}  // namespace scctl

#endif
