// SPDX-License-Identifier: Apache-2.0
// SONY frequency features: the 2^22 output scale of the single estimate, the 2^21 scale and the
// first-choice tie-break of the three-candidate search, four and ten segments,
// and the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "decision/decision.h"
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

}  // namespace
