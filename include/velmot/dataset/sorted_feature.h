#ifndef VELMOT_DATASET_SORTED_FEATURE_H
#define VELMOT_DATASET_SORTED_FEATURE_H

// SortedFeature: a node's (value, label) pairs of one feature, sorted for
// the split sweep (learn/sweep.h), in whichever form is cheapest, behind one
// interface: the grower sorts (sort_unless_constant) and hands a search to
// search(), which returns the points it kept.
// How the pairs are held stays in this file.
//
// Glossary:
//   key     what the sweep compares instead of a value: the value itself, or
//           its rank among the feature's distinct values (dataset/
//           feature_ranks.h), or a byte value; equal keys mean equal values;
//   point   a key turned back into something the grower can keep: a rank
//           of the feature (the grower reads its value at an instance of
//           the node that holds it, learn/learn_tree.h) or a value;
//   weight  how many pairs an element stands for (dataset/node_sample.h,
//           merge_repeats).
//
// The forms, chosen per feature and node:
// - packed_ranks: a ranked feature with integer labels: one 32-bit key per
//   position, (rank, label + 1[, weight]) from the high bits down, sorted by
//   PackedRankSort, or only counted into cells (one per (rank, label)) when
//   the node's ranks span no more cells than it has positions;
// - packed_values: the same for byte features, the value serving as rank;
// - ranked_positions: a ranked feature with real labels (which do not
//   pack): each position's rank sorted with the position, its label and
//   weight read through it (dataset/ranked_positions.h); in a node that
//   holds a large share of the instances, a feature with a rank order
//   (dataset/rank_order.h) has them walked out in order instead
//   (dataset/node_rank_walk.h, between begin_node and end_node);
// - in_buffer: any other feature: (value, label) pairs, a copy per
//   instance, sorted by FlexiSort (defs/sort.h).
// Every form leaves the elements ascending by value and, within equal
// values, ascending by label, whatever order the positions came in: so the
// sweep, and the tree, are the same whichever form a node used.
//
// What the sweep reads (its input), in one of two shapes:
// - SortedKeys: n sorted elements through key_at(i), label_at(i),
//   weight_at(i);
// - CountedCells: cells of a histogram of packed keys, in key order; a cell
//   of c equal pairs is one element of weight c, empty cells are skipped;
// - DistinctPositionedKeys: SortedKeys over distinct ranks that also tell
//   each element's node position.
// All offer first() (the first element), first_key(), last_key() and
// for_each_after_first(visit), visit(key, label, weight) for every later
// element in order.

#include <array>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmot/dataset/feature_ranks.h"
#include "velmot/dataset/node_rank_walk.h"
#include "velmot/dataset/node_sample.h"
#include "velmot/dataset/rank_order.h"
#include "velmot/dataset/ranked_positions.h"
#include "velmot/defs/sort.h"

namespace Velmot {

template <class Key, class L>
struct SortedElement {
  Key key;
  L label;
  uint32_t weight;
};

// Every sorted element stands for one pair.
struct UnitWeight {
  uint32_t operator()(size_t) const { return 1; }
};

// distinct: no two of the keys are equal (a fact the sweep's sides may use).
template <class L, class KeyAt, class LabelAt, class WeightAt, bool distinct = false>
class SortedKeys {
public:
  typedef typename std::decay<decltype(std::declval<KeyAt>()(size_t()))>::type key_type;
  typedef L label_type;
  static constexpr bool distinct_keys = distinct;

  SortedKeys(size_t n, KeyAt key_at, LabelAt label_at, WeightAt weight_at)
      : n(n), key_at(key_at), label_at(label_at), weight_at(weight_at) {}

  SortedElement<key_type, L> first() const { return {key_at(0), label_at(0), weight_at(0)}; }
  key_type first_key() const { return key_at(0); }
  key_type last_key() const { return key_at(n - 1); }
  template <class Visit>
  [[gnu::always_inline]] void for_each_after_first(Visit&& visit) const {
    for (size_t i = 1; i < n; ++i) visit(key_at(i), label_at(i), weight_at(i));
  }

private:
  size_t n;
  KeyAt key_at;
  LabelAt label_at;
  WeightAt weight_at;
};

// n > 0 elements, the labels as L.
template <class L, class KeyAt, class LabelAt, class WeightAt>
SortedKeys<L, KeyAt, LabelAt, WeightAt> sorted_keys(size_t n, KeyAt key_at, LabelAt label_at, WeightAt weight_at) {
  return SortedKeys<L, KeyAt, LabelAt, WeightAt>(n, key_at, label_at, weight_at);
}
// The same over distinct keys.
template <class L, class KeyAt, class LabelAt, class WeightAt>
SortedKeys<L, KeyAt, LabelAt, WeightAt, true> distinct_sorted_keys(size_t n, KeyAt key_at, LabelAt label_at,
                                                                   WeightAt weight_at) {
  return SortedKeys<L, KeyAt, LabelAt, WeightAt, true>(n, key_at, label_at, weight_at);
}

// Distinct keys whose labels and weights lie at node positions: element i
// has label[position_at(i)] and weight[position_at(i)].
// through_positions(of) gives the same keys with element i's label read as
// of(position_at(i)), for sides that keep their own values per position.
template <class L, class PositionAt>
struct LabelThroughPosition {
  const L* label;
  PositionAt position_at;
  L operator()(size_t i) const { return label[position_at(i)]; }
};
template <class PositionAt>
struct WeightThroughPosition {
  const uint32_t* weight;
  PositionAt position_at;
  uint32_t operator()(size_t i) const { return weight[position_at(i)]; }
};
template <class L, class KeyAt, class PositionAt>
class DistinctPositionedKeys
    : public SortedKeys<L, KeyAt, LabelThroughPosition<L, PositionAt>, WeightThroughPosition<PositionAt>, true> {
public:
  static constexpr bool positioned = true;

  DistinctPositionedKeys(size_t n, KeyAt key_at, PositionAt position_at, const L* label, const uint32_t* weight)
      : SortedKeys<L, KeyAt, LabelThroughPosition<L, PositionAt>, WeightThroughPosition<PositionAt>, true>(
            n, key_at, {label, position_at}, {weight, position_at}),
        n(n),
        key_at(key_at),
        position_at(position_at) {}

  template <class Of>
  auto through_positions(Of of) const {
    const PositionAt at = position_at;
    return distinct_sorted_keys<decltype(of(uint32_t()))>(
        n, key_at, [of, at](size_t i) { return of(at(i)); }, UnitWeight());
  }

private:
  size_t n;
  KeyAt key_at;
  PositionAt position_at;
};

// Whether an input reads its elements through node positions.
template <class Input, class = void>
struct has_positions : std::false_type {};
template <class Input>
struct has_positions<Input, std::void_t<decltype(Input::positioned)>>
    : std::integral_constant<bool, Input::positioned> {};

// Whether an input's keys are all distinct: false unless it says so.
template <class Input, class = void>
struct has_distinct_keys : std::false_type {};
template <class Input>
struct has_distinct_keys<Input, std::void_t<decltype(Input::distinct_keys)>>
    : std::integral_constant<bool, Input::distinct_keys> {};

// Cell k counts the pairs whose packed key is k: rank k >> label_bits,
// label (k & mask) - 1. At least one cell is not empty.
template <class L>
class CountedCells {
public:
  typedef uint32_t key_type;
  typedef L label_type;

  CountedCells(const uint32_t* cell, size_t num_cells, int label_bits)
      : cell(cell), num_cells(num_cells), label_bits(label_bits), label_mask((uint32_t(1) << label_bits) - 1) {
    while (cell[first_cell] == 0) ++first_cell;
    while (cell[last_cell - 1] == 0) --last_cell;
  }

  SortedElement<uint32_t, L> first() const { return {key_of(first_cell), label_of(first_cell), cell[first_cell]}; }
  uint32_t first_key() const { return key_of(first_cell); }
  uint32_t last_key() const { return key_of(last_cell - 1); }
  template <class Visit>
  [[gnu::always_inline]] void for_each_after_first(Visit&& visit) const {
    for (size_t k = first_cell + 1; k < last_cell; ++k) {
      if (cell[k] == 0) continue;
      visit(key_of(k), label_of(k), cell[k]);
    }
  }

private:
  uint32_t key_of(size_t k) const { return static_cast<uint32_t>(k >> label_bits); }
  L label_of(size_t k) const { return static_cast<L>(static_cast<int64_t>(k & label_mask) - 1); }

  const uint32_t* cell;
  size_t num_cells;
  int label_bits;
  uint32_t label_mask;
  size_t first_cell = 0;
  size_t last_cell = num_cells;
};

// A key the search kept, as the grower keeps it.
template <class F>
struct SortedPoint {
  bool ranked = false;
  uint32_t rank = 0;  // if ranked
  F value{};          // otherwise
};

template <class D>
class SortedFeature {
public:
  typedef typename D::feature_type F;
  typedef typename D::label_type L;
  typedef IndexedDataSet<D> Sample;
  typedef std::pair<F, L> pair_type;
  enum Form { in_buffer, ranked_positions, packed_ranks, packed_values };

  // With count_dense_keys, packed keys that span fewer cells than there are
  // keys are counted instead of sorted (CountedCells). With exact_labels,
  // real labels beside integer values are sorted as they are: the counting
  // sort would put them on an integer grid, which only the label classes of
  // classification allow.
  explicit SortedFeature(bool count_dense_keys = false, bool exact_labels = false)
      : count_dense_keys(count_dense_keys), exact_labels(exact_labels) {}

  // Prepares the search of the node at the sample's positions [begin, end):
  // a node holding a large enough share of a sample's distinct instances
  // walks the rank orders of its features. end_node() ends it, before the
  // positions move.
  void begin_node(const Sample& sample, size_t begin, size_t end) {
    if constexpr (learns_with_ranks<F, L>() && !std::is_integral<L>::value) {
      const RankOrder* order = sample.rank_order;
      const size_t n = end - begin;
      // Merged repeats: each instance holds one position.
      if (order != nullptr && !sample.position_weights.empty() && order->walks(n) &&
          order->num_instances() == sample.dataset->get_num_instances()) {
        walk.enter(sample.indices.data() + begin, n, order->num_instances());
        rank_order = order;
      }
    }
  }
  void end_node() {
    if (walk.active()) walk.leave();
  }

  // Asks the cache for the whole rank rows (dataset/feature_ranks.h) of a
  // small node, where the rows span a few cache lines; the grower asks for
  // the next node's while it searches the current one. Each of a small
  // node's instances is a miss of its own, and the reads of one feature
  // after another would wait for each in turn; asked for together, ahead,
  // the misses overlap. One thread, builds with and without at once on the
  // two cores: W5's regression trees (13 features a node) took 4% less CPU
  // time with the node's own rows asked for at its start (nodes of up to
  // 4, 16 or 64 positions alike), and 2% less again with the next node's
  // asked for instead; W1's (6 features) 1 to 2% less.
  void prefetch_rows(const Sample& sample, size_t begin, size_t end) {
    const FeatureRanks<F>* table = sample.ranks;
    constexpr size_t line = 64 / sizeof(uint32_t);
    if (table == nullptr || !table->has_rows() || end - begin > max_prefetched_node) return;
    const size_t stride = table->row_stride();
    if (stride > max_prefetched_row_lines * line) return;
    const uint32_t* rows = table->row_ranks(0);
    const uint32_t* position = sample.indices.data();
    for (size_t p = begin; p < end; ++p) {
      const uint32_t* row = rows + static_cast<size_t>(position[p]) * stride;
      for (size_t f = 0; f < stride; f += line) __builtin_prefetch(row + f);
      __builtin_prefetch(row + stride - 1);
    }
    rows_prefetched = end - begin;  // a side effect: a function of prefetches alone is dropped as pure
  }

  // Sorts the pairs of the feature at the sample's positions [begin, end),
  // unless the feature is constant there (then false, and nothing to
  // search). The sample's ranks, where it has them, stand in for values.
  bool sort_unless_constant(const Sample& sample, size_t feature_index, size_t begin, size_t end) {
    form = in_buffer;
    ranks = sample.ranks;
    const size_t n = end - begin;
    if constexpr (learns_with_ranks<F, L>()) {
      if (ranks != nullptr && ranks->has_ranks(feature_index)) {
        if (n <= 1) return false;
        if constexpr (std::is_integral<L>::value) {
          if (packable(sample, sample.dataset->get_num_instances())) {
            if (ranks->rows_serve(n)) {
              return gather_and_sort_packed(sample, ranks->row_ranks(feature_index), begin, n, packed_ranks,
                                            ranks->row_stride());
            }
            return ranks->visit_ranks(feature_index, [&](const auto* column) {
              return gather_and_sort_packed(sample, column, begin, n, packed_ranks);
            });
          }
        }
        return gather_and_sort_ranks(sample, feature_index, begin, n);
      }
    }
    if constexpr (std::is_same<F, unsigned char>::value && std::is_integral<L>::value) {
      if (n <= 1) return false;
      if (packable(sample, 255)) {
        return gather_and_sort_packed(sample, sample.dataset->column(feature_index), begin, n, packed_values);
      }
    }
    if (sample.is_homogeneous(feature_index, begin, end)) return false;
    gather_and_sort_values(sample, feature_index, begin, end);
    return true;
  }

  Form sorted_form() const { return form; }

  // Packed keys gathered and not yet sorted (gather_unless_constant):
  // key[0, n), smallest kmin, largest kmax, packed as for PackedRankSort.
  struct GatheredKeys {
    uint32_t* key;
    size_t n;
    uint32_t kmin, kmax;
    int label_bits, weight_bits;
    bool ranked;  // ranks, else byte values
  };
  enum class Gathered { constant, sorted, packed };

  // sort_unless_constant, except that a feature whose pairs pack into keys
  // is only gathered (Gathered::packed, gathered_keys()): the caller then
  // sorts them all (sort_gathered) or those it keeps (sort_kept).
  Gathered gather_unless_constant(const Sample& sample, size_t feature_index, size_t begin, size_t end) {
    defer_packed_sort = true;
    gathered_only = false;
    const bool varies = sort_unless_constant(sample, feature_index, begin, end);
    defer_packed_sort = false;
    if (!varies) return Gathered::constant;
    return gathered_only ? Gathered::packed : Gathered::sorted;
  }
  const GatheredKeys& gathered_keys() const { return gathered; }
  // The point a gathered key's rank field stands for.
  SortedPoint<F> gathered_point(uint32_t rank) const {
    SortedPoint<F> point;
    point.ranked = gathered.ranked;
    if (gathered.ranked) {
      point.rank = rank;
    } else {
      point.value = static_cast<F>(rank);  // a byte value is its own rank
    }
    return point;
  }
  // Whether sort_gathered would count the keys into cells, not sort them.
  bool would_count_gathered() const {
    const GatheredKeys& g = gathered;
    const uint32_t base = (g.kmin >> (g.label_bits + g.weight_bits)) << g.label_bits;
    return count_dense_keys && g.n > 2 && static_cast<size_t>((g.kmax >> g.weight_bits) - base) + 1 <= g.n;
  }
  // Sorts (or counts) every gathered key, for search().
  void sort_gathered() {
    const GatheredKeys& g = gathered;
    counted = !packed_sort.sort_or_count(g.n, g.kmin, g.kmax, g.label_bits, count_dense_keys && g.n > 2, g.weight_bits);
    sorted_count = g.n;
    form = g.ranked ? packed_ranks : packed_values;
  }
  // Sorts the first n gathered keys (smallest kmin, largest kmax), which the
  // caller chose and moved there; returns them sorted.
  const uint32_t* sort_kept(size_t n, uint32_t kmin, uint32_t kmax) {
    const GatheredKeys& g = gathered;
    packed_sort.sort(n, kmin, kmax, g.label_bits + g.weight_bits, g.weight_bits);
    return packed_sort.sorted();
  }

  // Runs search(input, point_of) on the last sorted feature and returns what
  // it returns: input is a SortedKeys or a CountedCells, point_of(key) the
  // SortedPoint of one of its keys. The search's result type must not
  // depend on the input's.
  template <class Search>
  auto search(Search&& search) const {
    if (form == packed_ranks || form == packed_values) {
      // Cells count from the histogram's base; sorted keys are whole.
      const uint32_t base = counted ? packed_sort.cell_base() >> label_bits : 0;
      const bool ranked = form == packed_ranks;
      auto point_of = [ranked, base](uint32_t key) {
        SortedPoint<F> point;
        point.ranked = ranked;
        if (ranked) {
          point.rank = key + base;
        } else {
          point.value = static_cast<F>(key + base);  // a byte value is its own rank
        }
        return point;
      };
      if (counted) {
        return search(CountedCells<L>(packed_sort.cell_counts(), packed_sort.cell_count(), label_bits), point_of);
      }
      // Keys are (rank, label + 1, weight) from the high bits down; an
      // unweighted key (no weight bits) stands for one pair.
      const uint32_t* key = packed_sort.sorted();
      const uint32_t label_mask = (uint32_t(1) << label_bits) - 1;
      const int weights = weight_bits;
      const int rank_shift = label_bits + weight_bits;
      const uint32_t weight_mask = (uint32_t(1) << weight_bits) - 1;
      const uint32_t unit = weight_bits == 0 ? 1 : 0;
      return search(sorted_keys<L>(
                        sorted_count, [key, rank_shift](size_t i) { return key[i] >> rank_shift; },
                        [key, label_mask, weights](size_t i) {
                          return static_cast<L>(static_cast<int64_t>((key[i] >> weights) & label_mask) - 1);
                        },
                        [key, weight_mask, unit](size_t i) { return (key[i] & weight_mask) + unit; }),
                    point_of);
    }
    if (form == ranked_positions) {
      const uint32_t offset = ranked.rank_offset();
      auto point_of = [offset](uint32_t key) {
        SortedPoint<F> point;
        point.ranked = true;
        point.rank = key + offset;
        return point;
      };
      const L* label = node_label;
      const uint32_t* weight = node_weight;
      return ranked.visit([&](auto key_at, auto position_at) {
        auto label_at = [label, position_at](size_t i) { return label[position_at(i)]; };
        auto weight_at = [weight, position_at](size_t i) { return weight[position_at(i)]; };
        // Under real labels only: the classification sweeps keep one input
        // form here.
        if constexpr (!std::is_integral<L>::value) {
          if (ranked.distinct_ranks()) {
            typedef DistinctPositionedKeys<L, decltype(key_at), decltype(position_at)> Positioned;
            return search(Positioned(sorted_count, key_at, position_at, label, weight), point_of);
          }
        }
        return search(sorted_keys<L>(sorted_count, key_at, label_at, weight_at), point_of);
      });
    }
    const pair_type* pair = pairs.data();
    return search(sorted_keys<L>(
                      sorted_count, [pair](size_t i) { return pair[i].first; },
                      [pair](size_t i) { return pair[i].second; }, UnitWeight()),
                  [](F value) {
                    SortedPoint<F> point;
                    point.value = value;
                    return point;
                  });
  }

private:
  // How far ahead the rank gather asks for the rank of a coming position:
  // each is a cache miss into a column of the whole data set. 16 trees on
  // 100,000 x 40 doubles, one thread, alternating runs: 5.41 and 5.70 s CPU
  // without, 5.00 and 5.41 s with.
  static constexpr size_t prefetch_distance = 16;
  // Columns larger than a core's share of the L2 answer from the L3 or from
  // memory, where more misses must be in flight than the L1 can track: a
  // second prefetch, into the L2 only, then runs further ahead. 100,000 and
  // 200,000 x 40 doubles, two threads, eight alternating runs: 3-5% and
  // 2-3% faster; at 25,000 about 1% slower, hence the size test.
  static constexpr size_t far_prefetch_distance = 96;
  static constexpr size_t far_prefetch_column_bytes = 256 * 1024;

  // Whether (rank, label + 1) and, with weights, the weight fit one 32-bit
  // key for every rank up to largest_rank and every label of the data set;
  // sets label_bits and weight_bits.
  bool packable(const Sample& sample, uint64_t largest_rank) {
    const uint64_t largest_code = static_cast<uint64_t>(sample.get_num_classes()) + 1;
    const int labels = std::max(1, std::min(32, sort_detail::bit_width(largest_code)));
    const int weights = sample.position_weights.empty() ? 0 : sort_detail::bit_width(sample.largest_weight);
    const int low_bits = labels + weights;
    if (low_bits >= 32 || (largest_rank >> (32 - low_bits)) != 0) return false;
    label_bits = labels;
    weight_bits = weights;
    return true;
  }

  // Runs take(i) for every i in [0, n), prefetching the rank of the
  // position prefetch_distance ahead and, with far, also the one
  // far_prefetch_distance ahead (into L2). The loop is split where the
  // prefetches run out, so that no key pays for a test of its own.
  template <class Rank, class Take>
  [[gnu::always_inline]] static void gather_prefetched(const Rank* rank_of, const uint32_t* position, size_t stride,
                                                       size_t n, bool far, Take& take) {
    size_t i = 0;
    if (far) {
      for (; i + far_prefetch_distance < n; ++i) {
        __builtin_prefetch(rank_of + position[i + far_prefetch_distance] * stride, 0, 1);
        __builtin_prefetch(rank_of + position[i + prefetch_distance] * stride);
        take(i);
      }
    }
    for (; i + prefetch_distance < n; ++i) {
      __builtin_prefetch(rank_of + position[i + prefetch_distance] * stride);
      take(i);
    }
    for (; i < n; ++i) take(i);
  }

  // Gathers ((rank_of[instance * stride], label) [, weight]) keys of the
  // range and sorts (or counts) them; rank_of is the feature's ranks (a
  // column, stride 1, or its place in the rows) or, for bytes, its values.
  // False if every key has one rank: a constant feature.
  template <class Rank>
  bool gather_and_sort_packed(const Sample& sample, const Rank* rank_of, size_t begin, size_t n, Form packed_form,
                              size_t stride = 1) {
    packed_sort.prepare(n);
    uint32_t* key = packed_sort.keys();
    const uint32_t* position = sample.indices.data() + begin;
    const uint32_t* weight = sample.position_weights.empty() ? nullptr : sample.position_weights.data() + begin;
    const int shift = label_bits;
    const int weights = weight_bits;
    uint32_t kmin = std::numeric_limits<uint32_t>::max(), kmax = 0;
    const bool far_prefetch = sample.dataset->get_num_instances() * sizeof(Rank) > far_prefetch_column_bytes;
    // The grower's labels follow its positions: that loop reads them there,
    // with no test per key (W1 and W2, one thread: 4-5% less CPU time in
    // growing); any other sample's through get_label.
    auto gather = [&](auto key_of, auto label_of) {
      auto take = [&](size_t i) {
        const uint32_t k = key_of(i, (static_cast<uint32_t>(rank_of[position[i] * stride]) << shift) |
                                         static_cast<uint32_t>(label_of(i) + 1));
        key[i] = k;
        kmin = std::min(kmin, k);
        kmax = std::max(kmax, k);
      };
      gather_prefetched(rank_of, position, stride, n, far_prefetch, take);
    };
    const auto with_labels = [&](auto key_of) {
      if (sample.labels_follow) {
        const L* followed = sample.position_labels.data() + begin;
        gather(key_of, [followed](size_t i) { return followed[i]; });
      } else {
        gather(key_of, [&sample, begin](size_t i) { return sample.get_label(begin + i); });
      }
    };
    if (weight == nullptr) {
      with_labels([](size_t, uint32_t rank_and_label) { return rank_and_label; });
    } else {
      with_labels(
          [weight, weights](size_t i, uint32_t rank_and_label) { return (rank_and_label << weights) | weight[i]; });
    }
    if ((kmin >> (shift + weights)) == (kmax >> (shift + weights))) return false;
    if (defer_packed_sort) {
      gathered = {key, n, kmin, kmax, shift, weights, packed_form == packed_ranks};
      gathered_only = true;
      return true;
    }
    // A range of two is never split, so it is never worth counting.
    counted = !packed_sort.sort_or_count(n, kmin, kmax, shift, count_dense_keys && n > 2, weights);
    sorted_count = n;
    form = packed_form;
    return true;
  }

  // (rank, position) of a ranked feature with real labels, each distinct
  // instance once. False for a constant feature.
  bool gather_and_sort_ranks(const Sample& sample, size_t feature_index, size_t begin, size_t n) {
    follow_positions(sample, begin, n);
    if (walk.active() && rank_order->has_order(feature_index)) {
      uint32_t* const rank = ranked.walked_ranks(n);
      walk.walk(rank_order->order(feature_index), rank, ranked.walked_positions());
      if (!ranked.take_walked(n)) return false;
      sorted_count = n;
      form = ranked_positions;
      return true;
    }
    const size_t num_ranks = ranks->num_ranks(feature_index);
    if (ranks->rows_serve(n)) {
      return gather_and_sort_ranks(sample, ranks->row_ranks(feature_index), begin, n, num_ranks, ranks->row_stride());
    }
    return ranks->visit_ranks(feature_index, [&](const auto* column) {
      return gather_and_sort_ranks(sample, column, begin, n, num_ranks, 1);
    });
  }
  template <class Rank>
  bool gather_and_sort_ranks(const Sample& sample, const Rank* rank_of, size_t begin, size_t n, size_t num_ranks,
                             size_t stride) {
    uint32_t* key = ranked.prepare(n, num_ranks);
    const int shift = ranked.shift();
    const uint32_t mask = ranked.position_mask();
    const uint32_t* position = sample.indices.data() + begin;
    uint32_t kmin = std::numeric_limits<uint32_t>::max(), kmax = 0;
    auto take = [&](size_t i) {
      const uint32_t k =
          (static_cast<uint32_t>(rank_of[position[i] * stride]) << shift) | (static_cast<uint32_t>(i) & mask);
      key[i] = k;
      kmin = std::min(kmin, k);
      kmax = std::max(kmax, k);
    };
    const bool far_prefetch = sample.dataset->get_num_instances() * stride * sizeof(Rank) > far_prefetch_column_bytes;
    gather_prefetched(rank_of, position, stride, n, far_prefetch, take);
    // A feature with as many ranks as the data set has instances has no
    // ties to put in label order, unless an instance fills several
    // positions (repeats not merged).
    const bool may_tie = num_ranks < sample.dataset->get_num_instances() || sample.position_weights.empty();
    if (!ranked.sort(n, kmin, kmax, node_label, may_tie)) return false;
    sorted_count = n;
    form = ranked_positions;
    return true;
  }

  // Points node_label and node_weight at the labels and weights of the
  // positions [begin, begin + n), copied out where the sample does not
  // carry them per position.
  void follow_positions(const Sample& sample, size_t begin, size_t n) {
    if (sample.labels_follow) {
      node_label = sample.position_labels.data() + begin;
    } else {
      label_copy.resize(n);
      for (size_t i = 0; i < n; ++i) label_copy[i] = sample.get_label(begin + i);
      node_label = label_copy.data();
    }
    if (!sample.position_weights.empty()) {
      node_weight = sample.position_weights.data() + begin;
    } else {
      weight_copy.assign(n, 1u);
      node_weight = weight_copy.data();
    }
  }

  // (value, label) pairs, a copy per instance, sorted by value then label.
  void gather_and_sort_values(const Sample& sample, size_t feature_index, size_t begin, size_t end) {
    sorted_count = sample.weight_of(begin, end);
    if (pairs.size() < sorted_count) pairs.resize(sorted_count);
    const F* column = sample.dataset->column(feature_index);
    size_t out = 0;
    for (size_t p = begin; p < end; ++p) {
      const pair_type pair(column[sample.indices[p]], sample.get_label(p));
      for (uint32_t c = sample.get_weight(p); c > 0; --c) pairs[out++] = pair;
    }
    const auto last = pairs.begin() + static_cast<std::ptrdiff_t>(sorted_count);
    if constexpr (std::is_integral<F>::value && std::is_floating_point<L>::value) {
      if (exact_labels) {
        sort_detail::comparison_sort(pairs.begin(), last);
        return;
      }
    }
    flexi_sort.sort(feature_index, pairs.begin(), last, FeatureLabelLessThan<pair_type>());
  }

  bool count_dense_keys;
  bool exact_labels;
  Form form = in_buffer;
  // Elements of the sorted form (not of CountedCells).
  size_t sorted_count = 0;
  const FeatureRanks<F>* ranks = nullptr;
  std::vector<pair_type> pairs;
  FlexiSort<F, L> flexi_sort;
  RankedPositions ranked;
  NodeRankWalk walk;
  const RankOrder* rank_order = nullptr;
  const L* node_label = nullptr;
  const uint32_t* node_weight = nullptr;
  std::vector<L> label_copy;
  std::vector<uint32_t> weight_copy;
  PackedRankSort packed_sort;
  static constexpr size_t max_prefetched_node = 64;
  static constexpr size_t max_prefetched_row_lines = 4;
  size_t rows_prefetched = 0;
  int label_bits = 0;
  // Low bits of a packed key that hold its position's weight (with weights).
  int weight_bits = 0;
  // Whether the last packed gather was counted instead of sorted.
  bool counted = false;
  // gather_unless_constant's state: whether packed keys are only gathered,
  // whether the last feature's were, and where.
  bool defer_packed_sort = false;
  bool gathered_only = false;
  GatheredKeys gathered{};
};

}  // namespace Velmot

#endif
