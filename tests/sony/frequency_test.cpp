// SPDX-License-Identifier: Apache-2.0
// SONY frequency features: the 2^22 output scale of the single estimate, the 2^21 scale and the
// first-choice tie-break of the three-candidate search, four and ten segments, the bounded search
// of seven to ten segments against every choice, and the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "decision/decision.h"
#include "fixed_point.h"
#include "sony/sony_test.h"

namespace {

using Nine = std::vector<std::int32_t>;

class SonyFrequency : public sony_test::SonyTest {
 protected:
  std::int32_t f[9] = {5, 5, 5, 5, 5, 5, 5, 5, 5};
  Nine Out() const { return {f, f + 9}; }
};

TEST_F(SonyFrequency, SingleEstimateShiftsOnlyFrom2To22) {
  std::int32_t x = 8;  // (255 x 8)^2 = 4161600 < 2^22 at every frequency: unscaled
  flicker_compute_freq_SONY(&x, 1, f);
  EXPECT_EQ(Out(), Nine(9, 4161600));
  x = 9;  // 5267025 >> 22 = 1: one bit, rounded half away from zero
  flicker_compute_freq_SONY(&x, 1, f);
  EXPECT_EQ(Out(), Nine(9, 2633513));
}

TEST_F(SonyFrequency, ThreeCandidatesScaleFrom2To21AndTiesKeepTheFirst) {
  // Flat features score the same whatever their level: the first version wins the tie. 5267025
  // >> 21 = 2, so every energy loses one bit (4161600 would not have at 2^22).
  std::int32_t a = 9, c = 8, zero = 0;
  flicker_compute_freq_3x_SONY(&a, &a, &c, 1, 1, f);
  EXPECT_EQ(Out(), Nine(9, 2633513));
  flicker_compute_freq_3x_SONY(&c, &a, &a, 1, 1, f);
  EXPECT_EQ(Out(), Nine(9, 2080800));
  // A strictly better later choice wins: zero features score -1455 in state 50 Hz, flat -1910.
  flicker_compute_freq_3x_SONY(&a, &zero, &a, 1, 1, f);
  EXPECT_EQ(Out(), Nine(9, 0));
  std::fill(f, f + 9, 5);
  flicker_compute_freq_3x_SONY(&a, &a, &a, 0, 1, f);  // no segments: one choice of zeros
  EXPECT_EQ(Out(), Nine(9, 0));
}

TEST_F(SonyFrequency, FourSegmentsPickTheFirstBestChoice) {
  // Choice 30 (versions a b a b, segment 0 first) and a later one tie at the best score -1882;
  // the earlier is kept. Energies stay under 2^21: no scaling.
  std::int32_t a[8] = {30, -10, 5, 0, 12, -40, 7, 3};
  std::int32_t b[8] = {-20, 15, 0, 9, -3, 22, -8, 11};
  std::int32_t c[8] = {4, 4, -25, 18, 30, -6, -12, -9};
  flicker_compute_freq_3x_SONY(a, b, c, 4, 2, f);
  EXPECT_EQ(Out(), (Nine{16913, 17284, 16776, 17218, 19188, 19449, 20025, 19666, 20485}));
  EXPECT_EQ(get_current_llr(f, 9), -1882);
  std::vector<std::int32_t> zeros(1000, 0);  // ten segments, the most the alignment passes
  flicker_compute_freq_3x_SONY(zeros.data(), zeros.data(), zeros.data(), 10, 100, f);
  EXPECT_EQ(Out(), Nine(9, 0));
}

TEST_F(SonyFrequency, NegativeSegmentLengthsGiveZeroSumsWithoutOverflow) {
  // 10 x -300000000 wraps in the 32-bit total; every segment is empty, so all nine are zero.
  std::int32_t x[1] = {7};
  flicker_compute_freq_3x_SONY(x, x, x, 10, -300000000, f);
  EXPECT_EQ(Out(), Nine(9, 0));
}

TEST_F(SonyFrequency, RefusesReadsPastTheTables) {
  std::vector<std::int32_t> x(1281, 1);
  kestrel_test::LogCapture log;
  flicker_compute_freq_SONY(x.data(), 1281, f);
  flicker_compute_freq_3x_SONY(x.data(), x.data(), x.data(), 3, 427, f);
  flicker_compute_freq_3x_SONY(x.data(), x.data(), x.data(), 11, 1, f);
  EXPECT_EQ(log.Lines(),
            (std::vector<std::string>{
                "[flicker_compute_freq_SONY] refused: 1281 samples past the tables' 1280 columns",
                "[flicker_compute_freq_3x_SONY] refused: 3 segments of 427 samples (at most 10 "
                "segments within the tables' 1280 columns)",
                "[flicker_compute_freq_3x_SONY] refused: 11 segments of 1 samples (at most 10 "
                "segments within the tables' 1280 columns)"}));
  EXPECT_EQ(Out(), Nine(9, 5));
}

// The search against its definition: every one of the 3^n choices in turn (nine energies of the
// segment sums' rounded components, one common scale from the largest, the frame score, the first
// strictly best kept), on frames of seven to ten segments where the search bounds the scores
// first. The tunings move the scored feature, the state and the likelihood tables (steep ones
// wrap the likelihood terms).
struct Tuning {
  const char* name;
  std::int32_t state;
  std::int32_t index;  // scored feature in that state
  std::int32_t own[4];
  std::int32_t other[4];
};

void PrintTo(const Tuning& t, std::ostream* os) {
  *os << t.name;
}

class ChoiceSearch : public SonyFrequency, public ::testing::WithParamInterface<Tuning> {};

Nine Exhaustive(const std::int32_t* const versions[3], std::int32_t n, std::int32_t length) {
  std::vector<std::int64_t> part(9 * n * 3 * 2);
  for (std::int32_t k = 0; k < 9; ++k) {
    for (std::int32_t i = 0; i < n; ++i) {
      for (std::int32_t v = 0; v < 3; ++v) {
        std::int64_t* at = &part[((k * n + i) * 3 + v) * 2];
        flicker_partial_sums(versions[v] + i * length, length, k, i * length, at[0], at[1]);
      }
    }
  }
  const std::int32_t shift = fx::bit_count(static_cast<std::uint64_t>(n * length)) - 1;
  std::int32_t choices = 1;
  for (std::int32_t i = 0; i < n; ++i) choices *= 3;
  std::vector<std::int64_t> energy(static_cast<std::size_t>(choices) * 9);
  std::int64_t largest = 0;
  for (std::int32_t q = 0; q < choices; ++q) {
    for (std::int32_t k = 0; k < 9; ++k) {
      std::int64_t re = 0, im = 0;
      for (std::int32_t i = 0, d = q; i < n; ++i, d /= 3) {
        re += part[((k * n + i) * 3 + d % 3) * 2];
        im += part[((k * n + i) * 3 + d % 3) * 2 + 1];
      }
      re = fx::rshift_round64(re, shift);
      im = fx::rshift_round64(im, shift);
      energy[q * 9 + k] = re * re + im * im;
      largest = std::max(largest, energy[q * 9 + k]);
    }
  }
  const std::int32_t p = flicker_scale_shift(largest, 21);
  Nine best;
  std::int32_t best_score = INT32_MIN;
  for (std::int32_t q = 0; q < choices; ++q) {
    Nine f(9);
    for (std::int32_t k = 0; k < 9; ++k) {
      f[k] = static_cast<std::int32_t>(p > 0 ? fx::rshift_round64(energy[q * 9 + k], p)
                                             : energy[q * 9 + k]);
    }
    const std::int32_t score = get_current_llr(f.data(), 9);
    if (score > best_score) {
      best_score = score;
      best = f;
    }
  }
  return best;
}

TEST_P(ChoiceSearch, PicksTheFirstBestOfEveryChoice) {
  const Tuning& t = GetParam();
  g_flickerStateIndex = t.state;
  freq_feature_index[t.state] = t.index;
  std::copy(t.own, t.own + 4, t.state == 0 ? ev50_l50 : ev60_l60);
  std::copy(t.other, t.other + 4, t.state == 0 ? ev50_l60 : ev60_l50);
  std::mt19937 rng(17);
  for (std::int32_t frame = 0; frame < 12; ++frame) {
    const std::int32_t n = 7 + frame % 4;
    const std::int32_t length = 8 + static_cast<std::int32_t>(rng() % (1280 / n - 7));
    // Banded rows at a drawn period and depth; the three versions differ by small offsets and
    // noise, as three alignments of the same rows do. Frame 5 is flat, frame 11 all noise.
    const double period = 6 + rng() % 120;
    const double depth = frame == 5 ? 0.0 : (rng() % 100) / 150.0;
    const double level = frame == 11 ? 0.0 : 20 + rng() % 1000;
    std::vector<std::int32_t> v[3];
    for (std::int32_t r = 0; r < n * length; ++r) {
      for (std::int32_t c = 0; c < 3; ++c) {
        const double band = level * (1 + depth * std::sin(6.2831853 * (r + 0.3 * c) / period));
        v[c].push_back(static_cast<std::int32_t>(band) + static_cast<std::int32_t>(rng() % 9));
      }
    }
    const std::int32_t* versions[3] = {v[0].data(), v[1].data(), v[2].data()};
    const Nine expected = Exhaustive(versions, n, length);
    flicker_compute_freq_3x_SONY(v[0].data(), v[1].data(), v[2].data(), n, length, f);
    ASSERT_EQ(Out(), expected) << t.name << " frame " << frame;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Tunings, ChoiceSearch,
    ::testing::Values(
        Tuning{"Defaults50", 0, 4, {-194, 4721, 381, -766}, {1159, 401, 749, -384}},
        Tuning{"Defaults60", 1, 3, {-162, 2898, 247, -642}, {1383, 422, 1115, -458}},
        Tuning{"FirstFeature", 0, 0, {-194, 4721, 381, -766}, {1159, 401, 749, -384}},
        Tuning{"LastFeature", 1, 8, {300, 90, 2000, 0}, {-40, 3000, 10, 12}},
        Tuning{"SteepWrapping", 0, 4, {-1, 99000, 97000, 5}, {2, -88000, 99999, -7}},
        Tuning{"NoFeatureScored", 0, 9, {-194, 4721, 381, -766}, {1159, 401, 749, -384}}),
    [](const ::testing::TestParamInfo<Tuning>& info) { return info.param.name; });

}  // namespace
