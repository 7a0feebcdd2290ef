#ifndef VELMOT_LEARN_FOREST_ARRAYS_LAYOUT_H
#define VELMOT_LEARN_FOREST_ARRAYS_LAYOUT_H

// A forest held as ForestArrays (learn/forest_arrays.h), read in place
// through ForestArraysView, checked and laid out as the FlatForest that the
// forest predictor walks (learn/flat_forest.h), so that prediction votes
// exactly as it does for the module: ties to the smallest class, vote
// fractions as votes / trees.
//
// check_forest_arrays refuses, before any layout, every forest on which a
// walk could fail or loop: offsets out of order, a child outside its tree
// or not after its parent, a node with two parents or one child, and a
// leaf class outside [0, num_classes) (a regression leaf's value that is
// not finite). Split features are checked against the data by the
// predictor itself. A regression leaf's value is laid out as a leaf label
// is, in the leaf's threshold.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/learn/flat_forest.h"

namespace Velmot {

template <class Value>
struct NodeArraysView {
  const int64_t* offsets;  // num_trees + 1 entries
  size_t num_trees;
  const int32_t* left;
  const int32_t* right;
  const int32_t* feature;
  const double* threshold;
  const Value* value;
  size_t num_nodes;
};
typedef NodeArraysView<int32_t> ForestArraysView;
typedef NodeArraysView<double> RegressionForestArraysView;

namespace forest_arrays_detail {

// Whether a leaf's value can be laid out and predicted with.
inline bool leaf_value_fits(int32_t label, size_t num_classes) {
  return label >= 0 && static_cast<size_t>(label) < num_classes;
}
inline bool leaf_value_fits(double value, size_t) { return std::isfinite(value); }

}  // namespace forest_arrays_detail

// num_classes is ignored for a regression forest.
template <class Value>
void check_forest_arrays(const NodeArraysView<Value>& forest, size_t num_classes) {
  if (forest.num_trees == 0) throw Exception("forest is empty: cannot predict");
  if (forest.offsets[0] != 0 || forest.offsets[forest.num_trees] != static_cast<int64_t>(forest.num_nodes)) {
    throw Exception("tree offsets must start at 0 and end at the number of nodes");
  }
  std::vector<char> has_parent;
  for (size_t k = 0; k < forest.num_trees; ++k) {
    const int64_t begin = forest.offsets[k], end = forest.offsets[k + 1];
    if (!(begin < end)) throw Exception("tree " + std::to_string(k) + " has no nodes or its offsets go backwards");
    if (end - begin > 2147483647) throw Exception("tree " + std::to_string(k) + " has too many nodes");
    const int64_t size = end - begin;
    has_parent.assign(static_cast<size_t>(size), 0);
    for (int64_t i = 0; i < size; ++i) {
      const size_t node = static_cast<size_t>(begin + i);
      const int32_t left = forest.left[node], right = forest.right[node];
      auto where = [&]() { return "node " + std::to_string(i) + " of tree " + std::to_string(k); };
      if (left < 0 && right < 0) {
        if (!forest_arrays_detail::leaf_value_fits(forest.value[node], num_classes)) {
          throw Exception(where() + (std::is_integral<Value>::value
                                         ? " is a leaf whose class lies outside [0, n_classes)"
                                         : " is a leaf whose value is not finite"));
        }
        continue;
      }
      if (left <= i || right <= i || left >= size || right >= size || left == right) {
        throw Exception(where() + " must have two distinct children after it in its tree");
      }
      for (const int32_t child : {left, right}) {
        if (has_parent[static_cast<size_t>(child)]) throw Exception(where() + " shares a child with another node");
        has_parent[static_cast<size_t>(child)] = 1;
      }
    }
  }
}

namespace forest_arrays_detail {

// One node as the layout reads it.
template <class Value>
struct NodeRecord {
  double threshold;
  int32_t left, right, feature;
  Value value;
};

}  // namespace forest_arrays_detail

// The forest laid out for prediction; it must have passed
// check_forest_arrays. Each tree's nodes are first read in order into one
// record each (the layout visits them depth first: scattered reads of one
// record cost less than of five arrays), into buffers reused across trees.
template <class Value>
FlatForest flat_forest_of(const NodeArraysView<Value>& forest) {
  using namespace flat_forest;
  FlatForest flat;
  std::vector<forest_arrays_detail::NodeRecord<Value>> records;
  std::vector<std::pair<int32_t, size_t>> pending;  // (node in its tree, position)
  for (size_t k = 0; k < forest.num_trees; ++k) {
    const size_t base = static_cast<size_t>(forest.offsets[k]);
    const size_t size = static_cast<size_t>(forest.offsets[k + 1]) - base;
    records.resize(size);
    for (size_t i = 0; i < size; ++i) {
      records[i] = {forest.threshold[base + i], forest.left[base + i], forest.right[base + i], forest.feature[base + i],
                    forest.value[base + i]};
    }
    FlatTree tree;
    tree.nodes.resize(size);
    size_t laid_out = 1;
    pending.assign(1, {0, 0});
    while (!pending.empty()) {
      const auto [i, position] = pending.back();
      pending.pop_back();
      const auto& node = records[static_cast<size_t>(i)];
      if (node.left < 0) {
        tree.nodes[position] = leaf_at(position, node.value);
        continue;
      }
      // Siblings side by side; the left subtree before the right one.
      const size_t children = laid_out;
      laid_out += 2;
      tree.nodes[position] = FlatNode{node.threshold, node.feature, static_cast<int32_t>(children)};
      tree.note_split_feature(node.feature);
      pending.emplace_back(node.right, children + 1);
      pending.emplace_back(node.left, children);
    }
    tree.nodes.resize(laid_out);  // nodes no walk reaches are left out
    flat.append(std::move(tree));
  }
  return flat;
}

}  // namespace Velmot

#endif
