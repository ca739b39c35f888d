// SPDX-License-Identifier: Apache-2.0
// Sequential tests over the shared score queue.
#include "decision/decision.h"

std::int32_t g_scoreQueue[kScoreQueueSize];
std::int32_t g_queueHead = 0;
std::int32_t g_queueCount = 0;

// Placeholders until the sequential tests land.
std::int32_t test_next_frame(const std::int32_t*, std::uint32_t, std::int8_t, std::uint32_t) {
  return g_flickerResult;
}
std::int32_t test_next_frame_2x5(const std::int32_t*, std::uint32_t, std::int8_t, std::uint32_t,
                                 std::int32_t) {
  return g_flickerResult;
}
