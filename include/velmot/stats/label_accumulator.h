#ifndef VELMOT_STATS_LABEL_ACCUMULATOR_H
#define VELMOT_STATS_LABEL_ACCUMULATOR_H

// NominalLabelPriorAccumulator: the label histogram of a set of instances.
//
// Glossary: slot c + 1 holds the count of label c, so slot 0 is label -1
// (used by PlusOneMinusOne) and the vector has num_classes + 2 slots.
// sum_squared is the sum over slots of count^2, kept incrementally so that
// moving one instance between the two sides of a split costs O(1).
//
// Real labels are counted under their integer parts: the regression learners
// grow exactly the trees classification would grow over truncated labels.
// Labels outside [-1, num_classes] are not checked here; the learners check
// them before any tree is grown.

#include <cmath>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmot/defs/labeling.h"
#include "velmot/defs/random.h"
#include "velmot/defs/tracker.h"

namespace Velmot {

// LabelT is the type of the labels handed to increment_count and reported by
// get_mode and get_prediction (always int in this system).
template <class LabelT = int>
class NominalLabelPriorAccumulator {
public:
  typedef std::pair<LabelT, int64_t> prediction_type;

  NominalLabelPriorAccumulator() : counts(2, 0) {}

  void set_labeling(LabelingType labeling) { ltype = labeling; }
  LabelingType get_labeling() const { return ltype; }

  // A negative n is taken as 0: an empty histogram of two slots.
  void set_num_classes(int n) {
    counts.assign(static_cast<size_t>(n < 0 ? 0 : n) + 2, 0);
    total_count = 0;
    sum_squared = 0;
  }
  int get_num_classes() const { return static_cast<int>(counts.size()) - 2; }
  size_t get_num_instances() const { return total_count; }
  size_t get_total_count() const { return total_count; }
  int64_t get_sum_squared() const { return sum_squared; }
  int64_t operator[](int slot) const { return counts[static_cast<size_t>(slot)]; }
  size_t get_num_slots() const { return counts.size(); }

  // (k+1)^2 - k^2 = 2k + 1: no multiplication per move.
  void increment_count(LabelT label) {
    int64_t& k = counts[static_cast<size_t>(label + 1)];
    sum_squared += 2 * k + 1;
    ++k;
    ++total_count;
  }
  void decrement_count(LabelT label) {
    int64_t& k = counts[static_cast<size_t>(label + 1)];
    --k;
    sum_squared -= 2 * k + 1;
    --total_count;
  }

  // Counts every label of a range view; the slot is label + 1 computed in the
  // label's own type and truncated (real labels must exceed -1).
  template <class Range>
  void add_count(const Range& range) {
    add_counts(range, [](size_t) { return uint32_t(1); });
  }

  // The same where each of the range's positions stands for get_weight(i)
  // instances.
  template <class Range>
  void add_weighted_count(const Range& range) {
    add_counts(range, [&range](size_t i) { return range.get_weight(i); });
  }

  // The most frequent label; the lowest label wins a tie.
  prediction_type get_mode() const {
    Tracker<LabelT, std::less<double>> best;
    for (size_t slot = first_slot(); slot < counts.size(); ++slot) {
      best.try_candidate(static_cast<double>(counts[slot]), static_cast<LabelT>(slot) - 1);
    }
    return prediction_type(best.get_maximizer(), static_cast<int64_t>(best.get_maximum()));
  }

  // The most frequent label with ties broken at random: every slot is
  // visited, empty ones included, and each tie with the running maximum
  // costs one draw.
  template <class RNG>
  prediction_type get_prediction(RNG& rng) const {
    Tracker<LabelT, std::less<double>> best;
    for (size_t slot = first_slot(); slot < counts.size(); ++slot) {
      best.try_candidate_break_ties(static_cast<double>(counts[slot]), static_cast<LabelT>(slot) - 1, rng);
    }
    return prediction_type(best.get_maximizer(), static_cast<int64_t>(best.get_maximum()));
  }

  // Sum of squared counts over the total: n times the sum of squared class
  // shares (not 1 minus it). The criteria are built on exactly this value.
  double compute_gini_impurity() const {
    if (total_count == 0) return 0.0;
    return static_cast<double>(sum_squared) / static_cast<double>(total_count);
  }

  bool is_homogeneous() const {
    for (const int64_t k : counts) {
      if (k != 0) return static_cast<size_t>(k) == total_count;
    }
    return true;
  }
  double get_relative_frequency(int label) const {
    if (total_count == 0) return 0.0;
    return static_cast<double>(counts[static_cast<size_t>(label + 1)]) / static_cast<double>(total_count);
  }

private:
  template <class Range, class WeightOf>
  void add_counts(const Range& range, WeightOf weight_of) {
    typedef typename Range::label_type L;
    const size_t n = range.get_num_instances();
    for (size_t i = 0; i < n; ++i) {
      const L shifted = range.get_label(i) + static_cast<L>(1);
      const uint32_t weight = weight_of(i);
      counts[static_cast<size_t>(static_cast<uint64_t>(shifted))] += weight;
      total_count += weight;
    }
    sum_squared = 0;
    for (const int64_t k : counts) sum_squared += k * k;
  }

  size_t first_slot() const { return ltype == DiscreteZeroOnward ? 1 : 0; }

  std::vector<int64_t> counts;
  size_t total_count = 0;
  LabelingType ltype = DiscreteZeroOnward;
  int64_t sum_squared = 0;
};

// Whether a label can be counted: an integer label in [-1, num_classes], a
// real one in (-1, num_classes + 1), so that both ways of finding its slot
// (add_count's and the split search's) stay inside the histogram.
template <class L>
bool label_fits_histogram(L label, size_t num_classes) {
  if constexpr (std::is_integral<L>::value) {
    return static_cast<int64_t>(label) >= -1 && static_cast<int64_t>(label) <= static_cast<int64_t>(num_classes);
  } else {
    return label > static_cast<L>(-1) && static_cast<double>(label) < static_cast<double>(num_classes) + 1.0;
  }
}

// log2 that maps 0 to 0, so an empty class contributes nothing.
inline double special_log2(double x) { return x == 0.0 ? 0.0 : std::log2(x); }

// Negation that never yields -0.
inline double special_negate(double x) { return x == 0.0 ? 0.0 : -x; }

// Entropy in bits of two counts; the denominator is a + b.
inline double compute_2class_entropy(int a, int b) {
  if (a == 0 || b == 0) return 0.0;
  const double n = static_cast<double>(a + b);
  const double p = a / n;
  const double q = b / n;
  return special_negate(p * special_log2(p) + q * special_log2(q));
}

// Entropy in bits of a histogram. A Regression histogram has none (0).
template <class LabelT>
double compute_entropy(const NominalLabelPriorAccumulator<LabelT>& acc) {
  const double total = static_cast<double>(acc.get_total_count());
  if (total == 0.0) return 0.0;
  switch (acc.get_labeling()) {
    case PlusOneMinusOne:
      return compute_2class_entropy(static_cast<int>(acc[0]), static_cast<int>(acc[2]));
    case DiscreteZeroOnward: {
      const int num_classes = acc.get_num_classes();
      if (num_classes == 2) return compute_2class_entropy(static_cast<int>(acc[1]), static_cast<int>(acc[2]));
      if (num_classes < 2) return 0.0;
      double sum = 0.0;
      for (int slot = 1; slot <= num_classes; ++slot) {
        const double p = static_cast<double>(acc[slot]) / total;
        sum += p * special_log2(p);
      }
      return special_negate(sum);
    }
    case Regression:
      break;
  }
  return 0.0;
}

}  // namespace Velmot

#endif
