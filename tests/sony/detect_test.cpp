// SPDX-License-Identifier: Apache-2.0
// SONY driver: tone curve values, column choice (margins, fallback, one column), width
// normalisation of the caller's grids, the column applied to both frames, and every refusal.
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

struct ToneCase {
  std::int32_t in;
  std::int32_t out;
};

class SonyToneCurve : public ::testing::TestWithParam<ToneCase> {};

TEST_P(SonyToneCurve, TenBitsToTenBits) {
  std::int32_t v = GetParam().in;
  SGG_adaptive_SONY(&v, &v, 1, 10, 10);
  EXPECT_EQ(v, GetParam().out);
}

INSTANTIATE_TEST_SUITE_P(Knots, SonyToneCurve,
                         ::testing::Values(ToneCase{0, 0}, ToneCase{1, 10}, ToneCase{8, 80},
                                           ToneCase{9, 85}, ToneCase{16, 116}, ToneCase{100, 308},
                                           ToneCase{500, 712}, ToneCase{512, 722},
                                           ToneCase{513, 723}, ToneCase{1000, 1010},
                                           ToneCase{1023, 1023}, ToneCase{2000, 1023},
                                           ToneCase{-1, 1023}, ToneCase{-2147483647 - 1, 1023}));

TEST(SonyToneCurveOutOfPlace, LeavesTheInputAndRefusesBitsWithoutKnots) {
  std::int32_t in[3] = {1, 16, 512};
  std::int32_t out[3] = {};
  SGG_adaptive_SONY(in, out, 3, 10, 10);
  EXPECT_EQ(out[0], 10);
  EXPECT_EQ(out[1], 116);
  EXPECT_EQ(out[2], 722);
  EXPECT_EQ(in[1], 16);
  LogCapture log;
  SGG_adaptive_SONY(in, out, 3, 7, 10);
  EXPECT_EQ(out[0], 10);
  EXPECT_EQ(log.Lines().size(), 1u);
}

// A column of `len` entries around `mean` with `swings` sign changes, summing to len x mean.
std::vector<std::int32_t> Column(std::int32_t len, std::int32_t mean, std::int32_t swings) {
  std::vector<std::int32_t> col(static_cast<std::size_t>(len), mean);
  std::int32_t sign = 1;
  for (std::int32_t i = 0; i <= swings; ++i, sign = -sign) col[i] += sign;
  if (swings % 2 == 0) col[swings + 2] -= 1;  // balance after a zero, which breaks the swing
  return col;
}

struct ChoiceCase {
  const char* name;
  std::int32_t len;
  std::vector<std::pair<std::int32_t, std::int32_t>> columns;  // mean, swings
  std::int32_t chosen;
};

void PrintTo(const ChoiceCase& c, std::ostream* os) {
  *os << c.name;
}

class SonyColumnChoice : public ::testing::TestWithParam<ChoiceCase> {};

TEST_P(SonyColumnChoice, PicksTheExpectedColumn) {
  const ChoiceCase& c = GetParam();
  std::vector<std::int32_t> cols;
  for (const auto& [mean, swings] : c.columns) {
    const auto col = Column(c.len, mean, swings);
    cols.insert(cols.end(), col.begin(), col.end());
  }
  EXPECT_EQ(
      find_vector_SONY(cols.data(), c.len, static_cast<std::int32_t>(c.columns.size()), 0, 358400),
      c.chosen);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SonyColumnChoice,
    ::testing::Values(
        // Equal counts: the brightest column with a positive mean, first on a tie.
        ChoiceCase{"EqualCountsLaterBrighter", 60, {{400000, 3}, {500000, 3}}, 1},
        ChoiceCase{"EqualCountsFirstBrighter", 60, {{500000, 3}, {400000, 3}}, 0},
        ChoiceCase{"EqualCountsTieKeepsFirst", 60, {{500000, 3}, {500000, 3}, {1, 3}}, 0},
        ChoiceCase{"AllZero", 60, {{0, 0}, {0, 0}, {0, 0}}, 1},
        // Every mean below 358400: the brightest column despite different counts.
        ChoiceCase{"AllDark", 60, {{300000, 1}, {200000, 9}, {358399, 5}}, 2},
        // len 60: margin 2. A brighter column within two swings replaces the quieter one.
        ChoiceCase{"BrighterWithinMargin", 60, {{1000000, 5}, {1000001, 7}}, 1},
        ChoiceCase{"BrighterPastMargin", 60, {{1000000, 5}, {1000001, 8}}, 0},
        // A clearly quieter column wins if it is at most 50 darker.
        ChoiceCase{"QuieterNotMuchDarker", 60, {{1000000, 10}, {999950, 3}}, 1},
        ChoiceCase{"QuieterTooDark", 60, {{1000000, 10}, {999949, 3}}, 0},
        // One column: allEqual always holds, so the fallback decides: column 0 only with a
        // positive mean, otherwise the default 1.
        ChoiceCase{"OneBrightColumn", 30, {{5, 4}}, 0},
        ChoiceCase{"OneDarkColumn", 30, {{-30, 4}}, 1}),
    [](const ::testing::TestParamInfo<ChoiceCase>& info) { return info.param.name; });

TEST(SonyColumnChoiceDetail, SubtractsTheMeanInPlaceAndCountsAcrossTheDeadBand) {
  // Mean 10; deviations -3 +3 -1 +1 0 -2 +2: with thr 1 only the outer swings count.
  std::int32_t col[7] = {7, 13, 9, 11, 10, 8, 12};
  std::int32_t quiet[7] = {10, 10, 10, 10, 10, 10, 10};
  std::vector<std::int32_t> cols(col, col + 7);
  cols.insert(cols.end(), quiet, quiet + 7);
  // Counts: column 0 has 2 swings past +-1 (-3/+3 and -2/+2), the quiet one 0. Means 10 and 10,
  // both dark, so the fallback picks the first brightest: column 0.
  EXPECT_EQ(find_vector_SONY(cols.data(), 7, 2, 1, 358400), 0);
  const std::int32_t centred[7] = {-3, 3, -1, 1, 0, -2, 2};
  for (std::int32_t i = 0; i < 7; ++i) EXPECT_EQ(cols[i], centred[i]);
  EXPECT_EQ(find_vector_SONY(cols.data(), 7, 0, 0, 0), 1);
}

class SonyDriver : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    flicker_init_SONY(3000, 1080, 2, 180e6);
    set_flicker_state(EV_TABLE_60HZ);
  }
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }
  std::int32_t Detect(std::vector<std::int32_t>& prev, std::vector<std::int32_t>& cur,
                      std::int32_t n_win_h, std::int32_t n_win_w, std::int32_t win_wd,
                      std::int32_t win_ht) {
    return detectFlicker_SW_SONY(prev.data(), cur.data(), n_win_h, n_win_w, win_wd, win_ht, 0,
                                 FlkSensorInfo{}, FlkEISVector{}, FlkAEInfo{}, nullptr);
  }
};

struct ScaleCase {
  std::int32_t win_wd;
  std::int32_t scaled_1;    // statistic 1 after the curve (10) and the width scaling
  std::int32_t scaled_100;  // statistic 100 (308)
};

class SonyWidthScaling : public SonyDriver, public ::testing::WithParamInterface<ScaleCase> {};

TEST_P(SonyWidthScaling, RewritesBothGridsInPlace) {
  std::vector<std::int32_t> prev(16, 1);
  std::vector<std::int32_t> cur(16, 100);
  Detect(prev, cur, 1, 2, GetParam().win_wd, 8);
  for (std::int32_t i = 0; i < 16; ++i) {
    EXPECT_EQ(prev[i], GetParam().scaled_1) << i;
    EXPECT_EQ(cur[i], GetParam().scaled_100) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, SonyWidthScaling,
                         ::testing::Values(ScaleCase{2, 10, 308}, ScaleCase{3, 10, 308},
                                           ScaleCase{4, 20, 616}, ScaleCase{10, 50, 1540},
                                           ScaleCase{1, 0, 0}, ScaleCase{0, 0, 0}));

TEST_F(SonyDriver, ColumnChosenOnTheCurrentFrameIsCopiedFromBoth) {
  // Two bands of 8 rows, two columns. Current: column 0 black, column 1 at 500 (curve 712):
  // equal (zero) swing counts, so the brighter column 1. Previous: 7 and 9 (curves 70 and 85).
  std::vector<std::int32_t> cur(32);
  std::vector<std::int32_t> prev(32);
  for (std::int32_t i = 0; i < 32; i += 2) {
    cur[i] = 0;
    cur[i + 1] = 500;
    prev[i] = 7;
    prev[i + 1] = 9;
  }
  Detect(prev, cur, 2, 2, 2, 8);
  for (std::int32_t i = 0; i < 16; ++i) {
    EXPECT_EQ(line_curr_working_memory[i], 712) << i;
    EXPECT_EQ(line_prev_working_memory[i], 85) << i;
  }
}

TEST_F(SonyDriver, LogsTheLineDumpAndFreqOutUnderTheirFlags) {
  std::vector<std::int32_t> prev(8, 300);
  std::vector<std::int32_t> cur(8, 300);
  LogCapture log;
  Detect(prev, cur, 1, 1, 2, 8);
  EXPECT_EQ(log.Count("Freq_out = 0, 0, 0, 0, 0, 0, 0, 0, 0\n"), 0u);
  g_logFlow = 1;
  g_logLineData = 1;
  prev.assign(8, 300);
  cur.assign(8, 300);
  Detect(prev, cur, 1, 1, 2, 8);
  // Identical flat frames: every energy is 0.
  EXPECT_EQ(log.Count("Freq_out = 0, 0, 0, 0, 0, 0, 0, 0, 0\n"), 1u);
  bool dumped = false;
  for (const auto& line : log.Lines()) dumped |= line.rfind("Line[    0]:", 0) == 0;
  EXPECT_TRUE(dumped);
}

struct Refusal {
  const char* name;
  std::int32_t n_win_h;
  std::int32_t n_win_w;
  std::int32_t win_ht;
  std::int32_t value;  // every statistic of both grids
  const char* line;
};

void PrintTo(const Refusal& c, std::ostream* os) {
  *os << c.name;
}

class SonyDriverRefusal : public SonyDriver, public ::testing::WithParamInterface<Refusal> {};

TEST_P(SonyDriverRefusal, ReturnsTheStateUntouched) {
  const Refusal& c = GetParam();
  const std::int32_t count = 12000;
  std::vector<std::int32_t> prev(count, c.value);
  std::vector<std::int32_t> cur(count, c.value);
  line_curr_working_memory[0] = -77;
  LogCapture log;
  EXPECT_EQ(Detect(prev, cur, c.n_win_h, c.n_win_w, 2, c.win_ht), 3);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0], c.line);
  EXPECT_EQ(prev, std::vector<std::int32_t>(count, c.value));
  EXPECT_EQ(cur, std::vector<std::int32_t>(count, c.value));
  EXPECT_EQ(line_curr_working_memory[0], -77);
  EXPECT_EQ(g_queueCount, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Limits, SonyDriverRefusal,
    ::testing::Values(
        Refusal{"ElevenColumns", 1, 11, 8, 300,
                "[detectFlicker_SW_SONY] refused: n_win_w 11 outside 1..10 columns, result 3"},
        Refusal{"NoColumns", 1, 0, 8, 300,
                "[detectFlicker_SW_SONY] refused: n_win_w 0 outside 1..10 columns, result 3"},
        Refusal{"ElevenWindows", 11, 1, 8, 300,
                "[detectFlicker_SW_SONY] refused: n_win_h 11 outside 0..10 windows, result 3"},
        Refusal{"NegativeWindows", -1, 1, 8, 300,
                "[detectFlicker_SW_SONY] refused: n_win_h -1 outside 0..10 windows, result 3"},
        Refusal{"ThreeRowWindows", 3, 1, 3, 300,
                "[detectFlicker_SW_SONY] refused: win_ht 3 outside 4..1000 rows per window, "
                "result 3"},
        Refusal{"LongWindow", 1, 1, 1001, 300,
                "[detectFlicker_SW_SONY] refused: win_ht 1001 outside 4..1000 rows per window, "
                "result 3"},
        Refusal{"NegativeRows", 0, 1, -1, 300,
                "[detectFlicker_SW_SONY] refused: win_ht -1 negative, result 3"},
        Refusal{"LongFrame", 3, 1, 667, 300,
                "[detectFlicker_SW_SONY] refused: frame of 2001 rows outside 7..2000, result 3"},
        Refusal{"ShortFrame", 1, 1, 6, 300,
                "[detectFlicker_SW_SONY] refused: frame of 6 rows outside 7..2000, result 3"},
        Refusal{"LongerThanTables", 2, 1, 641, 300,
                "[detectFlicker_SW_SONY] refused: frame of 1282 rows longer than the tables' "
                "1280, result 3"},
        // One black column: the choice would fall back to column 1, past the grid.
        Refusal{"DarkSingleColumn", 2, 1, 8, 0,
                "[detectFlicker_SW_SONY] refused: band 0 of the single column has no positive "
                "mean to choose it by, result 3"}),
    [](const ::testing::TestParamInfo<Refusal>& info) { return info.param.name; });

TEST_F(SonyDriver, RefusesWithoutTables) {
  flicker_uninit();
  std::vector<std::int32_t> prev(8, 300);
  std::vector<std::int32_t> cur(8, 300);
  LogCapture log;
  EXPECT_EQ(Detect(prev, cur, 1, 1, 2, 8), 3);
  EXPECT_TRUE(log.Contains("[detectFlicker_SW_SONY] refused: no tables, result 3"));
  EXPECT_EQ(cur[0], 300);
}

TEST_F(SonyDriver, NoWindowsIsAnExposureRejection) {
  std::vector<std::int32_t> prev(1, 300);
  std::vector<std::int32_t> cur(1, 300);
  g_logFlow = 1;
  LogCapture log;
  EXPECT_EQ(Detect(prev, cur, 0, 1, 2, 8), 3);
  EXPECT_TRUE(log.Contains("frame AE unstable\n"));
  EXPECT_EQ(g_queueCount, 0);
}

TEST(SonyVectorSelection, MatchesTheDriverAndRefusesAColumnPastTheGrid) {
  // One band of 8 rows, two columns: column 0 swings, column 1 is flat and brighter.
  std::int32_t cur[16];
  std::int32_t prev[16];
  for (std::int32_t r = 0; r < 8; ++r) {
    cur[2 * r] = r % 2 == 0 ? 500000 : 400000;
    cur[2 * r + 1] = 600000;
    prev[2 * r] = r;
    prev[2 * r + 1] = 100 + r;
  }
  std::int32_t out_prev[8] = {};
  std::int32_t out_cur[8] = {};
  vector_selection_SONY(prev, cur, 1, 2, 2, 8, nullptr, out_prev, out_cur);
  for (std::int32_t r = 0; r < 8; ++r) {
    EXPECT_EQ(out_cur[r], 600000);
    EXPECT_EQ(out_prev[r], 100 + r);
  }
  std::int32_t dark[8] = {};
  std::int32_t untouched[8] = {5, 5, 5, 5, 5, 5, 5, 5};
  LogCapture log;
  vector_selection_SONY(dark, dark, 1, 1, 2, 8, nullptr, untouched, untouched);
  EXPECT_TRUE(
      log.Contains("[vector_selection_SONY] refused: band 0 chose column 1 past the grid's 1"));
  EXPECT_EQ(untouched[0], 5);
}

}  // namespace
