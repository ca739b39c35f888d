// SPDX-License-Identifier: Apache-2.0
// Sequential tests: queue ring and saturation, validity gate, threshold rounding, log lines.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "decision/decision.h"
#include "support.h"

namespace {

using kestrel_test::LibraryTest;
using kestrel_test::LogCapture;

constexpr std::int32_t kReset = -99999;  // a RESET_QUEUE in a score sequence
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

TEST_F(SequentialTest, TheRingSaturatesAt150AndTheSumWalksBackAcrossItsStart) {
  test_next_frame_2x5(nullptr, 9, 1, 3, 0);
  EXPECT_EQ(g_queueHead, 1);
  EXPECT_EQ(g_queueCount, 1);
  for (int i = 2; i <= 148; ++i) test_next_frame_2x5(nullptr, 9, 1, 3, 0);
  test_next_frame_2x5(nullptr, 9, 1, 3, 3000);  // slot 149, the ring's last
  test_next_frame_2x5(nullptr, 9, 1, 3, 0);     // slot 0
  EXPECT_EQ(g_queueHead, 0);
  EXPECT_EQ(g_queueCount, 150);
  // Slot 1: the newest three are slots 1, 0 and 149, and 3000 / 256 rounds to 12 > T = 8.
  EXPECT_EQ(test_next_frame_2x5(nullptr, 9, 1, 3, 0), 3);
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

// Valid scores pushed one by one through the 2x5 test (T = 8 in both states by default).
struct RunCase {
  const char* name;
  EvTable state;
  std::int32_t max_past, threshold;  // threshold: ev50_thresholds[1] and ev60_thresholds[1]
  std::vector<std::int32_t> scores, results;
};

void PrintTo(const RunCase& c, std::ostream* os) {
  *os << c.name;
}

class Run : public LibraryTest, public ::testing::WithParamInterface<RunCase> {};

TEST_P(Run, ResultAfterEachScore) {
  const RunCase& c = GetParam();
  set_flicker_state(c.state);
  ev50_thresholds[1] = ev60_thresholds[1] = c.threshold;
  std::vector<std::int32_t> results;
  for (const std::int32_t score : c.scores) {
    if (score == kReset) {
      reset_flicker_queue();
      continue;
    }
    results.push_back(test_next_frame_2x5(nullptr, 9, 1, c.max_past, score));
  }
  EXPECT_EQ(results, c.results);
}

// 8 x 256 + 127 rounds to 8 and stays, + 128 rounds to 9 and switches; a reset queue needs three
// fresh frames again; max_past 0 sums nothing, which switches only below a negative threshold.
INSTANTIATE_TEST_SUITE_P(
    Scores, Run,
    ::testing::Values(
        RunCase{"RoundedSumAtT", EV_TABLE_50HZ, 14, 8, {725, 725, 725}, {2, 2, 2}},
        RunCase{"RoundedSumAboveT", EV_TABLE_50HZ, 14, 8, {725, 725, 726}, {2, 2, 3}},
        RunCase{"SixtyToFifty", EV_TABLE_60HZ, 14, 8, {2000, 2000, 2000}, {3, 3, 2}},
        RunCase{"ResetNeedsThreeFreshFrames",
                EV_TABLE_50HZ,
                14,
                8,
                {3000, 3000, 3000, kReset, 3000, 3000, 3000},
                {2, 2, 3, 2, 2, 3}},
        RunCase{"MaxPastZero", EV_TABLE_50HZ, 0, 8, {9000, 9000, 9000}, {2, 2, 2}},
        RunCase{"MaxPastZeroNegativeT", EV_TABLE_50HZ, 0, -1, {9000, 9000, 9000}, {2, 2, 3}}),
    [](const ::testing::TestParamInfo<RunCase>& info) { return info.param.name; });

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

}  // namespace
