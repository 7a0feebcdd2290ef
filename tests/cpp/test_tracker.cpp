#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>

#include "velmot/defs/random.h"
#include "velmot/defs/tracker.h"

namespace {

using StringTracker = Velmot::Tracker<std::string, std::less<double>>;
const Velmot::XorShiftState fixed_state{5, 6, 7, 8};

TEST(Tracker, FreshTrackerIsEmpty) {
  StringTracker tracker;
  EXPECT_FALSE(tracker.is_initialized());
  EXPECT_EQ(tracker.get_maximum(), 0.0);
  EXPECT_EQ(tracker.get_num_ties(), 0);
  EXPECT_THROW(tracker.get_maximizer(), Velmot::EmptyTrackerException);
  try {
    tracker.get_maximizer();
  } catch (const Velmot::Exception& e) {
    EXPECT_EQ(e.get_message(), "");
  }
}

TEST(Tracker, PlainOffersKeepTheEarliestOfEqualValues) {
  StringTracker tracker;
  tracker.try_candidate(1, "a");
  tracker.try_candidate(1, "b");
  EXPECT_EQ(tracker.get_maximizer(), "a");
  EXPECT_EQ(tracker.get_minimizer(), "a");
  tracker.try_candidate(0.5, "c");
  tracker.try_candidate(4, "d");
  EXPECT_EQ(tracker.get_minimizer(), "c");
  EXPECT_EQ(tracker.get_maximizer(), "d");
  EXPECT_EQ(tracker.get_num_ties(), 1);
}

TEST(Tracker, TieBreakingDrawsOnlyOnExactTies) {
  StringTracker tracker;
  Velmot::XorShiftRNG rng(fixed_state);
  Velmot::XorShiftRNG replay(fixed_state);
  tracker.try_candidate_break_ties(1, "a", rng);
  tracker.try_candidate_break_ties(2, "b", rng);
  EXPECT_EQ(rng.get_state().w, fixed_state.w);  // no draw yet
  tracker.try_candidate_break_ties(2, "c", rng);
  replay.next_double();
  tracker.try_candidate_break_ties(3, "d", rng);
  tracker.try_candidate_break_ties(0, "e", rng);
  EXPECT_EQ(rng.get_state().w, replay.get_state().w);  // exactly one draw, at c
  EXPECT_EQ(tracker.get_num_ties(), 1);
  EXPECT_EQ(tracker.get_maximizer(), "d");
  EXPECT_EQ(tracker.get_minimizer(), "e");
}

TEST(Tracker, TwoEqualOffersFollowTheDraw) {
  for (int seed = 1; seed <= 8; ++seed) {
    const Velmot::XorShiftState state{seed, 2 * seed, 3 * seed, 99};
    StringTracker tracker;
    Velmot::XorShiftRNG rng(state), replay(state);
    tracker.try_candidate_break_ties(1, "a", rng);
    tracker.try_candidate_break_ties(1, "b", rng);
    EXPECT_EQ(tracker.get_num_ties(), 2);
    EXPECT_EQ(tracker.get_maximizer(), 0.5 > replay.next_double() ? "b" : "a");
    EXPECT_EQ(tracker.get_minimizer(), "a");
  }
}

TEST(Tracker, ReservoirChoiceAmongManyTies) {
  // Third tie: replaced when 1/3 > u.
  StringTracker tracker;
  Velmot::XorShiftRNG rng(fixed_state), replay(fixed_state);
  std::string expected = "a";
  tracker.try_candidate_break_ties(7, "a", rng);
  for (const char* name : {"b", "c", "d"}) {
    tracker.try_candidate_break_ties(7, name, rng);
    if (1.0 / tracker.get_num_ties() > replay.next_double()) expected = name;
  }
  EXPECT_EQ(tracker.get_num_ties(), 4);
  EXPECT_EQ(tracker.get_maximizer(), expected);
}

TEST(Tracker, NaNChangesNothingAfterTheFirstOffer) {
  StringTracker tracker;
  Velmot::XorShiftRNG rng(fixed_state);
  tracker.try_candidate_break_ties(1, "a", rng);
  tracker.try_candidate_break_ties(std::nan(""), "b", rng);
  EXPECT_EQ(tracker.get_maximizer(), "a");
  EXPECT_EQ(tracker.get_minimizer(), "a");
  EXPECT_EQ(rng.get_state().w, fixed_state.w);
}

TEST(NodeResult, DefaultSentinels) {
  EXPECT_EQ(Velmot::NodeResult<double>().threshold, 2.2250738585072014e-308);
  EXPECT_EQ(Velmot::NodeResult<float>().threshold, std::numeric_limits<float>::min());
  EXPECT_EQ(Velmot::NodeResult<int>().threshold, std::numeric_limits<int>::min());
  EXPECT_EQ(Velmot::NodeResult<unsigned char>().threshold, 0);
  const Velmot::NodeResult<int> none;
  EXPECT_EQ(none.feature_index, -1);
  EXPECT_EQ(none.best_improvement, 0.0);
}

}  // namespace
