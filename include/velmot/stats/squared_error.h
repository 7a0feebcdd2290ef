#ifndef VELMOT_STATS_SQUARED_ERROR_H
#define VELMOT_STATS_SQUARED_ERROR_H

// The squared-error criterion over real labels (regression), in double.
//
// Glossary:
//   n        a node's in-bag instances, bootstrap copies counted (weights);
//   centre   the node's mean label, taken once per node: every sum below is
//            of labels minus the centre, so that labels far from 0 (offset
//            by 1e6, say) keep their precision and give the same splits as
//            the same labels centred on 0;
//   S, Q     the node's sums of w (y - centre) and w (y - centre)^2;
//   SSE      total squared error around the mean: Q - S^2 / n.
// A split into sides with sums sL, sR over nL, nR instances leaves
// SSE(L) + SSE(R) = Q - sL^2 / nL - sR^2 / nR, so the best split maximises
// sL^2 / nL + sR^2 / nR; its improvement, the decrease in total squared
// error, is that score less S^2 / n. Every boundary between distinct
// values is a candidate: a boundary inside a run of equal labels can still
// be the best, so the classifier's label-change rule does not apply.

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Velmot {

// The criterion of regression trees: stateless, chosen by type. The grower
// takes its node statistics from learn/node_labels.h, its sweep's sides
// from learn/squared_error_sides.h.
struct SquaredError {};

// Takes nothing per position.
struct IgnoreCentredTerms {
  void operator()(size_t, double, double) const {}
};

// The labels of one node's instances. R is a range view with
// get_num_instances(), get_label(i) (real) and get_weight(i). count hands
// each position's centred terms to term(i, w, w (y - centre)), the very
// doubles the centred sum adds.
class SquaredErrorStatistics {
public:
  template <class R, class Term = IgnoreCentredTerms>
  void count(const R& range, Term&& term = Term()) {
    const size_t positions = range.get_num_instances();
    double sum = 0.0;
    n = 0;
    lowest = highest = positions == 0 ? 0.0 : static_cast<double>(range.get_label(0));
    for (size_t i = 0; i < positions; ++i) {
      const double y = static_cast<double>(range.get_label(i));
      const uint32_t w = range.get_weight(i);
      sum += static_cast<double>(w) * y;
      n += w;
      lowest = std::min(lowest, y);
      highest = std::max(highest, y);
    }
    centre = n == 0 ? 0.0 : sum / static_cast<double>(n);
    centred_sum = centred_squares = 0.0;
    for (size_t i = 0; i < positions; ++i) {
      const double d = static_cast<double>(range.get_label(i)) - centre;
      const double w = static_cast<double>(range.get_weight(i));
      const double product = w * d;
      term(i, w, product);
      centred_sum += product;
      centred_squares += product * d;
    }
  }

  size_t total() const { return n; }
  // All labels equal: no split can lower the error.
  bool is_constant() const { return lowest == highest; }
  double mean() const { return centre; }
  double get_centre() const { return centre; }
  double get_centred_sum() const { return centred_sum; }
  // S^2 / n: the score of the unsplit node.
  double unsplit_score() const { return n == 0 ? 0.0 : centred_sum * centred_sum / static_cast<double>(n); }
  // Mean squared error around the mean, 0 for an empty node.
  double mean_squared_error() const {
    return n == 0 ? 0.0 : std::max(centred_squares - unsplit_score(), 0.0) / static_cast<double>(n);
  }

private:
  size_t n = 0;
  double centre = 0.0;
  double centred_sum = 0.0;
  double centred_squares = 0.0;
  double lowest = 0.0, highest = 0.0;
};

}  // namespace Velmot

#endif
