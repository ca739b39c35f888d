// SPDX-License-Identifier: Apache-2.0
// 2x5 adaptive despike: the four modes on constants, the level-1 clip, the skipped write of a
// negative level count, and the refusals.
#include <gtest/gtest.h>

#include <vector>

#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

std::vector<std::int32_t> Step(std::int32_t n, std::int32_t at, std::int32_t low,
                               std::int32_t high) {
  std::vector<std::int32_t> v(static_cast<std::size_t>(n), low);
  for (std::int32_t i = at; i < n; ++i) v[i] = high;
  return v;
}

class TwoByFiveDespike : public kestrel_test::LibraryTest,
                         public testing::WithParamInterface<std::int32_t> {};

TEST_P(TwoByFiveDespike, ConstantComesBackUnchanged) {
  std::vector<std::int32_t> in(40, 77);
  std::vector<std::int32_t> out(40, 0);
  flickerDespikeAdaptive_2x5(in.data(), out.data(), 40, GetParam(), 225);
  EXPECT_EQ(out, in);
}

INSTANTIATE_TEST_SUITE_P(AllModes, TwoByFiveDespike, testing::Values(0, 1, 2, 3, 7));

// The rebuild is exact while no first difference reaches the threshold.
TEST_F(TwoByFiveDespike, StepBelowTheThresholdPassesExactlyInModesOneAndTwo) {
  for (std::int32_t levels : {1, 2}) {
    const auto in = Step(40, 20, 0, 224);
    std::vector<std::int32_t> out(40, -1);
    flickerDespikeAdaptive_2x5(const_cast<std::int32_t*>(in.data()), out.data(), 40, levels, 225);
    EXPECT_EQ(out, in) << levels;
  }
}

// h1[19] = 1000 is clipped to 225, so the output misses 775 x the level-1 synthesis of an
// impulse: out[i] = round8(256 x[i] - 775 q[23 - i]) with q = 1 9 37 93 -93 -37 -9 -1.
TEST_F(TwoByFiveDespike, ModeOneClipsAStrongStepToTheThreshold) {
  auto in = Step(40, 20, 0, 1000);
  std::vector<std::int32_t> out(40, -1);
  flickerDespikeAdaptive_2x5(in.data(), out.data(), 40, 1, 225);
  const std::int32_t expected[8] = {3, 27, 112, 282, 718, 888, 973, 997};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(out[16 + i], expected[i]) << 16 + i;
  EXPECT_EQ(out[15], 0);
  EXPECT_EQ(out[24], 1000);
  // A falling step is clipped to -225: the mirror image.
  auto fall = Step(40, 20, 1000, 0);
  flickerDespikeAdaptive_2x5(fall.data(), out.data(), 40, 1, 225);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(out[16 + i], 1000 - expected[i]) << 16 + i;
}

// Three levels drop the finest detail: an alternating pattern vanishes inside the signal.
TEST_F(TwoByFiveDespike, ModeThreeDropsTheLevelOneDetail) {
  std::vector<std::int32_t> in(40);
  for (int i = 0; i < 40; ++i) in[i] = i % 2 ? 13 : -13;
  std::vector<std::int32_t> out(40, -1);
  flickerDespikeAdaptive_2x5(in.data(), out.data(), 40, 3, 225);
  for (int i = 8; i < 32; ++i) EXPECT_EQ(out[i], 0) << i;
}

TEST_F(TwoByFiveDespike, NegativeLevelsComputeLevelOneAndWriteNothing) {
  auto in = Step(40, 20, 0, 1000);
  std::vector<std::int32_t> out(40, -1);
  flickerDespikeAdaptive_2x5(in.data(), out.data(), 40, -1, 225);
  EXPECT_EQ(out, std::vector<std::int32_t>(40, -1));
  // The level-1 detail sits in the standard despike's memory as 32-bit values.
  const auto* h1 = reinterpret_cast<const std::int32_t*>(flicker_despike_working_memory_h1);
  EXPECT_EQ(h1[18], 0);
  EXPECT_EQ(h1[19], 1000);
  EXPECT_EQ(h1[39], 0);
}

TEST_F(TwoByFiveDespike, RefusesMoreThan2000SamplesAndPassesTooShortOnes) {
  kestrel_test::LogCapture log;
  std::vector<std::int32_t> big(2001, 5);
  std::vector<std::int32_t> out(2001, -1);
  flickerDespikeAdaptive_2x5(big.data(), out.data(), 2001, 1, 225);
  EXPECT_EQ(out[0], -1);
  EXPECT_TRUE(log.Contains("[flickerDespikeAdaptive_2x5] refused: 2001 samples exceed 2000"));
  // Shorter than the mode's border mirror (14 samples for three levels): passed on unchanged.
  std::vector<std::int32_t> tiny = {1, 500, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
  std::vector<std::int32_t> copy(13, -1);
  flickerDespikeAdaptive_2x5(tiny.data(), copy.data(), 13, 3, 225);
  EXPECT_EQ(copy, tiny);
}

}  // namespace
