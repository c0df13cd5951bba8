/* watch --json: each change as an object on a line.
 *
 * The stream never waits for its reader: lines wait in a buffer of fixed size, and those that have
 * no room are dropped and counted. When the reader has read the rest, a line tells it how many were
 * lost, and the present state follows.
 */
#ifndef SCCTL_STREAM_H
#define SCCTL_STREAM_H

#include "shown.h"

namespace scctl {

class ChangeStream {
 public:
  /* A line about an area. */
  void tell_area(AreaId area, const char* what, const char* seen);
  /* A line about a record. The author and what follows it may be empty. */
  void tell_record(const Seen& seen, const char* rest);
  /* Lines are lost, or may be: `why` tells at which end. The state has to be sent anew. */
  void lose(const char* why);
  /* Writes what the reader takes at once. False when it is gone. */
  bool flush();

  bool has_unsent() const { return out_.size() > 0; }
  /* Whether so many lines have room that the state may be sent further. */
  bool has_room() const { return out_.size() < kMostUnsent / 2; }
  bool is_losing() const { return lost_ > 0; }
  /* The line that tells of the loss; the state follows. */
  void tell_lost();

 private:
  static constexpr size_t kMostUnsent = 16 * 1024;

  void begin(AreaId area);
  void end();

  Text out_;
  Text line_;
  uint32_t seq_ = 0;
  uint32_t lost_ = 0;
  const char* why_ = nullptr;
};

}  // namespace scctl

#endif
