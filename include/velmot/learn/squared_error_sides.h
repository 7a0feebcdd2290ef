#ifndef VELMOT_LEARN_SQUARED_ERROR_SIDES_H
#define VELMOT_LEARN_SQUARED_ERROR_SIDES_H

// SquaredErrorSides: the two sides of a boundary as the split sweep
// (learn/sweep.h) keeps them under squared error (stats/squared_error.h):
// the left side's weight and centred sum, the right side's following from
// the node's; a boundary scores sL^2 / nL + sR^2 / nR, computed in double,
// once a cheaper bound by multiplication says it may beat the best.

#include <cstddef>
#include <cstdint>

#include "velmot/learn/growth_limits.h"
#include "velmot/stats/squared_error.h"

namespace Velmot {

// A position's share of a side's sums: its copies and copies x (label -
// centre), computed once per node (stats/squared_error.h's count) so that
// the sweeps of the node's features only add them.
struct CentredTerm {
  double copies;
  double centred;
};

// The sides of the split sweep (learn/sweep.h) under squared error: the
// left side's weight and centred sum; the right side's follow from the
// node's. Scores every boundary between distinct keys. With limited false
// the leaf limit admits every boundary the sweep visits (a limit of at most
// one pair per side: each side of a visited boundary holds an element), and
// is not tested per element. With distinct_keys the input's keys are all
// distinct, so every run (below) is one element, added as it moves left.
template <bool limited = true, bool distinct_keys = false>
class SquaredErrorSides {
public:
  static constexpr bool scores_every_boundary = true;

  SquaredErrorSides(const SquaredErrorStatistics& node, LeafLimit limit)
      : limit(limit),
        centre(node.get_centre()),
        node_sum(node.get_centred_sum()),
        node_total(static_cast<int64_t>(node.total())),
        node_count(static_cast<double>(node.total())),
        unsplit(node.unsplit_score()),
        best(unsplit) {}

  size_t total() const { return static_cast<size_t>(node_total); }
  bool splittable() const { return limit.splittable(node_total); }
  bool within_limit() const { return !limited || limit.admits(left_total, node_total); }
  // The left sum grows by one product per run of elements with equal keys
  // and equal labels, (copies in the run) x (y - centre): the same terms
  // whether a node's copies come as one weighted element or one by one.
  template <class L>
  [[gnu::always_inline]] void move(L label, uint32_t copies) {
    const double y = static_cast<double>(label);
    const double w = static_cast<double>(copies);
    left_count += w;
    if constexpr (limited) left_total += copies;
    if constexpr (distinct_keys) {
      left_sum += w * (y - centre);
      return;
    }
    if (run_copies != 0 && !(y == run_label)) close_run();
    run_label = y;
    run_copies += copies;
  }
  // The same move from the position's precomputed terms, over distinct
  // keys without a leaf limit: the same sums to the bit.
  [[gnu::always_inline]] void move(const CentredTerm& term, uint32_t) {
    static_assert(distinct_keys && !limited, "terms carry no run and no count");
    left_count += term.copies;
    left_sum += term.centred;
  }
  template <class Key>
  [[gnu::always_inline]] bool offer(bool admissible, const Key& lower, const Key& upper) {
    if (!distinct_keys && lower != upper) close_run();
    const double right_sum = node_sum - left_sum;
    const double left_n = left_count;
    const double right_n = node_count - left_count;
    const double numerator = left_sum * left_sum * right_n + right_sum * right_sum * left_n;
    if (!(admissible & (numerator >= bound * (left_n * right_n)))) return false;
    const double score = left_sum * left_sum / left_n + right_sum * right_sum / right_n;
    if (!(best < score)) return false;
    best = score;
    bound = margin * best;
    return true;
  }

  // The decrease in total squared error of the best split, 0 for the seed.
  double final_score() const { return best - unsplit; }
  double impurity() const { return final_score(); }

private:
  [[gnu::always_inline]] void close_run() {
    left_sum += static_cast<double>(run_copies) * (run_label - centre);
    run_copies = 0;
  }

  LeafLimit limit;
  double centre;
  double node_sum;
  int64_t node_total;
  // The same counts in double, which holds them exactly (a node holds
  // fewer than 2^53 instances): no conversion per element.
  double node_count;
  // A boundary's score as one fraction, (sL^2 nR + sR^2 nL) / (nL nR),
  // differs from the score by a few ulps: a boundary whose fraction stays
  // below best less a margin far above them cannot beat the best, and skips
  // the two divisions. So the maximum, its first position and every score
  // are those of scoring every boundary, to the bit.
  static constexpr double margin = 1.0 - 1e-12;
  double unsplit;
  double best;
  double bound = margin * best;
  double left_sum = 0.0;
  double left_count = 0.0;
  int64_t left_total = 0;  // with limited only
  // The open run: its label and the copies moved left so far.
  double run_label = 0.0;
  int64_t run_copies = 0;
};

}  // namespace Velmot

#endif
