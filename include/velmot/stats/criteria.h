#ifndef VELMOT_STATS_CRITERIA_H
#define VELMOT_STATS_CRITERIA_H

// Split criteria: stateless scorers of a two-way split, larger is better.
//
// A criterion has six operations, each templated over the accumulator A:
//   get_initial(P)              S_init, the node's own statistic
//   get_impurity(P)             S_impurity, G(P)
//   get_initial_score(S_init)   value of the unsplit node
//   operator()(S_init, L, R)    score of a split
//   get_impurity(a, b, L, R)    impurity of a split, always G(L) + G(R)
//   get_final_score(s, S_init)  what the split search reports
// where G = compute_gini_impurity (sum of squared counts over the total) and
// H = compute_entropy. The impurity decrease (feature importances) is always
// measured the Gini way, whatever ranks the splits.

#include <cmath>

#include "velmot/stats/label_accumulator.h"

namespace Velmot {

namespace criteria_detail {

template <class A>
double children_gini(const A& left, const A& right) {
  return left.compute_gini_impurity() + right.compute_gini_impurity();
}

template <class A>
double share(const A& side, const A& left, const A& right) {
  return static_cast<double>(side.get_total_count()) /
         static_cast<double>(left.get_total_count() + right.get_total_count());
}

}  // namespace criteria_detail

// S_init - (pL H(L) + pR H(R)), in bits.
template <class A>
double compute_2split_infogain(double initial_entropy, const A& left, const A& right) {
  const double p_left = criteria_detail::share(left, left, right);
  const double p_right = criteria_detail::share(right, left, right);
  return initial_entropy - (p_left * compute_entropy(left) + p_right * compute_entropy(right));
}

// Information gain over split information. Both sides are non-empty wherever
// the split search scores, so the split information is positive there.
template <class A>
double compute_2split_gain_ratio(double initial_entropy, const A& left, const A& right) {
  const double p_left = criteria_detail::share(left, left, right);
  const double p_right = criteria_detail::share(right, left, right);
  const double gain = initial_entropy - (p_left * compute_entropy(left) + p_right * compute_entropy(right));
  const double split_information = -(p_left * special_log2(p_left) + p_right * special_log2(p_right));
  return gain / split_information;
}

// Ranks by G(L) + G(R); the final score is the decrease in count-weighted
// Gini impurity, n Gini(P) - nL Gini(L) - nR Gini(R).
class TwoSplitGiniImpurity {
public:
  template <class A>
  double get_initial(const A& node) const {
    return node.compute_gini_impurity();
  }
  template <class A>
  double get_impurity(const A& node) const {
    return node.compute_gini_impurity();
  }
  double get_initial_score(double initial) const { return initial; }
  template <class A>
  double operator()(double, const A& left, const A& right) const {
    return criteria_detail::children_gini(left, right);
  }
  template <class A>
  double get_impurity(double, double, const A& left, const A& right) const {
    return criteria_detail::children_gini(left, right);
  }
  double get_final_score(double score, double initial) const { return score - initial; }
};

// What the two entropy criteria share: the node's entropy as the initial
// value, an unsplit node scoring 0, and the improvement measured the Gini way.
class EntropyCriterion {
public:
  template <class A>
  double get_initial(const A& node) const {
    return compute_entropy(node);
  }
  template <class A>
  double get_impurity(const A& node) const {
    return node.compute_gini_impurity();
  }
  double get_initial_score(double) const { return 0.0; }
  template <class A>
  double get_impurity(double, double, const A& left, const A& right) const {
    return criteria_detail::children_gini(left, right);
  }
  double get_final_score(double score, double) const { return score; }
};

class TwoSplitInfoGain : public EntropyCriterion {
public:
  template <class A>
  double operator()(double initial, const A& left, const A& right) const {
    return compute_2split_infogain(initial, left, right);
  }
};

class TwoSplitGainRatio : public EntropyCriterion {
public:
  template <class A>
  double operator()(double initial, const A& left, const A& right) const {
    return compute_2split_gain_ratio(initial, left, right);
  }
};

}  // namespace Velmot

#endif
