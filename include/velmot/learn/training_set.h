#ifndef VELMOT_LEARN_TRAINING_SET_H
#define VELMOT_LEARN_TRAINING_SET_H

// TrainingSet: a training set as learning reads it, prepared once and then
// shared read-only by any number of trees: the features copied into the
// library's columns, missing values imputed, and (for floating-point and
// int features) ranked, the ranks instance-major where their table
// outgrows the cache (the same preparation learn_forest makes).
//
// The ranks only speed learning up: without memory for them, nodes sort
// values, and the trees are the same. A matrix that is already feature-major
// and complete is read in place rather than copied
// (prepare_training_set_in_place).

#include <new>
#include <type_traits>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/feature_ranks.h"
#include "velmot/dataset/rank_order.h"
#include "velmot/defs/free_memory.h"
#include "velmot/learn/learn_forest.h"

namespace Velmot {

// L: int class codes, or double targets for regression.
template <class F, class L = int>
struct TrainingSet {
  MemoryDataSet<F, L> data;
  FeatureRanks<F> ranks;
  // Real labels only: large regression nodes walk it (dataset/rank_order.h).
  RankOrder order;
};

namespace training_set_detail {

template <class F, class L>
void rank(TrainingSet<F, L>& set) {
  if constexpr (learns_with_ranks<F, int>()) {
    // Blocks the caller freed before (reading a file, imputing) go back to
    // the system first: the C library would keep them resident beside the
    // ranking's scratch and the ranks (velmot train, 500,000 x 20: 20-30 MiB).
    return_free_memory();
    try {
      set.ranks = FeatureRanks<F>(set.data);
    } catch (const std::bad_alloc&) {
      set.ranks = FeatureRanks<F>();
    }
    // The ranking's scratch (two entries per instance and thread) goes back
    // to the system before the rows are made beside the columns, so that
    // the three are never resident together.
    return_free_memory();
    try {
      if (set.ranks.table_bytes() > learn_forest_detail::rows_above_table_bytes) set.ranks.copy_to_rows();
    } catch (const std::bad_alloc&) {
      // Without the rows, nodes read the columns.
    }
    // So do the columns the rows replace: the trees grown next allocate
    // from other threads' heaps, which would not reuse them.
    return_free_memory();
    if constexpr (std::is_floating_point<L>::value) {
      try {
        set.order = RankOrder(set.ranks, set.data.get_num_features(), set.data.get_num_instances());
      } catch (const std::bad_alloc&) {
        // Without the orders, every node sorts its ranks.
      }
    }
  }
}

}  // namespace training_set_detail

// Source: what MemoryDataSet::copy_from reads (a DisNativeArrayDataSet).
template <class F, class L, class Source>
void prepare_training_set(TrainingSet<F, L>& set, const Source& source) {
  set.data.copy_from(source);
  set.data.impute();
  training_set_detail::rank(set);
}

// Whether a feature-major matrix of `count` values can be learnt from in
// place: it holds no missing value, which would have to be imputed.
template <class F>
bool can_learn_in_place(const F* values, size_t count) {
  if constexpr (std::is_floating_point<F>::value) {
    // Without early exit, so that the scan vectorises.
    bool missing = false;
    for (size_t k = 0; k < count; ++k) missing |= !(values[k] == values[k]);
    return !missing;
  }
  return true;
}

// The same as prepare_training_set over `columns`, the source's features as
// one feature-major matrix (feature j's values at columns + j * ni, checked
// by can_learn_in_place), read in place: the set holds the ranks but no copy
// of the features, and the caller keeps the matrix alive and unchanged
// while the set is used.
template <class F, class L, class Source>
void prepare_training_set_in_place(TrainingSet<F, L>& set, const Source& source, const F* columns) {
  set.data.view_columns(source, columns);
  training_set_detail::rank(set);
}

}  // namespace Velmot

#endif
