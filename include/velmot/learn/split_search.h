#ifndef VELMOT_LEARN_SPLIT_SEARCH_H
#define VELMOT_LEARN_SPLIT_SEARCH_H

// learn_tree_node: the best threshold of one feature at one node.
//
// Glossary:
//   pairs     the node's (value, label) pairs of the feature, buffered and
//             sorted by value before the call;
//   boundary  the gap between sorted positions i-1 and i; splitting there
//             sends positions 0..i-1 left and i..n-1 right;
//   seed      the unsplit node, offered first (threshold x[0], score of the
//             unsplit node), so a feature without a better split returns it;
//   label-change rule  a boundary is scored only if an instance of another
//             label than the one opening the current run has been met since
//             the last scored boundary: boundaries inside a pure run are
//             skipped.
//
// Steps: seed the tracker; move pair 0 left; for ranges of more than two
// instances whose first and last values differ, sweep the pairs, moving one
// to the left per step (O(1) with the incremental histograms) and scoring
// every admissible boundary between distinct values; finally turn the
// maximum into the criterion's final score and the winner's impurity into
// its impurity decrease.
//
// The range R needs buffered_pairs(), get_num_instances(), get_num_classes()
// and get_labeling(); the criterion is one of stats/criteria.h.
//
// The grower calls lighter forms of the same sweep (best_split_of_feature
// over sorted keys, best_split_of_cells over a histogram of packed keys):
// the same boundaries, scores and first maximum, without the tracker's other
// bookkeeping, and with a branch-free, division-free loop for Gini.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <vector>

#include "velmot/defs/labeling.h"
#include "velmot/defs/tracker.h"
#include "velmot/stats/criteria.h"
#include "velmot/stats/label_accumulator.h"

namespace Velmot {

// The threshold between two adjacent distinct sorted values: the midpoint
// for floating-point features (computed in the feature's own precision), the
// upper value for integer and byte features. Values below it go left.
template <class F>
struct ThresholdInfo {
  static F get_less_than_threshold(F lower, F upper) {
    if constexpr (std::is_floating_point<F>::value) {
      return (lower + upper) * static_cast<F>(0.5);
    } else {
      (void)lower;
      return upper;
    }
  }
};

// The class an instance is counted under: a real label's integer part.
template <class L>
inline int label_class(L label) {
  return static_cast<int>(label);
}

// Every sorted pair stands for itself alone.
struct UnitWeight {
  uint32_t operator()(size_t) const { return 1; }
};

namespace split_search_detail {

// The Gini sweeps keep their per-class scratch per thread between calls
// (they run once per node and feature), unless a huge class count made it
// larger than this many slots: then it is released after the call.
constexpr size_t kept_scratch_slots = 4096;

template <class T>
void release_if_large(std::vector<T>& scratch) {
  if (scratch.size() > kept_scratch_slots) std::vector<T>().swap(scratch);
}

// A scored boundary of the sweep: the sorted position just right of it (0
// stands for the seed) and the split's impurity.
struct Boundary {
  size_t position = 0;
  double impurity = 0.0;
};

// The sweep over n sorted pairs, whatever holds them: key_at(i) is the i-th
// sorted key (a value, or a rank standing for one: keys are equal exactly
// when values are), label_at(i) its label and weight_at(i) the number of
// equal pairs it stands for (UnitWeight: one each); total is the sum of the
// weights. `left` must be empty and `right` hold the node's counts; both
// end moved. Each admissible boundary
// is offered as offer(score, position, impurity_of) in sweep order, where
// impurity_of() computes the split's impurity from the current counts:
// a sink that only keeps the best computes it only for improvements.
// Templates rather than calls through pointers: these run once per pair and
// feature.
template <class L, class A, class Criterion, class KeyAt, class LabelAt, class WeightAt, class Offer>
void sweep_boundaries(size_t ni, size_t total, KeyAt key_at, LabelAt label_at, WeightAt weight_at, double initial,
                      const A& counts, A& left, A& right, const Criterion& criteria, Offer&& offer) {
  left.set_labeling(counts.get_labeling());
  left.set_num_classes(counts.get_num_classes());
  right = counts;
  auto move_left = [&](size_t i) {
    const int c = label_class(label_at(i));
    for (uint32_t copies = weight_at(i); copies > 0; --copies) {
      left.increment_count(c);
      right.decrement_count(c);
    }
  };
  move_left(0);
  if (!(total > 2 && key_at(0) != key_at(ni - 1))) return;
  L first_label = label_at(0);
  bool different_labels = false;
  auto previous = key_at(0);
  auto impurity_of = [&]() { return criteria.get_impurity(0.0, 0.0, left, right); };
  for (size_t i = 1; i < ni; ++i) {
    const auto key = key_at(i);
    const L label = label_at(i);
    if (!different_labels) different_labels = label != first_label;
    if (different_labels && previous != key) {
      offer(criteria(initial, left, right), i, impurity_of);
      different_labels = false;
      first_label = label;
    }
    move_left(i);
    previous = key;
  }
}

// The full search result of one feature (the tracker learn_tree_node
// returns): value_of(key) turns a key into its value.
template <class F, class L, class A, class Criterion, class KeyAt, class LabelAt, class ValueOf>
Tracker<NodeResult<F>, std::less<double>> sweep(size_t ni, KeyAt key_at, LabelAt label_at, ValueOf value_of,
                                                const A& counts, LabelingType labeling, size_t num_classes,
                                                int feature_index, const Criterion& criteria) {
  typedef NodeResult<F> Result;
  Tracker<Result, std::less<double>> tracker;
  if (ni == 0) return tracker;

  const double initial = criteria.get_initial(counts);
  const double node_impurity = criteria.get_impurity(counts);
  (void)labeling;
  (void)num_classes;
  A left_counts, right_counts;

  Tracker<Boundary, std::less<double>> boundaries;
  boundaries.try_candidate(criteria.get_initial_score(initial), Boundary{0, 0.0});
  sweep_boundaries<L>(ni, ni, key_at, label_at, UnitWeight(), initial, counts, left_counts, right_counts, criteria,
                      [&](double score, size_t position, auto impurity_of) {
                        boundaries.try_candidate(score, Boundary{position, impurity_of()});
                      });

  auto result_of = [&](const Boundary& b) {
    if (b.position == 0) return Result(feature_index, value_of(key_at(0)), 0.0);
    const F threshold =
        ThresholdInfo<F>::get_less_than_threshold(value_of(key_at(b.position - 1)), value_of(key_at(b.position)));
    return Result(feature_index, threshold, b.impurity);
  };
  tracker.try_candidate(boundaries.get_maximum(), result_of(boundaries.get_maximizer()));
  tracker.get_minimum() = boundaries.get_minimum();
  tracker.get_minimizer() = result_of(boundaries.get_minimizer());

  tracker.get_maximum() = criteria.get_final_score(tracker.get_maximum(), initial);
  tracker.get_minimum() = criteria.get_final_score(tracker.get_maximum(), initial);
  Result& best = tracker.get_maximizer();
  best.best_improvement = std::max(best.best_improvement - node_impurity, 0.0);
  Result& worst = tracker.get_minimizer();
  worst.best_improvement = std::max(worst.best_improvement - node_impurity, 0.0);
  tracker.set_num_ties(1);
  return tracker;
}

}  // namespace split_search_detail

// What the grower keeps of one feature's search: its final score and where
// its best split lies, as the two sorted keys around the boundary (the
// seed: both are the smallest key). Turning keys into a threshold costs
// value lookups (cache misses into a value table, for ranks), so it is done
// only for the feature that wins the node.
template <class Key>
struct FeatureSplit {
  double score = 0.0;
  double impurity = 0.0;  // of the split, before the node's is subtracted
  bool is_seed = true;
  Key lower{};
  Key upper{};
};

// The grower's sweep: the same maximum, first maximizer and impurity as
// learn_tree_node, without the tracker's other bookkeeping, over ni sorted
// elements that stand for total pairs (see sweep_boundaries). `left` and
// `right` are scratch accumulators, reused across calls; initial is
// criteria.get_initial(counts).
template <class L, class A, class Criterion, class KeyAt, class LabelAt, class WeightAt>
auto best_split_of_feature(size_t ni, size_t total, KeyAt key_at, LabelAt label_at, WeightAt weight_at,
                           const A& counts, double initial, A& left, A& right, const Criterion& criteria)
    -> FeatureSplit<decltype(key_at(0))> {
  double best_score = criteria.get_initial_score(initial);
  size_t best_position = 0;
  double best_impurity = 0.0;
  split_search_detail::sweep_boundaries<L>(ni, total, key_at, label_at, weight_at, initial, counts, left, right,
                                           criteria,
                                           [&](double score, size_t position, auto impurity_of) {
                                             if (best_score < score) {
                                               best_score = score;
                                               best_position = position;
                                               best_impurity = impurity_of();
                                             }
                                           });
  FeatureSplit<decltype(key_at(0))> split;
  split.score = criteria.get_final_score(best_score, initial);
  split.impurity = best_impurity;
  split.is_seed = best_position == 0;
  split.lower = key_at(split.is_seed ? 0 : best_position - 1);
  split.upper = key_at(best_position);
  return split;
}

// The same for the Gini criterion, which needs of each side only its total
// and sum of squared counts; the right side's follow from the left's: with
// N the node's counts and l the left's, sum (N - l)^2 = sum N^2 - 2 sum N l
// + sum l^2, and sum N l grows by N[c] when an instance of class c moves
// left (w N[c] for w pairs). One count per class is updated per element; the
// sums stay in locals.
//
// The loop has no data-dependent branch but a rare one: every boundary is
// first compared with the best as a fraction, (sqL nR + sqR nL) / (nL nR),
// by multiplication and with a margin of 1e-12 (far above the few ulps by
// which the rounded score can differ from the fraction), and only a
// boundary that may beat the best gets its score computed the
// accumulators' way, sqL / nL + sqR / nR in double, and compared exactly.
// So the maximum, its first position and every score are the generic
// sweep's to the bit.
template <class L, class A, class KeyAt, class LabelAt, class WeightAt>
auto best_split_of_feature(size_t ni, size_t total, KeyAt key_at, LabelAt label_at, WeightAt weight_at,
                           const A& counts, double initial, A& /*left*/, A& /*right*/,
                           const TwoSplitGiniImpurity& /*criteria*/) -> FeatureSplit<decltype(key_at(0))> {
  struct ClassCounts {
    int64_t left;
    int64_t node;
  };
  static thread_local std::vector<ClassCounts> class_counts;
  const size_t slots = counts.get_num_slots();
  class_counts.resize(slots);
  ClassCounts* const c = class_counts.data();
  for (size_t slot = 0; slot < slots; ++slot) c[slot] = ClassCounts{0, counts[static_cast<int>(slot)]};
  const int64_t node_squares = counts.get_sum_squared();
  const int64_t node_total = static_cast<int64_t>(counts.get_total_count());
  int64_t left_squares = 0, cross = 0, left_total = 0;
  // w pairs of a class with l on the left add (l + w)^2 - l^2 squares.
  auto move_left = [&](L label, int64_t w) {
    ClassCounts& k = c[static_cast<size_t>(label_class(label) + 1)];
    left_squares += w * (2 * k.left + w);
    cross += w * k.node;
    k.left += w;
    left_total += w;
  };
  auto gini = [](int64_t squares, int64_t total) {
    return total == 0 ? 0.0 : static_cast<double>(squares) / static_cast<double>(total);
  };

  // The unsplit node's score, initial = node_squares / node_total.
  double best_score = initial;
  double best_numerator = static_cast<double>(node_squares), best_denominator = static_cast<double>(node_total);
  size_t best_position = 0;
  constexpr double margin = 1.0 - 1e-12;
  move_left(label_at(0), weight_at(0));
  if (total > 2 && key_at(0) != key_at(ni - 1)) {
    L first_label = label_at(0);
    bool different_labels = false;
    auto previous = key_at(0);
    for (size_t i = 1; i < ni; ++i) {
      const auto key = key_at(i);
      const L label = label_at(i);
      different_labels |= label != first_label;
      const bool boundary = different_labels & (previous != key);
      const int64_t right_total = node_total - left_total;
      const int64_t right_squares = node_squares - 2 * cross + left_squares;
      const double numerator = static_cast<double>(left_squares) * static_cast<double>(right_total) +
                               static_cast<double>(right_squares) * static_cast<double>(left_total);
      const double denominator = static_cast<double>(left_total) * static_cast<double>(right_total);
      if (boundary & (numerator * best_denominator >= margin * best_numerator * denominator)) {
        const double score = gini(left_squares, left_total) + gini(right_squares, right_total);
        if (best_score < score) {
          best_score = score;
          best_position = i;
          best_numerator = numerator;
          best_denominator = denominator;
        }
      }
      first_label = boundary ? label : first_label;
      different_labels &= !boundary;
      move_left(label, weight_at(i));
      previous = key;
    }
  }
  split_search_detail::release_if_large(class_counts);
  FeatureSplit<decltype(key_at(0))> split;
  split.score = best_score - initial;
  split.is_seed = best_position == 0;
  // A split's Gini impurity is its score.
  split.impurity = split.is_seed ? 0.0 : best_score;
  split.lower = key_at(split.is_seed ? 0 : best_position - 1);
  split.upper = key_at(best_position);
  return split;
}

// The sweep over the range's buffered (value, label) pairs.
template <class RNG, class R, class A, class Criterion>
Tracker<NodeResult<typename R::feature_type>, std::less<double>> learn_tree_node(RNG& /*rng*/, R& data,
                                                                                  const A& counts,
                                                                                  int feature_index,
                                                                                  const Criterion& criteria) {
  typedef typename R::feature_type F;
  typedef typename R::label_type L;
  const size_t ni = data.get_num_instances();
  const typename R::pair_type* pairs = ni == 0 ? nullptr : data.buffered_pairs();
  return split_search_detail::sweep<F, L>(
      ni, [pairs](size_t i) { return pairs[i].first; }, [pairs](size_t i) { return pairs[i].second; },
      [](F value) { return value; }, counts, data.get_labeling(), data.get_num_classes(), feature_index, criteria);
}

// The same sweep over sorted ranks: rank[i] is the i-th smallest rank,
// label[i] its label, value_of_rank[rank[i]] its value.
template <class F, class L, class A, class Criterion>
Tracker<NodeResult<F>, std::less<double>> learn_tree_node_on_ranks(size_t ni, const uint32_t* rank, const L* label,
                                                                  const F* value_of_rank, const A& counts,
                                                                  LabelingType labeling, size_t num_classes,
                                                                  int feature_index, const Criterion& criteria) {
  return split_search_detail::sweep<F, L>(
      ni, [rank](size_t i) { return rank[i]; }, [label](size_t i) { return label[i]; },
      [value_of_rank](uint32_t r) { return value_of_rank[r]; }, counts, labeling, num_classes, feature_index,
      criteria);
}

// The sweep over a histogram of packed keys instead of the sorted keys
// themselves: cell k counts the pairs whose key is k (rank offset k >>
// label_bits, label (k & mask) - 1), cells in key order. A cell of c equal
// pairs acts as its first pair followed by c - 1 pairs that can neither
// open a boundary (same key) nor change the label-change flag (same label),
// so moving them left together offers the same boundaries with the same
// scores in the same order as the pair-by-pair sweep. Keys in the result
// are rank offsets, as with sorted packed keys.
//
// Sides is the bookkeeping of the two sides: move(slot, c) moves c pairs of
// a class left, score() and impurity() as the criterion gives them.
template <class L, class Sides>
FeatureSplit<uint32_t> sweep_cells(const uint32_t* cell, size_t num_cells, int label_bits, Sides& sides,
                                   double seed_score) {
  const uint32_t label_mask = (uint32_t(1) << label_bits) - 1;
  auto label_of = [label_mask](size_t k) { return static_cast<L>(static_cast<int64_t>(k & label_mask) - 1); };
  double best_score = seed_score, best_impurity = 0.0;
  uint32_t best_lower = 0, best_upper = 0;
  bool seed = true;
  size_t k = 0;
  while (cell[k] == 0) ++k;
  const uint32_t first_rank = static_cast<uint32_t>(k >> label_bits);
  sides.move(static_cast<size_t>(label_of(k) + 1), cell[k]);
  L first_label = label_of(k);
  bool different_labels = false;
  uint32_t previous_rank = first_rank;
  for (++k; k < num_cells; ++k) {
    if (cell[k] == 0) continue;
    const uint32_t rank = static_cast<uint32_t>(k >> label_bits);
    const L label = label_of(k);
    if (!different_labels) different_labels = label != first_label;
    if (different_labels && previous_rank != rank) {
      const double score = sides.score();
      if (best_score < score) {
        best_score = score;
        best_impurity = sides.impurity();
        best_lower = previous_rank;
        best_upper = rank;
        seed = false;
      }
      different_labels = false;
      first_label = label;
    }
    sides.move(static_cast<size_t>(label + 1), cell[k]);
    previous_rank = rank;
  }
  FeatureSplit<uint32_t> split;
  split.score = best_score;
  split.impurity = best_impurity;
  split.is_seed = seed;
  split.lower = seed ? first_rank : best_lower;
  split.upper = seed ? first_rank : best_upper;
  return split;
}

// Any criterion, through its accumulators (one count per pair moved).
template <class L, class A, class Criterion>
FeatureSplit<uint32_t> best_split_of_cells(const uint32_t* cell, size_t num_cells, int label_bits, const A& counts,
                                           double initial, A& left, A& right, const Criterion& criteria) {
  left.set_labeling(counts.get_labeling());
  left.set_num_classes(counts.get_num_classes());
  right = counts;
  struct Sides {
    A& left;
    A& right;
    const Criterion& criteria;
    double initial;
    void move(size_t slot, uint32_t c) {
      for (uint32_t j = 0; j < c; ++j) {
        left.increment_count(static_cast<int>(slot) - 1);
        right.decrement_count(static_cast<int>(slot) - 1);
      }
    }
    double score() const { return criteria(initial, left, right); }
    double impurity() const { return criteria.get_impurity(0.0, 0.0, left, right); }
  } sides{left, right, criteria, initial};
  FeatureSplit<uint32_t> split =
      sweep_cells<L>(cell, num_cells, label_bits, sides, criteria.get_initial_score(initial));
  split.score = criteria.get_final_score(split.score, initial);
  return split;
}

// Gini: the sums of the pair-by-pair Gini sweep, moved a cell at a time
// (c pairs of a class with l on the left add 2 c l + c^2 squares).
template <class L, class A>
FeatureSplit<uint32_t> best_split_of_cells(const uint32_t* cell, size_t num_cells, int label_bits, const A& counts,
                                           double initial, A& /*left*/, A& /*right*/,
                                           const TwoSplitGiniImpurity& /*criteria*/) {
  static thread_local std::vector<int64_t> left_counts;
  left_counts.assign(counts.get_num_slots(), 0);
  struct Sides {
    const A& node;
    int64_t* left;
    int64_t node_squares, node_total;
    int64_t left_squares = 0, cross = 0, left_total = 0;
    void move(size_t slot, uint32_t c) {
      const int64_t moved = c;
      left_squares += 2 * moved * left[slot] + moved * moved;
      cross += moved * node[static_cast<int>(slot)];
      left[slot] += moved;
      left_total += moved;
    }
    static double gini(int64_t squares, int64_t total) {
      return total == 0 ? 0.0 : static_cast<double>(squares) / static_cast<double>(total);
    }
    double score() const {
      return gini(left_squares, left_total) + gini(node_squares - 2 * cross + left_squares, node_total - left_total);
    }
    double impurity() const { return score(); }
  } sides{counts, left_counts.data(), counts.get_sum_squared(), static_cast<int64_t>(counts.get_total_count())};
  FeatureSplit<uint32_t> split = sweep_cells<L>(cell, num_cells, label_bits, sides, initial);
  split_search_detail::release_if_large(left_counts);
  split.score -= initial;
  return split;
}

}  // namespace Velmot

#endif
