#ifndef VELMOT_DATASET_NODE_SAMPLE_H
#define VELMOT_DATASET_NODE_SAMPLE_H

// The views a tree grows on, so that the data is never copied:
// - IndexedDataSet: a list of instance numbers into a MemoryDataSet (a
//   bootstrap sample, dataset/bootstrap.h; numbers may repeat), with a
//   buffer of (value, label) pairs of one feature and its sort;
// - RangeDataSet: the positions [begin_i, end_i) of that list that reach one
//   node.
// A node buffers one feature over its own range and sorts the buffered
// pairs (FlexiSort, defs/sort.h); once split, its range of the list is
// partitioned in place (dataset/partition.h) so that the instances going
// left come first. The grower sorts a feature through
// dataset/sorted_feature.h instead of the buffer.
//
// For the grower the list can also carry, per position:
// - its label (follow_labels): the many reads of a node's labels (its
//   histogram, then once per feature tried) are then sequential instead of
//   one cache miss each into the data set's labels;
// - its weight (merge_repeats): a bootstrap's copies of one instance share
//   value and label, so they sort next to each other and can neither open a
//   boundary nor change the label-change flag between them; one position
//   with the number of copies as its weight gives the same boundaries,
//   scores and splits, while every gather, sort, sweep and partition handles
//   each instance once (about 63% of a bootstrap's draws are distinct).
// Both move with their positions through partitions. Changing the list in
// any other way (use_all_instances, clear_indices, add_index, set_dataset)
// drops them.
//
// D must offer feature_type, label_type, get_num_instances/features/classes,
// get_labeling, get_label(i) and column(j) (a pointer to feature j's values).

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "velmot/dataset/feature_ranks.h"
#include "velmot/dataset/partition.h"
#include "velmot/dataset/rank_order.h"
#include "velmot/defs/exception.h"
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

  // Whether all instances at [begin, end) share one value of the feature; a
  // not-a-number value never equals the first.
  bool is_homogeneous(size_t feature_index, size_t begin, size_t end) const {
    if (end - begin <= 1) return true;
    const feature_type* column = dataset->column(feature_index);
    const feature_type first = column[indices[begin]];
    for (size_t p = begin + 1; p < end; ++p) {
      if (!(column[indices[p]] == first)) return false;
    }
    return true;
  }

  // Instances at [begin, end) whose value is below the threshold go first;
  // returns their number (see dataset/partition.h).
  size_t partition(size_t feature_index, size_t begin, size_t end, feature_type threshold) {
    return partition_by_value(*this, feature_index, begin, end, threshold);
  }

  // Puts the index list in ascending instance order (a counting sort by
  // instance number, so that gathers read columns forwards), each instance
  // once with its number of copies as its weight, and follows labels.
  // The merged list is made exactly sized once the drawn one is freed: it
  // is about 63% as long, and is held while the whole tree grows.
  void merge_repeats() {
    const size_t ni = dataset->get_num_instances();
    std::vector<uint32_t> copies(ni, 0);
    for (const uint32_t i : indices) ++copies[i];
    std::vector<uint32_t>().swap(indices);
    const size_t distinct = ni - static_cast<size_t>(std::count(copies.begin(), copies.end(), 0u));
    indices.resize(distinct);
    position_weights.resize(distinct);
    size_t p = 0;
    uint32_t most = 0;
    for (size_t i = 0; i < ni; ++i) {
      if (copies[i] == 0) continue;
      indices[p] = static_cast<uint32_t>(i);
      position_weights[p] = copies[i];
      most = std::max(most, copies[i]);
      ++p;
    }
    largest_weight = most;
    follow_labels();
  }

  // Copies the label of every position beside the index list; partitions
  // keep it in step.
  void follow_labels() {
    position_labels.resize(indices.size());
    for (size_t p = 0; p < indices.size(); ++p) position_labels[p] = dataset->get_label(indices[p]);
    labels_follow = true;
  }

  void use_all_instances() {
    forget_positions();
    const size_t n = dataset->get_num_instances();
    if (n > std::numeric_limits<uint32_t>::max()) throw Exception("a sample holds at most 2^32 - 1 instances");
    indices.resize(n);
    for (size_t i = 0; i < n; ++i) indices[i] = static_cast<uint32_t>(i);
  }
  void clear_indices() {
    forget_positions();
    indices.clear();
  }
  void add_index(uint64_t i) {
    if (i > std::numeric_limits<uint32_t>::max()) throw Exception("instance numbers in a sample fit 32 bits");
    forget_positions();
    indices.push_back(static_cast<uint32_t>(i));
  }
  void set_dataset(const D* d) {
    forget_positions();
    dataset = d;
  }

  const D* dataset;
  // Instance numbers, 4 bytes each: halves what the positions, the most
  // touched array of a node's work, take in memory and cache.
  std::vector<uint32_t> indices;
  // The label of each position, while labels_follow (see follow_labels).
  std::vector<label_type> position_labels;
  bool labels_follow = false;
  // The weight of each position once merge_repeats ran, else empty, and the
  // largest of them.
  std::vector<uint32_t> position_weights;
  uint32_t largest_weight = 1;
  std::vector<pair_type> feature_label_buffer;
  uint64_t buffered_feature_index = std::numeric_limits<uint64_t>::max();
  FlexiSort<feature_type, label_type> flexi_sort;
  // Optional ranks of the data set's features (not owned), made once per
  // learning call (learn/learn_forest.h).
  const FeatureRanks<feature_type>* ranks = nullptr;
  // Optional rank orders of the features without ties (not owned), made
  // with the ranks for real labels (learn/training_set.h).
  const RankOrder* rank_order = nullptr;
  PartitionScratch<label_type> partition_scratch;

private:
  void forget_positions() {
    labels_follow = false;
    position_weights.clear();
    largest_weight = 1;
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
  const pair_type& get_buffered_feature_label(size_t i) const {
    return dataset->get_buffered_feature_label(begin_i + i);
  }
  // The range's buffered pairs, for the split search.
  const pair_type* buffered_pairs() const { return dataset->buffered_pairs(begin_i); }

  void buffer_feature(size_t feature_index) { dataset->buffer_feature(feature_index, begin_i, end_i); }
  void sort_buffered_feature(size_t feature_index) { dataset->sort_buffered_feature(feature_index, begin_i, end_i); }
  size_t partition(size_t feature_index, feature_type threshold) {
    return dataset->partition(feature_index, begin_i, end_i, threshold);
  }
  bool is_homogeneous(size_t feature_index) const { return dataset->is_homogeneous(feature_index, begin_i, end_i); }

  // The position in the indexed view of the range's i-th instance.
  int get_parent_index(size_t i) const { return static_cast<int>(begin_i + i); }

  I* dataset;
  size_t begin_i;
  size_t end_i;
};

}  // namespace Velmot

#endif
