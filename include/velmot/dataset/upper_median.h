#ifndef VELMOT_DATASET_UPPER_MEDIAN_H
#define VELMOT_DATASET_UPPER_MEDIAN_H

// The fill of a feature's missing values: the upper median of its present
// values, the value at position k/2 of the k present values sorted
// ascending (for an even k the upper of the two middle values, never their
// mean, so the fill is always a value the feature holds); 0 when no value
// is present. A value is missing when it is NaN (does not equal itself).
//
// Learning imputes its copy of the data with it, and prediction fills the
// caller's matrix with it, so both see the same values.

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Velmot {

// The fill of the n values value_at(0), ..., value_at(n - 1) (F: float or
// double). The present values are gathered in that order into `workspace`
// (grown to n as needed) and selected there: selection gives the value a
// full sort would, at a fraction of its cost, and the same values in the
// same order give the same bits even where values compare equal (-0.0 and
// 0.0).
template <class F, class ValueAt>
F upper_median_fill(size_t n, ValueAt&& value_at, std::vector<F>& workspace) {
  if (workspace.size() < n) workspace.resize(n);
  size_t k = 0;
  for (size_t i = 0; i < n; ++i) {
    const F value = value_at(i);
    if (value == value) workspace[k++] = value;
  }
  if (k == 0) return F(0);
  const auto first = workspace.begin();
  std::nth_element(first, first + static_cast<std::ptrdiff_t>(k / 2), first + static_cast<std::ptrdiff_t>(k));
  return workspace[k / 2];
}

}  // namespace Velmot

#endif
