/* The fixture of edits and repairs that are looked at from call to call. */
#ifndef SCCTL_EDIT_TRACE_H
#define SCCTL_EDIT_TRACE_H

#include <string.h>

#include <string>

#include "scctl/edits.h"
#include "scctl/lock_calls.h"
#include "support/trace.h"

namespace sc_test {

class TraceEditTest : public EditTest {
 protected:
  /* Runs a command that is killed at each of its calls, and holds every state that is left against
   * the images before and after it. */
  void expect_old_or_new(const std::string& area_name, const Words& arguments,
                         const std::string& input = "") {
    const Image before = image(area_name);
    EXPECT_EQ(run(scctl(arguments), input).status, 0);
    const Image after = image(area_name);
    ASSERT_FALSE(before.matches(after.data()));
    size_t killed = 0, old_states = 0, new_states = 0;
    for (bool ended = false; !ended; ++killed) {
      memcpy(block(area_name), before.data(), before.size());
      ended = true;
      trace(
          scctl(arguments),
          [&](const SystemCall& call) {
            if (call.is_done || call.number != killed + 1) return Fate{};
            ended = false;
            return Fate{Fate::kKills};
          },
          input);
      const bool is_old = before.matches(block(area_name)),
                 is_new = after.matches(block(area_name));
      EXPECT_TRUE(is_old || is_new) << "killed at call " << killed + 1;
      old_states += is_old;
      new_states += is_new;
    }
    EXPECT_GT(old_states, 10u);
    EXPECT_GT(new_states, 2u);
  }
};

}  // namespace sc_test

#endif
