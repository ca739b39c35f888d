// SPDX-License-Identifier: Apache-2.0
// Frequency estimation: bit-count rounding and the common scale of the single estimate, junction
// interpolation, and the robust estimate's choice of versions and its ties.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <ostream>
#include <vector>

#include "standard/standard.h"
#include "support.h"

namespace {

using Features = std::array<std::int32_t, 9>;
using kestrel_test::LogCapture;

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

  static Features Compute(std::vector<std::int32_t> signal) {
    Features out;
    out.fill(-1);
    flicker_compute_freq(signal.data(), static_cast<std::int32_t>(signal.size()), out.data());
    return out;
  }
  static Features Robust(std::vector<std::int32_t> a, std::vector<std::int32_t> b,
                         std::vector<std::int32_t> lengths) {
    Features out;
    out.fill(-1);
    flicker_compute_freq_robust(a.data(), b.data(), static_cast<std::int32_t>(lengths.size()),
                                lengths.data(), out.data());
    return out;
  }
  // Row k of the cosine table times 4: a tone exactly at candidate k.
  static std::vector<std::int32_t> Tone(std::int32_t k, std::int32_t n) {
    std::vector<std::int32_t> v(n);
    for (std::int32_t i = 0; i < n; ++i) v[i] = 4 * g_flkTab1[k * g_flkTabW + i];
    return v;
  }
  static std::vector<std::int32_t> Jagged(std::int32_t n) {
    std::vector<std::int32_t> v(n);
    for (std::int32_t i = 0; i < n; ++i) v[i] = ((i * i * 7 + i * 13) % 97) * 20 - 960;
    return v;
  }
};

Features All(std::int32_t v) {
  Features f;
  f.fill(v);
  return f;
}

const Features kTone120 = {225939, 44426, 244840, 1730436, 5218689, 4105345, 1796358, 37878, 242666};
const Features kTone100 = {211950, 1657363, 4026544, 5328823, 1848010, 251221, 46461, 190737, 17916};
const Features kJagged300 = {131369, 275794, 259102, 73461, 689461, 2165538, 3987578, 5072579,
                             3686039};

// ---- flicker_compute_freq ----

TEST_F(FrequencyTest, SingleSampleIsNotRoundedAndSmallEnergiesAreNotScaled) {
  // One sample at table column 0: Re = 255 x, Im = 0 at every frequency.
  EXPECT_EQ(Compute({10}), All(6502500));
  EXPECT_EQ(Compute({11}), All(7868025));   // 2805^2, still under 2^23
  EXPECT_EQ(Compute({12}), All(4681800));   // 3060^2 = 9363600 >> 23 = 1: one halving
  EXPECT_EQ(Compute({100}), All(5080078));  // 650250000 / 2^7, rounded
}

TEST_F(FrequencyTest, TwoSamplesHalveReAndImRoundingAwayFromZero) {
  // Re = +-255 over 2 gives +-127.5, rounded to +-128.
  EXPECT_EQ(Compute({1, 0}), All(16384));
  EXPECT_EQ(Compute({-1, 0}), All(16384));
}

TEST_F(FrequencyTest, ZeroSignalAndEmptySignalGiveZeros) {
  EXPECT_EQ(Compute(std::vector<std::int32_t>(500, 0)), All(0));
  EXPECT_EQ(Compute({}), All(0));
}

TEST_F(FrequencyTest, TonesPeakAtTheirCandidate) {
  EXPECT_EQ(Compute(Tone(4, 400)), kTone120);
  EXPECT_EQ(Compute(Tone(3, 400)), kTone100);
  EXPECT_EQ(Compute(Jagged(300)), kJagged300);
}

TEST_F(FrequencyTest, SignalLongerThanTheTablesIsRefused) {
  LogCapture log;
  EXPECT_EQ(Compute(std::vector<std::int32_t>(501, 3)), All(-1));
  EXPECT_TRUE(log.Contains("[flicker_compute_freq] refused: 501 samples beyond the table width 500"));
}

// ---- flicker_interpolation ----

TEST(Interpolation, BridgesUnreliableTailAndMissingHead) {
  // a = -2, c = 3: six steps from sample 7 (pos 0 + 10 - 1 - 2) to sample 13.
  std::vector<std::int32_t> s(20);
  for (std::int32_t i = 0; i < 20; ++i) s[i] = 100 * i;
  for (std::int32_t i = 8; i <= 12; ++i) s[i] = -7777;
  std::vector<std::int32_t> lengths = {10, 10}, offsets = {-2, 3};
  flicker_interpolation(s.data(), lengths.data(), offsets.data(), 2);
  for (std::int32_t i = 0; i < 20; ++i) EXPECT_EQ(s[i], 100 * i) << i;
}

TEST(Interpolation, SkipsJunctionsWithNothingToBridge) {
  // a >= 0 with c <= 0: neither side of the junction is missing or unreliable.
  std::vector<std::int32_t> s(30, 5);
  s[9] = s[10] = s[19] = s[20] = -1;
  const std::vector<std::int32_t> before = s;
  std::vector<std::int32_t> lengths = {10, 10, 10};
  for (auto offsets : {std::vector<std::int32_t>{0, 0, 0}, std::vector<std::int32_t>{3, 0, -4}}) {
    flicker_interpolation(s.data(), lengths.data(), offsets.data(), 3);
    EXPECT_EQ(s, before);
  }
  std::vector<std::int32_t> offsets = {-1, 2, 0};
  flicker_interpolation(s.data(), lengths.data(), offsets.data(), 1);  // one segment: no junction
  EXPECT_EQ(s, before);
}

TEST(Interpolation, SecondJunctionStartsAfterTheFirstSegments) {
  // Junction 0 (a = 0, c = -1) is skipped; junction 1 (a = -1, c = 2) has four steps from sample
  // 18 (pos 10 + 10 - 1 - 1) to sample 22.
  std::vector<std::int32_t> s(30);
  for (std::int32_t i = 0; i < 30; ++i) s[i] = 100 * i;
  s[9] = 5;
  s[19] = s[20] = s[21] = -7777;
  std::vector<std::int32_t> lengths = {10, 10, 10}, offsets = {0, -1, 2};
  flicker_interpolation(s.data(), lengths.data(), offsets.data(), 3);
  EXPECT_EQ(s[9], 5);
  EXPECT_EQ(s[19], 1900);
  EXPECT_EQ(s[20], 2000);
  EXPECT_EQ(s[21], 2100);
}

struct RoundingCase {
  std::vector<std::int32_t> signal, lengths, offsets, expected;
};
void PrintTo(const RoundingCase& c, std::ostream* os) { *os << "far end " << c.signal.back(); }
class InterpolationRounding : public testing::TestWithParam<RoundingCase> {};

TEST_P(InterpolationRounding, Q26StepRoundsHalfAwayFromZero) {
  RoundingCase c = GetParam();
  flicker_interpolation(c.signal.data(), c.lengths.data(), c.offsets.data(), 2);
  EXPECT_EQ(c.signal, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, InterpolationRounding,
    testing::Values(
        // m = 2 between 0 and -3: -1.5 goes to -2.
        RoundingCase{{0, 0, 9, -3}, {2, 2}, {0, 1}, {0, 0, -2, -3}},
        // m = 3 between 0 and 1: a third rounds to 0, two thirds to 1.
        RoundingCase{{0, 9, 9, 1}, {1, 3}, {0, 2}, {0, 0, 1, 1}},
        // Products in 64 bits: the far end is the largest 32-bit value.
        RoundingCase{{5, 0, 0, 2147483647}, {1, 3}, {0, 2}, {5, 715827875, 1431655745, 2147483647}}));

// ---- flicker_compute_freq_robust ----

TEST_F(FrequencyTest, OneSegmentTakesVersionAOnlyOnAStrictlyHigherScore) {
  // In the 50 Hz state the 120 Hz feature is scored: the 120 Hz tone (version A) scores 1181
  // against -1709.
  EXPECT_EQ(Robust(Tone(4, 400), Tone(3, 400), {400}), kTone120);
  // In the 60 Hz state the 100 Hz feature is scored: the 100 Hz tone wins from either side.
  g_flickerStateIndex = 1;
  EXPECT_EQ(Robust(Tone(4, 400), Tone(3, 400), {400}), kTone100);
  EXPECT_EQ(Robust(Tone(3, 400), Tone(4, 400), {400}), kTone100);
}

TEST_F(FrequencyTest, EqualScoresKeepTheLowerMask) {
  // Version A differs from B by one unit in its first sample: different energies, the same
  // score (-2413), so version B (mask 0) stays.
  std::vector<std::int32_t> a = Jagged(300);
  a[0] += 1;
  EXPECT_EQ(Robust(a, Jagged(300), {300}), kJagged300);
}

TEST_F(FrequencyTest, SegmentsKeepTheirPhaseAcrossJunctions) {
  // Version A everywhere (mask 7) rebuilds the whole 120 Hz tone, so the three partial sums must
  // use the table columns of their position in the frame.
  std::vector<std::int32_t> b = Jagged(400);
  EXPECT_EQ(Robust(Tone(4, 400), b, {100, 150, 150}), kTone120);
}

TEST_F(FrequencyTest, EmptySegmentsContributeNothing) {
  EXPECT_EQ(Robust(Tone(4, 400), Tone(3, 400), {400, 0}), kTone120);
  EXPECT_EQ(Robust(Tone(4, 400), Tone(3, 400), {}), All(0));
}

TEST_F(FrequencyTest, RobustRefusesLayoutsOutsideTheTables) {
  LogCapture log;
  EXPECT_EQ(Robust(Tone(4, 400), Tone(3, 400), {0, -5, 405}), All(-1));
  EXPECT_EQ(Robust(Tone(4, 400), Tone(3, 400), {300, 201}), All(-1));
  std::vector<std::int32_t> many(17, 1);
  EXPECT_EQ(Robust(Tone(4, 400), Tone(3, 400), many), All(-1));
  EXPECT_EQ(log.Lines().size(), 3u);
  EXPECT_TRUE(log.Contains("[flicker_compute_freq_robust] refused: 17 segments above 16"));
}

}  // namespace
