#ifndef VELMOT_DATASET_BOOTSTRAP_H
#define VELMOT_DATASET_BOOTSTRAP_H

// The bootstrap sample a tree is learnt from: floor(fraction_of_parent x
// instances) instance numbers drawn uniformly with replacement, one
// generator step each (so a fixed seed reproduces the samples), kept in
// drawing order with their repeats. The truncation is deliberate: no
// rounding up, and a product below 1 gives an empty sample.
//
// D is a MemoryDataSet; RNG offers next_int(bound) (defs/random.h).

#include <cstdint>
#include <string>

#include "velmot/dataset/node_sample.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"

namespace Velmot {

// The fraction must be 0 or more and the sample must fit an int; the result
// refers to *dataset, which must outlive it.
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
  for (uint64_t k = 0; k < num_sample_instances; ++k) {
    const int32_t index = static_cast<int32_t>(random_generator.next_int(num_instances));
    subset.indices.push_back(static_cast<uint32_t>(index));
  }
  return subset;
}

}  // namespace Velmot

#endif
