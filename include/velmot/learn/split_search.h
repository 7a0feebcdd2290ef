#ifndef VELMOT_LEARN_SPLIT_SEARCH_H
#define VELMOT_LEARN_SPLIT_SEARCH_H

// learn_tree_node: the best threshold of one feature at one node, as a
// tracker of candidate splits, from the range's buffered pairs sorted by
// value. The sweep itself, its glossary and its label-change rule are in
// learn/sweep.h; here every admissible boundary is offered to a tracker,
// which keeps the first maximum (and the minimum), and the result is
// finished the criterion's way:
//   1. an empty range returns an empty tracker;
//   2. the seed (threshold x[0], improvement 0) scores
//      criteria.get_initial_score(S_init);
//   3. the sweep offers each admissible boundary with its score and the
//      split's impurity; its threshold lies between the values around it;
//   4. the maximum becomes criteria.get_final_score(maximum, S_init), and
//      so does the minimum (from the finished maximum: no caller reads it);
//      each kept split's impurity becomes its decrease from the node's,
//      clamped at 0.
//
// The range R needs buffered_pairs(), get_num_instances(); the criterion is
// one of stats/criteria.h. The grower sweeps with learn/sweep.h's
// best_split instead, which keeps only the maximum.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <type_traits>

#include "velmot/dataset/sorted_feature.h"
#include "velmot/defs/tracker.h"
#include "velmot/learn/sweep.h"
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

namespace split_search_detail {

// A scored boundary: the values around it (the seed: both are x[0]) and the
// split's impurity.
template <class F>
struct Boundary {
  bool is_seed = true;
  F lower{};
  F upper{};
  double impurity = 0.0;
};

// Sides that offer every admissible boundary to a tracker.
template <class F, class A, class Criterion>
class TrackerSides {
public:
  TrackerSides(size_t ni, const A& counts, double initial, const Criterion& criteria, F first_value)
      : ni(ni), criteria(criteria), initial(initial) {
    left.set_labeling(counts.get_labeling());
    left.set_num_classes(counts.get_num_classes());
    right = counts;
    Boundary<F> seed;
    seed.lower = seed.upper = first_value;
    boundaries.try_candidate(criteria.get_initial_score(initial), seed);
  }

  size_t total() const { return ni; }
  // A range of two is never split; every boundary's sides are admitted.
  bool splittable() const { return ni > 2; }
  bool within_limit() const { return true; }
  template <class L>
  void move(L label, uint32_t copies) {
    const int c = label_class(label);
    for (; copies > 0; --copies) {
      left.increment_count(c);
      right.decrement_count(c);
    }
  }
  bool offer(bool admissible, F lower, F upper) {
    if (!admissible) return false;
    Boundary<F> boundary;
    boundary.is_seed = false;
    boundary.lower = lower;
    boundary.upper = upper;
    boundary.impurity = criteria.get_impurity(0.0, 0.0, left, right);
    boundaries.try_candidate(criteria(initial, left, right), boundary);
    return false;
  }

  Tracker<Boundary<F>, std::less<double>> boundaries;

private:
  size_t ni;
  const Criterion& criteria;
  double initial;
  A left, right;
};

}  // namespace split_search_detail

template <class RNG, class R, class A, class Criterion>
Tracker<NodeResult<typename R::feature_type>, std::less<double>> learn_tree_node(RNG& /*rng*/, R& data, const A& counts,
                                                                                 int feature_index,
                                                                                 const Criterion& criteria) {
  typedef typename R::feature_type F;
  typedef typename R::label_type L;
  typedef NodeResult<F> Result;
  Tracker<Result, std::less<double>> tracker;
  const size_t ni = data.get_num_instances();
  if (ni == 0) return tracker;

  const typename R::pair_type* pairs = data.buffered_pairs();
  const double initial = criteria.get_initial(counts);
  const double node_impurity = criteria.get_impurity(counts);
  split_search_detail::TrackerSides<F, A, Criterion> sides(ni, counts, initial, criteria, pairs[0].first);
  sweep(sorted_keys<L>(
            ni, [pairs](size_t i) { return pairs[i].first; }, [pairs](size_t i) { return pairs[i].second; },
            UnitWeight()),
        sides);

  const auto& boundaries = sides.boundaries;
  auto result_of = [feature_index](const split_search_detail::Boundary<F>& b) {
    if (b.is_seed) return Result(feature_index, b.lower, 0.0);
    return Result(feature_index, ThresholdInfo<F>::get_less_than_threshold(b.lower, b.upper), b.impurity);
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

}  // namespace Velmot

#endif
