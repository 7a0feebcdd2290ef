#ifndef VELMOT_DEFS_TRACKER_H
#define VELMOT_DEFS_TRACKER_H

// Tracker: remembers, over a stream of (value, candidate) offers, the
// candidates with the largest and the smallest value.
//
// Glossary: the maximizer / minimizer is the candidate that carried the
// maximum / minimum; nties counts the offers equal to the current maximum.
//
// try_candidate keeps the earliest of equal values. try_candidate_break_ties
// is a one-pass reservoir choice among equal maxima: the k-th equal offer
// replaces the maximizer when 1/k exceeds one draw of the generator, so a
// draw is consumed only on an exact tie with the maximum. The generator needs
// next_double().
//
// NodeResult: a split as the search reports it; its default is a sentinel
// (feature -1, a type-dependent placeholder threshold).

#include <limits>
#include <type_traits>

#include "velmot/defs/exception.h"

namespace Velmot {

template <class T, class Compare>
class Tracker {
public:
  Tracker() : minimum_value(0), minimizer(), maximum_value(0), maximizer(), nties(0) {}

  void try_candidate(double value, const T& candidate) {
    if (!initialized) {
      take_first(value, candidate);
      return;
    }
    offer_minimum(value, candidate);
    if (compare(maximum_value, value)) {
      maximum_value = value;
      maximizer = candidate;
    }
  }

  template <class RNG>
  void try_candidate_break_ties(double value, const T& candidate, RNG& rng) {
    if (!initialized) {
      take_first(value, candidate);
      return;
    }
    offer_minimum(value, candidate);
    if (compare(maximum_value, value)) {
      maximum_value = value;
      maximizer = candidate;
      nties = 1;
    } else if (value == maximum_value) {
      ++nties;
      if (1.0 / nties > rng.next_double()) maximizer = candidate;
    }
  }

  const T& get_maximizer() const {
    if (!initialized) throw EmptyTrackerException("");
    return maximizer;
  }
  T& get_maximizer() {
    if (!initialized) throw EmptyTrackerException("");
    return maximizer;
  }
  const T& get_minimizer() const { return minimizer; }
  T& get_minimizer() { return minimizer; }
  const double& get_maximum() const { return maximum_value; }
  double& get_maximum() { return maximum_value; }
  const double& get_minimum() const { return minimum_value; }
  double& get_minimum() { return minimum_value; }
  bool is_initialized() const { return initialized; }
  int get_num_ties() const { return nties; }
  void set_num_ties(int n) { nties = n; }

private:
  // Ties of the minimum keep the earlier candidate; no draw is made for them.
  void offer_minimum(double value, const T& candidate) {
    if (compare(value, minimum_value)) {
      minimum_value = value;
      minimizer = candidate;
    }
  }

  void take_first(double value, const T& candidate) {
    minimum_value = maximum_value = value;
    minimizer = maximizer = candidate;
    nties = 1;
    initialized = true;
  }

  bool initialized = false;
  double minimum_value;
  T minimizer;
  double maximum_value;
  T maximizer;
  int nties;
  Compare compare;
};

// T is the feature element type. The default threshold is the smallest
// positive normal value for floating-point types and the lowest value for
// integer types; both sentinels are kept as they are.
template <class T>
struct NodeResult {
  static_assert(std::is_arithmetic<T>::value, "NodeResult holds a feature value");

  static constexpr T placeholder_threshold() {
    return std::is_floating_point<T>::value ? std::numeric_limits<T>::min() : std::numeric_limits<T>::lowest();
  }

  NodeResult() : feature_index(-1), threshold(placeholder_threshold()), best_improvement(0) {}
  NodeResult(int feature_index, T threshold, double best_improvement)
      : feature_index(feature_index), threshold(threshold), best_improvement(best_improvement) {}

  int feature_index;
  T threshold;
  double best_improvement;
};

}  // namespace Velmot

#endif
