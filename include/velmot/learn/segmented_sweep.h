#ifndef VELMOT_LEARN_SEGMENTED_SWEEP_H
#define VELMOT_LEARN_SEGMENTED_SWEEP_H

// The Gini sweep over the packed keys GiniBins kept (learn/gini_bins.h),
// sorted: the same steps as learn/sweep.h's sweep, run segment by segment.
// A segment is a stretch of the node's sorted keys with none left out: it
// starts at the node's first key, or at a dropped bin's first key (taken
// so that the label-change rule sees at the next bin's first boundary what
// it sees in the whole sweep), where the sides restart from the bins'
// counts. Every boundary of a kept bin is offered as the whole sweep offers
// it, with the same counts, so any boundary that reaches the floor is found
// with its score, its split impurity and its place. A dropped bin's own
// boundaries are offered too: they score below the floor, so they can only
// be the best of a feature that loses anyway.

#include <cstddef>
#include <cstdint>

#include "velmot/learn/gini_bins.h"
#include "velmot/learn/sweep.h"

namespace Velmot {

// Sorted kept keys, as gini_bins.h packs them; first_rank is the node's
// smallest rank (the seed's key).
struct SegmentedKeys {
  const uint32_t* key;
  size_t n;
  int label_bits;
  int weight_bits;
  uint32_t first_rank;
  const GiniBins* bins;
};

template <class Sides>
[[gnu::always_inline]] inline SweepResult<uint32_t> sweep_segments(const SegmentedKeys& input, Sides& sides) {
  const uint32_t* key = input.key;
  const size_t n = input.n;
  const GiniBins& bins = *input.bins;
  const int rank_shift = input.label_bits + input.weight_bits;
  const int weight_bits = input.weight_bits;
  const uint32_t label_mask = (uint32_t(1) << input.label_bits) - 1;
  const uint32_t weight_mask = (uint32_t(1) << weight_bits) - 1;
  const uint32_t unit = weight_bits == 0 ? 1 : 0;
  auto label_of = [=](uint32_t k) { return static_cast<int>((k >> weight_bits) & label_mask) - 1; };
  auto weight_of = [=](uint32_t k) { return (k & weight_mask) + unit; };

  SweepResult<uint32_t> result;
  result.lower = result.upper = input.first_rank;
  size_t i = 0;
  while (i < n) {
    // A segment starts at the node's first key or a dropped bin's; the
    // sides restart before it.
    const size_t lead_bin = bins.bin_of(key[i]);
    sides.restart(bins.left_before(lead_bin));
    SweepRun<uint32_t, int, false> run;
    run.start(sides, key[i] >> rank_shift, label_of(key[i]), weight_of(key[i]));
    for (++i; i < n; ++i) {
      const uint32_t k = key[i];
      const size_t bin = bins.bin_of(k);
      if (bin != lead_bin && !bins.kept(bin)) break;
      run.step(sides, result, k >> rank_shift, label_of(k), weight_of(k));
    }
  }
  return result;
}

// The best split among the kept keys, for a node of fewer than 2^26 pairs
// searched with no leaf limit (at most one pair per side).
template <class A>
FeatureSplit<uint32_t> best_segmented_split(const SegmentedKeys& input, const A& counts, double initial,
                                            LeafLimit limit) {
  GiniSides<A, double, false> sides(counts, initial, limit);
  FeatureSplit<uint32_t> split;
  split.where = sweep_segments(input, sides);
  split.score = sides.final_score();
  split.impurity = sides.impurity();
  return split;
}

}  // namespace Velmot

#endif
