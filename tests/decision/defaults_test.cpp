// SPDX-License-Identifier: Apache-2.0
// The compiled-in tuning and state at load. The values themselves are pinned by the SET_EXT_PARA
// dump of the host's copy; here the library's globals must equal that copy.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <vector>

#include "decision/decision.h"
#include "interface/interface.h"

namespace {

using Values = std::vector<std::int32_t>;

// Each test runs in a fresh process, so these are the values at load.
TEST(Defaults, LibraryAtLoadEqualsTheHostCopy) {
  const FlkExtPara d = FlkDefaultExtPara();
  auto same = [](const auto& host, const std::int32_t* library) {
    return std::equal(std::begin(host), std::end(host), library);
  };
  EXPECT_TRUE(same(d.flicker_freq, g_flickerFreq) && same(d.ev50_l50, ev50_l50) &&
              same(d.ev50_l60, ev50_l60) && same(d.ev60_l50, ev60_l50) &&
              same(d.ev60_l60, ev60_l60) && same(d.ev50_thresholds, ev50_thresholds) &&
              same(d.ev60_thresholds, ev60_thresholds) &&
              same(d.freq_feature_index, freq_feature_index));
  EXPECT_EQ((Values{flicker_grad_threshold, flicker_search_range, min_past_frames, g_maxPastFrames,
                    is_zhdr, zhdr_se_small, zhdr_gle_first}),
            (Values{d.flicker_grad_threshold, d.flicker_search_range, d.min_past_frames,
                    d.max_past_frames, d.is_zhdr, d.zhdr_se_small, d.zhdr_gle_first}));
  // No state set, no result, an empty queue, logging off.
  EXPECT_EQ((Values{g_flickerStateIndex, g_flickerResult, g_queueCount, g_logFlow, g_logLineData,
                    g_logState}),
            Values(6, 0));
}

}  // namespace
