/* Shared locks on all records of areas, for copies of one moment.
 *
 * Never waits in the kernel (F_SETLKW): the kernel could then answer another program's wait with
 * EDEADLK, and the library would write without a lock. No edit of this process may be open meanwhile:
 * the end of these descriptors drops its locks.
 */
#ifndef SCCTL_RECORD_LOCKS_H
#define SCCTL_RECORD_LOCKS_H

#include "store/edit.h"

namespace scctl {

using namespace store;

class RecordLocks {
 public:
  /* Of these areas, as bits, those that exist. */
  RecordLocks(Source& live, uint32_t areas);
  ~RecordLocks();
  RecordLocks(const RecordLocks&) = delete;
  RecordLocks& operator=(const RecordLocks&) = delete;

  bool has(AreaId id) const { return (areas_ & bit(id)) != 0; }
  bool empty() const { return areas_ == 0; }

  /* Calls copy(id, held) for each area, while all of them are locked. If records stay locked by others
   * for a second, locks area by area, and copies an area that is still locked without its locks:
   * `why_not` gets the reason. */
  template <class Copy>
  void copy(Text* why_not, Copy copy) {
    const bool one_moment = hold(0, kAreaCount);
    if (!one_moment) format_failure(why_not);
    for (int n = 0; n < kAreaCount; ++n) {
      const auto id = static_cast<AreaId>(n);
      if (!has(id)) continue;
      const bool held = one_moment || hold(n, n + 1);
      if (!held) why_not->print("; %s without its locks", kAreas[n].name);
      copy(id, held);
      if (!one_moment) release(n, n + 1);
    }
  }

 private:
  bool hold(int first, int end);
  void release(int first, int end);
  void format_failure(Text* to) const;
  bool lock(int n, short type);

  uint32_t areas_ = 0;
  int files_[kAreaCount]; /* or minus the errno of a file that could not be opened */
  int missing_ = 0;
  int error_ = 0;
};

}  // namespace scctl

#endif
