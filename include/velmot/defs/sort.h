#ifndef VELMOT_DEFS_SORT_H
#define VELMOT_DEFS_SORT_H

// Sorting of (feature value, label) pairs by feature value.
//
// FlexiSort<F, L> is the sort the learner uses on a node's buffered pairs:
// - for integer and byte features, IntFlexiSort: a counting sort over the
//   (value, label) grid when that grid and the range are small compared
//   with n log2 n, the comparison sort otherwise;
// - for floating-point features, ComparisonFlexiSort: a stable sort by value
//   (radix sort of the values' ordered_bits, or a comparison sort for small
//   ranges).
// RankSort and PackedRankSort serve floating-point features whose values were
// ranked once per forest (and, packed, byte features, whose values serve as
// ranks): they sort the ranks instead and leave them as ranks for the split
// sweep (dataset/sorted_feature.h).
//
// Every sort here leaves the pairs ascending by value and, within equal
// values, ascending by label: the counting sort's order. The comparison sort
// may leave equal values in any order; choosing this one everywhere makes a
// node's sorted pairs independent of the order its instances came in, so the
// grower is free to keep its index list in whatever order gathers fastest,
// and a tree does not depend on which of the sorts its nodes used.
// For real labels the counting sort writes each label back on the grid
// lmin + b, b = trunc(trunc(l) - lmin): a fractional label comes back moved
// (0.5 and 2.7 come back as 0.5 and 1.5). That rewriting is deliberate.
//
// Counting sort steps: find fmin, fmax, lmin, lmax; cells = fr * lr; choose
// it when 2 max(n, cells) <= n log2 n; count each pair in its cell (cells of
// one label form a block of fr cells); rewrite the range value by value,
// label by label. The workspace grows by doubling and is reused.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmot/defs/int32_limits.h"
#include "velmot/defs/ordered_key.h"
#include "velmot/defs/sorting_network.h"

namespace Velmot {

// Compares feature values only; labels play no part.
template <class P>
struct FeatureLabelLessThan {
  typedef P first_argument_type;
  typedef P second_argument_type;
  typedef bool result_type;

  bool operator()(const P& a, const P& b) const { return a.first < b.first; }
};

namespace sort_detail {

// The number of bits x needs (0 for 0): one instruction, where a loop
// over the bits runs once per bit.
inline int bit_width(uint64_t x) { return x == 0 ? 0 : 64 - __builtin_clzll(x); }

// Ascending value, then ascending label: the one order every sort leaves.
// Labels are never NaN in a learner (they are checked against the class
// range first), so this is a strict weak order wherever values are not NaN.
template <class P>
struct ValueThenLabelLess {
  bool operator()(const P& a, const P& b) const {
    return a.first < b.first || (!(b.first < a.first) && a.second < b.second);
  }
};

// The comparison sort of integer pairs, in value-then-label order.
template <class Iterator>
void comparison_sort(Iterator first, Iterator last) {
  typedef typename std::iterator_traits<Iterator>::value_type P;
  std::sort(first, last, ValueThenLabelLess<P>());
}

// Insertion sort in value-then-label order, for the few pairs of small
// nodes (no allocation).
template <class P>
void insertion_sort_by_value_then_label(P* first, P* last) {
  const ValueThenLabelLess<P> less;
  for (P* i = first + (first != last); i < last; ++i) {
    const P moving = *i;
    P* j = i;
    for (; j != first && less(moving, *(j - 1)); --j) *j = *(j - 1);
    *j = moving;
  }
}

// After a stable sort by key alone: puts each run of equal keys in
// ascending label order. Runs are short on the data that matters (a run is
// a value repeated within one node), so insertion sort.
template <class K, class L>
void order_equal_keys_by_label(K* key, L* label, size_t n) {
  size_t run_start = 0;
  for (size_t i = 1; i <= n; ++i) {
    if (i < n && key[i] == key[run_start]) continue;
    for (size_t a = run_start + 1; a < i; ++a) {
      const L moving = label[a];
      size_t b = a;
      for (; b != run_start && moving < label[b - 1]; --b) label[b] = label[b - 1];
      label[b] = moving;
    }
    run_start = i;
  }
}

// Label offset on the counting grid and the label written back for it.
template <class L>
struct LabelGrid {
  static_assert(std::is_arithmetic<L>::value, "labels are numbers");

  // Whether every label of [lmin, lmax] has a grid offset an int can hold.
  static bool fits(L lmin, L lmax) {
    if constexpr (std::is_integral<L>::value) {
      return static_cast<int64_t>(lmax) - static_cast<int64_t>(lmin) < int32_max;
    } else {
      return lmin > static_cast<double>(int32_min) && lmax < static_cast<double>(int32_max);
    }
  }
  static int64_t range(L lmin, L lmax) {
    if constexpr (std::is_integral<L>::value) {
      return static_cast<int64_t>(lmax) + 1 - static_cast<int64_t>(lmin);
    } else {
      return static_cast<int64_t>(static_cast<int32_t>(lmax)) + 1 - static_cast<int32_t>(lmin);
    }
  }
  static int32_t offset(L label, L lmin) {
    if constexpr (std::is_integral<L>::value) {
      return static_cast<int32_t>(label - lmin);
    } else {
      return static_cast<int32_t>(static_cast<L>(static_cast<int32_t>(label)) - lmin);
    }
  }
  static L label_at(L lmin, int32_t offset) { return static_cast<L>(lmin + static_cast<L>(offset)); }
};

}  // namespace sort_detail

// Counting sort for integer and byte features (F integral), with the
// comparison sort as fallback.
template <class F, class L>
class IntFlexiSort {
  static_assert(std::is_integral<F>::value, "the counting sort needs integer feature values");

public:
  void resize(int num_cells, int num_labels) {
    grow(counts, static_cast<size_t>(num_cells));
    grow(starting_offsets, static_cast<size_t>(num_labels));
  }

  // Sorts [first, last) of (F, L) pairs; less is the fallback comparison.
  template <class Iterator, class Less>
  void sort(size_t /*feature_index*/, Iterator first, Iterator last, const Less& /*less*/) {
    typedef sort_detail::LabelGrid<L> Grid;
    const int64_t n = last - first;
    if (n == 0) return;
    F fmin = first->first, fmax = first->first;
    L lmin = first->second, lmax = first->second;
    bool nan_label = false;
    for (Iterator it = first; it != last; ++it) {
      fmin = std::min(fmin, it->first);
      fmax = std::max(fmax, it->first);
      lmin = std::min(lmin, it->second);
      lmax = std::max(lmax, it->second);
      nan_label |= !(it->second == it->second);
    }
    // A grid no 32-bit count can describe goes to the comparison sort.
    const int64_t fr = static_cast<int64_t>(fmax) + 1 - static_cast<int64_t>(fmin);
    if (nan_label || !Grid::fits(lmin, lmax)) {
      sort_detail::comparison_sort(first, last);
      return;
    }
    const int64_t lr = Grid::range(lmin, lmax);
    const int64_t cells = fr * lr;
    if (!fits_in_int32(cells)) {
      sort_detail::comparison_sort(first, last);
      return;
    }
    const int64_t m = std::max(static_cast<int64_t>(static_cast<int32_t>(n)), cells);
    if (!(2.0 * static_cast<double>(m) <= static_cast<double>(n) * std::log2(static_cast<double>(n)))) {
      sort_detail::comparison_sort(first, last);
      return;
    }

    resize(static_cast<int>(cells), static_cast<int>(lr));
    std::fill(counts.begin(), counts.begin() + cells, 0);
    for (int32_t k = 0; k < lr; ++k) starting_offsets[k] = k * static_cast<int32_t>(fr);
    for (Iterator it = first; it != last; ++it) {
      const int32_t a = static_cast<int32_t>(static_cast<int64_t>(it->first) - static_cast<int64_t>(fmin));
      ++counts[a + starting_offsets[Grid::offset(it->second, lmin)]];
    }
    Iterator out = first;
    for (int32_t a = 0; a < fr; ++a) {
      const F value = static_cast<F>(static_cast<int64_t>(fmin) + a);
      for (int32_t b = 0; b < lr; ++b) {
        int32_t copies = counts[a + starting_offsets[b]];
        if (copies == 0) continue;
        const L label = Grid::label_at(lmin, b);
        for (; copies > 0; --copies, ++out) *out = std::make_pair(value, label);
      }
    }
  }

  std::vector<int32_t> counts;
  std::vector<int32_t> starting_offsets;

private:
  static void grow(std::vector<int32_t>& cells, size_t needed) {
    if (cells.size() < needed) cells.resize(std::max(2 * cells.size(), needed));
  }
};

// The value sort of floating-point features, in value-then-label order: a
// least-significant-digit radix sort on the values' bit patterns for ranges
// large enough to repay it (skipping byte positions on which every key
// agrees; runs of equal values are then put in label order), and a
// comparison sort below. The scratch buffers are reused across nodes.
template <class F, class L>
class ComparisonFlexiSort {
  static_assert(std::is_floating_point<F>::value, "radix keys are made from float or double bits");

public:
  typedef std::pair<F, L> pair_type;
  typedef OrderedKey<F> key_type;

  void resize(int, int) {}

  template <class Iterator, class Less>
  void sort(size_t /*feature_index*/, Iterator first, Iterator last, const Less& /*less*/) {
    // NaN values (never present after imputation) go to the end unsorted.
    last = std::partition(first, last, [](const pair_type& p) { return p.first == p.first; });
    const size_t n = static_cast<size_t>(last - first);
    if (n < 2) return;
    if (n < insertion_threshold) {
      sort_detail::insertion_sort_by_value_then_label(&*first, &*first + n);
      return;
    }
    if (n < radix_threshold) {
      std::sort(first, last, sort_detail::ValueThenLabelLess<pair_type>());
      return;
    }
    radix_sort(&*first, n);
    order_equal_values_by_label(&*first, n);
  }

private:
  static constexpr size_t insertion_threshold = 32;
  static constexpr size_t radix_threshold = 256;
  static constexpr size_t num_digits = sizeof(key_type);

  void radix_sort(pair_type* data, size_t n) {
    if (scratch.size() < n) scratch.resize(std::max(n, 2 * scratch.size()));
    if (keys.size() < 2 * n) keys.resize(std::max(2 * n, 2 * keys.size()));
    key_type* key = keys.data();
    key_type* key_out = keys.data() + n;
    std::fill(&histogram[0][0], &histogram[0][0] + num_digits * 256, 0u);
    for (size_t i = 0; i < n; ++i) {
      const key_type k = ordered_bits(data[i].first);
      key[i] = k;
      for (size_t d = 0; d < num_digits; ++d) ++histogram[d][(k >> (8 * d)) & 0xFF];
    }
    pair_type* in = data;
    pair_type* out = scratch.data();
    for (size_t d = 0; d < num_digits; ++d) {
      uint32_t* count = histogram[d];
      const key_type first_digit = (key[0] >> (8 * d)) & 0xFF;
      if (count[first_digit] == n) continue;  // every key agrees here
      uint32_t offset = 0;
      for (size_t b = 0; b < 256; ++b) {
        const uint32_t c = count[b];
        count[b] = offset;
        offset += c;
      }
      for (size_t i = 0; i < n; ++i) {
        const uint32_t to = count[(key[i] >> (8 * d)) & 0xFF]++;
        out[to] = in[i];
        key_out[to] = key[i];
      }
      std::swap(in, out);
      std::swap(key, key_out);
    }
    if (in != data) std::copy(in, in + n, data);
  }

  static void order_equal_values_by_label(pair_type* data, size_t n) {
    size_t run_start = 0;
    for (size_t i = 1; i <= n; ++i) {
      if (i < n && data[i].first == data[run_start].first) continue;
      if (i - run_start > 1) sort_detail::insertion_sort_by_value_then_label(data + run_start, data + i);
      run_start = i;
    }
  }

  std::vector<pair_type> scratch;
  std::vector<key_type> keys;
  uint32_t histogram[num_digits][256];
};

// Sorts a node's (rank, label) pairs of one feature by rank, then label,
// with the two kept in separate arrays (the form for real labels, which
// cannot be packed into a key): a counting sort when the node's rank range
// is within a few times its size, a radix sort of the ranks (relative to the
// smallest) otherwise, with 8- or 11-bit digits by size, and an insertion
// sort for small nodes; runs of equal ranks are then put in label order. The
// caller fills key[0..n) and label[0..n) through prepare(); the sorted ranks
// and labels are then at sorted_key() and sorted_label(), each rank lowered
// by key_offset(). Values are not written out: the split sweep compares ranks
// and looks values up only for the thresholds it keeps.
template <class F, class L>
class RankSort {
public:
  void prepare(size_t n) {
    if (key.size() < n) {
      const size_t size = std::max(n, 2 * key.size());
      key.resize(size);
      key_scratch.resize(size);
      label.resize(size);
      label_scratch.resize(size);
    }
  }

  void sort(size_t n, uint32_t rmin, uint32_t rmax) {
    sort_by_rank(n, rmin, rmax);
    sort_detail::order_equal_keys_by_label(result_key, result_label, n);
  }

  const uint32_t* sorted_key() const { return result_key; }
  const L* sorted_label() const { return result_label; }
  uint32_t key_offset() const { return offset; }

  std::vector<uint32_t> key;
  std::vector<L> label;

private:
  static constexpr size_t small_size = 64;

  // Stable in rank alone.
  void sort_by_rank(size_t n, uint32_t rmin, uint32_t rmax) {
    if (n < small_size) {
      insertion_sort(n);
      result_key = key.data();
      result_label = label.data();
      offset = 0;
      return;
    }
    offset = rmin;
    const uint32_t span = rmax - rmin;
    if (span < 4 * n) {
      count.assign(static_cast<size_t>(span) + 2, 0);
      for (size_t i = 0; i < n; ++i) ++count[key[i] - rmin + 1];
      for (size_t b = 1; b < count.size(); ++b) count[b] += count[b - 1];
      uint32_t* k_out = key_scratch.data();
      L* l_out = label_scratch.data();
      for (size_t i = 0; i < n; ++i) {
        const uint32_t k = key[i] - rmin;
        const uint32_t to = count[k]++;
        k_out[to] = k;
        l_out[to] = label[i];
      }
      result_key = k_out;
      result_label = l_out;
      return;
    }
    const int digit_bits = n < 2048 ? 8 : 11;
    const uint32_t mask = (1u << digit_bits) - 1;
    const int bits = sort_detail::bit_width(span);
    const int passes = (bits + digit_bits - 1) / digit_bits;
    uint32_t* k_in = key.data();
    uint32_t* k_out = key_scratch.data();
    L* l_in = label.data();
    L* l_out = label_scratch.data();
    for (size_t i = 0; i < n; ++i) k_in[i] -= rmin;
    for (int pass = 0; pass < passes; ++pass) {
      const int shift = pass * digit_bits;
      count.assign(static_cast<size_t>(mask) + 1, 0);
      for (size_t i = 0; i < n; ++i) ++count[(k_in[i] >> shift) & mask];
      uint32_t position = 0;
      for (uint32_t& c : count) {
        const uint32_t here = c;
        c = position;
        position += here;
      }
      for (size_t i = 0; i < n; ++i) {
        const uint32_t to = count[(k_in[i] >> shift) & mask]++;
        k_out[to] = k_in[i];
        l_out[to] = l_in[i];
      }
      std::swap(k_in, k_out);
      std::swap(l_in, l_out);
    }
    result_key = k_in;
    result_label = l_in;
  }

  // Stable: a key moves only past strictly larger keys.
  void insertion_sort(size_t n) {
    uint32_t* k = key.data();
    L* l = label.data();
    for (size_t i = 1; i < n; ++i) {
      const uint32_t moving_key = k[i];
      const L moving_label = l[i];
      size_t j = i;
      for (; j != 0 && moving_key < k[j - 1]; --j) {
        k[j] = k[j - 1];
        l[j] = l[j - 1];
      }
      k[j] = moving_key;
      l[j] = moving_label;
    }
  }

  std::vector<uint32_t> key_scratch;
  std::vector<L> label_scratch;
  std::vector<uint32_t> count;
  uint32_t* result_key = nullptr;
  L* result_label = nullptr;
  uint32_t offset = 0;
};

// Sorts a node's (rank, label) pairs of one feature packed into one 32-bit
// key each: the rank in the high bits, label + 1 in the low label_bits, so
// that ascending keys are ascending ranks and, within a rank, ascending
// labels. One array instead of two halves what the sort moves, and the split
// sweep reads one stream. Equal keys are equal pairs, so stability does not
// matter.
//
// Steps: the caller fills keys() (n of them, smallest kmin, largest kmax);
// up to 16 keys go through a sorting network; mid-sized ones are sorted by
// buckets; the others by one counting pass when the keys, lowered by kmin
// with its label bits cleared, need at most 11 bits, else by two or three
// radix passes of equal digit widths, all histograms counted in one read.
class PackedRankSort {
public:
  void prepare(size_t n) {
    if (key.size() < n) {
      const size_t size = std::max(n, 2 * key.size());
      key.resize(size);
      scratch.resize(size);
    }
  }
  uint32_t* keys() { return key.data(); }

  // Sorts key[0..n), or, when the keys span no more distinct values than
  // there are keys, only counts each key (a histogram over [cell_base(),
  // kmax]) and returns false: a sweep over the histogram then does the work
  // of a sweep over the sorted keys in fewer steps. With count_only false it
  // always sorts and returns true.
  //
  // With weight_bits, each key's low weight_bits bits are a weight: they
  // play no part in the order (keys equal above them may come in any
  // order), and a key counts as its weight in the histogram, whose cells
  // are indexed by keys without those bits.
  bool sort_or_count(size_t n, uint32_t kmin, uint32_t kmax, int label_bits, bool count_only, int weight_bits = 0) {
    const uint32_t base = (kmin >> (label_bits + weight_bits)) << label_bits;
    const size_t cells = static_cast<size_t>((kmax >> weight_bits) - base) + 1;
    if (!count_only || cells > n) {
      sort(n, kmin, kmax, label_bits + weight_bits, weight_bits);
      return true;
    }
    if (count.size() < cells) count.resize(cells);
    uint32_t* c = count.data();
    std::fill(c, c + cells, 0u);
    const uint32_t* in = key.data();
    if (weight_bits == 0) {
      for (size_t i = 0; i < n; ++i) ++c[in[i] - base];
    } else {
      const uint32_t weight_mask = (uint32_t(1) << weight_bits) - 1;
      for (size_t i = 0; i < n; ++i) c[(in[i] >> weight_bits) - base] += in[i] & weight_mask;
    }
    base_key = base;
    num_cells = cells;
    return false;
  }
  // The histogram of the last sort_or_count that counted: cell k holds the
  // number of keys (their weights' sum) equal to cell_base() + k without
  // their weight bits (a key whose label bits are 0).
  const uint32_t* cell_counts() const { return count.data(); }
  size_t cell_count() const { return num_cells; }
  uint32_t cell_base() const { return base_key; }

  // Digits are taken from the keys lowered by kmin's rank (so that they
  // need as few bits as the range's span), the keys themselves move as
  // they are. The lowest skipped_bits bits of the keys are left out of the
  // order where that saves work (the radix passes skip them). The bucket
  // sort serves at most bucket_limit keys.
  void sort(size_t n, uint32_t kmin, uint32_t kmax, int label_bits, int skipped_bits = 0,
            size_t bucket_limit = bucket_sort_max) {
    uint32_t* in = key.data();
    result = in;
    if (n <= sorting_network_max) {
      sort_by_network(in, in, n);
      return;
    }
    const uint32_t base = (kmin >> label_bits) << label_bits;
    const uint32_t span = kmax - base;
    const int bits = std::max(sort_detail::bit_width(span), 1);
    // Few distinct keys for their number (byte values, say): one counting
    // pass over them all beats buckets full of equal keys.
    const int order_bits = std::max(bits - skipped_bits, 1);
    const bool dense = order_bits <= 11 && 8 * n >= (size_t(1) << order_bits);
    if (!dense && n <= bucket_limit && bucket_sort(n, base, bits)) return;
    radix_sort(n, base, bits, skipped_bits);
  }

  const uint32_t* sorted() const { return result; }

private:
  // Up to sorting_network_max keys a sorting network, with no branch on
  // the keys, where a comparison sort's go either way at random (growing
  // trees of 100,000 x 40 doubles: 5% fewer mispredicted branches than
  // std::sort below 16 keys, as many instructions). From 17 keys on the
  // bucket sort.
  static constexpr size_t bucket_sort_max = 4096;
  static constexpr uint32_t bucket_size_limit = 32;

  // One distribution pass by the keys' top bits into n to 2n buckets, then
  // an insertion sort, whose moves stay inside buckets: one scatter instead
  // of two radix passes. A node's ranks of a feature spread fairly evenly
  // over their span, so buckets hold one or two keys; if one holds more
  // than bucket_size_limit (clustered keys), the radix sort runs instead.
  // Clearing and summing the buckets costs per bucket, the insertion sort
  // per key: with 2n to 4n buckets the buckets' share was a tenth of a
  // fit's instructions, with n to 2n it halves for a few more moves.
  bool bucket_sort(size_t n, uint32_t base, int bits) {
    // The fewest bits, at least one, for which 2^bits >= n.
    int bucket_bits = std::max(sort_detail::bit_width(n - 1), 1);
    if (bucket_bits > bits) bucket_bits = bits;
    const int shift = bits - bucket_bits;
    const size_t buckets = size_t(1) << bucket_bits;
    if (count.size() < buckets) count.resize(buckets);
    uint32_t* c = count.data();
    std::fill(c, c + buckets, 0u);
    const uint32_t* in = key.data();
    for (size_t i = 0; i < n; ++i) ++c[(in[i] - base) >> shift];
    uint32_t position = 0;
    uint32_t largest = 0;
    for (size_t b = 0; b < buckets; ++b) {
      const uint32_t here = c[b];
      largest = std::max(largest, here);
      c[b] = position;
      position += here;
    }
    if (largest > bucket_size_limit) return false;
    uint32_t* out = scratch.data();
    for (size_t i = 0; i < n; ++i) out[c[(in[i] - base) >> shift]++] = in[i];
    // Insertion sort whose first step, the one that goes either way at
    // random in a bucket of two, is a branch-free compare-and-swap with
    // the largest key so far; only a third key of one bucket moves on.
    uint32_t top = out[0];
    for (size_t i = 1; i < n; ++i) {
      // Masks, not std::min and std::max, which the compiler turns into a
      // branch here.
      const uint32_t next = out[i];
      const uint32_t below = 0u - static_cast<uint32_t>(next < top);
      const uint32_t moving = (next & below) | (top & ~below);
      top ^= next ^ moving;
      out[i] = top;
      size_t j = i - 1;
      for (; j != 0 && moving < out[j - 1]; --j) out[j] = out[j - 1];
      out[j] = moving;
    }
    result = out;
    return true;
  }

  // Least-significant digit first: one counting pass when the lowered keys
  // need at most 11 bits, else two or three passes of equal digit widths,
  // all histograms counted in one read.
  void radix_sort(size_t n, uint32_t base, int all_bits, int skipped_bits) {
    uint32_t* in = key.data();
    // Digits start above the skipped bits; base has none of them set.
    const int bits = std::max(all_bits - skipped_bits, 1);
    const int skip = skipped_bits;
    const int passes = bits <= 11 ? 1 : bits <= 22 ? 2 : 3;
    const int digit_bits = (bits + passes - 1) / passes;
    const uint32_t mask = (1u << digit_bits) - 1;
    const size_t buckets = size_t(1) << digit_bits;
    if (count.size() < passes * buckets) count.resize(passes * buckets);
    std::fill(count.begin(), count.begin() + passes * buckets, 0u);
    uint32_t* c0 = count.data();
    uint32_t* c1 = c0 + buckets;
    uint32_t* c2 = c1 + buckets;
    if (passes == 1) {
      for (size_t i = 0; i < n; ++i) ++c0[(in[i] - base) >> skip];
    } else if (passes == 2) {
      for (size_t i = 0; i < n; ++i) {
        const uint32_t k = (in[i] - base) >> skip;
        ++c0[k & mask];
        ++c1[k >> digit_bits];
      }
    } else {
      for (size_t i = 0; i < n; ++i) {
        const uint32_t k = (in[i] - base) >> skip;
        ++c0[k & mask];
        ++c1[(k >> digit_bits) & mask];
        ++c2[k >> (2 * digit_bits)];
      }
    }
    uint32_t* out = scratch.data();
    for (int pass = 0; pass < passes; ++pass) {
      uint32_t* c = count.data() + pass * buckets;
      const int shift = skip + pass * digit_bits;
      // A digit every key shares moves nothing.
      if (c[((in[0] - base) >> shift) & mask] == n) continue;
      uint32_t position = 0;
      for (size_t b = 0; b < buckets; ++b) {
        const uint32_t here = c[b];
        c[b] = position;
        position += here;
      }
      for (size_t i = 0; i < n; ++i) out[c[((in[i] - base) >> shift) & mask]++] = in[i];
      std::swap(in, out);
    }
    result = in;
  }

  std::vector<uint32_t> key;
  std::vector<uint32_t> scratch;
  std::vector<uint32_t> count;
  const uint32_t* result = nullptr;
  uint32_t base_key = 0;
  size_t num_cells = 0;
};

template <class F, class L>
class FlexiSort
    : public std::conditional<std::is_integral<F>::value, IntFlexiSort<F, L>, ComparisonFlexiSort<F, L>>::type {};

}  // namespace Velmot

#endif
