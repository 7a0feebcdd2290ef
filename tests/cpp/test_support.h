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
    if (!(a.threshold[i] == b.threshold[i] || (std::isnan(a.threshold[i]) && std::isnan(b.threshold[i])))) {
      return false;
    }
  }
  return true;
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
