#ifndef VELMOT_LEARN_FLAT_FOREST_H
#define VELMOT_LEARN_FLAT_FOREST_H

// The forest as prediction walks it: each tree one array of 16-byte nodes,
// built either from linked Nodes or straight from the five rows of the tree
// array encoding (without linked nodes in between).
//
// Glossary:
//   split     a node with at least one child. It tests `feature` against
//             `threshold`; its children sit side by side, left at `next`,
//             right at `next` + 1.
//   leaf      a node without children: `threshold` holds its label (exact:
//             every int is a double) or a regression leaf's value,
//             `feature` is -1, `next` its own position.
//   stand-in  the absent child of a one-child split, laid out like a leaf
//             with threshold +inf; reaching it is an error.
//   sentinel  -inf, stored just before each instance's values, read through
//             feature -1 by leaves and stand-ins.
//
// The descent step is  node = next + !(threshold > values[feature]):  a
// value below the threshold goes left, an equal value or NaN goes right.
// A leaf (label > -inf) and a stand-in (+inf > -inf) step "left" onto
// themselves, so several walks can step in lockstep with no branch until
// every one rests on a leaf.
//
// Layout: depth first with sibling pairs. The root is at 0; when a split is
// laid out its two children take the next two positions, then the left
// child's subtree is laid out entirely before the right child's. The last
// levels of a walk then stay within a few cache lines (measured on 100
// full-depth trees of 12,500 nodes, 50,000 instances: 10 to 15 % less CPU
// than breadth-first order).
//
// From the array encoding, the columns are read and checked by
// read_tree_columns (tree_encoding.h), the reader every consumer of tree
// arrays shares; columns unreachable from column 0 are checked but not laid
// out.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "velmot/defs/contiguous_array_2d.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"
#include "velmot/learn/tree.h"
#include "velmot/learn/tree_encoding.h"

namespace Velmot {

struct FlatNode {
  double threshold;
  int32_t feature;
  int32_t next;
};
static_assert(sizeof(FlatNode) == 16, "four nodes to a cache line");

namespace flat_forest {

constexpr double sentinel = -std::numeric_limits<double>::infinity();
constexpr double stand_in_mark = std::numeric_limits<double>::infinity();

inline bool rests(const FlatNode& node, size_t position) { return static_cast<size_t>(node.next) == position; }
inline bool is_stand_in(const FlatNode& node) { return node.threshold == stand_in_mark; }
inline int label_of(const FlatNode& leaf) { return static_cast<int>(leaf.threshold); }

inline FlatNode leaf_at(size_t position, double value) { return FlatNode{value, -1, static_cast<int32_t>(position)}; }
inline FlatNode stand_in_at(size_t position) { return FlatNode{stand_in_mark, -1, static_cast<int32_t>(position)}; }

// Positions are int32: refuses a tree whose layout would need more.
inline void require_position(size_t position) {
  if (!fits_in_int32(position)) {
    throw Exception("tree has too many nodes to predict with");
  }
}

// The leaf reached by one instance; value_of(f) gives its feature f as a
// double. Used where instances come one at a time.
template <class ValueOf>
const FlatNode* find_leaf(const FlatNode* nodes, ValueOf&& value_of) {
  const FlatNode* node = nodes;
  while (node->feature >= 0) node = nodes + node->next + !(node->threshold > value_of(node->feature));
  return node;
}

// The leaves reached by `group` instances, whose values start at values,
// values + stride, ... (each preceded by the sentinel), in each of `trees`
// trees (roots[0 .. trees)): leaves[t * group + k] for tree t and instance
// k. All walks step in lockstep until every one rests. Independent walks
// overlap their loads; the child is chosen by arithmetic, not a branch; two
// trees over the same instances read each instance's values twice per
// pass over a block. Measured on the trees above, CPU per 50,000 instances
// on one thread, blocks of 12,787 instances, three runs: one tree and
// groups of 8 166-170 ms (4: 250 ms, 16: no better than 8); two trees and
// groups of 8 155-159 ms, of 4 165-168 ms; three trees and groups of 4
// 155-163 ms; four trees and groups of 2 175-183 ms. Refilling a group's
// finished walks one by one (a branch per step) took 205-230 ms, although
// lockstep takes 20 steps per walk where 15 would do.
template <int group, int trees>
inline void find_leaves(const FlatNode* const* roots, const double* values, size_t stride, const FlatNode** leaves) {
  const FlatNode* node[trees][group];
  const double* instance[group];
  for (int k = 0; k < group; ++k) {
    instance[k] = values + static_cast<size_t>(k) * stride;
    for (int t = 0; t < trees; ++t) node[t][k] = roots[t];
  }
  for (;;) {
    // Negative when every walk stood on a leaf before this step.
    int32_t all_rest = -1;
    for (int k = 0; k < group; ++k) {
      for (int t = 0; t < trees; ++t) {
        const FlatNode* here = node[t][k];
        node[t][k] = roots[t] + here->next + !(here->threshold > instance[k][here->feature]);
        all_rest &= here->feature;
      }
    }
    if (all_rest < 0) break;
  }
  for (int t = 0; t < trees; ++t) {
    for (int k = 0; k < group; ++k) leaves[t * group + k] = node[t][k];
  }
}

}  // namespace flat_forest

struct FlatTree {
  std::vector<FlatNode> nodes;  // empty only for a null root handed to the library
  // Extremes of the split nodes' features (an empty range without splits):
  // the data's features are checked against them before any walk.
  int32_t lowest_feature = int32_max;
  int32_t highest_feature = int32_min;

  void note_split_feature(int32_t f) {
    lowest_feature = std::min(lowest_feature, f);
    highest_feature = std::max(highest_feature, f);
  }
};

// Lays out a linked tree; a null root gives an empty tree.
template <class L>
FlatTree flatten_tree(const Node<L>* root) {
  using namespace flat_forest;
  FlatTree tree;
  if (root == nullptr) return tree;
  std::vector<const Node<L>*> source{root};  // the node at each position, null for a stand-in
  std::vector<size_t> pending{0};
  tree.nodes.resize(1);
  while (!pending.empty()) {
    const size_t position = pending.back();
    pending.pop_back();
    const Node<L>* node = source[position];
    if (node == nullptr) {
      tree.nodes[position] = stand_in_at(position);
    } else if (node->is_leaf()) {
      tree.nodes[position] = leaf_at(position, static_cast<int>(node->get_label()));
    } else {
      const size_t children = tree.nodes.size();
      require_position(children + 1);
      tree.nodes[position] = FlatNode{node->get_threshold(), node->get_feature_index(), static_cast<int32_t>(children)};
      tree.note_split_feature(node->get_feature_index());
      tree.nodes.resize(children + 2);
      source.push_back(node->get_left());
      source.push_back(node->get_right());
      pending.push_back(children + 1);
      pending.push_back(children);
    }
  }
  return tree;
}

// Working memory of flatten_encoded_tree, kept by a caller that lays out
// many trees: fresh buffers for every tree cost page faults (about a third
// of the time for 100 trees of 12,500 columns).
struct EncodedTreeScratch {
  std::vector<EncodedColumn> columns;
  std::vector<char> has_parent;
  std::vector<int32_t> column_at;  // the column at each position, -1 for a stand-in
  std::vector<int32_t> pending;    // positions still to lay out, a stack
};

// Lays out the tree of n >= 1 columns given as five strided rows of the
// array encoding (E: float or double), read by read_tree_columns.
template <class E>
FlatTree flatten_encoded_tree(int n, const Array1D<E>& left_row, const Array1D<E>& right_row,
                              const Array1D<E>& feature_row, const Array1D<E>& threshold_row,
                              const Array1D<E>& label_row, EncodedTreeScratch& scratch) {
  using namespace flat_forest;
  // The columns are read once, in order, into one record each: the layout
  // below visits them depth first, and scattered reads of one record cost
  // less than of five rows (measured for 100 trees of 12,500 columns, CPU
  // on a loaded machine: 36 ms against 42 ms).
  const std::vector<EncodedColumn>& columns = scratch.columns;
  const size_t with_children = read_tree_columns(n, left_row, right_row, feature_row, threshold_row, label_row,
                                                 scratch.columns, scratch.has_parent);

  // No column has two parents and the root has none, so the walk from
  // column 0 meets every reachable column once, and the layout needs at
  // most two positions per column with children, plus the root's (exactly
  // that for a tree without one-child nodes or unreachable columns).
  const size_t most = 1 + 2 * with_children;
  require_position(most - 1);
  FlatTree tree;
  tree.nodes.resize(most);
  std::vector<int32_t>& column_at = scratch.column_at;
  std::vector<int32_t>& pending = scratch.pending;
  column_at.resize(most);
  pending.resize(most);
  size_t laid_out = 1;
  size_t num_pending = 1;
  column_at[0] = 0;
  pending[0] = 0;
  while (num_pending > 0) {
    const size_t position = static_cast<size_t>(pending[--num_pending]);
    if (column_at[position] < 0) {
      tree.nodes[position] = stand_in_at(position);
      continue;
    }
    const EncodedColumn& column = columns[static_cast<size_t>(column_at[position])];
    if (column.left < 0 && column.right < 0) {
      tree.nodes[position] = leaf_at(position, column.label);
      continue;
    }
    const size_t children = laid_out;
    laid_out += 2;
    tree.nodes[position] = FlatNode{column.threshold, column.feature, static_cast<int32_t>(children)};
    tree.note_split_feature(column.feature);
    column_at[children] = column.left;
    column_at[children + 1] = column.right;
    pending[num_pending++] = static_cast<int32_t>(children + 1);
    pending[num_pending++] = static_cast<int32_t>(children);
  }
  tree.nodes.resize(laid_out);
  return tree;
}

template <class E>
FlatTree flatten_encoded_tree(int n, const Array1D<E>& left_row, const Array1D<E>& right_row,
                              const Array1D<E>& feature_row, const Array1D<E>& threshold_row,
                              const Array1D<E>& label_row) {
  EncodedTreeScratch scratch;
  return flatten_encoded_tree(n, left_row, right_row, feature_row, threshold_row, label_row, scratch);
}

class FlatForest {
public:
  FlatForest() = default;
  explicit FlatForest(std::vector<FlatTree>&& trees) : trees(std::move(trees)) {}

  void append(FlatTree&& tree) { trees.push_back(std::move(tree)); }
  void clear() { trees.clear(); }

  size_t size() const { return trees.size(); }
  bool empty() const { return trees.empty(); }
  const FlatNode* tree(size_t t) const { return trees[t].nodes.data(); }

  // Refuses a forest that holds a null tree or whose split nodes test a
  // feature the data lacks, reporting the first such node in the order the
  // linked trees are checked: tree by tree, each depth first from the root,
  // right subtree before left.
  void check_features(size_t num_features) const;

private:
  std::vector<FlatTree> trees;
};

inline void FlatForest::check_features(size_t num_features) const {
  auto outside = [num_features](int64_t f) { return f < 0 || static_cast<uint64_t>(f) >= num_features; };
  bool all_inside = true;
  for (const FlatTree& t : trees) {
    if (t.nodes.empty() ||
        (t.lowest_feature <= t.highest_feature && (outside(t.lowest_feature) || outside(t.highest_feature)))) {
      all_inside = false;
      break;
    }
  }
  if (all_inside) return;
  std::vector<size_t> pending;
  for (const FlatTree& t : trees) {
    if (t.nodes.empty()) throw Exception("forest holds a null tree");
    pending.assign(1, 0);
    while (!pending.empty()) {
      const size_t position = pending.back();
      pending.pop_back();
      const FlatNode& node = t.nodes[position];
      if (flat_forest::rests(node, position)) continue;
      if (outside(node.feature)) {
        throw Exception("tree node tests feature " + std::to_string(node.feature) + " but the data has " +
                        std::to_string(num_features) + " features");
      }
      // Stand-ins are pushed too; they rest, as the linked check skips a
      // missing child.
      pending.push_back(static_cast<size_t>(node.next));
      pending.push_back(static_cast<size_t>(node.next) + 1);
    }
  }
}

}  // namespace Velmot

#endif
