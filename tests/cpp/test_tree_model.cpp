// Trees as linked nodes, as the (5, n) array encoding and as flat arrays.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"
#include "velmot/dataset/dataset.h"
#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/learn/flat_forest.h"
#include "velmot/learn/tree.h"

using Velmot::Array1D;
using Velmot::FlatForest;
using Velmot::FlatNode;
using Velmot::FlatTree;
using Velmot::MemoryDataSet;
using Velmot::Node;
using Velmot::VectorizedTree;
using VelmotTest::message_of;

namespace {

const double not_a_number = std::numeric_limits<double>::quiet_NaN();

// A (5, n) tree array, row-major, in element type E, and the two ways of
// reading it.
template <class E>
struct Encoding {
  explicit Encoding(const std::vector<std::vector<double>>& rows) : n(static_cast<int>(rows[0].size())) {
    for (const auto& row : rows) {
      for (const double value : row) cells.push_back(static_cast<E>(value));
    }
  }
  Array1D<E> row(int r) { return Array1D<E>(cells.data() + r * n, n); }
  Node<int>* linked() {
    VectorizedTree<int> tree;
    return linked(tree, false);
  }
  Node<int>* linked(VectorizedTree<int>& tree, bool keep) {
    return tree.vector_to_root(n, row(0), row(1), row(2), row(3), row(4), keep);
  }
  FlatTree flat() { return Velmot::flatten_encoded_tree(n, row(0), row(1), row(2), row(3), row(4)); }
  int n;
  std::vector<E> cells;
};

std::vector<std::vector<double>> rows_of(Node<int>* root) {
  VectorizedTree<int> tree;
  tree.root_to_vector(root);
  std::vector<std::vector<double>> rows(5, std::vector<double>(static_cast<size_t>(tree.num_nodes())));
  tree.copy_left(rows[0].data());
  tree.copy_right(rows[1].data());
  tree.copy_feature_index(rows[2].data());
  tree.copy_threshold(rows[3].data());
  tree.copy_label(rows[4].data());
  return rows;
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

}  // namespace

TEST(TreeModel, FlattensBreadthFirstWithMinusOneForAbsentChildren) {
  // A default node: the sentinels label -2, feature -1, threshold NaN.
  Node<int> bare;
  const auto single = rows_of(&bare);
  EXPECT_EQ(single[0][0] + single[1][0] + single[2][0], -3.0);
  EXPECT_TRUE(std::isnan(single[3][0]));
  EXPECT_EQ(single[4][0], -2.0);

  // root -> (right only) r -> (a, b): columns root, r, a, b.
  std::unique_ptr<Node<int>> root(new Node<int>(nullptr, new Node<int>(new Node<int>(), new Node<int>())));
  root->set_feature_index(3);
  root->set_threshold(0.5);
  root->get_right()->get_left()->set_label(1);
  root->get_right()->get_right()->set_label(2);
  const auto rows = rows_of(root.get());
  EXPECT_EQ(rows[0], (std::vector<double>{-1, 2, -1, -1}));
  EXPECT_EQ(rows[1], (std::vector<double>{1, 3, -1, -1}));
  EXPECT_EQ(rows[2], (std::vector<double>{3, -1, -1, -1}));
  EXPECT_EQ(rows[3][0], 0.5);
  EXPECT_EQ(rows[4], (std::vector<double>{-2, -2, 1, 2}));
}

TEST(TreeModel, RebuildsAnyNumberingAndFlattensBackBreadthFirst) {
  // Root in column 0, its children stored in reverse order (columns 2, 1),
  // and a grandchild under column 2; labels are truncated toward zero.
  Encoding<float> array({{2, -1, 3, -1}, {1, -1, -1, -1}, {0, -1, 1, -1}, {1.5, 0, 0.25, 0}, {-2, 2.9, -2, -0.5}});
  std::unique_ptr<Node<int>> root(array.linked());
  EXPECT_EQ(root->get_left()->get_threshold(), 0.25);
  const auto rows = rows_of(root.get());
  EXPECT_EQ(rows[0], (std::vector<double>{1, 3, -1, -1}));
  EXPECT_EQ(rows[1], (std::vector<double>{2, -1, -1, -1}));
  EXPECT_EQ(rows[2], (std::vector<double>{0, 1, -1, -1}));
  EXPECT_EQ(rows[4], (std::vector<double>{-2, -2, 2, 0}));

  // Unlinked columns are not part of the tree; NaN in a child row means no
  // child, like any negative value.
  const std::unique_ptr<Node<int>> lone(Encoding<float>({{-1, -1, -1}, {-1, -1, -1}, {0, 1, 2}, {0, 0, 0}, {5, 6, 7}}).linked());
  EXPECT_TRUE(lone->is_leaf());
  EXPECT_EQ(lone->get_label(), 5);
  EXPECT_TRUE(std::unique_ptr<Node<int>>(Encoding<float>({{not_a_number}, {-3}, {0}, {0}, {1}}).linked())->is_leaf());

  // With keep set the sequences are filled too, the feature indices only sized.
  VectorizedTree<int> kept;
  std::unique_ptr<Node<int>> kept_root(Encoding<double>({{1, -1}, {-1, -1}, {4, 9}, {0.5, 0}, {-2, 1}}).linked(kept, true));
  EXPECT_EQ(kept.left, (std::vector<int>{1, -1}));
  EXPECT_EQ(kept.feature_index, (std::vector<int>{0, 0}));
  EXPECT_EQ(kept.label, (std::vector<int>{-2, 1}));
  EXPECT_EQ(kept_root->get_feature_index(), 4);
}

TEST(TreeModel, EncodingsThatWouldBreakDescentOrDeletionAreRefused) {
  const std::vector<std::vector<std::vector<double>>> refused = {
      {{1}, {-1}, {0}, {0}, {0}},                      // child past the end
      {{1, -1}, {1, -1}, {0, 0}, {0, 0}, {0, 0}},      // two parents
      {{1, 0}, {-1, -1}, {0, 0}, {0, 0}, {0, 0}},      // root as a child
      {{-1}, {-1}, {0}, {0}, {1e10}},                  // label no int holds
  };
  for (const auto& rows : refused) {
    EXPECT_THROW(std::unique_ptr<Node<int>>(Encoding<double>(rows).linked()), Velmot::Exception);
  }
}

TEST(TreeModel, DeepTreesAreFreedWithoutRecursion) {
  Node<int>* root = new Node<int>();
  Node<int>* node = root;
  for (int d = 0; d < 1000000; ++d) {
    node->set_left(new Node<int>());
    node = node->get_left();
  }
  delete root;  // would overflow the stack if freed recursively
}

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
    const std::string expected = message_of([&] { root.reset(wide.linked()); });
    ASSERT_EQ(message_of([&] { tree = wide.flat(); }), expected) << "trial " << trial;
    ASSERT_EQ(message_of([&] { narrow_tree = narrow.flat(); }), message_of([&] { root.reset(narrow.linked()); }))
        << "trial " << trial;
    if (!expected.empty()) {
      ++refused;
      continue;
    }
    root.reset(wide.linked());
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
  const std::unique_ptr<Node<int>> root(e.linked());
  const FlatTree from_array = e.flat(), from_nodes = Velmot::flatten_tree(root.get());
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
  auto check_message = [](const FlatForest& trees, size_t num_features) {
    return message_of([&] { trees.check_features(num_features); });
  };
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
