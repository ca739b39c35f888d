// SPDX-License-Identifier: Apache-2.0
// Filter bank kernels: border extensions, dilation, decimation, rounding and widths.
#include "filterbank/filterbank.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

using I32 = std::vector<std::int32_t>;
using I64 = std::vector<std::int64_t>;

TEST(FilterBank, EmptyInputWritesNothing) {
  I32 x = {5};
  I32 y = {77};
  convolve_analysis(x.data(), 0, y.data(), flicker_filter_s, 2, 2, 1, 4, 1);
  convolve_synthesis(x.data(), 0, y.data(), flicker_filter_q, 4, 3, 1, 0);
  EXPECT_EQ(y[0], 77);
}

TEST(FilterBank, SmoothingKeepsAConstantUpToTheEdges) {
  I32 x(9, 7);
  I32 y(9);
  convolve_analysis(x.data(), 9, y.data(), flicker_filter_s, 2, 2, 1, 4, 1);
  EXPECT_EQ(y, I32(9, 7));
  convolve_analysis(x.data(), 9, y.data(), flicker_filter_s, 2, 2, 1, 0, 1);
  EXPECT_EQ(y, I32(9, 112));  // tap sum 16, no shift
}

TEST(FilterBank, FirstDifferenceRepeatsTheLastSample) {
  I32 x = {1, 4, 9, 16};
  I32 y(4);
  convolve_analysis(x.data(), 4, y.data(), flicker_filter_h, 0, 1, 1, 0, 1);
  EXPECT_EQ(y, (I32{3, 5, 7, 0}));
}

TEST(FilterBank, DilatedDifferenceIsCentred) {
  // d = 2: c = -1, P = 1, Q = 1, so y[i] = x[i + 1] - x[i - 1] with the edges repeated.
  I32 x = {1, 2, 4, 8, 16};
  I32 y(5);
  convolve_analysis(x.data(), 5, y.data(), flicker_filter_h, 0, 1, 2, 0, 1);
  EXPECT_EQ(y, (I32{1, 3, 6, 12, 8}));
}

TEST(FilterBank, DecimatedAnalysisWritesCeilNOverStepOutputs) {
  std::int32_t one[1] = {1};
  I32 x = {10, 11, 12, 13, 14};
  I32 y(5, -5);
  convolve_analysis(x.data(), 5, y.data(), one, 0, 0, 1, 0, 2);
  EXPECT_EQ(y, (I32{10, 12, 14, -5, -5}));
}

struct RoundCase {
  std::int32_t in;
  std::int32_t out;
};
class RoundingShift : public ::testing::TestWithParam<RoundCase> {};

TEST_P(RoundingShift, HalvesGoAwayFromZero) {
  std::int32_t one[1] = {1};
  I32 x = {GetParam().in};
  I32 y(1);
  convolve_analysis(x.data(), 1, y.data(), one, 0, 0, 1, 1, 1);
  EXPECT_EQ(y[0], GetParam().out);
  I64 x64 = {GetParam().in};
  I64 y64(1);
  convolve_analysis(x64.data(), 1, y64.data(), one, 0, 0, 1, 1, 1);
  EXPECT_EQ(y64[0], GetParam().out);
}

INSTANTIATE_TEST_SUITE_P(ShiftByOne, RoundingShift,
                         ::testing::Values(RoundCase{1, 1}, RoundCase{-1, -1}, RoundCase{-3, -2},
                                           RoundCase{-2, -1}, RoundCase{3, 2}, RoundCase{0, 0}));

TEST(FilterBank, SynthesisAtDilationOneInsertsAZeroOnTheLeftOnly) {
  // Left border: 0, -x0, -x1, -x2; right border: -x[n-2], -x[n-3], -x[n-4].
  I32 x(10, 1);
  I32 y(10);
  convolve_synthesis(x.data(), 10, y.data(), flicker_filter_q, 4, 3, 1, 0);
  EXPECT_EQ(y, (I32{-187, -57, -11, -1, 0, 0, 0, 2, 20, 94}));
  I64 x64(10, 1);
  I64 y64(10);
  convolve_synthesis(x64.data(), 10, y64.data(), flicker_filter_q, 4, 3, 1, 0);
  EXPECT_EQ(y64, (I64{-187, -57, -11, -1, 0, 0, 0, 2, 20, 94}));
}

TEST(FilterBank, SynthesisAtDilationTwoIsAntisymmetricOnBothSides) {
  I32 x(16, 1);
  I32 y(16);
  convolve_synthesis(x.data(), 16, y.data(), flicker_filter_q, 4, 3, 2, 0);
  EXPECT_EQ(y[0], -280);
  EXPECT_EQ(y[1], -94);
  EXPECT_EQ(y[8], 0);
  EXPECT_EQ(y[15], 280);
}

TEST(FilterBank, ThirtyTwoBitKernelsWrap) {
  // 16 x 2^28 = 2^32: zero in 32 bits, exact in 64.
  I32 x(6, 1 << 28);
  I32 y(6);
  convolve_analysis(x.data(), 6, y.data(), flicker_filter_s, 2, 2, 1, 0, 1);
  EXPECT_EQ(y, I32(6, 0));
  I64 x64(6, 1 << 28);
  I64 y64(6);
  convolve_analysis(x64.data(), 6, y64.data(), flicker_filter_s, 2, 2, 1, 0, 1);
  EXPECT_EQ(y64, I64(6, 4294967296));
}

TEST(FilterBank, WideningSynthesisKeepsLargeBands) {
  // d = 4: P = Q = 14, antisymmetric; the first output sees four negated and four plain samples.
  I32 x(32, 1 << 30);
  I64 y(32);
  convolve_synthesis_32_to_64_2x5(x.data(), 32, y.data(), flicker_filter_q, 4, 3, 4, 0);
  EXPECT_EQ(y[0], -300647710720);
  EXPECT_EQ(y[16], 0);
  EXPECT_EQ(y[31], 300647710720);
}

TEST(FilterBank, ShortSignalsRepeatTheirEdgeInsteadOfReadingPastIt) {
  // Pads of 8 around a 3-sample signal: the mirror is clamped, the constant survives.
  I64 x(3, 5);
  I64 y(3);
  convolve_analysis(x.data(), 3, y.data(), flicker_filter_s, 2, 2, 4, 4, 1);
  EXPECT_EQ(y, I64(3, 5));
}

TEST(FilterBank, OversizedCallsWriteNothing) {
  I32 x(2100, 1);
  I32 y(2100, -9);
  convolve_analysis(x.data(), 2100, y.data(), flicker_filter_s, 2, 2, 1, 0, 1);
  EXPECT_EQ(y[0], -9);
}

}  // namespace
