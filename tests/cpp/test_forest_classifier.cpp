#include <gtest/gtest.h>

#include <omp.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "test_support.h"
#include "velmot/dataset/dataset.h"
#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/learn/flat_forest.h"
#include "velmot/learn/forest_classifier.h"

using Velmot::Array2D;
using Velmot::ForestPredictor;
using Velmot::MemoryDataSet;
using Velmot::Node;

namespace {

const double not_a_number = std::numeric_limits<double>::quiet_NaN();

// Owns hand-made trees for one test.
struct Forest {
  std::vector<std::unique_ptr<Node<int>>> owned;
  std::vector<Node<int>*> roots;

  static Node<int>* leaf(int label) {
    Node<int>* node = new Node<int>();
    node->set_label(label);
    return node;
  }
  // value of feature f < threshold -> left, else right.
  static Node<int>* split(int f, double threshold, Node<int>* left, Node<int>* right) {
    Node<int>* node = new Node<int>(left, right);
    node->set_feature_index(f);
    node->set_threshold(threshold);
    return node;
  }
  void add(Node<int>* root) {
    owned.emplace_back(root);
    roots.push_back(root);
  }
  void add_leaf(int label) { add(leaf(label)); }
  ForestPredictor<int> predictor(int num_classes) const {
    ForestPredictor<int> predictor(num_classes);
    predictor.use_forest(roots);
    return predictor;
  }
};

MemoryDataSet<double, int> one_feature(const std::vector<double>& values, size_t num_classes) {
  return VelmotTest::columns<double, int>({values}, std::vector<int>(values.size(), 0), num_classes);
}

}  // namespace

// Vote fractions of the discrete classes are pinned through the module.
TEST(ForestPrediction, VoteFractionsForPlusMinusOne) {
  MemoryDataSet<double, int> signs = one_feature({0.0}, 1);
  signs.ltype = Velmot::PlusOneMinusOne;
  Forest votes;
  for (int label : {-1, 1, 1}) votes.add_leaf(label);
  ForestPredictor<int> sign_predictor = votes.predictor(1);
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
  std::vector<double> values;
  for (int i = 0; i < 45; ++i) values.push_back(static_cast<double>((i * 17) % 45));
  MemoryDataSet<double, int> data = one_feature(values, 2);
  std::vector<int> labels;
  Forest far_feature;
  far_feature.add(Forest::split(1, 0.5, Forest::leaf(0), Forest::leaf(1)));
  ForestPredictor<int> predictor = far_feature.predictor(2);
  // Checked on the one-instance path too, before its parallel region.
  EXPECT_EQ(VelmotTest::message_of([&] { predictor.predict(data, 0); }),
            "tree node tests feature 1 but the data has 1 features");

  // Only a left child: only value 44 (instance 37, inside a group of eight,
  // not the last instance) goes to the missing right child.
  Forest one_sided;
  one_sided.add(Forest::split(0, 44.0, Forest::leaf(0), nullptr));
  predictor.use_forest(one_sided.roots);
  EXPECT_EQ(predictor.predict(data, 36), 0);
  EXPECT_EQ(VelmotTest::message_of([&] { predictor.predict(data, 37); }), "tree descent reached a missing child");
  EXPECT_EQ(VelmotTest::message_of([&] { predictor.predict(data, labels); }), "tree descent reached a missing child");

  Forest fine;
  fine.add_leaf(1);
  predictor.use_forest(fine.roots);
  double small[1];
  Array2D<double> one_row(small, 1, 1);
  EXPECT_EQ(VelmotTest::message_of([&] { predictor.compute_probabilities(data, one_row); }),
            "probability matrix is 1 x 1, too small for 45 instances x 2 classes");
  data.ltype = Velmot::Regression;
  EXPECT_EQ(VelmotTest::message_of([&] { predictor.compute_probabilities(data, one_row); }),
            "cannot compute probabilities for regression");
}

// Random trees over three features with leaves at many depths, an odd
// number of them (the last walks alone, the others in pairs), values equal
// to thresholds and NaN; 203 instances leave partial groups of eight and,
// on two or three threads, several blocks. One by one, in batches on any
// thread count, and handed over flat, the forest must vote as the linked
// trees do when each instance walks them alone, and leave the tally of the
// last instance.
TEST(ForestPrediction, EveryPathVotesAsTheLinkedTrees) {
  std::mt19937 rng(11);
  MemoryDataSet<double, int> data(3);
  for (int i = 0; i < 203; ++i) {
    for (auto& column : data.features) {
      column.push_back(rng() % 17 == 0 ? not_a_number : static_cast<double>(rng() % 8) / 2.0);
    }
  }
  data.labels.assign(203, 0);
  data.set_num_classes(4);
  Forest forest;  // grown by splitting random leaves
  for (int t = 0; t < 9; ++t) {
    forest.add(new Node<int>());
    std::vector<Node<int>*> leaves{forest.roots.back()};
    for (int s = static_cast<int>(rng() % 30); s > 0; --s) {
      const size_t k = rng() % leaves.size();
      Node<int>* node = leaves[k];
      node->set_left(new Node<int>());
      node->set_right(new Node<int>());
      node->set_feature_index(static_cast<int>(rng() % 3));
      node->set_threshold(static_cast<double>(rng() % 8) / 2.0);
      leaves[k] = node->get_left();
      leaves.push_back(node->get_right());
    }
    for (Node<int>* leaf : leaves) leaf->set_label(static_cast<int>(rng() % 5) - 1);
  }

  std::vector<int> expected, last_votes, last_tally;
  for (size_t i = 0; i < 203; ++i) {
    last_votes.clear();
    last_tally.assign(6, 0);  // labels -1 to 4
    for (const Node<int>* root : forest.roots) {
      last_votes.push_back(root->find_leaf(data, i)->get_label());
      ++last_tally[static_cast<size_t>(last_votes.back() + 1)];
    }
    // The first of the largest counts: ties go to the smallest label.
    const auto most = std::max_element(last_tally.begin(), last_tally.end());
    expected.push_back(static_cast<int>(most - last_tally.begin()) - 1);
  }
  auto expect_votes = [&](const ForestPredictor<int>& predictor, const std::vector<int>& labels) {
    EXPECT_EQ(labels, expected);
    EXPECT_EQ(predictor.counts, last_tally);
    EXPECT_EQ(predictor.votes_for_each_tree, last_votes);
  };
  for (const int threads : {1, 2, 3}) {
    SCOPED_TRACE(threads);
    omp_set_num_threads(threads);
    ForestPredictor<int> one_by_one = forest.predictor(4), batch = forest.predictor(4);
    std::vector<int> singly, together;
    for (size_t i = 0; i < 203; ++i) singly.push_back(one_by_one.predict(data, i));
    expect_votes(one_by_one, singly);
    batch.predict(data, together);
    expect_votes(batch, together);
  }
  omp_set_num_threads(1);

  Velmot::FlatForest flat;
  for (const Node<int>* root : forest.roots) flat.append(Velmot::flatten_tree(root));
  ForestPredictor<int> flat_predictor(4);
  flat_predictor.use_forest(std::move(flat));
  std::vector<int> from_flat;
  flat_predictor.predict(data, from_flat);
  expect_votes(flat_predictor, from_flat);
}
