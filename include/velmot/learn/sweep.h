#ifndef VELMOT_LEARN_SWEEP_H
#define VELMOT_LEARN_SWEEP_H

// The split sweep: the best boundary of one feature at one node.
//
// Glossary:
//   element   one entry of the node's sorted (key, label) pairs of the
//             feature, standing for `weight` equal pairs (the input's shapes
//             are in dataset/sorted_feature.h: sorted keys or counted cells);
//   sides     the label statistics of the pairs left and right of the
//             boundary; every pair starts on the right;
//   boundary  the gap between two adjacent elements; splitting there sends
//             everything before it left;
//   seed      the unsplit node, the best until a boundary scores higher;
//   label-change rule  a boundary is scored only between two distinct keys,
//             and only once an element of another label than the one that
//             opened the current run has been met since the last scored
//             boundary (the flag stays set across equal keys): boundaries
//             inside a run of one label are skipped. This is the only
//             pruning; it changes results only through which of several
//             equally good boundaries is found first.
//
// Steps: move the first element left. If the sides call the node
// splittable (under the library's rule, more than two pairs: a node of two
// is never split) and its first and last keys differ (a constant feature
// keeps the seed), then for every later element in order: update the flag
// with its label; if the boundary before it is admissible (and the leaf
// limit admits its sides' sizes), offer it to the sides (which score it and
// say whether it beats the best so far), and restart the run from its
// label; move it left.
//
// Sides offer move(label, weight), total() (the node's pairs), splittable(),
// within_limit() (whether the pairs moved so far and the rest both meet the
// leaf limit, learn/growth_limits.h) and offer(admissible, lower_key,
// upper_key) -> whether the boundary is the new best; the keys are those of
// the elements around the boundary. Sides whose criterion has no label runs
// (squared error over real labels) declare scores_every_boundary = true:
// every boundary between distinct keys is then admissible. Written
// once, as a template over the input and the sides: it runs once per
// element and feature, so nothing in it goes through a pointer. The rule is
// branch-free (flags as bits) so that the Gini sides, which prefilter every
// boundary by multiplication, run without a data-dependent branch.

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "velmot/learn/growth_limits.h"
#include "velmot/stats/criteria.h"
#include "velmot/stats/label_accumulator.h"

namespace Velmot {

// The class a pair is counted under: a real label's integer part.
template <class L>
inline int label_class(L label) {
  return static_cast<int>(label);
}

// Where the sweep's best boundary lies: the keys of the elements around it
// (the seed: both are the first key).
template <class Key>
struct SweepResult {
  bool is_seed = true;
  Key lower{};
  Key upper{};
};

// Whether Sides turn the label-change rule off (see above).
template <class Sides, class = void>
struct scores_every_boundary : std::false_type {};
template <class Sides>
struct scores_every_boundary<Sides, std::void_t<decltype(Sides::scores_every_boundary)>>
    : std::integral_constant<bool, Sides::scores_every_boundary> {};

// The sweep's state between elements: the key before the next boundary,
// the label that opened the current run, and whether another label was met
// since the last scored boundary. start() takes the first element; step()
// takes each later one: scores the boundary before it if the rule admits
// it, then moves it left.
template <class Key, class L, bool every_boundary>
struct SweepRun {
  Key previous;
  L run_label;
  bool new_label = false;

  template <class Sides>
  [[gnu::always_inline]] void start(Sides& sides, const Key& key, const L& label, uint32_t weight) {
    previous = key;
    run_label = label;
    new_label = false;
    sides.move(label, weight);
  }
  template <class Sides>
  [[gnu::always_inline]] void step(Sides& sides, SweepResult<Key>& result, const Key& key, const L& label,
                                   uint32_t weight) {
    if constexpr (every_boundary) {
      new_label = true;
    } else {
      new_label |= label != run_label;
    }
    const bool admissible = new_label & (previous != key) & sides.within_limit();
    if (sides.offer(admissible, previous, key)) {
      result.is_seed = false;
      result.lower = previous;
      result.upper = key;
    }
    if constexpr (!every_boundary) run_label = admissible ? label : run_label;
    new_label &= !admissible;
    sides.move(label, weight);
    previous = key;
  }
};

// Always inlined into its caller, where the sides are a local object: the
// loop then keeps their sums in registers. Called out of line, it reaches
// them through a pointer and reloads them after every store of a class
// count: 30 trees on one thread, 100,000 x 40 doubles and bytes, took 4%
// and 6% more CPU time than sums in locals (medians of five alternating
// runs); inlined, it runs within 1% of their instruction count.
template <class Input, class Sides>
[[gnu::always_inline]] inline SweepResult<typename Input::key_type> sweep(const Input& input, Sides& sides) {
  typedef typename Input::key_type Key;
  typedef typename Input::label_type L;
  SweepResult<Key> result;
  const auto first = input.first();
  result.lower = result.upper = first.key;
  SweepRun<Key, L, scores_every_boundary<Sides>::value> run;
  run.start(sides, first.key, first.label, first.weight);
  if (!(sides.splittable() && input.first_key() != input.last_key())) return result;
  input.for_each_after_first(
      [&](const Key& key, const L& label, uint32_t weight) { run.step(sides, result, key, label, weight); });
  return result;
}

// Sides kept by two accumulators and scored by any criterion.
template <class A, class Criterion>
class CriterionSides {
public:
  // left and right are scratch, reused across calls; initial is
  // criteria.get_initial(counts).
  CriterionSides(const A& counts, double initial, A& left, A& right, const Criterion& criteria, LeafLimit limit)
      : left(left),
        right(right),
        criteria(criteria),
        initial(initial),
        pairs(counts.get_total_count()),
        limit(limit),
        best(criteria.get_initial_score(initial)) {
    left.set_labeling(counts.get_labeling());
    left.set_num_classes(counts.get_num_classes());
    right = counts;
  }

  size_t total() const { return pairs; }
  bool splittable() const { return limit.splittable(static_cast<int64_t>(pairs)); }
  bool within_limit() const {
    return limit.admits(static_cast<int64_t>(left.get_total_count()), static_cast<int64_t>(pairs));
  }
  template <class L>
  [[gnu::always_inline]] void move(L label, uint32_t copies) {
    const int c = label_class(label);
    for (; copies > 0; --copies) {
      left.increment_count(c);
      right.decrement_count(c);
    }
  }
  template <class Key>
  [[gnu::always_inline]] bool offer(bool admissible, const Key&, const Key&) {
    if (!admissible) return false;
    const double score = criteria(initial, left, right);
    if (!(best < score)) return false;
    best = score;
    best_impurity = criteria.get_impurity(0.0, 0.0, left, right);
    return true;
  }

  // What the split search reports as the feature's score.
  double final_score() const { return criteria.get_final_score(best, initial); }
  // The best split's impurity (0 for the seed), before the node's is
  // subtracted.
  double impurity() const { return best_impurity; }

private:
  A& left;
  A& right;
  const Criterion& criteria;
  double initial;
  size_t pairs;
  LeafLimit limit;
  double best;
  double best_impurity = 0.0;
};

// Sides for the Gini criterion, which needs of each side only its total and
// sum of squared counts; the right side's follow from the left's: with N
// the node's counts and l the left's, sum (N - l)^2 = sum N^2 - 2 sum N l +
// sum l^2, and sum N l grows by w N[c] when w pairs of class c move left.
// One count per class is updated per element; the sums stay in locals.
//
// Every admissible boundary is first compared with the best as a fraction,
// (sqL nR + sqR nL) / (nL nR), by multiplication and with a margin of 1e-12
// (far above the few ulps by which the rounded score can differ from the
// fraction), and only a boundary that may beat the best gets its score
// computed the accumulators' way, sqL / nL + sqR / nR in double, and
// compared exactly. So the maximum, its first position and every score are
// CriterionSides' with TwoSplitGiniImpurity to the bit.
//
// Sum is what the counts and sums are kept in: int64_t always works;
// double, for nodes of fewer than 2^26 pairs (below exact_sum_limit),
// holds every count, square and cross sum exactly (all stay below 2^53), so
// the fraction and the score come out the same while the sweep saves four
// integer-to-double conversions per element. With limited false the leaf
// limit admits every boundary the sweep visits (a limit of at most one
// pair per side: each side of a visited boundary holds an element).
template <class A, class Sum = int64_t, bool limited = true>
class GiniSides {
public:
  static constexpr int64_t exact_sum_limit = int64_t(1) << 26;

  GiniSides(const A& counts, double initial, LeafLimit limit)
      : class_counts(scratch()),
        limit(limit),
        initial(initial),
        node_squares(static_cast<Sum>(counts.get_sum_squared())),
        node_total(static_cast<Sum>(counts.get_total_count())),
        best(initial),
        best_numerator(static_cast<double>(node_squares)),
        best_denominator(static_cast<double>(node_total)),
        best_bound(margin * best_numerator) {
    const size_t slots = counts.get_num_slots();
    class_counts.resize(slots);
    for (size_t slot = 0; slot < slots; ++slot) {
      class_counts[slot] = ClassCounts{0, static_cast<Sum>(counts[static_cast<int>(slot)])};
    }
  }
  GiniSides(const GiniSides&) = delete;
  GiniSides& operator=(const GiniSides&) = delete;
  // The per-class scratch stays with the thread between calls (they run
  // once per node and feature), unless a huge class count made it large.
  ~GiniSides() {
    if (class_counts.size() > kept_scratch_slots) std::vector<ClassCounts>().swap(class_counts);
  }

  size_t total() const { return static_cast<size_t>(node_total); }
  bool splittable() const { return limit.splittable(static_cast<int64_t>(node_total)); }
  bool within_limit() const {
    return !limited || limit.admits(static_cast<int64_t>(left_total), static_cast<int64_t>(node_total));
  }
  // move and offer run once per element: forced inline, since a grower
  // with many instantiations of the search may otherwise call them out of
  // line (15% more time on W1).
  // w pairs of a class with l on the left add (l + w)^2 - l^2 squares.
  template <class L>
  [[gnu::always_inline]] void move(L label, uint32_t copies) {
    ClassCounts& k = class_counts[static_cast<size_t>(label_class(label) + 1)];
    const Sum w = static_cast<Sum>(copies);
    left_squares += w * (2 * k.left + w);
    cross += w * k.node;
    k.left += w;
    left_total += w;
  }
  template <class Key>
  [[gnu::always_inline]] bool offer(bool admissible, const Key&, const Key&) {
    const Sum right_total = node_total - left_total;
    const Sum right_squares = node_squares - 2 * cross + left_squares;
    const double numerator = static_cast<double>(left_squares) * static_cast<double>(right_total) +
                             static_cast<double>(right_squares) * static_cast<double>(left_total);
    const double denominator = static_cast<double>(left_total) * static_cast<double>(right_total);
    if (!(admissible & (numerator * best_denominator >= best_bound * denominator))) return false;
    const double score = gini(left_squares, left_total) + gini(right_squares, right_total);
    if (!(best < score)) return false;
    best = score;
    best_numerator = numerator;
    best_denominator = denominator;
    best_bound = margin * best_numerator;
    improved = true;
    return true;
  }

  // Restarts the sweep at a boundary whose left side holds left[slot]
  // pairs of each label slot, with the sums the moves there would have
  // made (exact in Sum).
  void restart(const double* left) {
    left_squares = cross = left_total = 0;
    for (size_t slot = 0; slot < class_counts.size(); ++slot) {
      ClassCounts& k = class_counts[slot];
      k.left = static_cast<Sum>(left[slot]);
      left_squares += k.left * k.left;
      cross += k.left * k.node;
      left_total += k.left;
    }
  }

  double final_score() const { return best - initial; }
  // A split's Gini impurity is its score.
  double impurity() const { return improved ? best : 0.0; }

private:
  struct ClassCounts {
    Sum left;
    Sum node;
  };
  static constexpr double margin = 1.0 - 1e-12;
  static constexpr size_t kept_scratch_slots = 4096;
  static std::vector<ClassCounts>& scratch() {
    static thread_local std::vector<ClassCounts> counts;
    return counts;
  }
  static double gini(Sum squares, Sum total) {
    return total == 0 ? 0.0 : static_cast<double>(squares) / static_cast<double>(total);
  }

  std::vector<ClassCounts>& class_counts;
  LeafLimit limit;
  double initial;
  Sum node_squares, node_total;
  Sum left_squares = 0, cross = 0, left_total = 0;
  double best, best_numerator, best_denominator;
  // margin * best_numerator, the prefilter's side of the best.
  double best_bound;
  bool improved = false;
};

// One feature's best split as the grower keeps it: the final score, the
// split's impurity (before the node's is subtracted; 0 for the seed) and
// where it lies.
template <class Key>
struct FeatureSplit {
  double score = 0.0;
  double impurity = 0.0;
  SweepResult<Key> where;
};

template <class Input, class Sides>
[[gnu::always_inline]] inline FeatureSplit<typename Input::key_type> sweep_with(const Input& input, Sides& sides) {
  FeatureSplit<typename Input::key_type> split;
  split.where = sweep(input, sides);
  split.score = sides.final_score();
  split.impurity = sides.impurity();
  return split;
}

// The best split of a sorted input under any criterion and leaf limit; left
// and right are scratch accumulators, initial is criteria.get_initial(counts).
template <class Input, class A, class Criterion>
FeatureSplit<typename Input::key_type> best_split(const Input& input, const A& counts, double initial, A& left,
                                                  A& right, const Criterion& criteria, LeafLimit limit) {
  CriterionSides<A, Criterion> sides(counts, initial, left, right, criteria, limit);
  return sweep_with(input, sides);
}

// The same for Gini, through its sums.
template <class Input, class A>
FeatureSplit<typename Input::key_type> best_split(const Input& input, const A& counts, double initial, A& /*left*/,
                                                  A& /*right*/, const TwoSplitGiniImpurity& /*criteria*/,
                                                  LeafLimit limit) {
  typedef GiniSides<A> Exact;
  if (static_cast<int64_t>(counts.get_total_count()) < Exact::exact_sum_limit) {
    if (limit.min_side <= 1) {
      GiniSides<A, double, false> sides(counts, initial, limit);
      return sweep_with(input, sides);
    }
    GiniSides<A, double> sides(counts, initial, limit);
    return sweep_with(input, sides);
  }
  Exact sides(counts, initial, limit);
  return sweep_with(input, sides);
}

}  // namespace Velmot

#endif
