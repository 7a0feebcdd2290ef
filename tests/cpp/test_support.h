// Helpers shared by the C++ tests.

#ifndef VELMOT_TEST_SUPPORT_H
#define VELMOT_TEST_SUPPORT_H

#include <omp.h>

#include <cmath>
#include <string>
#include <vector>

#include "velmot/dataset/dataset.h"
#include "velmot/dataset/node_sample.h"
#include "velmot/defs/exception.h"
#include "velmot/learn/tree.h"
#include "velmot/stats/label_accumulator.h"

namespace VelmotTest {

// The message of the library exception that `call` throws, or "" if none.
template <class Call>
std::string message_of(Call call) {
  try {
    call();
  } catch (const Velmot::Exception& e) {
    return e.get_message();
  }
  return "";
}

// A histogram of labels 0, 1, ... holding class_counts[c] of label c.
inline Velmot::NominalLabelPriorAccumulator<int> histogram(const std::vector<int>& class_counts) {
  Velmot::NominalLabelPriorAccumulator<int> acc;
  acc.set_labeling(Velmot::DiscreteZeroOnward);
  acc.set_num_classes(static_cast<int>(class_counts.size()));
  for (size_t c = 0; c < class_counts.size(); ++c) {
    for (int k = 0; k < class_counts[c]; ++k) acc.increment_count(static_cast<int>(c));
  }
  return acc;
}

template <class F, class L>
Velmot::MemoryDataSet<F, L> columns(const std::vector<std::vector<F>>& features, const std::vector<L>& labels,
                                    size_t num_classes = 2) {
  Velmot::MemoryDataSet<F, L> data(features.size());
  data.nc = num_classes;
  data.features = features;
  data.labels = labels;
  return data;
}

template <class D>
Velmot::IndexedDataSet<D> all_of(const D& data) {
  Velmot::IndexedDataSet<D> indexed(&data);
  indexed.use_all_instances();
  return indexed;
}

// Whether two trees have the same nodes (NaN thresholds equal).
template <class L>
bool same_tree(const Velmot::VectorizedTree<L>& a, const Velmot::VectorizedTree<L>& b) {
  if (a.left != b.left || a.right != b.right || a.feature_index != b.feature_index || a.label != b.label ||
      a.threshold.size() != b.threshold.size()) {
    return false;
  }
  for (size_t i = 0; i < a.threshold.size(); ++i) {
    const double x = a.threshold[i], y = b.threshold[i];
    if (!(x == y || (std::isnan(x) && std::isnan(y)))) return false;
  }
  return true;
}

template <class L>
bool same_tree(Velmot::Node<L>* a, Velmot::Node<L>* b) {
  Velmot::VectorizedTree<L> va, vb;
  va.root_to_vector(a);
  vb.root_to_vector(b);
  return same_tree(va, vb);
}

// Sets the OpenMP thread count for one scope and restores it afterwards.
class ThreadCount {
public:
  explicit ThreadCount(int n) : saved(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~ThreadCount() { omp_set_num_threads(saved); }

private:
  int saved;
};

}  // namespace VelmotTest

#endif
