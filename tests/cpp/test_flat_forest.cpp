#include <gtest/gtest.h>

#include <omp.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/learn/flat_forest.h"
#include "velmot/learn/forest_classifier.h"
#include "velmot/learn/tree.h"

using Velmot::Array1D;
using Velmot::FlatForest;
using Velmot::FlatNode;
using Velmot::FlatTree;
using Velmot::MemoryDataSet;
using Velmot::Node;
using Velmot::VectorizedTree;

namespace {

const double not_a_number = std::numeric_limits<double>::quiet_NaN();

// A (5, n) tree array, row-major, in element type E.
template <class E>
struct Encoding {
  explicit Encoding(const std::vector<std::vector<double>>& rows) : n(static_cast<int>(rows[0].size())) {
    for (const auto& row : rows) {
      for (const double value : row) cells.push_back(static_cast<E>(value));
    }
  }
  Array1D<E> row(int r) { return Array1D<E>(cells.data() + r * n, n); }
  int n;
  std::vector<E> cells;
};

// What each way of reading the encoding makes of it: the message it throws,
// or "" and the tree.
template <class E>
std::string linked(Encoding<E>& e, std::unique_ptr<Node<int>>& root) {
  try {
    VectorizedTree<int> tree;
    root.reset(tree.vector_to_root(e.n, e.row(0), e.row(1), e.row(2), e.row(3), e.row(4), false));
  } catch (const Velmot::Exception& error) {
    return error.get_message();
  }
  return "";
}

template <class E>
std::string flat(Encoding<E>& e, FlatTree& tree) {
  try {
    tree = Velmot::flatten_encoded_tree(e.n, e.row(0), e.row(1), e.row(2), e.row(3), e.row(4));
  } catch (const Velmot::Exception& error) {
    return error.get_message();
  }
  return "";
}

// The label the flat tree gives an instance, or "missing" as a label of
// its own (INT_MIN never comes from an encoding used here).
int flat_label(const FlatNode* nodes, const std::vector<double>& x) {
  const FlatNode* leaf = Velmot::flat_forest::find_leaf(nodes, [&](int32_t f) { return x[static_cast<size_t>(f)]; });
  return Velmot::flat_forest::is_stand_in(*leaf) ? std::numeric_limits<int>::min() : Velmot::flat_forest::label_of(*leaf);
}

int linked_label(const Node<int>* root, const std::vector<double>& x) {
  MemoryDataSet<double, int> one(x.size());
  for (size_t f = 0; f < x.size(); ++f) one.features[f].assign(1, x[f]);
  one.labels.assign(1, 0);
  const Node<int>* leaf = root->find_leaf(one, 0);
  return leaf == nullptr ? std::numeric_limits<int>::min() : leaf->get_label();
}

std::string check_message(const FlatForest& forest, size_t num_features) {
  try {
    forest.check_features(num_features);
  } catch (const Velmot::Exception& error) {
    return error.get_message();
  }
  return "";
}

}  // namespace

// Random small encodings, most of them broken somewhere: read straight into
// the flat form they must be refused with the linked reader's message, and
// otherwise send every instance to the same label (or the same missing
// child).
TEST(FlatForest, EncodingsReadAsTheLinkedReaderReadsThem) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  int refused = 0;
  int accepted = 0;
  for (int trial = 0; trial < 3000; ++trial) {
    const int n = 1 + static_cast<int>(rng() % 9);
    std::vector<std::vector<double>> rows(5, std::vector<double>(static_cast<size_t>(n)));
    // A valid breadth-first tree, then a few cells spoilt.
    int next_free = 1;
    for (int i = 0; i < n; ++i) {
      for (int side = 0; side < 2; ++side) {
        const bool child = next_free < n && unit(rng) < 0.7;
        rows[side][i] = child ? next_free++ : (unit(rng) < 0.5 ? -1.0 : -3.5);
      }
      rows[2][i] = static_cast<double>(rng() % 3);
      rows[3][i] = std::floor(unit(rng) * 4.0) / 2.0;
      rows[4][i] = static_cast<double>(rng() % 4) - 1.0 + 0.25;
    }
    const int spoilt = static_cast<int>(rng() % 3);
    for (int s = 0; s < spoilt; ++s) {
      const size_t r = rng() % 5;
      const size_t i = rng() % static_cast<size_t>(n);
      const double choices[] = {0.0, static_cast<double>(n), 1.0, not_a_number, 3e9, -3e9, 2.0, 0.5};
      rows[r][i] = choices[rng() % 8];
    }
    Encoding<double> wide(rows);
    Encoding<float> narrow(rows);
    std::unique_ptr<Node<int>> root;
    FlatTree tree, narrow_tree;
    const std::string expected = linked(wide, root);
    ASSERT_EQ(flat(wide, tree), expected) << "trial " << trial;
    ASSERT_EQ(flat(narrow, narrow_tree), linked(narrow, root)) << "trial " << trial;
    if (!expected.empty()) {
      ++refused;
      continue;
    }
    linked(wide, root);
    ++accepted;
    for (int probe = 0; probe < 20; ++probe) {
      // Wide enough for any feature a spoilt cell can name (at most 9).
      std::vector<double> x(10);
      for (double& value : x) value = probe == 0 ? not_a_number : std::floor(unit(rng) * 5.0) / 2.0;
      ASSERT_EQ(flat_label(tree.nodes.data(), x), linked_label(root.get(), x)) << "trial " << trial;
    }
  }
  // Both kinds occur often enough to mean something.
  EXPECT_GT(refused, 300);
  EXPECT_GT(accepted, 300);
}

TEST(FlatForest, LinkedAndEncodedTreesLayOutAlike) {
  // Root tests feature 1; its left child is a leaf of class 2, its right
  // child tests feature 0 with only a left leaf (class 0). Column 4 is not
  // reachable and is not laid out.
  const std::vector<std::vector<double>> rows = {
      {1, -1, 3, -1, -1}, {2, -1, -1, -1, 4}, {1, 9, 0, 9, 5}, {0.5, 0, 2.0, 0, 0}, {-2, 2, -2, 0, 1}};
  Encoding<double> e(rows);
  std::unique_ptr<Node<int>> root;
  FlatTree from_array, from_nodes;
  ASSERT_EQ(flat(e, from_array), "");
  ASSERT_EQ(linked(e, root), "");
  from_nodes = Velmot::flatten_tree(root.get());
  ASSERT_EQ(from_array.nodes.size(), 5u);  // root, two children, the right one's pair
  ASSERT_EQ(from_nodes.nodes.size(), 5u);
  for (size_t p = 0; p < 5; ++p) {
    const FlatNode& a = from_array.nodes[p];
    const FlatNode& b = from_nodes.nodes[p];
    EXPECT_EQ(a.feature, b.feature);
    EXPECT_EQ(a.next, b.next);
    EXPECT_TRUE(a.threshold == b.threshold) << p;
  }
  EXPECT_EQ(from_array.lowest_feature, 0);
  EXPECT_EQ(from_array.highest_feature, 1);
  // The right child's absent right child is a stand-in, met only by
  // instances that go there.
  EXPECT_EQ(flat_label(from_array.nodes.data(), {0.0, 0.0}), 2);
  EXPECT_EQ(flat_label(from_array.nodes.data(), {1.0, 0.5}), 0);
  EXPECT_EQ(flat_label(from_array.nodes.data(), {2.0, not_a_number}), std::numeric_limits<int>::min());
}

// The feature check reports what the linked check would: trees in order,
// each depth first with the right subtree before the left.
TEST(FlatForest, FeatureCheckReportsTheFirstNodeInTheLinkedOrder) {
  auto stump = [](int root_feature, int right_feature) {
    Node<int>* right = new Node<int>(new Node<int>(), new Node<int>());
    right->set_feature_index(right_feature);
    Node<int>* root = new Node<int>(new Node<int>(), right);
    root->set_feature_index(root_feature);
    return root;
  };
  std::unique_ptr<Node<int>> fine(stump(0, 1)), both_bad(stump(5, 7)), negative(stump(0, -4));
  FlatForest forest;
  forest.append(Velmot::flatten_tree(fine.get()));
  EXPECT_EQ(check_message(forest, 2), "");
  EXPECT_EQ(check_message(forest, 1), "tree node tests feature 1 but the data has 1 features");
  forest.append(Velmot::flatten_tree(both_bad.get()));
  forest.append(Velmot::flatten_tree(static_cast<Node<int>*>(nullptr)));
  EXPECT_EQ(check_message(forest, 2), "tree node tests feature 5 but the data has 2 features");
  EXPECT_EQ(check_message(forest, 6), "tree node tests feature 7 but the data has 6 features");
  EXPECT_EQ(check_message(forest, 8), "forest holds a null tree");

  FlatForest with_negative;
  with_negative.append(Velmot::flatten_tree(negative.get()));
  EXPECT_EQ(check_message(with_negative, 3), "tree node tests feature -4 but the data has 3 features");
}

// Batch prediction walks eight instances in lockstep over gathered rows;
// on random trees (leaves at many depths), values equal to thresholds, NaN
// and partial groups it must agree with walking each instance alone.
TEST(FlatForest, LockstepBatchAgreesWithSingleWalks) {
  std::mt19937 rng(11);
  const size_t nf = 3;
  std::vector<std::vector<double>> columns(nf);
  for (int i = 0; i < 203; ++i) {
    for (size_t f = 0; f < nf; ++f) columns[f].push_back(rng() % 17 == 0 ? not_a_number : static_cast<double>(rng() % 8) / 2.0);
  }
  MemoryDataSet<double, int> data(nf);
  data.features = columns;
  data.labels.assign(columns[0].size(), 0);
  data.set_num_classes(4);

  // Random full trees, grown by splitting random leaves.
  std::vector<std::unique_ptr<Node<int>>> owned;
  std::vector<Node<int>*> roots;
  for (int t = 0; t < 9; ++t) {
    owned.emplace_back(new Node<int>());
    std::vector<Node<int>*> leaves{owned.back().get()};
    const int splits = static_cast<int>(rng() % 30);
    for (int s = 0; s < splits; ++s) {
      const size_t k = rng() % leaves.size();
      Node<int>* node = leaves[k];
      node->set_left(new Node<int>());
      node->set_right(new Node<int>());
      node->set_feature_index(static_cast<int>(rng() % nf));
      node->set_threshold(static_cast<double>(rng() % 8) / 2.0);
      leaves[k] = node->get_left();
      leaves.push_back(node->get_right());
    }
    for (Node<int>* leaf : leaves) leaf->set_label(static_cast<int>(rng() % 5) - 1);
    roots.push_back(owned.back().get());
  }

  Velmot::ForestPredictor<int> predictor(4);
  predictor.use_forest(roots);
  omp_set_num_threads(1);
  std::vector<int> one_by_one;
  for (size_t i = 0; i < data.get_num_instances(); ++i) one_by_one.push_back(predictor.predict(data, i));
  std::vector<int> batch;
  for (const int threads : {1, 2}) {
    omp_set_num_threads(threads);
    predictor.predict(data, batch);
    EXPECT_EQ(batch, one_by_one);
  }
  omp_set_num_threads(1);

  // The same forest handed over flat predicts the same.
  FlatForest flat_forest;
  for (const Node<int>* root : roots) flat_forest.append(Velmot::flatten_tree(root));
  Velmot::ForestPredictor<int> flat_predictor(4);
  flat_predictor.use_forest(std::move(flat_forest));
  std::vector<int> from_flat;
  flat_predictor.predict(data, from_flat);
  EXPECT_EQ(from_flat, one_by_one);
}
