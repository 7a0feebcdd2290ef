#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/learn/tree.h"

using Velmot::Array1D;
using Velmot::Node;
using Velmot::VectorizedTree;

namespace {

// Five rows of n values, row-major, as a (5, n) tree array holds them.
template <class E>
struct TreeArray {
  explicit TreeArray(const std::vector<std::vector<E>>& rows) : n(static_cast<int>(rows[0].size())) {
    for (const auto& row : rows) cells.insert(cells.end(), row.begin(), row.end());
  }
  Array1D<E> row(int r) { return Array1D<E>(cells.data() + r * n, n); }
  Node<int>* rebuild(VectorizedTree<int>& tree, bool keep = false) {
    return tree.vector_to_root(n, row(0), row(1), row(2), row(3), row(4), keep);
  }
  int n;
  std::vector<E> cells;
};

std::vector<std::vector<double>> flatten(Node<int>* root) {
  VectorizedTree<int> tree;
  tree.root_to_vector(root);
  const int n = tree.num_nodes();
  std::vector<std::vector<double>> rows(5, std::vector<double>(static_cast<size_t>(n)));
  tree.copy_left(rows[0].data());
  tree.copy_right(rows[1].data());
  tree.copy_feature_index(rows[2].data());
  tree.copy_threshold(rows[3].data());
  tree.copy_label(rows[4].data());
  return rows;
}

}  // namespace

TEST(TreeModel, FlattensBreadthFirstWithMinusOneForAbsentChildren) {
  // A default node: the sentinels label -2, feature -1, threshold NaN.
  Node<int> bare;
  const auto single = flatten(&bare);
  EXPECT_EQ(single[0], std::vector<double>{-1});
  EXPECT_EQ(single[1], std::vector<double>{-1});
  EXPECT_EQ(single[2], std::vector<double>{-1});
  EXPECT_TRUE(std::isnan(single[3][0]));
  EXPECT_EQ(single[4], std::vector<double>{-2});
  EXPECT_EQ(Node<double>().get_label(), -2.0);

  // root -> (right only) r -> (a, b): columns root, r, a, b.
  std::unique_ptr<Node<int>> root(new Node<int>(nullptr, new Node<int>(new Node<int>(), new Node<int>())));
  root->set_feature_index(3);
  root->set_threshold(0.5);
  root->get_right()->get_left()->set_label(1);
  root->get_right()->get_right()->set_label(2);
  const auto rows = flatten(root.get());
  EXPECT_EQ(rows[0], (std::vector<double>{-1, 2, -1, -1}));
  EXPECT_EQ(rows[1], (std::vector<double>{1, 3, -1, -1}));
  EXPECT_EQ(rows[2], (std::vector<double>{3, -1, -1, -1}));
  EXPECT_EQ(rows[3][0], 0.5);
  EXPECT_EQ(rows[4], (std::vector<double>{-2, -2, 1, 2}));
}

TEST(TreeModel, RebuildsAnyNumberingAndFlattensBackBreadthFirst) {
  // Root in column 0, its children stored in reverse order (columns 2, 1),
  // and a grandchild under column 2.
  TreeArray<float> array({{2, -1, 3, -1},
                          {1, -1, -1, -1},
                          {0, -1, 1, -1},
                          {1.5f, 0, 0.25f, 0},
                          {-2, 2.9f, -2, -0.5f}});
  VectorizedTree<int> tree;
  std::unique_ptr<Node<int>> root(array.rebuild(tree));
  EXPECT_EQ(tree.get_root_node(), root.get());
  EXPECT_EQ(root->get_left()->get_feature_index(), 1);
  EXPECT_EQ(root->get_right()->get_label(), 2);              // 2.9 truncated
  EXPECT_EQ(root->get_left()->get_left()->get_label(), 0);   // -0.5 truncated toward zero
  EXPECT_EQ(root->get_left()->get_threshold(), 0.25);
  const auto rows = flatten(root.get());
  EXPECT_EQ(rows[0], (std::vector<double>{1, 3, -1, -1}));
  EXPECT_EQ(rows[1], (std::vector<double>{2, -1, -1, -1}));
  EXPECT_EQ(rows[4], (std::vector<double>{-2, -2, 2, 0}));
}

TEST(TreeModel, UnlinkedColumnsAreNotPartOfTheTree) {
  TreeArray<float> array({{-1, -1, -1}, {-1, -1, -1}, {0, 1, 2}, {0, 0, 0}, {5, 6, 7}});
  VectorizedTree<int> tree;
  std::unique_ptr<Node<int>> root(array.rebuild(tree));
  EXPECT_TRUE(root->is_leaf());
  EXPECT_EQ(root->get_label(), 5);
  // NaN in a child row means no child, like any negative value.
  const float nan = std::nanf("");
  TreeArray<float> with_nan({{nan}, {-3}, {0}, {0}, {1}});
  std::unique_ptr<Node<int>> lone(with_nan.rebuild(tree));
  EXPECT_TRUE(lone->is_leaf());
}

TEST(TreeModel, KeepModeFillsTheSequencesButNotTheFeatureIndices) {
  TreeArray<double> array({{1, -1}, {-1, -1}, {4, 9}, {0.5, 0}, {-2, 1}});
  VectorizedTree<int> tree;
  std::unique_ptr<Node<int>> root(array.rebuild(tree, true));
  EXPECT_EQ(tree.left, (std::vector<int>{1, -1}));
  EXPECT_EQ(tree.feature_index, (std::vector<int>{0, 0}));
  EXPECT_EQ(tree.label, (std::vector<int>{-2, 1}));
  EXPECT_EQ(root->get_feature_index(), 4);
}

TEST(TreeModel, EncodingsThatWouldBreakDescentOrDeletionAreRefused) {
  VectorizedTree<int> tree;
  auto refuses = [&](TreeArray<double> array) {
    EXPECT_THROW(std::unique_ptr<Node<int>>(array.rebuild(tree)), Velmot::Exception);
  };
  refuses(TreeArray<double>({{1}, {-1}, {0}, {0}, {0}}));                        // child past the end
  refuses(TreeArray<double>({{1, -1}, {1, -1}, {0, 0}, {0, 0}, {0, 0}}));        // two parents
  refuses(TreeArray<double>({{1, 0}, {-1, -1}, {0, 0}, {0, 0}, {0, 0}}));        // root as a child
  refuses(TreeArray<double>({{-1}, {-1}, {0}, {0}, {1e10}}));                    // label no int holds
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
