// SPDX-License-Identifier: Apache-2.0
// Frame score: worked examples, state selection, clamps and the deliberate wrap-arounds.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <random>
#include <vector>

#include "decision/decision.h"
#include "support.h"

namespace {

using kestrel_test::LibraryTest;

struct ScoreCase {
  const char* name;
  std::int32_t state;
  std::vector<std::int32_t> features;
  std::int32_t feature_index_50;  // freq_feature_index[0] for the case
  std::int32_t score;
};

void PrintTo(const ScoreCase& c, std::ostream* os) {
  *os << c.name;
}

class FrameScore : public LibraryTest, public ::testing::WithParamInterface<ScoreCase> {};

TEST_P(FrameScore, MatchesTheWorkedValue) {
  const ScoreCase& c = GetParam();
  g_flickerStateIndex = c.state;
  freq_feature_index[0] = c.feature_index_50;
  EXPECT_EQ(get_current_llr(c.features.data(), static_cast<std::uint32_t>(c.features.size())),
            c.score);
}

INSTANTIATE_TEST_SUITE_P(
    Defaults, FrameScore,
    ::testing::Values(
        // 120 Hz feature 256 above a mean of 100: z = 655, t_A = 1263, t_B = 790.
        ScoreCase{"WorkedExample", 0, {100, 100, 100, 100, 356, 100, 100, 100, 100}, 4, 91},
        // z = 0: -382 + 288 - 1816.
        ScoreCase{"AllEqual", 0, {500, 500, 500, 500, 500, 500, 500, 500, 500}, 4, -1910},
        // d clamps to 2^23, the 32-bit shift makes z = INT32_MIN / 100 = -21474836.
        ScoreCase{"SaturatedFeature",
                  0,
                  {100, 100, 100, 100, 0x7fffffff, 100, 100, 100, 100},
                  4,
                  6544503},
        // k = 8: the mean is taken over f[0..7] = 45.
        ScoreCase{"LastIndexScored", 0, {10, 20, 30, 40, 50, 60, 70, 80, 245}, 8, 1563},
        // State 60 Hz scores the 100 Hz feature with the ev60 tables.
        ScoreCase{"State60", 1, {100, 100, 100, 356, 100, 100, 100, 100, 100}, 4, -597},
        // Any non-zero state is the 60 Hz hypothesis and uses the second feature index.
        ScoreCase{"StateTwoIsSixty", 2, {100, 100, 100, 356, 100, 100, 100, 100, 100}, 4, -597},
        // n = 1: mean 0, divisor 1, f[0] scored.
        ScoreCase{"SingleFeature", 0, {3}, 4, -346},
        // A negative sum divides unsigned into a huge mean: kept on purpose.
        ScoreCase{"NegativeSumIsUnsigned", 0, {-9, -9, -9, -9, 0, -9, -9, -9, -9}, 4, -1922}),
    [](const ::testing::TestParamInfo<ScoreCase>& info) { return info.param.name; });

TEST_F(LibraryTest, FeatureIndexThreeInState50ScoresThe100HzFeature) {
  freq_feature_index[0] = 3;
  const std::int32_t f[9] = {100, 100, 100, 356, 100, 100, 100, 100, 100};
  EXPECT_EQ(get_current_llr(f, 9), 91);
}

// The choice search scores with a double-precision quotient: the same score as the integer
// division for every divisor from 1, at the clamps, the deliberate INT32_MIN shift and with
// tables whose slopes wrap.
TEST(FrameScorer, DoubleQuotientScoresAsTheIntegerOne) {
  FlkFrameScorer scorer;
  const std::vector<std::vector<std::int32_t>> tables = {
      {0, 381, 749, 288}, {655, -0x7fffffff, 0x7fffffff, -5}, {INT32_MIN, 1 << 20, -(1 << 20), 0}};
  const std::vector<std::int32_t> values = {
      INT32_MIN, INT32_MIN + 1, -0x800001, -0x800000, -1,       0,        1,
      2,         255,           0x7fffff,  0x800000,  0x800001, INT32_MAX};
  std::mt19937 rng(11);
  for (std::size_t t = 0; t < tables.size(); ++t) {
    for (int i = 0; i < 4; ++i) {
      scorer.own[i] = tables[t][i];
      scorer.other[i] = tables[(t + 1) % tables.size()][i];
    }
    std::vector<std::int32_t> fks = values;
    std::vector<std::int32_t> ms = {1, 2, 3, 7, 8, 255, 65537, 0x800000, 1 << 30, INT32_MAX};
    for (int r = 0; r < 200; ++r) {
      fks.push_back(static_cast<std::int32_t>(rng()) >> (rng() % 32));
      ms.push_back(1 + static_cast<std::int32_t>(rng() % 0x7fffffffu >> (rng() % 31)));
    }
    for (const std::int32_t fk : fks) {
      for (const std::int32_t m : ms) {
        ASSERT_EQ(scorer.ScoreOf(fk, m), scorer.TermsOf(fk, m).score) << fk << " / " << m;
      }
    }
  }
}

}  // namespace
