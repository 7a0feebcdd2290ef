// Regression forests through the library: a step learnt by the seeded
// squared-error learner and predicted as the mean of the trees' leaves.

#include <gtest/gtest.h>

#include <vector>

#include "test_support.h"
#include "velmot/learn/forest_arrays_layout.h"
#include "velmot/learn/forest_regressor.h"
#include "velmot/learn/seeded_forest.h"

namespace {

TEST(Regression, StepIsRecoveredAndTargetsMustBeFinite) {
  // Feature 1 is constant: the all-features search must still end.
  Velmot::TrainingSet<double, double> set;
  set.data = VelmotTest::columns<double, double>({{}, {}}, {}, 0);
  for (int i = 0; i < 40; ++i) {
    set.data.features[0].push_back(i);
    set.data.features[1].push_back(1.0);
    set.data.labels.push_back(i < 13 ? -1.5 : 4.25);
  }
  Velmot::SeededForestSettings settings;
  settings.last_tree = 6;
  settings.num_threads = 2;
  Velmot::LearningProgress progress;
  const Velmot::RegressionForestArrays trees =
      Velmot::learn_seeded_forest(set, settings, Velmot::SquaredError(), progress).trees;
  const Velmot::RegressionForestArraysView view{trees.offsets.data(), trees.num_trees(),    trees.left.data(),
                                                trees.right.data(),   trees.feature.data(), trees.threshold.data(),
                                                trees.value.data(),   trees.num_nodes()};
  const auto samples = VelmotTest::columns<double, int>({{3.0, 30.0}, {1.0, 1.0}}, {0, 0}, 0);
  std::vector<double> means(2);
  Velmot::predict_means(Velmot::flat_forest_of(view), samples, means.data());
  EXPECT_EQ(means, std::vector<double>({-1.5, 4.25}));

  set.data.labels[3] = 1e101;
  EXPECT_EQ(
      VelmotTest::message_of([&] { Velmot::learn_seeded_forest(set, settings, Velmot::SquaredError(), progress); }),
      "a target is not finite or exceeds 1e100 in magnitude");
}

}  // namespace
