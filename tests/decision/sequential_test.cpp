// SPDX-License-Identifier: Apache-2.0
// Sequential tests: queue ring and saturation, validity gate, threshold rounding, log lines.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "decision/decision.h"
#include "support.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;

const std::int32_t kWorked[9] = {100, 100, 100, 100, 356, 100, 100, 100, 100};  // scores 91

class SequentialTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    set_flicker_state(EV_TABLE_50HZ);
  }
};

TEST_F(LibraryTest, NoStateYetReportsZero) {
  EXPECT_EQ(test_next_frame(kWorked, 9, 1, 14), 0);
}

TEST_F(SequentialTest, FirstPushLandsAtOneAndTheRingSaturatesAt150) {
  test_next_frame_2x5(nullptr, 9, 0, 14, 5);
  EXPECT_EQ(g_queueHead, 1);
  EXPECT_EQ(g_queueCount, 1);
  for (int i = 2; i <= 150; ++i) test_next_frame_2x5(nullptr, 9, 0, 14, 5);
  EXPECT_EQ(g_queueHead, 0);
  EXPECT_EQ(g_queueCount, 150);
  test_next_frame_2x5(nullptr, 9, 0, 14, 5);
  EXPECT_EQ(g_queueHead, 1);
  EXPECT_EQ(g_queueCount, 150);
}

TEST_F(SequentialTest, InvalidFramesAreLoggedAlwaysAndNeverQueued) {
  LogCapture log;
  EXPECT_EQ(test_next_frame(kWorked, 9, 0, 14), 2);
  const std::int32_t zeros[9] = {};
  EXPECT_EQ(test_next_frame(zeros, 9, 1, 14), 2);
  EXPECT_EQ(g_queueCount, 0);
  EXPECT_EQ(log.Lines(), (std::vector<std::string>{"Seq_test: invalid mean_freq:100, is_valid:0\n",
                                                   "Seq_test: invalid mean_freq:0, is_valid:1\n"}));
}

struct ThresholdCase {
  std::int32_t last_score;  // the two first frames score 725 each
  std::int32_t result;
};
class Threshold : public SequentialTest, public ::testing::WithParamInterface<ThresholdCase> {};

TEST_P(Threshold, RoundedSumMustExceedT) {
  test_next_frame_2x5(nullptr, 9, 1, 14, 725);
  test_next_frame_2x5(nullptr, 9, 1, 14, 725);
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 1, 14, GetParam().last_score), GetParam().result);
}

// T = 8: a sum of 8 x 256 + 127 rounds to 8 and stays; + 128 rounds to 9 and switches.
INSTANTIATE_TEST_SUITE_P(Boundary, Threshold,
                         ::testing::Values(ThresholdCase{725, 2}, ThresholdCase{726, 3}),
                         [](const auto& info) {
                           return "LastScore" + std::to_string(info.param.last_score);
                         });

TEST_F(SequentialTest, ThreeStrongScoresSwitchFiftyToSixtyWithTheirLines) {
  g_logState = 1;
  LogCapture log;
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 0, 14, 3000), 2);
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 0, 14, 3000), 2);
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 0, 14, 3000), 3);
  // The upper-case conversion passes through the C library untouched and consumes no argument,
  // so the last number printed is the frame's rounded score (3128 >> 8 = 12), not the sum (35).
  EXPECT_EQ(log.Lines(),
            (std::vector<std::string>{"Seq_test: insufficient_data count:1\n",
                                      "Seq_test: insufficient_data count:2\n",
                                      "Seq_test: stats cur_state:0,cur_score:%D,seq_score:12\n",
                                      "Seq_test: switch 50 -> 60\n"}));
  EXPECT_EQ(g_flickerStateIndex, 0);  // the host confirms a switch, not the test
}

TEST_F(SequentialTest, StandardTestLogsItsStatisticsLine) {
  g_logState = 1;
  test_next_frame(kWorked, 9, 1, 14);
  test_next_frame(kWorked, 9, 1, 14);
  LogCapture log;
  EXPECT_EQ(test_next_frame(kWorked, 9, 1, 14), 2);  // 3 x 91 = 273 rounds to 1
  EXPECT_EQ(log.Lines(),
            (std::vector<std::string>{"Seq_test: stats cur_state:0,cur_feat:655,z0:1263,z1:790,"
                                      "cur_score:0,seq_score:1\n"}));
}

TEST_F(SequentialTest, SixtyHertzStateSwitchesToFifty) {
  set_flicker_state(EV_TABLE_60HZ);
  g_logState = 1;
  LogCapture log;
  for (int i = 0; i < 2; ++i) test_next_frame_2x5(nullptr, 9, 1, 14, 2000);
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 1, 14, 2000), 2);
  EXPECT_TRUE(log.Contains("Seq_test: switch 60 -> 50\n"));
}

TEST_F(SequentialTest, MaxPastZeroSumsNothing) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 1, 0, 9000), 2);
  ev50_thresholds[1] = -1;
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 1, 0, 9000), 3);
}

TEST_F(SequentialTest, OnlyTheNewestScoresCount) {
  for (int i = 0; i < 3; ++i) test_next_frame_2x5(nullptr, 9, 1, 14, 3000);
  for (int i = 0; i < 14; ++i) test_next_frame_2x5(nullptr, 9, 1, 14, -100);
  // The newest 14: 5000 + 13 x -100 = 3700, rounded 14 > 8; the early 3000s are out of reach.
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 1, 14, 5000), 3);
  EXPECT_EQ(get_slrt_score(14), 14);
}

TEST_F(SequentialTest, SlrtScoreTruncatesInsteadOfRounding) {
  test_next_frame_2x5(nullptr, 9, 1, 14, 200);
  test_next_frame_2x5(nullptr, 9, 1, 14, 200);
  EXPECT_EQ(get_slrt_score(14), 1);  // 400 / 256
  EXPECT_EQ(get_slrt_score(1), 0);   // 200 / 256
  EXPECT_EQ(get_slrt_score(0), 0);
}

TEST_F(SequentialTest, ResetQueueNeedsFreshFramesAgain) {
  for (int i = 0; i < 3; ++i) test_next_frame_2x5(nullptr, 9, 1, 14, 3000);
  reset_flicker_queue();
  EXPECT_EQ(g_queueCount, 0);
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 1, 14, 3000), 2);
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 1, 14, 3000), 2);
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 1, 14, 3000), 3);
}

}  // namespace
