#ifndef VELMOT_LEARN_SQUARED_ERROR_SIDES_H
#define VELMOT_LEARN_SQUARED_ERROR_SIDES_H

// SquaredErrorSides: the two sides of a boundary as the split sweep
// (learn/sweep.h) keeps them under squared error (stats/squared_error.h):
// the left side's weight and centred sum, the right side's following from
// the node's; a boundary scores sL^2 / nL + sR^2 / nR, computed in double.

#include <cstddef>
#include <cstdint>

#include "velmot/learn/growth_limits.h"
#include "velmot/stats/squared_error.h"

namespace Velmot {

// The sides of the split sweep (learn/sweep.h) under squared error: the
// left side's weight and centred sum; the right side's follow from the
// node's. Scores every boundary between distinct keys.
class SquaredErrorSides {
public:
  static constexpr bool scores_every_boundary = true;

  SquaredErrorSides(const SquaredErrorStatistics& node, LeafLimit limit)
      : limit(limit),
        centre(node.get_centre()),
        node_sum(node.get_centred_sum()),
        node_total(static_cast<int64_t>(node.total())),
        unsplit(node.unsplit_score()),
        best(unsplit) {}

  size_t total() const { return static_cast<size_t>(node_total); }
  bool splittable() const { return limit.splittable(node_total); }
  bool within_limit() const { return limit.admits(left_total, node_total); }
  template <class L>
  void move(L label, uint32_t copies) {
    left_sum += static_cast<double>(copies) * (static_cast<double>(label) - centre);
    left_total += copies;
  }
  template <class Key>
  bool offer(bool admissible, const Key&, const Key&) {
    if (!admissible) return false;
    const double right_sum = node_sum - left_sum;
    const double score = left_sum * left_sum / static_cast<double>(left_total) +
                         right_sum * right_sum / static_cast<double>(node_total - left_total);
    if (!(best < score)) return false;
    best = score;
    return true;
  }

  // The decrease in total squared error of the best split, 0 for the seed.
  double final_score() const { return best - unsplit; }
  double impurity() const { return final_score(); }

private:
  LeafLimit limit;
  double centre;
  double node_sum;
  int64_t node_total;
  double unsplit;
  double best;
  double left_sum = 0.0;
  int64_t left_total = 0;
};

}  // namespace Velmot

#endif
