// SPDX-License-Identifier: Apache-2.0
// SONY alignment: Laplacian end rows, quarter-sample shifts (rounding, truncation, edges, odd
// denominators), exposure and spread checks, the later-shift tie-break and the two exits.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "sony/sony.h"
#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;

struct LaplacianCase {
  const char* name;
  std::vector<std::int32_t> in;
  std::vector<std::int32_t> out;
};

void PrintTo(const LaplacianCase& c, std::ostream* os) {
  *os << c.name;
}

class SonyLaplacian : public ::testing::TestWithParam<LaplacianCase> {};

TEST_P(SonyLaplacian, MirrorsAboutBothEnds) {
  const LaplacianCase& c = GetParam();
  std::vector<std::int32_t> in = c.in;
  std::vector<std::int32_t> out(in.size(), 12345);
  convolve_Laplacian_filter_SONY(in.data(), out.data(), static_cast<std::int32_t>(in.size()));
  EXPECT_EQ(out, c.out);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SonyLaplacian,
    ::testing::Values(
        // Squares: rows 0, 1, n-2, n-1 use the mirrored ends, the middle 1 1 -4 1 1.
        LaplacianCase{"Squares", {1, 4, 9, 16, 25, 36}, {14, 11, 10, 10, -3, -42}},
        LaplacianCase{"FourRows", {1, 4, 9, 16}, {14, 11, 1, -26}},
        LaplacianCase{"Constant", {7, 7, 7, 7, 7}, {0, 0, 0, 0, 0}},
        // Shorter than the end rows assume: the mirror stays inside the vector.
        LaplacianCase{"ThreeRows", {1, 2, 4}, {5, 2, -7}}, LaplacianCase{"OneRow", {5}, {0}}),
    [](const ::testing::TestParamInfo<LaplacianCase>& info) { return info.param.name; });

struct ShiftCase {
  const char* name;
  std::vector<std::int32_t> in;
  std::int32_t shift;
  std::int32_t den;
  std::vector<std::int32_t> out;
};

void PrintTo(const ShiftCase& c, std::ostream* os) {
  *os << c.name;
}

class SonyShift : public ::testing::TestWithParam<ShiftCase> {};

TEST_P(SonyShift, InterpolatesAndRepeatsTheEdge) {
  const ShiftCase& c = GetParam();
  std::vector<std::int32_t> in = c.in;
  std::vector<std::int32_t> out(in.size(), 12345);
  subpixel_shift_vec_SONY(in.data(), out.data(), static_cast<std::int32_t>(in.size()), c.shift,
                          c.den);
  EXPECT_EQ(out, c.out);
}

const std::vector<std::int32_t> kRamp = {0, 3, 6, 9, 12};

INSTANTIATE_TEST_SUITE_P(
    Cases, SonyShift,
    ::testing::Values(
        ShiftCase{"Zero", kRamp, 0, 4, {0, 3, 6, 9, 12}},
        // One whole sample: in[1..n-1], then in[n-1] once more.
        ShiftCase{"WholeForward", kRamp, 4, 4, {3, 6, 9, 12, 12}},
        ShiftCase{"TwoBack", kRamp, -8, 4, {0, 0, 0, 3, 6}},
        // A quarter forward: (2 + 3 in[k] + in[k+1]) / 4, the last q + 1 outputs in[n-1].
        ShiftCase{"QuarterForward", kRamp, 1, 4, {1, 4, 7, 10, 12}},
        ShiftCase{"FiveQuartersForward", kRamp, 5, 4, {4, 7, 10, 12, 12}},
        ShiftCase{"ThreeQuartersBack", kRamp, -3, 4, {0, 1, 4, 7, 10}},
        // Half back: half and half with 2 added before dividing by 4.
        ShiftCase{"HalfBack", {0, 1, 4, 9, 16}, -2, 4, {0, 1, 3, 7, 13}},
        // Truncation toward zero: (2 - 18 - 3) / 4 = -4, not -5.
        ShiftCase{"TruncatesNegatives", {-6, -3}, 1, 4, {-4, -3}},
        // Every division by 0 gives 0; the repeated edge is a copy.
        ShiftCase{"ZeroDenForward", kRamp, 1, 0, {0, 0, 0, 0, 12}},
        ShiftCase{"ZeroDenBack", kRamp, -1, 0, {0, 0, 0, 0, 0}},
        // den -1 negates: q = -2, no remainder; nothing moves and nothing is read outside.
        ShiftCase{"MinusOneDen", kRamp, 2, -1, {0, 3, 6, 9, 12}},
        ShiftCase{"NegativeDen", kRamp, 5, -4, {0, 2, 5, 8, 12}},
        // A shift of the whole vector or more only repeats the edge.
        ShiftCase{"PastTheEndForward", kRamp, 40, 4, {12, 12, 12, 12, 12}},
        ShiftCase{"PastTheEndFractional", kRamp, 41, 4, {12, 12, 12, 12, 12}},
        ShiftCase{"PastTheStartBack", kRamp, -44, 4, {0, 0, 0, 0, 0}},
        ShiftCase{"PastTheStartFractional", kRamp, -19, 4, {0, 0, 0, 0, 0}}),
    [](const ::testing::TestParamInfo<ShiftCase>& info) { return info.param.name; });

struct ExposureCase {
  std::int32_t cur;
  std::int32_t prev;
  std::int32_t stable;
};

class SonyExposure : public LibraryTest, public ::testing::WithParamInterface<ExposureCase> {};

TEST_P(SonyExposure, RatioWithin07To14) {
  std::int32_t cur = GetParam().cur;
  std::int32_t prev = GetParam().prev;
  g_logFlow = 1;
  LogCapture log;
  EXPECT_EQ(check_AE_stable_SONY(1, &cur, &prev), GetParam().stable);
  EXPECT_EQ(log.Count("frame AE unstable\n"), GetParam().stable == 1 ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(Bounds, SonyExposure,
                         ::testing::Values(ExposureCase{14, 10, 1}, ExposureCase{15, 10, 0},
                                           ExposureCase{7, 10, 1}, ExposureCase{6, 10, 0},
                                           ExposureCase{0, 10, 0}, ExposureCase{10, 0, 0}));

TEST_F(LibraryTest, ExposureLineOnlyUnderTheFlowFlag) {
  std::int32_t cur = 0;
  std::int32_t prev = 10;
  LogCapture log;
  EXPECT_EQ(check_AE_stable_SONY(1, &cur, &prev), 0);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(LibraryTest, SpreadCheckIncludesZeroAndUsesThreeTimesTheRange) {
  std::int32_t flag = 1;
  std::int32_t wide[2] = {-8, 8};
  check_alignment_SONY(wide, 2, 0, flag);
  EXPECT_EQ(flag, 1);  // 16 < 96: the default range never rejects
  flicker_search_range = 5;
  check_alignment_SONY(wide, 2, 0, flag);
  EXPECT_EQ(flag, 0);  // 16 >= 15
  flag = 1;
  std::int32_t positive[2] = {10, 14};
  flicker_search_range = 4;
  check_alignment_SONY(positive, 2, 0, flag);
  EXPECT_EQ(flag, 0);  // 0 takes part: 14 - 0 >= 12, although 14 - 10 is not
  flag = 1;
  flicker_search_range = 5;
  check_alignment_SONY(positive, 2, 0, flag);
  EXPECT_EQ(flag, 1);  // 14 < 15
}

class SonyAlign : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    flicker_init_SONY(3000, 1080, 2, 180e6);  // log entries 0..1024 indexed directly
  }
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }
};

// Current: alternating statistics 1 and 1023 (logs 10588, 65535): its Laplacian is at least
// 109894 in every row, so every candidate's cost is clipped to 8 x 2650 and all tie. Previous:
// statistics whose logs are 36863 37023 40959 41068 61439 61459 65535 65545.
std::vector<std::int32_t> TieCurrent() {
  return {1, 1023, 1, 1023, 1, 1023, 1, 1023};
}
std::vector<std::int32_t> TiePrevious() {
  return {80, 81, 116, 117, 722, 723, 1023, 1024};
}

TEST_F(SonyAlign, AllEqualCostsKeepShift8AsBestAnd7AsSecond) {
  auto cur = TieCurrent();
  auto prev = TiePrevious();
  std::int32_t freq[9];
  std::int32_t ae = -1;
  std::int32_t flag = -1;
  align_flicker_SONY_subpixel(cur.data(), prev.data(), 1, 8, 0, 8, freq, ae, flag);
  EXPECT_EQ(ae, 1);
  EXPECT_EQ(flag, 1);
  // Unregistered ratio c - p.
  const std::int32_t plain[8] = {-26275, 28512, -30371, 24467, -50851, 4076, -54947, -10};
  // Shift 8 (two whole samples): c - p[i + 2], the edge repeated.
  const std::int32_t best[8] = {-30371, 24467, -50851, 4076, -54947, -10, -54957, -10};
  // Shift 7: p interpolated (2 + p[1+k] + 3 p[2+k]) / 4.
  const std::int32_t second[8] = {-29387, 24494, -45758, 4081, -53928, -8, -54957, -10};
  for (std::int32_t i = 0; i < 8; ++i) {
    EXPECT_EQ(avector_out_working_memory[i], plain[i]) << i;
    EXPECT_EQ(cvector_prev_full_working_memory[i], best[i]) << i;
    EXPECT_EQ(cvector_current_full_working_memory[i], second[i]) << i;
  }
}

TEST_F(SonyAlign, IdenticalFramesAlignAtShiftZero) {
  std::vector<std::int32_t> frame = {80, 81, 116, 117, 722, 723, 1023, 1024, 300, 200};
  std::int32_t freq[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  std::int32_t ae = 0;
  std::int32_t flag = 0;
  align_flicker_SONY_subpixel(frame.data(), frame.data(), 2, 5, 0, 10, freq, ae, flag);
  for (std::int32_t i = 0; i < 10; ++i) EXPECT_EQ(cvector_prev_full_working_memory[i], 0) << i;
  for (std::int32_t k = 0; k < 9; ++k) EXPECT_EQ(freq[k], 0);
  EXPECT_EQ(ae, 1);
  EXPECT_EQ(flag, 1);
}

TEST_F(SonyAlign, ExposureRejectionClearsFreqOut) {
  std::vector<std::int32_t> cur(8, 0);
  std::vector<std::int32_t> prev(8, 300);
  std::int32_t freq[9] = {5, 5, 5, 5, 5, 5, 5, 5, 5};
  std::int32_t ae = 1;
  std::int32_t flag = 0;
  g_logFlow = 1;
  LogCapture log;
  align_flicker_SONY_subpixel(cur.data(), prev.data(), 1, 8, 0, 8, freq, ae, flag);
  EXPECT_EQ(ae, 0);
  EXPECT_EQ(flag, 1);
  for (std::int32_t k = 0; k < 9; ++k) EXPECT_EQ(freq[k], 0);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"frame AE unstable\n"});
}

TEST_F(SonyAlign, WideSpreadFallsBackToTheUnregisteredEstimate) {
  flicker_search_range = 1;  // offsets 8 and 0 spread past 3
  auto cur = TieCurrent();
  auto prev = TiePrevious();
  std::int32_t freq[9];
  std::int32_t ae = 0;
  std::int32_t flag = 0;
  g_logFlow = 1;
  LogCapture log;
  align_flicker_SONY_subpixel(cur.data(), prev.data(), 1, 8, 0, 8, freq, ae, flag);
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"frame can't be registered reliably\n"});
  // The features are those of the despiked unregistered ratio alone.
  std::int32_t single[9];
  flicker_compute_freq_SONY(ovector_out1_working_memory, 8, single);
  for (std::int32_t k = 0; k < 9; ++k) EXPECT_EQ(freq[k], single[k]) << k;
}

TEST_F(SonyAlign, StatisticsPastTheLogTableUseItsLastEntry) {
  // 1100 and 1024 read the same entry (65545).
  std::vector<std::int32_t> cur = {1100, 1100, 1100, 1100, 1100, 1100, 1100, 1100};
  std::vector<std::int32_t> prev = {1024, 1024, 1024, 1024, 1024, 1024, 1024, 1024};
  std::int32_t freq[9];
  std::int32_t ae = 0;
  std::int32_t flag = 0;
  align_flicker_SONY_subpixel(cur.data(), prev.data(), 1, 8, 0, 8, freq, ae, flag);
  for (std::int32_t i = 0; i < 8; ++i) EXPECT_EQ(avector_out_working_memory[i], 0);
}

TEST_F(SonyAlign, RefusesGeometryPastItsBuffers) {
  std::vector<std::int32_t> frame(2001, 300);
  std::int32_t freq[9] = {5, 5, 5, 5, 5, 5, 5, 5, 5};
  std::int32_t ae = 1;
  std::int32_t flag = 0;
  LogCapture log;
  align_flicker_SONY_subpixel(frame.data(), frame.data(), 11, 100, 0, 1100, freq, ae, flag);
  align_flicker_SONY_subpixel(frame.data(), frame.data(), 1, 1001, 0, 1001, freq, ae, flag);
  align_flicker_SONY_subpixel(frame.data(), frame.data(), 1, 3, 0, 3, freq, ae, flag);
  align_flicker_SONY_subpixel(frame.data(), frame.data(), 2, 700, 0, 1400, freq, ae, flag);
  EXPECT_EQ(log.Lines().size(), 4u);  // the last is longer than the tables' 1280 columns
  EXPECT_EQ(ae, 0);
  for (std::int32_t k = 0; k < 9; ++k) EXPECT_EQ(freq[k], 0);
}

}  // namespace
