// The entropy criteria's scores of known splits; the Gini criterion is
// checked against an independent learner through the module.

#include <gtest/gtest.h>

#include <vector>

#include "velmot/stats/criteria.h"

namespace {

using Acc = Velmot::NominalLabelPriorAccumulator<int>;

// A histogram of labels 0, 1, ... holding counts[c] of label c.
Acc histogram(const std::vector<int>& counts) {
  Acc acc;
  acc.set_labeling(Velmot::DiscreteZeroOnward);
  acc.set_num_classes(static_cast<int>(counts.size()));
  for (size_t c = 0; c < counts.size(); ++c) {
    for (int k = 0; k < counts[c]; ++k) acc.increment_count(static_cast<int>(c));
  }
  return acc;
}

// What the split search reports of a split: its final score, and the
// improvement, which is the Gini one whatever criterion ranks the split.
template <class C>
void expect_scores(const Acc& node, const Acc& left, const Acc& right, double score, double gini_improvement) {
  const C criterion;
  const double initial = criterion.get_initial(node);
  EXPECT_NEAR(criterion.get_final_score(criterion(initial, left, right), initial), score, 1e-15);
  EXPECT_NEAR(criterion.get_impurity(0.0, 0.0, left, right) - criterion.get_impurity(node), gini_improvement, 1e-12);
}

TEST(Criteria, EntropyScoresOfKnownSplits) {
  const struct {
    std::vector<int> node, left, right;
    double info_gain, gain_ratio, gini_improvement;
  } cases[] = {
      {{3, 1}, {3, 0}, {0, 1}, 0.8112781244591328, 1.0, 1.5},
      // Gain ratio divides by the split information (here 0.918...).
      {{3, 3}, {3, 1}, {0, 2}, 0.4591479170272448, 0.5, 1.5},
      {{5, 3, 2}, {4, 1, 0}, {1, 2, 2}, 0.3635472023399723, 0.3635472023399723, 1.4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.left) + " " + ::testing::PrintToString(c.right));
    const Acc node = histogram(c.node), left = histogram(c.left), right = histogram(c.right);
    expect_scores<Velmot::TwoSplitInfoGain>(node, left, right, c.info_gain, c.gini_improvement);
    expect_scores<Velmot::TwoSplitGainRatio>(node, left, right, c.gain_ratio, c.gini_improvement);
  }
}

}  // namespace
