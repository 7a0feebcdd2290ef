#include <gtest/gtest.h>

#include <vector>

#include "velmot/stats/criteria.h"

namespace {

using Acc = Velmot::NominalLabelPriorAccumulator<int>;

Acc histogram(const std::vector<int>& class_counts) {
  Acc acc;
  acc.set_labeling(Velmot::DiscreteZeroOnward);
  acc.set_num_classes(static_cast<int>(class_counts.size()));
  for (size_t c = 0; c < class_counts.size(); ++c) {
    for (int k = 0; k < class_counts[c]; ++k) acc.increment_count(static_cast<int>(c));
  }
  return acc;
}

struct Scored {
  double final_score;
  double improvement;
};

// What the split search makes of one split under a criterion.
template <class C>
Scored score(const Acc& node, const Acc& left, const Acc& right) {
  const C criterion;
  const double initial = criterion.get_initial(node);
  const double score = criterion(initial, left, right);
  const double improvement = criterion.get_impurity(0.0, 0.0, left, right) - criterion.get_impurity(node);
  return {criterion.get_final_score(score, initial), improvement};
}

TEST(Criteria, PerfectSplitOfTwoAndTwo) {
  const Acc node = histogram({2, 2}), left = histogram({2, 0}), right = histogram({0, 2});
  const Scored gini = score<Velmot::TwoSplitGiniImpurity>(node, left, right);
  EXPECT_EQ(Velmot::TwoSplitGiniImpurity()(0.0, left, right), 4.0);
  EXPECT_EQ(gini.final_score, 2.0);
  EXPECT_EQ(gini.improvement, 2.0);
  EXPECT_EQ((score<Velmot::TwoSplitInfoGain>(node, left, right).final_score), 1.0);
  EXPECT_EQ((score<Velmot::TwoSplitGainRatio>(node, left, right).final_score), 1.0);
  EXPECT_EQ((score<Velmot::TwoSplitGainRatio>(node, left, right).improvement), 2.0);
}

TEST(Criteria, UninformativeSplitScoresZeroEverywhere) {
  const Acc node = histogram({2, 2}), half = histogram({1, 1});
  for (const Scored s : {score<Velmot::TwoSplitGiniImpurity>(node, half, half),
                         score<Velmot::TwoSplitInfoGain>(node, half, half),
                         score<Velmot::TwoSplitGainRatio>(node, half, half)}) {
    EXPECT_EQ(s.final_score, 0.0);
    EXPECT_EQ(s.improvement, 0.0);
  }
  // Equal shares on both sides of an uneven split: no gain either.
  const Acc big = histogram({4, 2, 6}), a = histogram({2, 1, 3}), b = histogram({2, 1, 3});
  EXPECT_NEAR((score<Velmot::TwoSplitInfoGain>(big, a, b).final_score), 0.0, 1e-15);
  EXPECT_NEAR((score<Velmot::TwoSplitGiniImpurity>(big, a, b).final_score), 0.0, 1e-12);
}

TEST(Criteria, GainRatioDividesByTheSplitInformation) {
  const Acc node = histogram({3, 1}), left = histogram({3, 0}), right = histogram({0, 1});
  const Velmot::TwoSplitInfoGain gain;
  EXPECT_DOUBLE_EQ(gain(gain.get_initial(node), left, right), 0.8112781244591328);
  EXPECT_EQ((score<Velmot::TwoSplitGainRatio>(node, left, right).final_score), 1.0);

  // An uneven split: gain ratio = gain / split information, by hand.
  const Acc n2 = histogram({3, 3}), l2 = histogram({3, 1}), r2 = histogram({0, 2});
  const double h_left = 0.8112781244591328;
  const double expected_gain = 1.0 - (4.0 / 6.0) * h_left;
  const double split_info = -((4.0 / 6.0) * std::log2(4.0 / 6.0) + (2.0 / 6.0) * std::log2(2.0 / 6.0));
  EXPECT_DOUBLE_EQ((score<Velmot::TwoSplitInfoGain>(n2, l2, r2).final_score), expected_gain);
  EXPECT_DOUBLE_EQ((score<Velmot::TwoSplitGainRatio>(n2, l2, r2).final_score), expected_gain / split_info);
}

TEST(Criteria, GiniScoreIsTheDecreaseOfCountWeightedImpurity) {
  const Acc node = histogram({5, 3, 2}), left = histogram({4, 1, 0}), right = histogram({1, 2, 2});
  auto weighted = [](const Acc& a) {
    const double n = static_cast<double>(a.get_total_count());
    double sum_shares = 0.0;
    for (int c = 1; c <= a.get_num_classes(); ++c) sum_shares += (a[c] / n) * (a[c] / n);
    return n * (1.0 - sum_shares);
  };
  const double expected = weighted(node) - weighted(left) - weighted(right);
  const Scored gini = score<Velmot::TwoSplitGiniImpurity>(node, left, right);
  EXPECT_NEAR(gini.final_score, expected, 1e-12);
  EXPECT_NEAR(gini.improvement, expected, 1e-12);
  // The improvement is Gini-based whatever ranks the split.
  EXPECT_EQ((score<Velmot::TwoSplitInfoGain>(node, left, right).improvement), gini.improvement);
}

TEST(Criteria, RegressionMarkedHistogramsNeverBeatTheUnsplitNode) {
  Acc node = histogram({2, 2}), left = histogram({2, 0}), right = histogram({0, 2});
  for (Acc* a : {&node, &left, &right}) a->set_labeling(Velmot::Regression);
  EXPECT_EQ((score<Velmot::TwoSplitInfoGain>(node, left, right).final_score), 0.0);
  EXPECT_EQ((score<Velmot::TwoSplitGainRatio>(node, left, right).final_score), 0.0);
}

}  // namespace
