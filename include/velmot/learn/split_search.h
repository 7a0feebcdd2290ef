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

#include <algorithm>
#include <cstdint>
#include <functional>
#include <type_traits>

#include "velmot/defs/labeling.h"
#include "velmot/defs/tracker.h"
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

namespace split_search_detail {

// A scored boundary of the sweep: the sorted position just right of it (0
// stands for the seed) and the split's impurity.
struct Boundary {
  size_t position = 0;
  double impurity = 0.0;
};

// The sweep over n sorted pairs, whatever holds them: key_at(i) is the i-th
// sorted key (a value, or a rank standing for one: keys are equal exactly
// when values are), label_at(i) its label, and value_of(key) the value of a
// key. Templates rather than calls through pointers: these run once per
// pair and feature.
//
// The sweep tracks boundaries by position and makes thresholds only for the
// two it keeps: on ranks, reading two values per improvement cost 13% of the
// learner's samples (a cache miss into the value table each time) on
// 100,000 x 40 doubles. Offering the same scores in the same order to a
// tracker of positions keeps the same winners.
template <class F, class L, class A, class Criterion, class KeyAt, class LabelAt, class ValueOf>
Tracker<NodeResult<F>, std::less<double>> sweep(size_t ni, KeyAt key_at, LabelAt label_at, ValueOf value_of,
                                                const A& counts, LabelingType labeling, size_t num_classes,
                                                int feature_index, const Criterion& criteria) {
  typedef NodeResult<F> Result;
  Tracker<Result, std::less<double>> tracker;
  if (ni == 0) return tracker;

  const double initial = criteria.get_initial(counts);
  const double node_impurity = criteria.get_impurity(counts);
  A left_counts;
  left_counts.set_labeling(labeling);
  left_counts.set_num_classes(static_cast<int>(num_classes));
  A right_counts(counts);

  Tracker<Boundary, std::less<double>> boundaries;
  boundaries.try_candidate(criteria.get_initial_score(initial), Boundary{0, 0.0});
  left_counts.increment_count(label_class(label_at(0)));
  right_counts.decrement_count(label_class(label_at(0)));

  L first_label = label_at(0);
  bool different_labels = false;
  if (ni > 2 && key_at(0) != key_at(ni - 1)) {
    auto previous = key_at(0);
    for (size_t i = 1; i < ni; ++i) {
      const auto key = key_at(i);
      const L label = label_at(i);
      if (!different_labels) different_labels = label != first_label;
      if (different_labels && previous != key) {
        const double score = criteria(initial, left_counts, right_counts);
        const double impurity = criteria.get_impurity(0.0, 0.0, left_counts, right_counts);
        boundaries.try_candidate(score, Boundary{i, impurity});
        different_labels = false;
        first_label = label;
      }
      left_counts.increment_count(label_class(label));
      right_counts.decrement_count(label_class(label));
      previous = key;
    }
  }

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

}  // namespace Velmot

#endif
