#include "stream.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "store/value.h"

namespace scctl {

namespace {

unsigned ms_of(const timespec& time) { return static_cast<unsigned>(time.tv_nsec / 1000000); }

void add_value(const Field& field, const uint8_t* record, Text* to) {
  if (record != nullptr)
    format_json(field, record, true, to);
  else
    to->add("null");
}

/* Whether the field differs; where there is one record only, whether it is not empty. */
bool differs(const Field& field, const uint8_t* was, const uint8_t* is) {
  if (was != nullptr && is != nullptr) return !equal(field, was, is);
  return size_without_trailing_zeros(field, was != nullptr ? was : is) != 0;
}

/* Adds the fields that differ, by the names that the record had before and has after. True when bytes
 * without a name differ. */
bool add_fields(const Seen& seen, Text* to) {
  const auto view = [&](const uint8_t* record) -> const Table& {
    return record != nullptr ? view_of(seen.table, seen.position, record) : seen.table;
  };
  const Table &was_view = view(seen.was), &is_view = view(seen.is);
  const bool is_change = seen.was != nullptr && seen.is != nullptr;
  bool is_unnamed = false;
  char before = '{';
  const auto add = [&](const Field& field, const uint8_t* was, const uint8_t* is) {
    if (!is_shown(field)) {
      is_unnamed |= is_spare_name(field.name) && differs(field, seen.was, seen.is);
      return;
    }
    if (!differs(field, was, is)) return;
    to->print("%c\"%s\":[", before, field.name);
    add_value(field, was, to);
    to->add(',');
    add_value(field, is, to);
    to->add(']');
    before = ',';
  };
  const bool is_same_view = &was_view == &is_view;
  const auto has = [](const Table& table, const Field& field) {
    return find_field(table, field.name, strlen(field.name)) != nullptr;
  };
  if (seen.is != nullptr) {
    for (const Field& field : is_view) {
      add(field, is_change && (is_same_view || has(was_view, field)) ? seen.was : nullptr, seen.is);
    }
  }
  if (seen.was != nullptr && !(is_change && is_same_view)) {
    for (const Field& field : was_view) {
      if (!is_change || !has(is_view, field)) add(field, seen.was, nullptr);
    }
  }
  if (before == '{') to->add(before);
  to->add('}');
  return is_unnamed;
}

}  // namespace

void ChangeStream::begin(AreaId area) {
  timespec boot, now;
  clock_gettime(CLOCK_BOOTTIME, &boot);
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts;
  char time[32];
  strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%S", gmtime_r(&now.tv_sec, &parts));
  line_.clear();
  line_.print("{\"seq\":%u,\"boot\":%u.%03u,\"time\":\"%s.%03uZ\"", ++seq_,
              static_cast<unsigned>(boot.tv_sec), ms_of(boot), time, ms_of(now));
  if (area < kAreaCount) line_.print(",\"area\":\"%s\"", kAreas[area].name);
}

/* A line that has no room, and all behind it until the loss is told, are lost. */
void ChangeStream::end() {
  line_.add("}\n");
  if (lost_ != 0 || out_.size() + line_.size() > kMostUnsent) {
    lose("reader");
  } else {
    out_.add(line_.c_str(), line_.size());
  }
}

void ChangeStream::lose(const char* why) {
  ++lost_;
  why_ = why;
}

void ChangeStream::tell_lost() {
  const uint32_t count = lost_;
  lost_ = 0;
  begin(kAreaCount);
  line_.print(",\"what\":\"lost\",\"count\":%u,\"seen\":\"%s\"", count, why_);
  end();
}

void ChangeStream::tell_area(AreaId area, const char* what, const char* seen) {
  begin(area);
  line_.print(",\"what\":\"%s\",\"seen\":\"%s\"", what, seen);
  end();
}

void ChangeStream::tell_record(const Seen& seen, const char* rest) {
  begin(seen.table.area);
  line_.print(",\"table\":\"%s\",\"id\":%u,\"what\":\"%s\",\"fields\":", seen.table.name,
              seen.position + 1,
              seen.was == nullptr  ? "add"
              : seen.is == nullptr ? "delete"
                                   : "change");
  const bool is_unnamed = add_fields(seen, &line_);
  if (is_unnamed || seen.is_unnamed) line_.add(",\"unnamed\":true");
  line_.add(rest);
  end();
}

/* So much fits into a pipe that is ready, and is written without a wait. */
bool ChangeStream::flush() {
  size_t at = 0;
  bool is_there = true;
  while (at < out_.size()) {
    pollfd ready = {STDOUT_FILENO, POLLOUT, 0};
    const timespec now = {};
    if (ppoll(&ready, 1, &now, nullptr) <= 0) break;
    const size_t left = out_.size() - at;
    const ssize_t size = write(STDOUT_FILENO, out_.c_str() + at, left < PIPE_BUF ? left : PIPE_BUF);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) break;
    is_there = size > 0;
    if (!is_there) break;
    at += static_cast<size_t>(size);
  }
  memmove(out_.data(), out_.data() + at, out_.size() - at);
  out_.cut(out_.size() - at);
  return is_there;
}

}  // namespace scctl
