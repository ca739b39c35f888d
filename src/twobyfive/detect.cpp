// SPDX-License-Identifier: Apache-2.0
// 2x5 detection driver: column selection, alignment and the score-driven sequential test.
#include "twobyfive/twobyfive.h"

#include "decision/decision.h"

// Placeholder until the 2x5 driver lands.
std::int32_t detectFlicker_SW_2x5(std::int32_t*, std::int32_t*, std::int32_t, std::int32_t,
                                  std::int32_t, std::int32_t, std::int32_t, FlkSensorInfo,
                                  FlkEISVector, FlkAEInfo, std::int32_t*) {
  return g_flickerResult;
}
