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
  // Bins are first scored in groups of 2^group_bits, each as one box: a
  // group far below the floor drops its bins for one box's corners.
  static constexpr int group_bits = 3;
  // A bin with more label slots than this among its pairs is kept unscored
  // (2^slots corners).
  static constexpr size_t max_corner_slots = 4;

  // key[0, n): packed keys ((rank << label_bits | slot) << weight_bits |
  // weight), smallest kmin, largest kmax; node[slot] the node's pairs per
  // label slot (slots of them). Keeps the bins that may hold a boundary
  // scoring at least floor: moves their keys to the front of key, in their
  // order, and returns how many; kept_min and kept_max are then the
  // smallest and largest. 0: no boundary reaches the floor.
  size_t keep_above(uint32_t* key, size_t n, uint32_t kmin, uint32_t kmax, int label_bits, int weight_bits,
                    const double* node, size_t slots, double floor, uint32_t& kept_min, uint32_t& kept_max) {
    num_slots = slots;
    const int rank_shift = label_bits + weight_bits;
    const uint32_t span = (kmax >> rank_shift) - (kmin >> rank_shift);  // ranks - 1
    const size_t wanted = std::max<size_t>(n / keys_per_bin, 1);
    int width_bits = 0;
    while (rank_shift + width_bits < 31 && static_cast<size_t>(span >> width_bits) + 1 > wanted) ++width_bits;
    bin_shift = rank_shift + width_bits;
    key_base = (kmin >> rank_shift) << rank_shift;
    num_bins = static_cast<size_t>(span >> width_bits) + 1;
    count_bins(key, n, label_bits, weight_bits);
    sum_bins(node);
    if (!score_bins(node, floor)) return 0;
    return compact(key, n, kept_min, kept_max);
  }

  size_t bin_of(uint32_t key) const { return (key - key_base) >> bin_shift; }
  bool kept(size_t bin) const { return fate[bin] == keep; }
  // The pairs per label slot before a bin.
  const double* left_before(size_t bin) const { return prefix.data() + bin * num_slots; }

private:
  // A side's sum of squared counts, its size, and the sum of its counts
  // times the node's.
  struct Sums {
    double squares, total, cross;
  };

  // Counts each bin's pairs per label slot, in cells of 2^label_bits.
  void count_bins(const uint32_t* key, size_t n, int label_bits, int weight_bits) {
    cell_bits = label_bits;
    counts.assign(num_bins << label_bits, 0u);
    const uint32_t label_mask = (uint32_t(1) << label_bits) - 1;
    const uint32_t weight_mask = (uint32_t(1) << weight_bits) - 1;
    const uint32_t unit = weight_bits == 0 ? 1 : 0;
    uint32_t* count = counts.data();
    for (size_t i = 0; i < n; ++i) {
      const uint32_t k = key[i];
      count[(((k - key_base) >> bin_shift) << label_bits) | ((k >> weight_bits) & label_mask)] +=
          (k & weight_mask) + unit;
    }
  }

  // The left side's counts and sums before each bin (and after the last),
  // and which bins hold keys.
  void sum_bins(const double* node) {
    const size_t slots = num_slots;
    prefix.resize((num_bins + 1) * slots);
    before.resize(num_bins + 1);
    filled.assign(num_bins, 0);
    node_squares = node_total = 0.0;
    for (size_t s = 0; s < slots; ++s) {
      node_squares += node[s] * node[s];
      node_total += node[s];
    }
    double* left = prefix.data();
    std::fill(left, left + slots, 0.0);
    Sums sums{0.0, 0.0, 0.0};
    for (size_t bin = 0; bin < num_bins; ++bin) {
      before[bin] = sums;
      double* next = left + slots;
      const uint32_t* here = counts.data() + (bin << cell_bits);
      uint32_t any = 0;
      for (size_t s = 0; s < slots; ++s) {
        const double h = here[s];
        sums.squares += h * (2.0 * left[s] + h);
        sums.total += h;
        sums.cross += h * node[s];
        next[s] = left[s] + h;
        any |= here[s];
      }
      filled[bin] = any != 0;
      left = next;
    }
    before[num_bins] = sums;
  }

  // Marks each bin kept, dropped, or dropped but leading a run of kept ones;
  // false if none is kept. A group of bins whose box scores below the
  // floor drops all its bins at once.
  bool score_bins(const double* node, double floor) {
    fate.assign(num_bins, drop);
    // A corner with an empty side is the unsplit node.
    const bool unsplit_reaches = node_squares / node_total >= floor;
    const size_t group = size_t(1) << group_bits;
    bool any = false;
    size_t previous = num_bins;  // the last nonempty bin
    for (size_t first = 0; first < num_bins; first += group) {
      const size_t end = std::min(first + group, num_bins);
      if (end - first > 1 && !box_reaches(first, end, node, floor, unsplit_reaches)) {
        for (size_t bin = end; bin-- > first;) {
          if (filled[bin]) {
            previous = bin;
            break;
          }
        }
        continue;
      }
      for (size_t bin = first; bin < end; ++bin) {
        if (!filled[bin]) continue;
        if (box_reaches(bin, bin + 1, node, floor, unsplit_reaches)) {
          fate[bin] = keep;
          any = true;
          if (previous < num_bins && fate[previous] == drop) fate[previous] = lead;
        }
        previous = bin;
      }
    }
    return any;
  }

  // Whether some corner of the box swept through bins [first, end) scores
  // at least the floor: each subset of the label slots filled there moves
  // its pairs left. Compared as sqL nR + sqR nL >= floor nL nR, which the
  // floor's margin covers.
  bool box_reaches(size_t first, size_t end, const double* node, double floor, bool unsplit_reaches) const {
    const size_t slots = num_slots;
    const double* left = left_before(first);
    const double* right_end = left_before(end);
    Sums step[max_corner_slots];
    size_t moved = 0;  // label slots with pairs in the box
    for (size_t s = 0; s < slots; ++s) {
      const double h = right_end[s] - left[s];
      if (h == 0.0) continue;
      if (moved == max_corner_slots) return true;
      step[moved++] = Sums{h * (2.0 * left[s] + h), h, h * node[s]};
    }
    if (moved == 0) return false;
    constexpr size_t most = size_t(1) << max_corner_slots;
    double squares[most], total[most], cross[most];
    squares[0] = before[first].squares;
    total[0] = before[first].total;
    cross[0] = before[first].cross;
    size_t corners = 1;
    for (size_t j = 0; j < moved; ++j) {
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

  // The kept keys' extremes are taken in a pass of their own: folded into
  // the compaction, they cost a branch per key that goes either way at
  // random.
  size_t compact(uint32_t* key, size_t n, uint32_t& kept_min, uint32_t& kept_max) const {
    const uint8_t* taken = fate.data();
    size_t kept_keys = 0;
    for (size_t i = 0; i < n; ++i) {
      const uint32_t k = key[i];
      key[kept_keys] = k;
      kept_keys += taken[(k - key_base) >> bin_shift] != drop;
    }
    uint32_t low = UINT32_MAX, high = 0;
    for (size_t i = 0; i < kept_keys; ++i) {
      low = std::min(low, key[i]);
      high = std::max(high, key[i]);
    }
    kept_min = low;
    kept_max = high;
    return kept_keys;
  }

  // A bin's fate: dropped, kept, or dropped but taken whole before a run
  // of kept bins (the segmented sweep restarts at its first key).
  static constexpr uint8_t drop = 0, keep = 1, lead = 2;

  size_t num_slots = 0, num_bins = 0;
  int cell_bits = 0;  // a bin's label slots take 2^cell_bits counts
  int bin_shift = 0;  // a key's bin: (key - key_base) >> bin_shift
  uint32_t key_base = 0;
  double node_squares = 0.0, node_total = 0.0;
  std::vector<uint32_t> counts;  // per bin and label slot
  std::vector<uint8_t> filled;   // per bin, whether it holds keys
  std::vector<double> prefix;    // per bin and label slot, the pairs before it (and at the end)
  std::vector<Sums> before;      // per bin, the left side's sums before it (and at the end)
  std::vector<uint8_t> fate;
};

}  // namespace Velmot

#endif
