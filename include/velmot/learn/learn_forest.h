#ifndef VELMOT_LEARN_LEARN_FOREST_H
#define VELMOT_LEARN_LEARN_FOREST_H

// learn_forest: a forest of trees on the default OpenMP team.
//
// Steps: check the input (bad input is refused before any tree is grown;
// what fails later, such as an allocation, frees the trees grown so far and
// is rethrown); then each worker t of T (run_team, defs/parallel.h) learns
// the contiguous block of trees [t c, min((t+1) c, forest_size)),
// c = ceil(forest_size / T), each from its own bootstrap sample drawn with
// the worker's generator. The static schedule is deliberate: which
// generator learns which tree depends only on T and forest_size, so a
// re-seeded pool reproduces the forest. Importances are summed per worker,
// the sums added in worker order, then scaled by 1 / forest_size (0 trees:
// NaN).
//
// D is a MemoryDataSet; ImportanceVector is a vector of doubles sized by the
// caller (normally one entry per feature).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "velmot/dataset/bootstrap.h"
#include "velmot/dataset/feature_ranks.h"
#include "velmot/dataset/node_sample.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"
#include "velmot/defs/parallel.h"
#include "velmot/defs/random.h"
#include "velmot/learn/learn_tree.h"
#include "velmot/learn/tree.h"
#include "velmot/stats/label_accumulator.h"

namespace Velmot {

namespace learn_forest_detail {

// The rank table's size above which the ranks are turned instance-major
// (FeatureRanks::copy_to_rows): about the L3 cache a process gets here.
// 16 to 80 trees, two threads, four alternating runs: 200,000 x 40 doubles
// (32 MB of ranks) 2-7% faster, 100,000 (16 MB) 0-3%, 50,000 and 25,000
// (8 and 4 MB) unchanged; a 100-tree fit through the package at 200,000
// 5% faster (13.08 s against 13.78, medians of three).
constexpr size_t rows_above_table_bytes = size_t(8) << 20;

// Number of threads of a team of `team` that get at least one tree.
inline int threads_with_trees(int forest_size, int team) {
  if (forest_size <= 0 || team <= 0) return 0;
  const int chunk = forest_size / team + (forest_size % team != 0 ? 1 : 0);
  return forest_size / chunk + (forest_size % chunk != 0 ? 1 : 0);
}

template <class D>
void check_forest_input(const D& data, int forest_size, double sample_prop, size_t importance_size,
                        bool compute_feature_importances) {
  const size_t ni = data.get_num_instances();
  if (!fits_in_int32(ni)) {
    throw IncompatibleDataException("data set has more than " + std::to_string(int32_max) + " instances");
  }
  const double sample_size = sample_prop * static_cast<double>(ni);
  if (!fits_in_int32_count(sample_size)) {
    throw Exception("sample_prop must make a bootstrap sample of 0 to " + std::to_string(int32_max) + " instances");
  }
  if (!fits_in_int32(data.get_num_features())) throw IncompatibleDataException("data set has too many features");
  if (data.get_num_classes() > max_num_classes) throw IncompatibleDataException("data set has too many classes");
  for (size_t i = 0; i < ni; ++i) {
    if (!label_fits_histogram(data.get_label(i), data.get_num_classes())) {
      throw IncompatibleDataException("a label lies outside the range of classes");
    }
  }
  if (compute_feature_importances && importance_size < data.get_num_features()) {
    throw Exception("feature importances need one entry per feature");
  }
  // A histogram per node must be affordable; try one here, where a failure
  // can still be reported.
  NominalLabelPriorAccumulator<int> probe;
  probe.set_num_classes(static_cast<int>(data.get_num_classes()));

  // Every thread that learns a tree needs its own generator. Making the pool
  // here (if it does not exist yet) also keeps threads from racing to make it.
  const int needed = threads_with_trees(forest_size, default_team_size());
  if (needed == 0) return;
  XorShiftRNGPool* pool = get_pool("", 1, 0, false);
  for (int t = 0; t < needed; ++t) {
    if (static_cast<size_t>(t) >= pool->size() || pool->get_generator(static_cast<size_t>(t)) == nullptr) {
      throw Exception("the random generator pool has no generator for thread " + std::to_string(t) +
                      ": seed the pool (init_pool or set_seed) before learning on several threads");
    }
  }
}

}  // namespace learn_forest_detail

// The ranks a learning call shares among its trees, made by the first call
// that learns a tree. A caller that learns several forests from the same
// features can keep one and pass it to each call: ranking (and the
// instance-major copy) then happens once instead of once per call.
template <class F>
struct ReusableRanks {
  bool made = false;
  FeatureRanks<F> ranks;
};

template <class D, class Criterion, class ImportanceVector>
std::vector<Node<typename D::label_type>*> learn_forest(const D& data, int forest_size, double sample_prop,
                                                        int fte_per_split, int max_depth, int min_leaf_size,
                                                        const Criterion& criteria, bool compute_feature_importances,
                                                        ImportanceVector& feature_importances) {
  ReusableRanks<typename D::feature_type> ranks;
  return learn_forest(data, ranks, forest_size, sample_prop, fte_per_split, max_depth, min_leaf_size, criteria,
                      compute_feature_importances, feature_importances);
}

// The same with ranks kept by the caller: `reusable` must have been made (if
// at all) from features equal to data's, labels aside.
template <class D, class Criterion, class ImportanceVector>
std::vector<Node<typename D::label_type>*> learn_forest(const D& data,
                                                        ReusableRanks<typename D::feature_type>& reusable,
                                                        int forest_size, double sample_prop, int fte_per_split,
                                                        int max_depth, int min_leaf_size, const Criterion& criteria,
                                                        bool compute_feature_importances,
                                                        ImportanceVector& feature_importances) {
  typedef Node<typename D::label_type> NodeType;
  if (data.get_num_instances() == 0) throw IncompatibleDataException("data set is empty");
  // A negative size fails here, as an allocation error.
  std::vector<NodeType*> retval(static_cast<size_t>(forest_size), nullptr);
  for (auto& value : feature_importances) value = 0.0;
  const size_t num_importances = feature_importances.size();
  learn_forest_detail::check_forest_input(data, forest_size, sample_prop, num_importances, compute_feature_importances);

  // Ranks of the features, shared by all trees: nodes then sort small
  // integers instead of values (same order, same trees).
  FeatureRanks<typename D::feature_type>& ranks = reusable.ranks;
  if constexpr (learns_with_ranks<typename D::feature_type, typename D::label_type>()) {
    if (!reusable.made && forest_size > 0) {
      // Only a speed-up: without memory for it, nodes sort values instead.
      try {
        ranks = FeatureRanks<typename D::feature_type>(data);
      } catch (const std::bad_alloc&) {
        ranks = FeatureRanks<typename D::feature_type>();
      }
      try {
        if (ranks.table_bytes() > learn_forest_detail::rows_above_table_bytes) ranks.copy_to_rows();
      } catch (const std::bad_alloc&) {
        // Without the rows, nodes read the columns.
      }
      reusable.made = true;
    }
  }

  // Each worker sums its trees' importances in its own row; the rows are
  // added in worker order after the team, so the result does not depend on
  // which thread finished first. A failure in any worker frees every tree.
  const int team = default_team_size();
  std::vector<std::vector<double>> sums(static_cast<size_t>(team));
  try {
    run_team(team, [&](const Worker& w) {
      std::vector<double> tree_importances(num_importances, 0.0);
      std::vector<double>& sum = sums[static_cast<size_t>(w.number)];
      sum.assign(num_importances, 0.0);
      const Block block = block_of(forest_size, w);
      for (int64_t k = block.first; k < block.last && !w.stopped(); ++k) {
        XorShiftRNG& rng = thread_generator();
        IndexedDataSet<D> sample = random_subset_iid(&data, sample_prop, rng);
        sample.ranks = &ranks;
        if (compute_feature_importances) std::fill(tree_importances.begin(), tree_importances.end(), 0.0);
        // check_forest_input checked what learn_tree would check per tree.
        retval[static_cast<size_t>(k)] = grow_tree(sample, fte_per_split, max_depth, min_leaf_size, criteria,
                                                   compute_feature_importances, tree_importances);
        if (compute_feature_importances) {
          for (size_t j = 0; j < num_importances; ++j) sum[j] += tree_importances[j];
        }
      }
    });
  } catch (...) {
    for (NodeType*& tree : retval) {
      delete tree;
      tree = nullptr;
    }
    throw;
  }
  if (compute_feature_importances) {
    for (const std::vector<double>& sum : sums) {
      if (sum.empty()) continue;
      size_t j = 0;
      for (auto& value : feature_importances) value += sum[j++];
    }
  }

  if (compute_feature_importances) {
    const double scale = 1.0 / forest_size;
    for (auto& value : feature_importances) value *= scale;
  }
  return retval;
}

}  // namespace Velmot

#include "velmot/learn/learn_forest_instances.h"

#endif
