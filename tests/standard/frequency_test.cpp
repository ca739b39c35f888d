// SPDX-License-Identifier: Apache-2.0
// Frequency estimation: bit-count rounding and the common scale of the single estimate, junction
// interpolation, and the robust estimate's choice of versions and its ties.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "sony/sony.h"
#include "standard/standard.h"
#include "support.h"

namespace {

using Features = std::array<std::int32_t, 9>;
using V = std::vector<std::int32_t>;

// Tables of a 2000-line sensor (W = 500): line length 4000 at 240 MHz.
class FrequencyTest : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    kestrel_test::LibraryTest::SetUp();
    testing::internal::CaptureStdout();
    flicker_init(4000, 2000, 512, 240e6);
    testing::internal::GetCapturedStdout();
  }
  void TearDown() override {
    flicker_uninit();
    kestrel_test::LibraryTest::TearDown();
  }
};

Features All(std::int32_t v) {
  Features f;
  f.fill(v);
  return f;
}

Features Compute(V signal) {
  Features out = All(-1);
  flicker_compute_freq(signal.data(), static_cast<std::int32_t>(signal.size()), out.data());
  return out;
}

Features Robust(V a, V b, V lengths) {
  Features out = All(-1);
  flicker_compute_freq_robust(a.data(), b.data(), static_cast<std::int32_t>(lengths.size()),
                              lengths.data(), out.data());
  return out;
}

// Row k of the cosine table times 4: a tone exactly at candidate k.
V Tone(std::int32_t k) {
  V v(400);
  for (std::int32_t i = 0; i < 400; ++i) v[i] = 4 * g_flkTab1[k * g_flkTabW + i];
  return v;
}

V Jagged(std::int32_t n) {
  V v(n);
  for (std::int32_t i = 0; i < n; ++i) v[i] = ((i * i * 7 + i * 13) % 97) * 20 - 960;
  return v;
}

const Features kTone120 = {225939,  44426,   244840, 1730436, 5218689,
                           4105345, 1796358, 37878,  242666};
const Features kTone100 = {211950, 1657363, 4026544, 5328823, 1848010,
                           251221, 46461,   190737,  17916};
const Features kJagged = {131369,  275794,  259102,  73461,  689461,
                          2165538, 3987578, 5072579, 3686039};

TEST_F(FrequencyTest, RoundingByTheLengthAndOneCommonScale) {
  // One sample at table column 0: Re = 255 x, Im = 0, no rounding (b = 1).
  EXPECT_EQ(Compute({10}), All(6502500));
  EXPECT_EQ(Compute({11}), All(7868025));   // 2805^2, still under 2^23: unscaled
  EXPECT_EQ(Compute({12}), All(4681800));   // 3060^2 = 9363600 >> 23 = 1: one halving
  EXPECT_EQ(Compute({100}), All(5080078));  // 650250000 / 2^7, rounded
  // Two samples (b = 2): Re = +-255 / 2 = +-127.5, rounded away from zero to +-128.
  EXPECT_EQ(Compute({1, 0}), All(16384));
  EXPECT_EQ(Compute({-1, 0}), All(16384));
  EXPECT_EQ(Compute(V(500, 0)), All(0));
  EXPECT_EQ(Compute({}), All(0));
  EXPECT_EQ(Compute(Tone(4)), kTone120);
  EXPECT_EQ(Compute(Tone(3)), kTone100);
  EXPECT_EQ(Compute(Jagged(300)), kJagged);
}

TEST_F(FrequencyTest, SignalLongerThanTheTablesIsRefused) {
  kestrel_test::LogCapture log;
  EXPECT_EQ(Compute(V(501, 3)), All(-1));
  EXPECT_TRUE(
      log.Contains("[flicker_compute_freq] refused: 501 samples beyond the table width 500"));
}

// The correlation sums at their largest: 12000 samples of the extreme 32-bit values, signed as the
// cosine row so every product adds, sum to about 2^52 and must come out to the last unit.
TEST_F(FrequencyTest, PartialSumsExactAtTheLongestSignalOfExtremeSamples) {
  flicker_init_SONY(3000, 12000, 2, 180e6);  // W = 12032
  struct Case {
    std::int32_t k, column, length;
    std::int64_t re, im;
  };
  // The last two run past 12000 samples, where the sums leave double precision for 64 bits (the
  // last stops a sample short of the signal's end).
  const Case cases[] = {{4, 0, 12000, 4183057627161480, 0},
                        {4, 1, 11999, 4182510018831495, 0},
                        {3, 0, 12000, 4183298145330000, 85899345900},
                        {3, 1, 11999, 4182750537000015, 85899345900},
                        {4, 0, 12032, 4200132269638777, 3371549325790},
                        {3, 0, 12031, 4199990535718131, 2731599199004}};
  for (const Case& c : cases) {
    V signal(12032);
    for (std::int32_t n = 0; n < 12032; ++n) {
      signal[n] = g_flkTab1[c.k * g_flkTabW + n] >= 0 ? INT32_MAX : INT32_MIN;
    }
    std::int64_t re = 0, im = 0;
    flicker_partial_sums(signal.data() + c.column, c.length, c.k, c.column, re, im);
    EXPECT_EQ(re, c.re) << c.k << " " << c.column;
    EXPECT_EQ(im, c.im) << c.k << " " << c.column;
  }
}

// The estimators' 16-bit sums: samples of -2^13 and 2^13 - 1 signed as the cosine row (every
// product adds, 256 of them near 2^29 in one 32-bit chunk) give the wide sums; a sample of 2^13
// or an entry outside [-2^9, 2^9) leaves the sums to the wide path.
TEST_F(FrequencyTest, PackedSumsEqualTheWideOnesWithinTheirRange) {
  V a(500), b(500);
  for (std::int32_t n = 0; n < 500; ++n) {
    a[n] = g_flkTab1[4 * g_flkTabW + n] >= 0 ? 8191 : -8192;
    b[n] = (n * 7919) % 16384 - 8192;
  }
  const std::int32_t* signals[2] = {a.data(), b.data()};
  const std::int64_t extents[2] = {500, 437};
  ASSERT_TRUE(flicker_pack_sums(signals, extents, 2));
  const std::int32_t spans[][3] = {{0, 0, 500}, {1, 3, 256}, {0, 243, 257}, {1, 0, 437}, {0, 7, 1}};
  for (std::int32_t k = 0; k < 9; ++k) {
    for (const auto& span : spans) {
      const std::int32_t v = span[0], pos = span[1], length = span[2];
      std::int64_t re = 0, im = 0, wide_re = 0, wide_im = 0;
      flicker_packed_sums(v, pos, length, k, re, im);
      flicker_partial_sums(signals[v] + pos, length, k, pos, wide_re, wide_im);
      EXPECT_EQ(re, wide_re) << k << " " << v << " " << pos;
      EXPECT_EQ(im, wide_im) << k << " " << v << " " << pos;
    }
  }
  std::int64_t re = 0, im = 0;
  flicker_packed_sums(0, 0, 500, 4, re, im);
  EXPECT_EQ(re, 664854908);  // 500 products of 2^13 and an entry, every one adding
  a[499] = 8192;
  EXPECT_FALSE(flicker_pack_sums(signals, extents, 1));
  a[499] = 0;
  const std::int32_t entry = g_flkTab2[8 * g_flkTabW + 20];
  // The packed rows follow a table written since they were last packed.
  g_flkTab2[8 * g_flkTabW + 20] = entry + 100;
  EXPECT_TRUE(flicker_pack_sums(signals, extents, 1));
  std::int64_t wide_re = 0, wide_im = 0;
  flicker_packed_sums(0, 0, 500, 8, re, im);
  flicker_partial_sums(a.data(), 500, 8, 0, wide_re, wide_im);
  EXPECT_EQ(im, wide_im);
  for (const std::int32_t outside : {512, -513}) {
    g_flkTab2[8 * g_flkTabW + 20] = outside;
    EXPECT_FALSE(flicker_pack_sums(signals, extents, 1)) << outside;
  }
  g_flkTab2[8 * g_flkTabW + 20] = -512;
  EXPECT_TRUE(flicker_pack_sums(signals, extents, 1));
  g_flkTab2[8 * g_flkTabW + 20] = entry;
}

// The signal after bridging the junctions the offsets mark.
V Bridge(V signal, V lengths, V offsets) {
  flicker_interpolation(signal.data(), lengths.data(), offsets.data(),
                        static_cast<std::int32_t>(lengths.size()));
  return signal;
}

TEST(Interpolation, BridgesWhatTheOffsetsMark) {
  // a = -2, c = 3: m = 6 steps from s0 = 5 - 1 - 2 = 2 to sample 8.
  EXPECT_EQ(Bridge({0, 100, 200, 9, 9, 9, 9, 9, 800, 900}, {5, 5}, {-2, 3}),
            (V{0, 100, 200, 300, 400, 500, 600, 700, 800, 900}));
  // a = 0 with c = 0, and a > 0 with c < 0: nothing to bridge.
  EXPECT_EQ(Bridge({5, 9, 9, 5, 5, 9}, {2, 2, 2}, {0, 0, 0}), (V{5, 9, 9, 5, 5, 9}));
  EXPECT_EQ(Bridge({5, 9, 9, 5, 5, 9}, {2, 2, 2}, {3, 0, -4}), (V{5, 9, 9, 5, 5, 9}));
  EXPECT_EQ(Bridge({5, 9, 9}, {3}, {-1}), (V{5, 9, 9}));
  // Junction 0 skipped; junction 1 (a = -1, c = 2) starts at pos 3: s0 = 3 + 3 - 1 - 1 = 4.
  EXPECT_EQ(Bridge({9, 9, 9, 0, 40, 9, 9, 9, 80, 0}, {3, 3, 4}, {0, -1, 2}),
            (V{9, 9, 9, 0, 40, 50, 60, 70, 80, 0}));
  // m = 2 between 0 and -3: -1.5 goes to -2.
  EXPECT_EQ(Bridge({0, 0, 9, -3}, {2, 2}, {0, 1}), (V{0, 0, -2, -3}));
  // m = 3 between 0 and 1: a third rounds to 0, two thirds to 1.
  EXPECT_EQ(Bridge({0, 9, 9, 1}, {1, 3}, {0, 2}), (V{0, 0, 1, 1}));
  // Products in 64 bits: the far end is the largest 32-bit value.
  EXPECT_EQ(Bridge({5, 0, 0, 2147483647}, {1, 3}, {0, 2}),
            (V{5, 715827875, 1431655745, 2147483647}));
}

TEST_F(FrequencyTest, RobustTakesVersionAOnlyOnAStrictlyHigherScore) {
  // In the 50 Hz state the 120 Hz feature is scored: the 120 Hz tone (version A) wins.
  EXPECT_EQ(Robust(Tone(4), Tone(3), {400}), kTone120);
  // Version A differs from B by one unit in its first sample: different energies, the same
  // score (-2413), so version B (mask 0) stays.
  V a = Jagged(300);
  a[0] += 1;
  EXPECT_EQ(Robust(a, Jagged(300), {300}), kJagged);
  // An empty segment gives equal energies to masks differing in its bit: the lower one stays.
  EXPECT_EQ(Robust(Tone(4), Tone(3), {400, 0}), kTone120);
  EXPECT_EQ(Robust(Tone(4), Tone(3), {}), All(0));
  // In the 60 Hz state the 100 Hz feature is scored: the 100 Hz tone wins from either side.
  g_flickerStateIndex = 1;
  EXPECT_EQ(Robust(Tone(4), Tone(3), {400}), kTone100);
  EXPECT_EQ(Robust(Tone(3), Tone(4), {400}), kTone100);
}

TEST_F(FrequencyTest, RobustSegmentsKeepTheirPhaseAcrossJunctions) {
  // Version A everywhere (mask 7) rebuilds the whole 120 Hz tone, so the three partial sums must
  // use the table columns of their position in the frame.
  EXPECT_EQ(Robust(Tone(4), Jagged(400), {100, 150, 150}), kTone120);
}

TEST_F(FrequencyTest, RobustRefusesLayoutsOutsideTheTables) {
  kestrel_test::LogCapture log;
  EXPECT_EQ(Robust(Tone(4), Tone(3), {0, -5, 405}), All(-1));
  EXPECT_EQ(Robust(Tone(4), Tone(3), {300, 201}), All(-1));
  EXPECT_EQ(Robust(Tone(4), Tone(3), V(17, 1)), All(-1));
  EXPECT_EQ(Robust(V(501, 3), V(501, 3), {500, 1}), All(-1));  // one sample past the width
  EXPECT_NE(Robust(Tone(4), Tone(3), V(16, 1)), All(-1));      // 16 segments: accepted
  EXPECT_EQ(log.Lines().size(), 4u);
  EXPECT_TRUE(log.Contains("[flicker_compute_freq_robust] refused: 17 segments above 16"));
}

// Features of the narrow choice search (32-bit sums, double-precision squares, quotients and
// rounding) against the 64-bit arithmetic, over the sums the narrow path admits: up to its limit
// for each component (the sum, its rounding shift by s, its Q7 average over a length) and energy
// shifts p that keep the features below 2^30, as the common scale does.
struct NarrowCase {
  const char* name;
  int component;
  std::int32_t s;
  std::int32_t p;
  std::int64_t limit;  // half-sums within +-limit
};

class NarrowFeatures : public ::testing::TestWithParam<NarrowCase> {};

TEST_P(NarrowFeatures, EqualTheWideArithmetic) {
  const NarrowCase& c = GetParam();
  std::mt19937_64 rng(5);
  const auto draw = [&](std::int64_t limit) -> std::int32_t {
    const int bits = static_cast<int>(rng() % 31);
    const std::int64_t top = std::min<std::int64_t>(limit - 1, (std::int64_t{1} << bits));
    const std::int64_t v = static_cast<std::int64_t>(rng() % static_cast<std::uint64_t>(top + 1));
    return static_cast<std::int32_t>(rng() % 2 ? -v : v);
  };
  int checked = 0;
  for (int trial = 0; trial < 20000; ++trial) {
    const bool edge = trial < 64;  // the limits themselves, both signs
    const std::int32_t lre =
        edge ? static_cast<std::int32_t>((trial & 1 ? 1 : -1) * (c.limit - 1)) : draw(c.limit);
    const std::int32_t lim =
        edge ? static_cast<std::int32_t>((trial & 2 ? 1 : -1) * (c.limit - 1)) : draw(c.limit);
    const std::int32_t hre =
        edge ? static_cast<std::int32_t>((trial & 4 ? 1 : -1) * (c.limit - 1)) : draw(c.limit);
    const std::int32_t him = draw(c.limit);
    // Lengths of at least 4096 samples in all (the limits above assume it for the average).
    const std::int32_t llen = 1 + static_cast<std::int32_t>(rng() % 50000);
    const std::int32_t hlen = 4096 + static_cast<std::int32_t>(rng() % (edge ? 1 : 1 << 29));
    const auto component = [&](std::int64_t sum) -> std::int64_t {
      if (c.component == 1) return fx::rshift_round64(sum, c.s);
      if (c.component == 2) return fx::div_trunc<std::int64_t>(sum * 128, llen + hlen);
      return sum;
    };
    const std::int64_t re = component(std::int64_t{lre} + hre);
    const std::int64_t im = component(std::int64_t{lim} + him);
    const std::int64_t wide = fx::rshift_round64(re * re + im * im, c.p);
    if (wide >= (std::int64_t{1} << 30)) continue;  // the common scale keeps features below
    std::int32_t out = -1;
    std::int32_t sum = 7;
    const double lq = llen / 128.0;
    const double hq = hlen / 128.0;
    const double half = c.p > 0 ? std::ldexp(1.0, c.p - 1) : 0.0;
    const double scale = std::ldexp(1.0, -c.p);
    const auto run = [&]<int kComponent>() {
      if (c.p > 0) {
        flicker_narrow_features<kComponent, true>(&lre, &lim, &lq, hre, him, hq, c.s, half, scale,
                                                  1, &out, &sum);
      } else {
        flicker_narrow_features<kComponent, false>(&lre, &lim, &lq, hre, him, hq, c.s, half, scale,
                                                   1, &out, &sum);
      }
    };
    if (c.component == 0) run.template operator()<0>();
    if (c.component == 1) run.template operator()<1>();
    if (c.component == 2) run.template operator()<2>();
    ASSERT_EQ(out, wide) << lre << " " << lim << " " << hre << " " << him;
    ASSERT_EQ(sum, 7 + std::min<std::int64_t>(wide, FlkFrameScorer::kFeatureClamp));
    ++checked;
  }
  EXPECT_GT(checked, 1000);
}

// Half-sums of 3 x 2^29 add up past 32 bits: the search takes the 64-bit path. The component
// (3 x 2^30) / 2^9 = 3 x 2^21 squares to 9 x 2^42, the common shift is 24 (headroom 21) and the
// feature 9 x 2^18.
TEST(NarrowFeatures, SumsPastTheLimitTakeTheWidePath) {
  std::int64_t re[9] = {std::int64_t{3} << 29};
  std::int64_t im[9] = {};
  const FlkChoiceHalf half{re, im, nullptr, 1};
  Features out = All(-1);
  std::int32_t best = INT32_MIN;
  flicker_pick_choice(
      half, half, [](std::int64_t sum, std::int32_t) { return fx::rshift_round64(sum, 9); }, 9, 0,
      21, out.data(), best);
  EXPECT_EQ(out, (Features{2359296, 0, 0, 0, 0, 0, 0, 0, 0}));
}

INSTANTIATE_TEST_SUITE_P(
    Limits, NarrowFeatures,
    ::testing::Values(NarrowCase{"PlainSums", 0, 0, 22, std::int64_t{1} << 24},
                      NarrowCase{"PlainSmall", 0, 0, 0, 1 << 14},
                      NarrowCase{"ShiftByOne", 1, 1, 21, std::int64_t{1} << 25},
                      NarrowCase{"ShiftByNine", 1, 9, 14, std::int64_t{1} << 29},
                      NarrowCase{"ShiftByThirty", 1, 30, 0, std::int64_t{1} << 29},
                      NarrowCase{"AverageCoarse", 2, 0, 20, std::int64_t{1} << 29},
                      NarrowCase{"AverageFine", 2, 0, 0, std::int64_t{1} << 29},
                      NarrowCase{"LargestShift", 1, 5, 52, std::int64_t{1} << 29}),
    [](const ::testing::TestParamInfo<NarrowCase>& info) { return info.param.name; });

}  // namespace
