#ifndef VELMOT_DATASET_WEIGHTED_BOOTSTRAP_H
#define VELMOT_DATASET_WEIGHTED_BOOTSTRAP_H

// The bootstrap sample of a tree when instances carry weights: as many
// draws as the unweighted sample makes (dataset/bootstrap.h), each instance
// drawn with probability proportional to its weight, so an instance of
// weight k is drawn as often as k copies of it would be, in expectation,
// and an instance of weight 0 never.
//
// Draws go through an alias table (Vose's method) over the instances of
// positive weight, built once per forest: one draw is two generator steps,
// a slot chosen uniformly and a coin that keeps the slot's instance or
// takes its alias. Equal weights need no table: the sample is then exactly
// the unweighted one, draw for draw.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "velmot/dataset/bootstrap.h"
#include "velmot/dataset/node_sample.h"
#include "velmot/defs/exception.h"
#include "velmot/defs/int32_limits.h"

namespace Velmot {

class WeightedDraws {
public:
  WeightedDraws() = default;
  // weights: one per instance, finite and non-negative, not all zero (else
  // an Exception); empty for unweighted draws.
  explicit WeightedDraws(const std::vector<double>& weights) {
    double total = 0.0;
    bool equal = true;
    for (const double w : weights) {
      if (!(w >= 0.0) || !(w <= 1.7976931348623157e308)) {
        throw Exception("sample weights must be finite and non-negative");
      }
      total += w;
      equal = equal && w == weights.front();
    }
    if (weights.empty() || equal) {
      if (!weights.empty() && !(total > 0.0)) throw Exception("sample weights must not all be zero");
      return;
    }
    for (size_t i = 0; i < weights.size(); ++i) {
      if (weights[i] > 0.0) instance.push_back(static_cast<uint32_t>(i));
    }
    // Each slot's share of the mean weight, computed as w / (total / m) so
    // that a total beyond the double range cannot arise.
    const size_t m = instance.size();
    std::vector<double> share(m);
    double scaled_total = 0.0;
    for (size_t j = 0; j < m; ++j) scaled_total += weights[instance[j]] / static_cast<double>(m);
    for (size_t j = 0; j < m; ++j) share[j] = weights[instance[j]] / scaled_total;
    keep.assign(m, 1.0);
    alias.resize(m);
    for (size_t j = 0; j < m; ++j) alias[j] = static_cast<uint32_t>(j);
    std::vector<uint32_t> small, large;
    for (size_t j = 0; j < m; ++j) (share[j] < 1.0 ? small : large).push_back(static_cast<uint32_t>(j));
    while (!small.empty() && !large.empty()) {
      const uint32_t s = small.back(), l = large.back();
      small.pop_back();
      keep[s] = share[s];
      alias[s] = l;
      share[l] = (share[l] + share[s]) - 1.0;
      if (share[l] < 1.0) {
        large.pop_back();
        small.push_back(l);
      }
    }
    // What rounding leaves over keeps its own slot.
  }

  bool uniform() const { return instance.empty(); }

  // One instance number, two generator steps.
  template <class RNG>
  uint64_t draw(RNG& rng) const {
    const size_t slot = static_cast<size_t>(rng.next_int(static_cast<int64_t>(instance.size())));
    const double coin = static_cast<double>(RNG::magnitude(rng.next_int()) >> 10) * 0x1p-53;
    return instance[coin < keep[slot] ? slot : alias[slot]];
  }

private:
  std::vector<uint32_t> instance;  // the instances of positive weight, one per slot
  std::vector<double> keep;        // probability that a slot keeps its own instance
  std::vector<uint32_t> alias;     // the slot whose instance it gives otherwise
};

// The sample of a tree under `draws` (made from *dataset's weights), which
// must outlive nothing: the result refers to *dataset only.
template <class D, class RNG>
IndexedDataSet<D> weighted_subset_iid(const D* dataset, double fraction_of_parent, const WeightedDraws& draws,
                                      RNG& random_generator) {
  if (draws.uniform()) return random_subset_iid(dataset, fraction_of_parent, random_generator);
  IndexedDataSet<D> subset(dataset);
  const double wanted = fraction_of_parent * static_cast<double>(dataset->get_num_instances());
  if (!fits_in_int32_count(wanted)) {
    throw Exception("bootstrap sample size must be between 0 and " + std::to_string(int32_max) + " instances");
  }
  const uint64_t num_sample_instances = static_cast<uint64_t>(wanted);
  subset.indices.reserve(num_sample_instances);
  for (uint64_t k = 0; k < num_sample_instances; ++k)
    subset.indices.push_back(static_cast<uint32_t>(draws.draw(random_generator)));
  return subset;
}

}  // namespace Velmot

#endif
