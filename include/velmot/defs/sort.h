#ifndef VELMOT_DEFS_SORT_H
#define VELMOT_DEFS_SORT_H

// Sorting of (feature value, label) pairs by feature value.
//
// FlexiSort<F, L> is the sort the learner uses on a node's buffered pairs:
// - for integer and byte features, IntFlexiSort: a counting sort over the
//   (value, label) grid when that grid and the range are small compared
//   with n log2 n, the comparison sort otherwise;
// - for floating-point features, the comparison sort.
//
// The counting sort's result is ascending by value and, within equal values,
// ascending by label; the comparison sort leaves the order of equal values
// unspecified. For real labels the counting sort writes each label back on
// the grid lmin + b, b = trunc(trunc(l) - lmin): a fractional label comes back
// moved (0.5 and 2.7 come back as 0.5 and 1.5). That rewriting is kept.
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

// The comparison sort. Any algorithm that orders by value will do: the order
// of equal values is free. NaN values (never present after imputation) cannot
// derail it: they are moved to the end first, so the sort itself only sees a
// strict weak order.
template <class Iterator>
void comparison_sort(Iterator first, Iterator last) {
  typedef typename std::iterator_traits<Iterator>::value_type P;
  if constexpr (std::is_floating_point<typename P::first_type>::value) {
    last = std::partition(first, last, [](const P& p) { return p.first == p.first; });
  }
  std::sort(first, last, FeatureLabelLessThan<P>());
}

// Label offset on the counting grid and the label written back for it.
template <class L>
struct LabelGrid {
  static_assert(std::is_arithmetic<L>::value, "labels are numbers");

  // Whether every label of [lmin, lmax] has a grid offset an int can hold.
  static bool fits(L lmin, L lmax) {
    if constexpr (std::is_integral<L>::value) {
      return static_cast<int64_t>(lmax) - static_cast<int64_t>(lmin) < std::numeric_limits<int32_t>::max();
    } else {
      return lmin > -2147483648.0 && lmax < 2147483647.0;
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
    if (cells > std::numeric_limits<int32_t>::max()) {
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

// The comparison sort, for floating-point features.
template <class F, class L>
class ComparisonFlexiSort {
public:
  void resize(int, int) {}

  template <class Iterator, class Less>
  void sort(size_t /*feature_index*/, Iterator first, Iterator last, const Less& /*less*/) {
    sort_detail::comparison_sort(first, last);
  }
};

template <class F, class L>
class FlexiSort
    : public std::conditional<std::is_integral<F>::value, IntFlexiSort<F, L>, ComparisonFlexiSort<F, L>>::type {};

}  // namespace Velmot

#endif
