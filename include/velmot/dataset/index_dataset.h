#ifndef VELMOT_DATASET_INDEX_DATASET_H
#define VELMOT_DATASET_INDEX_DATASET_H

// Views used while a tree grows, so that the data is never copied:
// - IndexedDataSet: a list of instance numbers into a MemoryDataSet (a
//   bootstrap sample; numbers may repeat), with a buffer of (value, label)
//   pairs of one feature and the sort workspace;
// - RangeDataSet: the positions [begin_i, end_i) of that list that reach one
//   node.
// A node buffers one feature over its own range, sorts the buffered pairs,
// and once split, partitions its range of the index list in place so that
// the instances going left come first. Sorted pairs come out in value-then-
// label order whatever order the range's positions are in, so the grower
// keeps positions ascending by instance number (sort_indices once, then
// partition_keeping_order) for the sake of its gathers.
//
// The grower also merges a bootstrap's repeated instance numbers into one
// position with a weight (merge_repeats): copies of one instance share value
// and label, so they sort next to each other and can neither open a
// boundary nor change the label-change flag between them; moving them as
// one weighted pair gives the same boundaries, scores and splits, while
// every gather, sort, sweep and partition handles each instance once (about
// 63% of a bootstrap's draws are distinct).
//
// D must offer feature_type, label_type, get_num_instances/features/classes,
// get_labeling, get_label(i) and column(j) (a pointer to feature j's values).

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmot/dataset/feature_ranks.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"
#include "velmot/defs/labeling.h"
#include "velmot/defs/sort.h"

namespace Velmot {

template <class D>
class IndexedDataSet {
public:
  typedef D dataset_type;
  typedef typename D::feature_type feature_type;
  typedef typename D::label_type label_type;
  typedef std::pair<feature_type, label_type> pair_type;

  explicit IndexedDataSet(const D* dataset) : dataset(dataset) {}

  size_t get_num_instances() const { return indices.size(); }
  size_t get_num_features() const { return dataset->get_num_features(); }
  size_t get_num_classes() const { return dataset->get_num_classes(); }
  LabelingType get_labeling() const { return dataset->get_labeling(); }
  const D* get_dataset() const { return dataset; }

  const feature_type& operator()(size_t i, size_t j) const { return (*dataset)(indices[i], j); }
  const label_type& get_label(size_t i) const {
    return labels_follow ? position_labels[i] : dataset->get_label(indices[i]);
  }
  // How many instances position i stands for: 1 unless merge_repeats ran.
  uint32_t get_weight(size_t i) const { return position_weights.empty() ? 1u : position_weights[i]; }
  size_t weight_of(size_t begin, size_t end) const {
    if (position_weights.empty()) return end - begin;
    size_t total = 0;
    for (size_t p = begin; p < end; ++p) total += position_weights[p];
    return total;
  }
  const pair_type& get_buffered_feature_label(size_t i) const { return feature_label_buffer[i]; }
  const pair_type* buffered_pairs(size_t begin) const { return feature_label_buffer.data() + begin; }

  // Refreshes the buffer at positions [begin, end) only; the rest keeps
  // whatever it held.
  void buffer_feature(size_t feature_index, size_t begin, size_t end) {
    buffered_feature_index = feature_index;
    form = in_buffer;
    if (feature_label_buffer.size() != indices.size()) feature_label_buffer.resize(indices.size());
    const feature_type* column = dataset->column(feature_index);
    for (size_t p = begin; p < end; ++p) {
      feature_label_buffer[p] = pair_type(column[indices[p]], get_label(p));
    }
  }

  void sort_buffered_feature(size_t feature_index, size_t begin, size_t end) {
    if (feature_index != buffered_feature_index) throw Exception("feature not in buffer");
    flexi_sort.sort(feature_index, feature_label_buffer.begin() + begin, feature_label_buffer.begin() + end,
                    FeatureLabelLessThan<pair_type>());
  }

  // Whether all instances at [begin, end) share one value of the feature.
  bool is_homogeneous(size_t feature_index, size_t begin, size_t end) const {
    if (end - begin <= 1) return true;
    const feature_type* column = dataset->column(feature_index);
    const feature_type first = column[indices[begin]];
    for (size_t p = begin + 1; p < end; ++p) {
      if (!(column[indices[p]] == first)) return false;
    }
    return true;
  }

  // The grower's step: unless the feature is constant on [begin, end)
  // (then false, buffer unspecified), sorts the range's pairs of the feature
  // in value-then-label order. Where does the result go:
  // - a feature without ranks: the buffer, as buffer_feature followed by
  //   sort_buffered_feature would leave it (sorted_form() is in_buffer);
  // - a ranked feature, integer labels: packed (rank, label) keys in
  //   packed_sort (packed_ranks; see sorted_rank / sorted_label);
  // - a byte feature, integer labels: packed (value, label) keys in
  //   packed_sort (packed_values): the value serves as its own rank;
  // - a ranked feature, real labels: ranks and labels in rank_sort (ranks).
  // With ranks, one gather serves both the constancy test and a sort of
  // small integers instead of values. With weights (merge_repeats), packed
  // keys carry each position's weight in their low packed_weight_bits bits;
  // the other forms hold a copy per instance, sorted_size() elements from
  // sorted_pairs() on (in_buffer).
  bool buffer_sorted_feature_unless_constant(size_t feature_index, size_t begin, size_t end) {
    form = in_buffer;
    sorted_begin = begin;
    sorted_count = end - begin;
    if constexpr (std::is_floating_point<feature_type>::value) {
      if (ranks != nullptr && ranks->has_ranks(feature_index)) {
        const size_t n = end - begin;
        if (n <= 1) return false;
        buffered_feature_index = feature_index;
        if constexpr (std::is_integral<label_type>::value) {
          if (packable(dataset->get_num_instances())) {
            if (reads_rows(n)) {
              return gather_and_sort_packed(ranks->row_ranks(feature_index), begin, n, packed_ranks,
                                            ranks->row_stride());
            }
            return gather_and_sort_packed(ranks->ranks(feature_index), begin, n, packed_ranks);
          }
        }
        return gather_and_sort_ranks(feature_index, begin, n);
      }
    }
    if constexpr (std::is_same<feature_type, unsigned char>::value && std::is_integral<label_type>::value) {
      const size_t n = end - begin;
      if (n <= 1) return false;
      if (packable(255)) {
        buffered_feature_index = feature_index;
        return gather_and_sort_packed(dataset->column(feature_index), begin, n, packed_values);
      }
    }
    if (is_homogeneous(feature_index, begin, end)) return false;
    if (position_weights.empty()) {
      buffer_feature(feature_index, begin, end);
      sort_buffered_feature(feature_index, begin, end);
      return true;
    }
    buffer_copies(feature_index, begin, end);
    sort_buffered_feature(feature_index, 0, sorted_count);
    return true;
  }
  // The elements the last buffer_sorted_feature_unless_constant sorted, and
  // in_buffer, where they start.
  size_t sorted_size() const { return sorted_count; }
  const pair_type* sorted_pairs() const { return feature_label_buffer.data() + sorted_begin; }

  // The grower's partition: the same split as partition, but stable, so
  // that a range whose positions ascend by instance number keeps them
  // ascending in both parts (later gathers then read each column forwards).
  size_t partition_keeping_order(size_t feature_index, size_t begin, size_t end, feature_type threshold) {
    const feature_type* column = dataset->column(feature_index);
    return stable_partition_positions(begin, end,
                                      [column, threshold](uint64_t i) { return column[i] < threshold; });
  }
  // The same for a ranked feature, given the first rank whose value is not
  // below the threshold (among the ranks present in the range): reads
  // 4-byte ranks instead of values.
  size_t partition_by_rank_keeping_order(size_t feature_index, size_t begin, size_t end, uint32_t first_right_rank) {
    if (reads_rows(end - begin)) {
      const uint32_t* rank_of = ranks->row_ranks(feature_index);
      const size_t stride = ranks->row_stride();
      return stable_partition_positions(begin, end, [rank_of, stride, first_right_rank](uint64_t i) {
        return rank_of[i * stride] < first_right_rank;
      });
    }
    const uint32_t* rank_of = ranks->ranks(feature_index);
    return stable_partition_positions(begin, end,
                                      [rank_of, first_right_rank](uint64_t i) { return rank_of[i] < first_right_rank; });
  }

  // Puts the index list in ascending instance order (a counting sort by
  // instance number, so that gathers read columns forwards), each instance
  // once with its number of copies as its weight, and follows labels.
  void merge_repeats() {
    const size_t ni = dataset->get_num_instances();
    std::vector<uint32_t> copies(ni, 0);
    for (const uint64_t i : indices) ++copies[i];
    size_t p = 0;
    uint32_t most = 0;
    position_weights.resize(indices.size());
    for (size_t i = 0; i < ni; ++i) {
      if (copies[i] == 0) continue;
      indices[p] = i;
      position_weights[p] = copies[i];
      most = std::max(most, copies[i]);
      ++p;
    }
    indices.resize(p);
    position_weights.resize(p);
    sample_weight_bits = 0;
    while (sample_weight_bits < 32 && (most >> sample_weight_bits) != 0) ++sample_weight_bits;
    follow_labels();
  }

  // Moves the instances whose value is below the threshold (compared in the
  // feature type) to the front of [begin, end) and returns their number.
  // Equal and not-a-number values go to the back, as in prediction.
  size_t partition(size_t feature_index, size_t begin, size_t end, feature_type threshold) {
    const feature_type* column = dataset->column(feature_index);
    uint64_t* const first = indices.data() + begin;
    uint64_t* lo = first;
    uint64_t* hi = indices.data() + end;
    // While labels follow the positions, every swap moves them too.
    label_type* const labels = labels_follow ? position_labels.data() : nullptr;
    // Two-ended: scan from the front for an instance that goes right and
    // from the back for one that goes left, then swap them.
    while (true) {
      while (lo != hi && column[*lo] < threshold) ++lo;
      if (lo == hi) break;
      --hi;
      while (lo != hi && !(column[*hi] < threshold)) --hi;
      if (lo == hi) break;
      std::swap(*lo, *hi);
      if (labels != nullptr) std::swap(labels[lo - indices.data()], labels[hi - indices.data()]);
      if (!position_weights.empty()) {
        std::swap(position_weights[lo - indices.data()], position_weights[hi - indices.data()]);
      }
      ++lo;
    }
    return static_cast<size_t>(lo - first);
  }

  // Copies the label of every position beside the index list and keeps it
  // in step through partition, so that the many reads of a node's labels
  // (its histogram, then once per feature tried) are sequential instead of
  // one cache miss each into the data set's labels. Until one of the four
  // calls below, the index list may change only through partition.
  void follow_labels() {
    position_labels.resize(indices.size());
    for (size_t p = 0; p < indices.size(); ++p) position_labels[p] = dataset->get_label(indices[p]);
    labels_follow = true;
  }

  void use_all_instances() {
    labels_follow = false;
    position_weights.clear();
    indices.resize(dataset->get_num_instances());
    for (size_t i = 0; i < indices.size(); ++i) indices[i] = i;
  }
  void clear_indices() {
    labels_follow = false;
    position_weights.clear();
    indices.clear();
  }
  void add_index(uint64_t i) {
    labels_follow = false;
    position_weights.clear();
    indices.push_back(i);
  }
  void set_dataset(const D* d) {
    labels_follow = false;
    position_weights.clear();
    dataset = d;
  }

  const D* dataset;
  std::vector<uint64_t> indices;
  // The label of each position, while labels_follow (see follow_labels).
  std::vector<label_type> position_labels;
  bool labels_follow = false;
  // The weight of each position once merge_repeats ran, else empty; it
  // follows the positions through partitions like the labels.
  std::vector<uint32_t> position_weights;
  std::vector<pair_type> feature_label_buffer;
  uint64_t buffered_feature_index = std::numeric_limits<uint64_t>::max();
  FlexiSort<feature_type, label_type> flexi_sort;

  // Where the last buffer_sorted_feature_unless_constant left its result.
  enum SortedForm { in_buffer, ranks_and_labels, packed_ranks, packed_values };
  SortedForm sorted_form() const { return form; }
  bool sorted_ranks() const { return form == ranks_and_labels; }
  // The value table of the sorted feature, shifted so that the sorted ranks
  // (rank_sort.sorted_key(), packed keys >> packed_label_bits, or a counted
  // cell's index >> packed_label_bits) index it.
  const feature_type* sorted_values() const {
    const uint32_t cell_rank = packed_counted ? packed_sort.cell_base() >> packed_label_bits : 0;
    if (form == packed_values) return byte_values() + cell_rank;
    const feature_type* values = ranks->values(buffered_feature_index);
    return form == packed_ranks ? values + cell_rank : values + rank_sort.key_offset();
  }
  // The i-th sorted pair of a ranked feature as (index into sorted_values(),
  // label), whichever form holds it. For tests and checks: the sweep reads
  // the arrays directly.
  uint32_t sorted_rank(size_t i) const {
    return form == packed_ranks || form == packed_values
               ? packed_sort.sorted()[i] >> (packed_label_bits + packed_weight_bits)
               : rank_sort.sorted_key()[i];
  }
  label_type sorted_label(size_t i) const {
    if (form == packed_ranks || form == packed_values) {
      const uint32_t key = packed_sort.sorted()[i] >> packed_weight_bits;
      return static_cast<label_type>(static_cast<int64_t>(key & packed_label_mask()) - 1);
    }
    return rank_sort.sorted_label()[i];
  }
  uint32_t packed_label_mask() const { return (uint32_t(1) << packed_label_bits) - 1; }
  // Every byte value, in order: the value table of a byte feature.
  static const feature_type* byte_values() {
    static const auto table = [] {
      std::array<feature_type, 256> t{};
      for (size_t v = 0; v < t.size(); ++v) t[v] = static_cast<feature_type>(v);
      return t;
    }();
    return table.data();
  }

  // Optional ranks of the data set's features (not owned), and their sorts.
  const FeatureRanks<feature_type>* ranks = nullptr;
  RankSort<feature_type, label_type> rank_sort;
  PackedRankSort packed_sort;
  int packed_label_bits = 0;
  // Low bits of a packed key that hold its position's weight (with weights).
  int packed_weight_bits = 0;
  // Whether packed keys that span fewer values than there are keys may be
  // left counted instead of sorted (the grower sweeps the counts), and
  // whether the last packed gather was.
  bool count_dense_keys = false;
  bool packed_counted = false;

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

  SortedForm form = in_buffer;
  size_t sorted_begin = 0, sorted_count = 0;
  std::vector<uint64_t> partition_indices;
  std::vector<label_type> partition_labels;
  std::vector<uint32_t> partition_weights;
  // Bits of the largest weight merge_repeats found.
  int sample_weight_bits = 0;

  // Whether (rank, label + 1) and, with weights, the weight fit one 32-bit
  // key for every rank up to largest_rank and every label of the data set;
  // sets packed_label_bits and packed_weight_bits.
  bool packable(uint64_t largest_rank) {
    const uint64_t largest_code = static_cast<uint64_t>(dataset->get_num_classes()) + 1;
    int label_bits = 1;
    while (label_bits < 32 && (largest_code >> label_bits) != 0) ++label_bits;
    const int weight_bits = position_weights.empty() ? 0 : sample_weight_bits;
    const int low_bits = label_bits + weight_bits;
    if (low_bits >= 32 || (largest_rank >> (32 - low_bits)) != 0) return false;
    packed_label_bits = label_bits;
    packed_weight_bits = weight_bits;
    return true;
  }

  // Whether a node of n positions reads the ranks' instance-major copy:
  // where it has one and the node holds under a sixteenth of the instances
  // (a denser node reads most of a column's cache lines anyway, in order).
  // 200,000 x 40 doubles, two threads: a sixteenth or a thirty-second
  // equally fast, a fourth or a sixty-fourth 1-2% slower.
  bool reads_rows(size_t n) const { return ranks->has_rows() && n * 16 < dataset->get_num_instances(); }

  // Gathers ((rank_of[instance * stride], label) [, weight]) keys of the
  // range and sorts them; rank_of is the feature's ranks (a column, stride
  // 1, or its place in the rows) or, for bytes, its values.
  template <class Rank>
  bool gather_and_sort_packed(const Rank* rank_of, size_t begin, size_t n, SortedForm packed_form,
                              size_t stride = 1) {
    packed_sort.prepare(n);
    uint32_t* key = packed_sort.keys();
    const uint64_t* position = indices.data() + begin;
    const uint32_t* weight = position_weights.empty() ? nullptr : position_weights.data() + begin;
    const int shift = packed_label_bits;
    const int weight_bits = packed_weight_bits;
    uint32_t kmin = std::numeric_limits<uint32_t>::max(), kmax = 0;
    const bool far_prefetch = dataset->get_num_instances() * sizeof(Rank) > far_prefetch_column_bytes;
    auto gather = [&](auto key_of) {
      for (size_t i = 0; i < n; ++i) {
        if (far_prefetch && i + far_prefetch_distance < n) {
          __builtin_prefetch(rank_of + position[i + far_prefetch_distance] * stride, 0, 1);
        }
        if (i + prefetch_distance < n) __builtin_prefetch(rank_of + position[i + prefetch_distance] * stride);
        const uint32_t k = key_of(i, (static_cast<uint32_t>(rank_of[position[i] * stride]) << shift) |
                                         static_cast<uint32_t>(get_label(begin + i) + 1));
        key[i] = k;
        kmin = std::min(kmin, k);
        kmax = std::max(kmax, k);
      }
    };
    if (weight == nullptr) {
      gather([](size_t, uint32_t rank_and_label) { return rank_and_label; });
    } else {
      gather([weight, weight_bits](size_t i, uint32_t rank_and_label) {
        return (rank_and_label << weight_bits) | weight[i];
      });
    }
    if ((kmin >> (shift + weight_bits)) == (kmax >> (shift + weight_bits))) return false;
    // A range of two is never split, so it is never worth counting.
    packed_counted =
        !packed_sort.sort_or_count(n, kmin, kmax, shift, count_dense_keys && n > 2, weight_bits);
    form = packed_form;
    return true;
  }

  // buffer_feature's pairs, each repeated as often as its position's weight,
  // at the start of the buffer.
  void buffer_copies(size_t feature_index, size_t begin, size_t end) {
    buffered_feature_index = feature_index;
    sorted_begin = 0;
    sorted_count = weight_of(begin, end);
    if (feature_label_buffer.size() < sorted_count) feature_label_buffer.resize(sorted_count);
    const feature_type* column = dataset->column(feature_index);
    size_t out = 0;
    for (size_t p = begin; p < end; ++p) {
      const pair_type pair(column[indices[p]], get_label(p));
      for (uint32_t c = position_weights[p]; c > 0; --c) feature_label_buffer[out++] = pair;
    }
  }

  bool gather_and_sort_ranks(size_t feature_index, size_t begin, size_t n) {
    // A copy of each (rank, label) per instance a position stands for.
    const size_t copies = weight_of(begin, begin + n);
    rank_sort.prepare(copies);
    const uint32_t* rank_of = ranks->ranks(feature_index);
    uint32_t* key = rank_sort.key.data();
    label_type* label = rank_sort.label.data();
    uint32_t rmin = rank_of[indices[begin]], rmax = rmin;
    const uint64_t* position = indices.data() + begin;
    size_t out = 0;
    for (size_t i = 0; i < n; ++i) {
      if (i + prefetch_distance < n) __builtin_prefetch(rank_of + position[i + prefetch_distance]);
      const uint32_t r = rank_of[position[i]];
      const label_type l = get_label(begin + i);
      for (uint32_t c = get_weight(begin + i); c > 0; --c, ++out) {
        key[out] = r;
        label[out] = l;
      }
      rmin = std::min(rmin, r);
      rmax = std::max(rmax, r);
    }
    if (rmin == rmax) return false;
    rank_sort.sort(copies, rmin, rmax);
    sorted_count = copies;
    form = ranks_and_labels;
    return true;
  }

  // Stable partition of positions [begin, end) by goes_left(instance),
  // carrying the followed labels and the weights along; returns the left
  // count.
  template <class GoesLeft>
  size_t stable_partition_positions(size_t begin, size_t end, GoesLeft goes_left) {
    uint64_t* index = indices.data();
    label_type* label = labels_follow ? position_labels.data() : nullptr;
    uint32_t* weight = position_weights.empty() ? nullptr : position_weights.data();
    partition_indices.resize(end - begin);
    if (label != nullptr) partition_labels.resize(end - begin);
    if (weight != nullptr) partition_weights.resize(end - begin);
    size_t left = begin, right = 0;
    for (size_t p = begin; p < end; ++p) {
      const uint64_t i = index[p];
      if (goes_left(i)) {
        index[left] = i;
        if (label != nullptr) label[left] = label[p];
        if (weight != nullptr) weight[left] = weight[p];
        ++left;
      } else {
        partition_indices[right] = i;
        if (label != nullptr) partition_labels[right] = label[p];
        if (weight != nullptr) partition_weights[right] = weight[p];
        ++right;
      }
    }
    const auto moved = static_cast<std::ptrdiff_t>(right);
    std::copy(partition_indices.begin(), partition_indices.begin() + moved, index + left);
    if (label != nullptr) std::copy(partition_labels.begin(), partition_labels.begin() + moved, label + left);
    if (weight != nullptr) std::copy(partition_weights.begin(), partition_weights.begin() + moved, weight + left);
    return left - begin;
  }
};

template <class I>
class RangeDataSet {
public:
  typedef typename I::feature_type feature_type;
  typedef typename I::label_type label_type;
  typedef typename I::pair_type pair_type;

  explicit RangeDataSet(I* indexed) : dataset(indexed), begin_i(0), end_i(indexed->get_num_instances()) {}
  RangeDataSet(I* indexed, size_t begin, size_t end) : dataset(indexed), begin_i(begin), end_i(end) {}

  void set_range(size_t begin, size_t end) {
    begin_i = begin;
    end_i = end;
  }

  size_t get_num_instances() const { return end_i - begin_i; }
  size_t get_num_features() const { return dataset->get_num_features(); }
  size_t get_num_classes() const { return dataset->get_num_classes(); }
  LabelingType get_labeling() const { return dataset->get_labeling(); }

  const feature_type& operator()(size_t i, size_t j) const { return (*dataset)(begin_i + i, j); }
  const label_type& get_label(size_t i) const { return dataset->get_label(begin_i + i); }
  uint32_t get_weight(size_t i) const { return dataset->get_weight(begin_i + i); }
  const pair_type& get_buffered_feature_label(size_t i) const { return dataset->get_buffered_feature_label(begin_i + i); }
  // The range's buffered pairs, for the sweep.
  const pair_type* buffered_pairs() const { return dataset->buffered_pairs(begin_i); }

  void buffer_feature(size_t feature_index) { dataset->buffer_feature(feature_index, begin_i, end_i); }
  void sort_buffered_feature(size_t feature_index) { dataset->sort_buffered_feature(feature_index, begin_i, end_i); }
  size_t partition(size_t feature_index, feature_type threshold) {
    return dataset->partition(feature_index, begin_i, end_i, threshold);
  }

  size_t partition_keeping_order(size_t feature_index, feature_type threshold) {
    return dataset->partition_keeping_order(feature_index, begin_i, end_i, threshold);
  }
  size_t partition_by_rank_keeping_order(size_t feature_index, uint32_t first_right_rank) {
    return dataset->partition_by_rank_keeping_order(feature_index, begin_i, end_i, first_right_rank);
  }

  bool sorted_ranks() const { return dataset->sorted_ranks(); }

  // Whether all instances of the range share one value of the feature; a
  // not-a-number value never equals the first.
  bool is_homogeneous(size_t feature_index) const { return dataset->is_homogeneous(feature_index, begin_i, end_i); }
  bool buffer_sorted_feature_unless_constant(size_t feature_index) {
    return dataset->buffer_sorted_feature_unless_constant(feature_index, begin_i, end_i);
  }

  int get_parent_index(size_t i) const { return static_cast<int>(begin_i + i); }

  I* dataset;
  size_t begin_i;
  size_t end_i;
};

// A bootstrap sample: floor(fraction_of_parent x instances) instance numbers
// drawn uniformly with replacement, one generator step each, kept in drawing
// order. The fraction must be 0 or more and the sample must fit an int.
template <class D, class RNG>
IndexedDataSet<D> random_subset_iid(const D* dataset, double fraction_of_parent, RNG& random_generator) {
  IndexedDataSet<D> subset(dataset);
  const int64_t num_instances = static_cast<int64_t>(dataset->get_num_instances());
  const double wanted = fraction_of_parent * static_cast<double>(num_instances);
  if (!fits_in_int32_count(wanted)) {
    throw Exception("bootstrap sample size must be between 0 and " + std::to_string(int32_max) + " instances");
  }
  const uint64_t num_sample_instances = static_cast<uint64_t>(wanted);
  if (num_sample_instances == 0) return subset;
  if (num_instances == 0) throw IncompatibleDataException("data set is empty");
  subset.indices.reserve(num_sample_instances);
  subset.feature_label_buffer.reserve(num_sample_instances);
  for (uint64_t k = 0; k < num_sample_instances; ++k) {
    const int32_t index = static_cast<int32_t>(random_generator.next_int(num_instances));
    subset.indices.push_back(static_cast<uint64_t>(index));
    subset.feature_label_buffer.emplace_back(typename D::feature_type(0), dataset->get_label(index));
  }
  return subset;
}

}  // namespace Velmot

#endif
