#ifndef VELMOT_DEFS_INT32_LIMITS_H
#define VELMOT_DEFS_INT32_LIMITS_H

// The 32-bit integer limits that bound the library's counts, indices,
// labels and strides: they are stored in ints (the tree encoding, the
// strided views, the vote tally), so every size or value that becomes one
// is checked here first.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace Velmot {

static_assert(sizeof(int) == sizeof(int32_t), "the library stores its 32-bit counts and indices in int");

constexpr int32_t int32_max = std::numeric_limits<int32_t>::max();  // 2^31 - 1
constexpr int32_t int32_min = std::numeric_limits<int32_t>::min();  // -2^31

// Most classes a tally of num_classes + 2 int slots (labels -1 ..
// num_classes) can count without num_classes + 2 overflowing an int.
constexpr int32_t max_num_classes = int32_max - 2;

namespace int32_detail {
// Open bounds of the real values whose truncation toward zero an int32
// holds: -2^31 - 1 < value < 2^31.
constexpr double truncation_below = -2147483649.0;
constexpr double truncation_above = 2147483648.0;
}  // namespace int32_detail

// Whether static_cast<int32_t>(value) is defined: for an integer, whether
// int32 holds it; for a real value, whether its truncation toward zero
// does (NaN never fits). Real values are compared in their own type, so
// for float the lower bound rounds to -2^31 and -2^31 itself is refused.
template <class T>
constexpr bool fits_in_int32(T value) {
  static_assert(std::is_arithmetic<T>::value, "a number");
  if constexpr (std::is_floating_point<T>::value) {
    return value > static_cast<T>(int32_detail::truncation_below) &&
           value < static_cast<T>(int32_detail::truncation_above);
  } else if constexpr (std::is_signed<T>::value) {
    return static_cast<int64_t>(value) >= int32_min && static_cast<int64_t>(value) <= int32_max;
  } else {
    return static_cast<uint64_t>(value) <= static_cast<uint64_t>(int32_max);
  }
}

// Whether a count computed in double (a sample size, before truncation) is
// 0 .. 2^31 - 1 once truncated; NaN and negative counts never are.
constexpr bool fits_in_int32_count(double value) { return value >= 0.0 && value < int32_detail::truncation_above; }

}  // namespace Velmot

#endif
