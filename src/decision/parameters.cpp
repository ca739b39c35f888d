// SPDX-License-Identifier: Apache-2.0
// Tuning parameters with their compiled-in defaults, the flicker state and the queue reset.
#include "decision/decision.h"

#include <algorithm>
#include <iterator>

#include "interface/interface.h"

std::int32_t g_flickerFreq[9] = {70, 80, 90, 100, 120, 130, 140, 160, 170};
std::int32_t flicker_grad_threshold = 42;
std::int32_t flicker_search_range = 32;
std::int32_t min_past_frames = 3;
std::int32_t g_maxPastFrames = 14;
std::int32_t ev50_l50[4] = {-194, 4721, 381, -766};
std::int32_t ev50_l60[4] = {1159, 401, 749, -384};
std::int32_t ev60_l50[4] = {1383, 422, 1115, -458};
std::int32_t ev60_l60[4] = {-162, 2898, 247, -642};
std::int32_t ev50_thresholds[2] = {-30, 8};
std::int32_t ev60_thresholds[2] = {-30, 8};
std::int32_t freq_feature_index[2] = {4, 3};
std::uint8_t is_zhdr = 0;
std::uint8_t zhdr_se_small = 0;
std::uint8_t zhdr_gle_first = 1;

std::int32_t g_flickerStateIndex = 0;
std::int32_t g_flickerResult = 0;

void flicker_setExtPara(FlkExtPara* para) {
  if (g_logFlow) {
    const std::int32_t* f = para->flicker_freq;
    PrintLogFlk("flicker_freq[]=%d %d %d %d %d %d %d %d %d", f[0], f[1], f[2], f[3], f[4], f[5],
                f[6], f[7], f[8]);
  }
  if (g_logFlow) PrintLogFlk("flicker_grad_threshold=%d", para->flicker_grad_threshold);
  if (g_logFlow) PrintLogFlk("flicker_search_range=%d", para->flicker_search_range);
  if (g_logFlow) PrintLogFlk("min_past_frames=%d", para->min_past_frames);
  if (g_logFlow) PrintLogFlk("max_past_frames=%d", para->max_past_frames);
  const auto log_table = [](const char* fmt, const std::int32_t* t) {
    if (g_logFlow) PrintLogFlk(fmt, t[0], t[1], t[2], t[3]);
  };
  log_table("ev50_l50=%d %d %d %d", para->ev50_l50);
  log_table("ev50_l60=%d %d %d %d", para->ev50_l60);
  log_table("ev60_l50=%d %d %d %d", para->ev60_l50);
  log_table("ev60_l60=%d %d %d %d", para->ev60_l60);
  if (g_logFlow) {
    PrintLogFlk("ev50_thresholds=%d %d", para->ev50_thresholds[0], para->ev50_thresholds[1]);
  }
  if (g_logFlow) {
    PrintLogFlk("ev60_thresholds=%d %d", para->ev60_thresholds[0], para->ev60_thresholds[1]);
  }
  if (g_logFlow) {
    PrintLogFlk("freq_feature_index=%d %d", para->freq_feature_index[0],
                para->freq_feature_index[1]);
  }

  std::copy(std::begin(para->flicker_freq), std::end(para->flicker_freq), g_flickerFreq);
  flicker_grad_threshold = para->flicker_grad_threshold;
  flicker_search_range = para->flicker_search_range;
  g_maxPastFrames = para->max_past_frames;
  flicker_setExtPara_seq(para);
  is_zhdr = para->is_zhdr;
  zhdr_se_small = para->zhdr_se_small;
  zhdr_gle_first = para->zhdr_gle_first;
}

FlkExtPara* flicker_setExtPara_seq(FlkExtPara* para) {
  std::copy(std::begin(para->ev50_l50), std::end(para->ev50_l50), ev50_l50);
  std::copy(std::begin(para->ev50_l60), std::end(para->ev50_l60), ev50_l60);
  std::copy(std::begin(para->ev60_l50), std::end(para->ev60_l50), ev60_l50);
  std::copy(std::begin(para->ev60_l60), std::end(para->ev60_l60), ev60_l60);
  std::copy(std::begin(para->ev50_thresholds), std::end(para->ev50_thresholds), ev50_thresholds);
  std::copy(std::begin(para->ev60_thresholds), std::end(para->ev60_thresholds), ev60_thresholds);
  std::copy(std::begin(para->freq_feature_index), std::end(para->freq_feature_index),
            freq_feature_index);
  min_past_frames = para->min_past_frames;
  return para;
}

void set_flicker_state(EvTable s) {
  // Stored as given; every non-zero value means the 60 Hz hypothesis.
  g_flickerStateIndex = s;
  if (s != 0) {
    g_flickerResult = FLK_RESULT_60HZ;
    if (g_logState) PrintLogFlk("Set flicker state (60hz) according to %d", static_cast<int>(s));
  } else {
    g_flickerResult = FLK_RESULT_50HZ;
    if (g_logState) PrintLogFlk("Set flicker state (50hz) according to %d", 0);
  }
}

void reset_flicker_queue() {
  // The stored scores stay; they are simply no longer counted.
  g_queueHead = 0;
  g_queueCount = 0;
}
