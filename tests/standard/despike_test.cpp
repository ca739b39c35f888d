// SPDX-License-Identifier: Apache-2.0
// Standard despike: constants pass unchanged, spikes are found on the multiscale product with the
// threshold in sum terms, the product wraps in 32 bits, and unusable lengths are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <cstdlib>
#include <numeric>
#include <string>
#include <vector>

#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LogCapture;

std::int64_t Sum(const std::vector<std::int32_t>& v) {
  return std::accumulate(v.begin(), v.end(), std::int64_t{0});
}

std::vector<std::int32_t> Despike(std::vector<std::int32_t> x) {
  std::vector<std::int32_t> out(x.size(), 0x5a5a5a5a);
  flicker_despike(x.data(), out.data(), static_cast<std::int32_t>(x.size()));
  return out;
}

struct ConstantCase {
  std::int32_t value;
  std::int32_t n;
};
void PrintTo(const ConstantCase& c, std::ostream* os) { *os << c.value << " x " << c.n; }
class DespikeConstant : public testing::TestWithParam<ConstantCase> {};

TEST_P(DespikeConstant, ReturnsTheConstantEverywhere) {
  const auto [value, n] = GetParam();
  const std::vector<std::int32_t> out = Despike(std::vector<std::int32_t>(n, value));
  for (std::int32_t i = 0; i < n; ++i) ASSERT_EQ(out[i], value) << i;
}

INSTANTIATE_TEST_SUITE_P(Lengths, DespikeConstant,
                         testing::Values(ConstantCase{1234, 14}, ConstantCase{-777, 100},
                                         ConstantCase{0, 57}, ConstantCase{65535, 2000},
                                         ConstantCase{-2000000000, 300}));

TEST(Despike, IsolatedSpikeIsFoundAndItsCoarseDetailDeleted) {
  std::vector<std::int32_t> x(100, 0);
  x[50] = 1000;
  const std::vector<std::int32_t> out = Despike(x);
  // Nine-sample product sums of 5,000,000 around the spike: positions 45..53 are spikes.
  for (std::int32_t i = 40; i < 60; ++i) {
    EXPECT_EQ(std::abs(flicker_despike_working_memory_h_mask[i]) >= 225, i >= 45 && i <= 53) << i;
  }
  EXPECT_EQ(flicker_despike_working_memory_h_mask[49], 9766);  // 5,000,000 / 512
  const std::int32_t expected[21] = {16, 21, 28, 35, 43, 51, 59, 65, 69, 73, 76,
                                     76, 73, 67, 57, 45, 33, 23, 15, 10, 7};
  for (std::int32_t i = 0; i < 21; ++i) EXPECT_EQ(out[40 + i], expected[i]) << 40 + i;
}

TEST(Despike, ThresholdIsANineSampleSumOf114944) {
  // Product sum exactly 114944 at position 17: a spike; the level-2 and -3 detail there (32 and
  // 4672 before removal) is deleted.
  std::vector<std::int32_t> at(40, 0);
  at[20] = 32;
  at[22] = 176;
  const std::vector<std::int32_t> out_at = Despike(at);
  EXPECT_EQ(flicker_despike_working_memory_h_mask[17], 225);
  EXPECT_EQ(flicker_despike_working_memory_h2[17], 0);
  EXPECT_EQ(flicker_despike_working_memory_h3[17], 0);
  EXPECT_EQ(Sum(out_at), 207);
  const std::int32_t expected_at[8] = {9, 11, 13, 14, 15, 15, 16, 15};
  for (std::int32_t i = 0; i < 8; ++i) EXPECT_EQ(out_at[16 + i], expected_at[i]) << 16 + i;

  // Sum 114943 at position 16: not a spike, its level-3 detail stays.
  std::vector<std::int32_t> below(40, 0);
  below[20] = 137;
  below[23] = -154;
  const std::vector<std::int32_t> out_below = Despike(below);
  EXPECT_EQ(flicker_despike_working_memory_h_mask[16], 224);
  EXPECT_EQ(flicker_despike_working_memory_h3[16], 3494);
  EXPECT_EQ(Sum(out_below), -16);
  const std::int32_t expected_below[8] = {1, 2, 4, 3, 2, 1, -1, -2};
  for (std::int32_t i = 0; i < 8; ++i) EXPECT_EQ(out_below[16 + i], expected_below[i]) << 16 + i;
}

TEST(Despike, DetailProductWrapsIn32Bits) {
  std::vector<std::int32_t> step(120, 0);
  std::fill(step.begin() + 60, step.end(), 300000);
  const std::vector<std::int32_t> out = Despike(step);
  // h1 = 300000 times h2 = 3000000 is 9e11, kept modulo 2^32.
  EXPECT_EQ(flicker_despike_working_memory_h_tmp[59], -1943132160);
  EXPECT_EQ(flicker_despike_working_memory_h_mask[59], -3795180);
  EXPECT_EQ(Sum(out), 18000002);
  const std::int32_t expected[6] = {20103, 27339, 36389, 47336, 59999, 74118};
  for (std::int32_t i = 0; i < 6; ++i) EXPECT_EQ(out[50 + i], expected[i]) << 50 + i;
}

TEST(Despike, FullLengthSignalInPlace) {
  std::vector<std::int32_t> x(2000);
  for (std::int32_t i = 0; i < 2000; ++i) x[i] = ((i * i * 7 + i * 13) % 97) * 50 - 2400;
  x[1000] += 20000;
  flicker_despike(x.data(), x.data(), 2000);  // output may be the input
  EXPECT_EQ(Sum(x), 113305);
  const std::int32_t head[5] = {-720, -715, -704, -689, -669};
  const std::int32_t mid[5] = {1216, 1221, 1207, 1175, 1130};
  const std::int32_t tail[5] = {34, 4, -21, -37, -46};
  for (std::int32_t i = 0; i < 5; ++i) {
    EXPECT_EQ(x[i], head[i]);
    EXPECT_EQ(x[1000 + i], mid[i]);
    EXPECT_EQ(x[1995 + i], tail[i]);
  }
}

struct RefusedLength {
  std::int32_t n;
  const char* line;  // empty: nothing logged
};
void PrintTo(const RefusedLength& c, std::ostream* os) { *os << "n " << c.n; }
class DespikeRefusal : public testing::TestWithParam<RefusedLength> {};

TEST_P(DespikeRefusal, LeavesTheOutputUntouched) {
  std::vector<std::int32_t> in(2001, 1000), out(2001, 7);
  LogCapture log;
  flicker_despike(in.data(), out.data(), GetParam().n);
  for (std::int32_t v : out) ASSERT_EQ(v, 7);
  if (std::string(GetParam().line).empty()) {
    EXPECT_TRUE(log.Lines().empty());
  } else {
    EXPECT_TRUE(log.Contains(GetParam().line)) << log.Lines().size();
    EXPECT_EQ(log.Lines().size(), 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, DespikeRefusal,
    testing::Values(RefusedLength{0, ""}, RefusedLength{-3, ""},
                    RefusedLength{1, "[flicker_despike] refused: 1 samples outside 14..2000"},
                    RefusedLength{13, "[flicker_despike] refused: 13 samples outside 14..2000"},
                    RefusedLength{2001,
                                  "[flicker_despike] refused: 2001 samples outside 14..2000"}));

}  // namespace
