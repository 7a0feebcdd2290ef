// The label histogram and the split criteria built on it.

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "velmot/stats/criteria.h"

namespace {

using Acc = Velmot::NominalLabelPriorAccumulator<int>;

// A histogram of labels 0, 1, ... holding class_counts[c] of label c.
Acc histogram(const std::vector<int>& class_counts, Velmot::LabelingType labeling = Velmot::DiscreteZeroOnward) {
  Acc acc;
  acc.set_labeling(labeling);
  acc.set_num_classes(static_cast<int>(class_counts.size()));
  for (size_t c = 0; c < class_counts.size(); ++c) {
    for (int k = 0; k < class_counts[c]; ++k) acc.increment_count(static_cast<int>(c));
  }
  return acc;
}

// The final score and the improvement a criterion gives one split.
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
    double gini, info_gain, gain_ratio;
  } cases[] = {
      {{2, 2}, {2, 0}, {0, 2}, 2.0, 1.0, 1.0},
      {{4, 2, 6}, {2, 1, 3}, {2, 1, 3}, 0.0, 0.0, 0.0},
      {{3, 1}, {3, 0}, {0, 1}, 1.5, 0.8112781244591328, 1.0},
      // Gain ratio divides by the split information (here 0.918...).
      {{3, 3}, {3, 1}, {0, 2}, 1.5, 0.4591479170272448, 0.5},
      {{5, 3, 2}, {4, 1, 0}, {1, 2, 2}, 1.4, 0.3635472023399723, 0.3635472023399723},
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
    // The improvement is the Gini one whatever ranks the split.
    for (const double improvement : {gain.second, ratio.second}) EXPECT_NEAR(improvement, c.gini, 1e-12);
  }
}

TEST(LabelStatistics, EntropyOfEveryLabeling) {
  EXPECT_EQ(Velmot::compute_entropy(histogram({0, 0, 0})), 0.0);
  EXPECT_EQ(Velmot::compute_entropy(histogram({2, 2, 0})), 1.0);
  EXPECT_FALSE(std::signbit(Velmot::compute_entropy(histogram({4, 0, 0}))));
  // A Regression histogram has no entropy: entropy criteria never split it.
  EXPECT_EQ(Velmot::compute_entropy(histogram({2, 2}, Velmot::Regression)), 0.0);
  // PlusOneMinusOne counts -1 in slot 0 and 1 in slot 2.
  Acc signs = histogram({}, Velmot::PlusOneMinusOne);
  signs.set_num_classes(1);
  for (const int label : {-1, -1, -1, 1}) signs.increment_count(label);
  EXPECT_DOUBLE_EQ(Velmot::compute_entropy(signs), 0.8112781244591328);
  EXPECT_EQ(signs.get_mode().first, -1);
}

}  // namespace
