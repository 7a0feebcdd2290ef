#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "test_support.h"
#include "velmot/defs/random.h"
#include "velmot/defs/tracker.h"

namespace {

using StringTracker = Velmot::Tracker<std::string, std::less<double>>;

TEST(Tracker, EmptyThenTheEarliestOfEqualValues) {
  StringTracker tracker;
  EXPECT_FALSE(tracker.is_initialized());
  EXPECT_EQ(tracker.get_maximum(), 0.0);
  EXPECT_THROW(tracker.get_maximizer(), Velmot::EmptyTrackerException);
  EXPECT_EQ(VelmotTest::message_of([&] { tracker.get_maximizer(); }), "");
  for (const auto& [value, name] : {std::pair{1.0, "a"}, {1.0, "b"}, {0.5, "c"}, {4.0, "d"}, {0.5, "e"}}) {
    tracker.try_candidate(value, name);
  }
  EXPECT_EQ(tracker.get_minimizer(), "c");
  EXPECT_EQ(tracker.get_maximizer(), "d");
  EXPECT_EQ(tracker.get_num_ties(), 1);
}

// The k-th equal maximum replaces the maximizer when 1/k > u, one draw per
// exact tie with the maximum and none otherwise (NaN included).
TEST(Tracker, TieBreakingDrawsOnlyOnExactTiesOfTheMaximum) {
  for (int seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    const Velmot::XorShiftState state{seed, 2 * seed, 3 * seed, 99};
    StringTracker tracker;
    Velmot::XorShiftRNG rng(state), replay(state);
    std::string expected;
    int ties = 0;
    for (const auto& [value, name] : {std::pair{1.0, "a"}, {0.0, "b"}, {2.0, "c"}, {2.0, "d"}, {std::nan(""), "e"},
                                      {0.0, "f"}, {2.0, "g"}, {2.0, "h"}}) {
      tracker.try_candidate_break_ties(value, name, rng);
      if (value == 2.0 && ++ties > 1) {
        if (1.0 / ties > replay.next_double()) expected = name;
      } else if (value == 2.0) {
        expected = name;
      }
      EXPECT_EQ(rng.get_state().w, replay.get_state().w) << name;
    }
    EXPECT_EQ(tracker.get_num_ties(), 4);
    EXPECT_EQ(tracker.get_maximizer(), expected);
    EXPECT_EQ(tracker.get_minimizer(), "b");
  }
}

}  // namespace
