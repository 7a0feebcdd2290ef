// Trees as linked nodes, as the (5, n) array encoding and as flat arrays.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"
#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/learn/flat_forest.h"
#include "velmot/learn/tree.h"

using Velmot::Array1D;
using Velmot::Node;
using VelmotTest::message_of;

namespace {

const double not_a_number = std::numeric_limits<double>::quiet_NaN();
const int missing_child = std::numeric_limits<int>::min();

// A (5, n) tree array, row-major, in element type E, and the two ways of
// reading it.
template <class E>
struct Encoding {
  explicit Encoding(const std::vector<std::vector<double>>& rows) : n(static_cast<int>(rows[0].size())) {
    for (const auto& row : rows) cells.insert(cells.end(), row.begin(), row.end());
  }
  Array1D<E> row(int r) { return Array1D<E>(cells.data() + r * n, n); }
  Node<int>* linked() {
    Velmot::VectorizedTree<int> tree;
    return tree.vector_to_root(n, row(0), row(1), row(2), row(3), row(4), false);
  }
  Velmot::FlatTree flat() { return Velmot::flatten_encoded_tree(n, row(0), row(1), row(2), row(3), row(4)); }
  int n;
  std::vector<E> cells;
};

int flat_label(const Velmot::FlatNode* nodes, const std::vector<double>& x) {
  const auto* leaf = Velmot::flat_forest::find_leaf(nodes, [&](int32_t f) { return x[static_cast<size_t>(f)]; });
  return Velmot::flat_forest::is_stand_in(*leaf) ? missing_child : Velmot::flat_forest::label_of(*leaf);
}

int linked_label(const Node<int>* root, const std::vector<double>& x) {
  Velmot::MemoryDataSet<double, int> one(x.size());
  for (size_t f = 0; f < x.size(); ++f) one.features[f].assign(1, x[f]);
  one.labels.assign(1, 0);
  const Node<int>* leaf = root->find_leaf(one, 0);
  return leaf == nullptr ? missing_child : leaf->get_label();
}

TEST(TreeModel, DeepTreesAreFreedWithoutRecursion) {
  Node<int>* root = new Node<int>();
  Node<int>* node = root;
  for (int d = 0; d < 1000000; ++d) {
    node->set_left(new Node<int>());
    node = node->get_left();
  }
  delete root;
}

// Random small encodings, most of them broken somewhere: read straight into
// the flat form they must be refused with the linked reader's message, and
// otherwise send every instance to the same label or the same missing child.
TEST(FlatForest, EncodingsReadAsTheLinkedReaderReadsThem) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  int refused = 0, accepted = 0;
  for (int trial = 0; trial < 3000; ++trial) {
    const int n = 1 + static_cast<int>(rng() % 9);
    std::vector<std::vector<double>> rows(5, std::vector<double>(static_cast<size_t>(n)));
    int next_free = 1;  // a valid breadth-first tree, then a few cells spoilt
    for (int i = 0; i < n; ++i) {
      for (int side = 0; side < 2; ++side) {
        rows[side][i] = next_free < n && unit(rng) < 0.7 ? next_free++ : (unit(rng) < 0.5 ? -1.0 : -3.5);
      }
      rows[2][i] = static_cast<double>(rng() % 3);
      rows[3][i] = std::floor(unit(rng) * 4.0) / 2.0;
      rows[4][i] = static_cast<double>(rng() % 4) - 1.0 + 0.25;
    }
    for (int s = static_cast<int>(rng() % 3); s > 0; --s) {
      const double choices[] = {0.0, static_cast<double>(n), 1.0, not_a_number, 3e9, -3e9, 2.0, 0.5};
      rows[rng() % 5][rng() % static_cast<size_t>(n)] = choices[rng() % 8];
    }
    Encoding<double> wide(rows);
    Encoding<float> narrow(rows);
    std::unique_ptr<Node<int>> root;
    Velmot::FlatTree tree;
    const std::string expected = message_of([&] { root.reset(wide.linked()); });
    ASSERT_EQ(message_of([&] { tree = wide.flat(); }), expected) << "trial " << trial;
    ASSERT_EQ(message_of([&] { narrow.flat(); }), message_of([&] { root.reset(narrow.linked()); })) << trial;
    if (!expected.empty()) {
      ++refused;
      continue;
    }
    root.reset(wide.linked());
    ++accepted;
    for (int probe = 0; probe < 20; ++probe) {
      std::vector<double> x(10);  // any feature a spoilt cell can name
      for (double& value : x) value = probe == 0 ? not_a_number : std::floor(unit(rng) * 5.0) / 2.0;
      ASSERT_EQ(flat_label(tree.nodes.data(), x), linked_label(root.get(), x)) << "trial " << trial;
    }
  }
  EXPECT_GT(refused, 300);
  EXPECT_GT(accepted, 300);
}

}  // namespace
