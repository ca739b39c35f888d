// SPDX-License-Identifier: Apache-2.0
// 64-bit kernels on both sides of the 32-bit range: the smoothing (gain 16) of a constant is 16
// times it, rounded after the shift, whether or not the sums fit 32 bits.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "filterbank/filterbank.h"

namespace {

struct WideCase {
  const char* name;
  std::int64_t level;
  std::int32_t shift;
  std::int64_t expected;
};

class WideSums : public ::testing::TestWithParam<WideCase> {};

TEST_P(WideSums, ConstantComesOutSixteenTimesThenRounded) {
  const WideCase& c = GetParam();
  for (const std::int32_t d : {1, 4}) {
    for (const bool synthesis : {false, true}) {
      std::vector<std::int64_t> x(40, c.level);
      std::vector<std::int64_t> y(40, -5);
      if (synthesis) {
        convolve_synthesis(x.data(), 40, y.data(), flicker_filter_s, 2, 2, d, c.shift);
      } else {
        convolve_analysis(x.data(), 40, y.data(), flicker_filter_s, 2, 2, d, c.shift, 1);
      }
      EXPECT_EQ(y, std::vector<std::int64_t>(40, c.expected))
          << "dilation " << d << (synthesis ? " synthesis" : " analysis");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    FilterBank, WideSums,
    ::testing::Values(WideCase{"LargestNarrow", (1 << 26) - 1, 0, 1073741808},
                      WideCase{"NarrowNegative", -(1 << 26), 0, -1073741824},
                      WideCase{"NarrowHalfRoundsUp", 3, 5, 2},
                      WideCase{"NarrowHalfRoundsDown", -3, 5, -2},
                      WideCase{"SumIsTwoToThe31", 1 << 27, 0, 2147483648},
                      WideCase{"SumIsMinusTwoToThe31", -(1 << 27), 0, -2147483648},
                      WideCase{"WideHalfRoundsAway", (1 << 27) + 1, 5, 67108865},
                      WideCase{"WideNegativeHalfRoundsAway", -(1 << 27) - 1, 5, -67108865},
                      WideCase{"FarBeyond32Bits", std::int64_t{3} << 40, 4, std::int64_t{3} << 40}),
    [](const ::testing::TestParamInfo<WideCase>& info) { return std::string(info.param.name); });

}  // namespace
