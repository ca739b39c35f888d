// SPDX-License-Identifier: Apache-2.0
// 2x5 frequency features: output headroom, the length-normalised and equal-length three-candidate
// searches, and the noiseness measure.
#include <gtest/gtest.h>

#include <vector>

#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

// Hand-made trigonometric tables: every cosine entry of row k is cos_row[k], every sine 0, so a
// partial sum is the row value times the plain sum of the samples.
class TwoByFiveFrequency : public kestrel_test::LibraryTest {
 protected:
  void UseFlatTables(const std::int32_t (&cos_row)[9]) {
    cos_.assign(9 * kWidth, 0);
    sin_.assign(9 * kWidth, 0);
    for (int k = 0; k < 9; ++k) {
      for (int n = 0; n < kWidth; ++n) cos_[k * kWidth + n] = cos_row[k];
    }
    g_flkTab1 = cos_.data();
    g_flkTab2 = sin_.data();
    g_flkTabW = kWidth;
  }
  void TearDown() override {
    g_flkTab1 = saved1_;
    g_flkTab2 = saved2_;
    g_flkTabW = savedW_;
    LibraryTest::TearDown();
  }

  static constexpr int kWidth = 16;
  std::vector<std::int32_t> cos_, sin_;
  std::int32_t* saved1_ = g_flkTab1;
  std::int32_t* saved2_ = g_flkTab2;
  std::int32_t savedW_ = g_flkTabW;
};

TEST_F(TwoByFiveFrequency, SingleSignalKeepsEnergiesUnderTwoToThe22) {
  UseFlatTables({255, 255, 255, 255, 255, 255, 255, 255, 255});
  std::int32_t one[1] = {100};
  std::int32_t freq[9] = {};
  // E = (255 x 100)^2 = 650250000; M >> 22 = 155, so p = 8 and every energy is rounded by 256.
  flicker_compute_freq_2x5(one, 1, freq);
  for (int k = 0; k < 9; ++k) EXPECT_EQ(freq[k], 2540039) << k;
  std::int32_t small[1] = {4};
  flicker_compute_freq_2x5(small, 1, freq);
  for (int k = 0; k < 9; ++k) EXPECT_EQ(freq[k], 1040400) << k;
}

// Re' = Re x 128 / S truncated: 10 x 128 / 3 = 426 and 20 x 128 / 3 = 853 on the 120 Hz row.
TEST_F(TwoByFiveFrequency, LengthNormalisedSearchAveragesOverTheChosenLength) {
  UseFlatTables({1, 1, 1, 1, 2, 1, 1, 1, 1});
  std::int32_t a[3] = {3, 3, 4};
  std::int32_t b[3] = {9, 9, 9};
  std::int32_t c[3] = {9, 9, 9};
  std::int32_t* versions[3] = {a, b, c};
  std::int32_t len_a[1] = {3};
  std::int32_t len_b[1] = {0};
  std::int32_t len_c[1] = {0};
  std::int32_t* lengths[3] = {len_a, len_b, len_c};
  std::int32_t freq[9] = {};
  std::int32_t best = 0;
  flicker_compute_freq_3x_2x5(versions, 1, lengths, freq, best);
  const std::int32_t expected[9] = {181476, 181476, 181476, 181476, 727609,
                                    181476, 181476, 181476, 181476};
  for (int k = 0; k < 9; ++k) EXPECT_EQ(freq[k], expected[k]) << k;
  EXPECT_EQ(best, 442);
}

// A choice whose lengths are all 0 divides by 1 and has zero energies; with the default tables
// zero features (score -1455) beat nine equal ones (score -1910).
TEST_F(TwoByFiveFrequency, EmptyChoiceScoresItsZeroEnergies) {
  UseFlatTables({1, 1, 1, 1, 1, 1, 1, 1, 1});
  std::int32_t a[4] = {5, 5, 5, 5};
  std::int32_t b[4] = {7, 7, 7, 7};
  std::int32_t c[4] = {1, 1, 1, 1};
  std::int32_t* versions[3] = {a, b, c};
  std::int32_t len_a[1] = {4};
  std::int32_t len_b[1] = {4};
  std::int32_t len_c[1] = {0};
  std::int32_t* lengths[3] = {len_a, len_b, len_c};
  std::int32_t freq[9];
  std::fill(std::begin(freq), std::end(freq), -1);
  std::int32_t best = 0;
  flicker_compute_freq_3x_2x5(versions, 1, lengths, freq, best);
  for (int k = 0; k < 9; ++k) EXPECT_EQ(freq[k], 0) << k;
  EXPECT_EQ(best, -1455);
}

TEST_F(TwoByFiveFrequency, LengthNormalisedSearchRefusesMoreSegmentsThanWindows) {
  UseFlatTables({1, 1, 1, 1, 1, 1, 1, 1, 1});
  kestrel_test::LogCapture log;
  std::int32_t freq[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  std::int32_t best = 0;
  flicker_compute_freq_3x_2x5(nullptr, 11, nullptr, freq, best);
  EXPECT_EQ(best, INT32_MIN);
  EXPECT_EQ(freq[8], 9);
  EXPECT_TRUE(log.Contains("[flicker_compute_freq_3x_2x5] refused: 11 segments, limit 10"));
}

// Equal lengths: Re rounded by 2^(B(4) - 1) = 4, flat features everywhere, the first version
// wins the tie.
TEST_F(TwoByFiveFrequency, EqualLengthSearchKeepsTheFirstVersionOnTies) {
  UseFlatTables({1, 1, 1, 1, 1, 1, 1, 1, 1});
  std::int32_t a[4] = {1, 1, 1, 1};
  std::int32_t b[4] = {2, 2, 2, 2};
  std::int32_t c[4] = {3, 3, 3, 3};
  std::int32_t freq[9] = {};
  flicker_compute_freq_3x_2x5(a, b, c, 1, 4, freq);
  for (int k = 0; k < 9; ++k) EXPECT_EQ(freq[k], 1) << k;
  std::fill(std::begin(freq), std::end(freq), -1);
  flicker_compute_freq_3x_2x5(a, b, c, 0, 4, freq);
  for (int k = 0; k < 9; ++k) EXPECT_EQ(freq[k], 0) << k;
}

TEST(TwoByFiveNoiseness, MeanAbsoluteDeviationRoundedByHalfTheCount) {
  struct Case {
    std::vector<std::int32_t> values;
    std::int32_t expected;
  };
  const Case cases[] = {
      {{1, 2, 3, 4}, 1},  // mean (10 + 2) / 4 = 3, deviation (4 + 2) / 4
      {{}, 0},            // no values
      {{-5, 5}, 5},       // mean (0 + 1) / 2 = 0, deviation (10 + 1) / 2
      {{-13, 13, -13, 13}, 13},
      {{-14, 14, -14, 14}, 14},
      {{-7, -9, -11}, 2},  // mean (-27 + 1) / 3 = -8 (truncated), deviation (5 + 1) / 3
  };
  for (const Case& c : cases) {
    EXPECT_EQ(compute_noiseness_2x5(c.values.data(), static_cast<std::int32_t>(c.values.size())),
              c.expected);
  }
}

}  // namespace
