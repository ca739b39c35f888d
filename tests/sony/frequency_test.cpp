// SPDX-License-Identifier: Apache-2.0
// SONY frequency features: the 2^22 output scale of the single estimate, the 2^21 scale and the
// first-choice tie-break of the three-candidate search, segment counts past the fixed scratch,
// and the refusals.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "decision/decision.h"
#include "sony/sony.h"
#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;

class SonyFrequency : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    flicker_init_SONY(3000, 1080, 2, 180e6);  // 1280 columns
  }
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }
  static std::vector<std::int32_t> Nine(std::int32_t v) { return std::vector<std::int32_t>(9, v); }
  static std::vector<std::int32_t> Out(const std::int32_t* f) { return {f, f + 9}; }
};

TEST_F(SonyFrequency, SingleSampleBelow2To22IsUnscaled) {
  std::int32_t x = 8;  // (255 x 8)^2 = 4161600 < 2^22 at every frequency
  std::int32_t f[9];
  flicker_compute_freq_SONY(&x, 1, f);
  EXPECT_EQ(Out(f), Nine(4161600));
}

TEST_F(SonyFrequency, SingleSampleAbove2To22IsHalved) {
  std::int32_t x = 9;  // 5267025 >> 22 = 1: one bit, rounded half away from zero
  std::int32_t f[9];
  flicker_compute_freq_SONY(&x, 1, f);
  EXPECT_EQ(Out(f), Nine(2633513));
}

TEST_F(SonyFrequency, ZeroSignalGivesZeros) {
  std::vector<std::int32_t> x(1000, 0);
  std::int32_t f[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  flicker_compute_freq_SONY(x.data(), 1000, f);
  EXPECT_EQ(Out(f), Nine(0));
}

TEST_F(SonyFrequency, ThreeCandidatesScaleFrom2To21AndTiesKeepTheFirst) {
  // Flat features score the same whatever their level: version a wins the tie. 5267025 >> 21
  // = 2, so every energy loses one bit (4161600 would not have at 2^22).
  std::int32_t a = 9;
  std::int32_t b = 9;
  std::int32_t c = 8;
  std::int32_t f[9];
  flicker_compute_freq_3x_SONY(&a, &b, &c, 1, 1, f);
  EXPECT_EQ(Out(f), Nine(2633513));
  flicker_compute_freq_3x_SONY(&c, &a, &b, 1, 1, f);
  EXPECT_EQ(Out(f), Nine(2080800));
}

TEST_F(SonyFrequency, StrictlyBetterLaterChoiceWins) {
  // All-zero features score -1455 in state 50 Hz, flat non-zero ones -1910.
  std::int32_t a = 9;
  std::int32_t b = 0;
  std::int32_t c = 9;
  std::int32_t f[9];
  flicker_compute_freq_3x_SONY(&a, &b, &c, 1, 1, f);
  EXPECT_EQ(Out(f), Nine(0));
}

TEST_F(SonyFrequency, NoSegmentsGiveZeros) {
  std::int32_t x = 9;
  std::int32_t f[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  flicker_compute_freq_3x_SONY(&x, &x, &x, 0, 1, f);
  EXPECT_EQ(Out(f), Nine(0));
}

TEST_F(SonyFrequency, FourSegmentsUseAllocatedScratch) {
  // 81 choices of identical versions: the four-sample sums (B(4) = 3, rounded by 4), unscaled.
  std::vector<std::int32_t> ones(4, 1);
  std::int32_t f[9];
  flicker_compute_freq_3x_SONY(ones.data(), ones.data(), ones.data(), 4, 1, f);
  EXPECT_EQ(Out(f), (std::vector<std::int32_t>{65034, 65034, 65041, 65041, 65050, 65050, 65061,
                                               65074, 65074}));
  // Ten segments, the most the alignment passes: 59049 choices.
  std::vector<std::int32_t> zeros(1000, 0);
  flicker_compute_freq_3x_SONY(zeros.data(), zeros.data(), zeros.data(), 10, 100, f);
  EXPECT_EQ(Out(f), Nine(0));
}

TEST_F(SonyFrequency, FourDistinctSegmentsPickTheFirstBestChoice) {
  // Choices 30 (versions a b a b, segment 0 first) and a later one tie at the best score -1882;
  // the earlier is kept. Energies stay under 2^21: no scaling.
  std::int32_t a[8] = {30, -10, 5, 0, 12, -40, 7, 3};
  std::int32_t b[8] = {-20, 15, 0, 9, -3, 22, -8, 11};
  std::int32_t c[8] = {4, 4, -25, 18, 30, -6, -12, -9};
  std::int32_t f[9];
  flicker_compute_freq_3x_SONY(a, b, c, 4, 2, f);
  EXPECT_EQ(Out(f), (std::vector<std::int32_t>{16913, 17284, 16776, 17218, 19188, 19449, 20025,
                                               19666, 20485}));
  EXPECT_EQ(get_current_llr(f, 9), -1882);
}

TEST_F(SonyFrequency, RefusesReadsPastTheTables) {
  std::vector<std::int32_t> x(1281, 1);
  std::int32_t f[9] = {5, 5, 5, 5, 5, 5, 5, 5, 5};
  LogCapture log;
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
  EXPECT_EQ(Out(f), Nine(5));
}

}  // namespace
