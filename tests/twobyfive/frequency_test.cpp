// SPDX-License-Identifier: Apache-2.0
// 2x5 frequency features: output headroom, the length-normalised and equal-length three-candidate
// searches (the normalised one of seven to ten segments against every choice), the table bounds
// and the noiseness measure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "decision/decision.h"
#include "fixed_point.h"
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

// The normalised search against its definition, every one of the 3^n choices in turn: Q7
// averages over the chosen lengths (truncated), one common scale from the largest energy, the
// first strictly best score kept. Seven to ten segments, where the search bounds the scores
// first; candidates of unequal lengths (a segment of one sample, now and then one of none), flat,
// banded and noise frames, in both states, the second with steep likelihood tables that wrap.
TEST_F(TwoByFiveFrequency, LengthNormalisedSearchKeepsTheFirstBestOfEveryChoice) {
  constexpr std::int32_t kWidth = 1280;
  std::vector<std::int32_t> cos(9 * kWidth), sin(9 * kWidth);
  for (std::int32_t k = 0; k < 9; ++k) {
    for (std::int32_t x = 0; x < kWidth; ++x) {
      const double phase = 6.2831853 * x / (20.0 + 3 * k);
      cos[k * kWidth + x] = static_cast<std::int32_t>(std::lround(255 * std::cos(phase)));
      sin[k * kWidth + x] = static_cast<std::int32_t>(std::lround(255 * std::sin(phase)));
    }
  }
  g_flkTab1 = cos.data();
  g_flkTab2 = sin.data();
  g_flkTabW = kWidth;
  std::mt19937 rng(23);
  for (std::int32_t frame = 0; frame < 16; ++frame) {
    g_flickerStateIndex = frame % 2;
    if (frame % 2 == 1) {
      const std::int32_t own[4] = {-1, 99000, 97000, 5}, other[4] = {2, -88000, 99999, -7};
      std::copy(own, own + 4, ev60_l60);
      std::copy(other, other + 4, ev60_l50);
    }
    const std::int32_t n = 7 + frame % 4;
    const std::int32_t base = 8 + static_cast<std::int32_t>(rng() % (1200 / n - 12));
    const double period = 6 + rng() % 120;
    const double depth = frame % 8 == 5 ? 0.0 : (rng() % 100) / 150.0;
    const double level = frame % 8 == 7 ? 0.0 : 20 + rng() % 1000;
    std::vector<std::int32_t> lengths[3], signal[3];
    for (std::int32_t v = 0; v < 3; ++v) {
      for (std::int32_t i = 0; i < n; ++i) {
        const std::int32_t drawn = base + static_cast<std::int32_t>(rng() % 7) - 3;
        lengths[v].push_back(rng() % 40 == 0 ? static_cast<std::int32_t>(rng() % 2) : drawn);
      }
      for (std::int32_t r = 0; r < kWidth; ++r) {
        const double band = level * (1 + depth * std::sin(6.2831853 * (r + 0.3 * v) / period));
        signal[v].push_back(static_cast<std::int32_t>(band) + static_cast<std::int32_t>(rng() % 9));
      }
    }
    // Partial sums of each candidate's segments, walked from the start of its signal.
    std::vector<std::int64_t> re(9 * n * 3), im(9 * n * 3);
    for (std::int32_t k = 0; k < 9; ++k) {
      for (std::int32_t v = 0; v < 3; ++v) {
        for (std::int32_t i = 0, pos = 0; i < n; pos += lengths[v][i++]) {
          for (std::int32_t x = pos; x < pos + lengths[v][i]; ++x) {
            re[(k * n + i) * 3 + v] += std::int64_t{signal[v][x]} * cos[k * kWidth + x];
            im[(k * n + i) * 3 + v] += std::int64_t{signal[v][x]} * sin[k * kWidth + x];
          }
        }
      }
    }
    std::int32_t choices = 1;
    for (std::int32_t i = 0; i < n; ++i) choices *= 3;
    std::vector<std::int64_t> energy(static_cast<std::size_t>(choices) * 9);
    std::int64_t largest = 0;
    for (std::int32_t q = 0; q < choices; ++q) {
      std::int64_t length = 0;
      for (std::int32_t i = 0, d = q; i < n; ++i, d /= 3) length += lengths[d % 3][i];
      length = std::max<std::int64_t>(length, 1);
      for (std::int32_t k = 0; k < 9; ++k) {
        std::int64_t sum_re = 0, sum_im = 0;
        for (std::int32_t i = 0, d = q; i < n; ++i, d /= 3) {
          sum_re += re[(k * n + i) * 3 + d % 3];
          sum_im += im[(k * n + i) * 3 + d % 3];
        }
        const std::int64_t avg_re = sum_re * 128 / length, avg_im = sum_im * 128 / length;
        energy[q * 9 + k] = avg_re * avg_re + avg_im * avg_im;
        largest = std::max(largest, energy[q * 9 + k]);
      }
    }
    const std::int32_t p = fx::bit_count(static_cast<std::uint64_t>(largest >> 21)) - 1;
    Values expected(9);
    std::int32_t expected_best = INT32_MIN;
    for (std::int32_t q = 0; q < choices; ++q) {
      Values e(9);
      for (std::int32_t k = 0; k < 9; ++k) {
        const std::int64_t x = energy[q * 9 + k];
        e[k] = static_cast<std::int32_t>(p > 0 ? fx::rshift_round64(x, p) : x);
      }
      const std::int32_t score = get_current_llr(e.data(), 9);
      if (score > expected_best) {
        expected_best = score;
        expected = e;
      }
    }
    std::int32_t* versions[3] = {signal[0].data(), signal[1].data(), signal[2].data()};
    std::int32_t* length_of[3] = {lengths[0].data(), lengths[1].data(), lengths[2].data()};
    std::int32_t best = 0;
    flicker_compute_freq_3x_2x5(versions, n, length_of, freq_, best);
    ASSERT_EQ(Features(), expected) << "frame " << frame;
    ASSERT_EQ(best, expected_best) << "frame " << frame;
  }
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
