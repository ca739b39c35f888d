// SPDX-License-Identifier: Apache-2.0
// The compiled-in tuning and state at load, and the host's copy of the defaults.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "decision/decision.h"
#include "interface/interface.h"

namespace {

// Each test runs in a fresh process, so these are the values at load.
TEST(Defaults, GlobalsAtLoad) {
  const std::int32_t freq[9] = {70, 80, 90, 100, 120, 130, 140, 160, 170};
  EXPECT_TRUE(std::equal(std::begin(freq), std::end(freq), g_flickerFreq));
  EXPECT_EQ(flicker_grad_threshold, 42);
  EXPECT_EQ(flicker_search_range, 32);
  EXPECT_EQ(min_past_frames, 3);
  EXPECT_EQ(g_maxPastFrames, 14);
  EXPECT_EQ(ev50_l50[1], 4721);
  EXPECT_EQ(ev60_l60[3], -642);
  EXPECT_EQ(ev50_thresholds[1], 8);
  EXPECT_EQ(freq_feature_index[0], 4);
  EXPECT_EQ(freq_feature_index[1], 3);
  EXPECT_EQ(is_zhdr, 0);
  EXPECT_EQ(zhdr_se_small, 0);
  EXPECT_EQ(zhdr_gle_first, 1);
  EXPECT_EQ(g_flickerStateIndex, 0);
  EXPECT_EQ(g_flickerResult, 0);
  EXPECT_EQ(g_queueCount, 0);
  EXPECT_EQ(g_logFlow, 0);
  EXPECT_EQ(g_logLineData, 0);
  EXPECT_EQ(g_logState, 0);
}

TEST(Defaults, HostCopyMatchesTheLibrary) {
  FlkExtPara para = FlkDefaultExtPara();
  EXPECT_TRUE(
      std::equal(std::begin(para.flicker_freq), std::end(para.flicker_freq), g_flickerFreq));
  EXPECT_TRUE(std::equal(std::begin(para.ev50_l50), std::end(para.ev50_l50), ev50_l50));
  EXPECT_TRUE(std::equal(std::begin(para.ev50_l60), std::end(para.ev50_l60), ev50_l60));
  EXPECT_TRUE(std::equal(std::begin(para.ev60_l50), std::end(para.ev60_l50), ev60_l50));
  EXPECT_TRUE(std::equal(std::begin(para.ev60_l60), std::end(para.ev60_l60), ev60_l60));
  EXPECT_EQ(para.flicker_grad_threshold, flicker_grad_threshold);
  EXPECT_EQ(para.max_past_frames, g_maxPastFrames);
  EXPECT_EQ(para.ev60_thresholds[0], ev60_thresholds[0]);
  EXPECT_EQ(para.zhdr_gle_first, zhdr_gle_first);
}

}  // namespace
