// SPDX-License-Identifier: Apache-2.0
// Tuning parameters with their compiled-in defaults, the flicker state and the queue reset.
#include "decision/decision.h"

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
