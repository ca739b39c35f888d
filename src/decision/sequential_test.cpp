// SPDX-License-Identifier: Apache-2.0
// Sequential tests over the shared score queue.
#include "decision/decision.h"

#include "fixed_point.h"
#include "interface/interface.h"

std::int32_t g_scoreQueue[kScoreQueueSize];
std::int32_t g_queueHead = 0;
std::int32_t g_queueCount = 0;

namespace {

void PushScore(std::int32_t score) {
  g_queueHead = (g_queueHead + 1) % kScoreQueueSize;
  g_scoreQueue[g_queueHead] = score;
  if (g_queueCount < kScoreQueueSize) ++g_queueCount;
}

// Rounded Q8 sum of the newest min(count, max_past) scores; the sum wraps in 32 bits.
std::int32_t SequentialScore(std::uint32_t max_past) {
  const std::uint32_t count = static_cast<std::uint32_t>(g_queueCount);
  const std::uint32_t c = count < max_past ? count : max_past;
  if (c < 1) return 0;
  std::int32_t sum = 0;
  std::int32_t index = g_queueHead;
  for (std::uint32_t i = 0; i < c; ++i) {
    sum = fx::wrap_add32(sum, g_scoreQueue[index]);
    index = index == 0 ? kScoreQueueSize - 1 : index - 1;
  }
  return sum;
}

// The decision once the queue holds enough frames: the other state's code when the rounded sum
// exceeds the current state's threshold.
std::int32_t Decide(std::int32_t q) {
  const bool state50 = g_flickerStateIndex == 0;
  const std::int32_t threshold = state50 ? ev50_thresholds[1] : ev60_thresholds[1];
  if (q <= threshold) return g_flickerResult;
  if (state50) {
    if (g_logState) PrintLogFlk("Seq_test: switch 50 -> 60\n");
    return FLK_RESULT_60HZ;
  }
  if (g_logState) PrintLogFlk("Seq_test: switch 60 -> 50\n");
  return FLK_RESULT_50HZ;
}

bool TooFewFrames() {
  if (g_queueCount >= min_past_frames) return false;
  if (g_logState) PrintLogFlk("Seq_test: insufficient_data count:%d\n", g_queueCount);
  return true;
}

}  // namespace

std::int32_t test_next_frame(const std::int32_t* freq_out, std::uint32_t n, std::int8_t is_valid,
                             std::uint32_t max_past) {
  const std::int32_t k = flicker_scored_index();
  const std::int32_t mean = flicker_other_mean(freq_out, n, k);
  if (is_valid == 0 || mean <= 0) {
    PrintLogFlk("Seq_test: invalid mean_freq:%d, is_valid:%d\n", mean, is_valid);
    return g_flickerResult;
  }
  const FlkScoreTerms terms = flicker_score_terms(freq_out, n, k, mean);
  PushScore(terms.score);
  if (TooFewFrames()) return g_flickerResult;
  const std::int32_t q = fx::wrap_add32(SequentialScore(max_past), 128) >> 8;
  if (g_logState) {
    PrintLogFlk("Seq_test: stats cur_state:%d,cur_feat:%d,z0:%d,z1:%d,cur_score:%d,seq_score:%d\n",
                g_flickerStateIndex, terms.z, terms.t_own, terms.t_other,
                fx::wrap_add32(terms.score, 128) >> 8, q);
  }
  return Decide(q);
}

std::int32_t get_slrt_score(std::uint32_t max_past) {
  return SequentialScore(max_past) >> 8;
}

std::int32_t test_next_frame_2x5(const std::int32_t*, std::uint32_t, std::int8_t,
                                 std::uint32_t max_past, std::int32_t score) {
  PushScore(score);
  if (TooFewFrames()) return g_flickerResult;
  const std::int32_t q = fx::wrap_add32(SequentialScore(max_past), 128) >> 8;
  if (g_logState) {
    // The upper-case conversion is this line's own, kept as it always was; the platform's
    // printf decides what it prints.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    PrintLogFlk("Seq_test: stats cur_state:%d,cur_score:%D,seq_score:%d\n", g_flickerStateIndex,
                fx::wrap_add32(score, 128) >> 8, q);
#pragma GCC diagnostic pop
  }
  return Decide(q);
}
