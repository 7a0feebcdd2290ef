#ifndef VELMOT_LEARN_PACKED_TREE_H
#define VELMOT_LEARN_PACKED_TREE_H

// PackedTree: a grown tree's node arrays (a one-tree NodeArrays) in about
// a third of their bytes, and join_packed_trees, which unpacks a forest's
// trees into one NodeArrays. A fit holds every finished tree until its
// last one is grown, beside the data and the ranks, so the trees' size is
// part of the fit's peak memory (500,000 instances, 20 trees: 43 MiB
// unpacked, 16 packed).
//
// What is left out, and why it comes back bit for bit:
//   children   the grower gives a node two children or none, and the
//              breadth-first numbering gives them the next two numbers in
//              node order: the k-th node with children has them at 2k + 1
//              and 2k + 2. A flag per node says whether it has them.
//   feature,   a fresh node's are -1 and NaN; they are stored, in node
//   threshold  order, only for nodes where either differs (splits, and
//              nodes that became leaves after their split was chosen).
//   value      stored only where it is not a split's -2 (leaves).
//   impurity   stored only where it is not +0.0 (pure leaves are half a
//              tree grown to leaves of one sample).
//   count      one byte below 255; larger counts are stored in 4 bytes (a
//              sample holds fewer than 2^31 instances).
// A tree that breaks these rules (a node with one child, a count beyond
// int32) is refused with an exception; learn_tree never grows one.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "velmot/defs/exception.h"
#include "velmot/defs/free_memory.h"
#include "velmot/defs/parallel.h"
#include "velmot/learn/forest_arrays.h"

namespace Velmot {

template <class L>
class PackedTree {
public:
  PackedTree() = default;

  // tree: a one-tree NodeArrays numbered as flatten_tree numbers it.
  explicit PackedTree(const NodeArrays<L>& tree) : flags(tree.num_nodes()), count(tree.num_nodes()) {
    // Flags first, so that every stored field is allocated at its size.
    size_t splits = 0, values = 0, impurities = 0, wide_counts = 0;
    int32_t next_child = 1;
    for (size_t i = 0; i < tree.num_nodes(); ++i) {
      const bool has_children = tree.left[i] >= 0;
      if (tree.left[i] != (has_children ? next_child : -1) || tree.right[i] != (has_children ? next_child + 1 : -1)) {
        throw Exception("a packed tree's nodes have two children or none, numbered breadth-first");
      }
      if (tree.count[i] < 0 || tree.count[i] > std::numeric_limits<int32_t>::max()) {
        throw Exception("a packed tree's counts lie in [0, 2147483647]");
      }
      next_child += has_children ? 2 : 0;
      const bool has_split = tree.feature[i] != fresh_feature || !same_bits(tree.threshold[i], fresh_threshold);
      const bool has_value = !same_bits(tree.value[i], split_value);
      const bool has_impurity = !same_bits(tree.impurity[i], 0.0);
      flags[i] = static_cast<uint8_t>((has_children ? children_flag : 0) | (has_split ? split_flag : 0) |
                                      (has_value ? value_flag : 0) | (has_impurity ? impurity_flag : 0));
      splits += has_split;
      values += has_value;
      impurities += has_impurity;
      wide_counts += tree.count[i] >= wide;
    }
    feature.reserve(splits);
    threshold.reserve(splits);
    value.reserve(values);
    impurity.reserve(impurities);
    wide_count.reserve(wide_counts);
    for (size_t i = 0; i < tree.num_nodes(); ++i) {
      if (flags[i] & split_flag) {
        feature.push_back(tree.feature[i]);
        threshold.push_back(tree.threshold[i]);
      }
      if (flags[i] & value_flag) value.push_back(tree.value[i]);
      if (flags[i] & impurity_flag) impurity.push_back(tree.impurity[i]);
      count[i] = static_cast<uint8_t>(std::min<int64_t>(tree.count[i], wide));
      if (tree.count[i] >= wide) wide_count.push_back(static_cast<int32_t>(tree.count[i]));
    }
  }

  size_t num_nodes() const { return flags.size(); }

  // Appends the tree's nodes to every node array of forest (not to its
  // offsets); children are numbered within the tree.
  void append_to(NodeArrays<L>& forest) const {
    append_structure_to(forest);
    append_values_to(forest);
  }
  // The two halves of append_to, which two threads may run at once on one
  // forest: they write different arrays.
  void append_structure_to(NodeArrays<L>& forest) const {
    int32_t next_child = 1;
    size_t split = 0;
    for (size_t i = 0; i < flags.size(); ++i) {
      const bool has_children = (flags[i] & children_flag) != 0;
      forest.left.push_back(has_children ? next_child : -1);
      forest.right.push_back(has_children ? next_child + 1 : -1);
      next_child += has_children ? 2 : 0;
      const bool has_split = (flags[i] & split_flag) != 0;
      forest.feature.push_back(has_split ? feature[split] : fresh_feature);
      forest.threshold.push_back(has_split ? threshold[split] : fresh_threshold);
      split += has_split;
    }
  }
  void append_values_to(NodeArrays<L>& forest) const {
    size_t next_value = 0, next_impurity = 0, next_wide = 0;
    for (size_t i = 0; i < flags.size(); ++i) {
      forest.value.push_back((flags[i] & value_flag) ? value[next_value++] : split_value);
      forest.impurity.push_back((flags[i] & impurity_flag) ? impurity[next_impurity++] : 0.0);
      forest.count.push_back(count[i] == wide ? wide_count[next_wide++] : count[i]);
    }
  }

private:
  static constexpr uint8_t children_flag = 1, split_flag = 2, value_flag = 4, impurity_flag = 8;
  // A fresh node's feature and threshold (learn/tree.h), a split's value.
  static constexpr int32_t fresh_feature = -1;
  static constexpr double fresh_threshold = std::numeric_limits<double>::quiet_NaN();
  static constexpr L split_value = static_cast<L>(-2);
  // Counts from this one up are stored in wide_count.
  static constexpr int64_t wide = 255;

  // Bit for bit: a NaN of another payload, or -0.0, is stored.
  template <class T>
  static bool same_bits(T a, T b) {
    typedef std::conditional_t<sizeof(T) == sizeof(uint64_t), uint64_t, uint32_t> Bits;
    static_assert(sizeof(T) == sizeof(Bits), "values of 4 or 8 bytes");
    Bits x, y;
    std::memcpy(&x, &a, sizeof x);
    std::memcpy(&y, &b, sizeof y);
    return x == y;
  }

  std::vector<uint8_t> flags;
  std::vector<uint8_t> count;
  // Of the nodes flagged for them, in node order.
  std::vector<int32_t> feature;
  std::vector<double> threshold;
  std::vector<L> value;
  std::vector<double> impurity;
  std::vector<int32_t> wide_count;
};

// The trees as one forest, in order. The forest's arrays are reserved
// whole (their pages become resident only as they are written) and each
// tree is freed once unpacked, its memory handed back every few megabytes:
// the join adds about one tree to the forest's own memory. Most of its
// time is the first writes to the arrays' fresh pages, so with num_threads
// of 2 or more one thread writes the splits' arrays while another writes
// the values', each at its own pace (no barrier for a descheduled thread
// to hold up), and a tree is freed by whichever finishes it second; however
// far one runs ahead, its arrays and the trees not yet freed take less than
// the whole forest. W5's forest of 12.6 million nodes: 0.36 s on one
// thread, 0.17 to 0.19 s on two (bench/bench_join_trees.cpp).
template <class L>
NodeArrays<L> join_packed_trees(std::vector<PackedTree<L>>& trees, int num_threads = 1) {
  constexpr size_t return_every_nodes = size_t(1) << 18;
  NodeArrays<L> forest;
  size_t total = 0;
  forest.offsets.reserve(trees.size() + 1);
  for (const PackedTree<L>& tree : trees) {
    total += tree.num_nodes();
    forest.offsets.push_back(static_cast<int64_t>(total));
  }
  forest.left.reserve(total);
  forest.right.reserve(total);
  forest.feature.reserve(total);
  forest.value.reserve(total);
  forest.threshold.reserve(total);
  forest.count.reserve(total);
  forest.impurity.reserve(total);
  if (num_threads < 2) {
    size_t freed = 0;
    for (PackedTree<L>& tree : trees) {
      tree.append_to(forest);
      freed += tree.num_nodes();
      tree = PackedTree<L>();
      if (freed >= return_every_nodes) {
        return_free_memory();
        freed = 0;
      }
    }
    return_free_memory();
    return forest;
  }
  std::vector<std::atomic<int>> halves_done(trees.size());
  for (std::atomic<int>& done : halves_done) done.store(0, std::memory_order_relaxed);
  for_each_index(2, num_threads, [&](int64_t half, const Worker&) {
    size_t freed = 0;
    for (size_t t = 0; t < trees.size(); ++t) {
      if (half == 0) {
        trees[t].append_structure_to(forest);
      } else {
        trees[t].append_values_to(forest);
      }
      if (halves_done[t].fetch_add(1, std::memory_order_acq_rel) == 0) continue;
      freed += trees[t].num_nodes();
      trees[t] = PackedTree<L>();
      if (freed >= return_every_nodes) {
        return_free_memory();
        freed = 0;
      }
    }
  });
  return_free_memory();
  return forest;
}

}  // namespace Velmot

#endif
