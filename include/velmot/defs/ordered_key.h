#ifndef VELMOT_DEFS_ORDERED_KEY_H
#define VELMOT_DEFS_ORDERED_KEY_H

// Ordered keys: an unsigned integer of a feature value's width whose integer
// order is the value order, so that radix and counting sorts can sort
// values by their keys' bits. NaN has no place in an order: callers keep it
// out.
//
// Two flavours, one transform:
//   ordered_bits(v)  orders the bit patterns: -0.0 sorts just below +0.0.
//                    The value sort uses it; equal values are then ordered
//                    by label, and among equal labels -0.0 stays first.
//   ordered_key(v)   equal values share a key (-0.0 takes +0.0's), so one
//                    key stands for one value: what ranks need.
// value_of_key undoes ordered_key (a zero key gives +0.0).
//
// F: int, float, double or unsigned char (IEEE floating point, at most 64
// bits).

#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace Velmot {

namespace ordered_key_detail {

template <class F, bool = std::is_floating_point<F>::value>
struct KeyBits {
  static_assert(std::is_integral<F>::value, "features are numbers");
  typedef typename std::make_unsigned<F>::type type;
};
template <class F>
struct KeyBits<F, true> {
  typedef typename std::conditional<sizeof(F) == 8, uint64_t, uint32_t>::type type;
};

template <class Bits>
constexpr Bits sign_bit() {
  return Bits(Bits(1) << (8 * sizeof(Bits) - 1));
}

}  // namespace ordered_key_detail

template <class F>
using OrderedKey = typename ordered_key_detail::KeyBits<F>::type;

template <class F>
OrderedKey<F> ordered_bits(F value) {
  typedef OrderedKey<F> Bits;
  constexpr Bits sign = ordered_key_detail::sign_bit<Bits>();
  if constexpr (std::is_floating_point<F>::value) {
    static_assert(sizeof(F) == sizeof(Bits) && std::numeric_limits<F>::is_iec559, "IEEE float or double");
    Bits bits;
    std::memcpy(&bits, &value, sizeof bits);
    // Negative values: every bit flipped (a larger magnitude, a smaller
    // key); positive values: above every negative one. A mask, not a
    // branch: signs come in no order.
    const Bits negative = Bits(0) - Bits(bits >> (8 * sizeof(Bits) - 1));
    return Bits(bits ^ (negative | sign));
  } else if constexpr (std::is_signed<F>::value) {
    return Bits(Bits(value) ^ sign);
  } else {
    return value;
  }
}

template <class F>
OrderedKey<F> ordered_key(F value) {
  if constexpr (std::is_floating_point<F>::value) {
    // -0.0 == +0.0: both take the key of +0.0.
    return ordered_bits(value == F(0) ? F(0) : value);
  } else {
    return ordered_bits(value);
  }
}

template <class F>
F value_of_key(OrderedKey<F> key) {
  typedef OrderedKey<F> Bits;
  constexpr Bits sign = ordered_key_detail::sign_bit<Bits>();
  if constexpr (std::is_floating_point<F>::value) {
    const Bits bits = (key & sign) != 0 ? Bits(key ^ sign) : Bits(~key);
    F value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  } else if constexpr (std::is_signed<F>::value) {
    return static_cast<F>(Bits(key ^ sign));
  } else {
    return key;
  }
}

}  // namespace Velmot

#endif
