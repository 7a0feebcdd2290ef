#ifndef VELMOT_LEARN_NODE_LABELS_H
#define VELMOT_LEARN_NODE_LABELS_H

// NodeLabels<Criterion>: what a node's labels are to the tree grower
// (learn/learn_tree.h), chosen by the criterion: class counts for the
// classification criteria, squared-error sums for SquaredError. The grower
// is written once over this interface:
//   count(range)            the node's statistics over its range (weights
//                           counted), empty for an empty range (squared
//                           error: also each position's centred terms, which
//                           the sweeps over distinct ranks add);
//   statistics()            those statistics, for the node observers
//                           (learn/node_statistics.h);
//   total()                 the node's instances, repeats included;
//   is_pure()               no split can help: the node becomes a leaf;
//   leaf_value(random)      a leaf's label (classes: the most frequent,
//                           ties broken at random; squared error: the mean,
//                           no draw);
//   begin_search(criteria)  once per node, before its features' sweeps;
//   best_split(input, criteria, limit)  one feature's FeatureSplit under a
//                           leaf limit (learn/sweep.h);
//   improvement(impurity, criteria)  the winner's decrease, at least 0;
//   importance_credit(g, n)  what a split of improvement g over n instances
//                           adds to its feature's importance;
//   exact_labels            whether the sort must keep real labels exact
//                           (squared error), or may take their classes;
//   all_features_search_ends  whether the all-features mode stops once
//                           every feature was tried (squared error), or
//                           tries a constant feature again and again (the
//                           classifier's deliberate endless search).

#include <algorithm>
#include <cstddef>
#include <vector>

#include "velmot/dataset/sorted_feature.h"
#include "velmot/learn/growth_limits.h"
#include "velmot/learn/squared_error_sides.h"
#include "velmot/learn/sweep.h"
#include "velmot/stats/criteria.h"
#include "velmot/stats/label_accumulator.h"
#include "velmot/stats/squared_error.h"

namespace Velmot {

template <class Criterion>
class NodeLabels {
public:
  typedef int leaf_type;
  static constexpr bool exact_labels = false;
  static constexpr bool all_features_search_ends = false;

  template <class R>
  void count(const R& range) {
    counts.set_labeling(range.get_labeling());
    counts.set_num_classes(static_cast<int>(range.get_num_classes()));
    counts.add_weighted_count(range);
  }
  const NominalLabelPriorAccumulator<int>& statistics() const { return counts; }
  size_t total() const { return counts.get_total_count(); }
  bool is_pure() const { return static_cast<size_t>(counts.get_mode().second) == counts.get_total_count(); }
  template <class RNG>
  int leaf_value(RNG& random) const {
    return counts.get_prediction(random).first;
  }
  void begin_search(const Criterion& criteria) { initial = criteria.get_initial(counts); }
  // criteria.get_initial of the node's counts, once begin_search ran.
  double initial_score() const { return initial; }
  template <class Input>
  FeatureSplit<typename Input::key_type> best_split(const Input& input, const Criterion& criteria, LeafLimit limit) {
    return Velmot::best_split(input, counts, initial, left, right, criteria, limit);
  }
  double improvement(double split_impurity, const Criterion& criteria) const {
    return std::max(split_impurity - criteria.get_impurity(counts), 0.0);
  }
  static double importance_credit(double g, size_t n) { return g * static_cast<double>(n); }

private:
  NominalLabelPriorAccumulator<int> counts;
  NominalLabelPriorAccumulator<int> left, right;
  double initial = 0.0;
};

template <>
class NodeLabels<SquaredError> {
public:
  typedef double leaf_type;
  static constexpr bool exact_labels = true;
  static constexpr bool all_features_search_ends = true;

  template <class R>
  void count(const R& range) {
    if (terms.size() < range.get_num_instances()) terms.resize(range.get_num_instances());
    CentredTerm* term = terms.data();
    stats.count(range, [term](size_t i, double copies, double centred) { term[i] = {copies, centred}; });
  }
  const SquaredErrorStatistics& statistics() const { return stats; }
  size_t total() const { return stats.total(); }
  bool is_pure() const { return stats.is_constant(); }
  template <class RNG>
  double leaf_value(RNG&) const {
    return stats.mean();
  }
  void begin_search(const SquaredError&) {}
  template <class Input>
  FeatureSplit<typename Input::key_type> best_split(const Input& input, const SquaredError&, LeafLimit limit) {
    constexpr bool distinct = has_distinct_keys<Input>::value;
    if (limit.min_side <= 1) {
      if constexpr (has_positions<Input>::value) {
        const CentredTerm* term = terms.data();
        SquaredErrorSides<false, true> sides(stats, limit);
        return sweep_with(input.through_positions([term](uint32_t position) { return term[position]; }), sides);
      }
      SquaredErrorSides<false, distinct> sides(stats, limit);
      return sweep_with(input, sides);
    }
    SquaredErrorSides<true, distinct> sides(stats, limit);
    return sweep_with(input, sides);
  }
  double improvement(double decrease, const SquaredError&) const { return std::max(decrease, 0.0); }
  // The decrease is already a total over the node's instances.
  static double importance_credit(double g, size_t) { return g; }

private:
  SquaredErrorStatistics stats;
  // Each position's terms, for the sweeps over distinct ranks.
  std::vector<CentredTerm> terms;
};

}  // namespace Velmot

#endif
