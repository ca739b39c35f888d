// SPDX-License-Identifier: Apache-2.0
// Command entry: dispatch, the exact log sequences of the handlers, and refused commands.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "interface/interface.h"
#include "standard/standard.h"
#include "support.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;
using Lines = std::vector<std::string>;

class Command : public LibraryTest {
 protected:
  void TearDown() override {
    SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
    LibraryTest::TearDown();
  }
};

TEST_F(Command, UnknownCodesAreLoggedAndIgnored) {
  LogCapture log;
  SendCmdFlk(static_cast<FlkCmd>(7), nullptr, nullptr);
  SendCmdFlk(static_cast<FlkCmd>(-1), nullptr, nullptr);
  EXPECT_EQ(log.Lines(), (Lines{"[SendCmdFlk] Unknown command!", "[SendCmdFlk] Unknown command!"}));
}

TEST_F(Command, DetectOfAnUnknownTypeAnswersFiftyHertz) {
  FlkDetectPara para{};
  para.type = 3;
  para.n_win_h = 2;
  para.n_win_w = 4;
  para.win_wd = 8;
  para.win_ht = 16;
  para.cur_freq = 50;
  std::int32_t result = -7;
  LogCapture log;
  SendCmdFlk(CMD_DETECT, &para, &result);
  EXPECT_EQ(result, 2);
  EXPECT_EQ(g_queueCount, 0);
  EXPECT_EQ(log.Lines(),
            (Lines{"[SendCmdFlk] CMD_DETECT",
                   "[DoCmdDetect] type(3) n_win_h(2) n_win_w(4) win_wd(8) win_ht(16) cur_freq(50)",
                   "[DoCmdDetect] Unknown sensor type!"}));
}

TEST_F(Command, InitOfAnUnknownTypeInitialisesNothing) {
  FlkInitPara para{5, 3000, 1200, 64, 24000000.0, 2, 1};
  LogCapture log;
  SendCmdFlk(CMD_INIT, &para, nullptr);
  EXPECT_EQ(log.Lines(), (Lines{"[SendCmdFlk] CMD_INIT",
                                "[DoCmdInit] type(5) line_length(3000) column_length(1200) "
                                "window_width(64) pclk(24000000.000000) block_height(2) "
                                "green_only(1)",
                                "[DoCmdInit] Unknown sensor type!"}));
  EXPECT_EQ(g_flkTabType, -1);
}

TEST_F(Command, FlowFlagBracketsEveryHandler) {
  g_logFlow = 1;
  LogCapture log;
  SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
  SendCmdFlk(CMD_UNINIT, nullptr, nullptr);  // twice is harmless
  EXPECT_EQ(log.Lines(),
            (Lines{"[SendCmdFlk] CMD_RESET_QUEUE", "[DoCmdResetQueue] +", "[DoCmdResetQueue] -",
                   "[SendCmdFlk] CMD_UNINIT", "[DoCmdUninit] +", "[DoCmdUninit] -",
                   "[SendCmdFlk] CMD_UNINIT", "[DoCmdUninit] +", "[DoCmdUninit] -"}));
  EXPECT_EQ(g_flkTab1, nullptr);
}

TEST_F(Command, SetLogLevelBracketsFollowTheFlagAtEachEnd) {
  FlkLogPara on = 1;
  FlkLogPara off = 0;
  LogCapture log;
  SendCmdFlk(CMD_SET_LOG_LEVEL, &on, nullptr);
  SendCmdFlk(CMD_SET_LOG_LEVEL, &off, nullptr);
  EXPECT_EQ(log.Lines(),
            (Lines{"[SendCmdFlk] CMD_SET_LOG_LEVEL", "[set_log_level] log_flow(1) log_line_data(0)",
                   "[set_log] state(1)", "[DoCmdSetLogLevel] -", "[SendCmdFlk] CMD_SET_LOG_LEVEL",
                   "[DoCmdSetLogLevel] +", "[set_log_level] log_flow(0) log_line_data(0)",
                   "[set_log] state(0)"}));
}

struct LogLevelCase {
  FlkLogPara word;
  std::int32_t flow, line_data, state;
};
class LogLevel : public LibraryTest, public ::testing::WithParamInterface<LogLevelCase> {};

TEST_P(LogLevel, SetsTheThreeFlags) {
  FlkLogPara word = GetParam().word;
  LogCapture log;
  SendCmdFlk(CMD_SET_LOG_LEVEL, &word, nullptr);
  EXPECT_EQ(g_logFlow, GetParam().flow);
  EXPECT_EQ(g_logLineData, GetParam().line_data);
  EXPECT_EQ(g_logState, GetParam().state);
}

INSTANTIATE_TEST_SUITE_P(Words, LogLevel,
                         ::testing::Values(LogLevelCase{1, 1, 0, 1}, LogLevelCase{2, 0, 1, 0},
                                           LogLevelCase{3, 1, 1, 1}, LogLevelCase{4, 0, 0, 0}),
                         [](const auto& info) { return "Word" + std::to_string(info.param.word); });

TEST_F(Command, SetStateLogsTheValueAndSetsTheResult) {
  EvTable state = EV_TABLE_50HZ;
  LogCapture log;
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);
  EXPECT_EQ(g_flickerResult, 2);
  EXPECT_EQ(log.Lines(), (Lines{"[SendCmdFlk] CMD_SET_STATE", "[DoCmdSetState] set state(0)"}));

  g_logState = 1;
  log.Clear();
  state = EV_TABLE_60HZ;
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);
  EXPECT_EQ(g_flickerResult, 3);
  EXPECT_EQ(log.Lines(), (Lines{"[SendCmdFlk] CMD_SET_STATE", "[DoCmdSetState] set state(1)",
                                "Set flicker state (60hz) according to 1"}));
}

TEST_F(Command, SetExtParaDumpsTwelveLinesUnderTheFlowFlag) {
  FlkExtPara para = FlkDefaultExtPara();
  para.flicker_search_range = 24;
  para.min_past_frames = 5;
  para.is_zhdr = 1;
  LogCapture log;
  SendCmdFlk(CMD_SET_EXT_PARA, &para, nullptr);
  EXPECT_EQ(log.Lines(), (Lines{"[SendCmdFlk] CMD_SET_EXT_PARA"}));  // silent with logging off
  EXPECT_EQ(flicker_search_range, 24);
  EXPECT_EQ(min_past_frames, 5);
  EXPECT_EQ(is_zhdr, 1);

  g_logFlow = 1;
  log.Clear();
  para.ev60_thresholds[1] = 11;
  para.zhdr_gle_first = 0;
  SendCmdFlk(CMD_SET_EXT_PARA, &para, nullptr);
  EXPECT_EQ(
      log.Lines(),
      (Lines{"[SendCmdFlk] CMD_SET_EXT_PARA", "[DoCmdSetExtPara] +",
             "flicker_freq[]=70 80 90 100 120 130 140 160 170", "flicker_grad_threshold=42",
             "flicker_search_range=24", "min_past_frames=5", "max_past_frames=14",
             "ev50_l50=-194 4721 381 -766", "ev50_l60=1159 401 749 -384",
             "ev60_l50=1383 422 1115 -458", "ev60_l60=-162 2898 247 -642", "ev50_thresholds=-30 8",
             "ev60_thresholds=-30 11", "freq_feature_index=4 3", "[DoCmdSetExtPara] -"}));
  EXPECT_EQ(ev60_thresholds[1], 11);
  EXPECT_EQ(zhdr_gle_first, 0);
}

TEST_F(Command, DetectWithoutTablesIsRefusedWithTheCurrentResult) {
  EvTable state = EV_TABLE_60HZ;
  SendCmdFlk(CMD_SET_STATE, &state, nullptr);
  std::int64_t grid[64] = {};
  FlkDetectPara para{};
  para.type = 0;
  para.prev_stats = grid;
  para.cur_stats = grid;
  para.n_win_h = 1;
  para.n_win_w = 4;
  para.win_wd = 16;
  para.win_ht = 16;
  std::int32_t result = 0;
  LogCapture log;
  SendCmdFlk(CMD_DETECT, &para, &result);
  EXPECT_EQ(result, 3);
  EXPECT_TRUE(log.Contains(
      "[DoCmdDetect] refused: no tables for sensor type 0 (CMD_INIT of that type first), "
      "result 3"));
  EXPECT_EQ(g_queueCount, 0);
}

TEST_F(Command, MissingRecordsAreRefused) {
  std::int32_t result = -1;
  LogCapture log;
  SendCmdFlk(CMD_DETECT, nullptr, &result);
  SendCmdFlk(CMD_INIT, nullptr, nullptr);
  SendCmdFlk(CMD_SET_STATE, nullptr, nullptr);
  SendCmdFlk(CMD_SET_EXT_PARA, nullptr, nullptr);
  SendCmdFlk(CMD_SET_LOG_LEVEL, nullptr, nullptr);
  EXPECT_EQ(result, 0);  // no state set yet
  EXPECT_EQ(
      log.Lines(),
      (Lines{"[SendCmdFlk] CMD_DETECT", "[DoCmdDetect] refused: no FlkDetectPara record, result 0",
             "[SendCmdFlk] CMD_INIT", "[DoCmdInit] refused: no FlkInitPara record",
             "[SendCmdFlk] CMD_SET_STATE", "[DoCmdSetState] refused: no EvTable value",
             "[SendCmdFlk] CMD_SET_EXT_PARA", "[DoCmdSetExtPara] refused: no FlkExtPara record",
             "[SendCmdFlk] CMD_SET_LOG_LEVEL", "[DoCmdSetLogLevel] refused: no FlkLogPara word"}));
}

}  // namespace
