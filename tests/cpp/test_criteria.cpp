// The label histogram and the split criteria built on it.

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "test_support.h"
#include "velmot/stats/criteria.h"

namespace {

using Acc = Velmot::NominalLabelPriorAccumulator<int>;
using VelmotTest::histogram;

// What the split search makes of one split under a criterion: the final
// score and the improvement.
template <class C>
std::pair<double, double> score(const Acc& node, const Acc& left, const Acc& right) {
  const C criterion;
  const double initial = criterion.get_initial(node);
  return {criterion.get_final_score(criterion(initial, left, right), initial),
          criterion.get_impurity(0.0, 0.0, left, right) - criterion.get_impurity(node)};
}

TEST(Criteria, FinalScoresAndGiniImprovementOfKnownSplits) {
  const struct {
    std::vector<int> node, left, right;
    double gini, info_gain, gain_ratio, improvement;
  } cases[] = {
      {{2, 2}, {2, 0}, {0, 2}, 2.0, 1.0, 1.0, 2.0},
      {{2, 2}, {1, 1}, {1, 1}, 0.0, 0.0, 0.0, 0.0},
      // Equal shares on both sides of an uneven split: no gain either.
      {{4, 2, 6}, {2, 1, 3}, {2, 1, 3}, 0.0, 0.0, 0.0, 0.0},
      {{3, 1}, {3, 0}, {0, 1}, 1.5, 0.8112781244591328, 1.0, 1.5},
      // Gain ratio divides by the split information (here 0.918...).
      {{3, 3}, {3, 1}, {0, 2}, 1.5, 0.4591479170272448, 0.5, 1.5},
      // Gini: the decrease of count-weighted impurity, 6.2 - 1.6 - 3.2.
      {{5, 3, 2}, {4, 1, 0}, {1, 2, 2}, 1.4, 0.3635472023399723, 0.3635472023399723, 1.4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.left) + " " + ::testing::PrintToString(c.right));
    const Acc node = histogram(c.node), left = histogram(c.left), right = histogram(c.right);
    const auto gini = score<Velmot::TwoSplitGiniImpurity>(node, left, right);
    const auto gain = score<Velmot::TwoSplitInfoGain>(node, left, right);
    const auto ratio = score<Velmot::TwoSplitGainRatio>(node, left, right);
    EXPECT_NEAR(gini.first, c.gini, 1e-12);
    EXPECT_NEAR(gain.first, c.info_gain, 1e-15);
    EXPECT_NEAR(ratio.first, c.gain_ratio, 1e-15);
    // The improvement is Gini-based whatever ranks the split.
    for (const double improvement : {gini.second, gain.second, ratio.second}) {
      EXPECT_NEAR(improvement, c.improvement, 1e-12);
    }
  }
}

TEST(LabelStatistics, EntropyGiniAndSquaresOfKnownHistograms) {
  const auto empty = histogram({0, 0, 0});
  EXPECT_EQ(empty.compute_gini_impurity(), 0.0);
  EXPECT_EQ(Velmot::compute_entropy(empty), 0.0);
  EXPECT_EQ(empty.get_num_slots(), 5u);

  auto acc = histogram({3, 1});
  EXPECT_EQ(acc.compute_gini_impurity(), 2.5);  // sum of squares over the total
  EXPECT_EQ(acc.get_sum_squared(), 10);
  acc.increment_count(1);
  EXPECT_EQ(acc.get_sum_squared(), 9 + 4);
  acc.decrement_count(0);
  acc.decrement_count(1);
  EXPECT_EQ(acc.get_sum_squared(), 4 + 1);
  EXPECT_EQ(acc.get_total_count(), 3u);

  EXPECT_EQ(Velmot::compute_entropy(histogram({2, 2, 0})), 1.0);
  EXPECT_FALSE(std::signbit(Velmot::compute_entropy(histogram({4, 0, 0}))));
  EXPECT_EQ(Velmot::compute_entropy(histogram({5})), 0.0);
  EXPECT_EQ(Velmot::compute_2class_entropy(1, 1), 1.0);
  EXPECT_FALSE(std::signbit(Velmot::special_negate(-0.0)));
  // A Regression histogram has no entropy, so the entropy criteria never
  // find a split better than the unsplit node.
  auto regression = histogram({2, 2});
  regression.set_labeling(Velmot::Regression);
  EXPECT_EQ(Velmot::compute_entropy(regression), 0.0);

  // PlusOneMinusOne counts -1 in slot 0 and 1 in slot 2.
  Acc signs;
  signs.set_labeling(Velmot::PlusOneMinusOne);
  signs.set_num_classes(1);
  for (const int label : {-1, -1, -1, 1}) signs.increment_count(label);
  EXPECT_DOUBLE_EQ(Velmot::compute_entropy(signs), 0.8112781244591328);
  EXPECT_EQ(signs.get_mode().first, -1);
}

// get_prediction's draws per tie (empty slots included) are pinned by
// LearnTree.EmptyPureAndTinySamplesAreLeaves.
TEST(LabelStatistics, ModeTakesTheLowestOfEqualCounts) {
  EXPECT_EQ(histogram({5, 5}).get_mode(), std::make_pair(0, int64_t{5}));
  EXPECT_EQ(histogram({1, 7, 7}).get_mode().first, 1);
}

}  // namespace
