#ifndef VELMOT_DATASET_PARTITION_H
#define VELMOT_DATASET_PARTITION_H

// Partitioning a node's positions of the sample once its split is chosen:
// the instances going left (value below the threshold, compared in the
// feature type; equal and not-a-number values go right, as in prediction)
// move to the front of [begin, end), in place, and their number is
// returned; the children then take the two sub-ranges.
//
// The partition is stable: each part keeps its positions in their order.
// The grower keeps a node's positions ascending by instance number, so
// that its gathers read each column forwards, and a stable partition keeps
// both children ascending. The followed labels and the weights of the
// positions (dataset/node_sample.h) move with them.
//
// S is an IndexedDataSet (dataset/node_sample.h).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "velmot/dataset/feature_ranks.h"

namespace Velmot {

// The right part of a partition, gathered before it is copied back behind
// the left one: scratch the sample keeps across its nodes.
template <class L>
struct PartitionScratch {
  std::vector<uint32_t> indices;
  std::vector<L> labels;
  std::vector<uint32_t> weights;
};

// Asks for nothing ahead.
struct NothingAhead {
  void operator()(uint64_t) const {}
};

// How far ahead a partition asks for what goes_left will read.
constexpr size_t partition_prefetch_distance = 16;

// Asks for an instance's rank in the rank rows. The rows exist where the
// ranks outgrow the cache, and a large node's rows have left it since its
// gathers: W1 (100,000 x 40 doubles, one thread) 2% faster. The columns
// are asked for nothing: there it was 2% slower.
struct RowsAhead {
  const uint32_t* rows;
  size_t stride;
  void operator()(uint64_t i) const { __builtin_prefetch(rows + i * stride); }
};

// Stable partition of positions [begin, end) by goes_left(instance); returns
// the left count. ahead(instance) is called partition_prefetch_distance
// positions before goes_left(instance), to ask for what that will read.
template <class S, class GoesLeft, class Ahead = NothingAhead>
size_t partition_positions(S& sample, size_t begin, size_t end, GoesLeft goes_left, Ahead ahead = Ahead()) {
  typedef typename S::label_type L;
  PartitionScratch<L>& right_part = sample.partition_scratch;
  uint32_t* index = sample.indices.data();
  L* label = sample.labels_follow ? sample.position_labels.data() : nullptr;
  uint32_t* weight = sample.position_weights.empty() ? nullptr : sample.position_weights.data();
  right_part.indices.resize(end - begin);
  if (label != nullptr) right_part.labels.resize(end - begin);
  if (weight != nullptr) right_part.weights.resize(end - begin);
  // Each position is written to both parts and only the part it belongs
  // to advances (the left part's slot is never ahead of p): no branch on
  // the split, which falls either way at random.
  uint32_t* right_index = right_part.indices.data();
  L* right_label = right_part.labels.data();
  uint32_t* right_weight = right_part.weights.data();
  size_t left = begin, right = 0;
  const auto place = [&](size_t p) {
    const uint32_t i = index[p];
    const bool to_left = goes_left(i);
    index[left] = i;
    right_index[right] = i;
    if (label != nullptr) {
      label[left] = label[p];
      right_label[right] = label[p];
    }
    if (weight != nullptr) {
      weight[left] = weight[p];
      right_weight[right] = weight[p];
    }
    left += to_left;
    right += !to_left;
  };
  // Slots after p are not yet written over. The loop is split where the
  // asking ends, so that no position pays for a test of its own.
  size_t p = begin;
  for (; p + partition_prefetch_distance < end; ++p) {
    ahead(index[p + partition_prefetch_distance]);
    place(p);
  }
  for (; p < end; ++p) place(p);
  const auto moved = static_cast<std::ptrdiff_t>(right);
  std::copy(right_part.indices.begin(), right_part.indices.begin() + moved, index + left);
  if (label != nullptr) std::copy(right_part.labels.begin(), right_part.labels.begin() + moved, label + left);
  if (weight != nullptr) std::copy(right_part.weights.begin(), right_part.weights.begin() + moved, weight + left);
  return left - begin;
}

// Instances whose value of the feature is below the threshold go left.
template <class S>
size_t partition_by_value(S& sample, size_t feature_index, size_t begin, size_t end,
                          typename S::feature_type threshold) {
  const auto* column = sample.dataset->column(feature_index);
  return partition_positions(sample, begin, end, [column, threshold](uint64_t i) { return column[i] < threshold; });
}

// Returns by_rank(rank_of, stride, ahead) over a ranked feature's ranks
// for a node of node_size positions: rank_of[i * stride] is instance i's,
// from the rows, asked for ahead, where they serve, else from the column.
template <class F, class ByRank>
size_t with_rank_source(const FeatureRanks<F>& ranks, size_t feature_index, size_t node_size, ByRank&& by_rank) {
  if (ranks.rows_serve(node_size)) {
    const uint32_t* rows = ranks.row_ranks(feature_index);
    const size_t stride = ranks.row_stride();
    return by_rank(rows, stride, RowsAhead{rows, stride});
  }
  return ranks.visit_ranks(feature_index, [&](const auto* rank_of) {
    return by_rank(rank_of, std::integral_constant<size_t, 1>(), NothingAhead());
  });
}

// partition_by_value for a ranked feature, given the first rank whose value
// is not below the threshold (among the ranks present in the range): reads
// ranks (1 to 4 bytes) instead of values, from the rows where there are
// (FeatureRanks::rows_serve). On the way, holder[k]
// becomes an instance of the range holding rank watched[k] (unchanged if
// none does), where the caller reads that rank's value (FeatureRanks::
// value_at).
template <class S, class F>
size_t partition_by_rank(S& sample, const FeatureRanks<F>& ranks, size_t feature_index, size_t begin, size_t end,
                         uint32_t first_right_rank, const uint32_t (&watched)[2], uint64_t (&holder)[2]) {
  // The holders' values are asked for as soon as they are found, so that
  // the rest of the partition hides their cache misses. A feature with
  // more than a few distinct values holds the watched ranks at few
  // positions: the branches are taken rarely.
  const F* column = sample.dataset->column(feature_index);
  const auto by_rank = [&](const auto* rank_of, auto stride, auto ahead) {
    uint64_t first = holder[0], second = holder[1];
    const uint32_t watch_first = watched[0], watch_second = watched[1];
    const size_t left = partition_positions(
        sample, begin, end,
        [&, rank_of, stride](uint64_t i) {
          const uint32_t rank = static_cast<uint32_t>(rank_of[i * stride]);
          if (rank == watch_first) {
            first = i;
            __builtin_prefetch(column + i);
          }
          if (rank == watch_second) {
            second = i;
            __builtin_prefetch(column + i);
          }
          return rank < first_right_rank;
        },
        ahead);
    holder[0] = first;
    holder[1] = second;
    return left;
  };
  return with_rank_source(ranks, feature_index, end - begin, by_rank);
}

// The same for a ranked feature that keeps its values by rank, whose
// caller reads the split's values there: nothing to watch for.
template <class S, class F>
size_t partition_by_rank(S& sample, const FeatureRanks<F>& ranks, size_t feature_index, size_t begin, size_t end,
                         uint32_t first_right_rank) {
  const auto by_rank = [&](const auto* rank_of, auto stride, auto ahead) {
    return partition_positions(
        sample, begin, end,
        [rank_of, stride, first_right_rank](uint64_t i) {
          return static_cast<uint32_t>(rank_of[i * stride]) < first_right_rank;
        },
        ahead);
  };
  return with_rank_source(ranks, feature_index, end - begin, by_rank);
}

// Puts the positions [begin, end) back in ascending instance order, their
// followed labels and weights with them: the order the grower keeps, for a
// partition that is to be made again another way.
template <class S>
void sort_positions(S& sample, size_t begin, size_t end) {
  const size_t n = end - begin;
  std::vector<size_t> order(n);
  for (size_t k = 0; k < n; ++k) order[k] = k;
  const uint32_t* index = sample.indices.data() + begin;
  std::sort(order.begin(), order.end(), [index](size_t a, size_t b) { return index[a] < index[b]; });
  const auto permute = [&order, n](auto* values) {
    const std::vector<std::remove_pointer_t<decltype(values)>> copy(values, values + n);
    for (size_t k = 0; k < n; ++k) values[k] = copy[order[k]];
  };
  permute(sample.indices.data() + begin);
  if (sample.labels_follow) permute(sample.position_labels.data() + begin);
  if (!sample.position_weights.empty()) permute(sample.position_weights.data() + begin);
}

}  // namespace Velmot

#endif
