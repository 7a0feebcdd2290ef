// The one place where the generic learner is compiled: both learn_forest forms per
// (feature type, label type, criterion) that the module's learners use. The
// tree grower, split search, views and statistics are compiled with it.

#include "velmot/learn/learn_forest.h"

#define VELMOT_DEFINE_LEARN_FOREST(F, L, C) \
  template VELMOT_LEARN_FOREST_SIGNATURE(F, L, C) template VELMOT_LEARN_FOREST_REUSING_SIGNATURE(F, L, C)
VELMOT_FOR_EACH_LEARNER(VELMOT_DEFINE_LEARN_FOREST)

// The seeded learner of the package's core: every feature type and
// criterion, class labels.
#include "velmot/learn/seeded_forest.h"

#define VELMOT_DEFINE_SEEDED_FOREST(F, L, C) template VELMOT_SEEDED_FOREST_SIGNATURE(F, L, C)
VELMOT_FOR_EACH_SEEDED_LEARNER(VELMOT_DEFINE_SEEDED_FOREST)
