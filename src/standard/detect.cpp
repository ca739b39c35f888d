// SPDX-License-Identifier: Apache-2.0
// Standard detection driver: column selection, alignment and the sequential test for one frame.
#include "standard/standard.h"

#include "decision/decision.h"

std::int32_t line_prev_working_memory[kLineVectorSize];
std::int32_t line_curr_working_memory[kLineVectorSize];

// Placeholder until the standard driver lands.
std::int32_t detectFlicker_SW(std::int64_t*, std::int64_t*, std::int32_t, std::int32_t,
                              std::int32_t, std::int32_t, std::int32_t, FlkSensorInfo,
                              FlkEISVector, FlkAEInfo, std::int32_t*) {
  return g_flickerResult;
}
