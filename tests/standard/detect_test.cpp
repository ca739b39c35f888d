// SPDX-License-Identifier: Apache-2.0
// Standard detection driver: geometry refusals before any work. Whole frames of every family are
// pinned by the reference comparison.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LogCapture;
using Grid = std::vector<std::int64_t>;
using Lines = std::vector<std::string>;

// Sensor timing of the INIT: lines of 2000 clocks at 96 MHz, statistics windows 4000 pixels wide;
// 1500 lines give tables of 500 columns.
void Init(std::int32_t column_length) {
  FlkInitPara init{FLK_SENSOR_STANDARD, 2000, column_length, 4000, 96e6, 0, 0};
  testing::internal::CaptureStdout();
  SendCmdFlk(CMD_INIT, &init, nullptr);
  testing::internal::GetCapturedStdout();
}

// The driver itself, without the command layer's lines.
std::int32_t Driver(Grid& prev, Grid& cur, std::int32_t n_win_h, std::int32_t n_win_w,
                    std::int32_t win_ht) {
  return detectFlicker_SW(prev.data(), cur.data(), n_win_h, n_win_w, 1000, win_ht, 0, {}, {}, {},
                          nullptr);
}

class DetectTest : public kestrel_test::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    Init(1500);
    set_flicker_state(EV_TABLE_50HZ);
  }
  void TearDown() override {
    SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
    LibraryTest::TearDown();
  }
};

// One line naming the limit and the current result; grids, line vectors and queue untouched.
TEST_F(DetectTest, RefusesGeometryOutsideTheBuffersBeforeAnyWork) {
  const std::int64_t packed = (std::int64_t{5} << 36) | 1234;
  Grid prev(13000, packed);
  Grid cur(13000, packed);
  line_prev_working_memory[0] = -77;
  g_queueHead = g_queueCount = 4;
  for (const auto& [n_win_h, n_win_w, win_ht, zhdr, limit] :
       {std::tuple{11, 1, 100, 0, "n_win_h 11 outside 1..10"},
        {1, 0, 250, 0, "n_win_w 0 outside 1..10"},
        {6, 4, 52, 0, "win_ht 52 outside 53..2000"},
        {1, 4, 2001, 0, "win_ht 2001 outside 53..2000"},
        {4, 1, 1501, 0, "n_win_h x win_ht = 6004 above 6000 rows"},
        {1, 7, 1715, 0, "win_ht x n_win_w = 12005 above 12000 values"},
        // 4 windows of 504 rows: 4 x 126 = 504 log-ratio samples against 500 table columns.
        {4, 1, 504, 0, "504 log-ratio samples above the table row of 500"},
        {4, 4, 100, 1, "zHDR windows 4 x 4 above 12"},
        // Odd bands: zHDR windows of 100 rows, so 404 rows make five window rows.
        {4, 3, 101, 1, "zHDR windows 5 x 3 above 12"},
        // One band of 401 rows: windows of 400, the last row alone in a second window row.
        {1, 7, 401, 1, "zHDR windows 2 x 7 above 12"}}) {
    is_zhdr = static_cast<std::uint8_t>(zhdr);
    LogCapture log;
    EXPECT_EQ(Driver(prev, cur, n_win_h, n_win_w, win_ht), 2);
    EXPECT_EQ(log.Lines(),
              Lines{"[detectFlicker_SW] refused: " + std::string(limit) + ", result 2"});
  }
  EXPECT_EQ(prev, Grid(13000, packed));  // not even unpacked
  EXPECT_EQ(cur, Grid(13000, packed));
  EXPECT_EQ(line_prev_working_memory[0], -77);
  EXPECT_EQ(std::pair(g_queueHead, g_queueCount), std::pair(4, 4));

  // The largest accepted geometries run (tables of 1500 columns for 6000 lines).
  Init(6000);
  is_zhdr = 0;
  for (const auto& [n_win_h, n_win_w, win_ht] :
       {std::tuple{1, 2, 53}, {10, 2, 600}, {3, 6, 2000}, {1, 10, 1200}}) {
    Grid flat(static_cast<std::size_t>(n_win_h * n_win_w * win_ht), 1000000);
    LogCapture log;
    EXPECT_EQ(Driver(flat, flat, n_win_h, n_win_w, win_ht), 2);
    for (const std::string& line : log.Lines()) EXPECT_EQ(line.find("refused"), std::string::npos);
  }

  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  LogCapture log;
  EXPECT_EQ(detectFlicker_SW(nullptr, cur.data(), 1, 1, 1000, 100, 0, {}, {}, {}, nullptr), 2);
  EXPECT_EQ(Driver(prev, cur, 1, 1, 100), 2);
  EXPECT_EQ(log.Lines(),
            (Lines{"[detectFlicker_SW] refused: missing statistics grid, result 2",
                   "[detectFlicker_SW] refused: no tables (INIT type 0 first), result 2"}));
}

}  // namespace
