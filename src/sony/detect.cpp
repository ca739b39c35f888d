// SPDX-License-Identifier: Apache-2.0
// SONY detection driver: tone curve, width scaling, column selection and the sequential test.
#include "sony/sony.h"

#include "decision/decision.h"

// Placeholder until the SONY driver lands.
std::int32_t detectFlicker_SW_SONY(std::int32_t*, std::int32_t*, std::int32_t, std::int32_t,
                                   std::int32_t, std::int32_t, std::int32_t, FlkSensorInfo,
                                   FlkEISVector, FlkAEInfo, std::int32_t*) {
  return g_flickerResult;
}
