// SPDX-License-Identifier: Apache-2.0
// 2x5 driver and column selection: the middle-column reference with result 1, the dark and
// equal fallbacks, the single-column copy, the dump without a closing row, and the refusals.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "decision/decision.h"
#include "standard/standard.h"
#include "support.h"
#include "twobyfive/twobyfive.h"

namespace {

// A column of 30 values with the given mean and 2k - 1 sign swings (+5, -5 pairs, then flat).
std::vector<std::int32_t> Column(std::int32_t mean, std::int32_t swings) {
  std::vector<std::int32_t> col(30, mean);
  for (std::int32_t i = 0; i < swings + 1; ++i) col[i] = mean + (i % 2 ? -5 : 5);
  return col;
}

std::int32_t Choose(const std::vector<std::vector<std::int32_t>>& columns, std::int32_t min_mean) {
  std::vector<std::int32_t> packed;
  for (const auto& c : columns) packed.insert(packed.end(), c.begin(), c.end());
  return find_vector_2x5(packed.data(), 30, static_cast<std::int32_t>(columns.size()), 0, min_mean);
}

TEST(TwoByFiveColumnChooser, NoColumnBeatsAQuietBrightMiddleSoTheAnswerIsColumnOne) {
  EXPECT_EQ(Choose({Column(1000, 9), Column(1100, 7), Column(2000, 1), Column(1200, 11),
                    Column(1300, 13)},
                   100),
            1);
}

TEST(TwoByFiveColumnChooser, QuieterAndNotMuchDarkerOrAsQuietAndBrighterReplaceTheMiddle) {
  // Middle: 9 swings at 2000. Column 3 has 3 swings at 1960 (> 2000 - 51); column 4 as many
  // (within the margin 30 / 30 = 1) and brighter.
  EXPECT_EQ(
      Choose({Column(1000, 9), Column(1100, 7), Column(2000, 9), Column(1960, 3), Column(1970, 3)},
             100),
      4);
  // 50 darker is too dark: 1949 is not above 1949.
  EXPECT_EQ(
      Choose({Column(1000, 9), Column(1100, 7), Column(2000, 9), Column(1949, 3), Column(1900, 11)},
             100),
      1);
}

TEST(TwoByFiveColumnChooser, DarkOrEqualColumnsTakeTheBrightest) {
  EXPECT_EQ(
      Choose({Column(50, 1), Column(80, 3), Column(20, 5), Column(80, 7), Column(-5, 9)}, 100), 1);
  EXPECT_EQ(Choose({Column(500, 3), Column(400, 3), Column(900, 3)}, 100), 2);
  EXPECT_EQ(Choose({Column(0, 3), Column(-4, 3)}, 100), 1);
  EXPECT_EQ(find_vector_2x5(nullptr, 30, 0, 0, 100), 1);
}

// The exported band loop takes the band height as given and sends a single column through the
// chooser too; a dark single column would be column 1, past the grid, and is refused.
TEST(TwoByFiveVectorSelection, BandHeightIsTakenAsGiven) {
  std::vector<std::int32_t> cur(2 * 8 * 2);
  std::vector<std::int32_t> prev(cur.size());
  for (std::size_t i = 0; i < cur.size(); ++i) {
    cur[i] = static_cast<std::int32_t>(i % 2 ? 500 + i : 300 + i);  // column 1 is brighter
    prev[i] = cur[i] - 1;
  }
  std::vector<std::int32_t> out_prev(16, -1);
  std::vector<std::int32_t> out_cur(16, -1);
  vector_selection_2x5(prev.data(), cur.data(), 2, 2, 0, 8, nullptr, out_prev.data(),
                       out_cur.data());
  EXPECT_EQ(out_cur[0], 501);
  EXPECT_EQ(out_cur[15], 531);
  EXPECT_EQ(out_prev[15], 530);

  kestrel_test::LogCapture log;
  std::vector<std::int32_t> dark(8, -3);
  std::fill(out_cur.begin(), out_cur.end(), -1);
  vector_selection_2x5(dark.data(), dark.data(), 1, 1, 0, 8, nullptr, out_prev.data(),
                       out_cur.data());
  EXPECT_EQ(out_cur[0], -1);
  EXPECT_TRUE(log.Contains("[vector_selection_2x5] refused: column 1 past a grid of 1 columns"));
}

class TwoByFiveDriver : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    testing::internal::CaptureStdout();
    flicker_init_2x5(1389, 2160, 100, 4, 0, 100e6);  // table width 2304
    testing::internal::GetCapturedStdout();
  }
  void TearDown() override {
    flicker_uninit();
    LibraryTest::TearDown();
  }
  std::int32_t Detect(std::vector<std::int32_t>& prev, std::vector<std::int32_t>& cur,
                      std::int32_t n_win_h, std::int32_t n_win_w, std::int32_t win_ht) {
    return detectFlicker_SW_2x5(prev.data(), cur.data(), n_win_h, n_win_w, 0, win_ht, 0, {}, {}, {},
                                nullptr);
  }
};

TEST_F(TwoByFiveDriver, SingleColumnIsCopiedWholeAndDumpedWithoutAClosingRow) {
  kestrel_test::LogCapture log;
  g_logLineData = 1;
  std::vector<std::int32_t> prev(25);
  std::vector<std::int32_t> cur(25);
  for (int i = 0; i < 25; ++i) {
    prev[i] = 1000 + i;
    cur[i] = 2000 + i;
  }
  Detect(prev, cur, 1, 1, 25);
  EXPECT_EQ(line_prev_working_memory[24], 1024);
  EXPECT_EQ(line_curr_working_memory[24], 2024);
  std::vector<std::string> rows;
  for (const auto& line : log.Lines()) {
    if (line.rfind("Line[", 0) == 0) rows.push_back(line);
  }
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].rfind("Line[    0]:  1000,  2000,  1001,  2001,", 0), 0u) << rows[0];
  EXPECT_EQ(rows[1].rfind("Line[   10]:  1010,  2010,", 0), 0u) << rows[1];
}

// win_ht is the frame's rows: 100 rows in 3 windows are bands of 33 rows, 99 line entries.
TEST_F(TwoByFiveDriver, BandsAreTheFrameRowsDividedByTheWindows) {
  std::vector<std::int32_t> prev(100 * 3);
  std::vector<std::int32_t> cur(100 * 3);
  for (int r = 0; r < 100; ++r) {
    for (int c = 0; c < 3; ++c) {
      // Column 2 is the brightest and equally quiet: all columns have no swings.
      prev[r * 3 + c] = 1000 * (c + 1) + r;
      cur[r * 3 + c] = 1000 * (c + 1) + r + 1;
    }
  }
  line_curr_working_memory[99] = -77;
  Detect(prev, cur, 3, 3, 100);
  EXPECT_EQ(line_curr_working_memory[0], 3001);
  EXPECT_EQ(line_prev_working_memory[98], 3098);
  EXPECT_EQ(line_curr_working_memory[98], 3099);
  EXPECT_EQ(line_curr_working_memory[99], -77);
}

TEST_F(TwoByFiveDriver, GeometryOutsideTheBuffersIsRefusedBeforeAnyWork) {
  struct Case {
    std::int32_t n_win_h, n_win_w, win_ht;
    const char* text;
  };
  const Case cases[] = {
      {0, 5, 540, "0 windows, limit 1..10, result 2"},
      {11, 5, 540, "11 windows, limit 1..10, result 2"},
      {3, 0, 540, "0 columns, limit 1..10, result 2"},
      {3, 11, 540, "11 columns, limit 1..10, result 2"},
      {3, 5, 2001, "frame of 2001 rows exceeds 2000, result 2"},
      {1, 1, 1999, "single window of 1999 rows exceeds 1998, result 2"},
      {3, 5, 11, "3 rows per window, at least 4, result 2"},
      {1, 7, 1800, "band of 12600 values exceeds 12000, result 2"},
  };
  set_flicker_state(EV_TABLE_50HZ);
  std::vector<std::int32_t> grid(2001 * 11, 1000);
  for (const Case& c : cases) {
    kestrel_test::LogCapture log;
    line_curr_working_memory[0] = -5;
    EXPECT_EQ(Detect(grid, grid, c.n_win_h, c.n_win_w, c.win_ht), 2);
    ASSERT_EQ(log.Lines().size(), 1u) << c.text;
    EXPECT_EQ(log.Lines()[0], std::string("[detectFlicker_SW_2x5] refused: ") + c.text);
    EXPECT_EQ(line_curr_working_memory[0], -5);
    EXPECT_EQ(g_queueCount, 0);
  }
  // Longer than the tables, and no tables at all.
  testing::internal::CaptureStdout();
  flicker_init_2x5(1389, 255, 100, 4, 0, 100e6);  // width 256
  testing::internal::GetCapturedStdout();
  {
    kestrel_test::LogCapture log;
    EXPECT_EQ(Detect(grid, grid, 3, 5, 300), 2);
    EXPECT_TRUE(log.Contains(
        "[detectFlicker_SW_2x5] refused: frame of 300 rows exceeds the table width 256, result 2"));
  }
  flicker_uninit();
  {
    kestrel_test::LogCapture log;
    EXPECT_EQ(Detect(grid, grid, 3, 5, 300), 2);
    EXPECT_TRUE(log.Contains("[detectFlicker_SW_2x5] refused: no tables, result 2"));
  }
}

TEST_F(TwoByFiveDriver, LargestFramesRunAndQueueTheirScore) {
  struct Case {
    std::int32_t n_win_h, n_win_w, win_ht;
  };
  std::vector<std::int32_t> grid(2000 * 10);
  for (std::size_t i = 0; i < grid.size(); ++i) grid[i] = 1000 + static_cast<std::int32_t>(i % 37);
  for (const Case c : {Case{2, 6, 2000}, Case{10, 10, 2000}, Case{1, 1, 1998}, Case{1, 6, 40}}) {
    kestrel_test::LogCapture log;
    g_queueCount = 0;
    Detect(grid, grid, c.n_win_h, c.n_win_w, c.win_ht);
    for (const auto& line : log.Lines()) EXPECT_EQ(line.find("refused"), std::string::npos) << line;
    EXPECT_EQ(g_queueCount, 1) << c.win_ht;
  }
}

// A frame rejected for exposure still queues a score, of 0.
TEST_F(TwoByFiveDriver, ExposureRejectionQueuesZero) {
  std::vector<std::int32_t> prev(540 * 5, 1000);
  std::vector<std::int32_t> cur(540 * 5, 2000);
  g_scoreQueue[1] = 55;
  Detect(prev, cur, 3, 5, 540);
  EXPECT_EQ(g_queueCount, 1);
  EXPECT_EQ(g_scoreQueue[g_queueHead], 0);
}

}  // namespace
