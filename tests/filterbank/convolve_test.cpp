// SPDX-License-Identifier: Apache-2.0
// Filter bank kernels: border extensions, dilation, decimation, rounding and widths.
#include "filterbank/filterbank.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

using I32 = std::vector<std::int32_t>;
using I64 = std::vector<std::int64_t>;

std::int32_t kOne[1] = {1};

// Runs one kernel at the width of T on x; the output buffer is prefilled with -5.
template <typename T>
std::vector<T> Convolve(bool synthesis, std::int32_t* taps, std::int32_t L, std::int32_t R,
                        std::int32_t d, std::int32_t s, std::int32_t step, const I32& in) {
  std::vector<T> x(in.begin(), in.end());
  std::vector<T> y(in.size(), -5);
  const auto n = static_cast<std::int32_t>(x.size());
  if (synthesis) {
    convolve_synthesis(x.data(), n, y.data(), taps, L, R, d, s);
  } else {
    convolve_analysis(x.data(), n, y.data(), taps, L, R, d, s, step);
  }
  return y;
}

// Both widths agree while nothing overflows; returns the 32-bit output.
I32 Both(bool synthesis, std::int32_t* taps, std::int32_t L, std::int32_t R, std::int32_t d,
         std::int32_t s, std::int32_t step, const I32& x) {
  const I32 y = Convolve<std::int32_t>(synthesis, taps, L, R, d, s, step, x);
  EXPECT_EQ(Convolve<std::int64_t>(synthesis, taps, L, R, d, s, step, x), I64(y.begin(), y.end()));
  return y;
}

TEST(FilterBank, ExtensionsDilationDecimationAndRounding) {
  // Edge sample repeated: a constant survives up to the edges, times 16 without a shift.
  EXPECT_EQ(Both(false, flicker_filter_s, 2, 2, 1, 4, 1, I32(6, 7)), I32(6, 7));
  EXPECT_EQ(Both(false, flicker_filter_s, 2, 2, 1, 0, 1, I32(6, 7)), I32(6, 112));
  // c = 0, P = 0, Q = 1: the last output sees x[n - 1] twice.
  EXPECT_EQ(Both(false, flicker_filter_h, 0, 1, 1, 0, 1, I32{1, 4, 9, 16}), (I32{3, 5, 7, 0}));
  // d = 2: c = -1, P = Q = 1, so y[i] = x[i + 1] - x[i - 1].
  EXPECT_EQ(Both(false, flicker_filter_h, 0, 1, 2, 0, 1, I32{1, 2, 4, 8, 16}),
            (I32{1, 3, 6, 12, 8}));
  // Step 2 on five samples writes three outputs; s = 1 rounds halves away from zero.
  EXPECT_EQ(Both(false, kOne, 0, 0, 1, 0, 2, I32{10, 11, 12, 13, 14}), (I32{10, 12, 14, -5, -5}));
  EXPECT_EQ(Both(false, kOne, 0, 0, 1, 1, 1, I32{1, -1, -3, -2, 3, 0}), (I32{1, -1, -2, -1, 2, 0}));
  // The largest shift of the 32-bit kernels, 30, still rounds.
  EXPECT_EQ(Both(false, kOne, 0, 0, 1, 30, 1, I32{1 << 30, 1 << 29, (1 << 29) - 1, -(1 << 29)}),
            (I32{1, 1, 0, -1}));
  // Pads of 8 around 3 samples: the mirror repeats the edge instead of reading past it.
  EXPECT_EQ(Both(false, flicker_filter_s, 2, 2, 4, 4, 1, I32(3, 5)), I32(3, 5));
  // d = 1: a zero before the negated mirror on the left, the mirror skips x[n - 1] on the
  // right, so the two ends differ in magnitude.
  EXPECT_EQ(Both(true, flicker_filter_q, 4, 3, 1, 0, 1, I32(10, 1)),
            (I32{-187, -57, -11, -1, 0, 0, 0, 2, 20, 94}));
  // d = 2: c = 1, P = Q = 7, negated mirror on both sides.
  EXPECT_EQ(Both(true, flicker_filter_q, 4, 3, 2, 0, 1, I32(16, 1)),
            (I32{-280, -94, -94, -20, -20, -2, -2, 0, 0, 2, 2, 20, 20, 94, 94, 280}));
}

TEST(FilterBank, ThirtyTwoBitKernelsWrapAndTheWideningSynthesisDoesNot) {
  // 16 x 2^28 = 2^32: zero in 32 bits, exact in 64.
  I32 x(6, 1 << 28);
  I32 y(6);
  convolve_analysis(x.data(), 6, y.data(), flicker_filter_s, 2, 2, 1, 0, 1);
  EXPECT_EQ(y, I32(6, 0));
  I64 x64(6, 1 << 28);
  I64 y64(6);
  convolve_analysis(x64.data(), 6, y64.data(), flicker_filter_s, 2, 2, 1, 0, 1);
  EXPECT_EQ(y64, I64(6, 4294967296));
  // d = 4: P = Q = 14; the first output sees four negated and four plain samples of 2^30.
  I32 big(32, 1 << 30);
  I64 wide(32);
  convolve_synthesis_32_to_64_2x5(big.data(), 32, wide.data(), flicker_filter_q, 4, 3, 4, 0);
  EXPECT_EQ(wide[0], -300647710720);
  EXPECT_EQ(wide[16], 0);
  EXPECT_EQ(wide[31], 300647710720);
}

TEST(FilterBank, EmptyAndOversizedCallsWriteNothing) {
  I32 x(2100, 1);
  I32 y(2100, -9);
  convolve_analysis(x.data(), 0, y.data(), flicker_filter_s, 2, 2, 1, 4, 1);
  convolve_synthesis(x.data(), 0, y.data(), flicker_filter_q, 4, 3, 1, 0);
  convolve_analysis(x.data(), 2100, y.data(), flicker_filter_s, 2, 2, 1, 0, 1);
  EXPECT_EQ(y, I32(2100, -9));
}

}  // namespace
