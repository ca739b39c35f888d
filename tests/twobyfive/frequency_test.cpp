// SPDX-License-Identifier: Apache-2.0
// 2x5 frequency features: output headroom, the length-normalised and equal-length three-candidate
// searches, the table bounds and the noiseness measure.
#include <gtest/gtest.h>

#include <vector>

#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

using Values = std::vector<std::int32_t>;

// Hand-made trigonometric tables of 16 columns: every cosine entry of row k is cos_row[k], every
// sine 0, so a partial sum is the row value times the plain sum of the samples.
class TwoByFiveFrequency : public kestrel_test::LibraryTest {
 protected:
  void UseFlatTables(Values cos_row) {
    for (int i = 0; i < 9 * 16; ++i) cos_[i] = cos_row[i / 16];
    g_flkTab1 = cos_;
    g_flkTab2 = sin_;
    g_flkTabW = 16;
  }
  void TearDown() override {
    g_flkTab1 = g_flkTab2 = nullptr;
    LibraryTest::TearDown();
  }
  // The length-normalised search with one segment per candidate; returns the best score.
  std::int32_t Search(std::int32_t* a, std::int32_t* b, Values lengths) {
    std::int32_t* versions[3] = {a, b, b};
    std::int32_t* length_of[3] = {&lengths[0], &lengths[1], &lengths[2]};
    std::int32_t best = 0;
    flicker_compute_freq_3x_2x5(versions, 1, length_of, freq_, best);
    return best;
  }
  Values Features() const { return Values(freq_, freq_ + 9); }

  std::int32_t cos_[9 * 16] = {}, sin_[9 * 16] = {};
  std::int32_t freq_[9] = {-1, -1, -1, -1, -1, -1, -1, -1, -1};
};

// E = (255 x 100)^2 = 650250000: M >> 22 = 155, so every energy is rounded by 2^8. (255 x 4)^2
// stays below 2^22 and is kept as it is.
TEST_F(TwoByFiveFrequency, SingleSignalKeepsEnergiesUnderTwoToThe22) {
  UseFlatTables({255, 255, 255, 255, 255, 255, 255, 255, 255});
  std::int32_t one[2] = {100, 4};
  flicker_compute_freq_2x5(one, 1, freq_);
  EXPECT_EQ(Features(), Values(9, 2540039));
  flicker_compute_freq_2x5(one + 1, 1, freq_);
  EXPECT_EQ(Features(), Values(9, 1040400));
}

// Re' = Re x 128 / S truncated: 10 x 128 / 3 = 426 and 20 x 128 / 3 = 853 on the 120 Hz row. A
// choice whose lengths are all 0 divides by 1: zero features (score -1455) beat nine equal ones.
TEST_F(TwoByFiveFrequency, LengthNormalisedSearchAveragesOverTheChosenLength) {
  UseFlatTables({1, 1, 1, 1, 2, 1, 1, 1, 1});
  std::int32_t a[4] = {3, 3, 4, 0}, b[4] = {9, 9, 9, 9};
  EXPECT_EQ(Search(a, b, {3, 0, 0}), 442);
  EXPECT_EQ(Features(),
            (Values{181476, 181476, 181476, 181476, 727609, 181476, 181476, 181476, 181476}));
  UseFlatTables({1, 1, 1, 1, 1, 1, 1, 1, 1});
  EXPECT_EQ(Search(a, b, {4, 4, 0}), -1455);
  EXPECT_EQ(Features(), Values(9, 0));
}

// Equal lengths: Re rounded by 2^(B(4) - 1) = 4, flat features everywhere, the first version
// wins the tie; no segment gives nine zeros.
TEST_F(TwoByFiveFrequency, EqualLengthSearchKeepsTheFirstVersionOnTies) {
  UseFlatTables({1, 1, 1, 1, 1, 1, 1, 1, 1});
  std::int32_t a[4] = {1, 1, 1, 1}, b[4] = {2, 2, 2, 2}, c[4] = {3, 3, 3, 3};
  flicker_compute_freq_3x_2x5(a, b, c, 1, 4, freq_);
  EXPECT_EQ(Features(), Values(9, 1));
  std::int32_t zeros[10] = {};  // ten segments, the most a frame has
  flicker_compute_freq_3x_2x5(zeros, zeros, zeros, 10, 1, freq_);
  EXPECT_EQ(Features(), Values(9, 0));
  flicker_compute_freq_3x_2x5(a, b, c, 0, 4, freq_);
  EXPECT_EQ(Features(), Values(9, 0));
}

TEST_F(TwoByFiveFrequency, SearchesPastTheTablesOrWindowsAreRefused) {
  UseFlatTables({1, 1, 1, 1, 1, 1, 1, 1, 1});
  kestrel_test::LogCapture log;
  std::int32_t s[17] = {};
  flicker_compute_freq_2x5(s, 17, freq_);
  flicker_compute_freq_3x_2x5(s, s, s, 2, 9, freq_);
  EXPECT_EQ(Search(s, s, {8, 17, 0}), INT32_MIN);
  std::int32_t best = 0;
  flicker_compute_freq_3x_2x5(nullptr, 11, nullptr, freq_, best);
  EXPECT_EQ(best, INT32_MIN);
  EXPECT_EQ(Features(), Values(9, -1));
  EXPECT_EQ(log.Lines().size(), 4u);
  EXPECT_EQ(log.Lines()[0], "[flicker_compute_freq_2x5] refused: 17 samples, tables of 16 columns");
  EXPECT_EQ(
      log.Lines()[2],
      "[flicker_compute_freq_3x_2x5] refused: candidates of 17 samples, tables of 16 columns");
}

TEST(TwoByFiveNoiseness, MeanAbsoluteDeviationRoundedByHalfTheCount) {
  const std::int32_t v[4] = {1, 2, 3, 4}, w[3] = {-7, -9, -11};
  EXPECT_EQ(compute_noiseness_2x5(v, 4), 1);  // mean (10 + 2) / 4 = 3, deviation (4 + 2) / 4
  EXPECT_EQ(compute_noiseness_2x5(w, 3), 2);  // mean (-27 + 1) / 3 = -8, deviation (5 + 1) / 3
  EXPECT_EQ(compute_noiseness_2x5(v, 0), 0);
  // A negative count sums nothing but still divides: (0 - 1) / -1 = 1 for -1, 0 for -2.
  EXPECT_EQ(compute_noiseness_2x5(v, -1), 1);
  EXPECT_EQ(compute_noiseness_2x5(v, -2), 0);
}

}  // namespace
