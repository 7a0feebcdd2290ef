// The pruned Gini search: whatever GiniBins drops, a boundary that reaches
// the floor is found by the segmented sweep exactly as the whole sweep
// finds it (score, impurity, place), and a feature it drops entirely has
// no such boundary.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "velmot/dataset/sorted_feature.h"
#include "velmot/learn/gini_bins.h"
#include "velmot/learn/segmented_sweep.h"
#include "velmot/learn/sweep.h"
#include "velmot/stats/label_accumulator.h"

namespace {

using Counts = Velmot::NominalLabelPriorAccumulator<int>;

TEST(SegmentedSweep, FindsEveryBoundaryAboveTheFloorAsTheWholeSweep) {
  std::mt19937 random(7);
  Velmot::GiniBins bins;
  int compared = 0, dropped = 0;
  for (int trial = 0; trial < 600; ++trial) {
    const int classes = trial % 3 == 0 ? 2 : (trial % 3 == 1 ? 3 : 5);
    const size_t n = 64 + random() % 700;
    // Few ranks (ties, runs of one label) or many; weights or none.
    const uint32_t ranks = trial % 2 == 0 ? static_cast<uint32_t>(n / 6 + 1) : static_cast<uint32_t>(4 * n);
    const int weight_bits = trial % 4 < 2 ? 2 : 0;
    const int label_bits = classes == 5 ? 3 : 2;
    const int rank_shift = label_bits + weight_bits;
    Counts counts;
    counts.set_num_classes(classes);
    std::vector<uint32_t> key(n);
    for (size_t i = 0; i < n; ++i) {
      const uint32_t rank = static_cast<uint32_t>(random() % ranks);
      // Labels that follow the rank with noise, so that the best boundary
      // stands out from most others.
      const int label = random() % 4 == 0 ? static_cast<int>(random() % classes)
                                          : static_cast<int>(rank * static_cast<uint32_t>(classes) / ranks);
      const uint32_t weight = weight_bits == 0 ? 1 : 1 + random() % 3;
      key[i] =
          (((rank << label_bits) | static_cast<uint32_t>(label + 1)) << weight_bits) | (weight_bits == 0 ? 0 : weight);
      for (uint32_t c = 0; c < weight; ++c) counts.increment_count(label);
    }
    const double initial = counts.compute_gini_impurity();
    std::vector<uint32_t> sorted = key;
    std::sort(sorted.begin(), sorted.end());
    if ((sorted.front() >> rank_shift) == (sorted.back() >> rank_shift)) continue;
    const uint32_t label_mask = (uint32_t(1) << label_bits) - 1, weight_mask = (uint32_t(1) << weight_bits) - 1;
    const auto whole = Velmot::sorted_keys<int>(
        n, [&](size_t i) { return sorted[i] >> rank_shift; },
        [&](size_t i) { return static_cast<int>((sorted[i] >> weight_bits) & label_mask) - 1; },
        [&](size_t i) { return (sorted[i] & weight_mask) + (weight_bits == 0 ? 1 : 0); });
    Velmot::GiniSides<Counts, double, false> whole_sides(counts, initial, Velmot::LeafLimit());
    const auto expected = Velmot::sweep_with(whole, whole_sides);
    if (expected.where.is_seed) continue;

    std::vector<double> node(counts.get_num_slots());
    for (size_t s = 0; s < node.size(); ++s) node[s] = static_cast<double>(counts[static_cast<int>(s)]);
    const double best = initial + expected.score;
    // Floors under the best and one above it.
    for (const double below : {1e-9, 1e-4, 1e-2, 1e-1, -2e-2}) {
      const double floor = best * (1.0 - below);
      std::vector<uint32_t> pruned = key;
      uint32_t kept_min = 0, kept_max = 0;
      const size_t kept = bins.keep_above(pruned.data(), n, sorted.front(), sorted.back(), label_bits, weight_bits,
                                          node.data(), node.size(), floor, kept_min, kept_max);
      // Compared by products, corners may fall a few ulps short of the
      // floor: the caller's floor lies far enough below the best.
      const bool must_keep = best >= floor * (1.0 + 1e-12);
      if (kept == 0) {
        EXPECT_FALSE(must_keep);
        ++dropped;
        continue;
      }
      std::sort(pruned.begin(), pruned.begin() + static_cast<std::ptrdiff_t>(kept));
      EXPECT_EQ(pruned.front(), kept_min);
      EXPECT_EQ(pruned[kept - 1], kept_max);
      const Velmot::SegmentedKeys input{pruned.data(), kept, label_bits, weight_bits, sorted.front() >> rank_shift,
                                        &bins};
      const auto found = Velmot::best_segmented_split(input, counts, initial, Velmot::LeafLimit());
      if (!must_keep) continue;
      ++compared;
      EXPECT_EQ(found.score, expected.score);
      EXPECT_EQ(found.impurity, expected.impurity);
      EXPECT_EQ(found.where.lower, expected.where.lower);
      EXPECT_EQ(found.where.upper, expected.where.upper);
    }
  }
  // Both outcomes were reached often.
  EXPECT_GT(compared, 1000);
  EXPECT_GT(dropped, 100);
}

}  // namespace
