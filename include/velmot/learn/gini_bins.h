#ifndef VELMOT_LEARN_GINI_BINS_H
#define VELMOT_LEARN_GINI_BINS_H

// GiniBins: which of a node's packed keys (dataset/sorted_feature.h) the
// Gini sweep must see to find every boundary that scores at least a floor,
// found before sorting them. The grower sets the floor just under the best
// score an earlier feature of the node reached: a feature can only win, or
// tie, with a boundary above it, so its other boundaries need neither a
// sort nor a sweep.
//
// The keys' ranks are cut into bins of equal width, about keys_per_bin keys
// each, and each bin's pairs are counted per label slot. Sweeping through a
// bin moves the left side's counts from P (the pairs before the bin) to
// P + H (H: the bin's) through the box between them, and the split score
// sqL / nL + sqR / nR (the sum of each side's squared counts over its size)
// is convex in the left counts: no boundary in the bin scores above the
// box's highest corner. A bin whose corners all score below the floor is
// dropped.
//
// The kept keys are the kept bins' and, before each run of kept bins, the
// whole nonempty bin before the run: under the label-change rule
// (learn/sweep.h) whether a boundary is scored depends only on the labels
// of the rank before it and of the key after it when no leaf limit holds a
// boundary back, so a sweep restarted at any rank's first key scores the
// next boundaries as the whole sweep does. learn/segmented_sweep.h sweeps
// what is kept.
//
// The corners are scored the sweep's way, from exact integer counts, and
// compared with a floor lowered by a relative margin (the caller's) far
// above their rounding.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Velmot {

class GiniBins {
public:
  // Fewer keys per bin drop more keys but score more corners; 16 kept the
  // least work on 100,000 x 40 doubles.
  static constexpr size_t keys_per_bin = 16;
  // A bin with more label slots than this among its pairs is kept unscored
  // (2^slots corners).
  static constexpr size_t max_corner_slots = 4;

  // key[0, n): packed keys ((rank << label_bits | slot) << weight_bits |
  // weight), smallest kmin, largest kmax; node[slot] the node's pairs per
  // label slot (slots of them). Moves the kept keys to the front of key, in
  // their order, and returns how many; kept_min and kept_max are then
  // their smallest and largest. 0: no boundary reaches the floor.
  size_t keep_above(uint32_t* key, size_t n, uint32_t kmin, uint32_t kmax, int label_bits, int weight_bits,
                    const double* node, size_t slots, double floor, uint32_t& kept_min, uint32_t& kept_max) {
    num_slots = slots;
    bin_shift = label_bits + weight_bits;
    key_base = (kmin >> bin_shift) << bin_shift;
    const uint32_t span = (kmax >> bin_shift) - (kmin >> bin_shift);  // ranks - 1
    const size_t wanted = std::max<size_t>(n / keys_per_bin, 1);
    while ((static_cast<size_t>(span >> (bin_shift - label_bits - weight_bits)) + 1) > wanted) ++bin_shift;
    num_bins = static_cast<size_t>(span >> (bin_shift - label_bits - weight_bits)) + 1;
    count_bins(key, n, label_bits, weight_bits);
    if (!score_bins(node, floor)) return 0;
    return compact(key, n, kept_min, kept_max);
  }

  size_t bin_of(uint32_t key) const { return (key - key_base) >> bin_shift; }
  bool kept(size_t bin) const { return kept_bin[bin] == keep; }
  // The pairs per label slot before a bin.
  const double* left_before(size_t bin) const { return prefix.data() + bin * num_slots; }

private:
  void count_bins(const uint32_t* key, size_t n, int label_bits, int weight_bits) {
    counts.assign(num_bins * num_slots, 0u);
    const uint32_t label_mask = (uint32_t(1) << label_bits) - 1;
    const uint32_t weight_mask = (uint32_t(1) << weight_bits) - 1;
    const uint32_t unit = weight_bits == 0 ? 1 : 0;
    uint32_t* count = counts.data();
    const size_t slots = num_slots;
    for (size_t i = 0; i < n; ++i) {
      const uint32_t k = key[i];
      count[((k - key_base) >> bin_shift) * slots + ((k >> weight_bits) & label_mask)] += (k & weight_mask) + unit;
    }
  }

  // Marks each bin kept, dropped, or a dropped one before a run of kept
  // ones; false if none is kept.
  bool score_bins(const double* node, double floor) {
    const size_t slots = num_slots;
    prefix.resize(num_bins * slots);
    kept_bin.assign(num_bins, drop);
    double node_squares = 0.0, node_total = 0.0;
    for (size_t s = 0; s < slots; ++s) {
      node_squares += node[s] * node[s];
      node_total += node[s];
    }
    // A corner with an empty side is the unsplit node.
    const bool unsplit_reaches = node_squares / node_total >= floor;
    std::vector<double>& left = scratch;
    left.assign(slots, 0.0);
    Sums before{0.0, 0.0, 0.0};
    bool any = false;
    size_t previous = num_bins;  // the last nonempty bin
    for (size_t bin = 0; bin < num_bins; ++bin) {
      std::copy(left.begin(), left.end(), prefix.begin() + static_cast<std::ptrdiff_t>(bin * slots));
      const uint32_t* here = counts.data() + bin * slots;
      Sums step[max_corner_slots];
      size_t filled = 0;
      bool scored = true;
      Sums after = before;
      for (size_t s = 0; s < slots; ++s) {
        if (here[s] == 0) continue;
        const double h = here[s];
        const Sums moved{h * (2.0 * left[s] + h), h, h * node[s]};
        after.squares += moved.squares;
        after.total += moved.total;
        after.cross += moved.cross;
        left[s] += h;
        if (filled == max_corner_slots) {
          scored = false;
        } else {
          step[filled++] = moved;
        }
      }
      if (filled == 0) continue;
      const bool reaches = !scored || corner_reaches(before, step, filled, node_squares, node_total, floor,
                                                     unsplit_reaches);
      if (reaches) {
        kept_bin[bin] = keep;
        any = true;
        if (previous < num_bins && kept_bin[previous] == drop) kept_bin[previous] = lead;
      }
      before = after;
      previous = bin;
    }
    return any;
  }

  // A side's sum of squared counts, its size, and the sum of its counts
  // times the node's.
  struct Sums {
    double squares, total, cross;
  };

  // Whether some corner of a bin's box scores at least the floor: each
  // subset of the bin's filled slots moves its pairs left. Compared as
  // sqL nR + sqR nL >= floor nL nR, which the floor's margin covers.
  static bool corner_reaches(const Sums& before, const Sums* step, size_t filled, double node_squares,
                             double node_total, double floor, bool unsplit_reaches) {
    constexpr size_t most = size_t(1) << max_corner_slots;
    double squares[most], total[most], cross[most];
    squares[0] = before.squares;
    total[0] = before.total;
    cross[0] = before.cross;
    size_t corners = 1;
    for (size_t j = 0; j < filled; ++j) {
      for (size_t c = 0; c < corners; ++c) {
        squares[corners + c] = squares[c] + step[j].squares;
        total[corners + c] = total[c] + step[j].total;
        cross[corners + c] = cross[c] + step[j].cross;
      }
      corners *= 2;
    }
    for (size_t c = 0; c < corners; ++c) {
      const double right_total = node_total - total[c];
      const double right_squares = node_squares - 2.0 * cross[c] + squares[c];
      const bool split = total[c] > 0.0 && right_total > 0.0;
      const bool reaches = split ? squares[c] * right_total + right_squares * total[c] >= floor * total[c] * right_total
                                 : unsplit_reaches;
      if (reaches) return true;
    }
    return false;
  }

  size_t compact(uint32_t* key, size_t n, uint32_t& kept_min, uint32_t& kept_max) const {
    const uint8_t* taken = kept_bin.data();
    uint32_t low = UINT32_MAX, high = 0;
    size_t kept_keys = 0;
    for (size_t i = 0; i < n; ++i) {
      const uint32_t k = key[i];
      const bool take = taken[(k - key_base) >> bin_shift] != drop;
      key[kept_keys] = k;
      kept_keys += take;
      low = take ? std::min(low, k) : low;
      high = take ? std::max(high, k) : high;
    }
    kept_min = low;
    kept_max = high;
    return kept_keys;
  }

  // A bin's fate: dropped, kept, or dropped but taken whole before a run
  // of kept bins (the segmented sweep restarts at its first key).
  static constexpr uint8_t drop = 0, keep = 1, lead = 2;

  size_t num_slots = 0, num_bins = 0;
  int bin_shift = 0;  // a key's bin: (key - key_base) >> bin_shift
  uint32_t key_base = 0;
  std::vector<uint32_t> counts;  // per bin and label slot
  std::vector<double> prefix;    // per bin and label slot, the pairs before it
  std::vector<uint8_t> kept_bin;
  std::vector<double> scratch;
};

}  // namespace Velmot

#endif
