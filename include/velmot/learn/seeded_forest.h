#ifndef VELMOT_LEARN_SEEDED_FOREST_H
#define VELMOT_LEARN_SEEDED_FOREST_H

// learn_seeded_forest: the trees [first_tree, last_tree) of a forest whose
// tree k is grown from a generator made from (seed, k) alone
// (defs/tree_seeds.h): its bootstrap sample and every random choice of its
// grower draw from it. A forest is therefore the same for any thread
// count, any schedule and any split into blocks of trees, and the call
// touches no process-wide state: no pool, no lock.
//
// Steps: check the input (before any thread starts) and build the weighted
// draws, if any, once; hand trees out to the
// workers one at a time (for_each_index, defs/parallel.h: a dynamic
// schedule, since trees differ in size, and a forked child runs the
// workers' shares on the calling thread); for each
// tree draw its sample, grow it with learn_tree while recording its nodes'
// in-bag counts and impurities, flatten it into ForestArrays (and, if asked,
// add its out-of-bag estimates), and keep it packed (learn/packed_tree.h);
// record its normalised importances. Trees are joined in tree order after
// the region.
//
// Labels: class codes (L = int) under a classification criterion, or real
// targets (L = double) under SquaredError; a regression forest's leaves
// hold their mean targets and its nodes their mean squared errors, and its
// out-of-bag estimates are sums of predictions (learn/out_of_bag.h).
//
// Progress: trees_done grows by one per finished tree; setting cancel makes
// the workers skip the trees they have not started (the result is then
// marked cancelled and holds no trees). A failure inside the team stops
// the handing out of trees and is rethrown after it.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "velmot/dataset/bootstrap.h"
#include "velmot/dataset/node_sample.h"
#include "velmot/dataset/weighted_bootstrap.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/free_memory.h"
#include "velmot/defs/int32_limits.h"
#include "velmot/defs/parallel.h"
#include "velmot/defs/tree_seeds.h"
#include "velmot/learn/forest_arrays.h"
#include "velmot/learn/forest_arrays_layout.h"
#include "velmot/learn/learn_tree.h"
#include "velmot/learn/learning_progress.h"
#include "velmot/learn/node_statistics.h"
#include "velmot/learn/out_of_bag.h"
#include "velmot/learn/packed_tree.h"
#include "velmot/learn/training_set.h"
#include "velmot/stats/label_accumulator.h"
#include "velmot/stats/squared_error.h"

namespace Velmot {

struct SeededForestSettings {
  uint64_t seed = 0;
  int64_t first_tree = 0;
  int64_t last_tree = 0;  // one past the last tree learnt
  double sample_prop = 1.0;
  int fte_per_split = 0;
  int max_depth = 0;
  GrowthLimits limits;      // the defaults are the library's growth rule
  bool out_of_bag = false;  // out-of-bag estimates (learn/out_of_bag.h)
  // One weight per instance, drawn in proportion to
  // (dataset/weighted_bootstrap.h); empty for uniform draws.
  std::vector<double> sample_weights;
  int num_threads = 1;
  // Each tree also laid out for prediction (learn/flat_forest.h) as soon as
  // it is grown, while its arrays are in cache: laying out a forest of large
  // trees later, from memory, costs about as much as predicting with it.
  bool lay_out = false;
};

template <class L>
struct SeededForestOf {
  NodeArrays<L> trees;
  // Row j (num_features entries) holds the normalised importances of tree
  // first_tree + j; all NaN for a tree without an informative split.
  std::vector<double> tree_importances;
  // With out_of_bag (learn/out_of_bag.h): for classes, instance i's votes
  // for class c at i * num_classes + c; for real labels, instance i's
  // out-of-bag trees and the sum of their predictions.
  std::vector<int32_t> oob_counts;
  std::vector<double> oob_sums;
  FlatForest laid_out;  // with lay_out, the trees as prediction walks them
  bool cancelled = false;
};
typedef SeededForestOf<int> SeededForest;
typedef SeededForestOf<double> SeededRegressionForest;

// Real targets must be finite and at most this large in magnitude, so that
// sums of squared deviations over 2^31 instances stay finite.
constexpr double largest_target = 1e100;

template <class F, class L>
void check_seeded_forest_input(const TrainingSet<F, L>& set, const SeededForestSettings& settings) {
  const MemoryDataSet<F, L>& data = set.data;
  const size_t ni = data.get_num_instances();
  if (ni == 0) throw IncompatibleDataException("data set is empty");
  if (!fits_in_int32(ni)) throw IncompatibleDataException("data set has more than 2147483647 instances");
  if (!fits_in_int32(data.get_num_features())) throw IncompatibleDataException("data set has too many features");
  if (std::is_integral<L>::value && data.get_num_classes() > static_cast<size_t>(max_num_classes)) {
    throw IncompatibleDataException("data set has too many classes");
  }
  const double sample_size = settings.sample_prop * static_cast<double>(ni);
  if (!(sample_size >= 0.0) || !(sample_size < 2147483648.0)) {
    throw Exception("sample_prop must make a bootstrap sample of 0 to 2147483647 instances");
  }
  if (settings.first_tree < 0 || settings.last_tree < settings.first_tree) {
    throw Exception("the trees to learn must be a range [first, last) of non-negative indices");
  }
  if (settings.num_threads < 1) throw Exception("the thread count must be at least 1");
  if (!settings.sample_weights.empty() && settings.sample_weights.size() != ni) {
    throw Exception("there must be one sample weight per instance");
  }
  for (size_t i = 0; i < ni; ++i) {
    const L label = data.get_label(i);
    if constexpr (std::is_integral<L>::value) {
      if (label < 0 || static_cast<size_t>(label) >= data.get_num_classes()) {
        throw IncompatibleDataException("a label lies outside the range of classes");
      }
    } else if (!(std::fabs(label) <= largest_target)) {
      throw IncompatibleDataException("a target is not finite or exceeds 1e100 in magnitude");
    }
  }
}

// after_growth, if given, is called once every tree is grown, before the
// forest's arrays are written; the set is not read after it. A caller that
// learns from the set for the last time frees it there, so that the set
// and the forest are never resident together.
template <class F, class L, class Criterion>
SeededForestOf<L> learn_seeded_forest(const TrainingSet<F, L>& set, const SeededForestSettings& settings,
                                      const Criterion& criteria, LearningProgress& progress,
                                      const std::function<void()>& after_growth = {}) {
  check_seeded_forest_input(set, settings);
  typedef MemoryDataSet<F, L> D;
  const D& data = set.data;
  const int64_t num_trees = settings.last_tree - settings.first_tree;
  const size_t nf = data.get_num_features();
  std::vector<PackedTree<L>> trees(static_cast<size_t>(num_trees));
  SeededForestOf<L> forest;
  forest.tree_importances.assign(static_cast<size_t>(num_trees) * nf, 0.0);
  const WeightedDraws draws(settings.sample_weights);
  std::optional<OutOfBagOf<L>> oob;
  if (settings.out_of_bag) oob.emplace(data.get_num_instances(), data.get_num_classes());
  std::vector<FlatTree> laid_out(settings.lay_out ? trees.size() : 0);
  std::vector<forest_arrays_detail::LayoutScratch> scratch(settings.lay_out ? settings.num_threads : 0);

  for_each_index(num_trees, settings.num_threads, [&](int64_t j, const Worker& w) {
    if (progress.cancel.load(std::memory_order_relaxed)) return;
    XorShiftRNG rng = tree_generator(settings.seed, static_cast<uint64_t>(settings.first_tree + j));
    IndexedDataSet<D> sample = weighted_subset_iid(&data, settings.sample_prop, draws, rng);
    sample.ranks = &set.ranks;
    sample.rank_order = &set.order;
    std::vector<double> importances(nf, 0.0);
    // Regression nodes are measured by their mean squared error, whatever the measure.
    NodeStatistics statistics(impurity_measure_of<Criterion>());
    // Grown on the sample itself: a copy would double the positions each
    // worker holds. Out-of-bag estimates need only which instances it holds.
    std::unique_ptr<Node<L>> root(grow_tree_in_place(sample, settings.fte_per_split, settings.max_depth,
                                                     settings.limits, criteria, true, importances, rng,
                                                     [&statistics](const auto& node) { statistics(node); }));
    NodeArrays<L> tree = flatten_tree(*root);
    root.reset();
    // Copied into the tree's exactly sized arrays: the recorder's grew by doubling.
    tree.count.assign(statistics.count.begin(), statistics.count.end());
    tree.impurity.assign(statistics.impurity.begin(), statistics.impurity.end());
    if (oob) oob->add_tree(j, tree, data, sample.indices);
    if (settings.lay_out) {
      laid_out[static_cast<size_t>(j)] = lay_out_grown_tree(tree, scratch[static_cast<size_t>(w.number)]);
    }
    trees[static_cast<size_t>(j)] = PackedTree<L>(tree);
    std::copy(importances.begin(), importances.end(), forest.tree_importances.begin() + j * static_cast<int64_t>(nf));
    progress.trees_done.fetch_add(1, std::memory_order_relaxed);
  });
  if (progress.cancel.load()) {
    forest.cancelled = true;
    forest.tree_importances.clear();
    return forest;
  }
  if (after_growth) after_growth();
  // The workers' freed scratch goes back before the forest's arrays are written.
  return_free_memory();
  forest.trees = join_packed_trees(trees, settings.num_threads);
  forest.laid_out = FlatForest(std::move(laid_out));
  if (oob) oob->take(forest.oob_counts, forest.oob_sums);
  return forest;
}

}  // namespace Velmot

#include "velmot/learn/seeded_forest_instances.h"

#endif
