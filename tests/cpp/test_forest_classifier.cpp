#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "test_support.h"
#include "velmot/learn/flat_forest.h"
#include "velmot/learn/forest_classifier.h"

using Velmot::ForestPredictor;
using Velmot::MemoryDataSet;
using Velmot::Node;

namespace {

// Owns the trees of one test.
struct Forest {
  std::vector<std::unique_ptr<Node<int>>> owned;
  std::vector<Node<int>*> roots;

  void add(Node<int>* root) {
    owned.emplace_back(root);
    roots.push_back(root);
  }
  ForestPredictor<int> predictor(int num_classes) const {
    ForestPredictor<int> predictor(num_classes);
    predictor.use_forest(roots);
    return predictor;
  }
};

// Random trees over three features with leaves at many depths, an odd
// number of them, values equal to thresholds and NaN; 203 instances leave
// partial groups of eight and several blocks. One by one, in batches on
// any thread count, and flat, the forest must vote as the linked trees do,
// and leave the tally of the last instance.
TEST(ForestPrediction, EveryPathVotesAsTheLinkedTrees) {
  std::mt19937 rng(11);
  MemoryDataSet<double, int> data(3);
  for (int i = 0; i < 203; ++i) {
    for (auto& column : data.features) {
      column.push_back(rng() % 17 == 0 ? std::numeric_limits<double>::quiet_NaN() : (rng() % 8) / 2.0);
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
      Node<int>* parent = leaves[k];
      parent->set_left(new Node<int>());
      parent->set_right(new Node<int>());
      parent->set_feature_index(static_cast<int>(rng() % 3));
      parent->set_threshold((rng() % 8) / 2.0);
      leaves[k] = parent->get_left();
      leaves.push_back(parent->get_right());
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
    // Ties go to the smallest label.
    const auto most = std::max_element(last_tally.begin(), last_tally.end());
    expected.push_back(static_cast<int>(most - last_tally.begin()) - 1);
  }
  auto expect_votes = [&](const ForestPredictor<int>& predictor, const std::vector<int>& labels) {
    EXPECT_EQ(labels, expected);
    EXPECT_EQ(predictor.counts, last_tally);
    EXPECT_EQ(predictor.votes_for_each_tree, last_votes);
  };
  for (const int threads : {1, 3}) {
    VelmotTest::ThreadCount count(threads);
    ForestPredictor<int> one_by_one = forest.predictor(4), batch = forest.predictor(4);
    std::vector<int> singly, together;
    for (size_t i = 0; i < 203; ++i) singly.push_back(one_by_one.predict(data, i));
    expect_votes(one_by_one, singly);
    batch.predict(data, together);
    expect_votes(batch, together);
  }
  Velmot::FlatForest flat;
  for (const Node<int>* root : forest.roots) flat.append(Velmot::flatten_tree(root));
  ForestPredictor<int> flat_predictor(4);
  flat_predictor.use_forest(std::move(flat));
  std::vector<int> from_flat;
  flat_predictor.predict(data, from_flat);
  expect_votes(flat_predictor, from_flat);
}

}  // namespace
