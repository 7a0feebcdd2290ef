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

#include "velmot/defs/free_memory.h"
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
// node: a forest keeps its trees' arrays until they are joined, and arrays
// grown by doubling would hold up to twice that.
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

// The trees of `trees` as one forest, in order. The join copies one member
// (left, right, ...) at a time, frees each tree's part as soon as it is
// copied and hands the freed memory back to the system every few
// megabytes, so that it adds a few megabytes to the trees' own memory:
// copying every member beside the trees would double the forest's memory
// at the end of a fit, and copying one member beside them would add a
// sixth of it (W1: 16 MiB).
template <class Value>
NodeArrays<Value> join_trees(std::vector<NodeArrays<Value>>& trees) {
  constexpr size_t return_every_bytes = size_t(4) << 20;
  NodeArrays<Value> forest;
  size_t total = 0;
  forest.offsets.reserve(trees.size() + 1);
  for (const NodeArrays<Value>& tree : trees) {
    for (size_t k = 1; k < tree.offsets.size(); ++k) {
      forest.offsets.push_back(static_cast<int64_t>(total) + tree.offsets[k]);
    }
    total += tree.num_nodes();
  }
  const auto join = [&](auto member) {
    auto& joined = forest.*member;
    // Reserved pages become resident only as they are written.
    joined.reserve(total);
    size_t freed = 0;
    for (NodeArrays<Value>& tree : trees) {
      auto& part = tree.*member;
      joined.insert(joined.end(), part.begin(), part.end());
      freed += part.size() * sizeof(part[0]);
      std::remove_reference_t<decltype(part)>().swap(part);
      if (freed >= return_every_bytes) {
        return_free_memory();
        freed = 0;
      }
    }
    return_free_memory();
  };
  join(&NodeArrays<Value>::left);
  join(&NodeArrays<Value>::right);
  join(&NodeArrays<Value>::feature);
  join(&NodeArrays<Value>::value);
  join(&NodeArrays<Value>::threshold);
  join(&NodeArrays<Value>::count);
  join(&NodeArrays<Value>::impurity);
  return forest;
}

}  // namespace Velmot

#endif
