#ifndef VELMOT_LEARN_TRAINING_SET_H
#define VELMOT_LEARN_TRAINING_SET_H

// TrainingSet: a training set as learning reads it, prepared once and then
// shared read-only by any number of trees: the features copied into the
// library's columns, missing values imputed, and (for floating-point and
// int features) ranked, with the instance-major copy of the ranks where the
// rank table outgrows the cache (the same preparation learn_forest makes).
//
// The ranks only speed learning up: without memory for them, nodes sort
// values, and the trees are the same.

#include <new>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/feature_ranks.h"
#include "velmot/learn/learn_forest.h"

namespace Velmot {

// L: int class codes, or double targets for regression.
template <class F, class L = int>
struct TrainingSet {
  MemoryDataSet<F, L> data;
  FeatureRanks<F> ranks;
};

// Source: what MemoryDataSet::copy_from reads (a DisNativeArrayDataSet).
template <class F, class L, class Source>
void prepare_training_set(TrainingSet<F, L>& set, const Source& source) {
  set.data.copy_from(source);
  set.data.impute();
  if constexpr (learns_with_ranks<F, int>()) {
    try {
      set.ranks = FeatureRanks<F>(set.data);
    } catch (const std::bad_alloc&) {
      set.ranks = FeatureRanks<F>();
    }
    try {
      if (set.ranks.table_bytes() > learn_forest_detail::rows_above_table_bytes) set.ranks.copy_to_rows();
    } catch (const std::bad_alloc&) {
      // Without the copy, small nodes read the columns.
    }
  }
}

}  // namespace Velmot

#endif
