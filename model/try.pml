/* The protocol of a try: what scctl, its guards, other programs' saves and the boot do to the live
 * areas, to the locks and to the flash. README.md says what is left out; model/check runs it.
 *
 * A statement, or an atomic group of them, is one step. Between any two steps any other process can
 * run, a process can be killed or stopped (KILLS), and the power can fail (POWER). A macro that
 * begins with FAULT_ plants a fault, which the check has to find.
 */
#ifndef N
#define N 2 /* areas that the try changes */
#endif
#ifndef TRIES
#define TRIES 1 /* one after the other */
#endif
#ifndef KILLS
#define KILLS 0 /* how many processes are killed or stopped, any, at any step */
#endif
#ifndef OPERATORS
#define OPERATORS 1 /* who confirm or revert */
#endif
#ifndef GUARDS
#define GUARDS 2
#endif
#ifndef OTHERS
#define OTHERS 2 /* other programs: 0 none, 1 save or keep one area once, 2 any area for ever */
#endif

#if N == 1
#define EACH(step) step(0)
#define ANY(x) (x[0] != 0)
#elif N == 2
#define EACH(step) step(0); step(1)
#define ANY(x) (x[0] != 0 || x[1] != 0)
#else
#define EACH(step) step(0); step(1); step(2)
#define ANY(x) (x[0] != 0 || x[1] != 0 || x[2] != 0)
#endif

/* What an area in RAM, an archive or a kept copy holds. */
#define NONE 0   /* there is no file */
#define OLD 1    /* good, but older than the archive */
#define BEFORE 2 /* nothing of the try */
#define TRIAL 3  /* the try's change */
#define BROKEN 4 /* written in part */

/* The last state that the journal, S/try, tells. */
#define GONE 0 /* there is no journal */
#define CHANGING 1
#define MADE 2
#define CONFIRMING 3
#define REVERTING 4

/* Processes that hold locks or can be killed. */
#define NOBODY 0
#define CALLER 1
#define GUARD 2    /* and 3 */
#define OPERATOR 4 /* and 5 */
#define OTHER 6
#define PROCESSES 7

/* What the marker says of an area: its base is the kept copy, or it was never saved. */
#define KEPT 1
#define NEVER 2

/* ---- RAM ---- */
byte live[N] = BEFORE;
bool journalled[N]; /* the journal tells the changes of the area */
byte journal;
bool deadline;
byte actor;    /* who holds byte 2 of S/locks */
byte guard[2]; /* 0 none, 1 started, 2 holds its byte of S/locks */
byte block[N]; /* who holds byte 1 of the area's lock file */
byte image[N]; /* the file that the library's save hands to tar */
byte tar[N];   /* 0 none, 1 started, 2 has truncated the archive, 3 has written it */
byte orphan[N]; /* the same of a tar whose parent was killed */
bool tar_left; /* an orphan of scctl runs, which keeps the flock of S/saving */
bool dead[PROCESSES], stopped[PROCESSES], ended[PROCESSES];

/* ---- flash: as programs see it, and what is surely written ---- */
byte bin[N], good[N], marker[N];
#ifdef POWER
byte sure_bin[N], sure_good[N], sure_marker[N];
#endif

/* ---- what the properties speak of ---- */
bool begun, changed, committed, confirmed;

bool no_room; /* a tar has found no room */
byte i;       /* used within a step */

#define IS_GOOD(x) (x != NONE && x != BROKEN)
#define MARKED ANY(marker)

/* ---- steps that several processes share ---- */

/* A killed process loses its locks. Its tar goes on. */
inline kill(p) {
  d_step {
    dead[p] = true;
    stopped[p] = false;
    if :: actor == p -> actor = NOBODY :: else fi;
    do
    :: i < N ->
       if
       :: block[i] == p ->
          block[i] = NOBODY;
          if
          :: tar[i] != 0 ->
             orphan[i] = tar[i];
             tar[i] = 0;
#ifndef FAULT_SAVE_WITHOUT_FLOCK
             tar_left = true
#endif
          :: else
          fi
       :: else
       fi;
       i++
    :: else -> break
    od;
    i = 0;
    if :: p == GUARD || p == GUARD + 1 -> guard[p - GUARD] = 0 :: else fi
  }
}

inline lock_block(me, a) {
  atomic { block[a] == NOBODY -> block[a] = me }
}

/* The library's save; tar lets go of the lock in the name of its parent. */
inline save(me, a) {
  lock_block(me, a);
  d_step { image[a] = live[a]; tar[a] = 1 };
  block[a] != me
}

/* A kept copy is replaced by a rename. Byte 1 is held. */
inline renew_copy(a) {
  d_step { if :: IS_GOOD(bin[a]) -> good[a] = bin[a] :: else fi };
#ifdef POWER
  sure_good[a] = good[a]
#endif
}

inline change_marker(a, base) {
  marker[a] = base;
#if defined(POWER) && !defined(FAULT_MARKER_NOT_SYNCED)
  sure_marker[a] = base
#endif
}

inline remove_marker() {
  d_step { do :: i < N -> marker[i] = 0; i++ :: else -> break od; i = 0 }
}

inline sync_marker() {
#ifdef POWER
  d_step { do :: i < N -> sure_marker[i] = marker[i]; i++ :: else -> break od; i = 0 }
#else
  skip
#endif
}

/* S/try is removed and byte 2 let go. */
inline end_try() {
  d_step {
    journal = GONE;
    do :: i < N -> journalled[i] = false; i++ :: else -> break od;
    i = 0;
    actor = NOBODY
  }
}

inline put_back_live(a) {
  d_step {
    if :: journalled[a] && live[a] == TRIAL -> assert(!committed); live[a] = BEFORE :: else fi
  }
}

#define DIFFERS(a) ((marker[a] == KEPT && bin[a] != good[a]) || (marker[a] == NEVER && bin[a] != NONE))

/* An area that others have saved meanwhile is saved again. A save that began before live was put
 * back has ended when byte 1 is free. */
#ifdef FAULT_COMPARE_WITHOUT_LOCK
inline save_again(me, a) {
  if
  :: atomic { DIFFERS(a) -> skip }; save(me, a)
  :: !DIFFERS(a)
  fi
}
#else
inline save_again(me, a) {
  if
  :: marker[a] != 0 ->
     lock_block(me, a);
     if
     :: d_step { DIFFERS(a) -> block[a] = NOBODY }; save(me, a)
     :: d_step { !DIFFERS(a) -> block[a] = NOBODY }
     fi
  :: marker[a] == 0
  fi
}
#endif

#define revert(me)                                                            \
  atomic { !tar_left -> TELL_REVERT };                                        \
  EACH(put_back_live);                                                        \
  SAVE_AGAIN(me);                                                             \
  remove_marker();                                                            \
  sync_marker();                                                              \
  end_try()
#ifdef FAULT_REVERT_NOT_TOLD
#define TELL_REVERT skip
#else
#define TELL_REVERT journal = REVERTING
#endif
#if N == 1
#define SAVE_AGAIN(me) save_again(me, 0)
#define LOCK_ALL(me) lock_block(me, 0)
#define SAVE_ALL(me) save(me, 0)
#elif N == 2
#define SAVE_AGAIN(me) save_again(me, 0); save_again(me, 1)
#define LOCK_ALL(me) lock_block(me, 0); lock_block(me, 1)
#define SAVE_ALL(me) save(me, 0); save(me, 1)
#else
#define SAVE_AGAIN(me) save_again(me, 0); save_again(me, 1); save_again(me, 2)
#define LOCK_ALL(me) lock_block(me, 0); lock_block(me, 1); lock_block(me, 2)
#define SAVE_ALL(me) save(me, 0); save(me, 1); save(me, 2)
#endif

inline unlock_all(me) {
  d_step {
    do :: i < N -> if :: block[i] == me -> block[i] = NOBODY :: else fi; i++ :: else -> break od;
    i = 0
  }
}

#ifdef FAULT_FINISH_NOT_SYNCED
#define SYNC_FIRST skip
#else
#define SYNC_FIRST sync_marker()
#endif

/* Whoever comes after a commit whose maker was killed. */
#define finish(me)                                                            \
  !tar_left;                                                                  \
  SYNC_FIRST;                                                                 \
  LOCK_ALL(me);                                                               \
  EACH(renew_copy);                                                           \
  unlock_all(me);                                                             \
  end_try()

#define IS_COMMITTED (journal == CONFIRMING && !MARKED)

/* ---- scctl try ---- */

#ifdef FAULT_OLD_COPY
#define RENEW_AT_START(a) skip
#else
#define RENEW_AT_START(a) renew_copy(a)
#endif

/* Byte 1 is held until the marker is on the flash. */
inline mark(a) {
  lock_block(CALLER, a);
  RENEW_AT_START(a);
  change_marker(a, (IS_GOOD(good[a]) -> KEPT : NEVER));
  block[a] = NOBODY
}

inline change_live(a) {
  d_step { assert(!committed); live[a] = TRIAL; changed = true }
}

inline change(a) {
  if
  :: failed
  :: !failed ->
#ifndef FAULT_MARKER_LATE
     mark(a);
#endif
#ifdef FAULT_JOURNAL_LATE
     change_live(a);
     journalled[a] = true;
#else
     journalled[a] = true;
     change_live(a);
#endif
#ifdef FAULT_MARKER_LATE
     mark(a);
#endif
     if
     :: skip
     :: failed = true
     fi
  fi
}

inline start_guard(x) {
  d_step { if :: guard[x] == 0 -> guard[x] = 1 :: else fi }
}

inline try() {
  atomic { actor == NOBODY && journal == GONE -> actor = CALLER };
#if TRIES > 1 && !defined(FAULT_OLD_GUARDS)
  guard[0] != 2 && guard[1] != 2;
#endif
  d_step { journal = CHANGING; deadline = false; begun = true; changed = false };
  start_guard(0);
#if GUARDS == 1
  guard[0] == 2;
#else
  start_guard(1);
  guard[0] == 2 && guard[1] == 2;
#endif
  EACH(change);
  if
  :: failed -> failed = false; revert(CALLER)
  :: !failed -> d_step { journal = MADE }; actor = NOBODY
  fi
}

proctype Caller() provided (!stopped[CALLER]) {
  bool failed;
  {
    try();
#if TRIES > 1
    if
    :: atomic { journal == GONE && !committed -> skip }; try()
    :: skip
    fi
#endif
  } unless { d_step { dead[CALLER] -> dead[CALLER] = false; failed = false } };
  ended[CALLER] = true
}

/* ---- a guard ---- */

/* Between the look of a guard and what it does, this matters only when another try can begin. */
#if TRIES > 1
#define A_MOMENT skip;
#else
#define A_MOMENT
#endif

#define IS_REASON                                                             \
  (journal != GONE && (deadline || journal == REVERTING                       \
    || (actor == NOBODY && (journal == CHANGING || journal == CONFIRMING))))

#ifdef FAULT_NO_SECOND_LOOK
#define IS_REVERT (journal != GONE && !IS_COMMITTED)
#else
#define IS_REVERT                                                             \
  (journal == CHANGING || journal == REVERTING                                \
    || (deadline && (journal == MADE || (journal == CONFIRMING && MARKED))))
#endif

inline act() {
  if
#ifdef FAULT_COMMIT_BLIND
  :: journal == CONFIRMING -> finish(GUARD + g)
#else
  :: IS_COMMITTED -> finish(GUARD + g)
#endif
  :: IS_REVERT -> assert(journal != MADE || deadline); revert(GUARD + g)
  :: d_step { journal == CONFIRMING && MARKED && !deadline -> journal = MADE }; actor = NOBODY
  :: d_step { journal == GONE || (journal == MADE && !deadline) -> actor = NOBODY }
  fi
}

inline guard_loop() {
  d_step { guard[g] == 1 -> guard[g] = 2 };
  do
  :: journal == GONE -> A_MOMENT guard[g] = 0; break
#if GUARDS > 1
  :: journal != GONE && guard[1 - g] == 0 -> A_MOMENT start_guard(1 - g)
#ifndef FAULT_STOPPED_COUNTS
  :: journal != GONE && guard[1 - g] != 0 && stopped[GUARD + 1 - g] -> kill(GUARD + 1 - g)
#endif
#endif
  :: IS_REASON && actor == NOBODY ->
     if
     :: d_step { actor == NOBODY -> actor = GUARD + g }; act()
     :: actor != NOBODY
     fi
#ifdef SLOW_LOOK /* it reads the journal, and then looks at byte 2 */
  :: journal == CHANGING && actor == CALLER && !stopped[CALLER] ->
     if
     :: d_step { actor == NOBODY -> actor = GUARD + g }; act()
     :: actor != NOBODY
     fi
#endif
#ifndef FAULT_STOPPED_COUNTS
  :: IS_REASON && stopped[actor] ->
     d_step { if :: actor != NOBODY && actor != GUARD + g -> victim = actor :: else fi };
     if
     :: victim != 0 && actor == victim -> kill(victim)
     :: else
     fi;
     victim = 0
#endif
  :: journal != GONE && deadline && actor == CALLER -> kill(CALLER)
  od
}

proctype Guard(byte g) provided (!stopped[GUARD + g]) {
  byte victim;
  do
  :: { guard_loop() }
     unless { d_step { dead[GUARD + g] -> dead[GUARD + g] = false; victim = 0 } }
  od
}

/* ---- scctl confirm, scctl revert ---- */

inline read_back(a) {
#ifdef FAULT_MARKER_REMOVED_EARLY
  if
  :: a == N - 1 -> d_step { committed = true }; remove_marker(); sync_marker()
  :: else
  fi;
#endif
  if
  :: IS_GOOD(bin[a])
  :: else -> bad = true
  fi
}

inline give_up(me) {
  d_step { bad = false; journal = MADE };
  unlock_all(me);
  actor = NOBODY
}

inline commit() {
  d_step {
    committed = true;
    do :: i < N -> marker[i] = 0; i++ :: else -> break od;
    i = 0
  }
}

#ifdef FAULT_FOREIGN_SAVE_ACROSS_COMMIT
#define LOCK_FOR_COMMIT(me) skip
#else
#define LOCK_FOR_COMMIT(me) LOCK_ALL(me)
#endif
#ifdef FAULT_COPIES_BEFORE_COMMIT
#define COPIES_BEFORE EACH(renew_copy)
#define COPIES_AFTER skip
#else
#define COPIES_BEFORE skip
#define COPIES_AFTER EACH(renew_copy)
#endif
#ifdef FAULT_RETURNED_EARLY
#define RETURNED_EARLY confirmed = true
#else
#define RETURNED_EARLY skip
#endif

#define confirm(me)                                                           \
  atomic { !tar_left -> journal = CONFIRMING };                               \
  SAVE_ALL(me);                                                               \
  LOCK_FOR_COMMIT(me);                                                        \
  EACH(read_back);                                                            \
  if                                                                          \
  :: bad -> give_up(me)                                                       \
  :: !bad ->                                                                  \
     COPIES_BEFORE;                                                           \
     commit();                                                                \
     RETURNED_EARLY;                                                          \
     sync_marker();                                                           \
     COPIES_AFTER;                                                            \
     unlock_all(me);                                                          \
     end_try();                                                               \
     confirmed = true                                                         \
  fi

#ifdef FAULT_CONFIRM_UNMADE
#define CAN_CONFIRM (!deadline && journal != GONE && journal != REVERTING && !IS_COMMITTED)
#else
#define CAN_CONFIRM (!deadline && (journal == MADE || (journal == CONFIRMING && MARKED)))
#endif

proctype Operator(byte o) provided (!stopped[OPERATOR + o]) {
  bool bad;
  {
    begun;
    if
    :: atomic { actor == NOBODY -> actor = OPERATOR + o };
       if
       :: CAN_CONFIRM -> confirm(OPERATOR + o)
       :: !IS_COMMITTED && journal != GONE -> revert(OPERATOR + o)
       :: IS_COMMITTED -> finish(OPERATOR + o)
       :: journal == GONE || !CAN_CONFIRM -> actor = NOBODY
       fi
    :: skip /* no one comes */
    fi
  } unless { d_step { dead[OPERATOR + o] -> dead[OPERATOR + o] = false; bad = false } };
  ended[OPERATOR + o] = true
}

/* ---- tar, of whoever saves ---- */

/* One tar finds no room; with kills, one of a confirm. */
#if KILLS
#define FINDS_NO_ROOM(a) (!no_room && (block[a] == OPERATOR || block[a] == OPERATOR + 1))
#else
#define FINDS_NO_ROOM(a) (!no_room)
#endif

inline sync_archive(a) {
#ifdef POWER
  sure_bin[a] = bin[a];
#endif
  image[a] = NONE
}

proctype Tar(byte a) {
  do
  :: d_step { tar[a] == 1 -> bin[a] = BROKEN; tar[a] = 2 }
  :: d_step { tar[a] == 2 -> bin[a] = image[a]; tar[a] = 3 }
  :: d_step { tar[a] == 2 && FINDS_NO_ROOM(a) -> no_room = true; tar[a] = 3 }
  :: d_step { tar[a] == 3 -> sync_archive(a); tar[a] = 0; block[a] = NOBODY }
  :: d_step { orphan[a] == 1 -> bin[a] = BROKEN; orphan[a] = 2 }
  :: d_step { orphan[a] == 2 -> bin[a] = (image[a] == NONE -> BROKEN : image[a]); orphan[a] = 3 }
  :: d_step {
       orphan[a] == 3 -> orphan[a] = 0;
#ifdef POWER
       sure_bin[a] = bin[a];
#endif
       if :: tar[a] == 0 -> image[a] = NONE :: else fi;
       tar_left = tar_left && ANY(orphan)
     }
  od
}

/* ---- other programs: they save, and call scguard keep, in any order ---- */

#ifdef FAULT_KEEP_IN_WINDOW
#define IS_KEPT(a) true
#else
#define IS_KEPT(a) (marker[a] == 0)
#endif

#ifdef FAULT_KEEP_LOOKS_BEFORE_LOCK
inline keep(a) {
  marker[a] == 0;
  lock_block(OTHER, a);
  renew_copy(a);
  block[a] = NOBODY
}
#else
inline keep(a) {
  lock_block(OTHER, a);
  if
  :: IS_KEPT(a) -> renew_copy(a)
  :: !IS_KEPT(a)
  fi;
  block[a] = NOBODY
}
#endif

inline one_save(a) {
  save(OTHER, a);
  if
  :: keep(a)
  :: skip
  fi
}

proctype Other() {
#if OTHERS == 1
  if
  :: one_save(0)
  :: keep(0)
#if N > 1
  :: one_save(1)
  :: keep(1)
#endif
#if N > 2
  :: one_save(2)
  :: keep(2)
#endif
  :: skip
  fi
#else
  do
  :: break
  :: save(OTHER, 0)
  :: keep(0)
#if N > 1
  :: save(OTHER, 1)
  :: keep(1)
#endif
#if N > 2
  :: save(OTHER, 2)
  :: keep(2)
#endif
  od
#endif
}

/* ---- kills and stops ---- */

/* Each happens at some step. A process that is stopped and continues is only slow, so here a stop
 * lasts until somebody kills the process. */
proctype Killer() {
  byte n;
  begun;
  do
  :: atomic { n < KILLS && !ended[CALLER] -> n++; kill(CALLER) }
  :: atomic { n < KILLS && guard[0] != 0 -> n++; kill(GUARD) }
  :: atomic { n < KILLS && guard[1] != 0 -> n++; kill(GUARD + 1) }
  :: atomic { n < KILLS && !ended[OPERATOR] -> n++; kill(OPERATOR) }
  :: atomic { n < KILLS && !ended[CALLER] -> n++; stopped[CALLER] = true }
  :: atomic { n < KILLS && guard[0] != 0 -> n++; stopped[GUARD] = true }
  :: atomic { n < KILLS && guard[1] != 0 -> n++; stopped[GUARD + 1] = true }
  :: atomic { n < KILLS && !ended[OPERATOR] -> n++; stopped[OPERATOR] = true }
  :: atomic { n == KILLS -> n = 0; break }
  od
}

/* ---- the deadline, and how everything ends ---- */

/* The next call of scctl starts the guards of a try that nobody guards. After one kill there is such
 * a try only if nothing was changed yet. */
inline next_call() {
  atomic {
    assert(guard[0] == 0 || stopped[GUARD]);
    assert(guard[1] == 0 || stopped[GUARD + 1]);
    assert(KILLS > 1 || (!changed && !MARKED));
    if :: stopped[GUARD] -> kill(GUARD) :: else fi;
    if :: stopped[GUARD + 1] -> kill(GUARD + 1) :: else fi;
    guard[0] = 1;
    guard[1] = 1
  }
}

inline check_end(a) {
  d_step {
    assert(!journalled[a] && marker[a] == 0);
    if
    :: committed ->
       assert(live[a] == TRIAL && good[a] == TRIAL);
       assert(bin[a] == TRIAL || bin[a] == BROKEN)
    :: else ->
       assert(live[a] == BEFORE && good[a] != TRIAL && bin[a] != TRIAL)
    fi
  }
}

/* The deadline comes at any moment. LATE: when nothing else can happen any more. */
proctype Clock() {
  bool called;
  begun;
#ifdef LATE
  if
  :: timeout && journal == GONE
  :: timeout && journal != GONE ->
     if
     :: guard[0] == 2 && guard[1] == 2
     :: else -> next_call()
     fi;
     deadline = true
  fi;
#else
  deadline = true;
#endif
#ifndef POWER
  do
  :: timeout && journal != GONE && !called -> next_call(); called = true
  :: timeout && journal != GONE && called -> assert(false) /* the try does not end */
  :: timeout && journal == GONE -> break
  od;
  assert(actor == NOBODY || stopped[actor]);
  assert(!confirmed || committed);
  EACH(check_end)
#endif
}

/* ---- a power cut, and the boot ---- */
#ifdef POWER
#ifndef CUTS
#define CUTS 1 /* how often scguard restore is cut in its turn, at any step */
#endif

/* Whether a cut was not tried yet with this flash: its outcomes depend on nothing else. */
c_code {
  static int is_new;
  static int is_new_flash(void) {
    enum { kPlaces = 1 << 22 };
    static unsigned long long seen[kPlaces];
    static int count;
    unsigned long long key = 1;
    for (int a = 0; a < N; ++a) {
      const int writing = now.tar[a] > 1 || now.orphan[a] > 1;
      key = key * 5 + now.bin[a];
      key = key * 5 + now.good[a];
      key = key * 3 + now.marker[a];
      key = key * 5 + now.sure_bin[a];
      key = key * 5 + now.sure_good[a];
      key = key * 3 + now.sure_marker[a];
      key = key * 2 + writing;
    }
    key = key * 8 + now.committed * 4 + now.confirmed * 2 + now.no_room;
    unsigned place = (unsigned)(key * 0x9E3779B97F4A7C15ull >> 42);
    for (; seen[place] != 0; place = (place + 1) % kPlaces) {
      if (seen[place] == key) return 0;
    }
    if (++count > kPlaces / 2) abort();
    seen[place] = key;
    return 1;
  }
}

inline read_marker() {
  do :: a < N -> r[a] = m[a]; a++ :: else -> break od;
  a = 0
}

inline forget_marker() {
  do :: a < N -> m[a] = 0; a++ :: else -> break od;
  a = 0
}

/* What is not surely on the flash may be there or not, and an archive that is being written may be
 * broken. The outcomes of a cut are tried without a change to the state: m, b and g are marker,
 * archives and kept copies as the boot finds them. */
proctype Power() {
  byte a, cuts, m[N], r[N], b[N], g[N];
  bool has_before, has_trial;
  begun;
again:
  do
  :: atomic {
       c_code { is_new = is_new_flash(); };
       if
       :: c_expr { !is_new } -> goto again
       :: c_expr { is_new }
       fi;
       if
       :: true -> do :: a < N -> m[a] = sure_marker[a]; a++ :: else -> break od
       :: true -> do :: a < N -> m[a] = marker[a]; a++ :: else -> break od
       fi;
       a = 0;
       do
       :: a < N ->
          if
          :: b[a] = sure_bin[a]
          :: bin[a] != sure_bin[a] -> b[a] = bin[a]
          :: tar[a] > 1 || orphan[a] > 1 -> b[a] = BROKEN
          fi;
          if
          :: g[a] = sure_good[a]
          :: good[a] != sure_good[a] -> g[a] = good[a]
          fi;
          a++
       :: else -> break
       od;
       a = 0;
       do
       :: read_marker();
#ifdef FAULT_BOOT_REMOVES_MARKER_FIRST
          forget_marker();
#endif
          do
          :: a < N && r[a] == KEPT -> b[a] = g[a]; a++
          :: a < N && r[a] == NEVER -> b[a] = NONE; a++
          :: a < N && r[a] == 0 -> a++
          :: else -> break
          :: cuts < CUTS -> break
          od;
          if
          :: a < N -> a = 0; cuts++
          :: else -> a = 0; break
          fi
       od;
       cuts = 0;
       do
       :: a < N ->
          if
          :: r[a] == 0 && !IS_GOOD(b[a]) -> b[a] = g[a] /* as at any boot */
          :: else
          fi;
          assert(r[a] != KEPT || b[a] == BEFORE || (b[a] == OLD && no_room));
          assert(r[a] != NEVER || b[a] == NONE);
          if
          :: b[a] == TRIAL -> has_trial = true
          :: else -> has_before = true
          fi;
          a++
       :: else -> break
       od;
       a = 0;
       assert(!has_trial || !has_before); /* none mixed */
       assert(!has_trial || committed);
       assert(!has_before || !confirmed);
       has_before = false;
       has_trial = false;
       do :: a < N -> m[a] = 0; r[a] = 0; b[a] = 0; g[a] = 0; a++ :: else -> break od;
       a = 0
     }
  od
}
#endif

/* ---- start ---- */

/* Never saved; saved and kept; saved, and not kept since. */
inline begin_with(a) {
  if
#ifndef ONE_BEGINNING
  :: bin[a] = NONE; good[a] = NONE
  :: bin[a] = BEFORE; good[a] = BEFORE
  :: bin[a] = BEFORE; good[a] = OLD
#else
  :: a == 0 -> bin[a] = NONE; good[a] = NONE
  :: a != 0 -> bin[a] = BEFORE; good[a] = OLD
#endif
  fi;
#ifdef POWER
  sure_bin[a] = bin[a];
  sure_good[a] = good[a];
#endif
  run Tar(a)
}

init {
  atomic {
    EACH(begin_with);
    run Caller();
    run Guard(0);
#if GUARDS > 1
    run Guard(1);
#endif
    run Operator(0);
#if OPERATORS > 1
    run Operator(1);
#endif
#if OTHERS
    run Other();
#endif
#if KILLS
    run Killer();
#endif
#ifdef POWER
    run Power();
#endif
    run Clock()
  }
}
