#ifndef VELMOT_LEARN_SEEDED_FOREST_INSTANCES_H
#define VELMOT_LEARN_SEEDED_FOREST_INSTANCES_H

// The learn_seeded_forest combinations (every feature type: each
// classification criterion with class labels, squared error with real
// targets), compiled once in src/instantiations.cpp.

#include <functional>

#include "velmot/learn/learn_forest_instances.h"
#include "velmot/stats/criteria.h"
#include "velmot/stats/squared_error.h"

#define VELMOT_FOR_EACH_SEEDED_LEARNER(X)                            \
  VELMOT_FOR_EACH_FEATURE_TYPE(X, int, Velmot::TwoSplitInfoGain)     \
  VELMOT_FOR_EACH_FEATURE_TYPE(X, int, Velmot::TwoSplitGiniImpurity) \
  VELMOT_FOR_EACH_FEATURE_TYPE(X, int, Velmot::TwoSplitGainRatio)    \
  VELMOT_FOR_EACH_FEATURE_TYPE(X, double, Velmot::SquaredError)

#define VELMOT_SEEDED_FOREST_SIGNATURE(F, L, C)                                                                   \
  Velmot::SeededForestOf<L> Velmot::learn_seeded_forest<F, L, C>(                                                 \
      const Velmot::TrainingSet<F, L>&, const Velmot::SeededForestSettings&, const C&, Velmot::LearningProgress&, \
      const std::function<void()>&);

#define VELMOT_DECLARE_SEEDED_FOREST(F, L, C) extern template VELMOT_SEEDED_FOREST_SIGNATURE(F, L, C)
VELMOT_FOR_EACH_SEEDED_LEARNER(VELMOT_DECLARE_SEEDED_FOREST)
#undef VELMOT_DECLARE_SEEDED_FOREST

#endif
