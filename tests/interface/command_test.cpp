// SPDX-License-Identifier: Apache-2.0
// Command entry: dispatch, the exact log sequences of the handlers, and refused commands.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
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

// Commands sent under the given log flags and the exact lines they log.
struct SequenceCase {
  const char* name;
  std::int32_t flow, state;  // g_logFlow, g_logState before the commands
  void (*send)();
  Lines lines;
};

void PrintTo(const SequenceCase& c, std::ostream* os) {
  *os << c.name;
}

class Sequence : public Command, public ::testing::WithParamInterface<SequenceCase> {};

TEST_P(Sequence, LogsExactly) {
  g_logFlow = GetParam().flow;
  g_logState = GetParam().state;
  LogCapture log;
  GetParam().send();
  EXPECT_EQ(log.Lines(), GetParam().lines);
}

template <typename T>
void Send(FlkCmd cmd, T value) {
  SendCmdFlk(cmd, &value, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, Sequence,
    ::testing::Values(
        SequenceCase{"UnknownCodes",
                     0,
                     0,
                     [] {
                       SendCmdFlk(static_cast<FlkCmd>(7), nullptr, nullptr);
                       SendCmdFlk(static_cast<FlkCmd>(-1), nullptr, nullptr);
                     },
                     {"[SendCmdFlk] Unknown command!", "[SendCmdFlk] Unknown command!"}},
        // An INIT of an unknown type initialises nothing.
        SequenceCase{"InitOfUnknownType",
                     0,
                     0,
                     [] {
                       Send(CMD_INIT, FlkInitPara{5, 3000, 1200, 64, 24000000.0, 2, 1});
                       EXPECT_EQ(g_flkTabType, -1);
                     },
                     {"[SendCmdFlk] CMD_INIT",
                      "[DoCmdInit] type(5) line_length(3000) column_length(1200) window_width(64) "
                      "pclk(24000000.000000) block_height(2) green_only(1)",
                      "[DoCmdInit] Unknown sensor type!"}},
        // UNINIT twice is harmless.
        SequenceCase{"FlowBracketsEveryHandler",
                     1,
                     0,
                     [] {
                       SendCmdFlk(CMD_RESET_QUEUE, nullptr, nullptr);
                       SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
                       SendCmdFlk(CMD_UNINIT, nullptr, nullptr);
                     },
                     {"[SendCmdFlk] CMD_RESET_QUEUE", "[DoCmdResetQueue] +", "[DoCmdResetQueue] -",
                      "[SendCmdFlk] CMD_UNINIT", "[DoCmdUninit] +", "[DoCmdUninit] -",
                      "[SendCmdFlk] CMD_UNINIT", "[DoCmdUninit] +", "[DoCmdUninit] -"}},
        // Each bracket follows the flow flag as it stands at that end; bit 0 is flow and state,
        // bit 1 line data.
        SequenceCase{
            "SetLogLevelBrackets",
            0,
            0,
            [] {
              for (const FlkLogPara word : {1, 2, 3, 4, 0}) {
                Send(CMD_SET_LOG_LEVEL, word);
                EXPECT_EQ((std::vector<std::int32_t>{g_logFlow, g_logLineData, g_logState}),
                          (std::vector<std::int32_t>{word & 1, (word >> 1) & 1, word & 1}))
                    << word;
              }
            },
            {"[SendCmdFlk] CMD_SET_LOG_LEVEL", "[set_log_level] log_flow(1) log_line_data(0)",
             "[set_log] state(1)", "[DoCmdSetLogLevel] -", "[SendCmdFlk] CMD_SET_LOG_LEVEL",
             "[DoCmdSetLogLevel] +", "[set_log_level] log_flow(0) log_line_data(1)",
             "[set_log] state(0)", "[SendCmdFlk] CMD_SET_LOG_LEVEL",
             "[set_log_level] log_flow(1) log_line_data(1)", "[set_log] state(1)",
             "[DoCmdSetLogLevel] -", "[SendCmdFlk] CMD_SET_LOG_LEVEL", "[DoCmdSetLogLevel] +",
             "[set_log_level] log_flow(0) log_line_data(0)", "[set_log] state(0)",
             "[SendCmdFlk] CMD_SET_LOG_LEVEL", "[set_log_level] log_flow(0) log_line_data(0)",
             "[set_log] state(0)"}},
        SequenceCase{"SetStateLogsTheValue",
                     0,
                     0,
                     [] {
                       Send(CMD_SET_STATE, EV_TABLE_50HZ);
                       EXPECT_EQ(g_flickerResult, 2);
                     },
                     {"[SendCmdFlk] CMD_SET_STATE", "[DoCmdSetState] set state(0)"}},
        SequenceCase{"SetStateLogsTheStateUnderItsFlag",
                     0,
                     1,
                     [] {
                       Send(CMD_SET_STATE, EV_TABLE_60HZ);
                       EXPECT_EQ(g_flickerResult, 3);
                     },
                     {"[SendCmdFlk] CMD_SET_STATE", "[DoCmdSetState] set state(1)",
                      "Set flicker state (60hz) according to 1"}},
        SequenceCase{
            "MissingRecords",
            0,
            0,
            [] {
              std::int32_t result = -1;
              SendCmdFlk(CMD_DETECT, nullptr, &result);
              EXPECT_EQ(result, 0);  // no state set yet
              for (const FlkCmd cmd :
                   {CMD_INIT, CMD_SET_STATE, CMD_SET_EXT_PARA, CMD_SET_LOG_LEVEL}) {
                SendCmdFlk(cmd, nullptr, nullptr);
              }
            },
            {"[SendCmdFlk] CMD_DETECT", "[DoCmdDetect] refused: no FlkDetectPara record, result 0",
             "[SendCmdFlk] CMD_INIT", "[DoCmdInit] refused: no FlkInitPara record",
             "[SendCmdFlk] CMD_SET_STATE", "[DoCmdSetState] refused: no EvTable value",
             "[SendCmdFlk] CMD_SET_EXT_PARA", "[DoCmdSetExtPara] refused: no FlkExtPara record",
             "[SendCmdFlk] CMD_SET_LOG_LEVEL", "[DoCmdSetLogLevel] refused: no FlkLogPara word"}}),
    [](const ::testing::TestParamInfo<SequenceCase>& info) { return info.param.name; });

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

}  // namespace
