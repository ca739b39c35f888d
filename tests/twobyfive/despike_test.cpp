// SPDX-License-Identifier: Apache-2.0
// 2x5 adaptive despike: the four modes on constants, the level-1 clip, the skipped write of a
// negative level count, and the refusals.
#include <gtest/gtest.h>

#include <vector>

#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

// Despikes `in` with threshold 225 into an output filled with -1.
std::vector<std::int32_t> Despike(std::vector<std::int32_t> in, std::int32_t levels) {
  std::vector<std::int32_t> out(in.size(), -1);
  flickerDespikeAdaptive_2x5(in.data(), out.data(), static_cast<std::int32_t>(in.size()), levels,
                             225);
  return out;
}

std::vector<std::int32_t> Step(std::int32_t low, std::int32_t high) {
  std::vector<std::int32_t> v(40, low);
  std::fill(v.begin() + 20, v.end(), high);
  return v;
}

// Every mode returns a constant unchanged; modes 1 and 2 rebuild a step of 224 exactly; three
// levels drop the finest detail, so an alternating pattern vanishes inside the signal.
TEST(TwoByFiveDespike, ConstantsStepsBelowTheThresholdAndModeThree) {
  for (std::int32_t levels : {0, 1, 2, 3, 7}) {
    EXPECT_EQ(Despike(std::vector<std::int32_t>(40, 77), levels),
              std::vector<std::int32_t>(40, 77));
  }
  for (std::int32_t levels : {1, 2}) EXPECT_EQ(Despike(Step(0, 224), levels), Step(0, 224));
  std::vector<std::int32_t> in(40);
  for (int i = 0; i < 40; ++i) in[i] = i % 2 ? 13 : -13;
  flicker_despike_working_memory_l2r_32bit[40] = 12345;  // past n: never written
  const auto out = Despike(in, 3);
  EXPECT_EQ(std::vector<std::int32_t>(out.begin() + 8, out.begin() + 32),
            std::vector<std::int32_t>(24, 0));
  EXPECT_EQ(flicker_despike_working_memory_l2r_32bit[40], 12345);
}

// h1[19] = 1000 is clipped to 225, so the output misses 775 x the level-1 synthesis of an
// impulse: out[i] = round8(256 x[i] - 775 q[23 - i]) with q = 1 9 37 93 -93 -37 -9 -1. A
// falling step is clipped to -225: the mirror image.
TEST(TwoByFiveDespike, ModeOneClipsAStrongStepToTheThreshold) {
  const std::vector<std::int32_t> rise = {0, 3, 27, 112, 282, 718, 888, 973, 997, 1000};
  const auto up = Despike(Step(0, 1000), 1);
  const auto down = Despike(Step(1000, 0), 1);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(up[15 + i], rise[i]) << 15 + i;
    EXPECT_EQ(down[15 + i], 1000 - rise[i]) << 15 + i;
  }
}

// A negative level count computes level 1 (h1[i] = x[i + 1] - x[i], 0 at the end, held as 32-bit
// values in the standard despike's memory) and writes nothing; more than 2000 samples are
// refused, and a signal shorter than the mode's mirror (14 for three levels) passes unchanged.
TEST(TwoByFiveDespike, NegativeLevelsOverlongAndShortSignals) {
  EXPECT_EQ(Despike(Step(0, 1000), -1), std::vector<std::int32_t>(40, -1));
  const auto* h1 = reinterpret_cast<const std::int32_t*>(flicker_despike_working_memory_h1);
  EXPECT_EQ(std::vector<std::int32_t>(h1 + 18, h1 + 21), (std::vector<std::int32_t>{0, 1000, 0}));
  EXPECT_EQ(h1[39], 0);
  kestrel_test::LogCapture log;
  EXPECT_EQ(Despike(std::vector<std::int32_t>(2001, 5), 1), std::vector<std::int32_t>(2001, -1));
  EXPECT_EQ(log.Lines(), std::vector<std::string>{
                             "[flickerDespikeAdaptive_2x5] refused: 2001 samples exceed 2000"});
  const std::vector<std::int32_t> tiny = {1, 500, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
  EXPECT_EQ(Despike(tiny, 3), tiny);
  EXPECT_EQ(Despike({42}, 1), std::vector<std::int32_t>{42});
}

}  // namespace
