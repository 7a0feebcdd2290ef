#ifndef VELMOT_DATASET_NATIVE_ARRAY_DATASET_H
#define VELMOT_DATASET_NATIVE_ARRAY_DATASET_H

// DisNativeArrayDataSet: a view that addresses a caller's strided feature
// matrix in place (value of feature j for instance i at features[j] +
// i * stride_i bytes) and holds a copy of the labels. It never owns the
// matrix; the caller keeps it alive while the view is used.

#include <cstdint>
#include <cstring>
#include <vector>

#include "velmot/defs/labeling.h"

namespace Velmot {

template <class F, class L>
class DisNativeArrayDataSet {
public:
  typedef F feature_type;
  typedef L label_type;

  // A label stride of 0 copies the first label to every instance (the
  // predictors pass one placeholder label that way).
  DisNativeArrayDataSet(const unsigned char* fdata, const L* ldata, size_t num_instances, size_t num_features,
                        size_t num_classes, size_t stride_i, size_t stride_j, size_t stride_label)
      : ni(num_instances),
        nf(num_features),
        nc(num_classes),
        stride_i(stride_i),
        stride_j(stride_j),
        stride_label(stride_label),
        features(num_features),
        labels(num_instances) {
    for (size_t j = 0; j < nf; ++j) features[j] = fdata + signed_bytes(j, stride_j);
    const unsigned char* label_bytes = reinterpret_cast<const unsigned char*>(ldata);
    for (size_t i = 0; i < ni; ++i) std::memcpy(&labels[i], label_bytes + signed_bytes(i, stride_label), sizeof(L));
  }

  size_t get_num_instances() const { return ni; }
  size_t get_num_features() const { return nf; }
  size_t get_num_classes() const { return nc; }
  LabelingType get_labeling() const { return ltype; }

  F operator()(size_t i, size_t j) const {
    F value;
    std::memcpy(&value, features[j] + signed_bytes(i, stride_i), sizeof(F));
    return value;
  }
  const L& get_label(size_t i) const { return labels[i]; }
  void set_label(size_t i, const L& label) { labels[i] = label; }

  // Strides are byte counts that may be negative (numpy allows it); they are
  // stored unsigned, so offsets are formed in signed 64-bit arithmetic.
  static int64_t signed_bytes(size_t index, size_t stride) {
    return static_cast<int64_t>(index) * static_cast<int64_t>(stride);
  }

  const size_t ni;
  const size_t nf;
  const size_t nc;
  const size_t stride_i;
  const size_t stride_j;
  const size_t stride_label;
  LabelingType ltype = DiscreteZeroOnward;
  std::vector<const unsigned char*> features;
  std::vector<L> labels;
};

}  // namespace Velmot

#endif
