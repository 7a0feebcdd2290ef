#ifndef VELMOT_DATASET_DATASET_H
#define VELMOT_DATASET_DATASET_H

// MemoryDataSet: the one data model of learner and predictor, stored column
// by column (one vector per feature) because every later step reads one
// feature for many instances. Instead of holding columns, it may read those
// of a caller's feature-major matrix in place (view_columns), which saves a
// copy of the features where the matrix already has that layout.
//
// F: feature type (int, double, float, unsigned char).
// L: label type (int for classes; double or float for real labels).
// The source of copy_from needs: nc, nf, ltype, labels, get_num_instances()
// and operator()(i, j).

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "velmot/dataset/upper_median.h"
#include "velmot/defs/labeling.h"

namespace Velmot {

template <class F, class L>
class MemoryDataSet {
public:
  typedef F feature_type;
  typedef L label_type;
  typedef const F* const_iterator;

  MemoryDataSet() = default;
  explicit MemoryDataSet(size_t num_features) : nf(num_features), features(num_features) {}

  void set_num_features(size_t n) {
    nf = n;
    features.resize(n);
  }
  void set_num_classes(size_t n) { nc = n; }
  // The integer is unused: the labeling kind alone decides.
  void set_labeling(int, LabelingType labeling) { ltype = labeling; }

  size_t get_num_instances() const { return labels.size(); }
  size_t get_num_features() const { return nf; }
  size_t get_num_classes() const { return nc; }
  LabelingType get_labeling() const { return ltype; }

  const F& operator()(size_t i, size_t j) const { return column(j)[i]; }
  const L& get_label(size_t i) const { return labels[i]; }
  void set_label(size_t i, const L& label) { labels[i] = label; }

  const_iterator begin(size_t feature_index) const { return column(feature_index); }
  const_iterator end(size_t feature_index) const { return column(feature_index) + get_num_instances(); }
  // Contiguous column, for the hot loops that gather one feature.
  const F* column(size_t feature_index) const {
    return viewed == nullptr ? features[feature_index].data() : viewed + feature_index * labels.size();
  }

  template <class Source>
  void copy_from(const Source& ds) {
    nc = ds.nc;
    nf = ds.nf;
    ltype = ds.ltype;
    viewed = nullptr;
    features.resize(nf);
    const size_t ni = ds.get_num_instances();
    for (std::vector<F>& column : features) column.resize(ni);
    // The source is often instance-major (a transposed numpy matrix): copying
    // one column at a time would then stream the whole matrix once per
    // feature. Blocks of instances whose values fit in the cache are read
    // once instead. 100,000 x 40 doubles, instance-major: 17 to 19 ms per
    // copy column by column, 6.1 ms by blocks of 256 KB (819 instances);
    // feature-major: 5.1 to 5.7 ms either way.
    constexpr size_t block_bytes = 256 * 1024;
    const size_t block = std::max<size_t>(16, block_bytes / std::max<size_t>(1, nf * sizeof(F)));
    for (size_t first = 0; first < ni; first += block) {
      const size_t last = std::min(ni, first + block);
      for (size_t j = 0; j < nf; ++j) {
        F* const column = features[j].data();
        for (size_t i = first; i < last; ++i) column[i] = ds(i, j);
      }
    }
    labels.assign(ds.labels.begin(), ds.labels.end());
  }

  // Reads the features in place from `columns`, a feature-major matrix of
  // the source's shape (feature j's values at columns + j * ni), and copies
  // the labels. The data set then holds no columns of its own: the caller
  // keeps the matrix alive and unchanged while the data set is used, and
  // passes a matrix without missing values (impute() cannot change it).
  template <class Source>
  void view_columns(const Source& ds, const F* columns) {
    nc = ds.nc;
    nf = ds.nf;
    ltype = ds.ltype;
    features.clear();
    features.shrink_to_fit();
    viewed = columns;
    labels.assign(ds.labels.begin(), ds.labels.end());
  }

  // Replaces not-a-number entries of floating-point features by the upper
  // median of the feature's present values (upper_median.h). Present
  // values, and integer features, are never changed.
  void impute();

  size_t nf = 0;
  size_t nc = 2;
  LabelingType ltype = DiscreteZeroOnward;
  std::vector<std::vector<F>> features;
  std::vector<L> labels;
  // The caller's matrix that view_columns reads; null while the data set
  // holds its own columns.
  const F* viewed = nullptr;
};

template <class F, class L>
void MemoryDataSet<F, L>::impute() {
  if constexpr (std::is_floating_point<F>::value) {
    // Made at the first column that needs it, then reused.
    std::vector<F> present;
    for (std::vector<F>& column : features) {
      // Most columns have no missing value: a read-only scan, without early
      // exit so that it vectorises, settles them.
      bool missing = false;
      for (const F value : column) missing |= !(value == value);
      if (!missing) continue;
      const F replacement = upper_median_fill(column.size(), [&column](size_t i) { return column[i]; }, present);
      for (F& value : column) {
        if (!(value == value)) value = replacement;
      }
    }
  }
  // Integer and byte features cannot hold a missing value: nothing to do.
}

}  // namespace Velmot

#endif
