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
#include <type_traits>
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
};

typedef NodeArrays<int32_t> ForestArrays;
typedef NodeArrays<double> RegressionForestArrays;

// A one-tree NodeArrays of a linked tree, breadth-first (the numbering of
// VectorizedTree::root_to_vector); counts 0 and impurities NaN. L is int
// (classes) or double (regression). Every array holds exactly one entry per
// node: arrays grown by doubling would hold up to twice that.
template <class L>
NodeArrays<L> flatten_tree(const Node<L>& root) {
  std::vector<const Node<L>*> nodes{&root};
  for (size_t i = 0; i < nodes.size(); ++i) {
    for (const Node<L>* child : {nodes[i]->get_left(), nodes[i]->get_right()}) {
      if (child != nullptr) nodes.push_back(child);
    }
  }
  const size_t n = nodes.size();
  NodeArrays<L> tree;
  tree.left.resize(n);
  tree.right.resize(n);
  tree.feature.resize(n);
  tree.threshold.resize(n);
  tree.value.resize(n);
  // Children are numbered in the order the walk above queued them.
  int32_t next_child = 1;
  for (size_t i = 0; i < n; ++i) {
    const Node<L>* node = nodes[i];
    tree.feature[i] = node->get_feature_index();
    tree.threshold[i] = node->get_threshold();
    tree.value[i] = node->get_label();
    tree.left[i] = node->get_left() == nullptr ? -1 : next_child++;
    tree.right[i] = node->get_right() == nullptr ? -1 : next_child++;
  }
  tree.count.assign(n, 0);
  tree.impurity.assign(n, std::numeric_limits<double>::quiet_NaN());
  tree.offsets.push_back(static_cast<int64_t>(n));
  return tree;
}

}  // namespace Velmot

#endif
