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
// importance, and queue two children if the growth limits keep the split
// (learn/growth_limits.h; by default both children need two instances or
// more) and the depth allows, else make the node a leaf.
//
// In all-features mode a feature constant on the slice is chosen again and
// again: the search does not end. That is the library's deliberate
// behaviour; the Python package never lets it happen.
//
// The node's labels are what NodeLabels<Criterion> (learn/node_labels.h)
// makes of them: class counts for the classification criteria, or
// squared-error sums for SquaredError, whose all-features search stops once
// every feature was tried.
//
// Random draws happen only in three places, always on the calling thread's
// generator: feature choice (random mode), ties between features' best
// scores, and leaf labels.
//
// How the work is laid out (none of it changes a tree): the index list is
// sorted by instance number once, each drawn instance once with its number
// of draws as a weight (dataset/node_sample.h), and partitioned stably
// (dataset/partition.h), so every slice ascends and gathers read columns
// forwards; node sizes count the weights, as the instances they stand for;
// a feature's pairs come sorted in value-then-label order whatever the
// slice's order (dataset/sorted_feature.h); each feature's sweep
// (learn/sweep.h) keeps only its score and the points around its best
// boundary, and the threshold is looked up for the node's winner alone;
// under real labels, a node of up to eight positions orders them per
// feature by a sorting network, and one of two to four sweeps each order
// once (learn/small_node_splits.h); the next small node's rank rows are
// asked for while the current one is searched.

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmot/dataset/node_sample.h"
#include "velmot/dataset/partition.h"
#include "velmot/dataset/sorted_feature.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"
#include "velmot/defs/random.h"
#include "velmot/defs/sorting_network.h"
#include "velmot/defs/tracker.h"
#include "velmot/learn/gini_bins.h"
#include "velmot/learn/growth_limits.h"
#include "velmot/learn/node_labels.h"
#include "velmot/learn/segmented_sweep.h"
#include "velmot/learn/small_node_splits.h"
#include "velmot/learn/split_search.h"
#include "velmot/learn/sweep.h"
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
// split's impurity, and the points around its boundary (ranks, whose values
// are looked up only if this feature wins, or values). For the seed both
// are the smallest.
template <class F>
struct SplitCandidate {
  int feature_index = -1;
  double impurity = 0.0;
  bool is_seed = true;
  SortedPoint<F> lower, upper;
};

// A feature's best split as the node's candidate; point_of turns the keys
// around its boundary into points.
template <class F, class Key, class PointOf>
SplitCandidate<F> candidate_of(int feature, const FeatureSplit<Key>& split, PointOf point_of) {
  SplitCandidate<F> candidate;
  candidate.feature_index = feature;
  candidate.impurity = split.impurity;
  candidate.is_seed = split.where.is_seed;
  candidate.lower = point_of(split.where.lower);
  candidate.upper = point_of(split.where.upper);
  return candidate;
}

// Scratch of the split search, reused across the nodes of a tree.
template <class D>
struct SearchWorkspace {
  // Packed keys that span fewer cells than there are keys are counted.
  explicit SearchWorkspace(bool exact_labels) : sorted(true, exact_labels) {}
  SortedFeature<D> sorted;
  SmallNodeSplits small;
  GiniBins bins;
  std::vector<double> node_counts;  // per label slot
};

// Under Gini with no leaf limit, a feature searched after another reached
// a positive score can only win, or tie, at a boundary that scores at
// least as high: its packed keys are binned first (learn/gini_bins.h) and
// only the bins that may hold such a boundary are sorted and swept
// (learn/segmented_sweep.h). Below this many keys the bins save less than
// they cost.
constexpr size_t pruned_search_min_keys = 64;
// Below the best score by this share: far above the rounding of any score
// (a few ulps), so a dropped boundary scores strictly below the best after
// the subtraction of the node's own score too.
constexpr double pruned_search_margin = 1e-10;

// The feature's best split, or false where gini_bins.h shows that none of
// its boundaries reaches the best score so far (`best`, a final score):
// the whole search would offer a lower score, which changes nothing.
template <class D, class Criterion>
bool pruned_search(NodeLabels<Criterion>& labels, LeafLimit limit, int fte, double best, SearchWorkspace<D>& workspace,
                   SplitCandidate<typename D::feature_type>& candidate, double& score) {
  typedef typename D::feature_type F;
  SortedFeature<D>& sorted = workspace.sorted;
  const auto& keys = sorted.gathered_keys();
  const double floor = (labels.initial_score() + best) * (1.0 - pruned_search_margin);
  uint32_t kept_min = 0, kept_max = 0;
  const size_t kept =
      workspace.bins.keep_above(keys.key, keys.n, keys.kmin, keys.kmax, keys.label_bits, keys.weight_bits,
                                workspace.node_counts.data(), workspace.node_counts.size(), floor, kept_min, kept_max);
  if (kept == 0) return false;
  const int rank_shift = keys.label_bits + keys.weight_bits;
  const uint32_t first_rank = keys.kmin >> rank_shift;
  const SegmentedKeys input{
      sorted.sort_kept(kept, kept_min, kept_max), kept, keys.label_bits, keys.weight_bits, first_rank, &workspace.bins};
  const FeatureSplit<uint32_t> split = best_segmented_split(input, labels.statistics(), labels.initial_score(), limit);
  score = split.score;
  candidate = candidate_of<F>(fte, split, [&sorted](uint32_t key) { return sorted.gathered_point(key); });
  return true;
}

// A node of two to SmallNodeSearch::max_positions positions with real
// labels, whose ranked features sort as ranked_positions
// (dataset/sorted_feature.h): each feature's positions are put in rank
// order (beyond four positions by a sorting network) and swept in place,
// without the sorted form's gathers and copies; a node of up to
// SmallNodeSplits::max_positions sweeps each order once
// (learn/small_node_splits.h). W5's trees, one
// thread, builds with and without at once on the two cores, twenty
// rounds: 2% less CPU time than with nodes of five to eight positions
// taking the sorted form; up to 16 positions, no less.
template <class D>
class SmallNodeSearch {
public:
  typedef typename D::feature_type F;
  typedef typename D::label_type L;

  static constexpr bool possible = learns_with_ranks<F, L>() && !std::is_integral<L>::value;

  static constexpr size_t max_positions = 8;

  static bool serves(const IndexedDataSet<D>& sample, size_t positions) {
    return possible && sample.ranks != nullptr && positions >= 2 && positions <= max_positions;
  }

  SmallNodeSearch(const RangeDataSet<IndexedDataSet<D>>& range, SmallNodeSplits& splits)
      : sample(*range.dataset), begin(range.begin_i), n(range.end_i - range.begin_i), splits(splits) {
    splits.begin(n);
    for (size_t i = 0; i < n; ++i) {
      label[i] = sample.get_label(begin + i);
      weight[i] = sample.get_weight(begin + i);
    }
  }

  // Feature f's split, as the sorted search would find it; false where f
  // has no ranks or two of its ranks are equal, which the sort handles.
  template <class Labels, class Criterion>
  bool search(int f, Labels& labels, const Criterion& criteria, LeafLimit limit, SplitCandidate<F>& candidate,
              double& score) {
    const size_t feature = static_cast<size_t>(f);
    if (!sample.ranks->has_ranks(feature)) return false;
    uint32_t rank[max_positions];
    uint8_t order[max_positions];
    for (size_t i = 0; i < n; ++i) rank[i] = sample.ranks->rank(feature, sample.indices[begin + i]);
    if (!order_of(feature, rank, order)) return false;
    const auto sweep = [&](const uint8_t* o) {
      return labels.best_split(
          distinct_sorted_keys<L>(
              n, [](size_t i) { return static_cast<uint32_t>(i); }, [this, o](size_t i) { return label[o[i]]; },
              [this, o](size_t i) { return weight[o[i]]; }),
          criteria, limit);
    };
    FeatureSplit<uint32_t> unkept;
    const FeatureSplit<uint32_t>& split =
        n <= SmallNodeSplits::max_positions ? splits.split(order, sweep) : (unkept = sweep(order));
    score = split.score;
    candidate.feature_index = f;
    candidate.impurity = split.impurity;
    candidate.is_seed = split.where.is_seed;
    candidate.lower.ranked = candidate.upper.ranked = true;
    candidate.lower.rank = rank[order[split.where.lower]];
    candidate.upper.rank = rank[order[split.where.upper]];
    return true;
  }

private:
  // The node's positions in ascending rank of the feature; false if two
  // ranks are equal. Beyond a few positions, keys (rank, position) through
  // the sorting network, where the ranks leave room for the position.
  bool order_of(size_t feature, const uint32_t* rank, uint8_t* order) const {
    constexpr int position_bits = 4;
    static_assert(max_positions <= (size_t(1) << position_bits), "a position fits its bits");
    if (n <= SmallNodeSplits::max_positions || sample.ranks->num_ranks(feature) > (size_t(1) << (32 - position_bits))) {
      return SmallNodeSplits::order_of(rank, n, order);
    }
    uint32_t key[max_positions];
    for (size_t i = 0; i < n; ++i) key[i] = (rank[i] << position_bits) | static_cast<uint32_t>(i);
    sort_by_network(key, key, n);
    unsigned equal = 0;
    for (size_t j = 0; j < n; ++j) {
      order[j] = static_cast<uint8_t>(key[j] & ((1u << position_bits) - 1));
      equal |= j > 0 && (key[j] >> position_bits) == (key[j - 1] >> position_bits);
    }
    return equal == 0;
  }

  const IndexedDataSet<D>& sample;
  size_t begin, n;
  SmallNodeSplits& splits;
  L label[max_positions];
  uint32_t weight[max_positions];
};

// The best split over the features chosen for one node, or an uninitialized
// tracker when no feature could be evaluated. Scores are the ones
// learn_tree_node reports, offered in the same order with the same draws.
template <class D, class Criterion>
Tracker<SplitCandidate<typename D::feature_type>, std::less<double>> search_features(
    const RangeDataSet<IndexedDataSet<D>>& range, NodeLabels<Criterion>& labels, int fte_per_split,
    const Criterion& criteria, LeafLimit limit, XorShiftRNG& random, DrawnFeatures& drawn,
    SearchWorkspace<D>& workspace) {
  typedef typename D::feature_type F;
  const int nf = static_cast<int>(range.get_num_features());
  const int k = (fte_per_split >= 1 && fte_per_split < nf) ? fte_per_split : nf;
  const bool random_mode = k != nf;
  // The instances the range's positions stand for.
  const size_t total = labels.total();
  labels.begin_search(criteria);
  SortedFeature<D>& sorted = workspace.sorted;
  Tracker<SplitCandidate<F>, std::less<double>> best_over_features;
  drawn.clear();
  std::optional<SmallNodeSearch<D>> small;
  if constexpr (SmallNodeSearch<D>::possible) {
    if (SmallNodeSearch<D>::serves(*range.dataset, range.end_i - range.begin_i)) small.emplace(range, workspace.small);
  }
  sorted.begin_node(*range.dataset, range.begin_i, range.end_i);
  [[maybe_unused]] bool prunable = false;
  if constexpr (std::is_same<Criterion, TwoSplitGiniImpurity>::value) {
    prunable = limit.min_side <= 1 &&
               static_cast<int64_t>(total) < GiniSides<NominalLabelPriorAccumulator<int>>::exact_sum_limit;
    if (prunable) {
      const auto& counts = labels.statistics();
      workspace.node_counts.resize(counts.get_num_slots());
      for (size_t slot = 0; slot < counts.get_num_slots(); ++slot) {
        workspace.node_counts[slot] = static_cast<double>(counts[static_cast<int>(slot)]);
      }
    }
  }
  for (int kk = 0; kk < k;) {
    int fte;
    if (random_mode) {
      if (drawn.size() == static_cast<size_t>(nf)) break;
      do {
        fte = static_cast<int>(random.next_int(nf));
      } while (drawn.contains(fte));
    } else if (NodeLabels<Criterion>::all_features_search_ends) {
      // Features in order, each once, whether constant or not.
      if (drawn.size() == static_cast<size_t>(nf)) break;
      fte = static_cast<int>(drawn.size());
    } else {
      fte = kk;
    }
    drawn.insert(fte);
    if (total < 2) continue;
    SplitCandidate<F> candidate;
    double score = 0.0;
    if constexpr (SmallNodeSearch<D>::possible) {
      if (small && small->search(fte, labels, criteria, limit, candidate, score)) {
        best_over_features.try_candidate_break_ties(score, candidate, random);
        ++kk;
        continue;
      }
    }
    // A constant feature is skipped and not counted.
    if constexpr (std::is_same<Criterion, TwoSplitGiniImpurity>::value) {
      const auto gathered =
          sorted.gather_unless_constant(*range.dataset, static_cast<size_t>(fte), range.begin_i, range.end_i);
      typedef typename SortedFeature<D>::Gathered Gathered;
      if (gathered == Gathered::constant) continue;
      if (gathered == Gathered::packed) {
        if (prunable && best_over_features.is_initialized() && best_over_features.get_maximum() > 0.0 &&
            sorted.gathered_keys().n >= pruned_search_min_keys && !sorted.would_count_gathered()) {
          if (pruned_search(labels, limit, fte, best_over_features.get_maximum(), workspace, candidate, score)) {
            best_over_features.try_candidate_break_ties(score, candidate, random);
          }
          ++kk;
          continue;
        }
        sorted.sort_gathered();
      }
    } else if (!sorted.sort_unless_constant(*range.dataset, static_cast<size_t>(fte), range.begin_i, range.end_i)) {
      continue;
    }
    candidate = sorted.search([&](const auto& input, auto point_of) {
      const auto split = labels.best_split(input, criteria, limit);
      score = split.score;
      return candidate_of<F>(fte, split, point_of);
    });
    best_over_features.try_candidate_break_ties(score, candidate, random);
    ++kk;
  }
  sorted.end_node();
  return best_over_features;
}

// Splits the range by the winner: returns the number sent left (value <
// threshold) and the threshold, the smallest value for the seed, else the
// threshold between the two values around the boundary. Ranks stand in for
// values when the threshold lies above the lower value and not above the
// upper one (or for the seed), which the usual midpoint does; the two
// values come from the feature's values by rank where it keeps them, else
// they are read at instances found during that partition. Any other
// rounding partitions (again) by value.
template <class D>
std::pair<size_t, typename D::feature_type> split_by_winner(const RangeDataSet<IndexedDataSet<D>>& range,
                                                            const SplitCandidate<typename D::feature_type>& c) {
  typedef typename D::feature_type F;
  IndexedDataSet<D>& sample = *range.dataset;
  const size_t f = static_cast<size_t>(c.feature_index);
  const size_t begin = range.begin_i, end = range.end_i;
  if (!c.lower.ranked) {
    const F t = c.is_seed ? c.lower.value : ThresholdInfo<F>::get_less_than_threshold(c.lower.value, c.upper.value);
    return {partition_by_value(sample, f, begin, end, t), t};
  }
  const FeatureRanks<F>& ranks = *sample.ranks;
  if (ranks.has_values_by_rank(f)) {
    const F lower = ranks.value_of_rank(f, c.lower.rank);
    if (c.is_seed) return {partition_by_rank(sample, ranks, f, begin, end, c.lower.rank), lower};
    const F upper = ranks.value_of_rank(f, c.upper.rank);
    const F t = ThresholdInfo<F>::get_less_than_threshold(lower, upper);
    if (lower < t && !(upper < t)) return {partition_by_rank(sample, ranks, f, begin, end, c.upper.rank), t};
    return {partition_by_value(sample, f, begin, end, t), t};
  }
  const F* column = sample.dataset->column(f);
  uint64_t holder[2] = {0, 0};
  const size_t left = partition_by_rank(sample, ranks, f, begin, end, c.is_seed ? c.lower.rank : c.upper.rank,
                                        {c.lower.rank, c.upper.rank}, holder);
  const F lower = ranks.value_at(column, f, holder[0]);
  if (c.is_seed) return {left, lower};
  const F upper = ranks.value_at(column, f, holder[1]);
  const F t = ThresholdInfo<F>::get_less_than_threshold(lower, upper);
  if (lower < t && !(upper < t)) return {left, t};
  sort_positions(sample, begin, end);
  return {partition_by_value(sample, f, begin, end, t), t};
}

}  // namespace learn_tree_detail

// A grower's node observer that ignores every node.
struct IgnoreNodes {
  template <class A>
  void operator()(const A&) const {}
};

// learn_tree without its checks of the input, for callers that checked it
// once per call (learn_forest, whose check covers every tree's sample),
// under any growth limits (learn/growth_limits.h). Every random choice
// draws from `random`. on_node(statistics) sees each node's label
// statistics (NodeLabels::statistics(): a histogram, or squared-error sums;
// empty for an empty node) once, in the order nodes are processed:
// breadth-first, the numbering of the tree arrays.
//
// grow_tree_in_place grows the same tree on a sample as drawn (no weights)
// itself, which it leaves holding each drawn instance once, in the order of
// the tree's leaves; grow_tree works on a copy of the sample's positions.
template <class D, class Criterion, class OnNode = IgnoreNodes>
Node<typename D::label_type>* grow_tree_in_place(IndexedDataSet<D>& indexed_data, int fte_per_split, int max_depth,
                                                 const GrowthLimits& limits, const Criterion& criteria,
                                                 bool compute_feature_importances,
                                                 std::vector<double>& feature_importances, XorShiftRNG& random,
                                                 OnNode on_node = OnNode()) {
  typedef typename D::label_type L;
  typedef typename D::feature_type F;
  typedef IndexedDataSet<D> I;

  const size_t root_n = indexed_data.weight_of(0, indexed_data.get_num_instances());
  // Sorted pairs do not depend on the order of a node's positions, so they
  // are kept ascending: gathers then read each column forwards. Repeated
  // instances become one weighted position each.
  indexed_data.merge_repeats();
  learn_tree_detail::DrawnFeatures drawn(indexed_data.get_num_features());
  NodeLabels<Criterion> labels;
  learn_tree_detail::SearchWorkspace<D> workspace(NodeLabels<Criterion>::exact_labels);
  std::deque<NodeLearnTask<L>> to_learn;
  Node<L>* root = new Node<L>();
  try {
    to_learn.emplace_back(root, -1, 2.2250738585072014e-308, 0, static_cast<int>(indexed_data.get_num_instances()), 0);
    while (!to_learn.empty()) {
      const NodeLearnTask<L> task = to_learn.front();
      to_learn.pop_front();
      // The next node's rank rows come in while this one is searched.
      if (!to_learn.empty()) {
        const NodeLearnTask<L>& next = to_learn.front();
        workspace.sorted.prefetch_rows(indexed_data, static_cast<size_t>(next.begin_i),
                                       static_cast<size_t>(next.end_i));
      }
      Node<L>* node = task.node;
      RangeDataSet<I> range(&indexed_data, static_cast<size_t>(task.begin_i), static_cast<size_t>(task.end_i));

      labels.count(range);
      on_node(labels.statistics());
      if (range.get_num_instances() == 0) {
        node->set_label(static_cast<L>(-2));
        continue;
      }
      // The node's instances, repeats included.
      const size_t n = labels.total();
      if (labels.is_pure() || limits.too_small(n)) {
        node->set_label(static_cast<L>(labels.leaf_value(random)));
        continue;
      }

      const auto winner = learn_tree_detail::search_features(range, labels, fte_per_split, criteria, limits.leaf,
                                                             random, drawn, workspace);
      int f = -1;
      F t = 0;
      double g = 0.0;
      int split_index = task.begin_i;
      if (winner.is_initialized()) {
        const auto& best = winner.get_maximizer();
        f = best.feature_index;
        const auto [left, threshold] = learn_tree_detail::split_by_winner(range, best);
        t = threshold;
        g = labels.improvement(best.impurity, criteria);
        split_index = task.begin_i + static_cast<int>(left);
      }
      if (!limits.decrease_suffices(g, root_n)) {
        node->set_label(static_cast<L>(labels.leaf_value(random)));
        continue;
      }
      node->set_threshold(static_cast<double>(t));
      node->set_label(static_cast<L>(-2));
      node->set_feature_index(f);
      // Credited before the children check: a node that then becomes a
      // leaf still credits its feature.
      if (compute_feature_importances && g > 0)
        feature_importances[static_cast<size_t>(f)] += labels.importance_credit(g, n);

      const bool depth_allows = !(max_depth > 0 && max_depth < task.depth + 1);
      const size_t left_size =
          indexed_data.weight_of(static_cast<size_t>(task.begin_i), static_cast<size_t>(split_index));
      if (limits.keeps(left_size, n) && depth_allows) {
        Node<L>* left_child = new Node<L>();
        node->set_left(left_child);
        Node<L>* right_child = new Node<L>();
        node->set_right(right_child);
        const double threshold = static_cast<double>(t);
        to_learn.emplace_back(left_child, f, threshold, task.begin_i, split_index, task.depth + 1);
        to_learn.emplace_back(right_child, f, threshold, split_index, task.end_i, task.depth + 1);
      } else {
        // The threshold stays in the leaf; prediction ignores it.
        node->set_label(static_cast<L>(labels.leaf_value(random)));
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

template <class D, class Criterion, class OnNode = IgnoreNodes>
Node<typename D::label_type>* grow_tree(const IndexedDataSet<D>& data, int fte_per_split, int max_depth,
                                        const GrowthLimits& limits, const Criterion& criteria,
                                        bool compute_feature_importances, std::vector<double>& feature_importances,
                                        XorShiftRNG& random, OnNode on_node = OnNode()) {
  // The copy takes the sample's positions and ranks only: buffers and sort
  // workspaces are filled per feature before they are read.
  IndexedDataSet<D> indexed_data(data.get_dataset());
  indexed_data.indices = data.indices;
  indexed_data.ranks = data.ranks;
  indexed_data.rank_order = data.rank_order;
  return grow_tree_in_place(indexed_data, fte_per_split, max_depth, limits, criteria, compute_feature_importances,
                            feature_importances, random, on_node);
}

// Under the library's growth rule with the given smallest leaf size.
template <class D, class Criterion>
Node<typename D::label_type>* grow_tree(const IndexedDataSet<D>& data, int fte_per_split, int max_depth,
                                        int min_leaf_size, const Criterion& criteria, bool compute_feature_importances,
                                        std::vector<double>& feature_importances, XorShiftRNG& random) {
  GrowthLimits limits;
  limits.min_leaf_size = min_leaf_size;
  return grow_tree(data, fte_per_split, max_depth, limits, criteria, compute_feature_importances, feature_importances,
                   random);
}

// The same, drawing from the calling worker's pool generator (the pool
// cannot change while a tree grows, so it is fetched once).
template <class D, class Criterion>
Node<typename D::label_type>* grow_tree(const IndexedDataSet<D>& data, int fte_per_split, int max_depth,
                                        int min_leaf_size, const Criterion& criteria, bool compute_feature_importances,
                                        std::vector<double>& feature_importances) {
  return grow_tree(data, fte_per_split, max_depth, min_leaf_size, criteria, compute_feature_importances,
                   feature_importances, thread_generator());
}

// Grows a tree on the sample `data` and returns its root, owned by the
// caller. With compute_feature_importances, each split adds its impurity
// decrease times its slice size to feature_importances (sized by the caller,
// one entry per feature at least), which is then normalised to sum 1.
template <class D, class Criterion>
Node<typename D::label_type>* learn_tree(const IndexedDataSet<D>& data, int fte_per_split, int max_depth,
                                         int min_leaf_size, const Criterion& criteria, bool compute_feature_importances,
                                         std::vector<double>& feature_importances) {
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
  return grow_tree(data, fte_per_split, max_depth, min_leaf_size, criteria, compute_feature_importances,
                   feature_importances);
}

}  // namespace Velmot

#endif
