#ifndef VELMOT_LEARN_LEARN_FOREST_INSTANCES_H
#define VELMOT_LEARN_LEARN_FOREST_INSTANCES_H

// The learn_forest combinations the module's twenty learners use, compiled
// once in src/instantiations.cpp. Every other includer links to those
// instead of compiling its own.
//
// VELMOT_FOR_EACH_LEARNER(X) calls X(F, L, Criterion) for: every feature type
// with int labels and each criterion, and every feature type with double and
// float labels (the real-label learners) with the gain ratio.

#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/learn/tree.h"
#include "velmot/stats/criteria.h"

#define VELMOT_FOR_EACH_FEATURE_TYPE(X, L, C) X(int, L, C) X(double, L, C) X(float, L, C) X(unsigned char, L, C)

#define VELMOT_FOR_EACH_LEARNER(X)                                   \
  VELMOT_FOR_EACH_FEATURE_TYPE(X, int, Velmot::TwoSplitInfoGain)     \
  VELMOT_FOR_EACH_FEATURE_TYPE(X, int, Velmot::TwoSplitGiniImpurity) \
  VELMOT_FOR_EACH_FEATURE_TYPE(X, int, Velmot::TwoSplitGainRatio)    \
  VELMOT_FOR_EACH_FEATURE_TYPE(X, double, Velmot::TwoSplitGainRatio) \
  VELMOT_FOR_EACH_FEATURE_TYPE(X, float, Velmot::TwoSplitGainRatio)

#define VELMOT_LEARN_FOREST_SIGNATURE(F, L, C)                                                             \
  std::vector<Velmot::Node<L>*> Velmot::learn_forest<Velmot::MemoryDataSet<F, L>, C, std::vector<double>>( \
      const Velmot::MemoryDataSet<F, L>&, int, double, int, int, int, const C&, bool, std::vector<double>&);

// The form that keeps its ranks between calls.
#define VELMOT_LEARN_FOREST_REUSING_SIGNATURE(F, L, C)                                                           \
  std::vector<Velmot::Node<L>*> Velmot::learn_forest<Velmot::MemoryDataSet<F, L>, C, std::vector<double>>(       \
      const Velmot::MemoryDataSet<F, L>&, Velmot::ReusableRanks<F>&, int, double, int, int, int, const C&, bool, \
      std::vector<double>&);

#define VELMOT_DECLARE_LEARN_FOREST(F, L, C) \
  extern template VELMOT_LEARN_FOREST_SIGNATURE(F, L, C) extern template VELMOT_LEARN_FOREST_REUSING_SIGNATURE(F, L, C)
VELMOT_FOR_EACH_LEARNER(VELMOT_DECLARE_LEARN_FOREST)
#undef VELMOT_DECLARE_LEARN_FOREST

#endif
