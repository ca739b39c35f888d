// SPDX-License-Identifier: Apache-2.0
// Named integer primitives shared by every pipeline: deliberate 32-bit wrap-around, rounding
// shifts, truncating division, bit counts, range-checked narrowing, the exact sum and the plain
// copy. Nobody hand-rolls these in a stage.
#ifndef KESTREL_FIXED_POINT_H
#define KESTREL_FIXED_POINT_H

#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace fx {

// 32-bit two's-complement arithmetic that wraps on purpose. Signed overflow is undefined in C++,
// so the operation runs on uint32_t and the (modular, since C++20) conversion brings it back.
constexpr std::int32_t wrap_add32(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}
constexpr std::int32_t wrap_sub32(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}
constexpr std::int32_t wrap_mul32(std::int32_t a, std::int32_t b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}
constexpr std::int32_t wrap_neg32(std::int32_t a) {
  return static_cast<std::int32_t>(0u - static_cast<std::uint32_t>(a));
}
// |a| in 32 bits: |INT32_MIN| wraps to INT32_MIN, as the hardware does.
constexpr std::int32_t wrap_abs32(std::int32_t a) {
  return a < 0 ? wrap_neg32(a) : a;
}
// |a - b| exactly, as an unsigned value (below 2^32), without forming a 64-bit difference.
constexpr std::uint32_t abs_diff32(std::int32_t a, std::int32_t b) {
  return a > b ? static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b)
               : static_cast<std::uint32_t>(b) - static_cast<std::uint32_t>(a);
}
// a << k in 32 bits, bits shifted out are lost (k in 0..31).
constexpr std::int32_t wrap_shl32(std::int32_t a, int k) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) << k);
}
// a << k in 64 bits, bits shifted out are lost (k in 0..63).
constexpr std::int64_t wrap_shl64(std::int64_t a, int k) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) << k);
}
// 64-bit wrap-around, for energies of inputs far outside the statistics' range.
constexpr std::int64_t wrap_add64(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
constexpr std::int64_t wrap_mul64(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}
// The low 32 bits of a 64-bit value, as a signed number.
constexpr std::int32_t low32(std::int64_t v) {
  return static_cast<std::int32_t>(v);
}

// v / 2^k rounded to nearest, halves away from zero: add 2^(k-1) to a non-negative value and
// 2^(k-1) - 1 to a negative one, then shift arithmetically. k = 0 leaves v as it is. The sign
// test is made before the rounding term is added, which wraps (as the 64-bit energies it rounds
// do) within 2^(k-1) of the largest value.
constexpr std::int64_t rshift_round64(std::int64_t v, int k) {
  if (k <= 0) return v;
  const std::int64_t half = std::int64_t{1} << (k - 1);
  return wrap_add64(v, v >= 0 ? half : half - 1) >> k;
}
// The same in 32 bits; the rounding addition wraps like the rest of 32-bit band arithmetic.
constexpr std::int32_t rshift_round32_positive(std::int32_t v, int k) {  // k >= 1
  const std::int32_t half = std::int32_t{1} << (k - 1);
  return wrap_add32(v, v >= 0 ? half : half - 1) >> k;
}
constexpr std::int32_t rshift_round32(std::int32_t v, int k) {
  return k <= 0 ? v : rshift_round32_positive(v, k);
}
// v / 256, rounded half away from zero: the common "round8" of the despike rebuild.
constexpr std::int64_t round8_64(std::int64_t v) {
  return rshift_round64(v, 8);
}
constexpr std::int32_t round8_32(std::int32_t v) {
  return rshift_round32(v, 8);
}

// Signed division truncating toward zero, as every division in the pipelines does. A zero divisor
// gives 0 and INT_MIN / -1 wraps to INT_MIN instead of trapping.
template <typename T>
constexpr T div_trunc(T a, T b) {
  static_assert(std::is_signed_v<T>);
  if (b == 0) return 0;
  if (b == -1) return a == std::numeric_limits<T>::min() ? a : static_cast<T>(-a);
  return a / b;
}

// B(v): the number of halvings until v reaches 0, floor(log2 v) + 1 for v >= 1; B(0) is 1.
constexpr std::int32_t bit_count(std::uint64_t v) {
  std::int32_t b = 0;
  do {
    ++b;
    v >>= 1;
  } while (v != 0);
  return b;
}

constexpr std::int32_t clamp32(std::int32_t v, std::int32_t lo, std::int32_t hi) {
  return v < lo ? lo : (v > hi ? hi : v);
}

// A bound worked out in 64 bits from host-given sizes, saturated to 32 bits: equal to the 32-bit
// formula wherever that one does not overflow, and never wrapped into a huge loop bound.
constexpr std::int32_t saturate32(std::int64_t v) {
  return v < INT32_MIN ? INT32_MIN : (v > INT32_MAX ? INT32_MAX : static_cast<std::int32_t>(v));
}

// out[i] = v[i] in 16 bits for i < n, for the 16-bit vector paths; true when every v[i] lies
// within [-2^bits, 2^bits) (bits <= 15), so that nothing was cut. Biased by 2^bits, a value
// inside sets no bit from bits + 1 up: one OR over all of them, which vectorises.
inline bool narrow16(const std::int32_t* __restrict v, std::int64_t n, int bits,
                     std::int16_t* __restrict out) {
  const std::uint32_t bias = 1u << bits;
  std::uint32_t biased = 0;
  for (std::int64_t i = 0; i < n; ++i) {
    biased |= static_cast<std::uint32_t>(v[i]) + bias;
    out[i] = static_cast<std::int16_t>(v[i]);
  }
  return (biased >> (bits + 1)) == 0;
}

// The exact sum of v[0 .. n - 1]. Up to 2^15 samples, each sample's high half (signed, below
// 2^15 in size) and low half (below 2^16) sum apart in 32-bit lanes, which vectorises; the
// widening 64-bit loop does not on the baseline ISA.
inline std::int64_t sum64(const std::int32_t* v, std::int32_t n) {
  if (n <= 32767) {
    std::int32_t high = 0;
    std::uint32_t low = 0;
    for (std::int32_t i = 0; i < n; ++i) {
      high += v[i] >> 16;
      low += static_cast<std::uint32_t>(v[i]) & 0xFFFFu;
    }
    return std::int64_t{high} * 65536 + low;
  }
  std::int64_t sum = 0;
  for (std::int32_t i = 0; i < n; ++i) sum += v[i];
  return sum;
}

// to[i] = from[i] for i = 0 .. n - 1 in that order. Apart, the arrays are copied by the C library
// (several words a cycle); overlapping ones, which only a direct call of an exported stage can
// pass, keep the element order's result.
template <typename T>
inline void copy_forward(const T* from, std::int64_t n, T* to) {
  if (n < 1) return;
  const auto a = reinterpret_cast<std::uintptr_t>(from);
  const auto b = reinterpret_cast<std::uintptr_t>(to);
  const auto bytes = static_cast<std::uintptr_t>(n) * sizeof(T);
  if (a + bytes <= b || b + bytes <= a) {
    std::memcpy(to, from, bytes);
    return;
  }
  for (std::int64_t i = 0; i < n; ++i) to[i] = from[i];
}

}  // namespace fx

#endif  // KESTREL_FIXED_POINT_H
