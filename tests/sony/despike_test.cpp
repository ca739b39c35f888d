// SPDX-License-Identifier: Apache-2.0
// SONY despike: constants pass through, the 41/40 spike threshold on the raw first difference,
// in-place use and the refused lengths.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "sony/sony.h"
#include "support.h"

namespace {

using kestrel_test::LogCapture;

TEST(SonyDespike, ConstantComesBackUnchanged) {
  for (const std::int32_t value : {0, 1000, -54947, 65545}) {
    std::vector<std::int32_t> in(20, value);
    std::vector<std::int32_t> out(20, 7);
    flicker_despike_SONY(in.data(), out.data(), 20);
    EXPECT_EQ(out, std::vector<std::int32_t>(20, value)) << value;
  }
}

TEST(SonyDespike, ConstantInPlace) {
  std::vector<std::int32_t> io(2000, -321);
  flicker_despike_SONY(io.data(), io.data(), 2000);
  EXPECT_EQ(io, std::vector<std::int32_t>(2000, -321));
}

std::vector<std::int32_t> Step(std::int32_t height) {
  std::vector<std::int32_t> x(20, 0);
  for (std::int32_t i = 10; i < 20; ++i) x[i] = height;
  return x;
}

TEST(SonyDespike, StepOf41IsASpike) {
  auto in = Step(41);
  std::vector<std::int32_t> out(20);
  flicker_despike_SONY(in.data(), out.data(), 20);
  EXPECT_EQ(flicker_despike_working_memory_h1_sony[9], 0);
  EXPECT_EQ(flicker_despike_working_memory_h2_sony[9], 0);
  // The neighbouring level-2 detail survives: l1[11] - l1[9] = 615 - 205.
  EXPECT_EQ(flicker_despike_working_memory_h2_sony[10], 410);
}

TEST(SonyDespike, StepOf40IsSignal) {
  auto in = Step(40);
  std::vector<std::int32_t> out(20);
  flicker_despike_SONY(in.data(), out.data(), 20);
  EXPECT_EQ(flicker_despike_working_memory_h1_sony[9], 40);
  EXPECT_EQ(flicker_despike_working_memory_h2_sony[9], 400);  // l1[10] - l1[8] = 440 - 40
  // The fine detail is added back: the step keeps its ends.
  EXPECT_EQ(out[0], 0);
  EXPECT_EQ(out[19], 40);
}

TEST(SonyDespike, SingleSpikeClearsBothDifferences) {
  std::vector<std::int32_t> in(20, 0);
  in[10] = 60;
  std::vector<std::int32_t> out(20);
  flicker_despike_SONY(in.data(), out.data(), 20);
  EXPECT_EQ(flicker_despike_working_memory_h1_sony[9], 0);
  EXPECT_EQ(flicker_despike_working_memory_h1_sony[10], 0);
  EXPECT_EQ(flicker_despike_working_memory_h2_sony[9], 0);
  EXPECT_EQ(flicker_despike_working_memory_h2_sony[10], 0);
}

TEST(SonyDespike, LastPositionIsNeverASpike) {
  std::vector<std::int32_t> in(20, 0);
  in[19] = 500;
  std::vector<std::int32_t> out(20);
  flicker_despike_SONY(in.data(), out.data(), 20);
  EXPECT_EQ(flicker_despike_working_memory_h1_sony[18], 0);  // 500 - 0, a spike
  EXPECT_EQ(flicker_despike_working_memory_h1_sony[19], 0);  // the repeated edge: 0 anyway
  EXPECT_NE(flicker_despike_working_memory_h2_sony[19], 0);  // not cleared
}

TEST(SonyDespike, RefusesLengthsOutsideItsScratchAndMirrors) {
  std::vector<std::int32_t> in(2001, 5);
  std::vector<std::int32_t> out(2001, 9);
  LogCapture log;
  flicker_despike_SONY(in.data(), out.data(), 2001);
  flicker_despike_SONY(in.data(), out.data(), 6);
  flicker_despike_SONY(in.data(), out.data(), 0);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{
                             "[flicker_despike_SONY] refused: 2001 samples outside 7..2000",
                             "[flicker_despike_SONY] refused: 6 samples outside 7..2000"}));
  EXPECT_EQ(out, std::vector<std::int32_t>(2001, 9));
}

}  // namespace
