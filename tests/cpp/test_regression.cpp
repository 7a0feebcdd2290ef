// Regression forests: squared-error trees grown by the seeded learner and
// predicted as the mean of their leaves.

#include <gtest/gtest.h>

#include <vector>

#include "test_support.h"
#include "velmot/learn/forest_arrays_layout.h"
#include "velmot/learn/forest_regressor.h"
#include "velmot/learn/seeded_forest.h"

namespace {

using Velmot::RegressionForestArrays;

// 40 instances: feature 0 = i, feature 1 = (7 i) mod 40, feature 2 constant
// (which would keep the classifier's all-features search going forever);
// targets from target(i).
template <class Target>
Velmot::SeededRegressionForest learn(Target target, int fte_per_split) {
  Velmot::TrainingSet<double, double> set;
  std::vector<std::vector<double>> features(3);
  std::vector<double> targets;
  for (int i = 0; i < 40; ++i) {
    features[0].push_back(i);
    features[1].push_back((7 * i) % 40);
    features[2].push_back(1.0);
    targets.push_back(target(i));
  }
  set.data = VelmotTest::columns(features, targets, 0);
  Velmot::SeededForestSettings settings;
  settings.seed = 5;
  settings.last_tree = 6;
  settings.fte_per_split = fte_per_split;
  settings.num_threads = 2;
  Velmot::LearningProgress progress;
  return Velmot::learn_seeded_forest(set, settings, Velmot::SquaredError(), progress);
}

std::vector<double> predict(const RegressionForestArrays& trees, const std::vector<double>& row) {
  const Velmot::RegressionForestArraysView view{trees.offsets.data(), trees.num_trees(),    trees.left.data(),
                                                trees.right.data(),   trees.feature.data(), trees.threshold.data(),
                                                trees.value.data(),   trees.num_nodes()};
  Velmot::check_forest_arrays(view, 0);
  const auto data = VelmotTest::columns<double, int>({{row[0]}, {row[1]}, {1.0}}, {0}, 0);
  std::vector<double> means(1);
  Velmot::predict_means(Velmot::flat_forest_of(view), data, means.data());
  return means;
}

TEST(Regression, StepIsRecoveredExactlyWithCountsThatAddUp) {
  {
    const auto forest = learn([](int i) { return i < 13 ? -1.5 : 4.25; }, 0);
    const RegressionForestArrays& trees = forest.trees;
    for (size_t k = 0; k < trees.num_trees(); ++k) {
      const int64_t root = trees.offsets[k];
      EXPECT_EQ(trees.count[root], 40);
      for (int64_t node = root; node < trees.offsets[k + 1]; ++node) {
        if (trees.left[node] < 0) {
          EXPECT_EQ(trees.impurity[node], 0.0);
          continue;
        }
        EXPECT_EQ(trees.count[node], trees.count[root + trees.left[node]] + trees.count[root + trees.right[node]]);
      }
    }
    EXPECT_EQ(predict(trees, {3, 3})[0], -1.5);
    EXPECT_EQ(predict(trees, {30, 3})[0], 4.25);
  }
}

TEST(Regression, ConstantTargetsGiveOneLeaf) {
  const auto forest = learn([](int) { return 2.5; }, 0);
  EXPECT_EQ(forest.trees.num_nodes(), forest.trees.num_trees());
  for (const double value : forest.trees.value) EXPECT_EQ(value, 2.5);
  for (const double importance : forest.tree_importances) EXPECT_TRUE(std::isnan(importance));
}

TEST(Regression, RefusesTargetsThatAreNotFinite) {
  const std::string message = VelmotTest::message_of([] { learn([](int i) { return i == 3 ? 1e101 : 0.0; }, 0); });
  EXPECT_EQ(message, "a target is not finite or exceeds 1e100 in magnitude");
}

}  // namespace
