#include <gtest/gtest.h>

#include <omp.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/learn/forest_classifier.h"

using Velmot::Array2D;
using Velmot::ForestPredictor;
using Velmot::MemoryDataSet;
using Velmot::Node;

namespace {

// Owns hand-made trees for one test.
struct Forest {
  std::vector<std::unique_ptr<Node<int>>> owned;
  std::vector<Node<int>*> roots;

  Node<int>* leaf(int label) {
    Node<int>* node = new Node<int>();
    node->set_label(label);
    return node;
  }
  void add(Node<int>* root) {
    owned.emplace_back(root);
    roots.push_back(root);
  }
  void add_leaf(int label) { add(leaf(label)); }
  // value of feature f < threshold -> left_label, else right_label.
  void add_stump(int f, double threshold, int left_label, int right_label) {
    Node<int>* root = new Node<int>(leaf(left_label), leaf(right_label));
    root->set_feature_index(f);
    root->set_threshold(threshold);
    add(root);
  }
};

MemoryDataSet<double, int> one_feature(const std::vector<double>& values, int num_classes) {
  MemoryDataSet<double, int> data(1);
  data.features[0] = values;
  data.labels.assign(values.size(), 0);
  data.set_num_classes(static_cast<size_t>(num_classes));
  return data;
}

std::string failure_message(const std::function<void()>& call) {
  try {
    call();
  } catch (const Velmot::Exception& e) {
    return e.get_message();
  }
  return "<no exception>";
}

}  // namespace

TEST(ForestPrediction, TiesGoToTheSmallestLabel) {
  MemoryDataSet<double, int> data = one_feature({0.0}, 3);
  Forest two_each;
  for (int label : {0, 1, 1, 0}) two_each.add_leaf(label);
  ForestPredictor<int> predictor(3);
  predictor.use_forest(two_each.roots);
  EXPECT_EQ(predictor.predict(data, 0), 0);

  Forest ones_and_twos;
  for (int label : {1, 2, 2, 1}) ones_and_twos.add_leaf(label);
  predictor.use_forest(ones_and_twos.roots);
  EXPECT_EQ(predictor.predict(data, 0), 1);
  EXPECT_EQ(predictor.counts, (std::vector<int>{0, 0, 2, 2, 0}));
  EXPECT_EQ(predictor.votes_for_each_tree, (std::vector<int>{1, 2, 2, 1}));
}

TEST(ForestPrediction, EqualValuesAndNaNGoRight) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  MemoryDataSet<double, int> data = one_feature({0.49, 0.5, nan, -1e300}, 2);
  Forest forest;
  forest.add_stump(0, 0.5, 0, 1);
  ForestPredictor<int> predictor(2);
  predictor.use_forest(forest.roots);
  std::vector<int> labels;
  predictor.predict(data, labels);
  EXPECT_EQ(labels, (std::vector<int>{0, 1, 1, 0}));
}

// Vote fractions of the discrete classes are pinned through the module.
TEST(ForestPrediction, VoteFractionsForPlusMinusOne) {
  MemoryDataSet<double, int> signs = one_feature({0.0}, 1);
  signs.ltype = Velmot::PlusOneMinusOne;
  Forest votes;
  for (int label : {-1, 1, 1}) votes.add_leaf(label);
  ForestPredictor<int> sign_predictor(1);
  sign_predictor.use_forest(votes.roots);
  EXPECT_EQ(sign_predictor.predict(signs, 0), 1);
  double pair[2];
  Array2D<double> pair_view(pair, 1, 2);
  sign_predictor.compute_probabilities(signs, pair_view);
  EXPECT_EQ(pair[0], 1.0 / 3.0);
  EXPECT_EQ(pair[1], 2.0 / 3.0);
}

// Empty forests, unknown features and labels outside the tally are tested
// through the module (test_module_errors.py); these are the library's own.
TEST(ForestPrediction, RefusesWhatWouldReadOutsideTheDataOrTheTrees) {
  MemoryDataSet<double, int> data = one_feature({0.0, 1.0}, 2);
  ForestPredictor<int> predictor(2);
  std::vector<int> labels;
  Forest far_feature;
  far_feature.add_stump(1, 0.5, 0, 1);
  predictor.use_forest(far_feature.roots);
  // Checked on the one-instance path too, before its parallel region.
  EXPECT_EQ(failure_message([&] { predictor.predict(data, 0); }),
            "tree node tests feature 1 but the data has 1 features");

  // Only a left child: instance 1 (value 1.0) would go to the missing right.
  Forest one_sided;
  Node<int>* root = new Node<int>(one_sided.leaf(0), nullptr);
  root->set_feature_index(0);
  root->set_threshold(0.5);
  one_sided.add(root);
  predictor.use_forest(one_sided.roots);
  EXPECT_EQ(predictor.predict(data, 0), 0);
  EXPECT_EQ(failure_message([&] { predictor.predict(data, 1); }), "tree descent reached a missing child");
  EXPECT_EQ(failure_message([&] { predictor.predict(data, labels); }), "tree descent reached a missing child");

  Forest fine;
  fine.add_leaf(1);
  predictor.use_forest(fine.roots);
  double small[1];
  Array2D<double> one_row(small, 1, 1);
  EXPECT_EQ(failure_message([&] { predictor.compute_probabilities(data, one_row); }),
            "probability matrix is 1 x 1, too small for 2 instances x 2 classes");
  data.ltype = Velmot::Regression;
  EXPECT_EQ(failure_message([&] { predictor.compute_probabilities(data, one_row); }),
            "cannot compute probabilities for regression");
}

TEST(ForestPrediction, SharingInstancesAmongThreadsGivesTheOneByOneResult) {
  std::vector<double> values;
  for (int i = 0; i < 997; ++i) values.push_back(std::sin(i * 0.37) * 10.0);
  MemoryDataSet<double, int> data = one_feature(values, 4);
  Forest forest;
  for (int k = 0; k < 13; ++k) forest.add_stump(0, (k - 6) * 1.3, k % 4, (k * 7 + 1) % 4);

  std::vector<int> expected;
  ForestPredictor<int> one_by_one(4);
  one_by_one.use_forest(forest.roots);
  omp_set_num_threads(1);
  for (size_t i = 0; i < values.size(); ++i) expected.push_back(one_by_one.predict(data, i));

  omp_set_num_threads(3);
  ForestPredictor<int> shared(4);
  shared.use_forest(forest.roots);
  std::vector<int> labels;
  shared.predict(data, labels);
  EXPECT_EQ(labels, expected);
  // The tally is left as the one-by-one loop leaves it: the last instance's.
  EXPECT_EQ(shared.counts, one_by_one.counts);
  EXPECT_EQ(shared.votes_for_each_tree, one_by_one.votes_for_each_tree);
  omp_set_num_threads(1);
}

// Instances walk each tree in groups: leaves at different depths within one
// group, a partial group at the end, and a missing child met by one instance
// in the middle of a group.
TEST(ForestPrediction, GroupedWalksGiveTheOneByOneResult) {
  std::vector<double> values;
  for (int i = 0; i < 45; ++i) values.push_back(static_cast<double>((i * 17) % 45));
  MemoryDataSet<double, int> data = one_feature(values, 3);
  // A chain: value < 5 -> 0; else < 15 -> 1; else < 30 -> 2; else -> 1.
  Forest forest;
  Node<int>* inner = new Node<int>(forest.leaf(2), forest.leaf(1));
  inner->set_feature_index(0);
  inner->set_threshold(30.0);
  Node<int>* middle = new Node<int>(forest.leaf(1), inner);
  middle->set_feature_index(0);
  middle->set_threshold(15.0);
  Node<int>* root = new Node<int>(forest.leaf(0), middle);
  root->set_feature_index(0);
  root->set_threshold(5.0);
  forest.add(root);
  forest.add_stump(0, 22.0, 2, 0);
  forest.add_leaf(2);

  ForestPredictor<int> predictor(3);
  predictor.use_forest(forest.roots);
  std::vector<int> expected;
  for (size_t i = 0; i < values.size(); ++i) expected.push_back(predictor.predict(data, i));
  std::vector<int> labels;
  for (const int threads : {1, 2}) {
    omp_set_num_threads(threads);
    predictor.predict(data, labels);
    EXPECT_EQ(labels, expected);
  }
  omp_set_num_threads(1);
  EXPECT_EQ(expected[0], 2);  // value 0: votes 0 (depth 1), 2, 2
  EXPECT_EQ(expected[3], 2);  // value 6: votes 1 (depth 2), 2, 2
  EXPECT_EQ(expected[2], 0);  // value 34: votes 1 (depth 3), 0, 2: a tie, the smallest wins


  // Only value 44 (instance 37, inside a group of eight) reaches the
  // missing right child.
  Forest one_sided;
  Node<int>* top = new Node<int>(one_sided.leaf(0), nullptr);
  top->set_feature_index(0);
  top->set_threshold(44.0);
  one_sided.add(top);
  predictor.use_forest(one_sided.roots);
  EXPECT_EQ(failure_message([&] { predictor.predict(data, labels); }), "tree descent reached a missing child");
}
