// SPDX-License-Identifier: Apache-2.0
// SONY alignment: Laplacian end rows, quarter-sample shifts (rounding, truncation, edges, odd
// denominators), exposure and spread checks, the later-shift tie-break and the two exits.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "sony/sony_test.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;
using sony_test::Head;
using sony_test::Vec;

TEST(SonyLaplacian, MirrorsAboutBothEnds) {
  const Vec cases[][2] = {
      {{1, 4, 9, 16, 25, 36}, {14, 11, 10, 10, -3, -42}},  // rows 0, 1, n-2, n-1 mirrored
      {{1, 4, 9, 16}, {14, 11, 1, -26}},
      {{1, 2, 4}, {5, 2, -7}},  // shorter than the end rows assume: the mirror stays inside
      {{5}, {0}}};
  for (const auto& [input, expected] : cases) {
    Vec in = input, out(in.size(), 12345);
    convolve_Laplacian_filter_SONY(in.data(), out.data(), static_cast<std::int32_t>(in.size()));
    EXPECT_EQ(out, expected);
  }
}

TEST(SonyShift, InterpolatesTruncatesAndRepeatsTheEdge) {
  struct Case {
    Vec in;
    std::int32_t shift, den;
    Vec out;
  };
  const Vec ramp = {0, 3, 6, 9, 12};
  const Case cases[] = {
      {ramp, 0, 4, ramp},
      {ramp, 4, 4, {3, 6, 9, 12, 12}},  // one whole sample: in[1..n-1], in[n-1] once more
      {ramp, -8, 4, {0, 0, 0, 3, 6}},
      {ramp, 1, 4, {1, 4, 7, 10, 12}},  // (2 + 3 in[k] + in[k+1]) / 4, last q + 1 are in[n-1]
      {ramp, 5, 4, {4, 7, 10, 12, 12}},
      {{0, 1, 4, 9, 16}, -2, 4, {0, 1, 3, 7, 13}},  // half and half, 2 added before / 4
      // Truncation toward zero, not floor: (2 - 18 - 3) / 4 = -4; (4 - 63) / 8 = -7; the sum
      // 2 + 3 x -2^31 wraps to -2147483646, / 4 = -536870911.
      {{-6, -3}, 1, 4, {-4, -3}},
      {{-9, 0}, 1, 8, {-7, 0}},
      {{-2147483647 - 1, 0}, 1, 4, {-536870911, 0}},
      {ramp, 3, 6, {2, 5, 8, 11, 12}},  // any other denominator divides: (3 + 3 x 0 + 3 x 3) / 6
      {ramp, 1, 0, {0, 0, 0, 0, 12}},   // every division by 0 gives 0; the edge is a copy
      {ramp, 2, -1, ramp},              // den -1: q = -2, no remainder, nothing read outside
      {ramp, 41, 4, {12, 12, 12, 12, 12}},  // the whole vector or more only repeats the edge
      {ramp, -19, 4, {0, 0, 0, 0, 0}},
      {{7}, 3, 4, {7}}};  // a single sample is its own edge
  for (const Case& c : cases) {
    Vec in = c.in, out(in.size(), 12345);
    subpixel_shift_vec_SONY(in.data(), out.data(), static_cast<std::int32_t>(in.size()), c.shift,
                            c.den);
    EXPECT_EQ(out, c.out) << "shift " << c.shift << "/" << c.den;
  }
}

TEST_F(LibraryTest, SonyExposureRatioWithin07To14LoggedUnderTheFlowFlag) {
  std::int32_t cases[][3] = {{14, 10, 1}, {15, 10, 0}, {7, 10, 1},
                             {6, 10, 0},  {0, 10, 0},  {10, 0, 0}};
  for (auto [cur, prev, stable] : cases) {
    LogCapture log;
    EXPECT_EQ(check_AE_stable_SONY(1, &cur, &prev), stable) << cur << "/" << prev;
    EXPECT_TRUE(log.Lines().empty());
    g_logFlow = 1;
    check_AE_stable_SONY(1, &cur, &prev);
    g_logFlow = 0;
    EXPECT_EQ(log.Count("frame AE unstable\n"), stable == 1 ? 0u : 1u);
  }
}

TEST_F(LibraryTest, SonySpreadCheckIncludesZeroAndUsesThreeTimesTheRange) {
  // Offsets, flicker_search_range, resulting flag: 16 < 96 (the default never rejects), 16 >= 15;
  // 0 takes part, so 14 - 0 >= 12 rejects although 14 - 10 would not; 14 < 15.
  std::int32_t cases[][4] = {{-8, 8, 32, 1}, {-8, 8, 5, 0}, {10, 14, 4, 0}, {10, 14, 5, 1}};
  for (auto& c : cases) {
    std::int32_t flag = 1;
    flicker_search_range = c[2];
    check_alignment_SONY(c, 2, 0, flag);
    EXPECT_EQ(flag, c[3]) << c[0] << " " << c[2];
  }
}

class SonyAlign : public sony_test::SonyTest {
 protected:
  void Align(Vec cur, Vec prev, std::int32_t windows) {
    const auto n = static_cast<std::int32_t>(cur.size());
    align_flicker_SONY_subpixel(cur.data(), prev.data(), windows, n / windows, 0, n, freq, ae,
                                flag);
  }
  // Current: statistics 1 and 1023 alternating (logs 10588, 65535): the Laplacian is at least
  // 109894 in every row, so every cost is clipped to 8 x 2650 and all 17 tie. Previous: logs
  // 36863 37023 40959 41068 61439 61459 65535 65545.
  const Vec tie_cur = {1, 1023, 1, 1023, 1, 1023, 1, 1023};
  const Vec tie_prev = {80, 81, 116, 117, 722, 723, 1023, 1024};
  std::int32_t freq[9] = {5, 5, 5, 5, 5, 5, 5, 5, 5};
  std::int32_t ae = -1, flag = -1;
};

TEST_F(SonyAlign, AllEqualCostsKeepShift8AsBestAnd7AsSecond) {
  cvector_prev_full_working_memory[8] = cvector_current_full_working_memory[8] = -77;
  Align(tie_cur, tie_prev, 1);
  EXPECT_EQ(ae, 1);
  EXPECT_EQ(flag, 1);
  // Unregistered c - p; shift 8 (two whole samples): c - p[i + 2], the edge repeated; shift 7:
  // p interpolated (2 + p[1+k] + 3 p[2+k]) / 4.
  const Vec plain = {-26275, 28512, -30371, 24467, -50851, 4076, -54947, -10};
  const Vec best = {-30371, 24467, -50851, 4076, -54947, -10, -54957, -10, -77};
  const Vec second = {-29387, 24494, -45758, 4081, -53928, -8, -54957, -10, -77};
  EXPECT_EQ(Head(avector_out_working_memory, 8), plain);
  EXPECT_EQ(Head(cvector_prev_full_working_memory, 9), best);  // nothing past the window
  EXPECT_EQ(Head(cvector_current_full_working_memory, 9), second);
}

TEST_F(SonyAlign, WideSpreadFallsBackToTheUnregisteredEstimate) {
  flicker_search_range = 1;  // offsets 8 and 0 spread past 3
  g_logFlow = 1;
  LogCapture log;
  Align(tie_cur, tie_prev, 1);
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(log.Lines(), std::vector<std::string>{"frame can't be registered reliably\n"});
  std::int32_t single[9];  // the features of the despiked unregistered ratio alone
  flicker_compute_freq_SONY(ovector_out1_working_memory, 8, single);
  EXPECT_EQ(Head(freq, 9), Head(single, 9));
}

TEST_F(SonyAlign, StatisticsPastTheLogTableUseItsLastEntry) {
  Align(Vec(8, 1100), Vec(8, 1024), 1);  // both read entry 1024 (65545)
  EXPECT_EQ(Head(avector_out_working_memory, 8), Vec(8, 0));
}

TEST_F(SonyAlign, RefusesGeometryPastItsBuffers) {
  Vec frame(2001, 300);
  LogCapture log;
  const std::int32_t geometry[][3] = {{11, 100, 1100}, {1, 1001, 1001}, {1, 3, 3}, {2, 700, 1400}};
  for (const auto& [windows, rows, total] : geometry) {
    align_flicker_SONY_subpixel(frame.data(), frame.data(), windows, rows, 0, total, freq, ae,
                                flag);
  }
  EXPECT_EQ(log.Lines().size(), 4u);  // the last is longer than the tables' 1280 columns
  EXPECT_EQ(ae, 0);
  EXPECT_EQ(Head(freq, 9), Vec(9, 0));
}

}  // namespace
