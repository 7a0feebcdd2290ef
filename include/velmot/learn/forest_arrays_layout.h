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

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/defs/parallel.h"
#include "velmot/learn/flat_forest.h"
#include "velmot/learn/forest_arrays.h"

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

namespace forest_arrays_detail {

inline void check_forest_bounds(const int64_t* offsets, size_t num_trees, size_t num_nodes) {
  if (num_trees == 0) throw Exception("forest is empty: cannot predict");
  if (offsets[0] != 0 || offsets[num_trees] != static_cast<int64_t>(num_nodes)) {
    throw Exception("tree offsets must start at 0 and end at the number of nodes");
  }
}

// What makes tree k unfit to walk, the first fault in node order; empty if
// none. has_parent is working memory.
template <class Value>
std::string tree_fault(const NodeArraysView<Value>& forest, size_t k, size_t num_classes,
                       std::vector<char>& has_parent) {
  const int64_t begin = forest.offsets[k], end = forest.offsets[k + 1];
  if (!(begin < end)) return "tree " + std::to_string(k) + " has no nodes or its offsets go backwards";
  if (end - begin > 2147483647) return "tree " + std::to_string(k) + " has too many nodes";
  const int64_t size = end - begin;
  has_parent.assign(static_cast<size_t>(size), 0);
  for (int64_t i = 0; i < size; ++i) {
    const size_t node = static_cast<size_t>(begin + i);
    const int32_t left = forest.left[node], right = forest.right[node];
    auto where = [&]() { return "node " + std::to_string(i) + " of tree " + std::to_string(k); };
    if (left < 0 && right < 0) {
      if (!leaf_value_fits(forest.value[node], num_classes)) {
        return where() + (std::is_integral<Value>::value ? " is a leaf whose class lies outside [0, n_classes)"
                                                         : " is a leaf whose value is not finite");
      }
      continue;
    }
    if (left <= i || right <= i || left >= size || right >= size || left == right) {
      return where() + " must have two distinct children after it in its tree";
    }
    for (const int32_t child : {left, right}) {
      if (has_parent[static_cast<size_t>(child)]) return where() + " shares a child with another node";
      has_parent[static_cast<size_t>(child)] = 1;
    }
  }
  return std::string();
}

}  // namespace forest_arrays_detail

// num_classes is ignored for a regression forest.
template <class Value>
void check_forest_arrays(const NodeArraysView<Value>& forest, size_t num_classes) {
  forest_arrays_detail::check_forest_bounds(forest.offsets, forest.num_trees, forest.num_nodes);
  std::vector<char> has_parent;
  for (size_t k = 0; k < forest.num_trees; ++k) {
    const std::string fault = forest_arrays_detail::tree_fault(forest, k, num_classes, has_parent);
    if (!fault.empty()) throw Exception(fault);
  }
}

namespace forest_arrays_detail {

// Working memory of lay_out_tree, one per worker, reused across trees.
struct LayoutScratch {
  std::vector<char> has_parent;
  std::vector<int32_t> splits_below;   // split nodes in each node's subtree, itself included
  std::vector<int32_t> position;       // each node's position, -1 until its parent is laid out
  std::vector<int32_t> splits_before;  // split nodes before each node in depth-first order
};

// Tree k laid out depth first with sibling pairs (flat_forest.h). A split's
// children take the two positions after those of every split before it in
// depth-first order, so the layout follows from each subtree's split count:
// one backward pass counts them (children come after their parent), one
// forward pass places every node; both read the arrays in order.
template <class Value>
FlatTree lay_out_tree(const NodeArraysView<Value>& forest, size_t k, LayoutScratch& scratch) {
  using namespace flat_forest;
  const size_t base = static_cast<size_t>(forest.offsets[k]);
  const size_t size = static_cast<size_t>(forest.offsets[k + 1]) - base;
  const int32_t* left = forest.left + base;
  const int32_t* right = forest.right + base;
  std::vector<int32_t>& below = scratch.splits_below;
  std::vector<int32_t>& before = scratch.splits_before;
  std::vector<int32_t>& position = scratch.position;
  below.resize(size);
  for (size_t i = size; i-- > 0;) {
    below[i] = left[i] < 0 ? 0 : 1 + below[static_cast<size_t>(left[i])] + below[static_cast<size_t>(right[i])];
  }
  FlatTree tree;
  tree.nodes.resize(1 + 2 * static_cast<size_t>(below[0]));  // nodes no walk reaches are left out
  before.resize(size);
  position.assign(size, -1);
  position[0] = 0;
  before[0] = 0;
  for (size_t i = 0; i < size; ++i) {
    const int32_t at = position[i];
    if (at < 0) continue;
    const size_t node = base + i;
    if (left[i] < 0) {
      tree.nodes[static_cast<size_t>(at)] = leaf_at(static_cast<size_t>(at), forest.value[node]);
      continue;
    }
    const int32_t children = 1 + 2 * before[i];
    tree.nodes[static_cast<size_t>(at)] = FlatNode{forest.threshold[node], forest.feature[node], children};
    tree.note_split_feature(forest.feature[node]);
    const size_t l = static_cast<size_t>(left[i]), r = static_cast<size_t>(right[i]);
    position[l] = children;
    position[r] = children + 1;
    before[l] = before[i] + 1;
    before[r] = before[i] + 1 + below[l];
  }
  return tree;
}

}  // namespace forest_arrays_detail

// A learner's tree, one tree of node arrays with two children to every
// split, laid out for prediction.
template <class Value>
FlatTree lay_out_grown_tree(const NodeArrays<Value>& tree, forest_arrays_detail::LayoutScratch& scratch) {
  const NodeArraysView<Value> view{tree.offsets.data(), 1,
                                   tree.left.data(),    tree.right.data(),
                                   tree.feature.data(), tree.threshold.data(),
                                   tree.value.data(),   tree.num_nodes()};
  return forest_arrays_detail::lay_out_tree(view, 0, scratch);
}

// check_forest_arrays and the layout in one: the forest checked and
// laid out for prediction, its trees shared among num_threads workers,
// each tree laid out right after its check, while its arrays are in cache.
// Refuses the forest with the fault check_forest_arrays reports.
template <class Value>
FlatForest checked_flat_forest_of(const NodeArraysView<Value>& forest, size_t num_classes, int num_threads) {
  forest_arrays_detail::check_forest_bounds(forest.offsets, forest.num_trees, forest.num_nodes);
  std::vector<FlatTree> trees(forest.num_trees);
  std::vector<std::string> faults(forest.num_trees);
  std::vector<forest_arrays_detail::LayoutScratch> scratch(static_cast<size_t>(std::max(num_threads, 1)));
  for_each_index(static_cast<int64_t>(forest.num_trees), num_threads, [&](int64_t j, const Worker& w) {
    const size_t k = static_cast<size_t>(j);
    forest_arrays_detail::LayoutScratch& mine = scratch[static_cast<size_t>(w.number)];
    faults[k] = forest_arrays_detail::tree_fault(forest, k, num_classes, mine.has_parent);
    if (faults[k].empty()) trees[k] = forest_arrays_detail::lay_out_tree(forest, k, mine);
  });
  for (const std::string& fault : faults) {
    if (!fault.empty()) throw Exception(fault);
  }
  return FlatForest(std::move(trees));
}

}  // namespace Velmot

#endif
