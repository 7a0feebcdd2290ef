#ifndef VELMOT_LEARN_GROWTH_LIMITS_H
#define VELMOT_LEARN_GROWTH_LIMITS_H

// Limits on how far a tree grows, all counted in in-bag samples (bootstrap
// copies counted). The defaults are the library's growth rule:
//   - a node of at most min_leaf_size samples becomes a leaf (a negative
//     value makes every impure node a leaf, deliberately);
//   - the split search scores every boundary whatever the sizes of its
//     sides, leaves nodes of two unsplit, and the grower keeps the best split
//     only when both children hold two samples or more (else the node
//     becomes a leaf).
// A leaf limit of k >= 1 replaces the last rule: nodes of fewer than 2k
// samples become leaves, the search scores only boundaries that leave k or
// more on each side (the label-change rule then applies among those), and
// every split it keeps has children of k or more.
// min_impurity_decrease > 0 keeps a split only when its decrease in
// count-weighted impurity (Gini impurity for classes, squared error for
// real labels), over the root's sample size, reaches it; below it the node
// becomes a leaf and credits no importance.

#include <cstddef>
#include <cstdint>

namespace Velmot {

struct LeafLimit {
  int64_t min_side = 0;  // 0: the library's rule

  // Whether the sweep scores any boundary of a node of `total` samples.
  bool splittable(int64_t total) const { return min_side == 0 ? total > 2 : total >= 2 * min_side; }
  // Whether a boundary with `left` of the node's `total` samples before it
  // may be scored; branch-free, as the sweep runs it per element.
  bool admits(int64_t left, int64_t total) const { return (left >= min_side) & (total - left >= min_side); }
};

struct GrowthLimits {
  int min_leaf_size = 1;
  LeafLimit leaf;
  double min_impurity_decrease = 0.0;

  // Whether a node of n samples becomes a leaf without a search.
  bool too_small(size_t n) const {
    return n <= static_cast<size_t>(min_leaf_size) || static_cast<int64_t>(n) < 2 * leaf.min_side;
  }
  // Whether a split that sends `left` of the node's n samples left is kept.
  bool keeps(size_t left, size_t n) const {
    const size_t least = leaf.min_side == 0 ? 2 : static_cast<size_t>(leaf.min_side);
    return left >= least && n - left >= least;
  }
  // Whether a split's decrease g (count-weighted, as the grower measures
  // it) is large enough for a tree whose root holds root_n samples.
  bool decrease_suffices(double g, size_t root_n) const {
    return !(min_impurity_decrease > 0.0) || g >= min_impurity_decrease * static_cast<double>(root_n);
  }
};

}  // namespace Velmot

#endif
