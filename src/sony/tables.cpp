// SPDX-License-Identifier: Apache-2.0
// SONY tables: one statistics sample per line, 10-bit log table indexed directly.
#include "sony/sony.h"

// Placeholder until the SONY tables land.
void flicker_init_SONY(std::int32_t, std::int32_t, std::int32_t, double) {}
