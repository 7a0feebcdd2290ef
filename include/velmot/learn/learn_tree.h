#ifndef VELMOT_LEARN_LEARN_TREE_H
#define VELMOT_LEARN_LEARN_TREE_H

// learn_tree: grows one decision tree from a sample, breadth-first.
//
// Glossary:
//   task    a node to fill in and its slice [begin_i, end_i) of the private
//           index list; tasks wait in a FIFO queue, so nodes are processed
//           level by level, left before right;
//   k       features evaluated per node: fte_per_split when 1 <= it < nf
//           (random mode: distinct features drawn by rejection), else nf
//           (all-features mode: features 0, 1, ... in order);
//   leaf    a node with no children; its label comes from get_prediction,
//           which breaks ties among the most frequent labels at random.
//
// Steps per task: count the slice's labels; an empty slice stays a bare
// node, a pure or small slice becomes a leaf; otherwise search features
// (skipping, without counting, features constant on the slice), keep the
// best with random tie-breaking, partition the slice, credit the
// importance, and queue two children if both get two instances or more and
// the depth allows, else make the node a leaf.
//
// In all-features mode a feature constant on the slice is chosen again and
// again: the search does not end. That is the library's behaviour and is
// kept; the Python package never lets it happen.
//
// Random draws happen only in three places, always on the calling thread's
// generator: feature choice (random mode), ties between features' best
// scores, and leaf labels.
//
// How the work is laid out (none of it changes a tree): the index list is
// sorted by instance number once, each drawn instance once with its number
// of draws as a weight, and partitioned stably, so every slice ascends and
// gathers read columns forwards; node sizes count the weights, as the
// instances they stand for; a feature's pairs come sorted
// in value-then-label order whatever the slice's order (see
// dataset/index_dataset.h), as packed (rank, label) keys or a histogram of
// them where the feature has ranks or bytes; each feature's search keeps
// only its score and the keys around its best boundary, and the threshold
// is looked up for the node's winner alone.

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "velmot/dataset/index_dataset.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"
#include "velmot/defs/random.h"
#include "velmot/defs/tracker.h"
#include "velmot/learn/split_search.h"
#include "velmot/learn/tree.h"
#include "velmot/stats/label_accumulator.h"

namespace Velmot {

template <class L>
struct NodeLearnTask {
  NodeLearnTask(Node<L>* node, int parent_feature_index, double parent_threshold, int begin_i, int end_i, int depth)
      : node(node),
        parent_feature_index(parent_feature_index),
        parent_threshold(parent_threshold),
        begin_i(begin_i),
        end_i(end_i),
        depth(depth) {}

  Node<L>* node;
  int parent_feature_index;
  double parent_threshold;
  int begin_i;
  int end_i;
  int depth;
};

namespace learn_tree_detail {

// Marks of the features drawn at one node, cleared in O(drawn) afterwards.
class DrawnFeatures {
public:
  explicit DrawnFeatures(size_t num_features) : marked(num_features, 0) {}

  bool contains(int f) const { return marked[static_cast<size_t>(f)] != 0; }
  void insert(int f) {
    if (!marked[static_cast<size_t>(f)]) {
      marked[static_cast<size_t>(f)] = 1;
      drawn.push_back(f);
    }
  }
  size_t size() const { return drawn.size(); }
  void clear() {
    for (const int f : drawn) marked[static_cast<size_t>(f)] = 0;
    drawn.clear();
  }

private:
  std::vector<char> marked;
  std::vector<int> drawn;
};

// One feature's best split as the node's search keeps it: the feature, the
// split's impurity, and either the two ranks around the boundary (ranked
// features: the values are looked up only if this feature wins) or the two
// values themselves. For the seed both are the smallest.
template <class F>
struct SplitCandidate {
  int feature_index = -1;
  double impurity = 0.0;
  bool is_seed = true;
  bool ranked = false;
  uint32_t lower_rank = 0, upper_rank = 0;
  F lower_value{}, upper_value{};
};

// Scratch of the split search, reused across the nodes of a tree.
template <class A>
struct SearchWorkspace {
  A left;
  A right;
};

// The best split over the features chosen for one node, or an uninitialized
// tracker when no feature could be evaluated. Scores are the ones
// learn_tree_node reports, offered in the same order with the same draws.
template <class I, class A, class Criterion>
Tracker<SplitCandidate<typename I::feature_type>, std::less<double>> search_features(
    RangeDataSet<I>& range, const A& counts, int fte_per_split, const Criterion& criteria, XorShiftRNG& random,
    DrawnFeatures& drawn, SearchWorkspace<A>& workspace) {
  typedef typename I::feature_type F;
  typedef typename I::label_type L;
  const int nf = static_cast<int>(range.get_num_features());
  const int k = (fte_per_split >= 1 && fte_per_split < nf) ? fte_per_split : nf;
  const bool random_mode = k != nf;
  // Positions of the range, and the instances they stand for.
  const size_t n = range.get_num_instances();
  const size_t total = counts.get_total_count();
  const double initial = criteria.get_initial(counts);
  I& indexed = *range.dataset;
  Tracker<SplitCandidate<F>, std::less<double>> best_over_features;
  drawn.clear();
  for (int kk = 0; kk < k;) {
    int fte;
    if (random_mode) {
      if (drawn.size() == static_cast<size_t>(nf)) break;
      do {
        fte = static_cast<int>(random.next_int(nf));
      } while (drawn.contains(fte));
    } else {
      fte = kk;
    }
    drawn.insert(fte);
    // A constant feature is skipped and not counted.
    if (total < 2 || !range.buffer_sorted_feature_unless_constant(static_cast<size_t>(fte))) continue;
    SplitCandidate<F> candidate;
    candidate.feature_index = fte;
    double score = 0.0;
    auto keep = [&](const auto& split) {
      score = split.score;
      candidate.impurity = split.impurity;
      candidate.is_seed = split.is_seed;
    };
    switch (indexed.sorted_form()) {
      case I::packed_ranks:
      case I::packed_values: {
        const int shift = indexed.packed_label_bits;
        FeatureSplit<uint32_t> split;
        if (indexed.packed_counted) {
          split = best_split_of_cells<L>(indexed.packed_sort.cell_counts(), indexed.packed_sort.cell_count(), shift,
                                         counts, initial, workspace.left, workspace.right, criteria);
        } else {
          // Keys are (rank, label + 1, weight) from the high bits down; an
          // unweighted key (no weight bits) stands for one pair.
          const uint32_t* key = indexed.packed_sort.sorted();
          const uint32_t label_mask = indexed.packed_label_mask();
          const int weight_bits = indexed.packed_weight_bits;
          const int rank_shift = shift + weight_bits;
          const uint32_t weight_mask = (uint32_t(1) << weight_bits) - 1;
          const uint32_t unit = weight_bits == 0 ? 1 : 0;
          split = best_split_of_feature<L>(
              n, total, [key, rank_shift](size_t i) { return key[i] >> rank_shift; },
              [key, label_mask, weight_bits](size_t i) {
                return static_cast<L>(static_cast<int64_t>((key[i] >> weight_bits) & label_mask) - 1);
              },
              [key, weight_mask, unit](size_t i) { return (key[i] & weight_mask) + unit; }, counts, initial,
              workspace.left, workspace.right, criteria);
        }
        keep(split);
        // Cells count from the histogram's base; sorted keys are whole.
        const uint32_t base_rank = indexed.packed_counted ? indexed.packed_sort.cell_base() >> shift : 0;
        if (indexed.sorted_form() == I::packed_ranks) {
          candidate.ranked = true;
          candidate.lower_rank = split.lower + base_rank;
          candidate.upper_rank = split.upper + base_rank;
        } else {
          // Byte values are their own ranks.
          candidate.lower_value = static_cast<F>(split.lower + base_rank);
          candidate.upper_value = static_cast<F>(split.upper + base_rank);
        }
        break;
      }
      case I::ranks_and_labels: {
        // A copy per instance, so each stands for itself.
        const uint32_t* rank = indexed.rank_sort.sorted_key();
        const L* label = indexed.rank_sort.sorted_label();
        const size_t copies = indexed.sorted_size();
        const auto split = best_split_of_feature<L>(
            copies, copies, [rank](size_t i) { return rank[i]; }, [label](size_t i) { return label[i]; },
            UnitWeight(), counts, initial, workspace.left, workspace.right, criteria);
        keep(split);
        candidate.ranked = true;
        candidate.lower_rank = split.lower + indexed.rank_sort.key_offset();
        candidate.upper_rank = split.upper + indexed.rank_sort.key_offset();
        break;
      }
      case I::in_buffer: {
        const typename I::pair_type* pairs = indexed.sorted_pairs();
        const size_t copies = indexed.sorted_size();
        const auto split = best_split_of_feature<L>(
            copies, copies, [pairs](size_t i) { return pairs[i].first; }, [pairs](size_t i) { return pairs[i].second; },
            UnitWeight(), counts, initial, workspace.left, workspace.right, criteria);
        keep(split);
        candidate.lower_value = split.lower;
        candidate.upper_value = split.upper;
        break;
      }
    }
    best_over_features.try_candidate_break_ties(score, candidate, random);
    ++kk;
  }
  return best_over_features;
}

// The winning split's threshold: the smallest value for the seed, else the
// threshold between the two values around the boundary.
template <class I>
typename I::feature_type threshold_of(const I& indexed, const SplitCandidate<typename I::feature_type>& c) {
  typedef typename I::feature_type F;
  F lower = c.lower_value, upper = c.upper_value;
  if (c.ranked) {
    const F* values = indexed.ranks->values(static_cast<size_t>(c.feature_index));
    lower = values[c.lower_rank];
    upper = values[c.upper_rank];
  }
  return c.is_seed ? lower : ThresholdInfo<F>::get_less_than_threshold(lower, upper);
}

// Splits the range by the winner, keeping positions in order; returns the
// number sent left (value < threshold). Ranks stand in for values when the
// threshold lies above the lower value and not above the upper one (or the
// seed's smallest value), which the usual midpoint does; any other rounding
// falls back to comparing values.
template <class I>
size_t partition_by_winner(RangeDataSet<I>& range, const SplitCandidate<typename I::feature_type>& c,
                           typename I::feature_type threshold) {
  const size_t f = static_cast<size_t>(c.feature_index);
  if (c.ranked) {
    const auto* values = range.dataset->ranks->values(f);
    if (c.is_seed) return range.partition_by_rank_keeping_order(f, c.lower_rank);
    if (values[c.lower_rank] < threshold && !(values[c.upper_rank] < threshold)) {
      return range.partition_by_rank_keeping_order(f, c.upper_rank);
    }
  }
  return range.partition_keeping_order(f, threshold);
}

}  // namespace learn_tree_detail

// The calling thread's generator, refused with an Exception where get_rng
// would read past the pool or find an empty slot.
inline XorShiftRNG& thread_generator() {
  const size_t thread = static_cast<size_t>(omp_get_thread_num());
  XorShiftRNGPool* pool = get_pool("", 1, 0, false);
  if (thread >= pool->size() || pool->get_generator(thread) == nullptr) {
    throw Exception("no random generator for this thread: seed the pool for the thread count first");
  }
  return *pool->get_generator(thread);
}

// Grows a tree on the sample `data` and returns its root, owned by the
// caller. With compute_feature_importances, each split adds its impurity
// decrease times its slice size to feature_importances (sized by the caller,
// one entry per feature at least), which is then normalised to sum 1.
template <class D, class Criterion>
Node<typename D::label_type>* learn_tree(const IndexedDataSet<D>& data, int fte_per_split, int max_depth,
                                         int min_leaf_size, const Criterion& criteria,
                                         bool compute_feature_importances,
                                         std::vector<double>& feature_importances) {
  typedef typename D::label_type L;
  typedef typename D::feature_type F;
  typedef IndexedDataSet<D> I;

  if (!fits_in_int32(data.get_num_instances())) throw Exception("a tree's sample must hold fewer than 2^31 instances");
  if (compute_feature_importances && feature_importances.size() < data.get_num_features()) {
    throw Exception("feature importances need one entry per feature");
  }
  if (data.get_num_classes() > max_num_classes) throw IncompatibleDataException("data set has too many classes");
  for (size_t i = 0; i < data.get_num_instances(); ++i) {
    if (!label_fits_histogram(data.get_label(i), data.get_num_classes())) {
      throw IncompatibleDataException("a label lies outside the range of classes");
    }
  }

  // The pool cannot change while a tree grows, so the thread's generator is
  // fetched once.
  XorShiftRNG& random = thread_generator();
  // The private copy takes the sample's indices and ranks only: its buffer
  // and sort workspaces are filled per feature before they are read, so
  // copying the sample's (a 16-byte pair per instance) would be wasted.
  I indexed_data(data.get_dataset());
  indexed_data.indices = data.indices;
  indexed_data.ranks = data.ranks;
  // Sorted pairs do not depend on the order of a node's positions, so they
  // are kept ascending: gathers then read each column forwards. Repeated
  // instances become one weighted position each.
  indexed_data.merge_repeats();
  indexed_data.count_dense_keys = true;
  learn_tree_detail::DrawnFeatures drawn(data.get_num_features());
  NominalLabelPriorAccumulator<int> counts;
  learn_tree_detail::SearchWorkspace<NominalLabelPriorAccumulator<int>> workspace;
  std::deque<NodeLearnTask<L>> to_learn;
  Node<L>* root = new Node<L>();
  try {
    to_learn.emplace_back(root, -1, 2.2250738585072014e-308, 0, static_cast<int>(indexed_data.get_num_instances()), 0);
    while (!to_learn.empty()) {
      const NodeLearnTask<L> task = to_learn.front();
      to_learn.pop_front();
      Node<L>* node = task.node;
      RangeDataSet<I> range(&indexed_data, static_cast<size_t>(task.begin_i), static_cast<size_t>(task.end_i));

      counts.set_labeling(indexed_data.get_labeling());
      counts.set_num_classes(static_cast<int>(indexed_data.get_num_classes()));
      if (range.get_num_instances() == 0) {
        node->set_label(static_cast<L>(-2));
        continue;
      }
      counts.add_weighted_count(range);
      // The node's instances, repeats included.
      const size_t n = counts.get_total_count();
      const bool pure = static_cast<size_t>(counts.get_mode().second) == counts.get_total_count();
      if (pure || n <= static_cast<size_t>(min_leaf_size)) {
        node->set_label(static_cast<L>(counts.get_prediction(random).first));
        continue;
      }

      const auto winner =
          learn_tree_detail::search_features(range, counts, fte_per_split, criteria, random, drawn, workspace);
      int f = -1;
      F t = 0;
      double g = 0.0;
      int split_index = task.begin_i;
      if (winner.is_initialized()) {
        const auto& best = winner.get_maximizer();
        f = best.feature_index;
        t = learn_tree_detail::threshold_of(indexed_data, best);
        g = std::max(best.impurity - criteria.get_impurity(counts), 0.0);
        split_index = task.begin_i + static_cast<int>(learn_tree_detail::partition_by_winner(range, best, t));
      }
      node->set_threshold(static_cast<double>(t));
      node->set_label(static_cast<L>(-2));
      node->set_feature_index(f);
      // Credited before the children check: a node that then becomes a
      // leaf still credits its feature.
      if (compute_feature_importances && g > 0) feature_importances[static_cast<size_t>(f)] += g * static_cast<double>(n);

      const bool depth_allows = !(max_depth > 0 && max_depth < task.depth + 1);
      const size_t left_size =
          indexed_data.weight_of(static_cast<size_t>(task.begin_i), static_cast<size_t>(split_index));
      if (left_size > 1 && n - left_size > 1 && depth_allows) {
        Node<L>* left_child = new Node<L>();
        node->set_left(left_child);
        Node<L>* right_child = new Node<L>();
        node->set_right(right_child);
        const double threshold = static_cast<double>(t);
        to_learn.emplace_back(left_child, f, threshold, task.begin_i, split_index, task.depth + 1);
        to_learn.emplace_back(right_child, f, threshold, split_index, task.end_i, task.depth + 1);
      } else {
        // The threshold stays in the leaf; prediction ignores it.
        node->set_label(static_cast<L>(counts.get_prediction(random).first));
        node->set_feature_index(-1);
      }
    }
  } catch (...) {
    delete root;
    throw;
  }

  if (compute_feature_importances && !feature_importances.empty()) {
    double sum = 0.0;
    for (const double v : feature_importances) sum += v;
    for (double& v : feature_importances) v /= sum;
  }
  return root;
}

}  // namespace Velmot

#endif
