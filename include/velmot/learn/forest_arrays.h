#ifndef VELMOT_LEARN_FOREST_ARRAYS_H
#define VELMOT_LEARN_FOREST_ARRAYS_H

// NodeArrays: a forest as one structure of arrays, one entry per node,
// trees one after another; ForestArrays for classification (int32 values),
// RegressionForestArrays for regression (float64 values).
//
// Glossary:
//   offsets    tree k holds the nodes [offsets[k], offsets[k + 1]);
//   left/right index of a child within its own tree, -1 for none; nodes of
//              a tree are numbered breadth-first from its root at 0, as
//              in the tree array encoding, so a child's index is always
//              above its parent's;
//   value      a leaf's class, -2 at a split (classification); a leaf's
//              mean label (regression);
//   count      in-bag instances that reach the node, bootstrap copies
//              counted (0 where unknown);
//   impurity   the node's label impurity over those instances (NaN where
//              unknown).
// A split's feature and threshold send a value below the threshold left; a
// leaf keeps whatever feature and threshold its grower left in it.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "velmot/learn/tree.h"

namespace Velmot {

template <class Value>
struct NodeArrays {
  std::vector<int64_t> offsets{0};
  std::vector<int32_t> left, right, feature;
  std::vector<Value> value;
  std::vector<double> threshold;
  std::vector<int64_t> count;
  std::vector<double> impurity;

  size_t num_trees() const { return offsets.size() - 1; }
  size_t num_nodes() const { return left.size(); }

  // Adds the trees of `other` after this forest's.
  void append(const NodeArrays& other) {
    const int64_t base = offsets.back();
    for (size_t k = 1; k < other.offsets.size(); ++k) offsets.push_back(base + other.offsets[k]);
    left.insert(left.end(), other.left.begin(), other.left.end());
    right.insert(right.end(), other.right.begin(), other.right.end());
    feature.insert(feature.end(), other.feature.begin(), other.feature.end());
    value.insert(value.end(), other.value.begin(), other.value.end());
    threshold.insert(threshold.end(), other.threshold.begin(), other.threshold.end());
    count.insert(count.end(), other.count.begin(), other.count.end());
    impurity.insert(impurity.end(), other.impurity.begin(), other.impurity.end());
  }
};

typedef NodeArrays<int32_t> ForestArrays;
typedef NodeArrays<double> RegressionForestArrays;

// A one-tree NodeArrays of a linked tree, breadth-first (the numbering of
// VectorizedTree::root_to_vector); counts 0 and impurities NaN. L is int
// (classes) or double (regression).
template <class L>
NodeArrays<L> flatten_tree(const Node<L>& root) {
  NodeArrays<L> tree;
  std::vector<const Node<L>*> nodes{&root};
  for (size_t i = 0; i < nodes.size(); ++i) {
    const Node<L>* node = nodes[i];
    tree.feature.push_back(node->get_feature_index());
    tree.threshold.push_back(node->get_threshold());
    tree.value.push_back(node->get_label());
    int32_t children[2] = {-1, -1};
    const Node<L>* linked[2] = {node->get_left(), node->get_right()};
    for (int side = 0; side < 2; ++side) {
      if (linked[side] == nullptr) continue;
      children[side] = static_cast<int32_t>(nodes.size());
      nodes.push_back(linked[side]);
    }
    tree.left.push_back(children[0]);
    tree.right.push_back(children[1]);
  }
  tree.count.assign(nodes.size(), 0);
  tree.impurity.assign(nodes.size(), std::numeric_limits<double>::quiet_NaN());
  tree.offsets.push_back(static_cast<int64_t>(nodes.size()));
  return tree;
}

}  // namespace Velmot

#endif
