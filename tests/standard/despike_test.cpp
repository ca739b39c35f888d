// SPDX-License-Identifier: Apache-2.0
// Standard despike: constants pass unchanged, spikes are found on the multiscale product with the
// threshold in sum terms, the product wraps in 32 bits, and unusable lengths are refused.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "standard/standard.h"
#include "support.h"

namespace {

using V = std::vector<std::int32_t>;

// In place: the input is read once, before anything is written, so output may alias it.
V Despike(V x) {
  flicker_despike(x.data(), x.data(), static_cast<std::int32_t>(x.size()));
  return x;
}

V Slice(const V& v, std::size_t from, std::size_t n) {
  return V(v.begin() + from, v.begin() + from + n);
}

TEST(Despike, ConstantComesBackEverywhere) {
  // The three 16x smoothing gains of the split are undone by the three rounding divisions by 256
  // together with the rebuild's gains.
  for (const V& x : {V(14, 1234), V(300, -2000000000), V(2000, 65535)}) EXPECT_EQ(Despike(x), x);
}

TEST(Despike, IsolatedSpikeIsFoundAndItsCoarseDetailDeleted) {
  V x(100, 0);
  x[50] = 1000;
  const V out = Despike(x);
  // Products of about 5,000,000 next to the spike: positions 45..53 measure 225 or more.
  for (std::int32_t i = 40; i < 60; ++i) {
    EXPECT_EQ(std::abs(flicker_despike_working_memory_h_mask[i]) >= 225, i >= 45 && i <= 53) << i;
  }
  EXPECT_EQ(flicker_despike_working_memory_h_mask[49], 9766);  // 5,000,000 / 512
  EXPECT_EQ(Slice(out, 45, 11), (V{51, 59, 65, 69, 73, 76, 76, 73, 67, 57, 45}));
}

TEST(Despike, ThresholdIsANineSampleSumOf114944) {
  // Product sum exactly 114944 at position 17: a spike, its level-2 and -3 detail deleted.
  V at(40, 0);
  at[20] = 32;
  at[22] = 176;
  const V out_at = Despike(at);
  EXPECT_EQ(flicker_despike_working_memory_h_mask[17], 225);
  EXPECT_EQ(flicker_despike_working_memory_h2[17], 0);
  EXPECT_EQ(flicker_despike_working_memory_h3[17], 0);
  EXPECT_EQ(Slice(out_at, 16, 8), (V{9, 11, 13, 14, 15, 15, 16, 15}));
  // Sum 114943 at position 16: not a spike, its level-3 detail stays.
  V below(40, 0);
  below[20] = 137;
  below[23] = -154;
  const V out_below = Despike(below);
  EXPECT_EQ(flicker_despike_working_memory_h_mask[16], 224);
  EXPECT_EQ(flicker_despike_working_memory_h3[16], 3494);
  EXPECT_EQ(Slice(out_below, 16, 8), (V{1, 2, 4, 3, 2, 1, -1, -2}));
}

TEST(Despike, DetailProductWrapsIn32Bits) {
  V step(120, 0);
  for (std::int32_t i = 60; i < 120; ++i) step[i] = 300000;
  const V out = Despike(step);
  // h1 = 300000 times h2 = 3000000 is 9e11, kept modulo 2^32.
  EXPECT_EQ(flicker_despike_working_memory_h_tmp[59], -1943132160);
  EXPECT_EQ(flicker_despike_working_memory_h_mask[59], -3795180);
  EXPECT_EQ(Slice(out, 50, 6), (V{20103, 27339, 36389, 47336, 59999, 74118}));
}

// Both the 32-bit path (inputs within +-2^13) and the 64-bit one write their working memories up
// to the signal's length and no further.
TEST(Despike, WorkingMemoriesEndWithTheSignal) {
  std::int64_t* const wide[] = {
      flicker_despike_working_memory_input1, flicker_despike_working_memory_h1,
      flicker_despike_working_memory_l1,     flicker_despike_working_memory_h2,
      flicker_despike_working_memory_l2,     flicker_despike_working_memory_h3,
      flicker_despike_working_memory_l3,     flicker_despike_working_memory_h3r,
      flicker_despike_working_memory_h2r,    flicker_despike_working_memory_l3r,
      flicker_despike_working_memory_l2r,    flicker_despike_working_memory_l1r};
  std::int32_t* const narrow[] = {flicker_despike_working_memory_h_tmp,
                                  flicker_despike_working_memory_h_mask};
  for (const std::int32_t level : {8191, 8192}) {
    V x(101, 0);
    x[50] = level;
    x[100] = 99;  // past the 100 samples given
    for (std::int64_t* m : wide) m[100] = -5;
    for (std::int32_t* m : narrow) m[100] = -5;
    V input = x;
    flicker_despike(x.data(), x.data(), 100);
    for (const std::int64_t* m : wide) EXPECT_EQ(m[100], -5) << level;
    for (const std::int32_t* m : narrow) EXPECT_EQ(m[100], -5) << level;
    EXPECT_EQ(x[100], 99);
    // The output alone: the same samples; the 32-bit path leaves the 64-bit memories as they were.
    for (std::int64_t* m : wide) m[0] = -7;
    flicker_despike_output_only(input.data(), input.data(), 100);
    EXPECT_EQ(input, x) << level;
    for (const std::int64_t* m : wide) EXPECT_EQ(m[0] == -7, level == 8191) << level;
  }
}

TEST(Despike, UnusableLengthsLeaveTheOutputUntouched) {
  V in(2001, 1000);
  V out(2001, 7);
  kestrel_test::LogCapture log;
  for (const std::int32_t n : {0, -3, 1, 13, 2001}) flicker_despike(in.data(), out.data(), n);
  EXPECT_EQ(out, V(2001, 7));
  EXPECT_EQ(log.Lines(),
            (std::vector<std::string>{"[flicker_despike] refused: 1 samples outside 14..2000",
                                      "[flicker_despike] refused: 13 samples outside 14..2000",
                                      "[flicker_despike] refused: 2001 samples outside 14..2000"}));
}

}  // namespace
