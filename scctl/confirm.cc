/* confirm and revert: what ends a try before its time. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "commands.h"
#include "store/kept.h"
#include "try.h"

namespace scctl {

/* ---- confirm ---- */

namespace {

/* Prints what others changed in these areas and nobody saved: the areas differ in it from their
 * archives with the try's own changes. True when there was anything. */
bool list_unsaved(Source& live, const Changes& own, uint32_t areas) {
  Source saved;
  saved.open_saved();
  bool any = false;
  for (const Table& table : kTables) {
    if ((areas & bit(table.area)) == 0) continue;
    Snapshot was(table), is(table);
    was.take(saved);
    for (uint32_t n = 0; is_section(table) && n < table.capacity; ++n) {
      if (!was.used(n)) was.put(n); /* never saved: zeros */
    }
    is.take(live);
    for (const Change* change = own.first(); change != nullptr; change = change->next) {
      if (change->table != &table) continue;
      change->put(change->after, was.put(change->position));
      if (!change->is_used) was.drop(change->position);
    }
    any |= print_changes("  ", was, is);
  }
  return any;
}

int fail_confirm(Try& running, int status) {
  running.set_phase(Phase::kMade);
  return status;
}

/* Without the marker the archives may be those of before already. */
int refuse_without_marker() {
  return fail(kRefused, "not confirmed: %s/%s was removed; scctl revert takes the try back",
              kArchiveFolder, kMarkerName);
}

/* The removal of the marker is what confirms. The areas that were saved have archives; another one
 * that is marked may never have been saved. */
int commit(Try& running, uint32_t saved) {
  for (const Area& area : kAreas) {
    if ((running.header.marked & bit(id_of(area))) == 0) continue;
    ArchiveImage image;
    const char* fault = read_own_archive(area, &image);
    free(image.bytes);
    const bool may_be_missing = (saved & bit(id_of(area))) == 0;
    if (fault == nullptr || (may_be_missing && image.verdict.state == State::kMissing)) continue;
    return fail_confirm(running,
                        fail(kRefused, "not confirmed: %s: %s", archive_path(area).text, fault));
  }
  {
    const ArchiveFolder folder;
    Marker marker;
    if (folder && running.header.marked != 0 &&
        read_marker(folder.descriptor(), &marker) != MarkerState::kThere) {
      return fail_confirm(running, refuse_without_marker());
    }
    if (!folder || !remove_marker(folder.descriptor())) {
      return fail_confirm(running, fail_flash("not confirmed: the marker is not removed"));
    }
  }
  /* Still without saves: a cut of a save would bring an old copy back. */
  finish_confirmed(running);
  return kOk;
}

/* Keeps others from saving the areas from n on, and commits. */
// NOLINTNEXTLINE(misc-no-recursion): a lock for each area, at most sixteen deep
int commit_without_saves(Try& running, uint32_t saved, int n) {
  while (n < kAreaCount && (running.header.marked & bit(static_cast<AreaId>(n))) == 0) ++n;
  if (n >= kAreaCount) return commit(running, saved);
  const NoSaves no_saves(kAreas[n]);
  if (no_saves) return commit_without_saves(running, saved, n + 1);
  return fail_confirm(running, fail_saving(kAreas[n]));
}

int save_and_commit(Call& call, Try& running, uint32_t areas) {
  {
    const OwnSaves own;
    for (const Area& area : kAreas) {
      if ((areas & bit(id_of(area))) == 0) continue;
      if (const int status = save_area(call, id_of(area)); status != kOk) {
        return fail_confirm(running, status);
      }
    }
  }
  return commit_without_saves(running, areas, 0);
}

int confirm(Call& call, Try& running) {
  if (running.header.phase == Phase::kConfirming && !is_marked()) {
    finish_confirmed(running); /* another confirm was killed behind its last step */
    return kOk;
  }
  if (running.header.phase == Phase::kReverting || running.is_over()) {
    return fail(kRefused, "too late: the try is being taken back");
  }
  if (running.header.marked != 0 && !is_marked()) {
    return refuse_without_marker();
  }
  call.source.open_live();
  Changes changes;
  running.read_changes(call.source, &changes);
  const uint32_t areas = changes.areas() & saved_areas();
  if (list_unsaved(call.source, changes, areas)) {
    if (call.has(kOnlyMine)) {
      return fail(kRefused, "not confirmed: these changes are not part of the try");
    }
    tell("these changes are not part of the try, and are saved, too");
  }
  if (!running.set_phase(Phase::kConfirming)) return fail_state();
  return save_and_commit(call, running, areas);
}

}  // namespace

int run_confirm(Call& call) {
  Try running;
  int status = join(running, "not confirmed");
  if (status == kOk) status = confirm(call, running);
  leave_role(Role::kActor);
  return status;
}

/* ---- revert ---- */

namespace {

/* Tries again for the records that wait. */
int take_back_waiting(Call& call, Changes& changes) {
  call.source.open_live();
  Text report, rest;
  take_back_live(call.source, changes, &report);
  for (const Change* change = changes.first(); change != nullptr; change = change->next) {
    if (change->fate != Fate::kWaits && change->fate != Fate::kDue) continue;
    pack_step(change->step(), 0, &rest);
  }
  if (rest.size() == 0)
    unlinkat(state_folder(), "waiting", 0);
  else if (!replace_state_file("waiting", rest.c_str(), rest.size()))
    return fail_state();
  tell("taken back: %u of %u record%s that waited", count(changes, Fate::kBack), count(changes),
       count(changes) == 1 ? "" : "s");
  fputs(report.c_str(), stdout);
  return rest.size() == 0 ? kOk : kRefused;
}

}  // namespace

int run_revert(Call& call) {
  Try running;
  Changes waiting;
  if (open_state(false) && !running.open() && read_waiting(&waiting)) {
    return take_back_waiting(call, waiting);
  }
  if (const int status = join(running, "not taken back"); status != kOk) return status;
  if (running.header.phase == Phase::kConfirming && !is_marked()) {
    finish_confirmed(running);
    leave_role(Role::kActor);
    return fail(kRefused, "too late: the try was confirmed");
  }
  Text report;
  const Ended ended = revert(running, "by scctl revert", &report);
  const bool is_left = ended != Ended::kNotYet && running.header.marked != 0 && is_marked();
  leave_role(Role::kActor);
  fputs(report.c_str(), stdout);
  if (is_left) return fail(kRefused, "%s/%s is not removed", kArchiveFolder, kMarkerName);
  if (ended == Ended::kYes) return kOk;
  if (ended == Ended::kWaiting) return fail(kRefused, "records wait: scctl revert tries again");
  return fail(kRefused, "its guards go on: other programs hold records or save areas");
}

}  // namespace scctl
